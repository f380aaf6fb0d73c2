// SPDX-License-Identifier: Apache-2.0
//
// Restarting a switch, and seeing that it did. A switch says nothing about it, and may be back
// before anybody missed it. Nor is silence a restart: a switch that waits for one of its modules is
// silent, too. So three signs count once it answers: its uptime, its traffic counters, and the
// countdown that a controller set, which a start puts to 0.
#include <algorithm>

#include "gateway/error.h"
#include "gateway/identity_watch.h"
#include "gateway/requests.h"
#include "gateway/settings.h"
#include "gateway/settings_internal.h"

namespace qel_gateway {

namespace {

constexpr Duration kProbePatience{400};
constexpr Duration kProbePause{50};
constexpr int kMissed = 2;               // probes in a row that make a silence
constexpr Duration kBackPatience{3000};  // for the signs of one that is back
constexpr Duration kMarkPatience{2500};  // longer than a switch waits for a module

// The counters of the ports; empty when the switch does not tell them.
Task<std::vector<Port>> read_counters(Session& session, const Switch& one, Duration patience) {
  try {
    PortTable table = co_await read_ports(session, one, kPortStats, patience);
    co_return std::move(table.ports);
  } catch (const Error&) {
    // Not told; whether it answers at all is for the probes to find out.
  }
  co_return std::vector<Port>{};
}

bool fell(const std::vector<Port>& before, const std::vector<Port>& after) {
  return std::ranges::any_of(before, [&after](const Port& port) {
    const auto same = std::ranges::find(after, port.name, &Port::name);
    return same != after.end() && port.stats && same->stats &&
           (same->stats->tx_sum < port.stats->tx_sum || same->stats->rx_sum < port.stats->rx_sum);
  });
}

Task<void> pause(Session& session, Duration duration) {
  auto wait = session.sleep(duration);
  const Outcome outcome = co_await wait;
  if (outcome == Outcome::Interrupted) {
    throw Interrupted();
  }
}

// The uptime goes on while nobody asks: one that lost time began anew. Clocks may drift, but not by
// so much. `asked`: when the uptime was asked for, so that it is as old or newer.
bool began_anew(const RestartMark& mark, int64_t uptime, TimePoint asked) {
  constexpr std::chrono::seconds kSlack{3};
  const auto passed = std::chrono::duration_cast<std::chrono::seconds>(asked - mark.at);
  // Neither is negative, so only their difference is sure not to overflow.
  return uptime - mark.uptime < std::max(passed - kSlack, std::chrono::seconds(0)).count();
}

// A countdown that had time left at `now` ends early only with the agent that counts.
bool countdown_ended(const RestartMark& mark, int left, TimePoint now) {
  constexpr std::chrono::seconds kSlack{10};
  const auto passed = std::chrono::duration_cast<std::chrono::seconds>(now - mark.at);
  return left == 0 && mark.countdown > (passed + kSlack).count();
}

// What has been seen of a switch that was told to restart.
struct Sight {
  bool restarted = false;   // it answers, and began anew
  bool silent = false;      // it does not answer now
  bool was_silent = false;  // it did not for a while
};

// Whether the traffic counters began anew since the mark.
Task<bool> counts_anew(Session& session, const Switch& one, const RestartMark& mark) {
  const std::vector<Port> now = co_await read_counters(session, one, kProbePatience);
  co_return fell(mark.counters, now);
}

// Looks for `patience`, and beyond that until a switch that fell silent is back, for at most
// `come_back`.
Task<Sight> watch_restart(Session& session, const Switch& one, const RestartMark& mark,
                          Duration patience, Duration come_back) {
  const TimePoint usual = session.now() + patience;
  TimePoint end = usual;
  TimePoint last = usual;  // no matter how often it falls silent
  Sight sight;
  int missed = 0;
  while (session.now() < end) {
    const TimePoint asked = session.now();
    const auto identity = co_await ask_identity(session, one, kProbePatience);
    if (!identity) {
      if (++missed == kMissed) {
        if (!sight.was_silent) {
          last = std::max(usual, session.now() + come_back);
        }
        end = last;
        sight.silent = sight.was_silent = true;
      }
      continue;
    }
    sight.restarted = began_anew(mark, identity->uptime, asked) ||
                      countdown_ended(mark, identity->sys_active, session.now());
    if (!sight.restarted) {
      sight.restarted = co_await counts_anew(session, one, mark);
    }
    if (sight.restarted) {
      break;
    }
    if (sight.silent) {
      end = std::max(usual, std::min(last, session.now()) + kBackPatience);
    }
    sight.silent = false;
    missed = 0;
    co_await pause(session, kProbePause);
  }
  co_return sight;
}

}  // namespace

Task<RestartMark> mark_restart(Session& session, const Switch& one, Duration patience) {
  RestartMark mark;
  mark.uptime = one.identity.uptime;
  try {
    const auto identity = co_await ask_identity(session, one, std::min(patience, kMarkPatience));
    if (identity) {
      mark.answered = true;
      mark.uptime = identity->uptime;
      mark.countdown = identity->sys_active;
    }
    mark.counters = co_await read_counters(session, one, patience);
  } catch (const Interrupted&) {
    throw Interrupted("interrupted; nothing was applied");
  } catch (const Error&) {
    // For whoever goes on to find out.
  }
  mark.answered = mark.answered || !mark.counters.empty();
  mark.at = session.now();
  co_return mark;
}

Task<EffectReport> await_restart(Session& session, const Switch& one, RestartMark mark,
                                 Duration patience, Duration come_back) {
  const Sight sight = co_await watch_restart(session, one, mark, patience, come_back);
  if (sight.restarted) {
    co_return EffectReport{Effect::Took, "the switch restarted and answers again"};
  }
  if (sight.silent && come_back > Duration(0)) {
    co_return EffectReport{Effect::Silent, "the switch fell silent and did not come back in time"};
  }
  if (sight.silent) {
    co_return EffectReport{Effect::Unseen,
                           "the switch fell silent, as in a restart; --wait sees it come back"};
  }
  if (sight.was_silent) {
    // Where a restart is one of the processes alone, uptime and counters of the machine go on.
    co_return EffectReport{
        Effect::Unseen,
        "the switch was silent for a while and answers again; neither its uptime "
        "nor its counters began anew"};
  }
  co_return EffectReport{Effect::NotTaken, "the switch was not seen to restart"};
}

Task<EffectReport> restart_switch(Session& session, const Switch& one, bool reset,
                                  Duration patience, Duration come_back) {
  RestartMark mark = co_await mark_restart(session, one, patience);
  if (!mark.answered) {
    co_return EffectReport{Effect::Silent, "no answer; nothing was sent"};
  }
  const std::string mac = mac_text(one.mac);
  send_set(session, one, reset ? reset_text(mac) : reboot_text(mac));
  co_return co_await await_restart(session, one, std::move(mark), patience, come_back);
}

}  // namespace qel_gateway
