// SPDX-License-Identifier: Apache-2.0
//
// What qelctl says of a command line that it does not understand, and how it calls a switch.
#include "gateway/cli/command_line.h"

#include <gtest/gtest.h>

#include "fixture.h"
#include "gateway/cli/each_switch.h"
#include "gateway/cli/identity_output.h"
#include "gateway/cli/watch_log.h"

namespace qel_gateway::cli {
namespace {

using gateway_test::office_switch;

// What is said of it on standard error.
std::string fault_of(std::vector<std::string> words) {
  words.insert(words.begin(), "qelctl");
  std::vector<char*> argv;
  for (std::string& word : words) {
    argv.push_back(word.data());
  }
  argv.push_back(nullptr);
  testing::internal::CaptureStderr();
  const int status = run_command_line(static_cast<int>(words.size()), argv.data());
  const std::string said = testing::internal::GetCapturedStderr();
  EXPECT_EQ(status, 2) << said;
  return said.substr(0, said.find('\n'));
}

TEST(CommandLine, WhatWasNotExpectedIsToldInTheOrderInWhichItWasTyped) {
  EXPECT_EQ(fault_of({"frob"}), "qelctl: The following argument was not expected: frob");
  EXPECT_EQ(fault_of({"discover", "--time", "0"}),
            "qelctl: The following arguments were not expected: --time 0");
  EXPECT_EQ(fault_of({"port", "enable", "ge1", "x", "y", "z"}),
            "qelctl: The following arguments were not expected: x y z");
  EXPECT_EQ(fault_of({"-i", "gw0", "--frob", "discover", "--time", "0"}),
            "qelctl: The following arguments were not expected: --frob --time 0");
}

TEST(CommandLine, ASwitchWithoutANameIsCalledByItsMac) {
  Switch one = office_switch();
  one.mac = {0x0a, 0x1b, 0x2c, 0x3d, 0x4e, 0x5f};
  one.identity.name = "desk";
  EXPECT_EQ(title_of(one), "desk (0a:1b:2c:3d:4e:5f)");
  EXPECT_EQ(labels_of({one}), std::vector<std::string>{"desk"});
  one.identity.name = "";
  EXPECT_EQ(title_of(one), "0a:1b:2c:3d:4e:5f");
  EXPECT_EQ(labels_of({one, one}),
            (std::vector<std::string>{"0a:1b:2c:3d:4e:5f", "0a:1b:2c:3d:4e:5f"}));
  const std::string event = event_line({0, one.mac, "", "silent", "", nullptr}, false);
  EXPECT_EQ(event.substr(8), "  0a:1b:2c:3d:4e:5f  does not answer\n");
}

}  // namespace
}  // namespace qel_gateway::cli
