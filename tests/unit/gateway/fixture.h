// SPDX-License-Identifier: Apache-2.0
//
// A session on a fake wire, and the switch that most tests talk to.
#pragma once

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "fake_wire.h"
#include "gateway/discovery.h"
#include "gateway/error.h"
#include "gateway/session.h"

namespace gateway_test {

inline qel_gateway::Switch office_switch() {
  qel_gateway::Switch one;
  one.mac = {{0x0A, 0x1B, 0x2C, 0x3D, 0x4E, 0x5F}};
  one.address = {one.mac, 0, 0};
  one.source = one.address;
  one.identity.mac = one.mac;
  one.identity.name = "office-sw";
  one.identity.model = "QM4410_MODEL";
  one.identity.ip = "192.168.1.10";
  one.identity.prefix = 24;
  one.identity.uptime = 3600;
  return one;
}

class OnFakeWire : public testing::Test {
 protected:
  FakeClock clock;
  FakeWire wire{clock};
  qel_gateway::Session session{wire, clock};
  qel_gateway::Switch office = office_switch();

  // The message of the Error that running `task` throws, and its exit code in `code`.
  template <typename T>
  std::string error_of(qel_gateway::Task<T> task, qel_gateway::ExitCode* code = nullptr) {
    try {
      static_cast<void>(session.run(std::move(task)));
    } catch (const qel_gateway::Error& error) {
      if (code != nullptr) {
        *code = error.code();
      }
      return error.what();
    }
    return "no error";
  }
};

}  // namespace gateway_test
