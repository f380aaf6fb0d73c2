// SPDX-License-Identifier: Apache-2.0
//
// Which switches a command means: a MAC, a name, all, or the only one.
#pragma once

#include <string>
#include <vector>

#include "gateway/discovery.h"

namespace qel_gateway {

struct Selection {
  std::vector<Switch> switches;     // at least one
  std::vector<std::string> faults;  // answers that were dropped, one line each
};

// How long a search goes on that a name or the empty selector does not end. A switch that waits for
// one of its modules is silent for two seconds, and answers a probe only then.
enum class Search {
  Whole,  // all of the window: for whatever would do harm to the wrong switch
  Quick,  // until no further switch has answered for a while: for those who only look
};

// `selector` is a MAC, a name (compared as it stands), "all", or empty for the only switch there
// is. Probes for at most `window`; a MAC ends the search with its answer. Throws Error when none
// answers (no answer), and when a name or the empty selector fits more than one (usage, naming
// them); Interrupted.
Task<Selection> select_switches(Session& session, std::string selector, Duration window,
                                Search search);

}  // namespace qel_gateway
