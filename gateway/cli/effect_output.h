// SPDX-License-Identifier: Apache-2.0
//
// What became of a change, for people and for machines.
#pragma once

#include <string>

#include "gateway/cli/each_switch.h"
#include "gateway/settings.h"

namespace qel_gateway::cli {

// "office-sw (…): port ge3 disable: took: the port is disabled". Done when it took or cannot be
// seen, failed when it did not take, no answer when the switch fell silent.
Told tell_effect(const Context& context, const Switch& one, const std::string& command,
                 const EffectReport& report);

}  // namespace qel_gateway::cli
