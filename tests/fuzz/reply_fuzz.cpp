// SPDX-License-Identifier: Apache-2.0
//
// What a module answers, in every place that reads an answer.
#include <algorithm>
#include <cstdint>
#include <string>

#include "qel/qel_alarm.h"
#include "qel/qel_devinfo.h"
#include "qel/qel_mono.h"
#include "qel/qel_table.h"
#include "qel/qel_update.h"
#include "tests/fake/fake.h"
#include "tests/fuzz/agent.h"

namespace {

constexpr const char* kMessages[] = {
    R"({"mac":"gw","cmd":"get","subcmd":"ports_poe"})",
    R"({"mac":"gw","cmd":"get","subcmd":"ports_stats"})",
    R"({"mac":"gw","cmd":"get","subcmd":"qelipc","data":{"mdl":"m","cmd":"c"}})",
    R"({"mac":"gw","cmd":"set","subcmd":"sys_ip","data":{"sys_ip":"192.168.1.9","sys_mask":24}})",
    R"({"mac":"gw","cmd":"set","subcmd":"ports_conf","data":{"ge1":{"enable":1}}})",
    R"({"mac":"gw","cmd":"set","subcmd":"name","data":{"name":"n"}})",
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  constexpr size_t kLongest = JCLIENT_REPLY_SIZE - 1;
  fuzz_agent_start();
  fuzz_agent_replies({reinterpret_cast<const char*>(data), std::min(size, kLongest)});
  for (const char* message : kMessages) {
    fake::receive_udp(g_qel_dev.udp_fd, message, "192.168.1.99", 20681);
    fake::run_reads();
  }
  qel_alarm_scan();
  qel_devinfo_refresh();
  char* reply = qel_mono_reply_area();
  qel_mono_mstp_alarm_info_get(reply);
  qel_mono_update_ports_blocked(qel_cjson_tree(cJSON_Parse(reply)).get());
  qel_link link = {};
  link.kind = kQelLinkUdp;
  link.fd = g_qel_dev.udp_fd;
  link.addrlen = kQelUdpAddrlen;
  qel_cmd_send_update(&link, nullptr);
  fake::tick(2);
  fuzz_agent_expect_alive();
  fuzz_agent_rest();
  return 0;
}
