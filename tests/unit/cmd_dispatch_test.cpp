// SPDX-License-Identifier: Apache-2.0
//
// Command dispatch: which handler a message reaches. Each row is known by something that only its
// handler does; a message that reaches none leaves no trace of any kind.
#include "qel/qel_cmd.h"

#include <cerrno>

#include "qel/qel_table.h"
#include "qel/qel_udp.h"
#include "qel/qel_upgrade.h"
#include "tests/unit/support.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

class DispatchTest : public AgentTest {
 protected:
  DispatchTest() {
    fake::add_ports(2);
    fake::set_file("/var/conf/getconf.tar.gz", "archive");
    start();
    link_ = eth_link();
    fake::clear_records();
  }

  void dispatch(const std::string& text, uint16_t length_field = 0) {
    EXPECT_EQ(qel_cmd_dispatch(&link_, text.c_str(), length_field, text.size()), 0);
  }

  // Everything that was done, as one text: calls with their arguments, then messages sent.
  static std::string deeds() {
    std::string all;
    for (const std::string& call : fake::calls()) {
      all += call + "\n";
    }
    for (const std::string& message : sent_messages()) {
      all += "sent " + message + "\n";
    }
    return all;
  }

  qel_link link_ = {};
};

struct Row {
  const char* subcmd;
  const char* data;  // JSON text
  const char* deed;  // what only this row's handler does
};

std::string message_of(const char* cmd, const Row& row) {
  return std::string(R"({"mac":"gw","cmd":")") + cmd + R"(","subcmd":")" + row.subcmd +
         R"(","data":)" + row.data + "}";
}

constexpr Row kQueryRows[] = {
    {"probe", R"({"ntick":1})", R"("cmd":"answer")"},
    {"ports_info", "{}", R"("subcmd":"ports_info")"},
    {"ports_conf", "{}", R"("subcmd":"ports_conf")"},
    {"ports_link", "{}", R"("subcmd":"ports_link")"},
    {"ports_poe", "{}", R"("subcmd":"ports_poe_conf")"},
    {"ports_client", "{}", R"("subcmd":"ports_client")"},
    {"ports_stats", "{}", R"("subcmd":"ports_stats")"},
    {"ping", "{}", R"("cmd":"pong")"},
    {"qelipc", R"({"mdl":"m1","cmd":"c1"})", R"(jclient_query({"mdl":"m1","cmd":"c1"}))"},
};

constexpr Row kActionRows[] = {
    {"ports_conf", "{}", "qel_common_update_mono_portinfo"},
    {"port_enable", R"({"ge1":0})", "qel_port_enable_set"},
    {"port_speed", R"({"ge1":"1G"})", "qel_port_speed_set"},
    {"port_restart", R"({"ge1":5})", R"({"port":"ge1","enable":0})"},
    {"sys_ip", R"({"sys_ip":"192.168.1.20","sys_mask":24})", "manage_L3IF_info_set"},
    {"sys_time", R"({"timestamp":"1700000000"})", R"(system(date -s "@1700000000"))"},
    {"hfs_upgrade", R"({"upgrade_serverinfo":"http://10.0.0.1/image"})",
     "sys_upgrade_state_set(2, 0)"},
    {"sys_reboot", "{}", "sys_reboot()"},
    {"config_reset", "{}", "sys_restore_default()\nsys_reboot()"},
    {"sys_active", R"({"sys_active":60})", "nvram_set_int(qel_sys_active, 60)"},
    {"config_upload", R"({"index":0})", R"("subcmd":"config_upload")"},
    {"name", R"({"name":"new"})", "product_description_set"},
};

void PrintTo(const Row& row, std::ostream* stream) {
  *stream << row.subcmd;
}

class QueryRow : public DispatchTest, public testing::WithParamInterface<Row> {};
class ActionRow : public DispatchTest, public testing::WithParamInterface<Row> {};

TEST_P(QueryRow, IsReachedByGetProbeAndPing) {
  for (const char* cmd : {"get", "probe", "ping"}) {
    fake::clear_records();
    dispatch(message_of(cmd, GetParam()));
    EXPECT_THAT(deeds(), HasSubstr(GetParam().deed)) << cmd;
  }
}

TEST_P(QueryRow, IsNotReachedByOtherVerbs) {
  for (const char* cmd : {"set", "GET", "Probe", "gets", "", "update"}) {
    fake::clear_records();
    dispatch(message_of(cmd, GetParam()));
    EXPECT_THAT(deeds(), Not(HasSubstr(GetParam().deed))) << cmd;
  }
}

TEST_P(ActionRow, IsReachedByAnyOtherVerb) {
  fake::on_shell([](const std::string& command) {
    if (command.find("getconf.tar.gz -- *.conf") != std::string::npos) {
      fake::set_file("/var/conf/getconf.tar.gz", "archive");
    }
    return 0;
  });
  for (const char* cmd : {"set", "GET", "Probe", "gets", "", "update"}) {
    fake::clear_records();
    fake::firmware() = {};
    g_qel_upgrade_fetch = {};
    dispatch(message_of(cmd, GetParam()));
    EXPECT_THAT(deeds(), HasSubstr(GetParam().deed)) << cmd;
  }
}

TEST_P(ActionRow, IsNotReachedByGetProbeAndPing) {
  for (const char* cmd : {"get", "probe", "ping"}) {
    fake::clear_records();
    dispatch(message_of(cmd, GetParam()));
    EXPECT_THAT(deeds(), Not(HasSubstr(GetParam().deed))) << cmd;
  }
}

std::string row_name(const testing::TestParamInfo<Row>& row) {
  return row.param.subcmd;
}
INSTANTIATE_TEST_SUITE_P(Table, QueryRow, testing::ValuesIn(kQueryRows), row_name);
INSTANTIATE_TEST_SUITE_P(Table, ActionRow, testing::ValuesIn(kActionRows), row_name);

// ---------------------------------------------------------------------------------------------
// Messages that reach no handler

class NoRow : public DispatchTest, public testing::WithParamInterface<const char*> {};

TEST_P(NoRow, LeavesNoTrace) {
  EXPECT_EQ(stderr_of([&] { dispatch(GetParam()); }), "");
  EXPECT_EQ(deeds(), "");
  EXPECT_THAT(fake::console(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Messages, NoRow,
                         testing::Values(R"({"cmd":"set","subcmd":"probe","data":{"ntick":1}})",
                                         R"({"cmd":"get","subcmd":"sys_reboot"})",
                                         R"({"cmd":"probe","subcmd":"config_reset"})",
                                         R"({"subcmd":"probe","data":{"ntick":1}})",
                                         R"({"cmd":"get"})", R"({"cmd":"get","subcmd":""})",
                                         R"({"cmd":"get","subcmd":"PROBE","data":{}})",
                                         R"({"cmd":"get","subcmd":"probes","data":{}})",
                                         R"({"cmd":"get","subcmd":"prob","data":{}})",
                                         R"({"cmd":"set","subcmd":"no_such_command"})",
                                         R"({"cmd":7,"subcmd":"probe","data":{}})",
                                         R"({"cmd":"get","subcmd":3,"data":{}})",
                                         R"([{"cmd":"get","subcmd":"probe"}])", R"("probe")", "{",
                                         "", "null"));

// ---------------------------------------------------------------------------------------------
// The order of the tables

TEST_F(DispatchTest, PortsConfWithGetReadsAndWithSetChanges) {
  dispatch(R"({"cmd":"get","subcmd":"ports_conf","data":{}})");
  EXPECT_THAT(fake::queries(), IsEmpty());
  EXPECT_THAT(sent_messages(), SizeIs(1));
  fake::clear_records();
  dispatch(R"({"cmd":"set","subcmd":"ports_conf","data":{}})");
  EXPECT_THAT(fake::queries(), SizeIs(4));
  EXPECT_THAT(fake::sent(), IsEmpty());
}

TEST_F(DispatchTest, UpperCaseGetSetsThePortConfiguration) {
  dispatch(R"({"cmd":"GET","subcmd":"ports_conf","data":{}})");
  EXPECT_THAT(fake::queries(), SizeIs(4));
  EXPECT_THAT(fake::sent(), IsEmpty());
}

TEST_F(DispatchTest, VerbMerelySelectsTheTable) {
  dispatch(R"({"cmd":"probe","subcmd":"ports_link"})");
  EXPECT_THAT(sent_messages(),
              ElementsAre(R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_link",)"
                          R"("data":{"ge1":[0,0,0,0],"ge2":[0,0,0,0]}})"));
}

// ---------------------------------------------------------------------------------------------
// Downloads come before the tables

class DownloadVerb : public DispatchTest, public testing::WithParamInterface<const char*> {};

TEST_P(DownloadVerb, ConfigurationDownloadIsReached) {
  dispatch(std::string(R"({"cmd":")") + GetParam() + R"(","subcmd":"config_download"})", 16);
  // Without "data" the handler stops behind its first line.
  EXPECT_THAT(fake::console_text(), HasSubstr("[qel_cmd_handle_conf_download,"));
  EXPECT_THAT(fake::sent(), IsEmpty());
}

TEST_P(DownloadVerb, FirmwareDownloadIsReached) {
  fake::firmware().upgrading = 1;
  dispatch(
      std::string(R"({"cmd":")") + GetParam() + R"(","subcmd":"firm_download","data":{"index":0}})",
      60);
  EXPECT_THAT(fake::calls(), Contains("sys_is_upgrading()"));
  EXPECT_THAT(sent_messages(),
              ElementsAre(R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"firm_download",)"
                          R"("data":{"state":-1,"index":0,"file":""}})"));
}

INSTANTIATE_TEST_SUITE_P(Verbs, DownloadVerb,
                         testing::Values("get", "probe", "ping", "set", "update", "x"));

TEST_F(DispatchTest, LengthFieldOfTheFrameReachesTheDownload) {
  const std::string text =
      R"({"cmd":"update","subcmd":"firm_download","data":{"index":0,"next":1,"total_length":9,)"
      R"("file":"f","length":4}})";
  // The chunk stands behind the text and its NUL: text length + 17, counted with 16 too many.
  const auto field = static_cast<uint16_t>(text.size() + 17);
  receive(text + bytes("\0\x01\x02\x00\x04"), kGatewayMac, kSwitchMac, field);
  EXPECT_EQ(fake::file("/tmp/linux.trx"), bytes("\x01\x02\x00\x04"));
}

TEST_F(DispatchTest, DownloadOverUdpIsRefusedSinceItHasNoLengthField) {
  ASSERT_EQ(qel_udp_open(), 0);
  fake::receive_udp(g_qel_dev.udp_fd,
                    R"({"cmd":"update","subcmd":"firm_download","data":{"index":0,"next":1,)"
                    R"("total_length":9,"file":"f","length":4}})",
                    "192.168.1.99", 40000);
  fake::run_reads();
  EXPECT_EQ(fake::file("/tmp/linux.trx").value_or(""), "");
}

// ---------------------------------------------------------------------------------------------
// Trace

TEST_F(DispatchTest, TraceTellsVerbCommandAndMac) {
  g_qel_dev.debug = 32;
  dispatch(R"({"mac":"0a1b2c3d4e5f","cmd":"set","subcmd":"nothing"})");
  EXPECT_THAT(fake::console(), ElementsAre("cmd set subcmd nothing mac=0a1b2c3d4e5f \r\n"));
}

TEST_F(DispatchTest, MessageWithoutAVerbIsNotTraced) {
  g_qel_dev.debug = 32;
  dispatch(R"({"mac":"0a1b2c3d4e5f","subcmd":"nothing"})");
  EXPECT_THAT(fake::console(), IsEmpty());
}

TEST_F(DispatchTest, MissingTextsDoNotBreakTheTrace) {
  g_qel_dev.debug = 255;
  dispatch(R"({"cmd":"set"})");
  EXPECT_THAT(fake::console(), ElementsAre("cmd set subcmd (null) mac=(null) \r\n"));
}

}  // namespace
