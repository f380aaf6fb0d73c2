// SPDX-License-Identifier: Apache-2.0
#include "qel/qel_send.h"

#include <cstdio>
#include <cstring>

#include "protocol/gateway_protocol.h"
#include "qel/qel_console.h"
#include "qel/qel_os.h"

namespace proto = qel_protocol;

namespace {

// An upload answer is its JSON text, a NUL and a chunk, and the text is far shorter than this.
constexpr size_t kTailMessageMax = 2048;
static_assert(kTailMessageMax >= proto::kMessageMax);
constexpr size_t kFrameMax = proto::kOffsetMessage + kTailMessageMax;

void write_be16(uint8_t* at, unsigned value) {
  at[0] = static_cast<uint8_t>(value >> 8);
  at[1] = static_cast<uint8_t>(value);
}

void send_datagram(const qel_link* link, const char* text, size_t length) {
  const ssize_t sent = qel_os_sendto(link->fd, text, length, static_cast<int>(link->flags),
                                     &link->addr.any, link->addrlen);
  if (sent < 0) {
    std::perror("sendto(udp)");
  }
}

void trace(const char* function, unsigned line, const char* what) {
  if (qel_debug(kDebugFrame)) {
    qel_console("[%s,%d] send %s \n", function, static_cast<int>(line), what);
  }
}

void refuse(const char* function, unsigned line, size_t length) {
  qel_console("[%s,%d] len[%d] argc error \n", function, static_cast<int>(line),
              static_cast<int>(length));
}

}  // namespace

int qel_cmd_send(const qel_link* link, const char* text, size_t length) {
  if (link == nullptr || text == nullptr || length > proto::kMessageMax) {
    refuse(__func__, __LINE__, length);
    return 0;
  }
  trace(__func__, __LINE__, "start");
  if (link->kind == kQelLinkUdp) {
    send_datagram(link, text, length);
  } else if (link->kind == kQelLinkEth || link->kind == kQelLinkEthAlso) {
    qel_eth_send_frames(link, text, length, 0);
  }
  trace(__func__, __LINE__, "ok");
  return 0;
}

int qel_cmd_send_tail(const qel_link* link, const char* text, size_t length, uint16_t tail) {
  // A datagram is as long as the system takes; only a frame has to be built somewhere.
  if (link->kind == kQelLinkEth && length > kTailMessageMax) {
    refuse(__func__, __LINE__, length);
    return 0;
  }
  trace(__func__, __LINE__, "start");
  if (link->kind == kQelLinkUdp) {
    send_datagram(link, text, length);
  } else if (link->kind == kQelLinkEth) {
    qel_eth_send_frames(link, text, length, tail);
  }
  trace(__func__, __LINE__, "ok");
  return 0;
}

int qel_cmd_send_text(const qel_link* link, const qel_text& text, size_t extra) {
  return qel_cmd_send(link, text.c_str(), text.length() + extra);
}

int qel_eth_send_frames(const qel_link* link, const char* text, size_t length, uint16_t tail) {
  uint8_t frame[kFrameMax];
  if (length > kTailMessageMax) {
    return 0;
  }
  std::memcpy(frame + proto::kOffsetDestination, link->gw_mac, proto::kMacSize);
  std::memcpy(frame + proto::kOffsetSource, link->own_mac, proto::kMacSize);
  write_be16(frame + proto::kOffsetEthertype, proto::kEthertypeToGateway);
  write_be16(frame + proto::kOffsetEthertype + 2, 0);
  std::memset(frame + proto::kOffsetMagic, 0, proto::kHeaderSize);
  write_be16(frame + proto::kOffsetMagic, proto::kMagic);
  const size_t field = tail != 0 ? tail : length + proto::kHeaderSize;
  write_be16(frame + proto::kOffsetLength, static_cast<unsigned>(field & 0xFFFF));
  // Every fragment carries the whole message length: the first frame holds all of it, the next one
  // what stands from its own start on, zeros behind the text included. The peer relies on it.
  const size_t fragments = (length + proto::kFragmentSize - 1) / proto::kFragmentSize;
  for (size_t k = 0; k < fragments; ++k) {
    std::memcpy(frame + proto::kOffsetMessage, text + k * proto::kFragmentSize, length);
    qel_eth_sendto(link, frame, proto::kOffsetMessage + length);
  }
  return 0;
}

int qel_eth_sendto(const qel_link* link, const uint8_t* frame, size_t length) {
  const ssize_t sent = qel_os_sendto(link->fd, frame, length, static_cast<int>(link->flags),
                                     &link->addr.any, link->addrlen);
  if (sent <= 0) {
    std::perror("sendto(eth)");
    return -1;
  }
  return 0;
}
