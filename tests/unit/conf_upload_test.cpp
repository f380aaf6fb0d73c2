// SPDX-License-Identifier: Apache-2.0
//
// The configuration archive on its way to the gateway: packed at the first request, served chunk by
// chunk, dropped when nobody asks any more.
#include <cerrno>
#include <cstring>

#include "qel/qel_api.h"
#include "qel/qel_cmd.h"
#include "qel/qel_main.h"
#include "qel/qel_table.h"
#include "tests/unit/support.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::SizeIs;

constexpr char kArchive[] = "/var/conf/getconf.tar.gz";
constexpr char kPack[] = "cd /var/conf && tar -zcvf getconf.tar.gz -- *.conf";
constexpr char kDrop[] = "rm -rf -- /var/conf/getconf.tar.gz";

// Bytes that differ from chunk to chunk: byte i is i / 1024 + i % 251.
std::string archive_of(size_t size) {
  std::string bytes(size, '\0');
  for (size_t i = 0; i < size; ++i) {
    bytes[i] = static_cast<char>(i / 1024 + i % 251);
  }
  return bytes;
}

std::string request(int index) {
  return R"({"mac":"gw","cmd":"set","subcmd":"config_upload","data":{"index":)" +
         std::to_string(index) + "}}";
}

class ConfUploadTest : public AgentTest {
 protected:
  ConfUploadTest() { start(); }

  // tar succeeds and leaves `bytes` as the archive.
  static void pack_gives(const std::string& bytes) {
    fake::on_shell([bytes](const std::string& command) {
      if (command == kPack) {
        fake::set_file(kArchive, bytes);
      }
      if (command == kDrop) {
        fake::remove_file(kArchive);
      }
      return 0;
    });
  }

  // Asks for a chunk; the one frame that came back, from offset 32 to the length field's end.
  std::string ask(int index) {
    fake::clear_records();
    receive(request(index));
    EXPECT_THAT(fake::sent(), SizeIs(1));
    return fake::sent().empty() ? "" : fake::sent().front().bytes;
  }

  // The JSON text of an answer: up to the first NUL of the message.
  static std::string text_of(const std::string& frame) { return frame.substr(32).c_str(); }
  static std::string chunk_of(const std::string& frame) {
    return frame.substr(32 + text_of(frame).size() + 1);
  }
};

TEST_F(ConfUploadTest, OneByteArchiveIsAnsweredWithHeaderNulAndThatByte) {
  pack_gives("x");
  const std::string json =
      R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"config_upload","data":{"state":1,"idx":0,)"
      R"("length":1,"next":0,"total_length":1,"crc":-1931733373}})";
  // Tail position: JSON length + 17.
  const auto tail = static_cast<uint16_t>(json.size() + 17);
  EXPECT_THAT(ask(0), BytesAre(reply_header(tail) + json + bytes("\0x")));
  EXPECT_THAT(fake::shell_commands(), ElementsAre(kPack));
}

TEST_F(ConfUploadTest, TwoFullChunksSayWhichIsTheLast) {
  const std::string archive = archive_of(2048);
  pack_gives(archive);
  const std::string first = ask(0);
  EXPECT_THAT(text_of(first), HasSubstr(R"("idx":0,"length":1024,"next":1,"total_length":2048,)"));
  EXPECT_EQ(chunk_of(first), archive.substr(0, 1024));
  const std::string second = ask(1);
  EXPECT_THAT(text_of(second), HasSubstr(R"("idx":1,"length":1024,"next":0,"total_length":2048,)"));
  EXPECT_EQ(chunk_of(second), archive.substr(1024));
}

struct SizeCase {
  size_t size;
  int chunks;
  int last_length;
};

class ConfUploadSizeTest : public ConfUploadTest, public testing::WithParamInterface<SizeCase> {};

TEST_P(ConfUploadSizeTest, ChunksPutTogetherAreTheArchive) {
  const SizeCase param = GetParam();
  const std::string archive = archive_of(param.size);
  pack_gives(archive);
  std::string whole;
  for (int index = 0; index < param.chunks; ++index) {
    const std::string frame = ask(index);
    const bool last = index + 1 == param.chunks;
    const int length = last ? param.last_length : 1024;
    EXPECT_THAT(text_of(frame), HasSubstr("\"length\":" + std::to_string(length) +
                                          ",\"next\":" + (last ? "0" : "1") + ","));
    EXPECT_THAT(chunk_of(frame), SizeIs(static_cast<size_t>(length)));
    whole += chunk_of(frame);
  }
  EXPECT_EQ(whole, archive);
}

INSTANTIATE_TEST_SUITE_P(Sizes, ConfUploadSizeTest,
                         testing::Values(SizeCase{1, 1, 1}, SizeCase{1023, 1, 1023},
                                         SizeCase{1024, 1, 1024}, SizeCase{1025, 2, 1},
                                         SizeCase{2047, 2, 1023}, SizeCase{2048, 2, 1024},
                                         SizeCase{2049, 3, 1}));

TEST_F(ConfUploadTest, EmptyArchiveCountsAsNoneLoaded) {
  pack_gives("");
  const std::string json =
      R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"config_upload","data":{"state":0,"idx":0,)"
      R"("length":0,"next":0,"total_length":0,"crc":0}})";
  EXPECT_THAT(ask(0),
              BytesAre(reply_header(static_cast<uint16_t>(json.size() + 17)) + json + bytes("\0")));
}

TEST_F(ConfUploadTest, IndexPastTheEndIsAMiddleChunkOfZeros) {
  pack_gives(archive_of(2048));
  for (const int index : {2, 5, 2147483647, -1, -2147483647}) {
    const std::string frame = ask(index);
    EXPECT_THAT(text_of(frame), HasSubstr("\"state\":1,\"idx\":" + std::to_string(index) +
                                          ",\"length\":1024,\"next\":1,"));
    EXPECT_EQ(chunk_of(frame), zeros(1024)) << index;
  }
}

TEST_F(ConfUploadTest, CrcWithItsTopBitSetIsSentNegativeAndOneWithoutPositive) {
  pack_gives("x");  // CRC-32 0x8cdc1683
  EXPECT_THAT(text_of(ask(0)), HasSubstr("\"crc\":-1931733373}"));
  qel_api_conf_release();
  g_qel_dev.conf_busy = 0;
  pack_gives(bytes("\xff\xff\xff\xff"));  // CRC-32 0xffffffff
  EXPECT_THAT(text_of(ask(0)), HasSubstr("\"crc\":-1}"));
  qel_api_conf_release();
  g_qel_dev.conf_busy = 0;
  pack_gives("b");  // CRC-32 0x71beeff9
  EXPECT_THAT(text_of(ask(0)), HasSubstr("\"crc\":1908338681}"));
}

TEST_F(ConfUploadTest, PackingThatFailsIsAnsweredWithStateZero) {
  fake::set_shell_status(2);
  const std::string frame = ask(3);
  EXPECT_EQ(text_of(frame),
            R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"config_upload","data":{"state":0,)"
            R"("idx":3,"length":0,"next":0,"total_length":0,"crc":0}})");
  EXPECT_EQ(g_qel_dev.conf_busy, 1);
  EXPECT_THAT(fake::console(),
              ElementsAre(MatchesRegex("\\[qel_api_get_conf_bin,[0-9]+\\] \n"),
                          MatchesRegex("\\[qel_json_conf_get,[0-9]+\\] ret\\[-1\\]\n")));
}

TEST_F(ConfUploadTest, ArchiveThatCannotBeOpenedIsNotAnsweredAndStaysBusy) {
  const std::string told = stderr_of([this] {
    receive(request(0));  // tar says it worked and left nothing
  });
  EXPECT_THAT(told, HasSubstr("Failed to open file: No such file or directory\n"));
  EXPECT_THAT(fake::sent(), IsEmpty());
  EXPECT_EQ(g_qel_dev.conf_busy, 1);
  EXPECT_THAT(fake::console(),
              ElementsAre(MatchesRegex("\\[qel_cmd_handle_conf_get,[0-9]+\\] \n")));
}

TEST_F(ConfUploadTest, ShellThatCannotBeRunIsAFailedPacking) {
  pack_gives("x");
  fake::fail_os("system", ENOMEM);
  EXPECT_THAT(text_of(ask(0)), HasSubstr(R"({"state":0,"idx":0,"length":0,"next":0,)"));
}

TEST_F(ConfUploadTest, ArchiveThatMemoryCannotHoldIsNotAnswered) {
  pack_gives(archive_of(5000));
  fail_malloc(5001);
  EXPECT_THAT(stderr_of([this] { receive(request(0)); }),
              HasSubstr("Memory allocation failed: Cannot allocate memory\n"));
  EXPECT_THAT(fake::sent(), IsEmpty());
  EXPECT_EQ(g_qel_dev.conf_busy, 1);
  EXPECT_EQ(g_qel_conf.upload_data, nullptr);
  EXPECT_EQ(g_qel_conf.upload_length, 0U);
}

TEST_F(ConfUploadTest, ArchiveWhoseSizeIsNotToldIsNotAnswered) {
  pack_gives(archive_of(5000));
  fake::fail_os(std::string("fseek ") + kArchive, EIO);
  EXPECT_THAT(stderr_of([this] { receive(request(0)); }), HasSubstr("Memory allocation failed"));
  EXPECT_THAT(fake::sent(), IsEmpty());
  EXPECT_EQ(g_qel_conf.upload_data, nullptr);
}

TEST_F(ConfUploadTest, ChunkThatItsAreaCannotHoldIsNone) {
  pack_gives(archive_of(5000));
  ask(0);
  std::vector<char> area(1024);
  uint16_t tail = 7;
  EXPECT_EQ(qel_json_conf_get(area, 0, &tail), 0U);
  EXPECT_EQ(tail, 7);
}

TEST_F(ConfUploadTest, ArchiveThatCannotBeReadWholeIsAnsweredWithStateZero) {
  pack_gives(archive_of(5000));
  fake::fail_os(std::string("fread ") + kArchive, EIO);
  std::string frame;
  EXPECT_THAT(stderr_of([&] { frame = ask(0); }),
              HasSubstr("Error reading file: Input/output error\n"));
  EXPECT_EQ(text_of(frame),
            R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"config_upload","data":{"state":0,)"
            R"("idx":0,"length":0,"next":0,"total_length":0,"crc":0}})");
  EXPECT_EQ(g_qel_conf.upload_data, nullptr);
}

TEST_F(ConfUploadTest, RequestWhileBusyWithNothingLoadedIsAnsweredWithoutPackingAgain) {
  stderr_of([this] { receive(request(0)); });
  g_qel_dev.conf_age = 20;
  EXPECT_THAT(text_of(ask(4)), HasSubstr(R"({"state":0,"idx":4,"length":0,"next":0,)"));
  EXPECT_THAT(fake::shell_commands(), IsEmpty());
  EXPECT_EQ(g_qel_dev.conf_age, 0);
}

TEST_F(ConfUploadTest, PackOperationTellsLoadedUnopenedAndUnread) {
  pack_gives("x");
  EXPECT_EQ(qel_api_conf_pack(), 0);
  EXPECT_EQ(g_qel_conf.upload_length, 1U);
  EXPECT_EQ(g_qel_conf.upload_crc, 0x8cdc1683U);
  EXPECT_EQ(g_qel_conf.upload_data[1], '\0');
  EXPECT_EQ(qel_api_conf_release(), 0);
  fake::fail_os(std::string("fread ") + kArchive, EIO);
  stderr_of([] { EXPECT_EQ(qel_api_conf_pack(), 1); });
  fake::fail_os(std::string("fopen ") + kArchive, EACCES);
  EXPECT_EQ(stderr_of([] { EXPECT_EQ(qel_api_conf_pack(), -1); }),
            "Failed to open file: Permission denied\n");
  fake::on_shell([](const std::string&) { return 2; });
  EXPECT_EQ(qel_api_conf_pack(), 0);
  EXPECT_EQ(g_qel_conf.upload_length, 0U);
}

TEST_F(ConfUploadTest, ChunkOfNoArchiveTouchesNeitherAreaNorFigures) {
  uint8_t area[1024] = {7};
  int32_t length = 5;
  int32_t next = 6;
  EXPECT_EQ(qel_api_get_conf_bin(area, 0, &length, &next), -1);
  EXPECT_EQ(area[0], 7);
  EXPECT_EQ(length, 5);
  EXPECT_EQ(next, 6);
}

TEST_F(ConfUploadTest, TransferStateHasItsFieldsInOrder) {
  EXPECT_EQ(offsetof(qel_conf_transfer, upload_data), 0U);
  EXPECT_LT(offsetof(qel_conf_transfer, upload_data), offsetof(qel_conf_transfer, download_data));
  EXPECT_LT(offsetof(qel_conf_transfer, download_data), offsetof(qel_conf_transfer, upload_length));
  EXPECT_LT(offsetof(qel_conf_transfer, upload_length), offsetof(qel_conf_transfer, upload_crc));
  EXPECT_LT(offsetof(qel_conf_transfer, upload_crc), offsetof(qel_conf_transfer, download_length));
  EXPECT_LT(offsetof(qel_conf_transfer, download_length),
            offsetof(qel_conf_transfer, download_file));
}

TEST_F(ConfUploadTest, RequestWithoutDataDoesNothing) {
  receive(R"({"mac":"gw","cmd":"set","subcmd":"config_upload"})");
  EXPECT_THAT(fake::shell_commands(), IsEmpty());
  EXPECT_THAT(fake::sent(), IsEmpty());
  EXPECT_EQ(g_qel_dev.conf_busy, 0);
}

TEST_F(ConfUploadTest, AnswerResetsTheOnlinePorts) {
  pack_gives("x");
  g_qel_dev.online_ports = 7;
  ask(0);
  EXPECT_EQ(g_qel_dev.online_ports, 0U);
}

TEST_F(ConfUploadTest, ArchiveIsPackedOnceAndAChangeInBetweenIsNotSeen) {
  pack_gives("x");
  ask(0);
  pack_gives("changed");
  EXPECT_THAT(text_of(ask(0)), HasSubstr("\"total_length\":1,"));
  EXPECT_THAT(fake::shell_commands(), IsEmpty());
}

// The one-second timer of a started agent.
class ConfUploadAgeTest : public ConfUploadTest {
 protected:
  void ticks(int count) {
    for (int i = 0; i < count; ++i) {
      thread none{fake::master(), nullptr, -1};
      qel_timer_second(&none);
    }
  }
};

TEST_F(ConfUploadAgeTest, ArchiveIsDroppedOnTheThirtyFirstTick) {
  pack_gives("x");
  ask(0);
  fake::clear_records();
  ticks(30);
  EXPECT_THAT(fake::shell_commands(), IsEmpty());
  EXPECT_EQ(g_qel_dev.conf_busy, 1);
  EXPECT_EQ(g_qel_conf.upload_length, 1U);
  ticks(1);
  EXPECT_THAT(fake::shell_commands(), ElementsAre(kDrop));
  EXPECT_EQ(g_qel_dev.conf_busy, 0);
  EXPECT_EQ(g_qel_dev.conf_age, 0);
  EXPECT_EQ(g_qel_conf.upload_length, 0U);
  EXPECT_EQ(g_qel_conf.upload_data, nullptr);
  ticks(40);
  EXPECT_THAT(fake::shell_commands(), SizeIs(1));
}

TEST_F(ConfUploadAgeTest, RequestsTwentySecondsApartKeepTheArchive) {
  pack_gives("x");
  ask(0);
  pack_gives("changed");
  for (int i = 0; i < 20; ++i) {
    ticks(20);
    EXPECT_THAT(text_of(ask(0)), HasSubstr("\"total_length\":1,"));
  }
  ticks(31);
  EXPECT_THAT(text_of(ask(0)), HasSubstr("\"total_length\":7,"));
}

TEST_F(ConfUploadAgeTest, BusyMarkOfAFailedPackingIsClearedByTheTimer) {
  stderr_of([this] { receive(request(0)); });
  ticks(31);
  EXPECT_EQ(g_qel_dev.conf_busy, 0);
  pack_gives("x");
  EXPECT_THAT(text_of(ask(0)), HasSubstr("\"state\":1,"));
}

TEST_F(ConfUploadTest, StartDeletesArchivesOfAnEarlierRun) {
  fake::set_file(kArchive, "old");
  fake::set_file("/var/conf/downlconf.tar.gz", "old");
  fake::clear_records();
  qel_api_conf_init();
  EXPECT_FALSE(fake::file(kArchive).has_value());
  EXPECT_FALSE(fake::file("/var/conf/downlconf.tar.gz").has_value());
  EXPECT_THAT(fake::shell_commands(), IsEmpty());
}

TEST_F(ConfUploadTest, StartForgetsTheWholeTransferState) {
  std::memset(&g_qel_conf, 0xff, sizeof g_qel_conf);
  qel_api_conf_init();
  const qel_conf_transfer found = g_qel_conf;
  g_qel_conf = qel_conf_transfer{};  // what is left of the pattern is not to be freed
  EXPECT_EQ(found.upload_data, nullptr);
  EXPECT_EQ(found.download_data, nullptr);
  EXPECT_EQ(found.upload_length, 0U);
  EXPECT_EQ(found.upload_crc, 0U);
  EXPECT_EQ(found.download_length, 0U);
  EXPECT_EQ(found.download_file, nullptr);
  EXPECT_EQ(found.download_total, 0U);
}

TEST_F(ConfUploadTest, SecondGatewayReadsTheSameArchiveAndIsAnsweredItself) {
  pack_gives(archive_of(2048));
  ask(0);
  fake::clear_records();
  receive(request(1), {0x02, 0, 0, 0, 0, 0x99});
  ASSERT_THAT(fake::sent(), SizeIs(1));
  EXPECT_EQ(fake::sent()[0].bytes.substr(0, 6), bytes("\x02\0\0\0\0\x99"));
  EXPECT_THAT(text_of(fake::sent()[0].bytes), HasSubstr(R"("idx":1,"length":1024,"next":0,)"));
  EXPECT_THAT(fake::shell_commands(), IsEmpty());
}

TEST_F(ConfUploadTest, OverUdpTheAnswerIsOneDatagramOfTextNulAndChunk) {
  pack_gives("x");
  qel_link link = udp_link();
  qel_cmd_dispatch(&link, request(0).c_str(), 0);
  ASSERT_THAT(fake::sent(), SizeIs(1));
  EXPECT_THAT(
      fake::sent().front().bytes,
      BytesAre(std::string(R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"config_upload",)"
                           R"("data":{"state":1,"idx":0,"length":1,"next":0,"total_length":1,)"
                           R"("crc":-1931733373}})") +
               bytes("\0x")));
}

}  // namespace
