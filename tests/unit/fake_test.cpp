// SPDX-License-Identifier: Apache-2.0
//
// The fake itself: what tests rely on without looking.
#include "tests/unit/support.h"

#include <arpa/inet.h>

#include <cstring>

#include "platform/jclient.h"
#include "platform/loop.h"
#include "platform/prefix.h"
#include "platform/sys.h"
#include "qel/qel_os.h"

namespace {

using testing::ElementsAre;
using testing::Test;

int g_runs;
std::vector<uint32_t> g_moments;

int count_run(struct thread*) {
  ++g_runs;
  return 0;
}

int note_moment_and_return(struct thread* thread) {
  g_moments.push_back(fake::uptime());
  if (g_moments.size() < 3) {
    funcname_thread_add_timer(thread->master, note_moment_and_return, nullptr, 2, "again", "f", 1);
  }
  return 0;
}

class FakeTest : public Test {
 protected:
  FakeTest() {
    fake::reset();
    g_runs = 0;
    g_moments.clear();
  }
};

TEST_F(FakeTest, ReadRegistrationIsSpentWhenItFires) {
  const int fd = qel_os_socket(AF_INET, SOCK_DGRAM, 0);
  funcname_thread_add_read(fake::master(), count_run, nullptr, fd, "reader", "f", 1);
  EXPECT_EQ(fake::run_reads(), 0);
  fake::receive_udp(fd, "x", "10.0.0.1", 9);
  EXPECT_EQ(fake::registered("reader", fd), 1);
  EXPECT_EQ(fake::run_reads(), 1);
  EXPECT_EQ(g_runs, 1);
  EXPECT_EQ(fake::registered("reader"), 0);
}

TEST_F(FakeTest, TimersRunAtTheirSecondAndTheClockStopsAtTheTarget) {
  fake::set_uptime(100);
  funcname_thread_add_timer(fake::master(), note_moment_and_return, nullptr, 1, "t", "f", 1);
  fake::tick(4);
  EXPECT_THAT(g_moments, ElementsAre(101, 103));
  EXPECT_EQ(fake::uptime(), 104U);
  EXPECT_TRUE(fake::run_next_timer());
  EXPECT_THAT(g_moments, ElementsAre(101, 103, 105));
  EXPECT_FALSE(fake::run_next_timer());
}

TEST_F(FakeTest, FilesAreWrittenReadAndRemoved) {
  std::FILE* file = qel_os_fopen("/var/conf/a", "wb");
  ASSERT_NE(file, nullptr);
  std::fputs("one\ntwo\n", file);
  std::fclose(file);
  EXPECT_EQ(fake::file("/var/conf/a"), "one\ntwo\n");
  file = qel_os_fopen("/var/conf/a", "rb");
  ASSERT_NE(file, nullptr);
  ASSERT_EQ(std::fseek(file, 0, SEEK_END), 0);
  EXPECT_EQ(std::ftell(file), 8);
  ASSERT_EQ(std::fseek(file, 4, SEEK_SET), 0);
  char line[16] = "";
  EXPECT_STREQ(std::fgets(line, sizeof line, file), "two\n");
  std::fclose(file);
  EXPECT_EQ(qel_os_unlink("/var/conf/a"), 0);
  EXPECT_EQ(qel_os_fopen("/var/conf/a", "r"), nullptr);
}

TEST_F(FakeTest, ConsoleKeepsEachTextThatWasWritten) {
  for (const char* text : {"a\n", "b\n"}) {
    std::FILE* file = qel_os_fopen("/dev/console", "w");
    std::fputs(text, file);
    std::fclose(file);
  }
  EXPECT_THAT(fake::console(), ElementsAre("a\n", "b\n"));
}

TEST_F(FakeTest, ModuleAnswersOnlyWhatWasLaidDown) {
  std::string area(JCLIENT_REPLY_SIZE, 'x');
  EXPECT_EQ(jclient_query(R"({"mdl":"poe","cmd":"a"})", area.data()), -1);
  EXPECT_EQ(area[0], 'x');
  fake::reply("poe", "a", "always");
  fake::reply_once("poe", "a", "first");
  EXPECT_EQ(jclient_query(R"({"mdl":"poe","cmd":"a"})", area.data()), 0);
  EXPECT_STREQ(area.c_str(), "first");
  EXPECT_EQ(jclient_query(R"({"mdl":"poe","cmd":"a"})", area.data()), 0);
  EXPECT_STREQ(area.c_str(), "always");
  EXPECT_EQ(fake::queries().size(), 3U);
}

TEST_F(FakeTest, PureHelpersGiveKnownResults) {
  EXPECT_EQ(crc32_sp(0, "123456789", 9), 0xCBF43926U);
  EXPECT_EQ(crc32_sp(crc32_sp(0, "1234", 4), "56789", 5), 0xCBF43926U);
  uint8_t mac[6] = {};
  EXPECT_EQ(str2mac("0A-1b-2C-3d-4E-5f", mac), 0);
  EXPECT_STREQ(mac2str(mac), "0a:1b:2c:3d:4e:5f");
  EXPECT_EQ(str2mac("0a1b2c3d4e5f", mac), 0);
  EXPECT_EQ(str2mac("0a:1b-2c:3d:4e:5f", mac), -1);
  EXPECT_STREQ(mac2str(mac), "00:00:00:00:00:00");
  EXPECT_EQ(ip_masklen({htonl(0xFFFFFC00)}), 22);
  EXPECT_EQ(ip_masklen({htonl(0xFF00FF00)}), 8);
}

TEST_F(FakeTest, FailuresComeAfterTheSkippedCallsAndOnlyThatOften) {
  fake::fail_os("socket", EMFILE, 1, 1);
  EXPECT_GE(qel_os_socket(AF_INET, SOCK_DGRAM, 0), 0);
  EXPECT_EQ(qel_os_socket(AF_INET, SOCK_DGRAM, 0), -1);
  EXPECT_EQ(errno, EMFILE);
  EXPECT_GE(qel_os_socket(AF_INET, SOCK_DGRAM, 0), 0);
}

}  // namespace
