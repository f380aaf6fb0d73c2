// SPDX-License-Identifier: Apache-2.0
//
// One process for each client number of the hardware layer: who comes second ends, whoever dies
// makes room. Everything happens in child processes, because the number is a process's for life.
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "platform/hal.h"
#include "platform/log.h"
#include "platform/loop.h"
#include "tests/unit/linux/support.h"

namespace {

std::string lock_file;

// Ends a child process with 0 when its own number stands in the lock.
int end_child(thread* /*thread*/) {
  _exit(atoi(read_file(lock_file).c_str()) == getpid() ? 0 : 4);
}

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
      // Blocked until the wait, so that a signal which comes before it is not lost.
      sigset_t all;
      sigset_t before;
      sigfillset(&all);
      sigprocmask(SIG_SETMASK, &all, &before);
      if (write(ready[1], &result, 1) == 1) {
        sigsuspend(&before);
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

  // Writes a signature into the lock of client 61.
  void sign(pid_t pid, int seconds) {
    char text[40];
    snprintf(text, sizeof text, "%10d %20d\n", static_cast<int>(pid), seconds);
    write_file(at("/var/run/morva/client-61.lock"), text);
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

// The holder's way to end by SIGTERM: it leaves sigsuspend() and so ends with status 9.
TEST_F(HalLockTest, StoppedProcessIsEndedAndMakesRoom) {
  const pid_t first = holder(61);
  int status = 0;
  kill(first, SIGSTOP);
  ASSERT_EQ(first, waitpid(first, &status, WUNTRACED));
  EXPECT_EQ(0, run_in_child([] { return hal_init(61) == 0 ? 0 : 2; }));
  EXPECT_EQ(first, waitpid(first, &status, 0));
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 9);
}

TEST_F(HalLockTest, ProcessThatWasNotAtItsLoopForLongMakesRoom) {
  const pid_t first = holder(61);
  sign(first, 1);  // in the first second after the machine's start
  EXPECT_EQ(0, run_in_child([] { return hal_init(61) == 0 ? 0 : 2; }));
  int status = 0;
  EXPECT_EQ(first, waitpid(first, &status, 0));
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 9);
}

TEST_F(HalLockTest, StoppedProcessThatTheLockNamesWronglyIsLeftAlone) {
  const pid_t first = holder(61);
  const pid_t bystander = holder(62);
  int status = 0;
  kill(bystander, SIGSTOP);
  ASSERT_EQ(bystander, waitpid(bystander, &status, WUNTRACED));
  sign(bystander, 1);
  EXPECT_EQ(1, run_in_child([] { return hal_init(61) == 0 ? 0 : 2; }));
  EXPECT_EQ(0, waitpid(first, &status, WNOHANG));
  EXPECT_EQ(0, waitpid(bystander, &status, WNOHANG));
  kill_and_wait(first);
  kill_and_wait(bystander);
}

TEST_F(HalLockTest, SignatureThatIsNoneNamesNobody) {
  const pid_t first = holder(61);
  const std::string number = std::to_string(first);
  for (const std::string& text :
       {std::string(), number + " 1\n", std::string(32, ' '), std::string(32, '9'),
        std::string(10 - number.size(), ' ') + number + " 99999999999999999999\n",
        std::string("        -1                    1\n")}) {
    write_file(at("/var/run/morva/client-61.lock"), text);
    EXPECT_EQ(1, run_in_child([] { return hal_init(61) == 0 ? 0 : 2; })) << text;
    EXPECT_EQ(0, waitpid(first, nullptr, WNOHANG));
  }
  kill_and_wait(first);
}

TEST_F(HalLockTest, TimerOfTheLoopSignsTheLock) {
  EXPECT_EQ(0, run_in_child([this] {
              thread_master* master = thread_master_create();
              if (hal_init(61) != 0) {
                return 2;
              }
              sign(1, 1);
              const auto leave = [](thread* thread) {
                funcname_thread_add_timer(thread->master, end_child, thread->arg, 0, "end", "", 1);
                return 0;
              };
              lock_file = at("/var/run/morva/client-61.lock");
              funcname_thread_add_timer(master, leave, nullptr, 0, "leave", "", 1);
              thread_main(master);
              return 3;
            }));
}

TEST_F(HalLockTest, SignalDuringTheAttachmentWaitsForItsHandler) {
  setenv("MORVA_QUERY_DEADLINE_MS", "60000", 1);
  int go[2];
  ASSERT_EQ(0, pipe(go));
  const pid_t child = fork();
  if (child == 0) {
    char byte = 0;
    EXPECT_EQ(1, read(go[0], &byte, 1));
    thread_master* master = thread_master_create();
    hal_init(61);
    const loop_signal table[] = {{SIGTERM, [] { _exit(7); }}};
    signal_init(master, 1, table);
    _exit(8);
  }
  {
    // The module takes the request, and never answers.
    FakeModule module("hal", [child](int fd) {
      kill(child, SIGTERM);
      char byte = 0;
      while (recv(fd, &byte, 1, 0) > 0) {
      }
    });
    EXPECT_EQ(1, write(go[1], "g", 1));
    int status = 0;
    EXPECT_EQ(child, waitpid(child, &status, 0));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 7) << status;
  }
  close(go[0]);
  close(go[1]);
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
