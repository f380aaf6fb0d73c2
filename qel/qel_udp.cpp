// SPDX-License-Identifier: Apache-2.0
#include "qel/qel_udp.h"

#include <arpa/inet.h>

#include <cstdio>
#include <cstring>

#include "platform/sys.h"
#include "protocol/gateway_protocol.h"
#include "qel/qel_cmd.h"
#include "qel/qel_console.h"
#include "qel/qel_main.h"
#include "qel/qel_os.h"
#include "qel/qel_restart.h"
#include "qel/qel_table.h"

namespace proto = qel_protocol;

namespace {

constexpr char kSource[] = "qel/qel_udp";
constexpr size_t kReceiveSize = 65535;

void register_read(int fd) {
  funcname_thread_add_read(g_qel_master, qel_udp_read, nullptr, fd, "qel_udp_read", kSource,
                           __LINE__);
}

// The first line tells the address length as "recvlen": known, and what tools that read it expect.
void trace(const qel_link& link, ssize_t received, const char* text) {
  char address[INET_ADDRSTRLEN] = {};
  inet_ntop(AF_INET, &link.addr.udp.sin_addr, address, sizeof address);
  qel_console("recvlen:%d,IP:%s,Port:%d \n", static_cast<int>(link.addrlen), address,
              ntohs(link.addr.udp.sin_port));
  qel_console("udp........retcount:%d, recvbuf:%s  \n", static_cast<int>(received), text);
}

}  // namespace

void qel_udp_init() {
  if (nvram_get_int("qel_udp_enable") != 0) {
    qel_udp_open();
  }
}

int qel_udp_open() {
  const int fd = qel_os_socket(AF_INET, SOCK_DGRAM, 0);
  if (fd < 0) {
    std::perror("socket");
    return -1;
  }
  struct sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_ANY);
  address.sin_port = htons(proto::kUdpPortSwitch);
  if (qel_os_bind(fd, reinterpret_cast<const struct sockaddr*>(&address), sizeof address) < 0) {
    std::perror("bind");
    qel_os_close(fd);
    return -1;
  }
  if (qel_os_setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, 1) < 0 ||
      qel_os_setsockopt(fd, SOL_SOCKET, SO_BROADCAST, 1) < 0) {
    std::perror("setsockopt failed");
    return -1;
  }
  g_qel_dev.udp_fd = fd;
  register_read(fd);
  return 0;
}

int qel_udp_read(struct thread* thread) {
  // One byte more than is received, so that the text always ends.
  static char buffer[kReceiveSize + 1];
  const int fd = thread->fd;
  if (qel_restart_ordered()) {
    return 0;
  }
  qel_link link = {};
  link.kind = kQelLinkUdp;
  link.addrlen = kQelUdpAddrlen;
  socklen_t length = link.addrlen;
  const ssize_t received = qel_os_recvfrom(fd, buffer, kReceiveSize, &link.addr.any, &length);
  if (received > 0 && g_qel_dev.enable != 0) {
    buffer[received] = '\0';
    link.addrlen = length;
    link.fd = fd;
    qel_cmd_dispatch(&link, buffer, 0, static_cast<size_t>(received));
    if (qel_debug(kDebugUdp)) {
      trace(link, received, buffer);
    }
  }
  register_read(fd);
  return 0;
}

void qel_udp_link_init(qel_link* link, uint32_t ip) {
  *link = qel_link{};
  link->kind = kQelLinkUdp;
  link->fd = g_qel_dev.udp_fd;
  link->addr.udp = sockaddr_in{};
  link->addr.udp.sin_family = AF_INET;
  link->addr.udp.sin_addr.s_addr = htonl(ip);
  link->addr.udp.sin_port = htons(proto::kUdpPortGateway);
  link->addrlen = kQelUdpAddrlen;
}
