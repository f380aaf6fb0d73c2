// SPDX-License-Identifier: Apache-2.0
//
// The state of the switch: what follows from cable, configuration and hardware; counters in time;
// the layer-2 table; the firmware state.
#include "support.h"

namespace morvad {
namespace {

using PortTest = SwitchTest;

void expect_status(const Port& port, int link, int speed, int duplex) {
  const PortStatus status = port.status();
  EXPECT_EQ(status.link, link);
  EXPECT_EQ(status.speed, speed);
  EXPECT_EQ(status.duplex, duplex);
}

TEST_F(PortTest, StartsAsTheBoardSays) {
  expect_status(port("ge1"), 1, 1000, 1);
  expect_status(port("ge2"), 1, 100, 0);
  expect_status(port("xe1"), 0, 0, 0);
  EXPECT_EQ(port("ge2").index, 0x01000002U);
}

TEST_F(PortTest, LinkNeedsCableAndEnable) {
  sw->set_enabled(port("ge1"), false);
  expect_status(port("ge1"), 0, 0, 0);
  sw->set_cable(port("ge1"), false);
  sw->set_enabled(port("ge1"), true);
  expect_status(port("ge1"), 0, 0, 0);
  sw->set_cable(port("ge1"), true);
  expect_status(port("ge1"), 1, 1000, 1);
  const std::vector<std::string> expected = {"ge1 status 0 0 0 0 0", "ge1 status 0 0 0 1 0",
                                             "ge1 status 1 1000 1 1 0"};
  EXPECT_EQ(changes, expected);
}

TEST_F(PortTest, NoEventWithoutAChange) {
  sw->set_enabled(port("ge1"), true);
  sw->set_cable(port("ge1"), true);
  sw->set_speed(port("ge1"), 0);
  sw->set_far_end(port("xe1"), 1000, true);
  sw->set_trunk(port("ge1"), 0);
  EXPECT_TRUE(changes.empty());
}

TEST_F(PortTest, SpeedCodes) {
  const struct {
    int code;
    int speed;
    int duplex;
  } rows[] = {{0, 100, 0},   {1, 10, 0},    {2, 10, 0},    {3, 10, 1},    {4, 100, 0},
              {5, 100, 0},   {6, 100, 1},   {7, 1000, 1},  {8, 1000, 1},  {9, 1000, 1},
              {10, 1000, 1}, {11, 1000, 1}, {12, 1000, 1}, {13, 1000, 1}, {14, 1000, 1}};
  for (const auto& row : rows) {
    sw->set_speed(port("ge2"), row.code);
    expect_status(port("ge2"), 1, row.speed, row.duplex);
    EXPECT_EQ(port("ge2").status().speed_conf, row.code);
  }
}

TEST_F(PortTest, ConfigurationOutlivesARestart) {
  sw->set_enabled(port("ge1"), false);
  sw->set_speed(port("ge2"), 6);
  restart_switch();
  EXPECT_FALSE(port("ge1").enabled);
  EXPECT_EQ(port("ge2").speed_conf, 6);
}

TEST_F(PortTest, RubbishInTheSettingsIsTheDefault) {
  write_file(at("/var/conf/nvram.conf"),
             "port.ge1.enable=x\nport.ge1.speed=15\n"
             "port.ge2.speed=-1\npoe.ge1.priority=999999999999\n");
  restart_switch();
  EXPECT_TRUE(port("ge1").enabled);
  EXPECT_EQ(port("ge1").speed_conf, 0);
  EXPECT_EQ(port("ge2").speed_conf, 0);
  EXPECT_EQ(port("ge1").poe_priority, 0);
}

TEST_F(PortTest, CountersGrowByTheirRateWhileTheLinkIsUp) {
  host.advance_ms(2500);
  Counters now = port("ge1").counters(host.now);
  EXPECT_EQ(now.tx_bytes, 2500U);
  EXPECT_EQ(now.rx_bytes, 1250U);
  EXPECT_EQ(now.tx_rate, 1000U);
  sw->set_cable(port("ge1"), false);
  host.advance_ms(10000);
  now = port("ge1").counters(host.now);
  EXPECT_EQ(now.tx_bytes, 2500U);
  EXPECT_EQ(now.tx_rate, 0U);
  sw->set_cable(port("ge1"), true);
  host.advance_ms(1000);
  EXPECT_EQ(port("ge1").counters(host.now).tx_bytes, 3500U);
  EXPECT_EQ(port("xe1").counters(host.now).tx_bytes, 0U);
}

TEST_F(PortTest, CountersWrapAt64BitsAndStandStillWhenSet) {
  Counters set;
  set.tx_bytes = UINT64_MAX;
  set.tx_rate = 5;
  sw->set_counters(port("ge1"), set, false);
  host.advance_ms(3000);
  EXPECT_EQ(port("ge1").counters(host.now).tx_bytes, UINT64_MAX);
  EXPECT_EQ(port("ge1").counters(host.now).tx_rate, 5U);
  sw->set_counters(port("ge1"), set, true);
  host.advance_ms(1000);
  EXPECT_EQ(port("ge1").counters(host.now).tx_bytes, 4U);
}

TEST_F(PortTest, TenYearsAtFullSpeedDoNotOverflowOnTheWay) {
  Counters set;
  set.tx_rate = 1000000000000;
  sw->set_counters(port("ge1"), set, true);
  host.advance_ms(10ULL * 365 * 86400 * 1000);
  // 10^12 * 315,360,000 modulo 2^64
  EXPECT_EQ(port("ge1").counters(host.now).tx_bytes, 1765350746937622528U);
}

TEST_F(PortTest, PowerIsDrawnOnlyWhereItIsFed) {
  EXPECT_EQ(sw->poe_used(), 6500);
  port("ge2").poe_power = 20000;  // above the port's limit
  EXPECT_EQ(sw->poe_used(), 6500 + 15400);
  port("ge1").poe_enabled = false;
  port("ge2").poe_cut = true;
  EXPECT_EQ(sw->poe_used(), 0);
  sw->poe_use_set(57000);
  EXPECT_EQ(sw->poe_used(), 57000);
}

L2Entry entry_of(uint8_t last, uint32_t port, uint16_t vid) {
  L2Entry entry;
  entry.mac = {2, 0, 0, 0, 0, last};
  entry.port = port;
  entry.vid = vid;
  return entry;
}

TEST(L2Table, AnAddressIsKnownOnceInEachVlan) {
  L2Table table;
  EXPECT_TRUE(table.add(entry_of(1, 10, 1)));
  EXPECT_TRUE(table.add(entry_of(1, 10, 2)));
  EXPECT_TRUE(table.add(entry_of(1, 11, 1)));
  ASSERT_EQ(table.size(), 2U);
  EXPECT_EQ(table.read(0, 9)[0].port, 11U);
  EXPECT_EQ(table.read(0, 9)[1].port, 10U);
  EXPECT_TRUE(table.remove({2, 0, 0, 0, 0, 1}, 1));
  EXPECT_FALSE(table.remove({2, 0, 0, 0, 0, 1}, 1));
  EXPECT_EQ(table.size(), 1U);
}

TEST(L2Table, BatchesAtTheEdges) {
  const uint32_t ports[] = {7, 8, 9};
  for (const size_t size : {0U, 19U, 20U, 21U, 511U, 512U, 513U, 20000U}) {
    L2Table table;
    table.fill(size, ports);
    size_t seen = 0;
    std::span<const L2Entry> batch;
    do {
      batch = table.read(seen, 20);
      seen += batch.size();
    } while (batch.size() == 20);
    EXPECT_EQ(seen, size);
    EXPECT_TRUE(table.read(size, 20).empty());
    EXPECT_TRUE(table.read(SIZE_MAX, 20).empty());
  }
}

TEST(L2Table, IsFullAtItsSize) {
  const uint32_t ports[] = {7};
  L2Table table;
  table.fill(kL2TableSize, ports);
  EXPECT_FALSE(table.add(entry_of(1, 7, 9)));
  table.clear();
  EXPECT_TRUE(table.add(entry_of(1, 7, 9)));
}

constexpr uint64_t kSecond = 1000000000;

TEST(Firmware, OnlyFetchingAndWritingAreAnUpgrade) {
  Firmware firmware;
  for (const auto& [state, upgrading] :
       {std::pair{0, false}, {1, false}, {2, true}, {3, true}, {-2, false}}) {
    firmware.set(state, 0, 0);
    EXPECT_EQ(firmware.upgrading(0), upgrading) << state;
  }
}

TEST(Firmware, EveryStateComesBackToIdle) {
  const struct {
    int state;
    uint64_t patience;
    int detail;
  } rows[] = {{1, 600 * kSecond, -6},
              {2, 1800 * kSecond, -6},
              {3, 1800 * kSecond, -6},
              {-2, 60 * kSecond, -2}};
  for (const auto& row : rows) {
    Firmware firmware;
    firmware.set(row.state, 9, 5);
    EXPECT_EQ(firmware.state(5 + row.patience - 1), row.state);
    EXPECT_EQ(firmware.detail(5 + row.patience - 1), 9);
    EXPECT_EQ(firmware.state(5 + row.patience), 0);
    EXPECT_EQ(firmware.detail(5 + row.patience), row.detail);
  }
}

TEST_F(PortTest, OemWordsComeFromTheBoardUntilTheyAreChanged) {
  EXPECT_EQ(sw->oem_get(3), 4294967295U);
  EXPECT_EQ(sw->oem_set(1, 4294967295U), 0);
  restart_switch();
  EXPECT_EQ(sw->oem_get(1), 4294967295U);
  write_file(at("/var/conf/nvram.conf"), "oem.1=4294967296\noem.2=-1\noem.3=99999999999999999\n");
  EXPECT_EQ(sw->oem_get(1), 0U);
  EXPECT_EQ(sw->oem_get(2), 0U);
  EXPECT_EQ(sw->oem_get(3), 4294967295U);
}

}  // namespace
}  // namespace morvad
