// SPDX-License-Identifier: Apache-2.0
//
// Lines that are wider than the terminal, in sessions: nothing is printed over their lower rows.
// The editor's own moves are in editor_test.cpp.
#include "tests/unit/vty/support.h"

namespace morva::shell {
namespace {

using testing::EndsWith;
using testing::StartsWith;
using vtytest::Shell;

class WideLineTest : public testing::Test {
 protected:
  void SetUp() override { vtytest::install_daemon(); }
};

// On a terminal of 40 columns, a line of two rows with the cursor in the first.
constexpr std::string_view kWindowOf40("\xff\xfd\x01\xff\xfa\x1f\0\x28\0\x18\xff\xf0", 12);
constexpr std::string_view kLineOfTwoRows = "qel debug 1111111111222222222233333\x01\x06";

TEST_F(WideLineTest, EnterGoesBelowALineOfSeveralRows) {
  Shell telnet(SessionKind::kTelnet);
  telnet.exchange(kWindowOf40);
  telnet.session().node = VTY_NODE_CONFIG;
  telnet.exchange("\r");
  EXPECT_EQ(telnet.exchange(kLineOfTwoRows),
            "qel debug 11111111112222222 \r22233333\x1b[1A\r\x1b[13Cq");
  EXPECT_EQ(telnet.exchange("\r"),
            "el debug 1111111111222222222233333\r\n"
            "  qel debug 1111111111222222222233333\r\n"
            "            ^\r\n"
            "% Unknown command\r\n"
            "qel(config)# ");
}

TEST_F(WideLineTest, WhatIsPrintedInBetweenGoesBelowALineOfSeveralRows) {
  constexpr std::string_view kRest = "el debug 1111111111222222222233333";
  constexpr std::string_view kAgain =
      "qel(config)# qel debug 1111111111222222222233333\x1b[1A\r\x1b[14C";
  for (const auto& [key, first, last] :
       {std::tuple{"?", "?\r\n  qel  ", kAgain}, std::tuple{"\x0c", "\r\n", kAgain},
        std::tuple{"\x03", "\r\n", std::string_view("qel(config)# ")}}) {
    Shell telnet(SessionKind::kTelnet);
    telnet.exchange(kWindowOf40);
    telnet.session().node = VTY_NODE_CONFIG;
    telnet.exchange("\r");
    telnet.exchange(kLineOfTwoRows);
    const std::string answer = telnet.exchange(key);
    EXPECT_THAT(answer, StartsWith(std::string(kRest) + first));
    EXPECT_THAT(answer, EndsWith(std::string("\r\n") + std::string(last)));
  }
  Shell telnet(SessionKind::kTelnet);
  telnet.exchange(kWindowOf40);
  telnet.session().node = VTY_NODE_CONFIG;
  telnet.exchange("\r");
  telnet.exchange(kLineOfTwoRows);
  session_expire(telnet.session());
  EXPECT_EQ(telnet.exchange(""),
            std::string(kRest) + "\r\n% Idle time-out, closing the session\r\n");
}

TEST_F(WideLineTest, AWindowWithoutAWidthIsTakenFor80Columns) {
  Shell telnet(SessionKind::kTelnet);
  telnet.exchange({"\xff\xfd\x01\xff\xfa\x1f\0\0\0\0\xff\xf0", 12});
  telnet.exchange("\r");
  EXPECT_EQ(telnet.exchange(std::string(74, 'x')), std::string(74, 'x'));
  EXPECT_EQ(telnet.exchange("x"), "x \r");
  EXPECT_EQ(telnet.exchange("\x01"), "\x1b[1A\r\x1b[5C");
}

TEST_F(WideLineTest, ASessionWithoutATerminalGetsNoSequences) {
  Shell plain(SessionKind::kPlain);
  plain.session().node = VTY_NODE_CONFIG;
  const std::string line = "qel debug " + std::string(80, '1');
  EXPECT_EQ(plain.exchange(line + "\x0c\n"),
            "\nqel(config)# " + line + "  " + line.substr(0, 40) +
                "\n            ^\n% Unknown command\nqel(config)# ");
}

}  // namespace
}  // namespace morva::shell
