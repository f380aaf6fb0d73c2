// SPDX-License-Identifier: Apache-2.0
#include "qel/qel_stats.h"

#include <array>
#include <cstddef>
#include <cstring>

namespace {

constexpr size_t kRowsMax = 128;
constexpr size_t kDigitsMax = 18;  // fewer than any 64-bit number can overflow with

bool is_digit(char c) {
  return c >= '0' && c <= '9';
}

bool is_plain(char c) {
  return is_digit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '.' || c == '_' ||
         c == '-' || c == '/';
}

// Reads a text from its beginning; every step either takes what it expects or fails.
class scanner {
 public:
  explicit scanner(const char* text) : at_(text), end_(text + std::strlen(text)) {}

  // Of a length that the compiler knows: it then compares words, without a call.
  template <size_t Size>
  bool take(const char (&expected)[Size]) {
    constexpr size_t length = Size - 1;
    if (static_cast<size_t>(end_ - at_) < length || std::memcmp(at_, expected, length) != 0) {
      return false;
    }
    at_ += length;
    return true;
  }

  bool take_name(char (&name)[UIF_NAME_SIZE]) {
    size_t length = 0;
    while (length < sizeof name - 1 && is_plain(at_[length])) {
      name[length] = at_[length];
      ++length;
    }
    name[length] = '\0';
    at_ += length;
    return length > 0 && *at_ == '"';
  }

  // A tree holds numbers as doubles, which are exact up to 2^53; so is what comes out here.
  bool take_number(uint64_t& number) {
    uint64_t value = 0;
    size_t digits = 0;
    while (digits <= kDigitsMax && is_digit(at_[digits])) {
      value = value * 10 + static_cast<uint64_t>(at_[digits] - '0');
      ++digits;
    }
    if (digits == 0 || digits > kDigitsMax || (digits > 1 && *at_ == '0')) {
      return false;
    }
    at_ += digits;
    number = static_cast<uint64_t>(static_cast<double>(value));
    return true;
  }

  [[nodiscard]] bool at_end() const { return at_ == end_; }

 private:
  const char* at_;
  const char* end_;
};

bool take_row(scanner& text, qel_stats_row& row) {
  return text.take("{\"name\":\"") && text.take_name(row.name) && text.take("\",\"tx_sum\":") &&
         text.take_number(row.tx_sum) && text.take(",\"rx_sum\":") &&
         text.take_number(row.rx_sum) && text.take(",\"tx_rate\":") &&
         text.take_number(row.tx_rate) && text.take(",\"rx_rate\":") &&
         text.take_number(row.rx_rate) && text.take("}");
}

// All rows of the reply, in `rows`. Returns how many, 0 for a reply of another form.
size_t read_rows(const char* reply, std::array<qel_stats_row, kRowsMax>& rows) {
  scanner text(reply);
  if (!text.take("{\"ret\":0,\"data\":[")) {
    return 0;
  }
  size_t count = 0;
  do {
    if (count == rows.size() || !take_row(text, rows[count])) {
      return 0;
    }
    ++count;
  } while (text.take(","));
  return text.take("]}") && text.at_end() ? count : 0;
}

}  // namespace

bool qel_stats_read(const char* reply, void (*visit)(const qel_stats_row& row)) {
  static std::array<qel_stats_row, kRowsMax> rows;
  const size_t count = read_rows(reply, rows);
  for (size_t i = 0; i < count; ++i) {
    visit(rows[i]);
  }
  return count > 0;
}
