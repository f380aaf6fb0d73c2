// SPDX-License-Identifier: Apache-2.0
//
// Reading a configuration archive, before it goes to a switch and after it came from one: a switch
// replaces all of its settings by what the archive holds, so it has to be a gzip'd tar of ".conf"
// files and nothing else. Read with zlib and a small tar reader, in memory only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace qel_gateway {

// Bytes that an archive may have unpacked, the tar's headers and padding included.
inline constexpr size_t kUnpackedMax = 4 * 1024 * 1024;

struct ArchiveMember {
  std::string name;  // begins with a letter, a digit or '_', goes on with these, '.' and '-'
  std::vector<uint8_t> content;
};

// The members of the archive in their order. Throws Error, which names the member at fault, when it
// is not a gzip'd tar that is whole (checksums included), when it holds anything but plain files
// with names as above that end in ".conf", the same name twice, none at all, or too much.
std::vector<ArchiveMember> read_archive(std::span<const uint8_t> bytes);

// CRC-32 as switches compute it.
uint32_t crc32_of(std::span<const uint8_t> bytes);

}  // namespace qel_gateway
