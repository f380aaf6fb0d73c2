// SPDX-License-Identifier: Apache-2.0
//
// morvactl moves the switch that morvad plays: cables, counters, power, addresses, events. Each
// subcommand is one control query (docs/platform-linux.md). Exit status: 0 done, 1 refused or
// morvad not reached or not all of the output written, 2 wrong command line.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <functional>
#include <initializer_list>
#include <iostream>

#include "platform/linux/morvactl/client.h"
#include "platform/linux/morvactl/from_bridge.h"
#include "platform/linux/morvactl/show.h"
#include "platform/linux/usage.h"

namespace morvactl {
namespace {

constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

/// Words of the command line; they live as long as the parser.
struct Words {
  std::string port;
  std::string word;
  std::string other;
  std::vector<std::string> list;
  long long number = 0;
  long long second = 0;
  bool flag = false;
  json members = json::object();
};

CLI::App* subcommand(CLI::App& app, const char* name, const char* what, const char* example) {
  CLI::App* command = app.add_subcommand(name, what);
  command->footer(std::string("Example: morvactl ") + example);
  return command;
}

/// Reads "key=value" words, with values that are whole numbers, into `words.members`. `keys` are
/// those that are allowed, in the order of the help.
void read_figures(Words& words, std::initializer_list<const char*> keys) {
  for (const std::string& text : words.list) {
    const size_t sign = text.find('=');
    const std::string key = text.substr(0, sign);
    const std::string value = sign == text.npos ? "" : text.substr(sign + 1);
    if (std::find(keys.begin(), keys.end(), key) == keys.end() || value.empty() ||
        value.size() > 20 || value.find_first_not_of("0123456789") != value.npos) {
      std::string known;
      for (const char* each : keys) {
        known += std::string(" ") + each;
      }
      throw CLI::ValidationError(text, "expected KEY=NUMBER with one of" + known);
    }
    words.members[key] = json::parse(value, nullptr, false);
  }
}

void done(const std::string& command, const json& payload = nullptr) {
  control(command, payload);
}

void add_link(CLI::App& app, Words& words) {
  CLI::App* command = subcommand(app, "link", "Plug a cable in or pull it out", "link ge3 down");
  command->add_option("PORT", words.port, "Port name")->required();
  command->add_option("STATE", words.word, "up or down")
      ->required()
      ->check(CLI::IsMember({"up", "down"}));
  command->callback([&words] {
    const json state = control("link_set", {{"port", words.port}, {"up", words.word == "up"}});
    if (words.word == "up" && state.value("link", 0) == 0) {
      std::cout << words.port << ": plugged, but the port is disabled\n";
    }
  });
}

void add_speed(CLI::App& app, Words& words) {
  CLI::App* command = subcommand(app, "speed", "Set what the far end of the cable negotiates",
                                 "speed ge3 100 half");
  command->add_option("PORT", words.port, "Port name")->required();
  command->add_option("MBITS", words.number, "Mbit/s")->required();
  command->add_option("DUPLEX", words.word, "half or full (the default)")
      ->check(CLI::IsMember({"half", "full"}));
  command->callback([&words] {
    done("speed_set",
         {{"port", words.port}, {"speed", words.number}, {"full", words.word != "half"}});
  });
}

void add_counters(CLI::App& app, Words& words) {
  CLI::App* command =
      subcommand(app, "counters", "Set a port's counters exactly; they then stand still",
                 "counters ge1 tx_bytes=1000 rx_bytes=2000 tx_rate=10 rx_rate=20");
  command->add_option("PORT", words.port, "Port name")->required();
  command->add_option("KEY=N", words.list,
                      "tx_bytes, rx_bytes, tx_rate, rx_rate, fcs_errors, pause_frames;"
                      " one at least, or --run");
  command->add_flag("--run", words.flag, "Let them grow by their rates from there");
  command->callback([&words] {
    if (words.list.empty() && !words.flag) {
      throw CLI::RequiredError("KEY=N or --run");
    }
    read_figures(words,
                 {"tx_bytes", "rx_bytes", "tx_rate", "rx_rate", "fcs_errors", "pause_frames"});
    words.members["port"] = words.port;
    words.members["run"] = words.flag;
    done("counters_set", words.members);
  });
}

void add_poe(CLI::App& app, Words& words) {
  CLI::App* command = subcommand(app, "poe", "Set a port's power over Ethernet",
                                 "poe ge1 power=15400 limit=30000 enable=1 priority=2");
  command->add_option("PORT", words.port, "Port name")->required();
  command
      ->add_option("KEY=N", words.list,
                   "power and limit in milliwatts, enable 0 or 1, priority 0 to 255")
      ->required();
  command->callback([&words] {
    read_figures(words, {"power", "limit", "enable", "priority"});
    words.members["port"] = words.port;
    done("poe_set", words.members);
  });

  CLI::App* budget = subcommand(app, "poe-budget",
                                "Set the power for all ports, and what is used of it (without USED:"
                                " what the ports draw)",
                                "poe-budget 370000 355000");
  budget->add_option("TOTAL", words.number, "Milliwatts")->required();
  const CLI::Option* used = budget->add_option("USED", words.second, "Milliwatts");
  budget->callback([&words, used] {
    json payload = {{"total", words.number}};
    if (used->count() > 0) {
      payload["used"] = words.second;
    }
    done("poe_budget_set", payload);
  });
}

void list_l2() {
  size_t start = 0;
  for (;;) {
    const json rows = control("l2_list", {{"start", start}});
    for (const json& row : rows) {
      std::cout << row["mac"].get<std::string>() << "  vlan " << row["vid"] << "  "
                << row["port"].get<std::string>() << "  type " << row["type"] << "  aging "
                << row["aging"] << "\n";
    }
    if (rows.empty()) {
      return;
    }
    start += rows.size();
  }
}

void add_l2(CLI::App& app, Words& words) {
  CLI::App* l2 = subcommand(app, "l2", "Change the layer-2 address table",
                            "l2 add ge3 02:00:00:00:00:01 --vid 1");
  l2->require_subcommand(0, 1);
  CLI::App* add = subcommand(*l2, "add", "Add an address, or move it to another port",
                             "l2 add ge3 02:00:00:00:00:01 --vid 10 --type 2 --aging 300");
  add->add_option("PORT", words.port, "Port name")->required();
  add->add_option("MAC", words.word, "Address")->required();
  for (const char* key : {"vid", "type", "aging"}) {
    add->add_option_function<long long>(
        std::string("--") + key, [&words, key](long long value) { words.members[key] = value; },
        "Defaults: VLAN 1, type 2 (learnt), aging time 300");
  }
  add->callback([&words] {
    words.members["port"] = words.port;
    words.members["mac"] = words.word;
    done("l2_add", words.members);
  });
  CLI::App* remove =
      subcommand(*l2, "del", "Remove an address", "l2 del 02:00:00:00:00:01 --vid 10");
  remove->add_option("MAC", words.word, "Address")->required();
  remove->add_option_function<long long>(
      "--vid", [&words](long long value) { words.members["vid"] = value; }, "VLAN, default 1");
  remove->callback([&words] {
    words.members["mac"] = words.word;
    done("l2_del", words.members);
  });
  subcommand(*l2, "clear", "Empty the table", "l2 clear")->callback([] { done("l2_clear"); });
  CLI::App* fill = subcommand(*l2, "fill", "Replace the table by made-up addresses", "l2 fill 513");
  fill->add_option("COUNT", words.number, "How many, spread over the ports")->required();
  fill->callback([&words] { done("l2_fill", {{"count", words.number}}); });
  subcommand(*l2, "list", "Print the table", "l2 list")->callback(list_l2);
}

void add_blocked(CLI::App& app, Words& words) {
  const std::pair<const char*, const char*> kinds[] = {{"block", "stp"}, {"loop", "loop"}};
  for (const auto& [name, by] : kinds) {
    CLI::App* command =
        subcommand(app, name,
                   by[0] == 's' ? "Say which ports spanning tree blocks (none: no port)"
                                : "Say which ports loop protection blocks (none: no port)",
                   by[0] == 's' ? "block ge1 ge4" : "loop ge2");
    command->add_option("PORTS", words.list, "Port names");
    const std::string who = by;
    command->callback([&words, who] { done("blocked_set", {{"by", who}, {"ports", words.list}}); });
  }
}

void add_roles(CLI::App& app, Words& words) {
  CLI::App* trunk =
      subcommand(app, "trunk", "Put a port into a trunk; 0: into none", "trunk ge1 2");
  trunk->add_option("PORT", words.port, "Port name")->required();
  trunk->add_option("TRUNK", words.number, "0 to 255")->required();
  trunk->callback([&words] { done("trunk_set", {{"port", words.port}, {"trunk", words.number}}); });
  CLI::App* mirror = subcommand(app, "mirror", "Make a port a mirror port", "mirror ge1 on");
  mirror->add_option("PORT", words.port, "Port name")->required();
  mirror->add_option("STATE", words.word, "on or off")
      ->required()
      ->check(CLI::IsMember({"on", "off"}));
  mirror->callback([&words] {
    done("mirror_set", {{"port", words.port}, {"mirror", words.word == "on"}});
  });
}

void add_firmware(CLI::App& app, Words& words) {
  CLI::App* fw = subcommand(app, "fw", "Look at or set the firmware state", "fw show");
  fw->require_subcommand(0, 1);
  CLI::App* show = subcommand(*fw, "show", "Print the state", "fw show --json");
  show->add_flag("--json", words.flag, "As one JSON object");
  show->callback([&words] {
    const json state = control("fw_show");
    std::cout << (words.flag ? state.dump() : firmware_text(state)) << "\n";
  });
  CLI::App* set = subcommand(*fw, "set", "Set the state", "fw set 3 50");
  set->add_option("STATE", words.number,
                  "0 idle, 1 transfer, 2 fetching, 3 writing, negative: failed")
      ->required();
  set->add_option("DETAIL", words.second, "A figure that belongs to it, default 0");
  set->callback([&words] { done("fw_set", {{"state", words.number}, {"detail", words.second}}); });
}

void add_whole(CLI::App& app, Words& words) {
  CLI::App* show = subcommand(app, "show", "Print the switch and its ports", "show --json");
  show->add_flag("--json", words.flag, "Everything, as one JSON object");
  show->callback([&words] {
    const json state = control("show");
    std::cout << (words.flag ? state.dump() + "\n" : switch_table(state));
  });
  CLI::App* oem = subcommand(app, "oem", "Set a word of the maker's record", "oem 1 1");
  oem->add_option("INDEX", words.number, "0 to 7")->required();
  oem->add_option("VALUE", words.second, "32 bits")->required();
  oem->callback([&words] { done("oem_set", {{"word", words.number}, {"value", words.second}}); });
  CLI::App* event = subcommand(
      app, "event", "Send one local event to the agent",
      R"(event '{"type":"lldp_add","mac":"00:11:22:33:44:55","local_interface":"ge5"}')");
  event->add_option("JSON", words.word, "The event")->required();
  event->add_flag("--raw", words.flag, "Send it even if it is not JSON");
  event->callback([&words] {
    if (!words.flag && !json::accept(words.word)) {
      throw CLI::ValidationError("JSON", "the event is not JSON (--raw sends it all the same)");
    }
    send_event(words.word);
  });
  CLI::App* board = subcommand(app, "board", "Print a board file for this machine",
                               "board --from-bridge vlanif1 > board.json");
  board->add_option("--from-bridge", words.word, "The bridge whose interfaces are the ports")
      ->required();
  board->callback([&words] { std::cout << board_from_bridge(words.word); });
  subcommand(app, "restart", "Restart the switch: morvad and the agent", "restart")->callback([] {
    done("restart");
  });
}

int run(int argc, char** argv) {
  CLI::App app("morvactl moves the switch that morvad plays", "morvactl");
  app.footer("Example: morvactl link ge3 down\nEach command has its own --help with an example.");
  app.require_subcommand(0, 1);
  app.failure_message(morva::usage_fault);
  Words words;
  for (const auto add : {add_link, add_speed, add_counters, add_poe, add_l2, add_blocked, add_roles,
                         add_firmware, add_whole}) {
    add(app, words);
  }
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    const int status = app.exit(error) == 0 ? 0 : kExitUsage;
    return status != 0 || morva::all_written("morvactl") ? status : kExitFailed;
  } catch (const Failure& failure) {
    std::cerr << "morvactl: " << failure.what() << "\n";
    return kExitFailed;
  }
  const std::string missing = morva::choice_fault(&app);
  if (!missing.empty()) {
    std::cerr << missing;
    return kExitUsage;
  }
  return morva::all_written("morvactl") ? 0 : kExitFailed;
}

}  // namespace
}  // namespace morvactl

int main(int argc, char** argv) {
  try {
    return morvactl::run(argc, argv);
  } catch (const std::exception& error) {
    std::cerr << "morvactl: " << error.what() << "\n";
    return morvactl::kExitFailed;
  }
}
