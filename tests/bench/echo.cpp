// SPDX-License-Identifier: Apache-2.0
//
// The limit that the agent is measured against: a responder on one raw socket that does what each
// frame costs on any design, and nothing else. It echoes as many frames of as many bytes as the
// request says, after the work of the kind that the request says (wire.h).
//
//   qel_bench_echo INTERFACE
#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/sysinfo.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "tests/bench/wire.h"

namespace {

using bench::EchoKind;

constexpr size_t kMessageSize = 65535;  // a message area, as large as a module's reply can be
constexpr size_t kTextRead = 1601;      // the private copy of a frame

const char* interface_name;
uint8_t own_mac[6];
int kept_socket;
uint8_t received[kMessageSize];
uint8_t message_area[kMessageSize];
volatile unsigned long sink;  // so that no read is optimised away

ifreq request_for_interface() {
  ifreq request = {};
  std::strncpy(request.ifr_name, interface_name, sizeof request.ifr_name - 1);
  return request;
}

int interface_index(int fd) {
  ifreq request = request_for_interface();
  return ioctl(fd, SIOCGIFINDEX, &request) < 0 ? -1 : request.ifr_ifindex;
}

// An interface request on a socket made for it, as a look-up outside of the receiving code is.
ifreq ask_interface(unsigned long what) {
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  ifreq request = request_for_interface();
  if (fd < 0 || ioctl(fd, what, &request) < 0) {
    std::perror("interface request");
  }
  close(fd);
  return request;
}

// The first lines of a /proc file, read the ordinary way.
void read_lines(const char* path, int lines) {
  std::FILE* file = std::fopen(path, "re");
  if (file == nullptr) {
    return;
  }
  char line[256];
  for (int i = 0; i < lines && std::fgets(line, sizeof line, file) != nullptr; ++i) {
    unsigned long figure = 0;
    if (std::sscanf(line, "%*s %lu", &figure) == 1) {
      sink = sink + figure;
    }
  }
  std::fclose(file);
}

void read_what_a_probe_reads() {
  read_lines("/proc/stat", 1);
  read_lines("/proc/meminfo", 4);
  struct sysinfo info = {};
  sink = sink + static_cast<unsigned long>(sysinfo(&info) == 0 ? info.uptime : 0);
  sink = sink + static_cast<unsigned char>(ask_interface(SIOCGIFADDR).ifr_addr.sa_data[2]);
  sink = sink + static_cast<unsigned char>(ask_interface(SIOCGIFNETMASK).ifr_netmask.sa_data[2]);
}

// The same on a socket that was opened before.
ifreq ask_interface_on(int fd, unsigned long what) {
  ifreq request = request_for_interface();
  if (ioctl(fd, what, &request) < 0) {
    std::perror("interface request");
  }
  return request;
}

// False when the frame is not for this switch. The gateway's network is known by the same look-up
// that the reply address needs, so there is one of the index and one of the MAC address.
bool do_frame_work(int fd, size_t length, const sockaddr_ll& from, sockaddr_ll& to, EchoKind kind) {
  uint8_t copy[kTextRead] = {};
  std::memcpy(copy, received, std::min(length, kTextRead - 1));
  if (std::memcmp(copy, own_mac, sizeof own_mac) != 0) {
    return false;
  }
  to.sll_ifindex = interface_index(fd);
  if (to.sll_ifindex != from.sll_ifindex) {
    return false;
  }
  const bool least = kind == EchoKind::kLeast;
  const ifreq hardware =
      least ? ask_interface_on(kept_socket, SIOCGIFHWADDR) : ask_interface(SIOCGIFHWADDR);
  std::memcpy(received + 6, hardware.ifr_hwaddr.sa_data, sizeof own_mac);
  if (!least) {
    std::memset(message_area, 0, sizeof message_area);
  }
  sink = sink + message_area[copy[bench::kOffsetText]];
  return true;
}

void answer(int fd) {
  sockaddr_ll from = {};
  socklen_t from_length = sizeof from;
  const ssize_t got = recvfrom(fd, received, sizeof received, MSG_DONTWAIT,
                               reinterpret_cast<sockaddr*>(&from), &from_length);
  if (got < static_cast<ssize_t>(bench::kOffsetText)) {
    return;
  }
  const auto kind = static_cast<EchoKind>(received[bench::kOffsetKind]);
  const int count = received[bench::kOffsetCount];
  const size_t bytes =
      static_cast<size_t>(received[bench::kOffsetBytes]) * 256 + received[bench::kOffsetBytes + 1];
  sockaddr_ll to = {};
  to.sll_family = AF_PACKET;
  to.sll_ifindex = from.sll_ifindex;
  uint8_t gateway[6];
  std::memcpy(gateway, received + 6, sizeof gateway);
  if (kind != EchoKind::kBare && !do_frame_work(fd, static_cast<size_t>(got), from, to, kind)) {
    return;
  }
  if (kind == EchoKind::kProbe) {
    read_what_a_probe_reads();
  }
  std::memcpy(received, gateway, sizeof gateway);
  std::memcpy(received + 6, own_mac, sizeof own_mac);
  received[12] = bench::kEchoReplyType >> 8;
  received[13] = bench::kEchoReplyType & 0xFF;
  for (int i = 0; i < count; ++i) {
    if (sendto(fd, received, std::min(bytes, bench::kFrameMax), 0, reinterpret_cast<sockaddr*>(&to),
               sizeof to) < 0) {
      std::perror("sendto");
    }
  }
  if (kind == EchoKind::kLimit || kind == EchoKind::kProbe) {
    std::memset(received, 0, sizeof received);  // for the next frame
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: qel_bench_echo INTERFACE\n");
    return 2;
  }
  interface_name = argv[1];
  const int fd = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, htons(bench::kEchoRequestType));
  if (fd < 0) {
    std::perror("socket");
    return 1;
  }
  kept_socket = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  const ifreq hardware = ask_interface(SIOCGIFHWADDR);
  std::memcpy(own_mac, hardware.ifr_hwaddr.sa_data, sizeof own_mac);
  const int poll = epoll_create1(EPOLL_CLOEXEC);
  epoll_event event = {};
  event.events = EPOLLIN;
  if (poll < 0 || epoll_ctl(poll, EPOLL_CTL_ADD, fd, &event) < 0) {
    std::perror("epoll");
    return 1;
  }
  while (epoll_wait(poll, &event, 1, -1) >= 0) {
    answer(fd);
  }
  std::perror("epoll_wait");
  return 1;
}
