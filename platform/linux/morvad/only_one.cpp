// SPDX-License-Identifier: Apache-2.0
//
// See only_one.h. The sign of life is what the query server gives whoever looks whether it lives:
// it closes a connection that ends without a request.
#include "platform/linux/morvad/only_one.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "platform/linux/morvad/log.h"
#include "platform/linux/paths.h"
#include "platform/linux/process_lock.h"

namespace morvad {
namespace {

constexpr char kLockFile[] = MORVA_RUN_DIR "/morvad.lock";
constexpr char kOwnSocket[] = MORVA_RUN_DIR "/morvad.sock";
constexpr int kLooks = 10;     // for a sign of life
constexpr int kLookMs = 1000;  // for one of them

enum class Answer { kNone, kAlive, kSomebodyElse };

/// Looks for the end of the holder for a second, and for a sign of life at its socket.
Answer look_at(const LockHolder& holder) {
  char path[kMorvaPathSize];
  morva_path(path, sizeof path, kOwnSocket);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const int length = snprintf(address.sun_path, sizeof address.sun_path, "%s", path);
  const UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  ucred peer{};
  socklen_t size = sizeof peer;
  if (!fd.valid() || static_cast<size_t>(length) >= sizeof address.sun_path ||
      connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      getsockopt(fd.get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) {
    process_wait(holder.process.get(), kLookMs, poll_one);
    return Answer::kNone;
  }
  if (peer.pid != holder.pid) {
    return Answer::kSomebodyElse;
  }
  shutdown(fd.get(), SHUT_WR);
  pollfd entries[] = {{fd.get(), POLLIN, 0}, {holder.process.get(), POLLIN, 0}};
  poll(entries, 2, kLookMs);
  return (entries[0].revents & POLLIN) != 0 ? Answer::kAlive : Answer::kNone;
}

bool has_ended(const LockHolder& holder) {
  return process_wait(holder.process.get(), 0, poll_one);
}

/// True when the holder is stopped, or gave no sign of life.
bool is_frozen(const LockHolder& holder) {
  for (int i = 0; i < kLooks; i++) {
    if (process_is_stopped(holder) || has_ended(holder)) {
      return true;
    }
    const Answer answer = look_at(holder);
    if (answer != Answer::kNone) {
      return false;
    }
  }
  return true;
}

/// Ends the process that has the lock, if that is frozen. True when the lock may be free now.
bool make_room(int lock) {
  LockHolder holder;
  if (!process_lock_holder(lock, &holder) || !is_frozen(holder)) {
    return false;
  }
  if (has_ended(holder)) {
    return true;
  }
  log_line("process " + std::to_string(holder.pid) +
           " has the switch and is frozen, it has to end");
  return process_end(holder, poll_one);
}

}  // namespace

bool hold_switch() {
  char path[kMorvaPathSize];
  UniqueFd lock(process_lock_open(morva_path(path, sizeof path, kLockFile)));
  if (!lock.valid()) {
    log_line(std::string(path) + ": " + strerror(-lock.get()));
    return false;
  }
  int error = process_lock_try(lock.get());
  if (error == EWOULDBLOCK && make_room(lock.get())) {
    error = process_lock_try(lock.get());
  }
  if (error != 0) {
    log_line(error == EWOULDBLOCK ? "another morvad has the switch"
                                  : std::string(path) + ": " + strerror(error));
    return false;
  }
  process_lock_keep(lock.release());
  return true;
}

}  // namespace morvad
