// SPDX-License-Identifier: Apache-2.0
//
// A frame from the wire, through the checks and the dispatcher into every handler, and the quarter
// of a minute after it. The first byte says what follows: 'R' a raw frame, 'A' what the kernel says
// beside one (packet type, 2 bytes of tag, flags) and then the frame, anything else the length
// field (2 bytes) and the message of a frame that counts.
#include <sys/socket.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "qel/qel_table.h"
#include "tests/fake/fake.h"
#include "tests/fuzz/agent.h"

namespace {

constexpr size_t kHead = 3;
constexpr size_t kArrivalHead = 5;
constexpr uint16_t kVlanId = 0x0fff;

// Bits of the flags.
constexpr unsigned kTagValid = 1;
constexpr unsigned kCut = 2;
constexpr unsigned kUnknownInterface = 4;

fake::Arrival arrival_from(const uint8_t* data) {
  fake::Arrival arrival;
  arrival.packet_type = data[1];
  arrival.tci = static_cast<uint16_t>(data[2] << 8 | data[3]);
  arrival.tci_valid = (data[4] & kTagValid) != 0;
  arrival.message_flags = (data[4] & kCut) != 0 ? MSG_CTRUNC : 0;
  if ((data[4] & kUnknownInterface) != 0) {
    arrival.ifindex = 0;
  }
  return arrival;
}

// Must not be obeyed, whatever it says.
bool is_foreign(const fake::Arrival& arrival) {
  return (*arrival.tci & kVlanId) != 0 || arrival.message_flags != 0 || arrival.ifindex == 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  constexpr unsigned kSeconds = 15;
  if (size < kHead || (data[0] == 'A' && size < kArrivalHead)) {
    return 0;
  }
  fuzz_agent_start();
  fake::Arrival arrival;
  bool foreign = false;
  std::string frame;
  if (data[0] == 'A') {
    arrival = arrival_from(data);
    foreign = is_foreign(arrival);
    frame.assign(reinterpret_cast<const char*>(data + kArrivalHead), size - kArrivalHead);
  } else if (data[0] == 'R') {
    frame.assign(reinterpret_cast<const char*>(data + 1), size - 1);
  } else {
    frame.assign("\x0a\x1b\x2c\x3d\x4e\x5f\x02\x00\x5e\x10\x20\x30\x93\x01\0\0\xba\xbe", 18);
    frame.append(reinterpret_cast<const char*>(data + 1), 2);
    frame.append(12, '\0');
    frame.append(reinterpret_cast<const char*>(data + kHead), size - kHead);
  }
  fake::clear_records();
  fake::receive_frame(g_qel_dev.eth_fd, frame, arrival);
  fake::run_reads();
  if (foreign && !(fake::sent().empty() && fake::queries().empty())) {
    std::fprintf(stderr, "a frame from elsewhere is obeyed\n");
    std::abort();
  }
  fake::tick(kSeconds);
  fuzz_agent_expect_alive();
  fuzz_agent_rest();
  return 0;
}
