// SPDX-License-Identifier: Apache-2.0
//
// "qelipc": one module query passed through from the gateway, its reply sent back as it stands.
#include <cstring>

#include "qel/qel_cmd.h"
#include "qel/qel_table.h"
#include "tests/unit/support.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::SizeIs;

class PassThroughTest : public AgentTest {
 protected:
  PassThroughTest() {
    fake::add_ports(4);
    start();
  }

  void pass(const std::string& data) {
    receive(R"({"mac":"gw","cmd":"get","subcmd":"qelipc","data":)" + data + "}");
  }

  int handle(const char* text) {
    qel_link link = udp_link();
    const qel_cjson_tree root(cJSON_Parse(text));
    return qel_cmd_handle_qelipc(&link, root.get(), text);
  }

  // The same over UDP, where an answer of no bytes is a datagram.
  void pass_udp(const std::string& data) {
    qel_link link = udp_link();
    const std::string text = R"({"cmd":"get","subcmd":"qelipc","data":)" + data + "}";
    qel_cmd_dispatch(&link, text.c_str(), 0);
  }
};

TEST_F(PassThroughTest, ReplyComesBackAsItStandsWithoutEnvelope) {
  fake::reply("poe", "x_get", "{ \"a\" :\n1}\t");
  pass(R"({"mdl":"poe","cmd":"x_get"})");
  EXPECT_THAT(fake::query_texts(), ElementsAre(R"({"mdl":"poe","cmd":"x_get"})"));
  ASSERT_THAT(fake::sent(), SizeIs(1));
  EXPECT_THAT(fake::sent()[0].bytes,
              BytesAre(bytes("\x02\x00\x5e\x10\x20\x30\x0a\x1b\x2c\x3d\x4e\x5f\x93\x03\x00\x00"
                             "\xba\xbe\x00\x1b\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00"
                             "{ \"a\" :\n1}\t")));
}

TEST_F(PassThroughTest, DataFormIsUsedWithoutTheFlag) {
  pass(R"({"mdl":"zebra","cmd":"c","data":{"k":[1,2]}})");
  EXPECT_THAT(fake::query_texts(), ElementsAre("{\"mdl\":\"zebra\",\"cmd\":\"c\","
                                               "\"data\":{\n\t\"k\":\t[1, 2]\n}}"));
}

TEST_F(PassThroughTest, ConfigFormIsUsedWithTheFlag) {
  for (const char* flag : {"1", "2", "-1", "true"}) {
    fake::clear_records();
    pass(R"({"mdl":"zebra","cmd":"c","cfg_flag":)" + std::string(flag) + R"(,"data":{"k":1}})");
    EXPECT_THAT(fake::query_texts(),
                ElementsAre("{\"mdl\":\"zebra\",\"cmd\":\"c\",\"config\":{\n\t\"k\":\t1\n}}"))
        << flag;
  }
}

TEST_F(PassThroughTest, FlagOfZeroOrOfAnotherKindMeansDataForm) {
  for (const char* flag : {"0", R"("1")", "null", "[1]", "{}"}) {
    fake::clear_records();
    pass(R"({"mdl":"zebra","cmd":"c","cfg_flag":)" + std::string(flag) + R"(,"data":"t"})");
    EXPECT_THAT(fake::query_texts(), ElementsAre(R"({"mdl":"zebra","cmd":"c","data":"t"})"))
        << flag;
  }
}

TEST_F(PassThroughTest, WithoutInnerDataThereIsNoPayload) {
  pass(R"({"mdl":"mono","cmd":"c"})");
  pass(R"({"mdl":"mono","cmd":"c","cfg_flag":1})");
  EXPECT_THAT(fake::query_texts(),
              ElementsAre(R"({"mdl":"mono","cmd":"c"})", R"({"mdl":"mono","cmd":"c"})"));
}

TEST_F(PassThroughTest, InnerDataThatIsNullIsAPayload) {
  pass(R"({"mdl":"m","cmd":"c","data":null})");
  pass(R"({"mdl":"m","cmd":"c","cfg_flag":1,"data":null})");
  EXPECT_THAT(fake::query_texts(), ElementsAre(R"({"mdl":"m","cmd":"c","data":null})",
                                               R"({"mdl":"m","cmd":"c","config":null})"));
}

TEST_F(PassThroughTest, HandlerReturnsZeroWhateverBecomesOfTheQuery) {
  EXPECT_EQ(handle("{}"), 0) << "no data";
  EXPECT_THAT(fake::sent(), IsEmpty());
  EXPECT_EQ(handle(R"({"data":{}})"), 0) << "nobody is named";
  EXPECT_EQ(handle(R"({"data":{"mdl":"m","cmd":"c"}})"), 0) << "no reply";
  fake::reply_once("m", "c", R"({"a":1})");
  EXPECT_EQ(handle(R"({"data":{"mdl":"m","cmd":"c"}})"), 0);
  EXPECT_THAT(sent_messages(), ElementsAre("", "", R"({"a":1})"));
  fake::reply_once("m", "c", std::string(1601, 'r'));
  EXPECT_EQ(handle(R"({"data":{"mdl":"m","cmd":"c"}})"), 0) << "a reply that is not sent";
  EXPECT_THAT(fake::sent(), SizeIs(3));
}

TEST_F(PassThroughTest, WithoutDataNothingIsAskedOrAnswered) {
  receive(R"({"mac":"gw","cmd":"get","subcmd":"qelipc"})");
  qel_link link = udp_link();
  qel_cmd_dispatch(&link, R"({"cmd":"get","subcmd":"qelipc"})", 0);
  EXPECT_THAT(fake::queries(), IsEmpty());
  EXPECT_THAT(fake::sent(), IsEmpty());
}

TEST_F(PassThroughTest, ReplyOf1280BytesIsOneFrame) {
  const std::string reply(1280, 'r');
  fake::reply("m", "c", reply);
  pass(R"({"mdl":"m","cmd":"c"})");
  ASSERT_THAT(fake::sent(), SizeIs(1));
  EXPECT_THAT(fake::sent()[0].bytes, BytesAre(reply_header(1296) + reply));
}

TEST_F(PassThroughTest, ReplyOf1600BytesIsTwoFrames) {
  const std::string reply = std::string(1280, 'a') + std::string(320, 'b');
  fake::reply("m", "c", reply);
  pass(R"({"mdl":"m","cmd":"c"})");
  ASSERT_THAT(fake::sent(), SizeIs(2));
  EXPECT_THAT(fake::sent()[0].bytes, BytesAre(reply_header(1616) + reply));
  EXPECT_THAT(fake::sent()[1].bytes,
              BytesAre(reply_header(1616) + std::string(320, 'b') + zeros(1280)));
}

TEST_F(PassThroughTest, ReplyOver1600BytesNeverReachesTheGateway) {
  fake::reply("m", "c", std::string(1601, 'r'));
  pass(R"({"mdl":"m","cmd":"c"})");
  pass_udp(R"({"mdl":"m","cmd":"c"})");
  EXPECT_THAT(fake::sent(), IsEmpty());
  EXPECT_THAT(fake::console(),
              ElementsAre(MatchesRegex("\\[qel_cmd_send,[0-9]+\\] len\\[1601\\] argc error \n"),
                          MatchesRegex("\\[qel_cmd_send,[0-9]+\\] len\\[1601\\] argc error \n")));
}

TEST_F(PassThroughTest, SecondFrameKeepsNothingOfAnEarlierLongerReply) {
  fake::reply_once("m", "c", std::string(60000, 'x'));
  fake::reply_once("m", "c", std::string(1300, 'r'));
  pass(R"({"mdl":"m","cmd":"c"})");
  pass(R"({"mdl":"m","cmd":"c"})");
  ASSERT_THAT(fake::sent(), SizeIs(2));
  EXPECT_THAT(fake::sent()[1].bytes,
              BytesAre(reply_header(1316) + std::string(20, 'r') + zeros(1280)));
}

TEST_F(PassThroughTest, ModuleThatDoesNotAnswerGivesAnEmptyAnswer) {
  pass(R"({"mdl":"m","cmd":"c"})");
  EXPECT_THAT(fake::sent(), IsEmpty()) << "an empty message has no frame";
  pass_udp(R"({"mdl":"m","cmd":"c"})");
  ASSERT_THAT(fake::sent(), SizeIs(1));
  EXPECT_EQ(fake::sent()[0].bytes, "");
  EXPECT_THAT(fake::queries(), SizeIs(2));
  EXPECT_THAT(fake::console(), IsEmpty());
}

TEST_F(PassThroughTest, QueryThatNamesNobodyIsSentToNobodyAndAnsweredEmpty) {
  for (const char* data :
       {"{}", R"({"mdl":"mono"})", R"({"cmd":"c"})", R"({"mdl":7,"cmd":"c"})",
        R"({"mdl":"mono","cmd":null})", R"({"mdl":["mono"],"cmd":"c"})",
        R"({"mdl":"mono","cmd":{"a":"c"}})", R"({"mdl":true,"cmd":false,"data":{},"cfg_flag":1})",
        "[]", "5", "null", R"("mono")", R"([{"mdl":"mono","cmd":"c"}])"}) {
    fake::clear_records();
    pass_udp(data);
    EXPECT_THAT(fake::queries(), IsEmpty()) << data;
    ASSERT_THAT(fake::sent(), SizeIs(1)) << data;
    EXPECT_EQ(fake::sent()[0].bytes, "") << data;
  }
}

TEST_F(PassThroughTest, AnswerOfAnotherQueryIsNotRepeated) {
  fake::reply("m", "c", R"({"secret":1})");
  pass_udp(R"({"mdl":"m","cmd":"c"})");
  fake::clear_records();
  pass_udp(R"({"mdl":"m","cmd":"other"})");
  pass_udp("{}");
  ASSERT_THAT(fake::sent(), SizeIs(2));
  EXPECT_EQ(fake::sent()[0].bytes, "");
  EXPECT_EQ(fake::sent()[1].bytes, "");
}

TEST_F(PassThroughTest, ReplyThatIsNoJsonIsPassedOnToo) {
  fake::reply("m", "c", "%n%s \xff\x01 {");
  pass_udp(R"({"mdl":"m","cmd":"c"})");
  ASSERT_THAT(fake::sent(), SizeIs(1));
  EXPECT_EQ(fake::sent()[0].bytes, "%n%s \xff\x01 {");
  EXPECT_EQ(fake::sent()[0].ip(), "192.168.1.99");
  EXPECT_EQ(fake::sent()[0].port(), 20681);
}

TEST_F(PassThroughTest, NamesThatAreNotPlainAreToldAndSentToNobody) {
  for (const char* bad :
       {R"(m\",\"cmd\":\"reboot\",\"x\":\")", R"(m\\)", R"(m\n)", "m\x01", "m\x7f"}) {
    for (bool module : {true, false}) {
      fake::clear_records();
      fake::reply("m", "c", R"({"secret":1})");
      pass_udp(module ? R"({"cmd":"c","data":{},"mdl":")" + std::string(bad) + R"("})"
                      : R"({"mdl":"m","data":{},"cmd":")" + std::string(bad) + R"("})");
      EXPECT_THAT(fake::queries(), IsEmpty()) << bad;
      ASSERT_THAT(fake::sent(), SizeIs(1)) << bad;
      EXPECT_EQ(fake::sent()[0].bytes, "") << bad;
      EXPECT_THAT(fake::console(),
                  ElementsAre(MatchesRegex("qel_cmd_handle_qelipc,[0-9]+ unsafe text \r\n")));
    }
  }
}

TEST_F(PassThroughTest, HostileNamesAreSurvived) {
  for (const std::string& name :
       {std::string(10000, 'm'), std::string("%n%s"), std::string(R"(a\"b)"), std::string("../x"),
        std::string("/"), std::string()}) {
    pass_udp(R"({"mdl":")" + name + R"(","cmd":")" + name + R"(","data":{}})");
  }
  fake::clear_records();
  pass(R"({"mdl":"mono","cmd":"c"})");
  EXPECT_THAT(fake::queries(), SizeIs(1));
}

TEST_F(PassThroughTest, IsNotReachedByTheVerbSet) {
  receive(R"({"cmd":"set","subcmd":"qelipc","data":{"mdl":"m","cmd":"c"}})");
  EXPECT_THAT(fake::queries(), IsEmpty());
}

}  // namespace
