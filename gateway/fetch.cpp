// SPDX-License-Identifier: Apache-2.0
//
// Fetching a switch's configuration archive.
#include <algorithm>
#include <limits>

#include <fmt/format.h>

#include "gateway/archive.h"
#include "gateway/error.h"
#include "gateway/requests.h"
#include "gateway/settings_internal.h"
#include "gateway/transfer.h"
#include "protocol/gateway_protocol.h"

namespace qel_gateway {

namespace {

constexpr int kSends = 3;
constexpr int64_t kChunk = qel_protocol::kChunkSize;
constexpr int64_t kInt32Min = std::numeric_limits<int32_t>::min();
constexpr int64_t kInt32Max = std::numeric_limits<int32_t>::max();

struct UploadAnswer {
  int64_t state = 0;
  int64_t index = 0;
  int64_t length = 0;
  bool next = false;
  int64_t total = 0;
  uint32_t crc = 0;
  std::vector<uint8_t> bytes;
};

UploadAnswer read_answer(const Reply& reply) {
  UploadAnswer answer;
  answer.state = integer_member(reply.data, "state", 0, 1);
  answer.index = integer_member(reply.data, "idx", 0, kInt32Max);
  answer.length = integer_member(reply.data, "length", 0, kChunk);
  answer.next = integer_member(reply.data, "next", 0, 1) != 0;
  answer.total = integer_member(reply.data, "total_length", 0, kInt32Max);
  answer.crc = static_cast<uint32_t>(integer_member(reply.data, "crc", kInt32Min, kInt32Max));
  if (reply.chunk.size() < static_cast<size_t>(answer.length)) {
    throw BadReply("fewer bytes than announced");
  }
  answer.bytes.assign(reply.chunk.begin(), reply.chunk.begin() + answer.length);
  return answer;
}

// The answer for chunk `index`; throws when it stays away.
Task<UploadAnswer> ask_chunk(Session& session, const Switch& one, int64_t index,
                             Duration patience) {
  UploadAnswer answer;
  Question question;
  question.to = one.address;
  question.source = one.source;
  question.mac = one.mac;
  question.subjects = {"config_upload"};
  question.text = upload_text(mac_text(one.mac), index);
  question.patience = patience;
  question.sends = kSends;
  question.take = [&answer, index](const Reply& reply) {
    UploadAnswer got = read_answer(reply);
    if (got.index != index) {
      return Verdict::Ignore;  // a late one
    }
    answer = std::move(got);
    return Verdict::Done;
  };
  auto wait = session.ask(std::move(question));
  const Outcome outcome = co_await wait;
  if (outcome == Outcome::Interrupted) {
    throw Interrupted();
  }
  if (outcome == Outcome::Silent) {
    throw Error(index == 0 ? "no answer" : fmt::format("no answer for chunk {}", index),
                ExitCode::NoAnswer);
  }
  co_return answer;
}

// What a chunk must say when the archive has `total` bytes.
void check_answer(const UploadAnswer& answer, int64_t total, uint32_t crc) {
  if (answer.state == 0) {
    throw Error("the switch could not pack its configuration");
  }
  const int64_t offset = answer.index * kChunk;
  const int64_t length = std::min(kChunk, total - offset);
  const bool last = offset + length == total;
  if (answer.total != total || answer.crc != crc) {
    throw Error("the switch's configuration changed while it was fetched; try again");
  }
  if (answer.length != length || answer.next == last) {
    throw Error(fmt::format("chunk {} contradicts the announced length", answer.index));
  }
}

}  // namespace

Task<std::vector<uint8_t>> fetch_archive(Session& session, const Switch& one, Duration patience,
                                         ProgressSink progress) {
  UploadAnswer answer = co_await ask_chunk(session, one, 0, patience);
  const int64_t total = answer.total;
  const uint32_t crc = answer.crc;
  if (answer.state == 0 || total == 0) {
    throw Error("the switch could not pack its configuration");
  }
  if (static_cast<uint64_t>(total) > kArchiveMax) {
    throw Error(
        fmt::format("the switch announces an archive of {} bytes, which is too much", total));
  }
  std::vector<uint8_t> bytes;
  while (true) {
    check_answer(answer, total, crc);
    bytes.insert(bytes.end(), answer.bytes.begin(), answer.bytes.end());
    progress(bytes.size(), static_cast<uint64_t>(total));
    if (!answer.next) {
      break;
    }
    const int64_t index = answer.index + 1;
    answer = co_await ask_chunk(session, one, index, patience);
  }
  if (crc32_of(bytes) != crc) {
    throw Error(
        fmt::format("what came has the CRC {:08x}, announced was {:08x}", crc32_of(bytes), crc));
  }
  co_return bytes;
}

}  // namespace qel_gateway
