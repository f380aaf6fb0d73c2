// SPDX-License-Identifier: Apache-2.0
//
// What the benchmark's echo and its driver agree on. The echo's frames have the agent's layout with
// ethertypes of their own, so that agent and echo never wake each other.
#pragma once

#include <cstddef>
#include <cstdint>

namespace bench {

// From the ethertypes set aside for local experiments.
inline constexpr uint16_t kEchoRequestType = 0x88B5;
inline constexpr uint16_t kEchoReplyType = 0x88B6;

// In the request's header, where the agent's frames hold zeros: how the echo is to work and what it
// is to send. Numbers big-endian.
inline constexpr size_t kOffsetKind = 20;   // 1 byte, EchoKind
inline constexpr size_t kOffsetCount = 21;  // 1 byte, reply frames
inline constexpr size_t kOffsetBytes = 22;  // 2 bytes, bytes of each reply frame
inline constexpr size_t kOffsetText = 32;

inline constexpr size_t kFrameMax = 2048;

enum class EchoKind : uint8_t {
  kBare,   // receive and send
  kLimit,  // and what every frame asks for: MAC comparison, interface look-ups, cleared buffers
  kProbe,  // and what a probe reads: load, memory, uptime, address and netmask
  kLeast,  // as kLimit, but on one socket kept for it, and no buffer is cleared
};

}  // namespace bench
