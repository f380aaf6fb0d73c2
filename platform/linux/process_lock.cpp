// SPDX-License-Identifier: Apache-2.0
//
// See process_lock.h. The file holds one line of fixed size: process number and seconds of the
// monotonic clock, padded with spaces. flock() is what counts; it survives fork(), so that a daemon
// keeps the lock when it detaches.
#include "platform/linux/process_lock.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>

namespace {

constexpr mode_t kLockMode = 0640;
constexpr size_t kSignatureSize = 32;
constexpr int kKilledMs = 1000;  // what a killed process may take to be gone
constexpr size_t kProcSize = 4096;

int kept_lock = -1;

int64_t now_ms() {
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

// Reads up to `size` - 1 bytes of a file below `folder`, with a closing NUL. The length, or -1.
ssize_t read_text(int folder, const char* name, char* text, size_t size) {
  const UniqueFd fd(openat(folder, name, O_RDONLY | O_CLOEXEC));
  const ssize_t length = fd.valid() ? read(fd.get(), text, size - 1) : -1;
  text[length > 0 ? length : 0] = '\0';
  return length;
}

// The number and time in a signature. False when it is none.
bool read_signature(int lock, pid_t* pid, int64_t* signed_s) {
  char text[kSignatureSize + 1] = "";
  if (pread(lock, text, kSignatureSize, 0) != static_cast<ssize_t>(kSignatureSize)) {
    return false;
  }
  int number = 0;
  long long seconds = 0;
  int end = 0;
  if (sscanf(text, "%9d %18lld%n", &number, &seconds, &end) != 2 || text[end] != '\n') {
    return false;
  }
  *pid = number;
  *signed_s = seconds;
  return number > 1 && seconds >= 0;
}

// /proc/PID, or -1.
int open_process(pid_t pid) {
  char path[32];
  snprintf(path, sizeof path, "/proc/%d", static_cast<int>(pid));
  return open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
}

// True when the kernel lists a lock of flock() for the descriptor `name` of the process.
bool descriptor_has_lock(int process, const char* name) {
  char path[300];
  char text[kProcSize];
  snprintf(path, sizeof path, "fdinfo/%s", name);
  if (read_text(process, path, text, sizeof text) <= 0) {
    return false;
  }
  const char* lock = strstr(text, "\nlock:");
  return lock != nullptr && strstr(lock, " FLOCK ") != nullptr &&
         strstr(lock, " WRITE ") != nullptr;
}

// True when one of the process's descriptors is the file behind `lock` and has it locked.
bool holds(int process, int lock) {
  struct stat wanted = {};
  const int fd = openat(process, "fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  DIR* folder = fd >= 0 ? fdopendir(fd) : nullptr;
  if (folder == nullptr || fstat(lock, &wanted) != 0) {
    if (folder != nullptr) {
      closedir(folder);
    } else if (fd >= 0) {
      close(fd);
    }
    return false;
  }
  bool found = false;
  for (const dirent* entry = readdir(folder); entry != nullptr && !found; entry = readdir(folder)) {
    struct stat one = {};
    found = entry->d_name[0] != '.' && fstatat(dirfd(folder), entry->d_name, &one, 0) == 0 &&
            one.st_dev == wanted.st_dev && one.st_ino == wanted.st_ino &&
            descriptor_has_lock(process, entry->d_name);
  }
  closedir(folder);
  return found;
}

// The letter of a process's state, or 0 when it is gone. The name before it may hold anything.
char state_of(pid_t pid) {
  const UniqueFd process(open_process(pid));
  char text[kProcSize];
  if (!process.valid() || read_text(process.get(), "stat", text, sizeof text) <= 0) {
    return 0;
  }
  const char* name_end = strrchr(text, ')');
  return name_end != nullptr && name_end[1] == ' ' ? name_end[2] : '\0';
}

bool is_gone(int pidfd) {
  pollfd entry = {pidfd, POLLIN, 0};
  return poll(&entry, 1, 0) != 0;
}

}  // namespace

int process_lock_open(const char* path) {
  const int fd = open(path, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, kLockMode);
  return fd >= 0 ? fd : -errno;
}

int process_lock_try(int lock) {
  while (flock(lock, LOCK_EX | LOCK_NB) != 0) {
    if (errno != EINTR) {
      return errno;
    }
  }
  return 0;
}

void process_lock_keep(int lock) {
  kept_lock = lock;
  process_lock_beat();
}

void process_lock_beat() {
  if (kept_lock < 0) {
    return;
  }
  char text[kSignatureSize + 1];
  snprintf(text, sizeof text, "%10d %20lld\n", static_cast<int>(getpid()),
           static_cast<long long>(now_ms() / 1000));
  // An old signature is all that a failure leaves, and that does no harm to a process that works.
  [[maybe_unused]] const ssize_t written = pwrite(kept_lock, text, kSignatureSize, 0);
}

bool process_lock_holder(int lock, LockHolder* holder) {
  int64_t signed_s = 0;
  if (!read_signature(lock, &holder->pid, &signed_s) || holder->pid == getpid()) {
    return false;
  }
  // The pidfd comes first: what is read below /proc afterwards, while it has not ended, is its.
  holder->process.reset(static_cast<int>(syscall(SYS_pidfd_open, holder->pid, 0)));
  const UniqueFd process(open_process(holder->pid));
  if (!holder->process.valid() || !process.valid() || !holds(process.get(), lock) ||
      is_gone(holder->process.get())) {
    return false;
  }
  const int64_t silent = now_ms() / 1000 - signed_s;
  holder->silent_s = silent > 0 ? silent : 0;
  return true;
}

bool process_is_stopped(const LockHolder& holder) {
  return state_of(holder.pid) == 'T' && !is_gone(holder.process.get());
}

bool process_has_children(const LockHolder& holder) {
  char name[64];
  char text[kProcSize];
  snprintf(name, sizeof name, "task/%d/children", static_cast<int>(holder.pid));
  const UniqueFd process(open_process(holder.pid));
  if (!process.valid() || read_text(process.get(), name, text, sizeof text) <= 0) {
    return false;
  }
  char* at = text;
  for (;;) {
    char* end = nullptr;
    const long child = strtol(at, &end, 10);
    if (end == at) {
      return false;
    }
    // What runs beside the holder has a group of its own; nobody waits for that.
    const bool same_group = getpgid(static_cast<pid_t>(child)) == getpgid(holder.pid);
    const char state = state_of(static_cast<pid_t>(child));
    if (same_group && state != 0 && state != 'Z' && state != 'X') {
      return true;
    }
    at = end;
  }
}

bool process_end(const LockHolder& holder, ProcessWait wait) {
  process_signal(holder.process.get(), SIGTERM);
  process_signal(holder.process.get(), SIGCONT);
  if (process_wait(holder.process.get(), kProcessEndMs, wait)) {
    return true;
  }
  if (errno == ECANCELED) {
    return false;
  }
  process_signal(holder.process.get(), SIGKILL);
  return process_wait(holder.process.get(), kKilledMs, wait);
}

void process_signal(int pidfd, int signo) {
  syscall(SYS_pidfd_send_signal, pidfd, signo, nullptr, 0);
}

bool process_wait(int pidfd, int64_t milliseconds, ProcessWait wait) {
  const int64_t end = now_ms() + milliseconds;
  for (;;) {
    const int64_t left = end - now_ms();
    const int ready = wait(pidfd, POLLIN, left > 0 ? static_cast<int>(left) : 0);
    if (ready > 0) {
      return true;
    }
    if (ready < 0 && errno != EINTR) {
      return false;
    }
    if (left <= 0) {
      errno = ETIMEDOUT;
      return false;
    }
  }
}

int poll_one(int fd, short events, int milliseconds) {
  pollfd entry = {fd, events, 0};
  return poll(&entry, 1, milliseconds);
}
