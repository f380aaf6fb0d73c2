// SPDX-License-Identifier: Apache-2.0
//
// The modules' messages, each answer as literal text, and what the switch is afterwards.
#include <sys/stat.h>

#include "support.h"

namespace morvad {
namespace {

using ModulesTest = SwitchTest;

constexpr char kDone[] = R"({"ret":0})";

std::string refused(const std::string& why) {
  return R"({"ret":-1,"error":")" + why + "\"}";
}

// --- requests ---------------------------------------------------------------------------------

TEST_F(ModulesTest, WhatIsNoRequestIsRefused) {
  const struct {
    std::string request;
    std::string answer;
  } rows[] = {
      {"x", refused("not a JSON object")},
      {"[]", refused("not a JSON object")},
      {R"({"mdl":"mono"})", refused("cmd: missing")},
      {R"({"mdl":1,"cmd":"x"})", refused("mdl: expected a text")},
      {R"({"mdl":"poe","cmd":"x"})", refused("mdl: this is mono")},
      {R"({"mdl":"mono","cmd":"x"})", refused(R"(cmd: mono has no command \"x\")")},
      {R"({"mdl":"mono","cmd":"x","data":1e999})", refused("not a JSON object")},
      {R"({"mdl":"mono","cmd":"\u0000"})", refused(R"(cmd: mono has no command \"?\")")},
      {std::string("{\"mdl\":\"mono\",\"cmd\":\"\xff\"}"), refused("not a JSON object")},
      {std::string(100000, '['), refused("nested too deep")},
      {R"({"mdl":"mono","cmd":")" + std::string(10000, 'x') + "\"}",
       refused(R"(cmd: mono has no command \")" + std::string(40, 'x') + R"(...\")")},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(ask(kMono, row.request), row.answer) << row.request.substr(0, 60);
  }
}

TEST_F(ModulesTest, PlainAndSpacedRequestsAreTheSame) {
  const std::string plain = ask(kPoe, R"({"mdl":"poe","cmd":"poe_qel_alarm_info_get"})");
  EXPECT_EQ(plain, R"({"ret":0,"totalpower":60000,"usepower":6500})");
  EXPECT_EQ(ask(kPoe, R"( { "cmd" : "poe_qel_alarm_info_get" , "mdl" : "poe" } )"), plain);
  EXPECT_EQ(ask(kPoe, R"({"mdl":"poe","cmd":"poe_qel_alarm_info_get","config":{}})"), plain);
}

// --- mono -------------------------------------------------------------------------------------

TEST_F(ModulesTest, PortEnableTakesEveryNumber) {
  EXPECT_EQ(command(kMono, "qel_port_enable_set", R"({"port":"ge1","enable":0})"), kDone);
  EXPECT_FALSE(port("ge1").enabled);
  EXPECT_NE(nvram().find("port.ge1.enable=0\n"), std::string::npos);
  EXPECT_EQ(command(kMono, "qel_port_enable_set", R"({"port":"ge1","enable":-7})"), kDone);
  EXPECT_TRUE(port("ge1").enabled);
  EXPECT_NE(nvram().find("port.ge1.enable=1\n"), std::string::npos);
}

TEST_F(ModulesTest, PortEnableRefusals) {
  const std::string name(10000, 'x');
  const struct {
    std::string data;
    std::string answer;
  } rows[] = {
      {"null", refused(R"(expected an object with \"port\")")},
      {"[]", refused(R"(expected an object with \"port\")")},
      {R"({"enable":1})", refused("port: missing")},
      {R"({"port":7,"enable":1})", refused("port: expected a text")},
      {R"({"port":"ge9","enable":1})", refused(R"(no port is named \"ge9\")")},
      {R"({"port":"vlanif1","enable":1})", refused(R"(no port is named \"vlanif1\")")},
      {R"({"port":"%n\"","enable":1})", refused(R"(no port is named \"%n\"\")")},
      {R"({"port":")" + name + R"(","enable":1})",
       refused(R"(no port is named \")" + name.substr(0, 40) + R"(...\")")},
      {R"({"port":"ge1"})", refused("enable: missing")},
      {R"({"port":"ge1","enable":"1"})",
       refused("enable: expected a whole number from -2147483648 to 2147483647")},
      {R"({"port":"ge1","enable":18446744073709551616})",
       refused("enable: expected a whole number from -2147483648 to 2147483647")},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(command(kMono, "qel_port_enable_set", row.data), row.answer);
  }
  EXPECT_TRUE(port("ge1").enabled);
}

TEST_F(ModulesTest, PortSpeed) {
  EXPECT_EQ(command(kMono, "qel_port_speed_set", R"({"port":"ge1","speed":5})"), kDone);
  EXPECT_EQ(port("ge1").status().speed, 100);
  EXPECT_EQ(port("ge1").status().duplex, 0);
  EXPECT_EQ(command(kMono, "qel_port_speed_set", R"({"port":"ge1","speed":15})"),
            refused("speed: expected a whole number from 0 to 14"));
  EXPECT_EQ(port("ge1").speed_conf, 5);
}

TEST_F(ModulesTest, RowsInTheOrderOfAReport) {
  const std::string rows =
      R"({"ge1":[0,"100M-F",1,1,1,1,0,0],"xe1":{"iso":1,"speed":11,"mstp":1}})";
  EXPECT_EQ(command(kMono, "qel_common_update_mono_portinfo", rows), kDone);
  EXPECT_EQ(command(kLlpp, "qel_common_update_llpp_portinfo", rows), kDone);
  EXPECT_EQ(command(kStp, "qel_common_update_stp_portinfo", rows), kDone);
  EXPECT_EQ(command(kLldp, "qel_common_update_lldp_portinfo", rows), kDone);
  EXPECT_EQ(command(kLldp, "qel_common_update_poe_portinfo", rows), kDone);
  EXPECT_FALSE(port("ge1").enabled);
  EXPECT_EQ(port("ge1").speed_conf, 6);
  EXPECT_EQ(port("xe1").speed_conf, 11);
  EXPECT_TRUE(port("xe1").enabled);
  EXPECT_FALSE(port("ge1").poe_enabled);
  EXPECT_EQ(nvram(),
            "have_poe=1\nproduct_description=office-sw\nlldp.ge1.enable=0\nlldp.ge2.enable=1\n"
            "lldp.xe1.enable=1\npoe.ge1.enable=0\npoe.ge2.enable=1\niso.ge1.enable=1\n"
            "eee.ge1.enable=1\niso.xe1.enable=1\nport.ge1.enable=0\nport.ge1.speed=6\n"
            "port.xe1.speed=11\nllpp.ge1.enable=1\nmstp.ge1.enable=1\nmstp.xe1.enable=1\n");
}

TEST_F(ModulesTest, EachModuleTakesItsOwnMembers) {
  const std::string before = nvram();
  const std::string rows = R"({"ge1":{"iso":1,"eee":1,"llpp":1,"mstp":1,"lldp":0}})";
  EXPECT_EQ(command(kLlpp, "qel_common_update_llpp_portinfo", rows), kDone);
  EXPECT_EQ(nvram(), before + "llpp.ge1.enable=1\n");
}

TEST_F(ModulesTest, ARowMayEndEarlyButNotLate) {
  EXPECT_EQ(command(kMono, "qel_common_update_mono_portinfo", R"({"ge1":[]})"), kDone);
  EXPECT_EQ(command(kMono, "qel_common_update_mono_portinfo", R"({"ge1":[0]})"), kDone);
  EXPECT_FALSE(port("ge1").enabled);
  EXPECT_EQ(command(kMono, "qel_common_update_mono_portinfo", R"({"ge1":[1,0,0,0,0,0,0,0,0]})"),
            refused("ge1: expected an object, or an array of at most 8 values"));
  EXPECT_EQ(command(kMono, "qel_common_update_mono_portinfo", R"({"ge1":1})"),
            refused("ge1: expected an object, or an array of at most 8 values"));
}

TEST_F(ModulesTest, AConfigurationIsTakenWholeOrNotAtAll) {
  const std::string before = nvram();
  EXPECT_EQ(command(kMono, "qel_common_update_mono_portinfo",
                    R"({"ge1":[0,"10M",1,1],"ge2":[0,"1000M",1,1]})"),
            refused(R"(ge2.speed: \"1000M\" is no name of a speed)"));
  EXPECT_EQ(command(kMono, "qel_common_update_mono_portinfo", R"({"ge1":[0],"ge9":[0]})"),
            refused(R"(no port is named \"ge9\")"));
  EXPECT_EQ(command(kMono, "qel_common_update_mono_portinfo", R"({"ge1":[0],"ge2":[2]})"),
            refused("ge2.enable: expected a whole number from 0 to 1"));
  EXPECT_TRUE(port("ge1").enabled);
  EXPECT_EQ(nvram(), before);
}

TEST_F(ModulesTest, AConfigurationThatCannotBeStoredChangesNothing) {
  // A folder in the place of the new file stops every writer, root included.
  ASSERT_EQ(mkdir(at("/var/conf/.nvram.tmp").c_str(), 0755), 0);
  const std::string before = nvram();
  EXPECT_EQ(command(kMono, "qel_common_update_mono_portinfo", R"({"ge1":[0,"10M"]})"),
            refused("settings not stored: Is a directory"));
  EXPECT_TRUE(port("ge1").enabled);
  EXPECT_EQ(command(kMono, "product_description_set", R"({"descr":"x"})"),
            refused("settings not stored: Is a directory"));
  // A single port is moved all the same; the log tells that it will not outlive a restart.
  EXPECT_EQ(command(kMono, "qel_port_enable_set", R"({"port":"ge1","enable":0})"), kDone);
  EXPECT_FALSE(port("ge1").enabled);
  EXPECT_EQ(nvram(), before);
}

TEST_F(ModulesTest, TypedConfigurationNamesItsPorts) {
  EXPECT_EQ(command(kMono, "qel_port_config_set_all",
                    R"([{"name":"ge1","enable":0},{"name":"ge2","speed":"1G-F"}])"),
            kDone);
  EXPECT_FALSE(port("ge1").enabled);
  EXPECT_EQ(port("ge2").speed_conf, 8);
  EXPECT_EQ(ask(kMono, R"({"mdl":"mono","cmd":"qel_port_config_get_all"})"),
            R"({"ret":0,"data":[{"enable":0,"name":"ge1","speed":0},)"
            R"({"enable":1,"name":"ge2","speed":8},{"enable":1,"name":"xe1","speed":0}]})");
}

TEST_F(ModulesTest, RestartTakesPortsDownForTheirDelay) {
  sw->set_enabled(port("ge2"), false);
  changes.clear();
  EXPECT_EQ(command(kMono, "qel_port_reboot_set_all", R"({"ge1":5,"ge2":5})"), kDone);
  EXPECT_EQ(changes, (std::vector<std::string>{"ge1 status 0 0 0 0 0"}));
  host.advance_ms(4999);
  EXPECT_FALSE(port("ge1").enabled);
  host.advance_ms(1);
  EXPECT_TRUE(port("ge1").enabled);
  EXPECT_FALSE(port("ge2").enabled);
  EXPECT_EQ(nvram().find("port.ge1.enable"), std::string::npos);
}

TEST_F(ModulesTest, APortDisabledDuringItsRestartStaysSo) {
  EXPECT_EQ(command(kMono, "qel_port_reboot_set_all", R"(["ge1"])"), kDone);
  EXPECT_EQ(command(kMono, "qel_port_enable_set", R"({"port":"ge1","enable":0})"), kDone);
  host.advance_ms(5000);
  EXPECT_FALSE(port("ge1").enabled);
}

TEST_F(ModulesTest, ProductDescription) {
  const std::string longest(63, 'n');
  for (const std::string& name : {std::string("lab"), longest, std::string("")}) {
    EXPECT_EQ(ask(kMono, R"({"mdl":"mono","cmd":"product_description_set","config":{"descr":")" +
                             name + "\"}}"),
              kDone);
    EXPECT_EQ(settings->text("product_description"), name);
  }
  EXPECT_EQ(command(kMono, "product_description_set", R"({"descr":"a'b/c=%n\u00e4"})"), kDone);
  EXPECT_EQ(settings->text("product_description"), "a'b/c=%n\xc3\xa4");
  const std::string why = refused(
      "descr: expected at most 63 bytes without control characters, quotes and backslashes");
  EXPECT_EQ(command(kMono, "product_description_set", R"({"descr":")" + longest + "x\"}"), why);
  EXPECT_EQ(command(kMono, "product_description_set", R"({"descr":"a\nb"})"), why);
  EXPECT_EQ(command(kMono, "product_description_set", R"({"descr":"a\u0000b"})"), why);
  EXPECT_EQ(command(kMono, "product_description_set", R"({"descr":"a\u007fb"})"), why);
  EXPECT_EQ(command(kMono, "product_description_set", R"({"descr":"a\"b"})"), why);
  EXPECT_EQ(command(kMono, "product_description_set", R"({"descr":"a\\"})"), why);
  EXPECT_EQ(settings->text("product_description"), "a'b/c=%n\xc3\xa4");
}

// --- poe --------------------------------------------------------------------------------------

TEST_F(ModulesTest, PoeConfiguration) {
  EXPECT_EQ(command(kPoe, "poe_qel_port_config_set",
                    R"([{"name":"ge1","enable":0},{"name":"ge2","supply_priority":2}])"),
            kDone);
  EXPECT_EQ(ask(kPoe, R"({"mdl":"poe","cmd":"poe_qel_port_config_get_all"})"),
            R"({"ret":0,"data":[{"enable":0,"name":"ge1","supply_priority":0},)"
            R"({"enable":1,"name":"ge2","supply_priority":2}]})");
  EXPECT_EQ(command(kPoe, "poe_qel_port_config_set", R"({"xe1":1})"),
            refused("xe1: feeds no power"));
  restart_switch();
  EXPECT_FALSE(port("ge1").poe_enabled);
  EXPECT_EQ(port("ge2").poe_priority, 2);
}

TEST_F(ModulesTest, PoeChangesAreToldToTheAgent) {
  EXPECT_EQ(command(kControl, "poe_set", R"({"port":"ge2","power":15000,"priority":3})"),
            R"({"ret":0,"data":{"power":15000}})");
  const std::vector<std::string> expected = {
      R"({"data":[{"name":"ge1","poe_priority":0,"power":6500,"power_max":30000},)"
      R"({"name":"ge2","poe_priority":3,"power":15000,"power_max":15400}],)"
      R"("pwroccu":35,"type":"poe_update"})"};
  EXPECT_EQ(host.events, expected);
}

TEST_F(ModulesTest, AnAgentThatStartsIsToldThePoeFiguresOnceItListens) {
  host.agent_listens = false;
  EXPECT_EQ(ask(kHal, R"({"mdl":"hal","cmd":"init"})"), kDone);
  EXPECT_EQ(ask(kHal, R"({"mdl":"hal","cmd":"init"})"), kDone);
  EXPECT_EQ(host.timers.size(), 1U);  // however often somebody says that he starts
  host.advance_ms(2500);
  host.agent_listens = true;
  host.advance_ms(499);
  EXPECT_TRUE(host.events.empty());
  host.advance_ms(1);
  const std::vector<std::string> expected = {
      R"({"data":[{"name":"ge1","poe_priority":0,"power":6500,"power_max":30000},)"
      R"({"name":"ge2","poe_priority":0,"power":0,"power_max":15400}],)"
      R"("pwroccu":10,"type":"poe_update"})"};
  EXPECT_EQ(host.events, expected);
  host.advance_ms(60000);
  EXPECT_EQ(host.events.size(), 1U);
  EXPECT_EQ(ask(kHal, R"({"mdl":"hal","cmd":"init"})"), kDone);  // the agent starts anew
  host.advance_ms(999);                                          // time to begin listening
  EXPECT_EQ(host.events.size(), 1U);
  host.advance_ms(1);
  EXPECT_EQ(host.events.size(), 2U);
}

TEST_F(ModulesTest, AnAgentThatStartsJustBeforeATellingHasItsTimeToo) {
  const std::string init = R"({"mdl":"hal","cmd":"init"})";
  EXPECT_EQ(ask(kHal, init), kDone);
  host.advance_ms(990);
  EXPECT_EQ(ask(kHal, init), kDone);
  host.advance_ms(999);
  EXPECT_TRUE(host.events.empty());
  host.advance_ms(1000);
  EXPECT_EQ(host.events.size(), 1U);
}

TEST_F(ModulesTest, PoeFiguresThatTheAgentCouldNotTakeAreToldAsTheyAreLater) {
  host.agent_listens = false;
  command(kControl, "poe_set", R"({"port":"ge2","power":15000,"priority":3})");
  command(kControl, "poe_set", R"({"port":"ge2","power":9100})");
  host.agent_listens = true;
  host.advance_ms(60000);
  ASSERT_EQ(host.events.size(), 1U);
  EXPECT_EQ(json::parse(host.events[0])["data"][1],
            json::parse(R"({"name":"ge2","poe_priority":3,"power":9100,"power_max":15400})"));
}

TEST_F(ModulesTest, ABoardWithoutPowerHasNoPoeFiguresToTell) {
  nlohmann::json board = nlohmann::json::parse(kSmallBoard);
  for (nlohmann::json& row : board["ports"]) {
    for (const char* key : {"poe", "poe_limit", "poe_power"}) {
      row.erase(key);
    }
  }
  restart_switch(board.dump());
  EXPECT_EQ(ask(kHal, R"({"mdl":"hal","cmd":"init"})"), kDone);
  EXPECT_TRUE(host.timers.empty());
}

TEST_F(ModulesTest, PoeRestartCutsThePowerForItsDelay) {
  EXPECT_EQ(command(kPoe, "poe_qel_port_reboot", R"([{"name":"ge1","delay":2}])"), kDone);
  EXPECT_EQ(sw->poe_used(), 0);
  host.advance_ms(2000);
  EXPECT_EQ(sw->poe_used(), 6500);
  EXPECT_EQ(host.events.size(), 2U);
}

TEST_F(ModulesTest, PoeBudget) {
  EXPECT_EQ(command(kControl, "poe_budget_set", R"({"total":1000,"used":950})"), kDone);
  EXPECT_EQ(ask(kPoe, R"({"mdl":"poe","cmd":"poe_qel_alarm_info_get"})"),
            R"({"ret":0,"totalpower":1000,"usepower":950})");
  EXPECT_EQ(command(kControl, "poe_budget_set", R"({"total":0})"), kDone);
  EXPECT_EQ(ask(kPoe, R"({"mdl":"poe","cmd":"poe_qel_alarm_info_get"})"),
            R"({"ret":0,"totalpower":0,"usepower":6500})");
}

// --- statistics -------------------------------------------------------------------------------

TEST_F(ModulesTest, Statistics) {
  EXPECT_EQ(command(kControl, "counters_set",
                    R"({"port":"ge1","tx_bytes":18446744073709551615,"rx_bytes":2,"tx_rate":3,)"
                    R"("rx_rate":4,"fcs_errors":5,"pause_frames":6})"),
            kDone);
  host.advance_ms(1000);
  EXPECT_EQ(ask(kStatistics, R"({"mdl":"statistics","cmd":"port_statistic_qel_get_all"})"),
            R"({"ret":0,"data":[{"name":"ge1","tx_sum":18446744073709551615,"rx_sum":2,)"
            R"("tx_rate":3,"rx_rate":4},{"name":"ge2","tx_sum":3,"rx_sum":7,"tx_rate":3,)"
            R"("rx_rate":7},{"name":"xe1","tx_sum":0,"rx_sum":0,"tx_rate":0,"rx_rate":0}]})");
  EXPECT_EQ(ask(kStatistics, R"({"mdl":"statistics","cmd":"port_basic_statistic_get_all"})"),
            R"({"ret":0,"data":[{"name":"ge1","tx_bytes":18446744073709551615,"rx_bytes":2},)"
            R"({"name":"ge2","tx_bytes":3,"rx_bytes":7},)"
            R"({"name":"xe1","tx_bytes":0,"rx_bytes":0}]})");
  EXPECT_EQ(
      ask(kStatistics, R"({"mdl":"statistics","cmd":"port_statistic_qel_dot3_get_all"})"),
      R"({"ret":0,"data":[{"name":"ge1","dot3_FCSErrors":5,"dot3_InPauseFrames":6,"rx_bytes":2,)"
      R"("tx_bytes":18446744073709551615},{"name":"ge2","dot3_FCSErrors":0,)"
      R"("dot3_InPauseFrames":0,"rx_bytes":7,"tx_bytes":3},{"name":"xe1","dot3_FCSErrors":0,)"
      R"("dot3_InPauseFrames":0,"rx_bytes":0,"tx_bytes":0}]})");
}

TEST_F(ModulesTest, CountersThatRunKeepTheirRate) {
  EXPECT_EQ(command(kControl, "counters_set", R"({"port":"ge1","tx_bytes":100,"run":true})"),
            kDone);
  host.advance_ms(2000);
  EXPECT_EQ(port("ge1").counters(host.now).tx_bytes, 2100U);
  EXPECT_EQ(command(kControl, "counters_set", R"({"port":"ge1","tx_bytes":-1})"),
            refused("tx_bytes: expected a whole number that is not negative"));
}

// --- spanning tree and loop protection -----------------------------------------------------------

TEST_F(ModulesTest, BlockedPorts) {
  const std::string mstp = R"({"mdl":"mstp","cmd":"mstp_qel_alarm_info_get"})";
  const std::string llpp = R"({"mdl":"llpp","cmd":"qel_llpp_port_config_get_all"})";
  EXPECT_EQ(ask(kMstp, mstp), R"({"ret":0,"ports":""})");
  EXPECT_EQ(command(kControl, "blocked_set", R"({"by":"stp","ports":["xe1","ge1"]})"), kDone);
  EXPECT_EQ(command(kControl, "blocked_set", R"({"by":"loop","ports":["ge2"]})"), kDone);
  EXPECT_EQ(ask(kMstp, mstp), R"({"ret":0,"ports":"ge1 xe1"})");
  EXPECT_EQ(ask(kLlpp, llpp), R"({"ret":0,"ports":"ge2"})");
  EXPECT_EQ(command(kControl, "blocked_set", R"({"by":"stp","ports":["ge9"]})"),
            refused(R"(no port is named \"ge9\")"));
  EXPECT_EQ(ask(kMstp, mstp), R"({"ret":0,"ports":"ge1 xe1"})");
  EXPECT_EQ(command(kControl, "blocked_set", R"({"by":"stp","ports":[]})"), kDone);
  EXPECT_EQ(ask(kMstp, mstp), R"({"ret":0,"ports":""})");
}

// --- zebra ------------------------------------------------------------------------------------

std::string l3if(const std::string& address) {
  return R"({"mdl":"zebra","cmd":"manage_L3IF_info_set","config":[{"manage_L3IF":"vlanif1",)"
         R"("old_ip_address": "192.168.1.10/24", "ip_address":")" +
         address + R"(", "method":0, "gateway":""}]})";
}

TEST_F(ModulesTest, ManagementAddress) {
  EXPECT_EQ(ask(kZebra, l3if("10.1.2.3/16")), kDone);
  EXPECT_EQ(host.address.ip, "10.1.2.3");
  EXPECT_EQ(host.address.prefix, 16);
  EXPECT_EQ(ask(kZebra, R"({"mdl":"zebra","cmd":"manage_L3IF_info_get"})"),
            R"({"ret":0,"data":[{"gateway":"","ip_address":"10.1.2.3/16",)"
            R"("manage_L3IF":"vlanif1","method":"0"}]})");
  EXPECT_NE(nvram().find("vlanif1.ip=10.1.2.3\nvlanif1.mask=16\nvlanif1.method=0\n"),
            std::string::npos);
}

TEST_F(ModulesTest, WhatIsNoAddressIsRefused) {
  for (const char* address :
       {"", "/", "10.1.2.3", "10.1.2.3/", "10.1.2.3/33", "10.1.2.3/-1", "10.1.2.3/-0",
        "10.1.2.3/24x", "10.1.2/24", "256.1.2.3/24", "0.0.0.0/0", "224.0.0.1/24", "127.0.0.1/8",
        "255.255.255.255/32", "::1/64", "10.1.2.3/99999999999", "10.1.2.3;reboot/24"}) {
    EXPECT_EQ(ask(kZebra, l3if(address)),
              refused("ip_address: expected an IPv4 address of a host and a prefix of 0 to 32, "
                      "got \\\"" +
                      std::string(address) + "\\\""));
  }
  EXPECT_EQ(host.address.ip, "192.168.1.10");
  for (const int prefix : {0, 1, 31, 32}) {
    EXPECT_EQ(ask(kZebra, l3if("10.1.2.3/" + std::to_string(prefix))), kDone);
    EXPECT_EQ(host.address.prefix, prefix);
  }
}

TEST_F(ModulesTest, AnAddressThatTheKernelRefusesIsNotKept) {
  host.set_result = -19;
  EXPECT_EQ(ask(kZebra, l3if("10.1.2.3/16")), refused("vlanif1: No such device"));
  EXPECT_EQ(nvram().find("vlanif1"), std::string::npos);
  host.has_address = false;
  EXPECT_EQ(ask(kZebra, R"({"mdl":"zebra","cmd":"manage_L3IF_info_get"})"),
            R"({"ret":0,"data":[]})");
}

TEST_F(ModulesTest, AnAddressThatCannotBeStoredIsTakenBack) {
  ASSERT_EQ(mkdir(at("/var/conf/.nvram.tmp").c_str(), 0755), 0);
  EXPECT_EQ(ask(kZebra, l3if("10.1.2.3/16")), refused("settings not stored: Is a directory"));
  EXPECT_EQ(host.address.ip, "192.168.1.10");
}

// --- what the library asks --------------------------------------------------------------------

TEST_F(ModulesTest, InterfaceTable) {
  sw->set_speed(port("ge2"), 6);
  EXPECT_EQ(
      ask(kIfmgr, R"({"mdl":"ifmgr","cmd":"if_table_get"})"),
      R"({"data":[{"aux_index":-1,"duplex":1,"enable":1,"index":16777217,"limit":0,"link":1,)"
      R"("max_speed":1000,"medium":1,"mirror":0,"name":"ge1","port_no":1,"pos_x":1,"pos_y":1,)"
      R"("speed":1000,"speed_class":2,"speed_conf":0},)"
      R"({"aux_index":-1,"duplex":1,"enable":1,"index":16777218,"limit":0,"link":1,)"
      R"("max_speed":1000,"medium":1,"mirror":0,"name":"ge2","port_no":2,"pos_x":1,"pos_y":2,)"
      R"("speed":100,"speed_class":2,"speed_conf":6},)"
      R"({"aux_index":-1,"duplex":0,"enable":1,"index":16777219,"limit":0,"link":0,)"
      R"("max_speed":10000,"medium":2,"mirror":0,"name":"xe1","port_no":3,"pos_x":2,"pos_y":1,)"
      R"("speed":0,"speed_class":3,"speed_conf":0},)"
      R"({"aux_index":-1,"duplex":0,"enable":1,"index":1,"limit":0,"link":1,)"
      R"("max_speed":0,"medium":0,"mirror":0,"name":"vlanif1","port_no":0,"pos_x":0,"pos_y":0,)"
      R"("speed":0,"speed_class":0,"speed_conf":0}],"port_max":3,"ret":0})");
}

TEST_F(ModulesTest, HardwareLayer) {
  EXPECT_EQ(ask(kHal, R"({"mdl":"hal","cmd":"init"})", 77), kDone);
  EXPECT_EQ(host.attached, (std::vector<pid_t>{77}));
  EXPECT_EQ(command(kHal, "qel_enable", R"({"enable":0})"), kDone);
  EXPECT_FALSE(sw->frames_to_cpu());
  EXPECT_EQ(
      command(kControl, "l2_add", R"({"port":"ge2","mac":"02:00:00:00:0A:ff","vid":7,"aging":9})"),
      kDone);
  EXPECT_EQ(command(kHal, "mac_get", R"({"start":0,"batch":20,"select":3})"),
            R"({"ret":0,"data":[{"port":16777218,"type":2,"aging_time":9,"vid":7,)"
            R"("mac":"02:00:00:00:0a:ff"}]})");
  EXPECT_EQ(command(kHal, "mac_get", R"({"start":1,"batch":20,"select":3})"),
            R"({"ret":0,"data":[]})");
  EXPECT_EQ(command(kHal, "mac_get", R"({"start":0,"batch":20,"select":2})"),
            refused("select: expected a whole number from 3 to 3"));
  EXPECT_EQ(command(kHal, "mac_get", R"({"start":0,"batch":501,"select":3})"),
            refused("batch: expected a whole number from 0 to 500"));
}

TEST_F(ModulesTest, TheLongestAnswersFitAReply) {
  constexpr size_t kReplyMax = 65534;
  nlohmann::json board = nlohmann::json::parse(kSmallBoard);
  const nlohmann::json row = board["ports"][0];
  board["ports"].clear();
  for (int i = 1; i <= kMaxPorts; i++) {
    nlohmann::json next = row;
    next["name"] = "port-with-a-very-long-name-" + std::to_string(1000 + i);
    next["number"] = i;
    next["position"]["x"] = 872 + i;  // to 1000
    board["ports"].push_back(next);
  }
  restart_switch(board.dump());
  for (Port& each : sw->ports()) {
    sw->set_counters(each, {UINT64_MAX, UINT64_MAX, UINT64_MAX, UINT64_MAX, UINT64_MAX, UINT64_MAX},
                     false);
  }
  EXPECT_EQ(command(kControl, "l2_fill", R"({"count":20000})"), kDone);
  EXPECT_LE(ask(kStatistics, R"({"mdl":"statistics","cmd":"port_statistic_qel_get_all"})").size(),
            kReplyMax);
  EXPECT_LE(
      ask(kStatistics, R"({"mdl":"statistics","cmd":"port_statistic_qel_dot3_get_all"})").size(),
      kReplyMax);
  EXPECT_LE(ask(kIfmgr, R"({"mdl":"ifmgr","cmd":"if_table_get"})").size(), kReplyMax);
  EXPECT_LE(command(kHal, "mac_get", R"({"start":0,"batch":500,"select":3})").size(), kReplyMax);
}

TEST_F(ModulesTest, SystemIdentity) {
  EXPECT_EQ(ask(kSys, R"({"mdl":"sys","cmd":"mac_get"})"),
            R"({"ret":0,"data":{"mac":"0a:1b:2c:3d:4e:5f"}})");
  EXPECT_EQ(ask(kSys, R"({"mdl":"sys","cmd":"oem_get"})"),
            R"({"ret":0,"data":{"words":[1,0,0,4294967295,0,0,0,8]}})");
  EXPECT_EQ(ask(kSys, R"({"mdl":"sys","cmd":"info_get"})"),
            R"({"ret":0,"data":{"name":"office-sw"}})");
  constexpr char kWhyNoName[] =
      "name: expected at most 63 bytes without control characters, quotes and backslashes";
  EXPECT_EQ(command(kSys, "info_set", R"({"name":"other"})"), kDone);
  EXPECT_EQ(ask(kSys, R"({"mdl":"sys","cmd":"info_get"})"), R"({"ret":0,"data":{"name":"other"}})");
  EXPECT_EQ(command(kSys, "info_set", R"({"name":")" + std::string(64, 'x') + "\"}"),
            refused(kWhyNoName));
  for (const char* name : {"a\\nb", R"(a\"b)", R"(a\\)"}) {
    EXPECT_EQ(command(kSys, "info_set", R"({"name":")" + std::string(name) + "\"}"),
              refused(kWhyNoName));
  }
  EXPECT_EQ(settings->text("sys_name"), "other");
}

TEST_F(ModulesTest, RestartTakesTheAskingProcessAlong) {
  EXPECT_EQ(ask(kSys, R"({"mdl":"sys","cmd":"reboot"})", 4711), kDone);
  EXPECT_EQ(host.attached, (std::vector<pid_t>{4711}));
  EXPECT_EQ(host.restarts, (std::vector<bool>{false}));
  nlohmann::json board = nlohmann::json::parse(kSmallBoard);
  board["allow_host_reboot"] = true;
  restart_switch(board.dump());
  EXPECT_EQ(ask(kSys, R"({"mdl":"sys","cmd":"reboot"})", 4711), kDone);
  EXPECT_EQ(command(kControl, "restart", "null"), kDone);
  EXPECT_EQ(host.restarts, (std::vector<bool>{false, true, false}));
}

TEST_F(ModulesTest, FactorySettings) {
  const std::string factory = nvram();
  EXPECT_EQ(command(kMono, "qel_port_enable_set", R"({"port":"ge1","enable":0})"), kDone);
  EXPECT_EQ(ask(kZebra, l3if("10.1.2.3/16")), kDone);
  write_file(at("/var/conf/qel.conf"), "qel disable\n");
  EXPECT_EQ(ask(kSys, R"({"mdl":"sys","cmd":"restore_default"})"), kDone);
  EXPECT_EQ(nvram(), factory);
  EXPECT_EQ(read_file(at("/var/conf/qel.conf")), "");
  EXPECT_FALSE(port("ge1").enabled);  // counts from the next start on
  restart_switch();
  EXPECT_TRUE(port("ge1").enabled);
}

TEST_F(ModulesTest, FirmwareUpgrade) {
  const std::string state = R"({"mdl":"sys","cmd":"fw_state_get"})";
  const std::string upgrading = R"({"mdl":"sys","cmd":"fw_upgrading"})";
  EXPECT_EQ(ask(kSys, R"({"mdl":"sys","cmd":"fw_begin"})"), kDone);
  EXPECT_EQ(ask(kSys, state), R"({"ret":0,"data":{"detail":0,"state":1}})");
  EXPECT_EQ(ask(kSys, upgrading), R"({"ret":0,"data":{"upgrading":0}})");
  EXPECT_EQ(command(kSys, "fw_upgrade", R"({"path":"/tmp/linux.trx"})"), kDone);
  EXPECT_EQ(host.programs,
            (std::vector<std::string>{at("/morva/bin/morva_upgrade") + " /tmp/linux.trx"}));
  EXPECT_EQ(ask(kSys, upgrading), R"({"ret":0,"data":{"upgrading":1}})");
  EXPECT_EQ(ask(kSys, R"({"mdl":"sys","cmd":"fw_begin"})"), refused("an upgrade is under way"));
  EXPECT_EQ(command(kSys, "fw_upgrade", R"({"path":"/tmp/linux.trx"})"),
            refused("an upgrade is under way"));
  host.program_done(0);
  EXPECT_EQ(ask(kSys, state), R"({"ret":0,"data":{"detail":0,"state":0}})");
}

TEST_F(ModulesTest, FirmwareFailures) {
  const std::string state = R"({"mdl":"sys","cmd":"fw_state_get"})";
  EXPECT_EQ(command(kSys, "fw_fail", R"({"code":-2})"), kDone);
  EXPECT_EQ(ask(kSys, state), R"({"ret":0,"data":{"detail":0,"state":-2}})");
  EXPECT_EQ(command(kSys, "fw_fail", R"({"code":0})"),
            refused("code: expected a whole number from -2147483648 to -1"));
  EXPECT_EQ(command(kSys, "fw_upgrade", R"({"path":"linux.trx"})"),
            refused("path: expected an absolute path"));
  EXPECT_EQ(command(kSys, "fw_upgrade", R"({"path":"/tmp/linux.trx"})"), kDone);
  host.program_done(1);
  EXPECT_EQ(ask(kSys, state), R"({"ret":0,"data":{"detail":1,"state":-1}})");
  host.can_run = false;
  EXPECT_EQ(command(kSys, "fw_upgrade", R"({"path":"/tmp/linux.trx"})"),
            refused("the upgrade program cannot be started"));
  EXPECT_EQ(command(kSys, "fw_state_set", R"({"state":-5,"detail":7})"), kDone);
  EXPECT_EQ(ask(kSys, state), R"({"ret":0,"data":{"detail":7,"state":-5}})");
  EXPECT_EQ(command(kSys, "fw_state_set", R"({"state":4})"),
            refused("state: expected a whole number from -2147483648 to 3"));
}

// --- control ----------------------------------------------------------------------------------

TEST_F(ModulesTest, ControlMovesCablesAndRoles) {
  EXPECT_EQ(command(kControl, "link_set", R"({"port":"ge1","up":false})"),
            R"({"ret":0,"data":{"enable":1,"link":0}})");
  EXPECT_EQ(command(kControl, "speed_set", R"({"port":"ge2","speed":10,"full":true})"),
            R"({"ret":0,"data":{"duplex":1,"speed":10}})");
  EXPECT_EQ(command(kControl, "speed_set", R"({"port":"ge2","speed":2500})"),
            refused("ge2 can do at most 1000 Mbit/s"));
  for (const char* speed : {"77", "0", "-10", "99999999999"}) {
    EXPECT_EQ(
        command(kControl, "speed_set", R"({"port":"ge2","speed":)" + std::string(speed) + "}"),
        refused("speed: expected one of 10, 100, 1000, 2500, 5000, 10000, 25000, 40000, "
                "100000 (Mbit/s)"));
  }
  EXPECT_EQ(command(kControl, "trunk_set", R"({"port":"ge2","trunk":2})"), kDone);
  EXPECT_EQ(command(kControl, "mirror_set", R"({"port":"ge2","mirror":true})"), kDone);
  const std::vector<std::string> expected = {"ge1 status 0 0 0 1 0", "ge2 status 1 10 1 1 0",
                                             "ge2 trunk 2", "ge2 mirror 1"};
  EXPECT_EQ(changes, expected);
}

TEST_F(ModulesTest, ControlRefusesWrongAddresses) {
  EXPECT_EQ(command(kControl, "l2_add", R"({"port":"ge1","mac":"020000000001"})"),
            refused(R"(mac: expected an address as \"0a:1b:2c:3d:4e:5f\")"));
  EXPECT_EQ(command(kControl, "l2_add", R"({"port":"ge1","mac":"02:00:00:00:00:01","vid":4095})"),
            refused("vid: expected a whole number from 1 to 4094"));
  EXPECT_EQ(command(kControl, "l2_del", R"({"mac":"02:00:00:00:00:01"})"),
            refused("no such address in VLAN 1"));
  EXPECT_EQ(command(kControl, "l2_fill", R"({"count":32769})"),
            refused("count: expected a whole number from 0 to 32768"));
}

TEST_F(ModulesTest, ControlShowsTheWholeSwitch) {
  const nlohmann::json state =
      nlohmann::json::parse(ask(kControl, R"({"mdl":"morvad","cmd":"show"})"))["data"];
  EXPECT_EQ(state["address"], "192.168.1.10/24");
  EXPECT_EQ(state["ports"].size(), 3U);
  EXPECT_EQ(state["ports"][0]["poe"]["power"], 6500);
  EXPECT_FALSE(state["ports"][2].contains("poe"));
}

}  // namespace
}  // namespace morvad
