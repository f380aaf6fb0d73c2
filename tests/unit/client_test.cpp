// SPDX-License-Identifier: Apache-2.0
//
// The device last learnt on each port: how its kind is told, its report in each state, and the
// report of all ports that the gateway asks for.
#include "qel/qel_client.h"

#include <cstring>
#include <memory>

#include "qel/qel_cmd.h"
#include "qel/qel_gw.h"
#include "qel/qel_ipc.h"
#include "qel/qel_table.h"
#include "tests/unit/support.h"

namespace {

using testing::ElementsAre;
using testing::SizeIs;

class ClientTest : public AgentTest {
 protected:
  ClientTest() {
    fake::add_interface("vlanif1", 7);
    fake::add_port("ge4");
    fake::add_port("ge5", {.link = 1});
    fake::add_interface("trunk1", 100);
    fake::add_port("ge6");
    start();
    fake::set_uptime(1000);
  }

  static struct uif* uif(const char* name) { return uif_get_by_name(name); }
  static qel_port* port(const char* name) { return qel_port_of(uif(name)); }

  // A client as a neighbour report leaves it.
  static void learn(const char* name, uint8_t type = kQelClientUnknown) {
    const uint8_t mac[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
    const uint8_t ip[4] = {192, 168, 1, 20};
    qel_port* const record = port(name);
    record->lldp_seen = 1;
    std::memcpy(record->client_mac, mac, sizeof mac);
    std::memcpy(&record->client_ip, ip, sizeof ip);
    record->client_time = 1000;
    record->neighbour_type = type;
  }

  static std::string report(const char* name) {
    const auto area = std::make_unique<qel_text_area<kQelMessageSize>>();
    qel_text& text = area->begin();
    const size_t length = qel_json_ports_client(uif(name), text);
    EXPECT_EQ(length, text.view().size());
    return std::string(text.view());
  }
};

constexpr char kNoClientOnGe4[] =
    R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_client","data":{"ge4":)"
    R"({"client_state":"NONE","client_mac":"","client_ip":"","client_type":"UN"}}})";
constexpr char kClientOnGe5[] =
    R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_client","data":{"ge5":)"
    R"({"client_state":"ON","client_mac":"001122334455","client_ip":"192.168.1.20",)"
    R"("client_type":"UN"}}})";
constexpr char kClientOffOnGe5[] =
    R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_client","data":{"ge5":)"
    R"({"client_state":"OFF","client_mac":"001122334455","client_ip":"192.168.1.20",)"
    R"("client_type":"UN"}}})";
constexpr char kSwitchOnGe5[] =
    R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_client","data":{"ge5":)"
    R"({"client_state":"ON","client_mac":"001122334455","client_ip":"192.168.1.20",)"
    R"("client_type":"SW"}}})";
constexpr char kNoClientOnGe6[] =
    R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_client","data":{"ge6":)"
    R"({"client_state":"NONE","client_mac":"","client_ip":"","client_type":"UN"}}})";

// ---------------------------------------------------------------------------------------------
// The kind of a client

struct Kind {
  const char* name;
  const char* text;
  uint8_t code;
  const char* said;
};

class Classify : public testing::TestWithParam<Kind> {};

TEST_P(Classify, IsTheFirstKeywordThatOccurs) {
  EXPECT_EQ(
      stdout_of([] { EXPECT_EQ(qel_client_type_classify(GetParam().text), GetParam().code); }),
      GetParam().said);
}

INSTANTIATE_TEST_SUITE_P(
    Texts, Classify,
    testing::Values(
        Kind{"Windows", "Windows", 2, "sysdescr[i].sysdescr = Windows \r\n"},
        Kind{"Model", "J5R", 1, "sysdescr[i].sysdescr = J5R \r\n"},
        Kind{"Capital", "Switch", 1, "sysdescr[i].sysdescr = Switch \r\n"},
        Kind{"Small", "switch", 1, "sysdescr[i].sysdescr = switch \r\n"},
        Kind{"Inside", "xxSwitchxx", 1, "sysdescr[i].sysdescr = Switch \r\n"},
        Kind{"AtTheEnd", "a managed switch", 1, "sysdescr[i].sysdescr = switch \r\n"},
        Kind{"WindowsBeforeSwitch", "switch on Windows", 2, "sysdescr[i].sysdescr = Windows \r\n"},
        Kind{"WindowsBeforeModel", "J5R Windows", 2, "sysdescr[i].sysdescr = Windows \r\n"},
        Kind{"ModelBeforeSwitch", "Switch J5R", 1, "sysdescr[i].sysdescr = J5R \r\n"},
        Kind{"CapitalBeforeSmall", "switch or Switch", 1, "sysdescr[i].sysdescr = Switch \r\n"},
        Kind{"OtherCase", "WINDOWS windows j5r SWITCH sWitch", 0, ""}, Kind{"Empty", "", 0, ""},
        Kind{"OtherWord", "Router", 0, ""}, Kind{"Cut", "Windo switc J5", 0, ""},
        Kind{"Formats", "%s%n Switch %n", 1, "sysdescr[i].sysdescr = Switch \r\n"}),
    [](const auto& row) { return row.param.name; });

TEST_F(ClientTest, PortThatCameAfterTheStartHasNoClient) {
  fake::add_port("late");
  EXPECT_EQ(report("late"),
            R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_client","data":{"late":)"
            R"({"client_state":"NONE","client_mac":"","client_ip":"","client_type":"UN"}}})");
}

TEST_F(ClientTest, LongNamesOfTheKinds) {
  EXPECT_STREQ(qel_client_type_name(0), "unknow");
  EXPECT_STREQ(qel_client_type_name(1), "switch");
  EXPECT_STREQ(qel_client_type_name(2), "terminal");
  for (const int code : {-1, 3, 255, 1000000}) {
    EXPECT_STREQ(qel_client_type_name(code), "err");
  }
}

TEST_F(ClientTest, MacTextIsLowerCaseWithoutSeparatorsInOneBuffer) {
  const uint8_t first[6] = {0x00, 0x0A, 0xFF, 0xB0, 0x09, 0x90};
  const uint8_t second[6] = {1, 2, 3, 4, 5, 6};
  const char* const text = qel_mac_text(first);
  EXPECT_STREQ(text, "000affb00990");
  EXPECT_EQ(qel_mac_text(second), text);
  EXPECT_STREQ(text, "010203040506");
}

// ---------------------------------------------------------------------------------------------
// The report of one port

TEST_F(ClientTest, PortWithoutAClientReportsNone) {
  EXPECT_EQ(report("ge4"), kNoClientOnGe4);
}

TEST_F(ClientTest, ClientOnAPortWithLinkIsOn) {
  learn("ge5");
  EXPECT_EQ(report("ge5"), kClientOnGe5);
}

TEST_F(ClientTest, ClientIsOffWhileTheLinkIsDown) {
  learn("ge5");
  uif("ge5")->link = 0;
  EXPECT_EQ(report("ge5"), kClientOffOnGe5);
  uif("ge5")->link = 1;
  EXPECT_EQ(report("ge5"), kClientOnGe5);
}

TEST_F(ClientTest, ClientThatNoNeighbourReportToldIsOff) {
  learn("ge5");
  port("ge5")->lldp_seen = 0;
  EXPECT_EQ(report("ge5"), kClientOffOnGe5);
}

TEST_F(ClientTest, OnlyASwitchIsToldFromTheRest) {
  learn("ge5", kQelClientSwitch);
  EXPECT_EQ(report("ge5"), kSwitchOnGe5);
  for (const uint8_t type : {uint8_t{0}, kQelClientTerminal, uint8_t{3}, uint8_t{255}}) {
    learn("ge5", type);
    EXPECT_EQ(report("ge5"), kClientOnGe5) << int{type};
  }
}

TEST_F(ClientTest, ClassifiedTextDecidesTheReportedType) {
  stdout_of([] { learn("ge5", qel_client_type_classify("Bridge Switch")); });
  EXPECT_EQ(report("ge5"), kSwitchOnGe5);
  stdout_of([] { learn("ge5", qel_client_type_classify("Windows 10")); });
  EXPECT_EQ(report("ge5"), kClientOnGe5);
}

TEST_F(ClientTest, NeighboursCapabilityTextDecidesTheReportedType) {
  stdout_of([] {
    qel_ipc_cmd_handle(R"({"type":"lldp_add","mac":"00:11:22:33:44:55","local_interface":"ge5",)"
                       R"("management_address":"192.168.1.20","system_capability":"A Switch"})");
  });
  EXPECT_EQ(report("ge5"), kSwitchOnGe5);
  stdout_of([] {
    qel_ipc_cmd_handle(R"({"type":"lldp_add","mac":"00:11:22:33:44:55","local_interface":"ge5",)"
                       R"("management_address":"192.168.1.20",)"
                       R"("system_capability":"Windows and switch"})");
  });
  EXPECT_EQ(report("ge5"), kClientOnGe5);
}

TEST_F(ClientTest, AddressFromSnoopingAloneMakesNoClient) {
  qel_ipc_cmd_handle(
      R"({"type":"arpsnoop_add","mac":"00:11:22:33:44:55","ip":"192.168.1.20","port":"ge4"})");
  EXPECT_EQ(report("ge4"), kNoClientOnGe4);
}

TEST_F(ClientTest, AddressFromSnoopingCompletesAClient) {
  qel_ipc_cmd_handle(R"({"type":"lldp_add","mac":"00:11:22:33:44:55","local_interface":"ge5"})");
  qel_ipc_cmd_handle(
      R"({"type":"arpsnoop_add","mac":"00:11:22:33:44:55","ip":"192.168.1.20","port":"ge5"})");
  EXPECT_EQ(report("ge5"), kClientOnGe5);
}

TEST_F(ClientTest, WithoutAClientWhatIsKnownOfTheLastOneIsNotTold) {
  learn("ge5", kQelClientSwitch);
  port("ge5")->client_time = 0;
  EXPECT_EQ(report("ge5"),
            R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_client","data":{"ge5":)"
            R"({"client_state":"NONE","client_mac":"","client_ip":"","client_type":"UN"}}})");
}

TEST_F(ClientTest, ClientWithoutAnAddressReportsZeros) {
  port("ge5")->client_time = 1;
  EXPECT_EQ(report("ge5"),
            R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_client","data":{"ge5":)"
            R"({"client_state":"OFF","client_mac":"000000000000","client_ip":"0.0.0.0",)"
            R"("client_type":"UN"}}})");
}

TEST_F(ClientTest, HighestAddressIsReportedWhole) {
  learn("ge5");
  port("ge5")->client_ip = 0xFFFFFFFF;
  std::memset(port("ge5")->client_mac, 0xff, 6);
  EXPECT_EQ(report("ge5"),
            R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_client","data":{"ge5":)"
            R"({"client_state":"ON","client_mac":"ffffffffffff",)"
            R"("client_ip":"255.255.255.255","client_type":"UN"}}})");
}

// ---------------------------------------------------------------------------------------------
// Asked for by the gateway

TEST_F(ClientTest, PortsClientIsOneMessageForEachPortInListOrder) {
  learn("ge5");
  receive(R"({"mac":"gw","cmd":"get","subcmd":"ports_client"})");
  std::vector<std::string> frames;
  for (const fake::Sent& one : fake::sent()) {
    frames.push_back(one.bytes);
  }
  EXPECT_THAT(frames, ElementsAre(BytesAre(reply_header(166) + kNoClientOnGe4),
                                  BytesAre(reply_header(188) + kClientOnGe5),
                                  BytesAre(reply_header(166) + kNoClientOnGe6)));
}

TEST_F(ClientTest, PortsClientGoesToTheAskerOnly) {
  const qel_link other = udp_link("10.0.0.9", 999);
  qel_gw_update("other", 1, &other);
  qel_link asker = udp_link("10.0.0.7", 777);
  qel_cmd_dispatch(&asker, R"({"cmd":"get","subcmd":"ports_client"})", 0);
  ASSERT_THAT(fake::sent(), SizeIs(3));
  for (const fake::Sent& one : fake::sent()) {
    EXPECT_EQ(one.ip(), "10.0.0.7");
    EXPECT_EQ(one.port(), 777);
  }
}

using ManyPortsTest = AgentTest;

TEST_F(ManyPortsTest, SwitchOf52PortsSends52Messages) {
  fake::add_ports(52);
  start();
  receive(R"({"cmd":"get","subcmd":"ports_client"})");
  EXPECT_THAT(fake::sent(), SizeIs(52));
}

using ClientDeathTest = ClientTest;

TEST_F(ClientDeathTest, NullNodeIsABrokenInvariant) {
  fake::add_null_interface();
  EXPECT_DEATH(receive(R"({"cmd":"get","subcmd":"ports_client"})"),
               "\\(node\\)->data != \\(\\(void \\*\\)0\\), file qel/qel_cmd, line [0-9]+, "
               "function qel_cmd_handle_ports_client");
}

}  // namespace
