// SPDX-License-Identifier: Apache-2.0
//
// Ports that the kernel drives: how its tables are read, and what becomes of its counters.
#include <gmock/gmock.h>
#include <netlink/errno.h>

#include "platform/linux/morvad/kernel/collector.h"
#include "platform/linux/morvad/kernel/kernel_port.h"
#include "platform/linux/morvad/kernel/netlink_parse.h"

namespace morvad {
namespace {

using testing::ElementsAre;

LinkState link_of(int index, uint64_t tx_bytes = 0, uint64_t rx_bytes = 0) {
  LinkState link;
  link.index = index;
  link.tx_bytes = tx_bytes;
  link.rx_bytes = rx_bytes;
  return link;
}

std::vector<int> numbers(const Collector& from) {
  std::vector<int> out;
  for (const LinkState& link : from.links) {
    out.push_back(link.index);
  }
  return out;
}

// --- dumps ------------------------------------------------------------------------------------

TEST(Dump, WhatAnInterruptedOneToldCountsForNothing) {
  Collector now;
  int tries = 0;
  const int result = read_dump(now, [&now, &tries] {
    tries++;
    now.link(link_of(tries));
    now.link(link_of(7));
    now.fdb({}, false);
    return tries < 3 ? -NLE_DUMP_INTR : 0;
  });
  EXPECT_EQ(result, 0);
  EXPECT_EQ(tries, 3);
  EXPECT_THAT(numbers(now), ElementsAre(3, 7));
  EXPECT_EQ(now.entries.size(), 1U);
}

TEST(Dump, OneThatIsAlwaysInterruptedEnds) {
  Collector now;
  int tries = 0;
  const int result = read_dump(now, [&now, &tries] {
    tries++;
    now.link(link_of(tries));
    return -NLE_DUMP_INTR;
  });
  EXPECT_EQ(result, -NLE_DUMP_INTR);
  EXPECT_EQ(tries, 5);
  EXPECT_THAT(numbers(now), ElementsAre(5));
}

TEST(Dump, AFailureIsNotTriedAgain) {
  Collector now;
  int tries = 0;
  EXPECT_EQ(read_dump(now,
                      [&tries] {
                        tries++;
                        return -NLE_PERM;
                      }),
            -NLE_PERM);
  EXPECT_EQ(tries, 1);
}

// --- rates ------------------------------------------------------------------------------------

/// A port on the loopback interface, which is in every network and has the number 1; its link is
/// there, its samples are the test's.
class KernelRates : public testing::Test {
 protected:
  KernelRates() { port_.take(link_of(1)); }

  Counters rates() {
    Counters now;
    EXPECT_TRUE(port_.read_counters(now));
    return now;
  }

  static constexpr uint64_t kSecond = 1000000000;
  Netlink netlink_;
  PauseFrames pause_;
  KernelPort port_{"lo", netlink_, pause_};
};

TEST_F(KernelRates, AreThoseOfTheLastInterval) {
  port_.sample(link_of(1, 1000, 5000), 10 * kSecond);
  EXPECT_EQ(rates().tx_rate, 0U);
  EXPECT_EQ(rates().rx_rate, 0U);
  port_.sample(link_of(1, 3000, 9001), 12 * kSecond);
  EXPECT_EQ(rates().tx_rate, 1000U);
  EXPECT_EQ(rates().rx_rate, 2000U);
  port_.sample(link_of(1, 3000, 9001), 14 * kSecond);
  EXPECT_EQ(rates().tx_rate, 0U);
  EXPECT_EQ(rates().rx_rate, 0U);
}

TEST_F(KernelRates, StayWhenNoTimeWentBy) {
  port_.sample(link_of(1, 1000, 5000), 10 * kSecond);
  port_.sample(link_of(1, 3000, 9000), 12 * kSecond);
  port_.sample(link_of(1, 3500, 9500), 12 * kSecond);
  EXPECT_EQ(rates().tx_rate, 1000U);
  EXPECT_EQ(rates().rx_rate, 2000U);
  // What came in between is in the next interval.
  port_.sample(link_of(1, 4000, 10000), 13 * kSecond);
  EXPECT_EQ(rates().tx_rate, 1000U);
  EXPECT_EQ(rates().rx_rate, 1000U);
}

TEST_F(KernelRates, AreNothingWhereTheCounterBeganAnew) {
  port_.sample(link_of(1, 1000, 5000), 10 * kSecond);
  port_.sample(link_of(1, 10, 9000), 12 * kSecond);
  EXPECT_EQ(rates().tx_rate, 0U);
  EXPECT_EQ(rates().rx_rate, 2000U);
}

TEST_F(KernelRates, OfManyBytesAreNotCutShort) {
  port_.sample(link_of(1), kSecond);
  port_.sample(link_of(1, uint64_t{1} << 62, 0), 3 * kSecond);
  EXPECT_EQ(rates().tx_rate, uint64_t{1} << 61);
}

}  // namespace
}  // namespace morvad
