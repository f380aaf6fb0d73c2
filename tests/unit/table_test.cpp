// SPDX-License-Identifier: Apache-2.0
//
// The device record and the per-port records.
#include "qel/qel_table.h"

#include <cstring>
#include <type_traits>

#include "qel/qel_json.h"
#include "qel/qel_mono.h"
#include "tests/unit/support.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class TableTest : public AgentTest {};
using TableDeathTest = TableTest;

TEST_F(TableTest, EachPhysicalPortGetsAZeroedRecordOfItsOwn) {
  fake::add_port("ge1");
  fake::add_port("ge2");
  qel_table_dev_init();
  const qel_port* const first = qel_port_of(uif_get_by_name("ge1"));
  const qel_port* const second = qel_port_of(uif_get_by_name("ge2"));
  ASSERT_NE(first, nullptr);
  ASSERT_NE(second, nullptr);
  EXPECT_NE(first, second);
  const qel_port zero = {};
  EXPECT_EQ(std::memcmp(first, &zero, sizeof zero), 0);
  EXPECT_EQ(first, uif_get_by_name("ge1")->info);
}

TEST_F(TableTest, InterfaceWithZeroTopByteNeverGetsARecord) {
  fake::add_interface("vlanif1", 7);
  fake::add_interface("cpu0", 0x00FFFFFF);
  fake::add_port("ge1");
  qel_table_dev_init();
  EXPECT_EQ(uif_get_by_name("vlanif1")->info, nullptr);
  EXPECT_EQ(uif_get_by_name("cpu0")->info, nullptr);
  EXPECT_EQ(qel_port_of(uif_get_by_name("vlanif1")), nullptr);
}

TEST_F(TableTest, LowestIndexWithATopByteIsAPort) {
  fake::add_interface("ge1", 0x01000000);
  fake::add_interface("ge2", 0xFF000000);
  qel_table_dev_init();
  EXPECT_NE(uif_get_by_name("ge1")->info, nullptr);
  EXPECT_NE(uif_get_by_name("ge2")->info, nullptr);
}

TEST_F(TableTest, PortAddedLaterGetsNoRecordAndIsSkipped) {
  fake::add_port("ge1");
  qel_table_dev_init();
  fake::add_port("ge2");
  EXPECT_EQ(qel_port_of(uif_get_by_name("ge2")), nullptr);
  std::vector<std::string> visited;
  qel_table_walk("f", 1, "g", [&](struct uif* uif, qel_port*) {
    visited.emplace_back(uif->name);
    return true;
  });
  EXPECT_THAT(visited, ElementsAre("ge1"));
}

TEST_F(TableTest, SwitchWithoutPortsHasNoRecords) {
  qel_table_dev_init();
  EXPECT_EQ(g_uif_list->head, nullptr);
}

TEST_F(TableDeathTest, NullNodeIsABrokenInvariant) {
  fake::add_port("ge1");
  fake::add_null_interface();
  EXPECT_DEATH(qel_table_dev_init(),
               "assertion failed: \\(node\\)->data != \\(\\(void \\*\\)0\\), "
               "file qel/qel_table, line [0-9]+, function qel_table_dev_init");
}

TEST_F(TableTest, DeviceRecordStartsZeroButForTheRequestIdAndTheSwitch) {
  std::memset(static_cast<void*>(&g_qel_dev), 0x55, sizeof g_qel_dev);
  fake::fail_os("socket", EPERM);
  stderr_of([] { stdout_of(qel_dev_init); });
  EXPECT_EQ(g_qel_dev.pktid, 0);
  EXPECT_EQ(g_qel_dev.reqid, 1U);
  EXPECT_EQ(g_qel_dev.udp_fd, 0);
  EXPECT_EQ(g_qel_dev.eth_fd, 0);
  EXPECT_EQ(g_qel_dev.enable, 1U);
  EXPECT_EQ(g_qel_dev.online_ports, 0U);
  EXPECT_EQ(g_qel_dev.alarm_stat_enable, 0U);
  EXPECT_EQ(g_qel_dev.debug, 0U);
  EXPECT_EQ(g_qel_dev.join_time, 0);
  EXPECT_EQ(g_qel_dev.conf_busy, 0);
  EXPECT_EQ(g_qel_dev.conf_age, 0);
  EXPECT_EQ(g_qel_dev.sys_active, 0);
  EXPECT_STREQ(g_qel_dev.devid, "SW_000000000000");
}

TEST_F(TableTest, DeviceIdentifierIsTheManagementMacInUpperCase) {
  fake::net("vlanif1").mac = {0x0a, 0x1b, 0x2c, 0xde, 0xf0, 0x09};
  qel_dev_init();
  EXPECT_STREQ(g_qel_dev.devid, "SW_0A1B2CDEF009");
  EXPECT_THAT(g_qel_dev.mac, ElementsAre(0x0a, 0x1b, 0x2c, 0xde, 0xf0, 0x09));
}

TEST_F(TableTest, IdentityIsFilledBeforeTheSocketOpensAndTheMacListComesLast) {
  qel_dev_init();
  const std::vector<std::string> calls = fake::calls_of(
      {"jclient_query", "socket(AF_PACKET", "funcname_thread_add_read(qel_eth_read", "list_new"});
  EXPECT_THAT(
      calls,
      ElementsAre(R"(jclient_query({"mdl":"statistics","cmd":"port_basic_statistic_get_all"}))",
                  "socket(AF_PACKET, SOCK_RAW, 0x9301)",
                  testing::StartsWith("funcname_thread_add_read(qel_eth_read"), "list_new()"));
}

TEST_F(TableTest, UdpSocketIsNotOpenedUnlessTheSettingSaysSo) {
  fake::set_nvram("qel_udp_enable", "0");
  qel_dev_init();
  EXPECT_THAT(fake::calls_of({"bind"}), IsEmpty());
  EXPECT_EQ(g_qel_dev.udp_fd, 0);
}

TEST_F(TableTest, PacketIdAfterTheLastIsZeroAgain) {
  g_qel_dev.pktid = 65534;
  for (const char* expected :
       {R"({"type":"x","pktid":"65534","devid":""})", R"({"type":"x","pktid":"65535","devid":""})",
        R"({"type":"x","pktid":"0","devid":""})"}) {
    char area[256] = {};
    qel_text text(area, sizeof area);
    qel_json_pkt(text, "x", nullptr, nullptr);
    EXPECT_STREQ(area, expected);
  }
  EXPECT_EQ(g_qel_dev.pktid, 1);
}

TEST_F(TableTest, PortCountCountsPhysicalPortsOnly) {
  EXPECT_EQ(qel_mono_get_port_count(), 0);
  fake::add_interface("vlanif1", 7);
  fake::add_ports(28);
  EXPECT_EQ(qel_mono_get_port_count(), 28);
}

}  // namespace
