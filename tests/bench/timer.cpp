// SPDX-License-Identifier: Apache-2.0
//
// The least that an idle daemon can cost: one timer a second, and nothing done when it fires.
#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>

int main() {
  const int timer = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC);
  const int poll = epoll_create1(EPOLL_CLOEXEC);
  const itimerspec each_second = {{1, 0}, {1, 0}};
  epoll_event event = {};
  event.events = EPOLLIN;
  if (timer < 0 || poll < 0 || timerfd_settime(timer, 0, &each_second, nullptr) < 0 ||
      epoll_ctl(poll, EPOLL_CTL_ADD, timer, &event) < 0) {
    std::perror("timer");
    return 1;
  }
  uint64_t expirations = 0;
  while (epoll_wait(poll, &event, 1, -1) >= 0 &&
         read(timer, &expirations, sizeof expirations) == sizeof expirations) {
  }
  return 1;
}
