// SPDX-License-Identifier: Apache-2.0
//
// What the agent's unit tests share: a fixture that starts each test on a fresh fake switch, the
// frames of the gateway's protocol put together by hand, and a matcher that shows bytes.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "qel/qel_link.h"
#include "tests/fake/fake.h"

// Addresses that the tests use throughout.
inline constexpr fake::Mac kSwitchMac = {0x0a, 0x1b, 0x2c, 0x3d, 0x4e, 0x5f};
inline constexpr fake::Mac kGatewayMac = {0x02, 0x00, 0x5e, 0x10, 0x20, 0x30};
inline constexpr fake::Mac kGroup = {0x01, 0x80, 0xc2, 0x00, 0x00, 0x1f};

// A fresh switch and a fresh agent for each test: records zero, nothing opened.
class AgentTest : public testing::Test {
 protected:
  AgentTest();
  // What a test left open, a download among it, is closed: each test must leave no leak of its own.
  ~AgentTest() override;

  // Gives each switch port its record and initialises the device record, as the start does; the
  // raw socket is open then. Forgets what that recorded.
  void start();

  // A frame with `text` arrives on the raw socket and is read.
  void receive(std::string_view text, const fake::Mac& source = kGatewayMac,
               const fake::Mac& destination = kSwitchMac, uint16_t length_field = 0);

  // A link as an Ethernet message from kGatewayMac would have it, on the open raw socket.
  qel_link eth_link();
  // A link as a UDP message would have it, on an open UDP socket of its own.
  qel_link udp_link(const char* ip = "192.168.1.99", uint16_t port = 20681);
};

// The agent's globals as at the start of the process. Ends open transfers, so it needs a fresh fake
// and leaves calls on its record.
void reset_agent();

// A frame as the gateway sends it: ethertype 0x9301, magic 0xBABE, text from offset 32 on.
std::string gateway_frame(std::string_view text, const fake::Mac& source = kGatewayMac,
                          const fake::Mac& destination = kSwitchMac, uint16_t length_field = 0,
                          uint16_t ethertype = 0x9301);

// The 32 bytes before the message of a frame from kSwitchMac to `destination`.
std::string reply_header(uint16_t length_field, const fake::Mac& destination = kGatewayMac);

// The messages of the frames sent, cut by their length field; of datagrams, the whole bytes.
std::vector<std::string> sent_messages();

// Zeros of that number, and a text with literal NUL bytes.
std::string zeros(size_t count);
template <size_t Size>
std::string bytes(const char (&literal)[Size]) {
  return {literal, Size - 1};
}

// What `action` writes to standard error or standard output.
std::string stderr_of(const std::function<void()>& action);
std::string stdout_of(const std::function<void()>& action);

// An alarm that was handed over to whoever tells the gateway, with its entry at that moment.
struct HandedOver {
  uint32_t type;
  std::string message;
  uint32_t last_time;
  bool operator==(const HandedOver&) const = default;
};
// Those since the fixture was made, or since the test cleared them, in order.
std::vector<HandedOver>& handed_over();

// The next malloc of exactly `size` bytes fails.
void fail_malloc(size_t size);

// "offset: hexadecimal  text" lines.
std::string hexdump(std::string_view bytes);

// Equal bytes; both texts are shown with their hexadecimal bytes when they differ, and the offset
// of the first difference.
class BytesAre {
 public:
  using is_gtest_matcher = void;
  explicit BytesAre(std::string expected) : expected_(std::move(expected)) {}
  bool MatchAndExplain(std::string_view actual, testing::MatchResultListener* listener) const;
  void DescribeTo(std::ostream* stream) const;
  void DescribeNegationTo(std::ostream* stream) const;

 private:
  std::string expected_;
};
