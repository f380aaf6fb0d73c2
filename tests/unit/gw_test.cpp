// SPDX-License-Identifier: Apache-2.0
//
// Gateway presence, messages to all present gateways, and the port timers of every second.
#include "qel/qel_gw.h"

#include <cerrno>
#include <cstring>

#include "qel/qel_table.h"
#include "tests/unit/support.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::SizeIs;

constexpr char kNoClientOnGe2[] =
    R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_client","data":{"ge2":)"
    R"({"client_state":"NONE","client_mac":"","client_ip":"","client_type":"UN"}}})";

class GatewayTest : public AgentTest {
 protected:
  GatewayTest() {
    fake::add_interface("vlanif1", 7);
    fake::add_ports(3);
    start();
    fake::set_uptime(1000);
  }

  // A link to a gateway whose MAC ends in `last`.
  qel_link link_to(uint8_t last) {
    qel_link link = eth_link();
    link.gw_mac[5] = last;
    return link;
  }
  void probe(const char* name, int32_t tick = 1, uint8_t last = 1) {
    const qel_link link = link_to(last);
    qel_gw_update(name, tick, &link);
  }
  qel_port* port(const char* name) { return qel_port_of(uif_get_by_name(name)); }

  // The last byte of each destination, in order of sending.
  static std::vector<int> destinations() {
    std::vector<int> found;
    for (const fake::Sent& one : fake::sent()) {
      found.push_back(static_cast<unsigned char>(one.bytes.at(5)));
    }
    return found;
  }
};

using GatewayDeathTest = GatewayTest;

// ---------------------------------------------------------------------------------------------
// The table

TEST_F(GatewayTest, TableIsEmptyAtStart) {
  for (const qel_gw& entry : g_qel_gw) {
    EXPECT_EQ(entry.active, 0U);
    EXPECT_EQ(entry.last_seen, 0U);
    EXPECT_STREQ(entry.name, "");
  }
  EXPECT_EQ(g_qel_gw.size(), 4U);
}

TEST_F(GatewayTest, FirstProbeFillsTheFirstEntry) {
  probe("gw-a", 77, 9);
  const qel_gw& entry = g_qel_gw[0];
  EXPECT_EQ(entry.active, 1U);
  EXPECT_EQ(entry.ntick, 77U);
  EXPECT_EQ(entry.last_seen, 1000U);
  EXPECT_STREQ(entry.name, "gw-a");
  const qel_link expected = link_to(9);
  EXPECT_EQ(std::memcmp(&entry.link, &expected, sizeof expected), 0);
}

TEST_F(GatewayTest, NextProbeOfTheSameGatewayRefreshesItsEntry) {
  probe("gw-a", 1, 1);
  fake::set_uptime(1010);
  probe("gw-a", 2, 5);
  EXPECT_EQ(g_qel_gw[0].ntick, 2U);
  EXPECT_EQ(g_qel_gw[0].last_seen, 1010U);
  EXPECT_EQ(g_qel_gw[0].link.gw_mac[5], 5);
  EXPECT_EQ(g_qel_gw[1].active, 0U);
}

TEST_F(GatewayTest, NamesAreComparedExactly) {
  probe("gw-a");
  probe("GW-A");
  probe("gw-");
  EXPECT_STREQ(g_qel_gw[0].name, "gw-a");
  EXPECT_STREQ(g_qel_gw[1].name, "GW-A");
  EXPECT_STREQ(g_qel_gw[2].name, "gw-");
}

TEST_F(GatewayTest, FifthGatewayTakesTheFirstEntryButNotItsName) {
  for (const char* name : {"a", "b", "c", "d"}) {
    probe(name);
  }
  fake::set_uptime(1005);
  probe("e", 55, 0xee);
  EXPECT_STREQ(g_qel_gw[0].name, "a");
  EXPECT_EQ(g_qel_gw[0].ntick, 55U);
  EXPECT_EQ(g_qel_gw[0].last_seen, 1005U);
  EXPECT_EQ(g_qel_gw[0].link.gw_mac[5], 0xee);
  EXPECT_STREQ(g_qel_gw[3].name, "d");
}

TEST_F(GatewayTest, LookupOfAKnownNameChangesNothing) {
  probe("a", 3, 4);
  const qel_gw before = g_qel_gw[0];
  EXPECT_EQ(qel_gw_lookup("a"), &g_qel_gw[0]);
  EXPECT_EQ(std::memcmp(&before, &g_qel_gw[0], sizeof before), 0);
}

TEST_F(GatewayTest, LookupOfANewNameClearsAndNamesTheFirstFreeEntry) {
  probe("a");
  std::memset(&g_qel_gw[1].link, 0x55, sizeof g_qel_gw[1].link);
  g_qel_gw[1].ntick = 5;
  qel_gw* const entry = qel_gw_lookup("b");
  qel_gw expected = {};
  std::strcpy(expected.name, "b");
  EXPECT_EQ(entry, &g_qel_gw[1]);
  EXPECT_EQ(std::memcmp(entry, &expected, sizeof expected), 0);
}

TEST_F(GatewayTest, EntryProbedInTheFirstSecondIsNotFoundAgain) {
  fake::set_uptime(0);
  probe("a");
  EXPECT_EQ(g_qel_gw[0].last_seen, 0U);
  fake::set_uptime(1);
  probe("a");
  EXPECT_STREQ(g_qel_gw[1].name, "a");
  EXPECT_EQ(g_qel_gw[1].last_seen, 1U);
}

TEST_F(GatewayTest, NameOf31BytesIsKeptWholeAndALongerOneIsCut) {
  const std::string name31(31, 'n');
  probe(name31.c_str());
  EXPECT_EQ(g_qel_gw[0].name, name31);
  const std::string long_name(2000, 'm');
  probe(long_name.c_str());
  EXPECT_EQ(g_qel_gw[1].name, std::string(31, 'm'));
  probe(long_name.c_str());
  EXPECT_EQ(g_qel_gw[2].active, 0U) << "the same long name found its entry";
}

TEST_F(GatewayTest, GatewayWithoutANameIsRecorded) {
  probe(nullptr);
  probe(nullptr);
  EXPECT_EQ(g_qel_gw[0].active, 1U);
  EXPECT_STREQ(g_qel_gw[0].name, "");
  EXPECT_EQ(g_qel_gw[1].active, 0U);
}

TEST_F(GatewayTest, NegativeTickIsKeptAsItsBits) {
  probe("a", -1);
  EXPECT_EQ(g_qel_gw[0].ntick, 0xFFFFFFFFU);
}

// ---------------------------------------------------------------------------------------------
// Presence

TEST_F(GatewayTest, TenSecondsOfSilenceAreAllowedAndElevenAreNot) {
  probe("a");
  fake::set_uptime(1010);
  qel_gw_offline_check();
  EXPECT_EQ(g_qel_gw[0].active, 1U);
  fake::set_uptime(1011);
  qel_gw_offline_check();
  EXPECT_EQ(g_qel_gw[0].active, 0U);
}

TEST_F(GatewayTest, GatewayThatProbesEveryTenSecondsStaysPresent) {
  for (uint32_t second = 0; second < 60; ++second) {
    fake::set_uptime(1000 + second);
    if (second % 10 == 0) {
      probe("a");
    }
    qel_gw_offline_check();
    ASSERT_EQ(g_qel_gw[0].active, 1U) << second;
  }
}

TEST_F(GatewayTest, OfflineEntryKeepsNameLinkAndTime) {
  probe("a", 1, 9);
  fake::set_uptime(2000);
  qel_gw_offline_check();
  EXPECT_STREQ(g_qel_gw[0].name, "a");
  EXPECT_EQ(g_qel_gw[0].link.gw_mac[5], 9);
  EXPECT_EQ(g_qel_gw[0].last_seen, 1000U);
}

TEST_F(GatewayTest, GatewayThatComesBackGetsItsOldEntry) {
  probe("a");
  probe("b");
  fake::set_uptime(2000);
  qel_gw_offline_check();
  probe("b", 8);
  EXPECT_EQ(g_qel_gw[0].active, 0U);
  EXPECT_EQ(g_qel_gw[1].active, 1U);
  EXPECT_EQ(g_qel_gw[1].ntick, 8U);
}

TEST_F(GatewayTest, OfflineEntryIsTakenOverByANewGateway) {
  for (const char* name : {"a", "b", "c", "d"}) {
    probe(name);
  }
  fake::set_uptime(1011);
  for (const char* name : {"a", "c", "d"}) {
    probe(name);
  }
  qel_gw_offline_check();
  probe("e");
  EXPECT_STREQ(g_qel_gw[1].name, "e");
  EXPECT_STREQ(g_qel_gw[0].name, "a");
}

TEST_F(GatewayTest, SilenceIsCountedAcrossTheWrapOfTheUptime) {
  fake::set_uptime(0xFFFFFFFA);
  probe("a");
  fake::set_uptime(4);  // ten seconds later
  qel_gw_offline_check();
  EXPECT_EQ(g_qel_gw[0].active, 1U);
  fake::set_uptime(5);
  qel_gw_offline_check();
  EXPECT_EQ(g_qel_gw[0].active, 0U);
}

TEST_F(GatewayTest, ClockBeforeTheLastProbeIsNoSilence) {
  probe("a");
  fake::set_uptime(900);
  qel_gw_offline_check();
  EXPECT_EQ(g_qel_gw[0].active, 1U);
}

TEST_F(GatewayTest, GoingOfflineIsTracedOnce) {
  g_qel_dev.debug = 4;
  probe("gw-a");
  fake::set_uptime(1011);
  qel_gw_offline_check();
  qel_gw_offline_check();
  EXPECT_THAT(fake::console(), ElementsAre("gw [gw-a] become offline\n"));
}

TEST_F(GatewayTest, GoingOfflineIsNotTracedByOtherBits) {
  g_qel_dev.debug = 255 - 4;
  probe("gw-a");
  fake::set_uptime(1011);
  qel_gw_offline_check();
  EXPECT_THAT(fake::console(), IsEmpty());
}

// ---------------------------------------------------------------------------------------------
// Messages to all

TEST_F(GatewayTest, TrapWithoutAGatewayIsDroppedWithoutError) {
  EXPECT_EQ(stderr_of([] { EXPECT_EQ(qel_gw_trap("{}", 2), 0); }), "");
  EXPECT_THAT(fake::sent(), IsEmpty());
  EXPECT_THAT(fake::console(), IsEmpty());
}

TEST_F(GatewayTest, TrapGoesToEachPresentGatewayInTableOrder) {
  probe("a", 1, 1);
  probe("b", 1, 2);
  probe("c", 1, 3);
  g_qel_gw[1].active = 0;
  EXPECT_EQ(qel_gw_trap("{}", 2), 0);
  EXPECT_THAT(destinations(), ElementsAre(1, 3));
  EXPECT_THAT(fake::sent()[0].bytes,
              BytesAre(reply_header(18, {0x02, 0x00, 0x5e, 0x10, 0x20, 0x01}) + "{}"));
}

TEST_F(GatewayTest, TrapIsTracedForEachGateway) {
  g_qel_dev.debug = 4;
  probe("a");
  probe("b");
  qel_gw_trap("{}", 2);
  EXPECT_THAT(fake::console(),
              ElementsAre("qel_gw_trap name[a] buf[{}] \n", "qel_gw_trap name[b] buf[{}] \n"));
}

TEST_F(GatewayTest, TrapIsNotTracedByOtherBits) {
  g_qel_dev.debug = 255 - 4;
  probe("a");
  fake::clear_records();
  qel_gw_trap("{}", 2);
  EXPECT_THAT(fake::sent(), SizeIs(1));
  // What the sending itself tells stays.
  EXPECT_THAT(fake::console(), ElementsAre(MatchesRegex("\\[qel_cmd_send,[0-9]+\\] send start \n"),
                                           MatchesRegex("\\[qel_cmd_send,[0-9]+\\] send ok \n")));
}

TEST_F(GatewayTest, TrapToAUdpGatewayIsADatagram) {
  const qel_link link = udp_link("10.1.2.3", 33333);
  qel_gw_update("u", 1, &link);
  qel_gw_trap("{}", 2);
  ASSERT_THAT(fake::sent(), SizeIs(1));
  EXPECT_EQ(fake::sent()[0].bytes, "{}");
  EXPECT_EQ(fake::sent()[0].ip(), "10.1.2.3");
  EXPECT_EQ(fake::sent()[0].port(), 33333);
}

TEST_F(GatewayTest, FailedTrapDoesNotStopTheOthers) {
  probe("a", 1, 1);
  probe("b", 1, 2);
  fake::fail_os("sendto", ENETDOWN, 0, 1);
  stderr_of([] { qel_gw_trap("{}", 2); });
  EXPECT_THAT(destinations(), ElementsAre(2));
}

// ---------------------------------------------------------------------------------------------
// Clients age out

TEST_F(GatewayTest, ClientIsStillThereAfter300SecondsAndGoneAfter301) {
  probe("a");
  port("ge2")->client_time = 1000;
  fake::set_uptime(1300);
  qel_port_client_timer();
  EXPECT_THAT(fake::sent(), IsEmpty());
  EXPECT_EQ(port("ge2")->client_time, 1000U);
  fake::set_uptime(1301);
  qel_port_client_timer();
  EXPECT_EQ(port("ge2")->client_time, 0U);
  EXPECT_THAT(sent_messages(), ElementsAre(kNoClientOnGe2));
  qel_port_client_timer();
  EXPECT_THAT(fake::sent(), SizeIs(1));
}

TEST_F(GatewayTest, ClientGoesAlsoWithoutAGateway) {
  port("ge2")->client_time = 1;
  qel_port_client_timer();
  EXPECT_EQ(port("ge2")->client_time, 0U);
  EXPECT_THAT(fake::sent(), IsEmpty());
}

TEST_F(GatewayTest, OtherClientDataStaysWhenTheClientGoes) {
  qel_port* const aged = port("ge2");
  aged->client_time = 1;
  aged->lldp_seen = 1;
  aged->client_ip = 5;
  aged->client_mac[0] = 6;
  aged->neighbour_type = 1;
  qel_port_client_timer();
  EXPECT_EQ(aged->lldp_seen, 1);
  EXPECT_EQ(aged->client_ip, 5U);
  EXPECT_EQ(aged->client_mac[0], 6);
  EXPECT_EQ(aged->neighbour_type, 1);
}

TEST_F(GatewayTest, SeveralClientsGoInTheOrderOfThePorts) {
  probe("a");
  port("ge3")->client_time = 1;
  port("ge1")->client_time = 1;
  qel_port_client_timer();
  ASSERT_THAT(fake::sent(), SizeIs(2));
  EXPECT_THAT(sent_messages()[0], testing::HasSubstr(R"("data":{"ge1":)"));
  EXPECT_THAT(sent_messages()[1], testing::HasSubstr(R"("data":{"ge3":)"));
}

TEST_F(GatewayTest, ClientAgeIsCountedAcrossTheWrapOfTheUptime) {
  port("ge2")->client_time = 0xFFFFFF00;
  fake::set_uptime(44);  // 300 seconds later
  qel_port_client_timer();
  EXPECT_NE(port("ge2")->client_time, 0U);
  fake::set_uptime(45);
  qel_port_client_timer();
  EXPECT_EQ(port("ge2")->client_time, 0U);
}

TEST_F(GatewayDeathTest, NullNodeInTheClientTimerIsABrokenInvariant) {
  fake::add_null_interface();
  EXPECT_DEATH(qel_port_client_timer(),
               "\\(node\\)->data != \\(\\(void \\*\\)0\\), file qel/qel_gw, line [0-9]+, "
               "function qel_port_client_timer");
}

// ---------------------------------------------------------------------------------------------
// Ports are restarted

TEST_F(GatewayTest, LastSecondOfARestartEnablesThePort) {
  port("ge2")->restart_left = 1;
  qel_port_restart_timer();
  EXPECT_EQ(port("ge2")->restart_left, 0);
  EXPECT_THAT(fake::query_texts(), ElementsAre(R"({"mdl":"mono","cmd":"qel_port_enable_set",)"
                                               R"("data":{"port":"ge2","enable":1}})"));
  qel_port_restart_timer();
  EXPECT_THAT(fake::queries(), SizeIs(1));
}

TEST_F(GatewayTest, RestartCountsDownToItsEnd) {
  port("ge1")->restart_left = 255;
  for (int second = 1; second < 255; ++second) {
    qel_port_restart_timer();
    ASSERT_THAT(fake::queries(), IsEmpty()) << second;
  }
  qel_port_restart_timer();
  EXPECT_THAT(fake::queries(), SizeIs(1));
}

TEST_F(GatewayTest, InterfacesWithoutARecordAreSkippedByBothTimers) {
  fake::add_port("ge9");  // after the records were made
  qel_port_restart_timer();
  qel_port_client_timer();
  EXPECT_THAT(fake::queries(), IsEmpty());
}

TEST_F(GatewayDeathTest, NullNodeInTheRestartTimerIsABrokenInvariant) {
  fake::add_null_interface();
  EXPECT_DEATH(qel_port_restart_timer(),
               "\\(node\\)->data != \\(\\(void \\*\\)0\\), file qel/qel_gw, line [0-9]+, "
               "function qel_port_restart_timer");
}

TEST_F(GatewayTest, EachSecondChecksGatewaysThenClientsThenRestarts) {
  probe("late", 1, 1);
  fake::set_uptime(1020);
  probe("here", 1, 2);
  port("ge2")->client_time = 1;
  port("ge2")->restart_left = 1;
  qel_gw_timer();
  // The late gateway was offline before the client's report went out.
  EXPECT_THAT(destinations(), ElementsAre(2));
  EXPECT_THAT(fake::calls_of({"sendto", "jclient_query"}),
              ElementsAre(testing::StartsWith("sendto"), testing::StartsWith("jclient_query")));
}

// ---------------------------------------------------------------------------------------------
// Interface status

TEST_F(GatewayTest, StatusIsAppliedThenReportedToEachGateway) {
  probe("a", 1, 1);
  probe("b", 1, 2);
  EXPECT_EQ(qel_if_status(nullptr, fake::message_if_status("ge2", 1)), 0);
  EXPECT_EQ(uif_get_by_name("ge2")->link, 1);
  EXPECT_THAT(sent_messages(), ElementsAre(kNoClientOnGe2, kNoClientOnGe2));
  EXPECT_THAT(destinations(), ElementsAre(1, 2));
}

TEST_F(GatewayTest, LinkThatGoesDownReportsTheClientAsOff) {
  probe("a");
  qel_port* const record = port("ge3");
  record->lldp_seen = 1;
  record->client_time = 900;
  const uint8_t mac[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
  std::memcpy(record->client_mac, mac, sizeof mac);
  const uint8_t ip[4] = {192, 168, 1, 20};
  std::memcpy(&record->client_ip, ip, sizeof ip);
  record->neighbour_type = 1;
  qel_if_status(nullptr, fake::message_if_status("ge3", 0));
  EXPECT_THAT(sent_messages(),
              ElementsAre(R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_client",)"
                          R"("data":{"ge3":{"client_state":"OFF","client_mac":"001122334455",)"
                          R"("client_ip":"192.168.1.20","client_type":"SW"}}})"));
}

TEST_F(GatewayTest, StatusOfAnUnknownInterfaceReportsNothing) {
  probe("a");
  EXPECT_EQ(qel_if_status(nullptr, fake::message_if_status("ge77", 1)), 0);
  EXPECT_THAT(fake::sent(), IsEmpty());
}

TEST_F(GatewayTest, StatusOfAnInterfaceThatIsNoPortReportsNothing) {
  probe("a");
  EXPECT_EQ(qel_if_status(nullptr, fake::message_if_status("vlanif1", 1)), 0);
  EXPECT_EQ(uif_get_by_name("vlanif1")->link, 1);
  EXPECT_THAT(fake::calls_of({"sendto"}), IsEmpty());
  EXPECT_THAT(fake::console(), IsEmpty());
}

TEST_F(GatewayTest, StatusIsTracedWithNameAndConfiguredSpeed) {
  g_qel_dev.debug = 4;
  qel_if_status(nullptr, fake::message_if_status("ge2", 1, 7));
  EXPECT_THAT(fake::console(), ElementsAre("qel_if_status:38  uif->name ge2 speed_conf=7 \r\n"));
}

TEST_F(GatewayTest, StatusIsTracedBeforeItIsReported) {
  probe("a");
  g_qel_dev.debug = 4;
  qel_if_status(nullptr, fake::message_if_status("ge2", 1, 7));
  EXPECT_THAT(fake::console(),
              ElementsAre("qel_if_status:38  uif->name ge2 speed_conf=7 \r\n",
                          "qel_gw_trap name[a] buf[" + std::string(kNoClientOnGe2) + "] \n"));
}

}  // namespace
