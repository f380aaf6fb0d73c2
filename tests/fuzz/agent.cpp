// SPDX-License-Identifier: Apache-2.0
#include "tests/fuzz/agent.h"

#include <sys/socket.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "qel/qel_alarm.h"
#include "qel/qel_api.h"
#include "qel/qel_eth.h"
#include "qel/qel_gw.h"
#include "qel/qel_ipc.h"
#include "qel/qel_main.h"
#include "qel/qel_restart.h"
#include "qel/qel_table.h"
#include "qel/qel_udp.h"
#include "qel/qel_upgrade.h"
#include "tests/fake/fake.h"

namespace {

struct Command {
  const char* module;
  const char* command;
};

constexpr Command kCommands[] = {
    {"mono", "qel_port_config_set_all"},
    {"mono", "qel_port_enable_set"},
    {"mono", "qel_port_speed_set"},
    {"mono", "qel_port_reboot_set_all"},
    {"mono", "product_description_set"},
    {"mono", "qel_common_update_mono_portinfo"},
    {"poe", "poe_qel_port_config_set"},
    {"poe", "poe_qel_port_reboot"},
    {"poe", "poe_qel_port_config_get_all"},
    {"poe", "poe_qel_alarm_info_get"},
    {"statistics", "port_basic_statistic_get_all"},
    {"statistics", "port_statistic_qel_get_all"},
    {"statistics", "port_statistic_qel_dot3_get_all"},
    {"mstp", "mstp_qel_alarm_info_get"},
    {"llpp", "qel_llpp_port_config_get_all"},
    {"zebra", "manage_L3IF_info_set"},
    {"zebra", "manage_L3IF_info_get"},
    {"m", "c"},
};

constexpr char kReply[] =
    R"({"data":[{"name":"ge1","tx_sum":9000000000001,"rx_sum":2,"tx_rate":3,"rx_rate":4,)"
    R"("enable":1,"supply_priority":2,"method":"1"},{"name":"ge2"},{"name":"nobody"}],)"
    R"("ports":"ge1 ge3"})";

constexpr char kProbe[] = R"({"mac":"gw","cmd":"probe","subcmd":"probe","data":{"ntick":1}})";

std::string frame_of(std::string_view text) {
  std::string frame("\x0a\x1b\x2c\x3d\x4e\x5f\x02\x00\x5e\x10\x20\x30\x93\x01", 14);
  frame.append(18, '\0');
  return frame.append(text);
}

// An input may order a restart, which ends the service of a real process. Here the same process
// goes on, so what was not registered again is.
void serve_again() {
  if (!qel_restart_ordered()) {
    return;
  }
  g_qel_restart = {};
  const struct {
    const char* name;
    thread_func func;
    int fd;
  } readers[] = {{"qel_eth_read", qel_eth_read, g_qel_dev.eth_fd},
                 {"qel_udp_read", qel_udp_read, g_qel_dev.udp_fd},
                 {"qel_ipc_sock_read", qel_ipc_sock_read, fake::last_socket(AF_UNIX)}};
  for (const auto& reader : readers) {
    if (fake::registered(reader.name) == 0) {
      funcname_thread_add_read(g_qel_master, reader.func, nullptr, reader.fd, reader.name, "fuzz",
                               0);
    }
  }
}

}  // namespace

void fuzz_agent_start() {
  static bool started = false;
  if (started) {
    return;
  }
  started = true;
  // What the agent prints is not looked at.
  if (std::freopen("/dev/null", "w", stdout) == nullptr) {
    std::abort();
  }
  fake::reset();
  fake::add_ports(4);
  fake::set_nvram("qel_udp_enable", "1");
  fake::set_nvram("have_poe", "1");
  static char name[] = "qel";
  static char* arguments[] = {name, nullptr};
  qel_main(1, arguments);
  g_qel_dev.alarm_stat_enable = 1;
  g_qel_dev.debug = 0xFF;
  fuzz_agent_replies(kReply);
}

void fuzz_agent_rest() {
  serve_again();
  qel_api_conf_release();
  qel_api_download_reset();
  g_qel_conf = qel_conf_transfer{};
  g_qel_upgrade = qel_upgrade_state{};
  g_qel_upgrade_fetch = {};
  g_qel_gw = {};
  g_qel_dev.conf_busy = 0;
  g_qel_dev.sys_active = 0;
  g_qel_dev.enable = 1;
  fake::firmware() = {};
  fake::clear_records();
}

void fuzz_agent_replies(std::string_view text) {
  for (const Command& one : kCommands) {
    fake::reply(one.module, one.command, std::string(text));
  }
}

void fuzz_agent_expect_alive() {
  serve_again();
  fake::clear_records();
  g_qel_dev.enable = 1;  // the input may have switched the agent off
  fake::receive_frame(g_qel_dev.eth_fd, frame_of(kProbe));
  fake::run_reads();
  if (fake::sent().size() != 1) {
    std::fprintf(stderr, "the agent does not answer any more\n");
    std::abort();
  }
}
