// SPDX-License-Identifier: Apache-2.0
//
// A day in the life of the agent, in simulated time: 86,400 ticks with four gateways that probe,
// ports that ask for every report, local events, links that come and go, and archives that are held
// and dropped. Prints the heap in use at every hour; the exit status is 1 when the last hour's is
// above the second's (the first fills what is kept).
#include <malloc.h>

#include <cstdio>
#include <string>

#include "qel/qel_table.h"
#include "tests/fake/fake.h"
#include "tests/fuzz/agent.h"

namespace {

constexpr unsigned kHour = 3600;
constexpr unsigned kHours = 24;
constexpr unsigned kProbeEvery = 5;
constexpr const char* kReports[] = {"ports_info",  "ports_conf",   "ports_link", "ports_poe",
                                    "ports_stats", "ports_client", "ping"};

void receive(const std::string& text) {
  fake::receive_udp(g_qel_dev.udp_fd, text, "192.168.1.99", 20681);
}

void one_second(unsigned second) {
  const std::string gateway = "gw" + std::to_string(second % 4);
  if (second % kProbeEvery < 4) {
    receive(R"({"mac":")" + gateway + R"(","cmd":"probe","subcmd":"probe","data":{"ntick":1}})");
  }
  for (const char* report : kReports) {
    receive(R"({"mac":"gw","cmd":"get","subcmd":")" + std::string(report) + R"(","data":{"n":)" +
            std::to_string(second) + "}}");
  }
  if (second % 60 == 0) {
    fake::receive_local(fake::last_socket(AF_UNIX),
                        R"({"type":"lldp_add","local_interface":"ge1","mac":"00:11:22:33:44:55"})");
    receive(R"({"cmd":"set","subcmd":"config_upload","data":{"index":0}})");
  }
  if (second % 7 == 0) {
    fake::if_status("ge2", static_cast<int>(second % 2));
  }
  fake::run_reads();
  fake::tick();
  fake::clear_records();
}

}  // namespace

int main() {
  fuzz_agent_start();
  fake::set_file("/var/conf/getconf.tar.gz", std::string(3000, 'a'));
  size_t second_hour = 0;
  size_t last = 0;
  for (unsigned hour = 1; hour <= kHours; ++hour) {
    for (unsigned second = 0; second < kHour; ++second) {
      one_second(hour * kHour + second);
    }
    last = mallinfo2().uordblks;
    second_hour = hour == 2 ? last : second_hour;
    std::fprintf(stderr, "hour %2u: %zu bytes in use\n", hour, last);
  }
  fuzz_agent_expect_alive();
  return last > second_hour ? 1 : 0;
}
