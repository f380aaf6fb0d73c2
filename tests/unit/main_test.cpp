// SPDX-License-Identifier: Apache-2.0
//
// Start-up in its exact order, the on/off switch, the interface manager's connections, and what
// the one-second timer does.
#include "qel/qel_main.h"

#include <getopt.h>

#include <cerrno>
#include <csignal>
#include <cstring>

#include "platform/log.h"
#include "qel/qel_api.h"
#include "qel/qel_eth_pkt.h"
#include "qel/qel_gw.h"
#include "qel/qel_req.h"
#include "qel/qel_table.h"
#include "tests/unit/calloc.h"
#include "tests/unit/support.h"

namespace {

using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

// Puts the blocks of records that the start allocates on the record of calls.
void note_records(size_t count, size_t size) {
  if (count == 1 && size == sizeof(qel_port)) {
    fake::note("calloc(port)");
  } else if (count == 64 && size == sizeof(qel_req)) {
    fake::note("calloc(64 requests)");
  } else if (count == 32 && size == sizeof(qel_eth_pkt)) {
    fake::note("calloc(32 packets)");
  }
}

// Runs the whole start; the fake's loop returns at once.
int start_agent(std::vector<std::string> words = {"/usr/sbin/qel"}) {
  std::vector<char*> argv;
  for (std::string& word : words) {
    argv.push_back(word.data());
  }
  argv.push_back(nullptr);
  optind = 0;  // getopt_long begins anew
  g_on_calloc = note_records;
  const int result = qel_main(static_cast<int>(words.size()), argv.data());
  g_on_calloc = nullptr;
  return result;
}

// The calls that start-up is about: the vty's installation in one line, without list and file
// work, module queries, and the short-lived sockets of interface requests.
std::vector<std::string> start_calls() {
  std::vector<std::string> found;
  for (const std::string& call : fake::calls()) {
    const std::string_view text = call;
    if (text.starts_with("list_new") || text.starts_with("fopen") || text.starts_with("close") ||
        text.starts_with("socket(AF_INET") || text.starts_with("setsockopt") ||
        text.starts_with("jclient_query")) {
      continue;
    }
    if (!text.starts_with("install_")) {
      found.push_back(call);
    } else if (found.empty() || found.back() != "install") {
      found.emplace_back("install");
    }
  }
  return found;
}

std::string read_of(const char* name, int fd) {
  return "funcname_thread_add_read(" + std::string(name) + ", " + std::to_string(fd) + ")";
}

size_t position_of(const std::string& call) {
  const auto& calls = fake::calls();
  return static_cast<size_t>(std::find(calls.begin(), calls.end(), call) - calls.begin());
}

class MainTest : public AgentTest {
 protected:
  MainTest() {
    fake::add_interface("vlanif1", 7);
    fake::add_ports(3);
  }

  // After a start: as if the daemon ran, with the records of the start forgotten.
  void run() {
    start_agent();
    fake::clear_records();
  }
};

TEST_F(MainTest, StartRunsEveryStepInOrder) {
  EXPECT_EQ(start_agent(), 0);
  const int eth = fake::last_socket(AF_PACKET);
  const int local = fake::last_socket(AF_UNIX);
  ASSERT_NE(fake::uclient(), nullptr);
  EXPECT_THAT(
      start_calls(),
      ElementsAre("umask(027)", "openzlog(qel, 33, 11, 24)", "thread_master_create()",
                  "hal_init(23)", "signal_init(master, 4, SIGINT SIGTERM SIGTSTP SIGQUIT)",
                  "cmd_init(1)", "vty_init(master)", "memory_init()", "uif_init()", "uvlan_init()",
                  "install", "calloc(port)", "calloc(port)", "calloc(port)", "calloc(64 requests)",
                  "calloc(32 packets)", "socket(AF_PACKET, SOCK_RAW, 0x9301)",
                  read_of("qel_eth_read", eth), "socket(AF_UNIX, SOCK_DGRAM, 0x0000)",
                  "unlink(/var/run/qel.udp)",
                  "bind(" + std::to_string(local) + ", /var/run/qel.udp)",
                  read_of("qel_ipc_sock_read", local), "unlink(/var/conf/getconf.tar.gz)",
                  "unlink(/var/conf/downlconf.tar.gz)", "morva_init()",
                  "pid_output(/var/run/qel.pid)", "vty_serv_sock(NULL, 2625, /var/run/qel.vty)",
                  "uclient_connect(0x7f000001, 30000, 30056)",
                  read_of("qel_read", fake::uclient()->conn_fd),
                  read_of("qel_serv", fake::uclient()->listen_fd),
                  "funcname_thread_add_timer(qel_timer_second, 1)", "host_init(0x28000, 0)",
                  "oem_info_get()", "nvram_set_int_temp(qel_enable, 1)", "hal_qel_enable(1)",
                  "zlog_notice: qel V1.0.26.d.1-gfd7ebc3d3 starting", "thread_main(master)"));
}

TEST_F(MainTest, StartClearsTheTransferStateOfTheConfiguration) {
  std::memset(&g_qel_conf, 0xff, sizeof g_qel_conf);
  start_agent();
  const qel_conf_transfer found = g_qel_conf;
  g_qel_conf = qel_conf_transfer{};  // what is left of the pattern is not to be freed
  EXPECT_EQ(found.upload_data, nullptr);
  EXPECT_EQ(found.upload_length, 0U);
  EXPECT_EQ(found.upload_crc, 0U);
  EXPECT_EQ(found.download_file, nullptr);
  EXPECT_EQ(found.download_total, 0U);
}

TEST_F(MainTest, ProgramNameWithoutFolderIsUsedWhole) {
  start_agent({"agent"});
  EXPECT_THAT(fake::calls(), Contains("openzlog(agent, 33, 11, 24)"));
}

TEST_F(MainTest, LoggerBecomesTheDefaultOne) {
  ASSERT_EQ(zlog_default, nullptr);
  start_agent();
  EXPECT_NE(zlog_default, nullptr);
}

TEST_F(MainTest, UnknownOptionsAreIgnoredAndTheDaemonStaysInForeground) {
  const std::string said = stderr_of([] {
    EXPECT_EQ(start_agent({"qel", "-x", "--nonsense", "word"}), 0);
  });
  EXPECT_THAT(fake::calls_of({"daemon"}), IsEmpty());
  EXPECT_THAT(fake::calls(), Contains("thread_main(master)"));
  EXPECT_EQ(said, "");
}

TEST_F(MainTest, DaemonOptionBehindAnUnknownOneStillCounts) {
  start_agent({"qel", "-x", "-d"});
  EXPECT_THAT(fake::calls(), Contains("daemon()"));
}

class DaemonOption : public MainTest, public testing::WithParamInterface<const char*> {};

TEST_P(DaemonOption, DetachesAfterInitialisationAndBeforeThePidFile) {
  start_agent({"qel", GetParam()});
  EXPECT_THAT(fake::calls_of({"morva_init", "daemon", "pid_output"}),
              ElementsAre("morva_init()", "daemon()", "pid_output(/var/run/qel.pid)"));
}

INSTANTIATE_TEST_SUITE_P(Spellings, DaemonOption, testing::Values("-d", "--daemon"));

using MainDeathTest = MainTest;

TEST_F(MainDeathTest, FailureToDetachIsLoggedAndEndsWithStatusOne) {
  fake::fail_os("daemon", EAGAIN);
  EXPECT_EXIT(start_agent({"qel", "-d"}), testing::ExitedWithCode(1),
              "err: Timer daemon failed: Resource temporarily unavailable");
}

TEST_F(MainDeathTest, NoInterfaceManagerClientIsLoggedAndEndsWithStatusOne) {
  fake::fail_platform("uclient_connect");
  EXPECT_EXIT(start_agent(), testing::ExitedWithCode(1), "err: Failed to create uclient");
}

class TerminatingSignal : public MainTest, public testing::WithParamInterface<int> {};
using TerminatingSignalDeathTest = TerminatingSignal;

TEST_P(TerminatingSignalDeathTest, LogsAndEndsWithStatusZero) {
  run();
  void (*const handler)() = fake::signal_handler(GetParam());
  ASSERT_NE(handler, nullptr);
  EXPECT_EXIT(handler(), testing::ExitedWithCode(0), "notice: Vlog terminating on signal");
}

INSTANTIATE_TEST_SUITE_P(Signals, TerminatingSignalDeathTest,
                         testing::Values(SIGINT, SIGTERM, SIGTSTP, SIGQUIT));

TEST_F(MainTest, StartDeletesArchivesOfAnEarlierRun) {
  fake::set_file("/var/conf/getconf.tar.gz", "old");
  fake::set_file("/var/conf/downlconf.tar.gz", "old");
  fake::set_file("/var/conf/port.conf", "kept");
  start_agent();
  EXPECT_EQ(fake::file("/var/conf/getconf.tar.gz"), std::nullopt);
  EXPECT_EQ(fake::file("/var/conf/downlconf.tar.gz"), std::nullopt);
  EXPECT_EQ(fake::file("/var/conf/port.conf"), "kept");
}

TEST_F(MainTest, SocketsThatCannotBeOpenedDoNotStopTheStart) {
  fake::fail_os("socket", EPERM);
  stderr_of([] { stdout_of([] { EXPECT_EQ(start_agent(), 0); }); });
  EXPECT_THAT(fake::calls(), Contains("thread_main(master)"));
  EXPECT_EQ(g_qel_dev.eth_fd, 0);
  EXPECT_EQ(fake::registered("qel_timer_second"), 1);
}

TEST_F(MainTest, EventSocketThatCannotBeBoundDoesNotStopTheAgent) {
  fake::fail_os("bind", EADDRINUSE);
  EXPECT_EQ(stderr_of([] { EXPECT_EQ(start_agent(), 0); }),
            "can not bind saddr: Address already in use\n");
  EXPECT_THAT(fake::calls(), Contains("thread_main(master)"));
  EXPECT_EQ(fake::registered("qel_timer_second"), 1);
  receive(R"({"cmd":"get","subcmd":"ports_link"})");
  EXPECT_THAT(sent_messages(),
              ElementsAre(R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_link",)"
                          R"("data":{"ge1":[0,0,0,0],"ge2":[0,0,0,0],"ge3":[0,0,0,0]}})"));
}

TEST_F(MainTest, RegistrationsTellTheirNameAndSource) {
  start_agent();
  int seen = 0;
  for (const fake::Registration& one : fake::registrations()) {
    if (one.name == "qel_read" || one.name == "qel_serv" || one.name == "qel_timer_second") {
      EXPECT_EQ(one.file, "qel/qel_main") << one.name;
      EXPECT_GT(one.line, 0) << one.name;
      ++seen;
    }
  }
  EXPECT_EQ(seen, 3);
}

TEST_F(MainTest, ManagementInterfaceTooSmallForTheLongestFrameIsSaidOnce) {
  fake::net("vlanif1").mtu = 1500;
  start_agent();
  int notices = 0;
  for (const std::string& line : fake::log_lines()) {
    // 14 bytes of the frame are not counted by the MTU, 32 come before the message.
    notices += line.find("1482") != std::string::npos ? 1 : 0;
  }
  EXPECT_EQ(notices, 1);
  EXPECT_EQ(fake::log_lines().size(), 2U);  // this one and the start
}

TEST_F(MainTest, ManagementInterfaceThatCarriesTheLongestFrameIsNotMentioned) {
  fake::net("vlanif1").mtu = 1618;
  start_agent();
  EXPECT_THAT(fake::log_lines(), ElementsAre("notice: qel V1.0.26.d.1-gfd7ebc3d3 starting"));
}

TEST_F(MainTest, UdpLinkStaysClosedUnlessTheSettingOpensIt) {
  start_agent();
  EXPECT_EQ(fake::registered("qel_udp_read"), 0);
  EXPECT_EQ(g_qel_dev.udp_fd, 0);
}

TEST_F(MainTest, UdpLinkOpensAfterTheRawSocketWhenTheSettingSaysSo) {
  fake::set_nvram("qel_udp_enable", "1");
  start_agent();
  ASSERT_NE(g_qel_dev.udp_fd, 0);
  EXPECT_EQ(fake::registered("qel_udp_read", g_qel_dev.udp_fd), 1);
  EXPECT_LT(position_of(read_of("qel_eth_read", g_qel_dev.eth_fd)),
            position_of("bind(" + std::to_string(g_qel_dev.udp_fd) + ", 0.0.0.0:20682)"));
  EXPECT_LT(position_of(read_of("qel_udp_read", g_qel_dev.udp_fd)),
            position_of("socket(AF_UNIX, SOCK_DGRAM, 0x0000)"));
}

// ---------------------------------------------------------------------------------------------
// On and off

struct OemCase {
  const char* name;
  std::array<uint32_t, OEM_INFO_WORDS> words;
  bool enabled;
};
void PrintTo(const OemCase& one, std::ostream* stream) {
  *stream << one.name;
}

class EnableInit : public MainTest, public testing::WithParamInterface<OemCase> {};

TEST_P(EnableInit, MakersRecordDecides) {
  fake::set_oem_words(GetParam().words);
  qel_enable_init();
  std::vector<std::string> expected = {"oem_info_get()", "nvram_set_int_temp(qel_enable, 1)",
                                       "hal_qel_enable(1)"};
  if (!GetParam().enabled) {
    expected.insert(expected.end(), {"nvram_set_int_temp(qel_enable, 0)", "hal_qel_enable(0)"});
  }
  EXPECT_EQ(fake::calls(), expected);
  EXPECT_EQ(g_qel_dev.enable, GetParam().enabled ? 1U : 0U);
}

INSTANTIATE_TEST_SUITE_P(
    Words, EnableInit,
    testing::Values(OemCase{"NoRecord", {0, 0, 0, 0, 0, 0, 0, 0}, true},
                    OemCase{"SecondOneFourthZero", {0, 1, 0, 0, 0, 0, 0, 0}, false},
                    OemCase{"OtherWordsDoNotMatter", {9, 1, 9, 0, 9, 9, 9, 9}, false},
                    OemCase{"FourthNotZero", {0, 1, 0, 1, 0, 0, 0, 0}, true},
                    OemCase{"SecondTwo", {0, 2, 0, 0, 0, 0, 0, 0}, true},
                    OemCase{"FirstOneOnly", {1, 0, 0, 0, 0, 0, 0, 0}, true}),
    [](const auto& case_info) { return case_info.param.name; });

TEST_F(MainTest, EnableSetsRecordThenTemporarySettingThenHardware) {
  g_qel_dev.enable = 1;
  qel_enable(0);
  EXPECT_EQ(g_qel_dev.enable, 0U);
  EXPECT_THAT(fake::calls(), ElementsAre("nvram_set_int_temp(qel_enable, 0)", "hal_qel_enable(0)"));
  EXPECT_EQ(fake::nvram_temp("qel_enable"), "0");
  EXPECT_EQ(fake::nvram("qel_enable"), "");
}

// ---------------------------------------------------------------------------------------------
// Interface manager

TEST_F(MainTest, MessagesOfTheManagerGoToThePlatformUnchanged) {
  run();
  fake::new_if("ge4", 0x01000004);
  fake::trunk_set("ge1", 2);
  fake::mirror_get("ge2", 1);
  fake::if_status("ge3", 1);
  fake::run_reads();
  EXPECT_THAT(fake::calls_of({"uclient_new_if", "uclient_trunk", "uclient_mirror", "uclient_if"}),
              ElementsAre("uclient_new_if(ge4)", "uclient_trunk_set(ge1, 2)",
                          "uclient_mirror_get(ge2, 1)", "uclient_if_status(ge3)"));
  EXPECT_EQ(uif_get_by_name("ge3")->link, 1);
}

TEST_F(MainTest, ConnectionIsReadAgainAfterEachMessage) {
  run();
  const int fd = fake::uclient()->conn_fd;
  for (int i = 0; i < 3; ++i) {
    fake::trunk_set("ge1", i);
    EXPECT_EQ(fake::run_reads(), 1);
    EXPECT_EQ(fake::registered("qel_read", fd), 1);
  }
}

TEST_F(MainTest, ReadWithoutACompleteMessageIsRegisteredAgain) {
  run();
  const int fd = fake::uclient()->conn_fd;
  ASSERT_TRUE(fake::fire_read(fd));
  EXPECT_EQ(fake::registered("qel_read", fd), 1);
  EXPECT_TRUE(fake::is_open(fd));
}

TEST_F(MainTest, ConnectionThatFailsIsClosedAndForgotten) {
  run();
  const int fd = fake::uclient()->conn_fd;
  fake::manager_closes(fd);
  fake::run_reads();
  EXPECT_FALSE(fake::is_open(fd));
  EXPECT_EQ(fake::registered("qel_read", fd), 0);
  EXPECT_EQ(fake::registered("qel_serv"), 1);
}

TEST_F(MainTest, ManagerThatConnectsBackIsReadWithTheSameClient) {
  run();
  const int listening = fake::uclient()->listen_fd;
  fake::connect_to(listening);
  EXPECT_EQ(fake::run_reads(), 1);
  const int fd = fake::last_socket(AF_INET);
  EXPECT_THAT(fake::calls(),
              ElementsAre(read_of("qel_serv", listening),
                          "accept(" + std::to_string(listening) + ")", read_of("qel_read", fd)));
  for (const fake::Registration& one : fake::registrations()) {
    if (one.fd == fd || one.fd == listening) {
      EXPECT_EQ(one.arg, fake::uclient());
    }
  }
  fake::manager_sends_on(fd);
  fake::trunk_set("ge1", 5);
  fake::run_reads();
  EXPECT_THAT(fake::calls(), Contains("uclient_trunk_set(ge1, 5)"));
}

TEST_F(MainTest, ListeningReadReturnsZeroAndMinusOneWhenTheAcceptFails) {
  run();
  thread readable{fake::master(), fake::uclient(), fake::uclient()->listen_fd};
  fake::connect_to(readable.fd);
  EXPECT_EQ(qel_serv(&readable), 0);
  fake::fail_os("accept", EMFILE, 0, 1);
  EXPECT_EQ(qel_serv(&readable), -1);
}

TEST_F(MainTest, AcceptThatFailsIsLoggedAndListeningContinues) {
  run();
  const int listening = fake::uclient()->listen_fd;
  fake::fail_os("accept", ECONNABORTED, 0, 1);
  fake::connect_to(listening);
  fake::run_reads();
  EXPECT_THAT(fake::log_lines(), ElementsAre("err: qel_serv: accept async failed\n"));
  EXPECT_EQ(fake::registered("qel_serv", listening), 1);
  EXPECT_EQ(fake::registered("qel_read"), 1);
  fake::connect_to(listening);
  fake::run_reads();
  EXPECT_EQ(fake::registered("qel_read"), 2);
}

// ---------------------------------------------------------------------------------------------
// The one-second timer

TEST_F(MainTest, TickRegistersItselfAgain) {
  run();
  fake::tick(5);
  EXPECT_EQ(fake::calls_of({"funcname_thread_add_timer(qel_timer_second, 1)"}).size(), 5U);
  EXPECT_EQ(fake::registered("qel_timer_second"), 1);
}

TEST_F(MainTest, TickRunsGatewaysThenPortsThenArchiveThenCountdown) {
  run();
  g_qel_dev.debug = 4;
  g_qel_gw[0].active = 1;
  g_qel_gw[0].last_seen = fake::uptime() - 20;
  qel_port* const port = qel_port_of(uif_get_by_name("ge2"));
  port->restart_left = 1;
  g_qel_dev.conf_busy = 1;
  g_qel_dev.conf_age = 30;
  g_qel_dev.sys_active = 9;
  std::string console_when_port_ran;
  fake::on_query([&](const fake::Query&) { console_when_port_ran = fake::console_text(); });
  fake::tick();
  EXPECT_EQ(console_when_port_ran, "gw [] become offline\n");
  EXPECT_THAT(
      fake::calls_of({"jclient_query", "system", "nvram_set_int(", "funcname_thread"}),
      ElementsAre(StartsWith(R"(jclient_query({"mdl":"mono","cmd":"qel_port_enable_set")"),
                  "system(rm -rf -- /var/conf/getconf.tar.gz)", "nvram_set_int(qel_sys_active, 8)",
                  "funcname_thread_add_timer(qel_timer_second, 1)"));
}

TEST_F(MainTest, CountdownOfThreeWritesTwoOneZeroAndThenNothing) {
  run();
  g_qel_dev.sys_active = 3;
  fake::tick(6);
  EXPECT_THAT(fake::nvram_writes(),
              ElementsAre("qel_sys_active=2", "qel_sys_active=1", "qel_sys_active=0"));
  EXPECT_EQ(g_qel_dev.sys_active, 0);
}

TEST_F(MainTest, CountdownGoesOnWhenTheSettingCannotBeWritten) {
  run();
  fake::fail_nvram_writes(true);
  g_qel_dev.sys_active = 2;
  fake::tick(3);
  EXPECT_EQ(fake::nvram_writes().size(), 2U);
  EXPECT_EQ(g_qel_dev.sys_active, 0);
}

TEST_F(MainTest, CountdownBelowZeroKeepsFalling) {
  run();
  g_qel_dev.sys_active = -1;
  fake::tick(2);
  EXPECT_THAT(fake::nvram_writes(), ElementsAre("qel_sys_active=-2", "qel_sys_active=-3"));
}

TEST_F(MainTest, LowestCountdownDoesNotTrap) {
  run();
  g_qel_dev.sys_active = INT32_MIN;
  fake::tick();
  EXPECT_THAT(fake::nvram_writes(), ElementsAre("qel_sys_active=2147483647"));
  EXPECT_EQ(g_qel_dev.sys_active, INT32_MAX);
}

TEST_F(MainTest, HeldArchiveIsReleasedOnThe31stTick) {
  run();
  g_qel_dev.conf_busy = 1;
  fake::tick(30);
  EXPECT_THAT(fake::shell_commands(), IsEmpty());
  EXPECT_EQ(g_qel_dev.conf_busy, 1);
  EXPECT_EQ(g_qel_dev.conf_age, 30);
  fake::tick();
  EXPECT_THAT(fake::shell_commands(), ElementsAre("rm -rf -- /var/conf/getconf.tar.gz"));
  EXPECT_EQ(g_qel_dev.conf_busy, 0);
  EXPECT_EQ(g_qel_dev.conf_age, 0);
  fake::tick(60);
  EXPECT_EQ(fake::shell_commands().size(), 1U);
}

TEST_F(MainTest, WithoutAnArchiveItsAgeStaysAsItIs) {
  run();
  g_qel_dev.conf_age = 30;
  fake::tick(3);
  EXPECT_EQ(g_qel_dev.conf_age, 30);
  EXPECT_THAT(fake::shell_commands(), IsEmpty());
}

TEST_F(MainTest, IdleTickDoesNothingElse) {
  run();
  fake::tick(10);
  EXPECT_THAT(fake::calls(), Each("funcname_thread_add_timer(qel_timer_second, 1)"));
  EXPECT_THAT(fake::sent(), IsEmpty());
}

}  // namespace
