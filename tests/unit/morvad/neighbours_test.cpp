// SPDX-License-Identifier: Apache-2.0
//
// What lldpd and the kernel say of neighbours, and what the agent is told of it.
#include <gmock/gmock.h>

#include "platform/linux/morvad/kernel/announcer.h"
#include "platform/linux/morvad/kernel/lldp.h"
#include "support.h"

namespace morvad {
namespace {

using testing::ElementsAre;

/// Ports ge1 and ge2 behind interfaces, as a board has them.
constexpr char kKernelBoard[] = R"({"name":"k","mac":"0a:1b:2c:3d:4e:5f","nvram":{},"ports":[
  {"name":"ge1","number":1,"class":"giga","medium":"copper","max_speed":1000,
   "position":{"x":1,"y":1},"link":{"up":true},"interface":"swp1"},
  {"name":"ge2","number":2,"class":"giga","medium":"copper","max_speed":1000,
   "position":{"x":2,"y":1},"link":{"up":true},"interface":"swp2"}]})";

std::string lldp_text(const std::string& what, const std::string& interface,
                      const std::string& bridges) {
  return R"({")" + what + R"(":[{"interface":[{"name":")" + interface +
         R"(","via":"LLDP","rid":"1","chassis":[{"id":[{"type":"mac","value":"7a:24:c4:0b:74:ac"}],
  "name":[{"value":"vm"}],"descr":[{"value":"Linux"}],
  "mgmt-ip":[{"value":"fe80::1"},{"value":"10.0.0.7"}],
  "capability":[{"type":"Bridge","enabled":)" +
         bridges + R"(},{"type":"Station","enabled":true}]}],
  "port":[{"id":[{"type":"mac","value":"02:00:00:00:00:09"}],"descr":[{"value":"h1"}],
  "ttl":[{"value":"120"}]}],"vlan":[{"vlan-id":"7","pvid":true}]}]}]})";
}

LldpNews news_of(const std::string& text) {
  return read_lldp(json::parse(text, nullptr, false));
}

TEST(Lldp, ANeighbourBecomesAnEventWithAllMembers) {
  const LldpNews news = news_of(lldp_text("lldp-added", "swp1", "true"));
  EXPECT_EQ(news.what, "added");
  ASSERT_EQ(news.neighbours.size(), 1U);
  EXPECT_EQ(json::parse(lldp_event(news.neighbours[0], "ge1", "10.0.0.7")),
            json::parse(R"({"type":"lldp_add","mac":"02:00:00:00:00:09",
  "chassis_id":"7a:24:c4:0b:74:ac","local_interface":"ge1","vlan_id":"7",
  "management_address":"10.0.0.7","time_to_live":"120","port_description":"h1",
  "system_name":"vm","system_description":"Linux",
  "system_capability":"Bridge/Switch, Station Only"})"));
}

TEST(Lldp, OnlyWhatIsSwitchedOnIsACapability) {
  const LldpNews news = news_of(lldp_text("lldp-updated", "swp1", "false"));
  EXPECT_EQ(news.neighbours.at(0).system_capability, "Station Only");
}

TEST(Lldp, NonsenseIsPassedOver) {
  for (const char* text :
       {"", "[]", "7", "{}", R"({"lldp":7})", R"({"lldp":[7,{"interface":7}]})",
        R"({"lldp":[{"interface":[]}]})", R"({"lldp":[{"interface":{"swp1":{}}}]})"}) {
    EXPECT_TRUE(news_of(text).neighbours.empty()) << text;
  }
  const LldpNews news = news_of(R"({"lldp":[{"interface":[7,{"name":7,"chassis":[[]]}]}]})");
  ASSERT_EQ(news.neighbours.size(), 2U);
  EXPECT_EQ(news.neighbours[1].interface, "");
  EXPECT_EQ(news.neighbours[1].mac, "");
}

TEST(Lldp, AStreamIsCutIntoObjects) {
  JsonStream stream;
  std::vector<std::string> objects;
  const auto keep = [&objects](const std::string& text) { objects.push_back(text); };
  stream.add("x\n{\"a\":{\"b\":\"}{\\\"\"", keep);
  EXPECT_TRUE(objects.empty());
  stream.add("}}\n{}{\"c\"", keep);
  EXPECT_THAT(objects, ElementsAre("{\"a\":{\"b\":\"}{\\\"\"}}", "{}"));
  stream.add(std::string(JsonStream::kObjectMax, ' '), keep);  // never ends: dropped
  stream.add("{}", keep);
  EXPECT_EQ(objects.back(), "{}");
  EXPECT_EQ(objects.size(), 3U);
}

/// A neighbour `mac` on `interface` that tells neither an address nor what he can do.
std::string silent(const std::string& interface, const std::string& mac) {
  return R"({"lldp-added":[{"interface":[{"name":")" + interface +
         R"(","chassis":[{"id":[{"type":"mac","value":")" + mac +
         R"("}]}],"port":[{"id":[{"type":"mac","value":")" + mac + R"("}]}]}]}]})";
}

class AnnouncerTest : public SwitchTest {
 protected:
  AnnouncerTest() : announcer(make(), away) {}
  Switch& make() {
    restart_switch(kKernelBoard);
    return *sw;
  }
  size_t told() const { return away.events.size(); }

  /// What the last event says of an address: "none" when it says nothing.
  std::string last_address() const {
    return json::parse(away.events.back()).value("management_address", "none");
  }

  FakeHost away;
  Announcer announcer;
};

TEST_F(AnnouncerTest, AnAddressIsToldOnceUntilItMoves) {
  announcer.address("192.168.1.20", "00:11:22:33:44:55", port("ge1"));
  announcer.address("192.168.1.20", "00:11:22:33:44:55", port("ge1"));
  ASSERT_EQ(told(), 1U);
  EXPECT_EQ(json::parse(away.events[0]),
            json::parse(R"({"type":"arpsnoop_add","mac":"00:11:22:33:44:55",
                            "ip":"192.168.1.20","port":"ge1"})"));
  announcer.address("192.168.1.20", "00:11:22:33:44:55", port("ge2"));
  EXPECT_EQ(told(), 2U);
}

TEST_F(AnnouncerTest, WhatTheAgentMissedIsToldLater) {
  away.agent_listens = false;
  announcer.address("192.168.1.20", "00:11:22:33:44:55", port("ge1"));
  announcer.lldp(news_of(lldp_text("lldp-added", "swp1", "true")));
  announcer.retry();
  EXPECT_EQ(told(), 0U);
  away.agent_listens = true;
  announcer.retry();
  EXPECT_EQ(told(), 2U);
  announcer.retry();
  EXPECT_EQ(told(), 2U);
  announcer.tell_all_again();
  announcer.retry();
  EXPECT_EQ(told(), 4U);
}

TEST_F(AnnouncerTest, AListingDoesNotBringANeighbourBackToThePortThatHeLeft) {
  announcer.lldp(news_of(lldp_text("lldp-added", "swp1", "true")));
  announcer.lldp(news_of(lldp_text("lldp-added", "swp2", "true")));
  json both = json::parse(lldp_text("lldp", "swp2", "true"));
  const json old = json::parse(lldp_text("lldp", "swp1", "true"));
  both["lldp"][0]["interface"].push_back(old["lldp"][0]["interface"][0]);
  away.events.clear();
  announcer.lldp(read_lldp(both));
  ASSERT_EQ(told(), 1U);
  EXPECT_EQ(json::parse(away.events[0])["local_interface"], "ge2");
}

TEST_F(AnnouncerTest, ANeighbourWithoutAddressLeavesTheAgentsAlone) {
  const std::string text = silent("swp1", "02:00:00:00:00:0a");
  announcer.lldp(news_of(text));
  announcer.lldp(news_of(text));
  ASSERT_EQ(told(), 2U);
  for (const std::string& each : away.events) {
    const json event = json::parse(each);
    EXPECT_EQ(event["mac"], "02:00:00:00:00:0a");
    EXPECT_FALSE(event.contains("management_address"));
    EXPECT_EQ(event["system_capability"], "");  // is no switch, whoever was there before
  }
}

TEST_F(AnnouncerTest, ANeighbourWithoutAddressHasTheOneOfArp) {
  const std::string text = silent("swp1", "02:00:00:00:00:0a");
  announcer.address("192.168.1.20", "02:00:00:00:00:0a", port("ge1"));
  announcer.lldp(news_of(text));
  EXPECT_EQ(last_address(), "192.168.1.20");
  announcer.address("192.168.1.19", "02:00:00:00:00:0a", port("ge1"));  // the latest counts
  announcer.lldp(news_of(text));
  EXPECT_EQ(last_address(), "192.168.1.19");
  announcer.address_gone("192.168.1.19");
  announcer.lldp(news_of(text));
  EXPECT_EQ(last_address(), "192.168.1.20");
  announcer.address("192.168.1.20", "02:00:00:00:00:0a", port("ge2"));  // he is elsewhere now
  announcer.lldp(news_of(text));
  EXPECT_EQ(last_address(), "none");
}

TEST_F(AnnouncerTest, ANeighbourWithoutAddressDoesNotInheritOne) {
  announcer.lldp(news_of(lldp_text("lldp-added", "swp1", "true")));
  EXPECT_EQ(last_address(), "10.0.0.7");
  announcer.lldp(news_of(silent("swp1", "02:00:00:00:00:0a")));
  EXPECT_EQ(last_address(), "");
  announcer.lldp(news_of(silent("swp1", "02:00:00:00:00:0a")));
  EXPECT_EQ(last_address(), "none");
}

TEST_F(AnnouncerTest, ANeighbourToldLateHasTheAddressThatCameInBetween) {
  announcer.lldp(news_of(lldp_text("lldp-added", "swp1", "true")));
  away.agent_listens = false;
  announcer.lldp(news_of(silent("swp1", "02:00:00:00:00:0a")));
  away.agent_listens = true;
  announcer.address("192.168.1.20", "02:00:00:00:00:0a", port("ge1"));
  announcer.retry();
  ASSERT_EQ(told(), 3U);
  EXPECT_EQ(json::parse(away.events[2])["type"], "lldp_add");
  EXPECT_EQ(last_address(), "192.168.1.20");
}

TEST_F(AnnouncerTest, ANeighbourOnNoPortOfOursIsNobodys) {
  announcer.lldp(news_of(lldp_text("lldp-added", "eth7", "true")));
  EXPECT_EQ(told(), 0U);
}

}  // namespace
}  // namespace morvad
