// SPDX-License-Identifier: Apache-2.0
//
// The configuration archive in transfer: packing and serving it chunk by chunk (upload to the
// gateway), receiving and applying it (download from the gateway).
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <span>

#include "qel/qel_text.h"

// The one transfer state; zeroed at start-up.
struct qel_conf_transfer {
  char* upload_data;         // owned; the archive and a closing 0; null when none is loaded
  char* download_data;       // owned; download_total + 1 bytes; null when none is received
  uint32_t upload_length;    // bytes; 0 when none is loaded
  uint32_t upload_crc;       // CRC-32 of the archive
  uint32_t download_length;  // bytes received so far
  std::FILE* download_file;  // owned; open output file, or null
  uint32_t download_total;   // bytes announced when the download began
};
extern qel_conf_transfer g_qel_conf;

// Start-up clean-up: deletes archives left by an earlier run, whatever stands under their names,
// finishes a restore that an earlier process began (files, flash, restart of the switch), sweeps
// the folder of the configuration files, and zeroes the state.
void qel_api_conf_init();

// Sweeps the folder, packs all configuration files and loads the archive. Returns 0 when loaded, or
// when packing failed (then nothing is loaded and answers say so); -1 when the archive cannot be
// opened or memory is short; 1 when it could not be read whole (then nothing is loaded).
int qel_api_conf_pack();

// Copies chunk `index` into `destination` (kChunkSize bytes) and tells its length and whether more
// follow. An index outside the archive is a middle chunk of zeros. Returns 0; -1 when no archive is
// loaded, and then writes nothing.
int qel_api_get_conf_bin(uint8_t* destination, int32_t index, int32_t* length, int32_t* next);

// Drops the archive, in memory and on disk. Returns 0.
int qel_api_conf_release();

// Builds the answer to a request for a chunk in `area`, which is zeroed: JSON text, NUL, chunk.
// Returns the length to send and its tail position for qel_cmd_send_tail; 0 when it does not fit.
size_t qel_json_conf_get(std::span<char> area, int32_t index, uint16_t* tail);

// Begins a download of `total_length` bytes. Returns 0; -1 when the output file cannot be opened
// (chunks are then accepted and not stored); -2 when the length is negative or memory cannot hold
// it (then nothing has begun).
int qel_api_download_begin(int32_t total_length);

// Stores one chunk. Returns 0, also when no output file is open and nothing is stored; -1 when the
// file could not be written or the chunk reaches beyond the announced total: the download is then
// abandoned.
int qel_api_download_conf_write(std::span<const uint8_t> bytes);

// Compares the CRC-32 of what was received with `crc` and ends the download. Returns 0 when equal,
// else -1.
int qel_api_download_conf_check(uint32_t crc);

// Closes the output file and frees the buffer.
void qel_api_download_reset();

// Unpacks the archive that was received and looks at it, see qel_confdir_unpack. Returns false
// (logged, and nothing of it is left) when it must not be applied.
bool qel_api_download_unpack();

// Replaces the configuration files by those that qel_api_download_unpack accepted, stores them in
// flash and restarts the switch, when `flag` is not 0. Without accepted files the present ones and
// the flash stay as they are; the restart comes all the same.
void qel_api_update_down_config(int flag);

// The `length` bytes of a chunk at `position`, counted from a message text of which `received`
// bytes arrived. Returns false when they are not all inside, or either figure is negative. Over UDP
// the position is always negative.
bool qel_api_chunk(std::span<const uint8_t> received, int32_t position, int32_t length,
                   std::span<const uint8_t>* chunk);
