// SPDX-License-Identifier: Apache-2.0
//
// Building request frames and reading reply frames. A frame is
//
//   0         6       12    14  16      18      20         32
//   | to MAC  | from  | type | 0 | magic | length | 12 x 0  | text [NUL chunk] |
//
// The length field is the message's length plus 16; for a message with a chunk of raw bytes behind
// its text it is text + 17 instead, so that length - 16 is where the chunk starts.
//
// A switch cuts a message of more than 1280 bytes into two frames that bear the same length. The
// first holds the whole message all the same; the second repeats the end of it, followed by zeros.
// So a frame stands for itself or it is dropped: its text must fill the announced length.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "gateway/mac.h"

namespace qel_gateway {

// A message without its wrapping.
struct Payload {
  std::string text;            // JSON, without NUL
  std::vector<uint8_t> chunk;  // raw bytes that follow the text; empty for most messages
};

struct Frame {
  MacAddress destination;
  MacAddress source;
  Payload payload;
};

// Why a frame was not taken; for counting and for tests.
enum class FrameFault {
  None,
  Short,     // ends before the message starts
  Foreign,   // ethertype or magic of something else
  Cut,       // fewer bytes than the length field announces
  Fragment,  // text shorter than the length field says: the second piece of a long message
};

// Longest text plus chunk (with the NUL between them) of which the switch still reads every byte.
size_t max_request_bytes();

// Throws Error for a message that is longer than that. Called by the transports.
void require_readable(size_t bytes);

// The frame that carries `text`, and `chunk` behind it when `with_chunk` is true (the chunk may be
// empty, the length field then still tells its place). Padded with zeros to 60 bytes.
std::vector<uint8_t> build_frame(const MacAddress& destination, const MacAddress& source,
                                 std::string_view text, std::span<const uint8_t> chunk,
                                 bool with_chunk);

// Reads a request that some gateway sent: the text, without a chunk. Nothing when it is none.
std::optional<Frame> read_request(std::span<const uint8_t> bytes);

// Reads a frame from a switch. Nothing when it is not one that stands for itself; `fault`, when
// not null, then says why, and None otherwise.
std::optional<Frame> read_frame(std::span<const uint8_t> bytes, FrameFault* fault = nullptr);

}  // namespace qel_gateway
