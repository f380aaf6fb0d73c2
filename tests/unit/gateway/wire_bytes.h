// SPDX-License-Identifier: Apache-2.0
//
// Frames for tests, written out byte by byte: nothing here uses the code under test.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace gateway_test {

using Bytes = std::vector<uint8_t>;

// "0a 1b ..." to bytes.
inline Bytes hex(std::string_view digits) {
  Bytes bytes;
  int high = -1;
  for (const char c : digits) {
    const int value = c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
    if (value < 0) {
      continue;
    }
    if (high < 0) {
      high = value;
    } else {
      bytes.push_back(static_cast<uint8_t>(high * 16 + value));
      high = -1;
    }
  }
  return bytes;
}

inline Bytes operator+(Bytes left, std::string_view right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

inline Bytes operator+(Bytes left, const Bytes& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

// Header of a reply from 0a:1b:2c:3d:4e:5f to 02:00:00:00:00:01; `length` is the length field.
inline Bytes reply_head(uint16_t length, std::string_view from = "0a 1b 2c 3d 4e 5f") {
  Bytes head = hex("02 00 00 00 00 01") + hex(from) + hex("93 03 00 00 ba be");
  head.push_back(static_cast<uint8_t>(length >> 8));
  head.push_back(static_cast<uint8_t>(length & 0xff));
  return head + Bytes(12, 0);
}

}  // namespace gateway_test
