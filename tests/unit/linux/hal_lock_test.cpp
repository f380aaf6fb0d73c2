// SPDX-License-Identifier: Apache-2.0
//
// One process for each client number of the hardware layer: who comes second ends, whoever dies
// makes room. Everything happens in child processes, because the number is a process's for life.
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>

#include "platform/hal.h"
#include "platform/log.h"
#include "tests/unit/linux/support.h"

namespace {

class HalLockTest : public RootTest {
 protected:
  HalLockTest() {
    setenv("MORVA_QUERY_DEADLINE_MS", "50", 1);
    setenv("MORVA_LOG", "stderr", 1);
  }
  ~HalLockTest() override {
    unsetenv("MORVA_QUERY_DEADLINE_MS");
    setenv("MORVA_LOG", "none", 1);
  }

  // A process that holds `client` until it is killed.
  static pid_t holder(int client) {
    int ready[2];
    EXPECT_EQ(0, pipe(ready));
    const pid_t pid = fork();
    if (pid == 0) {
      const char result = hal_init(client) == 0 ? 'y' : 'n';
      if (write(ready[1], &result, 1) == 1) {
        pause();
      }
      _exit(9);
    }
    char result = 0;
    EXPECT_EQ(1, read(ready[0], &result, 1));
    EXPECT_EQ('y', result);
    close(ready[0]);
    close(ready[1]);
    return pid;
  }

  static void kill_and_wait(pid_t pid) {
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
  }
};

TEST_F(HalLockTest, FirstProcessGetsItsNumber) {
  EXPECT_EQ(0, run_in_child([] { return hal_init(61) == 0 ? 0 : 2; }));
  EXPECT_TRUE(file_exists(at("/var/run/morva/client-61.lock")));
}

using HalLockDeathTest = HalLockTest;

TEST_F(HalLockDeathTest, SecondProcessSaysSoAndEndsWithStatusOne) {
  const pid_t first = holder(61);
  EXPECT_EXIT(
      {
        zlog_default = openzlog("second", 33, 0, 24);
        hal_init(61);
      },
      testing::ExitedWithCode(1), "client 61 is another process that runs already");
  EXPECT_EQ(0, kill(first, 0));
  kill_and_wait(first);
}

TEST_F(HalLockTest, StoppedProcessStillHoldsItsNumber) {
  const pid_t first = holder(61);
  kill(first, SIGSTOP);
  EXPECT_EQ(1, run_in_child([] { return hal_init(61) == 0 ? 0 : 2; }));
  kill_and_wait(first);
}

TEST_F(HalLockTest, OtherNumbersAreFree) {
  const pid_t first = holder(61);
  EXPECT_EQ(0, run_in_child([] { return hal_init(62) == 0 ? 0 : 2; }));
  kill_and_wait(first);
}

TEST_F(HalLockTest, KilledProcessMakesRoom) {
  kill_and_wait(holder(61));
  EXPECT_EQ(0, run_in_child([] { return hal_init(61) == 0 ? 0 : 2; }));
}

TEST_F(HalLockTest, ProcessThatAttachesTwiceKeepsItsNumber) {
  EXPECT_EQ(0, run_in_child([] { return hal_init(61) == 0 && hal_init(61) == 0 ? 0 : 2; }));
}

TEST_F(HalLockTest, ProgramsThatTheProcessStartsDoNotHoldIt) {
  EXPECT_EQ(0, run_in_child([] {
              if (hal_init(61) != 0) {
                return 2;
              }
              return std::system("ls -l /proc/self/fd | grep -q client-61.lock") == 0 ? 3 : 0;
            }));
}

TEST_F(HalLockTest, DetachedDaemonKeepsTheNumberOfItsParent) {
  int pids[2];
  ASSERT_EQ(0, pipe(pids));
  EXPECT_EQ(0, run_in_child([&pids] {
              if (hal_init(61) != 0) {
                return 2;
              }
              const pid_t daemon = fork();
              if (daemon == 0) {
                pause();
              }
              return write(pids[1], &daemon, sizeof daemon) == sizeof daemon ? 0 : 3;
            }));
  pid_t daemon = 0;
  ASSERT_EQ(static_cast<ssize_t>(sizeof daemon), read(pids[0], &daemon, sizeof daemon));
  EXPECT_EQ(1, run_in_child([] { return hal_init(61) == 0 ? 0 : 2; }));
  kill(daemon, SIGKILL);
  close(pids[0]);
  close(pids[1]);
}

TEST_F(HalLockTest, FolderIsMadeWhenTheAgentComesFirst) {
  std::filesystem::remove_all(at("/var/run/morva"));
  EXPECT_EQ(0, run_in_child([] { return hal_init(61) == 0 ? 0 : 2; }));
  EXPECT_TRUE(file_exists(at("/var/run/morva/client-61.lock")));
}

TEST_F(HalLockTest, LockThatCannotBeMadeIsAFailureAndNoEnd) {
  std::filesystem::remove_all(at("/var/run"));
  EXPECT_EQ(0, run_in_child([] { return hal_init(61) == -1 ? 0 : 2; }));
}

TEST_F(HalLockTest, LinkInTheFilesPlaceIsNotFollowed) {
  std::filesystem::create_symlink(at("/elsewhere"), at("/var/run/morva/client-61.lock"));
  EXPECT_EQ(0, run_in_child([] { return hal_init(61) == -1 ? 0 : 2; }));
  EXPECT_FALSE(file_exists(at("/elsewhere")));
}

}  // namespace
