// SPDX-License-Identifier: Apache-2.0
//
// Between the order to restart the switch and the end of the process nothing is served.
#include "qel/qel_restart.h"

#include <sys/socket.h>

#include "qel/qel_ipc.h"
#include "qel/qel_main.h"
#include "qel/qel_table.h"
#include "qel/qel_udp.h"
#include "tests/unit/support.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class OrderedRestartTest : public AgentTest {
 protected:
  OrderedRestartTest() { start(); }
};

TEST_F(OrderedRestartTest, FramesBehindTheOrderAreNotServed) {
  const std::string reboot = R"({"cmd":"set","subcmd":"sys_reboot"})";
  const std::string name = R"({"cmd":"set","subcmd":"name","data":{"name":"late"}})";
  const std::string ping = R"({"cmd":"ping","subcmd":"ping","data":{}})";
  for (const std::string& text : {ping, reboot, name, ping}) {
    fake::receive_frame(g_qel_dev.eth_fd, gateway_frame(text));
  }
  fake::run_reads();
  EXPECT_EQ(fake::reboots(), 1);
  EXPECT_THAT(fake::sent(), testing::SizeIs(1));  // the ping before it
  EXPECT_THAT(fake::queries(), IsEmpty());
  EXPECT_EQ(fake::registered("qel_eth_read"), 0);
}

TEST_F(OrderedRestartTest, FramesBehindAFactoryResetAreNotServed) {
  for (const char* text : {R"({"cmd":"set","subcmd":"config_reset"})",
                           R"({"cmd":"set","subcmd":"name","data":{"name":"late"}})"}) {
    fake::receive_frame(g_qel_dev.eth_fd, gateway_frame(text));
  }
  fake::run_reads();
  EXPECT_EQ(fake::factory_resets(), 1);
  EXPECT_THAT(fake::queries(), IsEmpty());
}

TEST_F(OrderedRestartTest, DatagramsAndEventsBehindTheOrderAreNotServed) {
  ASSERT_EQ(qel_udp_open(), 0);
  const int events = qel_ipc_sock_init();
  ASSERT_EQ(qel_restart_order(), 0);
  fake::clear_records();
  fake::receive_udp(g_qel_dev.udp_fd, R"({"cmd":"ping","subcmd":"ping","data":{}})", "192.168.1.99",
                    20681);
  fake::receive_local(events, R"({"type":"cldm_conf","qel_enable":0})");
  fake::run_reads();
  EXPECT_THAT(fake::sent(), IsEmpty());
  EXPECT_THAT(fake::nvram_writes(), IsEmpty());
  EXPECT_EQ(fake::registered("qel_udp_read"), 0);
  EXPECT_EQ(fake::registered("qel_ipc_sock_read"), 0);
}

TEST_F(OrderedRestartTest, SecondsBehindTheOrderDoNoHousekeeping) {
  g_qel_dev.sys_active = 5;
  qel_timer_second(nullptr);
  EXPECT_EQ(g_qel_dev.sys_active, 4);
  ASSERT_EQ(qel_restart_order(), 0);
  fake::clear_records();
  fake::tick(3);
  EXPECT_EQ(g_qel_dev.sys_active, 4);
  EXPECT_THAT(fake::nvram_writes(), IsEmpty());
}

TEST_F(OrderedRestartTest, RefusedOrderLeavesTheAgentServing) {
  fake::fail_platform("sys_reboot");
  receive(R"({"cmd":"set","subcmd":"sys_reboot"})");
  EXPECT_FALSE(qel_restart_ordered());
  receive(R"({"cmd":"ping","subcmd":"ping","data":{}})");
  EXPECT_THAT(fake::sent(), testing::SizeIs(1));
}

TEST_F(OrderedRestartTest, RestartThatDoesNotComeEndsTheProcessAfterAMinute) {
  ASSERT_EQ(qel_restart_order(), 0);
  for (int second = 1; second < 60; ++second) {
    qel_restart_tick();
  }
  EXPECT_THAT(fake::log_lines(), IsEmpty());
  EXPECT_EXIT(qel_restart_tick(), testing::ExitedWithCode(1), "");
}

}  // namespace
