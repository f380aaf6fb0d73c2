// SPDX-License-Identifier: Apache-2.0
//
// A pipe to oneself carries the news of a signal to whoever polls.
#include "gateway/cli/interrupt.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>

namespace qel_gateway::cli {

namespace {

volatile std::sig_atomic_t g_signal = 0;
std::array<int, 2> g_pipe = {-1, -1};

// Nothing to do: that it ends a wait is what it is for. Output goes on (SA_RESTART).
extern "C" void on_resize(int /*number*/) {}

extern "C" void on_signal(int number) {
  const int kept = errno;
  g_signal = number;
  const char byte = 0;
  // A full pipe is as readable as it needs to be.
  [[maybe_unused]] const ssize_t written = ::write(g_pipe[1], &byte, 1);
  errno = kept;
}

}  // namespace

void catch_interrupts() {
  if (::pipe2(g_pipe.data(), O_CLOEXEC | O_NONBLOCK) != 0) {
    g_pipe = {-1, -1};
  }
  struct sigaction action = {};
  action.sa_handler = on_signal;
  for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) {
    ::sigaction(number, &action, nullptr);
  }
  action.sa_handler = on_resize;
  action.sa_flags = SA_RESTART;
  ::sigaction(SIGWINCH, &action, nullptr);
}

bool interrupt_seen() {
  return g_signal != 0;
}

int interrupt_signal() {
  return g_signal;
}

int interrupt_descriptor() {
  return g_pipe[0];
}

}  // namespace qel_gateway::cli
