// SPDX-License-Identifier: Apache-2.0
//
// Port reports put together: pages, order, pieces that stay away, and rows that lie.
#include "gateway/ports.h"

#include <gtest/gtest.h>

#include "fixture.h"

namespace qel_gateway {
namespace {

using gateway_test::Bytes;
using gateway_test::OnFakeWire;
using gateway_test::reply;

Bytes update(const std::string& subject, const std::string& data) {
  return reply(R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":")" + subject + R"(","data":)" +
               data + "}");
}

class PortsTest : public OnFakeWire {
 protected:
  void informs() {
    wire.answer(
        "ports_info",
        {update("ports_info", R"({"ge10":[1,1,"G",1],"ge2":[0,1,"G",1],"xe1":[2,2,"10GF",0]})"),
         update("ports_pos", R"({"ge2":[1,2],"ge10":[2,1],"xe1":[4,1]})")});
  }

  PortTable read(unsigned reports) {
    return session.run(read_ports(session, office, reports, Duration(1000)));
  }
};

TEST_F(PortsTest, KeepTheOrderOfTheSwitch) {
  informs();
  const PortTable table = read(0);
  ASSERT_EQ(table.ports.size(), 3u);
  EXPECT_EQ(table.ports[0].name, "ge2");
  EXPECT_EQ(table.ports[1].name, "ge10");
  EXPECT_EQ(table.ports[2].name, "xe1");
  EXPECT_EQ(table.ports[2].medium, kMediumFibre);
  EXPECT_EQ(table.ports[2].media, "10GF");
  ASSERT_TRUE(table.ports[0].position);
  EXPECT_EQ(table.ports[0].position->x, 1);
  EXPECT_EQ(table.ports[0].position->y, 2);
  EXPECT_TRUE(table.missing.empty());
  EXPECT_EQ(wire.sent().size(), 1u);
}

TEST_F(PortsTest, PutEveryReportTogether) {
  informs();
  wire.answer("ports_conf", {update("ports_conf", R"({"ge2":[1,"AN",1,0,1,0,1,1]})"),
                             update("ports_conf", R"({"ge10":[0,"AN",0,1,0,1,0,0],)"
                                                  R"("xe1":[1,"AN",0,0,0,0,0,0]})")});
  wire.answer("ports_link", {update("ports_link", R"({"ge2":[1,1000,1,0],"ge10":[0,0,0,7],)"
                                                  R"("xe1":[1,10000,1,0]})")});
  wire.answer("ports_poe", {update("ports_poe_conf", R"({"ge2":[1,2],"ge10":[0,3]})")});
  wire.answer("ports_stats",
              {update("ports_stats", R"({"ge2":[18446744073709551615,2,3,4],"ge10":[0,0,0,0]})"),
               update("ports_stats", R"({"xe1":[5,6,7,8]})")});
  wire.answer("ports_client",
              {update("ports_client", R"({"ge2":{"client_state":"ON","client_mac":"001122334455",)"
                                      R"("client_ip":"192.168.1.20","client_type":"UN"}})"),
               update("ports_client", R"({"ge10":{"client_state":"NONE","client_mac":"",)"
                                      R"("client_ip":"","client_type":"UN"}})"),
               update("ports_client", R"({"xe1":{"client_state":"OFF","client_mac":"001122334466",)"
                                      R"("client_ip":"0.0.0.0","client_type":"SW"}})")});
  const PortTable table = read(kPortEverything);
  EXPECT_TRUE(table.missing.empty());
  const Port& ge2 = table.ports[0];
  EXPECT_TRUE(ge2.config->enabled);
  EXPECT_TRUE(ge2.config->iso);
  EXPECT_FALSE(ge2.config->eee);
  EXPECT_TRUE(ge2.config->llpp);
  EXPECT_FALSE(ge2.config->mstp);
  EXPECT_TRUE(ge2.config->lldp);
  EXPECT_TRUE(ge2.config->poe);
  EXPECT_EQ(ge2.link->speed, 1000);
  EXPECT_TRUE(ge2.link->full_duplex);
  EXPECT_EQ(ge2.poe->priority, 2);
  EXPECT_EQ(ge2.stats->tx_sum, 18446744073709551615U);
  EXPECT_EQ(ge2.client->mac, "001122334455");
  EXPECT_EQ(table.ports[1].link->restart_left, 7);
  EXPECT_FALSE(table.ports[2].poe);
  EXPECT_EQ(table.ports[2].stats->rx_rate, 8u);
  EXPECT_EQ(table.ports[2].client->type, "SW");
}

TEST_F(PortsTest, ArrivingOutOfOrderAndTwiceChangesNothing) {
  informs();
  wire.answer("ports_conf", {update("ports_conf", R"({"xe1":[1,"AN",0,0,0,0,0,0]})"),
                             update("ports_conf", R"({"xe1":[1,"AN",0,0,0,0,0,0]})"),
                             update("ports_conf", R"({"ge2":[1,"AN",0,0,0,0,0,0],)"
                                                  R"("ge10":[1,"AN",0,0,0,0,0,0],"ge99":[1]})")});
  const PortTable table = read(kPortConfig);
  EXPECT_TRUE(table.missing.empty());
  EXPECT_EQ(table.ports.size(), 3u);
}

TEST_F(PortsTest, AMissingPageIsAskedForAgainAndThenNamed) {
  informs();
  wire.answer("ports_stats", {update("ports_stats", R"({"ge2":[1,2,3,4]})")});
  const PortTable table = read(kPortStats | kPortLink);
  EXPECT_EQ(table.missing, (std::vector<std::string>{"ports_link", "ports_stats"}));
  EXPECT_EQ(wire.count("ports_stats"), 2u);
  EXPECT_EQ(wire.count("ports_info"), 1u);
  EXPECT_TRUE(table.ports[0].stats);
  EXPECT_FALSE(table.ports[1].stats);
}

TEST_F(PortsTest, ARowThatLiesSpoilsItsWholeMessage) {
  informs();
  wire.answer("ports_link",
              {update("ports_link", R"({"ge2":[1,1000,1,0],"ge10":["up",1,1,0]})"),
               update("ports_link", R"({"ge2":[1,1000,1]})"),
               update("ports_link", R"({"ge2":[1,99999999999,1,0]})"),
               update("ports_link", R"({"ge2":[1,1000,1,256]})"), update("ports_link", R"([])")});
  std::vector<std::string> bad;
  session.on_bad_reply([&](const Peer&, const std::string& why) { bad.push_back(why); });
  const PortTable table = read(kPortLink);
  EXPECT_EQ(table.missing, std::vector<std::string>{"ports_link"});
  EXPECT_FALSE(table.ports[0].link);
  EXPECT_EQ(bad,
            (std::vector<std::string>{
                "no whole number where one belongs", "array with no element 3",
                "number 99999999999 outside -2147483648..2147483647", "number 256 outside 0..255",
                "a port report without an object", "no whole number where one belongs",
                "array with no element 3", "number 99999999999 outside -2147483648..2147483647",
                "number 256 outside 0..255", "a port report without an object"}));
}

TEST_F(PortsTest, ASwitchThatDoesNotSayWhichPortsItHasGivesNoAnswer) {
  ExitCode code = ExitCode::Done;
  EXPECT_EQ(error_of(read_ports(session, office, kPortEverything, Duration(1000)), &code),
            "the switch does not say which ports it has");
  EXPECT_EQ(code, ExitCode::NoAnswer);
  EXPECT_EQ(wire.count("ports_info"), 2u);
  EXPECT_EQ(wire.sent().size(), 2u);
}

TEST_F(PortsTest, WithoutPortsNothingElseIsAsked) {
  wire.answer("ports_info", {update("ports_info", "{}"), update("ports_pos", "{}")});
  const PortTable table = read(kPortEverything);
  EXPECT_TRUE(table.ports.empty());
  EXPECT_TRUE(table.missing.empty());
  EXPECT_EQ(wire.sent().size(), 1u);
}

TEST_F(PortsTest, MissingPositionsAreNamed) {
  wire.answer("ports_info", {update("ports_info", R"({"ge1":[0,1,"G",1]})")});
  const PortTable table = read(0);
  EXPECT_EQ(table.missing, std::vector<std::string>{"ports_pos"});
  EXPECT_EQ(table.ports.size(), 1u);
}

}  // namespace
}  // namespace qel_gateway
