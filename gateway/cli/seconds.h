// SPDX-License-Identifier: Apache-2.0
//
// Lengths of time on the command line.
#pragma once

#include <cmath>

#include <fmt/format.h>
#include <CLI/CLI.hpp>

namespace qel_gateway::cli {

// Takes numbers of seconds from `low` to `high`, both included. CLI11's own range lets pass what is
// no number ("nan"), and there is no clock to set by that.
inline CLI::Validator seconds_range(double low, double high) {
  const auto check = [low, high](const std::string& text) -> std::string {
    double seconds = std::nan("");
    if (CLI::detail::lexical_cast(text, seconds) && seconds >= low && seconds <= high) {
      return "";
    }
    return fmt::format("{} is no number of seconds from {} to {}", text, low, high);
  };
  return CLI::Validator(check, "");
}

}  // namespace qel_gateway::cli
