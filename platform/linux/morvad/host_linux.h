// SPDX-License-Identifier: Apache-2.0
//
// The machine behind Host (host.h): libevent timers, interface ioctls, child processes, pidfds.
#ifndef MORVA_LINUX_MORVAD_HOST_LINUX_H
#define MORVA_LINUX_MORVAD_HOST_LINUX_H

#include <event2/event.h>

#include <list>
#include <memory>

#include "platform/linux/fd.h"
#include "platform/linux/morvad/host.h"

namespace morvad {

/// Exit status that asks whoever supervises morvad to start it again.
inline constexpr int kExitRestart = 75;

class HostLinux : public Host {
 public:
  /// `base` is not owned and outlives the host.
  explicit HostLinux(event_base* base);
  ~HostLinux() override;

  uint64_t now_ns() override;
  void after(int seconds, std::function<void()> action) override;
  bool address_get(const std::string& interface, Address& out) override;
  int address_set(const std::string& interface, const Address& address) override;
  bool send_event(const std::string& text) override;
  bool run(const std::string& path, const std::string& argument,
           std::function<void(int)> done) override;
  void attach(pid_t pid) override;
  void restart(bool whole_host) override;

  /// Collects the children that ended; called on SIGCHLD.
  void reap();

  /// What main has to do after the loop, and after it closed its sockets: the exit status, once the
  /// children and, at a restart, the attached processes have ended (after a restart of the whole
  /// host only when that failed). Takes kProcessEndMs at the most: what is left then is killed.
  int finish();

 private:
  struct Timer;
  struct Child {
    pid_t pid;
    std::function<void(int)> done;
  };
  struct Attached {
    Attached(pid_t number, int pidfd) : pid(number), process(pidfd) {}
    pid_t pid;  // for the log: signals go through the pidfd
    UniqueFd process;
  };

  void attach_holders();
  void end_processes();

  event_base* base_;
  std::list<std::unique_ptr<Timer>> timers_;
  std::list<Child> children_;
  std::list<Attached> attached_;
  bool restart_ = false;
  bool whole_host_ = false;
};

}  // namespace morvad

#endif  // MORVA_LINUX_MORVAD_HOST_LINUX_H
