// SPDX-License-Identifier: Apache-2.0
//
// The commands that concern the switch as a whole: keep-alive, address, clock, restart, countdown,
// name. The handlers of the typed message form, which no table names, are called here by hand.
#include <cerrno>
#include <cstdlib>

#include "qel/qel_cmd.h"
#include "qel/qel_json.h"
#include "qel/qel_main.h"
#include "qel/qel_req.h"
#include "qel/qel_restart.h"
#include "qel/qel_table.h"
#include "tests/unit/support.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::SizeIs;

constexpr char kReport[] =
    R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"sys_info","data":{"dhcp":0,"sys_ip":"192.168.1.10","sys_mask":24,"timestamp":1700000000}})";
constexpr char kReportFailed[] =
    R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"sys_info","data":{"ret":"failed"}})";
constexpr char kAddressGet[] = R"({"mdl":"zebra","cmd":"manage_L3IF_info_get"})";

// The switch runs and is at 192.168.1.10/24, at 1700000000 seconds; its timer ticks.
class SystemCommandTest : public AgentTest {
 protected:
  SystemCommandTest() {
    fake::add_ports(2);
    fake::set_now(1700000000);
    start();
    funcname_thread_add_timer(fake::master(), qel_timer_second, nullptr, 1, "qel_timer_second",
                              "test", 0);
    fake::clear_records();
  }

  // A command with that "data" text arrives.
  void set(const std::string& subcmd, const std::string& data) {
    receive(R"({"mac":"gw","cmd":"set","subcmd":")" + subcmd + R"(","data":)" + data + "}");
  }
  void ping(const std::string& data) {
    receive(R"({"mac":"gw","cmd":"ping","subcmd":"ping","data":)" + data + "}");
  }

  // Calls a handler with a message of any size, on a UDP link of its own.
  int call(qel_cmd_handler handler, const std::string& text) {
    const qel_cjson_tree root(cJSON_Parse(text.c_str()));
    EXPECT_NE(root, nullptr);
    qel_link link = udp_link();
    return handler(&link, root.get(), text.c_str());
  }
};

// ---------------------------------------------------------------------------------------------
// ping

using PingTest = SystemCommandTest;

TEST_F(PingTest, IsAnsweredWithItsDataInTheFormattedLayout) {
  ping(R"({"seq":7,"list":[1,2],"in":{"a":"b"}})");
  EXPECT_THAT(sent_messages(),
              ElementsAre("{\"mac\":\"0a1b2c3d4e5f\",\"cmd\":\"pong\",\"subcmd\":\"pong\","
                          "\"data\":{\n\t\"seq\":\t7,\n\t\"list\":\t[1, 2],\n\t\"in\":\t{\n\t\t"
                          "\"a\":\t\"b\"\n\t}\n}}"));
}

TEST_F(PingTest, DataOfAnyTypeIsEchoed) {
  for (const char* data : {"5", "-1.5", "\"x\"", "true", "null", "[]", "{\n}"}) {
    fake::clear_records();
    ping(data);
    EXPECT_THAT(sent_messages(),
                ElementsAre(R"({"mac":"0a1b2c3d4e5f","cmd":"pong","subcmd":"pong","data":)" +
                            std::string(data) + "}"));
  }
}

TEST_F(PingTest, WithoutDataIsNotAnswered) {
  receive(R"({"mac":"gw","cmd":"ping","subcmd":"ping"})");
  EXPECT_THAT(fake::sent(), IsEmpty());
  EXPECT_EQ(call(qel_cmd_handle_pingnew, R"({"cmd":"ping"})"), 0);
  EXPECT_THAT(fake::console(), IsEmpty());
}

TEST_F(PingTest, IsAQueryAndNoAction) {
  set("ping", "{}");
  EXPECT_THAT(fake::sent(), IsEmpty());
}

TEST_F(PingTest, PongHoldsTheSystemMac) {
  fake::set_system_mac({0xAB, 0xCD, 0xEF, 0x01, 0x02, 0x03});
  qel_text_area<kQelMessageSize> area;
  qel_text& text = area.begin();
  EXPECT_EQ(qel_json_pong(text, "1"), 60U);
  EXPECT_EQ(text.view(), R"({"mac":"abcdef010203","cmd":"pong","subcmd":"pong","data":1})");
}

TEST_F(PingTest, GoesBackOnItsOwnLinkWithoutAClosingNul) {
  EXPECT_EQ(call(qel_cmd_handle_pingnew, R"({"data":1})"), 0);
  ASSERT_THAT(fake::sent(), SizeIs(1));
  EXPECT_EQ(fake::sent()[0].ip(), "192.168.1.99");
  EXPECT_EQ(fake::sent()[0].port(), 20681);
  EXPECT_THAT(fake::sent()[0].bytes,
              BytesAre(R"({"mac":"0a1b2c3d4e5f","cmd":"pong","subcmd":"pong","data":1})"));
}

TEST_F(PingTest, ResetsTheCountOfOnlinePorts) {
  g_qel_dev.online_ports = 9;
  ping("1");
  EXPECT_EQ(g_qel_dev.online_ports, 0U);
}

// 59 bytes of the pong are not data; a text of n bytes prints as n + 2.
TEST_F(PingTest, PongOf1600BytesIsSent) {
  call(qel_cmd_handle_pingnew, R"({"data":")" + std::string(1539, 'x') + R"("})");
  ASSERT_THAT(fake::sent(), SizeIs(1));
  EXPECT_EQ(fake::sent()[0].bytes.size(), 1600U);
}

TEST_F(PingTest, PongLongerThan1600BytesIsNotSent) {
  for (size_t size : {1540U, 5000U, 8192U, 20000U, 65500U, 70000U}) {
    EXPECT_EQ(call(qel_cmd_handle_pingnew, R"({"data":")" + std::string(size, 'x') + R"("})"), 0);
    EXPECT_THAT(fake::sent(), IsEmpty()) << size;
  }
}

TEST_F(PingTest, PongThatIsTooLongIsToldWithItsLength) {
  call(qel_cmd_handle_pingnew, R"({"data":")" + std::string(1540, 'x') + R"("})");
  EXPECT_THAT(fake::console(),
              ElementsAre(MatchesRegex("\\[qel_cmd_send,[0-9]+\\] len\\[1601\\] argc error \n")));
}

TEST_F(PingTest, DataThatOnlyThePrinterMakesTooLongIsNotSent) {
  ping("[[{},{},{},{},{}]" + []() {
    std::string more;
    for (int i = 0; i < 400; ++i) {
      more += ",{}";
    }
    return more;
  }() + "]");
  EXPECT_THAT(fake::sent(), IsEmpty());
  ping("1");
  EXPECT_THAT(fake::sent(), SizeIs(1));
}

TEST_F(PingTest, ShortPongAfterALongOneKeepsNothingOfIt) {
  ping(R"(")" + std::string(1400, 'x') + R"(")");
  fake::clear_records();
  ping("1");
  ASSERT_THAT(fake::sent(), SizeIs(1));
  EXPECT_THAT(fake::sent()[0].bytes.substr(32),
              BytesAre(R"({"mac":"0a1b2c3d4e5f","cmd":"pong","subcmd":"pong","data":1})"));
}

TEST_F(PingTest, DataThatCannotBePrintedIsToldOnTheConsole) {
  // A fraction takes the way over the printer that needs memory.
  const qel_cjson_tree root(cJSON_Parse(R"({"data":{"a":1.5}})"));
  qel_link link = udp_link();
  cJSON_Hooks no_memory = {[](size_t) -> void* { return nullptr; }, [](void*) {}};
  cJSON_InitHooks(&no_memory);
  const int result = qel_cmd_handle_pingnew(&link, root.get(), "");
  cJSON_InitHooks(nullptr);
  EXPECT_EQ(result, -1);
  EXPECT_THAT(fake::console(), ElementsAre("qel_cmd_handle_pingnew,441 json print err\r\n"));
  EXPECT_THAT(fake::sent(), IsEmpty());
}

// ---------------------------------------------------------------------------------------------
// sys_ip

using SysIpTest = SystemCommandTest;

TEST_F(SysIpTest, AsksTheModuleByteForByteAndReportsTheAddressThatHoldsThen) {
  fake::on_query([](const fake::Query& query) {
    if (query.command == "manage_L3IF_info_set") {
      fake::net("vlanif1").ip = "10.0.0.7";
      fake::net("vlanif1").mask = "255.255.0.0";
    }
  });
  set("sys_ip", R"({"sys_ip":"10.0.0.7","sys_mask":16,"dhcp":0})");
  EXPECT_THAT(
      fake::query_texts(),
      ElementsAre(
          R"({"mdl":"zebra","cmd":"manage_L3IF_info_set","config":[{"manage_L3IF":"vlanif1","old_ip_address": "192.168.1.10/24", "ip_address":"10.0.0.7/16", "method":0, "gateway":""}]})",
          kAddressGet));
  EXPECT_TRUE(fake::queries()[0].waited);
  EXPECT_THAT(
      sent_messages(),
      ElementsAre(
          R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"sys_info","data":{"dhcp":0,"sys_ip":"10.0.0.7","sys_mask":16,"timestamp":1700000000}})"));
}

TEST_F(SysIpTest, RefusedChangeIsAnsweredWithTheAddressThatHolds) {
  fake::reply("zebra", "manage_L3IF_info_set", R"({"ret":-1,"msg":"no"})");
  set("sys_ip", R"({"sys_ip":"300.1.1.1","sys_mask":24})");
  EXPECT_THAT(sent_messages(), ElementsAre(kReport));
}

TEST_F(SysIpTest, ModuleThatDoesNotAnswerChangesNothingOfTheAnswer) {
  set("sys_ip", R"({"sys_ip":"192.168.1.11","sys_mask":24})");
  EXPECT_THAT(sent_messages(), ElementsAre(kReport));
}

TEST_F(SysIpTest, AddressThatHoldsAlreadyIsNotAnswered) {
  set("sys_ip", R"({"sys_ip":"192.168.1.10","sys_mask":16})");
  EXPECT_THAT(fake::sent(), IsEmpty());
  EXPECT_THAT(fake::queries(), IsEmpty());
  EXPECT_THAT(fake::console(), ElementsAre("Set the same ip[192.168.1.10] ipstr[192.168.1.10]\n"));
}

TEST_F(SysIpTest, SameAddressWrittenOtherwiseIsAnotherText) {
  set("sys_ip", R"({"sys_ip":"192.168.1.010","sys_mask":24})");
  EXPECT_THAT(fake::queries(), SizeIs(2));
  EXPECT_THAT(sent_messages(), ElementsAre(kReport));
}

TEST_F(SysIpTest, MethodIsZeroWhateverDhcpSays) {
  for (const char* dhcp : {"1", "0", "-1", "\"1\"", "null", "{}"}) {
    fake::clear_records();
    set("sys_ip", R"({"sys_ip":"10.0.0.1","sys_mask":8,"dhcp":)" + std::string(dhcp) + "}");
    ASSERT_THAT(fake::queries(), SizeIs(2)) << dhcp;
    EXPECT_THAT(fake::query_texts()[0], HasSubstr(R"("10.0.0.1/8", "method":0, "gateway":""}])"))
        << dhcp;
  }
}

struct MaskCase {
  const char* name;
  const char* member;
  const char* written;
};

class SysMaskTest : public SysIpTest, public testing::WithParamInterface<MaskCase> {};

TEST_P(SysMaskTest, GoesToTheModuleAsItCame) {
  set("sys_ip", R"({"sys_ip":"10.0.0.1")" + std::string(GetParam().member) + "}");
  ASSERT_THAT(fake::queries(), SizeIs(2));
  EXPECT_THAT(fake::query_texts()[0],
              HasSubstr(R"("ip_address":"10.0.0.1/)" + std::string(GetParam().written) + R"(",)"));
  EXPECT_THAT(sent_messages(), ElementsAre(kReport));
}

INSTANTIATE_TEST_SUITE_P(
    Masks, SysMaskTest,
    testing::Values(MaskCase{"Missing", "", "0"}, MaskCase{"Zero", R"(,"sys_mask":0)", "0"},
                    MaskCase{"ThirtyTwo", R"(,"sys_mask":32)", "32"},
                    MaskCase{"ThirtyThree", R"(,"sys_mask":33)", "33"},
                    MaskCase{"Negative", R"(,"sys_mask":-1)", "-1"},
                    MaskCase{"Text", R"(,"sys_mask":"24")", "0"},
                    MaskCase{"Dotted", R"(,"sys_mask":"255.255.255.0")", "0"},
                    MaskCase{"Null", R"(,"sys_mask":null)", "0"},
                    MaskCase{"Beyond32Bits", R"(,"sys_mask":1e12)", "2147483647"}),
    [](const auto& case_info) { return case_info.param.name; });

TEST_F(SysIpTest, AddressThatIsPlainTextGoesToTheModuleAsItCame) {
  set("sys_ip", R"({"sys_ip":"1.2.3.4', x: %n/{}","sys_mask":24})");
  ASSERT_THAT(fake::queries(), SizeIs(2));
  EXPECT_THAT(fake::query_texts()[0],
              HasSubstr(R"("ip_address":"1.2.3.4', x: %n/{}/24", "method")"));
  EXPECT_THAT(fake::console(), IsEmpty());
}

TEST_F(SysIpTest, AddressThatIsNotPlainIsToldAndNotSentOn) {
  for (const char* address :
       {R"(1.2.3.4\", \"x\":\")", R"(1.2.3.4\\)", R"(1.2.3.4\n)", "1.2.3.4\x7f"}) {
    fake::clear_records();
    set("sys_ip", R"({"sys_mask":24,"sys_ip":")" + std::string(address) + R"("})");
    EXPECT_THAT(fake::query_texts(), ElementsAre(kAddressGet)) << address;
    EXPECT_THAT(sent_messages(), ElementsAre(kReport)) << address;
    EXPECT_THAT(fake::console(),
                ElementsAre(MatchesRegex("qel_cmd_handle_sys_ip,[0-9]+ unsafe text \r\n")));
  }
}

TEST_F(SysIpTest, AddressBeyondTheQuerysBufferIsNotSentOn) {
  EXPECT_EQ(
      call(qel_cmd_handle_sys_ip, R"({"data":{"sys_ip":")" + std::string(8100, '1') + R"("}})"), 0);
  ASSERT_THAT(fake::query_texts(), SizeIs(1));
  EXPECT_EQ(fake::query_texts()[0], kAddressGet);
  EXPECT_THAT(sent_messages(), ElementsAre(kReport));
}

// 108 bytes of the query stand around the address.
TEST_F(SysIpTest, AddressBeyondTheQuerysBufferIsTold) {
  call(qel_cmd_handle_sys_ip, R"({"data":{"sys_ip":")" + std::string(8100, '1') + R"("}})");
  EXPECT_THAT(fake::console(), ElementsAre(MatchesRegex("\\[qel_cmd_handle_sys_ip,[0-9]+\\] "
                                                        "len\\[8208\\] argc error \n")));
}

TEST_F(SysIpTest, LongAddressWithinTheBufferIsSentOn) {
  call(qel_cmd_handle_sys_ip, R"({"data":{"sys_ip":")" + std::string(8000, '1') + R"("}})");
  ASSERT_THAT(fake::query_texts(), SizeIs(2));
  EXPECT_THAT(fake::query_texts()[0], HasSubstr(std::string(8000, '1') + R"(/0", "method":0)"));
}

TEST_F(SysIpTest, WhatIsMissingIsAnsweredAsFailed) {
  receive(R"({"mac":"gw","cmd":"set","subcmd":"sys_ip"})");
  for (const char* data : {"{}", R"({"sys_mask":24,"dhcp":1})", R"({"sys_ip":7})",
                           R"({"sys_ip":null})", R"({"sys_ip":{}})", "[]", "5", "null", "\"x\""}) {
    set("sys_ip", data);
  }
  EXPECT_THAT(sent_messages(), SizeIs(10));
  EXPECT_THAT(sent_messages(), testing::Each(kReportFailed));
  EXPECT_THAT(fake::queries(), IsEmpty());
}

TEST_F(SysIpTest, CurrentPrefixComesFromTheNetmask) {
  struct Case {
    const char* mask;
    const char* old;
  };
  for (const Case& one :
       {Case{"255.255.255.255", "192.168.1.10/32"}, Case{"255.128.0.0", "192.168.1.10/9"},
        Case{"0.0.0.0", "192.168.1.10/0"}, Case{"255.255.255.252", "192.168.1.10/30"}}) {
    fake::clear_records();
    fake::net("vlanif1").mask = one.mask;
    set("sys_ip", R"({"sys_ip":"10.0.0.1","sys_mask":8})");
    ASSERT_THAT(fake::query_texts(), SizeIs(2));
    EXPECT_THAT(fake::query_texts()[0],
                HasSubstr(R"("old_ip_address": ")" + std::string(one.old) + R"(", )"));
  }
}

TEST_F(SysIpTest, InterfaceWithoutAnAddressCanBeGivenOne) {
  fake::net("vlanif1").ip = "";
  fake::net("vlanif1").mask = "";
  std::string said = stderr_of(
      [&] { stdout_of([&] { set("sys_ip", R"({"sys_ip":"10.0.0.1","sys_mask":8})"); }); });
  ASSERT_THAT(fake::query_texts(), SizeIs(2)) << said;
  EXPECT_THAT(fake::query_texts()[0], HasSubstr(R"("old_ip_address": "/0", )"));
  EXPECT_THAT(
      sent_messages(),
      ElementsAre(
          R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"sys_info","data":{"dhcp":0,"sys_ip":"","sys_mask":0,"timestamp":1700000000}})"));
}

TEST_F(SysIpTest, NoAddressForAnInterfaceWithoutOneIsTheSame) {
  fake::net("vlanif1").ip = "";
  fake::net("vlanif1").mask = "";
  stderr_of([&] { set("sys_ip", R"({"sys_ip":"","sys_mask":24})"); });
  EXPECT_THAT(fake::console(), ElementsAre("Set the same ip[] ipstr[]\n"));
  EXPECT_THAT(fake::queries(), IsEmpty());
  EXPECT_THAT(fake::sent(), IsEmpty());
}

TEST_F(SysIpTest, HandlerGivesZero) {
  EXPECT_EQ(call(qel_cmd_handle_sys_ip, "{}"), 0);
  EXPECT_EQ(call(qel_cmd_handle_sys_ip, R"({"data":{"sys_ip":"192.168.1.10"}})"), 0);
  EXPECT_EQ(call(qel_cmd_handle_sys_ip, R"({"data":{"sys_ip":"192.168.1.11"}})"), 0);
}

// ---------------------------------------------------------------------------------------------
// The sys_info report

using SysInfoTest = SystemCommandTest;

TEST_F(SysInfoTest, LengthCountsNoClosingNul) {
  qel_text_area<kQelMessageSize> area;
  qel_text& text = area.begin();
  EXPECT_EQ(qel_json_sys_info(text, 0), 136U);
  EXPECT_EQ(text.view(), kReport);
}

TEST_F(SysInfoTest, AnyNegativeResultIsAFailureAndAsksNobody) {
  for (int result : {-1, -2147483647 - 1}) {
    qel_text_area<kQelMessageSize> area;
    qel_text& text = area.begin();
    EXPECT_EQ(qel_json_sys_info(text, result), 81U);
    EXPECT_EQ(text.view(), kReportFailed);
  }
  EXPECT_THAT(fake::queries(), IsEmpty());
}

TEST_F(SysInfoTest, AnyOtherResultIsSuccess) {
  qel_text_area<kQelMessageSize> area;
  qel_text& text = area.begin();
  qel_json_sys_info(text, 5);
  EXPECT_EQ(text.view(), kReport);
  EXPECT_THAT(fake::query_texts(), ElementsAre(kAddressGet));
}

TEST_F(SysInfoTest, AddressIsReadAfterTheModuleAnswered) {
  fake::on_query([](const fake::Query&) {
    fake::net("vlanif1").ip = "10.9.8.7";
    fake::net("vlanif1").mask = "255.0.0.0";
    fake::set_now(1700000002);
  });
  qel_text_area<kQelMessageSize> area;
  qel_text& text = area.begin();
  qel_json_sys_info(text, 0);
  EXPECT_EQ(
      text.view(),
      R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"sys_info","data":{"dhcp":0,"sys_ip":"10.9.8.7","sys_mask":8,"timestamp":1700000002}})");
}

TEST_F(SysInfoTest, TimestampBeyond2038IsReportedWhole) {
  fake::set_now(4102444800);
  qel_text_area<kQelMessageSize> area;
  qel_text& text = area.begin();
  qel_json_sys_info(text, 0);
  EXPECT_EQ(
      text.view(),
      R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"sys_info","data":{"dhcp":0,"sys_ip":"192.168.1.10","sys_mask":24,"timestamp":4102444800}})");
}

TEST_F(SysInfoTest, LeavesTheCountdownAlone) {
  g_qel_dev.sys_active = 5;
  qel_text_area<kQelMessageSize> area;
  qel_json_sys_info(area.begin(), 0);
  EXPECT_EQ(g_qel_dev.sys_active, 5);
}

struct MethodCase {
  const char* name;
  const char* reply;
  const char* dhcp;
};

class SysInfoMethodTest : public SysInfoTest, public testing::WithParamInterface<MethodCase> {};

TEST_P(SysInfoMethodTest, IsTheLastThatTheModuleTells) {
  fake::reply("zebra", "manage_L3IF_info_get", GetParam().reply);
  set("sys_time", "{}");
  EXPECT_THAT(
      sent_messages(),
      ElementsAre(R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"sys_info","data":{"dhcp":)" +
                  std::string(GetParam().dhcp) +
                  R"(,"sys_ip":"192.168.1.10","sys_mask":24,"timestamp":1700000000}})"));
}

INSTANTIATE_TEST_SUITE_P(
    Replies, SysInfoMethodTest,
    testing::Values(MethodCase{"One", R"({"data":[{"method":"1"}]})", "1"},
                    MethodCase{"OneThenZero", R"({"data":[{"method":"1"},{"method":"0"}]})", "0"},
                    MethodCase{"ZeroThenOne", R"({"data":[{"method":"0"},{"method":"1"}]})", "1"},
                    MethodCase{"LastWithoutMethod", R"({"data":[{"method":"1"},{}]})", "1"},
                    MethodCase{"TextThatIsNoNumber", R"({"data":[{"method":"dhcp"}]})", "0"},
                    MethodCase{"TextWithANumberBefore", R"({"data":[{"method":"7x"}]})", "7"},
                    MethodCase{"Negative", R"({"data":[{"method":"-3"}]})", "-3"},
                    MethodCase{"NumberInsteadOfText", R"({"data":[{"method":1}]})", "0"},
                    MethodCase{"ElementsThatAreNoObjects", R"({"data":[1,"1",null,["1"]]})", "0"},
                    MethodCase{"EmptyArray", R"({"data":[]})", "0"},
                    MethodCase{"DataIsAnObject", R"({"data":{"a":{"method":"1"}}})", "0"},
                    MethodCase{"DataIsAText", R"({"data":"1"})", "0"},
                    MethodCase{"NoData", R"({"ret":0})", "0"},
                    MethodCase{"NotJson", "garbage", "0"}, MethodCase{"Empty", "", "0"}),
    [](const auto& case_info) { return case_info.param.name; });

TEST_F(SysInfoTest, MethodBeyondAnIntegerIsSurvived) {
  fake::reply("zebra", "manage_L3IF_info_get", R"({"data":[{"method":"99999999999999999999"}]})");
  set("sys_time", "{}");
  EXPECT_THAT(sent_messages(), SizeIs(1));
}

TEST_F(SysInfoTest, ReplyThatFillsItsAreaIsRead) {
  const std::string reply = R"({"data":[{"method":"1"}],"pad":")";
  fake::reply("zebra", "manage_L3IF_info_get",
              reply + std::string(65534 - 2 - reply.size(), 'x') + R"("})");
  set("sys_time", "{}");
  ASSERT_THAT(sent_messages(), SizeIs(1));
  EXPECT_THAT(sent_messages()[0], HasSubstr(R"("dhcp":1,)"));
}

// ---------------------------------------------------------------------------------------------
// sys_time

using SysTimeTest = SystemCommandTest;

TEST_F(SysTimeTest, SetsTheClockThroughTheShellAndReports) {
  fake::on_shell([](const std::string&) {
    fake::set_now(1800000000);
    return 0;
  });
  set("sys_time", R"({"timestamp":"1800000000"})");
  EXPECT_THAT(fake::shell_commands(), ElementsAre(R"(date -s "@1800000000")"));
  EXPECT_THAT(
      sent_messages(),
      ElementsAre(
          R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"sys_info","data":{"dhcp":0,"sys_ip":"192.168.1.10","sys_mask":24,"timestamp":1800000000}})"));
  EXPECT_THAT(fake::query_texts(), ElementsAre(kAddressGet));
}

TEST_F(SysTimeTest, ReportsAlsoWithoutATimestampText) {
  receive(R"({"mac":"gw","cmd":"set","subcmd":"sys_time"})");
  for (const char* data :
       {"{}", R"({"timestamp":1700000000})", R"({"timestamp":null})", "[]", "null"}) {
    set("sys_time", data);
  }
  EXPECT_THAT(fake::shell_commands(), IsEmpty());
  EXPECT_THAT(sent_messages(), SizeIs(6));
  EXPECT_THAT(sent_messages(), testing::Each(kReport));
}

TEST_F(SysTimeTest, OnlyANumberReachesTheShell) {
  for (const char* text :
       {"1700000000", R"(1\"; reboot #)", "$(reboot)", "", "-5", "  12", "0x10", "+7"}) {
    set("sys_time", R"({"timestamp":")" + std::string(text) + R"("})");
  }
  EXPECT_THAT(fake::shell_commands(),
              ElementsAre(R"(date -s "@1700000000")", R"(date -s "@1")", R"(date -s "@0")",
                          R"(date -s "@0")", R"(date -s "@-5")", R"(date -s "@12")",
                          R"(date -s "@0")", R"(date -s "@7")"));
}

// As far as the machine's long goes: with 32 bits that is January 2038.
TEST_F(SysTimeTest, TimestampBeyond2038IsSetWhereALongHoldsIt) {
  set("sys_time", R"({"timestamp":"4102444800"})");
  EXPECT_THAT(fake::shell_commands(), ElementsAre(sizeof(long) > 4 ? R"(date -s "@4102444800")"
                                                                   : R"(date -s "@2147483647")"));
}

TEST_F(SysTimeTest, TimestampBeyondALongIsSurvived) {
  set("sys_time", R"({"timestamp":")" + std::string(1000, '9') + R"("})");
  EXPECT_THAT(fake::shell_commands(), SizeIs(1));
  EXPECT_THAT(sent_messages(), ElementsAre(kReport));
}

TEST_F(SysTimeTest, FailureOfTheShellIsNotReported) {
  fake::set_shell_status(1);
  set("sys_time", R"({"timestamp":"5"})");
  fake::fail_os("system", EAGAIN);
  set("sys_time", R"({"timestamp":"5"})");
  EXPECT_THAT(sent_messages(), ElementsAre(kReport, kReport));
  EXPECT_THAT(fake::console(), IsEmpty());
}

// ---------------------------------------------------------------------------------------------
// sys_reboot, config_reset

using RestartTest = SystemCommandTest;

TEST_F(RestartTest, RebootAsksThePlatformAndAnswersNothing) {
  set("sys_reboot", "{}");
  g_qel_restart = {};
  receive(R"({"cmd":"set","subcmd":"sys_reboot"})");
  EXPECT_THAT(fake::calls_of({"sys_"}), ElementsAre("sys_reboot()", "sys_reboot()"));
  EXPECT_THAT(fake::sent(), IsEmpty());
}

TEST_F(RestartTest, FactoryResetRestoresAndThenReboots) {
  set("config_reset", "{}");
  EXPECT_THAT(fake::calls_of({"sys_"}), ElementsAre("sys_restore_default()", "sys_reboot()"));
  EXPECT_THAT(fake::sent(), IsEmpty());
}

TEST_F(RestartTest, FailuresAreNotReportedAndDoNotStopTheReboot) {
  fake::fail_platform("sys_restore_default");
  fake::fail_platform("sys_reboot");
  EXPECT_EQ(call(qel_cmd_handle_config_reset, "{}"), 0);
  EXPECT_EQ(call(qel_cmd_handle_sys_reboot, "{}"), 0);
  EXPECT_EQ(fake::reboots(), 2);
  EXPECT_THAT(fake::sent(), IsEmpty());
  EXPECT_THAT(fake::console(), IsEmpty());
}

TEST_F(RestartTest, NeitherIsAQuery) {
  receive(R"({"cmd":"get","subcmd":"sys_reboot","data":{}})");
  receive(R"({"cmd":"ping","subcmd":"config_reset","data":{}})");
  EXPECT_EQ(fake::reboots(), 0);
  EXPECT_EQ(fake::factory_resets(), 0);
}

// ---------------------------------------------------------------------------------------------
// sys_active

class SysActiveTest : public SystemCommandTest {
 protected:
  // What the next probe's answer tells.
  std::string reported() {
    fake::clear_records();
    receive(R"({"mac":"gw","cmd":"probe","subcmd":"probe","data":{"ntick":1}})");
    const std::vector<std::string> messages = sent_messages();
    EXPECT_THAT(messages, SizeIs(1));
    const std::string text = messages.empty() ? "" : messages[0];
    const size_t from = text.find(R"("sys_active":)");
    return text.substr(from, text.find(',', from) - from);
  }
};

TEST_F(SysActiveTest, IsStoredInRecordAndStoreAndNotAnswered) {
  set("sys_active", R"({"sys_active":300})");
  EXPECT_EQ(g_qel_dev.sys_active, 300);
  EXPECT_THAT(fake::nvram_writes(), ElementsAre("qel_sys_active=300"));
  EXPECT_THAT(fake::sent(), IsEmpty());
}

TEST_F(SysActiveTest, ThreeIsReportedAs3Then210AndStays0) {
  set("sys_active", R"({"sys_active":3})");
  EXPECT_EQ(reported(), R"("sys_active":3)");
  for (const char* expected :
       {R"("sys_active":2)", R"("sys_active":1)", R"("sys_active":0)", R"("sys_active":0)"}) {
    fake::tick();
    EXPECT_EQ(reported(), expected);
  }
}

TEST_F(SysActiveTest, EveryStepIsInTheStoreBeforeTheTickEnds) {
  set("sys_active", R"({"sys_active":3})");
  EXPECT_EQ(fake::nvram("qel_sys_active"), "3");
  for (const char* expected : {"2", "1", "0", "0"}) {
    fake::tick();
    EXPECT_EQ(fake::nvram("qel_sys_active"), expected);
  }
  EXPECT_THAT(fake::nvram_writes(), ElementsAre("qel_sys_active=3", "qel_sys_active=2",
                                                "qel_sys_active=1", "qel_sys_active=0"));
}

TEST_F(SysActiveTest, NegativeValueNeverReachesZero) {
  set("sys_active", R"({"sys_active":-1})");
  fake::tick(3);
  EXPECT_EQ(g_qel_dev.sys_active, -4);
  EXPECT_THAT(fake::nvram_writes(), ElementsAre("qel_sys_active=-1", "qel_sys_active=-2",
                                                "qel_sys_active=-3", "qel_sys_active=-4"));
}

TEST_F(SysActiveTest, NewValueTakesTheOldOnesPlace) {
  set("sys_active", R"({"sys_active":100})");
  fake::tick();
  set("sys_active", R"({"sys_active":5})");
  fake::tick();
  EXPECT_EQ(g_qel_dev.sys_active, 4);
  set("sys_active", R"({"sys_active":0})");
  fake::tick(2);
  EXPECT_EQ(fake::nvram("qel_sys_active"), "0");
  EXPECT_THAT(fake::nvram_writes(),
              ElementsAre("qel_sys_active=100", "qel_sys_active=99", "qel_sys_active=5",
                          "qel_sys_active=4", "qel_sys_active=0"));
}

TEST_F(SysActiveTest, WithoutDataNothingIsStored) {
  g_qel_dev.sys_active = 7;
  EXPECT_EQ(call(qel_sys_active, R"({"cmd":"set"})"), -1);
  EXPECT_EQ(g_qel_dev.sys_active, 7);
  EXPECT_THAT(fake::nvram_writes(), IsEmpty());
  EXPECT_EQ(call(qel_sys_active, R"({"data":{"sys_active":8}})"), 0);
}

struct ActiveCase {
  const char* name;
  const char* data;
  const char* stored;
};

class SysActiveValueTest : public SysActiveTest, public testing::WithParamInterface<ActiveCase> {};

TEST_P(SysActiveValueTest, IsReadAsAnInteger) {
  g_qel_dev.sys_active = 7;
  set("sys_active", GetParam().data);
  EXPECT_THAT(fake::nvram_writes(),
              ElementsAre("qel_sys_active=" + std::string(GetParam().stored)));
  fake::tick();  // also at the ends of the type
}

INSTANTIATE_TEST_SUITE_P(
    Values, SysActiveValueTest,
    testing::Values(ActiveCase{"Missing", "{}", "0"}, ActiveCase{"DataIsNull", "null", "0"},
                    ActiveCase{"DataIsAnArray", "[3]", "0"},
                    ActiveCase{"Text", R"({"sys_active":"3"})", "0"},
                    ActiveCase{"Object", R"({"sys_active":{}})", "0"},
                    ActiveCase{"Fraction", R"({"sys_active":3.9})", "3"},
                    ActiveCase{"LargestInteger", R"({"sys_active":2147483647})", "2147483647"},
                    ActiveCase{"BeyondAnInteger", R"({"sys_active":1e300})", "2147483647"},
                    ActiveCase{"LowestInteger", R"({"sys_active":-2147483648})", "-2147483648"},
                    ActiveCase{"BelowAnInteger", R"({"sys_active":-1e300})", "-2147483648"}),
    [](const auto& case_info) { return case_info.param.name; });

TEST_F(SysActiveTest, StoreThatCannotBeWrittenDoesNotStopTheCountdown) {
  set("sys_active", R"({"sys_active":5})");
  fake::fail_nvram_writes(true);
  fake::tick(2);
  EXPECT_EQ(g_qel_dev.sys_active, 3);
  EXPECT_EQ(fake::nvram("qel_sys_active"), "5");
  fake::fail_nvram_writes(false);
  fake::tick();
  EXPECT_EQ(fake::nvram("qel_sys_active"), "2");
}

TEST_F(SysActiveTest, StoredValueIsNotReadBackAtStart) {
  fake::set_nvram("qel_sys_active", "50");
  qel_dev_init();
  EXPECT_EQ(g_qel_dev.sys_active, 0);
  EXPECT_EQ(reported(), R"("sys_active":0)");
  fake::tick(2);
  EXPECT_EQ(fake::nvram("qel_sys_active"), "50");
}

// ---------------------------------------------------------------------------------------------
// name

using NameTest = SystemCommandTest;

TEST_F(NameTest, GoesToTheModuleAndIsNotAnswered) {
  set("name", R"({"name":"core switch 3"})");
  EXPECT_THAT(
      fake::query_texts(),
      ElementsAre(
          R"({"mdl":"mono","cmd":"product_description_set","config":{"descr":"core switch 3"}})"));
  EXPECT_TRUE(fake::queries()[0].waited);
  EXPECT_THAT(fake::sent(), IsEmpty());
}

TEST_F(NameTest, EmptyNameIsAName) {
  set("name", R"({"name":""})");
  EXPECT_THAT(
      fake::query_texts(),
      ElementsAre(R"({"mdl":"mono","cmd":"product_description_set","config":{"descr":""}})"));
}

TEST_F(NameTest, WhatTheModuleKeepsIsInTheNextProbeAnswer) {
  fake::on_query([](const fake::Query& query) {
    if (query.command == "product_description_set") {
      fake::set_nvram("product_description", "attic");
    }
  });
  set("name", R"({"name":"attic"})");
  receive(R"({"mac":"gw","cmd":"probe","subcmd":"probe","data":{"ntick":1}})");
  ASSERT_THAT(sent_messages(), SizeIs(1));
  EXPECT_THAT(sent_messages()[0], HasSubstr(R"("name":"attic")"));
}

TEST_F(NameTest, WithoutDataOrNameNothingHappens) {
  EXPECT_EQ(call(qel_cmd_handle_name, R"({"cmd":"set"})"), 0);
  for (const char* data :
       {"{}", R"({"name":5})", R"({"name":null})", R"({"name":{"name":"x"}})", "[]", "\"x\""}) {
    EXPECT_EQ(call(qel_cmd_handle_name, R"({"data":)" + std::string(data) + "}"), 0) << data;
  }
  EXPECT_THAT(fake::queries(), IsEmpty());
  EXPECT_THAT(fake::sent(), IsEmpty());
}

TEST_F(NameTest, ReplyIsNotExamined) {
  for (const char* reply : {R"({"ret":-1})", "garbage", ""}) {
    fake::reply("mono", "product_description_set", reply);
    EXPECT_EQ(call(qel_cmd_handle_name, R"({"data":{"name":"x"}})"), 0);
  }
  EXPECT_THAT(fake::sent(), IsEmpty());
  EXPECT_THAT(fake::console(), IsEmpty());
}

struct NameCase {
  const char* name;
  const char* came;   // inside the quotes of the command
  const char* asked;  // inside the quotes of the query
};

class NameTextTest : public NameTest, public testing::WithParamInterface<NameCase> {};

TEST_P(NameTextTest, GoesIntoTheQueryByteForByte) {
  set("name", R"({"name":")" + std::string(GetParam().came) + R"("})");
  ASSERT_THAT(fake::queries(), SizeIs(1));
  EXPECT_EQ(fake::query_texts()[0],
            R"({"mdl":"mono","cmd":"product_description_set","config":{"descr":")" +
                std::string(GetParam().asked) + R"("}})");
}

INSTANTIATE_TEST_SUITE_P(
    Texts, NameTextTest,
    testing::Values(NameCase{"FirstAndLastPrintable", " ~", " ~"},
                    NameCase{"Slash", R"(a\/b)", "a/b"}, NameCase{"Percent", "%s%n%d", "%s%n%d"},
                    NameCase{"Utf8", "B\xc3\xbcro \xe2\x82\xac", "B\xc3\xbcro \xe2\x82\xac"},
                    NameCase{"EscapedUtf8", R"(\u20ac)", "\xe2\x82\xac"},
                    NameCase{"RawByte", "\xff\xfe", "\xff\xfe"}),
    [](const auto& case_info) { return case_info.param.name; });

struct BadName {
  const char* name;
  const char* came;  // inside the quotes of the command
};

class BadNameTest : public NameTest, public testing::WithParamInterface<BadName> {};

TEST_P(BadNameTest, IsToldAndNotSentOn) {
  EXPECT_EQ(
      call(qel_cmd_handle_name, R"({"data":{"name":")" + std::string(GetParam().came) + R"("}})"),
      0);
  EXPECT_THAT(fake::queries(), IsEmpty());
  EXPECT_THAT(fake::sent(), IsEmpty());
  EXPECT_THAT(fake::console(),
              ElementsAre(MatchesRegex("qel_cmd_handle_name,[0-9]+ unsafe text \r\n")));
}

INSTANTIATE_TEST_SUITE_P(
    Texts, BadNameTest,
    testing::Values(BadName{"Quotes", R"(a\"b)"}, BadName{"Backslash", R"(a\\b)"},
                    BadName{"BackslashAtTheEnd", R"(a\\)"}, BadName{"LineEnd", R"(a\nb)"},
                    BadName{"Tab", R"(\ta)"}, BadName{"FirstControlByte", R"(\u0001)"},
                    BadName{"LastControlByte", R"(\u001f)"}, BadName{"RawControlByte", "a\x1f"},
                    BadName{"Delete", "a\x7f"}, BadName{"EscapedDelete", R"(a\u007f)"},
                    BadName{"QueryOfItsOwn", R"(x\"},\"mdl\":\"sys\",\"cmd\":\"reboot)"}),
    [](const auto& case_info) { return case_info.param.name; });

TEST_F(NameTest, LongestNameOfAFrameGoesThrough) {
  set("name", R"({"name":")" + std::string(1400, 'n') + R"("})");
  ASSERT_THAT(fake::queries(), SizeIs(1));
  EXPECT_THAT(fake::query_texts()[0], HasSubstr(std::string(1400, 'n') + R"("}})"));
}

// The query's buffer holds 8,192 bytes, of which 12 are around the name and one is the NUL.
TEST_F(NameTest, NameThatFillsTheQuerysBufferGoesThroughAndALongerOneIsDropped) {
  EXPECT_EQ(call(qel_cmd_handle_name, R"({"data":{"name":")" + std::string(8179, 'n') + R"("}})"),
            0);
  EXPECT_THAT(fake::queries(), SizeIs(1));
  for (size_t size : {8180U, 20000U, 70000U}) {
    EXPECT_EQ(call(qel_cmd_handle_name, R"({"data":{"name":")" + std::string(size, 'n') + R"("}})"),
              0);
  }
  EXPECT_THAT(fake::queries(), SizeIs(1));
}

TEST_F(NameTest, NameBeyondTheQuerysBufferIsTold) {
  call(qel_cmd_handle_name, R"({"data":{"name":")" + std::string(8179, 'n') + R"("}})");
  EXPECT_THAT(fake::console(), IsEmpty());
  call(qel_cmd_handle_name, R"({"data":{"name":")" + std::string(8180, 'n') + R"("}})");
  EXPECT_THAT(fake::console(), ElementsAre(MatchesRegex("\\[qel_cmd_handle_name,[0-9]+\\] "
                                                        "len\\[8192\\] argc error \n")));
}

// ---------------------------------------------------------------------------------------------
// The typed message form

std::vector<std::string> g_answers;

void keep_answer(const qel_req_context* context, const char* text) {
  g_answers.push_back(std::to_string(context->fd) + ": " + text);
}

class TypedHandlerTest : public SystemCommandTest {
 protected:
  TypedHandlerTest() {
    g_answers.clear();
    g_qel_req = {};
    qel_req_list_init();
    fake::clear_records();
  }

  static uint64_t ask(uint64_t id) {
    g_qel_dev.reqid = id;
    qel_req_context who = {};
    who.fd = 31;
    return qel_req_add(&who, keep_answer)->reqid;
  }

  // What the answer printed; its result goes to `result`.
  std::string answer(const char* text, int* result) {
    return stdout_of([&] { *result = call(qel_cmd_handle_reqid, text); });
  }
};

TEST_F(TypedHandlerTest, PingIsAnsweredWithTheTimeAndTheRequestsIdAndAck) {
  g_qel_dev.pktid = 8;
  EXPECT_EQ(call(qel_cmd_handle_pingresp, R"({"type":"ping","reqid":3,"ack":{"time":9}})"), 0);
  ASSERT_THAT(fake::sent(), SizeIs(1));
  EXPECT_THAT(
      fake::sent()[0].bytes,
      BytesAre(
          bytes("{\"type\":\"pingresp\",\"devid\":\"SW_0A1B2C3D4E5F\",\"pktid\":\"8\",\"reqid\":3,"
                "\"data\":{\"time\":1700000000},\"ack\":{\n\t\"time\":\t9\n}}\0")));
  EXPECT_EQ(g_qel_dev.pktid, 9);
}

TEST_F(TypedHandlerTest, PingWithoutIdAndAckIsAnsweredToo) {
  EXPECT_EQ(call(qel_cmd_handle_pingresp, "{}"), 0);
  ASSERT_THAT(fake::sent(), SizeIs(1));
  EXPECT_THAT(fake::sent()[0].bytes,
              BytesAre(bytes("{\"type\":\"pingresp\",\"devid\":\"SW_0A1B2C3D4E5F\",\"pktid\":\"0\","
                             "\"reqid\":0,\"data\":{\"time\":1700000000}}\0")));
}

TEST_F(TypedHandlerTest, PingWhoseAckIsTooLongIsNotAnswered) {
  call(qel_cmd_handle_pingresp, R"({"ack":")" + std::string(2000, 'x') + R"("})");
  call(qel_cmd_handle_pingresp, R"({"ack":")" + std::string(70000, 'x') + R"("})");
  EXPECT_THAT(fake::sent(), IsEmpty());
}

TEST_F(TypedHandlerTest, AnswerIsHandedWholeToWhoAskedUnderItsId) {
  ask(12);
  int result = -1;
  answer(R"({"type":"x","reqid":12,"data":[1]})", &result);
  EXPECT_EQ(result, 0);
  EXPECT_THAT(g_answers,
              ElementsAre("31: {\n\t\"type\":\t\"x\",\n\t\"reqid\":\t12,\n\t\"data\":\t[1]\n}"));
}

TEST_F(TypedHandlerTest, AnsweredRequestIsRemoved) {
  ask(12);
  int result = -1;
  answer(R"({"reqid":12})", &result);
  EXPECT_EQ(answer(R"({"reqid":12})", &result), "error reqid \r");
  EXPECT_EQ(result, -1);
}

TEST_F(TypedHandlerTest, AnswerToNobodyIsSaid) {
  ask(12);
  for (const char* text : {R"({"reqid":13})", R"({"reqid":0})", R"({"reqid":"12"})", "{}"}) {
    int result = 0;
    EXPECT_EQ(answer(text, &result), "error reqid \r") << text;
    EXPECT_EQ(result, -1) << text;
  }
  EXPECT_THAT(g_answers, IsEmpty());
}

TEST_F(TypedHandlerTest, NegativeIdIsNotTakenForAnIdOf32Bits) {
  ask(4294967295);
  int result = 0;
  EXPECT_EQ(answer(R"({"reqid":-1})", &result), "error reqid \r");
  EXPECT_EQ(result, -1);
}

TEST_F(TypedHandlerTest, NothingIsDoneForTypesWithoutWork) {
  EXPECT_EQ(call(qel_cmd_handle_none, R"({"type":"joinresp","data":{"a":1}})"), 0);
  EXPECT_THAT(fake::sent(), IsEmpty());
  EXPECT_THAT(fake::queries(), IsEmpty());
}

TEST_F(TypedHandlerTest, NoMessageOfTheGatewayReachesThem) {
  ask(12);
  for (const char* name : {"pingresp", "reqid", "joinresp", "port_set", "port_reboot", "update"}) {
    for (const char* cmd : {"get", "set", "ping", "typed"}) {
      receive(R"({"type":")" + std::string(name) + R"(","cmd":")" + cmd + R"(","subcmd":")" + name +
              R"(","devid":"x","reqid":12,"data":{"a":1}})");
    }
  }
  EXPECT_THAT(fake::sent(), IsEmpty());
  EXPECT_THAT(fake::queries(), IsEmpty());
  EXPECT_THAT(g_answers, IsEmpty());
}

}  // namespace
