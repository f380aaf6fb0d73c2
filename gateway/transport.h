// SPDX-License-Identifier: Apache-2.0
//
// What carries messages to switches and back: raw Ethernet frames or UDP datagrams. The session
// knows only this interface; tests give it a fake one.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "gateway/clock.h"
#include "gateway/frame.h"
#include "gateway/mac.h"

namespace qel_gateway {

// Where a message goes to or came from. Over Ethernet only `mac` is set, over UDP only the others.
struct Peer {
  MacAddress mac;
  uint32_t ip = 0;    // IPv4, host byte order
  uint16_t port = 0;  // host byte order

  bool operator==(const Peer&) const = default;
};

struct Incoming {
  Peer from;
  Payload payload;
  // Not for us at all: a request that another program of this machine sent to `from`.
  bool overheard = false;
};

class Transport {
 public:
  virtual ~Transport() = default;

  // Sends one message. `chunk` follows the text when `with_chunk` is true. Throws Error when the
  // message cannot leave at all (too long for the wire, interface gone).
  virtual void send(const Peer& to, std::string_view text, std::span<const uint8_t> chunk,
                    bool with_chunk) = 0;

  // The next message that came in. Waits until `deadline` at the most; nothing when the time is
  // up, when what came in is no message, or when a descriptor given to wake_on() became readable.
  // Throws Error when the wire is gone, also when send() met with that first.
  virtual std::optional<Incoming> receive(TimePoint deadline) = 0;

  // Everybody on this wire: the group address, or the one UDP host.
  virtual Peer everybody() const = 0;

  // The address of the switch with this MAC; Peer{} where only a reply can tell it.
  virtual Peer address_of(const MacAddress& mac) const = 0;

  // The gateway's own MAC, by which switches remember it.
  virtual MacAddress own_mac() const = 0;

  // Most bytes of text, NUL and chunk that fit into one message on this wire.
  virtual size_t max_message() const = 0;

  // False where a chunk behind the text cannot be placed by the receiver.
  virtual bool carries_chunks() const = 0;

  // A remark about the wire to be shown when answers stay away, such as a small MTU; may be empty.
  virtual std::string remark() const { return {}; }

  // From now on receive() also gives what other programs of this machine ask the switches. The
  // answers to that come to this program too, and only so can it tell them from reports that
  // nobody asked for. Does nothing where other programs' answers are not heard.
  virtual void overhear() {}

  // One more descriptor that ends receive() when it becomes readable; -1 takes it away.
  virtual void wake_on(int fd) = 0;
};

// Opens raw Ethernet on a network interface. Throws Error with advice when there is no such
// interface, it is down, or the process lacks CAP_NET_RAW.
std::unique_ptr<Transport> open_ethernet(const std::string& interface);

// Opens a UDP socket towards `host`, an IPv4 address or a name, and the port of the switch.
std::unique_ptr<Transport> open_udp(const std::string& host);

}  // namespace qel_gateway
