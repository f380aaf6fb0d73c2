// SPDX-License-Identifier: Apache-2.0
//
// A datagram on the UDP link, which may be forty times as long as a frame, and some seconds after
// it.
#include <cstdint>
#include <string_view>

#include "qel/qel_table.h"
#include "tests/fake/fake.h"
#include "tests/fuzz/agent.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz_agent_start();
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  fake::receive_udp(g_qel_dev.udp_fd, text, "192.168.1.99", 20681);
  fake::run_reads();
  fake::tick(2);
  fuzz_agent_expect_alive();
  fuzz_agent_rest();
  return 0;
}
