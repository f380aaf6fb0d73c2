// SPDX-License-Identifier: Apache-2.0
//
// Frames from somebody who means harm: good replies with bytes changed, cut, repeated and swapped,
// through everything that reads them. What must hold is that nothing is read outside of the frame
// (the sanitizers see to that), that only BadReply is thrown, and that no text that is shown holds
// anything a terminal obeys.
#include <gtest/gtest.h>

#include "fake_wire.h"
#include "gateway/cli/identity_output.h"
#include "gateway/cli/port_output.h"
#include "gateway/cli/watch_log.h"
#include "gateway/ports.h"
#include "gateway/session.h"
#include "gateway/text.h"

namespace qel_gateway::cli {
namespace {

using gateway_test::Bytes;
using gateway_test::reply;

// The same sequence in every run.
class Dice {
 public:
  uint32_t next(uint32_t below) {
    state_ ^= state_ << 13;
    state_ ^= state_ >> 7;
    state_ ^= state_ << 17;
    return static_cast<uint32_t>(state_ % below);
  }

 private:
  uint64_t state_ = 0x9E3779B97F4A7C15;
};

std::vector<Bytes> good_frames() {
  const std::string head = R"({"mac":"0a1b2c3d4e5f","cmd":"update","subcmd":")";
  return {
      gateway_test::probe_answer(7),
      reply(head + R"(ports_info","data":{"ge1":[0,1,"G",1],"ge2":[1,2,"GF",0]}})"),
      reply(head + R"(ports_conf","data":{"ge1":[1,"AN",0,0,0,0,1,1]}})"),
      reply(head + R"(ports_link","data":{"ge1":[1,1000,1,0]}})"),
      reply(head + R"(ports_stats","data":{"ge1":[18446744073709551615,2,3,4]}})"),
      reply(head + R"(ports_client","data":{"ge5":{"client_state":"ON",)"
                   R"("client_mac":"001122334455","client_ip":"1.2.3.4","client_type":"UN"}}})"),
      reply(R"({"ret":0,"data":[{"name":"\u00e4","n":-1.5e3}]})"),
      build_frame({{0x0A, 0x1B, 0x2C, 0x3D, 0x4E, 0x5F}}, {{0x02, 0, 0, 0, 0, 0x02}},
                  R"({"mac":"0a1b2c3d4e5f","cmd":"get","subcmd":"ports_client","data":{}})", {},
                  false),
  };
}

void mutate(Bytes& frame, Dice& dice) {
  constexpr uint8_t kSpiteful[] = {0x00, 0x1B, 0x9B, 0xFF, '"', '\\', '{', '[', '9', '-', 'e'};
  for (uint32_t i = dice.next(4) + 1; i > 0 && !frame.empty(); --i) {
    const size_t at = dice.next(static_cast<uint32_t>(frame.size()));
    switch (dice.next(5)) {
      case 0:
        frame[at] = kSpiteful[dice.next(sizeof kSpiteful)];
        break;
      case 1:
        frame[at] = static_cast<uint8_t>(dice.next(256));
        break;
      case 2:
        frame.resize(at);
        break;
      case 3:
        frame.insert(frame.begin() + static_cast<ptrdiff_t>(at), dice.next(40), frame[at]);
        break;
      default:
        std::swap(frame[at], frame[dice.next(static_cast<uint32_t>(frame.size()))]);
        break;
    }
  }
}

// No control characters, neither those of ASCII nor U+0080 to U+009F, which begin with C2.
void expect_harmless(const std::string& text) {
  uint8_t before = 0;
  for (const char c : text) {
    const auto byte = static_cast<uint8_t>(c);
    ASSERT_TRUE(c == '\n' || byte >= 0x20) << text;
    ASSERT_NE(byte, 0x7F) << text;
    ASSERT_FALSE(before == 0xC2 && byte >= 0x80 && byte < 0xA0) << text;
    before = byte;
  }
}

// Everything that any command does with a reply.
void use(const Reply& got) {
  PortTable table;
  if (got.data.is_object()) {
    for (const auto& [name, row] : got.data.items()) {
      table.ports.push_back(read_port_info(name, row));
    }
  }
  expect_harmless(ports_table(table).text({80, false}));
  expect_harmless(dump_json(ports_json(table)));
}

void use_as_identity(const Reply& got) {
  Switch one;
  one.identity = read_identity(got.data);
  expect_harmless(identity_table({one}).text({80, false}));
  expect_harmless(dump_json(identity_json(one)));
}

void use_as_trap(const Reply& got) {
  Switch one;
  one.mac = got.mac;
  one.identity.name = got.text;
  WatchLog log({one}, true, {}, [](const Event& event) {
    expect_harmless(event_line(event, false));
    expect_harmless(event_json(event));
  });
  log.hear(got, {});
}

void use_rows(const Reply& got) {
  if (!got.data.is_object()) {
    return;
  }
  for (const auto& [name, row] : got.data.items()) {
    for (const auto& read :
         {+[](const Json& j) { read_port_config(j); }, +[](const Json& j) { read_port_link(j); },
          +[](const Json& j) { read_port_stats(j); },
          +[](const Json& j) { read_port_client(j); }}) {
      try {
        read(row);
      } catch (const BadReply&) {
        // as it should be
      }
    }
  }
}

TEST(Hostile, ChangedFramesDoNoHarm) {
  constexpr int kRounds = 10000;
  const auto frames = good_frames();
  Dice dice;
  int readable = 0;
  int overheard = 0;
  WatchLog bystander({}, true, {}, [](const Event&) {});
  for (int i = 0; i < kRounds; ++i) {
    Bytes frame = frames[dice.next(static_cast<uint32_t>(frames.size()))];
    mutate(frame, dice);
    if (const auto request = read_request(frame)) {
      bystander.overhear(request->destination, request->payload.text, {});
      ++overheard;
    }
    auto read = read_frame(frame);
    if (!read) {
      continue;
    }
    for (const auto& action : {use, use_as_identity, use_as_trap, use_rows}) {
      try {
        action(read_reply({{read->source, 0, 0}, read->payload}));
        ++readable;
      } catch (const BadReply& reason) {
        expect_harmless(reason.what());
      }
    }
  }
  EXPECT_GT(overheard, kRounds / 100);
  EXPECT_GT(readable, kRounds / 100);  // else this looked at nothing
}

}  // namespace
}  // namespace qel_gateway::cli
