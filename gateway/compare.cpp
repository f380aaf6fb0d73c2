// SPDX-License-Identifier: Apache-2.0
//
// See compare.h.
#include "gateway/compare.h"

#include <algorithm>
#include <array>
#include <map>
#include <string_view>
#include <tuple>

#include <fmt/format.h>

#include "gateway/text.h"

namespace qel_gateway {

namespace {

constexpr std::string_view kSettingsFile = "nvram.conf";

enum class Writes {
  Always,       // at any time, whatever was sent
  WhenMissing,  // at its start, when it was not sent
};

struct OwnSetting {
  std::string_view key;  // '*' in it stands for the name of a port
  Writes writes;
};

// What a switch writes into its settings by itself.
constexpr std::array kOwnSettings = {
    // Each second of the countdown, until the restart ends it.
    OwnSetting{"qel_sys_active", Writes::Always},
    // The factory's: who the switch is and what its ports do. A start without them fills them in.
    OwnSetting{"product_sn", Writes::WhenMissing},
    OwnSetting{"product_hw_ver", Writes::WhenMissing},
    OwnSetting{"product_model", Writes::WhenMissing},
    OwnSetting{"product_description", Writes::WhenMissing},
    OwnSetting{"firmware_ver", Writes::WhenMissing},
    OwnSetting{"have_poe", Writes::WhenMissing},
    OwnSetting{"iso.*.enable", Writes::WhenMissing},
    OwnSetting{"eee.*.enable", Writes::WhenMissing},
    OwnSetting{"llpp.*.enable", Writes::WhenMissing},
    OwnSetting{"mstp.*.enable", Writes::WhenMissing},
    OwnSetting{"lldp.*.enable", Writes::WhenMissing},
    OwnSetting{"poe.*.enable", Writes::WhenMissing},
};

bool fits(std::string_view key, std::string_view pattern) {
  const size_t star = pattern.find('*');
  if (star == std::string_view::npos) {
    return key == pattern;
  }
  return key.size() >= pattern.size() && key.starts_with(pattern.substr(0, star)) &&
         key.ends_with(pattern.substr(star + 1));
}

bool switch_writes(std::string_view key, Writes when) {
  return std::ranges::any_of(kOwnSettings, [&](const OwnSetting& own) {
    return own.writes == when && fits(key, own.key);
  });
}

using Settings = std::map<std::string, std::string, std::less<>>;

// As switches read them: a line "key=value" counts, of two with one key the later, a line without
// its end and anything else not.
Settings read_settings(const std::vector<uint8_t>& content) {
  constexpr size_t kKeyMax = 63;
  constexpr std::string_view kKeyBytes =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._-";
  Settings settings;
  std::string_view rest(reinterpret_cast<const char*>(content.data()), content.size());
  for (size_t end = rest.find('\n'); end != std::string_view::npos; end = rest.find('\n')) {
    const std::string_view line = rest.substr(0, end);
    rest.remove_prefix(end + 1);
    const size_t equals = line.find('=');
    const std::string_view key = line.substr(0, equals);
    if (equals == std::string_view::npos || key.empty() || key.size() > kKeyMax ||
        key.find_first_not_of(kKeyBytes) != std::string_view::npos) {
      continue;
    }
    settings.insert_or_assign(std::string(key), std::string(line.substr(equals + 1)));
  }
  return settings;
}

// Calls `tell(name, of_one, of_other)` for each name of either map, with null where one lacks it.
template <typename Value, typename Tell>
void walk_both(const std::map<std::string, Value, std::less<>>& one,
               const std::map<std::string, Value, std::less<>>& other, Tell tell) {
  for (const auto& [name, value] : one) {
    const auto same = other.find(name);
    tell(name, &value, same != other.end() ? &same->second : nullptr);
  }
  for (const auto& [name, value] : other) {
    if (!one.contains(name)) {
      tell(name, nullptr, &value);
    }
  }
}

void compare_settings(const std::vector<uint8_t>& sent, const std::vector<uint8_t>& found,
                      std::vector<Difference>& differences) {
  walk_both(read_settings(sent), read_settings(found),
            [&](const std::string& key, const std::string* was, const std::string* is) {
              if (switch_writes(key, Writes::Always) ||
                  (was == nullptr && switch_writes(key, Writes::WhenMissing)) ||
                  (was != nullptr && is != nullptr && *was == *is)) {
                return;
              }
              const DifferenceKind kind = is == nullptr    ? DifferenceKind::Missing
                                          : was == nullptr ? DifferenceKind::Extra
                                                           : DifferenceKind::Changed;
              differences.push_back({std::string(kSettingsFile), key, kind});
            });
}

using Files = std::map<std::string, std::vector<uint8_t>, std::less<>>;

Files by_name(const std::vector<ArchiveMember>& members) {
  Files files;
  for (const ArchiveMember& member : members) {
    files.emplace(member.name, member.content);
  }
  return files;
}

std::string difference_text(const Difference& difference) {
  std::string what = difference.key.empty() ? terminal_text(difference.file)
                                            : fmt::format("{}: {}", terminal_text(difference.file),
                                                          terminal_text(difference.key));
  switch (difference.kind) {
    case DifferenceKind::Missing:
      return what + " is missing";
    case DifferenceKind::Extra:
      return what + " was not sent";
    case DifferenceKind::Changed:
      return what + " differs";
  }
  return what;
}

}  // namespace

std::vector<Difference> compare_configurations(const std::vector<ArchiveMember>& sent,
                                               const std::vector<ArchiveMember>& found) {
  static const std::vector<uint8_t> kNothing;
  std::vector<Difference> differences;
  walk_both(by_name(sent), by_name(found),
            [&](const std::string& name, const std::vector<uint8_t>* was,
                const std::vector<uint8_t>* is) {
              if (was != nullptr && is != nullptr && *was == *is) {
                return;
              }
              if (is == nullptr) {
                differences.push_back({name, "", DifferenceKind::Missing});
              } else if (name == kSettingsFile) {
                // A switch that finds no settings makes the file, for the factory's.
                compare_settings(was != nullptr ? *was : kNothing, *is, differences);
              } else {
                differences.push_back(
                    {name, "", was != nullptr ? DifferenceKind::Changed : DifferenceKind::Extra});
              }
            });
  std::ranges::sort(differences, {},
                    [](const Difference& one) { return std::tie(one.file, one.key); });
  return differences;
}

const char* difference_word(DifferenceKind kind) {
  switch (kind) {
    case DifferenceKind::Missing:
      return "missing";
    case DifferenceKind::Extra:
      return "extra";
    case DifferenceKind::Changed:
      return "changed";
  }
  return "changed";
}

std::string differences_text(const std::vector<Difference>& differences) {
  constexpr size_t kShown = 5;
  std::string text;
  for (size_t i = 0; i < std::min(differences.size(), kShown); ++i) {
    text += (i == 0 ? "" : ", ") + difference_text(differences[i]);
  }
  if (differences.size() > kShown) {
    text += fmt::format(" and {} more", differences.size() - kShown);
  }
  return text;
}

}  // namespace qel_gateway
