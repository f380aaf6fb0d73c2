// SPDX-License-Identifier: Apache-2.0
//
// Files that are whole or not there.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace qel_gateway {

// All bytes of a regular file of 1 to `most` bytes. Throws Error.
std::vector<uint8_t> read_file(const std::string& path, uint64_t most);

// The file that is written for `path`: `path` itself, or where it leads as a symbolic link, there
// or not. Throws Error when something is there that is no regular file (a pipe, a device, a
// folder): that would be replaced, not written.
std::string file_to_write(const std::string& path);

// Writes `bytes` under another name beside file_to_write(path), makes them last, and only then
// gives the file its name. Throws Error, and leaves nothing behind and an older file untouched,
// when that fails.
void write_file(const std::string& path, std::span<const uint8_t> bytes);

// The last part of a path, kept to letters, digits, '.', '_' and '-': fit to be told to a switch.
std::string plain_file_name(const std::string& path);

}  // namespace qel_gateway
