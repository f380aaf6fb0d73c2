// SPDX-License-Identifier: Apache-2.0
//
// The two typed envelopes, byte for byte, the short messages that are built on them, and the name
// tables that all reports share.
#include <array>
#include <cstring>

#include "qel/qel_client.h"
#include "qel/qel_json.h"
#include "qel/qel_send.h"
#include "qel/qel_table.h"
#include "tests/unit/support.h"

namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

// A device that is known as SW_0A1B2C3D4E5F, at 1700000000 seconds.
class EnvelopeTest : public AgentTest {
 protected:
  EnvelopeTest() {
    start();
    fake::set_now(1700000000);
  }

  // An empty message area.
  qel_text& area() { return area_.begin(); }

  // The request whose text that is.
  const cJSON* request(const char* text) {
    request_.reset(cJSON_Parse(text));
    EXPECT_NE(request_, nullptr) << text;
    return request_.get();
  }

  // What the builder wrote, after a look at its result: the closing NUL counts.
  std::string built(size_t result) {
    EXPECT_EQ(result, text_.length() + 1);
    return std::string(text_.view());
  }

  qel_text_area<kQelMessageSize> area_;
  qel_text& text_ = area_.begin();
  qel_cjson_tree request_;
};

// ---------------------------------------------------------------------------------------------
// The plain envelope

TEST_F(EnvelopeTest, PlainEnvelopeHasPacketIdBeforeDeviceId) {
  EXPECT_EQ(
      built(qel_json_pkt(area(), "ping", R"({"a":1})", R"({"b":2})")),
      R"({"type":"ping","pktid":"0","devid":"SW_0A1B2C3D4E5F","data":{"a":1},"ack":{"b":2}})");
}

TEST_F(EnvelopeTest, PlainEnvelopeLeavesOutDataWithoutPayload) {
  EXPECT_EQ(built(qel_json_pkt(area(), "ping", nullptr, "7")),
            R"({"type":"ping","pktid":"0","devid":"SW_0A1B2C3D4E5F","ack":7})");
}

TEST_F(EnvelopeTest, PlainEnvelopeLeavesOutAckWithoutAcknowledgement) {
  EXPECT_EQ(built(qel_json_pkt(area(), "ping", "[]", nullptr)),
            R"({"type":"ping","pktid":"0","devid":"SW_0A1B2C3D4E5F","data":[]})");
}

TEST_F(EnvelopeTest, PlainEnvelopeOfNeitherHoldsThreeKeys) {
  EXPECT_EQ(built(qel_json_pkt(area(), "ping", nullptr, nullptr)),
            R"({"type":"ping","pktid":"0","devid":"SW_0A1B2C3D4E5F"})");
}

TEST_F(EnvelopeTest, PayloadAndAcknowledgementGoInAsTheyStand) {
  EXPECT_EQ(built(qel_json_pkt(area(), "x", "{ \"a\" :\n\"%s%n\\\"\" }", "")),
            "{\"type\":\"x\",\"pktid\":\"0\",\"devid\":\"SW_0A1B2C3D4E5F\","
            "\"data\":{ \"a\" :\n\"%s%n\\\"\" },\"ack\":}");
}

TEST_F(EnvelopeTest, TypeIsNotEscapedAndNoFormat) {
  EXPECT_EQ(built(qel_json_pkt(area(), "%d\"x", nullptr, nullptr)),
            R"({"type":"%d"x","pktid":"0","devid":"SW_0A1B2C3D4E5F"})");
}

TEST_F(EnvelopeTest, DeviceIdIsThatOfTheDeviceRecord) {
  std::strcpy(g_qel_dev.devid, "SW_FFFFFFFFFFFF");
  EXPECT_EQ(built(qel_json_pkt(area(), "x", nullptr, nullptr)),
            R"({"type":"x","pktid":"0","devid":"SW_FFFFFFFFFFFF"})");
  g_qel_dev.devid[0] = '\0';
  EXPECT_EQ(built(qel_json_pkt_req(area(), "x", nullptr, nullptr)),
            R"({"type":"x","devid":"","pktid":"1","reqid":0})");
}

// ---------------------------------------------------------------------------------------------
// The request envelope

TEST_F(EnvelopeTest, RequestEnvelopeHasDeviceIdBeforePacketId) {
  EXPECT_EQ(
      built(qel_json_pkt_req(area(), "update", R"({"a":1})", request(R"({"reqid":12,"ack":3})"))),
      R"({"type":"update","devid":"SW_0A1B2C3D4E5F","pktid":"0","reqid":12,"data":{"a":1},"ack":3})");
}

TEST_F(EnvelopeTest, WithoutARequestTheRequestIdIsZeroAndThereIsNoAck) {
  EXPECT_EQ(built(qel_json_pkt_req(area(), "update", "{}", nullptr)),
            R"({"type":"update","devid":"SW_0A1B2C3D4E5F","pktid":"0","reqid":0,"data":{}})");
}

TEST_F(EnvelopeTest, RequestEnvelopeLeavesOutDataWithoutPayload) {
  EXPECT_EQ(built(qel_json_pkt_req(area(), "update", nullptr, nullptr)),
            R"({"type":"update","devid":"SW_0A1B2C3D4E5F","pktid":"0","reqid":0})");
}

TEST_F(EnvelopeTest, RequestWithoutIdAndAckGivesZeroAndNoAck) {
  EXPECT_EQ(built(qel_json_pkt_req(area(), "update", nullptr, request(R"({"type":"x"})"))),
            R"({"type":"update","devid":"SW_0A1B2C3D4E5F","pktid":"0","reqid":0})");
}

struct RequestIdCase {
  const char* name;
  const char* request;
  const char* written;
};

class RequestIdTest : public EnvelopeTest, public testing::WithParamInterface<RequestIdCase> {};

TEST_P(RequestIdTest, IsWrittenAsABareDecimal) {
  EXPECT_EQ(built(qel_json_pkt_req(area(), "u", nullptr, request(GetParam().request))),
            R"({"type":"u","devid":"SW_0A1B2C3D4E5F","pktid":"0","reqid":)" +
                std::string(GetParam().written) + "}");
}

INSTANTIATE_TEST_SUITE_P(
    Requests, RequestIdTest,
    testing::Values(RequestIdCase{"Zero", R"({"reqid":0})", "0"},
                    RequestIdCase{"Negative", R"({"reqid":-1})", "-1"},
                    RequestIdCase{"LastOf32Bits", R"({"reqid":4294967295})", "4294967295"},
                    RequestIdCase{"FirstBehind32Bits", R"({"reqid":4294967296})", "4294967296"},
                    RequestIdCase{"LastExactInADouble", R"({"reqid":9007199254740992})",
                                  "9007199254740992"},
                    RequestIdCase{"Beyond64Bits", R"({"reqid":1e30})", "9223372036854775807"},
                    RequestIdCase{"Below64Bits", R"({"reqid":-1e30})", "-9223372036854775808"},
                    RequestIdCase{"BeyondADouble", R"({"reqid":1e999})", "9223372036854775807"},
                    RequestIdCase{"Text", R"({"reqid":"12"})", "0"},
                    RequestIdCase{"Null", R"({"reqid":null})", "0"},
                    RequestIdCase{"Object", R"({"reqid":{"a":1}})", "0"},
                    RequestIdCase{"RequestIsAnArray", R"([1,2])", "0"},
                    RequestIdCase{"RequestIsANumber", "5", "0"}),
    [](const auto& case_info) { return case_info.param.name; });

struct AckCase {
  const char* name;
  const char* request;
  const char* written;  // from the "ack" key on
};

class AckTest : public EnvelopeTest, public testing::WithParamInterface<AckCase> {};

TEST_P(AckTest, IsTheRequestsOwnPrintedFormatted) {
  EXPECT_EQ(built(qel_json_pkt_req(area(), "u", "{}", request(GetParam().request))),
            R"({"type":"u","devid":"SW_0A1B2C3D4E5F","pktid":"0","reqid":0,"data":{})" +
                std::string(GetParam().written) + "}");
}

INSTANTIATE_TEST_SUITE_P(
    Requests, AckTest,
    testing::Values(AckCase{"Object", R"({"ack":{"time":1700000000}})",
                            ",\"ack\":{\n\t\"time\":\t1700000000\n}"},
                    AckCase{
                        "NestedObject", R"({"ack":{"a":{"b":[1,"x"]},"c":true}})",
                        ",\"ack\":{\n\t\"a\":\t{\n\t\t\"b\":\t[1, \"x\"]\n\t},\n\t\"c\":\ttrue\n}"},
                    AckCase{"Text", R"({"ack":"a\"b"})", R"(,"ack":"a\"b")"},
                    AckCase{"Number", R"({"ack":-7})", ",\"ack\":-7"},
                    AckCase{"Null", R"({"ack":null})", ",\"ack\":null"},
                    AckCase{"EmptyArray", R"({"ack":[]})", ",\"ack\":[]"}),
    [](const auto& case_info) { return case_info.param.name; });

// ---------------------------------------------------------------------------------------------
// Packet ids and lengths

TEST_F(EnvelopeTest, PacketIdsGoUpByOneAcrossBothEnvelopes) {
  EXPECT_THAT(built(qel_json_pkt(area(), "a", nullptr, nullptr)), HasSubstr(R"("pktid":"0")"));
  EXPECT_THAT(built(qel_json_pkt_req(area(), "b", nullptr, nullptr)), HasSubstr(R"("pktid":"1")"));
  EXPECT_THAT(built(qel_json_ping(area())), HasSubstr(R"("pktid":"2")"));
  EXPECT_EQ(g_qel_dev.pktid, 3);
}

TEST_F(EnvelopeTest, PacketId65535IsFollowedByZeroInThePlainEnvelope) {
  g_qel_dev.pktid = 65535;
  EXPECT_EQ(built(qel_json_pkt(area(), "a", nullptr, nullptr)),
            R"({"type":"a","pktid":"65535","devid":"SW_0A1B2C3D4E5F"})");
  EXPECT_EQ(built(qel_json_pkt(area(), "a", nullptr, nullptr)),
            R"({"type":"a","pktid":"0","devid":"SW_0A1B2C3D4E5F"})");
}

TEST_F(EnvelopeTest, PacketId65535IsFollowedByZeroInTheRequestEnvelope) {
  g_qel_dev.pktid = 65535;
  EXPECT_EQ(built(qel_json_pkt_req(area(), "a", nullptr, nullptr)),
            R"({"type":"a","devid":"SW_0A1B2C3D4E5F","pktid":"65535","reqid":0})");
  EXPECT_EQ(built(qel_json_pkt_req(area(), "a", nullptr, nullptr)),
            R"({"type":"a","devid":"SW_0A1B2C3D4E5F","pktid":"0","reqid":0})");
}

TEST_F(EnvelopeTest, After65536EnvelopesThePacketIdIsWhereItBegan) {
  for (int i = 0; i < 65536; ++i) {
    qel_json_pkt(area(), "a", nullptr, nullptr);
  }
  EXPECT_EQ(built(qel_json_pkt(area(), "a", nullptr, nullptr)),
            R"({"type":"a","pktid":"0","devid":"SW_0A1B2C3D4E5F"})");
}

TEST_F(EnvelopeTest, ResultCountsTheClosingNul) {
  //  {"type":"a","pktid":"0","devid":"SW_0A1B2C3D4E5F"}  is 50 bytes long
  EXPECT_EQ(qel_json_pkt(area(), "a", nullptr, nullptr), 51U);
  //  {"type":"a","devid":"SW_0A1B2C3D4E5F","pktid":"1","reqid":0}  is 60 bytes long
  EXPECT_EQ(qel_json_pkt_req(area(), "a", nullptr, nullptr), 61U);
}

TEST_F(EnvelopeTest, ClosingNulIsSentWithTheMessage) {
  const qel_link link = udp_link();
  const size_t length = qel_json_pkt(area(), "a", nullptr, nullptr);
  qel_cmd_send(&link, text_.c_str(), length);
  ASSERT_THAT(fake::sent(), SizeIs(1));
  EXPECT_THAT(fake::sent()[0].bytes,
              BytesAre(bytes("{\"type\":\"a\",\"pktid\":\"0\",\"devid\":\"SW_0A1B2C3D4E5F\"}\0")));
}

TEST_F(EnvelopeTest, PayloadThatFillsTheAreaToItsLastByteIsWhole) {
  // 58 bytes stand around the payload, and one NUL behind it all.
  const std::string payload(65535 - 1 - 58, '1');
  EXPECT_EQ(qel_json_pkt(area(), "a", payload.c_str(), nullptr), 65535U);
  EXPECT_FALSE(text_.overflowed());
  EXPECT_THAT(std::string(text_.view()), EndsWith("1}"));
}

TEST_F(EnvelopeTest, PayloadOneByteTooLongIsSeenAndNeverSent) {
  const std::string payload(65535 - 58, '1');
  const size_t length = qel_json_pkt(area(), "a", payload.c_str(), nullptr);
  EXPECT_TRUE(text_.overflowed());
  EXPECT_EQ(std::strlen(text_.c_str()), 65534U);
  const qel_link link = udp_link();
  qel_cmd_send(&link, text_.c_str(), length);
  EXPECT_THAT(fake::sent(), IsEmpty());
}

TEST_F(EnvelopeTest, PayloadFarBeyondTheAreaIsSeen) {
  const std::string payload(200000, '1');
  EXPECT_GT(qel_json_pkt_req(area(), "a", payload.c_str(), nullptr), 200000U);
  EXPECT_TRUE(text_.overflowed());
}

// ---------------------------------------------------------------------------------------------
// The messages

TEST_F(EnvelopeTest, EmptyUpdateAnswersTheRequest) {
  EXPECT_EQ(
      built(qel_json_update_empty(area(), request(R"({"reqid":5,"ack":1})"))),
      R"({"type":"update","devid":"SW_0A1B2C3D4E5F","pktid":"0","reqid":5,"data":{},"ack":1})");
}

TEST_F(EnvelopeTest, JoinResponseAnswersTheRequest) {
  EXPECT_EQ(
      built(qel_json_joinresp(area(), request(R"({"reqid":5,"ack":1})"))),
      R"({"type":"joinresp","devid":"SW_0A1B2C3D4E5F","pktid":"0","reqid":5,"data":{},"ack":1})");
  EXPECT_EQ(built(qel_json_joinresp(area(), nullptr)),
            R"({"type":"joinresp","devid":"SW_0A1B2C3D4E5F","pktid":"1","reqid":0,"data":{}})");
}

TEST_F(EnvelopeTest, PingCarriesTheTimeAsAcknowledgement) {
  EXPECT_EQ(
      built(qel_json_ping(area())),
      R"({"type":"ping","pktid":"0","devid":"SW_0A1B2C3D4E5F","data":{},"ack":{"time":1700000000}})");
}

TEST_F(EnvelopeTest, PingResponseCarriesTheTimeAsDataAndTheRequestsAck) {
  EXPECT_EQ(built(qel_json_pingresp(area(), request(R"({"reqid":9,"ack":{"time":5}})"))),
            "{\"type\":\"pingresp\",\"devid\":\"SW_0A1B2C3D4E5F\",\"pktid\":\"0\",\"reqid\":9,"
            "\"data\":{\"time\":1700000000},\"ack\":{\n\t\"time\":\t5\n}}");
}

TEST_F(EnvelopeTest, TimeBehind2038IsWhole) {
  fake::set_now(4102444800);
  EXPECT_THAT(built(qel_json_ping(area())), EndsWith(R"("ack":{"time":4102444800}})"));
  EXPECT_THAT(built(qel_json_pingresp(area(), nullptr)),
              EndsWith(R"("data":{"time":4102444800}})"));
}

TEST_F(EnvelopeTest, TimeBeforeTheEpochIsNegative) {
  fake::set_now(-1);
  EXPECT_THAT(built(qel_json_ping(area())), EndsWith(R"("ack":{"time":-1}})"));
}

TEST_F(EnvelopeTest, PortSetIsAnArrayOfOneMemberObjects) {
  const std::array pairs = {qel_json_pair{"port.enable.1", "1"}, qel_json_pair{"port.speed.1", ""},
                            qel_json_pair{"", "x"}};
  EXPECT_EQ(built(qel_json_port_set(area(), pairs)),
            R"({"type":"port_set","pktid":"0","devid":"SW_0A1B2C3D4E5F",)"
            R"("data":[{"port.enable.1":"1"},{"port.speed.1":""},{"":"x"}]})");
}

TEST_F(EnvelopeTest, PortSetOfOneEntryHasNoSeparator) {
  const std::array pairs = {qel_json_pair{"a", "b"}};
  EXPECT_EQ(built(qel_json_port_set(area(), pairs)),
            R"({"type":"port_set","pktid":"0","devid":"SW_0A1B2C3D4E5F","data":[{"a":"b"}]})");
}

TEST_F(EnvelopeTest, PortSetOfNoEntryIsAnEmptyArray) {
  EXPECT_EQ(built(qel_json_port_set(area(), {})),
            R"({"type":"port_set","pktid":"0","devid":"SW_0A1B2C3D4E5F","data":[]})");
}

TEST_F(EnvelopeTest, PortSetThatDoesNotFitIsSeenAndTheNextOneIsClean) {
  const std::string value(40000, 'v');
  const std::array pairs = {qel_json_pair{"a", value.c_str()}, qel_json_pair{"b", value.c_str()}};
  qel_json_port_set(area(), pairs);
  EXPECT_TRUE(text_.overflowed());
  EXPECT_EQ(built(qel_json_port_set(area(), {})),
            R"({"type":"port_set","pktid":"1","devid":"SW_0A1B2C3D4E5F","data":[]})");
}

TEST_F(EnvelopeTest, DeviceGetCarriesTheCallersText) {
  EXPECT_EQ(built(qel_json_device_get(area(), R"(["uptime"])")),
            R"({"type":"device_get","pktid":"0","devid":"SW_0A1B2C3D4E5F","data":["uptime"]})");
}

TEST_F(EnvelopeTest, PortSetResponseCarriesTheCallersTextAndAnswersTheRequest) {
  EXPECT_EQ(
      built(qel_json_port_setresp(area(), R"({"ret":0})", request(R"({"reqid":77,"ack":[]})"))),
      R"({"type":"port_setresp","devid":"SW_0A1B2C3D4E5F","pktid":"0","reqid":77,)"
      R"("data":{"ret":0},"ack":[]})");
}

TEST_F(EnvelopeTest, UpgradeRequestCarriesIndexAndSuccess) {
  EXPECT_EQ(
      built(qel_json_upgrade_req(area(), 12, 1)),
      R"({"type":"upgrade_req","pktid":"0","devid":"SW_0A1B2C3D4E5F","data":{"index":12,"success":1}})");
  EXPECT_EQ(built(qel_json_upgrade_req(area(), -2147483647 - 1, 2147483647)),
            R"({"type":"upgrade_req","pktid":"1","devid":"SW_0A1B2C3D4E5F",)"
            R"("data":{"index":-2147483648,"success":2147483647}})");
}

// ---------------------------------------------------------------------------------------------
// Names that the reports share

TEST(SharedNames, ConfiguredSpeedsAreNamedFrom0To14AndAnythingElseIsAn) {
  EXPECT_STREQ(qel_json_speed_cfg_name(0), "AN");
  EXPECT_STREQ(qel_json_speed_cfg_name(1), "10M");
  EXPECT_STREQ(qel_json_speed_cfg_name(14), "100G");
  for (int32_t outside : {-1, 15, -2147483647 - 1, 2147483647}) {
    EXPECT_STREQ(qel_json_speed_cfg_name(outside), "AN") << outside;
  }
}

TEST(SharedNames, MediaAreNamedFrom0To10AndAnythingElseIsG) {
  EXPECT_STREQ(qel_json_media_name_by_index(0), "F");
  EXPECT_STREQ(qel_json_media_name_by_index(10), "100GF");
  for (int32_t outside : {-1, 11, -2147483647 - 1, 2147483647}) {
    EXPECT_STREQ(qel_json_media_name_by_index(outside), "G") << outside;
  }
}

TEST(SharedNames, MediaNameOfAPortComesFromClassMediumAndHighestSpeed) {
  struct Case {
    int32_t speed_class, medium, max_speed;
    const char* name;
  };
  for (const Case& one :
       {Case{2, 1, 1000, "G"}, Case{2, 1, 2500, "2.5G"}, Case{2, 2, 1000, "GF"},
        Case{2, 2, 2500, "2.5GF"}, Case{2, 1, 10000, "G"}, Case{2, 2, 100, "G"},
        Case{2, 3, 1000, "G"}, Case{2, 0, 2500, "G"}, Case{3, 1, 10000, "10GF"},
        Case{3, 0, 0, "10GF"}, Case{1, 1, 100, "F"}, Case{1, 2, 100, "FF"}, Case{1, 3, 100, "G"},
        Case{0, 1, 1000, "G"}, Case{4, 2, 2500, "G"}, Case{-1, 1, 1000, "G"}}) {
    struct uif uif = {};
    uif.speed_class = one.speed_class;
    uif.medium = one.medium;
    uif.max_speed = one.max_speed;
    EXPECT_STREQ(qel_json_port_media_name(&uif), one.name)
        << one.speed_class << " " << one.medium << " " << one.max_speed;
  }
}

TEST(SharedNames, MacIsTwelveLowerCaseDigitsInOneAreaThatTheNextCallReuses) {
  constexpr uint8_t kFirst[6] = {0x00, 0x0A, 0xBC, 0xDE, 0xF0, 0x9f};
  constexpr uint8_t kSecond[6] = {1, 2, 3, 4, 5, 6};
  const char* first = qel_mac_text(kFirst);
  EXPECT_STREQ(first, "000abcdef09f");
  EXPECT_EQ(qel_mac_text(kSecond), first);
  EXPECT_STREQ(first, "010203040506");
}

}  // namespace
