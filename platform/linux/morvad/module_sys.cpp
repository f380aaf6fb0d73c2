// SPDX-License-Identifier: Apache-2.0
//
// Module "sys": the system services of the library in the agent: identity, restart, factory
// settings, firmware.
#include <climits>
#include <filesystem>

#include "platform/linux/morvad/log.h"
#include "platform/linux/morvad/modules.h"
#include "platform/linux/morvad/names.h"
#include "platform/linux/paths.h"
#include "platform/sys.h"

namespace morvad {
namespace {

constexpr char kNameKey[] = "sys_name";
constexpr char kAgentConfig[] = "/var/conf/qel.conf";
constexpr char kUpgradeProgram[] = "/morva/bin/morva_upgrade";

std::string rooted(const char* path) {
  char buffer[kMorvaPathSize];
  return morva_path(buffer, sizeof buffer, path);
}

void mac_get(Context& context, const Request&, std::string& out) {
  std::string mac;
  append_mac(mac, context.sw.board().mac);
  answer_data(out, {{"mac", mac}});
}

void oem_get(Context& context, const Request&, std::string& out) {
  json words = json::array();
  for (size_t i = 0; i < OEM_INFO_WORDS; i++) {
    words.push_back(context.sw.oem_get(i));
  }
  answer_data(out, {{"words", std::move(words)}});
}

void info_get(Context& context, const Request&, std::string& out) {
  Settings& settings = context.sw.settings();
  answer_data(out, {{"name", settings.text(kNameKey, settings.text("product_description"))}});
}

void info_set(Context& context, const Request& request, std::string& out) {
  const std::string name = text_member(request.payload, "name");
  if (name.size() >= SYS_NAME_SIZE || !is_plain(name)) {
    throw Refused(
        "name: expected at most 63 bytes without control characters, quotes and backslashes");
  }
  store_or_refuse(context, {{kNameKey, name}});
  answer(out);
}

void reboot(Context& context, const Request& request, std::string& out) {
  context.host.attach(request.pid);
  context.host.restart(context.sw.board().allow_host_reboot);
  answer(out);
}

void restore_default(Context& context, const Request&, std::string& out) {
  restore_factory(context);
  answer(out);
}

void fw_upgrading(Context& context, const Request&, std::string& out) {
  const bool upgrading = context.sw.firmware().upgrading(context.host.now_ns());
  answer_data(out, {{"upgrading", upgrading ? 1 : 0}});
}

void fw_begin(Context& context, const Request&, std::string& out) {
  if (context.sw.firmware().upgrading(context.host.now_ns())) {
    throw Refused("an upgrade is under way");
  }
  context.sw.firmware().set(kFirmwareTransfer, 0, context.host.now_ns());
  answer(out);
}

void fw_fail(Context& context, const Request& request, std::string& out) {
  const int64_t code = int_member(request.payload, "code", INT_MIN, -1);
  context.sw.firmware().set(static_cast<int>(code), 0, context.host.now_ns());
  answer(out);
}

void fw_upgrade(Context& context, const Request& request, std::string& out) {
  const std::string path = text_member(request.payload, "path");
  if (path.empty() || path[0] != '/' || !is_printable(path)) {
    throw Refused("path: expected an absolute path");
  }
  Switch& sw = context.sw;
  Host& host = context.host;
  if (sw.firmware().upgrading(host.now_ns())) {
    throw Refused("an upgrade is under way");
  }
  sw.firmware().set(kFirmwareWrite, 0, host.now_ns());
  const bool started = host.run(rooted(kUpgradeProgram), path, [&sw, &host](int status) {
    log_line("firmware upgrade ended with status " + std::to_string(status));
    sw.firmware().set(status == 0 ? kFirmwareIdle : -1, status, host.now_ns());
  });
  if (!started) {
    sw.firmware().set(-1, 0, host.now_ns());
    throw Refused("the upgrade program cannot be started");
  }
  answer(out);
}

void fw_state_get(Context& context, const Request&, std::string& out) {
  const uint64_t now = context.host.now_ns();
  Firmware& firmware = context.sw.firmware();
  answer_data(out, {{"state", firmware.state(now)}, {"detail", firmware.detail(now)}});
}

void fw_state_set(Context& context, const Request& request, std::string& out) {
  const int64_t state = int_member(request.payload, "state", INT_MIN, kFirmwareWrite);
  const int64_t detail = int_member_or(request.payload, "detail", INT_MIN, INT_MAX, 0);
  context.sw.firmware().set(static_cast<int>(state), static_cast<int>(detail),
                            context.host.now_ns());
  answer(out);
}

constexpr Command kCommands[] = {
    {"mac_get", mac_get},
    {"oem_get", oem_get},
    {"info_get", info_get},
    {"info_set", info_set},
    {"reboot", reboot},
    {"restore_default", restore_default},
    {"fw_upgrading", fw_upgrading},
    {"fw_begin", fw_begin},
    {"fw_fail", fw_fail},
    {"fw_upgrade", fw_upgrade},
    {"fw_state_get", fw_state_get},
    {"fw_state_set", fw_state_set},
};

}  // namespace

const Module kSys = {"sys", kCommands, true};

void restore_factory(Context& context) {
  const int result = context.sw.settings().replace_all(context.sw.factory());
  if (result != 0) {
    throw Refused("the factory settings cannot be stored");
  }
  // The agent's own configuration is a setting too; it starts without one.
  std::error_code gone;
  std::filesystem::remove(rooted(kAgentConfig), gone);
}

}  // namespace morvad
