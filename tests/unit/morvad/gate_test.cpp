// SPDX-License-Identifier: Apache-2.0
//
// Whether the gateway's frames get in: what nftables is told on a board whose ports live in memory.
// No test needs nftables, or a network of its own.
#include <event2/event.h>
#include <gmock/gmock.h>

#include "platform/linux/morvad/kernel/kernel_switch.h"
#include "support.h"

namespace morvad {
namespace {

using testing::ElementsAre;

constexpr char kLook[] = "list chain netdev morva frames";
constexpr char kRemove[] = "add table netdev morva\ndelete table netdev morva\n";
constexpr char kShut[] =
    "add table netdev morva\ndelete table netdev morva\n"
    "table netdev morva {\nchain frames {\n"
    "type filter hook ingress device \"vlanif1\" priority 0; policy accept;\n"
    "meta protocol 0x9301 counter drop\n}\n}\n";

/// Numbers that no interface of the machine has.
constexpr int kFirst = 2147483001;
constexpr int kSecond = 2147483002;

class GateTest : public SwitchTest {
 protected:
  FrameGate::Nft nft() {
    return [this](const std::string& commands) {
      told.push_back(commands);
      return refusal;
    };
  }

  std::vector<std::string> told;
  std::string refusal;  // what nftables says; "": done
};

TEST_F(GateTest, ShutIsARuleAtTheIngressOfTheInterface) {
  FrameGate gate("vlanif1", nft());
  EXPECT_EQ(gate.set(false), "");
  EXPECT_THAT(told, ElementsAre());  // there is no such interface
  EXPECT_EQ(gate.interface_made(kFirst), "");
  EXPECT_THAT(told, ElementsAre(kShut));
}

TEST_F(GateTest, TheInterfaceThatIsMadeAnewGetsItsRuleAgain) {
  FrameGate gate("vlanif1", nft());
  gate.interface_made(kFirst);
  told.clear();
  EXPECT_EQ(gate.set(false), "");
  gate.interface_gone();
  EXPECT_THAT(told, ElementsAre(kShut));
  EXPECT_EQ(gate.interface_made(kSecond), "");
  EXPECT_THAT(told, ElementsAre(kShut, kShut));
}

TEST_F(GateTest, OpenRemovesTheRuleAndOnlyARuleThatIsThere) {
  FrameGate gate("vlanif1", nft());
  gate.interface_made(kFirst);
  EXPECT_THAT(told, ElementsAre(kLook, kRemove));
  told.clear();
  refusal = "nftables: Error: No such file or directory";
  gate.set(true);
  EXPECT_THAT(told, ElementsAre(kLook));
}

TEST_F(GateTest, WithoutNftablesItStaysOpenAndSaysWhy) {
  FrameGate gate("vlanif1", nft());
  gate.interface_made(kFirst);
  refusal = "nftables: Error: no";
  EXPECT_EQ(gate.set(false), "nftables: Error: no");
  EXPECT_TRUE(gate.open());
  told.clear();
  gate.interface_gone();
  gate.interface_made(kSecond);
  EXPECT_THAT(told, testing::Each(testing::Not(kShut)));
}

TEST_F(GateTest, WhatCannotBeShutWhenTheInterfaceAppearsIsOpen) {
  FrameGate gate("vlanif1", nft());
  refusal = "nftables: Error: no";
  EXPECT_EQ(gate.set(false), "");  // nothing to shut yet
  EXPECT_FALSE(gate.open());
  EXPECT_EQ(gate.interface_made(kFirst), "nftables: Error: no");
  EXPECT_TRUE(gate.open());
}

/// A board in memory, with the kernel behind its management interface only.
class MemoryBoardGate : public GateTest {
 protected:
  ~MemoryBoardGate() override {
    kernel.reset();
    event_base_free(base);
  }

  void start() {
    kernel = std::make_unique<KernelSwitch>(base, *sw, host, nft());
    ASSERT_EQ(kernel->start(), "");
  }

  event_base* base = event_base_new();
  std::unique_ptr<KernelSwitch> kernel;
};

TEST_F(MemoryBoardGate, TheRuleOfAMorvadBeforeIsFoundAndShown) {
  start();
  EXPECT_THAT(told, ElementsAre(kLook));
  EXPECT_FALSE(sw->frames_to_cpu());
}

TEST_F(MemoryBoardGate, WithoutARuleTheFramesGetIn) {
  refusal = "nftables: Error: No such file or directory";
  start();
  EXPECT_TRUE(sw->frames_to_cpu());
}

TEST_F(MemoryBoardGate, NothingElseIsTheKernels) {
  refusal = "nftables: Error: No such file or directory";
  start();
  EXPECT_TRUE(host.timers.empty());
  EXPECT_FALSE(port("ge1").binding->driven());
  command(kControl, "l2_add", R"({"port":"ge1","mac":"02:00:00:00:00:01"})");
  EXPECT_EQ(sw->refresh_l2(), "");
  EXPECT_EQ(sw->l2().size(), 1U);
}

}  // namespace
}  // namespace morvad
