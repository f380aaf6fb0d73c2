// SPDX-License-Identifier: Apache-2.0
//
// The settings file: what counts as a line, what a writer leaves behind, and what nothing can
// break.
#include "platform/linux/nvram.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/unit/linux/support.h"

namespace {

class NvramTest : public RootTest {
 protected:
  std::string path_ = at("/var/conf/nvram.conf");

  std::string get(const std::string& key) {
    char value[256];
    return nvram_file_get(path_.c_str(), key.c_str(), value, sizeof value) ? value : "(none)";
  }
  int set(const std::string& key, const std::string& value) {
    return nvram_file_set(path_.c_str(), key.c_str(), value.c_str());
  }
};

TEST_F(NvramTest, ReadsWhatStands) {
  write_file(path_, "product_sn=SN1\nproduct_description=office sw \xc3\xa4\nempty=\na=b=c\n");
  EXPECT_EQ("SN1", get("product_sn"));
  EXPECT_EQ("office sw \xc3\xa4", get("product_description"));
  EXPECT_EQ("", get("empty"));
  EXPECT_EQ("b=c", get("a"));
  EXPECT_EQ("(none)", get("product"));
  EXPECT_EQ("(none)", get(""));
}

TEST_F(NvramTest, NoFileHasNoKeys) {
  EXPECT_EQ("(none)", get("product_sn"));
}

TEST_F(NvramTest, OfTwoLinesTheLaterCounts) {
  write_file(path_, "a=1\nb=2\na=3\n");
  EXPECT_EQ("3", get("a"));
}

TEST_F(NvramTest, TornAndHostileLinesAreSkippedAlone) {
  std::string text = "good1=1\n";
  text += "torn\n";
  text += "=novalue\n";
  text += std::string(64, 'k') + "=key too long\n";
  text += "toolong=" + std::string(256, 'v') + "\n";
  text += "control=a\tb\n";
  text += "carriage=a\r\n";
  text += std::string("nul=a\0b\n", 8);
  text += "bad key=1\n";
  text += std::string(200000, 'x') + "\n";
  text += "\n";
  text += "good2=2\n";
  text += "good1=torn at the end";
  write_file(path_, text);
  EXPECT_EQ("1", get("good1"));
  EXPECT_EQ("2", get("good2"));
  for (const char* key : {"torn", "toolong", "control", "carriage", "nul", "bad key"}) {
    EXPECT_EQ("(none)", get(key)) << key;
  }
}

TEST_F(NvramTest, LongestKeyAndValue) {
  const std::string key(63, 'k');
  const std::string value(255, 'v');
  EXPECT_EQ(0, set(key, value));
  EXPECT_EQ(value, get(key));
  EXPECT_EQ(-EINVAL, set(key + "k", "1"));
  EXPECT_EQ(-EINVAL, set("a", value + "v"));
  EXPECT_EQ(-EINVAL, set("a", "two\nlines"));
  EXPECT_EQ(-EINVAL, set("a=b", "1"));
  EXPECT_EQ(key + "=" + value + "\n", read_file(path_));
}

TEST_F(NvramTest, ValueThatDoesNotFitIsNotCut) {
  write_file(path_, "a=12345\n");
  char small[5] = "zzzz";
  EXPECT_FALSE(nvram_file_get(path_.c_str(), "a", small, sizeof small));
  EXPECT_STREQ("", small);
}

TEST_F(NvramTest, SetKeepsPlacesAndCommentsAndDropsRubbish) {
  write_file(path_, "# made by hand\na=1\nrubbish\nb=2\na=3\nc=4\n");
  EXPECT_EQ(0, set("a", "9"));
  EXPECT_EQ("# made by hand\na=9\nb=2\nc=4\n", read_file(path_));
  EXPECT_EQ(0, set("d", "5"));
  EXPECT_EQ("# made by hand\na=9\nb=2\nc=4\nd=5\n", read_file(path_));
  EXPECT_EQ(0, nvram_file_set(path_.c_str(), "b", nullptr));
  EXPECT_EQ("# made by hand\na=9\nc=4\nd=5\n", read_file(path_));
}

TEST_F(NvramTest, SeveralAtOnceAllOrNothing) {
  write_file(path_, "a=1\n");
  const nvram_pair good[] = {{"a", "2"}, {"b", "3"}, {"a", "4"}};
  EXPECT_EQ(0, nvram_file_set_many(path_.c_str(), good, 3));
  EXPECT_EQ("a=4\nb=3\n", read_file(path_));
  const nvram_pair bad[] = {{"a", "7"}, {"no key", "3"}};
  EXPECT_EQ(-EINVAL, nvram_file_set_many(path_.c_str(), bad, 2));
  EXPECT_EQ("a=4\nb=3\n", read_file(path_));
}

TEST_F(NvramTest, FillAddsOnlyWhatIsMissing) {
  write_file(path_, "a=mine\n");
  const nvram_pair defaults[] = {{"a", "factory"}, {"b", "factory"}};
  EXPECT_EQ(0, nvram_file_fill(path_.c_str(), defaults, 2));
  EXPECT_EQ("a=mine\nb=factory\n", read_file(path_));

  struct stat before = {};
  struct stat after = {};
  stat(path_.c_str(), &before);
  EXPECT_EQ(0, nvram_file_fill(path_.c_str(), defaults, 2));
  stat(path_.c_str(), &after);
  EXPECT_EQ(before.st_ino, after.st_ino) << "written although nothing was missing";
}

TEST_F(NvramTest, ReplaceAllLeavesNothingElse) {
  write_file(path_, "a=mine\nqel_sys_active=4\nrubbish");
  const nvram_pair defaults[] = {{"b", "factory"}, {"a", "factory"}};
  EXPECT_EQ(0, nvram_file_replace_all(path_.c_str(), defaults, 2));
  EXPECT_EQ("b=factory\na=factory\n", read_file(path_));
}

TEST_F(NvramTest, ModeOfTheFileStays) {
  write_file(path_, "a=1\n");
  chmod(path_.c_str(), 0604);
  EXPECT_EQ(0, set("a", "2"));
  struct stat info = {};
  stat(path_.c_str(), &info);
  EXPECT_EQ(0604U, info.st_mode & 07777);
}

TEST_F(NvramTest, FolderThatIsNotThere) {
  path_ = at("/nowhere/nvram.conf");
  EXPECT_EQ(-ENOENT, set("a", "1"));
}

TEST_F(NvramTest, OtherThingsInTheFilesPlace) {
  ASSERT_EQ(0, mkfifo(path_.c_str(), 0600));
  EXPECT_EQ("(none)", get("a"));
  EXPECT_EQ(-EINVAL, set("a", "1"));
  unlink(path_.c_str());
  ASSERT_EQ(0, mkdir(path_.c_str(), 0700));
  EXPECT_EQ("(none)", get("a"));
  EXPECT_EQ(-EINVAL, set("a", "1"));
}

TEST_F(NvramTest, FileThatIsTooBigIsReadButNotWritten) {
  std::string text = "a=1\n";
  while (text.size() <= kNvramFileMax) {
    text.append(99, '#').append("\n");
  }
  write_file(path_, text);
  EXPECT_EQ("1", get("a"));
  EXPECT_EQ(-EFBIG, set("a", "2"));
  EXPECT_EQ(text, read_file(path_));
}

TEST_F(NvramTest, WriterThatDiedBeforeItsRename) {
  write_file(path_, "a=1\n");
  write_file(at("/var/conf/.nvram.tmp"), "a=2\nhalf a li");
  EXPECT_EQ("1", get("a"));
  EXPECT_EQ(0, set("b", "3"));
  EXPECT_EQ("a=1\nb=3\n", read_file(path_));
  EXPECT_FALSE(file_exists(at("/var/conf/.nvram.tmp")));
}

TEST_F(NvramTest, KilledWritersLeaveAWholeFile) {
  const std::string filler(200, 'f');
  ASSERT_EQ(0, set("count", "0"));
  ASSERT_EQ(0, set("filler", filler));
  for (int round = 1; round <= 10; ++round) {
    const pid_t writer = fork();
    if (writer == 0) {
      for (int i = 1;; ++i) {
        set("count", std::to_string(round * 1000000 + i));
      }
    }
    while (atoi(get("count").c_str()) < round * 1000000 + round) {
    }
    kill(writer, SIGKILL);
    waitpid(writer, nullptr, 0);
    const std::string count = get("count");
    std::string whole = "count=";
    whole.append(count).append("\nfiller=").append(filler).append("\n");
    EXPECT_EQ(whole, read_file(path_));
    EXPECT_EQ(0, set("count", std::to_string(round * 1000000)));  // the lock died with its holder
  }
}

TEST_F(NvramTest, ConcurrentWritersLoseNothing) {
  constexpr int kWriters = 4;
  constexpr int kValues = 25;
  pid_t writers[kWriters];
  for (int w = 0; w < kWriters; ++w) {
    writers[w] = fork();
    if (writers[w] == 0) {
      int failures = 0;
      for (int i = 1; i <= kValues; ++i) {
        while (set("w" + std::to_string(w) + "." + std::to_string(i), "v") != 0 && failures < 50) {
          ++failures;
        }
      }
      _exit(failures < 50 ? 0 : 1);
    }
  }
  for (const pid_t writer : writers) {
    int status = 0;
    waitpid(writer, &status, 0);
    EXPECT_EQ(0, status);
  }
  for (int w = 0; w < kWriters; ++w) {
    for (int i = 1; i <= kValues; ++i) {
      EXPECT_EQ("v", get("w" + std::to_string(w) + "." + std::to_string(i)));
    }
  }
}

TEST_F(NvramTest, HeldLockIsNotWaitedForWithoutEnd) {
  ASSERT_EQ(0, set("a", "1"));
  const int lock = open(at("/var/conf/.nvram.lock").c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_EQ(0, flock(lock, LOCK_EX));
  EXPECT_EQ(-EAGAIN, set("a", "2"));
  EXPECT_EQ("a=1\n", read_file(path_));
  close(lock);
  EXPECT_EQ(0, set("a", "2"));
}

TEST_F(NvramTest, FileSizeLimitLeavesTheOldFile) {
  std::string old;
  for (int i = 0; i < 40; ++i) {
    old += "key" + std::to_string(i) + "=" + std::string(200, 'v') + "\n";
  }
  write_file(path_, old);
  EXPECT_EQ(0, run_in_child([this] {
              signal(SIGXFSZ, SIG_IGN);
              const rlimit limit = {4096, 4096};
              setrlimit(RLIMIT_FSIZE, &limit);
              return set("key0", "changed") == -EFBIG ? 0 : 1;
            }));
  EXPECT_EQ(old, read_file(path_));
  EXPECT_FALSE(file_exists(at("/var/conf/.nvram.tmp")));
}

constexpr int kNoNamespace = 77;

// A mount namespace for the calling process: with root's power, or with a user namespace's.
bool leave_mounts() {
  if (unshare(CLONE_NEWNS) == 0) {
    return true;
  }
  const std::string uid = std::to_string(getuid());
  const std::string gid = std::to_string(getgid());
  if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) {
    return false;
  }
  write_file("/proc/self/setgroups", "deny");
  write_file("/proc/self/uid_map", "0 " + uid + " 1");
  write_file("/proc/self/gid_map", "0 " + gid + " 1");
  return true;
}

// Mounts a file system of 16 KB that only the calling process sees.
bool mount_small_disk(const std::string& folder) {
  return leave_mounts() && mount("none", "/", "none", MS_REC | MS_PRIVATE, nullptr) == 0 &&
         mount("none", folder.c_str(), "tmpfs", 0, "size=16k") == 0;
}

TEST_F(NvramTest, FullDiskLeavesTheOldFile) {
  const int status = run_in_child([this] {
    if (!mount_small_disk(at("/var/conf"))) {
      return kNoNamespace;
    }
    const std::string old = "a=1\nb=2\n";
    write_file(path_, old);
    write_file(at("/var/conf/big.conf"), std::string(65536, 'x'));
    const bool refused = set("a", "2") == -ENOSPC && read_file(path_) == old &&
                         !file_exists(at("/var/conf/.nvram.tmp"));
    unlink(at("/var/conf/big.conf").c_str());
    const bool works_again = set("a", "2") == 0 && read_file(path_) == "a=2\nb=2\n";
    return refused && works_again ? 0 : 1;
  });
  if (status == kNoNamespace) {
    GTEST_SKIP() << "no mount namespaces here";
  }
  EXPECT_EQ(0, status);
}

TEST_F(NvramTest, ReadOnlyDiskLeavesTheOldFile) {
  const int status = run_in_child([this] {
    if (!mount_small_disk(at("/var/conf"))) {
      return kNoNamespace;
    }
    write_file(path_, "a=1\n");
    if (mount("none", at("/var/conf").c_str(), "none", MS_REMOUNT | MS_RDONLY, nullptr) != 0) {
      return 2;
    }
    return set("a", "2") == -EROFS && get("a") == "1" ? 0 : 1;
  });
  if (status == kNoNamespace) {
    GTEST_SKIP() << "no mount namespaces here";
  }
  EXPECT_EQ(0, status);
}

// --- the cached reader

class NvramCacheTest : public NvramTest {
 protected:
  ~NvramCacheTest() override { nvram_cache_clear(&cache_); }

  std::string cached(const char* key) {
    const char* value = nvram_cache_get(&cache_, path_.c_str(), key);
    return value != nullptr ? value : "(none)";
  }

  nvram_cache cache_ = {};
};

TEST_F(NvramCacheTest, UnchangedFileIsNotReadAgain) {
  write_file(path_, "a=1\nb=2\n");
  EXPECT_EQ("1", cached("a"));
  while (cache_.recent) {  // until the file is old enough to be trusted
    EXPECT_EQ("1", cached("a"));
  }
  const nvram_pair* entries = cache_.entries;
  cache_.text[2] = '7';  // "a=1": only somebody who does not read again sees this
  EXPECT_EQ("7", cached("a"));
  EXPECT_EQ("2", cached("b"));
  EXPECT_EQ("(none)", cached("c"));
  EXPECT_EQ(entries, cache_.entries);
}

TEST_F(NvramCacheTest, EveryKindOfChangeIsSeen) {
  EXPECT_EQ("(none)", cached("a"));
  write_file(path_, "a=1\n");
  EXPECT_EQ("1", cached("a"));
  write_file(path_, "a=2\n");  // same file, same size, perhaps the same time stamp
  EXPECT_EQ("2", cached("a"));
  EXPECT_EQ(0, set("a", "3"));
  EXPECT_EQ("3", cached("a"));
  while (cache_.recent) {
    EXPECT_EQ("3", cached("a"));
  }
  EXPECT_EQ(0, set("a", "4"));
  EXPECT_EQ("4", cached("a"));
  unlink(path_.c_str());
  EXPECT_EQ("(none)", cached("a"));
}

TEST_F(NvramCacheTest, FindsEachOfManyKeys) {
  std::string text;
  for (int i = 0; i < 700; ++i) {
    text +=
        "poe.ge" + std::to_string(i * 11 % 700) + ".enable=" + std::to_string(i * 11 % 700) + "\n";
  }
  write_file(path_, text);
  for (int i = 0; i < 700; ++i) {
    EXPECT_EQ(std::to_string(i), cached(("poe.ge" + std::to_string(i) + ".enable").c_str()));
  }
  EXPECT_EQ("(none)", cached("a"));
  EXPECT_EQ("(none)", cached("zzz"));
}

}  // namespace
