// SPDX-License-Identifier: Apache-2.0
#include "tests/bench/snmp.h"

#include <algorithm>

namespace bench {
namespace {

constexpr int kInteger = 0x02;
constexpr int kText = 0x04;
constexpr int kNull = 0x05;
constexpr int kObject = 0x06;
constexpr int kSequence = 0x30;
constexpr int kGetBulk = 0xA5;

void put(std::string& out, uint32_t byte) {
  out += static_cast<char>(byte);
}

std::string tagged(int tag, const std::string& content) {
  std::string out;
  put(out, static_cast<uint32_t>(tag));
  if (content.size() >= 256) {
    put(out, 0x82);
    put(out, static_cast<uint32_t>(content.size() >> 8));
  } else if (content.size() >= 128) {
    put(out, 0x81);
  }
  put(out, static_cast<uint32_t>(content.size() & 0xFF));
  return out + content;
}

// Always four bytes, so that every request of a run is of one size.
std::string number(uint32_t value) {
  std::string content;
  for (unsigned shift = 32; shift != 0; shift -= 8) {
    put(content, value >> (shift - 8) & 0xFF);
  }
  return tagged(kInteger, content);
}

std::string object(std::vector<uint32_t> arcs) {
  std::string content;
  for (const uint32_t arc : arcs) {
    std::string digits;
    uint32_t rest = arc;
    put(digits, rest & 0x7F);
    while ((rest >>= 7) != 0) {
      put(digits, (rest & 0x7F) | 0x80);
    }
    std::reverse(digits.begin(), digits.end());
    content += digits;
  }
  return tagged(kObject, content);
}

}  // namespace

std::string snmp_bulk_request(uint32_t id, uint32_t after, uint32_t rows) {
  // 1.3 as one arc, then the column, then the row behind which to begin.
  const std::vector<std::vector<uint32_t>> columns = {{43, 6, 1, 2, 1, 2, 2, 1, 8},
                                                      {43, 6, 1, 2, 1, 31, 1, 1, 1, 6},
                                                      {43, 6, 1, 2, 1, 31, 1, 1, 1, 10}};
  std::string bindings;
  for (std::vector<uint32_t> column : columns) {
    column.push_back(after);
    bindings += tagged(kSequence, object(column) + tagged(kNull, ""));
  }
  const std::string request = number(id) + number(0) + number(rows) + tagged(kSequence, bindings);
  return tagged(kSequence, number(1) + tagged(kText, "public") + tagged(kGetBulk, request));
}

bool snmp_is_answer(const std::string& reply, uint32_t id) {
  // The agent shortens numbers, so ids of a run have their second-highest bit set: four bytes.
  const std::string marked = number(id) + tagged(kInteger, std::string(1, '\0'));
  return reply.find(marked) != std::string::npos;
}

}  // namespace bench
