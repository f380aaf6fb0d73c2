// SPDX-License-Identifier: Apache-2.0
//
// A file descriptor that closes itself. Header only, used by the library and by morvad.
#ifndef MORVA_LINUX_FD_H
#define MORVA_LINUX_FD_H

#include <unistd.h>

class UniqueFd {
 public:
  explicit UniqueFd(int fd = -1) : fd_(fd) {}
  ~UniqueFd() { reset(-1); }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;

  // The descriptor, or -1; it stays owned.
  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }

  // Hands the descriptor to the caller, who closes it.
  int release() {
    const int fd = fd_;
    fd_ = -1;
    return fd;
  }

  // Closes what is held and takes `fd` over.
  void reset(int fd) {
    if (fd_ >= 0) {
      close(fd_);
    }
    fd_ = fd;
  }

 private:
  int fd_;
};

#endif  // MORVA_LINUX_FD_H
