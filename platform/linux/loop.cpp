// SPDX-License-Identifier: Apache-2.0
//
// The event loop of platform/loop.h on libevent: every registration is an event_base_once().
#include "platform/loop.h"

#include <event2/event.h>
#include <stdlib.h>

#include "platform/linux/loop_internal.h"
#include "platform/log.h"

namespace {

// One registration, from malloc; freed when it fires.
struct registration {
  thread_master* master;
  thread_func func;
  void* arg;
  const char* name;
};

unsigned long turns = 0;
bool in_callback = false;

void run_registration(evutil_socket_t fd, short /*events*/, void* opaque) {
  registration* entry = static_cast<registration*>(opaque);
  thread record = {entry->master, entry->arg, fd};
  const thread_func func = entry->func;
  free(entry);
  in_callback = true;
  ++turns;
  func(&record);
  in_callback = false;
}

void run_signal(evutil_socket_t /*signo*/, short /*events*/, void* opaque) {
  // The handler travels as the pointer itself: there is nothing to free.
  reinterpret_cast<void (*)()>(opaque)();
}

void log_from_libevent(int severity, const char* message) {
  if (severity >= EVENT_LOG_WARN) {
    zlog_err("event loop: %s", message);
  }
}

void* register_once(thread_master* master, thread_func func, void* arg, int fd, short events,
                    const timeval* delay, const char* name, const char* file, int line) {
  if (master == nullptr || func == nullptr) {
    return nullptr;
  }
  registration* entry = static_cast<registration*>(malloc(sizeof(registration)));
  if (entry == nullptr) {
    return nullptr;
  }
  *entry = {master, func, arg, name};
  if (event_base_once(master->base, fd, events, run_registration, entry, delay) != 0) {
    free(entry);
    zlog_err("event loop: %s (%s:%d) cannot be registered", name != nullptr ? name : "?",
             file != nullptr ? file : "?", line);
    return nullptr;
  }
  return entry;
}

}  // namespace

unsigned long loop_turn() {
  return in_callback ? turns : 0;
}

void loop_new_turn() {
  ++turns;
}

thread_master* thread_master_create(void) {
  event_set_log_callback(log_from_libevent);
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
  return register_once(master, func, arg, fd, EV_READ, nullptr, name, file, line);
}

void* funcname_thread_add_timer(thread_master* master, thread_func func, void* arg, long seconds,
                                const char* name, const char* file, int line) {
  const timeval delay = {seconds > 0 ? seconds : 0, 0};
  return register_once(master, func, arg, -1, EV_TIMEOUT, &delay, name, file, line);
}

void signal_init(thread_master* master, int count, const loop_signal* signals) {
  for (int i = 0; i < count; ++i) {
    event* binding = evsignal_new(master->base, signals[i].signo, run_signal,
                                  reinterpret_cast<void*>(signals[i].handler));
    if (binding == nullptr || event_add(binding, nullptr) != 0) {
      zlog_err("event loop: signal %d cannot be bound", signals[i].signo);
    }
  }
}

void thread_main(thread_master* master) {
  event_base_loop(master->base, EVLOOP_NO_EXIT_ON_EMPTY);
}
