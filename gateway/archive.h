// SPDX-License-Identifier: Apache-2.0
//
// Looking into a configuration archive before it goes anywhere: a switch replaces all of its
// settings by whatever the archive holds, so it has to be a gzip'd tar of ".conf" files and nothing
// else. Read with zlib and a small tar reader; nothing is unpacked.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace qel_gateway {

struct ArchiveMember {
  std::string name;
  uint64_t size = 0;
};

// The members of the archive. Throws Error saying what is wrong when it is not a gzip'd tar that is
// whole (checksums included), when it holds anything but plain files named "*.conf" without a
// folder, the same name twice, none at all, or more than 16 MB.
std::vector<ArchiveMember> check_archive(std::span<const uint8_t> bytes);

// CRC-32 as switches compute it.
uint32_t crc32_of(std::span<const uint8_t> bytes);

}  // namespace qel_gateway
