// SPDX-License-Identifier: Apache-2.0
//
// The compact port reports: what a switch of 28 ports sends, frame by frame; each figure of a row;
// pages; and the corners of the tables behind them.
#include <climits>
#include <memory>

#include "qel/qel_cmd.h"
#include "qel/qel_json.h"
#include "qel/qel_table.h"
#include "tests/unit/board28.h"
#include "tests/unit/support.h"

namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::SizeIs;

// A message asking for a report, and the bytes of the frames that answer it.
class ReportTest : public AgentTest {
 protected:
  void ask(const std::string& subcmd) {
    fake::clear_records();
    receive(R"({"mac":"gw","cmd":"get","subcmd":")" + subcmd + R"("})");
  }
  std::vector<std::string> messages(const std::string& subcmd) {
    ask(subcmd);
    return sent_messages();
  }
  static std::vector<std::string> frames() {
    std::vector<std::string> found;
    for (const fake::Sent& one : fake::sent()) {
      found.push_back(one.bytes);
    }
    return found;
  }
  // What a builder writes; its result must be the length.
  template <typename... Page>
  static std::string built(size_t (*build)(qel_text&, Page...), Page... page) {
    const auto area = std::make_unique<qel_text_area<kQelMessageSize>>();
    qel_text& text = area->begin();
    const size_t length = build(text, page...);
    EXPECT_EQ(length, text.view().size());
    return std::string(text.view());
  }
};

using ReportDeathTest = ReportTest;

class Board28Test : public ReportTest {
 protected:
  Board28Test() {
    fake::add_interface("vlanif1", 7);
    add_board28();
    start();
  }
};

// ---------------------------------------------------------------------------------------------
// 28 ports, frame by frame

TEST_F(Board28Test, PortsInfoIsTwoMessagesThePositionsSecond) {
  ask("ports_info");
  EXPECT_THAT(frames(), ElementsAre(BytesAre(reply_header(633) + kInfo28),
                                    BytesAre(reply_header(444) + kPositions28)));
}

TEST_F(Board28Test, PortsConfIsTwoPages) {
  ask("ports_conf");
  EXPECT_THAT(frames(), ElementsAre(BytesAre(reply_header(635) + kConf28First),
                                    BytesAre(reply_header(304) + kConf28Second)));
}

TEST_F(Board28Test, PortsLinkIsOneMessage) {
  qel_port_of(uif_get_by_name("ge6"))->restart_left = 9;
  ask("ports_link");
  EXPECT_THAT(frames(), ElementsAre(BytesAre(reply_header(584) + kLink28)));
}

// The first page has 1300 bytes, so it goes out in two frames: the first holds it whole, the second
// what is behind 1280 bytes, then zeros.
TEST_F(Board28Test, PortsStatsIsTwoPagesTheFirstInTwoFrames) {
  fake::reply("statistics", "port_statistic_qel_get_all", statistics28());
  ask("ports_stats");
  EXPECT_THAT(frames(),
              ElementsAre(BytesAre(reply_header(1316) + kStats28First),
                          BytesAre(reply_header(1316) + "0020,425000000020]}}" + zeros(1280)),
                          BytesAre(reply_header(577) + kStats28Second)));
  EXPECT_THAT(fake::query_texts(),
              ElementsAre(R"({"mdl":"statistics","cmd":"port_statistic_qel_get_all"})"));
}

TEST_F(Board28Test, StatisticsReplyWithoutItsResultIsReadAllTheSame) {
  fake::reply("statistics", "port_statistic_qel_get_all", statistics28(R"({"data":[)"));
  ask("ports_stats");
  ASSERT_THAT(frames(), SizeIs(3));
  EXPECT_THAT(frames()[0], BytesAre(reply_header(1316) + kStats28First));
  EXPECT_THAT(frames()[2], BytesAre(reply_header(577) + kStats28Second));
}

TEST_F(Board28Test, PortsPoeIsWhatTheModuleTells) {
  fake::reply("poe", "poe_qel_port_config_get_all", poe28());
  ask("ports_poe");
  EXPECT_THAT(frames(), ElementsAre(BytesAre(reply_header(391) + kPoe28)));
  EXPECT_THAT(fake::query_texts(),
              ElementsAre(R"({"mdl":"poe","cmd":"poe_qel_port_config_get_all"})"));
}

TEST_F(Board28Test, PortsPoeWithoutTheModuleIsZeroForEachPort) {
  ask("ports_poe");
  EXPECT_THAT(frames(), ElementsAre(BytesAre(reply_header(439) + kPoe28Zeros)));
}

TEST_F(Board28Test, PortsPoeBeginsBeforeTheModuleIsAsked) {
  g_qel_dev.online_ports = 7;
  uint32_t seen = 7;
  fake::on_query([&seen](const fake::Query&) { seen = g_qel_dev.online_ports; });
  ask("ports_poe");
  EXPECT_EQ(seen, 0U);
}

TEST_F(Board28Test, ReportsOverUdpAreDatagramsWithoutAHeader) {
  qel_link link = udp_link("192.168.1.77", 4000);
  qel_cmd_dispatch(&link, R"({"cmd":"get","subcmd":"ports_info"})", 0);
  EXPECT_THAT(frames(), ElementsAre(kInfo28, kPositions28));
  EXPECT_EQ(fake::sent()[1].ip(), "192.168.1.77");
  EXPECT_EQ(fake::sent()[1].port(), 4000);
}

TEST_F(Board28Test, ReportsThatAskNoModuleAskNone) {
  for (const char* subcmd : {"ports_info", "ports_conf", "ports_link"}) {
    ask(subcmd);
    EXPECT_THAT(fake::queries(), IsEmpty()) << subcmd;
  }
}

TEST_F(Board28Test, DataOfTheQuestionDoesNotMatter) {
  for (const char* data : {"{}", "[]", "5", "\"ge1\"", "null", R"({"ge1":1})"}) {
    fake::clear_records();
    receive(R"({"cmd":"get","subcmd":"ports_link","data":)" + std::string(data) + "}");
    EXPECT_THAT(fake::sent(), SizeIs(1)) << data;
  }
}

TEST_F(Board28Test, EveryBuilderSetsTheOnlinePortsToZero) {
  using Builder = std::string (*)();
  const Builder builders[] = {
      [] { return built(qel_json_port_status); },
      [] { return built(qel_json_port_pos); },
      [] { return built(qel_json_port_get_config, 0); },
      [] { return built(qel_json_port_link); },
      [] { return built(qel_json_ports_states, 0); },
      [] { return built(qel_json_port_get_poeconf); },
  };
  for (const Builder build : builders) {
    g_qel_dev.online_ports = 7;
    const std::string text = build();
    EXPECT_EQ(g_qel_dev.online_ports, 0U) << text;
  }
}

TEST_F(Board28Test, HandlersReturnZero) {
  qel_link link = eth_link();
  const qel_cjson_tree root(cJSON_Parse("{}"));
  for (const qel_cmd_handler handler :
       {qel_cmd_handle_ports_info, qel_cmd_handle_ports_conf, qel_cmd_handle_ports_link,
        qel_cmd_handle_ports_poe, qel_cmd_handle_ports_client, qel_cmd_handle_ports_stats}) {
    EXPECT_EQ(handler(&link, root.get(), "{}"), 0);
  }
}

// ---------------------------------------------------------------------------------------------
// No ports, and ports that are none

TEST_F(ReportTest, SwitchWithoutPortsSendsEmptyData) {
  fake::add_interface("vlanif1", 7);
  start();
  EXPECT_THAT(
      messages("ports_info"),
      ElementsAre(R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_info","data":{}})",
                  R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_pos","data":{}})"));
  EXPECT_THAT(
      messages("ports_conf"),
      ElementsAre(R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_conf","data":{}})"));
  EXPECT_THAT(
      messages("ports_link"),
      ElementsAre(R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_link","data":{}})"));
  EXPECT_THAT(
      messages("ports_stats"),
      ElementsAre(R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_stats","data":{}})"));
  EXPECT_THAT(
      messages("ports_poe"),
      ElementsAre(R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_poe_conf","data":{}})"));
  EXPECT_THAT(messages("ports_client"), IsEmpty());
}

TEST_F(ReportTest, EntryThatIsNoPortLeavesNoGap) {
  fake::add_interface("vlanif1", 7);
  fake::add_port("ge1", {.pos_x = 1, .pos_y = 1, .link = 1});
  fake::add_interface("trunk1", 0x00FFFFFF);
  fake::add_port("ge2", {.pos_x = -2, .pos_y = 0});
  fake::add_interface("vlanif2", 8);
  start();
  EXPECT_THAT(messages("ports_info"),
              ElementsAre(R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_info",)"
                          R"("data":{"ge1":[0,1,"G",1],"ge2":[1,1,"G",1]}})",
                          R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_pos",)"
                          R"("data":{"ge1":[1,1],"ge2":[-2,0]}})"));
  EXPECT_THAT(messages("ports_link"),
              ElementsAre(R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_link",)"
                          R"("data":{"ge1":[1,0,0,0],"ge2":[0,0,0,0]}})"));
  EXPECT_THAT(messages("ports_conf"),
              ElementsAre(R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_conf","data":)"
                          R"({"ge1":[1,"AN",0,0,0,0,0,0],"ge2":[1,"AN",0,0,0,0,0,0]}})"));
  EXPECT_THAT(messages("ports_stats"),
              ElementsAre(R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_stats",)"
                          R"("data":{"ge1":[0,0,0,0],"ge2":[0,0,0,0]}})"));
  EXPECT_THAT(messages("ports_poe"),
              ElementsAre(R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_poe_conf",)"
                          R"("data":{"ge1":[0,0],"ge2":[0,0]}})"));
}

TEST_F(ReportTest, RowsStandInListOrderWhateverThePortNumbers) {
  fake::add_port("b", {.port_no = 9});
  fake::add_port("a", {.port_no = 2});
  start();
  EXPECT_THAT(messages("ports_info"),
              ElementsAre(R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_info",)"
                          R"("data":{"b":[0,1,"G",1],"a":[1,1,"G",1]}})",
                          R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_pos",)"
                          R"("data":{"b":[0,0],"a":[0,0]}})"));
  EXPECT_THAT(messages("ports_poe"),
              ElementsAre(R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_poe_conf",)"
                          R"("data":{"b":[0,0],"a":[0,0]}})"));
}

TEST_F(ReportTest, HeadHasTheSystemMac) {
  fake::set_system_mac({0x00, 0xff, 0x0A, 0xB0, 0x09, 0x90});
  start();
  EXPECT_EQ(built(qel_json_port_link),
            R"({"mac":"00ff0ab00990","cmd":"update","subcmd":"ports_link","data":{}})");
}

TEST_F(ReportTest, InterfaceNamesGoInWithoutEscaping) {
  fake::add_port("a\"b\\%n%s");
  start();
  EXPECT_EQ(built(qel_json_port_pos),
            "{\"mac\":\"0a1b2c3d4e5f\",\"cmd\":\"update\",\"subcmd\":\"ports_pos\","
            "\"data\":{\"a\"b\\%n%s\":[0,0]}}");
}

TEST_F(ReportTest, PortThatCameAfterTheStartIsSkipped) {
  fake::add_port("ge1");
  start();
  fake::add_port("ge2");
  EXPECT_EQ(built(qel_json_port_pos),
            R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_pos","data":{"ge1":[0,0]}})");
}

// ---------------------------------------------------------------------------------------------
// Pages

struct Pages {
  int port_max;
  int ports;
  std::vector<int> rows;  // of each message
};

class Paging : public ReportTest, public testing::WithParamInterface<Pages> {
 protected:
  Paging() {
    fake::add_ports(GetParam().ports);
    start();
    g_port_max = GetParam().port_max;
  }

  // The number of rows of each message, and that they go through the ports in order.
  static std::vector<int> rows_of(const std::vector<std::string>& texts) {
    std::vector<int> counts;
    int port = 0;
    for (const std::string& text : texts) {
      const qel_cjson_tree root(cJSON_Parse(text.c_str()));
      const cJSON* const data = cJSON_GetObjectItem(root.get(), "data");
      counts.push_back(cJSON_GetArraySize(data));
      const cJSON* row = nullptr;
      cJSON_ArrayForEach(row, data) {
        ++port;
        EXPECT_EQ(row->string, "ge" + std::to_string(port));
      }
    }
    return counts;
  }
};

TEST_P(Paging, ConfigurationHas20PortsAMessage) {
  EXPECT_EQ(rows_of(messages("ports_conf")), GetParam().rows);
}

TEST_P(Paging, StatisticsHave20PortsAMessage) {
  EXPECT_EQ(rows_of(messages("ports_stats")), GetParam().rows);
  EXPECT_THAT(fake::queries(), SizeIs(1)) << "the counters are read once, not for each page";
}

INSTANTIATE_TEST_SUITE_P(
    Ports, Paging,
    testing::Values(Pages{1, 1, {1}}, Pages{19, 19, {19}}, Pages{20, 20, {20}},
                    Pages{21, 21, {20, 1}}, Pages{28, 28, {20, 8}}, Pages{40, 40, {20, 20}},
                    Pages{41, 41, {20, 20, 1}}, Pages{52, 52, {20, 20, 12}},
                    // A maximum that is not the number of ports there are decides all the same.
                    Pages{19, 28, {20}}, Pages{20, 28, {20}}, Pages{40, 28, {20, 8}},
                    Pages{41, 10, {10, 0, 0}}, Pages{0, 0, {0}}, Pages{-1, 3, {3}}),
    [](const auto& row) {
      return (row.param.port_max < 0 ? "Minus" : "Max") +
             std::to_string(std::abs(row.param.port_max)) + "Of" + std::to_string(row.param.ports);
    });

TEST_F(Board28Test, PageBehindTheLastPortIsEmpty) {
  EXPECT_EQ(built(qel_json_port_get_config, 2),
            R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_conf","data":{}})");
  EXPECT_EQ(built(qel_json_ports_states, 99),
            R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_stats","data":{}})");
}

// Numbered from the back: what counts is where a port stands in the list.
TEST_F(ReportTest, PagesGoByThePlaceInTheListWhateverThePortNumbers) {
  for (int number = 22; number >= 1; --number) {
    fake::add_port(("ge" + std::to_string(number)).c_str(), {.port_no = number});
  }
  start();
  EXPECT_THAT(messages("ports_conf"),
              ElementsAre(R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_conf","data":{)"
                          R"("ge22":[1,"AN",0,0,0,0,0,0],"ge21":[1,"AN",0,0,0,0,0,0],)"
                          R"("ge20":[1,"AN",0,0,0,0,0,0],"ge19":[1,"AN",0,0,0,0,0,0],)"
                          R"("ge18":[1,"AN",0,0,0,0,0,0],"ge17":[1,"AN",0,0,0,0,0,0],)"
                          R"("ge16":[1,"AN",0,0,0,0,0,0],"ge15":[1,"AN",0,0,0,0,0,0],)"
                          R"("ge14":[1,"AN",0,0,0,0,0,0],"ge13":[1,"AN",0,0,0,0,0,0],)"
                          R"("ge12":[1,"AN",0,0,0,0,0,0],"ge11":[1,"AN",0,0,0,0,0,0],)"
                          R"("ge10":[1,"AN",0,0,0,0,0,0],"ge9":[1,"AN",0,0,0,0,0,0],)"
                          R"("ge8":[1,"AN",0,0,0,0,0,0],"ge7":[1,"AN",0,0,0,0,0,0],)"
                          R"("ge6":[1,"AN",0,0,0,0,0,0],"ge5":[1,"AN",0,0,0,0,0,0],)"
                          R"("ge4":[1,"AN",0,0,0,0,0,0],"ge3":[1,"AN",0,0,0,0,0,0]}})",
                          R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_conf","data":{)"
                          R"("ge2":[1,"AN",0,0,0,0,0,0],"ge1":[1,"AN",0,0,0,0,0,0]}})"));
  EXPECT_THAT(messages("ports_stats"),
              ElementsAre(R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_stats","data":{)"
                          R"("ge22":[0,0,0,0],"ge21":[0,0,0,0],"ge20":[0,0,0,0],"ge19":[0,0,0,0],)"
                          R"("ge18":[0,0,0,0],"ge17":[0,0,0,0],"ge16":[0,0,0,0],"ge15":[0,0,0,0],)"
                          R"("ge14":[0,0,0,0],"ge13":[0,0,0,0],"ge12":[0,0,0,0],"ge11":[0,0,0,0],)"
                          R"("ge10":[0,0,0,0],"ge9":[0,0,0,0],"ge8":[0,0,0,0],"ge7":[0,0,0,0],)"
                          R"("ge6":[0,0,0,0],"ge5":[0,0,0,0],"ge4":[0,0,0,0],"ge3":[0,0,0,0]}})",
                          R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_stats","data":{)"
                          R"("ge2":[0,0,0,0],"ge1":[0,0,0,0]}})"));
}

TEST_F(ReportTest, FullPageLooksAtNothingBehindIt) {
  fake::add_ports(20);
  start();
  fake::add_null_interface();
  EXPECT_THAT(built(qel_json_ports_states, 0), EndsWith(R"(,"ge20":[0,0,0,0]}})"));
  EXPECT_THAT(built(qel_json_port_get_config, 0), EndsWith(R"(,"ge20":[1,"AN",0,0,0,0,0,0]}})"));
}

TEST_F(ReportTest, PageThatIsTooLongIsRefusedAndTheNextOneIsSent) {
  fake::add_ports(21);
  start();
  for (int i = 1; i <= 21; ++i) {
    qel_port* const port = qel_port_of(uif_get_by_name(("ge" + std::to_string(i)).c_str()));
    port->tx_sum = port->rx_sum = port->tx_rate = port->rx_rate = UINT64_MAX;
  }
  ask("ports_stats");
  EXPECT_THAT(sent_messages(),
              ElementsAre(R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_stats","data":)"
                          R"({"ge21":[18446744073709551615,18446744073709551615,)"
                          R"(18446744073709551615,18446744073709551615]}})"));
  // 70 bytes of head and end, 9 rows of 91 bytes, 11 of 92, 19 separators.
  EXPECT_THAT(fake::console(),
              ElementsAre(MatchesRegex("\\[qel_cmd_send,[0-9]+\\] len\\[1920\\] argc error \n")));
}

// ---------------------------------------------------------------------------------------------
// ports_info: media

struct Media {
  int32_t speed_class;
  int32_t medium;
  int32_t max_speed;
  const char* name;
};

std::string number_word(int32_t number) {
  return number < 0 ? "Minus" + std::to_string(-static_cast<int64_t>(number))
                    : std::to_string(number);
}

std::string media_case(const testing::TestParamInfo<Media>& row) {
  return "Class" + number_word(row.param.speed_class) + "Medium" + number_word(row.param.medium) +
         "Max" + number_word(row.param.max_speed);
}

class MediaName : public ReportTest, public testing::WithParamInterface<Media> {};

TEST_P(MediaName, FollowsClassMediumAndHighestSpeed) {
  const Media& media = GetParam();
  const struct uif* const uif = fake::add_port(
      "p",
      {.speed_class = media.speed_class, .medium = media.medium, .max_speed = media.max_speed});
  start();
  EXPECT_STREQ(qel_json_port_media_name(uif), media.name);
  EXPECT_EQ(built(qel_json_port_status),
            R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_info","data":{"p":[0,)" +
                std::to_string(media.medium) + ",\"" + media.name + "\",1]}}");
}

INSTANTIATE_TEST_SUITE_P(FastEthernet, MediaName,
                         testing::Values(Media{1, 1, 100, "F"}, Media{1, 2, 100, "FF"},
                                         Media{1, 1, 1000, "F"}, Media{1, 2, 2500, "FF"},
                                         Media{1, 0, 100, "G"}, Media{1, 3, 100, "G"},
                                         Media{1, -1, 100, "G"}),
                         media_case);
INSTANTIATE_TEST_SUITE_P(Gigabit, MediaName,
                         testing::Values(Media{2, 1, 1000, "G"}, Media{2, 1, 2500, "2.5G"},
                                         Media{2, 2, 1000, "GF"}, Media{2, 2, 2500, "2.5GF"},
                                         Media{2, 1, 0, "G"}, Media{2, 2, 0, "G"},
                                         Media{2, 2, 10000, "G"}, Media{2, 1, 5000, "G"},
                                         Media{2, 0, 1000, "G"}, Media{2, 3, 2500, "G"}),
                         media_case);
INSTANTIATE_TEST_SUITE_P(TenGigabit, MediaName,
                         testing::Values(Media{3, 1, 10000, "10GF"}, Media{3, 2, 10000, "10GF"},
                                         Media{3, 0, 0, "10GF"}, Media{3, 1, 1000, "10GF"}),
                         media_case);
INSTANTIATE_TEST_SUITE_P(UnknownClass, MediaName,
                         testing::Values(Media{0, 1, 1000, "G"}, Media{4, 2, 2500, "G"},
                                         Media{-1, 2, 10000, "G"}, Media{INT_MAX, 1, 1, "G"}),
                         media_case);

TEST_F(ReportTest, MediaNamesByIndex) {
  const char* const names[] = {"F",   "FF",   "G",    "GF",   "2.5G", "2.5GF",
                               "10G", "10GF", "25GF", "40GF", "100GF"};
  for (int32_t i = 0; i <= 10; ++i) {
    EXPECT_STREQ(qel_json_media_name_by_index(i), names[i]);
  }
  for (const int32_t index : {-1, 11, INT_MAX, INT_MIN}) {
    EXPECT_STREQ(qel_json_media_name_by_index(index), "G");
  }
}

TEST_F(ReportTest, OnlyTheSignOfTheAuxIndexIsReported) {
  fake::add_port("a", {.aux_index = 0});
  fake::add_port("b", {.aux_index = INT_MAX});
  fake::add_port("c", {.aux_index = -1});
  fake::add_port("d", {.aux_index = INT_MIN});
  start();
  EXPECT_EQ(built(qel_json_port_status),
            R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_info","data":)"
            R"({"a":[0,1,"G",1],"b":[1,1,"G",1],"c":[2,1,"G",0],"d":[3,1,"G",0]}})");
}

// ---------------------------------------------------------------------------------------------
// ports_conf: speeds and switches

TEST_F(ReportTest, ConfiguredSpeedNamesByIndex) {
  const char* const names[] = {"AN",   "10M",  "10M-H", "10M-F", "100M", "100M-H", "100M-F", "1G",
                               "1G-F", "2.5G", "5G",    "10G",   "25G",  "40G",    "100G"};
  for (int32_t i = 0; i <= 14; ++i) {
    EXPECT_STREQ(qel_json_speed_cfg_name(i), names[i]);
  }
  for (const int32_t index : {-1, 15, 1000, INT_MAX, INT_MIN}) {
    EXPECT_STREQ(qel_json_speed_cfg_name(index), "AN");
  }
}

struct SpeedShown {
  int32_t speed;
  const char* name;
};

class ConfSpeed : public ReportTest, public testing::WithParamInterface<SpeedShown> {};

TEST_P(ConfSpeed, IsNamedByTheSpeedOfTheLink) {
  fake::add_port("ge1", {.speed = GetParam().speed, .speed_conf = 7, .link = 1});
  start();
  EXPECT_EQ(built(qel_json_port_get_config, 0),
            R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_conf","data":{"ge1":[1,")" +
                std::string(GetParam().name) + R"(",0,0,0,0,0,0]}})");
}

INSTANTIATE_TEST_SUITE_P(Speeds, ConfSpeed,
                         testing::Values(SpeedShown{0, "AN"}, SpeedShown{10, "5G"},
                                         SpeedShown{100, "AN"}, SpeedShown{1000, "AN"},
                                         SpeedShown{10000, "AN"}, SpeedShown{14, "100G"},
                                         SpeedShown{15, "AN"}, SpeedShown{-10, "AN"}),
                         [](const auto& row) { return "Mbit" + number_word(row.param.speed); });

TEST_F(ReportTest, ConfigurationShowsTheSwitchesInTheirOrder) {
  fake::add_port("ge5", {.speed = 1000, .link = 1});
  fake::add_port("ge6", {.disabled = true});
  fake::set_nvram("iso.ge5.enable", "1");
  fake::set_nvram("eee.ge5.enable", "2");
  fake::set_nvram("llpp.ge5.enable", "3");
  fake::set_nvram("mstp.ge5.enable", "4");
  fake::set_nvram("lldp.ge5.enable", "5");
  fake::set_nvram("poe.ge5.enable", "-6");
  fake::set_nvram("iso.ge6.enable", "on");  // not a number
  fake::set_nvram("eee.ge6.enable", "");
  start();
  EXPECT_EQ(built(qel_json_port_get_config, 0),
            R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_conf","data":)"
            R"({"ge5":[1,"AN",1,2,3,4,5,-6],"ge6":[0,"AN",0,0,0,0,0,0]}})");
}

TEST_F(ReportTest, SwitchesOfTheLongestNameAreRead) {
  fake::add_port("port-with-the-longest-name-0001");
  for (const char* key :
       {"iso.port-with-the-longest-name-0001.enable", "eee.port-with-the-longest-name-0001.enable",
        "llpp.port-with-the-longest-name-0001.enable",
        "mstp.port-with-the-longest-name-0001.enable",
        "lldp.port-with-the-longest-name-0001.enable",
        "poe.port-with-the-longest-name-0001.enable"}) {
    fake::set_nvram(key, "1");
  }
  start();
  EXPECT_EQ(built(qel_json_port_get_config, 0),
            R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_conf","data":)"
            R"({"port-with-the-longest-name-0001":[1,"AN",1,1,1,1,1,1]}})");
}

TEST_F(ReportTest, SwitchesOfAnotherPortDoNotCount) {
  fake::add_port("ge1");
  for (const char* key : {"iso.ge11.enable", "iso.ge.enable", "iso.ge1.enabled", "iso.ge1",
                          "iso.GE1.enable", "ge1.iso.enable"}) {
    fake::set_nvram(key, "1");
  }
  start();
  EXPECT_EQ(built(qel_json_port_get_config, 0),
            R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_conf","data":)"
            R"({"ge1":[1,"AN",0,0,0,0,0,0]}})");
}

// ---------------------------------------------------------------------------------------------
// ports_link

TEST_F(ReportTest, LinkShowsStateSpeedDuplexAndRestart) {
  fake::add_port("a", {.speed = 10000, .duplex = 1, .link = 7});
  fake::add_port("b", {.speed = -1, .duplex = 2, .link = 0});
  start();
  qel_port_of(uif_get_by_name("b"))->restart_left = 255;
  EXPECT_EQ(built(qel_json_port_link),
            R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_link","data":)"
            R"({"a":[1,10000,1,0],"b":[0,-1,2,255]}})");
}

TEST_F(ReportTest, AnyYesOfThePlatformIsOne) {
  fake::add_port("a", {.link = 1});
  fake::add_port("b", {.link = 0, .disabled = true});
  start();
  for (const int yes : {64, -1, INT_MIN}) {
    fake::set_uif_yes(yes);
    EXPECT_EQ(built(qel_json_port_get_config, 0),
              R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_conf","data":)"
              R"({"a":[1,"AN",0,0,0,0,0,0],"b":[0,"AN",0,0,0,0,0,0]}})");
    EXPECT_EQ(built(qel_json_port_link),
              R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_link","data":)"
              R"({"a":[1,0,0,0],"b":[0,0,0,0]}})");
  }
}

// ---------------------------------------------------------------------------------------------
// A broken list

TEST_F(ReportDeathTest, NullNodeIsABrokenInvariantInEveryBuilder) {
  fake::add_ports(2);
  start();
  fake::add_null_interface();
  const std::string told =
      "\\(node\\)->data != \\(\\(void \\*\\)0\\), file qel/qel_json, line [0-9]+, function ";
  EXPECT_DEATH(built(qel_json_port_status), told + "qel_json_port_status");
  EXPECT_DEATH(built(qel_json_port_pos), told + "qel_json_port_pos");
  EXPECT_DEATH(built(qel_json_port_get_config, 0), told + "qel_json_port_get_config");
  EXPECT_DEATH(built(qel_json_port_link), told + "qel_json_port_link");
  EXPECT_DEATH(built(qel_json_ports_states, 0), told + "qel_json_ports_states");
  EXPECT_DEATH(built(qel_json_port_get_poeconf), told + "qel_json_port_get_poeconf");
}

}  // namespace
