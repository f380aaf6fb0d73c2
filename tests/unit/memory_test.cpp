// SPDX-License-Identifier: Apache-2.0
//
// Memory that ends: what must be there before the agent can work ends the process with a reason,
// what comes later is done without.
#include <gtest/gtest.h>

#include "qel/qel_alarm.h"
#include "qel/qel_eth_pkt.h"
#include "qel/qel_mac.h"
#include "qel/qel_req.h"
#include "qel/qel_table.h"
#include "tests/unit/calloc.h"
#include "tests/unit/support.h"

namespace {

class MemoryTest : public AgentTest {};
using MemoryDeathTest = MemoryTest;

TEST_F(MemoryDeathTest, NoMemoryForAPortRecordEndsTheProcess) {
  fake::add_port("ge1");
  EXPECT_DEATH(
      {
        g_calloc_fails = true;
        qel_table_dev_init();
      },
      "assertion failed: uif->info != \\(\\(void \\*\\)0\\), file qel/qel_table, line [0-9]+, "
      "function qel_table_dev_init");
}

TEST_F(MemoryDeathTest, NoMemoryForTheAlarmCountersEndsTheProcess) {
  EXPECT_DEATH(
      {
        g_calloc_fails = true;
        qel_alarm_init();
      },
      "assertion failed: array != \\(\\(void \\*\\)0\\), file qel/qel_alarm, line [0-9]+, "
      "function qel_alarm_init");
}

TEST_F(MemoryDeathTest, NoMemoryForAListEndsTheProcess) {
  fake::fail_platform("list_new");
  EXPECT_DEATH(qel_mac_init(),
               "assertion failed: g_qel_cur_mac_list != \\(\\(void \\*\\)0\\), file qel/qel_mac, "
               "line [0-9]+, function qel_mac_init");
  EXPECT_DEATH(qel_req_list_init(),
               "assertion failed: .*, file qel/qel_req, line [0-9]+, function qel_req_list_init");
  EXPECT_DEATH(qel_eth_pkt_list_init(),
               "assertion failed: .*, file qel/qel_eth_pkt, line [0-9]+, function "
               "qel_eth_pkt_list_init");
}

TEST_F(MemoryTest, AddressThatMemoryCannotHoldIsLearntByTheNextScan) {
  fake::add_ports(2);
  start();
  hal_mac_entry entry = {};
  entry.port = 0x01000001;
  entry.type = 2;
  entry.aging_time = 300;  // without one it would be dropped by the scan that learnt it
  entry.vid = 1;
  fake::add_mac_entry(entry);
  g_calloc_fails = true;
  qel_mac_scan_check_l2_map();
  g_calloc_fails = false;
  EXPECT_EQ(g_qel_cur_mac_list->count, 0U);
  qel_mac_scan_check_l2_map();
  EXPECT_EQ(g_qel_cur_mac_list->count, 1U);
}

}  // namespace
