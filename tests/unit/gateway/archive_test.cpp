// SPDX-License-Identifier: Apache-2.0
//
// Which archives may go to a switch.
#include "gateway/archive.h"

#include <gtest/gtest.h>

#include <string>

#include "archive_bytes.h"
#include "gateway/error.h"

namespace qel_gateway {
namespace {

using gateway_test::Bytes;
using gateway_test::gzip;
using gateway_test::header;
using gateway_test::kTarEnd;
using gateway_test::member;
using gateway_test::operator+;

std::string fault_of(const Bytes& bytes) {
  try {
    read_archive(bytes);
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
      read_archive(gzip(member("nvram.conf", "a=1\n") + member("./vlan.conf", "") +
                        member("_Port-1.v2.conf", std::string(513, 'x')) + kTarEnd));
  ASSERT_EQ(members.size(), 3u);
  EXPECT_EQ(members[0].name, "nvram.conf");
  EXPECT_EQ(members[0].content, (Bytes{'a', '=', '1', '\n'}));
  EXPECT_EQ(members[1].name, "vlan.conf");
  EXPECT_TRUE(members[1].content.empty());
  EXPECT_EQ(members[2].name, "_Port-1.v2.conf");
  EXPECT_EQ(members[2].content, Bytes(513, 'x'));
}

TEST(Archive, NamesThatASwitchMayRefuseAreRefused) {
  for (const char* name :
       {"with blank.conf", "a\nb.conf", "$x.conf", "..conf", "a~.conf", "\xC3\xA4.conf"}) {
    const std::string fault = tar_fault(member(name, "x") + kTarEnd);
    EXPECT_TRUE(
        fault.ends_with("is no name for it; expected letters, digits, \"_\", \".\" and \"-\""))
        << fault;
  }
  EXPECT_EQ(tar_fault(member("with blank.conf", "x") + kTarEnd),
            "not a configuration archive: \"with blank.conf\" is no name for it; expected letters, "
            "digits, \"_\", \".\" and \"-\"");
}

TEST(Archive, RefusesWhatIsNotPacked) {
  EXPECT_EQ(fault_of({}), "not a configuration archive: not packed with gzip");
  EXPECT_EQ(fault_of(member("nvram.conf", "a") + kTarEnd),
            "not a configuration archive: not packed with gzip");
}

TEST(Archive, RefusesDamage) {
  const Bytes good = gzip(member("nvram.conf", std::string(3000, 'a')) + kTarEnd);
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
  EXPECT_EQ(tar_fault(kTarEnd), "not a configuration archive: it is empty");
  EXPECT_EQ(tar_fault(member("a.conf", "x")), "not a configuration archive: the tar has no end");
  EXPECT_EQ(tar_fault(header("a.conf", "00000002001") + kTarEnd),
            "not a configuration archive: \"a.conf\" is cut short");
  EXPECT_EQ(tar_fault(header("a.conf", "77777777777") + kTarEnd),
            "not a configuration archive: \"a.conf\" is cut short");
  EXPECT_EQ(tar_fault(header("a.conf", "0000000000x") + kTarEnd),
            "not a configuration archive: damaged tar header");
  Bytes damaged = member("a.conf", "x") + kTarEnd;
  damaged[0] = 'b';
  EXPECT_EQ(tar_fault(damaged), "not a configuration archive: damaged tar header");
  EXPECT_EQ(tar_fault(member("a.conf", "x") + kTarEnd + Bytes(512, 'x')),
            "not a configuration archive: something follows the end of the tar");
}

TEST(Archive, RefusesNamesThatLeaveTheFolder) {
  EXPECT_EQ(tar_fault(member("../a.conf", "x") + kTarEnd),
            "not a configuration archive: \"../a.conf\" lies in a folder");
  EXPECT_EQ(tar_fault(member("/etc/a.conf", "x") + kTarEnd),
            "not a configuration archive: \"/etc/a.conf\" lies in a folder");
  EXPECT_EQ(tar_fault(member("sub/a.conf", "x") + kTarEnd),
            "not a configuration archive: \"sub/a.conf\" lies in a folder");
  EXPECT_EQ(tar_fault(header("a.conf", "00000000000", '0', "etc") + kTarEnd),
            "not a configuration archive: \"a.conf\" lies in a folder");
}

TEST(Archive, RefusesOtherFiles) {
  EXPECT_EQ(tar_fault(member("a.txt", "x") + kTarEnd),
            "not a configuration archive: \"a.txt\" is no \".conf\" file");
  EXPECT_EQ(tar_fault(member(".conf", "x") + kTarEnd),
            "not a configuration archive: \".conf\" is no \".conf\" file");
  EXPECT_EQ(tar_fault(member("-I.conf", "x") + kTarEnd),
            "not a configuration archive: \"-I.conf\" is no \".conf\" file");
  for (const char type : {'1', '2', '3', '5', '6', 'x', 'L'}) {
    EXPECT_EQ(tar_fault(header("a.conf", "00000000000", type) + kTarEnd),
              "not a configuration archive: \"a.conf\" is no plain file (\"tar --format=ustar\" "
              "writes plain archives)")
        << type;
  }
  EXPECT_EQ(tar_fault(member("a.conf", "x") + member("a.conf", "y") + kTarEnd),
            "not a configuration archive: \"a.conf\" is in it twice");
  EXPECT_EQ(tar_fault(member("\x1b[2J.txt", "x") + kTarEnd),
            "not a configuration archive: \"?[2J.txt\" is no \".conf\" file");
}

TEST(Archive, RefusesABombBeforeItIsUnpacked) {
  const Bytes bomb = gzip(Bytes(17 * 1024 * 1024, 0));
  ASSERT_LT(bomb.size(), 64u * 1024);
  EXPECT_EQ(fault_of(bomb), "not a configuration archive: more than 4 MiB unpacked");
}

TEST(Archive, OfFourMebibytesIsTakenAndNotOneBlockMore) {
  constexpr size_t kRoom = 4 * 1024 * 1024 - 512 - 1024;  // beside a header and the end
  const Bytes full = gzip(member("a.conf", std::string(kRoom, 'x')) + kTarEnd);
  EXPECT_EQ(fault_of(full), "none");
  EXPECT_EQ(tar_fault(member("a.conf", std::string(kRoom + 1, 'x')) + kTarEnd),
            "not a configuration archive: more than 4 MiB unpacked");
}

TEST(Archive, ComputesTheCrcThatSwitchesDo) {
  const std::string digits = "123456789";
  EXPECT_EQ(crc32_of(Bytes(digits.begin(), digits.end())), 0xCBF43926U);
  EXPECT_EQ(crc32_of({}), 0u);
  EXPECT_EQ(crc32_of(Bytes(4, 0xFF)), 0xFFFFFFFFU);
}

}  // namespace
}  // namespace qel_gateway
