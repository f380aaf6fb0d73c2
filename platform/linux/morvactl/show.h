// SPDX-License-Identifier: Apache-2.0
//
// What `morvactl show` prints.
#ifndef MORVA_LINUX_MORVACTL_SHOW_H
#define MORVA_LINUX_MORVACTL_SHOW_H

#include <nlohmann/json.hpp>
#include <string>

namespace morvactl {

/// The switch for people: a few lines about it, then one row for each port. `state` is the answer
/// of the control command "show".
std::string switch_table(const nlohmann::json& state);

/// A firmware state for people: "idle", "writing (detail 3)".
std::string firmware_text(const nlohmann::json& firmware);

}  // namespace morvactl

#endif  // MORVA_LINUX_MORVACTL_SHOW_H
