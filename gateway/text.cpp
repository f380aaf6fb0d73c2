// SPDX-License-Identifier: Apache-2.0
//
// Sanitizing, measuring and shortening of text.
#include "gateway/text.h"

#include <array>

#include <fmt/format.h>

namespace qel_gateway {

namespace {

struct Range {
  uint32_t first;
  uint32_t last;
};

// Characters that move the cursor, reorder the line, or cannot be seen.
constexpr Range kHarmful[] = {
    {0x0000, 0x001F}, {0x007F, 0x009F},    {0x00AD, 0x00AD}, {0x0300, 0x036F}, {0x061C, 0x061C},
    {0x180E, 0x180E}, {0x200B, 0x200F},    {0x2028, 0x202E}, {0x2060, 0x206F}, {0x20D0, 0x20FF},
    {0xD800, 0xDFFF}, {0xE000, 0xF8FF},    {0xFE00, 0xFE0F}, {0xFE20, 0xFE2F}, {0xFEFF, 0xFEFF},
    {0xFFF0, 0xFFFF}, {0xE0000, 0x10FFFF},
};

constexpr Range kWide[] = {
    {0x1100, 0x115F}, {0x2E80, 0x303E},   {0x3041, 0x33FF},   {0x3400, 0x4DBF}, {0x4E00, 0x9FFF},
    {0xA000, 0xA4CF}, {0xAC00, 0xD7A3},   {0xF900, 0xFAFF},   {0xFE30, 0xFE6F}, {0xFF00, 0xFF60},
    {0xFFE0, 0xFFE6}, {0x1F300, 0x1FAFF}, {0x20000, 0x3FFFD},
};

template <size_t N>
bool within(const Range (&ranges)[N], uint32_t code) {
  for (const Range& range : ranges) {
    if (code >= range.first && code <= range.last) {
      return true;
    }
  }
  return false;
}

struct Character {
  uint32_t code = 0;
  size_t bytes = 1;
  bool valid = false;
};

size_t sequence_length(uint8_t lead) {
  if (lead < 0x80) {
    return 1;
  }
  if (lead >= 0xC2 && lead <= 0xDF) {
    return 2;
  }
  if (lead >= 0xE0 && lead <= 0xEF) {
    return 3;
  }
  return lead >= 0xF0 && lead <= 0xF4 ? 4 : 0;
}

// The character at the start of `text`, which is not empty.
Character decode(std::string_view text) {
  constexpr std::array<uint32_t, 5> kLeast = {0, 0, 0x80, 0x800, 0x10000};
  constexpr std::array<uint8_t, 5> kLeadBits = {0, 0x7F, 0x1F, 0x0F, 0x07};
  const auto lead = static_cast<uint8_t>(text[0]);
  const size_t length = sequence_length(lead);
  if (length == 0 || length > text.size()) {
    return {};
  }
  uint32_t code = lead & kLeadBits[length];
  for (size_t i = 1; i < length; ++i) {
    const auto next = static_cast<uint8_t>(text[i]);
    if ((next & 0xC0) != 0x80) {
      return {};
    }
    code = code << 6 | (next & 0x3FU);
  }
  constexpr uint32_t kLast = 0x10FFFF;
  if ((length > 1 && code < kLeast[length]) || code > kLast) {
    return {};
  }
  return {code, length, true};
}

size_t width_of(const Character& character) {
  return character.valid && within(kWide, character.code) ? 2 : 1;
}

}  // namespace

std::string terminal_text(std::string_view text, size_t limit) {
  std::string safe;
  for (size_t count = 0; !text.empty() && count < limit; ++count) {
    const Character character = decode(text);
    if (!character.valid || within(kHarmful, character.code)) {
      safe += '?';
    } else {
      safe += text.substr(0, character.bytes);
    }
    text.remove_prefix(character.bytes);
  }
  return safe;
}

size_t text_width(std::string_view text) {
  size_t width = 0;
  while (!text.empty()) {
    const Character character = decode(text);
    width += width_of(character);
    text.remove_prefix(character.bytes);
  }
  return width;
}

std::string fit_text(std::string_view text, size_t width) {
  if (text_width(text) <= width) {
    return std::string(text);
  }
  if (width == 0) {
    return {};
  }
  std::string kept;
  size_t used = 0;
  while (!text.empty()) {
    const Character character = decode(text);
    if (used + width_of(character) > width - 1) {
      break;
    }
    used += width_of(character);
    kept += text.substr(0, character.bytes);
    text.remove_prefix(character.bytes);
  }
  return kept + "…";
}

std::string short_duration(int64_t seconds) {
  constexpr int64_t kMinute = 60;
  constexpr int64_t kHour = 60 * kMinute;
  constexpr int64_t kDay = 24 * kHour;
  if (seconds < kMinute) {
    return fmt::format("{}s", seconds);
  }
  if (seconds < kHour) {
    return fmt::format("{}m {}s", seconds / kMinute, seconds % kMinute);
  }
  if (seconds < kDay) {
    return fmt::format("{}h {}m", seconds / kHour, seconds % kHour / kMinute);
  }
  return fmt::format("{}d {}h", seconds / kDay, seconds % kDay / kHour);
}

namespace {

// `value` in the largest unit that leaves it at 1 or more, with one decimal below 10.
template <size_t N>
std::string scaled(uint64_t value, const std::array<std::string_view, N>& units) {
  constexpr uint64_t kStep = 1000;
  uint64_t unit_value = 1;
  size_t unit = 0;
  while (unit + 1 < N && value / unit_value >= kStep) {
    unit_value *= kStep;
    ++unit;
  }
  const uint64_t whole = value / unit_value;
  if (unit == 0 || whole >= 10) {
    return fmt::format("{}{}", whole, units[unit]);
  }
  return fmt::format("{}.{}{}", whole, value % unit_value / (unit_value / 10), units[unit]);
}

}  // namespace

std::string short_count(uint64_t value) {
  constexpr std::array<std::string_view, 7> kUnits = {"", "k", "M", "G", "T", "P", "E"};
  return scaled(value, kUnits);
}

std::string short_size(uint64_t bytes) {
  constexpr std::array<std::string_view, 7> kUnits = {" B",  " KB", " MB", " GB",
                                                      " TB", " PB", " EB"};
  return scaled(bytes, kUnits);
}

}  // namespace qel_gateway
