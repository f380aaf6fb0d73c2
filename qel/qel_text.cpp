// SPDX-License-Identifier: Apache-2.0
#include "qel/qel_text.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace {

bool is_plain_byte(char c) {
  constexpr unsigned char kFirstPrintable = 0x20;
  constexpr unsigned char kDelete = 0x7f;
  const auto byte = static_cast<unsigned char>(c);
  return byte >= kFirstPrintable && byte != kDelete && c != '"' && c != '\\';
}

}  // namespace

qel_text::qel_text(char* area, size_t size) : area_(area), size_(size) {
  area_[0] = '\0';
}

void qel_text::printf(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const size_t at = stored();
  const int wanted = std::vsnprintf(area_ + at, size_ - at, format, arguments);
  va_end(arguments);
  if (wanted > 0) {
    length_ += static_cast<size_t>(wanted);
  }
}

void qel_text::put(std::string_view text) {
  const size_t size = text.size();
  if (length_ >= size_ || size >= size_ - length_) {
    put_cut(text);
    return;
  }
  char* at = area_ + length_;
  std::memcpy(at, text.data(), size);
  at[size] = '\0';
  length_ += size;
}

// For a text that does not fit, or only without its NUL.
void qel_text::put_cut(std::string_view text) {
  const size_t at = stored();
  const size_t room = overflowed() ? 0 : size_ - 1 - at;
  const size_t taken = text.size() < room ? text.size() : room;
  if (taken > 0) {
    std::memcpy(area_ + at, text.data(), taken);
    area_[at + taken] = '\0';
  }
  length_ += text.size();
}

void qel_text::put_plain(std::string_view text) {
  if (qel_text_is_plain(text)) {
    put(text);
    return;
  }
  for (const char c : text) {
    if (is_plain_byte(c)) {
      put(c);
    }
  }
}

void qel_text::put_uint(uint64_t number) {
  if (number < 10) {
    put(static_cast<char>('0' + number));
    return;
  }
  char digits[20];
  size_t first = sizeof digits;
  do {
    digits[--first] = static_cast<char>('0' + number % 10);
    number /= 10;
  } while (number != 0);
  put(std::string_view(digits + first, sizeof digits - first));
}

void qel_text::put_int(int64_t number) {
  if (number < 0) {
    put('-');
    put_uint(0 - static_cast<uint64_t>(number));
  } else {
    put_uint(static_cast<uint64_t>(number));
  }
}

void qel_text::put_mac(const uint8_t mac[6]) {
  static constexpr char kDigits[] = "0123456789abcdef";
  char text[12];
  for (size_t i = 0; i < 6; ++i) {
    text[2 * i] = kDigits[mac[i] >> 4];
    text[2 * i + 1] = kDigits[mac[i] & 0x0F];
  }
  put(std::string_view(text, sizeof text));
}

bool qel_text_is_plain(std::string_view text) {
  return std::all_of(text.begin(), text.end(), is_plain_byte);
}

void qel_text_clear(char* bytes, size_t size) {
  std::memset(bytes, 0, size);
}
