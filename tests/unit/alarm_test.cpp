// SPDX-License-Identifier: Apache-2.0
//
// Alarm scans, driven by hand because nothing in the agent drives them: what a scan asks for and in
// which order, load, memory, PoE power, spanning tree and loops, and days of scans on the test's
// clock. The counters of ports are in alarm_ports_test.cpp.
#include "qel/qel_alarm.h"

#include <getopt.h>

#include <algorithm>
#include <climits>
#include <cstring>

#include "qel/qel_main.h"
#include "qel/qel_table.h"
#include "tests/unit/support.h"

namespace {

using testing::ElementsAre;
using testing::Field;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

constexpr uint32_t kStart = 1700000000;

class AlarmTest : public AgentTest {
 protected:
  AlarmTest() {
    fake::add_interface("vlanif1", 7);
    fake::add_ports(4);
    start();
    g_qel_dev.alarm_stat_enable = 1;
    cpu(0);
    memory(0);
  }

  // Makes the figure of the kernel's counters `percent`.
  static void cpu(int percent) {
    fake::set_file("/proc/stat", "cpu " + std::to_string(percent) + " 0 0 " +
                                     std::to_string(100 - percent) + " 0 0 0 0\n");
  }
  static void memory(int percent) {
    fake::set_file("/proc/meminfo", "MemTotal: 100 kB\nMemFree: " + std::to_string(100 - percent) +
                                        " kB\nBuffers: 9 kB\nCached: 80 kB\n");
  }
  static void poe(const std::string& reply) { fake::reply("poe", "poe_qel_alarm_info_get", reply); }
  static void mstp(const std::string& reply) {
    fake::reply("mstp", "mstp_qel_alarm_info_get", reply);
  }
  static void llpp(const std::string& reply) {
    fake::reply("llpp", "qel_llpp_port_config_get_all", reply);
  }

  static qel_alarm_entry& entry(uint32_t type) { return g_qel_alarm_table[type]; }
  static std::string message(uint32_t type) {
    return {entry(type).msg, strnlen(entry(type).msg, sizeof entry(type).msg)};
  }
  // A scan five seconds later; what it prints is swallowed.
  static int scan() {
    fake::advance(5);
    int result = 0;
    stdout_of([&result] { result = qel_alarm_scan(); });
    return result;
  }
  // That many scans; how often each kind was handed over in them.
  static std::array<int, kAlarmTypes> scans(int count) {
    std::array<int, kAlarmTypes> reports = {};
    for (int i = 0; i < count; ++i) {
      std::array<uint32_t, kAlarmTypes> before = {};
      for (uint32_t type = 0; type < kAlarmTypes; ++type) {
        before[type] = entry(type).last_time;
      }
      fake::advance(5);
      handed_over().clear();
      qel_alarm_scan();
      for (uint32_t type = 0; type < kAlarmTypes; ++type) {
        const auto told = std::count_if(handed_over().begin(), handed_over().end(),
                                        [type](const HandedOver& one) { return one.type == type; });
        EXPECT_EQ(told, entry(type).last_time != before[type] ? 1 : 0) << type;
        reports[type] += static_cast<int>(told);
      }
    }
    fake::clear_records();
    return reports;
  }
  static bool blocked(const char* name) { return qel_port_of(uif_get_by_name(name))->blocked != 0; }
};

// A switch whose agent has not started.
class AlarmStartTest : public AgentTest {};

// ---------------------------------------------------------------------------------------------
// The scan

TEST_F(AlarmTest, ScanAsksTheModulesInOrder) {
  EXPECT_EQ(scan(), 0);
  EXPECT_THAT(fake::query_texts(),
              ElementsAre(R"({"mdl":"poe","cmd":"poe_qel_alarm_info_get"})",
                          R"({"mdl":"mstp","cmd":"mstp_qel_alarm_info_get"})",
                          R"({"mdl":"llpp","cmd":"qel_llpp_port_config_get_all"})",
                          R"({"mdl":"statistics","cmd":"port_statistic_qel_dot3_get_all"})"));
  EXPECT_THAT(fake::queries(), testing::Each(Field(&fake::Query::waited, true)));
}

TEST_F(AlarmTest, ScanLooksAtLoadAndMemoryBeforeItAsks) {
  scan();
  EXPECT_THAT(
      fake::calls_of({"fopen", "jclient_query"}),
      ElementsAre(
          "fopen(/proc/stat, r)", "fopen(/proc/meminfo, r)",
          R"(jclient_query({"mdl":"poe","cmd":"poe_qel_alarm_info_get"}))",
          R"(jclient_query({"mdl":"mstp","cmd":"mstp_qel_alarm_info_get"}))",
          R"(jclient_query({"mdl":"llpp","cmd":"qel_llpp_port_config_get_all"}))",
          R"(jclient_query({"mdl":"statistics","cmd":"port_statistic_qel_dot3_get_all"}))"));
}

TEST_F(AlarmTest, AlarmsOfOneScanAreHandedOverInTheOrderOfItsChecks) {
  hal_mac_entry address = {};
  address.port = 0x01000001;
  address.type = 2;
  address.aging_time = 300;
  fake::add_mac_entry(address);
  g_qel_alarm_state.scans = 1;
  scan();
  EXPECT_THAT(handed_over(), IsEmpty());

  address.port = 0x01000002;
  fake::clear_mac_entries();
  fake::add_mac_entry(address);
  g_qel_alarm_state.scans = 1;
  cpu(95);
  memory(96);
  poe(R"({"totalpower":1000,"usepower":1000})");
  for (const uint32_t type : {1U, 2U, 5U}) {
    entry(type).count = 35;
  }
  mstp(R"({"ports":"ge1"})");
  for (const uint32_t type : {8U, 9U, 10U}) {
    entry(type).port_count[1] = 12;
  }
  scan();
  EXPECT_THAT(
      handed_over(),
      ElementsAre(HandedOver{1, R"({"value":"95"})", 0}, HandedOver{2, R"({"value":"96"})", 0},
                  HandedOver{5, R"({"value":"10"})", 0}, HandedOver{7, R"({"ports":"ge1"})", 0},
                  HandedOver{9, R"({"ports":"ge2 "})", 0}, HandedOver{10, R"({"ports":"ge2 "})", 0},
                  HandedOver{8, R"({"ports":"ge2 "})", 0},
                  HandedOver{3, R"({"ports":"ge1,ge2","value":"00:00:00:00:00:00 "})", 0}));
}

TEST_F(AlarmTest, MacTableThatCannotBeReadIsNoFailureAndWaitsForItsNextTurn) {
  scan();
  fake::fail_platform("hal_mac_get");
  EXPECT_EQ(scan(), 0);
  fake::clear_records();
  EXPECT_EQ(scan(), 0);
  EXPECT_THAT(fake::calls_of({"hal_mac_get"}), IsEmpty());
  EXPECT_EQ(scan(), 0);
  EXPECT_THAT(fake::calls_of({"hal_mac_get"}), SizeIs(1));
}

TEST_F(AlarmTest, MacTableIsReadLastOfEverySecondScan) {
  for (int i = 0; i < 6; ++i) {
    fake::clear_records();
    EXPECT_EQ(scan(), 0);
    const auto read = fake::calls_of({"hal_mac_get"});
    EXPECT_THAT(read, SizeIs(i % 2)) << i;
    if (!read.empty()) {
      EXPECT_EQ(fake::calls().back(), "hal_mac_get(0, 20, 3, 0, 0, 0)");
    }
  }
}

TEST_F(AlarmTest, DisabledScanDoesNothing) {
  for (const uint32_t state : {0U, 2U, 255U, 0xFFFFFFFFU}) {
    g_qel_dev.alarm_stat_enable = state;
    cpu(99);
    EXPECT_EQ(scan(), -1);
    EXPECT_THAT(fake::calls(), IsEmpty());
  }
  EXPECT_EQ(entry(1).count, 0);
}

TEST_F(AlarmTest, DisabledScansCountSoThatTheFirstEnabledOneReadsTheMacTable) {
  g_qel_dev.alarm_stat_enable = 0;
  scan();
  g_qel_dev.alarm_stat_enable = 1;
  scan();
  EXPECT_THAT(fake::calls_of({"hal_mac_get"}), SizeIs(1));
  fake::clear_records();
  scan();
  EXPECT_THAT(fake::calls_of({"hal_mac_get"}), IsEmpty());
}

TEST_F(AlarmTest, ManyDisabledScansGiveOneReadOfTheMacTable) {
  g_qel_dev.alarm_stat_enable = 0;
  for (int i = 0; i < 1000; ++i) {
    scan();
  }
  g_qel_dev.alarm_stat_enable = 1;
  scan();
  scan();
  EXPECT_THAT(fake::calls_of({"hal_mac_get"}), SizeIs(1));
}

TEST_F(AlarmTest, AlarmsStartDisabled) {
  qel_dev_init();
  EXPECT_EQ(scan(), -1);
}

TEST_F(AlarmTest, EveryFifthTickScans) {
  std::vector<int> scanned;
  for (int second = 1; second <= 16; ++second) {
    fake::clear_records();
    fake::advance(1);
    EXPECT_EQ(qel_alarm_tick(), 0);
    if (!fake::queries().empty()) {
      scanned.push_back(second);
    }
  }
  EXPECT_THAT(scanned, ElementsAre(5, 10, 15));
}

TEST_F(AlarmTest, TickOfDisabledAlarmsIsNoFailure) {
  g_qel_dev.alarm_stat_enable = 0;
  for (int second = 0; second < 10; ++second) {
    EXPECT_EQ(qel_alarm_tick(), 0);
  }
  EXPECT_THAT(fake::calls(), IsEmpty());
}

TEST_F(AlarmTest, StartUpStartsBothCountersAtZero) {
  for (int second = 0; second < 9; ++second) {
    qel_alarm_tick();
  }
  qel_alarm_init();
  fake::clear_records();
  for (int second = 0; second < 4; ++second) {
    qel_alarm_tick();
  }
  EXPECT_THAT(fake::queries(), IsEmpty());
  qel_alarm_tick();
  EXPECT_THAT(fake::queries(), SizeIs(4));
  EXPECT_THAT(fake::calls_of({"hal_mac_get"}), IsEmpty()) << "the first scan";
}

TEST_F(AlarmStartTest, NothingDrivesTheTick) {
  fake::add_ports(4);
  std::string name = "/usr/sbin/qel";
  char* words[] = {name.data(), nullptr};
  optind = 0;
  ASSERT_EQ(qel_main(1, words), 0);
  g_qel_dev.alarm_stat_enable = 1;
  fake::clear_records();
  fake::tick(3600);
  EXPECT_THAT(fake::calls_of({"jclient_query", "hal_mac_get"}), IsEmpty());
}

TEST_F(AlarmTest, AlarmThatIsDueSendsNothing) {
  mstp(R"({"state":1})");
  EXPECT_EQ(scans(1)[7], 1);
  EXPECT_THAT(fake::sent(), IsEmpty());
  EXPECT_THAT(fake::console(), IsEmpty());
}

// ---------------------------------------------------------------------------------------------
// Load and memory

struct Load {
  uint32_t type;
  void (*set)(int percent);
};
void PrintTo(const Load& load, std::ostream* stream) {
  *stream << load.type;
}

class LoadTest : public AlarmTest, public testing::WithParamInterface<Load> {
 public:
  static void set_cpu(int percent) { cpu(percent); }
  static void set_memory(int percent) { memory(percent); }

 protected:
  static uint32_t type() { return GetParam().type; }
  static void set(int percent) { GetParam().set(percent); }
};

TEST_P(LoadTest, ThirtyFiveScansAreSilentAndThe36thReports) {
  set(95);
  EXPECT_EQ(scans(35)[type()], 0);
  EXPECT_EQ(entry(type()).active, 1);
  EXPECT_EQ(message(type()), "");
  EXPECT_EQ(scans(1)[type()], 1);
  EXPECT_EQ(message(type()), R"({"value":"95"})");
  EXPECT_EQ(entry(type()).last_time, kStart + 36 * 5);
}

TEST_P(LoadTest, NinetyPercentIsTooMuchAnd89IsNot) {
  set(89);
  scans(1);
  EXPECT_EQ(entry(type()).active, 0);
  set(90);
  EXPECT_EQ(scans(36)[type()], 1);
  EXPECT_EQ(message(type()), R"({"value":"90"})");
}

TEST_P(LoadTest, OneScanBelowStartsTheCountAgain) {
  set(95);
  scans(35);
  set(10);
  scans(1);
  EXPECT_EQ(entry(type()).count, 0);
  set(95);
  EXPECT_EQ(scans(35)[type()], 0);
  EXPECT_EQ(scans(1)[type()], 1);
}

TEST_P(LoadTest, ValueThatStaysForADayIsReportedOnce) {
  set(95);
  EXPECT_EQ(scans(86400 / 5)[type()], 1);
  EXPECT_EQ(message(type()), R"({"value":"95"})");
}

TEST_P(LoadTest, ChangedValueIsReportedWhenAnHourHasPassed) {
  set(95);
  scans(36);
  set(96);
  EXPECT_EQ(scans(719)[type()], 0) << "3595 seconds";
  EXPECT_EQ(message(type()), R"({"value":"95"})");
  EXPECT_EQ(scans(1)[type()], 1);
  EXPECT_EQ(message(type()), R"({"value":"96"})");
}

TEST_P(LoadTest, HourIsCountedToTheSecond) {
  set(95);
  scans(36);
  set(96);
  fake::advance(3599);
  qel_alarm_scan();
  EXPECT_EQ(message(type()), R"({"value":"95"})");
  fake::advance(1);
  qel_alarm_scan();
  EXPECT_EQ(message(type()), R"({"value":"96"})");
}

TEST_P(LoadTest, ValueThatIsBackWithinTheHourIsNoNews) {
  set(95);
  scans(36);
  set(96);
  scans(700);
  set(95);
  EXPECT_EQ(scans(1000)[type()], 0);
}

TEST_P(LoadTest, ValueThatGrowsEveryHourIsReportedEveryHour) {
  set(90);
  scans(36);
  for (int percent = 91; percent <= 95; ++percent) {
    set(percent);
    EXPECT_EQ(scans(720)[type()], 1) << percent;
    EXPECT_EQ(message(type()), "{\"value\":\"" + std::to_string(percent) + "\"}");
  }
}

TEST_P(LoadTest, FilesThatCannotBeReadAreNoLoad) {
  fake::remove_file("/proc/stat");
  fake::remove_file("/proc/meminfo");
  EXPECT_EQ(scans(40)[type()], 0);
  EXPECT_EQ(entry(type()).active, 0);
}

TEST_P(LoadTest, DoesNotTouchTheOtherKinds) {
  set(99);
  scans(50);
  for (uint32_t other = 0; other < kAlarmTypes; ++other) {
    EXPECT_EQ(entry(other).active, other == type() ? 1 : 0) << other;
  }
}

INSTANTIATE_TEST_SUITE_P(Load, LoadTest,
                         testing::Values(Load{1, LoadTest::set_cpu}, Load{2, LoadTest::set_memory}),
                         [](const testing::TestParamInfo<Load>& load) {
                           return std::string(load.param.type == 1 ? "Cpu" : "Memory");
                         });

TEST_F(AlarmTest, WaitingForTheDiskIsLoad) {
  fake::set_file("/proc/stat", "cpu 10 0 0 5 85 0 0 0\n");
  scans(36);
  EXPECT_EQ(message(1), R"({"value":"95"})");
}

TEST_F(AlarmTest, LoadIsTheAverageSinceTheStartAndCut) {
  fake::set_file("/proc/stat", "cpu 899999 0 0 100001 0 0 0 0\n");
  scans(1);
  EXPECT_EQ(entry(1).active, 0) << "89.9999";
  fake::set_file("/proc/stat", "cpu 909999 0 0 90001 0 0 0 0\n");
  scans(36);
  EXPECT_EQ(message(1), R"({"value":"90"})") << "90.9999, busy all the time since the last scan";
}

TEST_F(AlarmTest, BuffersAndCacheAreUsedMemory) {
  fake::set_file("/proc/meminfo",
                 "MemTotal: 131072 kB\nMemFree: 1000 kB\nBuffers: 60000 kB\nCached: 60000 kB\n");
  scans(36);
  EXPECT_EQ(message(2), R"({"value":"99"})");
}

// ---------------------------------------------------------------------------------------------
// PoE power

TEST_F(AlarmTest, PowerFromTheLimitOnIsReportedInTheThirtySixthScan) {
  poe(R"({"totalpower":1000,"usepower":950})");
  stdout_of([] {
    EXPECT_EQ(scans(35)[5], 0);
    EXPECT_EQ(scans(1)[5], 1);
  });
  EXPECT_EQ(message(5), R"({"value":"9"})") << "hundredths of the power in use";
}

TEST_F(AlarmTest, PowerBelowTheLimitIsFine) {
  poe(R"({"totalpower":1000,"usepower":949})");
  EXPECT_EQ(stdout_of([] { scans(1); }), "");
  EXPECT_EQ(entry(5).active, 0);
}

TEST_F(AlarmTest, PowerLimitIsCutToAWholeNumber) {
  // 95 % of 999 is 949.05.
  poe(R"({"totalpower":999,"usepower":949})");
  EXPECT_EQ(stdout_of([] { scans(1); }), "totalpower=949 usepower=949 action=1 \r\n");
  EXPECT_EQ(entry(5).active, 1);
}

TEST_F(AlarmTest, PowerAboveTheLimitIsToldInEveryScan) {
  poe(R"({"totalpower":370000,"usepower":360000})");
  EXPECT_EQ(stdout_of([] { scans(2); }),
            "totalpower=351500 usepower=360000 action=1 \r\n"
            "totalpower=351500 usepower=360000 action=1 \r\n");
}

TEST_F(AlarmTest, PowerMessageIsANumberOfHundreds) {
  const std::pair<const char*, const char*> cases[] = {
      {R"({"totalpower":1,"usepower":99})", R"({"value":"0"})"},
      {R"({"totalpower":1,"usepower":100})", R"({"value":"1"})"},
      {R"({"totalpower":1,"usepower":36599})", R"({"value":"365"})"},
      {R"({"totalpower":1,"usepower":99999999999})", R"({"value":"21474836"})"},
      {R"({"totalpower":-1000,"usepower":-150})", R"({"value":"-1"})"},
  };
  for (const auto& [reply, expected] : cases) {
    poe(reply);
    stdout_of([] { scans(36 + 720); });
    EXPECT_EQ(message(5), expected) << reply;
  }
}

TEST_F(AlarmTest, BudgetOfZeroLeavesTheEntryUntouched) {
  poe(R"({"totalpower":1000,"usepower":1000})");
  stdout_of([] { scans(3); });
  for (const char* reply :
       {R"({"totalpower":0,"usepower":1000})", R"({"usepower":1000})", R"({})", "[]", "5"}) {
    poe(reply);
    EXPECT_EQ(stdout_of([] { scans(1); }), "") << reply;
    EXPECT_EQ(entry(5).count, 3) << reply;
    EXPECT_EQ(entry(5).active, 1) << reply;
  }
}

TEST_F(AlarmTest, PowerInUseThatIsMissingIsNone) {
  poe(R"({"totalpower":1000,"usepower":1000})");
  stdout_of([] { scans(3); });
  poe(R"({"totalpower":1000})");
  scans(1);
  EXPECT_EQ(entry(5).count, 0);
  EXPECT_EQ(entry(5).active, 0);
}

TEST_F(AlarmTest, PoeModuleThatAnswersNonsenseIsSkipped) {
  poe(R"({"totalpower":1000,"usepower":1000})");
  stdout_of([] { scans(3); });
  for (const std::string& reply :
       {std::string(""), std::string("{"), std::string("hello"), std::string(65534, '['),
        std::string(65534, '\xff'), std::string(R"({"totalpower":"1000","usepower":1000})"),
        std::string(R"({"totalpower":null})"), std::string(R"({"totalpower":[1000]})")}) {
    poe(reply);
    EXPECT_EQ(scan(), 0);
    EXPECT_EQ(entry(5).count, 3) << reply.substr(0, 60);
  }
  fake::no_reply("poe", "poe_qel_alarm_info_get");
  EXPECT_EQ(scan(), 0);
  EXPECT_EQ(entry(5).count, 3);
}

TEST_F(AlarmTest, LoadMemoryAndPowerAreReportedAnHourApart) {
  cpu(95);
  memory(95);
  poe(R"({"totalpower":1000,"usepower":1000})");
  stdout_of([] { scans(36); });
  for (const uint32_t type : {1U, 2U, 5U}) {
    EXPECT_EQ(entry(type).last_time, kStart + 180) << type;
  }
  cpu(96);
  memory(97);
  poe(R"({"totalpower":1000,"usepower":9800})");
  handed_over().clear();
  fake::advance(3599);
  stdout_of(qel_alarm_scan);
  EXPECT_THAT(handed_over(), IsEmpty());
  fake::advance(1);
  stdout_of(qel_alarm_scan);
  EXPECT_THAT(handed_over(), ElementsAre(Field(&HandedOver::message, R"({"value":"96"})"),
                                         Field(&HandedOver::message, R"({"value":"97"})"),
                                         Field(&HandedOver::message, R"({"value":"98"})")));
}

TEST_F(AlarmTest, PowerBeyond32BitsIsClampedAndDoesNotTrap) {
  poe(R"({"totalpower":1e300,"usepower":1e300})");
  EXPECT_EQ(stdout_of([] { scans(1); }), "totalpower=2040109464 usepower=2147483647 action=1 \r\n");
  poe(R"({"totalpower":-1e300,"usepower":-1e300})");
  EXPECT_EQ(stdout_of([] { scans(1); }), "");
  EXPECT_EQ(entry(5).active, 0);
}

// ---------------------------------------------------------------------------------------------
// Spanning tree and loops

TEST_F(AlarmTest, StateTextIsReportedAtOnceAsItIsWithoutBlanks) {
  mstp("{ \"ports\" : \"ge1 ge4\",\n \"tc\" : 5 }");
  EXPECT_EQ(scans(1)[7], 1);
  EXPECT_EQ(message(7), R"({"ports":"ge1 ge4","tc":5})");
  EXPECT_EQ(entry(7).active, 1);
}

TEST_F(AlarmTest, UnchangedStateIsNeverReportedAgain) {
  mstp(R"({"ports":""})");
  EXPECT_EQ(scans(2 * 720)[7], 1) << "two hours";
}

TEST_F(AlarmTest, EveryChangeOfTheStateIsReportedTwelveSecondsApart) {
  mstp(R"({"n":1})");
  EXPECT_EQ(scans(1)[7], 1);
  mstp(R"({"n":2})");
  EXPECT_EQ(scans(2)[7], 0) << "five and ten seconds later";
  EXPECT_EQ(message(7), R"({"n":1})");
  EXPECT_EQ(scans(1)[7], 1) << "fifteen";
  EXPECT_EQ(message(7), R"({"n":2})");
}

TEST_F(AlarmTest, TwelveSecondsAreCountedToTheSecond) {
  mstp(R"({"n":1})");
  qel_alarm_scan();
  mstp(R"({"n":2})");
  fake::advance(11);
  qel_alarm_scan();
  EXPECT_EQ(message(7), R"({"n":1})");
  fake::advance(1);
  qel_alarm_scan();
  EXPECT_EQ(message(7), R"({"n":2})");
}

TEST_F(AlarmTest, LongStateIsReportedWheneverTwelveSecondsHavePassed) {
  const std::string reply = R"({"ports":")" + std::string(1100, 'p') + R"("})";
  mstp(reply);
  EXPECT_EQ(scans(1)[7], 1);
  EXPECT_EQ(std::string(entry(7).msg, 1024), reply.substr(0, 1024));
  // A scan every five seconds: each third one is fifteen seconds after the last report.
  EXPECT_EQ(scans(30)[7], 10);
}

TEST_F(AlarmTest, LoopModuleIsAskedOnlyWhenSpanningTreeDoesNotAnswer) {
  mstp(R"({"from":"mstp"})");
  llpp(R"({"from":"llpp"})");
  scan();
  EXPECT_THAT(fake::query_texts(), Not(testing::Contains(HasSubstr("llpp"))));
  EXPECT_EQ(message(7), R"({"from":"mstp"})");
  for (const std::string& bad : {std::string("{\"from\":"), std::string(65534, '{')}) {
    qel_alarm_init();
    mstp(bad);
    scan();
    EXPECT_EQ(message(7), R"({"from":"llpp"})");
  }
}

TEST_F(AlarmTest, NamedPortsAreBlockedAndTheOthersAreNot) {
  mstp(R"({"ports":"ge1 ge4"})");
  scan();
  EXPECT_TRUE(blocked("ge1"));
  EXPECT_FALSE(blocked("ge2"));
  EXPECT_TRUE(blocked("ge4"));
  mstp(R"({"ports":"ge2"})");
  scan();
  EXPECT_FALSE(blocked("ge1"));
  EXPECT_TRUE(blocked("ge2"));
  EXPECT_FALSE(blocked("ge4"));
}

TEST_F(AlarmTest, WithoutAnyAnswerNoPortIsBlockedAndNothingIsReported) {
  mstp(R"({"ports":"ge1"})");
  scan();
  fake::no_reply("mstp", "mstp_qel_alarm_info_get");
  EXPECT_EQ(scans(10)[7], 0);
  EXPECT_FALSE(blocked("ge1"));
  EXPECT_EQ(message(7), R"({"ports":"ge1"})");
  EXPECT_EQ(entry(7).active, 1) << "the entry is left as it was";
}

TEST_F(AlarmTest, StateThatIsNoObjectIsReportedAndBlocksNothing) {
  for (const char* reply : {"[1,2]", "5", "\"ge1\"", "null", "true"}) {
    fake::advance(12);
    mstp(reply);
    scan();
    EXPECT_EQ(message(7), reply);
    EXPECT_FALSE(blocked("ge1"));
  }
}

TEST_F(AlarmTest, StateWithHostilePortsBlocksThoseItNames) {
  using Names = std::vector<std::string>;
  const std::pair<std::string, Names> cases[] = {
      {"5", {}},
      {R"(["ge1"])", {}},
      {"null", {}},
      {R"("")", {}},
      {R"("ge1ge2 GE1 ge")", {}},
      {"\"" + std::string(60000, ' ') + "\"", {}},
      {"\"" + std::string(60000, 'g') + "\"", {}},
      {"\"ge4 " + std::string(30000, 'g') + std::string(20000, ' ') + "ge2\"", {"ge2", "ge4"}},
      {R"("vlanif1 ge9 ge1\u0000 ge2")", {"ge1"}},
  };
  for (const auto& [ports, expected] : cases) {
    for (const char* name : {"ge1", "ge2", "ge3", "ge4"}) {
      qel_port_of(uif_get_by_name(name))->blocked = 1;
    }
    mstp("{\"ports\":" + ports + "}");
    fake::clear_records();
    EXPECT_EQ(scan(), 0);
    Names found;
    for (const char* name : {"ge1", "ge2", "ge3", "ge4"}) {
      if (blocked(name)) {
        found.emplace_back(name);
      }
    }
    EXPECT_EQ(found, expected) << ports.substr(0, 60);
    EXPECT_THAT(fake::query_texts(),
                testing::Contains(HasSubstr("port_statistic_qel_dot3_get_all")))
        << "the scan goes on";
  }
}

// ---------------------------------------------------------------------------------------------
// Days

TEST_F(AlarmTest, DayOfTroubleGivesTheReportsThatTheRulesAllow) {
  cpu(97);
  poe(R"({"totalpower":1000,"usepower":1000})");
  mstp(R"({"ports":"ge1"})");
  fake::reply("statistics", "port_statistic_qel_dot3_get_all",
              R"({"data":[{"name":"ge1","dot3_FCSErrors":1,"rx_bytes":2147483647}]})");
  std::array<int, kAlarmTypes> reports = {};
  stdout_of([&reports] {
    for (int hour = 0; hour < 24; ++hour) {
      memory(90 + hour % 2);
      const auto these = scans(720);
      for (size_t type = 0; type < reports.size(); ++type) {
        reports[type] += these[type];
      }
    }
  });
  // Load, power and loops once; memory at each turn of the hour, the first after three minutes.
  EXPECT_THAT(reports, ElementsAre(0, 1, 24, 0, 0, 1, 0, 1, 0, 0, 0));
}

TEST_F(AlarmTest, DayOfTicksIs17280Scans) {
  int asked = 0;
  fake::on_query([&asked](const fake::Query& query) { asked += query.module == "poe" ? 1 : 0; });
  for (int second = 0; second < 86400; ++second) {
    fake::advance(1);
    qel_alarm_tick();
    if (second % 3600 == 0) {
      fake::clear_records();
    }
  }
  EXPECT_EQ(asked, 17280);
}

}  // namespace
