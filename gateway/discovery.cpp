// SPDX-License-Identifier: Apache-2.0
//
// Probing.
#include "gateway/discovery.h"

#include <algorithm>

#include <fmt/format.h>

#include "gateway/error.h"

namespace qel_gateway {

namespace {

constexpr const char* kSubject = "answer";

// More than any wire has; whoever invents answers is stopped here.
constexpr size_t kSwitchesMost = 4096;
constexpr size_t kFaultsMost = 20;

void note_fault(Discovery& found, std::string fault) {
  if (found.faults.size() > kFaultsMost ||
      std::ranges::find(found.faults, fault) != found.faults.end()) {
    return;
  }
  if (found.faults.size() == kFaultsMost) {
    fault = "and more answers were dropped";
  }
  found.faults.push_back(std::move(fault));
}

std::string display(const Peer& peer) {
  if (peer.port == 0) {
    return mac_display(peer.mac);
  }
  return fmt::format("{}.{}.{}.{}", peer.ip >> 24, peer.ip >> 16 & 0xFF, peer.ip >> 8 & 0xFF,
                     peer.ip & 0xFF);
}

// Notes an answer. False for a second one of the same switch, which changes nothing.
bool note_answer(const Reply& reply, const Identity& identity, Session& session, Discovery& found) {
  const auto same = std::ranges::find(found.switches, reply.mac, &Switch::mac);
  if (same == found.switches.end() && found.switches.size() == kSwitchesMost) {
    note_fault(found, fmt::format("more than {} switches: the others are left out", kSwitchesMost));
    return false;
  }
  if (same == found.switches.end()) {
    found.switches.push_back(
        Switch{reply.mac, session.transport().address_of(reply.mac), reply.from, identity});
    if (session.transport().address_of(reply.mac) == Peer{}) {
      found.switches.back().address = reply.from;
    }
    return true;
  }
  if (!(same->source == reply.from)) {
    note_fault(found, fmt::format("two switches call themselves {}; the second is left out",
                                  mac_display(reply.mac)));
  }
  return false;
}

}  // namespace

std::string probe_text(std::string_view gateway, uint32_t tick) {
  return fmt::format(R"({{"mac":"{}","cmd":"probe","subcmd":"probe","data":{{"ntick":{}}}}})",
                     gateway, tick);
}

Task<Discovery> discover(Session& session, DiscoveryOptions options) {
  Discovery found;
  const uint32_t tick = session.next_tick();
  Question question;
  question.to = options.only ? session.transport().address_of(*options.only)
                             : session.transport().everybody();
  if (question.to == Peer{}) {
    question.to = session.transport().everybody();
  }
  question.mac = options.only;
  question.subjects = {kSubject};
  question.text = probe_text(mac_text(session.transport().own_mac()), tick);
  question.patience = options.window;
  question.sends = options.probes;
  question.whole_time = options.quiet == Duration(0);
  question.quiet = options.quiet;
  question.take = [&](const Reply& reply) {
    const Identity identity = read_identity(reply.data);
    if (identity.ntick != static_cast<int64_t>(tick)) {
      return Verdict::Ignore;
    }
    if (identity.mac != reply.mac) {
      throw BadReply("the answer names two MAC addresses");
    }
    if (!note_answer(reply, identity, session, found)) {
      return Verdict::Seen;
    }
    const bool complete = options.expected > 0 && found.switches.size() >= options.expected;
    return options.only || complete ? Verdict::Done : Verdict::More;
  };
  auto before = session.on_bad_reply([&found](const Peer& from, const std::string& why) {
    note_fault(found, fmt::format("an answer of {} cannot be read: {}", display(from), why));
  });
  Outcome outcome = Outcome::Silent;
  try {
    auto wait = session.ask(std::move(question));
    outcome = co_await wait;
  } catch (const Error&) {
    session.on_bad_reply(std::move(before));
    throw;
  }
  session.on_bad_reply(std::move(before));
  found.interrupted = outcome == Outcome::Interrupted;
  std::ranges::sort(found.switches, {}, &Switch::mac);
  co_return found;
}

void announce(Session& session) {
  session.transport().send(session.transport().everybody(),
                           probe_text(mac_text(session.transport().own_mac()), session.next_tick()),
                           {}, false);
}

}  // namespace qel_gateway
