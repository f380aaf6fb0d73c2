// SPDX-License-Identifier: Apache-2.0
//
// Files of transfers where the name that was given is a link or something else than a file.
#include <sys/stat.h>

#include <filesystem>

#include <gtest/gtest.h>

#include "gateway/error.h"
#include "gateway/files.h"

namespace qel_gateway {
namespace {

namespace fs = std::filesystem;

class FilesTest : public testing::Test {
 protected:
  FilesTest() : folder_(fs::path(testing::TempDir()) / "qelctl_files_test") {
    fs::remove_all(folder_);
    fs::create_directories(folder_ / "away");
  }
  ~FilesTest() override { fs::remove_all(folder_); }

  std::string in(const std::string& name) const { return (folder_ / name).string(); }

  size_t entries() const {
    return static_cast<size_t>(std::distance(fs::recursive_directory_iterator(folder_),
                                             fs::recursive_directory_iterator()));
  }

  const fs::path folder_;
  const std::vector<uint8_t> bytes_ = {1, 2, 3};
};

TEST_F(FilesTest, ALinkIsFollowedAndKept) {
  write_file(in("away/old"), {{9, 9}});
  fs::create_symlink("away/old", in("one"));
  fs::create_symlink(in("one"), in("two"));
  EXPECT_EQ(file_to_write(in("two")), in("away/old"));
  write_file(in("two"), bytes_);
  EXPECT_TRUE(fs::is_symlink(in("one")));
  EXPECT_TRUE(fs::is_symlink(in("two")));
  EXPECT_EQ(read_file(in("away/old"), 3), bytes_);
  EXPECT_EQ(entries(), 4u);
}

TEST_F(FilesTest, ALinkToWhatIsNotThereYetMakesIt) {
  fs::create_symlink("away/new", in("link"));
  write_file(in("link"), bytes_);
  EXPECT_TRUE(fs::is_symlink(in("link")));
  EXPECT_EQ(read_file(in("away/new"), 3), bytes_);
}

TEST_F(FilesTest, ALinkInACircleIsRefused) {
  fs::create_symlink("b", in("a"));
  fs::create_symlink("a", in("b"));
  EXPECT_THROW(write_file(in("a"), bytes_), Error);
  EXPECT_EQ(entries(), 3u);
}

TEST_F(FilesTest, WhatIsNoRegularFileIsNeitherReplacedNorWaitedFor) {
  ASSERT_EQ(::mkfifo(in("pipe").c_str(), 0600), 0);
  fs::create_symlink("pipe", in("link"));
  for (const char* name : {"pipe", "link", "away"}) {
    EXPECT_THROW(file_to_write(in(name)), Error) << name;
    EXPECT_THROW(write_file(in(name), bytes_), Error) << name;
    EXPECT_THROW(read_file(in(name), 100), Error) << name;
  }
  EXPECT_TRUE(fs::is_fifo(in("pipe")));
  EXPECT_TRUE(fs::is_directory(in("away")));
  EXPECT_EQ(entries(), 3u);
}

}  // namespace
}  // namespace qel_gateway
