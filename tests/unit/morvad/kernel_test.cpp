// SPDX-License-Identifier: Apache-2.0
//
// Ports that the kernel drives: how its tables are read, and what becomes of its counters.
#include <gmock/gmock.h>
#include <linux/ethtool_netlink.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <netlink/errno.h>
#include <netlink/genl/genl.h>
#include <netlink/netlink.h>

#include <functional>
#include <memory>

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

// --- figures ----------------------------------------------------------------------------------

struct MessageFree {
  void operator()(nl_msg* message) const { nlmsg_free(message); }
};
using Message = std::unique_ptr<nl_msg, MessageFree>;

TEST(Figures, OfAnInterfaceAreTheKernels64BitCounters) {
  const Message message(nlmsg_alloc_simple(RTM_NEWLINK, 0));
  nlmsg_set_proto(message.get(), NETLINK_ROUTE);
  ifinfomsg head{};
  head.ifi_index = 42;
  head.ifi_flags = 0x10043;  // up, broadcast, running, the lower layer too
  nlmsg_append(message.get(), &head, sizeof head, NLMSG_ALIGNTO);
  nla_put_string(message.get(), IFLA_IFNAME, "swp1");
  rtnl_link_stats64 stats{};
  stats.rx_bytes = 0x123456789a;
  stats.tx_bytes = 0xa987654321;
  stats.rx_errors = 77;
  stats.rx_length_errors = 6;
  stats.rx_crc_errors = 0x100000005;
  stats.rx_frame_errors = 8;
  nla_put(message.get(), IFLA_STATS64, sizeof stats, &stats);
  Collector now;
  read_message(message.get(), now);
  ASSERT_EQ(now.links.size(), 1U);
  const LinkState& link = now.links[0];
  EXPECT_EQ(link.index, 42);
  EXPECT_EQ(link.name, "swp1");
  EXPECT_TRUE(link.up);
  EXPECT_TRUE(link.carrier);
  EXPECT_EQ(link.rx_bytes, 0x123456789aU);
  EXPECT_EQ(link.tx_bytes, 0xa987654321U);
  EXPECT_EQ(link.fcs_errors, 0x100000005U);
}

/// An answer of the pause family, with what `fill` puts into it.
Message pause_answer(const std::function<void(nl_msg*)>& fill) {
  Message message(nlmsg_alloc());
  genlmsg_put(message.get(), 0, 0, 21, 0, 0, ETHTOOL_MSG_PAUSE_GET_REPLY, 1);
  nla_put_u8(message.get(), ETHTOOL_A_PAUSE_AUTONEG, 1);
  fill(message.get());
  return message;
}

/// One with figures: `size` bytes of `data` as the attribute `type`.
Message pause_figure(int type, const void* data, int size) {
  return pause_answer([type, data, size](nl_msg* message) {
    nlattr* stats = nla_nest_start(message, ETHTOOL_A_PAUSE_STATS);
    nla_put_u64(message, ETHTOOL_A_PAUSE_STAT_TX_FRAMES, 1111);
    nla_put(message, type, size, data);
    nla_nest_end(message, stats);
  });
}

TEST(Figures, PauseFramesAreThoseReceived) {
  const uint64_t count = 0x123456789abcdef0;
  const Message answer = pause_figure(ETHTOOL_A_PAUSE_STAT_RX_FRAMES, &count, sizeof count);
  EXPECT_EQ(read_pause_answer(answer.get()), 0x123456789abcdef0U);
}

TEST(Figures, PauseFramesThatAreNotToldAreNone) {
  const uint64_t count[2] = {5, 6};
  const Message none = pause_answer([](nl_msg*) {});
  EXPECT_EQ(read_pause_answer(none.get()), 0U);
  const Message empty =
      pause_answer([](nl_msg* message) { nla_put(message, ETHTOOL_A_PAUSE_STATS, 0, nullptr); });
  EXPECT_EQ(read_pause_answer(empty.get()), 0U);
  const Message others = pause_figure(ETHTOOL_A_PAUSE_STAT_PAD, count, 0);
  EXPECT_EQ(read_pause_answer(others.get()), 0U);
  for (const int size : {0, 1, 4, 7, 9, 16}) {
    const Message other_size = pause_figure(ETHTOOL_A_PAUSE_STAT_RX_FRAMES, count, size);
    EXPECT_EQ(read_pause_answer(other_size.get()), 0U) << size;
  }
}

TEST(Figures, PauseFramesOfABrokenAnswerAreNone) {
  const Message rubbish = pause_answer([](nl_msg* message) {
    nla_put(message, ETHTOOL_A_PAUSE_STATS, 6, "\xff\xff\x03\x00\x01\x02");
  });
  EXPECT_EQ(read_pause_answer(rubbish.get()), 0U);
  const Message headless(nlmsg_alloc_simple(21, 0));  // not even the family's own header
  EXPECT_EQ(read_pause_answer(headless.get()), 0U);
}

TEST(Figures, PauseFramesAreAskedForByTheNumberOfTheInterface) {
  const Message message(nlmsg_alloc());
  ASSERT_TRUE(put_pause_request(message.get(), 21, 42));
  nlmsghdr* head = nlmsg_hdr(message.get());
  EXPECT_EQ(head->nlmsg_type, 21);
  EXPECT_EQ(head->nlmsg_flags & NLM_F_ACK, NLM_F_ACK);
  EXPECT_EQ(genlmsg_hdr(head)->cmd, ETHTOOL_MSG_PAUSE_GET);
  nlattr* attributes[ETHTOOL_A_PAUSE_MAX + 1] = {};
  nlattr* header[ETHTOOL_A_HEADER_MAX + 1] = {};
  ASSERT_EQ(genlmsg_parse(head, 0, attributes, ETHTOOL_A_PAUSE_MAX, nullptr), 0);
  ASSERT_NE(attributes[ETHTOOL_A_PAUSE_HEADER], nullptr);
  ASSERT_EQ(
      nla_parse_nested(header, ETHTOOL_A_HEADER_MAX, attributes[ETHTOOL_A_PAUSE_HEADER], nullptr),
      0);
  ASSERT_NE(header[ETHTOOL_A_HEADER_DEV_INDEX], nullptr);
  EXPECT_EQ(nla_get_u32(header[ETHTOOL_A_HEADER_DEV_INDEX]), 42U);
  // Without this flag no driver tells figures.
  ASSERT_NE(header[ETHTOOL_A_HEADER_FLAGS], nullptr);
  EXPECT_EQ(nla_get_u32(header[ETHTOOL_A_HEADER_FLAGS]), 4U);
  const Message small(nlmsg_alloc_size(NLMSG_HDRLEN + 8));
  EXPECT_FALSE(put_pause_request(small.get(), 21, 42));
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
