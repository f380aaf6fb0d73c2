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
#include <filesystem>

#include "platform/linux/morvad/kernel/netlink.h"
#include "platform/linux/morvad/log.h"
#include "platform/linux/paths.h"
#include "platform/linux/process_lock.h"

extern char** environ;

namespace morvad {
namespace {

constexpr char kEventSocket[] = "/var/run/qel.udp";
constexpr uint64_t kNsPerMs = 1000000;

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

int open_process(pid_t pid) {
  return static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
}

bool has_ended(int process) {
  pollfd ended = {process, POLLIN, 0};
  return poll(&ended, 1, 0) > 0;
}

/// Starts the program in a process group of its own, which ends as a whole.
int spawn_group(pid_t& pid, const char* path, char* const argv[]) {
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
  posix_spawnattr_setpgroup(&attributes, 0);
  const int error = posix_spawn(&pid, path, nullptr, &attributes, argv, environ);
  posix_spawnattr_destroy(&attributes);
  return error;
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
  const int error = spawn_group(pid, path.c_str(), argv);
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
  attached_.remove_if([](const Attached& each) { return has_ended(each.process.get()); });
  if (pid <= 1 || pid == getpid()) {
    return;
  }
  // A pidfd stays with its process, so nobody else is told when the number was given away again.
  const int fd = open_process(pid);
  if (fd >= 0) {
    attached_.emplace_back(pid, fd);
  }
}

void HostLinux::restart(bool whole_host) {
  restart_ = true;
  whole_host_ = whole_host;
  // The loop still writes the answer to whoever asked.
  const timeval moment = {0, 20000};
  event_base_loopexit(base_, &moment);
}

/// A daemon that started before us, or outlived the morvad before us, never told us of itself; its
/// client number does.
void HostLinux::attach_holders() {
  attached_.remove_if([](const Attached& each) { return has_ended(each.process.get()); });
  char folder[kMorvaPathSize];
  std::error_code error;
  const std::filesystem::path place(morva_path(folder, sizeof folder, MORVA_RUN_DIR));
  for (std::filesystem::directory_iterator each(place, error), end; !error && each != end;
       each.increment(error)) {
    const std::string name = each->path().filename();
    if (!name.starts_with("client-") || !name.ends_with(".lock")) {
      continue;
    }
    const UniqueFd lock(process_lock_open(each->path().c_str()));
    LockHolder holder;
    if (!lock.valid() || !process_lock_holder(lock.get(), &holder)) {
      continue;
    }
    const auto same = [&holder](const Attached& known) { return known.pid == holder.pid; };
    if (std::none_of(attached_.begin(), attached_.end(), same)) {
      attached_.emplace_back(holder.pid, holder.process.release());
    }
  }
}

void HostLinux::end_processes() {
  std::list<Attached> ending;
  if (restart_) {
    attach_holders();
    ending.swap(attached_);
  }
  for (const Attached& each : ending) {
    process_signal(each.process.get(), SIGTERM);
    process_signal(each.process.get(), SIGCONT);  // a stopped one takes SIGTERM only then
  }
  // A child keeps its number, and its group's, until it is collected: the number is safe here.
  for (const Child& each : children_) {
    ending.emplace_back(each.pid, open_process(each.pid));
    kill(-each.pid, SIGTERM);
  }
  const uint64_t end = now_ns() + kProcessEndMs * kNsPerMs;
  for (const Attached& each : ending) {
    const uint64_t now = now_ns();
    if (!process_wait(each.process.get(), now < end ? (end - now) / kNsPerMs : 0, poll_one)) {
      log_line("process " + std::to_string(each.pid) + " did not end, it is killed");
      process_signal(each.process.get(), SIGKILL);
    }
  }
  for (const Child& each : children_) {
    kill(-each.pid, SIGKILL);  // what is left of its group
    waitpid(each.pid, nullptr, WNOHANG);
  }
  children_.clear();
}

int HostLinux::finish() {
  if (restart_ && whole_host_) {
    sync();
    reboot(LINUX_REBOOT_CMD_RESTART);
    log_line(std::string("the host does not restart: ") + strerror(errno));
  }
  end_processes();
  return restart_ ? kExitRestart : 0;
}

}  // namespace morvad
