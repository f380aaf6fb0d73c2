// SPDX-License-Identifier: Apache-2.0
//
// Restarting a switch, and seeing that it did. A switch says nothing about it, and may be back
// before anybody missed it; so three signs count: it stops answering, its uptime falls, or its
// traffic counters start anew.
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
constexpr int kMissed = 2;  // probes in a row

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

Task<bool> goes_down(Session& session, const Switch& one, std::vector<Port> before,
                     Duration patience) {
  const TimePoint end = session.now() + patience;
  int64_t uptime = one.identity.uptime;
  int missed = 0;
  while (session.now() < end) {
    const auto identity = co_await ask_identity(session, one, kProbePatience);
    if (!identity) {
      if (++missed == kMissed) {
        co_return true;
      }
      continue;
    }
    missed = 0;
    const std::vector<Port> now = co_await read_counters(session, one, kProbePatience);
    if (identity->uptime < uptime || fell(before, now)) {
      co_return true;
    }
    uptime = identity->uptime;
    co_await pause(session, kProbePause);
  }
  co_return false;
}

}  // namespace

Task<RestartMark> mark_restart(Session& session, const Switch& one, Duration patience) {
  RestartMark mark;
  mark.counters = co_await read_counters(session, one, patience);
  co_return mark;
}

Task<EffectReport> await_restart(Session& session, const Switch& one, RestartMark mark,
                                 Duration patience, Duration come_back) {
  const bool down = co_await goes_down(session, one, std::move(mark.counters), patience);
  if (!down) {
    co_return EffectReport{Effect::NotTaken, "the switch was not seen to restart"};
  }
  if (come_back == Duration(0)) {
    co_return EffectReport{Effect::Took, "the switch restarts"};
  }
  const bool back = co_await answers_within(session, one, come_back);
  if (back) {
    co_return EffectReport{Effect::Took, "the switch restarted and answers again"};
  }
  co_return EffectReport{Effect::Silent, "the switch went down and did not come back in time"};
}

Task<EffectReport> restart_switch(Session& session, const Switch& one, bool reset,
                                  Duration patience, Duration come_back) {
  RestartMark mark = co_await mark_restart(session, one, patience);
  if (mark.counters.empty()) {
    // Else the silence of a switch that was gone before would pass for its restart.
    const auto identity = co_await ask_identity(session, one, patience);
    if (!identity) {
      co_return EffectReport{Effect::Silent, "no answer; nothing was sent"};
    }
  }
  const std::string mac = mac_text(one.mac);
  send_set(session, one, reset ? reset_text(mac) : reboot_text(mac));
  co_return co_await await_restart(session, one, std::move(mark), patience, come_back);
}

}  // namespace qel_gateway
