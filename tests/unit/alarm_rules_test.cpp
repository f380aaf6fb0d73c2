// SPDX-License-Identifier: Apache-2.0
//
// When an alarm is due: the general rule, the rule for lists of ports, messages too long to keep,
// and the object that would tell the gateway. A report is handed over once, and shows in the entry:
// its message is kept and its time is now.
#include <cstring>

#include "qel/qel_alarm.h"
#include "qel/qel_devinfo.h"
#include "qel/qel_table.h"
#include "tests/unit/support.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr uint32_t kStart = 1700000000;

class AlarmRuleTest : public AgentTest {
 protected:
  AlarmRuleTest() {
    fake::add_interface("vlanif1", 7);
    fake::add_ports(3);
    start();
  }

  static qel_alarm_entry& entry(uint32_t type) { return g_qel_alarm_table[type]; }
  static std::string message(uint32_t type) {
    return {entry(type).msg, strnlen(entry(type).msg, sizeof entry(type).msg)};
  }

  // Applies the rule; true when that was a report.
  static bool reports(uint32_t type, int condition, int32_t need, int32_t interval,
                      const char* msg) {
    return reports([=] { return qel_alarm_update(type, condition, need, interval, msg); }, type);
  }
  static bool reports_ports(uint32_t type, int32_t interval, const char* msg) {
    return reports([=] { return qel_alarm_update_ports(type, interval, msg); }, type);
  }

 private:
  static bool reports(const std::function<int()>& rule, uint32_t type) {
    const uint32_t before = entry(type).last_time;
    handed_over().clear();
    EXPECT_EQ(rule(), 0);
    if (handed_over().empty()) {
      EXPECT_EQ(entry(type).last_time, before);
      return false;
    }
    EXPECT_THAT(handed_over(), ElementsAre(HandedOver{type, message(type), before}));
    EXPECT_EQ(entry(type).last_time, static_cast<uint32_t>(fake::now()));
    return true;
  }
};

// ---------------------------------------------------------------------------------------------
// The table

TEST_F(AlarmRuleTest, TableHoldsElevenKindsAndStartsZero) {
  EXPECT_EQ(g_qel_alarm_table.size(), 11U);
  for (const qel_alarm_entry& one : g_qel_alarm_table) {
    EXPECT_EQ(one.active, 0);
    EXPECT_EQ(one.count, 0);
    EXPECT_EQ(one.last_time, 0U);
    EXPECT_EQ(std::string(one.msg, sizeof one.msg), zeros(1024));
    for (int port = 0; port <= 3; ++port) {
      EXPECT_EQ(one.port_count[port], 0);
      EXPECT_EQ(one.port_last[port], 0U);
    }
  }
}

TEST_F(AlarmRuleTest, StartUpClearsWhatStoodThere) {
  reports(1, 1, 0, 0, "x");
  qel_alarm_statistics_fillin(9, 3, 5);
  qel_alarm_init();
  EXPECT_EQ(entry(1).active, 0);
  EXPECT_EQ(entry(1).count, 0);
  EXPECT_EQ(entry(1).last_time, 0U);
  EXPECT_EQ(message(1), "");
  EXPECT_EQ(entry(9).port_count[3], 0);
  EXPECT_EQ(entry(9).port_last[3], 0U);
}

TEST_F(AlarmRuleTest, KindsDoNotDisturbEachOther) {
  EXPECT_TRUE(reports(5, 1, 0, 12, "x"));
  for (uint32_t type = 0; type < 11; ++type) {
    EXPECT_EQ(entry(type).active, type == 5 ? 1 : 0) << type;
    EXPECT_EQ(entry(type).last_time, type == 5 ? kStart : 0) << type;
  }
}

// ---------------------------------------------------------------------------------------------
// The general rule: counting

TEST_F(AlarmRuleTest, TrueConditionCountsAndIsActive) {
  for (int i = 1; i <= 5; ++i) {
    EXPECT_FALSE(reports(1, 1, 36, 3600, "x"));
    EXPECT_EQ(entry(1).active, 1);
    EXPECT_EQ(entry(1).count, i);
  }
}

TEST_F(AlarmRuleTest, OneFalseConditionStartsTheCountAgain) {
  for (int i = 0; i < 35; ++i) {
    EXPECT_FALSE(reports(1, 1, 36, 3600, "x"));
  }
  EXPECT_FALSE(reports(1, 0, 36, 3600, "x"));
  EXPECT_EQ(entry(1).active, 0);
  EXPECT_EQ(entry(1).count, 0);
  for (int i = 0; i < 35; ++i) {
    EXPECT_FALSE(reports(1, 1, 36, 3600, "x"));
  }
  EXPECT_TRUE(reports(1, 1, 36, 3600, "x"));
}

TEST_F(AlarmRuleTest, ConditionIsDueWithTheNeededCountAndNotBefore) {
  for (int i = 1; i <= 35; ++i) {
    EXPECT_FALSE(reports(1, 1, 36, 3600, "x")) << i;
    EXPECT_EQ(message(1), "");
  }
  EXPECT_TRUE(reports(1, 1, 36, 3600, "x"));
  EXPECT_EQ(message(1), "x");
  EXPECT_EQ(entry(1).last_time, kStart);
}

TEST_F(AlarmRuleTest, FalseConditionIsNeverDueWhenACountIsNeeded) {
  for (int i = 0; i < 300; ++i) {
    EXPECT_FALSE(reports(1, 0, 1, 0, "x"));
  }
}

TEST_F(AlarmRuleTest, WithoutANeededCountEvenAFalseConditionIsDue) {
  EXPECT_TRUE(reports(7, 0, 0, 12, "x"));
  EXPECT_EQ(entry(7).active, 0);
  fake::advance(12);
  EXPECT_TRUE(reports(7, 1, 0, 12, "y"));
  EXPECT_EQ(entry(7).active, 1);
}

TEST_F(AlarmRuleTest, CountWrapsFrom255ToZero) {
  for (int i = 0; i < 255; ++i) {
    reports(1, 1, 36, 0, "x");
  }
  EXPECT_EQ(entry(1).count, 255);
  EXPECT_FALSE(reports(1, 1, 36, 0, "y"));
  EXPECT_EQ(entry(1).count, 0);
  EXPECT_EQ(entry(1).active, 1);
  for (int i = 1; i <= 35; ++i) {
    EXPECT_FALSE(reports(1, 1, 36, 0, "y")) << "the needed count is not there any more: " << i;
  }
  EXPECT_TRUE(reports(1, 1, 36, 0, "y"));
  EXPECT_EQ(message(1), "y");
}

TEST_F(AlarmRuleTest, CountThatNeverFitsIsNeverReached) {
  for (int i = 0; i < 1000; ++i) {
    EXPECT_FALSE(reports(1, 1, 256, 0, "x"));
  }
}

TEST_F(AlarmRuleTest, KindOutsideTheTableIsIgnored) {
  for (const uint32_t type : {11U, 12U, 255U, 0x80000000U, 0xFFFFFFFFU}) {
    EXPECT_EQ(qel_alarm_update(type, 1, 0, 0, "x"), 0);
    EXPECT_EQ(qel_alarm_update_ports(type, 0, "x"), 0);
  }
}

// ---------------------------------------------------------------------------------------------
// The hand-over

TEST_F(AlarmRuleTest, DueAlarmIsHandedOverOnceWithItsMessageAndTheTimeOfTheOneBefore) {
  qel_alarm_update(7, 1, 0, 12, "a");
  qel_alarm_update(5, 1, 0, 12, "p");
  qel_alarm_update_ports(9, 3600, "l");
  fake::advance(3600);
  qel_alarm_update(7, 1, 0, 12, "b");
  qel_alarm_update_ports(9, 3600, "m");
  EXPECT_THAT(handed_over(),
              ElementsAre(HandedOver{7, "a", 0}, HandedOver{5, "p", 0}, HandedOver{9, "l", 0},
                          HandedOver{7, "b", kStart}, HandedOver{9, "m", kStart}));
}

TEST_F(AlarmRuleTest, NothingIsHandedOverTooSoonOrForTheSameMessageOrBeforeItsCount) {
  qel_alarm_update(7, 1, 0, 12, "a");
  qel_alarm_update_ports(9, 3600, "l");
  handed_over().clear();
  fake::advance(11);
  qel_alarm_update(7, 1, 0, 12, "b");
  qel_alarm_update_ports(9, 3600, "m");
  fake::advance(7200);
  qel_alarm_update(7, 1, 0, 12, "a");
  qel_alarm_update_ports(9, 3600, "l");
  qel_alarm_update(1, 1, 2, 12, "c");
  qel_alarm_update(2, 0, 1, 12, "d");
  EXPECT_THAT(handed_over(), IsEmpty());
  qel_alarm_update(1, 1, 2, 12, "c");
  EXPECT_THAT(handed_over(), SizeIs(1)) << "the second in a row";
}

// ---------------------------------------------------------------------------------------------
// The general rule: interval

TEST_F(AlarmRuleTest, ReportsAreTheIntervalApart) {
  EXPECT_TRUE(reports(1, 1, 0, 3600, "a"));
  fake::advance(3599);
  EXPECT_FALSE(reports(1, 1, 0, 3600, "b"));
  EXPECT_EQ(message(1), "a") << "what came too soon is not kept";
  fake::advance(1);
  EXPECT_TRUE(reports(1, 1, 0, 3600, "b"));
}

TEST_F(AlarmRuleTest, IntervalCountsFromTheEpochUntilTheFirstReport) {
  fake::set_now(11);
  EXPECT_FALSE(reports(7, 1, 0, 12, "a"));
  fake::set_now(12);
  EXPECT_TRUE(reports(7, 1, 0, 12, "a"));
}

TEST_F(AlarmRuleTest, ClockThatWentBackHoldsReportsBack) {
  EXPECT_TRUE(reports(1, 1, 0, 3600, "a"));
  fake::set_now(kStart - 86400);
  EXPECT_FALSE(reports(1, 1, 0, 3600, "b"));
  fake::set_now(kStart + 3600);
  EXPECT_TRUE(reports(1, 1, 0, 3600, "b"));
}

TEST_F(AlarmRuleTest, IntervalGoesOnOverTheEndOf32BitTime) {
  fake::set_now(4294967290);
  EXPECT_FALSE(reports(1, 1, 0, 12, "a")) << "further from 0 than 31 bits: before the last report";
  entry(1).last_time = 4294967290U;
  fake::set_now(4294967296 + 5);
  EXPECT_FALSE(reports(1, 1, 0, 12, "a")) << "eleven seconds";
  fake::set_now(4294967296 + 6);
  EXPECT_TRUE(reports(1, 1, 0, 12, "a")) << "twelve";
}

TEST_F(AlarmRuleTest, WithoutAnIntervalEachNewMessageIsReported) {
  EXPECT_TRUE(reports(1, 1, 0, 0, "a"));
  EXPECT_FALSE(reports(1, 1, 0, 0, "a"));
  EXPECT_TRUE(reports(1, 1, 0, 0, "b"));
  EXPECT_EQ(message(1), "b");
}

// ---------------------------------------------------------------------------------------------
// The general rule: message

TEST_F(AlarmRuleTest, UnchangedMessageIsNeverReportedAgainAndLeavesTheTime) {
  EXPECT_TRUE(reports(1, 1, 0, 3600, "a"));
  for (int hour = 0; hour < 48; ++hour) {
    fake::advance(3600);
    EXPECT_FALSE(reports(1, 1, 0, 3600, "a"));
  }
  EXPECT_EQ(entry(1).last_time, kStart);
  EXPECT_TRUE(reports(1, 1, 0, 3600, "b")) << "at once, the last report is long past";
}

TEST_F(AlarmRuleTest, MessagesAreComparedWhole) {
  EXPECT_TRUE(reports(1, 1, 0, 1, "ab"));
  for (const char* msg : {"a", "ab", "abc", "AB", ""}) {
    fake::advance(1);
    EXPECT_TRUE(reports(1, 1, 0, 1, msg)) << msg;
    EXPECT_EQ(std::string(entry(1).msg, 1024), msg + zeros(1024 - std::strlen(msg)));
    fake::advance(1);
    EXPECT_FALSE(reports(1, 1, 0, 1, msg)) << msg;
  }
}

TEST_F(AlarmRuleTest, EmptyMessageEqualsThatOfTheStart) {
  EXPECT_FALSE(reports(1, 1, 0, 12, ""));
  EXPECT_EQ(entry(1).last_time, 0U);
}

TEST_F(AlarmRuleTest, WithoutAMessageOnlyTheIntervalHolds) {
  EXPECT_TRUE(reports(1, 1, 0, 12, "a"));
  fake::advance(11);
  EXPECT_FALSE(reports(1, 1, 0, 12, nullptr));
  fake::advance(1);
  EXPECT_TRUE(reports(1, 1, 0, 12, nullptr));
  fake::advance(12);
  EXPECT_TRUE(reports(1, 1, 0, 12, nullptr));
  EXPECT_EQ(message(1), "a") << "what was kept stays";
}

TEST_F(AlarmRuleTest, MessageOf1024BytesIsKeptWholeAndRecognised) {
  const std::string msg = std::string(1023, 'm') + "z";
  EXPECT_TRUE(reports(7, 1, 0, 12, msg.c_str()));
  EXPECT_EQ(std::string(entry(7).msg, 1024), msg);
  fake::advance(12);
  EXPECT_FALSE(reports(7, 1, 0, 12, msg.c_str()));
}

TEST_F(AlarmRuleTest, LongerMessageKeepsItsFirst1024BytesAndIsReportedEachTime) {
  const std::string msg = std::string(1023, 'm') + "zTAIL";
  for (int i = 0; i < 5; ++i) {
    EXPECT_TRUE(reports(7, 1, 0, 12, msg.c_str())) << i;
    EXPECT_EQ(std::string(entry(7).msg, 1024), std::string(1023, 'm') + "z");
    EXPECT_FALSE(reports(7, 1, 0, 12, msg.c_str())) << "not sooner than the interval";
    fake::advance(12);
  }
}

TEST_F(AlarmRuleTest, LongMessageStaysInsideItsEntry) {
  reports(6, 1, 0, 12, "before");
  reports(8, 1, 0, 12, "after");
  reports(7, 1, 0, 12, std::string(60000, 'm').c_str());
  EXPECT_EQ(message(6), "before");
  EXPECT_EQ(message(8), "after");
  EXPECT_EQ(entry(7).active, 1);
  EXPECT_EQ(entry(7).count, 1);
  EXPECT_EQ(entry(7).last_time, kStart);
  EXPECT_EQ(entry(7).port_count[3], 0);
}

TEST_F(AlarmRuleTest, WhatWasCutEqualsNoMessageNotEvenItsOwnBeginning) {
  reports(7, 1, 0, 12, std::string(1025, 'm').c_str());
  fake::advance(12);
  const std::string beginning(1024, 'm');
  EXPECT_TRUE(reports(7, 1, 0, 12, beginning.c_str()));
  fake::advance(12);
  EXPECT_FALSE(reports(7, 1, 0, 12, beginning.c_str())) << "this one was kept whole";
}

TEST_F(AlarmRuleTest, ShortMessageAfterALongOneKeepsNothingOfIt) {
  reports(7, 1, 0, 12, std::string(2000, 'm').c_str());
  fake::advance(12);
  EXPECT_TRUE(reports(7, 1, 0, 12, "short"));
  fake::advance(12);
  EXPECT_FALSE(reports(7, 1, 0, 12, "short"));
  char area[2048] = {};
  qel_text out(area, sizeof area);
  qel_alarm_json_build(out, 7);
  EXPECT_EQ(
      out.view(),
      R"({"alarm_type":"ports_mstp_alarm","ip":"192.168.1.10","sysname":"","alarm_msg":short})");
}

// ---------------------------------------------------------------------------------------------
// The rule for lists of ports

TEST_F(AlarmRuleTest, PortListLeavesCountAndActiveAlone) {
  EXPECT_TRUE(reports_ports(9, 3600, "a"));
  EXPECT_EQ(entry(9).count, 0);
  EXPECT_EQ(entry(9).active, 0);
  entry(9).count = 7;
  entry(9).active = 1;
  fake::advance(3600);
  EXPECT_TRUE(reports_ports(9, 3600, "b"));
  EXPECT_EQ(entry(9).count, 7);
  EXPECT_EQ(entry(9).active, 1);
}

TEST_F(AlarmRuleTest, PortListsAreTheIntervalApartAndNeverRepeated) {
  EXPECT_TRUE(reports_ports(9, 3600, "a"));
  EXPECT_EQ(message(9), "a");
  fake::advance(3599);
  EXPECT_FALSE(reports_ports(9, 3600, "b"));
  EXPECT_EQ(message(9), "a");
  fake::advance(1);
  EXPECT_FALSE(reports_ports(9, 3600, "a"));
  EXPECT_EQ(entry(9).last_time, kStart);
  EXPECT_TRUE(reports_ports(9, 3600, "b"));
  EXPECT_EQ(message(9), "b");
}

TEST_F(AlarmRuleTest, PortListTooLongToKeepIsReportedEachTime) {
  const std::string list(1025, 'p');
  EXPECT_TRUE(reports_ports(9, 3600, list.c_str()));
  fake::advance(3600);
  EXPECT_TRUE(reports_ports(9, 3600, list.c_str()));
  EXPECT_EQ(std::string(entry(9).msg, 1024), std::string(1024, 'p'));
}

// ---------------------------------------------------------------------------------------------
// The object for the gateway

class AlarmObjectTest : public AlarmRuleTest {
 protected:
  AlarmObjectTest() { qel_devinfo_set(qel_info::device_name, "office-sw"); }

  std::string object(uint32_t type) {
    char area[4096] = {};
    qel_text out(area, sizeof area);
    const size_t end = qel_alarm_json_build(out, type);
    EXPECT_EQ(end, out.length()) << "the place behind the text";
    return std::string(out.view());
  }
};

TEST_F(AlarmObjectTest, EachKindHasItsName) {
  const char* names[] = {"unknown_alarm",
                         "cpu_occupancy_exceed_alarm",
                         "memery_occupancy_exceed_alarm",
                         "mac_move_alarm",
                         "poe_error_alarm",
                         "poe_over_pwr_alarm",
                         "ports_speed_change_alarm",
                         "ports_mstp_alarm",
                         "ports_occupancy_exceed_alarm",
                         "ports_crc_alarm",
                         "ports_pause_alarm"};
  for (uint32_t type = 0; type < 11; ++type) {
    EXPECT_THAT(object(type), BytesAre("{\"alarm_type\":\"" + std::string(names[type]) +
                                       "\",\"ip\":\"192.168.1.10\",\"sysname\":\"office-sw\"}"));
  }
}

TEST_F(AlarmObjectTest, MessageGoesInUnquoted) {
  reports(1, 1, 0, 3600, R"({"value":"95"})");
  EXPECT_THAT(object(1),
              BytesAre(R"({"alarm_type":"cpu_occupancy_exceed_alarm","ip":"192.168.1.10",)"
                       R"("sysname":"office-sw","alarm_msg":{"value":"95"}})"));
}

TEST_F(AlarmObjectTest, LongestMessageGoesInWholeAndALongerOneCut) {
  const std::string head =
      R"({"alarm_type":"ports_mstp_alarm","ip":"192.168.1.10","sysname":"office-sw","alarm_msg":)";
  reports(7, 1, 0, 12, std::string(1024, 'm').c_str());
  EXPECT_EQ(object(7), head + std::string(1024, 'm') + "}");
  fake::advance(12);
  reports(7, 1, 0, 12, std::string(5000, 'n').c_str());
  EXPECT_EQ(object(7), head + std::string(1024, 'n') + "}");
}

TEST_F(AlarmObjectTest, AddressAndNameAreThoseOfTheTableAndNoFormats) {
  qel_devinfo_set(qel_info::ip, "%s", "%n%s");
  qel_devinfo_set(qel_info::device_name, "%s", "a\"b%d");
  qel_devinfo_set(qel_info::sysname, "%s", "another");
  EXPECT_EQ(object(3),
            "{\"alarm_type\":\"mac_move_alarm\",\"ip\":\"%n%s\",\"sysname\":\"a\"b%d\"}");
}

TEST_F(AlarmObjectTest, NotificationDoesNothing) {
  for (uint32_t type = 0; type < 11; ++type) {
    EXPECT_EQ(qel_alarm_notify(type), 0);
  }
  EXPECT_THAT(fake::calls(), IsEmpty());
  EXPECT_THAT(fake::sent(), IsEmpty());
}

}  // namespace
