// SPDX-License-Identifier: Apache-2.0
//
// See support.h.
#include "tests/unit/vty/support.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace vtytest {
namespace {

using morva::shell::SessionKind;

int switch_agent(const cmd_element* element, vty* session, int argc, const char** argv) {
  enabled() = argv[0][0] == 'e' ? 1 : 0;
  return note_call(element, session, argc, argv);
}

int write_nothing(vty*) {
  return 1;
}

int write_agent(vty* session) {
  vty_out(session, enabled() != 0 ? "qel enable%s" : "qel disable%s", vty_newline(session));
  vty_out(session, "!%s", vty_newline(session));
  return 1;
}

constexpr cmd_node kInterface = {69, "", 1};
constexpr cmd_node kAgent = {97, "", 1};
constexpr cmd_node kOther = {68, "", 1};
constexpr cmd_element kSwitch = {"qel (enable|disable)", switch_agent,
                                 "Qel information\nEnable qel-eth\nDisable qel-eth\n"};
constexpr cmd_element kDebug = {
    "qel debug <0-255>", note_call,
    "Debugging functions (see also 'undebug')\nDebug qel module\nvalue 0~255\n"};

}  // namespace

std::vector<std::string>& calls() {
  static std::vector<std::string> instance;
  return instance;
}

int& enabled() {
  static int instance = 1;
  return instance;
}

int note_call(const cmd_element* element, vty*, int argc, const char** argv) {
  std::string call = element->string;
  for (int i = 0; i < argc; i++) {
    call += std::string(i == 0 ? " -> " : " ") + argv[i];
  }
  calls().push_back(call);
  return 0;
}

void install_daemon() {
  calls().clear();
  enabled() = 1;
  cmd_init(1);
  memory_init();
  install_node(&kInterface, write_nothing);
  install_node(&kAgent, write_agent);
  install_node(&kOther, nullptr);
  install_default(68);
  install_default(69);
  install_element(VTY_NODE_CONFIG, &morva_interface_cmd);
  install_element(69, &morva_interface_cmd);
  install_element(VTY_NODE_CONFIG, &no_morva_interface_cmd);
  install_element(VTY_NODE_CONFIG, &kSwitch);
  install_element(VTY_NODE_CONFIG, &kDebug);
}

void Screen::feed(std::string_view bytes) {
  for (const char byte : bytes) {
    switch (byte) {
      case '\r':
        column_ = 0;
        break;
      case '\n':
        above_ += row() + "\n";
        row_.clear();
        column_ = 0;
        break;
      case '\b':
        ASSERT_GT(column_, 0u) << "stepped back over the edge";
        column_--;
        break;
      case '\a':
        bells_++;
        break;
      default:
        ASSERT_TRUE(byte >= 0x20 && byte < 0x7f) << "not for a terminal: " << int{byte};
        row_.resize(std::max(row_.size(), column_ + 1), ' ');
        row_[column_++] = byte;
    }
  }
}

std::string Screen::row() const {
  const size_t last = row_.find_last_not_of(' ');
  return last == std::string::npos ? "" : row_.substr(0, last + 1);
}

std::string Screen::text() const {
  return above_ + row();
}

Shell::Shell(SessionKind kind) : session_(morva::shell::session_open(kind)) {}

std::string Shell::exchange(std::string_view bytes) {
  while (!bytes.empty()) {
    const std::string_view chunk = bytes.substr(0, morva::shell::kInputChunk);
    bytes.remove_prefix(chunk.size());
    morva::shell::session_feed(*session_,
                               {reinterpret_cast<const uint8_t*>(chunk.data()), chunk.size()});
    while (morva::shell::session_has_input(*session_) && !session_->closing && !session_->dropped) {
      morva::shell::session_step(*session_);
    }
  }
  return std::exchange(session_->output, std::string());
}

void Shell::type(std::string_view bytes) {
  screen_.feed(exchange(bytes));
}

Root::Root() {
  char name[] = "/tmp/vty-test-XXXXXX";
  folder_ = mkdtemp(name);
  std::filesystem::create_directories(folder_ + "/var/conf");
  std::filesystem::create_directories(folder_ + "/var/run");
  setenv("MORVA_ROOT", folder_.c_str(), 1);
}

Root::~Root() {
  unsetenv("MORVA_ROOT");
  std::filesystem::remove_all(folder_);
}

std::string Root::read(const std::string& name) const {
  std::ifstream file(path(name), std::ios::binary);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

void Root::write(const std::string& name, std::string_view text) const {
  std::ofstream(path(name), std::ios::binary) << text;
}

}  // namespace vtytest
