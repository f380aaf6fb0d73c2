// SPDX-License-Identifier: Apache-2.0
//
// What qelctl hears: a frame (first byte 'F') or the text of a reply, up to the readers of each
// report and the texts made fit for a terminal.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "gateway/frame.h"
#include "gateway/json.h"
#include "gateway/messages.h"
#include "gateway/ports.h"
#include "gateway/text.h"

namespace {

using namespace qel_gateway;

template <typename Read>
void attempt(Read read) {
  try {
    read();
  } catch (const BadReply& error) {
    for (const char byte : std::string_view(error.what())) {
      if (static_cast<unsigned char>(byte) < 0x20) {
        std::abort();  // a reason is shown on a terminal
      }
    }
  }
}

void read_reply(std::string_view text) {
  attempt([text] {
    const Json reply = parse_json(text);
    dump_json(reply);
    attempt([&] { text_member(reply, "mac"); });
    const Json& data = member(reply, "data");
    attempt([&] { read_identity(data); });
    if (!data.is_object()) {
      return;
    }
    for (const auto& member_of_data : data.items()) {
      const std::string& name = member_of_data.key();
      const Json& row = member_of_data.value();
      terminal_text(name);
      attempt([&] { read_port_info(name, row); });
      attempt([&] { read_port_position(row); });
      attempt([&] { read_port_config(row); });
      attempt([&] { read_port_link(row); });
      attempt([&] { read_port_poe(row); });
      attempt([&] { read_port_stats(row); });
      attempt([&] { read_port_client(row); });
    }
  });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) {
    return 0;
  }
  std::string text(reinterpret_cast<const char*>(data + 1), size - 1);
  if (data[0] == 'F') {
    FrameFault fault = FrameFault::None;
    const std::optional<Frame> frame = read_frame({data + 1, size - 1}, &fault);
    if (frame.has_value() != (fault == FrameFault::None)) {
      std::abort();
    }
    text = frame.has_value() ? frame->payload.text : "";
  }
  read_reply(text);
  terminal_text(text);
  fit_text(terminal_text(text), 20);
  return 0;
}
