// SPDX-License-Identifier: Apache-2.0
//
// A configuration archive as qelctl reads it: packed ('G' in front) or the tar alone ('T'), which
// is packed here so that it is not its checksum that keeps mutations out. What is taken is
// compared.
#include <zlib.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <string_view>
#include <vector>

#include "gateway/archive.h"
#include "gateway/compare.h"
#include "gateway/error.h"

namespace {

using namespace qel_gateway;

std::vector<uint8_t> pack(std::span<const uint8_t> plain) {
  constexpr int kGzip = 16 + MAX_WBITS;
  z_stream stream = {};
  if (deflateInit2(&stream, Z_NO_COMPRESSION, Z_DEFLATED, kGzip, 8, Z_DEFAULT_STRATEGY) != Z_OK) {
    std::abort();
  }
  std::vector<uint8_t> input(plain.begin(), plain.end());
  std::vector<uint8_t> out(deflateBound(&stream, static_cast<uLong>(input.size())));
  stream.next_in = input.data();
  stream.avail_in = static_cast<uInt>(input.size());
  stream.next_out = out.data();
  stream.avail_out = static_cast<uInt>(out.size());
  if (deflate(&stream, Z_FINISH) != Z_STREAM_END) {
    std::abort();
  }
  out.resize(stream.total_out);
  deflateEnd(&stream);
  return out;
}

void require(bool holds) {
  if (!holds) {
    std::abort();
  }
}

bool is_printable(std::string_view text) {
  return std::ranges::all_of(text, [](unsigned char c) { return c >= 0x20 && c != 0x7F; });
}

void look_into(std::span<const uint8_t> bytes) {
  std::vector<ArchiveMember> members;
  try {
    members = read_archive(bytes);
  } catch (const Error& error) {
    require(is_printable(error.what()));
    return;
  }
  require(!members.empty());
  size_t sum = 0;
  for (const ArchiveMember& member : members) {
    require(member.name.ends_with(".conf") && member.name.find('/') == std::string::npos);
    sum += member.content.size();
  }
  require(sum <= kUnpackedMax);
  require(compare_configurations(members, members).empty());
  const std::vector<ArchiveMember> other = {{"nvram.conf", {'a', '=', '1', '\n'}}};
  const auto differences = compare_configurations(other, members);
  require(differences.empty() || is_printable(differences_text(differences)));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) {
    return 0;
  }
  const std::span<const uint8_t> bytes(data + 1, size - 1);
  look_into(data[0] == 'T' ? pack(bytes) : std::vector<uint8_t>(bytes.begin(), bytes.end()));
  return 0;
}
