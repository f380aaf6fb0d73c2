// SPDX-License-Identifier: Apache-2.0
//
// Files to and from switches, chunk by chunk, one chunk under way at a time.
//
// A chunk of a backup may be asked for again. A chunk of a restore must not be sent again: the
// switch appends whatever comes, so one answer that stays away ends the restore, and the switch is
// told to forget what it has. A chunk of firmware in the middle may be sent again, since the switch
// passes over an index that it has had; the first and the last may not.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "gateway/discovery.h"
#include "gateway/session.h"

namespace qel_gateway {

// Told after each chunk: bytes done, bytes in all.
using ProgressSink = std::function<void(uint64_t done, uint64_t total)>;

inline constexpr uint64_t kArchiveMax = 64ULL * 1024 * 1024;
inline constexpr uint64_t kFirmwareMax = 256ULL * 1024 * 1024;

// The configuration archive of a switch, its CRC compared with the one that the switch announced.
// Throws Error when the switch has none to give, contradicts itself, or sends other bytes than it
// announced; Interrupted.
Task<std::vector<uint8_t>> fetch_archive(Session& session, const Switch& one, Duration patience,
                                         ProgressSink progress);

struct Push {
  std::string subject;                          // "config_download" or "firm_download"
  std::string file;                             // a plain name
  const std::vector<uint8_t>* bytes = nullptr;  // not owned
  uint32_t crc = 0;
};

// Pushes a configuration archive; when it returns, the switch has all of it and applies it, which
// ends in a restart. Throws Error saying what became of the switch's configuration; Interrupted,
// after the switch has been told to forget what it has.
Task<void> push_archive(Session& session, const Switch& one, Push push, Duration patience,
                        ProgressSink progress);

// Pushes a firmware image; when it returns, the switch has all of it and upgrades.
Task<void> push_firmware(Session& session, const Switch& one, Push push, Duration patience,
                         ProgressSink progress);

// The text of a chunk that no switch stores and that makes it drop the download it has open: its
// bytes would lie outside of the frame. It is no first chunk, so it opens none either. push_archive
// begins with it; for dry runs as well.
std::string forget_text(std::string_view mac, const Push& push);

// The text of chunk `index` and how many bytes of the file it takes; for dry runs as well.
struct PlannedChunk {
  std::string text;
  uint64_t offset = 0;
  uint64_t length = 0;
  bool last = false;
};

// Cuts `push` into chunks that fit into messages of `max_message` bytes. Throws Error when not even
// one byte fits.
std::vector<PlannedChunk> plan_chunks(std::string_view mac, const Push& push, size_t max_message);

}  // namespace qel_gateway
