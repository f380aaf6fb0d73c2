// SPDX-License-Identifier: Apache-2.0
//
// The saved configuration, written and read, whole and hostile; the process id file.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

#include "tests/unit/vty/support.h"

namespace morva::shell {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using vtytest::calls;
using vtytest::Root;
using vtytest::Shell;

constexpr char kFile[] = "/var/conf/qel.conf";

class ConfigTest : public testing::Test {
 protected:
  void SetUp() override { vtytest::install_daemon(); }

  Root root_;
};

TEST_F(ConfigTest, WritesWhatTheNodesSay) {
  vtytest::enabled() = 0;
  ASSERT_EQ(vty_config_write_file(), 0);
  EXPECT_EQ(root_.read(kFile), "qel disable\n!\n");
  vtytest::enabled() = 1;
  ASSERT_EQ(vty_config_write_file(), 0);
  EXPECT_EQ(root_.read(kFile), "qel enable\n!\n");
  struct stat status = {};
  ASSERT_EQ(stat(root_.path(kFile).c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0137, 0u);  // nobody else writes, others do not read
}

TEST_F(ConfigTest, ASessionWritesTheSameToTheFile) {
  Shell telnet(SessionKind::kTelnet);
  telnet.type("enable\rconfigure terminal\rqel disable\rwrite\r");
  EXPECT_THAT(telnet.screen().text(), HasSubstr("\nConfiguration saved\n"));
  EXPECT_EQ(root_.read(kFile), "qel disable\n!\n");
  telnet.type("hostname lab\rexec-timeout 0\rend\rwrite memory\r");
  EXPECT_EQ(root_.read(kFile), "hostname lab\nexec-timeout 0 0\n!\nqel disable\n!\n");
  telnet.type("configure terminal\rqel enable\rwrite file\r");
  EXPECT_EQ(root_.read(kFile), "hostname lab\nexec-timeout 0 0\n!\nqel enable\n!\n");
}

TEST_F(ConfigTest, AFailedWriteLeavesTheOldFile) {
  ASSERT_EQ(vty_config_write_file(), 0);
  // Something in the way of the draft that cannot be unlinked.
  ASSERT_EQ(mkdir(root_.path("/var/conf/qel.conf.tmp").c_str(), 0700), 0);
  vtytest::enabled() = 0;
  EXPECT_EQ(vty_config_write_file(), -1);
  EXPECT_EQ(root_.read(kFile), "qel enable\n!\n");
  Shell shell(SessionKind::kPlain);
  EXPECT_EQ(shell.exchange("en\nwrite\n"),
            "qel# % The configuration could not be saved; the log says why\nqel# ");
}

TEST_F(ConfigTest, ADraftLeftByACrashIsInNobodysWay) {
  root_.write("/var/conf/qel.conf.tmp", "torn");
  ASSERT_EQ(vty_config_write_file(), 0);
  EXPECT_EQ(root_.read(kFile), "qel enable\n!\n");
  EXPECT_NE(access(root_.path("/var/conf/qel.conf.tmp").c_str(), F_OK), 0);
}

TEST_F(ConfigTest, ReadsWhatItWrote) {
  vtytest::enabled() = 0;
  settings().idle_seconds = 90;
  settings().host_name = "lab";
  ASSERT_EQ(vty_config_write_file(), 0);
  vtytest::install_daemon();
  ASSERT_EQ(config_load(), 0);
  EXPECT_EQ(vtytest::enabled(), 0);
  EXPECT_EQ(settings().idle_seconds, 90u);
  EXPECT_EQ(settings().host_name, "lab");
}

TEST_F(ConfigTest, NoFileIsNoMistake) {
  EXPECT_EQ(config_load(), -1);
  EXPECT_THAT(calls(), IsEmpty());
}

TEST_F(ConfigTest, BadLinesCostOnlyThemselves) {
  std::string text = "garbage\nqel\nqel debug 999\n\xff\xfe\x01\n\r\n   \n! qel debug 1\n";
  text += std::string("nul\0byte\n", 9);
  text += std::string(100000, 'x') + "\n";
  text += "qel disable" + std::string(100000, ' ') + "\n";
  text += "write\nshow running-config\nqel debug 3\r\nend\n  qel debug 4\nqel debug 5";
  EXPECT_EQ(config_apply(text), 3u);
  EXPECT_THAT(calls(), ElementsAre("qel debug <0-255> -> 3", "qel debug <0-255> -> 4",
                                   "qel debug <0-255> -> 5"));
  EXPECT_EQ(root_.read(kFile), "") << "reading a configuration must not write one";
}

TEST_F(ConfigTest, MoreLinesThanAnyConfigurationHas) {
  std::string text;
  for (int i = 0; i < 10000; i++) {
    text += "qel debug 1\n";
  }
  EXPECT_EQ(config_apply(text), kConfigLineMaximum);
  EXPECT_EQ(config_apply(std::string(2 * kConfigMaximum, '\n')), 0u);
}

TEST_F(ConfigTest, WhatIsNoFileIsNotWaitedFor) {
  ASSERT_EQ(mkfifo(root_.path(kFile).c_str(), 0600), 0);
  EXPECT_EQ(config_load(), -1);
  unlink(root_.path(kFile).c_str());
  ASSERT_EQ(mkdir(root_.path(kFile).c_str(), 0700), 0);
  EXPECT_EQ(config_load(), -1);
}

TEST_F(ConfigTest, AHugeFileIsReadWithinBounds) {
  std::string text = "qel debug 1\n";
  while (text.size() < 3 * kConfigMaximum) {
    text += "! " + std::string(4000, 'x') + "\n";
  }
  root_.write(kFile, text + "qel debug 2\n");
  ASSERT_EQ(config_load(), 0);
  EXPECT_THAT(calls(), ElementsAre("qel debug <0-255> -> 1"));
}

TEST_F(ConfigTest, PidFile) {
  const mode_t mask = umask(027);
  EXPECT_EQ(pid_output("/var/run/qel.pid"), getpid());
  umask(mask);
  EXPECT_EQ(root_.read("/var/run/qel.pid"), std::to_string(getpid()) + "\n");
  struct stat status = {};
  ASSERT_EQ(stat(root_.path("/var/run/qel.pid").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0640u);
  EXPECT_EQ(pid_output("/no/such/folder/qel.pid"), -1);
}

}  // namespace
}  // namespace morva::shell
