// SPDX-License-Identifier: Apache-2.0
//
// What happens to ports while time passes, in the whole agent: clients age out, restarts end, links
// change. The agent is started as on the switch, its one-second timer runs it, gateways probe with
// frames and the interface manager's messages come over its connection.
#include <getopt.h>

#include <cstring>

#include "qel/qel_gw.h"
#include "qel/qel_main.h"
#include "qel/qel_table.h"
#include "tests/unit/support.h"

namespace {

using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr char kEnableGe2[] =
    R"({"mdl":"mono","cmd":"qel_port_enable_set","data":{"port":"ge2","enable":1}})";
constexpr char kDisableGe2[] =
    R"({"mdl":"mono","cmd":"qel_port_enable_set","data":{"port":"ge2","enable":0}})";
constexpr char kNoneOnGe2[] =
    R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_client","data":{"ge2":)"
    R"({"client_state":"NONE","client_mac":"","client_ip":"","client_type":"UN"}}})";
constexpr char kClientOnGe2[] =
    R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_client","data":{"ge2":)"
    R"({"client_state":"ON","client_mac":"001122334455","client_ip":"192.168.1.20",)"
    R"("client_type":"SW"}}})";
constexpr char kClientOffOnGe2[] =
    R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_client","data":{"ge2":)"
    R"({"client_state":"OFF","client_mac":"001122334455","client_ip":"192.168.1.20",)"
    R"("client_type":"SW"}}})";
constexpr fake::Mac kOtherGateway = {0x02, 0x00, 0x5e, 0x10, 0x20, 0x31};

class PortTimerTest : public AgentTest {
 protected:
  PortTimerTest() {
    fake::add_interface("vlanif1", 7);
    fake::add_ports(3);
    std::string word = "/usr/sbin/qel";
    char* argv[] = {word.data(), nullptr};
    optind = 0;  // getopt_long begins anew
    qel_main(1, argv);
    fake::set_uptime(1000);
    fake::clear_records();
  }

  // A gateway probes; its answer is forgotten.
  void probe(const char* name = "gw-a", const fake::Mac& source = kGatewayMac) {
    receive(R"({"mac":")" + std::string(name) +
                R"(","cmd":"probe","subcmd":"probe","data":{"ntick":1}})",
            source);
    fake::clear_records();
  }

  void command(const std::string& subcmd, const std::string& data) {
    receive(R"({"mac":"gw-a","cmd":"set","subcmd":")" + subcmd + R"(","data":)" + data + "}");
  }

  // A neighbour is reported on ge2 at this moment.
  static void learn_on_ge2() {
    uif_get_by_name("ge2")->link = 1;
    stdout_of([] {
      fake::receive_local(fake::last_socket(AF_UNIX),
                          R"({"type":"lldp_add","mac":"00:11:22:33:44:55",)"
                          R"("local_interface":"ge2","management_address":"192.168.1.20",)"
                          R"("system_capability":"Switch"})");
      fake::run_reads();
    });
    fake::clear_records();
  }

  static qel_port* port(const char* name) { return qel_port_of(uif_get_by_name(name)); }

  // The last byte of each destination, in order of sending.
  static std::vector<int> destinations() {
    std::vector<int> found;
    for (const fake::Sent& one : fake::sent()) {
      found.push_back(static_cast<unsigned char>(one.bytes.at(5)));
    }
    return found;
  }

  // Messages to the gateway and to modules while `seconds` pass.
  static void expect_silence(unsigned seconds) {
    fake::clear_records();
    fake::tick(seconds);
    EXPECT_THAT(fake::sent(), IsEmpty());
    EXPECT_THAT(fake::queries(), IsEmpty());
  }
};

// ---------------------------------------------------------------------------------------------
// Restarts

TEST_F(PortTimerTest, RestartWithDelay5EndsOnTheFifthTick) {
  command("port_restart", R"({"ge2":5})");
  EXPECT_THAT(fake::query_texts(), ElementsAre(kDisableGe2));
  expect_silence(4);
  fake::tick();
  EXPECT_THAT(fake::query_texts(), ElementsAre(kEnableGe2));
  expect_silence(300);
}

TEST_F(PortTimerTest, RestartWithDelay1EndsOnTheNextTick) {
  command("port_restart", R"({"ge2":1})");
  fake::clear_records();
  fake::tick();
  EXPECT_THAT(fake::query_texts(), ElementsAre(kEnableGe2));
}

TEST_F(PortTimerTest, RestartWithDelay300Takes44Seconds) {
  command("port_restart", R"({"ge2":300})");
  expect_silence(43);
  fake::tick();
  EXPECT_THAT(fake::query_texts(), ElementsAre(kEnableGe2));
}

TEST_F(PortTimerTest, RestartWithDelay0NeverEnds) {
  command("port_restart", R"({"ge2":0})");
  expect_silence(600);
}

TEST_F(PortTimerTest, TimeLeftOfARestartIsInTheLinkReport) {
  command("port_restart", R"({"ge2":5})");
  for (const char* left : {"5", "4", "3", "2", "1", "0"}) {
    fake::clear_records();
    receive(R"({"cmd":"get","subcmd":"ports_link"})");
    EXPECT_THAT(sent_messages(),
                ElementsAre(R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_link",)"
                            R"("data":{"ge1":[0,0,0,0],"ge2":[0,0,0,)" +
                            std::string(left) + R"(],"ge3":[0,0,0,0]}})"));
    fake::tick();
  }
}

TEST_F(PortTimerTest, EnableDuringARestartDoesNotEndTheCount) {
  command("port_restart", R"({"ge2":3})");
  command("port_enable", R"({"ge2":1})");
  expect_silence(2);
  fake::tick();
  EXPECT_THAT(fake::query_texts(), ElementsAre(kEnableGe2));
}

TEST_F(PortTimerTest, RestartEndsAlsoWhenTheModuleDoesNotAnswer) {
  command("port_restart", R"({"ge2":1})");
  fake::tick();
  EXPECT_EQ(port("ge2")->restart_left, 0);
  expect_silence(10);
  EXPECT_EQ(fake::registered("qel_timer_second"), 1);
}

TEST_F(PortTimerTest, EveryPortCanRestartAtOnce) {
  for (const char* name : {"ge3", "ge1", "ge2"}) {
    command("port_restart", R"({")" + std::string(name) + R"(":2})");
  }
  expect_silence(1);
  fake::tick();
  EXPECT_THAT(
      fake::query_texts(),
      ElementsAre(
          R"({"mdl":"mono","cmd":"qel_port_enable_set","data":{"port":"ge1","enable":1}})",
          kEnableGe2,
          R"({"mdl":"mono","cmd":"qel_port_enable_set","data":{"port":"ge3","enable":1}})"));
}

// ---------------------------------------------------------------------------------------------
// Clients

// A gateway must probe all the while, or it is not told.
TEST_F(PortTimerTest, ClientIsPresentAt300SecondsAndGoneWithOneTrapAt301) {
  learn_on_ge2();
  for (int i = 0; i < 30; ++i) {
    probe();
    fake::tick(10);
    ASSERT_THAT(fake::sent(), IsEmpty()) << fake::uptime();
  }
  EXPECT_EQ(fake::uptime(), 1300U);
  EXPECT_NE(port("ge2")->client_time, 0U);
  probe();
  fake::tick();
  EXPECT_EQ(fake::uptime(), 1301U);
  EXPECT_EQ(port("ge2")->client_time, 0U);
  EXPECT_THAT(sent_messages(), ElementsAre(kNoneOnGe2));
  expect_silence(9);
}

// An uptime that was set back must not drop every client, nor tell the gateways so.
TEST_F(PortTimerTest, ClientOfALaterUptimeStaysUntil301SecondsPastIt) {
  learn_on_ge2();
  port("ge2")->client_time = 2000;
  for (const uint32_t now : {1000U, 1999U, 2000U, 2299U}) {
    fake::set_uptime(now);
    probe();
    fake::tick();
    EXPECT_EQ(port("ge2")->client_time, 2000U) << now;
    EXPECT_THAT(fake::sent(), IsEmpty()) << now;
  }
  fake::tick();
  EXPECT_EQ(fake::uptime(), 2301U);
  EXPECT_EQ(port("ge2")->client_time, 0U);
  EXPECT_THAT(sent_messages(), ElementsAre(kNoneOnGe2));
}

TEST_F(PortTimerTest, NextNeighbourReportKeepsTheClient) {
  learn_on_ge2();
  fake::tick(300);
  learn_on_ge2();
  fake::tick(300);
  EXPECT_EQ(port("ge2")->client_time, 1300U);
  fake::tick(1);
  EXPECT_EQ(port("ge2")->client_time, 0U);
}

TEST_F(PortTimerTest, ClientThatIsGoneKeepsItsDataForTheNextReport) {
  learn_on_ge2();
  fake::tick(301);
  EXPECT_EQ(port("ge2")->lldp_seen, 1);
  EXPECT_EQ(port("ge2")->client_mac[5], 0x55);
  EXPECT_NE(port("ge2")->client_ip, 0U);
  EXPECT_EQ(port("ge2")->neighbour_type, 1);
}

TEST_F(PortTimerTest, GoneClientIsToldToEachPresentGatewayAndToNoOther) {
  learn_on_ge2();
  probe("gw-b", kOtherGateway);
  fake::tick(291);
  probe("gw-a");
  fake::tick(10);
  EXPECT_EQ(fake::uptime(), 1301U);
  EXPECT_THAT(destinations(), ElementsAre(0x30));
  fake::clear_records();
  learn_on_ge2();
  fake::tick(300);
  probe("gw-a");
  probe("gw-b", kOtherGateway);
  fake::tick();
  EXPECT_THAT(destinations(), testing::UnorderedElementsAre(0x30, 0x31));
  EXPECT_THAT(sent_messages(), Each(kNoneOnGe2));
}

TEST_F(PortTimerTest, ClientGoesBeforeARestartEndsInTheSameSecond) {
  learn_on_ge2();
  fake::tick(300);
  probe();
  command("port_restart", R"({"ge2":1})");
  fake::clear_records();
  fake::tick();
  EXPECT_THAT(fake::calls_of({"sendto", "jclient_query"}),
              ElementsAre(testing::StartsWith("sendto"), testing::StartsWith("jclient_query")));
}

TEST_F(PortTimerTest, GatewayThatGoesOfflineInThatSecondIsNotTold) {
  learn_on_ge2();
  fake::tick(290);
  probe();
  fake::tick(11);
  EXPECT_EQ(fake::uptime(), 1301U);
  EXPECT_EQ(port("ge2")->client_time, 0U);
  EXPECT_THAT(fake::sent(), IsEmpty());
}

// ---------------------------------------------------------------------------------------------
// Interface status

TEST_F(PortTimerTest, LinkThatGoesDownIsToldToAGatewayThatHasProbed) {
  learn_on_ge2();
  probe();
  fake::if_status("ge2", 0);
  fake::run_reads();
  EXPECT_THAT(sent_messages(), ElementsAre(kClientOffOnGe2));
  EXPECT_EQ(uif_get_by_name("ge2")->link, 0);
}

TEST_F(PortTimerTest, LinkThatComesBackIsToldToo) {
  learn_on_ge2();
  probe();
  fake::if_status("ge2", 0);
  fake::if_status("ge2", 1);
  fake::run_reads();
  EXPECT_THAT(sent_messages(), ElementsAre(kClientOffOnGe2, kClientOnGe2));
}

TEST_F(PortTimerTest, PortWithoutAClientReportsNoneOnALinkChange) {
  probe();
  fake::if_status("ge2", 1);
  fake::run_reads();
  EXPECT_THAT(sent_messages(), ElementsAre(kNoneOnGe2));
}

TEST_F(PortTimerTest, LinkChangeIsNotToldToAGatewayThatNeverProbed) {
  fake::if_status("ge2", 0);
  fake::run_reads();
  EXPECT_THAT(fake::sent(), IsEmpty());
  EXPECT_EQ(stderr_of([] {
              fake::if_status("ge2", 1);
              fake::run_reads();
            }),
            "");
}

TEST_F(PortTimerTest, LinkChangeIsToldWithin11SecondsOfAProbeAndNotAfter) {
  probe();
  fake::tick(10);
  fake::if_status("ge2", 1);
  fake::run_reads();
  EXPECT_THAT(sent_messages(), ElementsAre(kNoneOnGe2));
  fake::clear_records();
  fake::tick();
  fake::if_status("ge2", 0);
  fake::run_reads();
  EXPECT_THAT(fake::sent(), IsEmpty());
}

TEST_F(PortTimerTest, CommandsOtherThanProbeMakeNoGatewayPresent) {
  receive(R"({"mac":"gw-a","cmd":"get","subcmd":"ports_link"})");
  receive(R"({"mac":"gw-a","cmd":"ping","subcmd":"ping","data":{}})");
  fake::clear_records();
  fake::if_status("ge2", 1);
  fake::run_reads();
  EXPECT_THAT(fake::sent(), IsEmpty());
}

TEST_F(PortTimerTest, StatusOfAnUnknownInterfaceSendsNothing) {
  probe();
  fake::if_status("ge99", 1);
  fake::if_status("", 1);
  fake::if_status(std::string(10000, 'g'), 1);
  fake::if_status("%n%s", 1);
  fake::run_reads();
  EXPECT_THAT(fake::sent(), IsEmpty());
  fake::if_status("ge2", 1);
  fake::run_reads();
  EXPECT_THAT(sent_messages(), ElementsAre(kNoneOnGe2));
}

TEST_F(PortTimerTest, StatusReturnsTheTrapsResult) {
  EXPECT_EQ(qel_if_status(fake::uclient(), fake::message_if_status("ge2", 1)), 0);
  EXPECT_EQ(qel_if_status(fake::uclient(), fake::message_if_status("nosuch", 1)), 0);
}

TEST_F(PortTimerTest, StatusIsTracedOnlyWithTheGatewayBit) {
  g_qel_dev.debug = 255 - 4;
  fake::if_status("ge2", 1, 3);
  fake::run_reads();
  EXPECT_THAT(fake::console(), IsEmpty());
  g_qel_dev.debug = 4;
  fake::if_status("ge2", 1, 3);
  fake::run_reads();
  EXPECT_THAT(fake::console(), ElementsAre("qel_if_status:38  uif->name ge2 speed_conf=3 \r\n"));
}

TEST_F(PortTimerTest, StatusOfAPortThatCameAfterTheStartIsSurvived) {
  probe();
  fake::new_if("ge9", 0x01000009);
  fake::if_status("ge9", 1);
  fake::run_reads();
  EXPECT_THAT(fake::sent(), IsEmpty());
  EXPECT_EQ(uif_get_by_name("ge9")->link, 1);
}

TEST_F(PortTimerTest, NextReportShowsTheLinkThatChanged) {
  fake::if_status("ge2", 1);
  fake::run_reads();
  receive(R"({"cmd":"get","subcmd":"ports_link"})");
  EXPECT_THAT(sent_messages(),
              ElementsAre(R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_link","data":)"
                          R"({"ge1":[0,0,0,0],"ge2":[1,1000,1,0],"ge3":[0,0,0,0]}})"));
}

}  // namespace
