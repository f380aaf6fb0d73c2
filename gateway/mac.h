// SPDX-License-Identifier: Apache-2.0
//
// MAC addresses as the protocol and its users write them. Used by every file of the gateway.
#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace qel_gateway {

struct MacAddress {
  std::array<uint8_t, 6> bytes{};

  auto operator<=>(const MacAddress&) const = default;
};

// Reads 12 hexadecimal digits, bare or in pairs divided throughout by ':' or by '-'.
// Anything else, the empty text included, gives nothing.
std::optional<MacAddress> parse_mac(std::string_view text);

// 12 lower-case digits without separators: the form of the protocol's "mac" members.
std::string mac_text(const MacAddress& mac);

// Lower-case pairs divided by ':': the form shown to people.
std::string mac_display(const MacAddress& mac);

}  // namespace qel_gateway
