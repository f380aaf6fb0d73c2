// SPDX-License-Identifier: Apache-2.0
//
// The identity that the gateway sees: the device information table, the device identifier, and the
// two occupancy figures out of the kernel's counters.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

inline constexpr size_t kQelInfoKeySize = 32;
inline constexpr size_t kQelInfoValueSize = 64;

// Places in the table; reports print it in this order.
enum class qel_info : size_t {
  mac,
  ip,
  sn,
  hw_ver,
  model,
  version,
  port_count,
  device_name,
  uptime,
  cpuoccu,
  memoccu,
  poeoccu,
  onlineports,
  uplinkdatas,
  sysname,
  have_poe,
  check_model,
  count
};

struct qel_info_entry {
  char key[kQelInfoKeySize];      // NUL-terminated
  char value[kQelInfoValueSize];  // NUL-terminated plain text; longer texts are cut
};
using qel_info_table = std::array<qel_info_entry, static_cast<size_t>(qel_info::count)>;
extern qel_info_table g_qel_info;

// The value text of an entry; sets key and value of an entry (printf style, cut to its size). What
// is set goes into messages as it is: the caller sees to it that it is plain (qel_text.h).
const char* qel_devinfo_value(qel_info place);
void qel_devinfo_set(qel_info place, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Clears the table, fills what holds for the whole run, then refreshes. Called once. Returns 0.
int qel_devinfo_init();

// Fills what changes, and the device identifier. Called before the table is printed. Returns 0.
int qel_devinfo_refresh();

// One reading of the first line of "/proc/stat", in ticks since boot. `busy` and `total` are
// computed, and only when at least four counters were there.
struct qel_cpu_stat {
  uint64_t user, nice, system, idle, iowait, irq, softirq, steal;
  uint64_t busy, total;
};

// One reading of "/proc/meminfo", in kilobytes.
struct qel_mem_stat {
  unsigned long MemTotal, MemFree, Buffers, Cached;
};

// Fill a sample that the caller has cleared; what cannot be read stays as it is.
void qel_cpu_stat_read(qel_cpu_stat* sample);
void qel_mem_stat_read(qel_mem_stat* sample);

// Percent of the time since boot that was not idle (waiting for the disk counts as busy), percent
// of the memory that is not free (cache counts as used). 0 when the total is 0.
int qel_cpu_occupancy(const qel_cpu_stat& sample);
int qel_mem_occupancy(const qel_mem_stat& sample);

// Both figures from fresh samples.
int qel_cpu_occupancy_now();
int qel_mem_occupancy_now();

// Refreshes "uplinkdatas": megabytes sent on the busiest port that faces a switch. Returns the
// figure truncated to 32 bits.
int32_t qel_uplink_tx_mb_get();

// Stores `text` as the system name of the platform; null, 64 characters and more, and a text that
// is not plain (qel_text.h) are ignored. Returns 0. Nobody calls it: the gateway's "name" command
// goes through a module.
int qel_sys_name_set(const char* text);
