// SPDX-License-Identifier: Apache-2.0
//
// Switches on paper: the table of discovered ones, the JSON of one, and messages that were not
// sent. Used by discover, show and every dry run.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "gateway/cli/context.h"

namespace qel_gateway::cli {

// Stands in a dry run for this gateway's MAC, which only an open wire would tell.
inline constexpr std::string_view kUnknownOwnMac = "<own mac>";

OrderedJson identity_json(const Switch& one);

// Short names for `switches`, fit for a terminal: a switch's own name, with the end of its MAC
// behind it where others have the same one; the whole MAC of a switch without a name.
std::vector<std::string> labels_of(const std::vector<Switch>& switches);

Table identity_table(const std::vector<Switch>& switches);

// What --dry-run shows instead of sending: the receiver and the text.
void print_message(const Context& context, const std::string& text, const std::string& receiver);

}  // namespace qel_gateway::cli
