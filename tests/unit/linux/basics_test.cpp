// SPDX-License-Identifier: Apache-2.0
//
// The small services: lists, prefixes, MAC texts, CRC-32, uptime, appending to a file.
#include <arpa/inet.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <vector>

#include "platform/list.h"
#include "platform/prefix.h"
#include "platform/sys.h"
#include "tests/unit/linux/support.h"

namespace {

std::vector<int> contents(const list* list) {
  std::vector<int> values;
  for (const listnode* node = list->head; node != nullptr; node = node->next) {
    values.push_back(*static_cast<int*>(node->data));
  }
  std::vector<int> backwards;
  for (const listnode* node = list->tail; node != nullptr; node = node->prev) {
    backwards.insert(backwards.begin(), *static_cast<int*>(node->data));
  }
  EXPECT_EQ(values, backwards);
  EXPECT_EQ(values.size(), list->count);
  return values;
}

int deleted;

TEST(ListTest, AppendsAndDeletes) {
  int values[] = {1, 2, 3, 4};
  list* numbers = list_new();
  EXPECT_EQ(nullptr, listnode_head(numbers));
  EXPECT_EQ(nullptr, listnode_head(nullptr));
  for (int& value : values) {
    listnode_add(numbers, &value);
  }
  EXPECT_EQ(&values[0], listnode_head(numbers));
  EXPECT_EQ((std::vector<int>{1, 2, 3, 4}), contents(numbers));
  listnode_delete(numbers, &values[1]);
  EXPECT_EQ((std::vector<int>{1, 3, 4}), contents(numbers));
  listnode_delete(numbers, &values[1]);
  EXPECT_EQ((std::vector<int>{1, 3, 4}), contents(numbers));
  listnode_delete(numbers, &values[0]);
  listnode_delete(numbers, &values[3]);
  EXPECT_EQ((std::vector<int>{3}), contents(numbers));
  numbers->del = [](void* data) { deleted = *static_cast<int*>(data); };
  listnode_delete(numbers, &values[2]);
  EXPECT_EQ(3, deleted);
  EXPECT_EQ((std::vector<int>{}), contents(numbers));
  listnode_add(numbers, &values[0]);
  EXPECT_EQ((std::vector<int>{1}), contents(numbers));
  listnode_delete(numbers, &values[0]);
  free(numbers);
}

TEST(PrefixTest, LeadingOnes) {
  const struct {
    const char* mask;
    int length;
  } rows[] = {{"0.0.0.0", 0},          {"128.0.0.0", 1},   {"255.255.255.0", 24},
              {"255.255.255.255", 32}, {"255.0.255.0", 8}, {"0.255.255.255", 0}};
  for (const auto& row : rows) {
    in_addr mask = {};
    ASSERT_EQ(1, inet_pton(AF_INET, row.mask, &mask));
    EXPECT_EQ(row.length, ip_masklen(mask)) << row.mask;
  }
}

TEST(MacTextTest, BothWays) {
  const uint8_t mac[6] = {0x0a, 0x1b, 0x2c, 0x3d, 0x4e, 0x5f};
  EXPECT_STREQ("0a:1b:2c:3d:4e:5f", mac2str(mac));
  for (const char* text : {"0a:1b:2c:3d:4e:5f", "0A-1B-2C-3D-4E-5F", "0a1B2c3D4e5F"}) {
    uint8_t read[6] = {};
    EXPECT_EQ(0, str2mac(text, read)) << text;
    EXPECT_EQ(0, memcmp(mac, read, 6)) << text;
  }
}

TEST(MacTextTest, WhatIsNone) {
  const uint8_t zeros[6] = {};
  for (const char* text :
       {"", "0a:1b:2c:3d:4e", "0a:1b:2c:3d:4e:5f:", "0a:1b-2c:3d:4e:5f", "0a.1b.2c.3d.4e.5f",
        "0a:1b:2c:3d:4e:5g", "0a1b2c3d4e5", "0a1b2c3d4e5f0", " a:1b:2c:3d:4e:5f"}) {
    uint8_t read[6] = {1, 2, 3, 4, 5, 6};
    EXPECT_EQ(-1, str2mac(text, read)) << text;
    EXPECT_EQ(0, memcmp(zeros, read, 6)) << text;
  }
  uint8_t read[6] = {1};
  EXPECT_EQ(-1, str2mac(nullptr, read));
  EXPECT_EQ(0, memcmp(zeros, read, 6));
}

TEST(CrcTest, KnownValues) {
  EXPECT_EQ(0xcbf43926U, crc32_sp(0, "123456789", 9));
  EXPECT_EQ(0U, crc32_sp(0, "", 0));
  EXPECT_EQ(0xe8b7be43U, crc32_sp(0, "a", 1));
  EXPECT_EQ(0xcbf43926U, crc32_sp(crc32_sp(0, "12345", 5), "6789", 4));
}

TEST(UptimeTest, IsTheSystems) {
  const double before = atof(read_file("/proc/uptime").c_str());
  const uint32_t uptime = tq_uptime_get();
  const double after = atof(read_file("/proc/uptime").c_str());
  EXPECT_GE(uptime, static_cast<uint32_t>(before));
  EXPECT_LE(uptime, static_cast<uint32_t>(after));
}

class AppendTest : public RootTest {
 protected:
  std::string path_ = at("/linux.trx");
};

TEST_F(AppendTest, CreatesAndGrows) {
  EXPECT_EQ(0, tq_file_append(path_.c_str(), "abc", 3));
  EXPECT_EQ(0, tq_file_append(path_.c_str(), "\0d", 2));
  EXPECT_EQ(0, tq_file_append(path_.c_str(), "", 0));
  EXPECT_EQ(std::string("abc\0d", 5), read_file(path_));
}

TEST_F(AppendTest, NothingButAFile) {
  EXPECT_EQ(-1, tq_file_append(at("/nowhere/file").c_str(), "x", 1));
  EXPECT_EQ(-1, tq_file_append(at("/var").c_str(), "x", 1));
  write_file(at("/target"), "");
  ASSERT_EQ(0, symlink(at("/target").c_str(), path_.c_str()));
  EXPECT_EQ(-1, tq_file_append(path_.c_str(), "x", 1));
  EXPECT_EQ("", read_file(at("/target")));
  unlink(path_.c_str());
  ASSERT_EQ(0, mkfifo(path_.c_str(), 0600));
  EXPECT_EQ(-1, tq_file_append(path_.c_str(), "x", 1));
}

TEST_F(AppendTest, AllOrNothing) {
  ASSERT_EQ(0, tq_file_append(path_.c_str(), "0123456789", 10));
  EXPECT_EQ(0, run_in_child([this] {
              signal(SIGXFSZ, SIG_IGN);
              const rlimit limit = {15, 15};
              setrlimit(RLIMIT_FSIZE, &limit);
              return tq_file_append(path_.c_str(), "0123456789", 10) == -1 ? 0 : 1;
            }));
  EXPECT_EQ("0123456789", read_file(path_));
}

}  // namespace
