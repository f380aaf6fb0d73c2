// SPDX-License-Identifier: Apache-2.0
//
// Readers of what switches say.
#include "gateway/messages.h"

#include <limits>

namespace qel_gateway {

namespace {

constexpr int64_t kInt32Min = std::numeric_limits<int32_t>::min();
constexpr int64_t kInt32Max = std::numeric_limits<int32_t>::max();
constexpr int64_t kInt64Max = std::numeric_limits<int64_t>::max();
constexpr size_t kTextLongest = 256;

int small(const Json& data, const char* name, int64_t least, int64_t most) {
  return static_cast<int>(integer_member(data, name, least, most));
}

}  // namespace

Identity read_identity(const Json& data) {
  Identity identity;
  const auto mac = parse_mac(text_member(data, "mac"));
  if (!mac) {
    throw BadReply("\"mac\" is no MAC address");
  }
  identity.mac = *mac;
  identity.ip = text_member(data, "sys_ip", kTextLongest);
  identity.prefix = small(data, "sys_mask", 0, 32);
  identity.name = text_member(data, "name", kTextLongest);
  identity.model = text_member(data, "model", kTextLongest);
  identity.type = text_member(data, "type", kTextLongest);
  identity.uptime = integer_member(data, "uptime", 0, kInt64Max);
  identity.hw_version = text_member(data, "hw_version", kTextLongest);
  identity.sw_version = text_member(data, "sw_version", kTextLongest);
  identity.active = small(data, "active", kInt32Min, kInt32Max);
  identity.sys_active = small(data, "sys_active", kInt32Min, kInt32Max);
  identity.cpu = small(data, "cpu", 0, 100);
  identity.mem = small(data, "mem", 0, 100);
  identity.ntick = integer_member(data, "ntick", kInt32Min, kInt32Max);
  return identity;
}

}  // namespace qel_gateway
