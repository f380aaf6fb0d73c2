// SPDX-License-Identifier: Apache-2.0
//
// What a service manager hears of a daemon: that it is ready, and that its loop turns. Each daemon
// is a child process, because the variables are a process's for life.
#include "platform/linux/notify.h"

#include <stddef.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <string>
#include <vector>

#include "platform/loop.h"
#include "tests/unit/linux/support.h"

namespace {

// The manager's socket, at a path or, when the name begins with '@', an abstract one.
class Manager {
 public:
  explicit Manager(const std::string& name) : fd_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, name.c_str(), name.size());
    if (name[0] == '@') {
      address.sun_path[0] = '\0';
    }
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
    EXPECT_EQ(0, bind(fd_, reinterpret_cast<sockaddr*>(&address), size));
    const timeval patience = {30, 0};
    setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
  }
  ~Manager() { close(fd_); }

  std::string receive() {
    char text[100];
    const ssize_t length = recv(fd_, text, sizeof text, 0);
    return length >= 0 ? std::string(text, static_cast<size_t>(length)) : "nothing";
  }

  std::string receive_now() {
    char text[100];
    const ssize_t length = recv(fd_, text, sizeof text, MSG_DONTWAIT);
    return length >= 0 ? std::string(text, static_cast<size_t>(length)) : "nothing";
  }

 private:
  int fd_;
};

class NotifyTest : public RootTest {
 protected:
  // A daemon that runs its loop until it is killed.
  template <typename Settings>
  static pid_t daemon(Settings settings) {
    const pid_t pid = fork();
    if (pid == 0) {
      settings();
      thread_master* master = thread_master_create();
      thread_main(master);
      _exit(1);
    }
    return pid;
  }

  static void kill_and_wait(pid_t pid) {
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
  }
};

TEST_F(NotifyTest, LoopThatTurnsFeedsAtAPath) {
  const std::string name = at("/notify");
  Manager manager(name);
  const pid_t pid = daemon([&] {
    setenv("NOTIFY_SOCKET", name.c_str(), 1);
    setenv("WATCHDOG_USEC", "20000", 1);
    setenv("WATCHDOG_PID", std::to_string(getpid()).c_str(), 1);
  });
  EXPECT_EQ("READY=1", manager.receive());
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ("WATCHDOG=1", manager.receive());
  }
  kill_and_wait(pid);
}

TEST_F(NotifyTest, AbstractNameIsFedToo) {
  const std::string name = "@morva-test-" + std::to_string(getpid());
  Manager manager(name);
  const pid_t pid = daemon([&] {
    setenv("NOTIFY_SOCKET", name.c_str(), 1);
    setenv("WATCHDOG_USEC", "20000", 1);  // without a number it is whose variables they are
  });
  EXPECT_EQ("READY=1", manager.receive());
  EXPECT_EQ("WATCHDOG=1", manager.receive());
  EXPECT_EQ("WATCHDOG=1", manager.receive());
  kill_and_wait(pid);
}

// What the variables mean; the result is the status of a child that read them.
int64_t watchdog_of(const char* interval, const char* pid, const char* name = "/nobody") {
  int result[2];
  EXPECT_EQ(0, pipe(result));
  run_in_child([&] {
    if (name != nullptr) {
      setenv("NOTIFY_SOCKET", name, 1);
    }
    if (interval != nullptr) {
      setenv("WATCHDOG_USEC", interval, 1);
    }
    if (pid != nullptr) {
      setenv("WATCHDOG_PID", pid, 1);
    }
    notify_read_environment();
    const int64_t us = notify_watchdog_us();
    return write(result[1], &us, sizeof us) == sizeof us ? 0 : 1;
  });
  int64_t us = -1;
  EXPECT_EQ(static_cast<ssize_t>(sizeof us), read(result[0], &us, sizeof us));
  close(result[0]);
  close(result[1]);
  return us;
}

TEST_F(NotifyTest, IntervalIsTakenFromTheVariables) {
  EXPECT_EQ(30000000, watchdog_of("30000000", nullptr));
  EXPECT_EQ(1, watchdog_of("1", nullptr));
}

TEST_F(NotifyTest, ForeignOrWrongVariablesMeanNoWatchdog) {
  EXPECT_EQ(0, watchdog_of(nullptr, nullptr));
  EXPECT_EQ(0, watchdog_of("30000000", "1"));
  EXPECT_EQ(0, watchdog_of("30000000", "x"));
  EXPECT_EQ(0, watchdog_of("30000000", ""));
  for (const char* interval : {"", "0", "-1", " 5", "5s", "99999999999999999999999", "0x10"}) {
    EXPECT_EQ(0, watchdog_of(interval, nullptr)) << interval;
  }
  for (const char* name : {"", "@", "/", "relative", "vsock:2:1"}) {
    EXPECT_EQ(0, watchdog_of("30000000", nullptr, name)) << name;
  }
  EXPECT_EQ(0, watchdog_of("30000000", nullptr, ("/" + std::string(200, 'x')).c_str()));
  EXPECT_EQ(0, watchdog_of("30000000", nullptr, nullptr));
}

TEST_F(NotifyTest, ProgramsThatTheDaemonStartsDoNotSeeTheVariables) {
  EXPECT_EQ(0, run_in_child([] {
              setenv("NOTIFY_SOCKET", "/nobody", 1);
              setenv("WATCHDOG_USEC", "1000000", 1);
              setenv("WATCHDOG_PID", "1", 1);
              thread_master_create();
              return system("test -z \"$NOTIFY_SOCKET$WATCHDOG_USEC$WATCHDOG_PID\"") == 0 ? 0 : 1;
            }));
}

TEST_F(NotifyTest, ManagerThatCameLaterIsToldFirstThatTheDaemonIsReady) {
  const std::string name = at("/notify");
  int turned[2];
  ASSERT_EQ(0, pipe(turned));
  const pid_t pid = fork();
  if (pid == 0) {
    setenv("NOTIFY_SOCKET", name.c_str(), 1);
    setenv("WATCHDOG_USEC", "20000", 1);
    thread_master* master = thread_master_create();
    static int out = turned[1];
    funcname_thread_add_timer(
        master,
        [](thread*) {
          return write(out, "t", 1) == 1 ? 0 : -1;  // after the start, on a later turn
        },
        nullptr, 1, "told", "", 1);
    thread_main(master);
    _exit(1);
  }
  char byte = 0;
  ASSERT_EQ(1, read(turned[0], &byte, 1));
  Manager manager(name);
  EXPECT_EQ("READY=1", manager.receive());
  EXPECT_EQ("WATCHDOG=1", manager.receive());
  EXPECT_EQ("WATCHDOG=1", manager.receive());
  kill_and_wait(pid);
  close(turned[0]);
  close(turned[1]);
}

TEST_F(NotifyTest, WithoutAnIntervalNothingIsFed) {
  const std::string name = at("/notify");
  Manager manager(name);
  const pid_t pid = daemon([&] { setenv("NOTIFY_SOCKET", name.c_str(), 1); });
  EXPECT_EQ("READY=1", manager.receive());
  // A second daemon that is fed is the clock: by its tenth meal the first would have had one.
  const std::string other = at("/other");
  Manager clock(other);
  const pid_t second = daemon([&] {
    setenv("NOTIFY_SOCKET", other.c_str(), 1);
    setenv("WATCHDOG_USEC", "20000", 1);
  });
  for (int i = 0; i < 10; ++i) {
    clock.receive();
  }
  EXPECT_EQ("nothing", manager.receive_now());
  kill_and_wait(pid);
  kill_and_wait(second);
}

}  // namespace
