// SPDX-License-Identifier: Apache-2.0
//
// qelctl ip, time, name, active, reboot, reset, query: the switch as a whole.
#include <arpa/inet.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <ctime>
#include <tuple>

#include <fmt/chrono.h>
#include <fmt/format.h>
#include <CLI/CLI.hpp>

#include "gateway/cli/context.h"
#include "gateway/cli/each_switch.h"
#include "gateway/cli/effect_output.h"
#include "gateway/query.h"
#include "gateway/requests.h"
#include "gateway/settings.h"
#include "gateway/text.h"

namespace qel_gateway::cli {

namespace {

using Change = std::function<Task<EffectReport>(Context&, const Switch&)>;
using Text = std::function<std::string(std::string)>;

// Runs `change` on each switch, after asking `question` if it is not empty.
ExitCode run_change(Context& context, const std::string& title, const std::string& question,
                    const Text& text, const Change& change) {
  if (context.options().dry_run) {
    return dry_run(context,
                   [&](const std::string& mac) { return std::vector<std::string>{text(mac)}; });
  }
  const auto switches = selected(context);
  if (!question.empty()) {
    const std::string who =
        switches.size() == 1 ? title_of(switches[0]) : fmt::format("{} switches", switches.size());
    if (!confirmed(context, fmt::format("{} {}?", question, who))) {
      return ExitCode::Failed;
    }
  }
  return each_switch(context, switches, false, [&](const Switch& one) -> Task<Told> {
    const EffectReport report = co_await change(context, one);
    co_return tell_effect(context, one, title, report);
  });
}

struct AddressWords {
  std::string ip;
  int prefix = 0;
};

// "192.168.1.10/24"; the prefix is needed, since the switch takes 0 where none is given.
AddressWords parse_address(const std::string& word) {
  const auto slash = word.find('/');
  AddressWords words{word.substr(0, slash), 0};
  in_addr address = {};
  bool good = slash != std::string::npos && ::inet_pton(AF_INET, words.ip.c_str(), &address) == 1;
  if (good) {
    const char* end = word.data() + word.size();
    const auto read = std::from_chars(word.data() + slash + 1, end, words.prefix);
    const uint32_t first = ntohl(address.s_addr) >> 24;
    good = read.ec == std::errc() && read.ptr == end && words.prefix >= 1 && words.prefix <= 32 &&
           first != 0 && first != 127 && first < 224;
  }
  if (!good) {
    throw Error(fmt::format("\"{}\": expected an address with its prefix, such as 192.168.1.10/24",
                            terminal_text(word)),
                ExitCode::Usage);
  }
  return words;
}

[[noreturn]] void fail_time(const std::string& word, const char* why) {
  throw Error(fmt::format("\"{}\": {}", terminal_text(word), why), ExitCode::Usage);
}

// A date and a time of day in UTC, as seconds since 1970.
int64_t parse_date(const std::string& word) {
  std::tm parts = {};
  const char* rest = ::strptime(word.c_str(), "%Y-%m-%d %H:%M:%S", &parts);
  if (rest == nullptr || *rest != '\0') {
    fail_time(word, "expected now, seconds since 1970 or \"2026-01-31 12:00:00\" (UTC)");
  }
  std::tm real = parts;
  const int64_t seconds = ::timegm(&real);  // makes the third of March out of the 31st of February
  const auto fields = [](const std::tm& t) {
    return std::tie(t.tm_year, t.tm_mon, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec);
  };
  if (fields(real) != fields(parts)) {
    fail_time(word, "there is no such date or time of day");
  }
  return seconds;
}

// "now", seconds since 1970, or "YYYY-MM-DD HH:MM:SS" in UTC; in the range of a 32-bit clock.
int64_t parse_time(const std::string& word) {
  int64_t seconds = 0;
  const char* end = word.data() + word.size();
  const auto read = std::from_chars(word.data(), end, seconds);
  const bool number = read.ptr == end && read.ec != std::errc::invalid_argument;
  if (word == "now") {
    seconds = static_cast<int64_t>(::time(nullptr));
  } else if (!number) {
    seconds = parse_date(word);
  }
  if ((number && read.ec != std::errc()) || seconds < 0 || seconds > INT32_MAX) {
    fail_time(word,
              "a clock goes from 0 to 2147483647 seconds since 1970, which is to 2038-01-19 "
              "03:14:07 (UTC)");
  }
  return seconds;
}

Task<Told> tell_clock(Context& context, const Switch& one) {
  const ClockReport report = co_await read_clock(context.session(), one, context.patience());
  Told told;
  told.json["timestamp"] = report.timestamp;
  told.json["ip"] = report.ip;
  told.json["prefix"] = report.prefix;
  told.json["dhcp"] = report.dhcp;
  // A clock can say what no calendar holds.
  constexpr int64_t kLastYear = 253402300799;
  const std::string calendar =
      report.timestamp <= kLastYear
          ? fmt::format("{:%Y-%m-%d %H:%M:%S} UTC", fmt::gmtime(report.timestamp))
          : "a time that no calendar holds";
  told.text = fmt::format("{}: {} ({})\n", title_of(one), calendar, report.timestamp);
  co_return told;
}

ExitCode run_clock(Context& context) {
  if (context.options().dry_run) {
    return dry_run(
        context, [](const std::string& mac) { return std::vector<std::string>{clock_text(mac)}; });
  }
  const auto switches = selected(context, Search::Quick);
  return each_switch(context, switches, false,
                     [&context](const Switch& one) { return tell_clock(context, one); });
}

ExitCode run_restart(Context& context, bool reset, int come_back) {
  constexpr Duration kDownPatience{10000};
  const std::string title = reset ? "reset" : "reboot";
  const std::string question = reset ? "Reset to factory settings and restart" : "Restart";
  return run_change(
      context, title, question,
      [reset](const std::string& mac) { return reset ? reset_text(mac) : reboot_text(mac); },
      [=](Context& within, const Switch& one) {
        return restart_switch(within.session(), one, reset, within.patience(kDownPatience),
                              std::chrono::seconds(come_back));
      });
}

struct QueryArguments {
  std::string module;
  std::string command;
  std::string payload;
  bool config = false;
};

OrderedJson parse_payload(const std::string& payload) {
  if (payload.empty()) {
    return nullptr;
  }
  try {
    parse_json(payload);
  } catch (const BadReply& reason) {
    throw Error(fmt::format("DATA: {}", reason.what()), ExitCode::Usage);
  }
  return OrderedJson::parse(payload);
}

// Whether a module's reply says that it refused: a "ret" that is a number other than 0.
bool is_refusal(const Json& reply) {
  return reply.is_object() && reply.contains("ret") && reply["ret"].is_number() &&
         reply["ret"] != 0;
}

Task<Told> tell_query(Context& context, const Switch& one, std::string text) {
  const QueryReply reply = co_await ask_module(context.session(), one, text, context.patience());
  Told told;
  if (reply.json.is_discarded()) {
    told.json["text"] = reply.text;
    told.text = terminal_text(reply.text, reply.text.size()) + "\n";
  } else {
    told.json["reply"] = OrderedJson::parse(dump_json(reply.json));
    told.text = reply.json.dump(2, ' ', true, Json::error_handler_t::replace) + "\n";
    if (is_refusal(reply.json)) {
      told.code = ExitCode::Failed;
    }
  }
  co_return told;
}

ExitCode run_query(Context& context, const QueryArguments& arguments) {
  const OrderedJson payload = parse_payload(arguments.payload);
  const auto text = [&](const std::string& mac) {
    return query_text(mac, arguments.module, arguments.command, payload, arguments.config);
  };
  if (context.options().dry_run) {
    return dry_run(context,
                   [&](const std::string& mac) { return std::vector<std::string>{text(mac)}; });
  }
  const auto switches = selected(context);
  return each_switch(context, switches, true, [&](const Switch& one) {
    return tell_query(context, one, text(mac_text(one.mac)));
  });
}

void add_address(CLI::App& app, Choice& choice) {
  auto* command = app.add_subcommand("ip", "Set the management address");
  command->footer("Example:\n  qelctl -i eth1 --switch office-sw ip 192.168.1.20/24");
  auto word = std::make_shared<std::string>();
  command->add_option("ADDRESS/PREFIX", *word, "Address and prefix length")->required();
  command->callback([&choice, word] {
    choice.action = [word](Context& context) {
      const AddressWords words = parse_address(*word);
      return run_change(
          context, "ip", "",
          [&](const std::string& mac) { return address_text(mac, words.ip, words.prefix); },
          [&](Context& within, const Switch& one) {
            return set_address(within.session(), one, words.ip, words.prefix, within.patience());
          });
    };
  });
}

void add_time(CLI::App& app, Choice& choice) {
  auto* command = app.add_subcommand("time", "Show or set the clock");
  command->footer(
      "Without TIME the clock is shown. Dates are UTC, until 2038-01-19 03:14:07; in\n"
      "seconds 0 to 2147483647.\n\n"
      "Example:\n  qelctl -i eth1 --switch all time now");
  auto word = std::make_shared<std::string>();
  command->add_option("TIME", *word, "now, seconds since 1970, or \"YYYY-MM-DD HH:MM:SS\"");
  command->callback([&choice, word] {
    choice.action = [word](Context& context) {
      if (word->empty()) {
        return run_clock(context);
      }
      const int64_t seconds = parse_time(*word);
      return run_change(
          context, "time", "",
          [seconds](const std::string& mac) { return set_clock_text(mac, seconds); },
          [word](Context& within, const Switch& one) {
            // "now" is looked up as late as can be.
            return set_clock(within.session(), one, parse_time(*word), within.patience());
          });
    };
  });
}

void add_name(CLI::App& app, Choice& choice) {
  auto* command = app.add_subcommand("name", "Set the name of a switch");
  command->footer("Example:\n  qelctl -i eth1 --switch 0a:1b:2c:3d:4e:5f name office-sw");
  auto word = std::make_shared<std::string>();
  command->add_option("NAME", *word, "At most 63 bytes")->required();
  command->callback([&choice, word] {
    choice.action = [word](Context& context) {
      check_name(*word);
      return run_change(
          context, "name", "", [word](const std::string& mac) { return name_text(mac, *word); },
          [word](Context& within, const Switch& one) {
            return set_name(within.session(), one, *word, within.patience());
          });
    };
  });
}

void add_active(CLI::App& app, Choice& choice) {
  auto* command = app.add_subcommand("active", "Set the countdown that says a controller cares");
  command->footer("Example:\n  qelctl -i eth1 active 300");
  auto seconds = std::make_shared<int>(0);
  command->add_option("SECONDS", *seconds, "Counted down by the switch to 0")
      ->required()
      ->check(CLI::Range(0, INT32_MAX));
  command->callback([&choice, seconds] {
    choice.action = [seconds](Context& context) {
      return run_change(
          context, "active", "",
          [seconds](const std::string& mac) { return active_text(mac, *seconds); },
          [seconds](Context& within, const Switch& one) {
            return set_active(within.session(), one, *seconds, within.patience());
          });
    };
  });
}

void add_restart(CLI::App& app, Choice& choice, const char* name, const char* help, bool reset) {
  auto* command = app.add_subcommand(name, help);
  command->footer(
      fmt::format("Asks first, unless --yes.\n\nExample:\n  qelctl -i eth1 --switch "
                  "office-sw {} --yes --wait 120",
                  name));
  auto come_back = std::make_shared<int>(0);
  command->add_option("--wait", *come_back, "Wait so long for the switch to answer again")
      ->check(CLI::Range(1, 3600))
      ->type_name("SECONDS");
  command->callback([&choice, come_back, reset] {
    choice.action = [come_back, reset](Context& context) {
      return run_restart(context, reset, *come_back);
    };
  });
}

void add_query(CLI::App& app, Choice& choice) {
  auto* command = app.add_subcommand("query", "Ask a module of the switch");
  command->footer(
      "The reply is shown as it comes. One of more than 1600 bytes, or an empty one,\n"
      "never comes. A \"ret\" other than 0 is a refusal and ends with status 1.\n\n"
      "Example:\n  qelctl -i eth1 query poe poe_qel_alarm_info_get\n"
      "  qelctl -i eth1 query mono qel_port_enable_set '{\"port\":\"ge1\",\"enable\":1}'");
  auto arguments = std::make_shared<QueryArguments>();
  command->add_option("MODULE", arguments->module, "Such as mono, poe, statistics")->required();
  command->add_option("COMMAND", arguments->command, "Command of the module")->required();
  command->add_option("DATA", arguments->payload, "JSON to go with it");
  command->add_flag("--config", arguments->config, "Send DATA as \"config\"");
  command->callback([&choice, arguments] {
    choice.action = [arguments](Context& context) { return run_query(context, *arguments); };
  });
}

}  // namespace

void add_system(CLI::App& app, Choice& choice) {
  add_address(app, choice);
  add_time(app, choice);
  add_name(app, choice);
  add_active(app, choice);
  add_restart(app, choice, "reboot", "Restart a switch", false);
  add_restart(app, choice, "reset", "Reset a switch to factory settings and restart it", true);
  add_query(app, choice);
}

}  // namespace qel_gateway::cli
