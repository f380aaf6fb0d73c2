// SPDX-License-Identifier: Apache-2.0
//
// Settings: sent once, looked at afterwards.
#include "gateway/settings.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "fixture.h"
#include "gateway/query.h"

namespace qel_gateway {
namespace {

using gateway_test::Bytes;
using gateway_test::OnFakeWire;
using gateway_test::probe_answer;
using gateway_test::reply;
using gateway_test::Sent;
using gateway_test::tick_of;

constexpr Duration kPatience{1000};

Bytes update(const std::string& subject, const std::string& data) {
  return reply(R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":")" + subject + R"(","data":)" +
               data + "}");
}

class SettingsTest : public OnFakeWire {
 protected:
  void SetUp() override {
    wire.on_send = [this](const Sent& sent) { obey(sent.text); };
  }

  // A switch with one port, as far as the settings concern it.
  void obey(const std::string& text) {
    if (!alive) {
      return;
    }
    const auto has = [&text](const char* part) { return text.find(part) != std::string::npos; };
    if (has("ports_info")) {
      wire.arrives(update("ports_info", R"({"ge1":[0,1,"G",1]})"));
      wire.arrives(update("ports_pos", R"({"ge1":[1,1]})"));
    } else if (has(R"("get","subcmd":"ports_conf")")) {
      wire.arrives(update("ports_conf", R"({"ge1":[)" + std::string(enabled ? "1" : "0") +
                                            R"(,"AN",0,)" + (eee ? "1" : "0") + ",0,0,1,1]}"));
    } else if (has("ports_link")) {
      wire.arrives(update("ports_link", R"({"ge1":[)" + link + "]}"));
    } else if (has("ports_stats")) {
      wire.arrives(update("ports_stats", R"({"ge1":[)" + std::to_string(counter) + ",0,0,0]}"));
    } else if (has("probe")) {
      wire.arrives(probe_answer(tick_of(text), name, "0a1b2c3d4e5f", "0a 1b 2c 3d 4e 5f",
                                uptime + (uptime_goes_on ? clock.elapsed() / 1000 : 0),
                                std::max<int64_t>(countdown - clock.elapsed() / 1000, 0)));
    } else if (on_set) {
      on_set(text);
    }
  }

  std::function<void(const std::string&)> on_set;
  bool alive = true;
  bool enabled = true;
  bool eee = false;
  int64_t uptime = 3600;
  int64_t countdown = 0;
  bool uptime_goes_on = true;
  uint64_t counter = 1000;
  std::string link = "1,1000,1,0";
  std::string name = "office-sw";
};

TEST_F(SettingsTest, ADisabledPortIsSeenToBeDisabled) {
  on_set = [this](const std::string&) { enabled = false; };
  const EffectReport report = session.run(enable_port(session, office, "ge1", false, kPatience));
  EXPECT_EQ(report.effect, Effect::Took);
  EXPECT_EQ(report.detail, "the port is disabled");
  EXPECT_EQ(wire.count("port_enable"), 1u);
}

TEST_F(SettingsTest, APortThatStaysAsItWasDidNotTakeIt) {
  const EffectReport report = session.run(enable_port(session, office, "ge1", false, kPatience));
  EXPECT_EQ(report.effect, Effect::NotTaken);
  EXPECT_EQ(report.detail, "the port is enabled");
  EXPECT_EQ(wire.count("port_enable"), 1u);
  EXPECT_GE(clock.elapsed(), 1000);
}

TEST_F(SettingsTest, AnUnknownPortIsNotAskedFor) {
  EXPECT_EQ(error_of(enable_port(session, office, "ge9", false, kPatience)),
            "no port \"ge9\"; there are: ge1");
  EXPECT_EQ(wire.count("port_enable"), 0u);
}

TEST_F(SettingsTest, ASwitchThatDiesIsSilent) {
  on_set = [this](const std::string&) { alive = false; };
  const EffectReport report = session.run(enable_port(session, office, "ge1", false, kPatience));
  EXPECT_EQ(report.effect, Effect::Silent);
}

TEST_F(SettingsTest, AReportThatLeavesThePortOutIsNoAnswer) {
  wire.on_send = [this](const Sent& sent) {
    if (sent.text.find("ports_link") != std::string::npos) {
      wire.arrives(update("ports_link", R"({"ge2":[1,1000,1,0]})"));
    } else {
      obey(sent.text);
    }
  };
  const EffectReport report =
      session.run(set_port_speed(session, office, "ge1", "100M", kPatience));
  EXPECT_EQ(report.effect, Effect::Silent);
  EXPECT_EQ(report.detail, "the switch does not report the port any more");
  EXPECT_EQ(session.run(restart_port(session, office, "ge1", 5, true, kPatience)).effect,
            Effect::Silent);
}

TEST_F(SettingsTest, SpeedsAreComparedWithTheLink) {
  const auto set = [this](const char* speed) {
    return session.run(set_port_speed(session, office, "ge1", speed, kPatience));
  };
  on_set = [this](const std::string&) { link = "1,100,0,0"; };
  EXPECT_EQ(set("100M").effect, Effect::Took);
  EXPECT_EQ(set("100M-H").effect, Effect::Took);
  EXPECT_EQ(set("100M-F").effect, Effect::NotTaken);
  EXPECT_EQ(set("1G").detail, "the link runs at 100 Mbit/s half duplex");
  on_set = [this](const std::string&) { link = "1,2500,1,0"; };
  EXPECT_EQ(set("2.5G").effect, Effect::Took);
  EXPECT_EQ(set("AN").effect, Effect::Unseen);
  on_set = [this](const std::string&) { link = "0,0,0,0"; };
  const EffectReport report = set("1G");
  EXPECT_EQ(report.effect, Effect::Unseen);
  EXPECT_EQ(report.detail, "sent; the port has no link, so its speed cannot be seen");
}

TEST_F(SettingsTest, ARestartedPortIsFollowedUntilItIsBack) {
  on_set = [this](const std::string&) {
    enabled = false;
    link = "0,0,0,2";
  };
  const EffectReport down = session.run(restart_port(session, office, "ge1", 2, false, kPatience));
  EXPECT_EQ(down.effect, Effect::Took);
  EXPECT_EQ(down.detail, "down, back in 2 s");
  const int64_t back_at = clock.elapsed() + 1500;
  wire.before_receive = [this, back_at] {
    if (clock.elapsed() >= back_at) {
      enabled = true;
      link = "1,1000,1,0";
    }
  };
  const EffectReport back = session.run(restart_port(session, office, "ge1", 2, true, kPatience));
  EXPECT_EQ(back.effect, Effect::Took);
  EXPECT_EQ(back.detail, "enabled again; the link runs at 1000 Mbit/s full duplex");
}

TEST_F(SettingsTest, ARestartThatWasNotSeenIsOnlyDeniedWhenItHadToBe) {
  on_set = [](const std::string&) {};  // the port stays as it is
  const auto restart = [this](int seconds) {
    return session.run(restart_port(session, office, "ge1", seconds, true, kPatience));
  };
  EXPECT_EQ(restart(2).effect, Effect::NotTaken);
  EXPECT_EQ(restart(2).detail, "the port was not seen to go down");
  // One that ends with the next second may be over before anybody can look.
  const EffectReport shortest = restart(1);
  EXPECT_EQ(shortest.effect, Effect::Unseen);
  EXPECT_EQ(shortest.detail, "sent; the port is enabled, and may have been down before");
}

TEST_F(SettingsTest, APortConfigurationSaysWhatWasNotTaken) {
  PortSettings settings;
  settings.switches = {{"eee", true}, {"poe", false}};
  on_set = [this](const std::string&) { eee = true; };
  const EffectReport report =
      session.run(configure_port(session, office, "ge1", settings, kPatience));
  EXPECT_EQ(report.effect, Effect::NotTaken);
  EXPECT_EQ(report.detail, "the switch reports poe=1");
}

TEST_F(SettingsTest, TheAddressIsAnsweredAndNotRepeated) {
  on_set = [this](const std::string&) {
    wire.arrives(update("sys_info", R"({"dhcp":0,"sys_ip":"192.168.1.20","sys_mask":24,)"
                                    R"("timestamp":1700000000})"));
  };
  const EffectReport report =
      session.run(set_address(session, office, "192.168.1.20", 24, kPatience));
  EXPECT_EQ(report.effect, Effect::Took);
  EXPECT_EQ(report.detail, "the switch has 192.168.1.20/24");
  EXPECT_EQ(wire.count("sys_ip"), 1u);
}

TEST_F(SettingsTest, TheAddressThatTheSwitchHasIsNotSent) {
  EXPECT_EQ(session.run(set_address(session, office, "192.168.1.10", 24, kPatience)).effect,
            Effect::Took);
  EXPECT_EQ(session.run(set_address(session, office, "192.168.1.10", 16, kPatience)).effect,
            Effect::NotTaken);
  EXPECT_TRUE(wire.sent().empty());
}

TEST_F(SettingsTest, ARefusedAddressIsNotTaken) {
  on_set = [this](const std::string&) { wire.arrives(update("sys_info", R"({"ret":"failed"})")); };
  EXPECT_EQ(session.run(set_address(session, office, "192.168.1.20", 24, kPatience)).effect,
            Effect::NotTaken);
}

TEST_F(SettingsTest, TheClockIsCompared) {
  on_set = [this](const std::string&) {
    wire.arrives(update("sys_info", R"({"dhcp":0,"sys_ip":"192.168.1.10","sys_mask":24,)"
                                    R"("timestamp":1700000001})"));
  };
  EXPECT_EQ(session.run(set_clock(session, office, 1700000000, kPatience)).effect, Effect::Took);
  EXPECT_EQ(session.run(set_clock(session, office, 1600000000, kPatience)).effect,
            Effect::NotTaken);
  EXPECT_EQ(session.run(read_clock(session, office, kPatience)).timestamp, 1700000001);
  on_set = {};
  EXPECT_EQ(session.run(set_clock(session, office, 1700000000, kPatience)).effect, Effect::Silent);
}

TEST_F(SettingsTest, AClockThatSaysAnythingIsSurvived) {
  on_set = [this](const std::string&) {
    wire.arrives(update("sys_info", R"({"dhcp":0,"sys_ip":"192.168.1.10","sys_mask":24,)"
                                    R"("timestamp":9223372036854775807})"));
  };
  for (const int64_t seconds : {int64_t{-2}, int64_t{0}, int64_t{1700000000}}) {
    const EffectReport report = session.run(set_clock(session, office, seconds, kPatience));
    EXPECT_EQ(report.effect, Effect::NotTaken);
    EXPECT_EQ(report.detail, "the switch's clock says 9223372036854775807");
  }
}

TEST_F(SettingsTest, AnUptimeThatCannotGoOnIsSurvived) {
  uptime = INT64_MAX;
  uptime_goes_on = false;
  on_set = [](const std::string&) {};
  // It stands still while time passes, so it lost some.
  EXPECT_EQ(session.run(restart_switch(session, office, false, Duration(5000), Duration(0))).effect,
            Effect::Took);
}

TEST_F(SettingsTest, TheNameIsReadBack) {
  on_set = [this](const std::string&) { name = "core-sw"; };
  EXPECT_EQ(session.run(set_name(session, office, "core-sw", kPatience)).effect, Effect::Took);
  const EffectReport report = session.run(set_name(session, office, "lab", kPatience));
  EXPECT_EQ(report.effect, Effect::NotTaken);
  EXPECT_EQ(report.detail, "the switch is called \"core-sw\"");
}

TEST_F(SettingsTest, SilenceAloneIsNoRestart) {
  on_set = [this](const std::string&) { alive = false; };
  const EffectReport report =
      session.run(restart_switch(session, office, false, Duration(5000), Duration(0)));
  EXPECT_EQ(report.effect, Effect::Unseen);
  EXPECT_EQ(report.detail, "the switch fell silent, as in a restart; --wait sees it come back");
  EXPECT_EQ(wire.count("sys_reboot"), 1u);
}

TEST_F(SettingsTest, ASwitchThatMayOnlyHaveBeenSlowIsNotSaidToHaveRestarted) {
  on_set = [this](const std::string&) { alive = false; };
  int64_t back_at = 3000;
  wire.before_receive = [this, &back_at] { alive = alive || clock.elapsed() >= back_at; };
  for (const Duration come_back : {Duration(0), Duration(15000)}) {
    const EffectReport report =
        session.run(restart_switch(session, office, false, Duration(5000), come_back));
    EXPECT_EQ(report.effect, Effect::Unseen);
    EXPECT_EQ(report.detail,
              "the switch was silent for a while and answers again; neither its uptime nor its "
              "counters began anew");
    back_at = clock.elapsed() + 9000;  // after the patience, while its return is waited for
  }
  EXPECT_EQ(wire.count("sys_reboot"), 2u);
}

TEST_F(SettingsTest, ASwitchThatIsSilentOffAndOnIsNotWatchedForEver) {
  bool told = false;
  on_set = [&told](const std::string&) { told = true; };
  wire.before_receive = [this, &told] { alive = !told || clock.elapsed() / 1000 % 3 == 2; };
  const EffectReport report =
      session.run(restart_switch(session, office, false, Duration(5000), Duration(15000)));
  EXPECT_EQ(report.effect, Effect::Silent);  // as it is when the time is up
  EXPECT_LE(clock.elapsed(), 22000);
}

TEST_F(SettingsTest, ALongRestartIsSeenInTheUptimeThatWasLost) {
  uptime = 7;
  on_set = [this](const std::string&) { alive = false; };
  wire.before_receive = [this] {
    if (!alive && clock.elapsed() >= 20000) {
      alive = true;
      uptime = -11;  // so that it says 9, more than it said before
    }
  };
  const EffectReport report =
      session.run(restart_switch(session, office, false, Duration(5000), Duration(30000)));
  EXPECT_EQ(report.effect, Effect::Took);
  EXPECT_EQ(report.detail, "the switch restarted and answers again");
  EXPECT_GE(clock.elapsed(), 20000);
}

TEST_F(SettingsTest, WhoeverIsInterruptedBeforeARestartHasChangedNothing) {
  session.set_interrupt([] { return true; });
  std::string words;
  try {
    session.run(mark_restart(session, office, kPatience));
  } catch (const Interrupted& reason) {
    words = reason.what();
  }
  EXPECT_EQ(words, "interrupted; nothing was applied");
}

TEST_F(SettingsTest, ASwitchThatWasSilentBeforeIsNotSaidToRestart) {
  alive = false;
  const EffectReport report =
      session.run(restart_switch(session, office, false, kPatience, Duration(0)));
  EXPECT_EQ(report.effect, Effect::Silent);
  EXPECT_EQ(report.detail, "no answer; nothing was sent");
  EXPECT_EQ(wire.count("sys_reboot"), 0u);
}

TEST_F(SettingsTest, ARestartIsSeenInTheUptime) {
  on_set = [this](const std::string&) { uptime = 3; };  // it was 3600
  EXPECT_EQ(session.run(restart_switch(session, office, false, Duration(5000), Duration(0))).effect,
            Effect::Took);
}

TEST_F(SettingsTest, ARestartIsSeenInTheCounters) {
  on_set = [this](const std::string&) { counter = 5; };
  EXPECT_EQ(
      session.run(restart_switch(session, office, true, Duration(5000), Duration(1000))).detail,
      "the switch restarted and answers again");
  EXPECT_EQ(wire.count("config_reset"), 1u);
}

TEST_F(SettingsTest, ARestartIsSeenInTheCountdown) {
  countdown = 600;
  on_set = [this](const std::string&) { countdown = 0; };
  EXPECT_EQ(session.run(restart_switch(session, office, false, Duration(5000), Duration(0))).effect,
            Effect::Took);
}

TEST_F(SettingsTest, ACountdownThatEndsInItsTimeIsNoRestart) {
  for (const int64_t left : {9, 3}) {
    countdown = clock.elapsed() / 1000 + left;
    EXPECT_EQ(
        session.run(restart_switch(session, office, false, Duration(5000), Duration(0))).effect,
        Effect::NotTaken);
  }
  countdown = clock.elapsed() / 1000 + 600;
  EXPECT_EQ(session.run(restart_switch(session, office, false, Duration(5000), Duration(0))).effect,
            Effect::NotTaken);
}

TEST_F(SettingsTest, ASwitchThatGoesOnAsBeforeDidNotRestart) {
  const EffectReport report =
      session.run(restart_switch(session, office, false, Duration(5000), Duration(1000)));
  EXPECT_EQ(report.effect, Effect::NotTaken);
  EXPECT_EQ(wire.count("sys_reboot"), 1u);
}

TEST_F(SettingsTest, ASwitchThatStaysAwayIsSilent) {
  on_set = [this](const std::string&) { alive = false; };
  EXPECT_EQ(
      session.run(restart_switch(session, office, false, Duration(5000), Duration(3000))).effect,
      Effect::Silent);
}

TEST_F(SettingsTest, AModuleIsAskedOnce) {
  on_set = [this](const std::string&) { wire.arrives(reply(R"({"ret":0,"data":[1]})")); };
  const QueryReply reply_of =
      session.run(ask_module(session, office, R"({"subcmd":"qelipc"})", kPatience));
  EXPECT_EQ(reply_of.text, R"({"ret":0,"data":[1]})");
  EXPECT_EQ(reply_of.json["ret"], 0);
  on_set = [this](const std::string&) { wire.arrives(reply("plain words")); };
  const QueryReply words =
      session.run(ask_module(session, office, R"({"subcmd":"qelipc"})", kPatience));
  EXPECT_EQ(words.text, "plain words");
  EXPECT_TRUE(words.json.is_discarded());
  on_set = {};
  const size_t before = wire.sent().size();
  ExitCode code = ExitCode::Done;
  error_of(ask_module(session, office, R"({"subcmd":"qelipc"})", kPatience), &code);
  EXPECT_EQ(code, ExitCode::NoAnswer);
  EXPECT_EQ(wire.sent().size(), before + 1);
}

}  // namespace
}  // namespace qel_gateway
