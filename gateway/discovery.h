// SPDX-License-Identifier: Apache-2.0
//
// Finding switches: probes go out, answers are gathered for a while. A probe also makes the gateway
// present in the switch for about ten seconds, which is what lets traps through.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "gateway/messages.h"
#include "gateway/session.h"

namespace qel_gateway {

// A switch that answered.
struct Switch {
  MacAddress mac;  // its identity, the "mac" of its messages
  Peer address;    // where requests go
  Peer source;     // whose frames or datagrams are its replies
  Identity identity;
};

struct DiscoveryOptions {
  Duration window{1500};
  int probes = 3;                  // spread over the window, as frames get lost
  size_t expected = 0;             // ends when so many have answered; 0: waits out the window
  Duration quiet{0};               // ends when no new switch answered for so long; 0: never
  std::optional<MacAddress> only;  // asks this one alone, and ends with its answer
};

struct Discovery {
  std::vector<Switch> switches;     // by MAC, each once
  std::vector<std::string> faults;  // one line each: answers that were dropped, and why
  bool interrupted = false;
};

// The text of a probe: `gateway` is the name by which the switch remembers the sender, its MAC as
// mac_text() writes it.
std::string probe_text(std::string_view gateway, uint32_t tick);

Task<Discovery> discover(Session& session, DiscoveryOptions options);

// Sends one probe to everybody and does not wait.
void announce(Session& session);

}  // namespace qel_gateway
