// SPDX-License-Identifier: Apache-2.0
//
// The UDP link: the same messages as plain datagrams.
#include "qel/qel_udp.h"

#include <arpa/inet.h>

#include <cerrno>
#include <cstring>

#include "qel/qel_send.h"
#include "qel/qel_table.h"
#include "tests/unit/hostile_texts.h"
#include "tests/unit/support.h"

namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;

constexpr char kProbe[] = R"({"mac":"gw","cmd":"probe","subcmd":"probe","data":{"ntick":1}})";

class UdpTest : public AgentTest {};

class UdpLinkTest : public AgentTest {
 protected:
  UdpLinkTest() {
    fake::set_nvram("qel_udp_enable", "1");
    start();
  }

  void receive_datagram(std::string_view text, const std::string& ip = "192.168.1.99",
                        uint16_t port = 40000) {
    fake::receive_udp(g_qel_dev.udp_fd, text, ip, port);
    fake::run_reads();
  }

  void expect_alive() {
    EXPECT_EQ(fake::registered("qel_udp_read", g_qel_dev.udp_fd), 1);
    fake::clear_records();
    receive_datagram(kProbe);
    EXPECT_THAT(fake::sent(), SizeIs(1));
  }
};

TEST_F(UdpTest, OpensBindsThenSetsOptionsThenRegisters) {
  EXPECT_EQ(qel_udp_open(), 0);
  const int fd = fake::last_socket(AF_INET);
  EXPECT_EQ(g_qel_dev.udp_fd, fd);
  const std::string number = std::to_string(fd);
  EXPECT_THAT(fake::calls(), ElementsAre("socket(AF_INET, SOCK_DGRAM, 0x0000)",
                                         "bind(" + number + ", 0.0.0.0:20682)",
                                         "setsockopt(" + number + ", SO_REUSEADDR, 1)",
                                         "setsockopt(" + number + ", SO_BROADCAST, 1)",
                                         "funcname_thread_add_read(qel_udp_read, " + number + ")"));
}

struct OpenFailure {
  const char* name;
  const char* call;
  int skip;
  int error;
  const char* said;
};
void PrintTo(const OpenFailure& one, std::ostream* stream) {
  *stream << one.name;
}

class UdpOpenFailure : public UdpTest, public testing::WithParamInterface<OpenFailure> {};

TEST_P(UdpOpenFailure, IsToldAndTheLinkStaysClosed) {
  const OpenFailure& failure = GetParam();
  fake::fail_os(failure.call, failure.error, failure.skip, 1);
  EXPECT_EQ(stderr_of([] { EXPECT_EQ(qel_udp_open(), -1); }), failure.said);
  EXPECT_EQ(g_qel_dev.udp_fd, 0);
  EXPECT_EQ(fake::registered("qel_udp_read"), 0);
  // A socket that is bound stays open.
  if (std::string_view(failure.call) == "setsockopt") {
    EXPECT_TRUE(fake::is_open(fake::last_socket(AF_INET)));
  }
}

INSTANTIATE_TEST_SUITE_P(
    Steps, UdpOpenFailure,
    testing::Values(OpenFailure{"Socket", "socket", 0, EMFILE, "socket: Too many open files\n"},
                    OpenFailure{"Bind", "bind", 0, EADDRINUSE, "bind: Address already in use\n"},
                    OpenFailure{"Reuse", "setsockopt", 0, EINVAL,
                                "setsockopt failed: Invalid argument\n"},
                    OpenFailure{"Broadcast", "setsockopt", 1, EACCES,
                                "setsockopt failed: Permission denied\n"}),
    [](const auto& case_info) { return case_info.param.name; });

TEST_F(UdpLinkTest, MessageIsAnsweredByOneBareDatagramToItsSender) {
  receive_datagram(kProbe, "192.168.1.77", 51234);
  ASSERT_THAT(fake::sent(), SizeIs(1));
  const fake::Sent& answer = fake::sent()[0];
  EXPECT_EQ(answer.fd, g_qel_dev.udp_fd);
  EXPECT_EQ(answer.ip(), "192.168.1.77");
  EXPECT_EQ(answer.port(), 51234);
  EXPECT_EQ(answer.to_length, 16U);
  EXPECT_EQ(answer.flags, 0);
  EXPECT_THAT(answer.bytes, StartsWith(R"({"mac":"0a1b2c3d4e5f","cmd":"answer")"));
  // The probe answer counts its closing NUL.
  EXPECT_THAT(answer.bytes, EndsWith(bytes("}}\0")));
}

TEST_F(UdpLinkTest, SwitchedOffAgentReadsDatagramsAndDropsThem) {
  g_qel_dev.enable = 0;
  receive_datagram(kProbe);
  EXPECT_THAT(fake::sent(), IsEmpty());
  g_qel_dev.enable = 1;
  fake::run_reads();
  EXPECT_THAT(fake::sent(), IsEmpty());
  expect_alive();
}

TEST_F(UdpLinkTest, LongTextIsOneDatagramToo) {
  qel_link link = udp_link("10.1.2.3", 20681);
  fake::clear_records();
  const std::string text(1600, 'x');
  EXPECT_EQ(qel_cmd_send(&link, text.c_str(), text.size()), 0);
  ASSERT_THAT(fake::sent(), SizeIs(1));
  EXPECT_EQ(fake::sent()[0].bytes, text);
  EXPECT_EQ(fake::sent()[0].ip(), "10.1.2.3");
  EXPECT_EQ(fake::sent()[0].port(), 20681);
}

TEST_F(UdpLinkTest, EmptyMessageIsAnEmptyDatagram) {
  qel_link link = udp_link();
  fake::clear_records();
  EXPECT_EQ(stderr_of([&] { qel_cmd_send(&link, "", 0); }), "");
  ASSERT_THAT(fake::sent(), SizeIs(1));
  EXPECT_EQ(fake::sent()[0].bytes, "");
}

TEST_F(UdpLinkTest, TailIsSentAsItIs) {
  qel_link link = udp_link();
  fake::clear_records();
  EXPECT_EQ(qel_cmd_send_tail(&link, "{}\0ab", 5, 99), 0);
  ASSERT_THAT(fake::sent(), SizeIs(1));
  EXPECT_THAT(fake::sent()[0].bytes, BytesAre(bytes("{}\0ab")));
}

TEST_F(UdpLinkTest, TailHasNoLimitBelowWhatADatagramHolds) {
  qel_link link = udp_link();
  for (const size_t length : {size_t{1601}, size_t{2048}, size_t{2049}, size_t{65507}}) {
    fake::clear_records();
    const std::string text(length, 'x');
    EXPECT_EQ(qel_cmd_send_tail(&link, text.c_str(), text.size(), 99), 0);
    ASSERT_THAT(fake::sent(), SizeIs(1)) << length;
    EXPECT_EQ(fake::sent()[0].bytes, text) << length;
    EXPECT_THAT(fake::console(), IsEmpty()) << length;
  }
}

TEST_F(UdpLinkTest, TailThatTheSystemRefusesIsToldByItsError) {
  qel_link link = udp_link();
  fake::clear_records();
  fake::fail_os("sendto", EMSGSIZE);
  const std::string text(65508, 'x');
  EXPECT_EQ(stderr_of([&] { qel_cmd_send_tail(&link, text.c_str(), text.size(), 0); }),
            "sendto(udp): Message too long\n");
  EXPECT_THAT(fake::console(), IsEmpty());
}

TEST_F(UdpLinkTest, SendThatFailsIsTold) {
  qel_link link = udp_link();
  fake::fail_os("sendto", ENETUNREACH);
  EXPECT_EQ(stderr_of([&] { EXPECT_EQ(qel_cmd_send(&link, "{}", 2), 0); }),
            "sendto(udp): Network is unreachable\n");
}

TEST_F(UdpLinkTest, ReadIsRegisteredAgainAfterAnErrorAndAnEmptyDatagram) {
  fake::receive_error(g_qel_dev.udp_fd, ECONNREFUSED);
  fake::run_reads();
  EXPECT_EQ(fake::registered("qel_udp_read", g_qel_dev.udp_fd), 1);
  receive_datagram("");
  EXPECT_THAT(fake::sent(), IsEmpty());
  expect_alive();
}

TEST_F(UdpLinkTest, TextLongerThanAFrameIsReadWhole) {
  std::string text = kProbe;
  text.insert(text.size() - 1, 60000, ' ');
  receive_datagram(text);
  EXPECT_THAT(fake::sent(), SizeIs(1));
}

TEST_F(UdpLinkTest, DatagramThatFillsTheBufferIsReadInsideIt) {
  receive_datagram(std::string(65535, '['));
  receive_datagram(std::string(65535, 'a'));
  EXPECT_THAT(fake::sent(), IsEmpty());
  expect_alive();
}

TEST_F(UdpLinkTest, ShorterTextAfterALongerOneKeepsNothingOfIt) {
  std::string text = kProbe;
  text.insert(text.size() - 1, 500, ' ');
  receive_datagram(text);
  fake::clear_records();
  receive_datagram(R"({"cmd":"probe")");
  EXPECT_THAT(fake::sent(), IsEmpty());
}

TEST_F(UdpLinkTest, TracesTellAddressLengthSenderAndText) {
  g_qel_dev.debug = 16;
  receive_datagram("[1]", "192.168.1.77", 51234);
  EXPECT_THAT(fake::console(), ElementsAre("recvlen:16,IP:192.168.1.77,Port:51234 \n",
                                           "udp........retcount:3, recvbuf:[1]  \n"));
}

TEST_F(UdpLinkTest, TraceOfADatagramComesBehindThoseOfItsCommand) {
  g_qel_dev.debug = 48;
  receive_datagram(R"({"mac":"m","cmd":"get","subcmd":"none"})", "192.168.1.77", 51234);
  EXPECT_THAT(
      fake::console(),
      ElementsAre("cmd get subcmd none mac=m \r\n", "recvlen:16,IP:192.168.1.77,Port:51234 \n",
                  "udp........retcount:39, recvbuf:"
                  "{\"mac\":\"m\",\"cmd\":\"get\",\"subcmd\":\"none\"}  \n"));
}

TEST_F(UdpLinkTest, OtherTraceBitsTellNothing) {
  g_qel_dev.debug = 255 - 16;
  receive_datagram("[1]");
  EXPECT_THAT(fake::console(), IsEmpty());
}

TEST_F(UdpTest, LinkToAGatewayIsOnItsUdpPort) {
  g_qel_dev.udp_fd = 55;
  qel_link link;
  std::memset(static_cast<void*>(&link), 0x55, sizeof link);
  qel_udp_link_init(&link, 0xC0A80163);
  EXPECT_EQ(link.kind, 1U);
  EXPECT_EQ(link.fd, 55);
  EXPECT_EQ(link.addr.udp.sin_family, AF_INET);
  EXPECT_EQ(ntohl(link.addr.udp.sin_addr.s_addr), 0xC0A80163);
  EXPECT_EQ(ntohs(link.addr.udp.sin_port), 20681);
  EXPECT_EQ(link.addrlen, 16U);
  EXPECT_EQ(link.flags, 0U);
}

class UdpTextTest : public UdpLinkTest, public testing::WithParamInterface<HostileText> {};

TEST_P(UdpTextTest, IsSurvivedAndTheNextGoodProbeIsAnswered) {
  g_qel_dev.debug = 255;
  receive_datagram(GetParam().text);
  if (GetParam().answers) {
    EXPECT_THAT(fake::sent(), SizeIs(*GetParam().answers));
  }
  g_qel_dev.debug = 0;
  expect_alive();
}

INSTANTIATE_TEST_SUITE_P(Hostile, UdpTextTest, testing::ValuesIn(hostile_texts()),
                         [](const auto& case_info) { return case_info.param.name; });

}  // namespace
