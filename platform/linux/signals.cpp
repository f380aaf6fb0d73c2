// SPDX-License-Identifier: Apache-2.0
//
// See signals.h. libevent's own signal events are of no use here: they are delivered by its loop
// only, and a daemon waits long before that runs.
#include "platform/linux/signals.h"

#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <stdint.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace {

struct signal_state {
  volatile sig_atomic_t noted;
  bool held;  // caught, and bound to nothing yet
  void (*handler)(void);
};

constexpr int kSignals = NSIG;
constexpr int kEndingSignals[] = {SIGINT, SIGTERM, SIGQUIT, SIGTSTP};

signal_state states[kSignals];
int wake_fd = -1;
bool serving = false;

void note(int signo) {
  const int error = errno;
  states[signo].noted = 1;
  const uint64_t one = 1;
  // It fails only when it is readable already.
  [[maybe_unused]] const ssize_t written = write(wake_fd, &one, sizeof one);
  errno = error;
}

bool valid(int signo) {
  return signo > 0 && signo < kSignals;
}

bool catch_signal(int signo) {
  if (wake_fd < 0) {
    wake_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  }
  struct sigaction action = {};
  action.sa_handler = note;
  action.sa_flags = SA_RESTART;
  sigfillset(&action.sa_mask);
  return wake_fd >= 0 && sigaction(signo, &action, nullptr) == 0;
}

bool unhandled(int signo) {
  struct sigaction action = {};
  return sigaction(signo, nullptr, &action) == 0 && (action.sa_flags & SA_SIGINFO) == 0 &&
         action.sa_handler == SIG_DFL;
}

}  // namespace

void signals_hold() {
  for (const int signo : kEndingSignals) {
    if (unhandled(signo)) {
      states[signo].held = catch_signal(signo);
    }
  }
}

bool signals_bind(int signo, void (*handler)(void)) {
  if (!valid(signo) || handler == nullptr) {
    return false;
  }
  states[signo].handler = handler;
  states[signo].held = false;
  return catch_signal(signo);
}

void signals_bound() {
  for (const int signo : kEndingSignals) {
    if (states[signo].held) {
      states[signo].held = false;
      signal(signo, SIG_DFL);
      if (states[signo].noted != 0) {
        states[signo].noted = 0;
        raise(signo);
      }
    }
  }
  signals_run();
}

int signals_fd() {
  return wake_fd;
}

void signals_run() {
  // Emptied first: a signal that comes from here on makes it readable again.
  uint64_t count = 0;
  if (wake_fd < 0 || (read(wake_fd, &count, sizeof count) < 0 && errno != EAGAIN)) {
    return;
  }
  for (signal_state& state : states) {
    if (state.noted != 0 && state.handler != nullptr) {
      state.noted = 0;
      state.handler();
    }
  }
}

bool signals_held() {
  for (const int signo : kEndingSignals) {
    if (states[signo].held && states[signo].noted != 0) {
      return true;
    }
  }
  return false;
}

void signals_starting() {
  serving = false;
}

void signals_serving() {
  serving = true;
}

int signals_poll(int fd, short events, int milliseconds) {
  pollfd entries[] = {{fd, events, 0}, {wake_fd, POLLIN, 0}};
  if (serving || wake_fd < 0) {
    return poll(entries, 1, milliseconds);
  }
  const int ready = signals_held() ? 0 : poll(entries, 2, milliseconds);
  const int error = errno;
  if (signals_held()) {
    errno = ECANCELED;
    return -1;
  }
  if (entries[1].revents != 0 || (ready < 0 && error == EINTR)) {
    signals_run();
  }
  if (ready > 0 && entries[0].revents == 0) {
    errno = EINTR;
    return -1;
  }
  errno = error;
  return ready > 0 ? 1 : ready;
}
