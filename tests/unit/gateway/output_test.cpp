// SPDX-License-Identifier: Apache-2.0
//
// What qelctl shows, as literal text: ports, panel, live view, events, progress.
#include <gtest/gtest.h>

#include "fixture.h"
#include "gateway/cli/identity_output.h"
#include "gateway/cli/panel.h"
#include "gateway/cli/port_output.h"
#include "gateway/cli/top_view.h"
#include "gateway/cli/watch_log.h"
#include "gateway/files.h"
#include "gateway/progress.h"

namespace qel_gateway::cli {
namespace {

using gateway_test::FakeClock;
using gateway_test::office_switch;

Port make_port(const char* name, int index, PortPosition position, PortLink link, bool enabled) {
  Port port;
  port.name = name;
  port.index = index;
  port.medium = kMediumCopper;
  port.media = "G";
  port.position = position;
  port.link = link;
  port.config = PortConfig{enabled, "AN", false, true, false, false, true, true};
  return port;
}

PortTable sample() {
  PortTable table;
  table.ports.push_back(make_port("ge1", 0, {1, 1}, {true, 1000, true, 0}, true));
  table.ports.push_back(make_port("ge2", 1, {1, 2}, {false, 0, false, 0}, true));
  table.ports.push_back(make_port("ge3", 2, {2, 1}, {false, 0, false, 7}, false));
  table.ports.push_back(make_port("ge4", 3, {2, 2}, {false, 0, false, 0}, false));
  table.ports.push_back(make_port("xe1", 4, {4, 1}, {true, 10000, true, 0}, true));
  table.ports[0].poe = PortPoe{1, 2};
  table.ports[0].stats = PortStats{1234567, 1000, 25000, 10};
  table.ports[4].stats = PortStats{5, 6, 12500000, 9};
  table.ports[0].client = PortClient{"ON", "001122334455", "192.168.1.20", "UN"};
  table.ports[1].client = PortClient{"NONE", "", "", "UN"};
  table.ports[4].client = PortClient{"OFF", "001122334466", "0.0.0.0", "SW"};
  return table;
}

TEST(Output, PortsAtTwoWidths) {
  EXPECT_EQ(ports_table(sample()).text({200, false}),
            "PORT  MEDIA  STATE  LINK          SPEED  POE  TX/s  RX/s  CLIENT             "
            "IP            TYPE  FEATURES  TX BYTES  RX BYTES\n"
            "ge1   G      on     up        1000 full  on    25k    10  00:11:22:33:44:55  "
            "192.168.1.20  UN    eee lldp      1.2M      1.0k\n"
            "ge2   G      on     down                                                      "
            "                   eee lldp\n"
            "ge3   G      off    back 7s                                                    "
            "                  eee lldp\n"
            "ge4   G      off    down                                                       "
            "                  eee lldp\n"
            "xe1   G      on     up       10000 full        12M     9  00:11:22:33:44:66  "
            "              SW    eee lldp         5         6\n");
  EXPECT_EQ(ports_table(sample()).text({80, false}),
            "PORT  MEDIA  STATE  LINK          SPEED  POE  TX/s  RX/s  CLIENT\n"
            "ge1   G      on     up        1000 full  on    25k    10  00:11:22:33:44:55\n"
            "ge2   G      on     down\n"
            "ge3   G      off    back 7s\n"
            "ge4   G      off    down\n"
            "xe1   G      on     up       10000 full        12M     9  00:11:22:33:44:66\n");
}

TEST(Output, PortsInJsonAreNamedNotPlaced) {
  EXPECT_EQ(
      dump_json(port_json(sample().ports[0])),
      R"({"name":"ge1","index":0,"medium":"copper","media":"G","x":1,"y":1,"link":true,)"
      R"("speed":1000,"duplex":"full","restart_left":0,"enabled":true,"config":{"speed":"AN",)"
      R"("iso":false,"eee":true,"llpp":false,"mstp":false,"lldp":true,"poe":true},)"
      R"("poe":{"enable":1,"priority":2},"stats":{"tx_sum":1234567,"rx_sum":1000,)"
      R"("tx_rate":25000,"rx_rate":10},"client":{"state":"ON","mac":"00:11:22:33:44:55",)"
      R"("ip":"192.168.1.20","type":"UN"}})");
  PortTable table;
  table.missing = {"ports_stats"};
  EXPECT_EQ(dump_json(ports_json(table)), R"({"ports":[],"missing":["ports_stats"]})");
}

TEST(Output, OtherTables) {
  EXPECT_EQ(poe_table(sample()).text({80, false}),
            "PORT  POE  PRIORITY  LINK\n"
            "ge1   on          2  up\n");
  EXPECT_EQ(clients_table(sample()).text({80, false}),
            "PORT  STATE  MAC                IP            TYPE\n"
            "ge1   ON     00:11:22:33:44:55  192.168.1.20  UN\n"
            "xe1   OFF    00:11:22:33:44:66                SW\n");
  EXPECT_EQ(stats_table(sample()).text({80, false}),
            "PORT  TX/s  RX/s  TX BYTES  RX BYTES\n"
            "ge1    25k    10   1234567      1000\n"
            "ge2\n"
            "ge3\n"
            "ge4\n"
            "xe1    12M     9         5         6\n");
}

TEST(Output, ThePanelIsDrawnFromPositions) {
  EXPECT_EQ(panel_text(sample(), {80, false}),
            "┌────┬────┐  ┌────┐\n"
            "│ge1●│ge3↻│  │xe1●│\n"
            "├────┼────┤  ├────┤\n"
            "│ge2○│ge4×│  │    │\n"
            "└────┴────┘  └────┘\n"
            "● link  ○ no link  × off  ↻ restarting\n");
}

TEST(Output, ANarrowPanelContinuesBelow) {
  EXPECT_EQ(panel_text(sample(), {12, true}).substr(0, 120),
            std::string("┌────┬────┐\n"
                        "│ge1\033[32m●\033[0m│ge3\033[33m↻\033[0m│\n"
                        "├────┼────┤\n")
                .append("│ge2\033[2m○\033[0m│ge4\033[31m×\033[0m│\n")
                .append("└────┴────┘\n┌────┐\n")
                .substr(0, 120));
}

TEST(Output, PortsInOnePlaceAreNotLost) {
  PortTable table = sample();
  table.ports[1].position = table.ports[0].position;
  table.ports[2].position.reset();
  const std::string text = panel_text(table, {80, false});
  EXPECT_NE(text.find("without a place: ge2 ○ ge3 ↻\n"), std::string::npos) << text;
}

// Stands for the escape sequences of colours: bold, cyan, and the end of either.
std::string coloured(std::string text) {
  for (const auto& [sign, sequence] : std::initializer_list<std::pair<const char*, const char*>>{
           {"<b>", "\033[1m"}, {"<c>", "\033[36m"}, {"</>", "\033[0m"}}) {
    for (size_t at = 0; (at = text.find(sign, at)) != std::string::npos;) {
      text.replace(at, std::string(sign).size(), sequence);
    }
  }
  return text;
}

TEST(Output, IdentityTableAtTwoWidthsWithAndWithoutColour) {
  Switch one = office_switch();
  one.identity.hw_version = "V1.0";
  one.identity.sw_version = "V2.1";
  one.identity.cpu = 7;
  one.identity.mem = 41;
  Switch other = one;
  other.mac.bytes[5] = 0x60;
  other.identity.name = "the switch in the cellar";
  other.identity.ip.clear();
  other.identity.uptime = 59;
  other.identity.sys_active = 300;
  const Table table = identity_table({one, other});
  EXPECT_EQ(table.text({80, false}),
            "MAC                NAME          ADDRESS          MODEL         SOFTWARE  UPTIME\n"
            "0a:1b:2c:3d:4e:5f  office-sw     192.168.1.10/24  QM4410_MODEL  V2.1       1h 0m\n"
            "0a:1b:2c:3d:4e:60  the switch …  none             QM4410_MODEL  V2.1         59s\n");
  EXPECT_EQ(table.text({200, false}),
            "MAC                NAME                      ADDRESS          MODEL         SOFTWARE  "
            "HARDWARE  UPTIME  CPU  MEM  ACTIVE\n"
            "0a:1b:2c:3d:4e:5f  office-sw                 192.168.1.10/24  QM4410_MODEL  V2.1      "
            "V1.0       1h 0m   7%  41%       0\n"
            "0a:1b:2c:3d:4e:60  the switch in the cellar  none             QM4410_MODEL  V2.1      "
            "V1.0         59s   7%  41%     300\n");
  EXPECT_EQ(table.text({80, true}),
            coloured("<b>MAC</>                <b>NAME</>          <b>ADDRESS</>          "
                     "<b>MODEL</>         <b>SOFTWARE</>  <b>UPTIME</>\n"
                     "<c>0a:1b:2c:3d:4e:5f</>  office-sw     192.168.1.10/24  QM4410_MODEL  V2.1 "
                     "      1h 0m\n"
                     "<c>0a:1b:2c:3d:4e:60</>  the switch …  none             QM4410_MODEL  V2.1 "
                     "        59s\n"));
}

TEST(Output, IdentityTable) {
  EXPECT_EQ(
      identity_table({office_switch()}).text({0, false}),
      "MAC                NAME       ADDRESS          MODEL         UPTIME  CPU  MEM  ACTIVE\n"
      "0a:1b:2c:3d:4e:5f  office-sw  192.168.1.10/24  QM4410_MODEL   1h 0m   0%   0%       0\n");
  Switch hostile = office_switch();
  hostile.identity.name = "\x1b]0;x\x07";
  hostile.identity.model = "a\nb";
  const std::string text = identity_table({hostile}).text({0, false});
  EXPECT_EQ(text.find('\x1b'), std::string::npos);
  EXPECT_NE(text.find("?]0;x?"), std::string::npos);
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 2);
}

TEST(TopViewTest, SortsScrollsAndEnds) {
  TopView view({office_switch()});
  view.update(0, sample());
  EXPECT_EQ(view.text(80, 24, false, "12:00:00"),
            "12:00:00  1 switch, 5 ports, 2 up  sorted by rx\n"
            "PORT  LINK          SPEED  TX/s  RX/s  POE  CLIENT             IP\n"
            "ge1   up        1000 full   25k    10  on   00:11:22:33:44:55  192.168.1.20\n"
            "xe1   up       10000 full   12M     9       00:11:22:33:44:66\n"
            "ge2   down\n"
            "ge3   back 7s\n"
            "ge4   down\n"
            "q quit  sort: p port t tx r rx l link c client  u links only  arrows scroll");
  EXPECT_TRUE(view.key('t', 24));
  EXPECT_TRUE(view.key('u', 24));
  EXPECT_EQ(view.text(40, 24, false, "12:00:00"),
            "12:00:00  1 switch, 5 ports, 2 up  sort…\n"
            "PORT  LINK       SPEED  TX/s  RX/s  POE\n"
            "xe1   up    10000 full   12M     9\n"
            "ge1   up     1000 full   25k    10  on\n"
            "q quit  sort: p port t tx r rx l link c…");
  EXPECT_TRUE(view.key('u', 24));
  EXPECT_TRUE(view.key('p', 24));
  EXPECT_TRUE(view.key('B', 5));
  EXPECT_TRUE(view.key('j', 5));
  const std::string scrolled = view.text(80, 5, false, "");
  EXPECT_EQ(scrolled.find("ge1"), std::string::npos);
  EXPECT_NE(scrolled.find("\nge3 "), std::string::npos);
  EXPECT_EQ(std::count(scrolled.begin(), scrolled.end(), '\n'), 4);
  EXPECT_FALSE(view.key('q', 24));
}

TEST(TopViewTest, TellsSilentSwitches) {
  Switch other = office_switch();
  other.identity.name = "core-sw";
  TopView view({office_switch(), other});
  view.update(0, sample());
  view.silent(1);
  std::string text = view.text(100, 24, false, "");
  EXPECT_NE(text.find("2 switches, 5 ports, 2 up  sorted by rx  1 silent"), std::string::npos);
  EXPECT_NE(text.find("office-sw  ge1"), std::string::npos);
}

TEST(TopViewTest, SwitchesOfOneNameAreToldApart) {
  Switch other = office_switch();
  other.mac.bytes[5] = 0x60;
  Switch third = other;
  third.identity.name = "core-sw";
  TopView view({office_switch(), other, third});
  for (size_t i = 0; i < 3; ++i) {
    PortTable table;
    table.ports.push_back(sample().ports[0]);
    view.update(i, table);
  }
  EXPECT_EQ(view.text(60, 24, false, "12:00:00"),
            "12:00:00  3 switches, 3 ports, 3 up  sorted by rx\n"
            "SWITCH              PORT  LINK      SPEED  TX/s  RX/s  POE\n"
            "office-sw 3d:4e:5f  ge1   up    1000 full   25k    10  on\n"
            "office-sw 3d:4e:60  ge1   up    1000 full   25k    10  on\n"
            "core-sw             ge1   up    1000 full   25k    10  on\n"
            "q quit  sort: p port t tx r rx l link c client  u links onl…");
}

class WatchLogTest : public gateway_test::OnFakeWire {
 protected:
  Reply message(const std::string& text) { return read_reply({office.source, {text, {}}}); }

  Reply client_report(const std::string& port, const std::string& state) {
    return message(R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_client","data":{")" +
                   port + R"(":{"client_state":")" + state +
                   R"(","client_mac":"","client_ip":"","client_type":"UN"}}})");
  }

  std::vector<Event> events;
  WatchLog log{{office}, true, TimePoint(std::chrono::hours(1)), [this](const Event& event) {
                 events.push_back(event);
               }};
};

TEST_F(WatchLogTest, TellsATrap) {
  log.hear(message(R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_client","data":{"ge5":)"
                   R"({"client_state":"ON","client_mac":"001122334455",)"
                   R"("client_ip":"192.168.1.20","client_type":"UN"}}})"),
           clock.now());
  ASSERT_EQ(events.size(), 1u);
  events[0].time = 1700000000;
  EXPECT_EQ(event_json(events[0]),
            R"({"time":1700000000,"mac":"0a:1b:2c:3d:4e:5f","name":"office-sw",)"
            R"("event":"ports_client","port":"ge5","client":{"state":"ON",)"
            R"("mac":"00:11:22:33:44:55","ip":"192.168.1.20","type":"UN"}})"
            "\n");
  EXPECT_EQ(event_line(events[0], false).substr(8),
            "  office-sw  ge5  client ON  00:11:22:33:44:55  192.168.1.20  UN\n");
}

TEST_F(WatchLogTest, HostileTrapsAreRefusedOrMadeHarmless) {
  EXPECT_THROW(log.hear(message(R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_client",)"
                                R"("data":{"ge5":7}})"),
                        clock.now()),
               BadReply);
  log.hear(message("{\"mac\":\"0a1b2c3d4e5f\",\"cmd\":\"update\",\"subcmd\":\"\\u001b[2J\","
                   "\"data\":\"\\u001b[31m\"}"),
           clock.now());
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(event_line(events[0], false).find('\x1b'), std::string::npos);
  log.hear(message(R"({"mac":"0a1b2c3d4e99","cmd":"update","subcmd":"x","data":{}})"), clock.now());
  EXPECT_EQ(events.size(), 1u);
}

TEST_F(WatchLogTest, AnswersToOtherProgramsAreNoEvents) {
  for (const char* subject :
       {"pong", "ports_info", "ports_pos", "ports_conf", "ports_link", "ports_stats",
        "ports_poe_conf", "sys_info", "config_upload", "config_download", "firm_download"}) {
    log.hear(message(R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":")" + std::string(subject) +
                     R"(","data":{}})"),
             clock.now());
  }
  EXPECT_TRUE(events.empty());
}

TEST_F(WatchLogTest, AnOverheardRequestExcusesOneReportOfEachPort) {
  const std::string request =
      R"({"mac":"0a1b2c3d4e5f","cmd":"get","subcmd":"ports_client","data":{}})";
  log.overhear(office.mac, request, clock.now());
  log.hear(client_report("ge1", "NONE"), clock.now());
  log.hear(client_report("ge2", "NONE"), clock.now());
  EXPECT_TRUE(events.empty());
  log.hear(client_report("ge1", "NONE"), clock.now());
  ASSERT_EQ(events.size(), 1u);  // twice for one request: nobody asked for this one
  EXPECT_EQ(events[0].port, "ge1");
  log.overhear(office.mac, request, clock.now());
  log.hear(client_report("ge2", "ON"), clock.now());
  ASSERT_EQ(events.size(), 2u);  // asked for or not, it is news
  EXPECT_EQ(events[1].port, "ge2");
  log.hear(client_report("ge3", "NONE"), clock.now() + Duration(2999));
  EXPECT_EQ(events.size(), 2u);
  log.hear(client_report("ge4", "NONE"), clock.now() + Duration(3000));
  EXPECT_EQ(events.size(), 3u);  // too late to be the answer
}

TEST_F(WatchLogTest, OnlyRequestsForClientReportsExcuse) {
  const MacAddress group{{0x01, 0x80, 0xC2, 0x00, 0x00, 0x1F}};
  const MacAddress other{{0x0A, 0x1B, 0x2C, 0x3D, 0x4E, 0x60}};
  log.overhear(other, R"({"mac":"","cmd":"get","subcmd":"ports_client","data":{}})", clock.now());
  log.overhear(group, R"({"mac":"","cmd":"set","subcmd":"ports_client","data":{}})", clock.now());
  log.overhear(group, R"({"mac":"","cmd":"get","subcmd":"ports_conf","data":{}})", clock.now());
  log.overhear(group, R"({"mac":"","cmd":"get","subcm)", clock.now());
  log.overhear(group, "", clock.now());
  log.hear(client_report("ge1", "NONE"), clock.now());
  EXPECT_EQ(events.size(), 1u);
  log.overhear(group, R"({"cmd":"get","subcmd":"ports_client"})", clock.now());
  log.hear(client_report("ge1", "NONE"), clock.now());
  EXPECT_EQ(events.size(), 1u);
}

TEST_F(WatchLogTest, TellsWhoFallsSilentAndComesBack) {
  log.tick(clock.now() + Duration(10999));
  EXPECT_TRUE(events.empty());
  log.tick(clock.now() + Duration(11000));
  log.tick(clock.now() + Duration(12000));
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].kind, "silent");
  const std::string answer =
      R"("cmd":"answer","subcmd":"answer","data":{"sys_ip":"","sys_mask":0,"name":"office-sw",)"
      R"("model":"m","type":"switch","uptime":1,"hw_version":"","sw_version":"","active":1,)"
      R"("sys_active":0,"cpu":1,"mem":1,"ntick":1,"mac":)";
  log.hear(message(R"({"mac":"0a1b2c3d4e5f",)" + answer + R"("0a1b2c3d4e5f"}})"),
           clock.now() + Duration(13000));
  log.hear(message(R"({"mac":"0a1b2c3d4e60",)" + answer + R"("0a1b2c3d4e60"}})"),
           clock.now() + Duration(13000));
  ASSERT_EQ(events.size(), 3u);
  EXPECT_EQ(events[1].kind, "back");
  EXPECT_EQ(events[2].kind, "new");
}

class ProgressTest : public testing::Test {
 protected:
  Progress make(bool terminal, size_t width = 60) {
    Progress::Options options;
    options.terminal = terminal;
    options.width = width;
    return Progress(options, clock, [this](const std::string& text) { out += text; });
  }
  void pass(int milliseconds) { clock.set(clock.now() + Duration(milliseconds)); }

  FakeClock clock;
  std::string out;
};

TEST_F(ProgressTest, ABarTellsPartRateAndTimeLeft) {
  EXPECT_EQ(Progress::bar(0, 8000000, 0, 48), "[.....................]   0%       0 B/s    -:--");
  EXPECT_EQ(Progress::bar(4000000, 8000000, 4, 48),
            "[##########...........]  50%    1.0 MB/s    0:04");
  EXPECT_EQ(Progress::bar(8000000, 8000000, 4, 48),
            "[#####################] 100%    2.0 MB/s    0:00");
  EXPECT_EQ(Progress::bar(1, 2, 1, 10), " 50%");
}

TEST_F(ProgressTest, PlainLinesTellTheQuarters) {
  Progress progress = make(false);
  const size_t job = progress.add("office-sw");
  for (uint64_t done = 0; done <= 4000; done += 100) {
    progress.update(job, done, 4000);
  }
  progress.finish(job, true, "done");
  EXPECT_EQ(out,
            "office-sw: 25% of 4.0 KB\noffice-sw: 50% of 4.0 KB\noffice-sw: 75% of 4.0 KB\n"
            "office-sw: done\n");
}

TEST_F(ProgressTest, BarsAreRedrawnInPlace) {
  Progress progress = make(true);
  const size_t first = progress.add("one");
  const size_t second = progress.add("two");
  out.clear();
  pass(1000);
  progress.update(first, 500, 1000);
  EXPECT_EQ(out,
            "\033[2A"
            "\r\033[Kone                  [#####......]  50%     500 B/s    0:01\n"
            "\r\033[Ktwo                  [...........]   0%       0 B/s    -:--\n"
            "\033[J");
  out.clear();
  progress.update(first, 600, 1000);
  EXPECT_EQ(out, "");  // too soon to be worth a redraw
  progress.finish(first, true, "done");
  EXPECT_EQ(out,
            "\033[2A\r\033[Jone: done\n"
            "\r\033[Ktwo                  [...........]   0%       0 B/s    -:--\n"
            "\033[J");
  out.clear();
  progress.finish(second, false, "failed");
  EXPECT_EQ(out, "\033[1A\r\033[Jtwo: failed\n\033[J");
}

TEST(Files, NamesForSwitchesArePlain) {
  EXPECT_EQ(plain_file_name("/srv/a b\"c.tar.gz"), "a_b_c.tar.gz");
  EXPECT_EQ(plain_file_name("x/"), "file");
  EXPECT_EQ(plain_file_name("/" + std::string(100, 'a')).size(), 64u);
}

TEST(Files, AreWholeOrNotThere) {
  const std::string folder = testing::TempDir() + "qelctl_files";
  ASSERT_EQ(std::system(("rm -rf " + folder + " && mkdir " + folder).c_str()), 0);
  const std::string path = folder + "/a.tar.gz";
  const std::vector<uint8_t> bytes = {1, 2, 3};
  write_file(path, bytes);
  EXPECT_EQ(read_file(path, 3), bytes);
  EXPECT_THROW(read_file(path, 2), Error);
  EXPECT_THROW(read_file(folder, 100), Error);
  EXPECT_THROW(read_file(folder + "/none", 100), Error);
  EXPECT_THROW(write_file(folder + "/none/a", bytes), Error);
  ASSERT_EQ(std::system(("mkdir " + folder + "/taken").c_str()), 0);
  EXPECT_THROW(write_file(folder + "/taken", bytes), Error);
  EXPECT_EQ(std::system(("test \"$(ls " + folder + " | wc -l)\" = 2").c_str()), 0);
  ASSERT_EQ(std::system(("rm -rf " + folder).c_str()), 0);
}

}  // namespace
}  // namespace qel_gateway::cli
