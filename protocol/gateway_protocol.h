// SPDX-License-Identifier: Apache-2.0
//
// What the switch and its gateway must agree on: ethertypes, the frame header, sizes and ports.
// The agent and the controller's side both include this file and nothing else of each other.
#pragma once

#include <cstddef>
#include <cstdint>

namespace qel_protocol {

// Ethertypes, one for each direction, so that neither side hears its own kind.
inline constexpr uint16_t kEthertypeToSwitch = 0x9301;
inline constexpr uint16_t kEthertypeToGateway = 0x9303;

// Group address on which every switch listens for the probe.
inline constexpr uint8_t kGroupMac[6] = {0x01, 0x80, 0xC2, 0x00, 0x00, 0x1F};

// Frame layout; offsets in bytes from the destination address, numbers big-endian.
inline constexpr size_t kMacSize = 6;
inline constexpr size_t kOffsetDestination = 0;
inline constexpr size_t kOffsetSource = 6;
inline constexpr size_t kOffsetEthertype = 12;
inline constexpr size_t kOffsetMagic = 16;
inline constexpr size_t kOffsetLength = 18;  // message bytes + 16, or a position given instead
inline constexpr size_t kOffsetMessage = 32;
inline constexpr size_t kHeaderSize = 16;  // from kOffsetMagic to kOffsetMessage
inline constexpr uint16_t kMagic = 0xBABE;

// The switch looks at this much of a frame, hence at this much text.
inline constexpr size_t kFrameReadSize = 1600;
inline constexpr size_t kTextReadSize = kFrameReadSize - kOffsetMessage;

// The longest message the switch sends, and the step at which it sends one more frame.
inline constexpr size_t kMessageMax = 1600;
inline constexpr size_t kFragmentSize = 1280;

// Bytes of a configuration chunk.
inline constexpr size_t kChunkSize = 1024;

// UDP ports of the two sides.
inline constexpr uint16_t kUdpPortSwitch = 20682;
inline constexpr uint16_t kUdpPortGateway = 20681;

}  // namespace qel_protocol
