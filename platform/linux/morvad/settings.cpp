// SPDX-License-Identifier: Apache-2.0
//
// See settings.h.
#include "platform/linux/morvad/settings.h"

#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstring>

#include "platform/linux/morvad/log.h"
#include "platform/linux/paths.h"

namespace morvad {
namespace {

std::string rooted(const char* path) {
  char buffer[kMorvaPathSize];
  return morva_path(buffer, sizeof buffer, path);
}

std::vector<nvram_pair> as_nvram(const SettingPairs& pairs) {
  std::vector<nvram_pair> out;
  out.reserve(pairs.size());
  for (const auto& [key, value] : pairs) {
    out.push_back({key.c_str(), value.c_str()});
  }
  return out;
}

int told(int result, const char* what) {
  if (result != 0) {
    log_line(std::string("settings not ") + what + ": " + strerror(-result));
  }
  return result;
}

}  // namespace

Settings::Settings() : path_(rooted(MORVA_NVRAM_FILE)), temp_path_(rooted(MORVA_NVRAM_TEMP_FILE)) {}

Settings::~Settings() {
  nvram_cache_clear(&cache_);
}

std::string Settings::text(const std::string& key, const std::string& fallback) {
  const char* value = nvram_cache_get(&cache_, path_.c_str(), key.c_str());
  return value != nullptr ? value : fallback;
}

int Settings::number(const std::string& key, int fallback) {
  const std::string value = text(key);
  int number = 0;
  const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), number);
  return error == std::errc() && end == value.data() + value.size() ? number : fallback;
}

int Settings::store(const SettingPairs& pairs) {
  const bool news = std::any_of(pairs.begin(), pairs.end(), [this](const auto& pair) {
    const char* old = nvram_cache_get(&cache_, path_.c_str(), pair.first.c_str());
    return old == nullptr || pair.second != old;
  });
  if (!news) {
    return 0;
  }
  const std::vector<nvram_pair> raw = as_nvram(pairs);
  return told(nvram_file_set_many(path_.c_str(), raw.data(), raw.size()), "stored");
}

int Settings::fill(const SettingPairs& defaults) {
  const std::vector<nvram_pair> raw = as_nvram(defaults);
  return told(nvram_file_fill(path_.c_str(), raw.data(), raw.size()), "filled in");
}

int Settings::replace_all(const SettingPairs& defaults) {
  const std::vector<nvram_pair> raw = as_nvram(defaults);
  return told(nvram_file_replace_all(path_.c_str(), raw.data(), raw.size()), "restored");
}

void Settings::clear_temporary() {
  unlink(temp_path_.c_str());
}

}  // namespace morvad
