// SPDX-License-Identifier: Apache-2.0
//
// What a join or an update tells: the key/value status of ports, four to a page, the payloads, and
// the envelopes around them. The senders are tested in update_send_test.cpp.
#include <climits>
#include <cstring>

#include "qel/qel_json.h"
#include "qel/qel_table.h"
#include "tests/unit/support.h"

namespace {

using testing::HasSubstr;
using testing::StartsWith;

// The status of a port that nothing is known of, number and name apart.
std::string idle_port(const std::string& n, const std::string& name) {
  return R"({"key":"port.name.)" + n + R"(","value":")" + name + R"("},)" +
         R"({"key":"port.descname.)" + n + R"(","value":""},)" +          //
         R"({"key":"port.link.)" + n + R"(","value":"0"},)" +             //
         R"({"key":"port.enable.)" + n + R"(","value":"1"},)" +           //
         R"({"key":"port.speed.)" + n + R"(","value":"0"},)" +            //
         R"({"key":"port.duplex.)" + n + R"(","value":"0"},)" +           //
         R"({"key":"port.speed_cfg.)" + n + R"(","value":"AN"},)" +       //
         R"({"key":"port.power.)" + n + R"(","value":"0.0"},)" +          //
         R"({"key":"port.priority.)" + n + R"(","value":"0"},)" +         //
         R"({"key":"port.powermax.)" + n + R"(","value":"0"},)" +         //
         R"({"key":"port.limit.)" + n + R"(","value":"0"},)" +            //
         R"({"key":"port.statem.)" + n + R"(","value":"disconnect"},)" +  //
         R"({"key":"port.statel.)" + n + R"(","value":"none"})";
}

// The information table of a switch with two ports.
std::string table_with(const std::string& online, const std::string& uplink = "0") {
  return R"([{"key":"mac","value":"0a:1b:2c:3d:4e:5f"},{"key":"ip","value":"192.168.1.10"},)"
         R"({"key":"sn","value":"SN0001"},{"key":"hw_ver","value":"V1.0"},)"
         R"({"key":"model","value":"QM4410_MODEL"},{"key":"version","value":"V2.1"},)"
         R"({"key":"port_count","value":"2"},{"key":"device_name","value":"office-sw"},)"
         R"({"key":"uptime","value":"3600"},{"key":"cpuoccu","value":"30"},)"
         R"({"key":"memoccu","value":"75"},{"key":"poeoccu","value":"0"},)"
         R"({"key":"onlineports","value":")" +
         online + R"("},{"key":"uplinkdatas","value":")" + uplink +
         R"("},{"key":"sysname","value":"office-sw"},{"key":"have_poe","value":"1"},)"
         R"({"key":"check_model","value":"QM4410_MODEL_V1"}])";
}

constexpr char kPortsInfo[] =
    R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_info","data":)"
    R"({"ge1":[0,1,"G",1],"ge2":[1,1,"G",1]}})";

class UpdateTest : public AgentTest {
 protected:
  UpdateTest() {
    fake::set_nvram("product_sn", "SN0001");
    fake::set_nvram("product_hw_ver", "V1.0");
    fake::set_nvram("product_model", "QM4410_MODEL");
    fake::set_nvram("firmware_ver", "V2.1");
    fake::set_nvram("product_description", "office-sw");
    fake::add_interface("vlanif1", 7);
  }

  // A switch with ports "ge1".."ge<count>".
  void start_with(int count) {
    fake::add_ports(count);
    start();
  }
  static struct uif* uif(const char* name) { return uif_get_by_name(name); }
  static qel_port* port(const char* name) { return qel_port_of(uif_get_by_name(name)); }

  static int role(const char* name) {
    int code = -1;
    EXPECT_EQ(qel_mono_port_role(uif(name), &code), 0);
    return code;
  }

  // The next status page.
  std::string page() {
    qel_text& text = area_.begin();
    EXPECT_EQ(qel_json_port_status_limit_cnt(text), 0);
    return std::string(text.view());
  }
  // The value of `key` in a page that holds the port for the first time in this cycle.
  std::string value(const std::string& key) {
    for (const listnode* node = g_uif_list->head; node != nullptr; node = node->next) {
      qel_port* const one = qel_port_of(static_cast<const struct uif*>(node->data));
      if (one != nullptr) {
        one->reported = 0;
      }
    }
    const std::string text = page();
    const std::string head = "{\"key\":\"" + key + "\",\"value\":\"";
    const size_t at = text.find(head);
    return at == std::string::npos
               ? "no " + key
               : text.substr(at + head.size(), text.find('"', at + head.size()) - at - head.size());
  }
  // What a payload builder wrote, after a look at its result.
  std::string payload(size_t (*build)(qel_text&)) {
    qel_text& text = area_.begin();
    const size_t result = build(text);
    EXPECT_EQ(result, text.length());
    return std::string(text.view());
  }
  // The same for a message, whose closing NUL counts.
  std::string message(size_t (*build)(qel_text&, const cJSON*), const char* request = nullptr) {
    const qel_cjson_tree tree(request != nullptr ? cJSON_Parse(request) : nullptr);
    qel_text& text = area_.begin();
    const size_t result = build(text, tree.get());
    EXPECT_EQ(result, text.length() + 1);
    return std::string(text.view());
  }

  qel_text_area<kQelMessageSize> area_;
};

using UpdateDeathTest = UpdateTest;

// ---------------------------------------------------------------------------------------------
// Codes

TEST_F(UpdateTest, FourSpeedsHaveACodeAndAnythingElseIsZero) {
  const std::pair<int32_t, int> cases[] = {
      {10, 1},   {100, 2},  {1000, 3},  {10000, 4}, {0, 0},       {1, 0},      {11, 0},
      {2500, 0}, {5000, 0}, {25000, 0}, {-10, 0},   {INT_MAX, 0}, {INT_MIN, 0}};
  for (const auto& [speed, expected] : cases) {
    int code = -1;
    EXPECT_EQ(qel_mono_speed_code(speed, &code), 0);
    EXPECT_EQ(code, expected) << speed;
  }
}

TEST_F(UpdateTest, RoleIsTheFirstThatHolds) {
  start_with(1);
  EXPECT_EQ(role("ge1"), 0) << "none";
  uif("ge1")->mirror = 1;
  EXPECT_EQ(role("ge1"), 3) << "mirror";
  port("ge1")->power = 1;
  EXPECT_EQ(role("ge1"), 2) << "poe before mirror";
  port("ge1")->neighbour_type = 1;
  EXPECT_EQ(role("ge1"), 4) << "uplink before poe";
  port("ge1")->blocked = 1;
  EXPECT_EQ(role("ge1"), 1) << "block before uplink";
  uif("ge1")->flags = 1;
  EXPECT_EQ(role("ge1"), 5) << "disable before all";
}

TEST_F(UpdateTest, EachRoleAloneIsFound) {
  start_with(5);
  port("ge1")->blocked = 255;
  port("ge2")->neighbour_type = 1;
  port("ge3")->power = 15400;
  uif("ge4")->mirror = -1;
  uif("ge5")->flags = 1;
  EXPECT_EQ(role("ge1"), 1);
  EXPECT_EQ(role("ge2"), 4);
  EXPECT_EQ(role("ge3"), 2);
  EXPECT_EQ(role("ge4"), 3);
  EXPECT_EQ(role("ge5"), 5);
}

TEST_F(UpdateTest, RoleOfWhatHasNoRecordIsThatOfTheInterface) {
  start_with(1);
  fake::add_port("ge2");  // came after the start
  for (const char* name : {"ge2", "vlanif1"}) {
    EXPECT_EQ(role(name), 0) << name;
    uif(name)->mirror = 1;
    EXPECT_EQ(role(name), 3) << name;
    uif(name)->flags = 1;
    EXPECT_EQ(role(name), 5) << name;
  }
}

TEST_F(UpdateTest, NeighbourThatIsNoSwitchMakesNoUplink) {
  start_with(1);
  for (const int type : {0, 2, 3, 255}) {
    port("ge1")->neighbour_type = static_cast<uint8_t>(type);
    EXPECT_EQ(role("ge1"), 0) << type;
  }
}

TEST_F(UpdateTest, PowerThatIsNotAboveZeroMakesNoPoePort) {
  start_with(1);
  for (const int power : {0, -1, INT_MIN}) {
    port("ge1")->power = static_cast<uint32_t>(power);
    EXPECT_EQ(role("ge1"), 0) << power;
  }
}

TEST_F(UpdateTest, OnlyTheLowestFlagDisables) {
  start_with(1);
  uif("ge1")->flags = ~uint64_t{1};
  EXPECT_EQ(role("ge1"), 0);
  EXPECT_EQ(value("port.enable.1"), "1");
  uif("ge1")->flags = ~uint64_t{0};
  EXPECT_EQ(role("ge1"), 5);
  EXPECT_EQ(value("port.enable.1"), "0");
}

// ---------------------------------------------------------------------------------------------
// The status of a port

TEST_F(UpdateTest, PortIsThirteenEntriesInTheirOrder) {
  fake::PortSpec spec;
  spec.port_no = 17;
  spec.link = 1;
  spec.speed = 1000;
  spec.duplex = 1;
  spec.speed_conf = 8;
  spec.limit = 64;
  fake::add_port("ge1", spec);
  start();
  port("ge1")->power = 15400;
  port("ge1")->power_max = 30000;
  port("ge1")->poe_priority = 2;
  std::strcpy(port("ge1")->descname, "room 4");
  EXPECT_THAT(page(), BytesAre(R"({"key":"port.name.17","value":"ge1"},)"
                               R"({"key":"port.descname.17","value":"room 4"},)"
                               R"({"key":"port.link.17","value":"1"},)"
                               R"({"key":"port.enable.17","value":"1"},)"
                               R"({"key":"port.speed.17","value":"1000"},)"
                               R"({"key":"port.duplex.17","value":"1"},)"
                               R"({"key":"port.speed_cfg.17","value":"1G-F"},)"
                               R"({"key":"port.power.17","value":"15.4"},)"
                               R"({"key":"port.priority.17","value":"2"},)"
                               R"({"key":"port.powermax.17","value":"30000"},)"
                               R"({"key":"port.limit.17","value":"64"},)"
                               R"({"key":"port.statem.17","value":"1G"},)"
                               R"({"key":"port.statel.17","value":"poe"})"));
}

TEST_F(UpdateTest, LinkSpeedIsNamedOnlyWhileTheLinkIsUp) {
  struct Case {
    int32_t speed;
    int32_t link;
    const char* name;
  };
  start_with(1);
  for (const Case& one :
       {Case{10, 1, "10M"}, Case{100, 1, "100M"}, Case{1000, 1, "1G"}, Case{10000, 1, "10G"},
        Case{2500, 1, "disconnect"}, Case{0, 1, "disconnect"}, Case{-1, 1, "disconnect"},
        Case{10, 0, "disconnect"}, Case{1000, 0, "disconnect"}, Case{10000, 0, "disconnect"}}) {
    uif("ge1")->speed = one.speed;
    uif("ge1")->link = one.link;
    EXPECT_EQ(value("port.statem.1"), one.name) << one.speed << " " << one.link;
    EXPECT_EQ(value("port.speed.1"), std::to_string(one.speed));
  }
}

TEST_F(UpdateTest, PowerIsWattsWithOneDecimal) {
  start_with(1);
  const std::pair<int32_t, const char*> cases[] = {{15400, "15.4"},
                                                   {999, "0.9"},
                                                   {0, "0.0"},
                                                   {99, "0.0"},
                                                   {100, "0.1"},
                                                   {1000, "1.0"},
                                                   {100000, "100.0"},
                                                   {INT_MAX, "2147483.6"},
                                                   {-999, "0.-9"},
                                                   {-1500, "-1.-5"},
                                                   {INT_MIN, "-2147483.-6"}};
  for (const auto& [milliwatts, text] : cases) {
    port("ge1")->power = static_cast<uint32_t>(milliwatts);
    EXPECT_EQ(value("port.power.1"), text) << milliwatts;
  }
}

TEST_F(UpdateTest, ConfiguredSpeedIsNamedByItsIndex) {
  start_with(1);
  const std::pair<int32_t, const char*> cases[] = {{0, "AN"},   {1, "10M"},   {7, "1G"},
                                                   {9, "2.5G"}, {14, "100G"}, {15, "AN"},
                                                   {-1, "AN"},  {1000, "AN"}};
  for (const auto& [index, name] : cases) {
    uif("ge1")->speed_conf = index;
    EXPECT_EQ(value("port.speed_cfg.1"), name) << index;
  }
}

TEST_F(UpdateTest, AnyYesOfThePlatformIsUpAndEnabled) {
  start_with(2);
  uif("ge1")->link = 1;
  uif("ge1")->speed = 1000;
  uif("ge2")->flags = 1;
  for (const int yes : {2, 64, -1, INT_MIN}) {
    fake::set_uif_yes(yes);
    g_qel_dev.online_ports = 0;
    EXPECT_EQ(value("port.link.1"), "1") << yes;
    EXPECT_EQ(g_qel_dev.online_ports, 1U) << yes;
    EXPECT_EQ(value("port.enable.1"), "1") << yes;
    EXPECT_EQ(value("port.statem.1"), "1G") << yes;
    EXPECT_EQ(value("port.link.2"), "0") << yes;
    EXPECT_EQ(value("port.enable.2"), "0") << yes;
  }
}

TEST_F(UpdateTest, RolesAreNamed) {
  start_with(1);
  EXPECT_EQ(value("port.statel.1"), "none");
  uif("ge1")->mirror = 1;
  EXPECT_EQ(value("port.statel.1"), "mirror");
  port("ge1")->power = 1;
  EXPECT_EQ(value("port.statel.1"), "poe");
  port("ge1")->neighbour_type = 1;
  EXPECT_EQ(value("port.statel.1"), "uplink");
  port("ge1")->blocked = 1;
  EXPECT_EQ(value("port.statel.1"), "block");
}

TEST_F(UpdateTest, BlockedPortThatIsDisabledIsDisabled) {
  start_with(1);
  port("ge1")->blocked = 1;
  uif("ge1")->flags = 1;
  EXPECT_EQ(value("port.statel.1"), "disable");
  EXPECT_EQ(value("port.enable.1"), "0");
}

TEST_F(UpdateTest, NumbersGoOutAsTheyAre) {
  start_with(1);
  uif("ge1")->duplex = -7;
  uif("ge1")->limit = INT_MIN;
  port("ge1")->poe_priority = 255;
  port("ge1")->power_max = static_cast<uint32_t>(-1);
  EXPECT_EQ(value("port.duplex.1"), "-7");
  EXPECT_EQ(value("port.limit.1"), "-2147483648");
  EXPECT_EQ(value("port.priority.1"), "255");
  EXPECT_EQ(value("port.powermax.1"), "-1");
}

TEST_F(UpdateTest, TextsAreInsertedWithoutEscapingAndAreNoFormat) {
  fake::add_port("ge\"%s");
  start();
  std::strcpy(port("ge\"%s")->descname, "\"}%n\\\n");
  EXPECT_THAT(page(), StartsWith("{\"key\":\"port.name.1\",\"value\":\"ge\"%s\"},"
                                 "{\"key\":\"port.descname.1\",\"value\":\"\"}%n\\\n\"},"));
}

// ---------------------------------------------------------------------------------------------
// Pages

TEST_F(UpdateTest, PageHoldsFourPortsAndTheNextOneGoesOn) {
  start_with(6);
  EXPECT_THAT(page(), BytesAre(idle_port("1", "ge1") + "," + idle_port("2", "ge2") + "," +
                               idle_port("3", "ge3") + "," + idle_port("4", "ge4")));
  EXPECT_EQ(port("ge4")->reported, 1);
  EXPECT_EQ(port("ge5")->reported, 0);
  EXPECT_THAT(page(), BytesAre(idle_port("5", "ge5") + "," + idle_port("6", "ge6")));
  EXPECT_EQ(port("ge6")->reported, 1);
  EXPECT_EQ(page(), "");
}

TEST_F(UpdateTest, FullPageEndsAtTheFirstPortThatItCannotHold) {
  start_with(5);
  fake::add_null_interface();
  EXPECT_THAT(page(), BytesAre(idle_port("1", "ge1") + "," + idle_port("2", "ge2") + "," +
                               idle_port("3", "ge3") + "," + idle_port("4", "ge4")));
  EXPECT_EQ(port("ge5")->reported, 0);
}

TEST_F(UpdateTest, ReportedPortsAreLeftOut) {
  start_with(6);
  port("ge1")->reported = 1;
  port("ge3")->reported = 1;
  EXPECT_THAT(page(), BytesAre(idle_port("2", "ge2") + "," + idle_port("4", "ge4") + "," +
                               idle_port("5", "ge5") + "," + idle_port("6", "ge6")));
}

TEST_F(UpdateTest, PortsStandInListOrderWhateverTheirNumbers) {
  fake::add_port("xe1", {.port_no = 9});
  fake::add_port("ge1", {.port_no = 1});
  start();
  EXPECT_THAT(page(), BytesAre(idle_port("9", "xe1") + "," + idle_port("1", "ge1")));
}

TEST_F(UpdateTest, InterfacesThatAreNoPortsAndPortsThatCameLaterAreSkipped) {
  fake::add_port("ge1");
  fake::add_interface("trunk1", 0x00FFFFFF);
  fake::add_port("ge2");
  start();
  fake::add_port("ge3");
  EXPECT_THAT(page(), BytesAre(idle_port("1", "ge1") + "," + idle_port("2", "ge2")));
}

TEST_F(UpdateTest, SwitchWithoutPortsHasAnEmptyPage) {
  start();
  EXPECT_EQ(page(), "");
}

TEST_F(UpdateTest, PortsWithLinkThatFaceNoSwitchCountAsOnline) {
  start_with(6);
  for (const char* name : {"ge1", "ge2", "ge3", "ge5", "ge6"}) {
    uif(name)->link = 1;
  }
  port("ge2")->neighbour_type = 1;
  port("ge3")->neighbour_type = 2;
  g_qel_dev.online_ports = 0;
  page();
  EXPECT_EQ(g_qel_dev.online_ports, 2U) << "ge1 and ge3; ge2 is the uplink, ge4 is down";
  page();
  EXPECT_EQ(g_qel_dev.online_ports, 4U) << "and ge5 and ge6 of the next page";
  page();
  EXPECT_EQ(g_qel_dev.online_ports, 4U);
}

TEST_F(UpdateDeathTest, NullNodeInTheStatusIsABrokenInvariant) {
  start_with(1);
  fake::add_null_interface();
  EXPECT_DEATH(page(),
               "\\(node\\)->data != \\(\\(void \\*\\)0\\), file qel/qel_json, line [0-9]+, "
               "function qel_json_port_status_limit_cnt");
}

// ---------------------------------------------------------------------------------------------
// Payloads

TEST_F(UpdateTest, JoinPayloadHoldsTheTableAndTheWholePortReport) {
  start_with(2);
  EXPECT_THAT(payload(qel_json_join_payload),
              BytesAre(R"({"devtype":"switch","config":)" + table_with("0") + R"(,"status":[)" +
                       kPortsInfo + "]}"));
}

TEST_F(UpdateTest, JoinAlwaysTellsZeroOnlinePorts) {
  start_with(2);
  uif("ge1")->link = 1;
  page();
  EXPECT_EQ(g_qel_dev.online_ports, 1U);
  EXPECT_THAT(payload(qel_json_join_payload), HasSubstr(R"({"key":"onlineports","value":"0"})"));
  EXPECT_EQ(g_qel_dev.online_ports, 0U);
}

TEST_F(UpdateTest, JoinRefreshesTheTableOnceAndAfterThePortReport) {
  start_with(2);
  g_qel_dev.online_ports = 2;
  fake::clear_records();
  std::vector<uint32_t> online;
  fake::on_query([&online](const fake::Query&) { online.push_back(g_qel_dev.online_ports); });
  payload(qel_json_join_payload);
  EXPECT_THAT(online, testing::ElementsAre(0U));
  EXPECT_THAT(fake::query_texts(),
              testing::ElementsAre(R"({"mdl":"statistics","cmd":"port_basic_statistic_get_all"})"));
}

TEST_F(UpdateTest, ConfigPayloadHoldsTheTableWithThePortsCounted) {
  start_with(2);
  g_qel_dev.online_ports = 2;
  EXPECT_THAT(payload(qel_json_update_config_payload),
              BytesAre(R"({"devtype":"switch","config":)" + table_with("2") + "}"));
}

TEST_F(UpdateTest, PortsPayloadHoldsThePortReport) {
  start_with(2);
  g_qel_dev.online_ports = 2;
  EXPECT_THAT(payload(qel_json_update_ports_payload),
              BytesAre(R"({"devtype":"switch","status":[)" + std::string(kPortsInfo) + "]}"));
  EXPECT_EQ(g_qel_dev.online_ports, 0U);
}

TEST_F(UpdateTest, StatusPayloadHoldsOnePage) {
  start_with(2);
  EXPECT_THAT(payload(qel_json_update_status_payload),
              BytesAre(R"({"devtype":"switch","status":[)" + idle_port("1", "ge1") + "," +
                       idle_port("2", "ge2") + "]}"));
  EXPECT_THAT(payload(qel_json_update_status_payload),
              BytesAre(R"({"devtype":"switch","status":[]})"));
}

TEST_F(UpdateTest, UplinkTotalsAreZeroUntilSomethingFillsThem) {
  EXPECT_THAT(payload(qel_json_uplink_totals_payload),
              BytesAre(R"({"reptype":"uplinktotals","data":)"
                       R"("0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0"})"));
}

TEST_F(UpdateTest, UplinkTotalsAreOneTextOf24SignedNumbers) {
  for (int i = 0; i < 24; ++i) {
    g_qel_dev.uplink_totals[i] = i + 1;
  }
  g_qel_dev.uplink_totals[0] = INT_MIN;
  g_qel_dev.uplink_totals[23] = INT_MAX;
  EXPECT_THAT(payload(qel_json_uplink_totals_payload),
              BytesAre(R"({"reptype":"uplinktotals","data":"-2147483648,2,3,4,5,6,7,8,9,10,11,12,)"
                       R"(13,14,15,16,17,18,19,20,21,22,23,2147483647"})"));
}

TEST_F(UpdateTest, TableIsRefreshedForEachPayload) {
  start_with(2);
  payload(qel_json_update_config_payload);
  fake::set_nvram("product_description", "attic-sw");
  fake::advance(60);
  const std::string text = payload(qel_json_update_config_payload);
  EXPECT_THAT(text, HasSubstr(R"({"key":"sysname","value":"attic-sw"})"));
  EXPECT_THAT(text, HasSubstr(R"({"key":"device_name","value":"office-sw"})"));
  EXPECT_THAT(text, HasSubstr(R"({"key":"uptime","value":"3660"})"));
}

TEST_F(UpdateTest, UplinkFigureOfTheTableComesFromTheStatisticsModule) {
  start_with(2);
  port("ge2")->neighbour_type = 1;
  fake::reply("statistics", "port_basic_statistic_get_all",
              R"({"data":[{"name":"ge1","tx_bytes":9000000},{"name":"ge2","tx_bytes":5242879}]})");
  EXPECT_THAT(payload(qel_json_update_config_payload),
              BytesAre(R"({"devtype":"switch","config":)" + table_with("0", "4") + "}"));
}

TEST_F(UpdateTest, ModuleThatAnswersNonsenseLeavesThePayloadWhole) {
  start_with(2);
  port("ge1")->neighbour_type = 1;
  for (const std::string& text :
       {std::string(""), std::string("{"), std::string("[[[["), std::string("null"),
        std::string(R"({"data":5})"), std::string(R"({"data":{"name":"ge1","tx_bytes":5e9}})"),
        std::string(R"({"data":[null,1,"ge1",{"name":7},{"name":"ge1","tx_bytes":"x"}]})"),
        std::string(R"({"data":[{"name":"ge1","tx_bytes":-1e300}]})"), std::string(65534, '['),
        std::string(65534, '\xff')}) {
    fake::reply("statistics", "port_basic_statistic_get_all", text);
    EXPECT_THAT(payload(qel_json_join_payload),
                BytesAre(R"({"devtype":"switch","config":)" + table_with("0") + R"(,"status":[)" +
                         kPortsInfo + "]}"))
        << text.substr(0, 60);
  }
}

// ---------------------------------------------------------------------------------------------
// Messages

TEST_F(UpdateTest, JoinRequestIsTheJoinPayloadInARequestEnvelope) {
  start_with(2);
  EXPECT_THAT(
      message(qel_json_joinreq_msg),
      BytesAre(R"({"type":"joinreq","devid":"SW_0A1B2C3D4E5F","pktid":"0","reqid":0,"data":)"
               R"({"devtype":"switch","config":)" +
               table_with("0") + R"(,"status":[)" + kPortsInfo + "]}}"));
}

TEST_F(UpdateTest, UpdateMessagesCarryTheirPayloads) {
  start_with(2);
  EXPECT_THAT(message(qel_json_update_config_msg),
              BytesAre(R"({"type":"update","devid":"SW_0A1B2C3D4E5F","pktid":"0","reqid":0,)"
                       R"("data":{"devtype":"switch","config":)" +
                       table_with("0") + "}}"));
  EXPECT_THAT(message(qel_json_update_ports_msg),
              BytesAre(R"({"type":"update","devid":"SW_0A1B2C3D4E5F","pktid":"1","reqid":0,)"
                       R"("data":{"devtype":"switch","status":[)" +
                       std::string(kPortsInfo) + "]}}"));
  EXPECT_THAT(message(qel_json_update_status_msg),
              BytesAre(R"({"type":"update","devid":"SW_0A1B2C3D4E5F","pktid":"2","reqid":0,)"
                       R"("data":{"devtype":"switch","status":[)" +
                       idle_port("1", "ge1") + "," + idle_port("2", "ge2") + "]}}"));
}

TEST_F(UpdateTest, AnswersCarryTheIdAndTheAcknowledgementOfTheirRequest) {
  start();
  constexpr char kRequest[] = R"({"type":"joinresp","reqid":4294967297,"ack":{"a":1}})";
  EXPECT_THAT(message(qel_json_update_ports_msg, kRequest),
              BytesAre("{\"type\":\"update\",\"devid\":\"SW_0A1B2C3D4E5F\",\"pktid\":\"0\","
                       "\"reqid\":4294967297,\"data\":{\"devtype\":\"switch\",\"status\":["
                       "{\"mac\":\"0a1b2c3d4e5f\",\"cmd\":\"update\",\"subcmd\":\"ports_info\","
                       "\"data\":{}}]},\"ack\":{\n\t\"a\":\t1\n}}"));
  for (const auto build :
       {qel_json_joinreq_msg, qel_json_update_config_msg, qel_json_update_status_msg}) {
    const std::string text = message(build, kRequest);
    EXPECT_THAT(text, HasSubstr(R"(,"reqid":4294967297,"data":{"devtype":"switch",)"));
    EXPECT_THAT(text, testing::EndsWith("},\"ack\":{\n\t\"a\":\t1\n}}"));
  }
}

TEST_F(UpdateTest, MessageAfterALongerOneKeepsNothingOfIt) {
  start_with(4);
  message(qel_json_update_status_msg);
  EXPECT_THAT(message(qel_json_update_status_msg),
              BytesAre(R"({"type":"update","devid":"SW_0A1B2C3D4E5F","pktid":"1","reqid":0,)"
                       R"("data":{"devtype":"switch","status":[]}})"));
}

}  // namespace
