// SPDX-License-Identifier: Apache-2.0
//
// Reading and writing MAC addresses.
#include "gateway/mac.h"

#include <fmt/format.h>

namespace qel_gateway {

namespace {

int hex_digit(char c) {
  if (c >= '0' && c <= '9') {
    return c - '0';
  }
  if (c >= 'a' && c <= 'f') {
    return c - 'a' + 10;
  }
  if (c >= 'A' && c <= 'F') {
    return c - 'A' + 10;
  }
  return -1;
}

}  // namespace

std::optional<MacAddress> parse_mac(std::string_view text) {
  constexpr size_t kBare = 12;
  constexpr size_t kDivided = 17;
  if (text.size() != kBare && text.size() != kDivided) {
    return std::nullopt;
  }
  const char divider = text.size() == kDivided ? text[2] : '\0';
  if (text.size() == kDivided && divider != ':' && divider != '-') {
    return std::nullopt;
  }
  const size_t step = text.size() == kDivided ? 3 : 2;
  MacAddress mac;
  for (size_t i = 0; i < mac.bytes.size(); ++i) {
    const int high = hex_digit(text[i * step]);
    const int low = hex_digit(text[i * step + 1]);
    if (high < 0 || low < 0 || (step == 3 && i < 5 && text[i * step + 2] != divider)) {
      return std::nullopt;
    }
    mac.bytes[i] = static_cast<uint8_t>(high * 16 + low);
  }
  return mac;
}

std::string mac_text(const MacAddress& mac) {
  const auto& b = mac.bytes;
  return fmt::format("{:02x}{:02x}{:02x}{:02x}{:02x}{:02x}", b[0], b[1], b[2], b[3], b[4], b[5]);
}

std::string mac_display(const MacAddress& mac) {
  const auto& b = mac.bytes;
  return fmt::format("{:02x}:{:02x}:{:02x}:{:02x}:{:02x}:{:02x}", b[0], b[1], b[2], b[3], b[4],
                     b[5]);
}

}  // namespace qel_gateway
