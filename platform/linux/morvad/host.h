// SPDX-License-Identifier: Apache-2.0
//
// What morvad does to the machine that it runs on, behind one interface: the clock, timers, the
// management address, other processes. The daemon has HostLinux (host_linux.h); tests put their
// own in its place, with a clock that they drive.
#ifndef MORVA_LINUX_MORVAD_HOST_H
#define MORVA_LINUX_MORVAD_HOST_H

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <string>

namespace morvad {

/// An IPv4 address and its prefix length.
struct Address {
  std::string ip;
  int prefix = 0;
};

class Host {
 public:
  virtual ~Host() = default;

  /// Monotonic time in nanoseconds.
  virtual uint64_t now_ns() = 0;

  /// Calls `action` once, `seconds` from now, from the event loop.
  virtual void after(int seconds, std::function<void()> action) = 0;

  /// The IPv4 address of a network interface. False when it has none or is not there.
  virtual bool address_get(const std::string& interface, Address& out) = 0;

  /// Makes `address` the interface's first address. Returns 0, or a negative errno.
  virtual int address_set(const std::string& interface, const Address& address) = 0;

  /// Sends one local event to the agent. False when the agent does not listen or its queue is full.
  virtual bool send_event(const std::string& text) = 0;

  /// Starts the program at `path` with one argument; `done` gets its exit status (or -1) later.
  /// False when it could not be started.
  virtual bool run(const std::string& path, const std::string& argument,
                   std::function<void(int)> done) = 0;

  /// Remembers a process that is part of the switch's software and has to end with it.
  virtual void attach(pid_t pid) = 0;

  /// Ends morvad once the answers under way are written: the switch restarts. The attached
  /// processes are told to end too. With `whole_host` the machine reboots instead.
  virtual void restart(bool whole_host) = 0;
};

}  // namespace morvad

#endif  // MORVA_LINUX_MORVAD_HOST_H
