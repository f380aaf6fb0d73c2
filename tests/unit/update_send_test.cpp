// SPDX-License-Identifier: Apache-2.0
//
// The senders of join and update: what goes out in which order, how far apart, for how many ports,
// and that nothing in the agent starts them. A page of four ports is longer than any message may
// be; the sender builds it and the link refuses it, so pages are read from the sender's trace here.
#include <getopt.h>

#include <cerrno>

#include "qel/qel_cmd.h"
#include "qel/qel_main.h"
#include "qel/qel_table.h"
#include "qel/qel_update.h"
#include "tests/unit/support.h"

namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;
using testing::SizeIs;
using testing::StartsWith;

constexpr char kEnvelope[] = R"({"type":"update","devid":"SW_0A1B2C3D4E5F","pktid":")";

class UpdateSendTest : public AgentTest {
 protected:
  UpdateSendTest() { fake::add_interface("vlanif1", 7); }

  // A switch with that many ports, and a link over UDP, where each message is one datagram.
  void start_with(int count) {
    fake::add_ports(count);
    start();
    link_ = udp_link();
  }
  static qel_port* port(int number) {
    return qel_port_of(uif_get_by_name(("ge" + std::to_string(number)).c_str()));
  }

  int join(const char* request = nullptr) {
    const qel_cjson_tree tree(request != nullptr ? cJSON_Parse(request) : nullptr);
    return qel_cmd_send_joinreq(&link_, tree.get());
  }
  int update(const char* request = nullptr) {
    const qel_cjson_tree tree(request != nullptr ? cJSON_Parse(request) : nullptr);
    return qel_cmd_send_update(&link_, tree.get());
  }
  // What the senders print of each message, in order, with the trace on.
  static std::vector<std::string> traced(const std::function<void()>& action) {
    g_qel_dev.debug = 4;
    const std::string text = stdout_of(action);
    g_qel_dev.debug = 0;
    std::vector<std::string> lines;
    for (size_t at = 0; at < text.size();) {
      const size_t end = text.find(" \r\n", at);
      lines.push_back(text.substr(at, end - at));
      at = end == std::string::npos ? text.size() : end + 3;
    }
    return lines;
  }
  // How often `part` stands in `text`.
  static int times(const std::string& text, const std::string& part) {
    int count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
      ++count;
    }
    return count;
  }

  qel_link link_ = {};
};

using UpdateSendDeathTest = UpdateSendTest;

// ---------------------------------------------------------------------------------------------
// A join

TEST_F(UpdateSendTest, JoinIsOneMessageWithItsClosingNul) {
  start_with(1);
  EXPECT_EQ(join(), 0);
  ASSERT_THAT(fake::sent(), SizeIs(1));
  EXPECT_THAT(
      fake::sent()[0].bytes,
      BytesAre(bytes(
          R"({"type":"joinreq","devid":"SW_0A1B2C3D4E5F","pktid":"0","reqid":0,"data":)"
          R"({"devtype":"switch","config":[{"key":"mac","value":"0a:1b:2c:3d:4e:5f"},)"
          R"({"key":"ip","value":"192.168.1.10"},{"key":"sn","value":""},)"
          R"({"key":"hw_ver","value":""},{"key":"model","value":""},{"key":"version","value":""},)"
          R"({"key":"port_count","value":"1"},{"key":"device_name","value":""},)"
          R"({"key":"uptime","value":"3600"},{"key":"cpuoccu","value":"30"},)"
          R"({"key":"memoccu","value":"75"},{"key":"poeoccu","value":"0"},)"
          R"({"key":"onlineports","value":"0"},{"key":"uplinkdatas","value":"0"},)"
          R"({"key":"sysname","value":""},{"key":"have_poe","value":"1"},)"
          R"({"key":"check_model","value":"QM4410_MODEL_V1"}],"status":[{"mac":"0a1b2c3d4e5f",)"
          R"("cmd":"update","subcmd":"ports_info","data":{"ge1":[0,1,"G",1]}}]}})"
          "\0")));
}

TEST_F(UpdateSendTest, JoinOverEthernetGoesInAFrame) {
  start_with(1);
  link_ = eth_link();
  join();
  ASSERT_THAT(fake::sent(), SizeIs(1));
  // 756 bytes with the NUL, and 16 of the header.
  EXPECT_EQ(fake::sent()[0].bytes.substr(0, 32), reply_header(772));
  EXPECT_EQ(fake::sent()[0].bytes.size(), 32U + 756U);
}

TEST_F(UpdateSendTest, JoinAnswersItsRequest) {
  start_with(1);
  join(R"({"reqid":77,"ack":5})");
  ASSERT_THAT(fake::sent(), SizeIs(1));
  EXPECT_THAT(fake::sent()[0].bytes, HasSubstr(R"("pktid":"0","reqid":77,"data":{)"));
  EXPECT_THAT(fake::sent()[0].bytes, EndsWith(bytes("}]},\"ack\":5}\0")));
}

TEST_F(UpdateSendTest, JoinOnceIsAJoin) {
  start_with(1);
  EXPECT_EQ(qel_cmd_send_joinreq_once(&link_, nullptr), 0);
  ASSERT_THAT(fake::sent(), SizeIs(1));
  EXPECT_THAT(fake::sent()[0].bytes, StartsWith(R"({"type":"joinreq",)"));
  EXPECT_EQ(qel_cmd_send_joinreq_once(&link_, nullptr), 0);
  EXPECT_THAT(fake::sent(), SizeIs(1)) << "too soon";
}

TEST_F(UpdateSendTest, JoinIsTracedWithItsLength) {
  start_with(1);
  const auto lines = traced([this] { join(); });
  ASSERT_THAT(lines, SizeIs(1));
  EXPECT_THAT(lines[0], StartsWith(R"(n =756 buf={"type":"joinreq","devid":"SW_0A1B2C3D4E5F",)"));
  EXPECT_THAT(lines[0], EndsWith(R"("data":{"ge1":[0,1,"G",1]}}]}})"));
}

TEST_F(UpdateSendTest, MessagesAreTracedBeforeTheyAreSent) {
  start_with(6);
  g_qel_dev.debug = 4;
  std::vector<std::string> before;  // what stood on standard output when each message left
  fake::on_send([&before] {
    before.push_back(testing::internal::GetCapturedStdout());
    testing::internal::CaptureStdout();
  });
  EXPECT_EQ(stdout_of([this] { join(); }), "");
  fake::advance(10);
  EXPECT_EQ(stdout_of([this] { update(); }), "");
  // The link refuses the first page, of four ports: its trace stands before the second one's.
  ASSERT_THAT(before, SizeIs(3));
  EXPECT_THAT(before[0], StartsWith(R"(n =846 buf={"type":"joinreq",)"));
  EXPECT_THAT(before[1], StartsWith(std::string("n = ")));
  EXPECT_EQ(times(before[1], std::string(" buf=") + kEnvelope), 2);
  EXPECT_THAT(before[2], MatchesRegex(R"(n =[0-9]+ buf=\{"type":"update",.*"config":.*)"
                                      " \r\n"));
}

// ---------------------------------------------------------------------------------------------
// An update cycle

TEST_F(UpdateSendTest, SixPortsAreTwoPagesAndTheConfiguration) {
  start_with(6);
  const auto lines = traced([this] { EXPECT_EQ(update(), 0); });
  ASSERT_THAT(lines, SizeIs(3));
  EXPECT_THAT(lines[0], StartsWith("n = 2049 buf=" + std::string(kEnvelope) +
                                   R"(0","reqid":0,"data":{"devtype":"switch","status":[)"
                                   R"({"key":"port.name.1","value":"ge1"},)"));
  EXPECT_EQ(times(lines[0], "\"port.name."), 4);
  EXPECT_THAT(lines[1], StartsWith("n = 1077 buf=" + std::string(kEnvelope) +
                                   R"(1","reqid":0,"data":{"devtype":"switch","status":[)"
                                   R"({"key":"port.name.5","value":"ge5"},)"));
  EXPECT_EQ(times(lines[1], "\"port.name."), 2);
  EXPECT_THAT(lines[2], StartsWith("n =657 buf=" + std::string(kEnvelope) +
                                   R"(2","reqid":0,"data":{"devtype":"switch","config":[)"));
}

TEST_F(UpdateSendTest, FortyFivePortsAreTenPagesAndTheLastFiveStayOut) {
  start_with(45);
  const auto lines = traced([this] { update(); });
  ASSERT_THAT(lines, SizeIs(11));
  for (size_t i = 0; i < 10; ++i) {
    EXPECT_EQ(times(lines[i], "\"port.name."), 4) << i;
    EXPECT_THAT(lines[i],
                HasSubstr("{\"key\":\"port.name." + std::to_string(4 * i + 1) + "\",\"value\""));
  }
  EXPECT_THAT(lines[10], HasSubstr(R"("config":[)"));
  EXPECT_EQ(port(40)->reported, 1);
  for (int number = 41; number <= 45; ++number) {
    EXPECT_EQ(port(number)->reported, 0) << number;
  }
}

TEST_F(UpdateSendTest, FortyPortsAreTenPages) {
  start_with(40);
  EXPECT_THAT(traced([this] { update(); }), SizeIs(11));
  EXPECT_EQ(qel_cmd_get_port_update_info(), 1);
}

TEST_F(UpdateSendTest, NextCycleBeginsWithTheFirstPortAgain) {
  start_with(45);
  traced([this] { update(); });
  fake::advance(10);
  const auto lines = traced([this] { update(); });
  ASSERT_THAT(lines, SizeIs(11));
  EXPECT_THAT(lines[0], HasSubstr(R"({"key":"port.name.1","value":"ge1"})"));
}

TEST_F(UpdateSendTest, PageOfFourPortsIsLongerThanAMessageMayBeAndRefused) {
  start_with(6);
  update();
  EXPECT_THAT(fake::console(),
              ElementsAre(MatchesRegex("\\[qel_cmd_send,[0-9]+\\] len\\[2049\\] argc error \n")));
  ASSERT_THAT(fake::sent(), SizeIs(2)) << "the page of two ports, and the configuration";
  EXPECT_EQ(fake::sent()[0].bytes.size(), 1077U);
  EXPECT_THAT(fake::sent()[0].bytes, EndsWith(bytes("\"port.statel.6\",\"value\":\"none\"}]}}\0")));
  EXPECT_EQ(fake::sent()[1].bytes.size(), 657U);
  EXPECT_THAT(fake::sent()[1].bytes, EndsWith(bytes("\"value\":\"QM4410_MODEL_V1\"}]}}\0")));
}

TEST_F(UpdateSendTest, PageOfThreePortsIsSent) {
  start_with(3);
  update();
  EXPECT_THAT(fake::console(), IsEmpty());
  ASSERT_THAT(fake::sent(), SizeIs(2));
  EXPECT_EQ(fake::sent()[0].bytes.size(), 1563U);
}

TEST_F(UpdateSendTest, SwitchWithoutPortsSendsTheConfigurationAlone) {
  start_with(0);
  update();
  ASSERT_THAT(fake::sent(), SizeIs(1));
  EXPECT_THAT(fake::sent()[0].bytes, HasSubstr(R"("pktid":"0","reqid":0,"data":{"devtype":)"
                                               R"("switch","config":[{"key":"mac",)"));
}

TEST_F(UpdateSendTest, OnlyTheConfigurationAnswersTheRequest) {
  start_with(2);
  update(R"({"reqid":9,"ack":{}})");
  ASSERT_THAT(fake::sent(), SizeIs(2));
  EXPECT_THAT(fake::sent()[0].bytes, HasSubstr(R"("reqid":0,"data")"));
  EXPECT_THAT(fake::sent()[0].bytes, Not(HasSubstr("\"ack\"")));
  EXPECT_THAT(fake::sent()[1].bytes, HasSubstr(R"("reqid":9,"data")"));
  EXPECT_THAT(fake::sent()[1].bytes, HasSubstr("\"ack\":{"));
}

TEST_F(UpdateSendTest, ConfigurationTellsThePortsThatThePagesCounted) {
  start_with(45);
  for (int number = 1; number <= 45; ++number) {
    uif_get_by_name(("ge" + std::to_string(number)).c_str())->link = 1;
  }
  port(2)->neighbour_type = 1;
  g_qel_dev.online_ports = 1000;
  const auto lines = traced([this] { update(); });
  EXPECT_THAT(lines.back(), HasSubstr(R"({"key":"onlineports","value":"39"})"))
      << "40 reported, one of them the uplink";
}

TEST_F(UpdateSendTest, TraceComesWithOtherBitsToo) {
  start_with(1);
  g_qel_dev.debug = 36;
  EXPECT_THAT(stdout_of([this] { join(); }), StartsWith(R"(n =756 buf={"type":"joinreq",)"));
  g_qel_dev.debug = 255;
  fake::advance(10);
  EXPECT_THAT(stdout_of([this] { update(); }), StartsWith(R"(n = )"));
}

TEST_F(UpdateSendTest, TraceNeedsItsOwnBit) {
  start_with(1);
  g_qel_dev.debug = 0xFB;
  EXPECT_EQ(stdout_of([this] { join(); }), "");
  fake::advance(10);
  EXPECT_EQ(stdout_of([this] { update(); }), "");
  EXPECT_THAT(fake::sent(), SizeIs(3));
}

// ---------------------------------------------------------------------------------------------
// What is left to report

TEST_F(UpdateSendTest, CycleBeginsWithNoPortReportedAndNoneOnline) {
  start_with(3);
  g_qel_dev.online_ports = 5;
  for (int number = 1; number <= 3; ++number) {
    port(number)->reported = 1;
  }
  EXPECT_EQ(qel_cmd_update_info_init(), 0);
  EXPECT_EQ(g_qel_dev.online_ports, 0U);
  for (int number = 1; number <= 3; ++number) {
    EXPECT_EQ(port(number)->reported, 0) << number;
  }
}

TEST_F(UpdateSendTest, CycleIsCompleteOnceEveryPortIsReported) {
  start_with(3);
  EXPECT_EQ(qel_cmd_get_port_update_info(), 0);
  port(1)->reported = 1;
  port(3)->reported = 1;
  EXPECT_EQ(qel_cmd_get_port_update_info(), 0);
  port(2)->reported = 1;
  EXPECT_EQ(qel_cmd_get_port_update_info(), 1);
}

TEST_F(UpdateSendTest, CycleWithoutPortsIsComplete) {
  start_with(0);
  EXPECT_EQ(qel_cmd_get_port_update_info(), 1);
}

TEST_F(UpdateSendDeathTest, NullNodeIsABrokenInvariant) {
  start_with(0);
  fake::add_null_interface();
  const std::string broken =
      "\\(node\\)->data != \\(\\(void \\*\\)0\\), file qel/qel_cmd, line [0-9]+, function ";
  EXPECT_DEATH(qel_cmd_update_info_init(), broken + "qel_cmd_update_info_init");
  EXPECT_DEATH(qel_cmd_get_port_update_info(), broken + "qel_cmd_get_port_update_info");
}

// ---------------------------------------------------------------------------------------------
// Ten seconds apart

TEST_F(UpdateSendTest, SecondJoinWithinTenSecondsSendsNothing) {
  start_with(1);
  join();
  EXPECT_EQ(g_qel_dev.join_time, 1700000000);
  fake::advance(9);
  fake::clear_records();
  EXPECT_EQ(join(), 0);
  EXPECT_THAT(fake::calls(), IsEmpty()) << "not even a module is asked";
  EXPECT_EQ(g_qel_dev.join_time, 1700000000);
  fake::advance(1);
  join();
  EXPECT_THAT(fake::sent(), SizeIs(1));
  EXPECT_EQ(g_qel_dev.join_time, 1700000010);
}

// Modules take their time to answer; the seconds count from before the first was asked.
TEST_F(UpdateSendTest, SpacingCountsFromTheBeginningOfAMessageNotFromItsSending) {
  start_with(1);
  fake::on_query([](const fake::Query&) { fake::advance(2); });
  join();
  EXPECT_THAT(fake::queries(), Not(IsEmpty()));
  EXPECT_GE(fake::now(), 1700000002);
  EXPECT_EQ(g_qel_dev.join_time, 1700000000);
  EXPECT_THAT(fake::sent(), SizeIs(1));

  fake::clear_records();
  fake::set_now(1700000010);
  update();
  EXPECT_THAT(fake::queries(), Not(IsEmpty()));
  EXPECT_GE(fake::now(), 1700000012);
  EXPECT_EQ(g_qel_dev.join_time, 1700000010);
  EXPECT_THAT(fake::sent(), SizeIs(2));
}

TEST_F(UpdateSendTest, SecondUpdateWithinTenSecondsSendsNothingAndLeavesTheCycle) {
  start_with(1);
  update();
  fake::advance(9);
  fake::clear_records();
  g_qel_dev.online_ports = 3;
  EXPECT_EQ(update(), 0);
  EXPECT_THAT(fake::calls(), IsEmpty());
  EXPECT_EQ(port(1)->reported, 1);
  EXPECT_EQ(g_qel_dev.online_ports, 3U);
  fake::advance(1);
  update();
  EXPECT_THAT(fake::sent(), SizeIs(2));
}

TEST_F(UpdateSendTest, JoinAndUpdateShareTheirSpacing) {
  start_with(1);
  join();
  fake::advance(9);
  update();
  EXPECT_THAT(fake::sent(), SizeIs(1));
  fake::advance(1);
  update();
  EXPECT_THAT(fake::sent(), SizeIs(3));
  fake::advance(9);
  join();
  EXPECT_THAT(fake::sent(), SizeIs(3));
  fake::advance(1);
  join();
  EXPECT_THAT(fake::sent(), SizeIs(4));
}

TEST_F(UpdateSendTest, MessageThatCannotBeSentCountsAsSent) {
  start_with(1);
  fake::fail_os("sendto", ENETDOWN);
  EXPECT_THAT(stderr_of([this] { EXPECT_EQ(join(), 0); }), StartsWith("sendto(udp): "));
  EXPECT_EQ(g_qel_dev.join_time, 1700000000);
}

TEST_F(UpdateSendTest, ClockThatWentBackHoldsEverythingBack) {
  start_with(1);
  join();
  fake::set_now(1600000000);
  join();
  update();
  EXPECT_THAT(fake::sent(), SizeIs(1));
}

TEST_F(UpdateSendTest, FirstTenSecondsOfTheEpochSendNothing) {
  start_with(1);
  fake::set_now(9);
  join();
  EXPECT_THAT(fake::sent(), IsEmpty());
  fake::set_now(10);
  join();
  EXPECT_THAT(fake::sent(), SizeIs(1));
}

TEST_F(UpdateSendTest, SpacingGoesOnOverTheEndOf31BitTime) {
  start_with(1);
  fake::set_now(2147483640);
  join();
  fake::set_now(2147483649);
  join();
  EXPECT_THAT(fake::sent(), SizeIs(1)) << "nine seconds later, in January 2038";
  fake::set_now(2147483650);
  join();
  EXPECT_THAT(fake::sent(), SizeIs(2));
}

// ---------------------------------------------------------------------------------------------
// Dormant

TEST_F(UpdateSendTest, NothingStartsAJoinOrAnUpdate) {
  fake::add_ports(2);
  std::string name = "/usr/sbin/qel";
  char* words[] = {name.data(), nullptr};
  optind = 0;
  ASSERT_EQ(qel_main(1, words), 0);
  receive(R"({"cmd":"probe","subcmd":"probe","mac":"gw-a","data":{"ntick":1}})");
  fake::clear_records();
  for (const char* text :
       {R"({"type":"joinresp","reqid":1,"data":{}})", R"({"type":"update","reqid":1,"data":{}})",
        R"({"type":"device_get","data":{}})", R"({"cmd":"joinreq","subcmd":"joinreq","data":{}})",
        R"({"cmd":"get","subcmd":"update","data":{}})", R"({"cmd":"joinresp","data":{}})"}) {
    receive(text);
  }
  fake::tick(3600);
  EXPECT_THAT(fake::sent(), IsEmpty());
  EXPECT_EQ(g_qel_dev.join_time, 0);
}

}  // namespace
