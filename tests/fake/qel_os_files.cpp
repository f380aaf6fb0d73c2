// SPDX-License-Identifier: Apache-2.0
//
// The other half of the operating system in unit tests: files in memory by absolute path, the
// console, the shell that runs nothing, failures on demand, and the capture file.
#include <sys/socket.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <set>

#include "qel/qel_os.h"
#include "tests/fake/fake.h"
#include "tests/fake/internal.h"

namespace {

constexpr char kConsolePath[] = "/dev/console";

struct Failure {
  int error;
  int skip;
  int times;
};

struct State {
  std::map<std::string, std::string> files;
  std::vector<std::string> console;
  std::vector<std::string> console_modes;
  std::vector<std::string> shell;
  int shell_status = 0;
  std::function<int(const std::string&)> shell_hook;
  std::function<void()> write_hook;
  std::function<void()> console_hook;
  std::multiset<std::string> open;
  std::map<std::string, Failure> failures;
  std::map<std::string, size_t> cut_writes;        // bytes of the next write, by path
  std::map<std::string, fake::FileEntry> entries;  // entries with particulars, by path
  std::function<void()> step_hook;
};

State& state() {
  static State* const instance = new State;
  return *instance;
}

// An open file: a place in a file of the machine, which lives on when the name is removed.
struct OpenFile {
  std::string path;
  std::string bytes;
  size_t position = 0;
  bool append = false;
  bool writable = false;
};

ssize_t read_file(void* cookie, char* buffer, size_t size) {
  auto& file = *static_cast<OpenFile*>(cookie);
  if (fake::internal::os_fails("fread " + file.path)) {
    return -1;
  }
  const size_t left = file.bytes.size() - std::min(file.position, file.bytes.size());
  const size_t count = std::min(size, left);
  std::memcpy(buffer, file.bytes.data() + file.position, count);
  file.position += count;
  return static_cast<ssize_t>(count);
}

// Written through at once, so that the file is there while it is open.
ssize_t write_file(void* cookie, const char* data, size_t size) {
  auto& file = *static_cast<OpenFile*>(cookie);
  if (!file.writable) {
    errno = EBADF;
    return 0;
  }
  if (fake::internal::os_fails("fwrite " + file.path)) {
    return 0;
  }
  const auto cut = state().cut_writes.find(file.path);
  if (cut != state().cut_writes.end()) {
    size = std::min(size, cut->second);
    state().cut_writes.erase(cut);
    errno = ENOSPC;
  }
  if (file.append) {
    file.position = file.bytes.size();
  }
  if (file.bytes.size() < file.position + size) {
    file.bytes.resize(file.position + size);
  }
  file.bytes.replace(file.position, size, data, size);
  file.position += size;
  if (file.path != kConsolePath) {
    state().files[file.path] = file.bytes;
  }
  return static_cast<ssize_t>(size);
}

int seek_file(void* cookie, off64_t* offset, int whence) {
  auto& file = *static_cast<OpenFile*>(cookie);
  if (fake::internal::os_fails("fseek " + file.path)) {
    return -1;
  }
  off64_t base = 0;
  if (whence == SEEK_CUR) {
    base = static_cast<off64_t>(file.position);
  } else if (whence == SEEK_END) {
    base = static_cast<off64_t>(file.bytes.size());
  }
  if (base + *offset < 0) {
    errno = EINVAL;
    return -1;
  }
  file.position = static_cast<size_t>(base + *offset);
  *offset = static_cast<off64_t>(file.position);
  return 0;
}

bool below(const std::string& path, const std::string& folder) {
  return path.size() > folder.size() && path.starts_with(folder) && path[folder.size()] == '/';
}

// All paths that are set.
std::vector<std::string> paths() {
  std::vector<std::string> all;
  for (const auto& [path, bytes] : state().files) {
    all.push_back(path);
  }
  for (const auto& [path, entry] : state().entries) {
    all.push_back(path);
  }
  std::sort(all.begin(), all.end());
  all.erase(std::unique(all.begin(), all.end()), all.end());
  return all;
}

// What stands at `path`; nothing when it does not exist. A folder that holds entries exists.
std::optional<fake::FileEntry> entry_at(const std::string& path) {
  if (const auto found = state().entries.find(path); found != state().entries.end()) {
    return found->second;
  }
  if (state().files.contains(path)) {
    return fake::FileEntry{};
  }
  for (const std::string& each : paths()) {
    if (below(each, path)) {
      return fake::FileEntry{.mode = 040755};
    }
  }
  return std::nullopt;
}

bool is_empty(const std::string& folder) {
  for (const std::string& each : paths()) {
    if (below(each, folder)) {
      return false;
    }
  }
  return true;
}

template <typename Map>
void move_below(Map& map, const std::string& from, const std::string& to) {
  Map moved;
  for (const auto& [path, value] : map) {
    const bool with = path == from || below(path, from);
    moved[with ? to + path.substr(from.size()) : path] = value;
  }
  map = std::move(moved);
}

int refused(int error) {
  errno = error;
  return -1;
}

int close_file(void* cookie) {
  auto* const file = static_cast<OpenFile*>(cookie);
  if (file->path == kConsolePath) {
    state().console.push_back(file->bytes);
    if (state().console_hook) {
      state().console_hook();
    }
  }
  const auto opened = state().open.find(file->path);
  if (opened != state().open.end()) {
    state().open.erase(opened);
  }
  delete file;
  return 0;
}

void put_number(std::string& out, uint32_t value) {
  out.append(reinterpret_cast<const char*>(&value), sizeof value);
}

}  // namespace

std::FILE* qel_os_fopen(const char* path, const char* mode) {
  const bool console = std::strcmp(path, kConsolePath) == 0;
  if (console) {
    state().console_modes.emplace_back(mode);
  } else {
    fake::internal::record("fopen(%s, %s)", path, mode);
  }
  if (fake::internal::os_fails("fopen") || fake::internal::os_fails(std::string("fopen ") + path)) {
    return nullptr;
  }
  const auto found = state().files.find(path);
  if (mode[0] == 'r' && found == state().files.end()) {
    errno = ENOENT;
    return nullptr;
  }
  auto* const file = new OpenFile{path, "", 0, mode[0] == 'a', false};
  file->writable = mode[0] != 'r' || std::strchr(mode, '+') != nullptr;
  if (mode[0] != 'w' && found != state().files.end()) {
    file->bytes = found->second;
  }
  if (mode[0] != 'r' && !console) {
    state().files[path] = file->bytes;
  }
  if (!console) {
    state().open.insert(path);
  }
  return fopencookie(file, mode, {read_file, write_file, seek_file, close_file});
}

int qel_os_unlink(const char* path) {
  fake::file_step();
  fake::internal::record("unlink(%s)", path);
  if (fake::internal::os_fails("unlink") ||
      fake::internal::os_fails(std::string("unlink ") + path)) {
    return -1;
  }
  const std::optional<fake::FileEntry> entry = entry_at(path);
  if (!entry || S_ISDIR(entry->mode)) {
    return refused(entry ? EISDIR : ENOENT);
  }
  state().files.erase(path);
  state().entries.erase(path);
  return 0;
}

int qel_os_rename(const char* from, const char* to) {
  fake::file_step();
  fake::internal::record("rename(%s, %s)", from, to);
  if (fake::internal::os_fails("rename") ||
      fake::internal::os_fails(std::string("rename ") + from)) {
    return -1;
  }
  const std::optional<fake::FileEntry> old = entry_at(from);
  const std::optional<fake::FileEntry> present = entry_at(to);
  if (!old) {
    return refused(ENOENT);
  }
  if (present && S_ISDIR(present->mode) != S_ISDIR(old->mode)) {
    return refused(S_ISDIR(present->mode) ? EISDIR : ENOTDIR);
  }
  if (present && S_ISDIR(present->mode) && !is_empty(to)) {
    return refused(ENOTEMPTY);
  }
  fake::remove_tree(to);
  if (S_ISDIR(old->mode) && !state().entries.contains(from)) {
    state().entries[from] = *old;  // a folder without entries is there all the same
  }
  move_below(state().files, from, to);
  move_below(state().entries, from, to);
  return 0;
}

int qel_os_rmdir(const char* path) {
  fake::file_step();
  fake::internal::record("rmdir(%s)", path);
  if (fake::internal::os_fails("rmdir")) {
    return -1;
  }
  const std::optional<fake::FileEntry> entry = entry_at(path);
  if (!entry || !S_ISDIR(entry->mode)) {
    return refused(entry ? ENOTDIR : ENOENT);
  }
  if (!is_empty(path)) {
    return refused(ENOTEMPTY);
  }
  state().entries.erase(path);
  return 0;
}

int qel_os_chmod(const char* path, unsigned mode) {
  fake::file_step();
  fake::internal::record("chmod(%s, %o)", path, mode);
  std::optional<fake::FileEntry> entry = entry_at(path);
  if (!entry) {
    return refused(ENOENT);
  }
  entry->mode = (entry->mode & ~07777U) | mode;
  state().entries[path] = *entry;
  return 0;
}

int qel_os_mkdir(const char* path, unsigned mode) {
  fake::file_step();
  fake::internal::record("mkdir(%s, %o)", path, mode);
  if (fake::internal::os_fails("mkdir")) {
    return -1;
  }
  if (entry_at(path)) {
    return refused(EEXIST);
  }
  state().entries[path] = fake::FileEntry{.mode = 040000 | mode};
  return 0;
}

int qel_os_create(const char* path, unsigned mode) {
  fake::file_step();
  fake::internal::record("create(%s, %o)", path, mode);
  if (fake::internal::os_fails("create")) {
    return -1;
  }
  if (entry_at(path)) {
    return refused(EEXIST);
  }
  state().files[path] = "";
  state().entries[path] = fake::FileEntry{.mode = 0100000 | mode};
  return 0;
}

int qel_os_lstat(const char* path, qel_os_entry* entry) {
  const std::optional<fake::FileEntry> found = entry_at(path);
  if (!found) {
    return refused(ENOENT);
  }
  const auto file = state().files.find(path);
  const size_t bytes = file != state().files.end() ? file->second.size() : 0;
  *entry = {.mode = found->mode,
            .links = found->links,
            .size = found->size.value_or(static_cast<int64_t>(bytes))};
  return 0;
}

int qel_os_list(const char* path, qel_os_visit visit, void* context) {
  std::string folder = path;
  if (folder.ends_with("/.")) {
    folder.resize(folder.size() - 2);
  }
  if (fake::internal::os_fails("list")) {
    return -1;
  }
  const std::optional<fake::FileEntry> entry = entry_at(folder);
  if (!entry || !S_ISDIR(entry->mode)) {
    return refused(entry ? ENOTDIR : ENOENT);
  }
  std::vector<std::string> names;
  for (const std::string& each : paths()) {
    if (below(each, folder)) {
      const std::string rest = each.substr(folder.size() + 1);
      names.push_back(rest.substr(0, rest.find('/')));
    }
  }
  names.erase(std::unique(names.begin(), names.end()), names.end());
  for (const std::string& name : names) {
    if (!visit(name.c_str(), context)) {
      break;
    }
  }
  return 0;
}

ssize_t qel_os_write(int fd, const void* data, size_t length) {
  std::string text;
  for (const char byte : std::string_view(static_cast<const char*>(data), length)) {
    text += byte != '\0' ? std::string(1, byte) : "\\0";  // so that a test sees it
  }
  fake::internal::record("write(%d, %s)", fd, text.c_str());
  if (state().write_hook) {
    state().write_hook();
  }
  return static_cast<ssize_t>(length);
}

int qel_os_system(const char* command) {
  constexpr std::string_view kRemove = "rm -rf -- ";
  fake::file_step();
  fake::internal::record("system(%s)", command);
  state().shell.emplace_back(command);
  if (fake::internal::os_fails("system")) {
    return -1;
  }
  const int status = state().shell_hook ? state().shell_hook(command) : state().shell_status;
  if (status == 0 && std::string_view(command).starts_with(kRemove)) {
    fake::remove_tree(command + kRemove.size());
  }
  // As wait(2) encodes an exit.
  return status < 0 ? -1 : (status & 0xff) << 8;
}

namespace fake {

const std::vector<std::string>& console() {
  return state().console;
}

std::string console_text() {
  std::string all;
  for (const std::string& one : state().console) {
    all += one;
  }
  return all;
}

const std::vector<std::string>& console_modes() {
  return state().console_modes;
}

void fail_os(const std::string& function, int error, int skip, int times) {
  state().failures[function] = {error, skip, times};
}

void cut_write(const std::string& path, size_t count) {
  state().cut_writes[path] = count;
}

void set_file(const std::string& path, std::string_view bytes) {
  state().files[path] = bytes;
}

std::optional<std::string> file(const std::string& path) {
  const auto found = state().files.find(path);
  if (found == state().files.end()) {
    return std::nullopt;
  }
  return found->second;
}

void remove_file(const std::string& path) {
  state().files.erase(path);
}

void set_entry(const std::string& path, const FileEntry& entry) {
  state().entries[path] = entry;
}

std::vector<std::string> entries(const std::string& folder) {
  std::vector<std::string> shown;
  for (const std::string& each : paths()) {
    if (each == folder || below(each, folder)) {
      const uint32_t mode = entry_at(each)->mode;
      shown.push_back(each + (S_ISREG(mode)   ? ""
                              : S_ISDIR(mode) ? "/"
                              : S_ISLNK(mode) ? "@"
                                              : "|"));
    }
  }
  return shown;
}

void remove_tree(const std::string& path) {
  const auto gone = [&path](const auto& each) {
    return each.first == path || below(each.first, path);
  };
  std::erase_if(state().files, gone);
  std::erase_if(state().entries, gone);
}

void on_file_step(std::function<void()> action) {
  state().step_hook = std::move(action);
}

void file_step() {
  if (state().step_hook) {
    state().step_hook();
  }
}

std::vector<std::string> open_files() {
  return {state().open.begin(), state().open.end()};
}

const std::vector<std::string>& shell_commands() {
  return state().shell;
}
void set_shell_status(int status) {
  state().shell_status = status;
}

void on_console(std::function<void()> action) {
  state().console_hook = std::move(action);
}

void on_write(std::function<void()> action) {
  state().write_hook = std::move(action);
}

void on_shell(std::function<int(const std::string&)> hook) {
  state().shell_hook = std::move(hook);
}

bool write_pcap(const std::string& path) {
  constexpr uint32_t kMagic = 0xa1b2c3d4;  // in host byte order: readers swap by it
  constexpr uint32_t kSnapLength = 65535;
  constexpr uint32_t kLinkEthernet = 1;
  std::string out;
  put_number(out, kMagic);
  const uint16_t version[2] = {2, 4};
  out.append(reinterpret_cast<const char*>(version), sizeof version);
  for (uint32_t value : {0U, 0U, kSnapLength, kLinkEthernet}) {
    put_number(out, value);
  }
  for (const Sent& one : sent()) {
    if (one.family() == AF_PACKET) {
      const auto size = static_cast<uint32_t>(one.bytes.size());
      for (uint32_t value : {static_cast<uint32_t>(now()), 0U, size, size}) {
        put_number(out, value);
      }
      out += one.bytes;
    }
  }
  std::FILE* const file = std::fopen(path.c_str(), "wb");
  if (file == nullptr) {
    return false;
  }
  const bool written = std::fwrite(out.data(), 1, out.size(), file) == out.size();
  return std::fclose(file) == 0 && written;
}

namespace internal {

bool os_fails(const std::string& function) {
  const auto found = state().failures.find(function);
  if (found == state().failures.end()) {
    return false;
  }
  Failure& failure = found->second;
  if (failure.skip > 0) {
    --failure.skip;
    return false;
  }
  if (failure.times <= 0) {
    return false;
  }
  --failure.times;
  errno = failure.error;
  return true;
}

void append_file(const std::string& path, const void* data, size_t length) {
  state().files[path].append(static_cast<const char*>(data), length);
}

void reset_os_files() {
  state() = State{};
  state().entries["/var/conf"] = FileEntry{.mode = 040755};
  // user nice system idle iowait irq softirq steal: 700 of 1000 idle.
  state().files["/proc/stat"] = "cpu  100 0 100 700 100 0 0 0 0 0\ncpu0 1 0 1 7 1 0 0 0 0 0\n";
  state().files["/proc/meminfo"] =
      "MemTotal:         131072 kB\nMemFree:           32768 kB\n"
      "Buffers:             100 kB\nCached:            20000 kB\n";
}

void clear_os_file_records() {
  state().console.clear();
  state().console_modes.clear();
  state().shell.clear();
}

}  // namespace internal
}  // namespace fake
