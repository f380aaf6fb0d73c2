// SPDX-License-Identifier: Apache-2.0
//
// Addresses that move: what a scan of the chip's layer-2 table learns, refreshes, drops and
// reports, for tables of every awkward length and for one that changes while it is read.
#include "qel/qel_mac.h"

#include <cstdlib>
#include <cstring>

#include "qel/qel_alarm.h"
#include "qel/qel_table.h"
#include "tests/unit/support.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::SizeIs;

constexpr uint32_t kStart = 1700000000;
constexpr uint32_t kGe3 = 0x01000003;
constexpr uint32_t kGe5 = 0x01000005;
constexpr char kMoveLine[] = "find move alarm ..............\r\n";

// An entry of the chip's table; its address ends in `number`.
hal_mac_entry chip_entry(uint32_t port, uint32_t number, uint16_t vid = 1, uint32_t aging = 300,
                         uint32_t type = 2) {
  hal_mac_entry entry = {};
  entry.port = port;
  entry.type = type;
  entry.aging_time = aging;
  entry.vid = vid;
  const uint8_t mac[6] = {0x02,
                          0,
                          static_cast<uint8_t>(number >> 24),
                          static_cast<uint8_t>(number >> 16),
                          static_cast<uint8_t>(number >> 8),
                          static_cast<uint8_t>(number)};
  std::memcpy(entry.mac, mac, sizeof mac);
  return entry;
}

class MacMoveTest : public AgentTest {
 protected:
  MacMoveTest() {
    fake::add_interface("vlanif1", 7);
    fake::add_ports(8);
    start();
  }

  // The chip's table from now on.
  static void table(const std::vector<hal_mac_entry>& entries) {
    fake::clear_mac_entries();
    for (const hal_mac_entry& entry : entries) {
      fake::add_mac_entry(entry);
    }
  }
  // A table of that many addresses, spread over the ports.
  static void table_of(uint32_t count) {
    fake::clear_mac_entries();
    for (uint32_t i = 0; i < count; ++i) {
      fake::add_mac_entry(chip_entry(0x01000001 + i % 8, i));
    }
  }
  // Appends a record by hand, as a scan leaves it until it has seen the address.
  static void add_record(uint32_t port, uint32_t number) {
    auto* const record = static_cast<qel_mac_entry*>(std::calloc(1, sizeof(qel_mac_entry)));
    record->port = port;
    record->type = 2;
    record->vid = 1;
    std::memcpy(record->mac, chip_entry(port, number).mac, sizeof record->mac);
    listnode_add(g_qel_cur_mac_list, record);
  }
  // Applies one entry of the chip's table by hand; what that prints.
  static std::string apply(const hal_mac_entry& entry) {
    return stdout_of([&entry] { qel_mac_find_move_process(g_qel_cur_mac_list, &entry); });
  }
  // One scan; what it prints.
  static std::string scan() {
    return stdout_of([] { EXPECT_EQ(qel_mac_scan_check_l2_map(), 0); });
  }
  static unsigned known() { return g_qel_cur_mac_list->count; }
  // The list as the maintenance operation shows it, without its line ends.
  static std::vector<std::string> shown() {
    const std::string text = stdout_of([] { qel_mac_list_show(g_qel_cur_mac_list); });
    std::vector<std::string> lines;
    for (size_t at = 0; at < text.size();) {
      const size_t end = text.find(" \r\n", at);
      lines.push_back(text.substr(at, end - at));
      at = end == std::string::npos ? text.size() : end + 3;
    }
    return lines;
  }
  static std::string message() {
    const qel_alarm_entry& entry = g_qel_alarm_table[3];
    return {entry.msg, strnlen(entry.msg, sizeof entry.msg)};
  }
  static uint32_t reported() { return g_qel_alarm_table[3].last_time; }
};

using MacMoveDeathTest = MacMoveTest;

// ---------------------------------------------------------------------------------------------
// What is learnt

TEST_F(MacMoveTest, ListIsEmptyAtStartAndFreesItsRecords) {
  EXPECT_EQ(known(), 0U);
  EXPECT_NE(g_qel_cur_mac_list->del, nullptr);
}

TEST_F(MacMoveTest, NewAddressesAreKeptInTheOrderOfTheTable) {
  table({chip_entry(kGe5, 0xA1B2C3D4, 4094, 0xFFFFFFFF), chip_entry(kGe3, 1, 1, 300)});
  EXPECT_EQ(scan(), "");
  EXPECT_THAT(shown(), ElementsAre("02-00-a1-b2-c3-d4  1000005 vid 4094 aging_time=4294967295",
                                   "02-00-00-00-00-01  1000003 vid 1 aging_time=300"));
  const auto* record = static_cast<const qel_mac_entry*>(listnode_head(g_qel_cur_mac_list));
  EXPECT_EQ(record->type, 2U);
  EXPECT_EQ(reported(), 0U) << "new is not moved";
}

TEST_F(MacMoveTest, OnlyEntriesOfTypeTwoAreWatched) {
  std::vector<hal_mac_entry> entries;
  for (const uint32_t type : {0U, 1U, 3U, 4U, 255U, 0xFFFFFFFFU}) {
    entries.push_back(chip_entry(kGe3, type, 1, 300, type));
  }
  table(entries);
  scan();
  EXPECT_EQ(known(), 0U);
}

TEST_F(MacMoveTest, EntriesOfOtherTypesDoNotHideThoseBehindThem) {
  table({chip_entry(kGe3, 1, 1, 300, 1), chip_entry(kGe3, 2), chip_entry(kGe3, 3, 1, 300, 3),
         chip_entry(kGe5, 4)});
  scan();
  EXPECT_THAT(shown(), ElementsAre("02-00-00-00-00-02  1000003 vid 1 aging_time=300",
                                   "02-00-00-00-00-04  1000005 vid 1 aging_time=300"));
}

TEST_F(MacMoveTest, AddressThatStaysIsRefreshedWithTheAgingTimeOfTheTable) {
  table({chip_entry(kGe3, 1, 1, 300)});
  scan();
  table({chip_entry(kGe3, 1, 1, 17)});
  EXPECT_EQ(scan(), "");
  EXPECT_THAT(shown(), ElementsAre("02-00-00-00-00-01  1000003 vid 1 aging_time=17"));
}

TEST_F(MacMoveTest, AddressThatLeftIsDropped) {
  table({chip_entry(kGe3, 1), chip_entry(kGe3, 2), chip_entry(kGe3, 3)});
  scan();
  table({chip_entry(kGe3, 1), chip_entry(kGe3, 3), chip_entry(kGe3, 4)});
  scan();
  EXPECT_THAT(shown(), ElementsAre("02-00-00-00-00-01  1000003 vid 1 aging_time=300",
                                   "02-00-00-00-00-03  1000003 vid 1 aging_time=300",
                                   "02-00-00-00-00-04  1000003 vid 1 aging_time=300"));
  table({});
  scan();
  EXPECT_EQ(known(), 0U);
}

TEST_F(MacMoveTest, AddressWithoutAgingTimeIsDroppedAfterItsScan) {
  table({chip_entry(kGe3, 1, 1, 0)});
  scan();
  EXPECT_EQ(known(), 0U);
}

TEST_F(MacMoveTest, SameAddressInTwoVlansIsTwoRecords) {
  table({chip_entry(kGe3, 1, 10), chip_entry(kGe5, 1, 20)});
  EXPECT_EQ(scan(), "");
  EXPECT_EQ(known(), 2U);
  table({chip_entry(kGe3, 1, 10), chip_entry(kGe3, 1, 20)});
  EXPECT_EQ(scan(), kMoveLine) << "the one of VLAN 20";
  EXPECT_EQ(message(), R"({"ports":"ge5,ge3","value":"02:00:00:00:00:01 "})");
  EXPECT_THAT(shown(), ElementsAre("02-00-00-00-00-01  1000003 vid 10 aging_time=300"));
}

TEST_F(MacMoveTest, VlanOf16BitsIsComparedWhole) {
  table({chip_entry(kGe3, 1, 1), chip_entry(kGe5, 1, 257), chip_entry(kGe5, 1, 65535)});
  EXPECT_EQ(scan(), "");
  EXPECT_EQ(known(), 3U);
}

// ---------------------------------------------------------------------------------------------
// Moves

TEST_F(MacMoveTest, MoveIsReportedOnceAndLearntOneScanLater) {
  table({chip_entry(kGe3, 1)});
  scan();
  table({chip_entry(kGe5, 1)});
  EXPECT_EQ(scan(), kMoveLine);
  EXPECT_EQ(message(), R"({"ports":"ge3,ge5","value":"02:00:00:00:00:01 "})");
  EXPECT_EQ(reported(), kStart);
  EXPECT_EQ(g_qel_alarm_table[3].active, 1);
  EXPECT_EQ(known(), 0U) << "dropped by the scan that saw the move";
  EXPECT_EQ(scan(), "");
  EXPECT_THAT(shown(), ElementsAre("02-00-00-00-00-01  1000005 vid 1 aging_time=300"));
  fake::advance(3600);
  EXPECT_EQ(scan(), "");
  EXPECT_EQ(reported(), kStart);
}

TEST_F(MacMoveTest, MovesAreReportedTwelveSecondsApart) {
  table({chip_entry(kGe3, 1), chip_entry(kGe3, 2)});
  scan();
  table({chip_entry(kGe5, 1), chip_entry(kGe5, 2)});
  EXPECT_EQ(scan(), std::string(kMoveLine) + kMoveLine);
  EXPECT_EQ(message(), R"({"ports":"ge3,ge5","value":"02:00:00:00:00:01 "})")
      << "the second came too soon";
  scan();
  fake::advance(11);
  table({chip_entry(kGe3, 2)});
  EXPECT_EQ(scan(), kMoveLine);
  EXPECT_EQ(reported(), kStart);
  scan();
  fake::advance(1);
  table({chip_entry(kGe5, 2)});
  EXPECT_EQ(scan(), kMoveLine);
  EXPECT_EQ(message(), R"({"ports":"ge3,ge5","value":"02:00:00:00:00:02 "})");
  EXPECT_EQ(reported(), kStart + 12);
}

TEST_F(MacMoveTest, SameMoveAgainIsNoNews) {
  for (int i = 0; i < 3; ++i) {
    table({chip_entry(kGe3, 1)});
    scan();
    fake::advance(60);
    table({chip_entry(kGe5, 1)});
    EXPECT_EQ(scan(), kMoveLine);
    EXPECT_EQ(reported(), kStart + 60);
  }
}

TEST_F(MacMoveTest, AddressOnTwoPortsAtOnceIsAMoveInEachScan) {
  table({chip_entry(kGe3, 1), chip_entry(kGe5, 1)});
  EXPECT_EQ(scan(), kMoveLine);
  EXPECT_THAT(shown(), ElementsAre("02-00-00-00-00-01  1000003 vid 1 aging_time=300"))
      << "seen on its port, and so it stays";
  EXPECT_EQ(scan(), kMoveLine);
}

TEST_F(MacMoveTest, PortThatCannotBeResolvedSuppressesTheReportButNotTheDrop) {
  for (const auto& [from, to] :
       {std::pair{0x01000009U, kGe5}, std::pair{kGe3, 0x02000001U}, std::pair{0xFFFFFFFFU, 0U}}) {
    table({chip_entry(from, 1)});
    scan();
    table({chip_entry(to, 1)});
    EXPECT_EQ(scan(), kMoveLine);
    EXPECT_EQ(known(), 0U);
  }
  EXPECT_EQ(reported(), 0U);
  EXPECT_EQ(message(), "");
  EXPECT_EQ(g_qel_alarm_table[3].active, 0);
  EXPECT_EQ(g_qel_alarm_table[3].count, 0);
}

TEST_F(MacMoveTest, LengthOfTheAlarmTextIsTheResult) {
  const hal_mac_entry before = chip_entry(kGe3, 1);
  const hal_mac_entry after = chip_entry(kGe5, 1);
  EXPECT_EQ(qel_mac_find_move_process(g_qel_cur_mac_list, &before), 0);
  stdout_of([&after] {
    // {"ports":"ge3,ge5","value":"02:00:00:00:00:01 "}
    EXPECT_EQ(qel_mac_find_move_process(g_qel_cur_mac_list, &after), 48);
  });
}

TEST_F(MacMoveTest, FirstRecordOnAnotherPortIsTheMovedOneAndEndsTheWalk) {
  add_record(kGe3, 1);
  add_record(kGe5, 1);
  EXPECT_EQ(apply(chip_entry(kGe5, 1)), kMoveLine);
  EXPECT_EQ(message(), R"({"ports":"ge3,ge5","value":"02:00:00:00:00:01 "})");
  EXPECT_THAT(shown(), ElementsAre("02-00-00-00-00-01  1000003 vid 1 aging_time=0",
                                   "02-00-00-00-00-01  1000005 vid 1 aging_time=0"))
      << "the second, on the entry's own port, was not come to";
}

TEST_F(MacMoveTest, RecordsBeforeTheMovedOneAreRefreshedAndThoseBehindItAreNoMove) {
  for (const uint32_t port : {kGe5, 0x01000004U, kGe3, kGe5}) {
    add_record(port, 1);
  }
  EXPECT_EQ(apply(chip_entry(kGe5, 1)), kMoveLine);
  EXPECT_EQ(message(), R"({"ports":"ge4,ge5","value":"02:00:00:00:00:01 "})");
  EXPECT_THAT(shown(), ElementsAre("02-00-00-00-00-01  1000005 vid 1 aging_time=300",
                                   "02-00-00-00-00-01  1000004 vid 1 aging_time=0",
                                   "02-00-00-00-00-01  1000003 vid 1 aging_time=0",
                                   "02-00-00-00-00-01  1000005 vid 1 aging_time=0"));
}

TEST_F(MacMoveTest, LongestNamesAreReportedWhole) {
  const uif* from = fake::add_port("port-with-the-longest-name-0001");
  const uif* to = fake::add_port("port-with-the-longest-name-0002");
  table({chip_entry(from->index, 1)});
  scan();
  table({chip_entry(to->index, 1)});
  scan();
  EXPECT_EQ(message(), R"({"ports":"port-with-the-longest-name-0001,)"
                       R"(port-with-the-longest-name-0002","value":"02:00:00:00:00:01 "})");
}

// ---------------------------------------------------------------------------------------------
// Tables of all lengths

struct Length {
  uint32_t entries;
  unsigned known;       // after the first scan
  unsigned known_next;  // after the second
  unsigned reads;       // of one scan
};
void PrintTo(const Length& length, std::ostream* stream) {
  *stream << length.entries;
}

class MacTableLength : public MacMoveTest, public testing::WithParamInterface<Length> {};

TEST_P(MacTableLength, IsReadInBatchesOf20UntilOneIsShort) {
  table_of(GetParam().entries);
  fake::clear_records();
  scan();
  const std::vector<std::string> reads = fake::calls_of({"hal_mac_get"});
  ASSERT_THAT(reads, SizeIs(GetParam().reads));
  for (size_t i = 0; i < reads.size(); ++i) {
    EXPECT_EQ(reads[i], "hal_mac_get(" + std::to_string(20 * i) + ", 20, 3, 0, 0, 0)");
  }
}

TEST_P(MacTableLength, IsKeptUpTo512AndAFullListBeginsAnew) {
  table_of(GetParam().entries);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(scan(), "");
    EXPECT_EQ(known(), GetParam().known);
    EXPECT_EQ(scan(), "");
    EXPECT_EQ(known(), GetParam().known_next);
    if (GetParam().known_next == 0) {
      continue;
    }
  }
  EXPECT_EQ(reported(), 0U);
}

INSTANTIATE_TEST_SUITE_P(All, MacTableLength,
                         testing::Values(Length{0, 0, 0, 1}, Length{1, 1, 1, 1},
                                         Length{19, 19, 19, 1}, Length{20, 20, 20, 2},
                                         Length{21, 21, 21, 2}, Length{40, 40, 40, 3},
                                         Length{511, 511, 511, 26}, Length{512, 512, 0, 26},
                                         Length{513, 512, 0, 26}, Length{20000, 512, 0, 1001}),
                         [](const testing::TestParamInfo<Length>& length) {
                           return std::to_string(length.param.entries);
                         });

TEST_F(MacMoveTest, FullListKeepsTheFirst512AndSkipsTheRest) {
  table_of(20000);
  scan();
  const auto lines = shown();
  ASSERT_THAT(lines, SizeIs(512));
  EXPECT_EQ(lines.front(), "02-00-00-00-00-00  1000001 vid 1 aging_time=300");
  EXPECT_EQ(lines.back(), "02-00-00-00-01-ff  1000008 vid 1 aging_time=300");
}

TEST_F(MacMoveTest, FullListAppliesNothingNotEvenAMove) {
  table_of(512);
  scan();
  table({chip_entry(0x01000002, 0)});
  EXPECT_EQ(scan(), "");
  EXPECT_EQ(known(), 0U);
  EXPECT_EQ(reported(), 0U);
  scan();
  EXPECT_EQ(known(), 1U);
}

// ---------------------------------------------------------------------------------------------
// Tables that change, fail, or lie

TEST_F(MacMoveTest, TableThatShrinksWhileItIsReadEndsTheScan) {
  table_of(100);
  scan();
  fake::on_mac_read([](uint32_t start) -> std::optional<uint32_t> {
    if (start == 40) {
      table_of(30);
    }
    return {};
  });
  EXPECT_EQ(scan(), "");
  EXPECT_EQ(known(), 40U) << "what was read before it shrank";
}

TEST_F(MacMoveTest, TableThatGrowsWhileItIsReadIsReadToItsNewEnd) {
  table_of(20);
  fake::on_mac_read([](uint32_t start) -> std::optional<uint32_t> {
    if (start == 20) {
      table_of(45);
    }
    return {};
  });
  scan();
  EXPECT_EQ(known(), 45U);
}

TEST_F(MacMoveTest, AddressThatMovesWhileTheTableIsReadIsAMove) {
  table_of(40);
  fake::on_mac_read([](uint32_t start) -> std::optional<uint32_t> {
    if (start == 20) {
      fake::add_mac_entry(chip_entry(kGe5, 0));  // the first address, now at the end
    }
    return {};
  });
  EXPECT_EQ(scan(), kMoveLine);
  EXPECT_EQ(message(), R"({"ports":"ge1,ge5","value":"02:00:00:00:00:00 "})");
  EXPECT_EQ(known(), 40U);
}

TEST_F(MacMoveTest, EntriesThatShiftWhileTheTableIsReadAreSeenTwiceOrNotAtAll) {
  table_of(60);
  scan();
  fake::on_mac_read([](uint32_t start) -> std::optional<uint32_t> {
    if (start == 20) {
      fake::clear_mac_entries();
      for (uint32_t i = 1; i < 60; ++i) {
        fake::add_mac_entry(chip_entry(0x01000001 + i % 8, i));  // the first one left
      }
    }
    return {};
  });
  EXPECT_EQ(scan(), "");
  EXPECT_EQ(known(), 59U) << "number 20 slipped into the part that was already read";
}

TEST_F(MacMoveTest, TableThatCannotBeReadIsToldAndDropsNothing) {
  table_of(30);
  scan();
  fake::fail_platform("hal_mac_get");
  EXPECT_EQ(stdout_of([] { EXPECT_EQ(qel_mac_scan_check_l2_map(), -1); }),
            "qel_mac_scan_check_l2_map get error \r\n");
  EXPECT_EQ(known(), 30U);
  EXPECT_EQ(shown()[0], "02-00-00-00-00-00  1000001 vid 1 aging_time=0");
}

TEST_F(MacMoveTest, FailureInALaterBatchKeepsWhatWasLearntAndDropsNothing) {
  table_of(30);
  scan();
  table_of(60);
  fake::on_mac_read([](uint32_t start) -> std::optional<uint32_t> {
    fake::fail_platform("hal_mac_get", start == 40);
    return {};
  });
  EXPECT_EQ(stdout_of([] { EXPECT_EQ(qel_mac_scan_check_l2_map(), -1); }),
            "qel_mac_scan_check_l2_map get error \r\n");
  EXPECT_EQ(known(), 40U);
}

TEST_F(MacMoveTest, CompleteScanAfterAFailureDropsWhatItDoesNotSee) {
  table_of(30);
  scan();
  fake::fail_platform("hal_mac_get");
  stdout_of([] { qel_mac_scan_check_l2_map(); });
  fake::fail_platform("hal_mac_get", false);
  table_of(10);
  scan();
  EXPECT_EQ(known(), 10U);
}

TEST_F(MacMoveTest, CountThatIsNoBatchEndsTheScanWithoutReadingBehindTheEntries) {
  for (const uint32_t told : {0U, 21U, 1000U, 0xFFFFFFFFU}) {
    qel_mac_init();
    table_of(60);
    fake::on_mac_read([told](uint32_t) { return std::optional(told); });
    fake::clear_records();
    scan();
    EXPECT_THAT(fake::calls_of({"hal_mac_get"}), SizeIs(1)) << told;
    EXPECT_EQ(known(), told == 0 ? 0U : 20U) << told;
  }
}

TEST_F(MacMoveTest, TableWithoutAnEndIsLeftInTheEnd) {
  fake::on_mac_read([](uint32_t) { return std::optional(20U); });
  EXPECT_EQ(scan(), "");
  EXPECT_EQ(known(), 0U);
}

// ---------------------------------------------------------------------------------------------
// Maintenance by hand

TEST_F(MacMoveTest, ResetSetsEveryAgingTimeToZeroAndClearDropsThem) {
  table_of(3);
  scan();
  qel_mac_reset_list(g_qel_cur_mac_list);
  EXPECT_THAT(shown(), ElementsAre("02-00-00-00-00-00  1000001 vid 1 aging_time=0",
                                   "02-00-00-00-00-01  1000002 vid 1 aging_time=0",
                                   "02-00-00-00-00-02  1000003 vid 1 aging_time=0"));
  static_cast<qel_mac_entry*>(listnode_head(g_qel_cur_mac_list))->aging_time = 1;
  qel_mac_clear_old_list(g_qel_cur_mac_list);
  EXPECT_THAT(shown(), ElementsAre("02-00-00-00-00-00  1000001 vid 1 aging_time=1"));
}

TEST_F(MacMoveTest, RecordsOfAPortAreDroppedAndEachIsTold) {
  table_of(20);
  scan();
  EXPECT_THAT(stdout_of([] { qel_mac_clear_port_list(0x01000003); }),
              MatchesRegex("qel_mac_clear_port_list,[0-9]+ 1000003 \r\n"
                           "qel_mac_clear_port_list,[0-9]+ 1000003 \r\n"
                           "qel_mac_clear_port_list,[0-9]+ 1000003 \r\n"));
  EXPECT_EQ(known(), 17U);
  EXPECT_EQ(stdout_of([] { qel_mac_clear_port_list(0x01000003); }), "");
}

TEST_F(MacMoveTest, RecordIsFoundByPortAndAddressWhateverItsVlan) {
  table({chip_entry(kGe3, 1, 10), chip_entry(kGe3, 1, 20), chip_entry(kGe5, 2, 30)});
  scan();
  qel_mac_entry key = {};
  key.port = kGe3;
  std::memcpy(key.mac, chip_entry(0, 1).mac, sizeof key.mac);
  key.vid = 99;
  const qel_mac_entry* found = qel_mac_look_up_by_node(g_qel_cur_mac_list, &key);
  ASSERT_NE(found, nullptr);
  EXPECT_EQ(found->vid, 10) << "the first";
  key.port = kGe5;
  EXPECT_EQ(qel_mac_look_up_by_node(g_qel_cur_mac_list, &key), nullptr);
}

TEST_F(MacMoveTest, RecordIsDeletedByPortAndAddress) {
  table({chip_entry(kGe3, 1, 10), chip_entry(kGe3, 1, 20)});
  scan();
  qel_mac_entry key = {};
  key.port = kGe3;
  std::memcpy(key.mac, chip_entry(0, 1).mac, sizeof key.mac);
  EXPECT_EQ(qel_mac_delete_node(g_qel_cur_mac_list, &key), 0);
  EXPECT_THAT(shown(), ElementsAre("02-00-00-00-00-01  1000003 vid 20 aging_time=300"));
  EXPECT_EQ(qel_mac_delete_node(g_qel_cur_mac_list, &key), 0);
  EXPECT_EQ(qel_mac_delete_node(g_qel_cur_mac_list, &key), -1) << "nothing matches";
  EXPECT_EQ(qel_mac_delete_node(nullptr, &key), -1);
  EXPECT_EQ(qel_mac_delete_node(g_qel_cur_mac_list, nullptr), -1);
  EXPECT_THAT(shown(), IsEmpty());
}

TEST_F(MacMoveDeathTest, NodeWithoutARecordIsABrokenInvariant) {
  listnode_add(g_qel_cur_mac_list, nullptr);
  const std::string told =
      "\\(node\\)->data != \\(\\(void \\*\\)0\\), file qel/qel_mac, line [0-9]+, function ";
  const hal_mac_entry entry = chip_entry(kGe3, 1);
  const qel_mac_entry key = {};
  EXPECT_DEATH(qel_mac_scan_check_l2_map(), told + "qel_mac_reset_list");
  EXPECT_DEATH(qel_mac_find_move_process(g_qel_cur_mac_list, &entry),
               told + "qel_mac_find_move_process");
  EXPECT_DEATH(qel_mac_clear_old_list(g_qel_cur_mac_list), told + "qel_mac_clear_old_list");
  EXPECT_DEATH(qel_mac_clear_port_list(kGe3), told + "qel_mac_clear_port_list");
  EXPECT_DEATH(qel_mac_list_show(g_qel_cur_mac_list), told + "qel_mac_list_show");
  EXPECT_DEATH(qel_mac_look_up_by_node(g_qel_cur_mac_list, &key), told + "qel_mac_look_up_by_node");
}

}  // namespace
