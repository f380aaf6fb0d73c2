// SPDX-License-Identifier: Apache-2.0
//
// Time as the gateway measures it. Everything that waits takes a Clock, so that a test can be the
// one who lets time pass.
#pragma once

#include <chrono>

namespace qel_gateway {

using Duration = std::chrono::milliseconds;
using TimePoint = std::chrono::steady_clock::time_point;

class Clock {
 public:
  virtual ~Clock() = default;

  virtual TimePoint now() const = 0;
};

class SteadyClock : public Clock {
 public:
  TimePoint now() const override { return std::chrono::steady_clock::now(); }
};

}  // namespace qel_gateway
