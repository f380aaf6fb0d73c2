// SPDX-License-Identifier: Apache-2.0
//
// The event loop on the real clock: registrations are spent when they fire, and survive daemon().
#include "platform/loop.h"

#include <event2/event.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "platform/linux/loop_internal.h"
#include "platform/linux/morva_call.h"
#include "tests/unit/linux/support.h"

namespace {

thread_master* new_loop() {
  static auto* kept = new std::vector<thread_master*>();  // loops are never freed
  kept->push_back(thread_master_create());
  return kept->back();
}

void leave(thread_master* master) {
  event_base_loopbreak(master->base);
}

struct Seen {
  std::vector<thread> calls;
  size_t leave_after = 1;
  std::string text;
};

int record(thread* thread) {
  Seen* seen = static_cast<Seen*>(thread->arg);
  seen->calls.push_back(*thread);
  char byte = 0;
  if (thread->fd >= 0 && read(thread->fd, &byte, 1) == 1) {
    seen->text += byte;
  }
  if (seen->calls.size() >= seen->leave_after) {
    leave(thread->master);
  }
  return -1;  // means nothing to the loop
}

class Pipe {
 public:
  Pipe() { EXPECT_EQ(0, pipe(ends_)); }
  ~Pipe() {
    close(ends_[0]);
    close_writer();
  }
  int reader() const { return ends_[0]; }
  int writer() const { return ends_[1]; }
  void close_writer() {
    if (ends_[1] >= 0) {
      close(ends_[1]);
    }
    ends_[1] = -1;
  }

 private:
  int ends_[2] = {-1, -1};
};

TEST(LoopTest, ReadFiresOnceAndTellsWhat) {
  thread_master* master = new_loop();
  Pipe pipe;
  Seen seen;
  ASSERT_NE(nullptr, funcname_thread_add_read(master, record, &seen, pipe.reader(), "record",
                                              "loop_test", 1));
  ASSERT_EQ(2, write(pipe.writer(), "ab", 2));
  thread_main(master);
  ASSERT_EQ(1U, seen.calls.size());
  EXPECT_EQ(master, seen.calls[0].master);
  EXPECT_EQ(pipe.reader(), seen.calls[0].fd);

  // "b" is still there, but nobody asked for it again: only the timer fires.
  Seen late;
  funcname_thread_add_timer(master, record, &late, 0, "record", "loop_test", 1);
  thread_main(master);
  EXPECT_EQ(1U, seen.calls.size());
  ASSERT_EQ(1U, late.calls.size());
  EXPECT_EQ(-1, late.calls[0].fd);
}

TEST(LoopTest, EndOfFileFires) {
  thread_master* master = new_loop();
  Pipe pipe;
  Seen seen;
  funcname_thread_add_read(master, record, &seen, pipe.reader(), "record", "loop_test", 1);
  pipe.close_writer();
  thread_main(master);
  EXPECT_EQ(1U, seen.calls.size());
}

int again(thread* thread) {
  funcname_thread_add_read(thread->master, again, thread->arg, thread->fd, "again", "loop_test", 1);
  return record(thread);
}

TEST(LoopTest, ReaderThatRegistersAgainHearsTheRest) {
  thread_master* master = new_loop();
  Pipe pipe;
  Seen seen;
  seen.leave_after = 3;
  funcname_thread_add_read(master, again, &seen, pipe.reader(), "again", "loop_test", 1);
  ASSERT_EQ(3, write(pipe.writer(), "abc", 3));
  thread_main(master);
  EXPECT_EQ("abc", seen.text);
}

int count_steps(thread* thread) {
  auto* steps = static_cast<int*>(thread->arg);
  char byte = 0;
  EXPECT_EQ(1, read(thread->fd, &byte, 1));
  if (++*steps < 3) {
    funcname_thread_add_read(thread->master, count_steps, thread->arg, thread->fd, "count",
                             "loop_test", 1);
  } else {
    leave(thread->master);
  }
  return 0;
}

// A reader that stops registering is not called again, however often it did before.
TEST(LoopTest, ReaderThatStopsIsLeftAlone) {
  thread_master* master = new_loop();
  Pipe pipe;
  int steps = 0;
  funcname_thread_add_read(master, count_steps, &steps, pipe.reader(), "count", "loop_test", 1);
  ASSERT_EQ(5, write(pipe.writer(), "abcde", 5));
  thread_main(master);
  EXPECT_EQ(3, steps);
  Seen late;
  funcname_thread_add_timer(master, record, &late, 0, "record", "loop_test", 1);
  thread_main(master);
  EXPECT_EQ(3, steps);
}

struct Swap {
  Pipe* fresh;
  Seen seen;
};

// Closes what it was called for, puts another file under the number, and hands over to `record`.
int swap_file(thread* thread) {
  auto* swap = static_cast<Swap*>(thread->arg);
  EXPECT_EQ(0, close(thread->fd));
  EXPECT_EQ(thread->fd, dup2(swap->fresh->reader(), thread->fd));
  funcname_thread_add_read(thread->master, record, &swap->seen, thread->fd, "record", "loop_test",
                           1);
  return 0;
}

TEST(LoopTest, AnotherFileUnderTheSameNumberIsHeard) {
  thread_master* master = new_loop();
  Pipe old;
  Pipe fresh;
  Swap swap = {&fresh, {}};
  const int number = dup(old.reader());
  ASSERT_GE(number, 0);
  ASSERT_NE(nullptr, funcname_thread_add_read(master, swap_file, &swap, number, "swap_file",
                                              "loop_test", 1));
  ASSERT_EQ(1, write(old.writer(), "o", 1));
  ASSERT_EQ(1, write(fresh.writer(), "f", 1));
  thread_main(master);
  EXPECT_EQ("f", swap.seen.text);
  close(number);
}

Seen* second_reader;

// Registers itself again and another reader for the same descriptor.
int invite(thread* thread) {
  funcname_thread_add_read(thread->master, again, thread->arg, thread->fd, "again", "loop_test", 1);
  funcname_thread_add_read(thread->master, record, second_reader, thread->fd, "record", "loop_test",
                           1);
  return record(thread);
}

TEST(LoopTest, TwoReadersOfOneDescriptorAreBothCalled) {
  thread_master* master = new_loop();
  Pipe pipe;
  Seen first;
  Seen second;
  second_reader = &second;
  first.leave_after = 9;
  funcname_thread_add_read(master, invite, &first, pipe.reader(), "invite", "loop_test", 1);
  ASSERT_EQ(9, write(pipe.writer(), "abcdefghi", 9));
  thread_main(master);
  EXPECT_EQ(1U, second.calls.size());
  EXPECT_EQ(1U, second.text.size());
}

TEST(LoopTest, WhatCannotBeRegistered) {
  thread_master* master = new_loop();
  Seen seen;
  EXPECT_EQ(nullptr, funcname_thread_add_read(master, record, &seen, -1, "record", "loop_test", 1));
  LogCapture log;
  EXPECT_EQ(nullptr,
            funcname_thread_add_read(master, record, &seen, 999, "record", "loop_test", 7));
  EXPECT_NE(std::string::npos, log.text().find("record (loop_test:7) cannot be registered"));
}

TEST(LoopTest, TimerKeepsItsTime) {
  thread_master* master = new_loop();
  Seen seen;
  seen.leave_after = 2;
  const int64_t start = morva_now_ns();
  ASSERT_NE(nullptr, funcname_thread_add_timer(master, record, &seen, 1, "late", "loop_test", 1));
  ASSERT_NE(nullptr, funcname_thread_add_timer(master, record, &seen, 0, "soon", "loop_test", 1));
  thread_main(master);
  const int64_t took_ms = (morva_now_ns() - start) / 1000000;
  EXPECT_GE(took_ms, 990);
  EXPECT_LT(took_ms, 30000);  // a busy machine may be late, but not by that much
}

int tick(thread* thread) {
  funcname_thread_add_timer(thread->master, tick, thread->arg, 0, "tick", "loop_test", 1);
  return record(thread);
}

TEST(LoopTest, TimerThatSetsItselfAgainKeepsTicking) {
  thread_master* master = new_loop();
  Seen seen;
  seen.leave_after = 100;
  funcname_thread_add_timer(master, tick, &seen, 0, "tick", "loop_test", 1);
  thread_main(master);
  ASSERT_EQ(100U, seen.calls.size());
  EXPECT_EQ(-1, seen.calls[99].fd);
}

int ticks_left;

int tick_a_while(thread* thread) {
  if (--ticks_left > 0) {
    funcname_thread_add_timer(thread->master, tick_a_while, thread->arg, 0, "tick", "loop_test", 1);
  }
  return 0;
}

TEST(LoopTest, TimerThatStopsIsOver) {
  thread_master* master = new_loop();
  ticks_left = 3;
  funcname_thread_add_timer(master, tick_a_while, nullptr, 0, "tick", "loop_test", 1);
  Seen late;
  late.leave_after = 50;  // of a timer that comes round as often
  funcname_thread_add_timer(master, tick, &late, 0, "tick", "loop_test", 1);
  thread_main(master);
  EXPECT_EQ(0, ticks_left);
}

// Registers itself again twice, and something else before and between.
int fork_out(thread* thread) {
  const auto set = [thread](thread_func func) {
    funcname_thread_add_timer(thread->master, func, thread->arg, 0, "set", "loop_test", 1);
  };
  if (static_cast<Seen*>(thread->arg)->calls.empty()) {
    set(record);
    set(fork_out);
    set(record);
    set(fork_out);
  }
  return record(thread);
}

TEST(LoopTest, TimersSetInATimerAllFire) {
  thread_master* master = new_loop();
  Seen seen;
  seen.leave_after = 5;
  funcname_thread_add_timer(master, fork_out, &seen, 0, "fork_out", "loop_test", 1);
  thread_main(master);
  EXPECT_EQ(5U, seen.calls.size());
}

thread_master* signal_loop;
int signals_seen;

void on_signal() {
  ++signals_seen;
  leave(signal_loop);
}

TEST(LoopTest, SignalsComeFromTheLoopEachTime) {
  signal_loop = new_loop();
  const loop_signal table[] = {{SIGTERM, on_signal}, {SIGTSTP, on_signal}};
  signal_init(signal_loop, 2, table);
  for (const int signo : {SIGTERM, SIGTSTP, SIGTERM}) {
    const int before = signals_seen;
    raise(signo);
    EXPECT_EQ(before, signals_seen) << "delivered outside of the loop";
    thread_main(signal_loop);
    EXPECT_EQ(before + 1, signals_seen);
  }
}

std::string order;  // in which things were done

int note_and_leave(thread* thread) {
  order += "callback ";
  leave(thread->master);
  return 0;
}

TEST(LoopTest, StartStepsRunOnceInOrderBeforeTheFirstCallback) {
  thread_master* master = new_loop();
  Pipe pipe;
  ASSERT_EQ(1, write(pipe.writer(), "a", 1));
  funcname_thread_add_read(master, note_and_leave, nullptr, pipe.reader(), "note", "loop_test", 1);
  loop_at_start(StartStep::kConfigured,
                [] { order += loop_configured() ? "configured " : "early "; });
  loop_at_start(StartStep::kConfigure, [] { order += loop_configured() ? "late " : "configure "; });
  order.clear();
  EXPECT_FALSE(loop_configured());
  thread_main(master);
  EXPECT_EQ("configure configured callback ", order);

  funcname_thread_add_read(master, note_and_leave, nullptr, pipe.reader(), "note", "loop_test", 1);
  order.clear();
  thread_main(master);
  EXPECT_EQ("callback ", order);
}

// A module that never answers; the caller may end.
void wait_for_hangup(int fd) {
  pollfd entry = {fd, 0, 0};
  poll(&entry, 1, 60000);
}

// A child waits here until its module is there.
void await(const Pipe& go) {
  char byte = 0;
  EXPECT_EQ(1, read(go.reader(), &byte, 1));
}

// A child whose start asks a module that never answers; its handler's status, or 8 when it is not
// told before the question is over.
TEST(LoopTest, WaitOfAStartRunsTheHandler) {
  class Root : public RootTest {
    void TestBody() override {}
  } root;
  setenv("MORVA_QUERY_DEADLINE_MS", "60000", 1);
  for (const int signo : {SIGTERM, SIGINT, SIGQUIT, SIGTSTP}) {
    Pipe go;
    const pid_t child = fork();
    if (child == 0) {
      await(go);
      thread_master* master = thread_master_create();
      const loop_signal table[] = {{signo, [] { _exit(7); }}};
      signal_init(master, 1, table);
      char reply[64];
      morva_call("mono", "{}", reply, sizeof reply, morva_deadline_ms());
      _exit(8);
    }
    FakeModule module("mono", [child, signo](int fd) {
      kill(child, signo);
      wait_for_hangup(fd);
    });
    ASSERT_EQ(1, write(go.writer(), "g", 1));
    int status = 0;
    EXPECT_EQ(child, waitpid(child, &status, 0));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 7) << signo;
  }
}

bool query_is_over;

int ask_once(thread* /*thread*/) {
  char reply[64];
  morva_call("mono", "{}", reply, sizeof reply, 300);
  query_is_over = true;
  return 0;
}

int ask_on_the_next_turn(thread* thread) {
  funcname_thread_add_timer(thread->master, ask_once, nullptr, 0, "ask_once", "loop_test", 1);
  return 0;
}

TEST(LoopTest, CallbackOfARunningLoopEndsBeforeTheHandlerRuns) {
  class Root : public RootTest {
    void TestBody() override {}
  } root;
  Pipe go;
  const pid_t child = fork();
  if (child == 0) {
    await(go);
    thread_master* master = thread_master_create();
    const loop_signal table[] = {{SIGTERM, [] { _exit(query_is_over ? 7 : 8); }}};
    signal_init(master, 1, table);
    funcname_thread_add_timer(master, ask_on_the_next_turn, nullptr, 1, "ask", "loop_test", 1);
    thread_main(master);
    _exit(9);
  }
  FakeModule module("mono", [child](int fd) {
    kill(child, SIGTERM);
    pollfd until_gone = {fd, 0, 0};
    poll(&until_gone, 1, 30000);  // POLLHUP: the caller gave up
  });
  ASSERT_EQ(1, write(go.writer(), "g", 1));
  int status = 0;
  EXPECT_EQ(child, waitpid(child, &status, 0));
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 7) << status;
}

int daemon_pipe;

int echo(thread* thread) {
  char text[8];
  const ssize_t got = read(thread->fd, text, sizeof text);
  if (got > 0) {
    [[maybe_unused]] const ssize_t sent = write(daemon_pipe, text, static_cast<size_t>(got));
  }
  funcname_thread_add_read(thread->master, echo, nullptr, thread->fd, "echo", "loop_test", 1);
  return 0;
}

void end_daemon() {
  [[maybe_unused]] const ssize_t sent = write(daemon_pipe, "bye", 3);
  _exit(0);
}

// The agent registers its signals and first sockets before it detaches.
TEST(LoopTest, RegistrationsSurviveDetaching) {
  int link[2];
  ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, link));
  const pid_t child = fork();
  if (child == 0) {
    close(link[0]);
    daemon_pipe = link[1];
    thread_master* master = thread_master_create();
    const loop_signal table[] = {{SIGTERM, end_daemon}};
    signal_init(master, 1, table);
    funcname_thread_add_read(master, echo, nullptr, link[1], "echo", "loop_test", 1);
    if (daemon(0, 0) != 0) {
      _exit(1);
    }
    const std::string pid = std::to_string(getpid()) + "\n";
    [[maybe_unused]] const ssize_t sent = write(link[1], pid.data(), pid.size());
    thread_main(master);
    _exit(2);
  }
  close(link[1]);
  waitpid(child, nullptr, 0);
  std::string pid;
  for (char byte = 0; read(link[0], &byte, 1) == 1 && byte != '\n';) {
    pid += byte;
  }
  char text[8] = "";
  ASSERT_EQ(4, write(link[0], "ping", 4));
  EXPECT_EQ(4, read(link[0], text, sizeof text));
  EXPECT_STREQ("ping", text);
  ASSERT_GT(atoi(pid.c_str()), 1);
  kill(atoi(pid.c_str()), SIGTERM);
  char last[8] = "";
  EXPECT_EQ(3, read(link[0], last, sizeof last));
  EXPECT_STREQ("bye", last);
  close(link[0]);
}

}  // namespace
