// SPDX-License-Identifier: Apache-2.0
#include "qel/qel_confdir.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "platform/log.h"
#include "qel/qel_os.h"
#include "qel/qel_shell.h"

namespace {

// With the closing "/.", so that the folder may be a link to where the configuration is kept.
constexpr char kFolder[] = "/var/conf/.";
constexpr char kIncoming[] = "/var/conf/.incoming";
constexpr char kIncomingFiles[] = "/var/conf/.incoming/files";
constexpr char kIncomingNames[] = "/var/conf/.incoming/names";
constexpr char kAccepted[] = "/var/conf/.accepted";
constexpr char kInstalling[] = "/var/conf/.installing";
constexpr char kRemoved[] = "/var/conf/.removed";

constexpr std::string_view kArchives[] = {"getconf.tar.gz", "downlconf.tar.gz"};
constexpr std::string_view kOwnFolders[] = {".incoming", ".accepted", ".installing"};

constexpr size_t kPathSize = 320;  // the longest folder here and a name of 255 bytes
constexpr unsigned kPrivate = 0700;
constexpr unsigned kFileMode = 0640;  // of each restored file, whatever the archive says
constexpr int kPasses = 8;            // a folder that loses names while it is read is read again

// Each command bounds every file that it writes: 8192 blocks of 512 bytes. The archive comes to tar
// as its standard input, so that tar never guesses a second compression.
constexpr char kExpand[] =
    "cd /var/conf/.incoming && ulimit -f 8192 && gzip -dc <../downlconf.tar.gz >archive && "
    "tar -tf - <archive >names";
// Files of the archive become root's own: no right to give files away is needed.
constexpr char kUnpack[] =
    "cd /var/conf/.incoming/files && ulimit -f 8192 && tar -xof - <../archive";

struct path_text {
  char text[kPathSize];
};

// "folder/name"; empty when that is too long, and then names nothing.
path_text path_of(const char* folder, const char* name) {
  path_text path = {};
  const int length = std::snprintf(path.text, sizeof path.text, "%s/%s", folder, name);
  if (length < 0 || static_cast<size_t>(length) >= sizeof path.text) {
    path.text[0] = '\0';
  }
  return path;
}

template <size_t Count>
bool is_one_of(const std::string_view (&list)[Count], std::string_view name) {
  for (const std::string_view each : list) {
    if (each == name) {
      return true;
    }
  }
  return false;
}

// A name from outside as it may stand in a log line: printable, and not endless.
struct shown_name {
  char text[64];
};

shown_name shown(const char* name) {
  constexpr unsigned char kFirstPrintable = 0x20;
  constexpr unsigned char kLastPrintable = 0x7e;
  shown_name out = {};
  for (size_t i = 0; i + 1 < sizeof out.text && name[i] != '\0'; ++i) {
    const auto byte = static_cast<unsigned char>(name[i]);
    const bool plain = byte >= kFirstPrintable && byte <= kLastPrintable;
    out.text[i] = plain ? name[i] : '?';
  }
  return out;
}

bool refuse(const char* name, const char* reason) {
  zlog_err("configuration archive refused: entry \"%s\": %s", shown(name).text, reason);
  return false;
}

bool refuse(const char* reason) {
  zlog_err("configuration archive refused: %s", reason);
  return false;
}

bool is_folder(const char* path) {
  qel_os_entry entry = {};
  return qel_os_lstat(path, &entry) == 0 && S_ISDIR(entry.mode);
}

bool is_there(const char* path) {
  qel_os_entry entry = {};
  return qel_os_lstat(path, &entry) == 0;
}

// Removes the folder kRemoved. A folder that forbids it to its owner is allowed first: the agent
// may run without the right to pass over permissions.
bool remove_removed() {
  qel_shell_run("rm -rf -- /var/conf/.removed");
  if (is_there(kRemoved)) {
    qel_shell_run("chmod -R u+rwX -- /var/conf/.removed");
    qel_shell_run("rm -rf -- /var/conf/.removed");
  }
  return !is_there(kRemoved);
}

// Removes whatever stands at `path`. A folder gets a name of ours before a shell sees it. Returns
// false, with errno set, when it is still there.
bool remove_any(const char* path) {
  if (qel_os_unlink(path) == 0) {
    return true;
  }
  const int error = errno;
  if (!is_there(path)) {
    return true;
  }
  errno = error;
  if (!is_folder(path)) {
    return false;
  }
  const bool own = std::strcmp(path, kRemoved) == 0;
  if (!own && (!remove_any(kRemoved) || qel_os_rename(path, kRemoved) != 0)) {
    return false;
  }
  return remove_removed();
}

void remove_if_there(const char* path) {
  if (is_there(path)) {
    remove_any(path);
  }
}

// ---------------------------------------------------------------------------------------------
// Sweeping

struct sweep_state {
  int removed;
};

bool may_stay(const char* name, const qel_os_entry& entry) {
  if (S_ISREG(entry.mode)) {
    return qel_confdir_is_name(name) || name[0] == '.' || is_one_of(kArchives, name);
  }
  return is_one_of(kOwnFolders, name) && S_ISDIR(entry.mode);
}

bool sweep_entry(const char* name, void* context) {
  auto* state = static_cast<sweep_state*>(context);
  const path_text path = path_of("/var/conf", name);
  qel_os_entry entry = {};
  if (qel_os_lstat(path.text, &entry) != 0 || may_stay(name, entry)) {
    return true;
  }
  if (remove_any(path.text)) {
    ++state->removed;
    zlog_err("/var/conf: \"%s\" is no configuration file, removed", shown(name).text);
  } else {
    zlog_err("/var/conf: \"%s\" is no configuration file and cannot be removed", shown(name).text);
  }
  return true;
}

// ---------------------------------------------------------------------------------------------
// Looking at what was unpacked

// A member name as tar lists it, without one leading "./".
const char* plain_member(const char* line) {
  return std::strncmp(line, "./", 2) == 0 ? line + 2 : line;
}

// Tar must never be led by a link that the same archive made, so every member name has to be a
// plain file name that comes once. `names` holds a name a line and is cut up here.
bool members_are_plain(char* names) {
  const char* seen[kQelConfdirFilesMax];
  uint32_t count = 0;
  char* rest = names;
  for (char* line = strsep(&rest, "\n"); line != nullptr; line = strsep(&rest, "\n")) {
    if (line[0] == '\0') {
      continue;  // behind the last line end
    }
    // The folder itself ("./") is refused as well: tar would give it the permissions of the
    // archive.
    const char* name = plain_member(line);
    if (!qel_confdir_is_name(name)) {
      return refuse(line, "expected the name of a .conf file");
    }
    for (uint32_t i = 0; i < count; ++i) {
      if (std::strcmp(seen[i], name) == 0) {
        return refuse(name, "comes more than once");
      }
    }
    if (count == kQelConfdirFilesMax) {
      return refuse("it has more than 512 entries");
    }
    seen[count++] = name;
  }
  return true;
}

bool names_are_plain() {
  std::FILE* file = qel_os_fopen(kIncomingNames, "r");
  if (file == nullptr) {
    return refuse("its names cannot be read");
  }
  auto* names = static_cast<char*>(std::calloc(1, kQelConfdirNamesMax + 1));
  bool good = false;
  if (names == nullptr) {
    refuse("memory is short");
  } else if (const size_t length = std::fread(names, 1, kQelConfdirNamesMax + 1, file);
             length > kQelConfdirNamesMax) {
    refuse("its names have more than 32 KiB");
  } else if (std::ferror(file) != 0) {
    refuse("its names cannot be read");
  } else {
    good = std::memchr(names, '\0', length) == nullptr ? members_are_plain(names)
                                                       : refuse("a name holds a NUL");
  }
  std::free(names);
  std::fclose(file);
  return good;
}

struct look_state {
  const char* folder;
  uint32_t files;
  int64_t bytes;
  bool good;
};

// Why an entry that was unpacked does not count; null when it does.
const char* fault_of(const char* name, const qel_os_entry& entry) {
  if (!S_ISREG(entry.mode)) {
    return "expected a regular file";
  }
  if (entry.links != 1) {
    return "expected a file with one name";
  }
  if ((entry.mode & (S_ISUID | S_ISGID | S_ISVTX)) != 0) {
    return "expected no setuid, setgid or sticky bit";
  }
  if ((entry.mode & S_IRUSR) == 0) {
    return "expected a file that its owner may read";
  }
  return qel_confdir_is_name(name) ? nullptr : "expected the name of a .conf file";
}

bool look_at_entry(const char* name, void* context) {
  auto* state = static_cast<look_state*>(context);
  const path_text path = path_of(state->folder, name);
  qel_os_entry entry = {};
  if (qel_os_lstat(path.text, &entry) != 0) {
    state->good = refuse(name, "cannot be looked at");
    return false;
  }
  if (const char* fault = fault_of(name, entry); fault != nullptr) {
    state->good = refuse(name, fault);
    return false;
  }
  ++state->files;
  if (entry.size > kQelConfdirFileMax) {
    state->good = refuse(name, "more than 1 MiB");
    return false;
  }
  if (entry.size < 0 || entry.size > kQelConfdirUnpackedMax - state->bytes) {
    state->good = refuse(name, "more than 4 MiB in all");
    return false;
  }
  state->bytes += entry.size;
  return true;
}

bool folder_counts(const char* folder) {
  look_state state = {.folder = folder, .files = 0, .bytes = 0, .good = true};
  if (qel_os_list(folder, look_at_entry, &state) != 0) {
    return refuse("what was unpacked cannot be read");
  }
  return state.good && (state.files > 0 || refuse("it holds no file"));
}

bool make_incoming() {
  return remove_any(kIncoming) && qel_os_mkdir(kIncoming, kPrivate) == 0 &&
         qel_os_mkdir(kIncomingFiles, kPrivate) == 0;
}

bool expand_and_look() {
  if (!make_incoming()) {
    return refuse("there is no folder to unpack it in");
  }
  if (qel_shell_run(kExpand) != 0) {
    return refuse("expected a gzip'd tar archive of at most 4 MiB");
  }
  if (!names_are_plain()) {
    return false;
  }
  if (qel_shell_run(kUnpack) != 0) {
    return refuse("it cannot be unpacked");
  }
  return folder_counts(kIncomingFiles);
}

// ---------------------------------------------------------------------------------------------
// Putting files in place

bool failed(const char* what) {
  zlog_err("restore: %s: %s", what, std::strerror(errno));
  return false;
}

struct step_state {
  bool good;
  int changed;
};

// Removes an old file that the new configuration does not have. One that it has is replaced by
// rename later, so that it is never missing.
bool remove_old(const char* name, void* context) {
  auto* state = static_cast<step_state*>(context);
  qel_os_entry entry = {};
  if (!qel_confdir_is_name(name) || qel_os_lstat(path_of(kAccepted, name).text, &entry) == 0) {
    return true;
  }
  ++state->changed;
  if (!remove_any(path_of("/var/conf", name).text)) {
    state->good = failed("an old file cannot be removed");
  }
  return true;
}

// Moves a new file into place. What is no configuration file cannot come this way; looked at again,
// since the folder's name is all that a start knows of it.
bool install(const char* name, void* context) {
  auto* state = static_cast<step_state*>(context);
  const path_text from = path_of(kInstalling, name);
  qel_os_entry entry = {};
  if (qel_os_lstat(from.text, &entry) != 0 || fault_of(name, entry) != nullptr) {
    return true;
  }
  ++state->changed;
  if (qel_os_chmod(from.text, kFileMode) != 0 ||
      qel_os_rename(from.text, path_of("/var/conf", name).text) != 0) {
    state->good = failed("a new file cannot be put in place");
  }
  return true;
}

// Does `step` with each name in the folder, until a pass finds nothing to do.
bool walk(const char* folder, qel_os_visit step) {
  for (int pass = 0; pass < kPasses; ++pass) {
    step_state state = {.good = true, .changed = 0};
    if (qel_os_list(folder, step, &state) != 0) {
      return failed("a folder cannot be read");
    }
    if (!state.good || state.changed == 0) {
      return state.good;
    }
  }
  return true;
}

bool finish_installing() {
  return walk(kInstalling, install);
}

bool finish_accepted() {
  if (!walk(kFolder, remove_old)) {
    return false;
  }
  if (qel_os_rename(kAccepted, kInstalling) != 0) {
    return failed("the new files cannot be put in place");
  }
  return finish_installing();
}

qel_confdir_result result_of(bool good) {
  return good ? qel_confdir_result::replaced : qel_confdir_result::failed;
}

}  // namespace

bool qel_confdir_is_name(const char* name) {
  static constexpr char kLetters[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_.-";
  constexpr std::string_view kEnding = ".conf";
  const std::string_view text(name);
  return text.size() > kEnding.size() && text.ends_with(kEnding) && text[0] != '.' &&
         text[0] != '-' && text.find_first_not_of(kLetters) == std::string_view::npos;
}

void qel_confdir_sweep() {
  for (int pass = 0; pass < kPasses; ++pass) {
    sweep_state state = {};
    if (qel_os_list(kFolder, sweep_entry, &state) != 0 || state.removed == 0) {
      return;
    }
  }
}

void qel_confdir_remove_archive(const char* path) {
  if (!remove_any(path)) {
    zlog_err("%s cannot be removed: %s", path, std::strerror(errno));
  }
}

bool qel_confdir_unpack() {
  if (expand_and_look()) {
    return true;
  }
  remove_any(kIncoming);
  return false;
}

qel_confdir_result qel_confdir_replace() {
  if (!is_folder(kIncomingFiles)) {
    return qel_confdir_result::nothing;
  }
  qel_confdir_sweep();
  // What an earlier restore could not finish is over: this one decides.
  if (!remove_any(kAccepted) || !remove_any(kInstalling) ||
      qel_os_rename(kIncomingFiles, kAccepted) != 0) {
    failed("the new files cannot be put in place");
    remove_any(kIncoming);
    return qel_confdir_result::failed;
  }
  const bool good = finish_accepted();
  remove_any(kIncoming);
  return result_of(good);
}

bool qel_confdir_commit() {
  return qel_os_rmdir(kInstalling) == 0 || remove_any(kInstalling) ||
         failed("the end of the restore cannot be stored");
}

qel_confdir_result qel_confdir_recover() {
  remove_if_there(kIncoming);
  remove_if_there(kRemoved);
  if (is_folder(kInstalling)) {
    remove_if_there(kAccepted);  // a restore has one of the two: this one is not its own
    return result_of(finish_installing());
  }
  if (!is_folder(kAccepted)) {
    return qel_confdir_result::nothing;
  }
  if (!folder_counts(kAccepted)) {
    remove_any(kAccepted);
    return qel_confdir_result::nothing;
  }
  return result_of(finish_accepted());
}
