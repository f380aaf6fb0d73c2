// SPDX-License-Identifier: Apache-2.0
//
// Queries to the switch's other daemons: the text of each, what stays in the reply area, the
// fan-out of a port configuration, and the two walks over the ports.
#include "qel/qel_mono.h"

#include <cstring>

#include "qel/qel_table.h"
#include "tests/unit/support.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

constexpr char kPayload[] = R"({"port":"ge3","enable":0})";

class MonoTest : public AgentTest {
 protected:
  MonoTest() {
    fake::add_interface("vlanif1", 7);
    fake::add_ports(12);
    start();
  }

  char reply_[JCLIENT_REPLY_SIZE] = {};
};

using MonoDeathTest = MonoTest;

// ---------------------------------------------------------------------------------------------
// Texts

TEST_F(MonoTest, DataFormWritesModuleCommandAndData) {
  EXPECT_EQ(qel_mono_query_data(kPayload, "mono", "qel_port_enable_set", reply_), 0);
  EXPECT_THAT(fake::query_texts(), ElementsAre(R"({"mdl":"mono","cmd":"qel_port_enable_set",)"
                                               R"("data":{"port":"ge3","enable":0}})"));
}

TEST_F(MonoTest, DataFormWithoutAPayloadHasNoData) {
  EXPECT_EQ(qel_mono_query_data(nullptr, "statistics", "port_statistic_qel_get_all", reply_), 0);
  EXPECT_THAT(fake::query_texts(),
              ElementsAre(R"({"mdl":"statistics","cmd":"port_statistic_qel_get_all"})"));
}

TEST_F(MonoTest, ConfigFormWritesModuleCommandAndConfig) {
  EXPECT_EQ(qel_mono_query_config(R"({"descr":"x"})", "mono", "product_description_set", reply_),
            0);
  EXPECT_THAT(
      fake::query_texts(),
      ElementsAre(R"({"mdl":"mono","cmd":"product_description_set","config":{"descr":"x"}})"));
}

TEST_F(MonoTest, ConfigFormWithoutAPayloadHasNoConfig) {
  EXPECT_EQ(qel_mono_query_config(nullptr, "zebra", "manage_L3IF_info_get", reply_), 0);
  EXPECT_THAT(fake::query_texts(), ElementsAre(R"({"mdl":"zebra","cmd":"manage_L3IF_info_get"})"));
}

TEST_F(MonoTest, EmptyPayloadIsAPayload) {
  qel_mono_query_data("", "m", "c", reply_);
  EXPECT_THAT(fake::query_texts(), ElementsAre(R"({"mdl":"m","cmd":"c","data":})"));
}

TEST_F(MonoTest, PayloadGoesInAsItStands) {
  qel_mono_query_data("{\n\t\"a b\":\t[1, 2] , \"%s%n\" : \"\\\"\"}", "m", "c", reply_);
  EXPECT_THAT(fake::query_texts(), ElementsAre("{\"mdl\":\"m\",\"cmd\":\"c\",\"data\":"
                                               "{\n\t\"a b\":\t[1, 2] , \"%s%n\" : \"\\\"\"}}"));
}

TEST_F(MonoTest, ModuleAndCommandGoInWithoutEscaping) {
  qel_mono_query_data(nullptr, "m\"\\%n", "c\n%s", reply_);
  EXPECT_THAT(fake::query_texts(), ElementsAre("{\"mdl\":\"m\"\\%n\",\"cmd\":\"c\n%s\"}"));
}

TEST_F(MonoTest, ShorterQueryAfterALongerOneKeepsNothingOfIt) {
  qel_mono_query_data(kPayload, "mono", "qel_port_enable_set", reply_);
  qel_mono_query_data(nullptr, "m", "c", reply_);
  ASSERT_THAT(fake::queries(), SizeIs(2));
  EXPECT_EQ(fake::queries()[1].request, R"({"mdl":"m","cmd":"c"})");
}

// The message area has 65536 bytes with the closing NUL; {"mdl":"m","cmd":"c","data":} are 29.
TEST_F(MonoTest, QueryThatJustFitsIsSent) {
  const std::string payload(65535 - 29, '7');
  EXPECT_EQ(qel_mono_query_data(payload.c_str(), "m", "c", reply_), 0);
  ASSERT_THAT(fake::queries(), SizeIs(1));
  EXPECT_EQ(fake::queries()[0].request, R"({"mdl":"m","cmd":"c","data":)" + payload + "}");
  EXPECT_THAT(fake::console(), IsEmpty());
}

TEST_F(MonoTest, QueryThatDoesNotFitIsToldAndNotSent) {
  for (const size_t size : {size_t{65536 - 29}, size_t{1000000}}) {
    fake::clear_records();
    const std::string payload(size, '7');
    EXPECT_EQ(qel_mono_query_data(payload.c_str(), "m", "c", reply_), 0);
    EXPECT_THAT(fake::queries(), IsEmpty());
    ASSERT_THAT(fake::console(), SizeIs(1));
    EXPECT_THAT(fake::console()[0], HasSubstr("argc error"));
  }
  qel_mono_query_data(nullptr, "m", "c", reply_);
  EXPECT_THAT(fake::query_texts(), ElementsAre(R"({"mdl":"m","cmd":"c"})"));
}

// ---------------------------------------------------------------------------------------------
// Replies

TEST_F(MonoTest, ReplyOfTheModuleStandsInTheArea) {
  fake::reply("mono", "x", R"({"data":[]})");
  EXPECT_EQ(qel_mono_query_data(nullptr, "mono", "x", reply_), 0);
  EXPECT_STREQ(reply_, R"({"data":[]})");
}

TEST_F(MonoTest, ModuleThatDoesNotAnswerLeavesTheAreaAndIsNoFailure) {
  std::strcpy(reply_, "as before");
  EXPECT_EQ(qel_mono_query_data(nullptr, "mono", "x", reply_), 0);
  EXPECT_EQ(qel_mono_query_config(nullptr, "mono", "x", reply_), 0);
  EXPECT_STREQ(reply_, "as before");
}

TEST_F(MonoTest, LongestReplyFitsAndALongerOneIsNone) {
  fake::reply("mono", "x", std::string(65534, 'r'));
  qel_mono_query_data(nullptr, "mono", "x", reply_);
  EXPECT_EQ(std::strlen(reply_), 65534U);
  std::memset(reply_, 0, sizeof reply_);
  fake::reply("mono", "x", std::string(65535, 'r'));
  EXPECT_EQ(qel_mono_query_data(nullptr, "mono", "x", reply_), 0);
  EXPECT_STREQ(reply_, "");
}

TEST_F(MonoTest, WithoutAnAreaNoAnswerIsAwaited) {
  fake::reply("poe", "x", "{}");
  EXPECT_EQ(qel_mono_query_data(nullptr, "poe", "x", nullptr), 0);
  EXPECT_EQ(qel_mono_query_data(nullptr, "poe", "x", reply_), 0);
  ASSERT_THAT(fake::queries(), SizeIs(2));
  EXPECT_FALSE(fake::queries()[0].waited);
  EXPECT_TRUE(fake::queries()[1].waited);
}

TEST_F(MonoTest, ReplyAreaComesEmptied) {
  fake::reply("mono", "x", std::string(3000, 'r'));
  qel_mono_query_data(nullptr, "mono", "x", qel_mono_reply_area());
  const char* const area = qel_mono_reply_area();
  EXPECT_EQ(std::string(area, JCLIENT_REPLY_SIZE), zeros(JCLIENT_REPLY_SIZE));
}

// ---------------------------------------------------------------------------------------------
// One module command each

struct WithPayload {
  const char* name;
  int (*call)(const char* payload, char* reply);
  const char* with;     // the text for kPayload
  const char* without;  // the text without a payload
};

class WrapperWithPayload : public MonoTest, public testing::WithParamInterface<WithPayload> {};

TEST_P(WrapperWithPayload, SendsItsCommandToItsModule) {
  EXPECT_EQ(GetParam().call(kPayload, reply_), 0);
  EXPECT_EQ(GetParam().call(nullptr, reply_), 0);
  EXPECT_THAT(fake::query_texts(), ElementsAre(GetParam().with, GetParam().without));
}

TEST_P(WrapperWithPayload, PassesTheReplyAreaOn) {
  EXPECT_EQ(GetParam().call(kPayload, nullptr), 0);
  EXPECT_EQ(GetParam().call(kPayload, reply_), 0);
  ASSERT_THAT(fake::queries(), SizeIs(2));
  EXPECT_FALSE(fake::queries()[0].waited);
  EXPECT_TRUE(fake::queries()[1].waited);
}

INSTANTIATE_TEST_SUITE_P(
    Mono, WrapperWithPayload,
    testing::Values(
        WithPayload{
            "PortConfigSetAll", qel_mono_port_config_set_all,
            R"({"mdl":"mono","cmd":"qel_port_config_set_all","data":{"port":"ge3","enable":0}})",
            R"({"mdl":"mono","cmd":"qel_port_config_set_all"})"},
        WithPayload{
            "PoePortConfigSet", qel_mono_poe_port_config_set,
            R"({"mdl":"poe","cmd":"poe_qel_port_config_set","data":{"port":"ge3","enable":0}})",
            R"({"mdl":"poe","cmd":"poe_qel_port_config_set"})"},
        WithPayload{
            "PortEnableSet", qel_mono_port_enable_set,
            R"({"mdl":"mono","cmd":"qel_port_enable_set","data":{"port":"ge3","enable":0}})",
            R"({"mdl":"mono","cmd":"qel_port_enable_set"})"},
        WithPayload{"PortSpeedSet", qel_mono_port_speed_set,
                    R"({"mdl":"mono","cmd":"qel_port_speed_set","data":{"port":"ge3","enable":0}})",
                    R"({"mdl":"mono","cmd":"qel_port_speed_set"})"},
        WithPayload{
            "PortRebootSetAll", qel_mono_port_reboot_set_all,
            R"({"mdl":"mono","cmd":"qel_port_reboot_set_all","data":{"port":"ge3","enable":0}})",
            R"({"mdl":"mono","cmd":"qel_port_reboot_set_all"})"},
        WithPayload{"PoePortReboot", qel_mono_poe_port_reboot,
                    R"({"mdl":"poe","cmd":"poe_qel_port_reboot","data":{"port":"ge3","enable":0}})",
                    R"({"mdl":"poe","cmd":"poe_qel_port_reboot"})"},
        WithPayload{
            "L3ifSet", qel_mono_l3if_set,
            R"({"mdl":"zebra","cmd":"manage_L3IF_info_set","config":{"port":"ge3","enable":0}})",
            R"({"mdl":"zebra","cmd":"manage_L3IF_info_set"})"},
        WithPayload{
            "ProductDescriptionSet", qel_mono_product_description_set,
            R"({"mdl":"mono","cmd":"product_description_set","config":{"port":"ge3","enable":0}})",
            R"({"mdl":"mono","cmd":"product_description_set"})"}),
    [](const auto& row) { return row.param.name; });

struct WithoutPayload {
  const char* name;
  int (*call)(char* reply);
  const char* text;
};

class WrapperWithoutPayload : public MonoTest,
                              public testing::WithParamInterface<WithoutPayload> {};

TEST_P(WrapperWithoutPayload, SendsItsCommandToItsModuleAndWantsTheReply) {
  EXPECT_EQ(GetParam().call(reply_), 0);
  EXPECT_THAT(fake::query_texts(), ElementsAre(GetParam().text));
  EXPECT_TRUE(fake::queries()[0].waited);
}

INSTANTIATE_TEST_SUITE_P(
    Mono, WrapperWithoutPayload,
    testing::Values(
        WithoutPayload{"PoePortConfigGetAll", qel_mono_poe_port_config_get_all,
                       R"({"mdl":"poe","cmd":"poe_qel_port_config_get_all"})"},
        WithoutPayload{"PoeAlarmInfoGet", qel_mono_poe_alarm_info_get,
                       R"({"mdl":"poe","cmd":"poe_qel_alarm_info_get"})"},
        WithoutPayload{"PortBasicStatisticGetAll", qel_mono_port_basic_statistic_get_all,
                       R"({"mdl":"statistics","cmd":"port_basic_statistic_get_all"})"},
        WithoutPayload{"PortStatisticGetAll", qel_mono_port_statistic_get_all,
                       R"({"mdl":"statistics","cmd":"port_statistic_qel_get_all"})"},
        WithoutPayload{"PortStatisticDot3GetAll", qel_mono_port_statistic_dot3_get_all,
                       R"({"mdl":"statistics","cmd":"port_statistic_qel_dot3_get_all"})"},
        WithoutPayload{"MstpAlarmInfoGet", qel_mono_mstp_alarm_info_get,
                       R"({"mdl":"mstp","cmd":"mstp_qel_alarm_info_get"})"},
        WithoutPayload{"LlppPortConfigGetAll", qel_mono_llpp_port_config_get_all,
                       R"({"mdl":"llpp","cmd":"qel_llpp_port_config_get_all"})"},
        WithoutPayload{"L3ifGet", qel_mono_l3if_get,
                       R"({"mdl":"zebra","cmd":"manage_L3IF_info_get"})"}),
    [](const auto& row) { return row.param.name; });

// ---------------------------------------------------------------------------------------------
// A port configuration for all modules

constexpr char kToMono[] =
    R"({"mdl":"mono","cmd":"qel_common_update_mono_portinfo","data":{"ge1":1}})";
constexpr char kToLlpp[] =
    R"({"mdl":"llpp","cmd":"qel_common_update_llpp_portinfo","data":{"ge1":1}})";
constexpr char kToStp[] =
    R"({"mdl":"stp","cmd":"qel_common_update_stp_portinfo","data":{"ge1":1}})";
constexpr char kToLldp[] =
    R"({"mdl":"lldp","cmd":"qel_common_update_lldp_portinfo","data":{"ge1":1}})";
constexpr char kPoeToLldp[] =
    R"({"mdl":"lldp","cmd":"qel_common_update_poe_portinfo","data":{"ge1":1}})";

TEST_F(MonoTest, WithoutPoeFourModulesGetThePortConfiguration) {
  for (const char* have_poe : {"", "0", "none"}) {
    fake::clear_records();
    fake::set_nvram("have_poe", have_poe);
    EXPECT_EQ(qel_mono_update_portinfo_all(R"({"ge1":1})", reply_), 0);
    EXPECT_THAT(fake::query_texts(), ElementsAre(kToMono, kToLlpp, kToStp, kToLldp)) << have_poe;
  }
}

TEST_F(MonoTest, WithPoeTheFifthQueryGoesToLldp) {
  for (const char* have_poe : {"1", "2", "-1"}) {
    fake::clear_records();
    fake::set_nvram("have_poe", have_poe);
    EXPECT_EQ(qel_mono_update_portinfo_all(R"({"ge1":1})", reply_), 0);
    EXPECT_THAT(fake::query_texts(), ElementsAre(kToMono, kToLlpp, kToStp, kToLldp, kPoeToLldp))
        << have_poe;
  }
}

TEST_F(MonoTest, HavePoeIsReadBeforeTheFirstQuery) {
  fake::set_nvram("have_poe", "1");
  fake::on_query([](const fake::Query&) { fake::set_nvram("have_poe", "0"); });
  qel_mono_update_portinfo_all(R"({"ge1":1})", reply_);
  EXPECT_THAT(fake::queries(), SizeIs(5));
  fake::clear_records();
  fake::on_query([](const fake::Query&) { fake::set_nvram("have_poe", "1"); });
  qel_mono_update_portinfo_all(R"({"ge1":1})", reply_);
  EXPECT_THAT(fake::queries(), SizeIs(4));
}

TEST_F(MonoTest, EachReplyOfTheFanOutOverwritesTheOneBefore) {
  fake::set_nvram("have_poe", "1");
  fake::reply("mono", "qel_common_update_mono_portinfo", "first");
  fake::reply("lldp", "qel_common_update_poe_portinfo", "last");
  qel_mono_update_portinfo_all("{}", reply_);
  EXPECT_STREQ(reply_, "last");
}

TEST_F(MonoTest, EveryModuleOfTheFanOutMayAnswer) {
  fake::set_nvram("have_poe", "1");
  qel_mono_update_portinfo_all("{}", reply_);
  EXPECT_THAT(fake::queries(), testing::Each(testing::Field(&fake::Query::waited, true)));
}

TEST_F(MonoTest, FanOutGoesOnWhenAModuleRefuses) {
  fake::set_nvram("have_poe", "1");
  fake::reply("mono", "qel_common_update_mono_portinfo", "not json");
  fake::reply("llpp", "qel_common_update_llpp_portinfo", R"({"result":-1})");
  // "stp" and "lldp" do not answer at all.
  qel_mono_update_portinfo_all("{}", reply_);
  EXPECT_THAT(fake::queries(), SizeIs(5));
}

// ---------------------------------------------------------------------------------------------
// Blocked ports

class BlockedTest : public MonoTest {
 protected:
  // The names of the ports that are blocked, in list order.
  static std::vector<std::string> blocked() {
    std::vector<std::string> names;
    for (const listnode* node = g_uif_list->head; node != nullptr; node = node->next) {
      const auto* uif = static_cast<const struct uif*>(node->data);
      const qel_port* port = qel_port_of(uif);
      if (port != nullptr && port->blocked == 1) {
        names.emplace_back(uif->name);
      }
    }
    return names;
  }

  static void block(const char* name) { qel_port_of(uif_get_by_name(name))->blocked = 1; }

  static void update(const std::string& reply) {
    const qel_cjson_tree tree(cJSON_Parse(reply.c_str()));
    ASSERT_NE(tree, nullptr) << reply;
    EXPECT_EQ(qel_mono_update_ports_blocked(tree.get()), 0);
  }
};

using BlockedDeathTest = BlockedTest;

TEST_F(BlockedTest, ExactlyTheNamedPortsAreBlocked) {
  block("ge2");
  block("ge12");
  update(R"({"ports":"ge1 ge4"})");
  EXPECT_THAT(blocked(), ElementsAre("ge1", "ge4"));
}

TEST_F(BlockedTest, SeveralBlanksSeparateAsOne) {
  update(R"({"ports":"  ge1  ge4   ge5  "})");
  EXPECT_THAT(blocked(), ElementsAre("ge1", "ge4", "ge5"));
}

TEST_F(BlockedTest, BlankAloneSeparates) {
  update(R"({"ports":"ge1\tge2 ge3,ge4 ge5\nge6 ge7"})");
  EXPECT_THAT(blocked(), ElementsAre("ge7"));
}

TEST_F(BlockedTest, OrderOfTheNamesAndRepetitionDoNotMatter) {
  update(R"({"ports":"ge9 ge2 ge9 ge2"})");
  EXPECT_THAT(blocked(), ElementsAre("ge2", "ge9"));
}

TEST_F(BlockedTest, NameIsTheWholeName) {
  update(R"({"ports":"ge1"})");
  EXPECT_THAT(blocked(), ElementsAre("ge1"));  // and not ge10, ge11, ge12
  update(R"({"ports":"ge GE1 ge01 ge111"})");
  EXPECT_THAT(blocked(), IsEmpty());
}

TEST_F(BlockedTest, NoReplyUnblocksAllPorts) {
  block("ge1");
  block("ge12");
  EXPECT_EQ(qel_mono_update_ports_blocked(nullptr), 0);
  EXPECT_THAT(blocked(), IsEmpty());
}

TEST_F(BlockedTest, ReplyWithoutPortsUnblocksAllPorts) {
  for (const char* reply :
       {"{}", R"({"ports":""})", R"({"ports":" "})", R"({"ports":null})", R"({"ports":3})",
        R"({"ports":["ge1"]})", R"({"ports":{"ge1":1}})", R"({"data":{"ports":"ge1"}})", "[]",
        R"(["ge1"])", R"("ge1")", "7", "null"}) {
    block("ge1");
    update(reply);
    EXPECT_THAT(blocked(), IsEmpty()) << reply;
  }
}

TEST_F(BlockedTest, UnknownNamesAreSkippedSilently) {
  EXPECT_EQ(stderr_of([] { update(R"({"ports":"nosuch ge3 %n%s \"ge4\" ge5\\"})"); }), "");
  EXPECT_THAT(blocked(), ElementsAre("ge3"));
  EXPECT_THAT(fake::console(), IsEmpty());
}

TEST_F(BlockedTest, InterfaceThatIsNoPortIsSkipped) {
  update(R"({"ports":"vlanif1 ge3"})");
  EXPECT_THAT(blocked(), ElementsAre("ge3"));
}

TEST_F(BlockedTest, NamesOfAnyLengthAreSurvived) {
  update(R"({"ports":")" + std::string(10000, 'g') + R"( ge2 )" + std::string(31, 'e') + " " +
         std::string(32, 'e') + R"("})");
  EXPECT_THAT(blocked(), ElementsAre("ge2"));
}

TEST_F(BlockedTest, TenThousandNamesAreSurvived) {
  std::string names;
  for (int i = 0; i < 10000; ++i) {
    names += "ge5 ";
  }
  update(R"({"ports":")" + names + R"("})");
  EXPECT_THAT(blocked(), ElementsAre("ge5"));
}

TEST_F(BlockedDeathTest, NullNodeIsABrokenInvariant) {
  fake::add_null_interface();
  EXPECT_DEATH(qel_mono_update_ports_blocked(nullptr),
               "\\(node\\)->data != \\(\\(void \\*\\)0\\), file qel/qel_mono, line [0-9]+, "
               "function qel_mono_update_ports_blocked");
}

// ---------------------------------------------------------------------------------------------
// Port count

TEST_F(MonoTest, PortCountCountsPhysicalPortsOnly) {
  fake::add_interface("trunk1", 0x00FFFFFF);
  fake::add_interface("vlanif2", 0);
  EXPECT_EQ(qel_mono_get_port_count(), 12);
}

TEST_F(MonoTest, AnyBitOfTheTopByteMakesAPort) {
  fake::add_interface("a", 0x80000000);
  fake::add_interface("b", 0x01000000);
  EXPECT_EQ(qel_mono_get_port_count(), 14);
}

TEST_F(MonoTest, PortThatCameAfterTheStartCounts) {
  fake::add_port("ge13");
  EXPECT_EQ(qel_mono_get_port_count(), 13);
}

TEST_F(AgentTest, WithoutPortsThePortCountIsZero) {
  EXPECT_EQ(qel_mono_get_port_count(), 0);
  fake::add_interface("vlanif1", 7);
  EXPECT_EQ(qel_mono_get_port_count(), 0);
}

TEST_F(MonoDeathTest, NullNodeInThePortCountIsABrokenInvariant) {
  fake::add_null_interface();
  EXPECT_DEATH(qel_mono_get_port_count(),
               "\\(node\\)->data != \\(\\(void \\*\\)0\\), file qel/qel_mono, line [0-9]+, "
               "function qel_mono_get_port_count");
}

}  // namespace
