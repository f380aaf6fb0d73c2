// SPDX-License-Identifier: Apache-2.0
//
// A local event from another daemon, with a gateway present that is told about it, and the five
// minutes until what it taught is forgotten.
#include <cstdint>
#include <string_view>

#include "qel/qel_client.h"
#include "qel/qel_gw.h"
#include "tests/fake/fake.h"
#include "tests/fuzz/agent.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  constexpr unsigned kSeconds = 310;
  fuzz_agent_start();
  fuzz_agent_expect_alive();  // whose probe is a gateway that is there
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  fake::receive_local(fake::last_socket(AF_UNIX), text);
  fake::run_reads();
  fake::tick(kSeconds);
  fuzz_agent_expect_alive();
  fuzz_agent_rest();
  return 0;
}
