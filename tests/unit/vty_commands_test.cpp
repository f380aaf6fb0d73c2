// SPDX-License-Identifier: Apache-2.0
//
// The agent's commands in the platform's shell: what is installed where, the on/off switch, the
// debug mask, and what the saved configuration keeps of them.
#include "qel/qel_vty.h"

#include "qel/qel_gw.h"
#include "qel/qel_main.h"
#include "qel/qel_send.h"
#include "qel/qel_table.h"
#include "tests/unit/support.h"

namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::Field;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::SizeIs;
using testing::UnorderedElementsAre;

constexpr int kConfigNode = 5;

class VtyCommandsTest : public AgentTest {
 protected:
  VtyCommandsTest() {
    fake::add_interface("vlanif1", 7);
    start();
    qel_vty_init();
  }

  // Runs `line` in the configuration node; forgets what happened before it.
  static fake::CommandResult run(const std::string& line) {
    fake::clear_records();
    return fake::run_command(kConfigNode, line);
  }
};

// ---------------------------------------------------------------------------------------------
// What is installed

TEST_F(VtyCommandsTest, ThreeNodesWithoutAPromptAreInstalledInTheirOrder) {
  const auto node = [](int number, bool has_writer) {
    return AllOf(Field(&fake::Node::node, number), Field(&fake::Node::prompt, ""),
                 Field(&fake::Node::vtysh, 1), Field(&fake::Node::has_writer, has_writer));
  };
  EXPECT_THAT(fake::nodes(), ElementsAre(node(69, true), node(97, true), node(68, false)));
}

TEST_F(VtyCommandsTest, TwoNodesGetTheCommandsOfEveryNode) {
  EXPECT_THAT(fake::calls_of({"install_default"}),
              ElementsAre("install_default(68)", "install_default(69)"));
}

TEST_F(VtyCommandsTest, InterfaceCommandsAndThoseOfTheAgentStandInTheirNodes) {
  EXPECT_THAT(
      fake::calls_of({"install_element"}),
      ElementsAre("install_element(5, interface NAME)", "install_element(69, interface NAME)",
                  "install_element(5, no interface NAME)",
                  "install_element(5, qel (enable|disable))",
                  "install_element(5, qel debug <0-255>)"));
}

TEST_F(VtyCommandsTest, EachWordHasItsHelpLine) {
  std::vector<std::string> help;
  for (const fake::Element& element : fake::elements(kConfigNode)) {
    if (element.string.starts_with("qel")) {
      help.push_back(element.string + "\n" + element.doc);
    }
  }
  EXPECT_THAT(help, UnorderedElementsAre("qel (enable|disable)\n"
                                         "Qel information\n"
                                         "Enable qel-eth\n"
                                         "Disable qel-eth\n",
                                         "qel debug <0-255>\n"
                                         "Debugging functions (see also 'undebug')\n"
                                         "Debug qel module\n"
                                         "value 0~255\n"));
}

TEST_F(VtyCommandsTest, CommandsOfTheAgentAreInNoOtherNode) {
  for (const int node : {1, 4, 68, 69, 97}) {
    EXPECT_FALSE(fake::run_command(node, "qel disable").found) << node;
    EXPECT_FALSE(fake::run_command(node, "qel debug 36").found) << node;
  }
  EXPECT_EQ(g_qel_dev.enable, 1U);
}

// ---------------------------------------------------------------------------------------------
// The switch

TEST_F(VtyCommandsTest, DisableSetsTheRecordTheTemporarySettingAndTheHardware) {
  const fake::CommandResult done = run("qel disable");
  EXPECT_TRUE(done.found);
  EXPECT_EQ(done.result, 0);
  EXPECT_EQ(done.output, "");
  EXPECT_EQ(g_qel_dev.enable, 0U);
  EXPECT_THAT(fake::calls(), ElementsAre("nvram_set_int_temp(qel_enable, 0)", "hal_qel_enable(0)"));
}

TEST_F(VtyCommandsTest, EnableSetsTheRecordTheTemporarySettingAndTheHardware) {
  g_qel_dev.enable = 0;
  const fake::CommandResult done = run("qel enable");
  EXPECT_TRUE(done.found);
  EXPECT_EQ(done.result, 0);
  EXPECT_EQ(done.output, "");
  EXPECT_EQ(g_qel_dev.enable, 1U);
  EXPECT_THAT(fake::calls(), ElementsAre("nvram_set_int_temp(qel_enable, 1)", "hal_qel_enable(1)"));
}

TEST_F(VtyCommandsTest, EnableOfAnEnabledAgentDoesNotCallTheHardwareAgain) {
  EXPECT_EQ(run("qel enable").result, 0);
  EXPECT_THAT(fake::calls(), IsEmpty());
  EXPECT_EQ(g_qel_dev.enable, 1U);
}

TEST_F(VtyCommandsTest, DisableOfADisabledAgentDoesNotCallTheHardwareAgain) {
  run("qel disable");
  EXPECT_EQ(run("qel disable").result, 0);
  EXPECT_THAT(fake::calls(), IsEmpty());
  EXPECT_EQ(g_qel_dev.enable, 0U);
}

// As far as the shell lets them be cut: "d" alone could be "debug".
TEST_F(VtyCommandsTest, FirstLetterOfTheWordIsEnough) {
  EXPECT_EQ(run("qel di").result, 0);
  EXPECT_EQ(g_qel_dev.enable, 0U);
  EXPECT_THAT(fake::calls_of({"hal_qel_enable"}), ElementsAre("hal_qel_enable(0)"));
  EXPECT_EQ(run("qel e").result, 0);
  EXPECT_EQ(g_qel_dev.enable, 1U);
  EXPECT_THAT(fake::calls_of({"hal_qel_enable"}), ElementsAre("hal_qel_enable(1)"));
}

TEST_F(VtyCommandsTest, HardwareIsToldOfEveryChange) {
  for (const char* line : {"qel disable", "qel enable", "qel disable", "qel enable"}) {
    run(line);
    EXPECT_THAT(fake::calls_of({"hal_qel_enable"}), SizeIs(1)) << line;
  }
  EXPECT_EQ(fake::hal_enabled(), 1);
}

TEST_F(VtyCommandsTest, StateThatIsNeitherOnNorOffIsChangedByBothCommands) {
  g_qel_dev.enable = 5;
  run("qel enable");
  EXPECT_EQ(g_qel_dev.enable, 1U);
  EXPECT_THAT(fake::calls_of({"hal_qel_enable"}), ElementsAre("hal_qel_enable(1)"));
  g_qel_dev.enable = 5;
  run("qel disable");
  EXPECT_EQ(g_qel_dev.enable, 0U);
  EXPECT_THAT(fake::calls_of({"hal_qel_enable"}), ElementsAre("hal_qel_enable(0)"));
}

TEST_F(VtyCommandsTest, HardwareThatRefusesIsNoFailureOfTheCommand) {
  fake::fail_platform("hal_qel_enable");
  fake::fail_nvram_writes(true);
  EXPECT_EQ(run("qel disable").result, 0);
  EXPECT_EQ(g_qel_dev.enable, 0U);
}

TEST_F(VtyCommandsTest, LinesThatOnlyResembleACommandAreNone) {
  for (const char* line : {"qel", "qel off", "qel enable now", "qel enable disable", "enable",
                           "qel debug", "qel debug 36 37", "qel debug x", "qel debug -1",
                           "qel debug 256", "qel debug 99999999999999999999"}) {
    EXPECT_FALSE(run(line).found) << line;
    EXPECT_THAT(fake::calls(), IsEmpty()) << line;
  }
  EXPECT_EQ(g_qel_dev.enable, 1U);
  EXPECT_EQ(g_qel_dev.debug, 0U);
}

// ---------------------------------------------------------------------------------------------
// The debug mask

TEST_F(VtyCommandsTest, DebugSetsTheMaskToTheNumber) {
  for (const unsigned mask : {36U, 255U, 4U, 0U}) {
    const fake::CommandResult done = run("qel debug " + std::to_string(mask));
    EXPECT_TRUE(done.found);
    EXPECT_EQ(done.result, 0);
    EXPECT_EQ(done.output, "");
    EXPECT_EQ(g_qel_dev.debug, mask);
    EXPECT_THAT(fake::calls(), IsEmpty()) << "nothing is written, nothing is saved";
  }
}

TEST_F(VtyCommandsTest, Debug36TurnsOnTheGatewayTraceAndTheFrameTraceTogether) {
  const qel_link link = eth_link();
  qel_gw_update("gw-a", 1, &link);
  run("qel debug 36");
  qel_cmd_send(&link, "{}", 2);
  fake::advance(11);
  qel_gw_offline_check();
  EXPECT_THAT(fake::console(), ElementsAre(MatchesRegex("\\[qel_cmd_send,[0-9]+\\] send start \n"),
                                           MatchesRegex("\\[qel_cmd_send,[0-9]+\\] send ok \n"),
                                           "gw [gw-a] become offline\n"));
}

TEST_F(VtyCommandsTest, Debug4TurnsOnTheGatewayTraceAlone) {
  const qel_link link = eth_link();
  qel_gw_update("gw-a", 1, &link);
  run("qel debug 4");
  qel_cmd_send(&link, "{}", 2);
  fake::advance(11);
  qel_gw_offline_check();
  EXPECT_THAT(fake::console(), ElementsAre("gw [gw-a] become offline\n"));
}

TEST_F(VtyCommandsTest, Debug0SilencesTheTracesAtOnce) {
  const qel_link link = eth_link();
  run("qel debug 36");
  run("qel debug 0");
  qel_cmd_send(&link, "{}", 2);
  EXPECT_THAT(fake::console(), IsEmpty());
}

// ---------------------------------------------------------------------------------------------
// The saved configuration

TEST_F(VtyCommandsTest, ConfigurationOfADisabledAgentHoldsDisableAndTheMark) {
  run("qel disable");
  int result = 0;
  EXPECT_EQ(fake::config_text(97, false, &result), "qel disable\n!\n");
  EXPECT_EQ(result, 1);
}

TEST_F(VtyCommandsTest, ConfigurationOfAnEnabledAgentHoldsEnableAndTheMark) {
  int result = 0;
  EXPECT_EQ(fake::config_text(97, false, &result), "qel enable\n!\n");
  EXPECT_EQ(result, 1);
}

TEST_F(VtyCommandsTest, ConfigurationOfAnyOtherStateHoldsTheMarkAlone) {
  for (const uint32_t state : {2U, 255U, 0xFFFFFFFFU}) {
    g_qel_dev.enable = state;
    int result = 0;
    EXPECT_EQ(fake::config_text(97, false, &result), "!\n") << state;
    EXPECT_EQ(result, 1);
  }
}

TEST_F(VtyCommandsTest, LinesForATerminalEndWithCarriageReturnAndLineFeed) {
  EXPECT_EQ(fake::config_text(97, true), "qel enable\r\n!\r\n");
  g_qel_dev.enable = 0;
  EXPECT_EQ(fake::config_text(97, true), "qel disable\r\n!\r\n");
}

TEST_F(VtyCommandsTest, DebugMaskIsNeverWritten) {
  run("qel debug 36");
  EXPECT_EQ(fake::config_text(97), "qel enable\n!\n");
  EXPECT_THAT(fake::nvram_writes(), IsEmpty());
}

TEST_F(VtyCommandsTest, WriterOfTheInterfaceNodeWritesNothing) {
  int result = 0;
  EXPECT_EQ(fake::config_text(69, false, &result), "");
  EXPECT_EQ(result, 1);
}

TEST_F(VtyCommandsTest, SavedLinesBringTheStateBack) {
  run("qel disable");
  const std::string saved = fake::config_text(97);
  const std::string line = saved.substr(0, saved.find('\n'));
  run("qel enable");
  EXPECT_TRUE(run(line).found);
  EXPECT_EQ(g_qel_dev.enable, 0U);
  EXPECT_EQ(fake::config_text(97), saved);
}

}  // namespace
