// SPDX-License-Identifier: Apache-2.0
//
// morvactl's two ways to the switch: a query to morvad's control module, and a local event to the
// agent. Both end with an answer or a Failure that says what to do.
#ifndef MORVA_LINUX_MORVACTL_CLIENT_H
#define MORVA_LINUX_MORVACTL_CLIENT_H

#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>

namespace morvactl {

using nlohmann::json;

/// The command did not succeed; what() is for the person at the terminal.
struct Failure : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// Sends {"mdl":"morvad","cmd":command,"data":payload} and returns the answer's "data" (null when
/// it has none). A null `payload` is left out. Throws Failure.
json control(const std::string& command, const json& payload = nullptr);

/// Sends one datagram to the agent's local event socket. Throws Failure.
void send_event(const std::string& text);

}  // namespace morvactl

#endif  // MORVA_LINUX_MORVACTL_CLIENT_H
