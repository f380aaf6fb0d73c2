// SPDX-License-Identifier: Apache-2.0
//
// The saved configuration and the process id file.
//
// The file holds what the nodes' writers print, in the order of the nodes, and is read back as if
// an operator typed it in the configuration node. It may have been edited, restored from an archive
// or torn: it is read within bounds, and a line that is no command here costs itself only.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "platform/linux/fd.h"
#include "platform/linux/loop_internal.h"
#include "platform/linux/paths.h"
#include "platform/linux/process_lock.h"
#include "platform/linux/vty_internal.h"
#include "platform/log.h"

namespace morva::shell {
namespace {

constexpr char kConfigFile[] = "/var/conf/qel.conf";
constexpr mode_t kConfigMode = 0640;
constexpr mode_t kPidMode = 0644;
constexpr size_t kComplaintsMaximum = 10;  // lines of a bad file that are logged one by one
constexpr size_t kComplaintText = 80;      // bytes of such a line in the log

bool write_all(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t count = write(fd, text.data(), text.size());
    if (count < 0 && errno == EINTR) {
      continue;
    }
    if (count <= 0) {
      return false;
    }
    text.remove_prefix(static_cast<size_t>(count));
  }
  return true;
}

bool sync_folder_of(const std::string& path) {
  const size_t slash = path.rfind('/');
  const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
  UniqueFd fd(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return fd.valid() && fsync(fd.get()) == 0;
}

// Puts `text` in the place of the file at `path`: readers see the old file or the new one. The new
// one is first called `path` and ".tmp", so that it is not taken for a configuration file.
// `durable`: also a power cut leaves one of the two. Returns 0, or -1 with errno set.
int replace_file(const std::string& path, std::string_view text, mode_t mode, bool durable) {
  const std::string draft = path + ".tmp";
  unlink(draft.c_str());
  UniqueFd fd(open(draft.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, mode));
  if (!fd.valid()) {
    return -1;
  }
  const bool written = write_all(fd.get(), text) && (!durable || fsync(fd.get()) == 0);
  if (!written || rename(draft.c_str(), path.c_str()) != 0) {
    const int error = errno;
    unlink(draft.c_str());
    errno = error;
    return -1;
  }
  return !durable || sync_folder_of(path) ? 0 : -1;
}

std::string actual_path(const char* path) {
  char buffer[kMorvaPathSize];
  return morva_path(buffer, sizeof(buffer), path);
}

// The beginning of a line of the file, fit for the log.
std::string printable(std::string_view line) {
  std::string text(line.substr(0, kComplaintText));
  std::replace_if(
      text.begin(), text.end(), [](char c) { return c < 0x20 || c >= 0x7f; }, '.');
  return text;
}

// Runs one line in the file's node, or, when it is not of that node, in the configuration node.
// Empty lines and comments succeed without being counted.
bool apply_line(vty& file, std::string_view line, size_t& applied) {
  if (file.node != VTY_NODE_CONFIG &&
      match_line(node_find(file.node)->patterns, line).status != MatchStatus::kOk) {
    file.node = VTY_NODE_CONFIG;
  }
  const Node* node = node_find(file.node);
  if (node == nullptr) {
    return false;
  }
  const MatchResult match = match_line(node->patterns, line);
  if (match.status == MatchStatus::kEmpty) {
    return true;
  }
  if (match.status != MatchStatus::kOk || command_is_for_sessions(match.pattern->element)) {
    return false;
  }
  file.output.clear();  // nobody reads what a command says here
  const bool succeeded = session_execute(file, line);
  applied += succeeded ? 1 : 0;
  return succeeded;
}

int read_file(const std::string& path, std::string& text) {
  UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat status = {};
  if (!fd.valid() || fstat(fd.get(), &status) != 0) {
    return -1;
  }
  if (!S_ISREG(status.st_mode)) {
    errno = EINVAL;
    return -1;
  }
  char buffer[4096];
  while (text.size() < kConfigMaximum) {
    const ssize_t count = read(fd.get(), buffer, sizeof(buffer));
    if (count < 0 && errno == EINTR) {
      continue;
    }
    if (count < 0) {
      return -1;
    }
    if (count == 0) {
      return 0;
    }
    text.append(buffer, static_cast<size_t>(count));
  }
  zlog_err("vty: %s: only the first %zu bytes are read", path.c_str(), text.size());
  return 0;
}

void load_at_start() {
  config_load();
}

}  // namespace

bool config_compose(std::string& text) {
  vty file(SessionKind::kFile);
  file.node = VTY_NODE_CONFIG;
  file.output_maximum = kConfigMaximum;
  nodes_write_config(file);
  text = std::move(file.output);
  return !file.dropped;
}

size_t config_apply(std::string_view text) {
  vty file(SessionKind::kFile);
  file.node = VTY_NODE_CONFIG;
  size_t applied = 0;
  size_t skipped = 0;
  for (size_t number = 1; !text.empty(); number++) {
    const size_t end = std::min(text.find('\n'), text.size());
    std::string_view line = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    if (!line.empty() && line.back() == '\r') {
      line.remove_suffix(1);
    }
    if (number > kConfigLineMaximum) {
      zlog_err("vty: configuration: only the first %zu lines are read", kConfigLineMaximum);
      break;
    }
    if (line == "exit" || line == "end") {
      file.node = VTY_NODE_CONFIG;
      continue;
    }
    if (line.size() <= Editor::kMaximum && apply_line(file, line, applied)) {
      continue;
    }
    if (++skipped <= kComplaintsMaximum) {
      zlog_err("vty: configuration line %zu skipped: %s", number, printable(line).c_str());
    }
  }
  if (skipped > kComplaintsMaximum) {
    zlog_err("vty: configuration: %zu lines skipped", skipped);
  }
  return applied;
}

int config_load() {
  const std::string path = actual_path(kConfigFile);
  std::string text;
  if (read_file(path, text) != 0) {
    if (errno != ENOENT) {
      zlog_err("vty: %s: %s", path.c_str(), strerror(errno));
    }
    return -1;
  }
  config_apply(text);
  return 0;
}

}  // namespace morva::shell

int vty_config_write_file() {
  const std::string path = morva::shell::actual_path(morva::shell::kConfigFile);
  std::string text;
  if (!morva::shell::config_compose(text)) {
    zlog_err("vty: %s: the configuration is too long", path.c_str());
    return -1;
  }
  if (morva::shell::replace_file(path, text, morva::shell::kConfigMode, true) != 0) {
    zlog_err("vty: %s: %s", path.c_str(), strerror(errno));
    return -1;
  }
  return 0;
}

void host_init(unsigned /*protocols*/, int /*flags*/) {
  // The daemon is still starting, and sets its state to what a switch without configuration has.
  // The saved configuration is an operator's word against that, so it comes after, but before
  // anybody from outside is heard. There is one file for the one daemon, whatever set of daemons it
  // belongs to.
  loop_at_start(StartStep::kConfigure, morva::shell::load_at_start);
}

int pid_output(const char* path) {
  const pid_t pid = getpid();
  const std::string actual = morva::shell::actual_path(path);
  const std::string text = std::to_string(pid) + "\n";
  if (morva::shell::replace_file(actual, text, morva::shell::kPidMode, false) != 0) {
    zlog_err("%s: %s", actual.c_str(), strerror(errno));
    return -1;
  }
  process_lock_beat();  // the daemon that detached is another process than the one that began
  return pid;
}
