// SPDX-License-Identifier: Apache-2.0
//
// The port handlers of the typed message form. No message reaches them; they are called by hand.
#include <cstring>

#include "qel/qel_cmd.h"
#include "qel/qel_table.h"
#include "tests/unit/support.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class TypedPortTest : public AgentTest {
 protected:
  TypedPortTest() {
    fake::add_ports(4);
    start();
  }

  int port_set(const char* text) {
    qel_link link = eth_link();
    const qel_cjson_tree root(cJSON_Parse(text));
    return qel_cmd_handle_port_set(&link, root.get(), text);
  }
  int port_reboot(const char* text) {
    qel_link link = eth_link();
    const qel_cjson_tree root(cJSON_Parse(text));
    return qel_cmd_handle_port_reboot(&link, root.get(), text);
  }
};

TEST_F(TypedPortTest, PortSetAsksMonoThenPoeAndTellsTheReply) {
  fake::reply("mono", "qel_port_config_set_all", "from mono");
  fake::reply("poe", "poe_qel_port_config_set", "from poe");
  const std::string said = stdout_of(
      [&] { EXPECT_EQ(port_set(R"({"devid":"SW_1","reqid":7,"data":[{"ge1":"1"}]})"), 0); });
  EXPECT_THAT(fake::query_texts(),
              ElementsAre("{\"mdl\":\"mono\",\"cmd\":\"qel_port_config_set_all\",\"data\":"
                          "[{\n\t\t\"ge1\":\t\"1\"\n\t}]}",
                          "{\"mdl\":\"poe\",\"cmd\":\"poe_qel_port_config_set\",\"data\":"
                          "[{\n\t\t\"ge1\":\t\"1\"\n\t}]}"));
  EXPECT_EQ(said,
            "qel_cmd_handle_port_set,1009 temptest=[{\n\t\t\"ge1\":\t\"1\"\n\t}], "
            "outbuf = from poe \r\n");
}

TEST_F(TypedPortTest, PortSetKeepsTheFirstReplyWhenTheSecondModuleIsSilent) {
  fake::reply("mono", "qel_port_config_set_all", "from mono");
  EXPECT_EQ(stdout_of([&] { port_set(R"({"devid":"d","data":1})"); }),
            "qel_cmd_handle_port_set,1009 temptest=1, outbuf = from mono \r\n");
}

TEST_F(TypedPortTest, PortSetTellsAnEmptyReplyWhenNobodyAnswers) {
  EXPECT_EQ(stdout_of([&] { port_set(R"({"devid":"d","data":"x"})"); }),
            "qel_cmd_handle_port_set,1009 temptest=\"x\", outbuf =  \r\n");
}

TEST_F(TypedPortTest, PortSetBuildsItsAnswerAndDoesNotSendIt) {
  const uint16_t before = g_qel_dev.pktid;
  stdout_of([&] { port_set(R"({"devid":"d","data":{}})"); });
  EXPECT_EQ(g_qel_dev.pktid, before + 1);
  EXPECT_THAT(fake::sent(), IsEmpty());
}

TEST_F(TypedPortTest, PortRebootAsksMonoThenPoeAndWantsNoReply) {
  EXPECT_EQ(stdout_of([&] { EXPECT_EQ(port_reboot(R"({"devid":"SW_1","data":{"ge1":5}})"), 0); }),
            "");
  EXPECT_THAT(fake::query_texts(),
              ElementsAre("{\"mdl\":\"mono\",\"cmd\":\"qel_port_reboot_set_all\","
                          "\"data\":{\n\t\"ge1\":\t5\n}}",
                          "{\"mdl\":\"poe\",\"cmd\":\"poe_qel_port_reboot\","
                          "\"data\":{\n\t\"ge1\":\t5\n}}"));
  EXPECT_FALSE(fake::queries()[0].waited);
  EXPECT_FALSE(fake::queries()[1].waited);
  EXPECT_THAT(fake::sent(), IsEmpty());
}

TEST_F(TypedPortTest, WithoutADeviceOrDataBothFail) {
  for (const char* text : {"{}", R"({"devid":"d"})", R"({"data":{}})", R"({"devid":3,"data":{}})",
                           R"({"devid":null,"data":{}})", R"({"devid":["d"],"data":{}})"}) {
    EXPECT_EQ(stdout_of([&] {
                EXPECT_EQ(port_set(text), -1) << text;
                EXPECT_EQ(port_reboot(text), -1) << text;
              }),
              "");
  }
  EXPECT_THAT(fake::queries(), IsEmpty());
  EXPECT_THAT(fake::sent(), IsEmpty());
}

TEST_F(TypedPortTest, NoMessageReachesThem) {
  for (const char* cmd : {"get", "set", "probe", "ping", "port_set", "port_reboot"}) {
    for (const char* subcmd : {"port_set", "port_reboot"}) {
      receive(R"({"type":"port_set","devid":"d","cmd":")" + std::string(cmd) + R"(","subcmd":")" +
              subcmd + R"(","data":{"ge1":1}})");
    }
  }
  EXPECT_THAT(fake::queries(), IsEmpty());
  EXPECT_THAT(fake::sent(), IsEmpty());
}

TEST_F(TypedPortTest, HugeReplyIsSurvived) {
  fake::reply("mono", "qel_port_config_set_all", std::string(65534, 'x'));
  EXPECT_THAT(stdout_of([&] { port_set(R"({"devid":"d","data":{}})"); }),
              HasSubstr("outbuf = " + std::string(60000, 'x')));
  fake::clear_records();
  fake::reply("mono", "qel_port_config_set_all", "short");
  EXPECT_THAT(stdout_of([&] { port_set(R"({"devid":"d","data":1})"); }),
              "qel_cmd_handle_port_set,1009 temptest=1, outbuf = short \r\n");
}

}  // namespace
