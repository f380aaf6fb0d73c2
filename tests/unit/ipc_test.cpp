// SPDX-License-Identifier: Apache-2.0
//
// The local event socket: how it is opened and read, what each event changes and what it leaves
// alone, and events that no honest daemon sends.
#include "qel/qel_ipc.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "qel/qel_devinfo.h"
#include "qel/qel_gw.h"
#include "qel/qel_main.h"
#include "qel/qel_table.h"
#include "tests/unit/hostile_texts.h"
#include "tests/unit/support.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;

constexpr char kNeighbour[] =
    R"({"type":"lldp_add","mac":"00:11:22:33:44:55","chassis_id":"00:11:22:33:44:00","local_interface":"ge1","vlan_id":"1","management_address":"192.168.1.20","time_to_live":"120","port_description":"eth0","system_name":"desk","system_description":"a desk","system_capability":"Station"})";
constexpr char kNeighbourReport[] =
    R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_client","data":{"ge1":{"client_state":"ON","client_mac":"001122334455","client_ip":"192.168.1.20","client_type":"UN"}}})";

// ---------------------------------------------------------------------------------------------
// Opening

using IpcSocketTest = AgentTest;

TEST_F(IpcSocketTest, IsADatagramSocketBoundToItsPathAndRead) {
  const int fd = qel_ipc_sock_init();
  EXPECT_EQ(fd, fake::last_socket(AF_UNIX));
  const std::string number = std::to_string(fd);
  EXPECT_THAT(fake::calls(),
              ElementsAre("socket(AF_UNIX, SOCK_DGRAM, 0x0000)", "unlink(/var/run/qel.udp)",
                          "bind(" + number + ", /var/run/qel.udp)",
                          "funcname_thread_add_read(qel_ipc_sock_read, " + number + ")"));
}

TEST_F(IpcSocketTest, PathOfAnotherProcessIsTakenOver) {
  fake::set_file("/var/run/qel.udp", "");
  qel_ipc_sock_init();
  EXPECT_EQ(fake::file("/var/run/qel.udp"), std::nullopt);
}

TEST_F(IpcSocketTest, PathThatIsNotThereIsNoFailure) {
  fake::fail_os("unlink", ENOENT);
  EXPECT_EQ(stderr_of([] { qel_ipc_sock_init(); }), "");
}

TEST_F(IpcSocketTest, SocketThatCannotBeMadeIsToldAndStartGoesOn) {
  fake::fail_os("socket", EMFILE);
  EXPECT_EQ(stderr_of([] { EXPECT_LT(qel_ipc_sock_init(), 0); }),
            "cannot create pmmanager fd.: Too many open files\n"
            "can not bind saddr: Bad file descriptor\n");
  EXPECT_THAT(fake::calls(), ElementsAre("socket(AF_UNIX, SOCK_DGRAM, 0x0000)",
                                         "unlink(/var/run/qel.udp)", "bind(-1, /var/run/qel.udp)",
                                         "funcname_thread_add_read(qel_ipc_sock_read, -1)"));
}

TEST_F(IpcSocketTest, PathThatCannotBeBoundIsToldAndTheSocketIsReadAnyway) {
  fake::fail_os("bind", EACCES);
  int fd = -1;
  EXPECT_EQ(stderr_of([&] { fd = qel_ipc_sock_init(); }),
            "can not bind saddr: Permission denied\n");
  EXPECT_EQ(fake::registered("qel_ipc_sock_read", fd), 1);
}

TEST_F(IpcSocketTest, RegistrationTellsItsSource) {
  const int fd = qel_ipc_sock_init();
  for (const fake::Registration& one : fake::registrations()) {
    if (one.fd == fd) {
      EXPECT_EQ(one.name, "qel_ipc_sock_read");
      EXPECT_EQ(one.file, "qel/qel_ipc");
      EXPECT_GT(one.line, 0);
    }
  }
}

// ---------------------------------------------------------------------------------------------
// A switch that hears events: ports ge1 to ge4 with link, and one gateway present.

class IpcTest : public AgentTest {
 protected:
  IpcTest() {
    fake::add_interface("vlanif1", 7);
    for (const char* name : {"ge1", "ge2", "ge3", "ge4"}) {
      fake::PortSpec spec;
      spec.link = 1;
      fake::add_port(name, spec);
    }
    start();
    fd_ = qel_ipc_sock_init();
    qel_link link = eth_link();
    qel_gw_update("gw", 1, &link);
    fake::clear_records();
  }

  // An event arrives and is read. What it printed is dropped.
  void event(std::string_view text) {
    fake::receive_local(fd_, text);
    stdout_of([] { fake::run_reads(); });
  }

  static qel_port& port(const char* name) { return *qel_port_of(uif_get_by_name(name)); }

  static void set_mac(const char* name, uint8_t last) {
    constexpr uint8_t kStart[5] = {0x00, 0x11, 0x22, 0x33, 0x44};
    std::copy(std::begin(kStart), std::end(kStart), port(name).client_mac);
    port(name).client_mac[5] = last;
  }

  static std::string mac_of(const char* name) {
    return hex(port(name).client_mac, sizeof qel_port::client_mac);
  }

  static std::string ip_of(const char* name) {
    in_addr address = {};
    address.s_addr = port(name).client_ip;
    return inet_ntoa(address);
  }

  // The whole of what events may change, as bytes.
  static std::string state() {
    std::string all;
    for (const char* name : {"ge1", "ge2", "ge3", "ge4"}) {
      all += hex(&port(name), sizeof(qel_port)) + "\n";
    }
    all += qel_devinfo_value(qel_info::poeoccu);
    return all + "\n" + std::to_string(g_qel_dev.enable);
  }

  // The event changed nothing, asked nobody, told nobody.
  void expect_no_effect(const std::string& text) {
    const std::string before = state();
    fake::clear_records();
    event(text);
    EXPECT_EQ(state(), before) << text.substr(0, 200);
    EXPECT_THAT(fake::sent(), IsEmpty());
    EXPECT_THAT(fake::queries(), IsEmpty());
    EXPECT_THAT(fake::nvram_writes(), IsEmpty());
    EXPECT_THAT(fake::shell_commands(), IsEmpty());
    EXPECT_THAT(fake::calls_of({"config_save", "hal_qel_enable"}), IsEmpty());
  }

  // The agent still reads its socket and understands a good event.
  void expect_alive() {
    EXPECT_EQ(fake::registered("qel_ipc_sock_read", fd_), 1);
    fake::clear_records();
    event(kNeighbour);
    EXPECT_THAT(sent_messages(), ElementsAre(kNeighbourReport));
  }

  int fd_ = -1;

 private:
  static std::string hex(const void* data, size_t size) {
    static constexpr char kDigits[] = "0123456789abcdef";
    const auto* bytes = static_cast<const uint8_t*>(data);
    std::string text;
    for (size_t i = 0; i < size; ++i) {
      text += kDigits[bytes[i] >> 4];
      text += kDigits[bytes[i] & 0x0f];
    }
    return text;
  }
};

// ---------------------------------------------------------------------------------------------
// Reading and dispatch

TEST_F(IpcTest, EachDatagramIsOneEvent) {
  fake::receive_local(fd_, R"({"type":"poe_update","pwroccu":1})");
  fake::receive_local(fd_, R"({"type":"poe_update","pwroccu":2})");
  ASSERT_TRUE(fake::fire_read(fd_));
  EXPECT_STREQ(qel_devinfo_value(qel_info::poeoccu), "1");
  EXPECT_EQ(fake::registered("qel_ipc_sock_read", fd_), 1);
  ASSERT_TRUE(fake::fire_read(fd_));
  EXPECT_STREQ(qel_devinfo_value(qel_info::poeoccu), "2");
}

TEST_F(IpcTest, ReadIsRegisteredAgainAfterAnError) {
  for (int error : {EAGAIN, EINTR, ENOMEM}) {
    fake::receive_error(fd_, error);
    EXPECT_EQ(stderr_of([] { EXPECT_EQ(fake::run_reads(), 1); }), "");
    EXPECT_EQ(fake::registered("qel_ipc_sock_read", fd_), 1);
  }
  expect_alive();
}

TEST_F(IpcTest, ReadIsRegisteredAgainAfterAnEmptyDatagram) {
  expect_no_effect("");
  expect_alive();
}

TEST_F(IpcTest, TextEndsAtTheReceivedLength) {
  event(R"({"type":"poe_update","pwroccu":7})");
  qel_ipc_cmd_handle(R"({"type":"poe_update","pwroccu":1})");
  expect_no_effect(R"({"type":"poe_update")");  // whole only with the end of the one before it
}

TEST_F(IpcTest, EventOf65535BytesIsReadWhole) {
  std::string text = R"({"type":"poe_update","pwroccu":42,"pad":")";
  text += std::string(65535 - text.size() - 2, 'x') + "\"}";
  ASSERT_EQ(text.size(), 65535U);
  event(text);
  EXPECT_STREQ(qel_devinfo_value(qel_info::poeoccu), "42");
}

TEST_F(IpcTest, EventLongerThan65535BytesIsCutAndThenNoJson) {
  std::string text = R"({"type":"poe_update","pwroccu":42,"pad":")";
  text += std::string(65536 - text.size() - 2, 'x') + "\"}";
  expect_no_effect(text);
  expect_alive();
}

TEST_F(IpcTest, TypeIsTracedWithTheGatewayBit) {
  g_qel_dev.debug = 4;
  event(R"({"type":"lldp_del"})");
  event(R"({"type":"%s%n nonsense"})");
  EXPECT_THAT(fake::console(), ElementsAre("[qel_ipc_cmd_handle,370] typestr[lldp_del] \n",
                                           "[qel_ipc_cmd_handle,370] typestr[%s%n nonsense] \n"));
}

TEST_F(IpcTest, NothingIsTracedWithoutTheBitOrWithoutAType) {
  g_qel_dev.debug = 255 - 4;
  event(R"({"type":"lldp_del"})");
  g_qel_dev.debug = 4;
  event(R"({"typ":"lldp_del"})");
  event(R"({"type":1})");
  event("nonsense");
  EXPECT_THAT(fake::console(), IsEmpty());
}

TEST_F(IpcTest, TypesOutsideTheTableAreIgnored) {
  const std::string rest = std::string(kNeighbour).substr(std::strlen(R"({"type":"lldp_add")"));
  for (const char* type : {"LLDP_ADD", "lldp_add ", "lldp_ad", "lldp_addx", "", "lldp"}) {
    expect_no_effect(R"({"type":")" + std::string(type) + "\"" + rest);
  }
}

TEST_F(IpcTest, HandlerOfTextsAlwaysGivesZero) {
  for (const char* text : {"", "x", "{}", R"({"type":"lldp_add"})", R"({"type":"lldp_del"})"}) {
    EXPECT_EQ(qel_ipc_cmd_handle(text), 0) << text;
  }
}

// ---------------------------------------------------------------------------------------------
// lldp_add

TEST_F(IpcTest, NeighbourIsStoredOnItsPortAndReported) {
  event(kNeighbour);
  EXPECT_EQ(mac_of("ge1"), "001122334455");
  EXPECT_EQ(ip_of("ge1"), "192.168.1.20");
  EXPECT_EQ(port("ge1").client_time, 3600U);
  EXPECT_EQ(port("ge1").lldp_seen, 1);
  EXPECT_EQ(port("ge1").neighbour_type, 0);
  EXPECT_THAT(sent_messages(), ElementsAre(kNeighbourReport));
}

TEST_F(IpcTest, NeighbourNeedsNoMoreThanMacAndPort) {
  EXPECT_EQ(
      qel_ipc_handle_lldp_add(
          qel_cjson_tree(cJSON_Parse(R"({"mac":"00:11:22:33:44:55","local_interface":"ge2"})"))
              .get()),
      0);
  EXPECT_EQ(mac_of("ge2"), "001122334455");
  EXPECT_EQ(ip_of("ge2"), "0.0.0.0");
  EXPECT_THAT(
      sent_messages(),
      ElementsAre(
          R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_client","data":{"ge2":{"client_state":"ON","client_mac":"001122334455","client_ip":"0.0.0.0","client_type":"UN"}}})"));
}

TEST_F(IpcTest, NeighbourIsReportedEachTimeChangedOrNot) {
  for (int i = 0; i < 3; ++i) {
    event(kNeighbour);
  }
  EXPECT_THAT(sent_messages(), ElementsAre(kNeighbourReport, kNeighbourReport, kNeighbourReport));
}

TEST_F(IpcTest, NeighbourIsReportedToEveryPresentGatewayAndToNoOther) {
  qel_link second = udp_link();
  qel_gw_update("second", 1, &second);
  event(kNeighbour);
  EXPECT_THAT(sent_messages(), ElementsAre(kNeighbourReport, kNeighbourReport));
  EXPECT_EQ(fake::sent()[1].ip(), "192.168.1.99");
  fake::clear_records();
  for (qel_gw& one : g_qel_gw) {
    one.active = 0;
  }
  event(kNeighbour);
  EXPECT_THAT(fake::sent(), IsEmpty());
  EXPECT_EQ(mac_of("ge1"), "001122334455");
}

TEST_F(IpcTest, NeighbourOnAPortWithoutLinkIsReportedOff) {
  uif_get_by_name("ge1")->link = 0;
  event(kNeighbour);
  ASSERT_THAT(sent_messages(), SizeIs(1));
  EXPECT_THAT(sent_messages()[0], HasSubstr(R"("ge1":{"client_state":"OFF","client_mac")"));
}

TEST_F(IpcTest, NeighboursTimeIsThatOfItsLastEvent) {
  event(kNeighbour);
  fake::set_uptime(5000);
  event(kNeighbour);
  EXPECT_EQ(port("ge1").client_time, 5000U);
}

TEST_F(IpcTest, AnotherNeighbourTakesTheOldOnesPlace) {
  event(kNeighbour);
  event(R"({"type":"lldp_add","mac":"02:02:02:02:02:02","local_interface":"ge1"})");
  EXPECT_EQ(mac_of("ge1"), "020202020202");
  EXPECT_EQ(ip_of("ge1"), "192.168.1.20");  // no address came, so the old one stays
}

TEST_F(IpcTest, NeighbourThatMovesVanishesFromItsOldPort) {
  event(kNeighbour);
  event(R"({"type":"lldp_add","mac":"00:11:22:33:44:55","local_interface":"ge2"})");
  EXPECT_EQ(port("ge1").client_time, 0U);
  EXPECT_EQ(mac_of("ge1"), "000000000000");
  EXPECT_EQ(ip_of("ge1"), "192.168.1.20");
  EXPECT_EQ(port("ge1").lldp_seen, 1);
  EXPECT_EQ(port("ge2").client_time, 3600U);
  EXPECT_EQ(mac_of("ge2"), "001122334455");
  ASSERT_THAT(sent_messages(), SizeIs(2));
  EXPECT_THAT(sent_messages()[1], HasSubstr(R"({"ge2":{"client_state":"ON")"));
}

TEST_F(IpcTest, NeighbourThatMovesVanishesFromEveryPortThatHadIt) {
  for (const char* name : {"ge2", "ge3", "ge4"}) {
    set_mac(name, 0x55);
    port(name).client_time = 7;
  }
  event(kNeighbour);
  for (const char* name : {"ge2", "ge3", "ge4"}) {
    EXPECT_EQ(port(name).client_time, 0U) << name;
    EXPECT_EQ(mac_of(name), "000000000000") << name;
  }
}

TEST_F(IpcTest, PortsWithoutAClientOrWithAnotherOneAreLeftAlone) {
  set_mac("ge2", 0x55);  // learnt by ARP only
  set_mac("ge3", 0x56);
  port("ge3").client_time = 7;
  event(kNeighbour);
  EXPECT_EQ(mac_of("ge2"), "001122334455");
  EXPECT_EQ(mac_of("ge3"), "001122334456");
  EXPECT_EQ(port("ge3").client_time, 7U);
}

struct MacCase {
  const char* name;
  const char* text;
  const char* stored;
};

class IpcMacTest : public IpcTest, public testing::WithParamInterface<MacCase> {};

TEST_P(IpcMacTest, IsConverted) {
  std::memset(port("ge1").client_mac, 0xee, 6);
  event(R"({"type":"lldp_add","local_interface":"ge1","mac":")" + std::string(GetParam().text) +
        R"("})");
  EXPECT_EQ(mac_of("ge1"), GetParam().stored);
  EXPECT_THAT(fake::sent(), SizeIs(1));
}

INSTANTIATE_TEST_SUITE_P(Texts, IpcMacTest,
                         testing::Values(MacCase{"UpperCase", "AA:BB:CC:DD:EE:FF", "aabbccddeeff"},
                                         MacCase{"Hyphens", "aa-bb-cc-dd-ee-ff", "aabbccddeeff"},
                                         MacCase{"NoSeparators", "aabbccddeeff", "aabbccddeeff"},
                                         MacCase{"Empty", "", "000000000000"},
                                         MacCase{"TooShort", "aa:bb", "000000000000"},
                                         MacCase{"NoDigits", "zz:zz:zz:zz:zz:zz", "000000000000"}),
                         [](const auto& case_info) { return case_info.param.name; });

struct AddressCase {
  const char* name;
  const char* text;
  const char* lldp;  // what a neighbour's address becomes
  const char* arp;   // what a client's becomes
};

class IpcAddressTest : public IpcTest, public testing::WithParamInterface<AddressCase> {};

TEST_P(IpcAddressTest, OfANeighbourIsConvertedAndTheInvalidOneIsZero) {
  port("ge1").client_ip = htonl(0x01020304);
  event(R"({"type":"lldp_add","local_interface":"ge1","mac":"00:11:22:33:44:55",)"
        R"("management_address":")" +
        std::string(GetParam().text) + R"("})");
  EXPECT_EQ(ip_of("ge1"), GetParam().lldp);
}

TEST_P(IpcAddressTest, OfAClientIsConvertedUnchecked) {
  port("ge1").client_ip = htonl(0x01020304);
  event(R"({"type":"arpsnoop_add","port":"ge1","mac":"00:11:22:33:44:55","ip":")" +
        std::string(GetParam().text) + R"("})");
  EXPECT_EQ(ip_of("ge1"), GetParam().arp);
}

INSTANTIATE_TEST_SUITE_P(
    Addresses, IpcAddressTest,
    testing::Values(AddressCase{"Good", "10.20.30.40", "10.20.30.40", "10.20.30.40"},
                    AddressCase{"Zero", "0.0.0.0", "0.0.0.0", "0.0.0.0"},
                    AddressCase{"Broadcast", "255.255.255.255", "0.0.0.0", "255.255.255.255"},
                    AddressCase{"NoAddress", "printer", "0.0.0.0", "255.255.255.255"},
                    AddressCase{"OutOfRange", "1.2.3.256", "0.0.0.0", "255.255.255.255"},
                    AddressCase{"Empty", "", "0.0.0.0", "255.255.255.255"},
                    AddressCase{"VersionSix", "fe80::1", "0.0.0.0", "255.255.255.255"}),
    [](const auto& case_info) { return case_info.param.name; });

struct CapabilityCase {
  const char* name;
  const char* members;
  uint8_t stored;
};

class IpcCapabilityTest : public IpcTest, public testing::WithParamInterface<CapabilityCase> {};

TEST_P(IpcCapabilityTest, DecidesTheNeighboursType) {
  port("ge1").neighbour_type = 2;
  event(R"({"type":"lldp_add","local_interface":"ge1","mac":"00:11:22:33:44:55")" +
        std::string(GetParam().members) + "}");
  EXPECT_EQ(port("ge1").neighbour_type, GetParam().stored);
}

INSTANTIATE_TEST_SUITE_P(
    Texts, IpcCapabilityTest,
    testing::Values(CapabilityCase{"Switch", R"(,"system_capability":"Bridge, Switch")", 1},
                    CapabilityCase{"Terminal", R"(,"system_capability":"Windows switch")", 2},
                    CapabilityCase{"NoKeyword", R"(,"system_capability":"Router")", 0},
                    CapabilityCase{"Empty", R"(,"system_capability":"")", 0},
                    CapabilityCase{"MissingLeavesIt", "", 2},
                    CapabilityCase{"WrongTypeLeavesIt", R"(,"system_capability":1)", 2},
                    CapabilityCase{"DescriptionIsNotSearched",
                                   R"(,"system_description":"Switch","system_capability":"x")", 0},
                    CapabilityCase{"DescriptionAloneLeavesIt", R"(,"system_description":"Switch")",
                                   2}),
    [](const auto& case_info) { return case_info.param.name; });

TEST_F(IpcTest, NeighbourThatIsASwitchIsReportedAsOne) {
  event(
      R"({"type":"lldp_add","local_interface":"ge1","mac":"00:11:22:33:44:55","system_capability":"Switch"})");
  ASSERT_THAT(sent_messages(), SizeIs(1));
  EXPECT_THAT(sent_messages()[0], HasSubstr(R"("client_type":"SW")"));
}

TEST_F(IpcTest, NeighbourWithoutMacOrPortIsDropped) {
  for (const char* text :
       {R"({"type":"lldp_add","local_interface":"ge1"})",
        R"({"type":"lldp_add","mac":"00:11:22:33:44:55"})",
        R"({"type":"lldp_add","mac":7,"local_interface":"ge1"})",
        R"({"type":"lldp_add","mac":"00:11:22:33:44:55","local_interface":["ge1"]})"}) {
    expect_no_effect(text);
    const qel_cjson_tree msg(cJSON_Parse(text));
    EXPECT_EQ(qel_ipc_handle_lldp_add(msg.get()), -1) << text;
  }
}

TEST_F(IpcTest, NeighbourOnAPortThatIsNotKnownIsSkipped) {
  event(kNeighbour);
  for (const char* name : {"ge9", "", "vlanif1", "GE1"}) {
    expect_no_effect(R"({"type":"lldp_add","mac":"00:11:22:33:44:55","local_interface":")" +
                     std::string(name) + R"("})");
  }
}

using IpcDeathTest = IpcTest;

TEST_F(IpcDeathTest, NullNodeIsABrokenInvariant) {
  fake::add_null_interface();
  EXPECT_DEATH(qel_ipc_cmd_handle(kNeighbour),
               "\\(node\\)->data != \\(\\(void \\*\\)0\\), file qel/qel_ipc, line [0-9]+, "
               "function qel_ipc_handle_lldp_add");
}

TEST_F(IpcTest, NeighbourOnAPortThatCameLaterIsSkipped) {
  fake::add_port("ge5");
  expect_no_effect(R"({"type":"lldp_add","mac":"00:11:22:33:44:55","local_interface":"ge5"})");
}

// ---------------------------------------------------------------------------------------------
// arpsnoop_add, dhcpsnoop_add, the deletions, onvif_discover

constexpr char kArp[] =
    R"({"type":"arpsnoop_add","mac":"0c:0c:0c:0c:0c:0c","ip":"192.168.1.77","port":"ge3"})";

TEST_F(IpcTest, ArpStoresMacAndAddressAndNothingElse) {
  port("ge3").lldp_seen = 0;
  event(kArp);
  EXPECT_EQ(mac_of("ge3"), "0c0c0c0c0c0c");
  EXPECT_EQ(ip_of("ge3"), "192.168.1.77");
  EXPECT_EQ(port("ge3").client_time, 0U);
  EXPECT_EQ(port("ge3").lldp_seen, 0);
  EXPECT_EQ(port("ge3").neighbour_type, 0);
  EXPECT_THAT(fake::sent(), IsEmpty());
}

TEST_F(IpcTest, WhatArpStoredStandsInThePortsNextReport) {
  event(kNeighbour);
  event(R"({"type":"arpsnoop_add","mac":"0c:0c:0c:0c:0c:0c","ip":"192.168.1.77","port":"ge1"})");
  fake::clear_records();
  receive(R"({"cmd":"get","subcmd":"ports_client","mac":"gw","data":{}})");
  ASSERT_THAT(sent_messages(), SizeIs(4));
  EXPECT_EQ(
      sent_messages()[0],
      R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_client","data":{"ge1":{"client_state":"ON","client_mac":"0c0c0c0c0c0c","client_ip":"192.168.1.77","client_type":"UN"}}})");
}

TEST_F(IpcTest, ArpWithoutMacOrAddressLeavesWhatThatWouldHaveSet) {
  event(kArp);
  event(R"({"type":"arpsnoop_add","ip":"10.1.2.3","port":"ge3"})");
  EXPECT_EQ(mac_of("ge3"), "0c0c0c0c0c0c");
  EXPECT_EQ(ip_of("ge3"), "10.1.2.3");
  event(R"({"type":"arpsnoop_add","mac":"0d:0d:0d:0d:0d:0d","port":"ge3"})");
  EXPECT_EQ(mac_of("ge3"), "0d0d0d0d0d0d");
  EXPECT_EQ(ip_of("ge3"), "10.1.2.3");
}

TEST_F(IpcTest, ArpBehindASwitchIsIgnored) {
  event(
      R"({"type":"lldp_add","local_interface":"ge3","mac":"00:11:22:33:44:55","system_capability":"Switch"})");
  expect_no_effect(kArp);
}

TEST_F(IpcTest, ArpBehindATerminalCounts) {
  port("ge3").neighbour_type = 2;
  event(kArp);
  EXPECT_EQ(mac_of("ge3"), "0c0c0c0c0c0c");
}

TEST_F(IpcTest, ArpOnAPortThatIsNotKnownIsSkipped) {
  for (const char* port : {R"(,"port":"ge9")", R"(,"port":"vlanif1")", R"(,"port":3)", ""}) {
    expect_no_effect(R"({"type":"arpsnoop_add","mac":"0c:0c:0c:0c:0c:0c","ip":"192.168.1.77")" +
                     std::string(port) + "}");
  }
}

TEST_F(IpcTest, EventsThatOnlyTellChangeNothing) {
  event(kNeighbour);
  for (
      const char* rest :
      {R"("dhcpsnoop_add","mac":"00:11:22:33:44:55","ip":"1.2.3.4","port":"ge1","bind":"1"})",
       R"("dhcpsnoop_add"})",
       R"("onvif_discover","data":[{"ip":"1.2.3.4","mac":"00:11:22:33:44:55","author":"a","hardware":"h"}]})",
       R"("onvif_discover","data":{}})", R"("onvif_discover"})"}) {
    expect_no_effect(R"({"type":)" + std::string(rest));
  }
}

TEST_F(IpcTest, DeletionsChangeNothing) {
  event(kNeighbour);
  for (const char* type : {"lldp_del", "dhcpsnoop_del", "arpsnoop_del"}) {
    expect_no_effect(
        R"({"type":")" + std::string(type) +
        R"(","mac":"00:11:22:33:44:55","local_interface":"ge1","port":"ge1","ip":"192.168.1.20"})");
  }
}

// ---------------------------------------------------------------------------------------------
// poe_update

TEST_F(IpcTest, PoeFiguresAreStoredForEachPort) {
  event(
      R"({"type":"poe_update","pwroccu":37,"data":[{"name":"ge2","power":15400,"power_max":30000,"poe_priority":2},{"name":"ge4","power":1,"power_max":2,"poe_priority":3}]})");
  EXPECT_EQ(port("ge2").power, 15400U);
  EXPECT_EQ(port("ge2").power_max, 30000U);
  EXPECT_EQ(port("ge2").poe_priority, 2);
  EXPECT_EQ(port("ge4").power, 1U);
  EXPECT_EQ(port("ge4").power_max, 2U);
  EXPECT_EQ(port("ge4").poe_priority, 3);
  EXPECT_STREQ(qel_devinfo_value(qel_info::poeoccu), "37");
  EXPECT_THAT(fake::sent(), IsEmpty());
}

TEST_F(IpcTest, PoeOccupancyWritesKeyAndValue) {
  qel_info_entry& entry = g_qel_info[static_cast<size_t>(qel_info::poeoccu)];
  std::memset(&entry, 0, sizeof entry);
  event(R"({"type":"poe_update","pwroccu":100})");
  EXPECT_STREQ(entry.key, "poeoccu");
  EXPECT_STREQ(entry.value, "100");
}

TEST_F(IpcTest, PoeOccupancyIsZeroUnlessItIsANumber) {
  for (const char* member : {"", R"(,"pwroccu":"55")", R"(,"pwroccu":null)", R"(,"pwroccu":[5])"}) {
    event(R"({"type":"poe_update","pwroccu":9})");
    event(R"({"type":"poe_update")" + std::string(member) + "}");
    EXPECT_STREQ(qel_devinfo_value(qel_info::poeoccu), "0") << member;
  }
  event(R"({"type":"poe_update","pwroccu":-3})");
  EXPECT_STREQ(qel_devinfo_value(qel_info::poeoccu), "-3");
}

TEST_F(IpcTest, UnknownPortEndsThePoeWalkAndTheOccupancyIsStoredAnyway) {
  event(
      R"({"type":"poe_update","pwroccu":50,"data":[{"name":"ge1","power":1},{"name":"ge9","power":2},{"name":"ge3","power":3}]})");
  EXPECT_EQ(port("ge1").power, 1U);
  EXPECT_EQ(port("ge3").power, 0U);
  EXPECT_STREQ(qel_devinfo_value(qel_info::poeoccu), "50");
}

TEST_F(IpcTest, PoeRowsWithoutANameAreSkipped) {
  event(
      R"({"type":"poe_update","data":[{"power":1},{"name":5},null,7,"ge1",[{"name":"ge2"}],{"name":"ge3","power":3}]})");
  EXPECT_EQ(port("ge1").power, 0U);
  EXPECT_EQ(port("ge3").power, 3U);
}

TEST_F(IpcTest, PoeRowOfAKnownInterfaceThatIsNoPortIsSkipped) {
  event(R"({"type":"poe_update","data":[{"name":"vlanif1","power":1},{"name":"ge3","power":3}]})");
  EXPECT_EQ(port("ge3").power, 3U);
}

TEST_F(IpcTest, PoeFiguresThatAreMissingAreZero) {
  port("ge1").power = port("ge1").power_max = 9;
  port("ge1").poe_priority = 9;
  event(R"({"type":"poe_update","data":[{"name":"ge1","power":"5","power_max":null}]})");
  EXPECT_EQ(port("ge1").power, 0U);
  EXPECT_EQ(port("ge1").power_max, 0U);
  EXPECT_EQ(port("ge1").poe_priority, 0);
}

TEST_F(IpcTest, PoePriorityKeepsItsLowestEightBits) {
  struct Case {
    const char* given;
    uint8_t stored;
  };
  for (const Case& one : {Case{"255", 255}, Case{"256", 0}, Case{"257", 1}, Case{"-1", 255}}) {
    event(R"({"type":"poe_update","data":[{"name":"ge1","poe_priority":)" + std::string(one.given) +
          "}]}");
    EXPECT_EQ(port("ge1").poe_priority, one.stored) << one.given;
  }
}

TEST_F(IpcTest, PoePowerIsTakenAsAnUnsignedInteger) {
  event(R"({"type":"poe_update","data":[{"name":"ge1","power":-1,"power_max":1e300}]})");
  EXPECT_EQ(port("ge1").power, 4294967295U);
  EXPECT_EQ(port("ge1").power_max, 2147483647U);
}

TEST_F(IpcTest, PoeUpdateOfTenThousandRowsInOneDatagram) {
  std::string text = R"({"type":"poe_update","pwroccu":12,"data":[)";
  for (int i = 0; i < 9999; ++i) {
    text += "{},";
  }
  event(text + R"({"name":"ge4","power":44}]})");
  EXPECT_EQ(port("ge4").power, 44U);
  EXPECT_STREQ(qel_devinfo_value(qel_info::poeoccu), "12");
  expect_alive();
}

TEST_F(IpcTest, PoeUpdateOfTenThousandWholeRows) {
  std::string text = R"({"type":"poe_update","pwroccu":13,"data":[)";
  for (int i = 0; i < 10000; ++i) {
    text += R"({"name":"ge)" + std::to_string(i % 4 + 1) + R"(","power":)" + std::to_string(i) +
            R"(,"power_max":30000,"poe_priority":1},)";
  }
  text.back() = ']';
  qel_ipc_cmd_handle((text + "}").c_str());
  EXPECT_EQ(port("ge1").power, 9996U);
  EXPECT_EQ(port("ge4").power, 9999U);
  EXPECT_STREQ(qel_devinfo_value(qel_info::poeoccu), "13");
}

// ---------------------------------------------------------------------------------------------
// cldm_conf

TEST_F(IpcTest, AgentIsSwitchedAndTheConfigurationSaved) {
  for (const char* value : {"0", "1"}) {
    fake::clear_records();
    event(R"({"type":"cldm_conf","qel_enable":)" + std::string(value) + "}");
    EXPECT_EQ(std::to_string(g_qel_dev.enable), value);
    EXPECT_THAT(fake::calls_of({"nvram_set", "hal_", "config_save"}),
                ElementsAre("nvram_set_int_temp(qel_enable, " + std::string(value) + ")",
                            "hal_qel_enable(" + std::string(value) + ")", "config_save()"));
  }
  EXPECT_THAT(fake::sent(), IsEmpty());
}

TEST_F(IpcTest, SwitchThatIsNeitherOnNorOffIsHandedOnAsItIs) {
  event(R"({"type":"cldm_conf","qel_enable":5})");
  EXPECT_EQ(g_qel_dev.enable, 5U);
  EXPECT_THAT(
      fake::calls_of({"nvram_set", "hal_", "config_save"}),
      ElementsAre("nvram_set_int_temp(qel_enable, 5)", "hal_qel_enable(5)", "config_save()"));
  fake::clear_records();
  event(R"({"type":"cldm_conf","qel_enable":-1})");
  EXPECT_EQ(g_qel_dev.enable, 4294967295U);
  EXPECT_THAT(
      fake::calls_of({"nvram_set", "hal_", "config_save"}),
      ElementsAre("nvram_set_int_temp(qel_enable, -1)", "hal_qel_enable(-1)", "config_save()"));
}

TEST_F(IpcTest, SwitchThatIsNoNumberIsIgnored) {
  for (const char* member :
       {"", R"(,"qel_enable":"1")", R"(,"qel_enable":"0")", R"(,"qel_enable":null)",
        R"(,"qel_enable":false)", R"(,"qel_enable":[1])", R"(,"qel_enable":{"qel_enable":1})"}) {
    for (const uint32_t before : {0U, 1U}) {
      g_qel_dev.enable = before;
      expect_no_effect(R"({"type":"cldm_conf")" + std::string(member) + "}");
    }
  }
}

TEST_F(IpcTest, SwitchThatIsTrueIsOn) {
  g_qel_dev.enable = 0;
  event(R"({"type":"cldm_conf","qel_enable":true})");
  EXPECT_EQ(g_qel_dev.enable, 1U);
}

TEST_F(IpcTest, ConfigurationThatCannotBeSavedIsNoHindrance) {
  fake::fail_platform("config_save");
  event(R"({"type":"cldm_conf","qel_enable":0})");
  EXPECT_EQ(g_qel_dev.enable, 0U);
  expect_alive();
}

// ---------------------------------------------------------------------------------------------
// The camera discovery

TEST_F(IpcTest, CameraDiscoveryRunsOnEveryThirtiethCall) {
  for (int i = 0; i < 29; ++i) {
    qel_ipc_onvif_trigger();
  }
  EXPECT_THAT(fake::shell_commands(), IsEmpty());
  qel_ipc_onvif_trigger();
  EXPECT_THAT(fake::shell_commands(), ElementsAre("onvif"));
  for (int i = 0; i < 30; ++i) {
    EXPECT_THAT(fake::shell_commands(), SizeIs(1));
    qel_ipc_onvif_trigger();
  }
  EXPECT_THAT(fake::shell_commands(), ElementsAre("onvif", "onvif"));
}

// ---------------------------------------------------------------------------------------------
// Events that no honest daemon sends

struct HostileEvent {
  const char* name;
  std::string text;
};

std::string all_bytes() {
  std::string text;
  for (int byte = 0; byte < 256; ++byte) {
    text += static_cast<char>(byte);
  }
  return text;
}

std::string nested(int depth, const char* open, const char* close) {
  return R"({"type":"lldp_add","mac":)" + repeated(open, depth) + "1" + repeated(close, depth) +
         R"(,"local_interface":"ge1"})";
}

class HostileEventTest : public IpcTest, public testing::WithParamInterface<HostileEvent> {};

TEST_P(HostileEventTest, ChangesNothingAndTheNextGoodEventCounts) {
  expect_no_effect(GetParam().text);
  expect_alive();
}

TEST_P(HostileEventTest, IsSurvivedWithAllTracesOn) {
  g_qel_dev.debug = 255;
  event(GetParam().text);
  g_qel_dev.debug = 0;
  expect_alive();
}

INSTANTIATE_TEST_SUITE_P(
    Events, HostileEventTest,
    testing::Values(
        HostileEvent{"Empty", ""}, HostileEvent{"OneNul", std::string(1, '\0')},
        HostileEvent{"Binary", all_bytes()},
        HostileEvent{"BinaryBackwards",
                     [] {
                       const std::string text = all_bytes();
                       return std::string(text.rbegin(), text.rend());
                     }()},
        HostileEvent{"Full65535BytesOfLetters", std::string(65535, 'a')},
        HostileEvent{"Full65535BytesOfFf", std::string(65535, '\xff')},
        HostileEvent{"Full65535BytesOfZeros", std::string(65535, '\0')},
        HostileEvent{"Full65535OpeningBrackets", std::string(65535, '[')},
        HostileEvent{"Full65535OpeningBraces", std::string(65535, '{')},
        HostileEvent{"Full65535Quotes", std::string(65535, '"')},
        HostileEvent{"NestedAThousandArraysDeep", nested(1000, "[", "]")},
        HostileEvent{"NestedAThousandObjectsDeep", nested(1000, "{\"a\":", "}")},
        HostileEvent{"NestedNineHundredObjectsDeep", nested(900, "{\"a\":", "}")},
        HostileEvent{"NestedTenThousandArraysDeep", nested(10000, "[", "]")},
        HostileEvent{"TopLevelArray", R"([{"type":"cldm_conf","qel_enable":0}])"},
        HostileEvent{"TopLevelText", R"("cldm_conf")"}, HostileEvent{"TopLevelNumber", "1"},
        HostileEvent{"TypeMissing", R"({"qel_enable":0})"},
        HostileEvent{"TypeIsANumber", R"({"type":9,"qel_enable":0})"},
        HostileEvent{"TypeIsNull", R"({"type":null,"qel_enable":0})"},
        HostileEvent{"TypeIsAList", R"({"type":["cldm_conf"],"qel_enable":0})"},
        HostileEvent{"TypeIsAnObject", R"({"type":{"type":"cldm_conf"},"qel_enable":0})"},
        HostileEvent{"TypeOfFormats", R"({"type":"%s%s%n%n"})"},
        HostileEvent{"TypeOf60000Bytes", R"({"type":")" + std::string(60000, 't') + R"("})"},
        HostileEvent{"Unterminated", R"({"type":"cldm_conf","qel_enable":0)"},
        HostileEvent{"LongPortName", R"({"type":"lldp_add","mac":"0","local_interface":")" +
                                         std::string(60000, 'g') + R"("})"}),
    [](const auto& case_info) { return case_info.param.name; });

TEST_F(IpcTest, MembersOf60000BytesAreSurvived) {
  const std::string text(10000, 'x');
  event(R"({"type":"lldp_add","local_interface":"ge1","mac":")" + text +
        R"(","management_address":")" + text + R"(","system_capability":")" + text +
        R"(","system_name":")" + text + R"(","chassis_id":")" + text + R"("})");
  EXPECT_THAT(fake::sent(), SizeIs(1));
  expect_alive();
}

// One good event of each type; the tests below spoil one member of it at a time.
struct EventCase {
  const char* name;
  const char* text;
};

class SpoiltEventTest : public IpcTest, public testing::WithParamInterface<EventCase> {
 protected:
  // Calls `check` with the event's text for each member, of the event and of its first data row,
  // that `spoil(parent, name)` was applied to.
  template <typename Spoil, typename Check>
  void for_each_member(Spoil spoil, Check check) {
    for (bool in_row : {false, true}) {
      for (int at = 0;; ++at) {
        const qel_cjson_tree tree(cJSON_Parse(GetParam().text));
        ASSERT_NE(tree, nullptr);
        cJSON* parent =
            in_row ? cJSON_GetArrayItem(cJSON_GetObjectItem(tree.get(), "data"), 0) : tree.get();
        const cJSON* member = cJSON_GetArrayItem(parent, at);
        if (member == nullptr) {
          break;
        }
        const std::string name = member->string;
        spoil(parent, name.c_str());
        const std::unique_ptr<char, qel_cjson_free> text(cJSON_PrintUnformatted(tree.get()));
        check(std::string(text.get()), name);
      }
    }
  }
};

TEST_P(SpoiltEventTest, EachMemberMissingInTurnIsSurvived) {
  int spoilt = 0;
  for_each_member([](cJSON* parent, const char* name) { cJSON_DeleteItemFromObject(parent, name); },
                  [&](const std::string& text, const std::string& name) {
                    ++spoilt;
                    if (name == "type") {
                      expect_no_effect(text);
                    } else {
                      event(text);
                    }
                    expect_alive();
                  });
  EXPECT_GT(spoilt, 0);
}

TEST_P(SpoiltEventTest, EachMemberOfTheWrongTypeInTurnIsSurvived) {
  for (const char* wrong : {"5", "-1", "1e300", "\"text\"", "\"\"", "null", "true", "[]", "[[1]]",
                            "{}", R"({"name":"ge1"})", R"([{"name":["ge1"]},1,null])"}) {
    for_each_member(
        [wrong](cJSON* parent, const char* name) {
          cJSON_ReplaceItemInObject(parent, name, cJSON_Parse(wrong));
        },
        [&](const std::string& text, const std::string& name) {
          if (name == "type") {
            expect_no_effect(text);
          } else {
            event(text);
          }
          expect_alive();
        });
  }
}

INSTANTIATE_TEST_SUITE_P(
    Types, SpoiltEventTest,
    testing::Values(
        EventCase{"LldpAdd", kNeighbour},
        EventCase{"LldpDel", R"({"type":"lldp_del","mac":"00:11:22:33:44:55"})"},
        EventCase{
            "DhcpsnoopAdd",
            R"({"type":"dhcpsnoop_add","mac":"00:11:22:33:44:55","ip":"1.2.3.4","port":"ge1","bind":"1"})"},
        EventCase{"DhcpsnoopDel", R"({"type":"dhcpsnoop_del","mac":"00:11:22:33:44:55"})"},
        EventCase{"ArpsnoopAdd", kArp},
        EventCase{"ArpsnoopDel", R"({"type":"arpsnoop_del","mac":"00:11:22:33:44:55"})"},
        EventCase{
            "PoeUpdate",
            R"({"type":"poe_update","pwroccu":5,"data":[{"name":"ge1","power":1,"power_max":2,"poe_priority":3}]})"},
        EventCase{
            "OnvifDiscover",
            R"({"type":"onvif_discover","data":[{"ip":"1.2.3.4","mac":"00:11:22:33:44:55","author":"a","hardware":"h"}]})"},
        EventCase{"CldmConf", R"({"type":"cldm_conf","qel_enable":1})"}),
    [](const auto& case_info) { return case_info.param.name; });

}  // namespace
