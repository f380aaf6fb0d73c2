// SPDX-License-Identifier: Apache-2.0
//
// Configuration archives made byte by byte: gzip around tar, whole or with faults.
#pragma once

#include <gtest/gtest.h>
#include <zlib.h>

#include <algorithm>
#include <cstdio>
#include <string_view>

#include "wire_bytes.h"

namespace gateway_test {

inline Bytes gzip(const Bytes& plain) {
  Bytes out(plain.size() + 1024);
  z_stream stream = {};
  EXPECT_EQ(deflateInit2(&stream, 9, Z_DEFLATED, 16 + 15, 8, Z_DEFAULT_STRATEGY), Z_OK);
  Bytes copy = plain;
  stream.next_in = copy.data();
  stream.avail_in = static_cast<uInt>(copy.size());
  stream.next_out = out.data();
  stream.avail_out = static_cast<uInt>(out.size());
  EXPECT_EQ(deflate(&stream, Z_FINISH), Z_STREAM_END);
  out.resize(stream.total_out);
  deflateEnd(&stream);
  return out;
}

inline void put(Bytes& header, size_t at, std::string_view text) {
  std::copy(text.begin(), text.end(), header.begin() + static_cast<ptrdiff_t>(at));
}

// A tar header with its checksum; `prefix` as ustar has it.
inline Bytes header(std::string_view name, std::string_view octal_size, char type = '0',
                    std::string_view prefix = "") {
  Bytes block(512, 0);
  put(block, 0, name);
  put(block, 100, "0000640");
  put(block, 124, octal_size);
  put(block, 136, "00000000000");
  block[156] = static_cast<uint8_t>(type);
  put(block, 257, "ustar");
  put(block, 263, "00");
  put(block, 345, prefix);
  put(block, 148, "        ");
  unsigned sum = 0;
  for (const uint8_t byte : block) {
    sum += byte;
  }
  char text[8];
  std::snprintf(text, sizeof text, "%06o", sum);
  put(block, 148, std::string_view(text, 7));
  return block;
}

inline Bytes member(std::string_view name, std::string_view content) {
  char size[13];
  std::snprintf(size, sizeof size, "%011zo", content.size());
  Bytes bytes = header(name, size) + content;
  bytes.resize((bytes.size() + 511) / 512 * 512, 0);
  return bytes;
}

// What a tar ends with.
inline const Bytes kTarEnd(1024, 0);

}  // namespace gateway_test
