// SPDX-License-Identifier: Apache-2.0
//
// qelctl watch and top: views that go on until they are told to end. watch keeps the gateway
// present by probing, because traps go to present gateways only; top asks for all it shows.
#include <algorithm>
#include <cstdio>
#include <ctime>

#include <fmt/chrono.h>
#include <fmt/format.h>
#include <CLI/CLI.hpp>

#include "gateway/cli/context.h"
#include "gateway/cli/each_switch.h"
#include "gateway/cli/interrupt.h"
#include "gateway/cli/seconds.h"
#include "gateway/cli/terminal.h"
#include "gateway/cli/top_view.h"
#include "gateway/cli/watch_log.h"
#include "gateway/ports.h"
#include "gateway/requests.h"

namespace qel_gateway::cli {

namespace {

constexpr Duration kPresence{5000};

// Probes every five seconds until the session ends, whatever ends its sleep before.
Task<void> stay_present(Session& session) {
  TimePoint next = session.now();
  while (!session.interrupted()) {
    if (session.now() >= next) {
      announce(session);
      next = session.now() + kPresence;
    }
    auto wait = session.sleep(std::chrono::ceil<Duration>(next - session.now()));
    const Outcome outcome = co_await wait;
    if (outcome == Outcome::Interrupted) {
      co_return;
    }
  }
}

// The switches meant; all of them when none was named.
std::vector<Switch> watched(Context& context) {
  return selected(context, context.options().selector.empty() ? "all" : context.options().selector,
                  Search::Quick);
}

struct WatchArguments {
  size_t count = 0;
  double seconds = 0;
};

Task<void> watch_until(Session& session, WatchLog& log, WatchArguments arguments) {
  const TimePoint end = session.now() + Duration(static_cast<int64_t>(arguments.seconds * 1000));
  constexpr Duration kTurn{1000};
  while (!session.interrupted()) {
    if ((arguments.count > 0 && log.events() >= arguments.count) ||
        (arguments.seconds > 0 && session.now() >= end)) {
      co_return;
    }
    const Duration left = std::chrono::duration_cast<Duration>(end - session.now());
    auto wait = session.sleep(arguments.seconds > 0 ? std::clamp(left, Duration(1), kTurn) : kTurn);
    const Outcome outcome = co_await wait;
    if (outcome == Outcome::Interrupted) {
      co_return;
    }
    log.tick(session.now());
  }
}

ExitCode run_watch(Context& context, WatchArguments arguments) {
  if (context.options().dry_run) {
    return dry_probe(context);
  }
  Session& session = context.session();
  const auto switches = watched(context);
  WatchLog log(switches, context.options().selector.empty(), session.now(), [&](const Event& e) {
    context.print(context.options().json ? event_json(e) : event_line(e, context.style().colour));
    std::fflush(stdout);
    if (arguments.count > 0) {
      session.wake_sleepers();
    }
  });
  session.on_unasked([&](const Reply& reply) { log.hear(reply, session.now()); });
  session.on_overheard(
      [&](const Peer& to, const std::string& text) { log.overhear(to.mac, text, session.now()); });
  context.transport().overhear();
  context.note(fmt::format("watching {} switch{}; Ctrl-C ends", switches.size(),
                           switches.size() == 1 ? "" : "es"));
  session.spawn(stay_present(session));
  context.run(watch_until(session, log, arguments));
  return ExitCode::Done;
}

struct TopArguments {
  double interval = 2;
  size_t rounds = 0;
};

class Top {
 public:
  Top(Context& context, TopArguments arguments)
      : context_(context), arguments_(arguments), view_(watched(context)) {}

  ExitCode run() {
    const Screen screen;
    const WakeDescriptor wake;
    Session& session = context_.session();
    context_.transport().wake_on(wake.get());
    session.on_wake([this] { obey_keys(); });
    // A reading that waits for a switch that died ends with the key, not with its patience.
    session.set_interrupt([this] { return quit_ || interrupt_seen(); });
    context_.run(refresh());
    session.set_interrupt(interrupt_seen);
    session.on_wake({});
    context_.transport().wake_on(interrupt_descriptor());
    return ExitCode::Done;
  }

 private:
  void draw() {
    const ScreenSize size = Screen::size();
    drawn_ = size;
    outdated_ = false;
    last_draw_ = context_.session().now();
    const std::string clock = fmt::format("{:%H:%M:%S}", fmt::localtime(std::time(nullptr)));
    Screen::draw(view_.text(size.columns, size.rows, context_.style().colour, clock));
  }

  bool size_changed() const {
    const ScreenSize now = Screen::size();
    return now.columns != drawn_.columns || now.rows != drawn_.rows;
  }

  void obey_keys() {
    bool any = false;
    for (char key = Screen::key(); key != 0; key = Screen::key()) {
      any = true;
      quit_ = quit_ || !view_.key(key, Screen::size().rows);
    }
    if (!quit_ && (any || size_changed())) {
      draw();
    }
  }

  Task<void> read_one(size_t index) {
    try {
      const PortTable table = co_await read_ports(context_.session(), view_.switches()[index],
                                                  kPortEverything, context_.patience());
      view_.update(index, table);
    } catch (const Error&) {
      view_.silent(index);
    }
    outdated_ = true;
    // With many switches a screen for each reading would be a flicker nobody can read.
    constexpr Duration kDrawEvery{50};
    if (!quit_ && context_.session().now() - last_draw_ >= kDrawEvery) {
      draw();
    }
  }

  Task<void> refresh() {
    constexpr size_t kAtOnce = 8;
    Session& session = context_.session();
    draw();
    for (size_t round = 1; !quit_; ++round) {
      const std::function<Task<void>(size_t)> one = [this](size_t i) { return read_one(i); };
      try {
        co_await session.each(view_.switches().size(), kAtOnce, one);
      } catch (const Interrupted&) {
        co_return;
      }
      if (quit_) {
        co_return;
      }
      if (outdated_) {
        draw();
      }
      if (round == arguments_.rounds) {
        co_return;
      }
      auto wait = session.sleep(Duration(static_cast<int64_t>(arguments_.interval * 1000)));
      const Outcome outcome = co_await wait;
      if (outcome == Outcome::Interrupted) {
        co_return;
      }
    }
  }

  Context& context_;
  TopArguments arguments_;
  TopView view_;
  ScreenSize drawn_;
  TimePoint last_draw_;
  bool outdated_ = false;  // something was read since
  bool quit_ = false;
};

ExitCode run_top(Context& context, const TopArguments& arguments) {
  if (context.options().dry_run) {
    return dry_run(context, [](const std::string& mac) {
      std::vector<std::string> texts;
      for (const std::string& subject : port_subjects(kPortEverything)) {
        texts.push_back(get_text(mac, subject));
      }
      return texts;
    });
  }
  if (context.options().json) {
    throw Error("top draws a screen; \"qelctl ports --json\" has the same as JSON",
                ExitCode::Usage);
  }
  return Top(context, arguments).run();
}

}  // namespace

void add_live(CLI::App& app, Choice& choice) {
  auto* watch = app.add_subcommand("watch", "Show what switches report unasked, as it comes");
  watch->footer(
      "Watches all switches unless --switch names one, and ends with Ctrl-C.\n\n"
      "Example:\n  qelctl -i eth1 watch --json");
  auto watching = std::make_shared<WatchArguments>();
  watch->add_option("--count", watching->count, "End after so many events")->type_name("N");
  watch->add_option("--for", watching->seconds, "End after so many seconds")
      ->check(seconds_range(0.1, 31536000))
      ->type_name("SECONDS");
  watch->callback([&choice, watching] {
    choice.action = [watching](Context& context) { return run_watch(context, *watching); };
  });

  auto* top = app.add_subcommand("top", "Live view of rates, links, PoE and clients");
  top->footer(
      "Keys: q quits; p, t, r, l, c sort; u shows links only; arrows scroll.\n"
      "TX/s and RX/s are bytes a second.\n\n"
      "Example:\n  qelctl -i eth1 top --interval 1");
  auto showing = std::make_shared<TopArguments>();
  top->add_option("--interval", showing->interval, "Seconds between two readings (2)")
      ->check(seconds_range(0.2, 3600))
      ->type_name("SECONDS");
  top->add_option("--rounds", showing->rounds, "End after so many readings")->type_name("N");
  top->callback([&choice, showing] {
    choice.action = [showing](Context& context) { return run_top(context, *showing); };
  });
}

}  // namespace qel_gateway::cli
