// SPDX-License-Identifier: Apache-2.0
//
// A board file: it is taken whole, or refused with a reason.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "platform/linux/morvad/board.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  try {
    const morvad::Board board =
        morvad::parse_board(std::string(reinterpret_cast<const char*>(data), size), "fuzz");
    if (board.ports.size() > static_cast<size_t>(morvad::kMaxPorts)) {
      std::abort();
    }
  } catch (const morvad::BoardError&) {
  }
  return 0;
}
