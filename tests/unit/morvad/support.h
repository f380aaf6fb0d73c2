// SPDX-License-Identifier: Apache-2.0
//
// What the tests of morvad stand on: a folder in the place of /, a host whose clock and timers the
// test drives, and a small switch on both.
#ifndef TESTS_UNIT_MORVAD_SUPPORT_H
#define TESTS_UNIT_MORVAD_SUPPORT_H

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "platform/linux/morvad/modules.h"

namespace morvad {

/// A fresh folder that MORVA_ROOT points to, with /var/conf and /var/run/morva in it.
class RootTest : public testing::Test {
 protected:
  RootTest();
  ~RootTest() override;
  std::string at(const std::string& path) const { return root_ + path; }

 private:
  std::string root_;
};

std::string read_file(const std::string& path);  // "" when it is not there
void write_file(const std::string& path, const std::string& text);
std::string board_path(const std::string& name);

class FakeHost : public Host {
 public:
  uint64_t now_ns() override { return now; }
  void after(int seconds, std::function<void()> action) override {
    timers.push_back({now + static_cast<uint64_t>(seconds) * 1000000000, std::move(action)});
  }
  bool address_get(const std::string& interface, Address& out) override;
  int address_set(const std::string& interface, const Address& address) override;
  bool send_event(const std::string& text) override {
    if (agent_listens) {
      events.push_back(text);
    }
    return agent_listens;
  }
  bool run(const std::string& path, const std::string& argument,
           std::function<void(int)> done) override;
  void attach(pid_t pid) override { attached.push_back(pid); }
  void restart(bool whole_host) override { restarts.push_back(whole_host); }

  /// Moves the clock and runs what comes due, in order.
  void advance_ms(uint64_t ms);

  struct Timer {
    uint64_t due;
    std::function<void()> action;
  };
  uint64_t now = 1000000000;
  std::vector<Timer> timers;
  Address address = {"192.168.1.10", 24};
  bool has_address = true;
  int set_result = 0;
  bool agent_listens = true;
  std::vector<std::string> events;
  std::vector<std::string> programs;  // "path argument"
  std::function<void(int)> program_done;
  bool can_run = true;
  std::vector<pid_t> attached;
  std::vector<bool> restarts;
};

/// Three ports: ge1 (power, 1000 up), ge2 (power, 100 half, up), xe1 (10G fibre, no cable).
extern const char kSmallBoard[];

/// A switch from kSmallBoard; `restart_switch` builds it anew on the settings that are stored.
class SwitchTest : public RootTest {
 protected:
  SwitchTest() { restart_switch(); }
  void restart_switch(const std::string& board = kSmallBoard);

  /// Asks a module; the answer's text.
  std::string ask(const Module& module, const std::string& request, pid_t pid = 0);

  /// Asks for {"mdl":M,"cmd":command,"data":data}.
  std::string command(const Module& module, const std::string& name, const std::string& data);

  Port& port(const std::string& name) { return *sw->find(name); }
  std::string nvram() { return read_file(at("/var/conf/nvram.conf")); }

  FakeHost host;
  std::unique_ptr<Settings> settings;
  std::unique_ptr<Switch> sw;
  std::vector<std::string> changes;  // what the observer heard: "ge1 status 1 1000 1 1 0"
};

}  // namespace morvad

#endif  // TESTS_UNIT_MORVAD_SUPPORT_H
