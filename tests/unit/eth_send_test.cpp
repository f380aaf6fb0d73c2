// SPDX-License-Identifier: Apache-2.0
//
// Frames as they leave: header, length field, fragments, and what happens when they cannot.
#include "qel/qel_send.h"

#include <cerrno>
#include <cstring>
#include <memory>

#include "qel/qel_eth.h"
#include "qel/qel_table.h"
#include "tests/unit/support.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::SizeIs;

// A message area as callers have it: 65535 bytes, zero behind the text.
class Message {
 public:
  explicit Message(std::string_view text) : area_(new char[65535]()) {
    std::memcpy(area_.get(), text.data(), text.size());
  }
  [[nodiscard]] const char* text() const { return area_.get(); }

 private:
  std::unique_ptr<char[]> area_;
};

// `size` bytes that tell where they stand.
std::string pattern(size_t size) {
  std::string text;
  for (size_t i = 0; i < size; ++i) {
    text += static_cast<char>('A' + i % 61);
  }
  return text;
}

class EthSendTest : public AgentTest {
 protected:
  EthSendTest() : link_(eth_link()) { fake::clear_records(); }

  void send(std::string_view text) {
    const Message message(text);
    EXPECT_EQ(qel_cmd_send(&link_, message.text(), text.size()), 0);
  }
  void send_tail(std::string_view text, uint16_t tail) {
    const Message message(text);
    EXPECT_EQ(qel_cmd_send_tail(&link_, message.text(), text.size(), tail), 0);
  }

  qel_link link_;
};

TEST_F(EthSendTest, FrameIsTheHeaderAndTheMessage) {
  send("{}");
  ASSERT_THAT(fake::sent(), SizeIs(1));
  EXPECT_THAT(fake::sent()[0].bytes,
              BytesAre(bytes("\x02\x00\x5e\x10\x20\x30\x0a\x1b\x2c\x3d\x4e\x5f\x93\x03\x00\x00"
                             "\xba\xbe\x00\x12\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00"
                             "{}")));
  EXPECT_EQ(fake::sent()[0].fd, link_.fd);
  EXPECT_EQ(fake::sent()[0].to_length, 20U);
  EXPECT_EQ(fake::sent()[0].ifindex(), 7);
}

TEST_F(EthSendTest, FlagsOfTheLinkAreThoseOfTheSend) {
  link_.flags = 0x40;
  send("{}");
  EXPECT_EQ(fake::sent().at(0).flags, 0x40);
}

TEST_F(EthSendTest, EmptyMessageGivesNoFrame) {
  send("");
  EXPECT_THAT(fake::sent(), IsEmpty());
  EXPECT_THAT(fake::console(), IsEmpty());
}

TEST_F(EthSendTest, MessageOf1280BytesIsOneFrame) {
  const std::string text = pattern(1280);
  send(text);
  ASSERT_THAT(fake::sent(), SizeIs(1));
  EXPECT_EQ(fake::sent()[0].bytes.size(), 1312U);
  EXPECT_THAT(fake::sent()[0].bytes, BytesAre(reply_header(1296) + text));
}

TEST_F(EthSendTest, MessageOf1281BytesIsTwoFramesTheFirstHoldsAll) {
  const std::string text = pattern(1281);
  send(text);
  ASSERT_THAT(fake::sent(), SizeIs(2));
  EXPECT_EQ(fake::sent()[0].bytes.size(), 1313U);
  EXPECT_EQ(fake::sent()[1].bytes.size(), 1313U);
  EXPECT_THAT(fake::sent()[0].bytes, BytesAre(reply_header(1297) + text));
  EXPECT_THAT(fake::sent()[1].bytes,
              BytesAre(reply_header(1297) + text.substr(1280) + zeros(1280)));
}

TEST_F(EthSendTest, LongestMessageIsTwoFramesOf1632Bytes) {
  const std::string text = pattern(1600);
  send(text);
  ASSERT_THAT(fake::sent(), SizeIs(2));
  EXPECT_THAT(fake::sent()[0].bytes, BytesAre(reply_header(1616) + text));
  EXPECT_THAT(fake::sent()[1].bytes,
              BytesAre(reply_header(1616) + text.substr(1280) + zeros(1280)));
}

TEST_F(EthSendTest, SecondFrameHoldsWhatFollowsInTheCallersArea) {
  const std::string text = pattern(2000);
  const Message message(text);
  qel_cmd_send(&link_, message.text(), 1300);
  ASSERT_THAT(fake::sent(), SizeIs(2));
  EXPECT_THAT(fake::sent()[1].bytes,
              BytesAre(reply_header(1316) + text.substr(1280) + zeros(1300 - 720)));
}

TEST_F(EthSendTest, MessageOf1601BytesIsRefusedAloud) {
  send(pattern(1601));
  EXPECT_THAT(fake::sent(), IsEmpty());
  ASSERT_THAT(fake::console(), SizeIs(1));
  EXPECT_THAT(fake::console()[0],
              MatchesRegex("\\[qel_cmd_send,[0-9]+\\] len\\[1601\\] argc error \n"));
}

TEST_F(EthSendTest, NullLinkOrTextIsRefusedAloud) {
  EXPECT_EQ(qel_cmd_send(nullptr, "x", 1), 0);
  EXPECT_EQ(qel_cmd_send(&link_, nullptr, 5), 0);
  EXPECT_THAT(fake::sent(), IsEmpty());
  ASSERT_THAT(fake::console(), SizeIs(2));
  EXPECT_THAT(fake::console()[0],
              MatchesRegex("\\[qel_cmd_send,[0-9]+\\] len\\[1\\] argc error \n"));
  EXPECT_THAT(fake::console()[1],
              MatchesRegex("\\[qel_cmd_send,[0-9]+\\] len\\[5\\] argc error \n"));
}

TEST_F(EthSendTest, HugeLengthIsRefused) {
  EXPECT_EQ(qel_cmd_send(&link_, "x", SIZE_MAX), 0);
  EXPECT_THAT(fake::sent(), IsEmpty());
  EXPECT_THAT(fake::console(), SizeIs(1));
}

TEST_F(EthSendTest, KindFiveIsFramedAsWell) {
  link_.kind = 5;
  send("{}");
  EXPECT_THAT(fake::sent(), SizeIs(1));
}

class UnknownKind : public EthSendTest, public testing::WithParamInterface<uint32_t> {};

TEST_P(UnknownKind, SendsNothingAndSaysNothing) {
  link_.kind = GetParam();
  EXPECT_EQ(stderr_of([&] { send("{}"); }), "");
  EXPECT_THAT(fake::sent(), IsEmpty());
  EXPECT_THAT(fake::console(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Kinds, UnknownKind, testing::Values(0, 2, 3, 6, 0xFFFFFFFF));

TEST_F(EthSendTest, TailWithKindFiveSendsNothing) {
  link_.kind = 5;
  send_tail("{}", 20);
  EXPECT_THAT(fake::sent(), IsEmpty());
}

TEST_F(EthSendTest, TailReplacesTheLengthFieldOfEveryFrame) {
  const std::string text = pattern(1290);
  send_tail(text, 0x1234);
  ASSERT_THAT(fake::sent(), SizeIs(2));
  EXPECT_THAT(fake::sent()[0].bytes, BytesAre(reply_header(0x1234) + text));
  EXPECT_THAT(fake::sent()[1].bytes,
              BytesAre(reply_header(0x1234) + text.substr(1280) + zeros(1280)));
}

TEST_F(EthSendTest, TailOfZeroFallsBackToTheLength) {
  send_tail("{}", 0);
  ASSERT_THAT(fake::sent(), SizeIs(1));
  EXPECT_THAT(fake::sent()[0].bytes, BytesAre(reply_header(18) + "{}"));
}

TEST_F(EthSendTest, TailHasNoLimitOf1600Bytes) {
  const std::string text = pattern(1601);
  send_tail(text, 0);
  ASSERT_THAT(fake::sent(), SizeIs(2));
  EXPECT_THAT(fake::sent()[0].bytes, BytesAre(reply_header(1617) + text));
  EXPECT_THAT(fake::console(), IsEmpty());
}

// The sanitizer sees what is written beyond the frame's room. A wire that takes any length leaves
// the refusal to the sender.
TEST_F(EthSendTest, TailBeyondAnyFrameDoesNotOverrun) {
  fake::net("vlanif1").mtu = 100000;
  for (const size_t size : {2049U, 2081U, 4096U, 60000U}) {
    const Message message(pattern(size));
    EXPECT_EQ(qel_cmd_send_tail(&link_, message.text(), size, 99), 0);
    EXPECT_EQ(qel_eth_send_frames(&link_, message.text(), size, 99), 0);
    EXPECT_THAT(fake::calls_of({"sendto"}), IsEmpty()) << size;
  }
  send_tail("{}", 99);
  EXPECT_THAT(fake::sent(), SizeIs(1));
}

TEST_F(EthSendTest, TailBeyondAnyFrameIsRefusedAloudAndTheLongestThatFitsIsNot) {
  fake::net("vlanif1").mtu = 9000;  // so that it is not the wire that refuses
  g_qel_dev.debug = 32;
  send_tail(pattern(2049), 99);
  EXPECT_THAT(fake::sent(), IsEmpty());
  EXPECT_THAT(
      fake::console(),
      ElementsAre(MatchesRegex("\\[qel_cmd_send_tail,[0-9]+\\] len\\[2049\\] argc error \n")));
  fake::clear_records();
  send_tail(pattern(2048), 99);
  EXPECT_THAT(fake::sent(), SizeIs(2));
  EXPECT_THAT(fake::console(),
              ElementsAre(MatchesRegex("\\[qel_cmd_send_tail,[0-9]+\\] send start \n"),
                          MatchesRegex("\\[qel_cmd_send_tail,[0-9]+\\] send ok \n")));
}

// Whatever its length, what goes to no link at all is no error.
TEST_F(EthSendTest, LongTailWithKindFiveSaysNothingEither) {
  link_.kind = 5;
  send_tail(pattern(60000), 20);
  EXPECT_THAT(fake::sent(), IsEmpty());
  EXPECT_THAT(fake::console(), IsEmpty());
}

TEST_F(EthSendTest, MessageThatTheFrameBufferCannotHoldMakesNoFrame) {
  fake::net("vlanif1").mtu = 9000;  // so that it is not the wire that refuses
  const Message message(pattern(2049));
  EXPECT_EQ(qel_eth_send_frames(&link_, message.text(), 2049, 0), 0);
  EXPECT_THAT(fake::sent(), IsEmpty());
  EXPECT_EQ(qel_eth_send_frames(&link_, message.text(), 2048, 0), 0);
  EXPECT_THAT(fake::sent(), SizeIs(2));
}

TEST_F(EthSendTest, FailedFrameIsToldAndTheNextOneStillSent) {
  fake::fail_os("sendto", ENETDOWN, 0, 1);
  const std::string text = pattern(1300);
  EXPECT_EQ(stderr_of([&] { send(text); }), "sendto(eth): Network is down\n");
  ASSERT_THAT(fake::sent(), SizeIs(1));
  EXPECT_THAT(fake::sent()[0].bytes,
              BytesAre(reply_header(1316) + text.substr(1280) + zeros(1280)));
}

TEST_F(EthSendTest, OneFrameGivesZeroOrMinusOne) {
  const uint8_t frame[40] = {};
  EXPECT_EQ(qel_eth_sendto(&link_, frame, sizeof frame), 0);
  fake::fail_os("sendto", EIO);
  EXPECT_EQ(stderr_of([&] { EXPECT_EQ(qel_eth_sendto(&link_, frame, sizeof frame), -1); }),
            "sendto(eth): Input/output error\n");
}

TEST_F(EthSendTest, TracesTellStartAndOkAlsoAfterAFailure) {
  g_qel_dev.debug = 32;
  fake::fail_os("sendto", EIO);
  stderr_of([&] { send("{}"); });
  ASSERT_THAT(fake::console(), SizeIs(2));
  EXPECT_THAT(fake::console()[0], MatchesRegex("\\[qel_cmd_send,[0-9]+\\] send start \n"));
  EXPECT_THAT(fake::console()[1], MatchesRegex("\\[qel_cmd_send,[0-9]+\\] send ok \n"));
}

TEST_F(EthSendTest, TailTracesWithItsOwnName) {
  g_qel_dev.debug = 32;
  send_tail("{}", 9);
  ASSERT_THAT(fake::console(), SizeIs(2));
  EXPECT_THAT(fake::console()[0], MatchesRegex("\\[qel_cmd_send_tail,[0-9]+\\] send start \n"));
  EXPECT_THAT(fake::console()[1], MatchesRegex("\\[qel_cmd_send_tail,[0-9]+\\] send ok \n"));
}

TEST_F(EthSendTest, OtherTraceBitsTellNothing) {
  g_qel_dev.debug = 255 - 32;
  send("{}");
  EXPECT_THAT(fake::console(), IsEmpty());
}

TEST_F(EthSendTest, WithoutAConsoleTheLineGoesToStandardError) {
  fake::fail_os("fopen", ENXIO);
  EXPECT_THAT(stderr_of([&] { send(pattern(1601)); }),
              MatchesRegex("\\[qel_cmd_send,[0-9]+\\] len\\[1601\\] argc error \n"));
}

}  // namespace
