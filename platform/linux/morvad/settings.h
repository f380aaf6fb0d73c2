// SPDX-License-Identifier: Apache-2.0
//
// morvad's view of the settings store (platform/linux/nvram.h): persistent ones in
// /var/conf/nvram.conf, shared with the agent, which writes its own keys there.
#ifndef MORVA_LINUX_MORVAD_SETTINGS_H
#define MORVA_LINUX_MORVAD_SETTINGS_H

#include <string>
#include <utility>
#include <vector>

#include "platform/linux/nvram.h"

namespace morvad {

using SettingPairs = std::vector<std::pair<std::string, std::string>>;

class Settings {
 public:
  Settings();
  ~Settings();
  Settings(const Settings&) = delete;
  Settings& operator=(const Settings&) = delete;

  /// The stored text, or `fallback` when the key is unset.
  std::string text(const std::string& key, const std::string& fallback = "");

  /// The stored decimal number, or `fallback` when the key is unset or holds something else.
  int number(const std::string& key, int fallback);

  /// Stores the pairs, all or none; writes nothing when all of them stand there already.
  /// Returns 0, or a negative errno (logged); the store is then as it was.
  int store(const SettingPairs& pairs);

  /// Adds those that are missing, and makes the store hold exactly these. Results as of store().
  int fill(const SettingPairs& defaults);
  int replace_all(const SettingPairs& defaults);

  /// Forgets the temporary settings, as a restart does.
  void clear_temporary();

 private:
  std::string path_;
  std::string temp_path_;
  nvram_cache cache_{};
};

}  // namespace morvad

#endif  // MORVA_LINUX_MORVAD_SETTINGS_H
