// SPDX-License-Identifier: Apache-2.0
//
// What modules answer, good and hostile: the counters of "ports_stats" and the rows of "ports_poe".
// No answer may stop a report, and after each the agent answers the next frame.
#include <cstring>

#include "qel/qel_table.h"
#include "tests/unit/support.h"

namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::SizeIs;
using testing::StartsWith;

constexpr char kStatsHead[] =
    R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_stats","data":{)";
constexpr char kPoeHead[] =
    R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_poe_conf","data":{)";
constexpr char kStatsZero[] = R"("ge1":[0,0,0,0],"ge2":[0,0,0,0]}})";
constexpr char kPoeZero[] = R"("ge1":[0,0],"ge2":[0,0]}})";

// Answers that are no list of ports. `parses`: a reader gets a tree without "data" from it.
struct Fault {
  const char* name;
  std::string reply;
  bool parses;
};

std::string nested(const char* part, int times) {
  std::string text;
  for (int i = 0; i < times; ++i) {
    text += part;
  }
  return text;
}

std::vector<Fault> faults() {
  return {
      {"Empty", "", false},
      {"OneBlank", " ", false},
      {"NotJson", "Segmentation fault", false},
      {"HalfAReply", R"({"data":[{"name":"ge1","tx_sum":5,"enable":1},{"na)", false},
      {"HalfAText", R"({"data":[{"name":"g)", false},
      {"Formats", "%s%n%s%n%d", false},
      {"BytesFf", std::string(1000, '\xff'), false},
      {"OpeningBrackets", std::string(60000, '['), false},
      {"OpeningBraces", nested(R"({"data":)", 7000), false},
      {"LongestText", std::string(65534, 'x'), false},
      {"TooLong", std::string(65535, ' '), false},
      {"TenMegabytes", R"({"data":[)" + std::string(10000000, ' ') + "]}", false},
      {"EmptyObject", "{}", true},
      {"EmptyArray", "[]", true},
      {"Number", "5", true},
      {"Text", R"("data")", true},
      {"Null", "null", true},
      {"DataNull", R"({"data":null})", true},
      {"DataNumber", R"({"data":7})", true},
      {"DataText", R"({"data":"ge1"})", true},
      {"DataEmptyArray", R"({"data":[]})", true},
      {"DataEmptyObject", R"({"data":{}})", true},
      {"DataBool", R"({"data":true})", true},
      {"OtherMember", R"({"dat":[{"name":"ge1","tx_sum":5,"enable":1}]})", true},
      {"ElementsOfOtherKinds", R"({"data":[1,"ge1",null,true,[],["name","ge1"],{}]})", true},
      {"NamesOfOtherKinds",
       R"({"data":[{"name":1},{"name":null},{"name":["ge1"]},{"name":{"name":"ge1"}},)"
       R"({"tx_sum":5,"enable":1}]})",
       true},
      {"DeepArrays", R"({"data":)" + std::string(900, '[') + std::string(900, ']') + "}", true},
  };
}

class ModuleTest : public AgentTest {
 protected:
  ModuleTest() {
    fake::add_interface("vlanif1", 7);
    fake::add_ports(2);
    start();
  }

  std::vector<std::string> ask(const std::string& subcmd) {
    fake::clear_records();
    receive(R"({"mac":"gw","cmd":"get","subcmd":")" + subcmd + R"("})");
    return sent_messages();
  }
  // The answer to "ports_stats" when the module "statistics" gives that reply.
  std::vector<std::string> stats(const std::string& reply) {
    fake::reply("statistics", "port_statistic_qel_get_all", reply);
    return ask("ports_stats");
  }
  std::vector<std::string> poe(const std::string& reply) {
    fake::reply("poe", "poe_qel_port_config_get_all", reply);
    return ask("ports_poe");
  }

  // The agent reads and answers the next frame.
  void expect_alive() {
    EXPECT_EQ(fake::registered("qel_eth_read", g_qel_dev.eth_fd), 1);
    EXPECT_THAT(ask("ports_link"),
                ElementsAre(R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_link",)"
                            R"("data":{"ge1":[0,0,0,0],"ge2":[0,0,0,0]}})"));
  }

  static std::string stats_with(const std::string& rows) { return kStatsHead + rows + "}}"; }
  static std::string poe_with(const std::string& rows) { return kPoeHead + rows + "}}"; }
};

class FaultTest : public ModuleTest, public testing::WithParamInterface<Fault> {};

TEST_P(FaultTest, CountersStayAndThePageIsSent) {
  EXPECT_THAT(stats(GetParam().reply),
              ElementsAre(stats_with(R"("ge1":[0,0,0,0],"ge2":[0,0,0,0])")));
  qel_port_of(uif_get_by_name("ge2"))->rx_sum = 9;
  EXPECT_THAT(stats(GetParam().reply),
              ElementsAre(stats_with(R"("ge1":[0,0,0,0],"ge2":[0,9,0,0])")));
  EXPECT_THAT(fake::console(), IsEmpty());
  expect_alive();
}

TEST_P(FaultTest, PoeListsEveryPortWithZerosUnlessTheReplyParses) {
  EXPECT_THAT(poe(GetParam().reply),
              ElementsAre(poe_with(GetParam().parses ? "" : R"("ge1":[0,0],"ge2":[0,0])")));
  EXPECT_THAT(fake::console(), IsEmpty());
  expect_alive();
}

TEST_P(FaultTest, PortCommandsDoNotLook) {
  fake::reply("mono", "qel_port_enable_set", GetParam().reply);
  fake::reply("mono", "qel_port_speed_set", GetParam().reply);
  fake::reply("mono", "qel_common_update_mono_portinfo", GetParam().reply);
  receive(R"({"cmd":"set","subcmd":"port_enable","data":{"ge1":1}})");
  receive(R"({"cmd":"set","subcmd":"port_speed","data":{"ge1":"1G"}})");
  receive(R"({"cmd":"set","subcmd":"ports_conf","data":{}})");
  EXPECT_THAT(fake::queries(), SizeIs(6));
  EXPECT_THAT(fake::sent(), IsEmpty());
  EXPECT_THAT(fake::console(), IsEmpty());
  expect_alive();
}

INSTANTIATE_TEST_SUITE_P(Replies, FaultTest, testing::ValuesIn(faults()),
                         [](const auto& row) { return row.param.name; });

// ---------------------------------------------------------------------------------------------
// No module at all

TEST_F(ModuleTest, AbsentModulesLeaveTheReportsComplete) {
  EXPECT_THAT(ask("ports_stats"), ElementsAre(std::string(kStatsHead) + kStatsZero));
  EXPECT_THAT(ask("ports_poe"), ElementsAre(std::string(kPoeHead) + kPoeZero));
  expect_alive();
}

TEST_F(ModuleTest, ModuleThatComesBackIsHeardAgain) {
  stats(R"({"data":[{"name":"ge1","tx_sum":5}]})");
  EXPECT_THAT(stats("no json"), ElementsAre(stats_with(R"("ge1":[5,0,0,0],"ge2":[0,0,0,0])")));
  EXPECT_THAT(stats(R"({"data":[{"name":"ge1","tx_sum":6}]})"),
              ElementsAre(stats_with(R"("ge1":[6,0,0,0],"ge2":[0,0,0,0])")));
}

TEST_F(ModuleTest, AnswerOfOneModuleIsNotTakenForThatOfAnother) {
  stats(R"({"data":[{"name":"ge1","enable":1,"supply_priority":2}]})");
  EXPECT_THAT(ask("ports_poe"), ElementsAre(std::string(kPoeHead) + kPoeZero));
}

// ---------------------------------------------------------------------------------------------
// Counters

TEST_F(ModuleTest, CountersAreStoredAsTheModuleGivesThem) {
  EXPECT_THAT(stats(R"({"data":[{"name":"ge2","tx_sum":1,"rx_sum":2,"tx_rate":3,"rx_rate":4}]})"),
              ElementsAre(stats_with(R"("ge1":[0,0,0,0],"ge2":[1,2,3,4])")));
  const qel_port* const port = qel_port_of(uif_get_by_name("ge2"));
  EXPECT_EQ(port->tx_sum, 1U);
  EXPECT_EQ(port->rx_sum, 2U);
  EXPECT_EQ(port->tx_rate, 3U);
  EXPECT_EQ(port->rx_rate, 4U);
}

TEST_F(ModuleTest, ReplyOfTheUsualFormIsStoredLikeAnyOther) {
  EXPECT_THAT(
      stats(R"({"ret":0,"data":[{"name":"ge2","tx_sum":1,"rx_sum":2,"tx_rate":3,"rx_rate":4},)"
            R"({"name":"ge9","tx_sum":5,"rx_sum":5,"tx_rate":5,"rx_rate":5},)"
            R"({"name":"vlanif1","tx_sum":6,"rx_sum":6,"tx_rate":6,"rx_rate":6},)"
            R"({"name":"ge1","tx_sum":7,"rx_sum":7,"tx_rate":7,"rx_rate":7},)"
            R"({"name":"ge1","tx_sum":10,"rx_sum":20,"tx_rate":30,"rx_rate":40}]})"),
      ElementsAre(stats_with(R"("ge1":[10,20,30,40],"ge2":[1,2,3,4])")));
  EXPECT_THAT(
      stats(R"({"ret":0,"data":[{"name":"ge2","tx_sum":8,"rx_sum":9,"tx_rate":0,"rx_rate":1}]})"),
      ElementsAre(stats_with(R"("ge1":[10,20,30,40],"ge2":[8,9,0,1])")));
}

TEST_F(ModuleTest, OrderOfTheMembersDoesNotMatter) {
  EXPECT_THAT(stats(R"({"x":1,"data":[{"rx_rate":4,"y":[],"tx_sum":1,"name":"ge1","rx_sum":2}]})"),
              ElementsAre(stats_with(R"("ge1":[1,2,0,4],"ge2":[0,0,0,0])")));
}

TEST_F(ModuleTest, PortThatTheReplyDoesNotNameKeepsItsCounters) {
  stats(R"({"data":[{"name":"ge1","tx_sum":11},{"name":"ge2","tx_sum":22}]})");
  EXPECT_THAT(stats(R"({"data":[{"name":"ge2","tx_sum":33}]})"),
              ElementsAre(stats_with(R"("ge1":[11,0,0,0],"ge2":[33,0,0,0])")));
}

TEST_F(ModuleTest, MissingCounterIsZeroAlsoWhenItWasNot) {
  stats(R"({"data":[{"name":"ge1","tx_sum":1,"rx_sum":2,"tx_rate":3,"rx_rate":4}]})");
  EXPECT_THAT(stats(R"({"data":[{"name":"ge1","rx_sum":5}]})"),
              ElementsAre(stats_with(R"("ge1":[0,5,0,0],"ge2":[0,0,0,0])")));
}

TEST_F(ModuleTest, PortNamedTwiceKeepsTheLastCounters) {
  EXPECT_THAT(stats(R"({"data":[{"name":"ge1","tx_sum":1,"rx_sum":1},{"name":"ge1","tx_sum":2}]})"),
              ElementsAre(stats_with(R"("ge1":[2,0,0,0],"ge2":[0,0,0,0])")));
}

TEST_F(ModuleTest, UnknownNamesAreSkipped) {
  EXPECT_THAT(stats(R"({"data":[{"name":"ge3","tx_sum":1},{"name":"","tx_sum":1},)"
                    R"({"name":"GE1","tx_sum":1},{"name":"ge1 ","tx_sum":1},)"
                    R"({"name":"%n\"","tx_sum":1},{"name":"vlanif1","tx_sum":1},)"
                    R"({"name":")" +
                    std::string(10000, 'g') + R"(","tx_sum":1},{"name":"ge2","tx_sum":7}]})"),
              ElementsAre(stats_with(R"("ge1":[0,0,0,0],"ge2":[7,0,0,0])")));
}

struct Counter {
  const char* name;
  const char* given;
  const char* shown;
};

class CounterTest : public ModuleTest, public testing::WithParamInterface<Counter> {};

TEST_P(CounterTest, IsShownAsA64BitNumber) {
  EXPECT_THAT(stats(R"({"data":[{"name":"ge1","tx_sum":)" + std::string(GetParam().given) + "}]}"),
              ElementsAre(stats_with(R"("ge1":[)" + std::string(GetParam().shown) +
                                     R"(,0,0,0],"ge2":[0,0,0,0])")));
}

INSTANTIATE_TEST_SUITE_P(
    Values, CounterTest,
    testing::Values(Counter{"Zero", "0", "0"}, Counter{"Over32Bits", "4294967296", "4294967296"},
                    Counter{"LastExact", "9007199254740991", "9007199254740991"},
                    Counter{"PowerOfTwo", "4611686018427387904", "4611686018427387904"},
                    Counter{"Beyond64Bits", "99999999999999999999", "9223372036854775807"},
                    Counter{"Infinite", "1e999", "9223372036854775807"},
                    Counter{"MinusOne", "-1", "18446744073709551615"},
                    Counter{"Fraction", "1.9", "1"}, Counter{"Exponent", "5e3", "5000"},
                    Counter{"Text", "\"5\"", "0"}, Counter{"Null", "null", "0"},
                    Counter{"Array", "[5]", "0"}, Counter{"Object", "{\"a\":5}", "0"}),
    [](const auto& row) { return row.param.name; });

// ---------------------------------------------------------------------------------------------
// PoE rows

TEST_F(ModuleTest, PoeRowsStandInTheOrderOfTheReplyWhateverThePortList) {
  EXPECT_THAT(poe(R"({"data":[{"name":"ge9","enable":1,"supply_priority":3},)"
                  R"({"supply_priority":1,"enable":0,"name":"ge1"},)"
                  R"({"name":"ge1","enable":-1,"supply_priority":100}]})"),
              ElementsAre(poe_with(R"("ge9":[1,3],"ge1":[0,1],"ge1":[-1,100])")));
}

TEST_F(ModuleTest, PoeElementWithoutANameIsSkippedAndNoCommaStays) {
  EXPECT_THAT(poe(R"({"data":[{"enable":1},{"name":"ge1","enable":1,"supply_priority":2},)"
                  R"({"name":7,"enable":1},{"name":"ge2","enable":0,"supply_priority":1},{}]})"),
              ElementsAre(poe_with(R"("ge1":[1,2],"ge2":[0,1])")));
}

TEST_F(ModuleTest, PoeMembersThatAreMissingOrOfAnotherKindAreZero) {
  EXPECT_THAT(poe(R"({"data":[{"name":"a"},{"name":"b","enable":"1","supply_priority":[2]},)"
                  R"({"name":"c","enable":null,"supply_priority":{}}]})"),
              ElementsAre(poe_with(R"("a":[0,0],"b":[0,0],"c":[0,0])")));
}

TEST_F(ModuleTest, PoeNumbersThatNoIntegerHoldsAreClamped) {
  EXPECT_THAT(poe(R"({"data":[{"name":"a","enable":1e999,"supply_priority":-1e999},)"
                  R"({"name":"b","enable":4294967297,"supply_priority":1.9}]})"),
              ElementsAre(poe_with(R"("a":[2147483647,-2147483648],"b":[2147483647,1])")));
}

TEST_F(ModuleTest, PoeNamesOfPlainTextGoInAsTheyAre) {
  EXPECT_THAT(poe(R"({"data":[{"name":"a'%n%s/"},{"name":""}]})"),
              ElementsAre(poe_with(R"("a'%n%s/":[0,0],"":[0,0])")));
}

TEST_F(ModuleTest, PoeRowWhoseNameIsNotPlainIsSkipped) {
  EXPECT_THAT(poe(R"({"data":[{"name":"a\":[1,1],\"b"},{"name":"ge1","enable":1},{"name":"c\\"},)"
                  R"({"name":"\u0001"},{"name":"\u007f"},{"name":"ge2"},{"name":"\n"}]})"),
              ElementsAre(poe_with(R"("ge1":[1,0],"ge2":[0,0])")));
}

TEST_F(ModuleTest, PoeNameOf10000BytesMakesAMessageThatIsRefused) {
  EXPECT_THAT(poe(R"({"data":[{"name":")" + std::string(10000, 'g') + R"("}]})"), IsEmpty());
  // 71 bytes of head, the name and its quotes, ":[0,0]", two braces.
  EXPECT_THAT(fake::console(),
              ElementsAre(MatchesRegex("\\[qel_cmd_send,[0-9]+\\] len\\[10081\\] argc error \n")));
  expect_alive();
}

TEST_F(ModuleTest, PoeReportThatFitsNoBufferIsRefused) {
  std::string reply = R"({"data":[)";
  for (int i = 0; i < 4000; ++i) {
    reply += R"({"name":"p"},)";
  }
  reply += R"({"name":"p"}]})";
  ASSERT_LT(reply.size(), 65535U);
  EXPECT_THAT(poe(reply), IsEmpty());
  EXPECT_THAT(fake::console(), SizeIs(1));
  expect_alive();
}

TEST_F(ModuleTest, SecondFrameKeepsNothingOfALongerReportBefore) {
  poe(R"({"data":[{"name":")" + std::string(60000, 'x') + R"("}]})");
  const std::string name(1220, 'p');
  poe(R"({"data":[{"name":")" + name + R"("}]})");
  // 1220 bytes of name and 81 around it: 1301.
  ASSERT_THAT(fake::sent(), SizeIs(2));
  EXPECT_THAT(fake::sent()[0].bytes,
              BytesAre(reply_header(1317) + kPoeHead + '"' + name + R"(":[0,0]}})"));
  EXPECT_THAT(fake::sent()[1].bytes,
              BytesAre(reply_header(1317) + "pppppppppppp" + R"(":[0,0]}})" + zeros(1280)));
}

}  // namespace
