// SPDX-License-Identifier: Apache-2.0
#include "qel/qel_netif.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <sys/ioctl.h>

#include <cstdio>
#include <cstring>

#include "platform/prefix.h"
#include "qel/qel_os.h"

namespace {

// An interface request for `name`, cut to `most` characters; the rest is zero.
struct ifreq request_for(const char* name, size_t most) {
  struct ifreq request = {};
  const size_t length = strnlen(name, most);
  std::memcpy(request.ifr_name, name, length);
  return request;
}

// Asks the kernel for one of the interface's addresses.
int address_get(const char* name, unsigned long what, char* text_out) {
  const int fd = qel_os_socket(AF_INET, SOCK_DGRAM, 0);
  if (fd < 0) {
    std::puts("socket create failed!\r");
    return -1;
  }
  struct ifreq request = request_for(name, IFNAMSIZ - 1);
  if (qel_os_ifreq(fd, what, &request) < 0) {
    std::perror("ioctl error!\n");
    qel_os_close(fd);
    return -1;
  }
  qel_os_close(fd);
  if (text_out != nullptr) {
    struct sockaddr_in address = {};
    std::memcpy(&address, &request.ifr_addr, sizeof address);
    inet_ntop(AF_INET, &address.sin_addr, text_out, kQelIpTextSize);
  }
  return 0;
}

}  // namespace

int qel_netif_mac_get(const char* name, uint8_t mac[6]) {
  if (name == nullptr) {
    return -1;
  }
  const int fd = qel_os_socket(AF_INET, SOCK_STREAM, 0);
  if (fd < 0) {
    std::perror("create socket falise...mac/n");
    return -1;
  }
  struct ifreq request = request_for(name, IFNAMSIZ - 1);
  if (qel_os_ifreq(fd, SIOCGIFHWADDR, &request) < 0) {
    std::printf("mac ioctl error,%s \n", name);
    std::fflush(stdout);
  } else {
    std::memcpy(mac, request.ifr_hwaddr.sa_data, 6);
  }
  qel_os_close(fd);
  return 0;
}

int qel_netif_index_get(int fd, const char* name) {
  if (name == nullptr) {
    return -1;
  }
  struct ifreq request = request_for(name, IFNAMSIZ);
  if (qel_os_ifreq(fd, SIOCGIFINDEX, &request) < 0) {
    std::perror("SIOCGIFINDEX ioctl error");
    return -1;
  }
  return request.ifr_ifindex;
}

int qel_netif_ip_get(const char* name, char* text_out) {
  return address_get(name, SIOCGIFADDR, text_out);
}

int qel_netif_mask_get(const char* name, char* text_out) {
  return address_get(name, SIOCGIFNETMASK, text_out);
}

int qel_netif_prefix_get(const char* name) {
  char text[kQelIpTextSize] = {};
  struct in_addr mask = {};
  qel_netif_mask_get(name, text);
  return inet_pton(AF_INET, text, &mask) == 1 ? ip_masklen(mask) : 0;
}
