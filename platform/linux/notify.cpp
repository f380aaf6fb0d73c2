// SPDX-License-Identifier: Apache-2.0
//
// See notify.h. Each message is one datagram to the socket that NOTIFY_SOCKET names: a path, or an
// abstract name after '@'.
#include "platform/linux/notify.h"

#include <event2/event.h>
#include <stddef.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "platform/linux/fd.h"

namespace {

constexpr int64_t kUsPerSecond = 1000000;
constexpr int64_t kLongestWatchdogUs = 1000000 * kUsPerSecond;  // more is no interval any more
constexpr timeval kSendPatience = {1, 0};  // the manager's queue may be full for a moment

sockaddr_un manager;
socklen_t manager_size = 0;  // 0: nobody asked
int64_t watchdog_us = 0;
int64_t watchdog_pid = 0;  // 0: whoever reads it
bool ready_told = false;
event* feeder = nullptr;  // lives as long as the process

// A decimal number from 1 to `high`; 0 when it is none.
int64_t number_from(const char* text, int64_t high) {
  int64_t value = 0;
  for (; text != nullptr && *text != '\0'; ++text) {
    if (*text < '0' || *text > '9' || value > high) {
      return 0;
    }
    value = value * 10 + (*text - '0');
  }
  return value <= high ? value : 0;
}

void take_address(const char* name) {
  const size_t length = strlen(name);
  manager_size = 0;
  if ((name[0] != '/' && name[0] != '@') || length < 2 || length >= sizeof manager.sun_path) {
    return;
  }
  manager = {};
  manager.sun_family = AF_UNIX;
  memcpy(manager.sun_path, name, length);
  if (name[0] == '@') {
    manager.sun_path[0] = '\0';
  }
  manager_size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length);
}

void feed(evutil_socket_t /*fd*/, short /*events*/, void* /*opaque*/) {
  if (!ready_told) {
    ready_told = notify_send("READY=1");
  }
  notify_send("WATCHDOG=1");
}

}  // namespace

void notify_read_environment() {
  const char* name = getenv("NOTIFY_SOCKET");
  if (name != nullptr) {
    take_address(name);
    watchdog_us = number_from(getenv("WATCHDOG_USEC"), kLongestWatchdogUs);
    watchdog_pid = number_from(getenv("WATCHDOG_PID"), INT32_MAX);
    // One that is set and is no number is somebody else's too.
    if (getenv("WATCHDOG_PID") != nullptr && watchdog_pid == 0) {
      watchdog_us = 0;
    }
  }
  unsetenv("NOTIFY_SOCKET");
  unsetenv("WATCHDOG_USEC");
  unsetenv("WATCHDOG_PID");
}

int64_t notify_watchdog_us() {
  // Not at reading: a daemon detaches in between, and is then not the process that is watched.
  const bool ours = watchdog_pid == 0 || watchdog_pid == getpid();
  return manager_size != 0 && ours ? watchdog_us : 0;
}

bool notify_send(const char* text) {
  if (manager_size == 0) {
    return false;
  }
  const UniqueFd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  const size_t length = strlen(text);
  return fd.valid() &&
         setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &kSendPatience, sizeof kSendPatience) == 0 &&
         sendto(fd.get(), text, length, MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&manager),
                manager_size) == static_cast<ssize_t>(length);
}

void notify_ready(event_base* base) {
  ready_told = notify_send("READY=1");
  const int64_t half_us = notify_watchdog_us() / 2;
  if (half_us == 0) {
    return;
  }
  const timeval interval = {static_cast<time_t>(half_us / kUsPerSecond),
                            static_cast<suseconds_t>(half_us % kUsPerSecond)};
  feeder = event_new(base, -1, EV_PERSIST, feed, nullptr);
  if (feeder != nullptr && event_add(feeder, &interval) == 0) {
    feed(-1, 0, nullptr);
  }
}
