// SPDX-License-Identifier: Apache-2.0
//
// When a restore is done: the switch restarted, and a backup taken then equals what was sent.
#include "gateway/restore.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include "archive_bytes.h"
#include "fixture.h"

namespace qel_gateway {
namespace {

using gateway_test::Bytes;
using gateway_test::gzip;
using gateway_test::kTarEnd;
using gateway_test::member;
using gateway_test::operator+;
using gateway_test::OnFakeWire;
using gateway_test::probe_answer;
using gateway_test::reply;
using gateway_test::reply_with_chunk;
using gateway_test::Sent;
using gateway_test::tick_of;

class RestoreTest : public OnFakeWire {
 protected:
  void SetUp() override {
    archive =
        gzip(member("nvram.conf", "a=1\nb=2\n") + member("qel.conf", "qel enable\n") + kTarEnd);
    wire.on_send = [this](const Sent& sent) { obey(sent.text); };
  }

  // A switch after it took an archive: probes, counters, and a backup of one chunk.
  void obey(const std::string& text) {
    const auto has = [&text](const char* part) { return text.find(part) != std::string::npos; };
    if (!alive) {
      return;
    }
    if (has("ports_info")) {
      wire.arrives(update("ports_info", R"({"ge1":[0,1,"G",1]})"));
      wire.arrives(update("ports_pos", R"({"ge1":[1,1]})"));
    } else if (has("ports_stats")) {
      wire.arrives(update("ports_stats", R"({"ge1":[1000,0,0,0]})"));
    } else if (has("config_upload")) {
      back_up();
    } else if (has("probe")) {
      wire.arrives(probe_answer(tick_of(text), "office-sw", "0a1b2c3d4e5f", "0a 1b 2c 3d 4e 5f",
                                uptime + clock.elapsed() / 1000));
    }
  }

  void back_up() {
    if (!backs_up) {
      return;
    }
    const auto crc =
        static_cast<int32_t>(::crc32(0, archive.data(), static_cast<uInt>(archive.size())));
    const std::string size = std::to_string(archive.size());
    wire.arrives(reply_with_chunk(
        R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"config_upload","data":{"state":)" +
            std::string(archive.empty() ? "0" : "1") + R"(,"idx":0,"length":)" + size +
            R"(,"next":0,"total_length":)" + size + R"(,"crc":)" + std::to_string(crc) + "}}",
        archive));
  }

  static Bytes update(const std::string& subject, const std::string& data) {
    return reply(R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":")" + subject + R"(","data":)" +
                 data + "}");
  }

  // Marks the switch as it is, lets `apply` happen, and waits for the end of the restore.
  RestoreReport restored(const std::function<void()>& apply) {
    RestartMark mark = session.run(mark_restart(session, office, Duration(1000)));
    apply();
    return session.run(await_restored(session, office, std::move(mark), pushed,
                                      {Duration(5000), Duration(20000), Duration(900)}));
  }

  void restart() { uptime = 3 - clock.elapsed() / 1000; }

  static ArchiveMember file(std::string name, std::string_view content) {
    return {std::move(name), {content.begin(), content.end()}};
  }

  const std::vector<ArchiveMember> pushed = {file("nvram.conf", "a=1\nb=2\n"),
                                             file("qel.conf", "qel enable\n")};
  Bytes archive;  // that the switch has for whoever asks
  bool alive = true;
  bool backs_up = true;
  int64_t uptime = 3600;
};

TEST_F(RestoreTest, ASwitchThatRestartedWithTheFilesSentIsRestored) {
  const RestoreReport report = restored([this] { restart(); });
  EXPECT_EQ(report.code, ExitCode::Done);
  EXPECT_EQ(report.words, "the switch restarted and holds the 2 files sent");
  EXPECT_EQ(report.restart, Effect::Took);
  EXPECT_TRUE(report.read_back);
  EXPECT_TRUE(report.differences.empty());
}

TEST_F(RestoreTest, ASwitchThatKeptItsFilesIsNotRestored) {
  archive = gzip(member("nvram.conf", "a=1\nb=9\n") + member("qel.conf", "qel enable\n") + kTarEnd);
  const RestoreReport report = restored([this] { restart(); });
  EXPECT_EQ(report.code, ExitCode::Failed);
  EXPECT_EQ(report.words,
            "the switch restarted; it does not hold what was sent: nvram.conf: b differs");
  ASSERT_EQ(report.differences.size(), 1u);
  EXPECT_EQ(report.differences[0].file, "nvram.conf");
  EXPECT_EQ(report.differences[0].key, "b");
  EXPECT_EQ(report.differences[0].kind, DifferenceKind::Changed);
}

TEST_F(RestoreTest, AFileThatIsMissingAndOneTooManyAreNamed) {
  archive = gzip(member("nvram.conf", "a=1\nb=2\n") + member("old.conf", "") + kTarEnd);
  const RestoreReport report = restored([this] { restart(); });
  EXPECT_EQ(report.code, ExitCode::Failed);
  EXPECT_EQ(report.words,
            "the switch restarted; it does not hold what was sent: old.conf was not sent, qel.conf "
            "is missing");
}

TEST_F(RestoreTest, ASwitchThatDidNotRestartIsNotRestored) {
  const RestoreReport report = restored([] {});
  EXPECT_EQ(report.code, ExitCode::Failed);
  EXPECT_EQ(report.words,
            "the switch was not seen to restart; whether it holds what was sent is not known");
  EXPECT_EQ(report.restart, Effect::NotTaken);
  // It would answer with what it packed for somebody before.
  EXPECT_EQ(wire.count("config_upload"), 0u);
}

TEST_F(RestoreTest, ASilenceWithoutASignOfARestartIsNotDone) {
  int64_t back_at = 0;
  wire.before_receive = [this, &back_at] { alive = clock.elapsed() >= back_at; };
  const RestoreReport report = restored([&] { back_at = clock.elapsed() + 3000; });
  EXPECT_EQ(report.code, ExitCode::Failed);
  EXPECT_EQ(report.words,
            "the switch was silent for a while and answers again; neither its uptime nor its "
            "counters began anew; whether it holds what was sent is not known");
}

TEST_F(RestoreTest, ALongRestartIsWaitedFor) {
  int64_t back_at = 0;
  wire.before_receive = [this, &back_at] { alive = clock.elapsed() >= back_at; };
  const RestoreReport report = restored([&] {
    back_at = clock.elapsed() + 18000;
    uptime = -clock.elapsed() / 1000 - 15;
  });
  EXPECT_EQ(report.code, ExitCode::Done);
  EXPECT_GE(clock.elapsed(), 18000);
}

TEST_F(RestoreTest, ASwitchThatStaysAwayIsNoAnswer) {
  const RestoreReport report = restored([this] { alive = false; });
  EXPECT_EQ(report.code, ExitCode::NoAnswer);
  EXPECT_EQ(report.words,
            "the switch fell silent and did not come back in time; whether it holds what was sent "
            "is not known");
  EXPECT_EQ(wire.count("config_upload"), 0u);
}

TEST_F(RestoreTest, ABackupThatStaysAwayIsNoAnswer) {
  backs_up = false;
  const RestoreReport report = restored([this] { restart(); });
  EXPECT_EQ(report.code, ExitCode::NoAnswer);
  EXPECT_EQ(report.words, "the switch restarted; what it holds could not be read back: no answer");
  EXPECT_FALSE(report.read_back);
}

TEST_F(RestoreTest, ASwitchWithoutAFileLeftIsNotRestored) {
  archive.clear();
  const RestoreReport report = restored([this] { restart(); });
  EXPECT_EQ(report.code, ExitCode::Failed);
  EXPECT_EQ(report.words,
            "the switch restarted; what it holds could not be read back: the switch could not pack "
            "its configuration");
}

TEST_F(RestoreTest, AHostileBackupIsNotBelieved) {
  archive =
      gzip(member("nvram.conf", "a=1\nb=2\n") + member("../qel.conf", "qel enable\n") + kTarEnd);
  EXPECT_EQ(restored([this] { restart(); }).words,
            "the switch restarted; what it holds could not be read back: not a configuration "
            "archive: \"../qel.conf\" lies in a folder");
}

TEST_F(RestoreTest, AnInterruptedWaitSaysWhatIsNotKnown) {
  bool stop = false;
  session.set_interrupt([&stop] { return stop; });
  std::string words;
  try {
    restored([&stop] { stop = true; });
  } catch (const Interrupted& reason) {
    words = reason.what();
  }
  EXPECT_EQ(words,
            "interrupted; the switch has all of the archive, and whether it was restored is not "
            "known");
}

TEST_F(RestoreTest, AWireThatGoesMeanwhileIsTold) {
  const RestoreReport report =
      restored([this] { wire.before_receive = [] { throw Error("interface gw0 went down"); }; });
  EXPECT_EQ(report.code, ExitCode::Failed);
  EXPECT_EQ(report.words,
            "interface gw0 went down; the switch has all of the archive, and whether it was "
            "restored is not known");
}

}  // namespace
}  // namespace qel_gateway
