// SPDX-License-Identifier: Apache-2.0
//
// See host_linux.h.
#include "platform/linux/morvad/host_linux.h"

#include <arpa/inet.h>
#include <linux/reboot.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/reboot.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "platform/linux/morvad/kernel/netlink.h"
#include "platform/linux/morvad/log.h"
#include "platform/linux/paths.h"

extern char** environ;

namespace morvad {
namespace {

constexpr char kEventSocket[] = "/var/run/qel.udp";

/// One interface ioctl on an IPv4 address; `address` is in network byte order. 0 or -errno.
int address_ioctl(const std::string& interface, unsigned long request, in_addr_t& address) {
  ifreq message{};
  if (interface.size() >= sizeof message.ifr_name) {
    return -ENODEV;
  }
  memcpy(message.ifr_name, interface.data(), interface.size());
  sockaddr_in value{};
  value.sin_family = AF_INET;
  value.sin_addr.s_addr = address;
  memcpy(&message.ifr_addr, &value, sizeof value);
  const UniqueFd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!fd.valid() || ioctl(fd.get(), request, &message) != 0) {
    return -errno;
  }
  memcpy(&value, &message.ifr_addr, sizeof value);
  address = value.sin_addr.s_addr;
  return 0;
}

}  // namespace

struct HostLinux::Timer {
  HostLinux* host;
  event* timer;
  std::function<void()> action;
};

HostLinux::HostLinux(event_base* base) : base_(base) {}

HostLinux::~HostLinux() {
  for (const auto& timer : timers_) {
    event_free(timer->timer);
  }
}

uint64_t HostLinux::now_ns() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1000000000 + static_cast<uint64_t>(now.tv_nsec);
}

void HostLinux::after(int seconds, std::function<void()> action) {
  timers_.push_back(std::make_unique<Timer>(Timer{this, nullptr, std::move(action)}));
  Timer& timer = *timers_.back();
  timer.timer = evtimer_new(
      base_,
      [](evutil_socket_t, short, void* raw) {
        auto* due = static_cast<Timer*>(raw);
        const std::function<void()> run_now = std::move(due->action);
        event_free(due->timer);
        due->host->timers_.remove_if([due](const auto& each) { return each.get() == due; });
        run_now();
      },
      &timer);
  const timeval delay = {seconds, 0};
  evtimer_add(timer.timer, &delay);
}

bool HostLinux::address_get(const std::string& interface, Address& out) {
  in_addr_t ip = 0;
  in_addr_t mask = 0;
  if (address_ioctl(interface, SIOCGIFADDR, ip) != 0 ||
      address_ioctl(interface, SIOCGIFNETMASK, mask) != 0) {
    return false;
  }
  char text[INET_ADDRSTRLEN];
  in_addr address{};
  address.s_addr = ip;
  out.ip = inet_ntop(AF_INET, &address, text, sizeof text);
  out.prefix = std::countl_one(ntohl(mask));
  return true;
}

int HostLinux::address_set(const std::string& interface, const Address& address) {
  // libnl cannot say a prefix of 0; the mask of that is set the older way.
  const bool none = address.prefix == 0;
  const int result = Netlink().address_set(interface, {address.ip, none ? 32 : address.prefix});
  in_addr_t mask = 0;
  return result != 0 || !none ? result : address_ioctl(interface, SIOCSIFNETMASK, mask);
}

bool HostLinux::send_event(const std::string& text) {
  char path[kMorvaPathSize];
  morva_path(path, sizeof path, kEventSocket);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const int length = snprintf(address.sun_path, sizeof address.sun_path, "%s", path);
  const UniqueFd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  return fd.valid() && static_cast<size_t>(length) < sizeof address.sun_path &&
         sendto(fd.get(), text.data(), text.size(), MSG_NOSIGNAL,
                reinterpret_cast<const sockaddr*>(&address), sizeof address) >= 0;
}

bool HostLinux::run(const std::string& path, const std::string& argument,
                    std::function<void(int)> done) {
  std::string program = path;
  std::string first = argument;
  char* const argv[] = {program.data(), first.data(), nullptr};
  pid_t pid = 0;
  const int error = posix_spawn(&pid, path.c_str(), nullptr, nullptr, argv, environ);
  if (error != 0) {
    log_line(path + ": " + strerror(error));
    return false;
  }
  children_.push_back({pid, std::move(done)});
  return true;
}

void HostLinux::reap() {
  for (auto next = children_.begin(); next != children_.end();) {
    const auto child = next++;
    int status = 0;
    if (waitpid(child->pid, &status, WNOHANG) == child->pid) {
      const std::function<void(int)> done = std::move(child->done);
      children_.erase(child);
      done(WIFEXITED(status) ? WEXITSTATUS(status) : -1);
    }
  }
}

void HostLinux::attach(pid_t pid) {
  std::erase_if(attached_, [](const auto& fd) {
    pollfd ended = {fd->get(), POLLIN, 0};
    return poll(&ended, 1, 0) > 0;
  });
  if (pid <= 1 || pid == getpid()) {
    return;
  }
  // A pidfd stays with its process, so nobody else is told when the number was given away again.
  const long fd = syscall(SYS_pidfd_open, pid, 0);
  if (fd >= 0) {
    attached_.push_back(std::make_unique<UniqueFd>(static_cast<int>(fd)));
  }
}

void HostLinux::restart(bool whole_host) {
  restart_ = true;
  whole_host_ = whole_host;
  // The loop still writes the answer to whoever asked.
  const timeval moment = {0, 20000};
  event_base_loopexit(base_, &moment);
}

int HostLinux::finish() {
  if (!restart_) {
    return 0;
  }
  if (whole_host_) {
    sync();
    reboot(LINUX_REBOOT_CMD_RESTART);
    log_line(std::string("the host does not restart: ") + strerror(errno));
  }
  for (const auto& fd : attached_) {
    syscall(SYS_pidfd_send_signal, fd->get(), SIGTERM, nullptr, 0);
  }
  return kExitRestart;
}

}  // namespace morvad
