// SPDX-License-Identifier: Apache-2.0
//
// The firmware image in transfer: chunks appended to the image file, the hand-over to the platform,
// and the over-time watch, which nothing starts.
#pragma once

#include <cstdint>
#include <span>

#include "platform/loop.h"
#include "qel/qel_link.h"
#include "qel/qel_os.h"

inline constexpr char kQelFirmwarePath[] = "/tmp/linux.trx";

// The platform's upgrade state while an image is fetched.
inline constexpr int kQelUpgradeFetching = 2;

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
  uint32_t begun;  // 1 from chunk 0 on until the image was handed on: every byte is this process's
};
extern qel_upgrade_state g_qel_upgrade;

// The fetch from a server that runs beside the loop; zero while there is none.
struct qel_upgrade_fetch_state {
  qel_os_job job;
  uint32_t seconds;  // since its start, as the one-second timer counts them
};
extern qel_upgrade_fetch_state g_qel_upgrade_fetch;

// Begins a download of `total` bytes from the peer of `link`. Returns 0, or -1 when the platform
// says that an upgrade is running, or an image is being fetched.
int qel_upgrade_init(const qel_link* link, int32_t total);

// Accepts one chunk. Returns 0 (accepted or ignored as repeated, more expected), 1 (image complete:
// this process stored every byte of it, from chunk 0 on, and the file holds them; the caller hands
// it on) or -1 (no download was begun, more bytes than announced, or bytes that could not be
// stored).
int qel_upgrade_append(const qel_link* link, std::span<const uint8_t> bytes, int32_t index);

// Zeroes the over-time counters.
void qel_upgrade_overtime_clear();

// Deletes the image file and zeroes the state.
void qel_upgrade_reset();

// Fetches the image that `command` writes to kQelFirmwarePath, beside the loop, and starts the
// upgrade program when the command ended well; otherwise the upgrade state becomes idle and a log
// line says so. A pushed download that was begun is over. Returns 0, or -1 when the command cannot
// be started. The caller has asked qel_upgrade_is_fetching.
int qel_upgrade_fetch(const char* command);

// Whether a fetch runs; there is one at a time.
bool qel_upgrade_is_fetching();

// Ends a fetch that has run for half an hour. Called by the one-second timer.
void qel_upgrade_fetch_tick();

// Read callback ("qel_upgrade_fetched"): the fetch has ended.
int qel_upgrade_fetched(struct thread* thread);

// The over-time watch, meant for once a second while a download runs; registered with no timer.
// Returns 0.
int qel_upgrade_overtime_reqest_timer();
