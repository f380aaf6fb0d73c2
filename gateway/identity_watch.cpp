// SPDX-License-Identifier: Apache-2.0
//
// One probe, one answer.
#include "gateway/identity_watch.h"

#include "gateway/error.h"

namespace qel_gateway {

Task<std::optional<Identity>> ask_identity(Session& session, const Switch& one, Duration patience) {
  std::optional<Identity> found;
  const uint32_t tick = session.next_tick();
  Question question;
  question.to = one.address;
  question.mac = one.mac;
  question.subjects = {"answer"};
  question.text = probe_text(mac_text(session.transport().own_mac()), tick);
  question.patience = patience;
  question.take = [&found, tick](const Reply& reply) {
    const Identity identity = read_identity(reply.data);
    if (identity.ntick != static_cast<int64_t>(tick) || identity.mac != reply.mac) {
      return Verdict::Ignore;
    }
    found = identity;
    return Verdict::Done;
  };
  auto wait = session.ask(std::move(question));
  const Outcome outcome = co_await wait;
  if (outcome == Outcome::Interrupted) {
    throw Interrupted();
  }
  co_return found;
}

Task<bool> answers_within(Session& session, const Switch& one, Duration duration) {
  constexpr Duration kStep{500};
  const TimePoint end = session.now() + duration;
  while (session.now() < end) {
    const auto identity = co_await ask_identity(session, one, kStep);
    if (identity) {
      co_return true;
    }
  }
  co_return false;
}

}  // namespace qel_gateway
