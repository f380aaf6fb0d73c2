// SPDX-License-Identifier: Apache-2.0
//
// The operating system behind qel_os.h, on any POSIX system with Linux interface requests.
#include "qel/qel_os.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/sysinfo.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace {

// An interface's index, address or mask is asked for through a socket of its own, opened and closed
// for it: once for each frame, three times for a probe. Opening and closing cost more than asking,
// so a socket that nothing but interface requests went through is kept for the next look-up.
struct query_socket {
  int type;
  int kept;  // -1: none
  int lent;  // handed out and not used for anything else yet; -1: none
};

query_socket query_sockets[] = {{SOCK_STREAM, -1, -1}, {SOCK_DGRAM, -1, -1}};

// Descriptors that a detaching process gives to its standard streams are never kept.
constexpr int kLastStandard = 2;

void used_otherwise(int fd) {
  for (query_socket& one : query_sockets) {
    if (one.lent == fd) {
      one.lent = -1;
    }
  }
}

}  // namespace

int qel_os_socket(int domain, int type, int protocol) {
  query_socket* found = nullptr;
  for (query_socket& one : query_sockets) {
    if (domain == AF_INET && one.type == type && protocol == 0) {
      found = &one;
    }
  }
  if (found == nullptr) {
    return socket(domain, type | SOCK_CLOEXEC, protocol);
  }
  const int fd = found->kept >= 0 ? found->kept : socket(domain, type | SOCK_CLOEXEC, protocol);
  found->kept = -1;
  found->lent = fd > kLastStandard ? fd : -1;
  return fd;
}

int qel_os_setsockopt(int fd, int level, int option, int value) {
  used_otherwise(fd);
  return setsockopt(fd, level, option, &value, sizeof value);
}

int qel_os_bind(int fd, const struct sockaddr* address, socklen_t length) {
  used_otherwise(fd);
  return bind(fd, address, length);
}

int qel_os_accept(int fd, struct sockaddr* address, socklen_t* length) {
  // Held back for when there is no other: a caller that is left in the queue keeps the listening
  // socket readable, and so the loop busy, until somebody frees a descriptor.
  static int spare = -1;
  if (spare < 0) {
    spare = open("/dev/null", O_RDONLY | O_CLOEXEC);
  }
  const int accepted = accept4(fd, address, length, SOCK_CLOEXEC | SOCK_NONBLOCK);
  if (accepted >= 0 || (errno != EMFILE && errno != ENFILE) || spare < 0) {
    return accepted;
  }
  close(spare);
  const int turned_away = accept4(fd, nullptr, nullptr, SOCK_CLOEXEC);
  if (turned_away >= 0) {
    close(turned_away);
  }
  spare = open("/dev/null", O_RDONLY | O_CLOEXEC);
  errno = EMFILE;
  return -1;
}

ssize_t qel_os_recvfrom(int fd, void* buffer, size_t size, struct sockaddr* address,
                        socklen_t* length) {
  used_otherwise(fd);
  return recvfrom(fd, buffer, size, MSG_DONTWAIT, address, length);
}

ssize_t qel_os_recvmsg(int fd, struct msghdr* message) {
  return recvmsg(fd, message, MSG_DONTWAIT);
}

ssize_t qel_os_sendto(int fd, const void* data, size_t length, int flags,
                      const struct sockaddr* address, socklen_t address_length) {
  used_otherwise(fd);
  return sendto(fd, data, length, flags, address, address_length);
}

ssize_t qel_os_write(int fd, const void* data, size_t length) {
  used_otherwise(fd);
  return write(fd, data, length);
}

int qel_os_close(int fd) {
  for (query_socket& one : query_sockets) {
    if (fd >= 0 && one.kept == fd) {
      errno = EBADF;  // its user closed it before; it is not theirs any more
      return -1;
    }
    if (fd >= 0 && one.lent == fd) {
      one.lent = -1;
      if (one.kept < 0) {
        one.kept = fd;
        return 0;
      }
    }
  }
  return close(fd);
}

int qel_os_ifreq(int fd, unsigned long request, struct ifreq* interface_request) {
  return ioctl(fd, request, interface_request);
}

std::FILE* qel_os_fopen(const char* path, const char* mode) {
  char with_cloexec[8] = {};
  const size_t length = std::strlen(mode);
  if (length + 2 > sizeof with_cloexec) {
    return nullptr;
  }
  std::memcpy(with_cloexec, mode, length + 1);
  with_cloexec[length] = 'e';
  with_cloexec[length + 1] = '\0';
  return std::fopen(path, with_cloexec);
}

int qel_os_unlink(const char* path) {
  return unlink(path);
}

int qel_os_rename(const char* from, const char* to) {
  return rename(from, to);
}

int qel_os_rmdir(const char* path) {
  return rmdir(path);
}

int qel_os_chmod(const char* path, unsigned mode) {
  return chmod(path, static_cast<mode_t>(mode));
}

int qel_os_mkdir(const char* path, unsigned mode) {
  // The process's mask takes bits away, so they are set again.
  if (mkdir(path, static_cast<mode_t>(mode)) != 0) {
    return -1;
  }
  return chmod(path, static_cast<mode_t>(mode));
}

int qel_os_create(const char* path, unsigned mode) {
  const int fd = open(path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, static_cast<mode_t>(mode));
  if (fd < 0) {
    return -1;
  }
  const int result = fchmod(fd, static_cast<mode_t>(mode));
  close(fd);
  return result;
}

int qel_os_lstat(const char* path, qel_os_entry* entry) {
  struct stat info = {};
  if (lstat(path, &info) != 0) {
    return -1;
  }
  *entry = {.mode = static_cast<uint32_t>(info.st_mode),
            .links = static_cast<uint32_t>(info.st_nlink),
            .size = static_cast<int64_t>(info.st_size)};
  return 0;
}

int qel_os_list(const char* path, qel_os_visit visit, void* context) {
  const int fd = open(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  DIR* folder = fd >= 0 ? fdopendir(fd) : nullptr;
  if (folder == nullptr) {
    if (fd >= 0) {
      close(fd);
    }
    return -1;
  }
  errno = 0;
  for (const dirent* each = readdir(folder); each != nullptr; each = readdir(folder)) {
    const bool own = std::strcmp(each->d_name, ".") == 0 || std::strcmp(each->d_name, "..") == 0;
    if (!own && !visit(each->d_name, context)) {
      errno = 0;
      break;
    }
    errno = 0;
  }
  const int error = errno;
  closedir(folder);
  errno = error;
  return error == 0 ? 0 : -1;
}

int64_t qel_os_time() {
  return static_cast<int64_t>(std::time(nullptr));
}

long qel_os_sysinfo_uptime() {
  struct sysinfo info = {};
  return sysinfo(&info) == 0 ? info.uptime : 0;
}

void qel_os_open_standard_streams() {
  // The lowest free number comes first: what is taken is passed over by itself.
  int fd = -1;
  do {
    fd = open("/dev/null", O_RDWR);
  } while (fd >= 0 && fd < kLastStandard);
  if (fd > kLastStandard) {
    close(fd);
  }
}

int qel_os_daemon() {
  return daemon(0, 0);
}

void qel_os_umask(unsigned mask) {
  umask(static_cast<mode_t>(mask));
}

int qel_os_system(const char* command) {
  return std::system(command);
}

int qel_os_job_start(const char* command, qel_os_job* job) {
  // The shell becomes the command, so that what ends the shell ends it.
  char line[320];
  const int length = std::snprintf(line, sizeof line, "exec %s", command);
  if (length < 0 || static_cast<size_t>(length) >= sizeof line) {
    errno = E2BIG;
    return -1;
  }
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) {
    return -1;
  }
  const pid_t pid = fork();
  if (pid == 0) {
    // The command inherits the writing end: the reading end is at its end when nothing of it runs.
    setpgid(0, 0);
    prctl(PR_SET_PDEATHSIG, SIGKILL);  // nobody would wait for it any more
    const int null = open("/dev/null", O_RDONLY);
    dup2(null, STDIN_FILENO);
    fcntl(ends[1], F_SETFD, 0);
    execl("/bin/sh", "sh", "-c", line, static_cast<char*>(nullptr));
    _exit(127);
  }
  close(ends[1]);
  if (pid < 0) {
    close(ends[0]);
    return -1;
  }
  setpgid(pid, pid);  // here as well: whoever comes first does
  *job = {.pid = static_cast<int>(pid), .end = ends[0]};
  return 0;
}

void qel_os_job_kill(const qel_os_job* job) {
  if (job->pid > 0) {
    kill(-job->pid, SIGKILL);
  }
}

int qel_os_job_end(qel_os_job* job) {
  if (job->pid <= 0) {
    return -1;
  }
  int status = -1;
  pid_t ended = waitpid(job->pid, &status, WNOHANG);
  if (ended == 0) {
    qel_os_job_kill(job);
  }
  while (ended == 0 || (ended < 0 && errno == EINTR)) {
    ended = waitpid(job->pid, &status, 0);
  }
  close(job->end);
  *job = {};
  return ended > 0 ? status : -1;
}

void qel_os_exit(int status) {
  std::exit(status);
}
