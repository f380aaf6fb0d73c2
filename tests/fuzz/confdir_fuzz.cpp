// SPDX-License-Identifier: Apache-2.0
//
// What comes out of a configuration archive, and what an earlier process left in the folder of the
// configuration files. Each line of the input is an entry:
//
//   PLACE TYPE NAME     without the blanks
//
//   PLACE  a: unpacked from the archive, l: only in tar's list of names, c: in /var/conf,
//          n, p, i: in its folder .incoming, .accepted, .installing
//   TYPE   f: file, d: folder, l: link, p: FIFO, s: setuid file, h: file of two names, z: huge
//   file,
//          u: file that its owner may not read
//   NAME   the rest, whatever it holds
//
// A first line "x" makes the command that unpacks fail.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "qel/qel_api.h"
#include "qel/qel_confdir.h"
#include "qel/qel_restart.h"
#include "tests/fake/fake.h"

namespace {

constexpr char kFolder[] = "/var/conf";
constexpr char kOld[] = "/var/conf/old.conf";

void expect(bool good, const char* what) {
  if (!good) {
    std::fprintf(stderr, "%s\n", what);
    for (const std::string& path : fake::entries(kFolder)) {
      std::fprintf(stderr, "  %s\n", path.c_str());
    }
    std::abort();
  }
}

fake::FileEntry entry_of(char type) {
  constexpr int64_t kHuge = int64_t{1} << 40;
  switch (type) {
    case 'd':
      return {.mode = 040755};
    case 'l':
      return {.mode = 0120777};
    case 'p':
      return {.mode = 010600};
    case 's':
      return {.mode = 0104755};
    case 'h':
      return {.mode = 0100640, .links = 2};
    case 'z':
      return {.mode = 0100640, .size = kHuge};
    case 'u':
      return {.mode = 0100040};
    default:
      return {};
  }
}

struct Line {
  char place;
  char type;
  std::string name;
};

std::vector<Line> lines_of(std::string_view text) {
  std::vector<Line> lines;
  while (!text.empty()) {
    const std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(line.size() + (line.size() < text.size() ? 1 : 0));
    // A name ends at a NUL, as every name of a file does.
    if (line.size() > 2) {
      const std::string_view name = line.substr(2, line.substr(2).find('\0'));
      if (!name.empty()) {
        lines.push_back({line[0], line[1], std::string(name)});
      }
    }
  }
  return lines;
}

std::string folder_of(char place) {
  switch (place) {
    case 'c':
      return "/var/conf/";
    case 'n':
      return "/var/conf/.incoming/";
    case 'p':
      return "/var/conf/.accepted/";
    case 'i':
      return "/var/conf/.installing/";
    case 'a':
      return "/var/conf/.incoming/files/";
    default:
      return "";
  }
}

void put(const Line& line) {
  const fake::FileEntry entry = entry_of(line.type);
  const std::string path = folder_of(line.place) + line.name;
  if ((entry.mode & 0170000) == 0100000) {
    fake::set_file(path, "new");
  }
  fake::set_entry(path, entry);
}

// The fake takes a path for what it says; these would be other places on a real machine.
bool can_stand(const Line& line) {
  return line.name.find('/') == std::string::npos || line.place == 'a';
}

// Nothing stands in the folder but configuration files, hidden files and the archives.
void expect_plain_folder() {
  for (const std::string& path : fake::entries(kFolder)) {
    if (path == "/var/conf/") {
      continue;
    }
    const std::string name = path.substr(sizeof kFolder);
    expect(name.find('/') == std::string::npos && path.back() != '@' && path.back() != '|',
           "something else than a file is left");
    expect(qel_confdir_is_name(name.c_str()) || name[0] == '.' || name == "getconf.tar.gz" ||
               name == "downlconf.tar.gz",
           "a file with a harmful name is left");
  }
}

void start_with(const std::vector<Line>& lines) {
  fake::reset();
  g_qel_restart = {};
  for (const Line& line : lines) {
    if (line.place != 'a' && line.place != 'l' && can_stand(line)) {
      put(line);
    }
  }
  qel_api_conf_init();
  expect_plain_folder();
}

void restore(const std::vector<Line>& lines, bool fails) {
  std::string list;
  bool plain = true;
  for (const Line& line : lines) {
    if (line.place == 'a' || line.place == 'l') {
      list += line.name + "\n";
      plain = plain && (line.place == 'l' || (line.type != 'd' && line.type != 'l'));
    }
  }
  fake::reset();
  g_qel_restart = {};
  fake::set_file(kOld, "old");
  fake::on_shell([&](const std::string& command) {
    if (command.find("tar -tf") != std::string::npos) {
      fake::set_file("/var/conf/.incoming/names", list);
    }
    if (command.find("tar -xof") != std::string::npos) {
      for (const Line& line : lines) {
        if (line.place == 'a') {
          put(line);
        }
      }
      return fails ? 1 : 0;
    }
    return 0;
  });
  if (!qel_api_download_unpack()) {
    expect(fake::file(kOld) == "old", "a refused archive changed a file");
    expect(fake::entries(kFolder) == std::vector<std::string>{"/var/conf/", kOld},
           "a refused archive left something behind");
    expect(fake::log_lines().size() == 1, "a refusal is one line");
    return;
  }
  expect(!fails && plain, "what could not be unpacked, or is no file, was accepted");
  qel_api_update_down_config(1);
  expect_plain_folder();
  expect(fake::reboots() == 1, "the switch did not restart");
  for (const std::string& path : fake::entries(kFolder)) {
    expect(path == "/var/conf/" || fake::file(path) == "new", "an old file is left");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const std::vector<Line> lines = lines_of(text);
  start_with(lines);
  restore(lines, text.starts_with("x\n"));
  return 0;
}
