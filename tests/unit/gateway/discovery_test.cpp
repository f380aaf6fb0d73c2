// SPDX-License-Identifier: Apache-2.0
//
// Discovery and the choice of switches, against literal frames.
#include "gateway/discovery.h"

#include <cstdio>

#include <gtest/gtest.h>

#include "fixture.h"
#include "gateway/select.h"

namespace qel_gateway {
namespace {

using gateway_test::Bytes;
using gateway_test::hex;
using gateway_test::OnFakeWire;
using gateway_test::probe_answer;
using gateway_test::reply;
using gateway_test::Sent;
using gateway_test::tick_of;

class DiscoveryTest : public OnFakeWire {
 protected:
  struct Neighbour {
    std::string name;
    std::string mac;
    std::string from;
    int delay = 1;
  };

  // These answer each probe.
  void neighbours(std::vector<Neighbour> list) {
    wire.on_send = [this, list](const Sent& sent) {
      for (const Neighbour& one : list) {
        wire.arrives(probe_answer(tick_of(sent.text), one.name, one.mac, one.from), one.delay);
      }
    };
  }

  const Neighbour first{"office-sw", "0a1b2c3d4e5f", "0a 1b 2c 3d 4e 5f"};
  const Neighbour second{"core-sw", "0a1b2c3d4e60", "0a 1b 2c 3d 4e 60"};
};

TEST_F(DiscoveryTest, SendsTheProbeToTheGroup) {
  DiscoveryOptions options;
  options.probes = 1;
  session.run(discover(session, options));
  ASSERT_EQ(wire.sent().size(), 1u);
  const Sent& sent = wire.sent()[0];
  EXPECT_EQ(Bytes(sent.frame.begin(), sent.frame.begin() + 18),
            hex("01 80 c2 00 00 1f 02 00 00 00 00 01 93 01 00 00 ba be"));
  EXPECT_EQ(sent.text, R"({"mac":"020000000001","cmd":"probe","subcmd":"probe","data":{"ntick":)" +
                           std::to_string(tick_of(sent.text)) + "}}");
}

TEST_F(DiscoveryTest, ReadsAnAnswerAndCountsEachSwitchOnce) {
  neighbours({second, first});
  const Discovery found = session.run(discover(session, {}));
  ASSERT_EQ(found.switches.size(), 2u);
  EXPECT_EQ(wire.sent().size(), 3u);  // probes are repeated, as frames get lost
  const Switch& one = found.switches[0];
  EXPECT_EQ(mac_text(one.mac), "0a1b2c3d4e5f");
  EXPECT_EQ(one.identity.name, "office-sw");
  EXPECT_EQ(one.identity.ip, "192.168.1.10");
  EXPECT_EQ(one.identity.prefix, 24);
  EXPECT_EQ(one.identity.model, "QM4410_MODEL");
  EXPECT_EQ(one.identity.uptime, 3600);
  EXPECT_EQ(one.identity.cpu, 7);
  EXPECT_EQ(one.identity.mem, 41);
  EXPECT_EQ(found.switches[1].identity.name, "core-sw");
  EXPECT_TRUE(found.faults.empty());
  EXPECT_EQ(clock.elapsed(), 1500);
}

TEST_F(DiscoveryTest, EndsEarlyWhenAllThatAreExpectedAnswered) {
  neighbours({first, second});
  DiscoveryOptions options;
  options.expected = 2;
  EXPECT_EQ(session.run(discover(session, options)).switches.size(), 2u);
  EXPECT_EQ(clock.elapsed(), 1);
}

TEST_F(DiscoveryTest, AnswersToOtherProbesDoNotCount) {
  wire.on_send = [this](const Sent& sent) { wire.arrives(probe_answer(tick_of(sent.text) + 1)); };
  EXPECT_TRUE(session.run(discover(session, {})).switches.empty());
}

TEST_F(DiscoveryTest, TwoSwitchesOfOneMacAreToldOfOnce) {
  neighbours({first, {"other", "0a1b2c3d4e5f", "0a 1b 2c 3d 4e 99", 2}});
  const Discovery found = session.run(discover(session, {}));
  ASSERT_EQ(found.switches.size(), 1u);
  EXPECT_EQ(found.switches[0].identity.name, "office-sw");
  EXPECT_EQ(found.faults, std::vector<std::string>{"two switches call themselves "
                                                   "0a:1b:2c:3d:4e:5f; the second is left out"});
}

TEST_F(DiscoveryTest, AnswersThatCannotBeReadAreToldOf) {
  wire.answer("probe",
              {reply(R"({"mac":"0a1b2c3d4e5f","cmd":"answer","subcmd":"answer","data":{}})"),
               reply(R"({"mac":"0a1b2c3d4e5f","cmd":"answer","su)")});
  const Discovery found = session.run(discover(session, {}));
  EXPECT_TRUE(found.switches.empty());
  EXPECT_EQ(found.faults,
            (std::vector<std::string>{
                "an answer of 0a:1b:2c:3d:4e:5f cannot be read: \"mac\" is missing",
                "an answer of 0a:1b:2c:3d:4e:5f cannot be read: no JSON from byte 41 on"}));
}

TEST_F(DiscoveryTest, AStrangerWhoInventsSwitchesIsStopped) {
  wire.on_send = [this](const Sent& sent) {
    if (wire.sent().size() > 1) {
      return;
    }
    for (unsigned i = 0; i < 4200; ++i) {
      char mac[13];
      std::snprintf(mac, sizeof mac, "0a1b2c3d%04x", i);
      wire.arrives(probe_answer(tick_of(sent.text), "x", mac));
    }
  };
  const Discovery found = session.run(discover(session, {}));
  EXPECT_EQ(found.switches.size(), 4096u);
  EXPECT_EQ(found.faults,
            std::vector<std::string>{"more than 4096 switches: the others are left out"});
}

TEST_F(DiscoveryTest, OfManyFaultsTheFirstAreTold) {
  wire.on_send = [this](const Sent& sent) {
    if (wire.sent().size() > 1) {
      return;
    }
    for (unsigned i = 0; i < 100; ++i) {
      char from[18];
      std::snprintf(from, sizeof from, "0a 1b 2c 3d 4e %02x", i);
      wire.arrives(probe_answer(tick_of(sent.text), "x", "zz", from));
    }
  };
  const Discovery found = session.run(discover(session, {}));
  ASSERT_EQ(found.faults.size(), 21u);
  EXPECT_EQ(found.faults[19],
            "an answer of 0a:1b:2c:3d:4e:13 cannot be read: \"mac\" is no MAC address");
  EXPECT_EQ(found.faults[20], "and more answers were dropped");
}

TEST_F(DiscoveryTest, SelectsTheOnlySwitch) {
  neighbours({first});
  const Selection chosen = session.run(select_switches(session, "", Duration(1500), Search::Quick));
  ASSERT_EQ(chosen.switches.size(), 1u);
  EXPECT_EQ(clock.elapsed(), 401);  // others had time to answer too
}

TEST_F(DiscoveryTest, AWholeSearchHearsTheSwitchThatAnswersLate) {
  const Neighbour late{"office-sw", "0a1b2c3d4e61", "0a 1b 2c 3d 4e 61", 2100};
  neighbours({first, late});
  ExitCode code = ExitCode::Done;
  EXPECT_EQ(error_of(select_switches(session, "", Duration(2500), Search::Whole), &code),
            "2 switches answered; choose with --switch:\n  0a:1b:2c:3d:4e:5f  office-sw\n"
            "  0a:1b:2c:3d:4e:61  office-sw");
  EXPECT_EQ(code, ExitCode::Usage);
  EXPECT_EQ(error_of(select_switches(session, "office-sw", Duration(2500), Search::Whole), &code),
            "2 switches are called \"office-sw\"; choose by MAC:\n"
            "  0a:1b:2c:3d:4e:5f  office-sw\n  0a:1b:2c:3d:4e:61  office-sw");
  EXPECT_EQ(code, ExitCode::Usage);
}

TEST_F(DiscoveryTest, RefusesToChooseBetweenTwo) {
  neighbours({first, second});
  ExitCode code = ExitCode::Done;
  EXPECT_EQ(error_of(select_switches(session, "", Duration(1500), Search::Quick), &code),
            "2 switches answered; choose with --switch:\n  0a:1b:2c:3d:4e:5f  office-sw\n"
            "  0a:1b:2c:3d:4e:60  core-sw");
  EXPECT_EQ(code, ExitCode::Usage);
}

TEST_F(DiscoveryTest, SelectsByNameAndByMacAndAll) {
  neighbours({first, second});
  EXPECT_EQ(session.run(select_switches(session, "core-sw", Duration(1500), Search::Quick))
                .switches.size(),
            1u);
  EXPECT_EQ(
      session.run(select_switches(session, "all", Duration(1500), Search::Quick)).switches.size(),
      2u);
  const Selection chosen =
      session.run(select_switches(session, "0A-1B-2C-3D-4E-60", Duration(1500), Search::Whole));
  ASSERT_EQ(chosen.switches.size(), 1u);
  EXPECT_EQ(chosen.switches[0].identity.name, "core-sw");
  EXPECT_EQ(clock.elapsed(), 401 + 1500 + 1);  // a MAC is not waited for any longer than needed
  EXPECT_EQ(Bytes(wire.sent().back().frame.begin(), wire.sent().back().frame.begin() + 6),
            hex("0a 1b 2c 3d 4e 60"));
}

TEST_F(DiscoveryTest, TwoSwitchesOfOneNameAreNotGuessedBetween) {
  neighbours({first, {"office-sw", "0a1b2c3d4e61", "0a 1b 2c 3d 4e 61"}});
  ExitCode code = ExitCode::Done;
  EXPECT_EQ(error_of(select_switches(session, "office-sw", Duration(1500), Search::Quick), &code),
            "2 switches are called \"office-sw\"; choose by MAC:\n"
            "  0a:1b:2c:3d:4e:5f  office-sw\n  0a:1b:2c:3d:4e:61  office-sw");
  EXPECT_EQ(code, ExitCode::Usage);
}

TEST_F(DiscoveryTest, NobodyAnswersIsNoAnswer) {
  ExitCode code = ExitCode::Done;
  EXPECT_EQ(
      error_of(select_switches(session, "0a1b2c3d4e5f", Duration(1500), Search::Quick), &code),
      "no answer from 0a:1b:2c:3d:4e:5f");
  EXPECT_EQ(code, ExitCode::NoAnswer);
  neighbours({first});
  EXPECT_EQ(error_of(select_switches(session, "nobody", Duration(1500), Search::Quick), &code),
            "no switch is called \"nobody\"; these answered:\n  0a:1b:2c:3d:4e:5f  office-sw");
  EXPECT_EQ(code, ExitCode::NoAnswer);
}

}  // namespace
}  // namespace qel_gateway
