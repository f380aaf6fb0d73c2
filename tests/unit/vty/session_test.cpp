// SPDX-License-Identifier: Apache-2.0
//
// Sessions without sockets: nodes, prompts, help, completion, history, faults, telnet bytes.
#include <cjson/cJSON.h>

#include <random>

#include "platform/linux/uif_internal.h"
#include "platform/list.h"
#include "tests/unit/vty/support.h"

namespace morva::shell {
namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;
using vtytest::calls;
using vtytest::Shell;

class SessionTest : public testing::Test {
 protected:
  void SetUp() override { vtytest::install_daemon(); }

  // What a plain session answers to whole lines.
  std::string answer(std::string_view lines) { return plain_.exchange(lines); }

  Shell plain_{SessionKind::kPlain};
};

// --- nodes and prompts

TEST_F(SessionTest, WalksThroughTheNodes) {
  session_greet(plain_.session());
  EXPECT_EQ(plain_.session().output, "qel> ");
  EXPECT_EQ(answer(""), "qel> ");
  EXPECT_EQ(answer("enable\n"), "qel# ");
  EXPECT_EQ(answer("configure terminal\n"), "qel(config)# ");
  EXPECT_EQ(answer("exit\n"), "qel# ");
  EXPECT_EQ(answer("disable\n"), "qel> ");
  EXPECT_EQ(answer("en\nconf t\nend\n"), "qel# qel(config)# qel# ");
}

TEST_F(SessionTest, ExitAndQuitEndTheSessionAtTheTop) {
  EXPECT_EQ(answer("enable\nexit\n"), "qel# ");
  EXPECT_TRUE(plain_.session().closing);
  Shell other(SessionKind::kPlain);
  EXPECT_EQ(other.exchange("quit\nshow version\n"), "");
  EXPECT_TRUE(other.session().closing);
}

TEST_F(SessionTest, PromptsOfNodesThatHaveNone) {
  plain_.session().node = 69;
  EXPECT_EQ(answer("\n"), "qel(config-if)# ");
  plain_.session().node = 97;
  EXPECT_EQ(answer("\n"), "qel(config-97)# ");
  plain_.session().node = 68;
  EXPECT_EQ(answer("\n"), "qel(config-68)# ");
  EXPECT_EQ(answer("exit\n"), "qel(config)# ");
}

TEST_F(SessionTest, HostNameInThePrompt) {
  EXPECT_EQ(answer("en\nconf t\nhostname switch-7\n"), "qel# qel(config)# switch-7(config)# ");
  EXPECT_THAT(answer("hostname %n%s\n"), StartsWith("% A host name has"));
  EXPECT_THAT(answer("hostname " + std::string(64, 'a') + "\n"), StartsWith("% A host name has"));
  EXPECT_EQ(answer("no hostname\n"), "qel(config)# ");
}

TEST_F(SessionTest, UnknownInterfacesAreRefused) {
  answer("en\nconf t\n");
  EXPECT_EQ(answer("interface ge99\n"), "% No such interface: ge99\nqel(config)# ");
  EXPECT_EQ(answer("no interface ge99\n"), "% No such interface: ge99\nqel(config)# ");
}

TEST_F(SessionTest, KnownInterfacesHaveTheirNode) {
  uif_clear();
  g_uif_list = list_new();
  cJSON* row = cJSON_Parse(R"({"index":5,"name":"vlanif5"})");
  ASSERT_NE(uif_apply_row(row), nullptr);
  cJSON_Delete(row);
  EXPECT_EQ(answer("en\nconf t\ninterface vlanif5\n"), "qel# qel(config)# qel(config-if)# ");
  EXPECT_EQ(plain_.session().interface, "vlanif5");
  EXPECT_EQ(answer("interface vlanif6\n"), "% No such interface: vlanif6\nqel(config-if)# ");
  EXPECT_EQ(answer("exit\n"), "qel(config)# ");
  EXPECT_EQ(plain_.session().interface, "");
  EXPECT_EQ(answer("no interface vlanif5\n"),
            "% Interface vlanif5 cannot be removed\nqel(config)# ");
  EXPECT_EQ(answer("interface vlanif5\nend\n"), "qel(config-if)# qel# ");
  // In a file, a command of the configuration node ends the interface's part.
  EXPECT_EQ(config_apply("interface vlanif5\n!\nqel debug 9\ninterface vlanif5\nexit\n"), 3u);
  EXPECT_EQ(calls().back(), "qel debug <0-255> -> 9");
  uif_clear();
}

// --- commands

TEST_F(SessionTest, CommandsGetTheirVariableWords) {
  answer("en\nconf t\nqel debug 36\nqel dis\n  qel   ena \n");
  EXPECT_THAT(calls(), ElementsAre("qel debug <0-255> -> 36", "qel (enable|disable) -> disable",
                                   "qel (enable|disable) -> enable"));
}

TEST_F(SessionTest, CommandsOfTheConfigurationAreNowhereElse) {
  EXPECT_THAT(answer("qel disable\n"), HasSubstr("% Unknown command"));
  EXPECT_THAT(answer("en\nqel disable\n"), HasSubstr("% Unknown command"));
  plain_.session().node = 69;
  EXPECT_THAT(answer("qel disable\n"), HasSubstr("% Unknown command"));
  EXPECT_THAT(calls(), IsEmpty());
}

TEST_F(SessionTest, ListShowsTheNodesCommands) {
  plain_.session().node = 68;
  EXPECT_EQ(answer("list\n"),
            "  exit\n  quit\n  end\n  help\n  list\n  show running-config\n  write\n"
            "  write (file|memory|terminal)\nqel(config-68)# ");
}

TEST_F(SessionTest, ShowRunningConfig) {
  EXPECT_EQ(answer("en\nshow run\n"),
            "qel# \nCurrent configuration:\n!\nqel enable\n!\nend\nqel# ");
  EXPECT_EQ(answer("conf t\nqel disable\nexec-timeout 5 30\nwrite terminal\n"),
            "qel(config)# qel(config)# qel(config)# \nCurrent configuration:\n!\n"
            "exec-timeout 5 30\n!\nqel disable\n!\nend\nqel(config)# ");
}

TEST_F(SessionTest, LinesOfATerminalEndInBoth) {
  Shell telnet(SessionKind::kTelnet);
  EXPECT_THAT(telnet.exchange("en\r\nshow running-config\r\n"),
              EndsWith("\r\nCurrent configuration:\r\n!\r\nqel enable\r\n!\r\nend\r\nqel# "));
}

TEST_F(SessionTest, OneCommandForEachStep) {
  vty& session = plain_.session();
  session.node = VTY_NODE_CONFIG;
  constexpr std::string_view kLines = "qel disable\nqel enable\n";
  session_feed(session, {reinterpret_cast<const uint8_t*>(kLines.data()), kLines.size()});
  session_step(session);
  EXPECT_EQ(calls().size(), 1u);
  EXPECT_TRUE(session_has_input(session));
  session_step(session);
  EXPECT_EQ(calls().size(), 2u);
  EXPECT_FALSE(session_has_input(session));
}

// --- faults

TEST_F(SessionTest, ATerminalGetsACaretUnderTheWord) {
  Shell telnet(SessionKind::kTelnet);
  telnet.type("enable\rconfigure terminal\r");
  telnet.type("qel debug 256\r");
  telnet.type("qel d\rqel\r");
  EXPECT_EQ(telnet.screen().text(),
            "enable\n"
            "qel# configure terminal\n"
            "qel(config)# qel debug 256\n"
            "                       ^\n"
            "% Unknown command\n"
            "qel(config)# qel d\n"
            "                 ^\n"
            "% Ambiguous command\n"
            "qel(config)# qel\n"
            "                 ^\n"
            "% Command incomplete\n"
            "qel(config)#");
}

TEST_F(SessionTest, WhoSeesNoEchoGetsTheLineToo) {
  EXPECT_EQ(answer("show vversion\n"),
            "  show vversion\n"
            "       ^\n"
            "% Unknown command\n"
            "qel> ");
}

TEST_F(SessionTest, ALongLineIsShownAroundTheFault) {
  Shell telnet(SessionKind::kTelnet);
  const std::string tail(200, 'y');
  telnet.type("show version " + tail + "\r");
  EXPECT_THAT(telnet.screen().text(), EndsWith("\n  show version " + tail.substr(0, 30) +
                                               "\n               ^\n% Unknown command\nqel>"));
  telnet.type("show" + std::string(300, ' ') + "xyzzy\r");
  EXPECT_THAT(telnet.screen().text(),
              EndsWith("\n  " + std::string(30, ' ') + "xyzzy\n" + std::string(32, ' ') +
                       "^\n% Unknown command\nqel>"));
}

TEST_F(SessionTest, OverlongLinesAreNotRun) {
  const std::string blanks(100000, ' ');
  EXPECT_EQ(answer("en" + blanks + "\n"), "% Line too long\nqel> ");
  EXPECT_EQ(answer("en\n"), "qel# ");
}

// --- help, completion, history

TEST_F(SessionTest, HelpInTheMiddleOfALine) {
  Shell telnet(SessionKind::kTelnet);
  telnet.session().node = VTY_NODE_CONFIG;
  telnet.type("qel ?");
  EXPECT_EQ(telnet.screen().text(),
            "qel ?\n"
            "  debug    Debug qel module\n"
            "  disable  Disable qel-eth\n"
            "  enable   Enable qel-eth\n"
            "qel(config)# qel");
  EXPECT_EQ(telnet.screen().column(), 17u);
  telnet.type("de?");
  EXPECT_THAT(telnet.screen().text(),
              EndsWith("de?\n  debug  Debug qel module\nqel(config)# qel de"));
  telnet.type("bug 36\r");
  EXPECT_THAT(calls(), ElementsAre("qel debug <0-255> -> 36"));
}

TEST_F(SessionTest, HelpLooksAtWhatIsLeftOfTheCursor) {
  Shell telnet(SessionKind::kTelnet);
  telnet.session().node = VTY_NODE_CONFIG;
  telnet.type("qel enable\x01\x06\x06\x06\x06?");
  EXPECT_THAT(telnet.screen().text(), HasSubstr("  disable  Disable qel-eth\n"));
  EXPECT_THAT(telnet.screen().text(), EndsWith("qel(config)# qel enable"));
  EXPECT_EQ(telnet.screen().column(), 17u);
}

TEST_F(SessionTest, HelpBehindAFault) {
  Shell telnet(SessionKind::kTelnet);
  telnet.session().node = VTY_NODE_CONFIG;
  telnet.type("qel x ?");
  EXPECT_EQ(telnet.screen().text(),
            "qel x ?\n"
            "                 ^\n"
            "% Unknown command\n"
            "qel(config)# qel x");
}

TEST_F(SessionTest, HelpInALineThatCameAsAWholeLeavesNothingBehind) {
  plain_.session().node = VTY_NODE_CONFIG;
  EXPECT_EQ(answer("qel debug ?\n"), "\n  <0-255>  value 0~255\nqel(config)# qel(config)# ");
}

TEST_F(SessionTest, TabFinishesWords) {
  Shell telnet(SessionKind::kTelnet);
  telnet.type("en\t\rconf\tt\t\rqe\tdeb\t5\r");
  EXPECT_EQ(telnet.screen().text(),
            "enable\nqel# configure terminal\nqel(config)# qel debug 5\nqel(config)#");
  EXPECT_THAT(calls(), ElementsAre("qel debug <0-255> -> 5"));
}

TEST_F(SessionTest, TabInsideALineUsesTheBlankThatIsThere) {
  Shell telnet(SessionKind::kTelnet);
  telnet.type("sh ver\x01\x06\x06\t");
  EXPECT_EQ(telnet.screen().row(), "show ver");
  EXPECT_EQ(telnet.screen().column(), 5u);
  telnet.type("\x02\t");
  EXPECT_EQ(telnet.screen().row(), "show ver");
  EXPECT_EQ(telnet.screen().column(), 5u);
  telnet.type("\x05\t");
  EXPECT_EQ(telnet.session().editor.line, "show version ");
}

TEST_F(SessionTest, TabAndHelpKnowTheInterfaces) {
  uif_clear();
  g_uif_list = list_new();
  for (const char* text : {R"({"index":5,"name":"vlanif5"})", R"({"index":7,"name":"vlanif7"})"}) {
    cJSON* row = cJSON_Parse(text);
    ASSERT_NE(uif_apply_row(row), nullptr);
    cJSON_Delete(row);
  }
  Shell telnet(SessionKind::kTelnet);
  telnet.session().node = VTY_NODE_CONFIG;
  telnet.type("int\tv\t?");
  EXPECT_EQ(telnet.screen().text(),
            "interface vlanif?\n  NAME     Its name\n  vlanif5\n  vlanif7\n"
            "qel(config)# interface vlanif");
  telnet.type("\t");
  EXPECT_THAT(telnet.screen().text(),
              EndsWith("# interface vlanif\n  vlanif5\n  vlanif7\nqel(config)# interface vlanif"));
  telnet.type("7\t\r");
  EXPECT_EQ(telnet.session().interface, "vlanif7");
  telnet.type(
      "\x15"
      "exit\rno int\tvlanif5\t");
  EXPECT_EQ(telnet.session().editor.line, "no interface vlanif5 ");
  uif_clear();
}

TEST_F(SessionTest, TabListsWhatItCannotDecide) {
  Shell telnet(SessionKind::kTelnet);
  telnet.session().node = VTY_NODE_CONFIG;
  telnet.type("qel d\t");
  EXPECT_EQ(telnet.screen().text(), "qel d\n  debug\n  disable\nqel(config)# qel d");
  telnet.type("\x15nonsense \t");
  EXPECT_EQ(telnet.screen().bells(), 1);
}

TEST_F(SessionTest, TabsInLinesThatCameAsAWholeAreBlanks) {
  plain_.session().node = VTY_NODE_CONFIG;
  answer("qel\tdebug\t7\nqe\tde\t8\n");
  EXPECT_THAT(calls(), ElementsAre("qel debug <0-255> -> 7", "qel debug <0-255> -> 8"));
}

TEST_F(SessionTest, HistoryUpAndDown) {
  Shell telnet(SessionKind::kTelnet);
  telnet.session().node = VTY_NODE_CONFIG;
  telnet.type("qel debug 1\rqel debug 1\r\r  \rqel debug 2\rqel en");
  telnet.type("\x1b[A");
  EXPECT_THAT(telnet.screen().row(), EndsWith("# qel debug 2"));
  telnet.type("\x10");
  EXPECT_THAT(telnet.screen().row(), EndsWith("# qel debug 1"));
  telnet.type("\x1b[A\x1b[A");
  EXPECT_THAT(telnet.screen().row(), EndsWith("# qel debug 1"));
  telnet.type("\x1b[B\x0e");
  EXPECT_THAT(telnet.screen().row(), EndsWith("# qel en"));
  telnet.type("\x0e");
  EXPECT_THAT(telnet.screen().row(), EndsWith("# qel en"));
  telnet.type(
      "\x10\x7f"
      "9\r");
  EXPECT_EQ(calls().back(), "qel debug <0-255> -> 9");
}

TEST_F(SessionTest, HistoryIsBounded) {
  for (int i = 0; i < 200; i++) {
    answer("show history " + std::to_string(i) + "\n");
  }
  const std::vector<std::string>& lines = plain_.session().history.lines;
  ASSERT_EQ(lines.size(), kHistoryMaximum);
  EXPECT_EQ(lines.front(), "show history 168");
  EXPECT_EQ(lines.back(), "show history 199");
  EXPECT_THAT(answer("show history\n"), HasSubstr("  show history 199\n  show history\n"));
}

TEST_F(SessionTest, GivingUpALine) {
  Shell telnet(SessionKind::kTelnet);
  telnet.session().node = VTY_NODE_CONFIG;
  telnet.type("qel disable\x03");
  EXPECT_EQ(telnet.screen().text(), "qel disable\nqel(config)#");
  telnet.type("qel disable\x1a");
  EXPECT_THAT(telnet.screen().text(), EndsWith("\nqel#"));
  telnet.type("\r");
  EXPECT_THAT(calls(), IsEmpty());
  telnet.type("\x04");
  EXPECT_TRUE(telnet.session().closing);
}

// --- telnet

constexpr std::string_view kOffer = "\xff\xfb\x01\xff\xfb\x03\xff\xfd\x1f";

TEST_F(SessionTest, TelnetGreeting) {
  Shell telnet(SessionKind::kTelnet);
  session_greet(telnet.session());
  EXPECT_EQ(telnet.exchange(""),
            std::string(kOffer) + "\r\nCommand shell of qel. Type ? for help.\r\n\r\nqel> ");
}

TEST_F(SessionTest, TelnetIsTakenOffWhatArrives) {
  Shell telnet(SessionKind::kTelnet);
  session_greet(telnet.session());
  telnet.exchange("");
  // DO ECHO, DO SGA, WILL NAWS, a window of 132 columns and 40 rows, and a word around a NOP.
  EXPECT_EQ(telnet.exchange("\xff\xfd\x01\xff\xfd\x03\xff\xfb\x1f"), "");
  EXPECT_EQ(telnet.exchange(std::string_view("\xff\xfa\x1f\x00\x84\x00\x28\xff\xf0", 9)), "");
  EXPECT_EQ(telnet.session().terminal_width, 132u);
  EXPECT_EQ(telnet.exchange("en\xff\xf1"
                            "able\r\n"),
            "enable\r\nqel# ");
}

TEST_F(SessionTest, OptionsNobodyOfferedAreTurnedDown) {
  Shell telnet(SessionKind::kTelnet);
  EXPECT_EQ(telnet.exchange("\xff\xfb\x18\xff\xfd\x27"), "\xff\xfe\x18\xff\xfc\x27");
}

TEST_F(SessionTest, AClientThatRefusesEchoGetsNone) {
  Shell telnet(SessionKind::kTelnet);
  session_greet(telnet.session());
  telnet.exchange("\xff\xfe\x01");
  EXPECT_EQ(telnet.exchange("enable\r\n"), "qel# ");
  Shell changes_its_mind(SessionKind::kTelnet);
  session_greet(changes_its_mind.session());
  changes_its_mind.exchange("\xff\xfd\x01");
  EXPECT_EQ(changes_its_mind.exchange("\xff\xfe\x01"
                                      "enable\r\n"),
            "\xff\xfc\x01qel# ");
}

TEST_F(SessionTest, MenuKeysOfTelnet) {
  Shell telnet(SessionKind::kTelnet);
  telnet.exchange("\xff\xfd\x01");
  telnet.session().node = VTY_NODE_CONFIG;
  EXPECT_EQ(telnet.exchange("qel disable\xff\xf4"), "qel disable\r\nqel(config)# ");
  telnet.exchange("nonsense\x02\xff\xf8qel debug 44\xff\xf7\r");
  EXPECT_THAT(calls(), ElementsAre("qel debug <0-255> -> 4"));
  EXPECT_THAT(telnet.exchange("\xff\xf6"), HasSubstr("[yes]"));
}

TEST_F(SessionTest, TheByte255IsDoubledOnTheWayOut) {
  Shell telnet(SessionKind::kTelnet);
  EXPECT_EQ(vty_out(&telnet.session(), "a%cb", 0xff), 3);
  EXPECT_EQ(telnet.session().output,
            "a\xff\xff"
            "b");
  EXPECT_EQ(vty_out(&plain_.session(), "a%cb", 0xff), 3);
  EXPECT_EQ(plain_.session().output,
            "a\xff"
            "b");
}

TEST_F(SessionTest, CompressionEndsTheSession) {
  Shell telnet(SessionKind::kTelnet);
  telnet.exchange("\xff\xfa\x56\xff\xf0whatever");
  EXPECT_TRUE(telnet.session().dropped);
}

// --- bounds

TEST_F(SessionTest, OutputIsBounded) {
  vty& session = plain_.session();
  const std::string block(1000, 'x');
  size_t written = 0;
  while (vty_out(&session, "%s", block.c_str()) > 0) {
    written += block.size();
    ASSERT_LE(written, kOutputMaximum);
  }
  EXPECT_GT(written, kOutputMaximum - 1000);
  EXPECT_TRUE(session.dropped);
  EXPECT_EQ(vty_out(&session, "x"), -1);
  EXPECT_EQ(session.output, "");
}

TEST_F(SessionTest, AnyBytesAtAllOnEitherKind) {
  std::mt19937 random(99);
  for (const SessionKind kind : {SessionKind::kTelnet, SessionKind::kPlain}) {
    for (int run = 0; run < 200; run++) {
      Shell shell(kind);
      shell.session().node = run % 2 == 0 ? VTY_NODE_CONFIG : VTY_NODE_VIEW;
      for (int i = 0; i < 20; i++) {
        std::string bytes(random() % 300, '\0');
        for (char& c : bytes) {
          c = random() % 3 == 0 ? static_cast<char>(random())
                                : "\xff\xfa\x1f\xf0 qel debug 1?\t\r\n\x1b[A"[random() % 24];
        }
        shell.exchange(bytes);
        ASSERT_LE(shell.session().editor.line.size(), Editor::kMaximum);
      }
    }
  }
}

TEST_F(SessionTest, SubnegotiationsOfAnyLengthAndKind) {
  for (int option = 0; option < 256; option++) {
    for (const size_t size : {0u, 1u, 2u, 511u, 512u, 513u, 20000u}) {
      for (const char fill : {'\0', '\1', '\2', '\3', 'x'}) {
        Shell telnet(SessionKind::kTelnet);
        std::string bytes = "\xff\xfa";
        bytes += static_cast<char>(option);
        bytes.append(size, fill);
        bytes += "\xff\xf0";
        telnet.exchange(bytes);
        ASSERT_LE(telnet.session().input.size(), kInputChunk);
      }
    }
  }
}

}  // namespace
}  // namespace morva::shell
