// SPDX-License-Identifier: Apache-2.0
//
// Speeds as drivers tell and take them. The driver here works on the bytes of the kernel's record,
// with the numbers of the kernel's modes; no real one is asked.
#include "platform/linux/morvad/kernel/ethtool.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <cstring>
#include <vector>

namespace morvad {
namespace {

using testing::ElementsAre;
using Words = std::vector<uint32_t>;

// What stands where in the record.
constexpr size_t kSpeed = 4;  // 32 bits
constexpr size_t kDuplex = 8;
constexpr size_t kPort = 9;
constexpr size_t kAddress = 10;
constexpr size_t kAutoneg = 11;
constexpr size_t kCrossing = 14;
constexpr size_t kWords = 15;
constexpr size_t kMasks = 48;

constexpr uint32_t kGet = 0x4c;
constexpr uint32_t kSet = 0x4d;

uint32_t word_at(const char* record, size_t offset) {
  uint32_t word = 0;
  memcpy(&word, record + offset, sizeof word);
  return word;
}

/// A driver and the kernel before it: it wants to be asked with the right length of the masks.
struct Driver {
  Words supported;
  Words advertising = Words(supported.size());
  uint32_t speed = 1000;
  uint8_t duplex = 1;
  uint8_t port = 0;  // twisted pair
  int read_error = 0;
  int write_error = 0;
  int claimed = static_cast<int>(supported.size());  // words, as it says when asked with none

  std::vector<int> asked = {};                // words of each question
  std::vector<std::vector<char>> taken = {};  // records it was given

  int operator()(const std::string& interface, void* raw) {
    EXPECT_EQ(interface, "swp1");
    auto* record = static_cast<char*>(raw);
    return word_at(record, 0) == kGet ? get(record) : set(record);
  }

  int get(char* record) {
    const int words = static_cast<signed char>(record[kWords]);
    asked.push_back(words);
    if (read_error != 0) {
      return read_error;
    }
    memset(record + 4, 0, kMasks - 4);
    if (words != static_cast<int>(supported.size()) || words == 0) {
      record[kWords] = static_cast<char>(-claimed);
      return 0;
    }
    memcpy(record + kSpeed, &speed, sizeof speed);
    record[kDuplex] = static_cast<char>(duplex);
    record[kPort] = static_cast<char>(port);
    record[kAddress] = 17;
    record[kCrossing] = 3;
    record[kWords] = static_cast<char>(words);
    const size_t size = supported.size() * 4;
    memcpy(record + kMasks, supported.data(), size);
    memcpy(record + kMasks + size, advertising.data(), size);
    memset(record + kMasks + 2 * size, 0x55, size);  // what the far end advertises
    return 0;
  }

  int set(const char* record) {
    EXPECT_EQ(word_at(record, 0), kSet);
    EXPECT_EQ(record[kWords], static_cast<char>(supported.size()));
    taken.emplace_back(record, record + kMasks + 3 * supported.size() * 4);
    return write_error;
  }

  // Of the one record that was taken.
  const char* last() {
    EXPECT_EQ(taken.size(), 1U);
    return taken.at(0).data();
  }
  uint32_t set_speed() { return word_at(last(), kSpeed); }
  int set_duplex() { return last()[kDuplex]; }
  int set_autoneg() { return last()[kAutoneg]; }
  Words set_modes() {
    Words words;
    for (size_t i = 0; i < supported.size(); i++) {
      words.push_back(word_at(last(), kMasks + (supported.size() + i) * 4));
    }
    return words;
  }
};

/// 10, 100 half and full, 1000 full; negotiates, on a twisted pair, with pause frames.
Driver gigabit() {
  return {.supported = {0x62ef, 0, 0}};
}

/// The same, and 2500, 5000 and 10000.
Driver multigigabit() {
  return {.supported = {0x72ef, 0x18000, 0}};
}

/// 1000 and 10000 on fibre, which does not negotiate.
Driver fibre() {
  return {.supported = {0x400, 0xa00, 0}, .speed = 10000, .port = 3};
}

std::string set_speed(Driver& driver, int code) {
  return ethtool_set_speed("swp1", code, std::ref(driver));
}

EthtoolLink read(Driver& driver) {
  EthtoolLink link;
  EXPECT_EQ(ethtool_read("swp1", link, std::ref(driver)), "");
  return link;
}

// --- reading ----------------------------------------------------------------------------------

TEST(Ethtool, TheLengthOfTheMasksIsAskedForFirst) {
  Driver driver = gigabit();
  read(driver);
  EXPECT_THAT(driver.asked, ElementsAre(0, 3));
  Driver longest = {.supported = Words(127)};
  longest.supported[0] = 0x20;
  EXPECT_EQ(read(longest).max_speed, 1000);
  EXPECT_THAT(longest.asked, ElementsAre(0, 127));
}

TEST(Ethtool, ADriverThatNeverAgreesOnTheMasksTellsNothing) {
  for (const int claimed : {0, 2, 4, 127, 128, -2}) {
    Driver driver = gigabit();
    driver.claimed = claimed;
    driver.supported.push_back(0);
    driver.supported.push_back(0);
    EthtoolLink link;
    const std::string said = ethtool_read("swp1", link, std::ref(driver));
    if (claimed == -2) {  // it answers at once, by two words of nothing
      EXPECT_EQ(said, "");
      EXPECT_EQ(link.speed, 0);
      EXPECT_EQ(link.max_speed, 0);
    } else {
      EXPECT_EQ(said, "the driver tells no link settings") << claimed;
    }
    EXPECT_LE(driver.asked.size(), 2U);
  }
}

TEST(Ethtool, ALinkIsRead) {
  Driver driver = gigabit();
  EthtoolLink link = read(driver);
  EXPECT_EQ(link.speed, 1000);
  EXPECT_TRUE(link.full);
  EXPECT_FALSE(link.fibre);
  EXPECT_EQ(link.max_speed, 1000);
  driver.speed = 100;
  driver.duplex = 0;
  link = read(driver);
  EXPECT_EQ(link.speed, 100);
  EXPECT_FALSE(link.full);
}

TEST(Ethtool, WhatADriverDoesNotKnowIsNothing) {
  Driver driver = gigabit();
  driver.speed = 0xffffffff;
  driver.duplex = 0xff;
  const EthtoolLink link = read(driver);
  EXPECT_EQ(link.speed, 0);
  EXPECT_FALSE(link.full);
  EXPECT_EQ(link.max_speed, 1000);
  driver.speed = 0x80000000;
  EXPECT_EQ(read(driver).speed, 0);
  driver.speed = 400000;
  EXPECT_EQ(read(driver).speed, 400000);
}

TEST(Ethtool, TheConnectorIsRead) {
  Driver driver = fibre();
  EXPECT_TRUE(read(driver).fibre);
  EXPECT_EQ(read(driver).speed, 10000);
  driver.port = 5;  // a cable with both ends attached
  EXPECT_TRUE(read(driver).fibre);
  driver.port = 0xff;
  EXPECT_FALSE(read(driver).fibre);
}

TEST(Ethtool, TheHighestSpeedIsThatOfTheBestMode) {
  const std::vector<std::pair<Words, int>> cards = {
      {{0, 0, 0}, 0},
      {{0x62c0, 0, 0}, 0},  // connectors and pause frames only
      {{0x1, 0, 0}, 10},
      {{0xf, 0, 0}, 100},
      {{0x62ef, 0, 0}, 1000},
      {{0x62ef, 0x8000, 0}, 2500},
      {{0x62ef, 0x18000, 0}, 5000},
      {{0x72ef, 0x18000, 0}, 10000},
      {{0x80000400, 0, 0}, 25000},
      {{0x800000, 0, 0}, 40000},
      {{0, 0x10, 0}, 100000},
      {{0, 0x02000000, 0}, 100000},  // over two lanes
      {{0, 0, 0x0800}, 100000},      // over one
      {{0, 0, 0x08000000}, 100},     // the highest number that is known: fast Ethernet on fibre
      {{0, 0x8}, 0},                 // a speed that is none of ours, in short masks
  };
  for (const auto& [supported, speed] : cards) {
    Driver driver = {.supported = supported};
    EXPECT_EQ(read(driver).max_speed, speed) << std::hex << testing::PrintToString(supported);
  }
}

TEST(Ethtool, WhatTheFarEndAdvertisesIsNotOurs) {
  Driver driver = {.supported = {0}};
  EXPECT_EQ(read(driver).max_speed, 0);
}

TEST(Ethtool, ARefusalIsTheKernels) {
  Driver driver = gigabit();
  driver.read_error = EOPNOTSUPP;
  EthtoolLink link;
  EXPECT_EQ(ethtool_read("swp1", link, std::ref(driver)), "Operation not supported");
  EXPECT_EQ(set_speed(driver, 0), "Operation not supported");
  EXPECT_TRUE(driver.taken.empty());
  driver.read_error = 0;
  driver.write_error = EBUSY;
  EXPECT_EQ(set_speed(driver, 0), "Device or resource busy");
  EXPECT_EQ(ethtool_read("an-interface-name-too-long", link), "No such device");
}

// --- setting ----------------------------------------------------------------------------------

TEST(EthtoolSpeed, AutonegotiationAdvertisesAllThatIsSupported) {
  Driver driver = multigigabit();
  driver.advertising = {0x40, 0, 0};
  EXPECT_EQ(set_speed(driver, 0), "");
  EXPECT_EQ(driver.set_autoneg(), 1);
  EXPECT_THAT(driver.set_modes(), ElementsAre(0x72ef, 0x18000, 0));
}

struct Choice {
  int code;
  uint32_t speed;
  int duplex;
  int autoneg;
  Words modes;
};

/// A speed that leaves the duplex open, or that a pair only has negotiated, is the only choice.
TEST(EthtoolSpeed, IsNegotiatedAsTheOnlyChoiceOrForced) {
  const Choice choices[] = {
      {1, 10, 1, 1, {0x62c3, 0, 0}},           // 10M
      {2, 10, 0, 0, {0x62c1, 0, 0}},           // 10M-H
      {3, 10, 1, 0, {0x62c2, 0, 0}},           // 10M-F
      {4, 100, 1, 1, {0x62cc, 0, 0}},          // 100M
      {5, 100, 0, 0, {0x62c4, 0, 0}},          // 100M-H
      {6, 100, 1, 0, {0x62c8, 0, 0}},          // 100M-F
      {7, 1000, 1, 1, {0x62e0, 0, 0}},         // 1G
      {8, 1000, 1, 1, {0x62e0, 0, 0}},         // 1G-F
      {9, 2500, 1, 1, {0x62c0, 0x8000, 0}},    // 2.5G
      {10, 5000, 1, 1, {0x62c0, 0x10000, 0}},  // 5G
      {11, 10000, 1, 1, {0x72c0, 0, 0}},       // 10G
  };
  for (const Choice& choice : choices) {
    Driver driver = multigigabit();
    EXPECT_EQ(set_speed(driver, choice.code), "") << choice.code;
    EXPECT_EQ(driver.set_speed(), choice.speed) << choice.code;
    EXPECT_EQ(driver.set_duplex(), choice.duplex) << choice.code;
    EXPECT_EQ(driver.set_autoneg(), choice.autoneg) << choice.code;
    EXPECT_EQ(driver.set_modes(), choice.modes) << choice.code;
  }
}

TEST(EthtoolSpeed, WhatCannotBeNegotiatedIsForced) {
  const Choice choices[] = {
      {7, 1000, 1, 0, {0x400, 0x200, 0}},
      {8, 1000, 1, 0, {0x400, 0x200, 0}},
      {11, 10000, 1, 0, {0x400, 0x800, 0}},
      {12, 25000, 1, 0, {0x400, 0, 0}},  // which the driver may refuse
  };
  for (const Choice& choice : choices) {
    Driver driver = fibre();
    EXPECT_EQ(set_speed(driver, choice.code), "") << choice.code;
    EXPECT_EQ(driver.set_speed(), choice.speed) << choice.code;
    EXPECT_EQ(driver.set_duplex(), choice.duplex) << choice.code;
    EXPECT_EQ(driver.set_autoneg(), choice.autoneg) << choice.code;
    EXPECT_EQ(driver.set_modes(), choice.modes) << choice.code;
  }
}

TEST(EthtoolSpeed, AChoiceThatTheInterfaceDoesNotHaveIsRefused) {
  for (const int code : {9, 10, 11, 12, 13, 14}) {
    Driver driver = gigabit();
    EXPECT_EQ(set_speed(driver, code), "the interface does not support this speed") << code;
    EXPECT_TRUE(driver.taken.empty()) << code;
  }
}

TEST(EthtoolSpeed, ModesOfOtherSpeedsAreNotLeftInTheChoice) {
  // 25000 and, of a speed that no code has, 50000; error correction stays.
  Driver driver = {.supported = {0x40, 0x000e0009, 0x400}};
  EXPECT_EQ(set_speed(driver, 12), "");
  EXPECT_THAT(driver.set_modes(), ElementsAre(0x40, 0x000e0001, 0x400));
}

TEST(EthtoolSpeed, HighSpeedsHaveTheirModes) {
  Driver forty = {.supported = {0x07800040, 0, 0}};
  EXPECT_EQ(set_speed(forty, 13), "");
  EXPECT_EQ(forty.set_speed(), 40000U);
  EXPECT_THAT(forty.set_modes(), ElementsAre(0x07800040, 0, 0));
  Driver hundred = {.supported = {0x07800040, 0x3e0000f0, 0xf800}};
  EXPECT_EQ(set_speed(hundred, 14), "");
  EXPECT_EQ(hundred.set_speed(), 100000U);
  EXPECT_THAT(hundred.set_modes(), ElementsAre(0x40, 0x3e0000f0, 0xf800));
}

TEST(EthtoolSpeed, WhatIsNotOfSpeedStaysAsItIs) {
  Driver driver = gigabit();
  EXPECT_EQ(set_speed(driver, 6), "");
  EXPECT_EQ(driver.last()[kPort], 0);
  EXPECT_EQ(driver.last()[kAddress], 17);
  EXPECT_EQ(driver.last()[kCrossing], 3);
  EXPECT_EQ(word_at(driver.last(), kMasks), 0x62efU);  // supported
  EXPECT_EQ(word_at(driver.last(), kMasks + 24), 0x55555555U);
}

}  // namespace
}  // namespace morvad
