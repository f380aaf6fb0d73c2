// SPDX-License-Identifier: Apache-2.0
//
// Waiting on sockets, shared by the Ethernet and the UDP transport.
#include "gateway/socket_wait.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <utility>

namespace qel_gateway {

FileDescriptor::FileDescriptor(FileDescriptor&& other) noexcept
    : fd_(std::exchange(other.fd_, -1)) {}

FileDescriptor& FileDescriptor::operator=(FileDescriptor&& other) noexcept {
  std::swap(fd_, other.fd_);
  return *this;
}

FileDescriptor::~FileDescriptor() {
  if (fd_ >= 0) {
    ::close(fd_);
  }
}

bool wait_readable(int fd, int wake_fd, TimePoint deadline) {
  const auto left = std::max(deadline - std::chrono::steady_clock::now(),
                             std::chrono::steady_clock::duration::zero());
  const auto whole = std::chrono::duration_cast<std::chrono::nanoseconds>(left).count();
  const timespec wait = {static_cast<time_t>(whole / 1000000000),
                         static_cast<long>(whole % 1000000000)};
  std::array<pollfd, 2> fds = {pollfd{fd, POLLIN, 0}, pollfd{wake_fd, POLLIN, 0}};
  const int ready = ::ppoll(fds.data(), fds.size(), &wait, nullptr);
  return ready > 0 && (fds[0].revents & (POLLIN | POLLERR)) != 0;
}

}  // namespace qel_gateway
