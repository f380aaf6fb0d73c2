// SPDX-License-Identifier: Apache-2.0
//
// The shell on real sockets and the real loop, with clients that behave and clients that do not.
// The clock is the test's; the loop is turned by hand until what is waited for has happened.
#include <arpa/inet.h>
#include <event2/event.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <functional>

#include "platform/linux/fd.h"
#include "platform/linux/loop_internal.h"
#include "tests/unit/vty/support.h"

namespace morva::shell {
namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;
using vtytest::Root;

constexpr char kSocket[] = "/var/run/qel.vty";
constexpr int kTurnsMaximum = 200000;

uint64_t g_now = 0;
uint64_t test_clock() {
  return g_now;
}

size_t count_of(std::string_view needle, std::string_view text) {
  size_t count = 0;
  for (size_t at = text.find(needle); at != std::string_view::npos;
       at = text.find(needle, at + 1)) {
    count++;
  }
  return count;
}

class ServerTest : public testing::Test {
 protected:
  void SetUp() override {
    vtytest::install_daemon();
    g_now = 1000;
    master_ = thread_master_create();
    ASSERT_NE(master_, nullptr);
    vty_init(master_);
    server_set_clock(test_clock);
    vty_serv_sock(nullptr, 0, kSocket);
    ASSERT_NE(server_tcp_port(), 0);
  }

  void TearDown() override {
    server_stop();
    server_set_clock(nullptr);
    event_base_free(master_->base);
    free(master_);
  }

  void turn() { event_base_loop(master_->base, EVLOOP_ONCE | EVLOOP_NONBLOCK); }

  // Turns the loop until `done`. False when it never comes.
  bool until(const std::function<bool()>& done) {
    for (int i = 0; i < kTurnsMaximum; i++) {
      if (done()) {
        return true;
      }
      turn();
    }
    return false;
  }

  int connect_tcp() {
    sockaddr_in place = {};
    place.sin_family = AF_INET;
    place.sin_port = htons(server_tcp_port());
    place.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(connect(fd, reinterpret_cast<const sockaddr*>(&place), sizeof(place)), 0);
    return fd;
  }

  int connect_unix() {
    sockaddr_un place = {};
    place.sun_family = AF_UNIX;
    strcpy(place.sun_path, root_.path(kSocket).c_str());
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(connect(fd, reinterpret_cast<const sockaddr*>(&place), sizeof(place)), 0);
    return fd;
  }

  // Reads, without waiting, what is there. Sets `ended` when the server has closed.
  std::string read_some(int fd, bool* ended = nullptr) {
    char buffer[65536];
    const ssize_t count = recv(fd, buffer, sizeof(buffer), MSG_DONTWAIT);
    if (ended != nullptr && (count == 0 || (count < 0 && errno != EAGAIN))) {
      *ended = true;
    }
    return count > 0 ? std::string(buffer, static_cast<size_t>(count)) : std::string();
  }

  // Reads until the text ends in `tail`.
  std::string read_to(int fd, std::string_view tail) {
    std::string text;
    const bool came = until([&] {
      text += read_some(fd);
      return text.ends_with(tail);
    });
    EXPECT_TRUE(came) << "got: " << text;
    return text;
  }

  void say(int fd, std::string_view bytes) {
    EXPECT_EQ(send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT),
              static_cast<ssize_t>(bytes.size()));
  }

  // Sends until the server takes no more (or `bytes` are sent); the loop turns all the while.
  size_t pour(int fd, std::string_view pattern, size_t bytes) {
    size_t sent = 0;
    int refused = 0;
    while (sent < bytes && refused < 200) {
      const ssize_t count = send(fd, pattern.data(), pattern.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
      sent += count > 0 ? static_cast<size_t>(count) : 0;
      refused = count > 0 ? 0 : refused + 1;
      if (count < 0 && errno != EAGAIN) {
        break;
      }
      turn();
    }
    return sent;
  }

  // A session of somebody else still answers.
  void expect_service() {
    UniqueFd client(connect_unix());
    EXPECT_EQ(read_to(client.get(), "> "), "qel> ");
    say(client.get(), "enable\n");
    EXPECT_EQ(read_to(client.get(), "# "), "qel# ");
  }

  Root root_;
  thread_master* master_ = nullptr;
};

TEST_F(ServerTest, TcpSession) {
  UniqueFd client(connect_tcp());
  EXPECT_THAT(read_to(client.get(), "> "), StartsWith("\xff\xfb\x01\xff\xfb\x03\xff\xfd\x1f"));
  say(client.get(), "enable\r\n");
  EXPECT_EQ(read_to(client.get(), "# "), "enable\r\nqel# ");
}

TEST_F(ServerTest, UnixSession) {
  expect_service();
  struct stat status = {};
  ASSERT_EQ(stat(root_.path(kSocket).c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0600u);
}

TEST_F(ServerTest, OnlyLoopback) {
  sockaddr_in place = {};
  socklen_t size = sizeof(place);
  UniqueFd client(connect_tcp());
  ASSERT_EQ(getpeername(client.get(), reinterpret_cast<sockaddr*>(&place), &size), 0);
  EXPECT_EQ(ntohl(place.sin_addr.s_addr), INADDR_LOOPBACK);
  server_stop();
  vty_init(master_);
  vty_serv_sock("0.0.0.0", 0, nullptr);
  vty_serv_sock("192.0.2.1", 0, nullptr);
  vty_serv_sock("nonsense", 0, nullptr);
  EXPECT_EQ(server_tcp_port(), 0);
}

TEST_F(ServerTest, AStaleSocketIsReplacedALivingOneIsNot) {
  server_stop();
  ASSERT_EQ(access(root_.path(kSocket).c_str(), F_OK), 0);
  vty_init(master_);
  vty_serv_sock(nullptr, 0, kSocket);
  expect_service();
  struct stat before = {};
  ASSERT_EQ(stat(root_.path(kSocket).c_str(), &before), 0);
  vty_serv_sock(nullptr, 0, kSocket);
  struct stat after = {};
  ASSERT_EQ(stat(root_.path(kSocket).c_str(), &after), 0);
  EXPECT_EQ(before.st_ino, after.st_ino);
  expect_service();
}

TEST_F(ServerTest, AFileInTheSocketsPlaceIsLeftAlone) {
  root_.write("/var/run/other", "precious");
  vty_serv_sock(nullptr, 0, "/var/run/other");
  EXPECT_EQ(root_.read("/var/run/other"), "precious");
}

TEST_F(ServerTest, SeveralSessionsAtOnce) {
  UniqueFd one(connect_tcp());
  UniqueFd two(connect_unix());
  read_to(one.get(), "> ");
  read_to(two.get(), "> ");
  say(one.get(), "enable\r\nconfigure terminal\r\n");
  read_to(one.get(), "(config)# ");
  say(two.get(), "enable\n");
  EXPECT_EQ(read_to(two.get(), "# "), "qel# ");
  EXPECT_EQ(server_sessions(), 2u);
}

TEST_F(ServerTest, ExitClosesAfterTheLastWord) {
  UniqueFd client(connect_unix());
  read_to(client.get(), "> ");
  say(client.get(), "show history\nexit\n");
  std::string text;
  bool ended = false;
  ASSERT_TRUE(until([&] {
    text += read_some(client.get(), &ended);
    return ended;
  }));
  EXPECT_EQ(text, "  show history\nqel> ");
  EXPECT_EQ(server_sessions(), 0u);
}

TEST_F(ServerTest, AHalfClosedClientGetsItsAnswers) {
  UniqueFd client(connect_unix());
  say(client.get(), "enable\nshow running-config\n");
  shutdown(client.get(), SHUT_WR);
  std::string text;
  bool ended = false;
  ASSERT_TRUE(until([&] {
    text += read_some(client.get(), &ended);
    return ended;
  }));
  EXPECT_EQ(text, "qel> qel# \nCurrent configuration:\n!\nqel enable\n!\nend\nqel# ");
}

TEST_F(ServerTest, AClientThatGoesAwayIsForgotten) {
  UniqueFd client(connect_tcp());
  read_to(client.get(), "> ");
  say(client.get(), "enab");
  client.reset(-1);
  EXPECT_TRUE(until([] { return server_sessions() == 0; }));
  UniqueFd rude(connect_tcp());
  read_to(rude.get(), "> ");
  const linger at_once = {1, 0};
  setsockopt(rude.get(), SOL_SOCKET, SO_LINGER, &at_once, sizeof(at_once));
  rude.reset(-1);
  EXPECT_TRUE(until([] { return server_sessions() == 0; }));
}

TEST_F(ServerTest, AHundredClients) {
  std::vector<std::unique_ptr<UniqueFd>> clients;
  size_t served = 0;
  size_t refused = 0;
  for (int i = 0; i < 100; i++) {
    auto& client = clients.emplace_back(std::make_unique<UniqueFd>(connect_unix()));
    std::string text;
    bool ended = false;
    ASSERT_TRUE(until([&] {
      text += read_some(client->get(), &ended);
      return text.ends_with("> ") || ended;
    }));
    served += ended ? 0 : 1;
    refused += text.starts_with("% Too many sessions") ? 1 : 0;
  }
  EXPECT_EQ(served, kSessionMaximum);
  EXPECT_EQ(refused, 100 - kSessionMaximum);
  clients.clear();
  EXPECT_TRUE(until([] { return server_sessions() == 0; }));
  expect_service();
}

TEST_F(ServerTest, AnIdleSessionIsEnded) {
  UniqueFd client(connect_unix());
  read_to(client.get(), "> ");
  g_now += 599 * 1000;
  server_sweep(g_now);
  say(client.get(), "\n");
  EXPECT_EQ(read_to(client.get(), "> "), "qel> ");
  g_now += 599999;
  server_sweep(g_now);
  EXPECT_EQ(server_sessions(), 1u);
  g_now += 1;
  server_sweep(g_now);
  EXPECT_EQ(server_sessions(), 0u);
  EXPECT_EQ(read_some(client.get()), "\n% Idle time-out, closing the session\n");
}

TEST_F(ServerTest, TheIdleTimeIsTheOperators) {
  UniqueFd client(connect_unix());
  read_to(client.get(), "> ");
  say(client.get(), "en\nconf t\nexec-timeout 1 30\n");
  ASSERT_TRUE(until([] { return settings().idle_seconds == 90; }));
  g_now += 89 * 1000;
  server_sweep(g_now);
  EXPECT_EQ(server_sessions(), 1u);
  g_now += 1000;
  server_sweep(g_now);
  EXPECT_EQ(server_sessions(), 0u);

  UniqueFd patient(connect_unix());
  read_to(patient.get(), "> ");
  settings().idle_seconds = 0;
  g_now += uint64_t{1000} * 3600 * 24 * 365;
  server_sweep(g_now);
  EXPECT_EQ(server_sessions(), 1u);
}

TEST_F(ServerTest, AClientThatNeverReadsIsNotReadEither) {
  constexpr std::string_view kQuestions = "list\nshow running-config\n";
  UniqueFd deaf(connect_unix());
  const size_t taken = pour(deaf.get(), kQuestions, 50 * 1000 * 1000);
  EXPECT_LT(taken, 10u * 1000 * 1000);
  ASSERT_EQ(taken % kQuestions.size(), 0u);
  EXPECT_EQ(server_sessions(), 1u);
  expect_service();
  // All that it asked for is there once it reads.
  const size_t expected = 1 + 2 * (taken / kQuestions.size());
  std::string text;
  EXPECT_TRUE(until([&] {
    text += read_some(deaf.get());
    return count_of("qel> ", text) == expected;
  })) << count_of("qel> ", text)
      << " of " << expected;
  EXPECT_GT(text.size(), kOutputPause) << "the session was never paused";
}

TEST_F(ServerTest, AClosingClientThatNeverReadsIsNotWaitedForForEver) {
  UniqueFd deaf(connect_unix());
  pour(deaf.get(), "list\n", 50 * 1000 * 1000);
  ASSERT_EQ(server_sessions(), 1u);
  g_now += 600 * 1000;
  server_sweep(g_now);
  EXPECT_EQ(server_sessions(), 1u);
  g_now += kFarewellMs;
  server_sweep(g_now);
  EXPECT_EQ(server_sessions(), 0u);
}

TEST_F(ServerTest, ALineOf100000LettersAndEveryByteValue) {
  for (const bool tcp : {true, false}) {
    UniqueFd client(tcp ? connect_tcp() : connect_unix());
    read_to(client.get(), "> ");
    const std::string line(100000, 'x');
    std::string text;
    size_t sent = 0;
    ASSERT_TRUE(until([&] {
      const ssize_t count =
          send(client.get(), line.data() + sent, line.size() - sent, MSG_DONTWAIT);
      sent += count > 0 ? static_cast<size_t>(count) : 0;
      text += read_some(client.get());
      return sent == line.size();
    }));
    say(client.get(), "\n");
    EXPECT_THAT(read_to(client.get(), "> "), HasSubstr("% Line too long"));
    std::string every;
    for (int byte = 0; byte < 256; byte++) {
      if (byte != 4) {  // ctrl-D ends the session
        every += static_cast<char>(byte);
      }
    }
    say(client.get(), every + every);
    for (int i = 0; i < 100; i++) {
      turn();
    }
    client.reset(-1);
    EXPECT_TRUE(until([] { return server_sessions() == 0; }));
  }
  expect_service();
}

TEST_F(ServerTest, OtherWorkGoesOnWhileOneClientSendsMuch) {
  UniqueFd busy(connect_unix());
  std::string commands;
  for (int i = 0; i < 100; i++) {
    commands += "show history\n";
  }
  say(busy.get(), commands);
  static int ticks = 0;
  ticks = 0;
  const thread_func tick = [](thread*) { return ++ticks; };
  int turns = 0;
  size_t prompts = 0;
  while (prompts < 101 && turns < 10000) {
    funcname_thread_add_timer(master_, tick, nullptr, 0, "tick", __FILE__, __LINE__);
    turn();
    turns++;
    prompts += count_of("> ", read_some(busy.get()));
  }
  EXPECT_EQ(prompts, 101u);
  EXPECT_EQ(ticks, turns) << "the timer waited for the client";
  EXPECT_GE(turns, 100) << "more than one command in a turn";
}

int seen_state;

int see_state_and_leave(thread* thread) {
  seen_state = vtytest::enabled();
  event_base_loopbreak(thread->master->base);
  return 0;
}

TEST_F(ServerTest, SavedConfigurationIsAppliedBeforeAnyCallback) {
  root_.write("/var/conf/qel.conf", "qel disable\n!\n");
  // What is readable already is heard before any timer.
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  ASSERT_EQ(write(ends[1], "x", 1), 1);
  funcname_thread_add_read(master_, see_state_and_leave, nullptr, ends[0], "see", "server_test", 1);
  host_init(0x28000, 0);
  EXPECT_EQ(vtytest::enabled(), 1);
  seen_state = -1;
  thread_main(master_);
  EXPECT_EQ(seen_state, 0);
  close(ends[0]);
  close(ends[1]);
}

}  // namespace
}  // namespace morva::shell
