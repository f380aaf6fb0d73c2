// SPDX-License-Identifier: Apache-2.0
#include "tests/unit/archive.h"

namespace {

std::string list_of(const std::vector<Member>& members) {
  std::string list;
  for (const Member& member : members) {
    list += member.name + "\n";
  }
  return list;
}

void put(const std::string& path, const Member& member) {
  fake::file_step();
  if (member.entry.mode == fake::FileEntry{}.mode) {
    fake::set_file(path, member.bytes);
  }
  fake::set_entry(path, member.entry);
}

}  // namespace

void archive_gives(const Archive& archive) {
  fake::on_shell([archive](const std::string& command) {
    if (command == kExpandCommand) {
      if (archive.at_start) {
        archive.at_start();
      }
      fake::set_file("/var/conf/.incoming/names", archive.list.value_or(list_of(archive.members)));
      return archive.expand_status;
    }
    if (command == kUnpackCommand) {
      for (const Member& member : archive.members) {
        put("/var/conf/.incoming/files/" + member.name, member);
      }
      return archive.unpack_status;
    }
    return command == kFlashCommand ? archive.flash_status : 0;
  });
}
