// SPDX-License-Identifier: Apache-2.0
//
// The gateway's commands that change ports: which module queries each becomes and what stays on the
// console. Messages come in as frames; those longer than a frame go to the dispatcher as a datagram
// would.
#include <cstring>

#include "qel/qel_cmd.h"
#include "qel/qel_gw.h"
#include "qel/qel_table.h"
#include "tests/unit/support.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::SizeIs;

class PortCommandTest : public AgentTest {
 protected:
  PortCommandTest() {
    fake::add_interface("vlanif1", 7);
    fake::add_ports(4);
    start();
  }

  // A "set" with that "data", as a frame.
  void set(const std::string& subcmd, const std::string& data) {
    receive(R"({"mac":"gw","cmd":"set","subcmd":")" + subcmd + R"(","data":)" + data + "}");
  }

  // The same without the length bound of a frame.
  void set_long(const std::string& subcmd, const std::string& data) {
    qel_link link = udp_link();
    const std::string text =
        R"({"mac":"gw","cmd":"set","subcmd":")" + subcmd + R"(","data":)" + data + "}";
    qel_cmd_dispatch(&link, text.c_str(), 0);
  }

  static uint8_t restart_left(const char* name) {
    return qel_port_of(uif_get_by_name(name))->restart_left;
  }

  // The agent still carries out a good command.
  void expect_alive() {
    fake::clear_records();
    set("port_enable", R"({"ge1":1})");
    EXPECT_THAT(fake::query_texts(), ElementsAre(R"({"mdl":"mono","cmd":"qel_port_enable_set",)"
                                                 R"("data":{"port":"ge1","enable":1}})"));
  }
};

// "data" of every kind that names no port.
constexpr const char* kNamelessData[] = {"{}", "[]", "7", "\"ge1\"", "null", "true"};

// ---------------------------------------------------------------------------------------------
// port_enable

TEST_F(PortCommandTest, EnableAndDisableAskTheModuleMono) {
  set("port_enable", R"({"ge3":0})");
  set("port_enable", R"({"ge4":1})");
  EXPECT_THAT(
      fake::query_texts(),
      ElementsAre(
          R"({"mdl":"mono","cmd":"qel_port_enable_set","data":{"port":"ge3","enable":0}})",
          R"({"mdl":"mono","cmd":"qel_port_enable_set","data":{"port":"ge4","enable":1}})"));
  EXPECT_TRUE(fake::queries()[0].waited);
  EXPECT_THAT(fake::sent(), IsEmpty());
  EXPECT_THAT(fake::console(), IsEmpty());
}

TEST_F(PortCommandTest, EnablePassesItsNumberOnUnchanged) {
  set("port_enable", R"({"ge1":2})");
  set("port_enable", R"({"ge1":-1})");
  set("port_enable", R"({"ge1":2147483647})");
  set("port_enable", R"({"ge1":1.9})");
  EXPECT_THAT(
      fake::query_texts(),
      ElementsAre(
          R"({"mdl":"mono","cmd":"qel_port_enable_set","data":{"port":"ge1","enable":2}})",
          R"({"mdl":"mono","cmd":"qel_port_enable_set","data":{"port":"ge1","enable":-1}})",
          R"({"mdl":"mono","cmd":"qel_port_enable_set","data":{"port":"ge1","enable":2147483647}})",
          R"({"mdl":"mono","cmd":"qel_port_enable_set","data":{"port":"ge1","enable":1}})"));
}

TEST_F(PortCommandTest, EnableLeavesItToTheModuleWhetherThePortExists) {
  set("port_enable", R"({"nosuch":1})");
  EXPECT_THAT(fake::query_texts(), ElementsAre(R"({"mdl":"mono","cmd":"qel_port_enable_set",)"
                                               R"("data":{"port":"nosuch","enable":1}})"));
}

TEST_F(PortCommandTest, EnableReadsTheFirstMemberOnly) {
  set("port_enable", R"({"ge2":0,"ge3":0,"ge2":1})");
  EXPECT_THAT(fake::query_texts(), ElementsAre(R"({"mdl":"mono","cmd":"qel_port_enable_set",)"
                                               R"("data":{"port":"ge2","enable":0}})"));
}

TEST_F(PortCommandTest, RefusalOfTheModuleIsNotTold) {
  fake::reply("mono", "qel_port_enable_set", R"({"result":-1})");
  set("port_enable", R"({"ge1":0})");
  EXPECT_THAT(fake::sent(), IsEmpty());
  EXPECT_THAT(fake::console(), IsEmpty());
}

// ---------------------------------------------------------------------------------------------
// port_speed

struct SpeedName {
  const char* name;
  int code;
};

class SpeedCode : public PortCommandTest, public testing::WithParamInterface<SpeedName> {};

TEST_P(SpeedCode, IsThePositionOfTheName) {
  EXPECT_EQ(qel_port_speed_code(GetParam().name), GetParam().code);
}

TEST_P(SpeedCode, IsSentToTheModuleMono) {
  set("port_speed", R"({"ge3":")" + std::string(GetParam().name) + R"("})");
  EXPECT_THAT(fake::query_texts(), ElementsAre(R"({"mdl":"mono","cmd":"qel_port_speed_set",)"
                                               R"("data":{"port":"ge3","speed":)" +
                                               std::to_string(GetParam().code) + "}}"));
  EXPECT_THAT(fake::sent(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    Names, SpeedCode,
    testing::Values(SpeedName{"AN", 0}, SpeedName{"10M", 1}, SpeedName{"10M-H", 2},
                    SpeedName{"10M-F", 3}, SpeedName{"100M", 4}, SpeedName{"100M-H", 5},
                    SpeedName{"100M-F", 6}, SpeedName{"1G", 7}, SpeedName{"1G-F", 8},
                    SpeedName{"2.5G", 9}, SpeedName{"5G", 10}, SpeedName{"10G", 11},
                    SpeedName{"25G", 12}, SpeedName{"40G", 13}, SpeedName{"100G", 14}),
    [](const auto& row) { return "Code" + std::to_string(row.param.code); });

INSTANTIATE_TEST_SUITE_P(OtherTexts, SpeedCode,
                         testing::Values(SpeedName{"1000M", 15}, SpeedName{"1g", 15},
                                         SpeedName{"an", 15}, SpeedName{"", 15},
                                         SpeedName{" 1G", 15}, SpeedName{"1G ", 15},
                                         SpeedName{"100", 15}, SpeedName{"%n%n", 15},
                                         SpeedName{"100M-HALF", 15}, SpeedName{"100M-F1", 15},
                                         SpeedName{"100M-", 15}, SpeedName{"100GF", 15}),
                         [](const auto& row) { return "Text" + std::to_string(row.index); });

TEST_F(PortCommandTest, SpeedWithoutANameHasCode15) {
  EXPECT_EQ(qel_port_speed_code(nullptr), 15);
}

TEST_F(PortCommandTest, SpeedReadsTheFirstMemberOnly) {
  set("port_speed", R"({"ge3":"2.5G","ge4":"1G"})");
  EXPECT_THAT(fake::query_texts(), ElementsAre(R"({"mdl":"mono","cmd":"qel_port_speed_set",)"
                                               R"("data":{"port":"ge3","speed":9}})"));
}

TEST_F(PortCommandTest, SpeedThatIsNoTextIsNoName) {
  for (const char* value : {"7", "null", "true", R"(["1G"])", R"({"a":"1G"})"}) {
    fake::clear_records();
    set("port_speed", R"({"ge3":)" + std::string(value) + "}");
    EXPECT_THAT(fake::query_texts(), ElementsAre(R"({"mdl":"mono","cmd":"qel_port_speed_set",)"
                                                 R"("data":{"port":"ge3","speed":15}})"))
        << value;
  }
}

// ---------------------------------------------------------------------------------------------
// port_restart

TEST_F(PortCommandTest, RestartTakesThePortDownAtOnceAndCountsItsDelay) {
  set("port_restart", R"({"ge2":5})");
  EXPECT_THAT(fake::query_texts(), ElementsAre(R"({"mdl":"mono","cmd":"qel_port_enable_set",)"
                                               R"("data":{"port":"ge2","enable":0}})"));
  EXPECT_EQ(restart_left("ge2"), 5);
  EXPECT_THAT(fake::console(),
              ElementsAre("qel_cmd_handle_port_restart,629 string[ge2] valueint[5] \r\n"));
  EXPECT_THAT(fake::sent(), IsEmpty());
}

TEST_F(PortCommandTest, RestartTakesThePortDownBeforeItsDelayCounts) {
  int left = -1;
  fake::on_query([&](const fake::Query&) { left = restart_left("ge2"); });
  set("port_restart", R"({"ge2":5})");
  EXPECT_EQ(left, 0);
}

TEST_F(PortCommandTest, RestartBringsThePortBackWithTheTickOfItsDelay) {
  set("port_restart", R"({"ge2":5})");
  fake::clear_records();
  for (int tick = 1; tick <= 4; ++tick) {
    qel_port_restart_timer();
    ASSERT_THAT(fake::queries(), IsEmpty()) << "tick " << tick;
  }
  qel_port_restart_timer();
  EXPECT_THAT(fake::query_texts(), ElementsAre(R"({"mdl":"mono","cmd":"qel_port_enable_set",)"
                                               R"("data":{"port":"ge2","enable":1}})"));
  EXPECT_EQ(restart_left("ge2"), 0);
}

struct Delay {
  const char* given;
  int told;
  uint8_t kept;
};

class RestartDelay : public PortCommandTest, public testing::WithParamInterface<Delay> {};

TEST_P(RestartDelay, IsKeptInEightBits) {
  const Delay& delay = GetParam();
  set("port_restart", R"({"ge2":)" + std::string(delay.given) + "}");
  EXPECT_EQ(restart_left("ge2"), delay.kept);
  EXPECT_THAT(fake::console(), ElementsAre("qel_cmd_handle_port_restart,629 string[ge2] valueint[" +
                                           std::to_string(delay.told) + "] \r\n"));
  fake::clear_records();
  for (int tick = 0; tick < delay.kept; ++tick) {
    EXPECT_THAT(fake::queries(), IsEmpty());
    qel_port_restart_timer();
  }
  EXPECT_THAT(fake::queries(), SizeIs(delay.kept == 0 ? 0 : 1));
}

INSTANTIATE_TEST_SUITE_P(Delays, RestartDelay,
                         testing::Values(Delay{"1", 1, 1}, Delay{"255", 255, 255},
                                         Delay{"300", 300, 44}, Delay{"-1", -1, 255},
                                         Delay{"2147483647", 2147483647, 255},
                                         Delay{"257", 257, 1}),
                         [](const auto& row) {
                           return "Case" + std::to_string(row.index) + "Keeps" +
                                  std::to_string(row.param.kept);
                         });

TEST_F(PortCommandTest, RestartWithZeroOrAMultipleOf256LeavesThePortDown) {
  for (const char* delay : {"0", "256", "512", "-256", "65536"}) {
    fake::clear_records();
    set("port_restart", R"({"ge2":)" + std::string(delay) + "}");
    for (int tick = 0; tick < 600; ++tick) {
      qel_port_restart_timer();
    }
    EXPECT_THAT(fake::query_texts(), ElementsAre(R"({"mdl":"mono","cmd":"qel_port_enable_set",)"
                                                 R"("data":{"port":"ge2","enable":0}})"))
        << delay;
  }
}

TEST_F(PortCommandTest, SecondRestartBeginsAnew) {
  set("port_restart", R"({"ge2":9})");
  qel_port_restart_timer();
  set("port_restart", R"({"ge2":3})");
  EXPECT_EQ(restart_left("ge2"), 3);
  EXPECT_THAT(fake::queries(), SizeIs(2));
}

TEST_F(PortCommandTest, PortsRestartIndependently) {
  set("port_restart", R"({"ge2":2})");
  set("port_restart", R"({"ge1":1,"ge4":1})");
  EXPECT_EQ(restart_left("ge4"), 0);
  fake::clear_records();
  qel_port_restart_timer();
  qel_port_restart_timer();
  EXPECT_THAT(
      fake::query_texts(),
      ElementsAre(
          R"({"mdl":"mono","cmd":"qel_port_enable_set","data":{"port":"ge1","enable":1}})",
          R"({"mdl":"mono","cmd":"qel_port_enable_set","data":{"port":"ge2","enable":1}})"));
}

TEST_F(PortCommandTest, RestartOfAnUnknownPortOnlyWritesItsLine) {
  set("port_restart", R"({"ge77":5})");
  EXPECT_THAT(fake::queries(), IsEmpty());
  EXPECT_THAT(fake::console(),
              ElementsAre("qel_cmd_handle_port_restart,629 string[ge77] valueint[5] \r\n"));
  for (const char* name : {"ge1", "ge2", "ge3", "ge4"}) {
    EXPECT_EQ(restart_left(name), 0);
  }
}

// Without a record there is no countdown that would bring them back.
TEST_F(PortCommandTest, RestartOfWhatHasNoRecordOnlyWritesItsLine) {
  fake::add_port("ge5");  // came after the start
  set("port_restart", R"({"vlanif1":5})");
  set("port_restart", R"({"ge5":5})");
  for (int tick = 0; tick < 10; ++tick) {
    qel_port_restart_timer();
  }
  EXPECT_THAT(fake::queries(), IsEmpty());
  EXPECT_THAT(fake::console(),
              ElementsAre("qel_cmd_handle_port_restart,629 string[vlanif1] valueint[5] \r\n",
                          "qel_cmd_handle_port_restart,629 string[ge5] valueint[5] \r\n"));
  expect_alive();
}

TEST_F(PortCommandTest, RestartLineGoesToStandardErrorWithoutAConsole) {
  fake::fail_os("fopen", ENOENT);
  EXPECT_EQ(stderr_of([&] { set("port_restart", R"({"ge2":5})"); }),
            "qel_cmd_handle_port_restart,629 string[ge2] valueint[5] \r\n");
}

TEST_F(PortCommandTest, ConsoleIsOpenedForWritingForEachLine) {
  set("port_restart", R"({"ge2":5})");
  set("port_restart", R"({"ge3":5})");
  EXPECT_THAT(fake::console_modes(), ElementsAre("w", "w"));
}

TEST_F(PortCommandTest, DelayThatIsNoNumberIsSurvived) {
  for (const char* value : {R"("5")", "null", "[5]", R"({"a":5})"}) {
    fake::clear_records();
    set("port_restart", R"({"ge2":)" + std::string(value) + "}");
    EXPECT_EQ(restart_left("ge2"), 0) << value;
    EXPECT_THAT(fake::console(),
                ElementsAre("qel_cmd_handle_port_restart,629 string[ge2] valueint[0] \r\n"))
        << value;
  }
  expect_alive();
}

// ---------------------------------------------------------------------------------------------
// What the three have in common

class FirstMemberCommand : public PortCommandTest,
                           public testing::WithParamInterface<const char*> {};

TEST_P(FirstMemberCommand, WithoutDataDoesNothing) {
  receive(R"({"mac":"gw","cmd":"set","subcmd":")" + std::string(GetParam()) + R"("})");
  for (const char* data : kNamelessData) {
    set(GetParam(), data);
  }
  EXPECT_THAT(fake::queries(), IsEmpty());
  EXPECT_THAT(fake::sent(), IsEmpty());
  EXPECT_THAT(fake::console(), IsEmpty());
  expect_alive();
}

TEST_P(FirstMemberCommand, OfAnArrayNamesNoPort) {
  for (const char* data : {"[1]", R"(["ge1"])", R"([{"ge1":1}])", "[[]]", "[null]"}) {
    set(GetParam(), data);
  }
  EXPECT_THAT(fake::queries(), IsEmpty());
  EXPECT_THAT(fake::sent(), IsEmpty());
  expect_alive();
}

TEST_P(FirstMemberCommand, WithANumberThatNoIntegerHoldsIsSurvived) {
  for (const char* number : {"1e999", "-1e999", "99999999999999999999", "1e-999", "-0.0"}) {
    set(GetParam(), R"({"ge1":)" + std::string(number) + "}");
  }
  expect_alive();
}

TEST_P(FirstMemberCommand, AcceptsNamesOfAnyKind) {
  for (const std::string& name :
       {std::string(10000, 'g'), std::string(31, 'g'), std::string(32, 'g'), std::string("%n%s%n"),
        std::string(R"(ge1\"},{\"x\":\")"), std::string(R"(\\)"), std::string(R"(\u0001\n)"),
        std::string(R"(../../x)"), std::string()}) {
    set_long(GetParam(), R"({")" + name + R"(":1})");
    set_long(GetParam(), R"({")" + name + R"(":"1G"})");
  }
  EXPECT_THAT(fake::sent(), IsEmpty());
  expect_alive();
}

TEST_P(FirstMemberCommand, HandlerReturnsZeroAlways) {
  qel_link link = eth_link();
  const auto handler = std::string(GetParam()) == "port_enable"  ? qel_cmd_handle_port_enable
                       : std::string(GetParam()) == "port_speed" ? qel_cmd_handle_port_speed
                                                                 : qel_cmd_handle_port_restart;
  for (const char* text : {"{}", R"({"data":{}})", R"({"data":{"ge1":"1G"}})", R"({"data":[0]})",
                           R"({"data":{"ge77":1}})"}) {
    const qel_cjson_tree root(cJSON_Parse(text));
    EXPECT_EQ(handler(&link, root.get(), text), 0) << text;
  }
}

INSTANTIATE_TEST_SUITE_P(Commands, FirstMemberCommand,
                         testing::Values("port_enable", "port_speed", "port_restart"),
                         [](const auto& row) { return std::string(row.param); });

TEST_F(PortCommandTest, PortNameOfPlainTextGoesIntoTheQueryAsItIs) {
  set("port_enable", R"({"a'b%n {/}:, ~":1})");
  EXPECT_THAT(fake::query_texts(), ElementsAre(R"({"mdl":"mono","cmd":"qel_port_enable_set",)"
                                               R"("data":{"port":"a'b%n {/}:, ~","enable":1}})"));
  EXPECT_THAT(fake::console(), IsEmpty());
}

TEST_F(PortCommandTest, PortNameThatIsNotPlainIsToldAndNotSent) {
  for (const char* name : {R"(ge1\",\"enable\":0,\"x\":\")", R"(ge1\\)", R"(ge1\n)", R"(ge1\u0001)",
                           "ge1\x1f", "ge1\x7f"}) {
    fake::clear_records();
    const std::string head = R"({")" + std::string(name);
    set("port_enable", head + R"(":1})");
    set("port_speed", head + R"(":"1G"})");
    set("port_restart", head + R"(":5})");
    EXPECT_THAT(fake::queries(), IsEmpty()) << name;
    EXPECT_THAT(fake::console(),
                ElementsAre(MatchesRegex("qel_cmd_port_enable_update,[0-9]+ unsafe text \r\n"),
                            MatchesRegex("qel_cmd_port_speed_update,[0-9]+ unsafe text \r\n"),
                            MatchesRegex("qel_cmd_handle_port_restart,[0-9]+ unsafe text \r\n")));
  }
  expect_alive();
}

TEST_F(PortCommandTest, PortWhoseNameIsNotPlainIsNotRestarted) {
  fake::reset();
  fake::add_port("ge\"1");
  start();
  set("port_restart", R"({"ge\"1":5})");
  EXPECT_THAT(fake::queries(), IsEmpty());
  EXPECT_EQ(restart_left("ge\"1"), 0) << "down it would not go, and up it would be asked for";
}

TEST_F(PortCommandTest, PortNameOf10000BytesGoesIntoTheQueryWhole) {
  const std::string name(10000, 'g');
  set_long("port_speed", R"({")" + name + R"(":"1G"})");
  EXPECT_THAT(fake::query_texts(), ElementsAre(R"({"mdl":"mono","cmd":"qel_port_speed_set",)"
                                               R"("data":{"port":")" +
                                               name + R"(","speed":7}})"));
}

TEST_F(PortCommandTest, PortNameThatNoQueryHoldsIsToldAndNotSent) {
  set_long("port_enable", R"({")" + std::string(65470, 'g') + R"(":1})");
  EXPECT_THAT(fake::queries(), IsEmpty());
  ASSERT_THAT(fake::console(), SizeIs(1));
  EXPECT_THAT(fake::console()[0], HasSubstr("argc error"));
  expect_alive();
}

// 22 bytes of the payload stand around the name, one less for the speed.
TEST_F(PortCommandTest, PortNameThatNoPayloadHoldsIsToldAndNotSent) {
  set_long("port_enable", R"({")" + std::string(65513, 'g') + R"(":1})");
  set_long("port_speed", R"({")" + std::string(65514, 'g') + R"(":"1G"})");
  EXPECT_THAT(fake::queries(), IsEmpty());
  EXPECT_THAT(fake::console(), ElementsAre(MatchesRegex("\\[qel_cmd_port_enable_update,[0-9]+\\] "
                                                        "len\\[65535\\] argc error \n"),
                                           MatchesRegex("\\[qel_cmd_port_speed_update,[0-9]+\\] "
                                                        "len\\[65535\\] argc error \n")));
  expect_alive();
}

TEST_F(PortCommandTest, EnableUpdateWithoutANameIsToldAndSendsNothing) {
  EXPECT_EQ(qel_cmd_port_enable_update(nullptr, 1), 0);
  EXPECT_THAT(fake::console(), ElementsAre("qel_cmd_port_enable_update,534 null \r\n"));
  EXPECT_THAT(fake::queries(), IsEmpty());
}

TEST_F(PortCommandTest, SpeedUpdateWithoutANameIsToldAndSendsNothing) {
  EXPECT_EQ(qel_cmd_port_speed_update(nullptr, "1G"), 0);
  EXPECT_THAT(fake::console(), ElementsAre("qel_cmd_port_speed_update,558 null \r\n"));
  EXPECT_THAT(fake::queries(), IsEmpty());
}

TEST_F(PortCommandTest, MemberWithoutANameIsTold) {
  set("port_enable", "[1]");
  set("port_speed", R"(["1G"])");
  set("port_restart", "[5]");
  EXPECT_THAT(fake::console(),
              ElementsAre("qel_cmd_port_enable_update,534 null \r\n",
                          "qel_cmd_port_speed_update,558 null \r\n",
                          "qel_cmd_handle_port_restart,629 string[(null)] valueint[5] \r\n"));
}

TEST_F(PortCommandTest, ValueThatIsTrueCountsAsOne) {
  set("port_enable", R"({"ge1":true})");
  set("port_enable", R"({"ge1":false})");
  set("port_restart", R"({"ge2":true})");
  EXPECT_THAT(
      fake::query_texts(),
      ElementsAre(
          R"({"mdl":"mono","cmd":"qel_port_enable_set","data":{"port":"ge1","enable":1}})",
          R"({"mdl":"mono","cmd":"qel_port_enable_set","data":{"port":"ge1","enable":0}})",
          R"({"mdl":"mono","cmd":"qel_port_enable_set","data":{"port":"ge2","enable":0}})"));
  EXPECT_EQ(restart_left("ge2"), 1);
  EXPECT_THAT(fake::console(),
              ElementsAre("qel_cmd_handle_port_restart,629 string[ge2] valueint[1] \r\n"));
}

TEST_F(PortCommandTest, UpdatesWithANameReturnZero) {
  EXPECT_EQ(qel_cmd_port_enable_update("ge1", 1), 0);
  EXPECT_EQ(qel_cmd_port_speed_update("ge1", "10G"), 0);
  EXPECT_THAT(
      fake::query_texts(),
      ElementsAre(R"({"mdl":"mono","cmd":"qel_port_enable_set","data":{"port":"ge1","enable":1}})",
                  R"({"mdl":"mono","cmd":"qel_port_speed_set","data":{"port":"ge1","speed":11}})"));
}

// ---------------------------------------------------------------------------------------------
// ports_conf set

TEST_F(PortCommandTest, PortsConfSetGoesToFourModulesWithoutPoe) {
  fake::set_nvram("have_poe", "0");
  set("ports_conf", R"({"ge1":[1,"AN"]})");
  EXPECT_THAT(fake::query_texts(),
              ElementsAre("{\"mdl\":\"mono\",\"cmd\":\"qel_common_update_mono_portinfo\","
                          "\"data\":{\n\t\"ge1\":\t[1, \"AN\"]\n}}",
                          "{\"mdl\":\"llpp\",\"cmd\":\"qel_common_update_llpp_portinfo\","
                          "\"data\":{\n\t\"ge1\":\t[1, \"AN\"]\n}}",
                          "{\"mdl\":\"stp\",\"cmd\":\"qel_common_update_stp_portinfo\","
                          "\"data\":{\n\t\"ge1\":\t[1, \"AN\"]\n}}",
                          "{\"mdl\":\"lldp\",\"cmd\":\"qel_common_update_lldp_portinfo\","
                          "\"data\":{\n\t\"ge1\":\t[1, \"AN\"]\n}}"));
  EXPECT_THAT(fake::sent(), IsEmpty());
}

TEST_F(PortCommandTest, PortsConfSetGoesToFiveModulesWithPoeTheFifthLldp) {
  fake::set_nvram("have_poe", "1");
  set("ports_conf", R"({"a":{"b":1},"c":"d"})");
  EXPECT_THAT(fake::query_texts(),
              ElementsAre("{\"mdl\":\"mono\",\"cmd\":\"qel_common_update_mono_portinfo\","
                          "\"data\":{\n\t\"a\":\t{\n\t\t\"b\":\t1\n\t},\n\t\"c\":\t\"d\"\n}}",
                          "{\"mdl\":\"llpp\",\"cmd\":\"qel_common_update_llpp_portinfo\","
                          "\"data\":{\n\t\"a\":\t{\n\t\t\"b\":\t1\n\t},\n\t\"c\":\t\"d\"\n}}",
                          "{\"mdl\":\"stp\",\"cmd\":\"qel_common_update_stp_portinfo\","
                          "\"data\":{\n\t\"a\":\t{\n\t\t\"b\":\t1\n\t},\n\t\"c\":\t\"d\"\n}}",
                          "{\"mdl\":\"lldp\",\"cmd\":\"qel_common_update_lldp_portinfo\","
                          "\"data\":{\n\t\"a\":\t{\n\t\t\"b\":\t1\n\t},\n\t\"c\":\t\"d\"\n}}",
                          "{\"mdl\":\"lldp\",\"cmd\":\"qel_common_update_poe_portinfo\","
                          "\"data\":{\n\t\"a\":\t{\n\t\t\"b\":\t1\n\t},\n\t\"c\":\t\"d\"\n}}"));
  for (const fake::Query& query : fake::queries()) {
    EXPECT_TRUE(query.waited);
  }
}

TEST_F(PortCommandTest, PortsConfSetWithoutDataSendsNothing) {
  receive(R"({"mac":"gw","cmd":"set","subcmd":"ports_conf"})");
  EXPECT_THAT(fake::queries(), IsEmpty());
  EXPECT_THAT(fake::sent(), IsEmpty());
}

TEST_F(PortCommandTest, PortsConfSetReturnsZeroWithDataAndWithout) {
  qel_link link = eth_link();
  for (const char* text : {"{}", R"({"data":{"ge1":1}})", R"({"data":null})"}) {
    const qel_cjson_tree root(cJSON_Parse(text));
    EXPECT_EQ(qel_cmd_handle_portsconf_set(&link, root.get(), text), 0) << text;
  }
  EXPECT_THAT(fake::queries(), SizeIs(8)) << "four for each that has data";
}

TEST_F(PortCommandTest, PortsConfSetPassesDataThatIsNull) {
  set("ports_conf", "null");
  EXPECT_THAT(fake::query_texts(),
              ElementsAre(R"({"mdl":"mono","cmd":"qel_common_update_mono_portinfo","data":null})",
                          R"({"mdl":"llpp","cmd":"qel_common_update_llpp_portinfo","data":null})",
                          R"({"mdl":"stp","cmd":"qel_common_update_stp_portinfo","data":null})",
                          R"({"mdl":"lldp","cmd":"qel_common_update_lldp_portinfo","data":null})"));
}

TEST_F(PortCommandTest, PortsConfSetPassesDataOfAnyKind) {
  for (const char* data : {"5", "\"x\"", "[1, 2]", "true"}) {
    fake::clear_records();
    set("ports_conf", data);
    ASSERT_THAT(fake::queries(), SizeIs(4)) << data;
    EXPECT_EQ(
        fake::queries()[2].request,
        R"({"mdl":"stp","cmd":"qel_common_update_stp_portinfo","data":)" + std::string(data) + "}");
  }
}

TEST_F(PortCommandTest, PortsConfSetIgnoresWhatTheModulesSay) {
  fake::set_nvram("have_poe", "1");
  fake::reply("mono", "qel_common_update_mono_portinfo", "no json");
  fake::reply("llpp", "qel_common_update_llpp_portinfo", R"({"result":-1})");
  fake::reply("stp", "qel_common_update_stp_portinfo", std::string(70000, 'x'));
  set("ports_conf", "{}");
  EXPECT_THAT(fake::queries(), SizeIs(5));
  EXPECT_THAT(fake::sent(), IsEmpty());
  EXPECT_THAT(fake::console(), IsEmpty());
}

void* no_memory(size_t /*size*/) {
  return nullptr;
}

TEST_F(PortCommandTest, PortsConfSetThatCannotBePrintedIsToldAndFails) {
  const qel_cjson_tree root(cJSON_Parse(R"({"data":{"ge1":1}})"));
  qel_link link = eth_link();
  cJSON_Hooks hooks = {no_memory, std::free};
  cJSON_InitHooks(&hooks);
  const int result = qel_cmd_handle_portsconf_set(&link, root.get(), "");
  cJSON_InitHooks(nullptr);
  EXPECT_EQ(result, -1);
  EXPECT_THAT(fake::console(), ElementsAre("qel_cmd_handle_portsconf_set,513 json print err\r\n"));
  EXPECT_THAT(fake::queries(), IsEmpty());
}

}  // namespace
