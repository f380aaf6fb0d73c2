// SPDX-License-Identifier: Apache-2.0
//
// Alarms of ports: counters of errors, pause frames and traffic, fed by the statistics module or by
// hand, and the lists of ports that they become.
#include <climits>
#include <cstring>

#include "qel/qel_alarm.h"
#include "qel/qel_table.h"
#include "tests/unit/support.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr uint32_t kStart = 1700000000;

class AlarmPortsTest : public AgentTest {
 protected:
  // A switch with ports "ge1".."ge<count>".
  void start_with(int count) {
    fake::add_interface("vlanif1", 7);
    fake::add_ports(count);
    start();
    g_qel_dev.alarm_stat_enable = 1;
  }

  static qel_alarm_entry& entry(uint32_t type) { return g_qel_alarm_table[type]; }
  static std::string message(uint32_t type) {
    return {entry(type).msg, strnlen(entry(type).msg, sizeof entry(type).msg)};
  }
  // The counters of `type` for port numbers 0 to `last`.
  static std::vector<int> counts(uint32_t type, int last) {
    return {entry(type).port_count, entry(type).port_count + last + 1};
  }
  static void statistics(const std::string& reply) {
    fake::reply("statistics", "port_statistic_qel_dot3_get_all", reply);
  }
  // One row of the statistics module.
  static std::string row(const std::string& name, int64_t crc, int64_t pause, int64_t rx = 0,
                         int64_t tx = 0) {
    return R"({"name":")" + name + R"(","dot3_FCSErrors":)" + std::to_string(crc) +
           R"(,"dot3_InPauseFrames":)" + std::to_string(pause) + R"(,"rx_bytes":)" +
           std::to_string(rx) + R"(,"tx_bytes":)" + std::to_string(tx) + "}";
  }
  static std::string rows(const std::vector<std::string>& all) {
    std::string text = R"({"data":[)";
    for (const std::string& one : all) {
      text += text.back() == '[' ? one : "," + one;
    }
    return text + "]}";
  }
  static void check() { EXPECT_EQ(qel_alarm_port_statistics_check(), 0); }
  static void scan() {
    fake::advance(5);
    EXPECT_EQ(qel_alarm_scan(), 0);
  }
};

// ---------------------------------------------------------------------------------------------
// Counters that rise

TEST_F(AlarmPortsTest, RisingValueCountsAndIsKept) {
  start_with(3);
  for (uint32_t value = 1; value <= 5; ++value) {
    EXPECT_EQ(qel_alarm_statistics_fillin(9, 2, value * 10), 0);
    EXPECT_EQ(entry(9).port_last[2], value * 10);
    EXPECT_THAT(counts(9, 3), ElementsAre(0, 0, static_cast<int>(value), 0));
  }
  EXPECT_THAT(counts(10, 3), ElementsAre(0, 0, 0, 0)) << "the other kind";
}

TEST_F(AlarmPortsTest, EqualValueStartsTheCountAgain) {
  start_with(3);
  qel_alarm_statistics_fillin(9, 2, 10);
  qel_alarm_statistics_fillin(9, 2, 11);
  EXPECT_EQ(qel_alarm_statistics_fillin(9, 2, 11), 0);
  EXPECT_EQ(entry(9).port_count[2], 0);
  qel_alarm_statistics_fillin(9, 2, 12);
  EXPECT_EQ(entry(9).port_count[2], 1);
}

TEST_F(AlarmPortsTest, AfterACounterResetTheOldValueStandsUntilItIsPassed) {
  start_with(3);
  qel_alarm_statistics_fillin(9, 2, 1000);
  for (const uint32_t value : {0U, 1U, 500U, 999U, 1000U}) {
    EXPECT_EQ(qel_alarm_statistics_fillin(9, 2, value), 0);
    EXPECT_EQ(entry(9).port_count[2], 0) << value;
    EXPECT_EQ(entry(9).port_last[2], 1000U) << value;
  }
  qel_alarm_statistics_fillin(9, 2, 1001);
  EXPECT_EQ(entry(9).port_count[2], 1);
  EXPECT_EQ(entry(9).port_last[2], 1001U);
}

TEST_F(AlarmPortsTest, ZeroIsNoRise) {
  start_with(1);
  qel_alarm_statistics_fillin(9, 1, 0);
  EXPECT_EQ(entry(9).port_count[1], 0);
}

TEST_F(AlarmPortsTest, ValuesAreUnsigned) {
  start_with(1);
  qel_alarm_statistics_fillin(9, 1, 0x7FFFFFFF);
  qel_alarm_statistics_fillin(9, 1, 0x80000000);
  qel_alarm_statistics_fillin(9, 1, 0xFFFFFFFF);
  EXPECT_EQ(entry(9).port_count[1], 3);
}

TEST_F(AlarmPortsTest, CountWrapsAt256) {
  start_with(1);
  for (uint32_t value = 1; value <= 255; ++value) {
    qel_alarm_statistics_fillin(9, 1, value);
  }
  EXPECT_EQ(entry(9).port_count[1], 255);
  qel_alarm_statistics_fillin(9, 1, 256);
  EXPECT_EQ(entry(9).port_count[1], 0);
}

TEST_F(AlarmPortsTest, PortsFromZeroToThePlatformsNumberHaveACounter) {
  start_with(3);
  for (const int port : {0, 3}) {
    for (uint32_t type = 0; type < 11; ++type) {
      EXPECT_EQ(qel_alarm_statistics_fillin(type, port, 1), 0) << port << " " << type;
      EXPECT_EQ(entry(type).port_count[port], 1);
    }
  }
}

TEST_F(AlarmPortsTest, NumberOutsideIsToldAndChangesNothing) {
  start_with(3);
  const auto refused = [](uint32_t type, int32_t port) {
    return stdout_of([=] { EXPECT_EQ(qel_alarm_statistics_fillin(type, port, 5), -1); });
  };
  EXPECT_EQ(refused(9, 4), "qel_alarm_statistics_fillin portindex=4 type=9 \r\n");
  EXPECT_EQ(refused(9, INT_MAX), "qel_alarm_statistics_fillin portindex=2147483647 type=9 \r\n");
  EXPECT_EQ(refused(9, -1), "qel_alarm_statistics_fillin portindex=-1 type=9 \r\n");
  EXPECT_EQ(refused(9, INT_MIN), "qel_alarm_statistics_fillin portindex=-2147483648 type=9 \r\n");
  EXPECT_EQ(refused(11, 1), "qel_alarm_statistics_fillin portindex=1 type=11 \r\n");
  EXPECT_EQ(refused(0xFFFFFFFF, 1), "qel_alarm_statistics_fillin portindex=1 type=-1 \r\n");
  for (uint32_t type = 0; type < 11; ++type) {
    EXPECT_THAT(counts(type, 3), ElementsAre(0, 0, 0, 0));
  }
}

TEST_F(AlarmPortsTest, PortThatCameAfterTheStartHasNoCounter) {
  start_with(3);
  fake::add_port("ge4");
  EXPECT_EQ(stdout_of([] { EXPECT_EQ(qel_alarm_statistics_fillin(9, 4, 1), -1); }),
            "qel_alarm_statistics_fillin portindex=4 type=9 \r\n");
  EXPECT_EQ(stdout_of([] { EXPECT_EQ(qel_alarm_port_occupancy_fillin(6, 4, 1, 1), -1); }),
            "portindex=4 type=6 \r\n");
  for (uint32_t value = 1; value <= 12; ++value) {
    qel_alarm_statistics_fillin(9, 3, value);
  }
  EXPECT_EQ(qel_alarm_ports_report(9), 0);
  EXPECT_EQ(message(9), "") << "the walk ends where the counters end";
}

TEST_F(AlarmPortsTest, PlatformThatTellsFewerPortsLaterIsBelieved) {
  start_with(3);
  entry(9).port_count[2] = 12;
  g_port_max = 2;
  EXPECT_EQ(stdout_of([] { EXPECT_EQ(qel_alarm_statistics_fillin(9, 3, 1), -1); }),
            "qel_alarm_statistics_fillin portindex=3 type=9 \r\n");
  EXPECT_EQ(stdout_of([] { EXPECT_EQ(qel_alarm_port_occupancy_fillin(6, 3, 1, 1), -1); }),
            "portindex=3 type=6 \r\n");
  qel_alarm_ports_report(9);
  EXPECT_EQ(message(9), "") << "the walk ends before the number of ports";
}

TEST_F(AlarmPortsTest, SwitchWithoutPortsHasTheCounterOfPortZero) {
  start_with(0);
  EXPECT_EQ(qel_alarm_statistics_fillin(9, 0, 1), 0);
  EXPECT_EQ(stdout_of([] { EXPECT_EQ(qel_alarm_statistics_fillin(9, 1, 1), -1); }),
            "qel_alarm_statistics_fillin portindex=1 type=9 \r\n");
  EXPECT_EQ(qel_alarm_ports_report(9), 0);
}

// ---------------------------------------------------------------------------------------------
// Traffic

TEST_F(AlarmPortsTest, TrafficAboveTheThresholdCountsInEitherDirection) {
  start_with(1);
  uif_get_by_name("ge1")->speed = 1000;
  struct Case {
    int32_t rx;
    int32_t tx;
    bool counts;
  };
  for (const Case& one : {Case{870001, 0, true}, Case{0, 870001, true}, Case{870001, 870001, true},
                          Case{INT_MAX, INT_MIN, true}, Case{870000, 870000, false},
                          Case{0, 0, false}, Case{-1, -1, false}, Case{INT_MIN, INT_MIN, false}}) {
    entry(6).port_count[1] = 7;
    EXPECT_EQ(qel_alarm_port_occupancy_fillin(6, 1, one.rx, one.tx), 0);
    EXPECT_EQ(entry(6).port_count[1], one.counts ? 8 : 0) << one.rx << " " << one.tx;
  }
}

TEST_F(AlarmPortsTest, ThresholdFollowsTheSpeedOfTheLink) {
  start_with(1);
  const std::pair<int32_t, int32_t> cases[] = {{10, 8700},       {100, 87000}, {2500, 2175000},
                                               {10000, 8700000}, {0, 0},       {-1, -870}};
  for (const auto& [speed, threshold] : cases) {
    uif_get_by_name("ge1")->speed = speed;
    entry(6).port_count[1] = 0;
    qel_alarm_port_occupancy_fillin(6, 1, threshold, threshold);
    EXPECT_EQ(entry(6).port_count[1], 0) << speed;
    qel_alarm_port_occupancy_fillin(6, 1, threshold + 1, threshold);
    EXPECT_EQ(entry(6).port_count[1], 1) << speed;
  }
}

TEST_F(AlarmPortsTest, ThresholdIsOf32BitsAndWraps) {
  start_with(1);
  struct Case {
    int32_t speed;
    int32_t threshold;
    bool one_counts;  // a byte each way is traffic above a threshold that wrapped to below zero
  };
  for (const Case& one : {Case{2468372, 2147483640, false}, Case{2468373, -2147482786, true},
                          Case{2468400, -2147459296, true}, Case{2147483647, -870, true},
                          Case{INT_MIN, 0, true}, Case{100000000, 1100654080, false}}) {
    uif_get_by_name("ge1")->speed = one.speed;
    entry(6).port_count[1] = 7;
    EXPECT_EQ(qel_alarm_port_occupancy_fillin(6, 1, 1, 1), 0);
    EXPECT_EQ(entry(6).port_count[1], one.one_counts ? 8 : 0) << one.speed;
    entry(6).port_count[1] = 7;
    EXPECT_EQ(qel_alarm_port_occupancy_fillin(6, 1, one.threshold, one.threshold), 0);
    EXPECT_EQ(entry(6).port_count[1], 0) << one.speed;
    EXPECT_EQ(qel_alarm_port_occupancy_fillin(6, 1, one.threshold + 1, one.threshold), 0);
    EXPECT_EQ(entry(6).port_count[1], 1) << one.speed;
  }
}

TEST_F(AlarmPortsTest, TrafficCountWrapsAt256) {
  start_with(1);
  for (int i = 0; i < 256; ++i) {
    qel_alarm_port_occupancy_fillin(6, 1, 1, 0);
  }
  EXPECT_EQ(entry(6).port_count[1], 0);
}

TEST_F(AlarmPortsTest, TrafficOfANumberOutsideIsToldAndChangesNothing) {
  start_with(3);
  const auto refused = [](uint32_t type, int32_t port) {
    return stdout_of([=] { EXPECT_EQ(qel_alarm_port_occupancy_fillin(type, port, 9, 9), -1); });
  };
  EXPECT_EQ(refused(6, 4), "portindex=4 type=6 \r\n");
  EXPECT_EQ(refused(6, -1), "portindex=-1 type=6 \r\n");
  EXPECT_EQ(refused(6, INT_MIN), "portindex=-2147483648 type=6 \r\n");
  EXPECT_EQ(refused(11, 1), "portindex=1 type=11 \r\n");
  EXPECT_THAT(counts(6, 3), ElementsAre(0, 0, 0, 0));
}

TEST_F(AlarmPortsTest, TrafficOfAPortThatIsNotThereIsToldAndChangesNothing) {
  fake::add_port("ge1", {.port_no = 1});
  fake::add_port("ge9", {.port_no = 9});
  start();
  EXPECT_EQ(stdout_of([] { EXPECT_EQ(qel_alarm_port_occupancy_fillin(6, 2, 9, 9), -1); }),
            "uif err portindex=2 type=6 \r\n");
  EXPECT_EQ(stdout_of([] { EXPECT_EQ(qel_alarm_port_occupancy_fillin(6, 0, 9, 9), -1); }),
            "uif err portindex=0 type=6 \r\n");
  EXPECT_THAT(counts(6, 2), ElementsAre(0, 0, 0));
}

// ---------------------------------------------------------------------------------------------
// What the statistics module tells

TEST_F(AlarmPortsTest, ModuleIsAskedWithoutData) {
  start_with(1);
  check();
  EXPECT_THAT(fake::query_texts(),
              ElementsAre(R"({"mdl":"statistics","cmd":"port_statistic_qel_dot3_get_all"})"));
}

TEST_F(AlarmPortsTest, EachRowFeedsThreeKindsOfItsPort) {
  start_with(3);
  statistics(rows({row("ge3", 5, 0, 1), row("ge1", 0, 7, 0, 1), row("ge2", 1, 1)}));
  check();
  EXPECT_THAT(counts(9, 3), ElementsAre(0, 0, 1, 1));
  EXPECT_THAT(counts(10, 3), ElementsAre(0, 1, 1, 0));
  EXPECT_THAT(counts(6, 3), ElementsAre(0, 1, 0, 1));
  EXPECT_EQ(entry(9).port_last[3], 5U);
  EXPECT_EQ(entry(10).port_last[1], 7U);
  EXPECT_THAT(counts(8, 3), ElementsAre(0, 0, 0, 0)) << "traffic is counted under another kind";
}

TEST_F(AlarmPortsTest, MissingFiguresAreZero) {
  start_with(1);
  statistics(rows({row("ge1", 5, 5, 5, 5)}));
  check();
  statistics(R"({"data":[{"name":"ge1"}]})");
  check();
  EXPECT_THAT(counts(9, 1), ElementsAre(0, 0));
  EXPECT_THAT(counts(10, 1), ElementsAre(0, 0));
  EXPECT_THAT(counts(6, 1), ElementsAre(0, 0));
  EXPECT_EQ(entry(9).port_last[1], 5U);
}

TEST_F(AlarmPortsTest, UnknownPortsAreSkippedSilently) {
  start_with(2);
  statistics(rows({row("ge9", 5, 5, 5, 5), row("", 5, 5), row("GE1", 5, 5), row("ge2", 5, 5),
                   row(std::string(5000, 'g'), 5, 5)}));
  EXPECT_EQ(stdout_of([] { check(); }), "");
  EXPECT_THAT(counts(9, 2), ElementsAre(0, 0, 1));
}

TEST_F(AlarmPortsTest, InterfaceThatIsNoPortHasNoTraffic) {
  start_with(2);
  statistics(rows({row("vlanif1", 5, 5, 5, 5), row("ge2", 5, 5)}));
  EXPECT_EQ(stdout_of([] { check(); }), "uif err portindex=0 type=6 \r\n");
  EXPECT_THAT(counts(9, 2), ElementsAre(1, 0, 1));
}

TEST_F(AlarmPortsTest, PortWithANumberOutsideTheCountersIsTold) {
  fake::add_port("ge1", {.port_no = 40});
  fake::add_port("ge2", {.port_no = -3});
  start();
  statistics(rows({row("ge1", 5, 5), row("ge2", 5, 5)}));
  EXPECT_EQ(stdout_of([] { check(); }),
            "qel_alarm_statistics_fillin portindex=40 type=9 \r\n"
            "qel_alarm_statistics_fillin portindex=40 type=10 \r\n"
            "portindex=40 type=6 \r\n"
            "qel_alarm_statistics_fillin portindex=-3 type=9 \r\n"
            "qel_alarm_statistics_fillin portindex=-3 type=10 \r\n"
            "portindex=-3 type=6 \r\n");
}

TEST_F(AlarmPortsTest, ReplyWithoutAListLeavesTheCounters) {
  start_with(1);
  statistics(rows({row("ge1", 5, 5)}));
  check();
  for (const std::string& reply :
       {std::string(""), std::string("{"), std::string("[]"), std::string("5"), std::string("{}"),
        std::string(R"({"data":null})"), std::string(R"({"data":5})"),
        std::string(R"({"data":[]})"), R"({"data":{"a":)" + row("ge1", 6, 6) + "}}",
        std::string(R"({"data":"ge1"})"), std::string(65534, '['), std::string(65534, '\xff')}) {
    statistics(reply);
    check();
    ASSERT_THAT(counts(9, 1), ElementsAre(0, 1)) << reply.substr(0, 60);
  }
  fake::no_reply("statistics", "port_statistic_qel_dot3_get_all");
  check();
  EXPECT_THAT(counts(9, 1), ElementsAre(0, 1)) << "and not what an earlier reply said";
}

TEST_F(AlarmPortsTest, HostileRowsAreSkippedAndTheGoodOneCounts) {
  start_with(1);
  statistics(R"({"data":[null,5,"ge1",[],[{"name":"ge1"}],{},{"name":5},{"name":null},)"
             R"({"dot3_FCSErrors":9},{"name":["ge1"],"dot3_FCSErrors":9},)" +
             row("ge1", 5, 5) + "]}");
  check();
  EXPECT_THAT(counts(9, 1), ElementsAre(0, 1));
}

TEST_F(AlarmPortsTest, FiguresOfAnySizeAreSurvived) {
  start_with(1);
  for (const char* figure : {"1e300", "-1e300", "99999999999999999999", "-1", "1.9", "\"7\"", "{}",
                             "[1]", "true", "2147483648", "1e999"}) {
    const std::string text = figure;
    statistics(R"({"data":[{"name":"ge1","dot3_FCSErrors":)" + text + R"(,"dot3_InPauseFrames":)" +
               text + R"(,"rx_bytes":)" + text + R"(,"tx_bytes":)" + text + "}]}");
    check();
  }
  EXPECT_EQ(entry(9).port_last[1], 4294967295U) << "-1 as the module wrote it";
}

TEST_F(AlarmPortsTest, LongestReplyIsReadWhole) {
  start_with(1);
  std::string reply = R"({"data":[)";
  while (reply.size() + 10 + row("ge1", 5, 5).size() < 65534) {
    reply += "{},";
  }
  statistics(reply + row("ge1", 5, 5) + "]}");
  check();
  EXPECT_THAT(counts(9, 1), ElementsAre(0, 1));
}

// ---------------------------------------------------------------------------------------------
// Lists of ports

TEST_F(AlarmPortsTest, TwelveInARowAreReportedAndElevenAreNot) {
  start_with(3);
  entry(9).port_count[1] = 11;
  EXPECT_EQ(qel_alarm_ports_report(9), 0);
  EXPECT_EQ(entry(9).last_time, 0U);
  EXPECT_EQ(message(9), "");
  entry(9).port_count[1] = 12;
  EXPECT_EQ(qel_alarm_ports_report(9), 0);
  EXPECT_EQ(entry(9).last_time, kStart);
  EXPECT_NE(message(9), "");
}

TEST_F(AlarmPortsTest, CounterAndNameGoByTheSameNumberSoThatTheNextPortIsNamed) {
  start_with(4);
  entry(9).port_count[1] = 12;
  entry(9).port_count[3] = 255;
  qel_alarm_ports_report(9);
  EXPECT_EQ(message(9), R"({"ports":"ge2 ge4 "})");
}

TEST_F(AlarmPortsTest, CounterZeroNamesTheFirstPortAndTheLastCounterNone) {
  start_with(3);
  entry(9).port_count[3] = 12;
  qel_alarm_ports_report(9);
  EXPECT_EQ(entry(9).last_time, 0U) << "the last port's counter is not looked at";
  entry(9).port_count[0] = 12;
  qel_alarm_ports_report(9);
  EXPECT_EQ(message(9), R"({"ports":"ge1 "})");
}

TEST_F(AlarmPortsTest, PortThatIsNotThereIsReportedWithoutAName) {
  fake::add_port("ge1", {.port_no = 1});
  fake::add_port("ge9", {.port_no = 9});
  start();
  entry(9).port_count[1] = 12;
  qel_alarm_ports_report(9);
  EXPECT_EQ(message(9), R"({"ports":""})");
  EXPECT_EQ(entry(9).last_time, kStart);
}

TEST_F(AlarmPortsTest, ListsAreAnHourApartAndOnlyChangesAreReported) {
  start_with(4);
  entry(9).port_count[1] = 12;
  qel_alarm_ports_report(9);
  entry(9).port_count[2] = 12;
  fake::advance(3599);
  qel_alarm_ports_report(9);
  EXPECT_EQ(message(9), R"({"ports":"ge2 "})");
  fake::advance(1);
  qel_alarm_ports_report(9);
  EXPECT_EQ(message(9), R"({"ports":"ge2 ge3 "})");
  fake::advance(7200);
  qel_alarm_ports_report(9);
  EXPECT_EQ(entry(9).last_time, kStart + 3600);
  EXPECT_EQ(entry(9).active, 0);
  EXPECT_EQ(entry(9).count, 0);
}

std::string name_of_31_bytes(int i) {
  return "port-with-the-longest-name-" + std::to_string(1000 + i);
}

TEST_F(AlarmPortsTest, ListOf1024BytesIsTakenWholeAndCutByTheEntry) {
  for (int i = 0; i < 60; ++i) {
    fake::add_port(name_of_31_bytes(i).c_str());
  }
  start();
  for (int port = 0; port < 60; ++port) {
    entry(9).port_count[port] = 12;
  }
  qel_alarm_ports_report(9);
  // 32 names of 31 bytes with their blanks are 1024 bytes; the entry keeps 1014 of them.
  std::string expected = R"({"ports":")";
  for (int i = 0; i < 32; ++i) {
    expected += name_of_31_bytes(i) + " ";
  }
  EXPECT_EQ(std::string(entry(9).msg, 1024), expected.substr(0, 1024));
  fake::advance(3600);
  qel_alarm_ports_report(9);
  EXPECT_EQ(entry(9).last_time, kStart + 3600) << "cut, and so never the same";
}

// The long name would end at byte 1025 of the list, the short one behind it ends at byte 997.
TEST_F(AlarmPortsTest, ListStaysWithin1024Bytes) {
  fake::add_port("port-of-16-bytes");
  fake::add_port("port-of-15-byte");
  std::string expected = R"({"ports":"port-of-16-bytes port-of-15-byte )";
  for (int i = 0; i < 30; ++i) {
    fake::add_port(name_of_31_bytes(i).c_str());
    expected += name_of_31_bytes(i) + " ";
  }
  fake::add_port(name_of_31_bytes(30).c_str());
  fake::add_port("ge9");
  fake::add_port("not-looked-at");
  start();
  for (int port = 0; port < 34; ++port) {
    entry(9).port_count[port] = 12;
  }
  qel_alarm_ports_report(9);
  EXPECT_EQ(message(9), expected + R"(ge9 "})");
}

TEST_F(AlarmPortsTest, KindOutsideTheTableHasNoList) {
  start_with(1);
  EXPECT_EQ(qel_alarm_ports_report(11), 0);
  EXPECT_EQ(qel_alarm_ports_report(0xFFFFFFFF), 0);
}

// ---------------------------------------------------------------------------------------------
// Over scans

TEST_F(AlarmPortsTest, ErrorsThatRiseInTwelveScansAreReported) {
  start_with(3);
  for (int64_t scanned = 1; scanned <= 12; ++scanned) {
    EXPECT_EQ(message(9), "") << scanned;
    statistics(rows({row("ge1", scanned * 3, 0), row("ge2", 0, scanned)}));
    scan();
  }
  EXPECT_EQ(message(9), R"({"ports":"ge2 "})");
  EXPECT_EQ(message(10), R"({"ports":"ge3 "})");
  EXPECT_EQ(entry(9).last_time, kStart + 60);
}

TEST_F(AlarmPortsTest, OneScanWithoutARiseStartsAgain) {
  start_with(2);
  int64_t errors = 0;
  const auto rise = [&](int scanned) {
    for (int i = 0; i < scanned; ++i) {
      statistics(rows({row("ge1", ++errors, 0)}));
      scan();
    }
  };
  rise(11);
  scan();
  EXPECT_EQ(entry(9).port_count[1], 0);
  rise(11);
  EXPECT_EQ(message(9), "");
  rise(1);
  EXPECT_EQ(message(9), R"({"ports":"ge2 "})");
}

TEST_F(AlarmPortsTest, PortLeftOutOfAReplyKeepsItsCount) {
  start_with(2);
  statistics(rows({row("ge1", 1, 0)}));
  scan();
  statistics(rows({row("ge2", 1, 0)}));
  scan();
  EXPECT_THAT(counts(9, 2), ElementsAre(0, 1, 1));
}

TEST_F(AlarmPortsTest, FullLinesNeverRaiseTheOccupancyOrTheSpeedChangeAlarm) {
  start_with(3);
  statistics(rows({row("ge1", 0, 0, 2147483647, 2147483647), row("ge2", 0, 0, 1, 1)}));
  for (int scanned = 1; scanned <= 1000; ++scanned) {
    scan();
    ASSERT_THAT(counts(8, 3), ElementsAre(0, 0, 0, 0));
    ASSERT_EQ(entry(6).port_count[1], scanned % 256);
  }
  for (const uint32_t type : {4U, 6U, 8U}) {
    EXPECT_EQ(entry(type).last_time, 0U) << type;
    EXPECT_EQ(message(type), "") << type;
    EXPECT_EQ(entry(type).active, 0) << type;
  }
}

TEST_F(AlarmPortsTest, OccupancyWouldBeReportedIfItWereCounted) {
  start_with(3);
  entry(8).port_count[1] = 12;
  scan();
  EXPECT_EQ(message(8), R"({"ports":"ge2 "})");
  EXPECT_THAT(fake::sent(), IsEmpty());
}

}  // namespace
