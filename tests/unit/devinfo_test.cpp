// SPDX-License-Identifier: Apache-2.0
//
// The device's identity: the information table, the occupancy figures, the management address, and
// the answer to a probe.
#include "qel/qel_devinfo.h"

#include <cerrno>
#include <cstring>

#include "qel/qel_cmd.h"
#include "qel/qel_gw.h"
#include "qel/qel_netif.h"
#include "qel/qel_table.h"
#include "tests/unit/support.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Pair;
using testing::SizeIs;

void set_product() {
  fake::set_nvram("product_sn", "SN0001");
  fake::set_nvram("product_hw_ver", "V1.0");
  fake::set_nvram("product_model", "QM4410_MODEL");
  fake::set_nvram("firmware_ver", "V2.1");
  fake::set_nvram("product_description", "office-sw");
}

class DevinfoTest : public AgentTest {
 protected:
  DevinfoTest() {
    set_product();
    fake::add_interface("vlanif1", 7);
    fake::add_ports(2);
  }

  static std::vector<std::pair<std::string, std::string>> table() {
    std::vector<std::pair<std::string, std::string>> rows;
    for (const qel_info_entry& entry : g_qel_info) {
      rows.emplace_back(entry.key, entry.value);
    }
    return rows;
  }
  static std::string value(qel_info place) { return qel_devinfo_value(place); }
};

// ---------------------------------------------------------------------------------------------
// The table

TEST_F(DevinfoTest, TableHoldsSeventeenEntriesInTheirOrder) {
  EXPECT_EQ(qel_devinfo_init(), 0);
  EXPECT_THAT(
      table(),
      ElementsAre(Pair("mac", "0a:1b:2c:3d:4e:5f"), Pair("ip", "192.168.1.10"),
                  Pair("sn", "SN0001"), Pair("hw_ver", "V1.0"), Pair("model", "QM4410_MODEL"),
                  Pair("version", "V2.1"), Pair("port_count", "2"),
                  Pair("device_name", "office-sw"), Pair("uptime", "3600"), Pair("cpuoccu", "30"),
                  Pair("memoccu", "75"), Pair("poeoccu", "0"), Pair("onlineports", "0"),
                  Pair("uplinkdatas", "0"), Pair("sysname", "office-sw"), Pair("have_poe", "1"),
                  Pair("check_model", "QM4410_MODEL_V1")));
}

TEST_F(DevinfoTest, InitialisationClearsWhatStoodThere) {
  std::memset(g_qel_info.data(), 'x', sizeof g_qel_info);
  qel_devinfo_init();
  EXPECT_EQ(value(qel_info::sn), "SN0001");
  const qel_info_entry& entry = g_qel_info[static_cast<size_t>(qel_info::sn)];
  EXPECT_EQ(std::string(entry.key, sizeof entry.key), bytes("sn") + zeros(30));
  EXPECT_EQ(std::string(entry.value, sizeof entry.value), bytes("SN0001") + zeros(58));
}

TEST_F(DevinfoTest, CheckModelIsCompiledInWhateverTheProductSays) {
  fake::set_nvram("product_model", "OTHER");
  qel_devinfo_init();
  EXPECT_EQ(value(qel_info::model), "OTHER");
  EXPECT_EQ(value(qel_info::check_model), "QM4410_MODEL_V1");
}

TEST_F(DevinfoTest, HavePoeIsOneWhateverTheSettingSays) {
  fake::set_nvram("have_poe", "0");
  qel_devinfo_init();
  EXPECT_EQ(value(qel_info::have_poe), "1");
}

TEST_F(DevinfoTest, RefreshRenewsOnlyWhatChanges) {
  qel_devinfo_init();
  qel_devinfo_set(qel_info::poeoccu, "42");
  set_product();
  fake::set_nvram("product_sn", "SN0002");
  fake::set_nvram("product_model", "M2");
  fake::set_nvram("product_description", "lab-sw");
  fake::net("vlanif1").ip = "10.0.0.5";
  fake::net("vlanif1").mac = {0x02, 0xab, 0xcd, 0xef, 0x00, 0x01};
  fake::set_sysinfo_uptime(86401);
  fake::add_port("ge9");
  g_qel_dev.online_ports = 6;
  EXPECT_EQ(qel_devinfo_refresh(), 0);
  EXPECT_EQ(value(qel_info::sn), "SN0001");
  EXPECT_EQ(value(qel_info::model), "QM4410_MODEL");
  EXPECT_EQ(value(qel_info::device_name), "office-sw");
  EXPECT_EQ(value(qel_info::port_count), "2");
  EXPECT_EQ(value(qel_info::poeoccu), "42");
  EXPECT_EQ(value(qel_info::sysname), "lab-sw");
  EXPECT_EQ(value(qel_info::ip), "10.0.0.5");
  EXPECT_EQ(value(qel_info::mac), "02:ab:cd:ef:00:01");
  EXPECT_EQ(value(qel_info::uptime), "86401");
  EXPECT_EQ(value(qel_info::onlineports), "6");
  EXPECT_STREQ(g_qel_dev.devid, "SW_02ABCDEF0001");
  EXPECT_THAT(g_qel_dev.mac, ElementsAre(0x02, 0xab, 0xcd, 0xef, 0x00, 0x01));
}

TEST_F(DevinfoTest, RefreshWritesTheKeysAgain) {
  qel_devinfo_init();
  for (qel_info place :
       {qel_info::mac, qel_info::ip, qel_info::uptime, qel_info::cpuoccu, qel_info::memoccu,
        qel_info::onlineports, qel_info::uplinkdatas, qel_info::sysname, qel_info::have_poe}) {
    g_qel_info[static_cast<size_t>(place)] = {};
  }
  qel_devinfo_refresh();
  EXPECT_EQ(table()[0].first, "mac");
  EXPECT_EQ(table()[1].first, "ip");
  EXPECT_EQ(table()[8].first, "uptime");
  EXPECT_EQ(table()[9].first, "cpuoccu");
  EXPECT_EQ(table()[10].first, "memoccu");
  EXPECT_EQ(table()[12].first, "onlineports");
  EXPECT_EQ(table()[13].first, "uplinkdatas");
  EXPECT_EQ(table()[14].first, "sysname");
  EXPECT_EQ(table()[15].first, "have_poe");
}

TEST_F(DevinfoTest, RefreshLooksUpTheAddressThenTheMacThenTheLoadThenTheUplink) {
  qel_devinfo_refresh();
  EXPECT_THAT(fake::calls_of({"socket", "fopen", "jclient_query"}),
              ElementsAre("socket(AF_INET, SOCK_DGRAM, 0x0000)",
                          "socket(AF_INET, SOCK_STREAM, 0x0000)", "fopen(/proc/stat, r)",
                          "fopen(/proc/meminfo, r)", HasSubstr("port_basic_statistic_get_all")));
}

TEST_F(DevinfoTest, TextsOf64BytesAndMoreAreCut) {
  fake::set_nvram("product_sn", std::string(63, 's'));
  fake::set_nvram("product_model", std::string(64, 'm'));
  fake::set_nvram("product_description", std::string(255, 'd'));
  qel_devinfo_init();
  EXPECT_EQ(value(qel_info::sn), std::string(63, 's'));
  EXPECT_EQ(value(qel_info::model), std::string(63, 'm'));
  EXPECT_EQ(value(qel_info::sysname), std::string(63, 'd'));
  EXPECT_EQ(table()[5].first, "version");
}

TEST_F(DevinfoTest, SettingsThatAreUnsetAreEmpty) {
  fake::reset();
  qel_devinfo_init();
  EXPECT_EQ(value(qel_info::sn), "");
  EXPECT_EQ(table()[2].first, "sn");
}

TEST_F(DevinfoTest, SettingWithPercentSignsIsNoFormat) {
  fake::set_nvram("product_sn", "%s%n%d");
  qel_devinfo_init();
  EXPECT_EQ(value(qel_info::sn), "%s%n%d");
}

// Every text that the table takes out of the settings, as a restored archive may have left it.
TEST_F(DevinfoTest, SettingsAreCleanedWhenTheyAreRead) {
  const std::string hostile = "a\"},{\"b\\\x01\x1f\n c\x7f~\xc3\xa4";
  for (const char* key :
       {"product_sn", "product_hw_ver", "product_model", "firmware_ver", "product_description"}) {
    fake::set_nvram(key, hostile);
  }
  qel_devinfo_init();
  for (qel_info place : {qel_info::sn, qel_info::hw_ver, qel_info::model, qel_info::version,
                         qel_info::device_name, qel_info::sysname}) {
    EXPECT_EQ(value(place), "a},{b c~\xc3\xa4") << static_cast<size_t>(place);
  }
  fake::set_nvram("product_description", "\"\\\r");
  qel_devinfo_refresh();
  EXPECT_EQ(value(qel_info::sysname), "");
}

TEST_F(DevinfoTest, SettingIsCutAfterItIsCleaned) {
  fake::set_nvram("product_sn", std::string(100, '"') + std::string(70, 's'));
  qel_devinfo_init();
  EXPECT_EQ(value(qel_info::sn), std::string(63, 's'));
}

TEST_F(DevinfoTest, ManagementInterfaceWithoutAnAddressLeavesTheTextEmpty) {
  fake::net("vlanif1").ip.clear();
  stderr_of([] { qel_devinfo_init(); });
  EXPECT_EQ(value(qel_info::ip), "");
  EXPECT_EQ(table()[1].first, "ip");
}

// ---------------------------------------------------------------------------------------------
// Processor

struct CpuCase {
  const char* name;
  const char* stat;
  int percent;
};
void PrintTo(const CpuCase& one, std::ostream* stream) {
  *stream << one.name;
}

class CpuTest : public AgentTest, public testing::WithParamInterface<CpuCase> {};

TEST_P(CpuTest, Occupancy) {
  fake::set_file("/proc/stat", GetParam().stat);
  EXPECT_EQ(qel_cpu_occupancy_now(), GetParam().percent);
}

INSTANTIATE_TEST_SUITE_P(
    Counters, CpuTest,
    testing::Values(CpuCase{"WaitingCountsAsBusy", "cpu  100 0 100 700 100 0 0 0 0 0\n", 30},
                    CpuCase{"AllKindsCount", "cpu 1 2 3 80 4 5 6 9\n", 27},  // 30 of 110, cut
                    CpuCase{"FourCountersAreEnough", "cpu 10 10 20 60\n", 40},
                    CpuCase{"ThreeAreNot", "cpu 10 10 20\n", 0},
                    CpuCase{"NothingIdle", "cpu 5 0 0 0 0 0 0 0\n", 100},
                    CpuCase{"AllIdle", "cpu 0 0 0 9 0 0 0 0\n", 0},
                    CpuCase{"FractionIsCut", "cpu 999 0 0 1 0 0 0 0\n", 99},
                    CpuCase{"BeyondThirtyTwoBits", "cpu 5000000000 0 0 15000000000 0 0 0 0\n", 25},
                    CpuCase{"AnotherLine", "intr 1 2 3 4\n", 0}, CpuCase{"EmptyFile", "", 0},
                    CpuCase{"LineIsReadUpTo255Characters",
                            "cpu 10 10 20 60                                                    "
                            "                                                                   "
                            "                                                                   "
                            "                                                                   "
                            "          100 0 0 0\n",
                            40},
                    CpuCase{"AllZero", "cpu 0 0 0 0 0 0 0 0\n", 0}),
    [](const auto& case_info) { return case_info.param.name; });

TEST_F(AgentTest, CpuSampleHoldsCountersBusyAndTotal) {
  fake::set_file("/proc/stat", "cpu  1 2 3 4 5 6 7 8 9 10\n");
  qel_cpu_stat sample = {};
  qel_cpu_stat_read(&sample);
  EXPECT_EQ(sample.user, 1U);
  EXPECT_EQ(sample.nice, 2U);
  EXPECT_EQ(sample.system, 3U);
  EXPECT_EQ(sample.idle, 4U);
  EXPECT_EQ(sample.iowait, 5U);
  EXPECT_EQ(sample.irq, 6U);
  EXPECT_EQ(sample.softirq, 7U);
  EXPECT_EQ(sample.steal, 8U);
  EXPECT_EQ(sample.busy, 27U);
  EXPECT_EQ(sample.total, 36U);
}

TEST_F(AgentTest, CpuSampleIsNotCompletedFromThreeCounters) {
  fake::set_file("/proc/stat", "cpu 1 2 3\n");
  qel_cpu_stat sample = {};
  sample.busy = 77;
  sample.total = 99;
  sample.iowait = 55;
  qel_cpu_stat_read(&sample);
  EXPECT_EQ(sample.system, 3U);
  EXPECT_EQ(sample.iowait, 55U);
  EXPECT_EQ(sample.busy, 77U);
  EXPECT_EQ(sample.total, 99U);
}

TEST_F(AgentTest, CpuSampleStaysWhenTheFileCannotBeOpened) {
  fake::remove_file("/proc/stat");
  qel_cpu_stat sample = {};
  sample.user = 5;
  qel_cpu_stat_read(&sample);
  EXPECT_EQ(sample.user, 5U);
  EXPECT_EQ(qel_cpu_occupancy_now(), 0);
}

TEST_F(AgentTest, CountersThatWrapDoNotTrap) {
  // 2^64 - 1 busy and 5 idle are a total of 4, of which 5 are taken away: 2^64 - 1 of 4.
  fake::set_file("/proc/stat", "cpu 18446744073709551615 0 0 5 0 0 0 0\n");
  EXPECT_EQ(qel_cpu_occupancy_now(), INT32_MAX);
  // Too large a number counts as 2^64 - 1, and -1 is the same: with 1 and 5 the total is 4.
  fake::set_file("/proc/stat", "cpu 99999999999999999999999999999 1 -1 5\n");
  EXPECT_EQ(qel_cpu_occupancy_now(), INT32_MAX);
  // One number, cut at the line's 255 characters: three are missing.
  fake::set_file("/proc/stat", "cpu " + std::string(5000, '1') + "\n");
  EXPECT_EQ(qel_cpu_occupancy_now(), 0);
}

// ---------------------------------------------------------------------------------------------
// Memory

struct MemCase {
  const char* name;
  const char* meminfo;
  int percent;
};
void PrintTo(const MemCase& one, std::ostream* stream) {
  *stream << one.name;
}

class MemTest : public AgentTest, public testing::WithParamInterface<MemCase> {};

TEST_P(MemTest, Occupancy) {
  fake::set_file("/proc/meminfo", GetParam().meminfo);
  EXPECT_EQ(qel_mem_occupancy_now(), GetParam().percent);
}

INSTANTIATE_TEST_SUITE_P(
    Counters, MemTest,
    testing::Values(
        MemCase{"BuffersAndCacheCountAsUsed",
                "MemTotal: 131072 kB\nMemFree: 32768 kB\nBuffers: 50000 kB\nCached: 40000 kB\n",
                75},
        MemCase{"FractionIsCut", "MemTotal: 1000 kB\nMemFree: 1 kB\n", 99},
        MemCase{"OnlyTheTotal", "MemTotal: 1000 kB\n", 100},
        MemCase{"SecondLineOfAnotherNameIsNotFree",
                "MemTotal: 1000 kB\nMemAvailable: 500 kB\nMemFree: 400 kB\n", 100},
        MemCase{"RestOfALineOver63CharactersCountsAsTheNext",
                "MemTotal: 1000 kB                                                  \n"
                "MemFree: 400 kB\n",
                100},
        MemCase{"FirstLineOfAnotherName", "MemFree: 400 kB\nMemTotal: 1000 kB\n", 0},
        MemCase{"ZeroTotal", "MemTotal: 0 kB\nMemFree: 0 kB\n", 0}, MemCase{"EmptyFile", "", 0}),
    [](const auto& case_info) { return case_info.param.name; });

TEST_F(AgentTest, MemorySampleHoldsTheFirstFourLines) {
  fake::set_file("/proc/meminfo",
                 "MemTotal:       1000 kB\nMemFree:         200 kB\n"
                 "Buffers:          30 kB\nCached:            4 kB\nSwapCached: 9 kB\n");
  qel_mem_stat sample = {};
  qel_mem_stat_read(&sample);
  EXPECT_EQ(sample.MemTotal, 1000U);
  EXPECT_EQ(sample.MemFree, 200U);
  EXPECT_EQ(sample.Buffers, 30U);
  EXPECT_EQ(sample.Cached, 4U);
}

TEST_F(AgentTest, MemorySampleStaysWhenTheFileCannotBeOpened) {
  fake::remove_file("/proc/meminfo");
  qel_mem_stat sample = {};
  sample.MemFree = 5;
  qel_mem_stat_read(&sample);
  EXPECT_EQ(sample.MemFree, 5U);
  EXPECT_EQ(qel_mem_occupancy_now(), 0);
}

TEST_F(AgentTest, MoreFreeThanThereIsDoesNotTrap) {
  // 1 - 2 is 2^32 - 1, in percent of 1 more than an integer holds.
  fake::set_file("/proc/meminfo", "MemTotal: 1 kB\nMemFree: 2 kB\n");
  EXPECT_EQ(qel_mem_occupancy_now(), INT32_MAX);
  fake::set_file("/proc/meminfo", "MemTotal: 2000000 kB\nMemFree: 2000001 kB\n");
  EXPECT_EQ(qel_mem_occupancy_now(), 214748);
  // The lowest 32 bits count: 2^32 - 1 in all, and 4 of them used.
  fake::set_file("/proc/meminfo", "MemTotal: 99999999999999999999 kB\nMemFree: -5 kB\n");
  EXPECT_EQ(qel_mem_occupancy_now(), 0);
}

// ---------------------------------------------------------------------------------------------
// Uplinks

class UplinkTest : public DevinfoTest {
 protected:
  UplinkTest() {
    fake::add_ports(0);
    start();
    qel_port_of(uif_get_by_name("ge1"))->neighbour_type = 1;
    qel_port_of(uif_get_by_name("ge2"))->neighbour_type = 1;
  }

  static void statistics(const std::string& text) {
    fake::reply("statistics", "port_basic_statistic_get_all", text);
  }
};

TEST_F(UplinkTest, ModuleIsAskedWithoutData) {
  qel_uplink_tx_mb_get();
  EXPECT_THAT(fake::query_texts(),
              ElementsAre(R"({"mdl":"statistics","cmd":"port_basic_statistic_get_all"})"));
}

TEST_F(UplinkTest, LargestUplinkCountsInWholeMegabytes) {
  statistics(R"({"data":[{"name":"ge1","tx_bytes":5242879},{"name":"ge2","tx_bytes":3145728}]})");
  EXPECT_EQ(qel_uplink_tx_mb_get(), 4);
  EXPECT_EQ(value(qel_info::uplinkdatas), "4");
}

TEST_F(UplinkTest, PortsThatFaceNoSwitchDoNotCount) {
  qel_port_of(uif_get_by_name("ge1"))->neighbour_type = 2;
  qel_port_of(uif_get_by_name("ge2"))->neighbour_type = 0;
  statistics(R"({"data":[{"name":"ge1","tx_bytes":5242880},{"name":"ge2","tx_bytes":3145728}]})");
  EXPECT_EQ(qel_uplink_tx_mb_get(), 0);
  EXPECT_EQ(value(qel_info::uplinkdatas), "0");
}

TEST_F(UplinkTest, UnknownNamesAndInterfacesThatAreNoPortsAreSkipped) {
  statistics(
      R"({"data":[{"name":"ge99","tx_bytes":99999999},{"name":"vlanif1","tx_bytes":99999999},)"
      R"({"tx_bytes":99999999},{"name":7,"tx_bytes":99999999},3,null,)"
      R"({"name":"ge2","tx_bytes":2097152}]})");
  EXPECT_EQ(qel_uplink_tx_mb_get(), 2);
}

TEST_F(UplinkTest, MissingOrNegativeCountersAreNothing) {
  statistics(R"({"data":[{"name":"ge1"},{"name":"ge2","tx_bytes":-5242880}]})");
  EXPECT_EQ(qel_uplink_tx_mb_get(), 0);
}

TEST_F(UplinkTest, CounterBeyond32BitsIsPrintedWhole) {
  // 2^52 bytes are 2^32 megabytes: the table has all of it, the result its low 32 bits.
  statistics(R"({"data":[{"name":"ge1","tx_bytes":4503599629467648}]})");
  EXPECT_EQ(qel_uplink_tx_mb_get(), 2);
  EXPECT_EQ(value(qel_info::uplinkdatas), "4294967298");
}

class UplinkBadReply : public UplinkTest, public testing::WithParamInterface<const char*> {};

TEST_P(UplinkBadReply, GivesZero) {
  statistics(GetParam());
  qel_devinfo_set(qel_info::uplinkdatas, "%d", 9);
  EXPECT_EQ(qel_uplink_tx_mb_get(), 0);
  EXPECT_EQ(value(qel_info::uplinkdatas), "0");
}

INSTANTIATE_TEST_SUITE_P(Replies, UplinkBadReply,
                         testing::Values("", "no json", "{}", R"({"data":7})", R"({"data":{}})",
                                         R"({"data":[]})", R"([{"name":"ge1","tx_bytes":9437184}])",
                                         R"({"data":{"a":{"name":"ge1","tx_bytes":9437184}}})",
                                         R"({"data":[{"name":"ge1","tx_bytes":)"));

TEST_F(UplinkTest, EarlierReplyIsNotTakenForAMissingOne) {
  statistics(R"({"data":[{"name":"ge1","tx_bytes":5242880}]})");
  EXPECT_EQ(qel_uplink_tx_mb_get(), 5);
  fake::no_reply("statistics", "port_basic_statistic_get_all");
  EXPECT_EQ(qel_uplink_tx_mb_get(), 0);
}

// ---------------------------------------------------------------------------------------------
// Management address

using AddressTest = AgentTest;

TEST_F(DevinfoTest, AddressAndMaskAreDottedTexts) {
  char text[16] = {};
  EXPECT_EQ(qel_netif_ip_get("vlanif1", text), 0);
  EXPECT_STREQ(text, "192.168.1.10");
  EXPECT_EQ(qel_netif_mask_get("vlanif1", text), 0);
  EXPECT_STREQ(text, "255.255.255.0");
  EXPECT_THAT(fake::calls_of({"socket", "close"}),
              ElementsAre("socket(AF_INET, SOCK_DGRAM, 0x0000)", HasSubstr("close"),
                          "socket(AF_INET, SOCK_DGRAM, 0x0000)", HasSubstr("close")));
}

TEST_F(DevinfoTest, NullTextOnlyTestsTheInterface) {
  EXPECT_EQ(qel_netif_ip_get("vlanif1", nullptr), 0);
  EXPECT_EQ(qel_netif_mask_get("vlanif1", nullptr), 0);
  stderr_of([] { EXPECT_EQ(qel_netif_ip_get("nosuch0", nullptr), -1); });
}

TEST_F(DevinfoTest, AddressWithoutASocketIsToldAndFails) {
  fake::fail_os("socket", EMFILE);
  char text[16] = {};
  EXPECT_EQ(stdout_of([&] { EXPECT_EQ(qel_netif_ip_get("vlanif1", text), -1); }),
            "socket create failed!\r\n");
  EXPECT_STREQ(text, "");
}

TEST_F(DevinfoTest, InterfaceWithoutAnAddressIsToldAndFails) {
  fake::net("vlanif1").ip.clear();
  char text[16] = {};
  EXPECT_EQ(stderr_of([&] { EXPECT_EQ(qel_netif_mask_get("vlanif1", text), -1); }),
            "ioctl error!\n: Cannot assign requested address\n");
  EXPECT_STREQ(text, "");
  EXPECT_FALSE(fake::is_open(fake::last_socket(AF_INET)));
}

// ---------------------------------------------------------------------------------------------
// The probe

class ProbeTest : public DevinfoTest {
 protected:
  ProbeTest() {
    fake::set_file("/proc/stat", "cpu 7 0 0 93 0 0 0 0\n");
    fake::set_file("/proc/meminfo", "MemTotal: 100 kB\nMemFree: 59 kB\n");
    start();
  }
};

constexpr char kAnswer[] =
    R"({"mac":"0a1b2c3d4e5f","cmd":"answer","subcmd":"answer","data":{"mac":"0a1b2c3d4e5f",)"
    R"("sys_ip":"192.168.1.10","sys_mask":24,"name":"office-sw","model":"QM4410_MODEL",)"
    R"("type":"switch","uptime":3600,"hw_version":"V1.0","sw_version":"V2.1","active":1,)"
    R"("sys_active":0,"cpu":7,"mem":41,"ntick":12}})";

TEST_F(ProbeTest, AnswerGoesOutByteForByteWithItsClosingNul) {
  receive(R"({"mac":"gw","cmd":"probe","subcmd":"probe","data":{"ntick":12}})");
  ASSERT_THAT(fake::sent(), SizeIs(1));
  // 289 bytes of text and the NUL, 16 more in the length field.
  ASSERT_EQ(std::strlen(kAnswer), 289U);
  EXPECT_THAT(fake::sent()[0].bytes,
              BytesAre(bytes("\x02\x00\x5e\x10\x20\x30\x0a\x1b\x2c\x3d\x4e\x5f\x93\x03\x00\x00"
                             "\xba\xbe\x01\x32\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00") +
                       kAnswer + bytes("\0")));
}

TEST_F(ProbeTest, SenderIsRecordedAsGateway) {
  fake::set_uptime(500);
  receive(R"({"mac":"aa:bb:cc:dd:ee:ff","cmd":"probe","subcmd":"probe","data":{"ntick":12}})");
  EXPECT_STREQ(g_qel_gw[0].name, "aa:bb:cc:dd:ee:ff");
  EXPECT_EQ(g_qel_gw[0].active, 1U);
  EXPECT_EQ(g_qel_gw[0].ntick, 12U);
  EXPECT_EQ(g_qel_gw[0].last_seen, 500U);
  EXPECT_EQ(g_qel_gw[0].link.kind, 4U);
  EXPECT_EQ(g_qel_gw[0].link.fd, g_qel_dev.eth_fd);
}

TEST_F(ProbeTest, WithoutDataThereIsNoAnswerAndNoGateway) {
  receive(R"({"mac":"gw","cmd":"probe","subcmd":"probe"})");
  EXPECT_THAT(fake::sent(), IsEmpty());
  EXPECT_EQ(g_qel_gw[0].active, 0U);
}

std::string answer_to(const std::string& probe_data) {
  fake::clear_records();
  fake::receive_frame(
      g_qel_dev.eth_fd,
      gateway_frame(R"({"mac":"gw","cmd":"probe","subcmd":"probe","data":)" + probe_data + "}"));
  fake::run_reads();
  return fake::sent().empty() ? "" : sent_messages().front();
}

TEST_F(ProbeTest, TickIsEchoed) {
  EXPECT_THAT(answer_to(R"({"ntick":0})"), HasSubstr(R"("ntick":0}})"));
  EXPECT_THAT(answer_to(R"({"ntick":2147483647})"), HasSubstr(R"("ntick":2147483647}})"));
  EXPECT_THAT(answer_to(R"({"ntick":-5})"), HasSubstr(R"("ntick":-5}})"));
  EXPECT_THAT(answer_to("{}"), HasSubstr(R"("ntick":0}})"));
}

TEST_F(ProbeTest, TickThatIsNoNumberIsAnsweredAsZero) {
  EXPECT_THAT(answer_to(R"({"ntick":"12"})"), HasSubstr(R"("ntick":0}})"));
}

TEST_F(ProbeTest, FiguresAreTakenAfreshForEachProbe) {
  EXPECT_THAT(answer_to("{}"), HasSubstr(R"("cpu":7,"mem":41,)"));
  fake::set_file("/proc/stat", "cpu 50 0 0 50 0 0 0 0\n");
  fake::set_file("/proc/meminfo", "MemTotal: 100 kB\nMemFree: 10 kB\n");
  fake::set_sysinfo_uptime(7200);
  fake::set_nvram("product_description", "renamed");
  g_qel_dev.sys_active = 30;
  const std::string answer = answer_to("{}");
  EXPECT_THAT(answer, HasSubstr(R"("cpu":50,"mem":90,)"));
  EXPECT_THAT(answer, HasSubstr(R"("uptime":7200,)"));
  EXPECT_THAT(answer, HasSubstr(R"("name":"renamed",)"));
  EXPECT_THAT(answer, HasSubstr(R"("sys_active":30,)"));
}

TEST_F(ProbeTest, ModelAndVersionsAreThoseOfTheStart) {
  const auto set_product_texts = [](const std::string& when) {
    fake::set_nvram("product_model", "MODEL-" + when);
    fake::set_nvram("product_hw_ver", "HW-" + when);
    fake::set_nvram("firmware_ver", "SW-" + when);
  };
  set_product_texts("START");
  qel_devinfo_init();
  set_product_texts("LATER");
  fake::set_file("/proc/stat", "cpu 50 0 0 50 0 0 0 0\n");
  const std::string answer = answer_to("{}");
  EXPECT_THAT(answer, HasSubstr(R"("model":"MODEL-START",)"));
  EXPECT_THAT(answer, HasSubstr(R"("hw_version":"HW-START","sw_version":"SW-START",)"));
  EXPECT_THAT(answer, HasSubstr(R"("cpu":50,)")) << "taken afresh";
}

TEST_F(ProbeTest, StoredNameCannotWriteMembersOfTheAnswer) {
  fake::set_nvram("product_description", "x\",\"model\":\"forged\",\"y\":\"\\\n\x7f");
  const std::string answer = answer_to("{}");
  EXPECT_THAT(answer, HasSubstr(R"("name":"x,model:forged,y:","model":"QM4410_MODEL","type":)"));
}

TEST_F(ProbeTest, AddressIsThatOfTheMomentAndTheMaskItsPrefixLength) {
  fake::net("vlanif1").ip = "10.20.30.40";
  fake::net("vlanif1").mask = "255.255.252.0";
  EXPECT_THAT(answer_to("{}"), HasSubstr(R"("sys_ip":"10.20.30.40","sys_mask":22,)"));
}

TEST_F(ProbeTest, WithoutAnAddressTheTextIsEmpty) {
  fake::net("vlanif1").ip.clear();
  std::string answer;
  stderr_of([&] { answer = answer_to("{}"); });
  EXPECT_THAT(answer, HasSubstr(R"("sys_ip":"","sys_mask":0,)"));
}

TEST_F(ProbeTest, SystemMacIsInTheTextAndTheInterfacesMacInTheFrame) {
  fake::set_system_mac({0x00, 0xff, 0x0a, 0x00, 0x00, 0x01});
  fake::receive_frame(
      g_qel_dev.eth_fd,
      gateway_frame(R"({"cmd":"probe","subcmd":"probe","data":{}})", kGatewayMac, kGroup));
  fake::run_reads();
  ASSERT_THAT(fake::sent(), SizeIs(1));
  EXPECT_EQ(fake::sent()[0].bytes.substr(6, 6), bytes("\x0a\x1b\x2c\x3d\x4e\x5f"));
  EXPECT_THAT(sent_messages()[0],
              testing::StartsWith(R"({"mac":"00ff0a000001","cmd":"answer","subcmd":"answer",)"
                                  R"("data":{"mac":"00ff0a000001",)"));
}

TEST_F(ProbeTest, NameOfPlainTextIsInsertedAsItIs) {
  fake::set_nvram("product_description", "a'b/c %n {[:,]} \xc3\xa4\xff");
  EXPECT_THAT(answer_to("{}"), HasSubstr("\"name\":\"a'b/c %n {[:,]} \xc3\xa4\xff\",\"model\""));
}

TEST_F(ProbeTest, LongestSettingsAreAnsweredWhole) {
  fake::set_nvram("product_description", std::string(255, 'd'));
  EXPECT_THAT(answer_to("{}"), HasSubstr(R"("name":")" + std::string(255, 'd') + R"(",)"));
}

TEST_F(ProbeTest, SixtyProbesLeaveNothingBehind) {
  for (int i = 0; i < 60; ++i) {
    EXPECT_THAT(answer_to(R"({"ntick":12})"), SizeIs(290));
  }
}

// ---------------------------------------------------------------------------------------------
// System name

TEST_F(DevinfoTest, SystemNameIsReplaced) {
  fake::set_system_name("a much longer old name");
  EXPECT_EQ(qel_sys_name_set("new"), 0);
  EXPECT_EQ(fake::system_name(), "new");
  EXPECT_EQ(qel_sys_name_set(std::string(63, 'n').c_str()), 0);
  EXPECT_EQ(fake::system_name(), std::string(63, 'n'));
}

TEST_F(DevinfoTest, SystemNameThatIsNullTooLongOrNotPlainIsIgnored) {
  fake::set_system_name("old");
  for (const char* name : {"a\"b", "a\\", "a\nb", "\x7f"}) {
    EXPECT_EQ(qel_sys_name_set(name), 0);
  }
  EXPECT_EQ(qel_sys_name_set(nullptr), 0);
  EXPECT_EQ(qel_sys_name_set(std::string(64, 'n').c_str()), 0);
  EXPECT_EQ(fake::system_name(), "old");
  EXPECT_THAT(fake::calls_of({"sys_info_set"}), IsEmpty());
}

}  // namespace
