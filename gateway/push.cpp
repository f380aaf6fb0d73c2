// SPDX-License-Identifier: Apache-2.0
//
// Pushing files to a switch.
#include <algorithm>
#include <limits>
#include <span>

#include <fmt/format.h>

#include "gateway/error.h"
#include "gateway/requests.h"
#include "gateway/settings_internal.h"
#include "gateway/transfer.h"
#include "protocol/gateway_protocol.h"

namespace qel_gateway {

namespace {

constexpr int kFirmwareSends = 3;
constexpr int64_t kInt32Min = std::numeric_limits<int32_t>::min();
constexpr int64_t kInt32Max = std::numeric_limits<int32_t>::max();

// States of the answers to chunks.
constexpr int64_t kStateAbandoned = 0;
constexpr int64_t kStateMore = 2;
constexpr int64_t kStateComplete = 3;
constexpr int64_t kStateBusy = -1;
constexpr int64_t kStateIncomplete = -2;

struct ChunkAnswer {
  int64_t state = 0;
  int64_t index = 0;  // of the chunk expected next; 0 after the last
};

struct ChunkQuestion {
  const std::string* text = nullptr;
  std::span<const uint8_t> bytes;
  std::string subject;
  int64_t expected = 0;  // index that the answer bears; a refusal may bear 0 instead
  int sends = 1;
};

// Sends one chunk and waits for its answer; nothing when it stays away. Throws Interrupted.
Task<std::optional<ChunkAnswer>> send_chunk(Session& session, const Switch& one,
                                            ChunkQuestion chunk, Duration patience) {
  std::optional<ChunkAnswer> answer;
  Question question;
  question.to = one.address;
  question.source = one.source;
  question.mac = one.mac;
  question.subjects = {chunk.subject};
  question.text = *chunk.text;
  question.chunk.assign(chunk.bytes.begin(), chunk.bytes.end());
  question.with_chunk = true;
  question.patience = patience;
  question.sends = chunk.sends;
  question.take = [&answer, &chunk](const Reply& reply) {
    const ChunkAnswer got{integer_member(reply.data, "state", kInt32Min, kInt32Max),
                          integer_member(reply.data, "index", kInt32Min, kInt32Max)};
    const bool refusal = got.state != kStateMore && got.state != kStateComplete;
    if (got.index != chunk.expected && !(refusal && got.index == 0)) {
      return Verdict::Ignore;
    }
    answer = got;
    return Verdict::Done;
  };
  auto wait = session.ask(std::move(question));
  const Outcome outcome = co_await wait;
  if (outcome == Outcome::Interrupted) {
    throw Interrupted();
  }
  co_return answer;
}

// Of the chunk that makes a switch forget.
constexpr int64_t kForgetIndex = kInt32Max - 1;  // its answer is nobody else's

// Makes the switch forget a download that somebody left open. Safe to repeat.
Task<bool> forget(Session& session, const Switch& one, const Push& push, Duration patience) {
  const std::string text = forget_text(mac_text(one.mac), push);
  const ChunkQuestion chunk{&text, {}, push.subject, kForgetIndex + 1, 2};
  const auto answer = co_await send_chunk(session, one, chunk, patience);
  co_return answer.has_value() && answer->state == kStateAbandoned;
}

void require_chunks(Session& session) {
  if (!session.transport().carries_chunks()) {
    throw Error("a switch takes no files over UDP; use -i and Ethernet");
  }
}

std::span<const uint8_t> bytes_of(const Push& push, const PlannedChunk& chunk) {
  return std::span(*push.bytes)
      .subspan(static_cast<size_t>(chunk.offset), static_cast<size_t>(chunk.length));
}

// The words for an archive push that ended early, after the switch was told to forget it.
Task<std::string> gave_up(Session& session, const Switch& one, const Push& push, std::string why,
                          Duration patience) {
  bool forgotten = false;
  try {
    forgotten = co_await forget(session, one, push, patience);
  } catch (const std::runtime_error&) {
    // The wire is gone, or nobody waits any more: then it was not told.
  }
  co_return fmt::format("{}; {}", why,
                        forgotten ? "nothing was applied"
                                  : "the switch may hold a part of the archive, but applies none "
                                    "of it before another restore");
}

// Else the first chunk would be appended to what an earlier gateway left.
Task<void> begin_archive(Session& session, const Switch& one, const Push& push, Duration patience) {
  bool fresh = false;
  try {
    fresh = co_await forget(session, one, push, patience);
  } catch (const Interrupted&) {
    throw Interrupted("interrupted; nothing was applied");
  } catch (const Error& error) {
    throw Error(fmt::format("{}; nothing was applied", error.what()), error.code());
  }
  if (!fresh) {
    throw Error("no answer; nothing was sent", ExitCode::NoAnswer);
  }
}

void check_archive_answer(const std::optional<ChunkAnswer>& answer, const PlannedChunk& chunk) {
  if (!answer) {
    throw Error(chunk.last ? "no answer to the last chunk: whether the archive was applied is not "
                             "known"
                           : fmt::format("no answer after {} bytes", chunk.offset),
                ExitCode::NoAnswer);
  }
  if (answer->state == kStateComplete && chunk.last) {
    return;
  }
  if (answer->state == kStateMore && !chunk.last) {
    return;
  }
  if (answer->state == kStateComplete) {
    throw Error("the switch applied the archive before it had all of it");
  }
  if (chunk.last && answer->state == kStateAbandoned) {
    throw Error("the switch refused the archive; nothing was changed");
  }
  if (chunk.last) {
    throw Error(
        fmt::format("the switch answered state {} to the last chunk: whether the archive was "
                    "applied is not known",
                    answer->state));
  }
  throw Error(fmt::format("the switch could not store the archive after {} bytes", chunk.offset));
}

void check_firmware_answer(const std::optional<ChunkAnswer>& answer, const PlannedChunk& chunk) {
  if (!answer) {
    throw Error(chunk.last
                    ? "no answer to the last chunk: whether the upgrade began is not known"
                    : fmt::format("no answer after {} bytes; nothing was upgraded", chunk.offset),
                ExitCode::NoAnswer);
  }
  if (answer->state == kStateBusy) {
    throw Error("the switch is upgrading already");
  }
  if (answer->state == kStateIncomplete) {
    throw Error("the switch says that the image is not complete; nothing was upgraded");
  }
  const int64_t wanted = chunk.last ? kStateComplete : kStateMore;
  if (answer->state != wanted) {
    throw Error(fmt::format("the switch answered state {} after {} bytes", answer->state,
                            chunk.offset + chunk.length));
  }
}

}  // namespace

std::string forget_text(std::string_view mac, const Push& push) {
  ChunkHeader header;
  header.index = kForgetIndex;
  header.next = true;
  header.file = push.file;
  header.total_length = kInt32Max;
  header.length = 2000;
  static_assert(qel_protocol::kTextReadSize < 2000);
  return chunk_text(mac, push.subject, header);
}

std::vector<PlannedChunk> plan_chunks(std::string_view mac, const Push& push, size_t max_message) {
  const uint64_t total = push.bytes->size();
  ChunkHeader header;
  header.file = push.file;
  header.total_length = static_cast<int64_t>(total);
  header.crc = push.crc;
  std::vector<PlannedChunk> chunks;
  for (uint64_t offset = 0; offset < total;) {
    header.length =
        std::min<int64_t>(qel_protocol::kChunkSize, static_cast<int64_t>(total - offset));
    header.next = offset + static_cast<uint64_t>(header.length) < total;
    std::string text = chunk_text(mac, push.subject, header);
    if (text.size() + 1 + static_cast<size_t>(header.length) > max_message) {
      // Room for the longest text that the shorter chunk can need.
      const size_t room = max_message > text.size() + 1 ? max_message - text.size() - 1 : 0;
      if (room == 0) {
        throw Error("the MTU leaves no room for a chunk");
      }
      header.length = static_cast<int64_t>(room);
      header.next = true;
      text = chunk_text(mac, push.subject, header);
    }
    const auto length = static_cast<uint64_t>(header.length);
    chunks.push_back({std::move(text), offset, length, !header.next});
    offset += length;
    ++header.index;
  }
  return chunks;
}

Task<void> push_archive(Session& session, const Switch& one, Push push, Duration patience,
                        ProgressSink progress) {
  require_chunks(session);
  const auto chunks = plan_chunks(mac_text(one.mac), push, session.transport().max_message());
  co_await begin_archive(session, one, push, patience);
  int64_t index = 0;
  for (const PlannedChunk& chunk : chunks) {
    std::string trouble;
    ExitCode code = ExitCode::Failed;
    const ChunkQuestion question{&chunk.text, bytes_of(push, chunk), push.subject,
                                 chunk.last ? 0 : index + 1, 1};
    bool ended = false;
    try {
      const auto answer = co_await send_chunk(session, one, question, patience);
      ended = true;
      check_archive_answer(answer, chunk);
    } catch (const Interrupted&) {
      const std::string text = forget_text(mac_text(one.mac), push);
      session.transport().send(one.address, text, {}, true);
      throw Interrupted(chunk.last ? "interrupted at the last chunk: whether the archive was "
                                     "applied is not known"
                                   : "interrupted; the switch was told to forget what it had, "
                                     "nothing was applied");
    } catch (const Error& error) {
      trouble = error.what();
      code = error.code();
      if (chunk.last && !ended) {
        trouble += " at the last chunk: whether the archive was applied is not known";
      }
    }
    if (!trouble.empty()) {
      if (!chunk.last) {
        trouble = co_await gave_up(session, one, push, trouble, patience);
      }
      throw Error(trouble, code);
    }
    progress(chunk.offset + chunk.length, push.bytes->size());
    ++index;
  }
}

Task<void> push_firmware(Session& session, const Switch& one, Push push, Duration patience,
                         ProgressSink progress) {
  require_chunks(session);
  const auto chunks = plan_chunks(mac_text(one.mac), push, session.transport().max_message());
  int64_t index = 0;
  for (const PlannedChunk& chunk : chunks) {
    const bool repeatable = index > 0 && !chunk.last;
    const ChunkQuestion question{&chunk.text, bytes_of(push, chunk), push.subject,
                                 chunk.last ? 0 : index + 1, repeatable ? kFirmwareSends : 1};
    std::optional<ChunkAnswer> answer;
    try {
      answer = co_await send_chunk(session, one, question, patience);
    } catch (const Interrupted&) {
      throw Interrupted(chunk.last ? "interrupted at the last chunk: whether the upgrade began is "
                                     "not known"
                                   : "interrupted; nothing was upgraded");
    } catch (const Error& error) {
      throw Error(
          fmt::format("{}{}", error.what(),
                      chunk.last ? " at the last chunk: whether the upgrade began is not known"
                                 : "; nothing was upgraded"),
          error.code());
    }
    check_firmware_answer(answer, chunk);
    progress(chunk.offset + chunk.length, push.bytes->size());
    ++index;
  }
}

}  // namespace qel_gateway
