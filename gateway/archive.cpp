// SPDX-License-Identifier: Apache-2.0
//
// The archive's reader: gunzip in memory, then walk the tar's headers.
#include "gateway/archive.h"

#include <zlib.h>

#include <algorithm>
#include <array>
#include <limits>
#include <set>
#include <string_view>

#include <fmt/format.h>

#include "gateway/error.h"
#include "gateway/text.h"

namespace qel_gateway {

namespace {

constexpr size_t kBlock = 512;

// Fields of a tar header, in bytes.
constexpr size_t kNameSize = 100;
constexpr size_t kSizeOffset = 124;
constexpr size_t kSizeSize = 12;
constexpr size_t kChecksumOffset = 148;
constexpr size_t kChecksumSize = 8;
constexpr size_t kTypeOffset = 156;
constexpr size_t kPrefixOffset = 345;

[[noreturn]] void refuse(const std::string& why) {
  throw Error(fmt::format("not a configuration archive: {}", why));
}

// Ends the inflation whatever happens.
class Inflater {
 public:
  Inflater() {
    constexpr int kGzipOnly = 16 + MAX_WBITS;
    if (inflateInit2(&stream_, kGzipOnly) != Z_OK) {
      throw Error("zlib does not start");
    }
  }
  Inflater(const Inflater&) = delete;
  Inflater& operator=(const Inflater&) = delete;
  ~Inflater() { inflateEnd(&stream_); }

  z_stream& stream() { return stream_; }

 private:
  z_stream stream_ = {};
};

std::vector<uint8_t> unpack(std::span<const uint8_t> bytes) {
  constexpr uint8_t kGzipMagic[] = {0x1F, 0x8B};
  if (bytes.size() < sizeof kGzipMagic ||
      !std::equal(std::begin(kGzipMagic), std::end(kGzipMagic), bytes.begin())) {
    refuse("not packed with gzip");
  }
  if (bytes.size() > std::numeric_limits<uInt>::max()) {
    refuse("too long");
  }
  Inflater inflater;
  z_stream& stream = inflater.stream();
  std::vector<uint8_t> input(bytes.begin(), bytes.end());
  stream.next_in = input.data();
  stream.avail_in = static_cast<uInt>(input.size());
  std::vector<uint8_t> out;
  std::array<uint8_t, 64 * 1024> piece;
  int result = Z_OK;
  while (result != Z_STREAM_END) {
    stream.next_out = piece.data();
    stream.avail_out = static_cast<uInt>(piece.size());
    result = inflate(&stream, Z_NO_FLUSH);
    const size_t got = piece.size() - stream.avail_out;
    if ((result != Z_OK && result != Z_STREAM_END) || (got == 0 && result != Z_STREAM_END)) {
      refuse("damaged or cut short");
    }
    if (out.size() + got > kUnpackedMax) {
      refuse(fmt::format("more than {} MiB unpacked", kUnpackedMax / (1024 * 1024)));
    }
    out.insert(out.end(), piece.begin(), piece.begin() + static_cast<ptrdiff_t>(got));
  }
  if (stream.avail_in != 0) {
    refuse("something follows the packed data");
  }
  return out;
}

// An octal number, ended by NUL or blank.
uint64_t octal(std::span<const uint8_t> field) {
  uint64_t value = 0;
  bool any = false;
  for (const uint8_t c : field) {
    if (c == ' ' && !any) {
      continue;
    }
    if (c == '\0' || c == ' ') {
      break;
    }
    if (c < '0' || c > '7') {
      refuse("damaged tar header");
    }
    value = value * 8 + (c - '0');
    any = true;
  }
  if (!any) {
    refuse("damaged tar header");
  }
  return value;
}

void check_sum(std::span<const uint8_t> header) {
  uint64_t sum = 0;
  for (size_t i = 0; i < kBlock; ++i) {
    const bool own = i >= kChecksumOffset && i < kChecksumOffset + kChecksumSize;
    sum += own ? uint8_t{' '} : header[i];
  }
  if (sum != octal(header.subspan(kChecksumOffset, kChecksumSize))) {
    refuse("damaged tar header");
  }
}

std::string member_name(std::span<const uint8_t> header) {
  const auto field = header.first(kNameSize);
  std::string name(field.begin(), std::ranges::find(field, uint8_t{0}));
  if (name.starts_with("./")) {
    name.erase(0, 2);
  }
  return name;
}

// Whether no switch has reason to refuse the name: it stands in shell commands there.
bool plain_name(std::string_view name) {
  constexpr std::string_view kFirst =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_";
  return kFirst.find(name.front()) != std::string_view::npos &&
         std::ranges::all_of(name, [kFirst](char c) {
           return kFirst.find(c) != std::string_view::npos || c == '.' || c == '-';
         });
}

void check_member(std::span<const uint8_t> header, const std::string& name) {
  constexpr std::string_view kEnding = ".conf";
  const std::string shown = terminal_text(name);
  const char type = static_cast<char>(header[kTypeOffset]);
  if (type != '0' && type != '\0') {
    refuse(fmt::format("\"{}\" is no plain file (\"tar --format=ustar\" writes plain archives)",
                       shown));
  }
  // ustar's prefix would put a folder before the name.
  constexpr std::string_view kUstar = "ustar";
  const bool ustar = std::equal(kUstar.begin(), kUstar.end(), header.begin() + 257);
  const bool in_folder = name.find('/') != std::string::npos ||
                         (ustar && header[263] != ' ' && header[kPrefixOffset] != 0);
  if (in_folder) {
    refuse(fmt::format("\"{}\" lies in a folder", shown));
  }
  if (!name.ends_with(kEnding) || name.size() == kEnding.size() || name.starts_with('-')) {
    refuse(fmt::format("\"{}\" is no \".conf\" file", shown));
  }
  if (!plain_name(name)) {
    refuse(fmt::format("\"{}\" is no name for it; expected letters, digits, \"_\", \".\" and \"-\"",
                       shown));
  }
}

bool is_zero(std::span<const uint8_t> block) {
  return std::ranges::all_of(block, [](uint8_t byte) { return byte == 0; });
}

}  // namespace

std::vector<ArchiveMember> read_archive(std::span<const uint8_t> bytes) {
  const std::vector<uint8_t> tar = unpack(bytes);
  std::vector<ArchiveMember> members;
  std::set<std::string> names;
  std::span<const uint8_t> rest(tar);
  while (true) {
    if (rest.size() < kBlock) {
      refuse("the tar has no end");
    }
    const auto header = rest.first(kBlock);
    if (is_zero(header)) {
      break;
    }
    check_sum(header);
    ArchiveMember member{member_name(header), {}};
    check_member(header, member.name);
    if (!names.insert(member.name).second) {
      refuse(fmt::format("\"{}\" is in it twice", terminal_text(member.name)));
    }
    const uint64_t size = octal(header.subspan(kSizeOffset, kSizeSize));
    rest = rest.subspan(kBlock);
    if (size > rest.size()) {
      refuse(fmt::format("\"{}\" is cut short", terminal_text(member.name)));
    }
    const auto content = rest.first(static_cast<size_t>(size));
    member.content.assign(content.begin(), content.end());
    const size_t blocks = (content.size() + kBlock - 1) / kBlock;
    rest = rest.subspan(std::min(rest.size(), blocks * kBlock));
    members.push_back(std::move(member));
  }
  if (!is_zero(rest)) {
    refuse("something follows the end of the tar");
  }
  if (members.empty()) {
    refuse("it is empty");
  }
  return members;
}

uint32_t crc32_of(std::span<const uint8_t> bytes) {
  uLong crc = ::crc32(0, nullptr, 0);
  while (!bytes.empty()) {
    const size_t step = std::min<size_t>(bytes.size(), std::numeric_limits<uInt>::max());
    crc = ::crc32(crc, bytes.data(), static_cast<uInt>(step));
    bytes = bytes.subspan(step);
  }
  return static_cast<uint32_t>(crc);
}

}  // namespace qel_gateway
