// SPDX-License-Identifier: Apache-2.0
//
// The frame codec against bytes written out by hand.
#include "gateway/frame.h"

#include <gtest/gtest.h>

#include "gateway/error.h"
#include "wire_bytes.h"

namespace qel_gateway {
namespace {

using gateway_test::Bytes;
using gateway_test::hex;
using gateway_test::operator+;
using gateway_test::reply_head;

const MacAddress kGroup{{0x01, 0x80, 0xC2, 0x00, 0x00, 0x1F}};
const MacAddress kGateway{{0x02, 0x00, 0x00, 0x00, 0x00, 0x01}};
const MacAddress kSwitch{{0x0A, 0x1B, 0x2C, 0x3D, 0x4E, 0x5F}};

FrameFault fault_of(const Bytes& bytes) {
  FrameFault fault = FrameFault::None;
  EXPECT_FALSE(read_frame(bytes, &fault).has_value());
  return fault;
}

TEST(Frame, BuildsARequest) {
  const auto built =
      build_frame(kGroup, kGateway, R"({"cmd":"probe","subcmd":"probe"})", {}, false);
  EXPECT_EQ(built, hex("01 80 c2 00 00 1f 02 00 00 00 00 01 93 01 00 00 ba be 00 30"
                       "00 00 00 00 00 00 00 00 00 00 00 00"
                       "7b 22 63 6d 64 22 3a 22 70 72 6f 62 65 22 2c 22 73 75 62 63 6d 64 22 3a"
                       "22 70 72 6f 62 65 22 7d"));
}

TEST(Frame, PadsAShortRequestToSixtyBytes) {
  const auto built = build_frame(kSwitch, kGateway, "{}", {}, false);
  EXPECT_EQ(built, hex("0a 1b 2c 3d 4e 5f 02 00 00 00 00 01 93 01 00 00 ba be 00 12"
                       "00 00 00 00 00 00 00 00 00 00 00 00"
                       "7b 7d 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00"
                       "00 00 00 00"));
}

TEST(Frame, PlacesAChunkBehindTextAndNul) {
  const Bytes chunk = hex("00 ff 1f 8b");
  const auto built =
      build_frame(kSwitch, kGateway, R"({"length":4,"file":"a","more":1})", chunk, true);
  // 32 bytes of text: the length field is 49, hence the chunk at 33.
  EXPECT_EQ(Bytes(built.begin() + 16, built.begin() + 20), hex("ba be 00 31"));
  EXPECT_EQ(built.size(), 32u + 32u + 1u + 4u);
  EXPECT_EQ(Bytes(built.begin() + 63, built.end()), hex("7d 00 00 ff 1f 8b"));
}

TEST(Frame, ReadsTheRequestOfAnotherGateway) {
  const Bytes head =
      hex("0a 1b 2c 3d 4e 5f 02 00 00 00 00 01 93 01 00 00 ba be 00 12"
          "00 00 00 00 00 00 00 00 00 00 00 00");
  const auto request = read_request(head + hex("7b 7d 00 ff") + Bytes(24, 0));
  ASSERT_TRUE(request);
  EXPECT_EQ(request->destination, kSwitch);
  EXPECT_EQ(request->source, kGateway);
  EXPECT_EQ(request->payload.text, "{}");
  EXPECT_EQ(read_request(head + hex("7b 7d"))->payload.text, "{}");
  EXPECT_EQ(read_request(head)->payload.text, "");
  EXPECT_FALSE(read_request(std::span(head).first(31)));
  EXPECT_FALSE(read_request(reply_head(20) + hex("5b 31 5d 00")));
}

TEST(Frame, AMessageThatASwitchWouldNotReadIsRefused) {
  EXPECT_NO_THROW(require_readable(1568));
  EXPECT_THROW(require_readable(1569), Error);
}

TEST(Frame, ReadsAReplyWithItsTrailingNul) {
  // 4 bytes of message, padded by the wire.
  const auto frame = read_frame(reply_head(20) + hex("5b 31 5d 00") + Bytes(24, 0));
  ASSERT_TRUE(frame);
  EXPECT_EQ(frame->source, kSwitch);
  EXPECT_EQ(frame->destination, kGateway);
  EXPECT_EQ(frame->payload.text, "[1]");
  EXPECT_TRUE(frame->payload.chunk.empty());
}

TEST(Frame, ReadsAReplyWithoutNul) {
  const auto frame = read_frame(reply_head(19) + hex("5b 31 5d"));
  ASSERT_TRUE(frame);
  EXPECT_EQ(frame->payload.text, "[1]");
}

TEST(Frame, ReadsAChunkAtItsPlace) {
  const Bytes text = Bytes(40, 'x');
  const auto frame = read_frame(reply_head(57) + text + hex("00 de ad 00 ef"));
  ASSERT_TRUE(frame);
  EXPECT_EQ(frame->payload.text, std::string(40, 'x'));
  EXPECT_EQ(frame->payload.chunk, hex("de ad 00 ef"));
}

TEST(Frame, TakesTheFirstFragmentAndDropsTheSecond) {
  // A message of 1300 bytes: both frames carry 1332 bytes and length 1316.
  const Bytes message(1300, 'm');
  const auto first = read_frame(reply_head(1316) + message);
  ASSERT_TRUE(first);
  EXPECT_EQ(first->payload.text, std::string(1300, 'm'));
  EXPECT_EQ(fault_of(reply_head(1316) + Bytes(20, 'm') + Bytes(1280, 0)), FrameFault::Fragment);
}

TEST(Frame, TakesTheLongestMessage) {
  const auto frame = read_frame(reply_head(1616) + Bytes(1600, 'm'));
  ASSERT_TRUE(frame);
  EXPECT_EQ(frame->payload.text.size(), 1600u);
}

TEST(Frame, RefusesWhatIsNoReply) {
  EXPECT_EQ(fault_of({}), FrameFault::Short);
  const Bytes head = reply_head(20);
  EXPECT_EQ(fault_of(Bytes(head.begin(), head.begin() + 31)), FrameFault::Short);
  Bytes request = reply_head(19) + hex("5b 31 5d");
  request[13] = 0x01;
  EXPECT_EQ(fault_of(request), FrameFault::Foreign);
  Bytes magic = reply_head(19) + hex("5b 31 5d");
  magic[16] = 0;
  EXPECT_EQ(fault_of(magic), FrameFault::Foreign);
}

TEST(Frame, RefusesLengthsThatLie) {
  EXPECT_EQ(fault_of(reply_head(20) + hex("5b 31 5d")), FrameFault::Cut);
  EXPECT_EQ(fault_of(reply_head(0) + hex("5b 31 5d")), FrameFault::Cut);
  EXPECT_EQ(fault_of(reply_head(16) + hex("5b 31 5d")), FrameFault::Cut);
  EXPECT_EQ(fault_of(reply_head(0xffff) + hex("5b 31 5d")), FrameFault::Cut);
  EXPECT_EQ(fault_of(reply_head(17) + Bytes(28, 0)), FrameFault::Fragment);
}

}  // namespace
}  // namespace qel_gateway
