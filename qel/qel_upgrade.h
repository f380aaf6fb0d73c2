// SPDX-License-Identifier: Apache-2.0
//
// The firmware image in transfer: chunks appended to the image file, the hand-over to the platform,
// and the over-time watch, which nothing starts.
#pragma once

#include <cstdint>
#include <span>

#include "qel/qel_link.h"

inline constexpr char kQelFirmwarePath[] = "/tmp/linux.trx";

// Zeroed when a download begins and when it is abandoned.
struct qel_upgrade_state {
  int32_t index;      // the chunk that the over-time timer watches; the chunk path leaves it 0
  int32_t received;   // sum of the lengths of the accepted chunks
  int32_t total;      // announced size
  uint32_t has_data;  // 1 once a chunk with bytes was written
  uint32_t overtime_active;  // the over-time timer counts only while set; nothing sets it
  int32_t overtime_count;    // ticks since the last chunk
  int32_t overtime_total;
  int32_t last_index;  // of the last accepted chunk
  qel_link peer;       // who sends, kept for a later re-request
  uint32_t failed;     // 1 once bytes could not be stored: the image can no longer be whole
};
extern qel_upgrade_state g_qel_upgrade;

// Begins a download of `total` bytes from the peer of `link`. Returns 0, or -1 when the platform
// says that an upgrade is running.
int qel_upgrade_init(const qel_link* link, int32_t total);

// Accepts one chunk. Returns 0 (accepted or ignored as repeated, more expected), 1 (image complete)
// or -1 (more bytes than announced, or bytes that could not be stored).
int qel_upgrade_append(const qel_link* link, std::span<const uint8_t> bytes, int32_t index);

// Zeroes the over-time counters.
void qel_upgrade_overtime_clear();

// Deletes the image file and zeroes the state.
void qel_upgrade_reset();

// The over-time watch, meant for once a second while a download runs; registered with no timer.
// Returns 0.
int qel_upgrade_overtime_reqest_timer();
