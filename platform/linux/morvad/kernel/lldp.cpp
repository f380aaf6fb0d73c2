// SPDX-License-Identifier: Apache-2.0
//
// See lldp.h.
#include "platform/linux/morvad/kernel/lldp.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/linux/fd.h"
#include "platform/linux/morvad/log.h"
#include "platform/linux/morvad/names.h"

namespace morvad {
namespace {

constexpr char kDaemonSocket[] = "/run/lldpd.socket";

/// What becomes of the child between fork and its program. It never returns.
[[noreturn]] void become_client(int output, bool watch, pid_t parent) {
  // It must not stay behind when morvad ends without a word to it.
  prctl(PR_SET_PDEATHSIG, SIGTERM);
  if (getppid() != parent) {
    _exit(0);
  }
  const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
  dup2(null, STDIN_FILENO);
  dup2(null, STDERR_FILENO);
  dup2(output, STDOUT_FILENO);
  if (watch) {
    execlp("lldpcli", "lldpcli", "-u", kDaemonSocket, "-f", "json0", "watch", nullptr);
  } else {
    execlp("lldpcli", "lldpcli", "-u", kDaemonSocket, "-f", "json0", "show", "neighbors", "details",
           nullptr);
  }
  _exit(127);
}

}  // namespace

/// A running lldpcli; it ends with this.
struct Lldp::Child {
  Lldp* owner = nullptr;
  pid_t pid = -1;
  UniqueFd output;
  event* readable = nullptr;
  JsonStream stream;
  bool ended = false;
  bool fresh = true;  // started at this very tick

  ~Child() {
    if (readable != nullptr) {
      event_free(readable);
    }
    if (pid > 0) {
      kill(pid, SIGKILL);
      while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
      }
    }
  }
};

Lldp::Lldp(event_base* base, Listener listener) : base_(base), listener_(std::move(listener)) {}

Lldp::~Lldp() = default;

std::unique_ptr<Lldp::Child> Lldp::start(bool watch) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) {
    return nullptr;
  }
  auto child = std::make_unique<Child>();
  child->owner = this;
  child->output.reset(ends[0]);
  UniqueFd input(ends[1]);
  fcntl(ends[0], F_SETFL, O_NONBLOCK);
  const pid_t self = getpid();
  child->pid = fork();
  if (child->pid == 0) {
    become_client(ends[1], watch, self);
  }
  if (child->pid < 0) {
    log_line(std::string("lldpcli not started: ") + strerror(errno));
    return nullptr;
  }
  child->readable = event_new(
      base_, ends[0], EV_READ | EV_PERSIST,
      [](evutil_socket_t, short, void* raw) {
        auto* from = static_cast<Child*>(raw);
        from->owner->on_text(*from);
      },
      child.get());
  event_add(child->readable, nullptr);
  return child;
}

void Lldp::on_text(Child& child) {
  char buffer[8192];
  const ssize_t got = read(child.output.get(), buffer, sizeof buffer);
  if (got < 0 && (errno == EAGAIN || errno == EINTR)) {
    return;
  }
  if (got <= 0) {
    child.ended = true;  // its place is cleared at the next tick
    event_del(child.readable);
    return;
  }
  child.stream.add(std::string_view(buffer, static_cast<size_t>(got)),
                   [this](const std::string& text) {
                     if (!too_deep(text, kMaxDepth)) {
                       listener_(read_lldp(json::parse(text, nullptr, false)));
                     }
                   });
}

void Lldp::tick(bool list) {
  if (list_ != nullptr) {
    list_.reset();  // it had a whole tick for a short answer
  }
  if (watch_ != nullptr && watch_->ended) {
    watch_.reset();
    if (told_) {
      log_line("lldpd: no news any more");
    }
    told_ = false;
  }
  if (access(kDaemonSocket, F_OK) != 0) {
    return;
  }
  if (watch_ == nullptr) {
    watch_ = start(true);
    list = true;
    list_soon_ = true;  // once more, for what came while the watcher started
  } else if (list_soon_) {
    list = true;
    list_soon_ = false;
  }
  if (watch_ != nullptr && !watch_->fresh && !told_) {
    log_line("lldpd: listening to its news");
    told_ = true;
  }
  if (watch_ != nullptr) {
    watch_->fresh = false;
  }
  if (list) {
    list_ = start(false);
  }
}

}  // namespace morvad
