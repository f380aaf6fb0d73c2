// SPDX-License-Identifier: Apache-2.0
//
// The command shell: what a telnet client or the Unix socket's user types, and a saved
// configuration. The first byte chooses: 'T' telnet bytes, 'P' plain lines, 'C' a configuration.
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>

#include "platform/linux/vty_internal.h"
#include "platform/log.h"

namespace {

using morva::shell::SessionKind;

int do_nothing(const cmd_element*, vty*, int, const char**) {
  return 0;
}

int write_agent(vty* session) {
  vty_out(session, "qel enable%s!%s", vty_newline(session), vty_newline(session));
  return 1;
}

// The agent's own commands, in form.
constexpr cmd_node kInterface = {69, "", 1};
constexpr cmd_node kAgent = {97, "", 1};
constexpr cmd_element kSwitch = {"qel (enable|disable)", do_nothing, "Qel\nEnable\nDisable\n"};
constexpr cmd_element kDebug = {"qel debug <0-255>", do_nothing, "Qel\nDebug\nvalue 0~255\n"};
constexpr cmd_element kWide = {"show thing NAME <1-4294967296> (a|ab|abc)", do_nothing,
                               "Show\nThing\nName\nNumber\nA\nAb\nAbc\n"};

void install() {
  // "write" is one of the commands: it must find no folder to write into.
  setenv("MORVA_ROOT", "/nonexistent", 1);
  setenv("MORVA_LOG", "none", 1);
  cmd_init(1);
  memory_init();
  install_node(&kInterface, nullptr);
  install_node(&kAgent, write_agent);
  install_default(69);
  install_element(VTY_NODE_CONFIG, &morva_interface_cmd);
  install_element(VTY_NODE_CONFIG, &no_morva_interface_cmd);
  for (const cmd_element* one : {&kSwitch, &kDebug, &kWide}) {
    install_element(VTY_NODE_CONFIG, one);
    install_element(VTY_NODE_ENABLE, one);
  }
}

void run_session(SessionKind kind, std::string_view bytes) {
  const std::unique_ptr<vty> session = morva::shell::session_open(kind);
  morva::shell::session_greet(*session);
  while (!bytes.empty() && !session->closing && !session->dropped) {
    const std::string_view chunk = bytes.substr(0, morva::shell::kInputChunk);
    bytes.remove_prefix(chunk.size());
    morva::shell::session_feed(*session,
                               {reinterpret_cast<const uint8_t*>(chunk.data()), chunk.size()});
    while (morva::shell::session_has_input(*session) && !session->closing && !session->dropped) {
      morva::shell::session_step(*session);
      if (session->output.size() > morva::shell::kOutputMaximum) {
        std::abort();  // a client that does not read must not cost memory
      }
      session->output.clear();
    }
  }
  if (session->editor.line.size() > morva::shell::Editor::kMaximum ||
      session->editor.cursor > session->editor.line.size()) {
    std::abort();
  }
  morva::shell::session_expire(*session);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool installed = (install(), true);
  if (!installed || size == 0) {
    return 0;
  }
  const std::string_view text(reinterpret_cast<const char*>(data + 1), size - 1);
  if (data[0] == 'C') {
    morva::shell::config_apply(text);
  } else {
    run_session(data[0] == 'P' ? SessionKind::kPlain : SessionKind::kTelnet, text);
  }
  return 0;
}
