// SPDX-License-Identifier: Apache-2.0
//
// How the agent's own work grows: the tick and the reports with the number of ports, the MAC scan
// with the size of the table. In one process on the fake platform, so that nothing but the agent's
// code is in the figures. Prints one line of JSON; all times are nanoseconds for one call, the
// least of several rounds.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <string>
#include <vector>

#include "qel/qel_gw.h"
#include "qel/qel_json.h"
#include "qel/qel_mac.h"
#include "qel/qel_main.h"
#include "qel/qel_table.h"
#include "tests/fake/fake.h"

namespace {

constexpr int kRounds = 9;

uint64_t cpu_ns() {
  timespec time = {};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
  return static_cast<uint64_t>(time.tv_sec) * 1000000000U + static_cast<uint64_t>(time.tv_nsec);
}

template <typename Work>
double per_call(int calls, Work work) {
  uint64_t least = UINT64_MAX;
  for (int round = 0; round < kRounds; ++round) {
    const uint64_t start = cpu_ns();
    for (int i = 0; i < calls; ++i) {
      work();
    }
    least = std::min(least, cpu_ns() - start);
    fake::clear_records();
  }
  return static_cast<double>(least) / calls;
}

void start(int ports) {
  fake::reset();
  g_qel_dev = qel_dev{};
  g_qel_master = fake::master();
  fake::add_ports(ports);
  qel_table_dev_init();
  qel_dev_init();
}

double tick(int ports) {
  start(ports);
  return per_call(2000, [] { qel_gw_timer(); });
}

double link_report(int ports) {
  static qel_text_area<kQelMessageSize> area;
  start(ports);
  return per_call(500, [] { qel_json_port_link(area.begin()); });
}

double mac_scan(uint32_t entries) {
  start(28);
  for (uint32_t i = 0; i < entries; ++i) {
    hal_mac_entry entry = {};
    entry.port = 0x01000001 + i % 28;
    entry.type = 2;
    entry.vid = 1;
    entry.mac[3] = static_cast<uint8_t>(i >> 16);
    entry.mac[4] = static_cast<uint8_t>(i >> 8);
    entry.mac[5] = static_cast<uint8_t>(i);
    entry.aging_time = 300;
    fake::add_mac_entry(entry);
  }
  qel_mac_scan_check_l2_map();
  return per_call(5, [] { qel_mac_scan_check_l2_map(); });
}

template <typename Size, typename Measure>
void print(const char* name, const std::vector<Size>& sizes, Measure measure, const char* end) {
  std::printf("\"%s\":{", name);
  for (size_t i = 0; i < sizes.size(); ++i) {
    std::printf("%s\"%u\":%.1f", i > 0 ? "," : "", static_cast<unsigned>(sizes[i]),
                measure(sizes[i]));
  }
  std::printf("}%s", end);
}

}  // namespace

int main() {
  const std::vector<int> ports = {10, 28, 52, 104, 208};
  std::printf("{");
  print("tick", ports, tick, ",");
  print("ports_link", ports, link_report, ",");
  print("mac_scan", std::vector<uint32_t>{0, 64, 256, 500, 4096, 16384}, mac_scan, "}\n");
  return 0;
}
