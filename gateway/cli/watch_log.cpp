// SPDX-License-Identifier: Apache-2.0
//
// Telling events.
#include "gateway/cli/watch_log.h"

#include <algorithm>
#include <array>
#include <string_view>

#include <fmt/chrono.h>
#include <fmt/format.h>

#include "gateway/cli/port_output.h"
#include "gateway/json.h"
#include "gateway/ports.h"
#include "gateway/table.h"
#include "gateway/text.h"

namespace qel_gateway::cli {

namespace {

constexpr Duration kSilent{11000};
constexpr Duration kAnswerWithin{3000};  // after an overheard request

// Bounds on what a stranger can make this remember.
constexpr size_t kSwitchesMost = 4096;
constexpr size_t kPortsMost = 256;
constexpr size_t kExcusesMost = 16;

// Subjects of messages that switches send only when asked.
constexpr std::array<std::string_view, 11> kAnswers = {
    "pong",          "ports_info",      "ports_pos",      "ports_conf",
    "ports_link",    "ports_stats",     "ports_poe_conf", "sys_info",
    "config_upload", "config_download", "firm_download"};

bool is_answer(const std::string& subject) {
  return std::ranges::find(kAnswers, subject) != kAnswers.end();
}

std::string client_words(const Json& details) {
  const PortClient client = read_port_client(details);
  const auto mac = parse_mac(client.mac);
  std::string words = "client " + terminal_text(client.state);
  if (client.state != "NONE") {
    words += fmt::format("  {}  {}  {}", mac ? mac_display(*mac) : terminal_text(client.mac),
                         terminal_text(client.ip), terminal_text(client.type));
  }
  return words;
}

std::string words_of(const Event& event, bool colour) {
  if (event.kind == "ports_client") {
    return tinted(terminal_text(event.port), Tint::Cyan, colour) + "  " +
           client_words(event.details);
  }
  if (event.kind == "silent") {
    return tinted("does not answer", Tint::Red, colour);
  }
  if (event.kind == "back" || event.kind == "new") {
    return tinted(event.kind == "new" ? "is on the wire" : "answers again", Tint::Green, colour);
  }
  return terminal_text(event.kind) + "  " + terminal_text(dump_json(event.details));
}

}  // namespace

std::string event_line(const Event& event, bool colour) {
  const std::string name = terminal_text(event.name);
  return fmt::format("{:%H:%M:%S}  {}  {}\n", fmt::localtime(event.time),
                     name.empty() ? mac_display(event.mac) : name, words_of(event, colour));
}

std::string event_json(const Event& event) {
  OrderedJson line;
  line["time"] = static_cast<int64_t>(event.time);
  line["mac"] = mac_display(event.mac);
  line["name"] = event.name;
  line["event"] = event.kind;
  if (!event.port.empty()) {
    line["port"] = event.port;
  }
  if (event.kind == "ports_client") {
    line["client"] = client_json(read_port_client(event.details));
  } else if (!event.details.is_null()) {
    line["details"] = OrderedJson::parse(dump_json(event.details));
  }
  return dump_json(line) + "\n";
}

WatchLog::WatchLog(const std::vector<Switch>& switches, bool open, TimePoint now, Sink sink)
    : open_(open), sink_(std::move(sink)) {
  for (const Switch& one : switches) {
    Known& known = known_[one.mac];
    known.name = one.identity.name;
    known.heard = now;
  }
}

void WatchLog::tell(const MacAddress& mac, const std::string& kind, const std::string& port,
                    const Json& details) {
  ++events_;
  sink_({std::time(nullptr), mac, known_[mac].name, kind, port, details});
}

void WatchLog::hear_answer(const Reply& reply, TimePoint now) {
  const Identity identity = read_identity(reply.data);
  const bool fresh = !known_.contains(reply.mac);
  if (fresh && (!open_ || known_.size() >= kSwitchesMost)) {
    return;
  }
  Known& known = known_[reply.mac];
  const bool back = known.silent;
  known.name = identity.name;
  known.heard = now;
  known.silent = false;
  if (fresh || back) {
    tell(reply.mac, fresh ? "new" : "back", "", nullptr);
  }
}

bool WatchLog::excused(Known& known, const std::string& port, TimePoint now) {
  std::erase_if(known.excuses, [now](const Excuse& excuse) { return now >= excuse.until; });
  for (Excuse& excuse : known.excuses) {
    if (excuse.used.size() < kPortsMost && excuse.used.insert(port).second) {
      return true;
    }
  }
  return false;
}

void WatchLog::hear_clients(const Reply& reply, TimePoint now) {
  for (const auto& [port, details] : reply.data.items()) {
    read_port_client(details);
  }
  Known& known = known_[reply.mac];
  for (const auto& [port, details] : reply.data.items()) {
    const auto last = known.last.find(port);
    const bool news = last != known.last.end() && last->second != details;
    if (last != known.last.end() || known.last.size() < kPortsMost) {
      known.last[port] = details;
    }
    const bool asked = excused(known, port, now);
    if (!asked || news) {
      tell(reply.mac, reply.subject, port, details);
    }
  }
}

void WatchLog::overhear(const MacAddress& to, const std::string& text, TimePoint now) {
  try {
    const Json root = parse_json(text);
    const std::string verb = text_member(root, "cmd");
    if ((verb != "get" && verb != "probe" && verb != "ping") ||
        text_member(root, "subcmd") != "ports_client") {
      return;
    }
  } catch (const BadReply&) {
    return;  // no switch answers that
  }
  const bool everybody = (to.bytes[0] & 1) != 0;  // the group bit of an address
  for (auto& [mac, known] : known_) {
    if ((everybody || mac == to) && known.excuses.size() < kExcusesMost) {
      known.excuses.push_back({now + kAnswerWithin, {}});
    }
  }
}

void WatchLog::hear(const Reply& reply, TimePoint now) {
  if (reply.subject == "answer") {
    hear_answer(reply, now);
    return;
  }
  if (reply.subject.empty() || is_answer(reply.subject) || !known_.contains(reply.mac)) {
    return;
  }
  if (reply.subject == "ports_client" && reply.data.is_object()) {
    hear_clients(reply, now);
    return;
  }
  tell(reply.mac, reply.subject, "", reply.data);
}

void WatchLog::tick(TimePoint now) {
  for (auto& [mac, known] : known_) {
    if (!known.silent && now - known.heard >= kSilent) {
      known.silent = true;
      tell(mac, "silent", "", nullptr);
    }
  }
}

}  // namespace qel_gateway::cli
