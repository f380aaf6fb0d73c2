// SPDX-License-Identifier: Apache-2.0
//
// The event loop and the clocks, both driven by the test. A registration is dropped before its
// callback runs; the record that the callback receives is freed when it returns.
#include "platform/loop.h"

#include <csignal>
#include <map>
#include <memory>

#include "tests/fake/fake.h"
#include "tests/fake/internal.h"

struct thread_master {
  int unused;
};

namespace {

constexpr int kMaxRounds = 100000;  // of run_reads: a reader that consumes nothing ends the test

struct Entry {
  fake::Registration shown;
  thread_func func;
  uint64_t due;    // in seconds of `elapsed`; timers only
  uint64_t order;  // of registration
};

struct State {
  std::vector<Entry> entries;
  uint64_t elapsed = 0;  // seconds moved since reset; the timers' clock
  uint64_t order = 0;
  uint32_t uptime = 3600;
  int64_t now = 1700000000;
  long sysinfo_uptime = 3600;
  std::map<int, void (*)()> signals;
  std::function<void()> main_action;
};

State& state() {
  static State* const instance = new State;
  return *instance;
}

thread_master the_master{0};

const char* signal_name(int signo) {
  switch (signo) {
    case SIGINT:
      return "SIGINT";
    case SIGTERM:
      return "SIGTERM";
    case SIGTSTP:
      return "SIGTSTP";
    case SIGQUIT:
      return "SIGQUIT";
    default:
      return "another signal";
  }
}

void* add(const Entry& entry) {
  state().entries.push_back(entry);
  state().entries.back().order = ++state().order;
  // A handle is only ever compared with null.
  return &the_master;
}

// Takes the entry out of the list, then runs it: it may register itself again.
void fire(size_t position) {
  const Entry entry = state().entries[position];
  state().entries.erase(state().entries.begin() + static_cast<std::ptrdiff_t>(position));
  const auto record = std::make_unique<struct thread>();
  record->master = &the_master;
  record->arg = entry.shown.arg;
  record->fd = entry.shown.fd;
  entry.func(record.get());
}

// The earliest timer; the first registered of those due together. -1 when there is none.
int earliest_timer() {
  int best = -1;
  for (size_t i = 0; i < state().entries.size(); ++i) {
    const Entry& entry = state().entries[i];
    if (entry.shown.timer &&
        (best < 0 || entry.due < state().entries[static_cast<size_t>(best)].due)) {
      best = static_cast<int>(i);
    }
  }
  return best;
}

void move_to(uint64_t moment) {
  if (moment > state().elapsed) {
    fake::internal::move_clock(static_cast<unsigned>(moment - state().elapsed));
  }
}

}  // namespace

extern "C" {

struct thread_master* thread_master_create(void) {
  fake::internal::record("thread_master_create()");
  return fake::internal::platform_fails("thread_master_create") ? nullptr : &the_master;
}

void* funcname_thread_add_read(struct thread_master* master, thread_func func, void* arg, int fd,
                               const char* name, const char* file, int line) {
  fake::internal::record("funcname_thread_add_read(%s, %d)", name, fd);
  if (master != &the_master || func == nullptr || fd < 0) {
    return nullptr;
  }
  return add({{false, name, fd, 0, arg, file, line}, func, 0, 0});
}

void* funcname_thread_add_timer(struct thread_master* master, thread_func func, void* arg,
                                long seconds, const char* name, const char* file, int line) {
  fake::internal::record("funcname_thread_add_timer(%s, %ld)", name, seconds);
  if (master != &the_master || func == nullptr || seconds < 0) {
    return nullptr;
  }
  return add({{true, name, -1, seconds, arg, file, line},
              func,
              state().elapsed + static_cast<uint64_t>(seconds),
              0});
}

void signal_init(struct thread_master* master, int count, const struct loop_signal* signals) {
  std::string names;
  for (int i = 0; i < count; ++i) {
    names += i == 0 ? "" : " ";
    names += signal_name(signals[i].signo);
    state().signals[signals[i].signo] = signals[i].handler;
  }
  fake::internal::record("signal_init(%s, %d, %s)", master == &the_master ? "master" : "?", count,
                         names.c_str());
}

void thread_main(struct thread_master* master) {
  fake::internal::record("thread_main(%s)", master == &the_master ? "master" : "?");
  if (state().main_action) {
    state().main_action();
  }
}

}  // extern "C"

namespace fake {

uint32_t uptime() {
  return state().uptime;
}
void set_uptime(uint32_t seconds) {
  state().uptime = seconds;
}
int64_t now() {
  return state().now;
}
void set_now(int64_t seconds) {
  state().now = seconds;
}
void set_sysinfo_uptime(long seconds) {
  state().sysinfo_uptime = seconds;
}

void tick(unsigned seconds) {
  const uint64_t target = state().elapsed + seconds;
  for (;;) {
    const int next = earliest_timer();
    if (next < 0 || state().entries[static_cast<size_t>(next)].due > target) {
      break;
    }
    move_to(state().entries[static_cast<size_t>(next)].due);
    fire(static_cast<size_t>(next));
  }
  move_to(target);
}

void advance(unsigned seconds) {
  internal::move_clock(seconds);
}

bool run_next_timer() {
  const int next = earliest_timer();
  if (next < 0) {
    return false;
  }
  const uint64_t due = state().entries[static_cast<size_t>(next)].due;
  move_to(due);
  // Timers of 0 seconds that a callback adds wait for the next call.
  const uint64_t last_order = state().order;
  for (int i = earliest_timer(); i >= 0; i = earliest_timer()) {
    const Entry& entry = state().entries[static_cast<size_t>(i)];
    if (entry.due > due || entry.order > last_order) {
      break;
    }
    fire(static_cast<size_t>(i));
  }
  return true;
}

int run_reads() {
  int ran = 0;
  for (bool again = true; again && ran < kMaxRounds;) {
    again = false;
    for (size_t i = 0; i < state().entries.size(); ++i) {
      const Registration& shown = state().entries[i].shown;
      if (!shown.timer &&
          (internal::os_readable(shown.fd) || internal::manager_readable(shown.fd))) {
        fire(i);
        ++ran;
        again = true;
        break;
      }
    }
  }
  return ran;
}

bool fire_read(int fd) {
  for (size_t i = 0; i < state().entries.size(); ++i) {
    if (!state().entries[i].shown.timer && state().entries[i].shown.fd == fd) {
      fire(i);
      return true;
    }
  }
  return false;
}

std::vector<Registration> registrations() {
  std::vector<Registration> shown;
  for (const Entry& entry : state().entries) {
    shown.push_back(entry.shown);
  }
  return shown;
}

int registered(std::string_view name) {
  int count = 0;
  for (const Entry& entry : state().entries) {
    count += entry.shown.name == name ? 1 : 0;
  }
  return count;
}

int registered(std::string_view name, int fd) {
  int count = 0;
  for (const Entry& entry : state().entries) {
    count += entry.shown.name == name && entry.shown.fd == fd ? 1 : 0;
  }
  return count;
}

thread_master* master() {
  return &the_master;
}

void on_thread_main(std::function<void()> action) {
  state().main_action = std::move(action);
}

void (*signal_handler(int signo))() {
  const auto found = state().signals.find(signo);
  return found == state().signals.end() ? nullptr : found->second;
}

namespace internal {

void reset_loop() {
  state() = State{};
}

void move_clock(unsigned seconds) {
  state().elapsed += seconds;
  state().uptime += seconds;
  state().now += seconds;
  state().sysinfo_uptime += static_cast<long>(seconds);
}

long sysinfo_uptime() {
  return state().sysinfo_uptime;
}

}  // namespace internal
}  // namespace fake
