// SPDX-License-Identifier: Apache-2.0
//
// When two configurations count as the same.
#include "gateway/compare.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>

namespace qel_gateway {
namespace {

ArchiveMember file(std::string name, std::string_view content) {
  return {std::move(name), {content.begin(), content.end()}};
}

std::string told(const std::vector<ArchiveMember>& sent, const std::vector<ArchiveMember>& found) {
  const auto differences = compare_configurations(sent, found);
  return differences.empty() ? "same" : differences_text(differences);
}

// The same for a configuration of settings alone.
std::string told(std::string_view sent, std::string_view found) {
  return told({file("nvram.conf", sent)}, {file("nvram.conf", found)});
}

TEST(Compare, EqualFilesAreTheSameInAnyOrder) {
  EXPECT_EQ(
      told({file("a.conf", "1"), file("b.conf", "2")}, {file("b.conf", "2"), file("a.conf", "1")}),
      "same");
  EXPECT_EQ(told("a=1\n", "a=1\n"), "same");
}

TEST(Compare, EveryFileThatIsNotTheSameIsNamed) {
  EXPECT_EQ(told({file("gone.conf", "1"), file("b.conf", "2"), file("same.conf", "")},
                 {file("b.conf", "2\n"), file("old.conf", ""), file("same.conf", "")}),
            "b.conf differs, gone.conf is missing, old.conf was not sent");
}

TEST(Compare, OtherFilesAreComparedByteByByte) {
  EXPECT_EQ(told({file("qel.conf", "a=1\nb=2\n")}, {file("qel.conf", "b=2\na=1\n")}),
            "qel.conf differs");
}

TEST(Compare, SettingsAreComparedByWhatTheySay) {
  EXPECT_EQ(told("a=1\nb=2\n", "b=2\na=1\n"), "same");
  EXPECT_EQ(told("a=0\n# words\na=1\nb=2\ntorn=", "a=1\nb=2\n"), "same");
  EXPECT_EQ(told("a=1=2\n", "\na=1=2\n"), "same");
  EXPECT_EQ(told("a=1\nb=2\nc=3\n", "a=2\nc=3\nd=4\n"),
            "nvram.conf: a differs, nvram.conf: b is missing, nvram.conf: d was not sent");
}

TEST(Compare, ASettingThatWasKeptBesideThoseSentIsADifference) {
  // A switch that kept its old file has all that was saved, and what was set since.
  EXPECT_EQ(told("sys_name=a\n", "sys_name=a\nport.ge1.enable=0\n"),
            "nvram.conf: port.ge1.enable was not sent");
}

TEST(Compare, TheCountdownOfARunningSwitchIsNoDifference) {
  EXPECT_EQ(told("a=1\nqel_sys_active=60\n", "a=1\nqel_sys_active=58\n"), "same");
  EXPECT_EQ(told("a=1\n", "a=1\nqel_sys_active=58\n"), "same");
  EXPECT_EQ(told("a=1\nqel_sys_active=60\n", "a=1\n"), "same");
}

TEST(Compare, FactorySettingsCountOnlyWhereTheyWereSent) {
  constexpr const char* kFilledIn =
      "a=1\nproduct_sn=S\nproduct_hw_ver=V1\nproduct_model=M\nproduct_description=d\n"
      "firmware_ver=V2\nhave_poe=1\niso.ge1.enable=0\neee.ge1.enable=0\nllpp.ge1.enable=0\n"
      "mstp.ge1.enable=0\nlldp.ge1.enable=1\npoe.ge1.enable=1\n";
  EXPECT_EQ(told("a=1\n", kFilledIn), "same");
  EXPECT_EQ(told("a=1\nproduct_description=core\n", kFilledIn),
            "nvram.conf: product_description differs");
  EXPECT_EQ(told("a=1\nproduct_sn=S\n", "a=1\n"), "nvram.conf: product_sn is missing");
  EXPECT_EQ(told("eee.ge1.enable=1\n", "eee.ge1.enable=0\n"), "nvram.conf: eee.ge1.enable differs");
  EXPECT_EQ(told("a=1\n", "a=1\niso.enable=1\npoe.ge1.priority=2\n"),
            "nvram.conf: iso.enable was not sent, nvram.conf: poe.ge1.priority was not sent");
}

TEST(Compare, ASettingsFileThatTheSwitchMadeIsNoDifference) {
  const std::vector<ArchiveMember> sent = {file("qel.conf", "x\n")};
  EXPECT_EQ(told(sent, {file("qel.conf", "x\n"), file("nvram.conf", "product_sn=S\nhave_poe=1\n")}),
            "same");
  EXPECT_EQ(told(sent, {file("qel.conf", "x\n"), file("nvram.conf", "have_poe=1\noem.1=2\n")}),
            "nvram.conf: oem.1 was not sent");
}

TEST(Compare, ASettingsFileThatIsGoneIsADifference) {
  EXPECT_EQ(told({file("nvram.conf", "a=1\n"), file("b.conf", "")}, {file("b.conf", "")}),
            "nvram.conf is missing");
}

TEST(Compare, ManyDifferencesAreCounted) {
  EXPECT_EQ(
      told("a=1\nb=1\nc=1\nd=1\ne=1\nf=1\ng=1\n", "x"),
      "nvram.conf: a is missing, nvram.conf: b is missing, nvram.conf: c is missing, nvram.conf: d "
      "is missing, nvram.conf: e is missing and 2 more");
  EXPECT_EQ(told("a=1\nb=1\nc=1\nd=1\ne=1\n", "x").find("more"), std::string::npos);
}

TEST(Compare, HostileSettingsAreReadToTheirEnd) {
  EXPECT_EQ(told("\n\n=\n==\na\n\x1b[2J=1\n", std::string(100000, '=') + "\n"), "same");
  EXPECT_EQ(told("", std::string(64, 'k') + "=1\n"), "same");  // longer than a key may be
  EXPECT_EQ(told("", std::string(63, 'k') + "=1\n"),
            "nvram.conf: " + std::string(63, 'k') + " was not sent");
  EXPECT_EQ(told("a=\x1b[2J\n", "a=\n"), "nvram.conf: a differs");
}

}  // namespace
}  // namespace qel_gateway
