// SPDX-License-Identifier: Apache-2.0
//
// Reading and writing files for transfers.
#include "gateway/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include <fmt/format.h>

#include "gateway/error.h"
#include "gateway/socket_wait.h"
#include "gateway/text.h"

namespace qel_gateway {

namespace {

[[noreturn]] void fail(const char* what, const std::string& path) {
  throw Error(fmt::format("cannot {} {}: {}", what, terminal_text(path), std::strerror(errno)));
}

bool write_all(int fd, std::span<const uint8_t> bytes) {
  while (!bytes.empty()) {
    const ssize_t written = ::write(fd, bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) {
      continue;
    }
    if (written <= 0) {
      return false;
    }
    bytes = bytes.subspan(static_cast<size_t>(written));
  }
  return true;
}

void sync_folder(const std::string& path) {
  const auto folder = std::filesystem::path(path).parent_path();
  const FileDescriptor fd(
      ::open(folder.empty() ? "." : folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (fd) {
    ::fsync(fd.get());
  }
}

}  // namespace

std::vector<uint8_t> read_file(const std::string& path, uint64_t most) {
  // A pipe that nobody writes to is refused below, not waited for.
  const FileDescriptor fd(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  struct stat info = {};
  if (!fd || ::fstat(fd.get(), &info) != 0) {
    fail("open", path);
  }
  if (!S_ISREG(info.st_mode)) {
    throw Error(fmt::format("{} is no regular file", terminal_text(path)));
  }
  if (info.st_size <= 0 || static_cast<uint64_t>(info.st_size) > most) {
    throw Error(
        fmt::format("{} has {} bytes; expected 1 to {}", terminal_text(path), info.st_size, most));
  }
  std::vector<uint8_t> bytes(static_cast<size_t>(info.st_size));
  size_t got = 0;
  while (got < bytes.size()) {
    const ssize_t size = ::read(fd.get(), bytes.data() + got, bytes.size() - got);
    if (size < 0 && errno == EINTR) {
      continue;
    }
    if (size < 0) {
      fail("read", path);
    }
    if (size == 0) {
      throw Error(fmt::format("{} became shorter while it was read", terminal_text(path)));
    }
    got += static_cast<size_t>(size);
  }
  return bytes;
}

std::string file_to_write(const std::string& path) {
  constexpr int kMostLinks = 40;  // as many as the system follows
  struct stat info = {};
  if (::stat(path.c_str(), &info) == 0 && !S_ISREG(info.st_mode)) {
    throw Error(fmt::format("{} is no regular file", terminal_text(path)));
  }
  std::filesystem::path file = path;
  for (int links = 0; ::lstat(file.c_str(), &info) == 0 && S_ISLNK(info.st_mode); ++links) {
    std::error_code failed;
    const auto target = std::filesystem::read_symlink(file, failed);
    if (failed || links == kMostLinks) {
      throw Error(fmt::format("{} is a link that leads nowhere", terminal_text(path)));
    }
    file = file.parent_path() / target;  // a target from the root on stands for itself
  }
  return file.string();
}

void write_file(const std::string& path, std::span<const uint8_t> bytes) {
  const std::string file = file_to_write(path);
  std::string temporary = file + ".part-XXXXXX";
  const FileDescriptor fd(::mkostemp(temporary.data(), O_CLOEXEC));
  if (!fd) {
    fail("create", temporary);
  }
  const mode_t mask = ::umask(0);
  ::umask(mask);
  constexpr mode_t kMode = 0640;  // a configuration holds secrets
  const bool whole = ::fchmod(fd.get(), kMode & ~mask) == 0 && write_all(fd.get(), bytes) &&
                     ::fsync(fd.get()) == 0 && ::rename(temporary.c_str(), file.c_str()) == 0;
  if (!whole) {
    const int reason = errno;
    ::unlink(temporary.c_str());
    errno = reason;
    fail("write", path);
  }
  sync_folder(file);
}

std::string plain_file_name(const std::string& path) {
  constexpr size_t kLongest = 64;
  std::string name = std::filesystem::path(path).filename().string().substr(0, kLongest);
  std::ranges::replace_if(
      name,
      [](unsigned char c) { return std::isalnum(c) == 0 && c != '.' && c != '_' && c != '-'; },
      '_');
  return name.empty() ? "file" : name;
}

}  // namespace qel_gateway
