// SPDX-License-Identifier: Apache-2.0
#include "qel/qel_eth.h"

#include <arpa/inet.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "platform/log.h"
#include "platform/sys.h"
#include "protocol/gateway_protocol.h"
#include "qel/qel_cmd.h"
#include "qel/qel_console.h"
#include "qel/qel_main.h"
#include "qel/qel_netif.h"
#include "qel/qel_os.h"
#include "qel/qel_restart.h"
#include "qel/qel_table.h"

namespace proto = qel_protocol;

namespace {

constexpr char kSource[] = "qel/qel_eth";
constexpr size_t kReceiveSize = 65535;
constexpr size_t kHexdumpRow = 30;
constexpr uint16_t kVlanIdMask = 0x0fff;

uint16_t read_be16(const uint8_t* at) {
  return static_cast<uint16_t>(static_cast<unsigned>(at[0]) << 8 | at[1]);
}

void register_read(int fd) {
  funcname_thread_add_read(g_qel_master, qel_eth_read, nullptr, fd, "qel_eth_read", kSource,
                           __LINE__);
}

// Whether the kernel handed over the tag of a VLAN beside the frame. Id 0 is a priority and no
// VLAN. The tag counts without its status bit, which older kernels do not set; without a tag it is
// 0.
bool tag_beside(struct msghdr* message) {
  if ((message->msg_flags & MSG_CTRUNC) != 0) {
    return true;  // something was said that did not fit
  }
  for (struct cmsghdr* said = CMSG_FIRSTHDR(message); said != nullptr;
       said = CMSG_NXTHDR(message, said)) {
    struct tpacket_auxdata frame = {};
    if (said->cmsg_level == SOL_PACKET && said->cmsg_type == PACKET_AUXDATA &&
        said->cmsg_len >= CMSG_LEN(sizeof frame)) {
      std::memcpy(&frame, CMSG_DATA(said), sizeof frame);
      if ((frame.tp_vlan_tci & kVlanIdMask) != 0) {
        return true;
      }
    }
  }
  return false;
}

// The management network is the only trust boundary that this protocol has, so a frame counts only
// when it came in through it. Where that cannot be told, it does not count.
bool arrived_elsewhere(const sockaddr_ll& from, const qel_link& link) {
  const int management = link.addr.eth.sll_ifindex;
  return management <= 0 || from.sll_ifindex != management;
}

// Whether the frame carried the tag of a VLAN that this interface is not in. The kernel takes such
// tags off and, to a socket of one ethertype, says so only by calling the frame another host's. It
// calls each frame so whose destination is neither a group nor the interface's own address: a
// system MAC that is not the interface's tells nothing, and a tag cannot be seen then.
bool of_another_vlan(const sockaddr_ll& from, const qel_link& link, const uint8_t* destination) {
  constexpr uint8_t kUnknownMac[proto::kMacSize] = {};
  constexpr uint8_t kGroupBit = 0x01;
  return from.sll_pkttype == PACKET_OTHERHOST &&
         ((destination[0] & kGroupBit) != 0 ||
          std::memcmp(destination, link.own_mac, proto::kMacSize) == 0 ||
          std::memcmp(kUnknownMac, link.own_mac, proto::kMacSize) == 0);
}

}  // namespace

int qel_eth_open() {
  const int fd = qel_os_socket(AF_PACKET, SOCK_RAW, htons(proto::kEthertypeToSwitch));
  if (fd < 0) {
    std::perror("socket");
    return 0;
  }
  if (qel_os_setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, 1) < 0) {
    std::perror("setsockopet error\n");
    qel_os_close(fd);
    return 0;
  }
  // Without it only the packet type shows a tag, as on newer kernels anyway.
  qel_os_setsockopt(fd, SOL_PACKET, PACKET_AUXDATA, 1);
  g_qel_dev.eth_fd = fd;
  register_read(fd);
  return fd;
}

int qel_eth_read(struct thread* thread) {
  static uint8_t buffer[kReceiveSize];
  const int fd = thread->fd;
  if (qel_restart_ordered()) {
    return 0;
  }
  qel_link link = {};
  link.kind = kQelLinkEth;
  alignas(struct cmsghdr) uint8_t said[CMSG_SPACE(sizeof(struct tpacket_auxdata))] = {};
  struct iovec area = {buffer, sizeof buffer};
  struct msghdr message = {};
  message.msg_name = &link.addr.eth;
  message.msg_namelen = sizeof link.addr.eth;
  message.msg_iov = &area;
  message.msg_iovlen = 1;
  message.msg_control = said;
  message.msg_controllen = sizeof said;
  const ssize_t received = qel_os_recvmsg(fd, &message);
  // The platform stops the frames of an agent that is switched off; those that came in before it
  // did still wait here.
  if (received > 0 && g_qel_dev.enable != 0 && !tag_beside(&message)) {
    link.fd = fd;
    qel_eth_parse(&link, {buffer, static_cast<size_t>(received)});
  }
  register_read(fd);
  return 0;
}

int qel_eth_parse(qel_link* link, std::span<const uint8_t> frame) {
  uint8_t system_mac[proto::kMacSize] = {};
  sys_mac_get(system_mac);
  // One byte more than is looked at, so that the text always ends.
  uint8_t local[proto::kFrameReadSize + 1] = {};
  const size_t size = std::min(frame.size(), proto::kFrameReadSize);
  std::memcpy(local, frame.data(), size);
  if (read_be16(local + proto::kOffsetEthertype) != proto::kEthertypeToSwitch) {
    return -1;
  }
  const uint8_t* destination = local + proto::kOffsetDestination;
  if (std::memcmp(destination, system_mac, proto::kMacSize) != 0 &&
      std::memcmp(destination, proto::kGroupMac, proto::kMacSize) != 0) {
    return -1;
  }
  std::memcpy(link->gw_mac, local + proto::kOffsetSource, proto::kMacSize);
  // Looked up for each frame: the interface may have been made again.
  const sockaddr_ll from = link->addr.eth;
  qel_eth_link_init(link, link->fd);
  if (arrived_elsewhere(from, *link) || of_another_vlan(from, *link, destination)) {
    return -1;
  }
  const char* text = reinterpret_cast<const char*>(local + proto::kOffsetMessage);
  if (qel_debug(kDebugFrame)) {
    qel_console("gwmac[%s] data=%s  \r\n", mac2str(link->gw_mac), text);
  }
  const size_t received = size - std::min(size, proto::kOffsetMessage);
  qel_cmd_dispatch(link, text, read_be16(local + proto::kOffsetLength), received);
  return 0;
}

void qel_eth_link_init(qel_link* link, int fd) {
  link->fd = fd;
  link->reserved = 0;
  link->addr = qel_link_addr{};
  link->addr.eth = sockaddr_ll{};
  link->addr.eth.sll_family = AF_PACKET;
  link->addr.eth.sll_ifindex = qel_netif_index_get(g_qel_dev.eth_fd, kQelManagementInterface);
  link->addrlen = kQelEthAddrlen;
  qel_netif_mac_get(kQelManagementInterface, link->own_mac);
}

void qel_hexdump(const uint8_t* bytes, size_t length) {
  qel_console("buf :");
  for (size_t i = 0; i < length; ++i) {
    qel_console("%02x ", bytes[i]);
    if (i % kHexdumpRow == 0) {
      qel_console("\r\n");
    }
  }
  qel_console("\r\n");
}

void qel_eth_check_mtu() {
  // The MTU counts what follows the 14 bytes of addresses and ethertype.
  constexpr int kEthernetHeader = 14;
  constexpr int kLongest = static_cast<int>(proto::kMessageMax + proto::kOffsetMessage);
  struct ifreq request = {};
  std::memcpy(request.ifr_name, kQelManagementInterface, sizeof kQelManagementInterface);
  if (g_qel_dev.eth_fd <= 0 || qel_os_ifreq(g_qel_dev.eth_fd, SIOCGIFMTU, &request) < 0) {
    return;
  }
  if (request.ifr_mtu < kLongest - kEthernetHeader) {
    const int fits = request.ifr_mtu + kEthernetHeader - static_cast<int>(proto::kOffsetMessage);
    zlog_notice("%s has an MTU of %d: messages of up to %d bytes can be sent, the longest has %zu",
                kQelManagementInterface, request.ifr_mtu, fits > 0 ? fits : 0, proto::kMessageMax);
  }
}
