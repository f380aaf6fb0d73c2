// SPDX-License-Identifier: Apache-2.0
//
// A wire made of literal frames, with a clock that only the wire moves: waiting for a message is
// what lets time pass. A test says which frames answer which request, and looks at what was sent.
#pragma once

#include <algorithm>
#include <functional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "gateway/clock.h"
#include "gateway/transport.h"
#include "wire_bytes.h"

namespace gateway_test {

using qel_gateway::Duration;
using qel_gateway::TimePoint;

class FakeClock : public qel_gateway::Clock {
 public:
  TimePoint now() const override { return now_; }
  void set(TimePoint time) { now_ = time; }
  // Milliseconds since the test began.
  int64_t elapsed() const {
    return std::chrono::duration_cast<Duration>(now_ - TimePoint(std::chrono::hours(1))).count();
  }

 private:
  TimePoint now_ = TimePoint(std::chrono::hours(1));
};

// The message of a sent frame, with its chunk if it has one.
struct Sent {
  Bytes frame;
  std::string text;
  int64_t at = 0;  // milliseconds
};

class FakeWire : public qel_gateway::Transport {
 public:
  explicit FakeWire(FakeClock& clock) : clock_(clock) {}

  // `frame` comes in `delay` milliseconds from now.
  void arrives(Bytes frame, int delay = 1) {
    incoming_.push_back({clock_.now() + Duration(delay), std::move(frame)});
  }

  // Whenever a request is sent whose text holds `part`, these frames come `delay` later. Rules are
  // tried in order; one that has been used `times` times is passed over.
  void answer(std::string part, std::vector<Bytes> frames, int delay = 1, int times = 1000) {
    rules_.push_back({std::move(part), std::move(frames), delay, times});
  }

  // Called for each request that is sent.
  std::function<void(const Sent&)> on_send;

  const std::vector<Sent>& sent() const { return sent_; }
  size_t count(std::string_view part) const {
    return static_cast<size_t>(std::ranges::count_if(
        sent_, [part](const Sent& one) { return one.text.find(part) != std::string::npos; }));
  }

  void send(const qel_gateway::Peer& to, std::string_view text, std::span<const uint8_t> chunk,
            bool with_chunk) override {
    sent_.push_back({qel_gateway::build_frame(to.mac, own_mac(), text, chunk, with_chunk),
                     std::string(text), clock_.elapsed()});
    const Sent copy = sent_.back();
    for (Rule& rule : rules_) {
      if (rule.times > 0 && copy.text.find(rule.part) != std::string::npos) {
        --rule.times;
        for (const Bytes& frame : rule.frames) {
          arrives(frame, rule.delay);
        }
        break;
      }
    }
    if (on_send) {
      on_send(copy);
    }
  }

  std::optional<qel_gateway::Incoming> receive(TimePoint deadline) override {
    if (before_receive) {
      before_receive();
    }
    const auto next =
        std::ranges::min_element(incoming_, {}, [](const auto& entry) { return entry.first; });
    // What has come is there, however late it is asked for.
    if (next == incoming_.end() || next->first > std::max(deadline, clock_.now())) {
      if (deadline == TimePoint::max()) {
        throw std::logic_error("everybody waits for ever");
      }
      clock_.set(std::max(clock_.now(), deadline));
      return std::nullopt;
    }
    clock_.set(std::max(clock_.now(), next->first));
    const Bytes frame = next->second;
    incoming_.erase(next);
    auto read = qel_gateway::read_frame(frame);
    if (!read) {
      return std::nullopt;
    }
    return qel_gateway::Incoming{{read->source, 0, 0}, std::move(read->payload)};
  }

  std::function<void()> before_receive;

  qel_gateway::Peer everybody() const override {
    return {{{0x01, 0x80, 0xC2, 0x00, 0x00, 0x1F}}, 0, 0};
  }
  qel_gateway::Peer address_of(const qel_gateway::MacAddress& mac) const override {
    return {mac, 0, 0};
  }
  qel_gateway::MacAddress own_mac() const override { return {{0x02, 0, 0, 0, 0, 0x01}}; }
  size_t max_message() const override { return max_message_bytes; }
  bool carries_chunks() const override { return chunks; }
  void wake_on(int /*fd*/) override {}

  size_t max_message_bytes = 1568;
  bool chunks = true;

 private:
  struct Rule {
    std::string part;
    std::vector<Bytes> frames;
    int delay = 1;
    int times = 1000;
  };

  FakeClock& clock_;
  std::vector<std::pair<TimePoint, Bytes>> incoming_;
  std::vector<Rule> rules_;
  std::vector<Sent> sent_;
};

// A reply frame around `text`, as the switch 0a:1b:2c:3d:4e:5f sends it, or another one.
inline Bytes reply(std::string_view text, std::string_view from = "0a 1b 2c 3d 4e 5f") {
  return reply_head(static_cast<uint16_t>(text.size() + 16), from) + text;
}

// A reply with raw bytes behind its text.
inline Bytes reply_with_chunk(std::string_view text, const Bytes& chunk) {
  return reply_head(static_cast<uint16_t>(text.size() + 17)) + text + Bytes(1, 0) + chunk;
}

// The answer to a probe, with the trailing NUL that switches send.
inline Bytes probe_answer(uint32_t tick, std::string_view name = "office-sw",
                          std::string_view mac = "0a1b2c3d4e5f",
                          std::string_view from = "0a 1b 2c 3d 4e 5f", int64_t uptime = 3600,
                          int64_t countdown = 0) {
  std::string text =
      R"({"mac":")" + std::string(mac) + R"(","cmd":"answer","subcmd":"answer","data":{"mac":")" +
      std::string(mac) + R"(","sys_ip":"192.168.1.10","sys_mask":24,"name":")" + std::string(name) +
      R"(","model":"QM4410_MODEL","type":"switch","uptime":)" + std::to_string(uptime) +
      R"(,"hw_version":"V1.0","sw_version":"V2.1","active":1,"sys_active":)" +
      std::to_string(countdown) + R"(,"cpu":7,"mem":41,"ntick":)" + std::to_string(tick) + "}}";
  const Bytes body = Bytes{} + text + Bytes(1, 0);
  return reply_head(static_cast<uint16_t>(body.size() + 16), from) + body;
}

// The "ntick" of a probe that was sent; 0 when it is none.
inline uint32_t tick_of(const std::string& text) {
  const auto at = text.find("\"ntick\":");
  return at == std::string::npos ? 0 : static_cast<uint32_t>(std::stoul(text.substr(at + 8)));
}

}  // namespace gateway_test
