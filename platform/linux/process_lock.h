// SPDX-License-Identifier: Apache-2.0
//
// One process for one job: a lock file that its holder keeps locked for as long as it lives, and
// signs with its number and the time at which its event loop was last seen to turn. Who comes
// second can so tell a holder that works from one that is stopped or stuck, and end the latter.
//
// The signature is only a hint: a process counts as the holder when the kernel says that one of its
// descriptors has this lock, and signals go through a pidfd, so that a number that was given away
// again, or rubbish in the file, reaches nobody. Used by the library and by morvad; logs nothing.
#ifndef MORVA_LINUX_PROCESS_LOCK_H
#define MORVA_LINUX_PROCESS_LOCK_H

#include <stdint.h>
#include <sys/types.h>

#include "platform/linux/fd.h"

// How long a process may take to end after SIGTERM before it is killed.
constexpr int kProcessEndMs = 5000;

// Waits for `events` on `fd`, for `milliseconds` at the most, as poll() on one descriptor does. An
// error other than EINTR ends the waiting.
using ProcessWait = int (*)(int fd, short events, int milliseconds);

// The process that holds a lock.
struct LockHolder {
  pid_t pid = 0;
  UniqueFd process;      // its pidfd
  int64_t silent_s = 0;  // since it signed last
};

// Opens the lock file at `path`, and makes it where there is none. The descriptor, or a negative
// errno.
int process_lock_open(const char* path);

// Takes the lock if nobody holds it. 0, EWOULDBLOCK when another process does, or another errno.
int process_lock_try(int lock);

// Keeps a lock that was taken, and its descriptor, for the life of this process, and signs it.
void process_lock_keep(int lock);

// Signs the lock that is kept, if there is one, once more.
void process_lock_beat();

// Finds the process that holds `lock`. False when it cannot be told, or is this process.
bool process_lock_holder(int lock, LockHolder* holder);

// True when the holder is stopped by a signal (not by a tracer).
bool process_is_stopped(const LockHolder& holder);

// True while a program that the holder started runs: it may be waiting for that.
bool process_has_children(const LockHolder& holder);

// Ends the holder: SIGTERM and, since a stopped process takes that only when it goes on, SIGCONT;
// after kProcessEndMs SIGKILL. True when it is gone.
bool process_end(const LockHolder& holder, ProcessWait wait);

// Sends `signo` through a pidfd.
void process_signal(int pidfd, int signo);

// Waits for the end of a pidfd's process, for `milliseconds` at the most. False when it lives on;
// errno is then ETIMEDOUT, or what ended the waiting.
bool process_wait(int pidfd, int64_t milliseconds, ProcessWait wait);

// poll() on one descriptor.
int poll_one(int fd, short events, int milliseconds);

#endif  // MORVA_LINUX_PROCESS_LOCK_H
