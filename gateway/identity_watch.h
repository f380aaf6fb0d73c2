// SPDX-License-Identifier: Apache-2.0
//
// Asking one known switch again who it is. Used by settings and transfers to see what became of it.
#pragma once

#include <optional>

#include "gateway/discovery.h"
#include "gateway/session.h"

namespace qel_gateway {

// One probe to `one`; nothing when it does not answer within `patience`. Throws Interrupted.
Task<std::optional<Identity>> ask_identity(Session& session, const Switch& one, Duration patience);

}  // namespace qel_gateway
