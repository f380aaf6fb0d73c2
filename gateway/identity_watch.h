// SPDX-License-Identifier: Apache-2.0
//
// Asking one known switch again who it is. Used by settings and transfers to see what became of it.
#pragma once

#include <optional>

#include "gateway/discovery.h"
#include "gateway/session.h"

namespace qel_gateway {

// Probes `one` once; nothing when it does not answer within `patience`. Throws Interrupted.
Task<std::optional<Identity>> ask_identity(Session& session, const Switch& one, Duration patience);

// Probes until `one` answers or `duration` is over. Throws Interrupted.
Task<bool> answers_within(Session& session, const Switch& one, Duration duration);

}  // namespace qel_gateway
