// SPDX-License-Identifier: Apache-2.0
//
// Raw Ethernet: a packet socket bound to one interface, with a filter in the kernel that lets only
// replies for this gateway through.
#include <arpa/inet.h>
#include <linux/filter.h>
#include <linux/if_ether.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <netpacket/packet.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include <fmt/format.h>

#include "gateway/error.h"
#include "gateway/interfaces.h"
#include "gateway/socket_wait.h"
#include "gateway/text.h"
#include "gateway/transport.h"
#include "protocol/gateway_protocol.h"

namespace qel_gateway {

namespace {

namespace wire = qel_protocol;

constexpr size_t kEthernetHeader = 14;
constexpr size_t kReceiveSize = 2048;             // more than any frame of the protocol
constexpr int kReceiveBuffer = 16 * 1024 * 1024;  // room for the answers of a full wire at once
constexpr size_t kLongestReply = wire::kOffsetMessage + wire::kMessageMax;
constexpr size_t kNeededMtu = kLongestReply - kEthernetHeader;

std::string os_error() {
  return std::strerror(errno);
}

struct Interface {
  int index = 0;
  MacAddress mac;
  size_t mtu = 0;
};

Interface look_up(int fd, const std::string& name) {
  ifreq request = {};
  if (name.empty() || name.size() >= sizeof request.ifr_name) {
    throw Error(fmt::format("no interface \"{}\"", terminal_text(name)));
  }
  std::ranges::copy(name, request.ifr_name);
  if (::ioctl(fd, SIOCGIFINDEX, &request) < 0) {
    throw Error(fmt::format("no interface \"{}\"; this machine has: {}", terminal_text(name),
                            fmt::join(interface_names(), " ")));
  }
  Interface found;
  found.index = request.ifr_ifindex;
  if (::ioctl(fd, SIOCGIFFLAGS, &request) < 0 || (request.ifr_flags & IFF_UP) == 0) {
    throw Error(fmt::format("interface {0} is down; \"ip link set {0} up\" brings it up", name));
  }
  if (::ioctl(fd, SIOCGIFHWADDR, &request) < 0 || request.ifr_hwaddr.sa_family != ARPHRD_ETHER) {
    throw Error(fmt::format("interface {} is not Ethernet", name));
  }
  std::memcpy(found.mac.bytes.data(), request.ifr_hwaddr.sa_data, found.mac.bytes.size());
  if (::ioctl(fd, SIOCGIFMTU, &request) == 0 && request.ifr_mtu > 0) {
    found.mtu = static_cast<size_t>(request.ifr_mtu);
  }
  return found;
}

FileDescriptor open_socket() {
  FileDescriptor fd(::socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!fd) {
    if (errno == EPERM || errno == EACCES) {
      throw Error(
          "raw Ethernet needs the capability CAP_NET_RAW: run as root, or grant it once with "
          "\"sudo setcap cap_net_raw+ep $(command -v qelctl)\"");
    }
    throw Error(fmt::format("cannot open a packet socket: {}", os_error()));
  }
  return fd;
}

// The two halves of a MAC address as the filter loads them.
uint32_t first_four(const MacAddress& mac) {
  const auto& b = mac.bytes;
  return static_cast<uint32_t>(b[0]) << 24 | static_cast<uint32_t>(b[1]) << 16 |
         static_cast<uint32_t>(b[2]) << 8 | b[3];
}

uint32_t last_two(const MacAddress& mac) {
  return static_cast<uint32_t>(mac.bytes[4]) << 8 | mac.bytes[5];
}

// Passes what comes in with the reply ethertype for `own`, and what goes out with the request
// ethertype (which only a socket that overhears is shown); drops the rest.
void attach_filter(int fd, const MacAddress& own) {
  constexpr uint32_t kPacketType = static_cast<uint32_t>(SKF_AD_OFF + SKF_AD_PKTTYPE);
  std::array<sock_filter, 12> code = {{
      BPF_STMT(BPF_LD | BPF_B | BPF_ABS, kPacketType),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, PACKET_OUTGOING, 6, 0),
      BPF_STMT(BPF_LD | BPF_H | BPF_ABS, wire::kOffsetEthertype),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, wire::kEthertypeToGateway, 0, 7),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, 0),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, first_four(own), 0, 5),
      BPF_STMT(BPF_LD | BPF_H | BPF_ABS, 4),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, last_two(own), 2, 3),
      BPF_STMT(BPF_LD | BPF_H | BPF_ABS, wire::kOffsetEthertype),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, wire::kEthertypeToSwitch, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, kReceiveSize),
      BPF_STMT(BPF_RET | BPF_K, 0),
  }};
  const sock_fprog program = {code.size(), code.data()};
  if (::setsockopt(fd, SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof program) < 0) {
    throw Error(fmt::format("cannot set the packet filter: {}", os_error()));
  }
}

class EthernetTransport : public Transport {
 public:
  explicit EthernetTransport(const std::string& name)
      : name_(name), fd_(open_socket()), interface_(look_up(fd_.get(), name)) {
    attach_filter(fd_.get(), interface_.mac);
    if (::setsockopt(fd_.get(), SOL_SOCKET, SO_RCVBUFFORCE, &kReceiveBuffer, sizeof(int)) < 0) {
      ::setsockopt(fd_.get(), SOL_SOCKET, SO_RCVBUF, &kReceiveBuffer, sizeof(int));
    }
    listen(wire::kEthertypeToGateway);
  }

  void send(const Peer& to, std::string_view text, std::span<const uint8_t> chunk,
            bool with_chunk) override {
    require_readable(text.size() + (with_chunk ? 1 + chunk.size() : 0));
    const auto frame = build_frame(to.mac, interface_.mac, text, chunk, with_chunk);
    if (::send(fd_.get(), frame.data(), frame.size(), 0) >= 0 || errno == ENOBUFS) {
      return;  // a full queue is a lost frame, and lost frames are what deadlines are for
    }
    if (errno == EMSGSIZE) {
      throw Error(
          fmt::format("a frame of {} bytes does not fit the MTU {} of {}; \"ip link set "
                      "{} mtu {}\" makes room",
                      frame.size(), interface_.mtu, name_, name_, kNeededMtu));
    }
    if (errno == ENETDOWN) {
      down_ = true;  // the socket says it once, and everybody has to hear it
      throw went_down();
    }
    throw Error(fmt::format("cannot send on {}: {}", name_, os_error()));
  }

  std::optional<Incoming> receive(TimePoint deadline) override {
    if (down_) {
      throw went_down();
    }
    ssize_t size = ::recv(fd_.get(), buffer_.data(), buffer_.size(), 0);
    if (size < 0 && errno == EAGAIN && wait_readable(fd_.get(), wake_fd_, deadline)) {
      size = ::recv(fd_.get(), buffer_.data(), buffer_.size(), 0);
    }
    if (size < 0 && errno == ENETDOWN) {
      throw went_down();
    }
    if (size <= 0) {
      return std::nullopt;
    }
    const auto bytes = std::span(buffer_).first(static_cast<size_t>(size));
    if (auto request = read_request(bytes)) {
      return Incoming{Peer{request->destination, 0, 0}, std::move(request->payload), true};
    }
    auto frame = read_frame(bytes);
    if (!frame) {
      return std::nullopt;
    }
    return Incoming{Peer{frame->source, 0, 0}, std::move(frame->payload)};
  }

  Peer everybody() const override {
    Peer group;
    std::ranges::copy(wire::kGroupMac, group.mac.bytes.begin());
    return group;
  }

  Peer address_of(const MacAddress& mac) const override { return Peer{mac, 0, 0}; }

  MacAddress own_mac() const override { return interface_.mac; }

  size_t max_message() const override {
    const size_t by_mtu = interface_.mtu + kEthernetHeader;
    return std::min(max_request_bytes(),
                    by_mtu > wire::kOffsetMessage ? by_mtu - wire::kOffsetMessage : 0);
  }

  bool carries_chunks() const override { return true; }

  std::string remark() const override {
    if (interface_.mtu >= kNeededMtu) {
      return {};
    }
    return fmt::format(
        "{0} has an MTU of {1}: answers of more than {2} bytes may get lost; \"ip "
        "link set {0} mtu {3}\" makes room for all",
        name_, interface_.mtu, interface_.mtu + kEthernetHeader - wire::kOffsetMessage, kNeededMtu);
  }

  // A socket for all protocols is shown what others send, too. Its own frames it never sees.
  void overhear() override { listen(ETH_P_ALL); }

  void wake_on(int fd) override { wake_fd_ = fd; }

 private:
  Error went_down() const { return Error(fmt::format("interface {} went down", name_)); }

  void listen(uint16_t protocol) {
    sockaddr_ll address = {};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(protocol);
    address.sll_ifindex = interface_.index;
    if (::bind(fd_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) < 0) {
      throw Error(fmt::format("cannot listen on {}: {}", name_, os_error()));
    }
  }

  std::string name_;
  FileDescriptor fd_;
  Interface interface_;
  int wake_fd_ = -1;
  bool down_ = false;
  std::array<uint8_t, kReceiveSize> buffer_{};
};

}  // namespace

std::unique_ptr<Transport> open_ethernet(const std::string& interface) {
  return std::make_unique<EthernetTransport>(interface);
}

}  // namespace qel_gateway
