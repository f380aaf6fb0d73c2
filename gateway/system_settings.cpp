// SPDX-License-Identifier: Apache-2.0
//
// Settings of the switch as a whole, and how their effect is seen.
#include <algorithm>
#include <cstdlib>
#include <limits>

#include <fmt/format.h>

#include "gateway/error.h"
#include "gateway/identity_watch.h"
#include "gateway/requests.h"
#include "gateway/settings.h"
#include "gateway/settings_internal.h"
#include "gateway/text.h"

namespace qel_gateway {

namespace {

struct SystemReport {
  bool failed = false;
  ClockReport values;
};

SystemReport read_system_report(const Json& data) {
  SystemReport report;
  if (data.is_object() && data.contains("ret")) {
    report.failed = true;
    return report;
  }
  constexpr int64_t kMost = std::numeric_limits<int64_t>::max();
  report.values.ip = text_member(data, "sys_ip");
  report.values.prefix = static_cast<int>(integer_member(data, "sys_mask", 0, 32));
  report.values.dhcp = integer_member(data, "dhcp", std::numeric_limits<int32_t>::min(),
                                      std::numeric_limits<int32_t>::max()) != 0;
  report.values.timestamp = integer_member(data, "timestamp", 0, kMost);
  return report;
}

// Sends `text` and waits for the "sys_info" that answers it. `sends`: 1 for a set.
Task<std::optional<SystemReport>> ask_system(Session& session, const Switch& one, std::string text,
                                             int sends, Duration patience) {
  std::optional<SystemReport> report;
  Question question;
  question.to = one.address;
  question.source = one.source;
  question.mac = one.mac;
  question.subjects = {"sys_info"};
  question.text = std::move(text);
  question.patience = patience;
  question.sends = sends;
  question.take = [&report](const Reply& reply) {
    report = read_system_report(reply.data);
    return Verdict::Done;
  };
  auto wait = session.ask(std::move(question));
  const Outcome outcome = co_await wait;
  if (outcome == Outcome::Interrupted) {
    throw Interrupted();
  }
  co_return report;
}

// Looks at the identity until `judge` is content.
Task<EffectReport> look_at_identity(Session& session, const Switch& one, Duration patience,
                                    std::function<EffectReport(const Identity&)> judge) {
  const auto look = [&session, &one, patience, judge]() -> Task<EffectReport> {
    const auto identity = co_await ask_identity(session, one, patience);
    co_return identity
        ? judge(*identity)
        : EffectReport{Effect::Silent, "sent, but the switch does not answer any more"};
  };
  co_return co_await look_until(session, patience, look);
}

std::string address_words(const std::string& ip, int prefix) {
  return fmt::format("the switch has {}/{}", terminal_text(ip), prefix);
}

}  // namespace

Task<ClockReport> read_clock(Session& session, const Switch& one, Duration patience) {
  constexpr int kSends = 2;
  const auto report =
      co_await ask_system(session, one, clock_text(mac_text(one.mac)), kSends, patience);
  if (!report) {
    throw Error("the switch does not tell its clock", ExitCode::NoAnswer);
  }
  co_return report->values;
}

Task<EffectReport> set_address(Session& session, const Switch& one, std::string ip, int prefix,
                               Duration patience) {
  if (one.identity.ip == ip) {
    const bool same = one.identity.prefix == prefix;
    co_return EffectReport{
        same ? Effect::Took : Effect::NotTaken,
        same ? "the switch has that address already"
             : fmt::format("the switch has {}/{} and ignores a change of the prefix alone; go by "
                           "way of another address",
                           terminal_text(ip), one.identity.prefix)};
  }
  const auto answer =
      co_await ask_system(session, one, address_text(mac_text(one.mac), ip, prefix), 1, patience);
  if (answer && answer->failed) {
    co_return EffectReport{Effect::NotTaken, "the switch refused the address"};
  }
  if (answer && answer->values.ip == ip && answer->values.prefix == prefix) {
    co_return EffectReport{Effect::Took, address_words(ip, prefix)};
  }
  co_return co_await look_at_identity(session, one, patience, [&](const Identity& now) {
    const bool taken = now.ip == ip && now.prefix == prefix;
    return EffectReport{taken ? Effect::Took : Effect::NotTaken, address_words(now.ip, now.prefix)};
  });
}

Task<EffectReport> set_clock(Session& session, const Switch& one, int64_t seconds,
                             Duration patience) {
  constexpr int64_t kTolerance = 2;  // seconds, for the way there and back
  const TimePoint sent = session.now();
  const auto answer =
      co_await ask_system(session, one, set_clock_text(mac_text(one.mac), seconds), 1, patience);
  if (!answer) {
    co_return EffectReport{Effect::Silent, "sent, but the switch does not answer"};
  }
  const auto passed =
      std::chrono::duration_cast<std::chrono::seconds>(session.now() - sent).count();
  // Without sign, because a reply may say anything; what would overflow is far off all the same.
  const auto off = static_cast<int64_t>(static_cast<uint64_t>(answer->values.timestamp) -
                                        static_cast<uint64_t>(seconds));
  const bool taken = !answer->failed && off >= -kTolerance && off <= passed + kTolerance;
  co_return EffectReport{taken ? Effect::Took : Effect::NotTaken,
                         fmt::format("the switch's clock says {}", answer->values.timestamp)};
}

Task<EffectReport> set_name(Session& session, const Switch& one, std::string name,
                            Duration patience) {
  check_name(name);
  send_set(session, one, name_text(mac_text(one.mac), name));
  co_return co_await look_at_identity(session, one, patience, [&name](const Identity& now) {
    return EffectReport{now.name == name ? Effect::Took : Effect::NotTaken,
                        fmt::format("the switch is called \"{}\"", terminal_text(now.name))};
  });
}

Task<EffectReport> set_active(Session& session, const Switch& one, int seconds, Duration patience) {
  send_set(session, one, active_text(mac_text(one.mac), seconds));
  const TimePoint sent = session.now();
  co_return co_await look_at_identity(session, one, patience, [&, sent](const Identity& now) {
    const auto passed =
        std::chrono::duration_cast<std::chrono::seconds>(session.now() - sent).count();
    // The count falls by one each second, and a tick may come at once.
    const int64_t least = seconds == 0 ? 0 : std::max<int64_t>(0, seconds - passed - 2);
    const bool taken = now.sys_active >= least && now.sys_active <= seconds;
    return EffectReport{taken ? Effect::Took : Effect::NotTaken,
                        fmt::format("the switch counts down from {}", now.sys_active)};
  });
}

Task<EffectReport> fetch_firmware(Session& session, const Switch& one, std::string location,
                                  Duration patience) {
  check_location(location);
  send_set(session, one, fetch_firmware_text(mac_text(one.mac), location));
  const bool back = co_await answers_within(session, one, patience);
  if (!back) {
    co_return EffectReport{Effect::Silent, "sent; the switch has not answered since"};
  }
  co_return EffectReport{Effect::Unseen,
                         "sent; the switch answers again, and does not say whether it fetched the "
                         "image"};
}

}  // namespace qel_gateway
