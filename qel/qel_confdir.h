// SPDX-License-Identifier: Apache-2.0
//
// The folder of the configuration files, /var/conf, and how a restored archive gets into it.
//
// Names in that folder become arguments of shell commands (`*.conf`), and what lies under them is
// written and read by the daemons. So nothing may stand there but regular files whose names are
// harmless. Two rules keep it so: an archive is unpacked aside, looked at whole, and taken as a
// whole or not at all; and the folder is swept of everything else at start, before each backup and
// after each restore.
//
// A restore goes through three own folders, each step one rename, so that a process that ends at
// any instruction leaves either the old files or work that the next start finishes:
//
//   .incoming    unpacking and looking; the next start removes it: the old files stay
//   .accepted    decided: old files that are not in it are being removed
//   .installing  its files are being moved into place; its removal ends the restore
#pragma once

#include <cstdint>

// Bounds of an archive, and so of what it may fill up.
inline constexpr int64_t kQelConfdirUnpackedMax = 4 * 1024 * 1024;  // bytes, tar headers included
inline constexpr int64_t kQelConfdirFileMax = 1024 * 1024;          // bytes of one file
inline constexpr uint32_t kQelConfdirFilesMax = 512;
inline constexpr uint32_t kQelConfdirNamesMax = 32 * 1024;  // bytes of all names, one a line

// What became of a replacement.
enum class qel_confdir_result {
  nothing,   // there was nothing to put in place; the files are as they were
  replaced,  // the new files are in place; qel_confdir_commit ends the restore
  failed,    // logged; the next start tries to finish what has begun
};

// Whether `name` is that of a configuration file: [A-Za-z0-9_][A-Za-z0-9._-]*.conf
bool qel_confdir_is_name(const char* name);

// Removes from /var/conf every entry that is no regular file with such a name, without following
// it, and logs each. Stay: the archives of a transfer, the own folders above, and regular files
// whose name begins with a dot: the platform keeps locks under such names, and `*.conf` passes over
// them.
void qel_confdir_sweep();

// Removes the archive at `path` (one of the two of a transfer), whatever stands under that name.
void qel_confdir_remove_archive(const char* path);

// Unpacks /var/conf/downlconf.tar.gz aside and looks at what comes out. Returns true when it may be
// put in place: at least one entry, each a regular file with one name that its owner may read,
// without setuid, setgid or sticky bit, under the name of a configuration file, all within the
// bounds. Otherwise false: one log line names the entry or the reason, nothing of it is left, and
// the files are as they were.
bool qel_confdir_unpack();

// Puts what qel_confdir_unpack accepted in the place of all present files, with mode 0640.
qel_confdir_result qel_confdir_replace();

// Ends the restore after the new files were stored in flash: nothing is left to finish. Returns
// false (logged) when that cannot be stored, and the next start finishes the restore once more.
bool qel_confdir_commit();

// For the start: removes what was not decided, and finishes a replacement that an earlier process
// began. Results as qel_confdir_replace.
qel_confdir_result qel_confdir_recover();
