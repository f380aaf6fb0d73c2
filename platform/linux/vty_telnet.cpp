// SPDX-License-Identifier: Apache-2.0
//
// The telnet layer of a session: takes the protocol off what arrives and puts it on what leaves.
// The shell offers to echo and to work byte by byte, and asks for the size of the window;
// everything else the protocol library turns down.
#include <algorithm>
#include <cstddef>

// Uses size_t without saying where it comes from.
#include <libtelnet.h>

#include "platform/linux/vty_internal.h"

namespace morva::shell {
namespace {

constexpr telnet_telopt_t kOptions[] = {
    {TELNET_TELOPT_ECHO, TELNET_WILL, TELNET_DONT},
    {TELNET_TELOPT_SGA, TELNET_WILL, TELNET_DO},
    {TELNET_TELOPT_NAWS, TELNET_WONT, TELNET_DO},
    {-1, 0, 0},
};

// The library is fed in slices, so that a session that ends in the middle costs no more than one.
constexpr size_t kSlice = 512;

constexpr unsigned kWidthMinimum = 20;  // narrower windows are not worth caring for

// What the keys of the telnet menu mean to the line editor.
std::string_view keys_of(unsigned char command) {
  switch (command) {
    case TELNET_IP:
    case TELNET_BREAK:
    case TELNET_ABORT:
      return "\x03";
    case TELNET_EC:
      return "\x7f";
    case TELNET_EL:
      return "\x05\x15";
    case TELNET_EOF:
      return "\x04";
    default:
      return "";
  }
}

void take_window_size(vty& session, const char* bytes, size_t size) {
  if (size != 4) {
    return;
  }
  const unsigned width =
      static_cast<unsigned char>(bytes[0]) * 256u + static_cast<unsigned char>(bytes[1]);
  session.terminal_width = width >= kWidthMinimum ? width : 0;
}

void on_event(telnet_t* /*telnet*/, telnet_event_t* event, void* opaque) {
  vty& session = *static_cast<vty*>(opaque);
  switch (event->type) {
    case TELNET_EV_DATA:
      if (!session.closing) {
        session.input.append(event->data.buffer, event->data.size);
      }
      break;
    case TELNET_EV_SEND:
      session_write_raw(session, {event->data.buffer, event->data.size});
      break;
    case TELNET_EV_IAC:
      session.input += keys_of(event->iac.cmd);
      if (event->iac.cmd == TELNET_AYT) {
        session_write_raw(session, "\r\n[yes]\r\n");
      }
      break;
    case TELNET_EV_DO:
    case TELNET_EV_DONT:
      if (event->neg.telopt == TELNET_TELOPT_ECHO) {
        session.echo_agreed = event->type == TELNET_EV_DO;
      }
      break;
    case TELNET_EV_SUBNEGOTIATION:
      if (event->sub.telopt == TELNET_TELOPT_NAWS) {
        take_window_size(session, event->sub.buffer, event->sub.size);
      }
      break;
    case TELNET_EV_COMPRESS:
      // Nobody was offered compression: a small stream could unpack to any amount of input.
    case TELNET_EV_ERROR:
      session.dropped = true;
      break;
    default:
      break;
  }
}

}  // namespace

void telnet_open(vty& session) {
  session.telnet = telnet_init(kOptions, on_event, 0, &session);
}

void telnet_close(vty& session) {
  if (session.telnet != nullptr) {
    telnet_free(session.telnet);
    session.telnet = nullptr;
  }
}

void telnet_greet(vty& session) {
  telnet_negotiate(session.telnet, TELNET_WILL, TELNET_TELOPT_ECHO);
  telnet_negotiate(session.telnet, TELNET_WILL, TELNET_TELOPT_SGA);
  telnet_negotiate(session.telnet, TELNET_DO, TELNET_TELOPT_NAWS);
}

void telnet_feed(vty& session, std::span<const uint8_t> bytes) {
  session.spoke_telnet =
      session.spoke_telnet || std::find(bytes.begin(), bytes.end(), TELNET_IAC) != bytes.end();
  while (!bytes.empty() && !session.dropped) {
    const std::span<const uint8_t> slice = bytes.first(std::min(bytes.size(), kSlice));
    bytes = bytes.subspan(slice.size());
    telnet_recv(session.telnet, reinterpret_cast<const char*>(slice.data()), slice.size());
  }
}

void telnet_write(vty& session, std::string_view text) {
  telnet_send(session.telnet, text.data(), text.size());
}

bool telnet_echoes(const vty& session) {
  // Echo was offered at the greeting. A client that speaks telnet accepts or refuses (a refusal is
  // not reported by the library); one that does not speak it at all gets the echo of a terminal
  // line.
  return session.echo_agreed || !session.spoke_telnet;
}

}  // namespace morva::shell
