// SPDX-License-Identifier: Apache-2.0
//
// A configuration archive that the gateway pushes: stored chunk by chunk, checked, applied.
#include <cerrno>

#include "qel/qel_api.h"
#include "qel/qel_cmd.h"
#include "qel/qel_restart.h"
#include "qel/qel_table.h"
#include "tests/unit/archive.h"
#include "tests/unit/support.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::SizeIs;

constexpr char kFile[] = "/var/conf/downlconf.tar.gz";
constexpr char kTidy[] = "rm -rf -- /var/conf/.removed";

struct Chunk {
  int index = 0;
  int next = 0;
  int64_t total = 0;
  int64_t crc = 0;
  std::string bytes;
  std::optional<int64_t> length = {};  // other than the bytes' own
};

std::string json_of(const Chunk& chunk) {
  const int64_t length = chunk.length.value_or(static_cast<int64_t>(chunk.bytes.size()));
  return R"({"mac":"gw","cmd":"update","subcmd":"config_download","data":{"index":)" +
         std::to_string(chunk.index) + ",\"next\":" + std::to_string(chunk.next) +
         R"(,"file":"conf.tgz","total_length":)" + std::to_string(chunk.total) +
         ",\"crc\":" + std::to_string(chunk.crc) + ",\"length\":" + std::to_string(length) + "}}";
}

std::string answer(int state, int index) {
  return R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"config_download","data":{"state":)" +
         std::to_string(state) + ",\"index\":" + std::to_string(index) + R"(,"file":"conf.tgz"}})";
}

class ConfDownloadTest : public AgentTest {
 protected:
  ConfDownloadTest() {
    start();
    archive_gives({.members = {{"new.conf"}}, .at_start = [this] { received_ = stored(); }});
  }

  // The chunk arrives as a sender places it: text, NUL, bytes; length field text length + 17.
  void push(const Chunk& chunk) {
    const std::string text = json_of(chunk);
    push_at(chunk, static_cast<uint16_t>(text.size() + 17));
  }

  void push_at(const Chunk& chunk, uint16_t length_field) {
    fake::clear_records();
    g_qel_restart = {};  // a test goes on where a switch would have restarted
    receive(json_of(chunk) + bytes("\0") + chunk.bytes, kGatewayMac, kSwitchMac, length_field);
  }

  static std::string stored() { return fake::file(kFile).value_or("(no file)"); }

  // The archive as it was when it was handed to tar.
  std::string received_;
};

TEST_F(ConfDownloadTest, OneChunkIsStoredAnsweredAndApplied) {
  push({.total = 5, .crc = 907060870, .bytes = "hello"});  // the CRC-32 of "hello"
  EXPECT_THAT(sent_messages(), ElementsAre(answer(3, 0)));
  EXPECT_EQ(stored(), "(no file)");  // applied and gone
  EXPECT_EQ(fake::file("/var/conf/new.conf"), "new");
  EXPECT_THAT(fake::shell_commands(),
              ElementsAre(kExpandCommand, kUnpackCommand, kTidy, kFlashCommand));
  EXPECT_EQ(fake::reboots(), 1);
  EXPECT_THAT(fake::console(),
              Contains(MatchesRegex("\\[qel_api_download_conf_check,[0-9]+\\] "
                                    "crc32\\[0x3610a686\\], loadcrc32\\[0x3610a686\\]\n")));
}

TEST_F(ConfDownloadTest, AnswerIsFramedLikeAnyMessage) {
  push({.index = 0, .next = 1, .total = 9, .bytes = "abc"});
  const std::string json =
      R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"config_download","data":{"state":2,)"
      R"("index":1,"file":"conf.tgz"}})";
  ASSERT_THAT(fake::sent(), SizeIs(1));
  EXPECT_THAT(fake::sent().front().bytes,
              BytesAre(reply_header(static_cast<uint16_t>(json.size() + 16)) + json));
}

TEST_F(ConfDownloadTest, AnswerGoesOutBetweenUnpackingAndReplacement) {
  fake::set_file("/var/conf/old.conf", "old");
  push({.total = 5, .bytes = "hello"});
  const auto order = fake::calls_of({"sendto(", "system(cd", "system(/m", "sys_reboot(",
                                     "unlink(/var/conf/old", "rename(/var/conf/.installing/"});
  ASSERT_THAT(order, SizeIs(7));
  EXPECT_EQ(order[0], "system(" + std::string(kExpandCommand) + ")");
  EXPECT_EQ(order[1], "system(" + std::string(kUnpackCommand) + ")");
  EXPECT_THAT(order[2], HasSubstr("sendto("));
  EXPECT_EQ(order[3], "unlink(/var/conf/old.conf)");
  EXPECT_EQ(order[4], "rename(/var/conf/.installing/new.conf, /var/conf/new.conf)");
  EXPECT_EQ(order[5], "system(/morva/bin/conf flash)");
  EXPECT_EQ(order[6], "sys_reboot()");
}

TEST_F(ConfDownloadTest, ChunksAreAppendedInTheOrderTheyArrive) {
  push({.index = 0, .next = 1, .total = 9, .bytes = "abc"});
  EXPECT_THAT(sent_messages(), ElementsAre(answer(2, 1)));
  push({.index = 7, .next = 1, .total = 9, .bytes = "def"});  // no check of the index
  EXPECT_THAT(sent_messages(), ElementsAre(answer(2, 8)));
  EXPECT_THAT(fake::shell_commands(), IsEmpty());
  push({.index = 2, .next = 0, .total = 9, .bytes = "ghi"});
  EXPECT_THAT(sent_messages(), ElementsAre(answer(3, 0)));
  EXPECT_EQ(received_, "abcdefghi");
  EXPECT_EQ(fake::reboots(), 1);
}

TEST_F(ConfDownloadTest, SumThatReachesTheTotalEndsTheDownloadThoughMoreIsAnnounced) {
  push({.index = 0, .next = 1, .total = 6, .bytes = "abc"});
  push({.index = 1, .next = 1, .total = 6, .bytes = "def"});
  EXPECT_THAT(sent_messages(), ElementsAre(answer(3, 2)));
  EXPECT_EQ(fake::reboots(), 1);
}

TEST_F(ConfDownloadTest, WrongCrcIsOnlyLogged) {
  push({.total = 5, .crc = 1, .bytes = "hello"});
  EXPECT_THAT(sent_messages(), ElementsAre(answer(3, 0)));
  EXPECT_THAT(fake::console_text(), HasSubstr("crc32[0x3610a686], loadcrc32[0x1]\n"));
  EXPECT_EQ(fake::file("/var/conf/new.conf"), "new");
  EXPECT_EQ(fake::reboots(), 1);
}

TEST_F(ConfDownloadTest, CrcComesSignedOrUnsigned) {
  push({.total = 1, .crc = -1931733373, .bytes = "x"});
  EXPECT_THAT(fake::console_text(), HasSubstr("crc32[0x8cdc1683], loadcrc32[0x8cdc1683]\n"));
  push({.total = 1, .crc = 2363233923, .bytes = "x"});
  EXPECT_THAT(fake::console_text(), HasSubstr("crc32[0x8cdc1683], loadcrc32[0x8cdc1683]\n"));
}

TEST_F(ConfDownloadTest, LastChunkWithTooFewBytesIsAppliedAllTheSame) {
  push({.index = 0, .next = 0, .total = 100, .bytes = "hello"});
  EXPECT_THAT(sent_messages(), ElementsAre(answer(3, 0)));
  EXPECT_EQ(fake::reboots(), 1);
}

TEST_F(ConfDownloadTest, OffsetAndFirstBytesAreToldOnTheConsole) {
  const Chunk chunk{.index = 0, .next = 1, .total = 9, .bytes = "abc"};
  push(chunk);
  EXPECT_THAT(fake::console(),
              Contains(MatchesRegex("\\[qel_cmd_handle_conf_download,[0-9]+\\] offset\\[" +
                                    std::to_string(json_of(chunk).size() + 1) +
                                    "\\] pdata0\\[0x61\\] pdata1\\[0x62\\]\n")));
  EXPECT_THAT(fake::console(), Contains(MatchesRegex("\\[qel_api_download_conf_write,[0-9]+\\] "
                                                     "downloadlen\\[3\\] written\\[3\\]\n")));
}

TEST_F(ConfDownloadTest, BytesBeyondSevenBitsAreToldUnsignedAlsoTheLastOfTheFrame) {
  push({.index = 0, .next = 1, .total = 9, .bytes = "\xff\x80"});
  EXPECT_THAT(fake::console_text(), HasSubstr("] pdata0[0xff] pdata1[0x80]\n"));
  std::string text = json_of({.index = 1, .next = 1, .total = 9, .bytes = "x"});
  text.resize(1567, '\0');
  fake::clear_records();
  receive(text + "\xee", kGatewayMac, kSwitchMac, 16 + 1567);
  EXPECT_THAT(fake::console_text(), HasSubstr("offset[1567] pdata0[0xee] pdata1[0x0]\n"));
}

TEST_F(ConfDownloadTest, MessageWithoutDataIsNotAnswered) {
  receive(R"({"mac":"gw","cmd":"update","subcmd":"config_download"})");
  EXPECT_THAT(fake::sent(), IsEmpty());
  EXPECT_THAT(fake::console_text(), HasSubstr("offset[-16] "));
}

TEST_F(ConfDownloadTest, AnnouncedLengthOf65535IsLoggedAndAccepted) {
  push({.index = 0, .next = 1, .total = 65534, .bytes = "abc"});
  EXPECT_THAT(fake::console_text(), testing::Not(HasSubstr("total_length[")));
  qel_api_download_reset();
  push({.index = 0, .next = 1, .total = 65535, .bytes = "abc"});
  EXPECT_THAT(fake::console(),
              Contains(MatchesRegex(
                  "\\[qel_cmd_handle_conf_download,[0-9]+\\] total_length\\[65535\\] \n")));
  EXPECT_THAT(sent_messages(), ElementsAre(answer(2, 1)));
  EXPECT_EQ(stored(), "abc");
}

TEST_F(ConfDownloadTest, NegativeTotalBeginsNothingAndIsAnsweredWithStateZero) {
  push({.index = 0, .next = 1, .total = -1, .bytes = "abc"});
  EXPECT_THAT(sent_messages(), ElementsAre(answer(0, 1)));
  EXPECT_THAT(
      fake::console(),
      Contains(MatchesRegex("\\[qel_cmd_handle_conf_download,[0-9]+\\] total_length\\[-1\\] \n")));
  EXPECT_FALSE(fake::file(kFile).has_value());
  EXPECT_EQ(g_qel_conf.download_file, nullptr);
  EXPECT_THAT(fake::shell_commands(), IsEmpty());
}

TEST_F(ConfDownloadTest, ChunkBeyondTheTotalIsNotStoredAndTheDownloadIsAbandoned) {
  push({.index = 0, .next = 1, .total = 5, .bytes = "abc"});
  push({.index = 1, .next = 1, .total = 5, .bytes = "def"});
  EXPECT_THAT(sent_messages(), ElementsAre(answer(0, 2)));
  EXPECT_EQ(g_qel_conf.download_file, nullptr);
  EXPECT_EQ(g_qel_conf.download_data, nullptr);
  EXPECT_THAT(fake::shell_commands(), IsEmpty());
}

TEST_F(ConfDownloadTest, ChunkOutsideTheFrameIsRefused) {
  const Chunk big{.index = 0, .next = 1, .total = 4000, .bytes = "abc", .length = 1568};
  push(big);
  EXPECT_THAT(sent_messages(), ElementsAre(answer(0, 1)));
  Chunk negative = big;
  negative.length = -1;
  push(negative);
  EXPECT_THAT(sent_messages(), ElementsAre(answer(0, 1)));
  Chunk huge = big;
  huge.length = 4294967296;
  push(huge);
  EXPECT_THAT(sent_messages(), ElementsAre(answer(0, 1)));
  EXPECT_EQ(g_qel_conf.download_file, nullptr);
}

TEST_F(ConfDownloadTest, ChunkThatEndsWithTheReceivedBytesIsTaken) {
  const Chunk one{.index = 0, .next = 1, .total = 4000, .bytes = "a"};
  const auto end = static_cast<uint16_t>(json_of(one).size() + 2);  // text, NUL and the one byte
  push_at(one, static_cast<uint16_t>(16 + end - 1));
  EXPECT_THAT(sent_messages(), ElementsAre(answer(2, 1)));
  EXPECT_EQ(stored(), "a");
  qel_api_download_reset();
  for (const uint16_t field :
       {static_cast<uint16_t>(16 + end), uint16_t{16 + 1567}, uint16_t{15}, uint16_t{65535}}) {
    push_at(one, field);
    EXPECT_THAT(sent_messages(), ElementsAre(answer(0, 1))) << field;
    EXPECT_EQ(g_qel_conf.download_file, nullptr);
  }
}

TEST_F(ConfDownloadTest, LengthBeyondTheReceivedBytesIsRefused) {
  Chunk chunk{.index = 0, .next = 1, .total = 4000, .bytes = "abc", .length = 4};
  push(chunk);
  EXPECT_THAT(sent_messages(), ElementsAre(answer(0, 1)));
  EXPECT_EQ(g_qel_conf.download_file, nullptr);
  chunk.length = 3;
  push(chunk);
  EXPECT_THAT(sent_messages(), ElementsAre(answer(2, 1)));
  EXPECT_EQ(stored(), "abc");
}

TEST_F(ConfDownloadTest, ChunkAtTheEndOfTheLongestFrameIsTaken) {
  std::string text = json_of({.index = 0, .next = 1, .total = 9, .bytes = "x"});
  text.resize(1567, '\0');
  fake::clear_records();
  receive(text + "xy", kGatewayMac, kSwitchMac, 16 + 1567);
  EXPECT_THAT(sent_messages(), ElementsAre(answer(2, 1)));
  EXPECT_EQ(stored(), "x");
  // One byte further stands behind the 1600 bytes that are looked at.
  receive(text + "xy", kGatewayMac, kSwitchMac, 16 + 1568);
  EXPECT_EQ(sent_messages().back(), answer(0, 1));
}

TEST_F(ConfDownloadTest, ChunkWithoutBytesOutsideTheMessageIsRefused) {
  push_at({.index = 0, .next = 1, .total = 9, .bytes = ""}, 15);
  EXPECT_THAT(sent_messages(), ElementsAre(answer(0, 1)));
  EXPECT_FALSE(fake::file(kFile).has_value());
}

TEST_F(ConfDownloadTest, RefusedChunkAbandonsTheDownloadThatWasOpen) {
  push({.index = 0, .next = 1, .total = 9, .bytes = "abc"});
  push({.index = 1, .next = 1, .total = 9, .bytes = "def", .length = -5});
  EXPECT_THAT(sent_messages(), ElementsAre(answer(0, 2)));
  push({.index = 2, .next = 1, .total = 9, .bytes = "ghi"});  // accepted, not stored
  EXPECT_THAT(sent_messages(), ElementsAre(answer(2, 3)));
  EXPECT_EQ(stored(), "abc");
  push({.index = 0, .next = 1, .total = 9, .bytes = "new"});
  EXPECT_EQ(stored(), "new");
}

TEST_F(ConfDownloadTest, ChunkWithoutBytesIsStoredWithoutTouchingTheFile) {
  push({.index = 0, .next = 1, .total = 9, .bytes = ""});
  EXPECT_THAT(sent_messages(), ElementsAre(answer(2, 1)));
  EXPECT_EQ(stored(), "");
}

TEST_F(ConfDownloadTest, OverUdpEveryChunkIsRefused) {
  qel_link link = udp_link();
  for (const char* part : {"abc", ""}) {
    fake::clear_records();
    const std::string text =
        json_of({.index = 0, .next = 1, .total = 9, .bytes = part}) + bytes("\0") + part;
    qel_cmd_dispatch(&link, text.c_str(), 0, text.size());
    EXPECT_THAT(sent_messages(), ElementsAre(answer(0, 1)));
    EXPECT_FALSE(fake::file(kFile).has_value());
    EXPECT_THAT(fake::console_text(), HasSubstr("offset[-16] "));
  }
}

TEST_F(ConfDownloadTest, LastChunkOverUdpAppliesNothing) {
  qel_link link = udp_link();
  const std::string text = json_of({.index = 0, .next = 0, .total = 0, .bytes = ""});
  qel_cmd_dispatch(&link, text.c_str(), 0, text.size());
  EXPECT_THAT(sent_messages(), ElementsAre(answer(0, 0)));
  EXPECT_THAT(fake::shell_commands(), IsEmpty());
  EXPECT_EQ(fake::reboots(), 0);
}

TEST_F(ConfDownloadTest, DataThatIsNoObjectCountsAsAbsent) {
  fake::set_file("/var/conf/old.conf", "old");
  for (const char* data : {"\"x\"", "7", "[5]", "true", "null", "[{\"index\":0,\"next\":0}]"}) {
    const std::string text =
        std::string(R"({"cmd":"update","subcmd":"config_download","data":)") + data + "}";
    receive(text + bytes("\0"), kGatewayMac, kSwitchMac, static_cast<uint16_t>(text.size() + 17));
    EXPECT_THAT(fake::sent(), IsEmpty()) << data;
    EXPECT_THAT(fake::shell_commands(), IsEmpty()) << data;
    EXPECT_EQ(fake::reboots(), 0) << data;
  }
  EXPECT_EQ(fake::file("/var/conf/old.conf"), "old");
}

TEST_F(ConfDownloadTest, NewFirstChunkDoesNotRestartAnOpenDownload) {
  push({.index = 0, .next = 1, .total = 9, .bytes = "abc"});
  push({.index = 0, .next = 1, .total = 9, .bytes = "abc"});
  EXPECT_EQ(stored(), "abcabc");
}

TEST_F(ConfDownloadTest, SecondGatewayAppendsToTheOpenDownload) {
  push({.index = 0, .next = 1, .total = 6, .bytes = "abc"});
  const Chunk other{.index = 1, .next = 0, .total = 6, .bytes = "XYZ"};
  const fake::Mac second = {0x02, 0, 0, 0, 0, 0x99};
  fake::clear_records();
  const std::string text = json_of(other);
  receive(text + bytes("\0") + other.bytes, second, kSwitchMac,
          static_cast<uint16_t>(text.size() + 17));
  EXPECT_EQ(received_, "abcXYZ");
  ASSERT_THAT(fake::sent(), SizeIs(1));
  EXPECT_EQ(fake::sent().front().bytes.substr(0, 6), bytes("\x02\0\0\0\0\x99"));
}

TEST_F(ConfDownloadTest, FileThatCannotBeOpenedLeavesTheConfigurationAlone) {
  fake::set_file("/var/conf/old.conf", "old");
  fake::fail_os("fopen", ENOSPC, 1, 1);  // the console's line comes first
  push({.index = 0, .next = 1, .total = 6, .bytes = "abc"});
  EXPECT_THAT(sent_messages(), ElementsAre(answer(2, 1)));
  EXPECT_THAT(fake::console_text(), HasSubstr("File Open failed\n"));
  push({.index = 1, .next = 0, .total = 6, .bytes = "def"});
  EXPECT_THAT(sent_messages(), ElementsAre(answer(3, 0)));
  EXPECT_THAT(fake::shell_commands(), IsEmpty());
  EXPECT_EQ(fake::file("/var/conf/old.conf"), "old");
  EXPECT_EQ(fake::reboots(), 1);
}

TEST_F(ConfDownloadTest, DiskThatIsFullAtAnyWriteAbandonsTheDownload) {
  for (int failing = 0; failing < 3; ++failing) {
    fake::fail_os(std::string("fwrite ") + kFile, ENOSPC, failing, 1);
    for (int index = 0; index < failing; ++index) {
      push({.index = index, .next = 1, .total = 9, .bytes = "abc"});
      EXPECT_THAT(sent_messages(), ElementsAre(answer(2, index + 1)));
    }
    push({.index = failing, .next = 1, .total = 9, .bytes = "abc"});
    EXPECT_THAT(sent_messages(), ElementsAre(answer(0, failing + 1)));
    EXPECT_THAT(fake::console(), Contains("Write failed! written[0], len[3]\n"));
    EXPECT_EQ(g_qel_conf.download_file, nullptr);
    EXPECT_EQ(g_qel_conf.download_data, nullptr);
    EXPECT_EQ(g_qel_conf.download_length, 0U);
    // What follows is accepted and not stored, until a first chunk begins anew.
    push({.index = failing + 1, .next = 1, .total = 9, .bytes = "xyz"});
    EXPECT_THAT(sent_messages(), ElementsAre(answer(2, failing + 2)));
    EXPECT_THAT(stored(), testing::Not(HasSubstr("xyz")));
    EXPECT_THAT(fake::shell_commands(), IsEmpty());
  }
  push({.index = 0, .next = 0, .total = 3, .bytes = "new"});
  EXPECT_THAT(sent_messages(), ElementsAre(answer(3, 0)));
  EXPECT_EQ(received_, "new");
}

TEST_F(ConfDownloadTest, WriteOfAPartTellsHowMuchAndAbandonsTheDownload) {
  push({.index = 0, .next = 1, .total = 9, .bytes = "abc"});
  fake::cut_write(kFile, 2);
  push({.index = 1, .next = 0, .total = 9, .bytes = "defg"});
  EXPECT_THAT(sent_messages(), ElementsAre(answer(0, 0)));
  EXPECT_THAT(fake::console(), Contains("Write failed! written[2], len[4]\n"));
  EXPECT_EQ(stored(), "abcde");
  EXPECT_EQ(g_qel_conf.download_file, nullptr);
  EXPECT_EQ(g_qel_conf.download_data, nullptr);
  EXPECT_EQ(g_qel_conf.download_length, 0U);
  EXPECT_THAT(fake::shell_commands(), IsEmpty());
  EXPECT_EQ(fake::reboots(), 0);
}

TEST_F(ConfDownloadTest, LastChunkThatCannotBeWrittenIsNotApplied) {
  fake::fail_os(std::string("fwrite ") + kFile, ENOSPC);
  push({.index = 0, .next = 0, .total = 3, .bytes = "abc"});
  EXPECT_THAT(sent_messages(), ElementsAre(answer(0, 0)));
  EXPECT_THAT(fake::shell_commands(), IsEmpty());
  EXPECT_EQ(fake::reboots(), 0);
}

TEST_F(ConfDownloadTest, TotalThatMemoryCannotHoldBeginsNothingAndIsAnsweredWithStateZero) {
  fake::set_file(kFile, "kept");
  for (const int64_t total : {int64_t{90000}, int64_t{2147483647}}) {
    fail_malloc(static_cast<size_t>(total) + 1);
    push({.index = 0, .next = 1, .total = total, .bytes = "abc"});
    EXPECT_THAT(sent_messages(), ElementsAre(answer(0, 1)));
    EXPECT_EQ(g_qel_conf.download_file, nullptr);
    EXPECT_EQ(stored(), "kept");
  }
}

TEST_F(ConfDownloadTest, BeginningDeletesTheOldFileFirst) {
  fake::set_file(kFile, "old");
  push({.index = 0, .next = 1, .total = 9, .bytes = "abc"});
  EXPECT_THAT(
      fake::calls_of({"unlink", "fopen(/var"}),
      ElementsAre("unlink(/var/conf/downlconf.tar.gz)", "fopen(/var/conf/downlconf.tar.gz, wb)"));
  EXPECT_EQ(stored(), "abc");
}

// The CRC is that of what was kept in memory, the file what was stored.
TEST_F(ConfDownloadTest, RepeatedAndSingleByteChunksAreAppendedAsTheyCome) {
  push({.index = 0, .next = 1, .total = 4, .bytes = "a"});
  EXPECT_THAT(sent_messages(), ElementsAre(answer(2, 1)));
  push({.index = 1, .next = 1, .total = 4, .bytes = "b"});
  EXPECT_THAT(sent_messages(), ElementsAre(answer(2, 2)));
  push({.index = 1, .next = 1, .total = 4, .bytes = "b"});
  EXPECT_THAT(sent_messages(), ElementsAre(answer(2, 2)));
  push({.index = 0, .next = 1, .total = 4, .crc = 2230520031, .bytes = "a"});
  EXPECT_THAT(sent_messages(), ElementsAre(answer(3, 1)));
  EXPECT_EQ(received_, "abba");
  EXPECT_THAT(fake::console_text(), HasSubstr("crc32[0x84f308df], loadcrc32[0x84f308df]\n"));
}

TEST_F(ConfDownloadTest, CheckEndsTheDownloadAndTellsEqualFromDifferent) {
  const std::string part = "hello";
  const auto span = std::span(reinterpret_cast<const uint8_t*>(part.data()), part.size());
  for (const bool equal : {true, false}) {
    ASSERT_EQ(qel_api_download_begin(5), 0);
    ASSERT_EQ(qel_api_download_conf_write(span), 0);
    EXPECT_THAT(fake::open_files(), ElementsAre(kFile));
    fake::clear_records();
    EXPECT_EQ(qel_api_download_conf_check(equal ? 0x3610a686 : 0x3610a687), equal ? 0 : -1);
    EXPECT_THAT(fake::open_files(), IsEmpty());
    EXPECT_EQ(g_qel_conf.download_file, nullptr);
    EXPECT_EQ(g_qel_conf.download_data, nullptr);
    EXPECT_EQ(g_qel_conf.download_length, 0U);
    EXPECT_THAT(fake::console(),
                ElementsAre(MatchesRegex("\\[qel_api_download_conf_check,[0-9]+\\] "
                                         "crc32\\[0x3610a686\\], loadcrc32\\[0x3610a68[67]\\]\n"),
                            MatchesRegex("\\[qel_api_download_reset,[0-9]+\\] \n"),
                            MatchesRegex("\\[qel_api_download_reset,[0-9]+\\] \n")));
  }
}

TEST_F(ConfDownloadTest, FlashThatFailsDoesNotStopTheRestart) {
  archive_gives({.members = {{"new.conf"}}, .flash_status = 1});
  push({.total = 5, .bytes = "hello"});
  EXPECT_EQ(fake::shell_commands().back(), kFlashCommand);
  EXPECT_EQ(fake::file("/var/conf/new.conf"), "new");
  EXPECT_EQ(fake::reboots(), 1);
  EXPECT_THAT(fake::console().back(),
              MatchesRegex("\\[qel_api_update_down_config,[0-9]+\\] down config flag\\[1\\] \n"));
}

TEST_F(ConfDownloadTest, ApplyingWithoutTheFlagOnlyTellsSo) {
  qel_api_update_down_config(0);
  EXPECT_THAT(fake::shell_commands(), IsEmpty());
  EXPECT_EQ(fake::reboots(), 0);
  EXPECT_THAT(fake::console(),
              ElementsAre(MatchesRegex(
                  "\\[qel_api_update_down_config,[0-9]+\\] down config flag\\[0\\] \n")));
}

TEST_F(ConfDownloadTest, ResetIsToldAtItsStartAndAtItsEnd) {
  ASSERT_EQ(qel_api_download_begin(5), 0);
  std::vector<size_t> open;  // files, at each line
  fake::on_console([&open] { open.push_back(fake::open_files().size()); });
  qel_api_download_reset();
  EXPECT_THAT(fake::console(), ElementsAre(MatchesRegex("\\[qel_api_download_reset,[0-9]+\\] \n"),
                                           MatchesRegex("\\[qel_api_download_reset,[0-9]+\\] \n")));
  EXPECT_THAT(open, ElementsAre(1, 0));
}

TEST_F(ConfDownloadTest, DownloadNameWinsOverTheTableWhateverCmdSays) {
  fake::clear_records();
  const std::string text =
      R"({"cmd":"get","subcmd":"config_download","data":{"index":0,"next":1,"total_length":4}})";
  receive(text, kGatewayMac, kSwitchMac, static_cast<uint16_t>(text.size() + 16));
  EXPECT_THAT(sent_messages(),
              ElementsAre(R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"config_download",)"
                          R"("data":{"state":2,"index":1,"file":""}})"));
}

TEST_F(ConfDownloadTest, NameOfTheFileCannotWriteMembersOfTheAnswer) {
  receive(R"({"cmd":"update","subcmd":"config_download","data":{"index":0,"next":1,)"
          R"("total_length":4,"file":"x\",\"state\":9,\"y\":\"\\\n"}})");
  EXPECT_THAT(sent_messages(),
              ElementsAre(R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"config_download",)"
                          R"("data":{"state":0,"index":1,"file":"x,state:9,y:"}})"));
}

}  // namespace
