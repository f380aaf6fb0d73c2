// SPDX-License-Identifier: Apache-2.0
//
// The log as somebody at the terminal sees it, and the assertion that ends the process.
#include "platform/log.h"

#include <sys/stat.h>
#include <unistd.h>

#include "tests/unit/linux/support.h"

namespace {

std::string prefix() {
  return "test[" + std::to_string(getpid()) + "]: ";
}

TEST(LogTest, OneCallMakesOneLine) {
  LogCapture log;
  zlog_notice("qel %s starting", "V1");
  zlog_err("%s: accept async failed\n", "qel_serv");
  zlog_err("from the network: %s", "a\nb\x1b[2J\x7f\tc");
  EXPECT_EQ(prefix() + "notice: qel V1 starting\n" + prefix() +
                "error: qel_serv: accept async failed\n" + prefix() +
                "error: from the network: a?b?[2J?\tc\n",
            log.text());
}

TEST(LogTest, LongLinesAreCut) {
  LogCapture log;
  zlog_notice("%s", std::string(5000, 'x').c_str());
  EXPECT_EQ(prefix() + "notice: " + std::string(1023, 'x') + "\n", log.text());
}

TEST(LogTest, QuietInTheBackground) {
  LogCapture log;
  setenv("MORVA_LOG", "syslog", 1);
  zlog_err("nobody sees this");
  EXPECT_EQ("", log.text());
}

// What JOURNAL_STREAM holds where standard error leads to the journal.
std::string stderr_stream() {
  struct stat stream = {};
  fstat(STDERR_FILENO, &stream);
  return std::to_string(stream.st_dev) + ":" + std::to_string(stream.st_ino);
}

TEST(LogTest, ForegroundIsToldWhereverStandardErrorLeads) {
  LogCapture log;  // standard error is a file
  unsetenv("MORVA_LOG");
  unsetenv("JOURNAL_STREAM");
  zlog_err("somebody sees this");
  EXPECT_EQ(prefix() + "error: somebody sees this\n", log.text());
}

TEST(LogTest, JournalGetsALineOnce) {
  LogCapture log;
  unsetenv("MORVA_LOG");
  const std::string journal = stderr_stream();
  setenv("JOURNAL_STREAM", journal.c_str(), 1);
  zlog_err("the journal has this by syslog");
  for (const std::string& other : {journal + "0", std::string("8:1"), std::string()}) {
    setenv("JOURNAL_STREAM", other.c_str(), 1);  // the service's, but not this process's any more
    zlog_err("of another stream");
  }
  setenv("JOURNAL_STREAM", journal.c_str(), 1);
  setenv("MORVA_LOG", "stderr", 1);
  zlog_err("asked for");
  unsetenv("JOURNAL_STREAM");
  const std::string line = prefix() + "error: of another stream\n";
  EXPECT_EQ(line + line + line + prefix() + "error: asked for\n", log.text());
}

TEST(LogTest, BeforeTheStartLinesAreLost) {
  LogCapture log;
  zlog* kept = zlog_default;
  zlog_default = nullptr;
  zlog_err("too early");
  zlog_default = kept;
  EXPECT_EQ("", log.text());
}

TEST(LogDeathTest, AssertionNamesThePlaceAndAborts) {
  EXPECT_EXIT(
      zlog_assert_failed("(node)->data != ((void *)0)", "qel/qel_table", 12, "qel_table_dev_init"),
      testing::KilledBySignal(SIGABRT),
      "Assertion `\\(node\\)->data != \\(\\(void \\*\\)0\\)' failed in file qel/qel_table, "
      "line 12, function qel_table_dev_init");
}

}  // namespace
