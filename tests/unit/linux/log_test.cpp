// SPDX-License-Identifier: Apache-2.0
//
// The log as somebody at the terminal sees it, and the assertion that ends the process.
#include "platform/log.h"

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
