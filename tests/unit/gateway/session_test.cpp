// SPDX-License-Identifier: Apache-2.0
//
// The session: who gets which reply, what is asked again, and when waiting ends.
#include "gateway/session.h"

#include <gtest/gtest.h>

#include <array>

#include "fixture.h"

namespace qel_gateway {
namespace {

using gateway_test::Bytes;
using gateway_test::OnFakeWire;
using gateway_test::reply;

constexpr const char* kLinkReply =
    R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_link","data":{"ge1":[1,1000,1,0]}})";

class SessionTest : public OnFakeWire {
 protected:
  Question question(int sends = 1) {
    Question asked;
    asked.to = office.address;
    asked.source = office.source;
    asked.mac = office.mac;
    asked.subjects = {"ports_link"};
    asked.text = R"({"cmd":"get","subcmd":"ports_link"})";
    asked.patience = Duration(1000);
    asked.sends = sends;
    asked.take = [this](const Reply& got) {
      taken.push_back(got.text);
      return Verdict::Done;
    };
    return asked;
  }

  Task<Outcome> ask(Question asked) {
    auto wait = session.ask(std::move(asked));
    const Outcome outcome = co_await wait;
    co_return outcome;
  }

  std::vector<std::string> taken;
  bool stop = false;
};

TEST_F(SessionTest, GivesTheReplyToWhoeverAsked) {
  wire.answer("ports_link", {reply(kLinkReply)});
  EXPECT_EQ(session.run(ask(question())), Outcome::Answered);
  EXPECT_EQ(taken, std::vector<std::string>{kLinkReply});
  EXPECT_EQ(clock.elapsed(), 1);
}

TEST_F(SessionTest, SilenceEndsWithItsPatience) {
  EXPECT_EQ(session.run(ask(question())), Outcome::Silent);
  EXPECT_EQ(clock.elapsed(), 1000);
  EXPECT_EQ(wire.sent().size(), 1u);
}

TEST_F(SessionTest, AnswersThatWaitWhenThePatienceIsOverCountAsAnswers) {
  // Three switches are asked; the program is held up until long after, and all answers lie waiting.
  const std::array<std::array<const char*, 2>, 3> switches = {{
      {"0a1b2c3d4e60", "0a 1b 2c 3d 4e 60"},
      {"0a1b2c3d4e61", "0a 1b 2c 3d 4e 61"},
      {"0a1b2c3d4e62", "0a 1b 2c 3d 4e 62"},
  }};
  for (const auto& [name, address] : switches) {
    const std::string head = R"({"mac":")" + std::string(name);
    wire.arrives(reply(head + R"(","cmd":"update","subcmd":"ports_link","data":{}})", address), 10);
  }
  bool paused = false;
  wire.before_receive = [&] {
    if (!paused) {
      paused = true;
      clock.set(clock.now() + Duration(5000));
    }
  };
  std::vector<Outcome> outcomes;
  session.run(session.each(3, 3, [&](size_t i) -> Task<void> {
    Question asked = question();
    asked.mac = *parse_mac(switches[i][0]);
    asked.source = Peer{*asked.mac, 0, 0};
    const Outcome outcome = co_await ask(std::move(asked));
    outcomes.push_back(outcome);
  }));
  EXPECT_EQ(outcomes, (std::vector<Outcome>(3, Outcome::Answered)));
  EXPECT_EQ(clock.elapsed(), 5000);
}

TEST_F(SessionTest, AQueueWithoutAnEndDoesNotStopTheTime) {
  int heard = 0;
  session.on_unasked([&](const Reply& /*got*/) {
    ++heard;
    wire.arrives(reply(R"({"mac":"0a1b2c3d4e60","cmd":"update","subcmd":"ports_link","data":{}})"),
                 0);
  });
  wire.before_receive = [&] {
    if (heard == 10) {
      clock.set(clock.now() + Duration(2000));
    }
  };
  wire.arrives(reply(R"({"mac":"0a1b2c3d4e60","cmd":"update","subcmd":"ports_link","data":{}})"),
               0);
  EXPECT_EQ(session.run(ask(question())), Outcome::Silent);
  EXPECT_LT(heard, 3000);
}

TEST_F(SessionTest, ASetIsSentOnceAndAReadAgain) {
  session.run(ask(question(1)));
  EXPECT_EQ(wire.sent().size(), 1u);
  session.run(ask(question(3)));
  ASSERT_EQ(wire.sent().size(), 4u);
  EXPECT_EQ(wire.sent()[2].at - wire.sent()[1].at, 333);
  EXPECT_EQ(wire.sent()[3].at - wire.sent()[2].at, 333);
}

TEST_F(SessionTest, ALostReadIsAnsweredAtItsSecondSending) {
  wire.answer("ports_link", {}, 1, 1);
  wire.answer("ports_link", {reply(kLinkReply)});
  EXPECT_EQ(session.run(ask(question(2))), Outcome::Answered);
  EXPECT_EQ(wire.sent().size(), 2u);
  EXPECT_EQ(clock.elapsed(), 501);
}

TEST_F(SessionTest, RepliesOfOthersAndOnOtherSubjectsAreNotTaken) {
  std::vector<std::string> unasked;
  session.on_unasked([&](const Reply& got) { unasked.push_back(got.subject); });
  wire.answer("ports_link",
              {reply(kLinkReply, "0a 1b 2c 3d 4e 60"),
               reply(R"({"mac":"0a1b2c3d4e60","cmd":"update","subcmd":"ports_link","data":{}})"),
               reply(R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_info","data":{}})"),
               reply(R"([1,2,3])")});
  EXPECT_EQ(session.run(ask(question())), Outcome::Silent);
  EXPECT_TRUE(taken.empty());
  EXPECT_EQ(unasked, (std::vector<std::string>{"ports_link", "ports_link", "ports_info", ""}));
}

TEST_F(SessionTest, ASecondFragmentIsNoReply) {
  const std::string padding(1300, 'x');
  const std::string text =
      R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_link","data":{"p":")" + padding +
      "\"}}";
  const size_t size = text.size();
  ASSERT_GT(size, 1280u);
  Bytes second = gateway_test::reply_head(static_cast<uint16_t>(size + 16));
  second = gateway_test::operator+(second, text.substr(1280));
  second.resize(32 + size, 0);
  std::vector<std::string> bad;
  session.on_bad_reply([&](const Peer&, const std::string& why) { bad.push_back(why); });
  wire.answer("ports_link", {second, reply(text), second});
  EXPECT_EQ(session.run(ask(question())), Outcome::Answered);
  EXPECT_EQ(taken, std::vector<std::string>{text});
  EXPECT_TRUE(bad.empty());
}

TEST_F(SessionTest, BadRepliesAreToldAndPassedOver) {
  std::vector<std::string> bad;
  session.on_bad_reply([&](const Peer&, const std::string& why) { bad.push_back(why); });
  wire.answer("ports_link",
              {reply(R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_link")"),
               reply(R"({"mac":"zz","cmd":"update","subcmd":"ports_link","data":{}})"),
               reply(R"({"mac":"0a1b2c3d4e5f","cmd":7,"subcmd":"ports_link","data":{}})"),
               reply(R"({"mac":"0a1b2c3d4e5f","cmd":"update","data":{}})"), reply(kLinkReply)});
  EXPECT_EQ(session.run(ask(question())), Outcome::Answered);
  EXPECT_EQ(bad.size(), 4u);
}

TEST_F(SessionTest, AReplyThatTheQuestionCannotReadLeavesItOpen) {
  Question asked = question();
  int calls = 0;
  asked.take = [&calls](const Reply&) -> Verdict {
    if (++calls == 1) {
      throw BadReply("no");
    }
    return Verdict::Done;
  };
  wire.answer("ports_link", {reply(kLinkReply), reply(kLinkReply)});
  EXPECT_EQ(session.run(ask(std::move(asked))), Outcome::Answered);
  EXPECT_EQ(calls, 2);
}

TEST_F(SessionTest, EveryPieceRenewsThePatienceUpToABound) {
  Question asked = question();
  asked.take = [](const Reply&) { return Verdict::More; };
  for (int at = 900; at < 20000; at += 900) {
    wire.arrives(reply(kLinkReply), at);
  }
  EXPECT_EQ(session.run(ask(std::move(asked))), Outcome::Silent);
  EXPECT_EQ(clock.elapsed(), 10000);
}

TEST_F(SessionTest, AReplyToOneQuestionRenewsTheOthersOfThatSwitch) {
  Question slow = question();
  slow.subjects = {"ports_stats"};
  Question quick = question();
  wire.arrives(reply(kLinkReply), 800);
  wire.arrives(reply(R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":"ports_stats","data":{}})"),
               1700);
  const auto both = [&]() -> Task<Outcome> {
    auto first = session.ask(std::move(slow));
    auto second = session.ask(std::move(quick));
    const Outcome quick_end = co_await second;
    EXPECT_EQ(quick_end, Outcome::Answered);
    const Outcome slow_end = co_await first;
    co_return slow_end;
  };
  EXPECT_EQ(session.run(both()), Outcome::Answered);
  EXPECT_EQ(clock.elapsed(), 1700);
}

TEST_F(SessionTest, AnInterruptEndsEveryWaitAndForbidsNewOnes) {
  wire.before_receive = [this] {
    if (clock.elapsed() >= 0 && !wire.sent().empty()) {
      stop = true;
    }
  };
  session.set_interrupt([this] { return stop; });
  EXPECT_EQ(session.run(ask(question())), Outcome::Interrupted);
  const size_t sent = wire.sent().size();
  EXPECT_EQ(session.run(ask(question())), Outcome::Interrupted);
  EXPECT_EQ(wire.sent().size(), sent);
}

TEST_F(SessionTest, AFinishedQuestionThatIsNotAwaitedYetCostsNothing) {
  Question slow = question();
  Question quick = question();
  quick.patience = Duration(300);
  int turns = 0;
  wire.before_receive = [&turns] {
    if (++turns > 100) {
      throw std::logic_error("the loop spins");
    }
  };
  const auto both = [&]() -> Task<Outcome> {
    auto first = session.ask(std::move(slow));
    auto second = session.ask(std::move(quick));
    co_await first;
    const Outcome outcome = co_await second;
    co_return outcome;
  };
  EXPECT_EQ(session.run(both()), Outcome::Silent);
  EXPECT_EQ(clock.elapsed(), 1000);
  EXPECT_LE(turns, 4);
}

TEST_F(SessionTest, AWireThatIsGoneEndsEveryWaitAndForbidsNewOnes) {
  bool down = false;
  wire.before_receive = [&down] {
    if (down) {
      throw Error("interface gw0 went down");
    }
    down = true;
  };
  std::vector<std::string> told;
  const auto job = [&](size_t) -> Task<void> {
    try {
      auto wait = session.ask(question(3));
      co_await wait;
    } catch (const Error& error) {
      told.emplace_back(error.what());
    }
  };
  session.run(session.each(5, 2, job));
  EXPECT_EQ(told, std::vector<std::string>(5, "interface gw0 went down"));
  EXPECT_EQ(wire.sent().size(), 4u);  // of the first two, each sent again once
  const auto sleep = [&]() -> Task<Outcome> {
    auto wait = session.sleep(Duration(10));
    const Outcome outcome = co_await wait;
    co_return outcome;
  };
  EXPECT_EQ(error_of(sleep()), "interface gw0 went down");
}

TEST_F(SessionTest, AQuestionThatCannotBeSentAgainFailsAlone) {
  wire.on_send = [this](const gateway_test::Sent&) {
    if (wire.sent().size() == 3) {
      throw Error("cannot send");
    }
  };
  std::vector<std::string> told;
  const auto job = [&](size_t i) -> Task<void> {
    try {
      auto wait = session.ask(question(i == 0 ? 2 : 1));
      co_await wait;
      told.emplace_back("silent");
    } catch (const Error& error) {
      told.emplace_back(error.what());
    }
  };
  session.run(session.each(2, 2, job));
  EXPECT_EQ(told, (std::vector<std::string>{"cannot send", "silent"}));
}

TEST_F(SessionTest, WhatAnExceptionEndedIsNotResumed) {
  wire.answer("ports_link", {reply(kLinkReply)});
  bool thrown = false;
  session.set_interrupt([this, &thrown] {
    if (!taken.empty() && !thrown) {  // the answer is there, and its waiter about to be resumed
      thrown = true;
      throw Error("of a handler");
    }
    return false;
  });
  EXPECT_EQ(error_of(ask(question())), "of a handler");
  EXPECT_EQ(session.run(ask(question())), Outcome::Answered);
  EXPECT_EQ(taken.size(), 2u);
}

TEST_F(SessionTest, JobsRunAtMostSoManyAtATime) {
  size_t running = 0;
  size_t most = 0;
  size_t ended = 0;
  const auto job = [&](size_t) -> Task<void> {
    most = std::max(most, ++running);
    auto wait = session.sleep(Duration(100));
    const Outcome outcome = co_await wait;
    EXPECT_EQ(outcome, Outcome::Silent);
    --running;
    ++ended;
  };
  session.run(session.each(10, 4, job));
  EXPECT_EQ(most, 4u);
  EXPECT_EQ(ended, 10u);
  EXPECT_EQ(clock.elapsed(), 300);
}

TEST_F(SessionTest, AFailingJobEndsNothingElse) {
  size_t ended = 0;
  const auto job = [&](size_t i) -> Task<void> {
    auto wait = session.sleep(Duration(10));
    co_await wait;
    if (i == 0) {
      throw Error("first");
    }
    ++ended;
  };
  EXPECT_THROW(session.run(session.each(3, 2, job)), Error);
  EXPECT_EQ(ended, 2u);
}

TEST_F(SessionTest, NoJobsIsDoneAtOnce) {
  session.run(session.each(0, 4, [](size_t) -> Task<void> { co_return; }));
  EXPECT_EQ(clock.elapsed(), 0);
}

TEST_F(SessionTest, TicksAreNeverZeroAndNeverRepeat) {
  const uint32_t first = session.next_tick();
  const uint32_t second = session.next_tick();
  EXPECT_GT(first, 0u);
  EXPECT_EQ(second, first + 1);
}

TEST_F(SessionTest, AReplyWithoutEnvelopeAnswersAQuestionWithoutSubject) {
  Question asked = question();
  asked.subjects.clear();
  asked.mac.reset();
  wire.answer("ports_link", {reply(kLinkReply), reply(R"({"ret":0,"data":[]})")});
  EXPECT_EQ(session.run(ask(std::move(asked))), Outcome::Answered);
  EXPECT_EQ(taken, std::vector<std::string>{R"({"ret":0,"data":[]})"});
}

}  // namespace
}  // namespace qel_gateway
