// SPDX-License-Identifier: Apache-2.0
//
// Descriptors of the two socket transports: ownership, and the wait for one to become readable.
#pragma once

#include "gateway/clock.h"

namespace qel_gateway {

// Owns a file descriptor.
class FileDescriptor {
 public:
  FileDescriptor() = default;
  explicit FileDescriptor(int fd) : fd_(fd) {}
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;
  FileDescriptor(FileDescriptor&& other) noexcept;
  FileDescriptor& operator=(FileDescriptor&& other) noexcept;
  ~FileDescriptor();

  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }

 private:
  int fd_ = -1;
};

// Waits until `fd` is readable, `deadline` is past or `wake_fd` (-1: none) is readable or a signal
// comes. True only when `fd` is readable.
bool wait_readable(int fd, int wake_fd, TimePoint deadline);

}  // namespace qel_gateway
