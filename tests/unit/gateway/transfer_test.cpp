// SPDX-License-Identifier: Apache-2.0
//
// Backup, restore and firmware push, chunk by chunk: what is sent, what is sent again, and what is
// said when it goes wrong.
#include "gateway/transfer.h"

#include <gtest/gtest.h>

#include "fixture.h"

namespace qel_gateway {
namespace {

using gateway_test::Bytes;
using gateway_test::OnFakeWire;
using gateway_test::reply;
using gateway_test::reply_with_chunk;
using gateway_test::Sent;

constexpr const char* kDigits = "123456789";  // CRC-32 cbf43926, as a signed number -873187034

class TransferTest : public OnFakeWire {
 protected:
  static std::string upload_answer(int state, int index, int length, int next, int total,
                                   const std::string& crc) {
    return R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"config_upload","data":{"state":)" +
           std::to_string(state) + R"(,"idx":)" + std::to_string(index) + R"(,"length":)" +
           std::to_string(length) + R"(,"next":)" + std::to_string(next) + R"(,"total_length":)" +
           std::to_string(total) + R"(,"crc":)" + crc + "}}";
  }

  static Bytes chunk_answer(const std::string& subject, int state, int64_t index) {
    return reply(R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":")" + subject +
                 R"(","data":{"state":)" + std::to_string(state) + R"(,"index":)" +
                 std::to_string(index) + R"(,"file":"a.tar.gz"}})");
  }

  Task<std::vector<uint8_t>> fetch() {
    return fetch_archive(session, office, Duration(900), [this](uint64_t done, uint64_t total) {
      told.push_back({done, total});
    });
  }

  Task<void> push(const char* subject) {
    Push what;
    what.subject = subject;
    what.file = "a.tar.gz";
    what.bytes = &file;
    what.crc = 0x01020304;
    const ProgressSink sink = [this](uint64_t done, uint64_t total) {
      told.push_back({done, total});
    };
    return std::string(subject) == "config_download"
               ? push_archive(session, office, what, Duration(900), sink)
               : push_firmware(session, office, what, Duration(900), sink);
  }

  // Answers chunks as a switch does that stores everything.
  void stores(const char* subject, int last_state = 3) {
    wire.on_send = [this, subject, last_state](const Sent& sent) {
      if (sent.text.find(R"("length":2000)") != std::string::npos) {
        wire.arrives(chunk_answer(subject, 0, 2147483647));
        return;
      }
      if (sent.text.find(subject) == std::string::npos) {
        return;
      }
      const bool last = sent.text.find(R"("next":0)") != std::string::npos;
      const int64_t index = std::stoll(sent.text.substr(sent.text.find(R"("index":)") + 8));
      wire.arrives(chunk_answer(subject, last ? last_state : 2, last ? 0 : index + 1));
    };
  }

  // The bytes behind the text of a sent frame.
  static Bytes chunk_of(const Sent& sent) {
    return Bytes(sent.frame.begin() + 32 + static_cast<ptrdiff_t>(sent.text.size()) + 1,
                 sent.frame.end());
  }

  Bytes file;
  std::vector<std::pair<uint64_t, uint64_t>> told;
};

TEST_F(TransferTest, FetchesAnArchiveOfOneChunk) {
  const Bytes digits(kDigits, kDigits + 9);
  wire.answer(R"("index":0)",
              {reply_with_chunk(upload_answer(1, 0, 9, 0, 9, "-873187034"), digits)});
  EXPECT_EQ(session.run(fetch()), digits);
  EXPECT_EQ(wire.sent()[0].text,
            R"({"mac":"0a1b2c3d4e5f","cmd":"set","subcmd":"config_upload","data":{"index":0}})");
  EXPECT_EQ(told, (std::vector<std::pair<uint64_t, uint64_t>>{{9, 9}}));
}

TEST_F(TransferTest, FetchesChunkByChunkAndAsksAgainForALostOne) {
  // 1025 zero bytes; CRC-32 0e3b57ed = 238770157.
  const char* crc = "238770157";
  wire.answer(R"("index":0)",
              {reply_with_chunk(upload_answer(1, 0, 1024, 1, 1025, crc), Bytes(1024, 0))});
  wire.answer(R"("index":1)", {}, 1, 1);
  wire.answer(R"("index":1)",
              {reply_with_chunk(upload_answer(1, 0, 1024, 1, 1025, crc), Bytes(1024, 0)),
               reply_with_chunk(upload_answer(1, 1, 1, 0, 1025, crc), Bytes(28, 0))});
  const auto bytes = session.run(fetch());
  EXPECT_EQ(bytes, Bytes(1025, 0));
  EXPECT_EQ(wire.count(R"("index":1)"), 2u);
}

TEST_F(TransferTest, AWrongCrcIsNoArchive) {
  wire.answer(R"("index":0)",
              {reply_with_chunk(upload_answer(1, 0, 9, 0, 9, "1"), Bytes(kDigits, kDigits + 9))});
  EXPECT_EQ(error_of(fetch()), "what came has the CRC cbf43926, announced was 00000001");
}

TEST_F(TransferTest, ASwitchThatCannotPackSaysSo) {
  wire.answer(R"("index":0)", {reply_with_chunk(upload_answer(0, 0, 0, 0, 0, "0"), {})});
  EXPECT_EQ(error_of(fetch()), "the switch could not pack its configuration");
}

TEST_F(TransferTest, ASwitchThatContradictsItselfIsNotBelieved) {
  wire.answer(R"("index":0)",
              {reply_with_chunk(upload_answer(1, 0, 1024, 1, 2048, "5"), Bytes(1024, 0))});
  wire.answer(R"("index":1)",
              {reply_with_chunk(upload_answer(1, 1, 1024, 0, 4096, "5"), Bytes(1024, 0))}, 1, 1);
  EXPECT_EQ(error_of(fetch()),
            "the switch's configuration changed while it was fetched; try again");
  wire.answer(R"("index":1)",
              {reply_with_chunk(upload_answer(1, 1, 1024, 1, 2048, "5"), Bytes(1024, 0))}, 1, 1);
  EXPECT_EQ(error_of(fetch()), "chunk 1 contradicts the announced length");
  wire.answer(R"("index":1)",
              {reply_with_chunk(upload_answer(1, 1, 1000, 0, 2048, "5"), Bytes(1000, 0))}, 1, 1);
  EXPECT_EQ(error_of(fetch()), "chunk 1 contradicts the announced length");
}

TEST_F(TransferTest, AChunkCutShortIsNotTaken) {
  wire.answer(R"("index":0)",
              {reply_with_chunk(upload_answer(1, 0, 100, 0, 100, "5"), Bytes(99, 0))});
  ExitCode code = ExitCode::Done;
  EXPECT_EQ(error_of(fetch(), &code), "no answer");
  EXPECT_EQ(code, ExitCode::NoAnswer);
  EXPECT_EQ(wire.sent().size(), 3u);
}

TEST_F(TransferTest, AnArchiveOfAnAbsurdSizeIsNotBegun) {
  wire.answer(R"("index":0)",
              {reply_with_chunk(upload_answer(1, 0, 1024, 1, 2147483647, "5"), Bytes(1024, 0))});
  EXPECT_EQ(error_of(fetch()),
            "the switch announces an archive of 2147483647 bytes, which is too much");
}

TEST_F(TransferTest, PushesAnArchiveAfterMakingTheSwitchForget) {
  file = Bytes(1025, 0x55);
  stores("config_download");
  session.run(push("config_download"));
  ASSERT_EQ(wire.sent().size(), 3u);
  EXPECT_EQ(wire.sent()[0].text,
            R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"config_download","data":{"index":)"
            R"(2147483646,"next":1,"file":"a.tar.gz","total_length":2147483647,"crc":0,)"
            R"("length":2000}})");
  EXPECT_EQ(wire.sent()[1].text,
            R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"config_download","data":{"index":0,)"
            R"("next":1,"file":"a.tar.gz","total_length":1025,"crc":16909060,"length":1024}})");
  EXPECT_EQ(wire.sent()[2].text,
            R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"config_download","data":{"index":1,)"
            R"("next":0,"file":"a.tar.gz","total_length":1025,"crc":16909060,"length":1}})");
  EXPECT_EQ(chunk_of(wire.sent()[1]), Bytes(1024, 0x55));
  EXPECT_EQ(chunk_of(wire.sent()[2]), Bytes(1, 0x55));
  const size_t text = wire.sent()[1].text.size();
  EXPECT_EQ(wire.sent()[1].frame[18], (text + 17) >> 8);
  EXPECT_EQ(wire.sent()[1].frame[19], (text + 17) & 0xFF);
  EXPECT_EQ(told, (std::vector<std::pair<uint64_t, uint64_t>>{{1024, 1025}, {1025, 1025}}));
}

TEST_F(TransferTest, WithoutAnAnswerNotOneByteIsSent) {
  file = Bytes(2000, 1);
  ExitCode code = ExitCode::Done;
  EXPECT_EQ(error_of(push("config_download"), &code), "no answer; nothing was sent");
  EXPECT_EQ(code, ExitCode::NoAnswer);
  EXPECT_EQ(wire.count(R"("length":2000})"), 2u);
  EXPECT_EQ(wire.sent().size(), 2u);
}

TEST_F(TransferTest, ALostArchiveChunkIsNotRepeatedButForgotten) {
  file = Bytes(3000, 1);
  wire.on_send = [this](const Sent& sent) {
    if (sent.text.find(R"("length":2000)") != std::string::npos) {
      wire.arrives(chunk_answer("config_download", 0, 2147483647));
    } else if (sent.text.find(R"("index":0)") != std::string::npos) {
      wire.arrives(chunk_answer("config_download", 2, 1));
    }
  };
  ExitCode code = ExitCode::Done;
  EXPECT_EQ(error_of(push("config_download"), &code),
            "no answer after 1024 bytes; nothing was applied");
  EXPECT_EQ(code, ExitCode::NoAnswer);
  EXPECT_EQ(wire.count(R"("index":1,)"), 1u);
  EXPECT_EQ(wire.count(R"("index":2,)"), 0u);
  EXPECT_EQ(wire.count(R"("length":2000)"), 2u);
}

TEST_F(TransferTest, AFullDiskIsTold) {
  file = Bytes(3000, 1);
  wire.on_send = [this](const Sent& sent) {
    const bool forget = sent.text.find(R"("length":2000)") != std::string::npos;
    wire.arrives(chunk_answer("config_download", 0, forget ? 2147483647 : 1));
  };
  EXPECT_EQ(error_of(push("config_download")),
            "the switch could not store the archive after 0 bytes; nothing was applied");
}

TEST_F(TransferTest, AnArchiveThatIsRefusedAtItsEndChangesNothing) {
  for (const size_t size : {10u, 3000u}) {
    file = Bytes(size, 1);
    stores("config_download", 0);
    EXPECT_EQ(error_of(push("config_download")),
              "the switch refused the archive; nothing was changed");
  }
  stores("config_download", 2);
  EXPECT_EQ(error_of(push("config_download")),
            "the switch answered state 2 to the last chunk: whether the archive was applied is not "
            "known");
}

TEST_F(TransferTest, ASilentLastChunkLeavesItOpenWhatBecameOfIt) {
  file = Bytes(10, 1);
  wire.on_send = [this](const Sent& sent) {
    if (sent.text.find(R"("length":2000)") != std::string::npos) {
      wire.arrives(chunk_answer("config_download", 0, 2147483647));
    }
  };
  ExitCode code = ExitCode::Done;
  EXPECT_EQ(error_of(push("config_download"), &code),
            "no answer to the last chunk: whether the archive was applied is not known");
  EXPECT_EQ(code, ExitCode::NoAnswer);
  EXPECT_EQ(wire.sent().size(), 2u);
}

TEST_F(TransferTest, AnInterruptedRestoreIsForgottenToo) {
  file = Bytes(3000, 1);
  bool stop = false;
  session.set_interrupt([&stop] { return stop; });
  wire.on_send = [this, &stop](const Sent& sent) {
    if (sent.text.find(R"("length":2000)") != std::string::npos) {
      wire.arrives(chunk_answer("config_download", 0, 2147483647));
    } else if (sent.text.find(R"("index":0)") != std::string::npos) {
      wire.arrives(chunk_answer("config_download", 2, 1));
    } else {
      stop = true;
      wire.arrives(reply("[]"));
    }
  };
  std::string words;
  try {
    session.run(push("config_download"));
  } catch (const Interrupted& reason) {
    words = reason.what();
  }
  EXPECT_EQ(words, "interrupted; the switch was told to forget what it had, nothing was applied");
  EXPECT_NE(wire.sent().back().text.find(R"("length":2000)"), std::string::npos);
}

TEST_F(TransferTest, ARestoreThatIsInterruptedBeforeItsFirstChunkAppliesNothing) {
  file = Bytes(3000, 1);
  bool stop = false;
  session.set_interrupt([&stop] { return stop; });
  wire.on_send = [&stop](const Sent&) { stop = true; };
  std::string words;
  try {
    session.run(push("config_download"));
  } catch (const Interrupted& reason) {
    words = reason.what();
  }
  EXPECT_EQ(words, "interrupted; nothing was applied");
  EXPECT_EQ(wire.count(R"("index":0,)"), 0u);
}

// After how many sent frames the wire goes, and what is said then.
struct GoneAfter {
  const char* subject;
  size_t sent;
  const char* words;
};

class WireGone : public TransferTest, public testing::WithParamInterface<GoneAfter> {};

TEST_P(WireGone, SaysWhatWasApplied) {
  file = Bytes(3000, 1);
  stores(GetParam().subject);
  wire.before_receive = [this] {
    if (wire.sent().size() == GetParam().sent) {
      throw Error("interface gw0 went down");
    }
  };
  ExitCode code = ExitCode::Done;
  EXPECT_EQ(error_of(push(GetParam().subject), &code), GetParam().words);
  EXPECT_EQ(code, ExitCode::Failed);
  EXPECT_EQ(wire.sent().size(), GetParam().sent);
}

INSTANTIATE_TEST_SUITE_P(
    AtEveryStage, WireGone,
    testing::Values(
        GoneAfter{"config_download", 1, "interface gw0 went down; nothing was applied"},
        GoneAfter{"config_download", 3,
                  "interface gw0 went down; the switch may hold a part of the archive, but applies "
                  "none of it before another restore"},
        GoneAfter{"config_download", 4,
                  "interface gw0 went down at the last chunk: whether the archive was applied is "
                  "not known"},
        GoneAfter{"firm_download", 2, "interface gw0 went down; nothing was upgraded"},
        GoneAfter{"firm_download", 3,
                  "interface gw0 went down at the last chunk: whether the upgrade began is not "
                  "known"}));

TEST_F(TransferTest, FirmwareChunksInTheMiddleAreRepeated) {
  file = Bytes(3000, 1);
  int middle = 0;
  wire.on_send = [this, &middle](const Sent& sent) {
    const int64_t index = std::stoll(sent.text.substr(sent.text.find(R"("index":)") + 8));
    const bool last = sent.text.find(R"("next":0)") != std::string::npos;
    if (index == 1 && ++middle == 1) {
      return;
    }
    wire.arrives(chunk_answer("firm_download", last ? 3 : 2, last ? 0 : index + 1));
  };
  session.run(push("firm_download"));
  EXPECT_EQ(wire.count(R"("index":0,)"), 1u);
  EXPECT_EQ(wire.count(R"("index":1,)"), 2u);
  EXPECT_EQ(wire.count(R"("index":2,)"), 1u);
}

TEST_F(TransferTest, TheFirstAndTheLastFirmwareChunkAreNotRepeated) {
  file = Bytes(3000, 1);
  EXPECT_EQ(error_of(push("firm_download")), "no answer after 0 bytes; nothing was upgraded");
  EXPECT_EQ(wire.sent().size(), 1u);
  wire.on_send = [this](const Sent& sent) {
    const int64_t index = std::stoll(sent.text.substr(sent.text.find(R"("index":)") + 8));
    if (index < 2) {
      wire.arrives(chunk_answer("firm_download", 2, index + 1));
    }
  };
  EXPECT_EQ(error_of(push("firm_download")),
            "no answer to the last chunk: whether the upgrade began is not known");
  EXPECT_EQ(wire.count(R"("index":2,)"), 1u);
}

TEST_F(TransferTest, FirmwareRefusalsAreTold) {
  file = Bytes(10, 1);
  wire.answer("firm_download", {chunk_answer("firm_download", -1, 0)}, 1, 1);
  EXPECT_EQ(error_of(push("firm_download")), "the switch is upgrading already");
  wire.answer("firm_download", {chunk_answer("firm_download", -2, 0)}, 1, 1);
  EXPECT_EQ(error_of(push("firm_download")),
            "the switch says that the image is not complete; nothing was upgraded");
}

TEST_F(TransferTest, NothingIsPushedOverAWireWithoutChunks) {
  file = Bytes(10, 1);
  wire.chunks = false;
  EXPECT_EQ(error_of(push("config_download")),
            "a switch takes no files over UDP; use -i and Ethernet");
  EXPECT_EQ(error_of(push("firm_download")),
            "a switch takes no files over UDP; use -i and Ethernet");
  EXPECT_TRUE(wire.sent().empty());
}

TEST_F(TransferTest, ChunksAreCutToWhatAMessageHolds) {
  file = Bytes(2050, 1);
  Push what;
  what.subject = "config_download";
  what.file = "a.tar.gz";
  what.bytes = &file;
  for (const size_t most : {1568u, 700u, 200u}) {
    uint64_t sum = 0;
    size_t lasts = 0;
    for (const PlannedChunk& chunk : plan_chunks("0a1b2c3d4e5f", what, most)) {
      EXPECT_EQ(chunk.offset, sum);
      EXPECT_LE(chunk.text.size() + 1 + chunk.length, most);
      sum += chunk.length;
      lasts += chunk.last ? 1 : 0;
    }
    EXPECT_EQ(sum, 2050u);
    EXPECT_EQ(lasts, 1u);
  }
  EXPECT_THROW(plan_chunks("0a1b2c3d4e5f", what, 100), Error);
}

TEST_F(TransferTest, ChunkArithmetic) {
  Push what;
  what.subject = "firm_download";
  what.file = "f";
  what.bytes = &file;
  const std::pair<size_t, size_t> cases[] = {{1, 1},    {1023, 1}, {1024, 1}, {1025, 2},
                                             {2047, 2}, {2048, 2}, {2049, 3}};
  for (const auto& [size, count] : cases) {
    file = Bytes(size, 1);
    EXPECT_EQ(plan_chunks("0a1b2c3d4e5f", what, 1568).size(), count) << size;
  }
}

}  // namespace
}  // namespace qel_gateway
