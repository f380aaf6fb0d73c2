// SPDX-License-Identifier: Apache-2.0
//
// See support.h.
#include "support.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace morvad {

const char kSmallBoard[] = R"({
  "name": "small", "mac": "0a:1b:2c:3d:4e:5f",
  "management": {"interface": "vlanif1", "ip": "192.168.1.10", "mask": 24},
  "oem": [1, 0, 0, 4294967295, 0, 0, 0, 8],
  "poe_budget": 60000,
  "nvram": {"product_description": "office-sw", "have_poe": "1"},
  "port_defaults": {"lldp": 1, "poe": 1},
  "ports": [
    {"name": "ge1", "number": 1, "class": "giga", "medium": "copper", "max_speed": 1000,
     "position": {"x": 1, "y": 1}, "poe": true, "poe_limit": 30000, "poe_power": 6500,
     "link": {"up": true}, "rates": {"tx": 1000, "rx": 500}},
    {"name": "ge2", "number": 2, "class": "giga", "medium": "copper", "max_speed": 1000,
     "position": {"x": 1, "y": 2}, "poe": true, "poe_limit": 15400,
     "link": {"up": true, "speed": 100, "duplex": "half"}, "rates": {"tx": 3, "rx": 7}},
    {"name": "xe1", "number": 3, "class": "ten_giga", "medium": "fibre", "max_speed": 10000,
     "position": {"x": 2, "y": 1}, "link": {"up": false}, "interface": null}
  ]})";

RootTest::RootTest() {
  char folder[] = "/tmp/morvad-test-XXXXXX";
  root_ = mkdtemp(folder);
  std::filesystem::create_directories(root_ + "/var/conf");
  std::filesystem::create_directories(root_ + "/var/run/morva");
  setenv("MORVA_ROOT", root_.c_str(), 1);
}

RootTest::~RootTest() {
  unsetenv("MORVA_ROOT");
  std::filesystem::remove_all(root_);
}

std::string read_file(const std::string& path) {
  std::ifstream stream(path, std::ios::binary);
  std::stringstream text;
  text << stream.rdbuf();
  return text.str();
}

void write_file(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary) << text;
}

std::string board_path(const std::string& name) {
  return std::string(MORVA_LINUX_FOLDER) + "/boards/" + name + ".json";
}

bool FakeHost::address_get(const std::string& interface, Address& out) {
  if (interface != "vlanif1" || !has_address) {
    return false;
  }
  out = address;
  return true;
}

int FakeHost::address_set(const std::string& interface, const Address& wanted) {
  if (interface != "vlanif1") {
    return -ENODEV;
  }
  if (set_result == 0) {
    address = wanted;
    has_address = true;
  }
  return set_result;
}

bool FakeHost::run(const std::string& path, const std::string& argument,
                   std::function<void(int)> done) {
  programs.push_back(path + " " + argument);
  program_done = std::move(done);
  return can_run;
}

void FakeHost::advance_ms(uint64_t ms) {
  const uint64_t end = now + ms * 1000000;
  for (;;) {
    const auto next = std::min_element(
        timers.begin(), timers.end(), [](const Timer& a, const Timer& b) { return a.due < b.due; });
    if (next == timers.end() || next->due > end) {
      break;
    }
    now = next->due;
    const std::function<void()> action = std::move(next->action);
    timers.erase(next);
    action();
  }
  now = end;
}

void SwitchTest::restart_switch(const std::string& board) {
  sw.reset();
  settings = std::make_unique<Settings>();
  Board built = parse_board(board, "test.json");
  ASSERT_EQ(settings->fill(built.nvram), 0);
  sw = std::make_unique<Switch>(std::move(built), *settings, host);
  sw->observe([this](const Port& changed, PortEvent event) {
    const PortStatus status = changed.status();
    std::ostringstream line;
    line << changed.built.name;
    switch (event) {
      case PortEvent::status:
        line << " status " << status.link << " " << status.speed << " " << status.duplex << " "
             << status.enable << " " << status.speed_conf;
        break;
      case PortEvent::trunk:
        line << " trunk " << changed.trunk;
        break;
      case PortEvent::mirror:
        line << " mirror " << changed.mirror;
        break;
    }
    changes.push_back(line.str());
  });
}

std::string SwitchTest::ask(const Module& module, const std::string& request, pid_t pid) {
  Context context{*sw, host};
  std::string answer;
  serve(context, module, request, pid, answer);
  return answer;
}

std::string SwitchTest::command(const Module& module, const std::string& name,
                                const std::string& data) {
  return ask(module, R"({"mdl":")" + std::string(module.name) + R"(","cmd":")" + name +
                         R"(","data":)" + data + "}");
}

}  // namespace morvad
