// SPDX-License-Identifier: Apache-2.0
//
// The folder of the configuration files: what may stand in it, what an archive may hold, and that a
// restore that ends at any step leaves the old files or the new ones, never some of both.
#include "qel/qel_confdir.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

#include "qel/qel_api.h"
#include "qel/qel_os.h"
#include "qel/qel_restart.h"
#include "tests/unit/archive.h"
#include "tests/unit/support.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr char kFolder[] = "/var/conf";
constexpr uint32_t kLink = 0120777;
constexpr uint32_t kFifo = 010600;
constexpr uint32_t kDirectory = 040755;

class ConfdirTest : public AgentTest {
 protected:
  // The one line that says why an archive was refused.
  static std::string refusal() {
    EXPECT_EQ(fake::log_lines().size(), 1U);
    return fake::log_lines().empty() ? "" : fake::log_lines().front();
  }

  // An archive of these members is refused, with that log line, and leaves everything as it was.
  static void expect_refused(const Archive& archive, const std::string& line) {
    fake::reset();
    fake::set_file("/var/conf/old.conf", "old");
    archive_gives(archive);
    EXPECT_FALSE(qel_confdir_unpack());
    EXPECT_EQ(refusal(), "err: configuration archive refused: " + line);
    EXPECT_THAT(fake::entries(kFolder), ElementsAre("/var/conf/", "/var/conf/old.conf"));
    EXPECT_EQ(qel_confdir_replace(), qel_confdir_result::nothing);
  }
};

TEST_F(ConfdirTest, NamesOfConfigurationFiles) {
  for (const char* name : {"a.conf", "A.conf", "0.conf", "_.conf", "nvram.conf", "a-b_c.d.conf",
                           "a..conf", "conf.conf"}) {
    EXPECT_TRUE(qel_confdir_is_name(name)) << name;
  }
  for (const char* name :
       {"",          ".conf",         "-x.conf",   "--checkpoint-action=exec=sh e.conf",
        ".a.conf",   "a.conf ",       "a b.conf",  "a/b.conf",
        "../a.conf", "a.Conf",        "aconf",     "a.conf\n",
        "\n.conf",   "a;b.conf",      "a*.conf",   "a\"b.conf",
        "a\\b.conf", "\xc3\xa9.conf", "a.conf.gz", "$x.conf",
        "~a.conf"}) {
    EXPECT_FALSE(qel_confdir_is_name(name)) << name;
  }
}

// ---- sweeping
// ------------------------------------------------------------------------------------

TEST_F(ConfdirTest, SweepRemovesWhatIsNoConfigurationFile) {
  fake::set_file("/var/conf/nvram.conf", "kept");
  fake::set_file("/var/conf/--checkpoint-action=exec=sh e.conf", "");
  fake::set_file("/var/conf/-x.conf", "");
  fake::set_file("/var/conf/notes", "");
  fake::set_entry("/var/conf/link.conf", {.mode = kLink});
  fake::set_entry("/var/conf/fifo.conf", {.mode = kFifo});
  fake::set_file("/var/conf/d.conf/deep/file", "");
  fake::set_entry("/var/conf/.hidden", {.mode = kLink});
  qel_confdir_sweep();
  EXPECT_THAT(fake::entries(kFolder), ElementsAre("/var/conf/", "/var/conf/nvram.conf"));
  EXPECT_THAT(fake::log_lines(),
              Contains("err: /var/conf: \"--checkpoint-action=exec=sh e.conf\" is no configuration "
                       "file, removed"));
  EXPECT_THAT(fake::log_lines(), testing::SizeIs(7));
  // A name from outside never gets to a shell.
  EXPECT_THAT(fake::shell_commands(), ElementsAre("rm -rf -- /var/conf/.removed"));
}

TEST_F(ConfdirTest, SweepKeepsArchivesOwnFoldersAndHiddenFiles) {
  for (const char* path : {"/var/conf/getconf.tar.gz", "/var/conf/downlconf.tar.gz",
                           "/var/conf/.nvram.lock", "/var/conf/.installing/a.conf"}) {
    fake::set_file(path, "");
  }
  const auto before = fake::entries(kFolder);
  qel_confdir_sweep();
  EXPECT_EQ(fake::entries(kFolder), before);
  EXPECT_THAT(fake::log_lines(), IsEmpty());
}

TEST_F(ConfdirTest, SweepDoesNotFollowALinkUnderAnArchivesOrAnOwnName) {
  for (const char* path :
       {"/var/conf/getconf.tar.gz", "/var/conf/downlconf.tar.gz", "/var/conf/.accepted"}) {
    fake::set_entry(path, {.mode = kLink});
  }
  qel_confdir_sweep();
  EXPECT_THAT(fake::entries(kFolder), ElementsAre("/var/conf/"));
}

TEST_F(ConfdirTest, NameInALogLineIsPrintableAndCut) {
  fake::set_file("/var/conf/\x1b[2J\n" + std::string(100, 'x'), "");
  qel_confdir_sweep();
  EXPECT_THAT(fake::log_lines(), ElementsAre("err: /var/conf: \"?[2J?" + std::string(58, 'x') +
                                             "\" is no configuration file, removed"));
}

TEST_F(ConfdirTest, EntryThatCannotBeRemovedIsLoggedOnce) {
  fake::set_file("/var/conf/notes", "");
  fake::fail_os("unlink /var/conf/notes", EROFS);
  qel_confdir_sweep();
  EXPECT_THAT(
      fake::log_lines(),
      ElementsAre("err: /var/conf: \"notes\" is no configuration file and cannot be removed"));
}

TEST_F(ConfdirTest, ArchiveIsRemovedWhateverStandsThere) {
  for (const uint32_t mode : {0100640U, kLink, kFifo, kDirectory}) {
    fake::set_entry("/var/conf/getconf.tar.gz", {.mode = mode});
    if (mode == kDirectory) {
      fake::set_file("/var/conf/getconf.tar.gz/inside", "");
    }
    qel_confdir_remove_archive("/var/conf/getconf.tar.gz");
    EXPECT_THAT(fake::entries(kFolder), ElementsAre("/var/conf/")) << mode;
  }
}

// ---- looking at an archive
// -----------------------------------------------------------------------

TEST_F(ConfdirTest, ArchiveOfPlainFilesIsAcceptedAside) {
  fake::set_file("/var/conf/old.conf", "old");
  archive_gives({.members = {{"a.conf", "1"}, {"b.conf", "2"}}});
  EXPECT_TRUE(qel_confdir_unpack());
  EXPECT_THAT(fake::log_lines(), IsEmpty());
  EXPECT_THAT(fake::calls_of({"mkdir"}), ElementsAre("mkdir(/var/conf/.incoming, 700)",
                                                     "mkdir(/var/conf/.incoming/files, 700)"));
  EXPECT_FALSE(fake::file("/var/conf/a.conf").has_value());
  EXPECT_EQ(fake::file("/var/conf/old.conf"), "old");
}

TEST_F(ConfdirTest, NamesBelowTheFolderItselfAreAccepted) {
  archive_gives({.members = {{"a.conf"}}, .list = "./a.conf\n"});
  EXPECT_TRUE(qel_confdir_unpack());
}

TEST_F(ConfdirTest, WhatIsNoArchiveIsRefused) {
  expect_refused({.expand_status = 1}, "expected a gzip'd tar archive of at most 4 MiB");
  expect_refused({.members = {{"a.conf"}}, .unpack_status = 2}, "it cannot be unpacked");
  expect_refused({}, "it holds no file");
}

TEST_F(ConfdirTest, MemberNameThatIsNoPlainFileIsRefusedBeforeUnpacking) {
  for (const char* name :
       {"--checkpoint-action=exec=sh e.conf", "-x.conf", "d.conf/", "../up.conf", "/etc/passwd",
        "a/b.conf", "getconf.tar.gz", ".nvram.lock", "./../x.conf", "./", "././a.conf", "."}) {
    expect_refused({.members = {{"good.conf"}}, .list = std::string("good.conf\n") + name + "\n"},
                   "entry \"" + std::string(name) + "\": expected the name of a .conf file");
    EXPECT_THAT(fake::shell_commands(), Not(Contains(kUnpackCommand)));
  }
}

TEST_F(ConfdirTest, MemberThatComesTwiceIsRefusedBeforeUnpacking) {
  expect_refused({.list = "a.conf\nb.conf\n./a.conf\n"}, "entry \"a.conf\": comes more than once");
  EXPECT_THAT(fake::shell_commands(), Not(Contains(kUnpackCommand)));
}

TEST_F(ConfdirTest, EntryThatIsNoPlainFileIsRefused) {
  const struct {
    fake::FileEntry entry;
    const char* reason;
  } cases[] = {
      {{.mode = kLink}, "expected a regular file"},
      {{.mode = kFifo}, "expected a regular file"},
      {{.mode = kDirectory}, "expected a regular file"},
      {{.mode = 020600}, "expected a regular file"},
      {{.mode = 0100640, .links = 2}, "expected a file with one name"},
      {{.mode = 0104640}, "expected no setuid, setgid or sticky bit"},
      {{.mode = 0102640}, "expected no setuid, setgid or sticky bit"},
      {{.mode = 0101640}, "expected no setuid, setgid or sticky bit"},
      {{.mode = 0100040}, "expected a file that its owner may read"},
  };
  for (const auto& each : cases) {
    expect_refused({.members = {{"good.conf"}, {"odd.conf", "", each.entry}}},
                   std::string("entry \"odd.conf\": ") + each.reason);
  }
}

TEST_F(ConfdirTest, EntryWhoseNameTheListHidIsRefused) {
  // A tar that prints a line end raw shows one name as two.
  expect_refused({.members = {{"a.conf\nb.conf"}}},
                 "entry \"a.conf?b.conf\": expected the name of a .conf file");
}

TEST_F(ConfdirTest, FilesUpToOneMebibyteAndFourInAllAreAccepted) {
  constexpr int64_t kMebibyte = 1048576;
  const auto archive_of_sizes = [](std::initializer_list<int64_t> sizes) {
    Archive archive;
    char name = 'a';
    for (const int64_t size : sizes) {
      archive.members.push_back(
          {std::string(1, name++) + ".conf", "", {.mode = 0100600, .size = size}});
    }
    return archive;
  };
  archive_gives(archive_of_sizes({kMebibyte, kMebibyte, kMebibyte, kMebibyte}));
  EXPECT_TRUE(qel_confdir_unpack());
  expect_refused(archive_of_sizes({kMebibyte, kMebibyte, kMebibyte, kMebibyte, 1}),
                 "entry \"e.conf\": more than 4 MiB in all");
  expect_refused(archive_of_sizes({kMebibyte + 1}), "entry \"a.conf\": more than 1 MiB");
  expect_refused(archive_of_sizes({INT64_MAX}), "entry \"a.conf\": more than 1 MiB");
}

TEST_F(ConfdirTest, FiveHundredAndTwelveFilesAreAcceptedAndOneMoreIsNot) {
  Archive archive;
  for (int i = 0; i < 512; ++i) {
    archive.members.push_back({"f" + std::to_string(i) + ".conf"});
  }
  archive_gives(archive);
  EXPECT_TRUE(qel_confdir_unpack());
  archive.members.push_back({"more.conf"});
  expect_refused(archive, "it has more than 512 entries");
}

TEST_F(ConfdirTest, ListOfNamesThatIsTooLongOrHoldsANulIsRefused) {
  expect_refused({.list = std::string(32769, '\n')}, "its names have more than 32 KiB");
  expect_refused({.list = std::string(32768, '\n')}, "it holds no file");
  expect_refused({.list = bytes("a.conf\0/etc/passwd\n")}, "a name holds a NUL");
}

TEST_F(ConfdirTest, FolderThatCannotBeMadeRefusesTheArchive) {
  fake::fail_os("mkdir", ENOSPC);
  EXPECT_FALSE(qel_confdir_unpack());
  EXPECT_EQ(refusal(), "err: configuration archive refused: there is no folder to unpack it in");
}

TEST_F(ConfdirTest, UnpackingBeginsWithAFreshFolderWhateverStoodThere) {
  for (const uint32_t mode : {0100640U, kLink, kFifo, kDirectory}) {
    fake::reset();
    fake::set_entry("/var/conf/.incoming", {.mode = mode});
    if (mode == kDirectory) {
      fake::set_entry("/var/conf/.incoming/files/evil.conf", {.mode = kLink});
    }
    archive_gives({.members = {{"a.conf"}}});
    EXPECT_TRUE(qel_confdir_unpack()) << mode;
    EXPECT_THAT(fake::entries("/var/conf/.incoming/files"),
                ElementsAre("/var/conf/.incoming/files/", "/var/conf/.incoming/files/a.conf"));
  }
}

// ---- putting files in place
// ----------------------------------------------------------------------

TEST_F(ConfdirTest, NewFilesTakeThePlaceOfAllOldOnes) {
  fake::set_file("/var/conf/both.conf", "old");
  fake::set_file("/var/conf/gone.conf", "old");
  fake::set_file("/var/conf/.nvram.lock", "");
  archive_gives({.members = {{"both.conf"}, {"added.conf"}}});
  ASSERT_TRUE(qel_confdir_unpack());
  EXPECT_EQ(qel_confdir_replace(), qel_confdir_result::replaced);
  EXPECT_EQ(fake::file("/var/conf/both.conf"), "new");
  EXPECT_EQ(fake::file("/var/conf/added.conf"), "new");
  EXPECT_FALSE(fake::file("/var/conf/gone.conf").has_value());
  qel_confdir_commit();
  EXPECT_THAT(fake::entries(kFolder), ElementsAre("/var/conf/", "/var/conf/.nvram.lock",
                                                  "/var/conf/added.conf", "/var/conf/both.conf"));
  EXPECT_EQ(qel_confdir_recover(), qel_confdir_result::nothing);
}

TEST_F(ConfdirTest, NewFilesGetModesOfTheirOwn) {
  archive_gives(
      {.members = {{"open.conf", "", {.mode = 0100666}}, {"shut.conf", "", {.mode = 0100400}}}});
  ASSERT_TRUE(qel_confdir_unpack());
  EXPECT_EQ(qel_confdir_replace(), qel_confdir_result::replaced);
  for (const char* path : {"/var/conf/open.conf", "/var/conf/shut.conf"}) {
    qel_os_entry entry = {};
    ASSERT_EQ(qel_os_lstat(path, &entry), 0);
    EXPECT_EQ(entry.mode, 0100640U) << path;
  }
}

TEST_F(ConfdirTest, FolderThatForbidsItsRemovalIsAllowedFirst) {
  fake::set_file("/var/conf/d.conf/file", "");
  bool forbids = true;
  fake::on_shell([&forbids](const std::string& command) {
    if (command == "chmod -R u+rwX -- /var/conf/.removed") {
      forbids = false;
    }
    return forbids ? 1 : 0;
  });
  qel_confdir_sweep();
  EXPECT_THAT(fake::entries(kFolder), ElementsAre("/var/conf/"));
  EXPECT_THAT(fake::shell_commands(),
              ElementsAre("rm -rf -- /var/conf/.removed", "chmod -R u+rwX -- /var/conf/.removed",
                          "rm -rf -- /var/conf/.removed"));
}

TEST_F(ConfdirTest, ReplacementIsNotKeptUpByWhatIsNoFile) {
  fake::set_file("/var/conf/d.conf/file", "");
  fake::set_file("/var/conf/new.conf/file", "");  // where the new file goes
  archive_gives({.members = {{"new.conf"}}});
  ASSERT_TRUE(qel_confdir_unpack());
  EXPECT_EQ(qel_confdir_replace(), qel_confdir_result::replaced);
  qel_confdir_commit();
  EXPECT_THAT(fake::entries(kFolder), ElementsAre("/var/conf/", "/var/conf/new.conf"));
}

TEST_F(ConfdirTest, DecisionThatCannotBeStoredChangesNothing) {
  fake::set_file("/var/conf/old.conf", "old");
  archive_gives({.members = {{"new.conf"}}});
  ASSERT_TRUE(qel_confdir_unpack());
  fake::fail_os("rename /var/conf/.incoming/files", EROFS);
  EXPECT_EQ(qel_confdir_replace(), qel_confdir_result::failed);
  EXPECT_THAT(fake::log_lines(), ElementsAre("err: restore: the new files cannot be put in place: "
                                             "Read-only file system"));
  EXPECT_THAT(fake::entries(kFolder), ElementsAre("/var/conf/", "/var/conf/old.conf"));
}

TEST_F(ConfdirTest, FileThatCannotBeMovedIsFinishedByTheNextStart) {
  archive_gives({.members = {{"a.conf"}, {"b.conf"}}});
  ASSERT_TRUE(qel_confdir_unpack());
  fake::fail_os("rename /var/conf/.installing/b.conf", EIO, 0, 1);
  EXPECT_EQ(qel_confdir_replace(), qel_confdir_result::failed);
  EXPECT_FALSE(fake::file("/var/conf/b.conf").has_value());
  EXPECT_EQ(qel_confdir_recover(), qel_confdir_result::replaced);
  EXPECT_EQ(fake::file("/var/conf/a.conf"), "new");
  EXPECT_EQ(fake::file("/var/conf/b.conf"), "new");
}

TEST_F(ConfdirTest, FoldersThatNobodyDecidedOnInstallNothing) {
  // As an archive could have left them before archives were unpacked aside.
  fake::set_file("/var/conf/old.conf", "old");
  fake::set_entry("/var/conf/.accepted/evil.conf", {.mode = kLink});
  EXPECT_EQ(qel_confdir_recover(), qel_confdir_result::nothing);
  EXPECT_THAT(fake::entries(kFolder), ElementsAre("/var/conf/", "/var/conf/old.conf"));
  fake::set_entry("/var/conf/.installing/evil.conf", {.mode = kLink});
  fake::set_file("/var/conf/.installing/-x.conf", "");
  qel_confdir_recover();
  qel_confdir_commit();
  EXPECT_THAT(fake::entries(kFolder), ElementsAre("/var/conf/", "/var/conf/old.conf"));
}

TEST_F(ConfdirTest, LinkUnderAnOwnNameIsNotFollowedByAStart) {
  for (const char* path : {"/var/conf/.incoming", "/var/conf/.accepted", "/var/conf/.installing",
                           "/var/conf/.removed"}) {
    fake::set_entry(path, {.mode = kLink});
  }
  qel_api_conf_init();
  EXPECT_THAT(fake::entries(kFolder), ElementsAre("/var/conf/"));
  EXPECT_THAT(fake::shell_commands(), IsEmpty());
}

// ---- at start
// ------------------------------------------------------------------------------------

TEST_F(ConfdirTest, StartRecoversFromEveryDeadEnd) {
  fake::set_file("/var/conf/nvram.conf", "kept");
  fake::set_file("/var/conf/--checkpoint-action=exec=sh e.conf", "");
  fake::set_file("/var/conf/d.conf/file", "");
  fake::set_file("/var/conf/downlconf.tar.gz/file", "");
  fake::set_entry("/var/conf/getconf.tar.gz", {.mode = kFifo});
  fake::set_file("/var/conf/.incoming/files/half.conf", "");
  qel_api_conf_init();
  EXPECT_THAT(fake::entries(kFolder), ElementsAre("/var/conf/", "/var/conf/nvram.conf"));
  EXPECT_EQ(fake::reboots(), 0);
}

TEST_F(ConfdirTest, StartFinishesAnInterruptedRestoreAndRestartsTheSwitchOnce) {
  fake::set_file("/var/conf/old.conf", "old");
  fake::set_file("/var/conf/.accepted/new.conf", "new");
  qel_api_conf_init();
  EXPECT_THAT(fake::entries(kFolder), ElementsAre("/var/conf/", "/var/conf/new.conf"));
  EXPECT_EQ(fake::shell_commands().back(), kFlashCommand);
  EXPECT_EQ(fake::reboots(), 1);
  EXPECT_TRUE(qel_restart_ordered());
  EXPECT_THAT(fake::log_lines(), Contains("notice: a restore that was interrupted is finished, the "
                                          "switch restarts"));
  g_qel_restart = {};
  qel_api_conf_init();
  EXPECT_EQ(fake::reboots(), 1);
}

TEST_F(ConfdirTest, RestoreThatAStartCannotFinishDoesNotRestartTheSwitch) {
  fake::set_file("/var/conf/.installing/new.conf", "new");
  fake::fail_os("rename", EROFS);
  qel_api_conf_init();
  EXPECT_EQ(fake::reboots(), 0);
  EXPECT_FALSE(qel_restart_ordered());
  EXPECT_THAT(fake::log_lines(), Contains(HasSubstr("err: restore: a new file cannot be put in")));
}

TEST_F(ConfdirTest, RestoreWhoseEndCannotBeStoredDoesNotRestartTheSwitch) {
  fake::set_entry("/var/conf/.installing", {.mode = kDirectory});
  fake::fail_os("rmdir", EROFS);
  fake::fail_os("rename", EROFS);
  qel_api_conf_init();
  EXPECT_EQ(fake::reboots(), 0);
  EXPECT_FALSE(qel_restart_ordered());
  EXPECT_THAT(fake::log_lines(), Contains("err: restore: the end of the restore cannot be stored: "
                                          "Read-only file system"));
}

TEST_F(ConfdirTest, AbsentArchiveOnAReadOnlyDiskIsNoFailure) {
  fake::fail_os("unlink", EROFS);
  qel_confdir_remove_archive("/var/conf/getconf.tar.gz");
  EXPECT_THAT(fake::log_lines(), IsEmpty());
}

TEST_F(ConfdirTest, RefusedRestartOfAStartIsLoggedAndTheAgentServes) {
  fake::set_entry("/var/conf/.installing", {.mode = kDirectory});
  fake::set_file("/var/conf/.installing/new.conf", "new");
  fake::fail_platform("sys_reboot");
  qel_api_conf_init();
  EXPECT_FALSE(qel_restart_ordered());
  EXPECT_THAT(fake::log_lines(),
              Contains("err: the switch refused to restart: the finished restore counts from its "
                       "next restart"));
}

// ---- killed at each step
// -------------------------------------------------------------------------

// A set of configuration files, by name.
using Files = std::vector<std::pair<std::string, std::string>>;

Files conf_files() {
  Files files;
  for (const std::string& path : fake::entries(kFolder)) {
    const std::string name = path.substr(sizeof kFolder);
    if (!name.empty() && name.find('/') == std::string::npos && name[0] != '.' &&
        name.ends_with(".conf")) {
      files.emplace_back(name, fake::file(path).value_or(""));
    }
  }
  return files;
}

struct KillCase {
  Files old_files;
  Files new_files;
};

class ConfdirKillTest : public ConfdirTest, public testing::WithParamInterface<KillCase> {
 protected:
  struct Killed {};

  // A restore of the new files over the old ones that ends before step number `step`, counted from
  // 1. Returns false when it has fewer steps.
  static bool restore_until(int step) {
    fake::reset();
    reset_agent();
    for (const auto& [name, bytes] : GetParam().old_files) {
      fake::set_file("/var/conf/" + name, bytes);
    }
    Archive archive;
    for (const auto& [name, bytes] : GetParam().new_files) {
      archive.members.push_back({name, bytes});
    }
    archive_gives(archive);
    fake::set_file("/var/conf/downlconf.tar.gz", "archive");
    return !run_until(step, [] {
      if (qel_api_download_unpack()) {
        qel_api_update_down_config(1);
      }
    });
  }

  // Runs `action` up to its step number `step`, as a process that is killed there. Returns whether
  // it came to its end. What the process wrote is in the fake's files: the child hands them back.
  static bool run_until(int step, const std::function<void()>& action);
};

// A process of its own, so that nothing of its memory survives, as with SIGKILL. Its files come
// back through a pipe as "path NUL mode NUL length NUL bytes".
bool ConfdirKillTest::run_until(int step, const std::function<void()>& action) {
  int ends[2];
  EXPECT_EQ(pipe(ends), 0);
  const pid_t child = fork();
  if (child == 0) {
    close(ends[0]);
    const auto tell = [&ends](int status) {
      std::string text;
      for (std::string path : fake::entries(kFolder)) {
        const bool folder = path.ends_with('/');
        path.resize(path.size() - (folder ? 1 : 0));
        const std::string bytes = fake::file(path).value_or("");
        text += path + '\0' + (folder ? 'd' : 'f') + bytes + '\0';
      }
      const bool told =
          write(ends[1], text.data(), text.size()) == static_cast<ssize_t>(text.size());
      _exit(told ? status : 2);
    };
    int left = step;
    fake::on_file_step([&] {
      if (--left == 0) {
        tell(1);
      }
    });
    action();
    tell(0);
  }
  close(ends[1]);
  std::string text;
  char part[4096];
  for (ssize_t got = read(ends[0], part, sizeof part); got > 0;
       got = read(ends[0], part, sizeof part)) {
    text.append(part, static_cast<size_t>(got));
  }
  close(ends[0]);
  int status = 0;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) < 2) << status;
  fake::remove_tree(kFolder);
  fake::set_entry(kFolder, {.mode = kDirectory});
  while (!text.empty()) {
    const std::string path = text.substr(0, text.find('\0'));
    text.erase(0, path.size() + 1);
    const std::string body = text.substr(0, text.find('\0'));
    text.erase(0, body.size() + 1);
    if (body[0] == 'd') {
      fake::set_entry(path, {.mode = 040700});
    } else {
      fake::set_file(path, body.substr(1));
    }
  }
  return WEXITSTATUS(status) == 0;
}

TEST_P(ConfdirKillTest, KilledAtEachStepTheFilesAreWhollyOldOrWhollyNew) {
  int kills = 0;
  bool was_new = false;
  for (int step = 1; restore_until(step); ++step) {
    ++kills;
    // Two starts that are killed, too, at one of their steps, and then one that is not.
    for (const int steps : {4, 8}) {
      kills += run_until(1 + step % steps, [] { qel_api_conf_init(); }) ? 0 : 1;
    }
    reset_agent();
    qel_api_conf_init();
    const Files files = conf_files();
    const bool is_new = files == GetParam().new_files;
    EXPECT_TRUE(is_new || files == GetParam().old_files) << "step " << step;
    EXPECT_TRUE(is_new || !was_new) << "old files came back at step " << step;
    was_new = is_new;
    EXPECT_THAT(fake::entries(kFolder), Not(Contains(HasSubstr("/.")))) << "step " << step;
  }
  EXPECT_TRUE(was_new);
  EXPECT_GE(kills, 40);  // more than 200 in the six cases
}

INSTANTIATE_TEST_SUITE_P(
    Cases, ConfdirKillTest,
    testing::Values(
        KillCase{{{"a.conf", "1"}, {"b.conf", "2"}, {"c.conf", "3"}}, {{"d.conf", "4"}}},
        KillCase{{{"a.conf", "1"}, {"b.conf", "2"}}, {{"a.conf", "3"}, {"b.conf", "4"}}},
        KillCase{{{"a.conf", "1"}}, {{"a.conf", "2"}, {"b.conf", "3"}, {"c.conf", "4"}}},
        KillCase{{}, {{"a.conf", "1"}}},
        KillCase{
            {{"a.conf", "1"}, {"b.conf", "2"}, {"c.conf", "3"}, {"d.conf", "4"}, {"e.conf", "5"}},
            {{"b.conf", "6"}, {"d.conf", "7"}, {"f.conf", "8"}, {"g.conf", "9"}}},
        KillCase{{{"nvram.conf", "x=1\n"}, {"qel.conf", "qel disable\n"}},
                 {{"nvram.conf", "x=2\n"}}}));

}  // namespace
