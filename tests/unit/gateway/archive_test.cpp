// SPDX-License-Identifier: Apache-2.0
//
// Which archives may go to a switch.
#include "gateway/archive.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <string>

#include "gateway/error.h"
#include "wire_bytes.h"

namespace qel_gateway {
namespace {

using gateway_test::Bytes;
using gateway_test::operator+;

Bytes gzip(const Bytes& plain) {
  Bytes out(plain.size() + 1024);
  z_stream stream = {};
  EXPECT_EQ(deflateInit2(&stream, 9, Z_DEFLATED, 16 + 15, 8, Z_DEFAULT_STRATEGY), Z_OK);
  Bytes copy = plain;
  stream.next_in = copy.data();
  stream.avail_in = static_cast<uInt>(copy.size());
  stream.next_out = out.data();
  stream.avail_out = static_cast<uInt>(out.size());
  EXPECT_EQ(deflate(&stream, Z_FINISH), Z_STREAM_END);
  out.resize(stream.total_out);
  deflateEnd(&stream);
  return out;
}

void put(Bytes& header, size_t at, std::string_view text) {
  std::copy(text.begin(), text.end(), header.begin() + static_cast<ptrdiff_t>(at));
}

// A tar header with its checksum; `prefix` as ustar has it.
Bytes header(std::string_view name, std::string_view octal_size, char type = '0',
             std::string_view prefix = "") {
  Bytes block(512, 0);
  put(block, 0, name);
  put(block, 100, "0000640");
  put(block, 124, octal_size);
  put(block, 136, "00000000000");
  block[156] = static_cast<uint8_t>(type);
  put(block, 257, "ustar");
  put(block, 263, "00");
  put(block, 345, prefix);
  put(block, 148, "        ");
  unsigned sum = 0;
  for (const uint8_t byte : block) {
    sum += byte;
  }
  char text[8];
  std::snprintf(text, sizeof text, "%06o", sum);
  put(block, 148, std::string_view(text, 7));
  return block;
}

Bytes member(std::string_view name, std::string_view content) {
  char size[13];
  std::snprintf(size, sizeof size, "%011zo", content.size());
  Bytes bytes = header(name, size) + content;
  bytes.resize((bytes.size() + 511) / 512 * 512, 0);
  return bytes;
}

const Bytes kEnd(1024, 0);

std::string fault_of(const Bytes& bytes) {
  try {
    check_archive(bytes);
  } catch (const Error& error) {
    return error.what();
  }
  return "none";
}

std::string tar_fault(const Bytes& tar) {
  return fault_of(gzip(tar));
}

TEST(Archive, TakesPlainConfFiles) {
  const auto members =
      check_archive(gzip(member("nvram.conf", "a=1\n") + member("./vlan.conf", "") +
                         member("with blank.conf", std::string(513, 'x')) + kEnd));
  ASSERT_EQ(members.size(), 3u);
  EXPECT_EQ(members[0].name, "nvram.conf");
  EXPECT_EQ(members[0].size, 4u);
  EXPECT_EQ(members[1].name, "vlan.conf");
  EXPECT_EQ(members[2].size, 513u);
}

TEST(Archive, RefusesWhatIsNotPacked) {
  EXPECT_EQ(fault_of({}), "not a configuration archive: not packed with gzip");
  EXPECT_EQ(fault_of(member("nvram.conf", "a") + kEnd),
            "not a configuration archive: not packed with gzip");
}

TEST(Archive, RefusesDamage) {
  const Bytes good = gzip(member("nvram.conf", std::string(3000, 'a')) + kEnd);
  ASSERT_EQ(fault_of(good), "none");
  for (const size_t length : {good.size() - 1, good.size() - 8, size_t{20}, size_t{2}}) {
    EXPECT_EQ(fault_of(Bytes(good.begin(), good.begin() + static_cast<ptrdiff_t>(length))),
              "not a configuration archive: damaged or cut short")
        << length;
  }
  Bytes wrong_sum = good;
  wrong_sum[good.size() - 6] ^= 1;
  EXPECT_EQ(fault_of(wrong_sum), "not a configuration archive: damaged or cut short");
  EXPECT_EQ(fault_of(good + Bytes(1, 'x')),
            "not a configuration archive: something follows the packed data");
}

TEST(Archive, RefusesTarsThatAreNotWhole) {
  EXPECT_EQ(tar_fault({}), "not a configuration archive: the tar has no end");
  EXPECT_EQ(tar_fault(kEnd), "not a configuration archive: it is empty");
  EXPECT_EQ(tar_fault(member("a.conf", "x")), "not a configuration archive: the tar has no end");
  EXPECT_EQ(tar_fault(header("a.conf", "00000002001") + kEnd),
            "not a configuration archive: \"a.conf\" is cut short");
  EXPECT_EQ(tar_fault(header("a.conf", "77777777777") + kEnd),
            "not a configuration archive: \"a.conf\" is cut short");
  EXPECT_EQ(tar_fault(header("a.conf", "0000000000x") + kEnd),
            "not a configuration archive: damaged tar header");
  Bytes damaged = member("a.conf", "x") + kEnd;
  damaged[0] = 'b';
  EXPECT_EQ(tar_fault(damaged), "not a configuration archive: damaged tar header");
  EXPECT_EQ(tar_fault(member("a.conf", "x") + kEnd + Bytes(512, 'x')),
            "not a configuration archive: something follows the end of the tar");
}

TEST(Archive, RefusesNamesThatLeaveTheFolder) {
  EXPECT_EQ(tar_fault(member("../a.conf", "x") + kEnd),
            "not a configuration archive: \"../a.conf\" lies in a folder");
  EXPECT_EQ(tar_fault(member("/etc/a.conf", "x") + kEnd),
            "not a configuration archive: \"/etc/a.conf\" lies in a folder");
  EXPECT_EQ(tar_fault(member("sub/a.conf", "x") + kEnd),
            "not a configuration archive: \"sub/a.conf\" lies in a folder");
  EXPECT_EQ(tar_fault(header("a.conf", "00000000000", '0', "etc") + kEnd),
            "not a configuration archive: \"a.conf\" lies in a folder");
}

TEST(Archive, RefusesOtherFiles) {
  EXPECT_EQ(tar_fault(member("a.txt", "x") + kEnd),
            "not a configuration archive: \"a.txt\" is no \".conf\" file");
  EXPECT_EQ(tar_fault(member(".conf", "x") + kEnd),
            "not a configuration archive: \".conf\" is no \".conf\" file");
  EXPECT_EQ(tar_fault(member("-I.conf", "x") + kEnd),
            "not a configuration archive: \"-I.conf\" is no \".conf\" file");
  for (const char type : {'1', '2', '3', '5', '6', 'x', 'L'}) {
    EXPECT_EQ(tar_fault(header("a.conf", "00000000000", type) + kEnd),
              "not a configuration archive: \"a.conf\" is no plain file (\"tar --format=ustar\" "
              "writes plain archives)")
        << type;
  }
  EXPECT_EQ(tar_fault(member("a.conf", "x") + member("a.conf", "y") + kEnd),
            "not a configuration archive: \"a.conf\" is in it twice");
  EXPECT_EQ(tar_fault(member("\x1b[2J.txt", "x") + kEnd),
            "not a configuration archive: \"?[2J.txt\" is no \".conf\" file");
}

TEST(Archive, RefusesABombBeforeItIsUnpacked) {
  const Bytes bomb = gzip(Bytes(17 * 1024 * 1024, 0));
  ASSERT_LT(bomb.size(), 64u * 1024);
  EXPECT_EQ(fault_of(bomb), "not a configuration archive: more than 16 MB unpacked");
}

TEST(Archive, ComputesTheCrcThatSwitchesDo) {
  const std::string digits = "123456789";
  EXPECT_EQ(crc32_of(Bytes(digits.begin(), digits.end())), 0xCBF43926U);
  EXPECT_EQ(crc32_of({}), 0u);
  EXPECT_EQ(crc32_of(Bytes(4, 0xFF)), 0xFFFFFFFFU);
}

}  // namespace
}  // namespace qel_gateway
