// SPDX-License-Identifier: Apache-2.0
//
// The frame codec; its layout is drawn in frame.h.
#include "gateway/frame.h"

#include <algorithm>

#include <fmt/format.h>

#include "gateway/error.h"
#include "protocol/gateway_protocol.h"

namespace qel_gateway {

namespace {

namespace wire = qel_protocol;

constexpr size_t kFrameMin = 60;  // the least that Ethernet carries, checksum aside

void put16(std::vector<uint8_t>& bytes, size_t at, uint16_t value) {
  bytes[at] = static_cast<uint8_t>(value >> 8);
  bytes[at + 1] = static_cast<uint8_t>(value & 0xFF);
}

uint16_t get16(std::span<const uint8_t> bytes, size_t at) {
  return static_cast<uint16_t>(bytes[at] << 8 | bytes[at + 1]);
}

void copy_addresses(std::span<const uint8_t> bytes, Frame& frame) {
  std::copy_n(bytes.begin() + wire::kOffsetDestination, wire::kMacSize,
              frame.destination.bytes.begin());
  std::copy_n(bytes.begin() + wire::kOffsetSource, wire::kMacSize, frame.source.bytes.begin());
}

FrameFault check_header(std::span<const uint8_t> bytes) {
  if (bytes.size() < wire::kOffsetMessage) {
    return FrameFault::Short;
  }
  if (get16(bytes, wire::kOffsetEthertype) != wire::kEthertypeToGateway ||
      get16(bytes, wire::kOffsetMagic) != wire::kMagic) {
    return FrameFault::Foreign;
  }
  return FrameFault::None;
}

}  // namespace

size_t max_request_bytes() {
  return wire::kTextReadSize;
}

void require_readable(size_t bytes) {
  if (bytes > max_request_bytes()) {
    throw Error(fmt::format("a message of {} bytes: switches read {} at the most", bytes,
                            max_request_bytes()));
  }
}

std::vector<uint8_t> build_frame(const MacAddress& destination, const MacAddress& source,
                                 std::string_view text, std::span<const uint8_t> chunk,
                                 bool with_chunk) {
  const size_t message = text.size() + (with_chunk ? 1 + chunk.size() : 0);
  std::vector<uint8_t> bytes(std::max(kFrameMin, wire::kOffsetMessage + message), 0);
  std::ranges::copy(destination.bytes, bytes.begin() + wire::kOffsetDestination);
  std::ranges::copy(source.bytes, bytes.begin() + wire::kOffsetSource);
  put16(bytes, wire::kOffsetEthertype, wire::kEthertypeToSwitch);
  put16(bytes, wire::kOffsetMagic, wire::kMagic);
  const size_t length = text.size() + (with_chunk ? 1 : 0) + wire::kHeaderSize;
  put16(bytes, wire::kOffsetLength, static_cast<uint16_t>(length));
  auto at = std::ranges::copy(text, bytes.begin() + wire::kOffsetMessage).out;
  if (with_chunk) {
    std::ranges::copy(chunk, at + 1);
  }
  return bytes;
}

std::optional<Frame> read_request(std::span<const uint8_t> bytes) {
  if (bytes.size() < wire::kOffsetMessage ||
      get16(bytes, wire::kOffsetEthertype) != wire::kEthertypeToSwitch) {
    return std::nullopt;
  }
  const auto message = bytes.subspan(wire::kOffsetMessage);
  Frame frame;
  copy_addresses(bytes, frame);
  frame.payload.text.assign(message.begin(), std::ranges::find(message, uint8_t{0}));
  return frame;
}

std::optional<Frame> read_frame(std::span<const uint8_t> bytes, FrameFault* fault) {
  FrameFault ignored = FrameFault::None;
  FrameFault& found = fault != nullptr ? *fault : ignored;
  found = check_header(bytes);
  if (found != FrameFault::None) {
    return std::nullopt;
  }
  const size_t length = get16(bytes, wire::kOffsetLength);
  const auto message = bytes.subspan(wire::kOffsetMessage);
  if (length <= wire::kHeaderSize || length - wire::kHeaderSize > message.size()) {
    found = FrameFault::Cut;
    return std::nullopt;
  }
  const size_t announced = length - wire::kHeaderSize;
  const auto head = message.first(announced);
  const auto text_size = static_cast<size_t>(std::ranges::find(head, uint8_t{0}) - head.begin());
  if (text_size + 1 < announced || text_size == 0) {
    found = FrameFault::Fragment;
    return std::nullopt;
  }
  Frame frame;
  copy_addresses(bytes, frame);
  frame.payload.text.assign(message.begin(), message.begin() + static_cast<ptrdiff_t>(text_size));
  const auto rest = message.subspan(announced);
  if (text_size + 1 == announced && bytes.size() > kFrameMin) {
    frame.payload.chunk.assign(rest.begin(), rest.end());
  }
  return frame;
}

}  // namespace qel_gateway
