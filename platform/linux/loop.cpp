// SPDX-License-Identifier: Apache-2.0
//
// The event loop of platform/loop.h on libevent. A registration outlives its callback, which mostly
// registers itself again: a reader then stays in the kernel's set, which costs no system call, and
// a timer is set again without memory being given back and asked for. One that was not registered
// again is gone when the callback returns.
#include "platform/loop.h"

#include <event2/event.h>
#include <stdlib.h>

#include "platform/linux/loop_internal.h"
#include "platform/linux/notify.h"
#include "platform/linux/process_lock.h"
#include "platform/linux/signals.h"
#include "platform/log.h"

namespace {

// One registration, from malloc; freed when it is spent.
struct registration {
  thread_master* master;
  thread_func func;
  void* arg;
  const char* name;
  int fd;  // -1: a timer
  event* watch;
};

unsigned long turns = 0;
bool in_callback = false;
registration* running = nullptr;  // the one whose callback runs, unless that took it out
bool wanted_again = false;        // it has registered itself once more

constexpr size_t kStartSteps = 2;
void (*at_start[kStartSteps])() = {};  // by StartStep
bool configured = false;

void run_start_step(StartStep step) {
  void (*&func)() = at_start[static_cast<size_t>(step)];
  void (*const once)() = func;
  func = nullptr;
  if (once != nullptr) {
    once();
  }
}

void run(const registration& entry) {
  thread record = {entry.master, entry.arg, entry.fd};
  const bool is_timer = entry.fd < 0;  // the callback may release the registration
  in_callback = true;
  ++turns;
  entry.func(&record);
  in_callback = false;
  if (is_timer) {
    process_lock_beat();  // once a second in a daemon with a timer of that
  }
}

void release(registration* entry) {
  event_free(entry->watch);  // out of the kernel's set, unless the descriptor is closed already
  free(entry);
}

void run_entry(evutil_socket_t /*fd*/, short /*events*/, void* opaque) {
  auto* entry = static_cast<registration*>(opaque);
  running = entry;
  wanted_again = false;
  run(*entry);
  if (running != nullptr && !wanted_again) {
    release(entry);
  }
  running = nullptr;
}

void run_signals(evutil_socket_t /*fd*/, short /*events*/, void* /*opaque*/) {
  signals_run();
}

void log_from_libevent(int severity, const char* message) {
  if (severity >= EVENT_LOG_WARN) {
    zlog_err("event loop: %s", message);
  }
}

registration* make(thread_master* master, thread_func func, void* arg, int fd, const char* name) {
  if (master == nullptr || func == nullptr) {
    return nullptr;
  }
  auto* entry = static_cast<registration*>(malloc(sizeof(registration)));
  if (entry != nullptr) {
    const short events = fd >= 0 ? EV_READ | EV_PERSIST : 0;
    *entry = {master, func, arg, name, fd, event_new(master->base, fd, events, run_entry, entry)};
  }
  return entry;
}

// Begins to wait, for a timer `delay`. Returns the registration, or null without one.
void* start(registration* entry, const timeval* delay, const char* file, int line) {
  if (entry->watch != nullptr && event_add(entry->watch, delay) == 0) {
    return entry;
  }
  zlog_err("event loop: %s (%s:%d) cannot be registered",
           entry->name != nullptr ? entry->name : "?", file != nullptr ? file : "?", line);
  if (entry == running) {
    wanted_again = false;  // it ends with its callback
    return nullptr;
  }
  if (entry->watch != nullptr) {
    event_free(entry->watch);
  }
  free(entry);
  return nullptr;
}

// What the running callback registers for its own descriptor, or as a timer in a timer. True when
// the registration goes on as it is. Anything but the same reader may be for another file behind
// the same number, which the kernel's set does not know: the old one is then taken out before the
// new one comes in.
bool goes_on(const thread_master* master, thread_func func, const void* arg, int fd) {
  if (running == nullptr || running->fd != fd || running->master != master) {
    return false;
  }
  if (running->func == func && running->arg == arg && !wanted_again) {
    wanted_again = true;
    return true;
  }
  if (!wanted_again) {
    release(running);
    running = nullptr;
  }
  return false;
}

}  // namespace

unsigned long loop_turn() {
  return in_callback ? turns : 0;
}

void loop_new_turn() {
  ++turns;
}

void loop_at_start(StartStep step, void (*func)()) {
  at_start[static_cast<size_t>(step)] = func;
}

bool loop_configured() {
  return configured;
}

thread_master* thread_master_create(void) {
  event_set_log_callback(log_from_libevent);
  notify_read_environment();  // before a shell command inherits it
  signals_starting();
  event_config* config = event_config_new();
  if (config == nullptr) {
    return nullptr;
  }
  // One thread, so no locks. No cached time: a timer counts from its registration, also in a
  // callback that first waited for a module.
  event_config_set_flag(
      config, EVENT_BASE_FLAG_NOLOCK | EVENT_BASE_FLAG_NO_CACHE_TIME | EVENT_BASE_FLAG_IGNORE_ENV);
  event_base* base = event_base_new_with_config(config);
  event_config_free(config);
  thread_master* master =
      base != nullptr ? static_cast<thread_master*>(malloc(sizeof(thread_master))) : nullptr;
  if (master == nullptr) {
    if (base != nullptr) {
      event_base_free(base);
    }
    return nullptr;
  }
  master->base = base;
  return master;
}

void* funcname_thread_add_read(thread_master* master, thread_func func, void* arg, int fd,
                               const char* name, const char* file, int line) {
  if (fd < 0) {
    return nullptr;
  }
  if (goes_on(master, func, arg, fd)) {
    return running;
  }
  registration* entry = make(master, func, arg, fd, name);
  return entry != nullptr ? start(entry, nullptr, file, line) : nullptr;
}

void* funcname_thread_add_timer(thread_master* master, thread_func func, void* arg, long seconds,
                                const char* name, const char* file, int line) {
  const timeval delay = {seconds > 0 ? seconds : 0, 0};
  const bool again = goes_on(master, func, arg, -1);
  registration* entry = again ? running : make(master, func, arg, -1, name);
  return entry != nullptr ? start(entry, &delay, file, line) : nullptr;
}

void signal_init(thread_master* master, int count, const loop_signal* signals) {
  for (int i = 0; i < count; ++i) {
    if (!signals_bind(signals[i].signo, signals[i].handler)) {
      zlog_err("event loop: signal %d cannot be bound", signals[i].signo);
    }
  }
  event* binding =
      event_new(master->base, signals_fd(), EV_READ | EV_PERSIST, run_signals, nullptr);
  if (binding == nullptr || event_add(binding, nullptr) != 0) {
    zlog_err("event loop: no signal is heard");
  }
  signals_bound();
}

void thread_main(thread_master* master) {
  run_start_step(StartStep::kConfigure);
  configured = true;
  run_start_step(StartStep::kConfigured);
  signals_serving();
  notify_ready(master->base);
  event_base_loop(master->base, EVLOOP_NO_EXIT_ON_EMPTY);
  configured = false;
}
