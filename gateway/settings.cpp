// SPDX-License-Identifier: Apache-2.0
//
// What all settings share: names, words, and the look back.
#include "gateway/settings.h"

#include <algorithm>

#include <fmt/format.h>

#include "gateway/error.h"
#include "gateway/settings_internal.h"
#include "gateway/text.h"

namespace qel_gateway {

namespace {

constexpr size_t kNameLongest = 63;       // bytes that a switch keeps
constexpr size_t kLocationLongest = 232;  // leaves room for the switch's command around it

}  // namespace

const char* effect_word(Effect effect) {
  switch (effect) {
    case Effect::Took:
      return "took";
    case Effect::NotTaken:
      return "not taken";
    case Effect::Unseen:
      return "unseen";
    case Effect::Silent:
      return "silent";
  }
  return "unseen";
}

const std::vector<std::string>& speed_names() {
  static const std::vector<std::string> kNames = {"AN",     "10M",    "10M-H", "10M-F", "100M",
                                                  "100M-H", "100M-F", "1G",    "1G-F",  "2.5G",
                                                  "5G",     "10G",    "25G",   "40G",   "100G"};
  return kNames;
}

const std::vector<std::string>& port_switch_names() {
  static const std::vector<std::string> kNames = {"enable", "iso",  "eee", "llpp",
                                                  "mstp",   "lldp", "poe"};
  return kNames;
}

void check_name(const std::string& name) {
  if (name.empty() || name.size() > kNameLongest) {
    throw Error(fmt::format("a name has 1 to {} bytes", kNameLongest), ExitCode::Usage);
  }
  if (name.find_first_of("\"\\") != std::string::npos || terminal_text(name) != name) {
    throw Error("a name is text without control characters, quotes and backslashes",
                ExitCode::Usage);
  }
}

void check_location(const std::string& location) {
  static constexpr const char* kAllowed =
      "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789:/._~%=+@,-";
  if (location.empty() || location.size() > kLocationLongest) {
    throw Error(fmt::format("a location has 1 to {} characters", kLocationLongest),
                ExitCode::Usage);
  }
  if (location[0] == '-' || location[0] == '~' ||
      location.find_first_not_of(kAllowed) != std::string::npos) {
    throw Error(
        "the switch refuses locations with anything but letters, digits and :/._~%=+@,- or with "
        "- or ~ at the start",
        ExitCode::Usage);
  }
}

void send_set(Session& session, const Switch& one, const std::string& text) {
  session.transport().send(one.address, text, {}, false);
}

Task<EffectReport> look_until(Session& session, Duration patience,
                              std::function<Task<EffectReport>()> look) {
  const TimePoint end = session.now() + patience;
  while (true) {
    EffectReport report = co_await look();
    if (report.effect == Effect::Took || session.now() >= end) {
      co_return report;
    }
    auto pause = session.sleep(kLookAgain);
    const Outcome outcome = co_await pause;
    if (outcome == Outcome::Interrupted) {
      throw Interrupted();
    }
  }
}

}  // namespace qel_gateway
