// SPDX-License-Identifier: Apache-2.0
//
// The raw Ethernet link: opening, which frames count, what is learnt from them, and frames that no
// honest gateway sends. A frame that counts is seen by the answer to the probe that it carries.
#include "qel/qel_eth.h"

#include <cerrno>
#include <cstring>

#include "qel/qel_main.h"
#include "qel/qel_netif.h"
#include "qel/qel_table.h"
#include "tests/unit/hostile_texts.h"
#include "tests/unit/support.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;
using testing::SizeIs;

constexpr char kProbe[] = R"({"mac":"gw","cmd":"probe","subcmd":"probe","data":{"ntick":1}})";
constexpr size_t kTextMost = 1568;  // bytes of text that are looked at

// A probe padded with blanks inside to exactly `size` bytes.
std::string probe_of_size(size_t size) {
  std::string text = kProbe;
  text.insert(text.size() - 1, size - text.size(), ' ');
  return text;
}

class EthTest : public AgentTest {};

// The raw socket is open, records are forgotten.
class EthFrameTest : public AgentTest {
 protected:
  EthFrameTest() { start(); }

  void receive_raw(std::string_view frame, const fake::Arrival& arrival = {}) {
    fake::receive_frame(g_qel_dev.eth_fd, frame, arrival);
    fake::run_reads();
  }

  // The agent still hears a good probe, and its read is registered.
  void expect_alive() {
    EXPECT_EQ(fake::registered("qel_eth_read", g_qel_dev.eth_fd), 1);
    fake::clear_records();
    receive(kProbe);
    EXPECT_THAT(fake::sent(), SizeIs(1));
  }
};

TEST_F(EthTest, OpensARawSocketForTheGatewaysEthertypeWithoutBindingIt) {
  const int fd = qel_eth_open();
  EXPECT_EQ(fd, fake::last_socket(AF_PACKET));
  EXPECT_EQ(g_qel_dev.eth_fd, fd);
  const std::string number = std::to_string(fd);
  EXPECT_THAT(fake::calls(), ElementsAre("socket(AF_PACKET, SOCK_RAW, 0x9301)",
                                         "setsockopt(" + number + ", SO_REUSEADDR, 1)",
                                         "setsockopt(" + number + ", PACKET_AUXDATA, 1)",
                                         "funcname_thread_add_read(qel_eth_read, " + number + ")"));
}

TEST_F(EthTest, WithoutAuxiliaryDataTheLinkOpensAllTheSame) {
  fake::fail_os("setsockopt", ENOPROTOOPT, 1);
  EXPECT_EQ(stderr_of([] { EXPECT_GT(qel_eth_open(), 0); }), "");
  EXPECT_EQ(fake::registered("qel_eth_read", g_qel_dev.eth_fd), 1);
}

TEST_F(EthTest, SocketThatCannotBeMadeIsToldAndLeavesTheLinkClosed) {
  fake::fail_os("socket", EPERM);
  EXPECT_EQ(stderr_of([] { EXPECT_EQ(qel_eth_open(), 0); }), "socket: Operation not permitted\n");
  EXPECT_EQ(g_qel_dev.eth_fd, 0);
  EXPECT_EQ(fake::registered("qel_eth_read"), 0);
}

TEST_F(EthTest, OptionThatCannotBeSetIsToldAndLeavesTheLinkClosed) {
  fake::fail_os("setsockopt", EINVAL);
  EXPECT_EQ(stderr_of([] { EXPECT_EQ(qel_eth_open(), 0); }),
            "setsockopet error\n: Invalid argument\n");
  EXPECT_EQ(g_qel_dev.eth_fd, 0);
  EXPECT_EQ(fake::registered("qel_eth_read"), 0);
}

// ---------------------------------------------------------------------------------------------
// The reply address

TEST_F(EthTest, LinkIsFilledForTheManagementInterface) {
  g_qel_dev.eth_fd = qel_eth_open();
  qel_link link = {};
  link.kind = 4;
  link.reserved = 9;
  qel_eth_link_init(&link, 77);
  EXPECT_EQ(link.kind, 4U);
  EXPECT_EQ(link.reserved, 0U);
  EXPECT_EQ(link.fd, 77);
  sockaddr_ll expected = {};
  expected.sll_family = AF_PACKET;
  expected.sll_ifindex = 7;
  EXPECT_EQ(std::memcmp(&link.addr.eth, &expected, sizeof expected), 0);
  EXPECT_EQ(link.addrlen, 20U);
  EXPECT_EQ(link.flags, 0U);
  EXPECT_THAT(link.own_mac, ElementsAre(0x0a, 0x1b, 0x2c, 0x3d, 0x4e, 0x5f));
}

TEST_F(EthTest, IndexAndMacAreLookedUpAgainForEachFrame) {
  g_qel_dev.eth_fd = qel_eth_open();
  qel_link link = {};
  qel_eth_link_init(&link, g_qel_dev.eth_fd);
  fake::net("vlanif1").index = 31;
  fake::net("vlanif1").mac = {2, 2, 2, 2, 2, 2};
  qel_eth_link_init(&link, g_qel_dev.eth_fd);
  EXPECT_EQ(link.addr.eth.sll_ifindex, 31);
  EXPECT_THAT(link.own_mac, ElementsAre(2, 2, 2, 2, 2, 2));
}

TEST_F(EthTest, ManagementInterfaceThatIsMissingLeavesIndexMinusOneAndMacZero) {
  g_qel_dev.eth_fd = qel_eth_open();
  fake::remove_net("vlanif1");
  qel_link link = {};
  const std::string said = stderr_of([&] {
    EXPECT_EQ(stdout_of([&] { qel_eth_link_init(&link, g_qel_dev.eth_fd); }),
              "mac ioctl error,vlanif1 \n");
  });
  EXPECT_EQ(said, "SIOCGIFINDEX ioctl error: No such device\n");
  EXPECT_EQ(link.addr.eth.sll_ifindex, -1);
  EXPECT_THAT(link.own_mac, ElementsAre(0, 0, 0, 0, 0, 0));
}

TEST_F(EthTest, MacQueryWithoutANameFails) {
  uint8_t mac[6] = {1, 2, 3, 4, 5, 6};
  EXPECT_EQ(qel_netif_mac_get(nullptr, mac), -1);
  EXPECT_THAT(fake::calls(), IsEmpty());
}

TEST_F(EthTest, MacQueryWithoutASocketFails) {
  uint8_t mac[6] = {1, 2, 3, 4, 5, 6};
  fake::fail_os("socket", EMFILE);
  EXPECT_EQ(stderr_of([&] { EXPECT_EQ(qel_netif_mac_get("vlanif1", mac), -1); }),
            "create socket falise...mac/n: Too many open files\n");
}

TEST_F(EthTest, MacQueryOfAnUnknownInterfaceSucceedsAndLeavesTheMac) {
  uint8_t mac[6] = {1, 2, 3, 4, 5, 6};
  EXPECT_EQ(stdout_of([&] { EXPECT_EQ(qel_netif_mac_get("nosuch0", mac), 0); }),
            "mac ioctl error,nosuch0 \n");
  EXPECT_THAT(mac, ElementsAre(1, 2, 3, 4, 5, 6));
}

TEST_F(EthTest, MacQueryClosesItsSocketEitherWay) {
  uint8_t mac[6] = {};
  EXPECT_EQ(qel_netif_mac_get("vlanif1", mac), 0);
  EXPECT_FALSE(fake::is_open(fake::last_socket(AF_INET)));
  EXPECT_THAT(mac, ElementsAre(0x0a, 0x1b, 0x2c, 0x3d, 0x4e, 0x5f));
  stdout_of([&] { qel_netif_mac_get("nosuch0", mac); });
  EXPECT_FALSE(fake::is_open(fake::last_socket(AF_INET)));
  EXPECT_THAT(fake::calls_of({"socket"}), ElementsAre("socket(AF_INET, SOCK_STREAM, 0x0000)",
                                                      "socket(AF_INET, SOCK_STREAM, 0x0000)"));
}

TEST_F(EthTest, NamesLongerThanAnInterfaceNameAreCut) {
  fake::net("abcdefghijklmno").mac = {1, 1, 1, 1, 1, 1};
  fake::net("abcdefghijklmnop").index = 12;  // 16 characters, no room for a NUL
  uint8_t mac[6] = {};
  EXPECT_EQ(qel_netif_mac_get("abcdefghijklmnopqrst", mac), 0);
  EXPECT_THAT(mac, ElementsAre(1, 1, 1, 1, 1, 1));
  const int fd = qel_eth_open();
  EXPECT_EQ(qel_netif_index_get(fd, "abcdefghijklmnopqrst"), 12);
}

TEST_F(EthTest, IndexQueryWithoutANameOrOfAnUnknownInterfaceIsMinusOne) {
  const int fd = qel_eth_open();
  EXPECT_EQ(qel_netif_index_get(fd, nullptr), -1);
  EXPECT_EQ(qel_netif_index_get(fd, "vlanif1"), 7);
  EXPECT_EQ(stderr_of([&] { EXPECT_EQ(qel_netif_index_get(fd, "nosuch0"), -1); }),
            "SIOCGIFINDEX ioctl error: No such device\n");
}

// ---------------------------------------------------------------------------------------------
// Which frames count

TEST_F(EthFrameTest, FrameToTheSwitchIsAnsweredToItsSource) {
  receive(kProbe, {0x02, 9, 8, 7, 6, 5});
  ASSERT_THAT(fake::sent(), SizeIs(1));
  EXPECT_THAT(
      fake::sent()[0].bytes.substr(0, 18),
      BytesAre(bytes("\x02\x09\x08\x07\x06\x05\x0a\x1b\x2c\x3d\x4e\x5f\x93\x03\x00\x00\xba\xbe")));
  EXPECT_EQ(fake::sent()[0].fd, g_qel_dev.eth_fd);
  EXPECT_EQ(fake::sent()[0].ifindex(), 7);
  EXPECT_EQ(fake::sent()[0].to_length, 20U);
  EXPECT_EQ(fake::sent()[0].flags, 0);
}

TEST_F(EthFrameTest, FrameToTheGroupAddressIsAnsweredToItsSource) {
  receive(kProbe, {0x02, 1, 1, 1, 1, 1}, {0x01, 0x80, 0xc2, 0x00, 0x00, 0x1f});
  ASSERT_THAT(fake::sent(), SizeIs(1));
  EXPECT_EQ(fake::sent()[0].bytes.substr(0, 6), bytes("\x02\x01\x01\x01\x01\x01"));
}

struct DropCase {
  const char* name;
  fake::Mac destination;
  uint16_t ethertype;
};
void PrintTo(const DropCase& one, std::ostream* stream) {
  *stream << one.name;
}

class EthDropTest : public EthFrameTest, public testing::WithParamInterface<DropCase> {};

TEST_P(EthDropTest, IsDroppedWithoutAWord) {
  const DropCase& drop = GetParam();
  const std::string frame = gateway_frame(kProbe, kGatewayMac, drop.destination, 0, drop.ethertype);
  qel_link link = {};
  EXPECT_EQ(qel_eth_parse(&link, {reinterpret_cast<const uint8_t*>(frame.data()), frame.size()}),
            -1);
  EXPECT_EQ(stderr_of([&] { receive_raw(frame); }), "");
  EXPECT_THAT(fake::sent(), IsEmpty());
  EXPECT_THAT(fake::console(), IsEmpty());
  expect_alive();
}

INSTANTIATE_TEST_SUITE_P(
    Frames, EthDropTest,
    testing::Values(DropCase{"OwnReplyType", kSwitchMac, 0x9303},
                    DropCase{"NeighbouringType", kSwitchMac, 0x9302},
                    DropCase{"BytesOfTheTypeSwapped", kSwitchMac, 0x0193},
                    DropCase{"Ipv4", kSwitchMac, 0x0800},
                    DropCase{"Broadcast", {0xff, 0xff, 0xff, 0xff, 0xff, 0xff}, 0x9301},
                    DropCase{"AnotherGroup", {0x01, 0x80, 0xc2, 0x00, 0x00, 0x1e}, 0x9301},
                    DropCase{"NeighbourOfTheSwitch", {0x0a, 0x1b, 0x2c, 0x3d, 0x4e, 0x5e}, 0x9301}),
    [](const auto& case_info) { return case_info.param.name; });

TEST_F(EthFrameTest, DispatchedFrameGivesZero) {
  const std::string frame = gateway_frame("{}");
  qel_link link = {};
  link.kind = 4;
  link.fd = g_qel_dev.eth_fd;
  link.addr.eth.sll_ifindex = 7;
  EXPECT_EQ(qel_eth_parse(&link, {reinterpret_cast<const uint8_t*>(frame.data()), frame.size()}),
            0);
  EXPECT_THAT(link.gw_mac, ElementsAre(0x02, 0x00, 0x5e, 0x10, 0x20, 0x30));
}

TEST_F(EthFrameTest, DestinationIsTheSystemMacNotThatOfTheInterface) {
  fake::set_system_mac({0x0a, 0, 0, 0, 0, 1});
  receive(kProbe, kGatewayMac, kSwitchMac);
  EXPECT_THAT(fake::sent(), IsEmpty());
  receive(kProbe, kGatewayMac, {0x0a, 0, 0, 0, 0, 1});
  ASSERT_THAT(fake::sent(), SizeIs(1));
  EXPECT_EQ(fake::sent()[0].bytes.substr(6, 6), bytes("\x0a\x1b\x2c\x3d\x4e\x5f"));
}

TEST_F(EthFrameTest, HeaderBytesThatAreNotExaminedDoNotMatter) {
  std::string frame = gateway_frame(kProbe);
  frame.replace(14, 18, std::string(18, '\xff'));
  receive_raw(frame);
  EXPECT_THAT(fake::sent(), SizeIs(1));
}

TEST_F(EthFrameTest, FrameFromAnotherInterfaceDoesNotCount) {
  receive_raw(gateway_frame(kProbe), {.ifindex = 8});
  EXPECT_THAT(fake::sent(), IsEmpty());
  expect_alive();
}

TEST_F(EthFrameTest, ManagementInterfaceThatWasMadeAgainKeepsWorking) {
  fake::net("vlanif1").index = 31;
  receive_raw(gateway_frame(kProbe), {.ifindex = 7});
  EXPECT_THAT(fake::sent(), IsEmpty());
  receive_raw(gateway_frame(kProbe), {.ifindex = 31});
  ASSERT_THAT(fake::sent(), SizeIs(1));
  EXPECT_EQ(fake::sent()[0].ifindex(), 31);
}

TEST_F(EthFrameTest, WithoutTheInterfaceTheCommandIsNotCarriedOut) {
  fake::add_ports(1);
  const std::string command =
      gateway_frame(R"({"cmd":"set","subcmd":"sys_active","data":{"sys_active":9}})");
  receive_raw(command);
  ASSERT_NE(g_qel_dev.sys_active, 0);  // with it, it is
  g_qel_dev.sys_active = 0;

  const fake::NetInterface before = fake::net("vlanif1");
  fake::remove_net("vlanif1");
  for (const int index : {8, -1, 0}) {
    std::string said;
    stdout_of([&] { said = stderr_of([&] { receive_raw(command, {.ifindex = index}); }); });
    EXPECT_EQ(said, "SIOCGIFINDEX ioctl error: No such device\n");
    EXPECT_EQ(g_qel_dev.sys_active, 0) << index;
  }
  EXPECT_THAT(fake::sent(), IsEmpty());
  fake::net("vlanif1") = before;
  expect_alive();
}

TEST_F(EthFrameTest, FrameFromAnUnknownInterfaceDoesNotCount) {
  for (const int index : {0, -1}) {
    receive_raw(gateway_frame(kProbe), {.ifindex = index});
  }
  EXPECT_THAT(fake::sent(), IsEmpty());
  expect_alive();
}

// ---------------------------------------------------------------------------------------------
// Tags of VLANs, which are taken off before the frame is here

constexpr fake::Mac kGroup = {0x01, 0x80, 0xc2, 0x00, 0x00, 0x1f};
constexpr fake::Mac kOtherMac = {0x0a, 0, 0, 0, 0, 1};
constexpr uint8_t kHost = 0;
constexpr uint8_t kMulticast = 2;
constexpr uint8_t kOtherHost = 3;

struct TagCase {
  const char* name;
  fake::Mac destination;
  fake::Mac interface_mac;
  fake::Arrival arrival;
  bool answered;
};
void PrintTo(const TagCase& one, std::ostream* stream) {
  *stream << one.name;
}

class EthTagTest : public EthFrameTest, public testing::WithParamInterface<TagCase> {};

TEST_P(EthTagTest, FrameOfAnotherVlanIsDropped) {
  const TagCase& tag = GetParam();
  fake::net("vlanif1").mac = tag.interface_mac;
  receive_raw(gateway_frame(kProbe, kGatewayMac, tag.destination), tag.arrival);
  EXPECT_THAT(fake::sent(), SizeIs(tag.answered ? 1 : 0));
  expect_alive();
}

INSTANTIATE_TEST_SUITE_P(
    Frames, EthTagTest,
    testing::Values(
        TagCase{"ToTheSwitch", kSwitchMac, kSwitchMac, {.packet_type = kHost}, true},
        TagCase{"ToTheGroup", kGroup, kSwitchMac, {.packet_type = kMulticast}, true},
        // The kernel's word for a tag that no VLAN interface takes.
        TagCase{"TaggedToTheSwitch", kSwitchMac, kSwitchMac, {.packet_type = kOtherHost}, false},
        TagCase{"TaggedToTheGroup", kGroup, kSwitchMac, {.packet_type = kOtherHost}, false},
        TagCase{"TaggedToTheGroupOtherMac", kGroup, kOtherMac, {.packet_type = kOtherHost}, false},
        // Another host's by its address: with or without a tag.
        TagCase{"ToASystemOfAnotherMac", kSwitchMac, kOtherMac, {.packet_type = kOtherHost}, true},
        TagCase{"InterfaceWithoutMac", kSwitchMac, {}, {.packet_type = kOtherHost}, false},
        // Auxiliary data.
        TagCase{"Vlan5", kSwitchMac, kSwitchMac, {.tci = 0x0005}, false},
        TagCase{"Vlan5WithPriority", kSwitchMac, kSwitchMac, {.tci = 0xe005}, false},
        TagCase{"Vlan4095", kSwitchMac, kSwitchMac, {.tci = 0x0fff}, false},
        TagCase{"Vlan5ToASystemOfAnotherMac",
                kSwitchMac,
                kOtherMac,
                {.packet_type = kOtherHost, .tci = 0x0005},
                false},
        TagCase{"Vlan5OfAnOldKernel",
                kSwitchMac,
                kSwitchMac,
                {.tci = 0x0005, .tci_valid = false},
                false},
        TagCase{"PriorityTag", kSwitchMac, kSwitchMac, {.tci = 0x6000}, true},
        TagCase{"PriorityTagToTheGroup",
                kGroup,
                kSwitchMac,
                {.packet_type = kMulticast, .tci = 0xf000},
                true},
        TagCase{"AuxiliaryDataCut", kSwitchMac, kSwitchMac, {.message_flags = MSG_CTRUNC}, false}),
    [](const auto& case_info) { return case_info.param.name; });

// ---------------------------------------------------------------------------------------------
// What is learnt

TEST_F(EthFrameTest, GatewayIsLearntAnewFromEachFrame) {
  receive(kProbe, {2, 0, 0, 0, 0, 1});
  receive(kProbe, {2, 0, 0, 0, 0, 2});
  ASSERT_THAT(fake::sent(), SizeIs(2));
  EXPECT_EQ(fake::sent()[0].bytes.substr(0, 6), bytes("\x02\x00\x00\x00\x00\x01"));
  EXPECT_EQ(fake::sent()[1].bytes.substr(0, 6), bytes("\x02\x00\x00\x00\x00\x02"));
}

// ---------------------------------------------------------------------------------------------
// Reading

TEST_F(EthFrameTest, ReadIsRegisteredAgainAfterAReceiveError) {
  for (int error : {EAGAIN, ENETDOWN, EINTR}) {
    fake::receive_error(g_qel_dev.eth_fd, error);
    EXPECT_EQ(stderr_of([] { EXPECT_EQ(fake::run_reads(), 1); }), "");
    EXPECT_EQ(fake::registered("qel_eth_read", g_qel_dev.eth_fd), 1);
  }
  expect_alive();
}

TEST_F(EthFrameTest, ReadIsRegisteredAgainAfterAnEmptyRead) {
  receive_raw("");
  EXPECT_THAT(fake::sent(), IsEmpty());
  expect_alive();
}

TEST_F(EthFrameTest, SwitchedOffAgentReadsFramesAndDropsThem) {
  g_qel_dev.enable = 0;
  receive_raw(gateway_frame(kProbe));
  receive_raw(gateway_frame(kProbe));
  EXPECT_THAT(fake::sent(), IsEmpty());
  g_qel_dev.enable = 1;
  fake::run_reads();
  EXPECT_THAT(fake::sent(), IsEmpty());
  expect_alive();
}

TEST_F(EthFrameTest, TextOf1568BytesIsReadWhole) {
  receive(probe_of_size(kTextMost));
  EXPECT_THAT(fake::sent(), SizeIs(1));
}

TEST_F(EthFrameTest, TextIsCutBehind1568BytesAndThenNoJson) {
  receive(probe_of_size(kTextMost + 1));
  EXPECT_THAT(fake::sent(), IsEmpty());
  expect_alive();
}

// The trace shows how much of a frame was taken over.
TEST_F(EthFrameTest, BytesBehind1600AreNotLookedAt) {
  const std::string most = probe_of_size(kTextMost);
  g_qel_dev.debug = 32;
  receive(most + std::string(400, 'x'));
  g_qel_dev.debug = 0;
  EXPECT_THAT(fake::sent(), SizeIs(1));
  ASSERT_THAT(fake::console(), Not(IsEmpty()));
  EXPECT_EQ(fake::console()[0], "gwmac[02:00:5e:10:20:30] data=" + most + "  \r\n");
}

// Nothing but blanks and the NUL stand between the two halves of an otherwise good probe.
TEST_F(EthFrameTest, TextEndsAtItsFirstNul) {
  const std::string first = R"({"mac":"gw","cmd":"probe", )";
  const std::string second = R"( "subcmd":"probe","data":{"ntick":1}})";
  receive(first + second);
  EXPECT_THAT(fake::sent(), SizeIs(1)) << "without the NUL";
  fake::clear_records();
  g_qel_dev.debug = 32;
  receive(first + bytes("\0") + second);
  g_qel_dev.debug = 0;
  EXPECT_THAT(fake::sent(), IsEmpty());
  EXPECT_THAT(fake::console(), ElementsAre("gwmac[02:00:5e:10:20:30] data=" + first + "  \r\n"));
  fake::clear_records();
  receive(std::string(kProbe) + bytes("\0{broken"));
  EXPECT_THAT(fake::sent(), SizeIs(1));
}

TEST_F(EthFrameTest, ShorterTextAfterALongerOneKeepsNothingOfIt) {
  receive(probe_of_size(1000));
  fake::clear_records();
  receive(R"({"cmd":"probe")");  // whole only with the end of the text before it
  EXPECT_THAT(fake::sent(), IsEmpty());
}

TEST_F(EthFrameTest, TraceTellsTheGatewayAndTheText) {
  g_qel_dev.debug = 32;
  receive("[]");
  EXPECT_THAT(fake::console(), ElementsAre("gwmac[02:00:5e:10:20:30] data=[]  \r\n"));
}

TEST_F(EthFrameTest, CommandIsTracedFrameFirstThenVerbThenItsAnswer) {
  g_qel_dev.debug = 32;
  receive(R"({"mac":"m","cmd":"ping","subcmd":"ping","data":{}})");
  EXPECT_THAT(fake::console(),
              ElementsAre("gwmac[02:00:5e:10:20:30] "
                          "data={\"mac\":\"m\",\"cmd\":\"ping\",\"subcmd\":\"ping\",\"data\":{}}"
                          "  \r\n",
                          "cmd ping subcmd ping mac=m \r\n",
                          MatchesRegex("\\[qel_cmd_send,[0-9]+\\] send start \n"),
                          MatchesRegex("\\[qel_cmd_send,[0-9]+\\] send ok \n")));
}

TEST_F(EthFrameTest, WithoutTheTraceBitNothingIsTraced) {
  g_qel_dev.debug = 255 - 32;
  receive("[]");
  EXPECT_THAT(fake::console(), IsEmpty());
}

TEST_F(EthTest, HexdumpBreaksAfterTheFirstByteAndAfterEachThirtieth) {
  uint8_t data[32] = {};
  for (size_t i = 0; i < sizeof data; ++i) {
    data[i] = static_cast<uint8_t>(i + 0xe0);
  }
  qel_hexdump(data, sizeof data);
  EXPECT_EQ(fake::console_text(),
            "buf :e0 \r\ne1 e2 e3 e4 e5 e6 e7 e8 e9 ea eb ec ed ee ef f0 f1 f2 f3 f4 f5 f6 f7 f8 "
            "f9 fa fb fc fd fe \r\nff \r\n");
}

// ---------------------------------------------------------------------------------------------
// Frames that no honest gateway sends

TEST_F(EthFrameTest, EveryShortFrameIsSurvived) {
  const std::string whole = gateway_frame(kProbe);
  for (size_t size = 0; size < whole.size(); ++size) {
    receive_raw(std::string_view(whole).substr(0, size));
    EXPECT_THAT(fake::sent(), IsEmpty()) << size << " bytes";
  }
  expect_alive();
}

class EthTextTest : public EthFrameTest, public testing::WithParamInterface<HostileText> {
 protected:
  void receive_hostile() {
    receive(GetParam().text);
    if (GetParam().answers) {
      EXPECT_THAT(fake::sent(), SizeIs(*GetParam().answers));
    }
  }
};

TEST_P(EthTextTest, IsSurvivedAndTheNextGoodProbeIsAnswered) {
  receive_hostile();
  expect_alive();
}

// With all traces on, the same texts pass through the console.
TEST_P(EthTextTest, IsSurvivedWithAllTracesOn) {
  g_qel_dev.debug = 255;
  receive_hostile();
  g_qel_dev.debug = 0;
  expect_alive();
}

INSTANTIATE_TEST_SUITE_P(Hostile, EthTextTest, testing::ValuesIn(hostile_texts()),
                         [](const auto& case_info) { return case_info.param.name; });

}  // namespace
