// SPDX-License-Identifier: Apache-2.0
//
// What switches say, as typed records. Each reader takes the "data" of a reply and throws BadReply
// when a member is missing, of the wrong type or out of range; texts are kept as they came and must
// pass terminal_text() before they are shown.
#pragma once

#include <cstdint>
#include <string>

#include "gateway/json.h"
#include "gateway/mac.h"

namespace qel_gateway {

// The answer to a probe: who the switch is and how it does.
struct Identity {
  MacAddress mac;
  std::string ip;  // of the management interface; empty when it has none
  int prefix = 0;
  std::string name;
  std::string model;
  std::string type;
  int64_t uptime = 0;  // seconds
  std::string hw_version;
  std::string sw_version;
  int active = 0;
  int sys_active = 0;  // the controller's countdown, seconds
  int cpu = 0;         // percent
  int mem = 0;         // percent
  int64_t ntick = 0;   // of the probe that is answered
};

Identity read_identity(const Json& data);

}  // namespace qel_gateway
