// SPDX-License-Identifier: Apache-2.0
//
// A frame from the wire, through the checks and the dispatcher into every handler, and the quarter
// of a minute after it. The first byte says what follows: 'R' a raw frame, anything else the length
// field (2 bytes) and the message of a frame that counts.
#include <cstdint>
#include <string>

#include "qel/qel_table.h"
#include "tests/fake/fake.h"
#include "tests/fuzz/agent.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  constexpr size_t kHead = 3;
  constexpr unsigned kSeconds = 15;
  if (size < kHead) {
    return 0;
  }
  fuzz_agent_start();
  std::string frame;
  if (data[0] == 'R') {
    frame.assign(reinterpret_cast<const char*>(data + 1), size - 1);
  } else {
    frame.assign("\x0a\x1b\x2c\x3d\x4e\x5f\x02\x00\x5e\x10\x20\x30\x93\x01\0\0\xba\xbe", 18);
    frame.append(reinterpret_cast<const char*>(data + 1), 2);
    frame.append(12, '\0');
    frame.append(reinterpret_cast<const char*>(data + kHead), size - kHead);
  }
  fake::receive_frame(g_qel_dev.eth_fd, frame);
  fake::run_reads();
  fake::tick(kSeconds);
  fuzz_agent_expect_alive();
  fuzz_agent_rest();
  return 0;
}
