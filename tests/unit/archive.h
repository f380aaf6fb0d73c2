// SPDX-License-Identifier: Apache-2.0
//
// What the commands that unpack a configuration archive leave on the fake switch, since no command
// runs there: the list of names, and the entries.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tests/fake/fake.h"

inline constexpr char kExpandCommand[] =
    "cd /var/conf/.incoming && ulimit -f 8192 && gzip -dc <../downlconf.tar.gz >archive && "
    "tar -tf - <archive >names";
inline constexpr char kUnpackCommand[] =
    "cd /var/conf/.incoming/files && ulimit -f 8192 && tar -xof - <../archive";
inline constexpr char kFlashCommand[] = "/morva/bin/conf flash";

// A member of the archive: a file with `bytes`, or what `entry` says it is.
struct Member {
  std::string name;
  std::string bytes = "new";
  fake::FileEntry entry = {};
};

// The archive that arrives next holds these members. `list` is the text that lists their names, a
// line each when left out. The statuses are those of the commands.
struct Archive {
  std::vector<Member> members = {};
  std::optional<std::string> list = {};
  int expand_status = 0;
  int unpack_status = 0;
  int flash_status = 0;
  std::function<void()> at_start = {};  // runs when the first command does
};
void archive_gives(const Archive& archive);
