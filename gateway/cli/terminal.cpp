// SPDX-License-Identifier: Apache-2.0
//
// Entering and leaving the screen. What leaves it is also called from signal handlers, so it keeps
// to calls that may be made there.
#include "gateway/cli/terminal.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <string_view>

#include "gateway/cli/interrupt.h"
#include "gateway/error.h"

namespace qel_gateway::cli {

namespace {

constexpr std::string_view kEnter = "\033[?1049h\033[?25l\033[2J";
constexpr std::string_view kLeave = "\033[?25h\033[?1049l";
constexpr int kCrashSignals[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT};

termios g_before = {};
volatile std::sig_atomic_t g_entered = 0;

void write_out(std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = ::write(STDOUT_FILENO, text.data(), text.size());
    if (written <= 0) {
      return;
    }
    text.remove_prefix(static_cast<size_t>(written));
  }
}

void leave() {
  if (g_entered != 0) {
    g_entered = 0;
    write_out(kLeave);
    ::tcsetattr(STDIN_FILENO, TCSANOW, &g_before);
  }
}

extern "C" void on_crash(int number) {
  leave();
  ::signal(number, SIG_DFL);
  ::raise(number);
}

}  // namespace

Screen::Screen() {
  if (::isatty(STDOUT_FILENO) == 0 || ::tcgetattr(STDIN_FILENO, &g_before) != 0) {
    throw Error("top needs a terminal; \"qelctl ports\" shows the same once", ExitCode::Usage);
  }
  for (const int number : kCrashSignals) {
    ::signal(number, on_crash);
  }
  termios raw = g_before;
  raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
  raw.c_cc[VMIN] = 0;
  raw.c_cc[VTIME] = 0;
  // Suspending would leave the shell in this screen.
  raw.c_cc[VSUSP] = _POSIX_VDISABLE;
  g_entered = 1;
  ::tcsetattr(STDIN_FILENO, TCSANOW, &raw);
  write_out(kEnter);
}

Screen::~Screen() {
  leave();
  for (const int number : kCrashSignals) {
    ::signal(number, SIG_DFL);
  }
}

ScreenSize Screen::size() {
  winsize window = {};
  if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &window) != 0 || window.ws_col == 0 ||
      window.ws_row == 0) {
    return {};
  }
  return {window.ws_col, window.ws_row};
}

void Screen::draw(const std::string& lines) {
  std::string out = "\033[H";
  for (const char c : lines) {
    if (c == '\n') {
      out += "\033[K\n";
    } else {
      out += c;
    }
  }
  write_out(out + "\033[J");
}

char Screen::key() {
  char c = 0;
  if (::read(STDIN_FILENO, &c, 1) != 1) {
    return 0;
  }
  if (c != '\033') {
    return c;
  }
  std::array<char, 2> rest{};
  if (::read(STDIN_FILENO, rest.data(), rest.size()) == 2 && rest[0] == '[') {
    return rest[1];
  }
  return '\033';
}

WakeDescriptor::WakeDescriptor() : fd_(::epoll_create1(EPOLL_CLOEXEC)) {
  for (const int source : {STDIN_FILENO, interrupt_descriptor()}) {
    epoll_event event = {};
    event.events = EPOLLIN;
    event.data.fd = source;
    ::epoll_ctl(fd_, EPOLL_CTL_ADD, source, &event);
  }
}

WakeDescriptor::~WakeDescriptor() {
  if (fd_ >= 0) {
    ::close(fd_);
  }
}

}  // namespace qel_gateway::cli
