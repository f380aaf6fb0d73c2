// SPDX-License-Identifier: Apache-2.0
//
// UDP: the same texts as bare datagrams. One host is meant; a chunk comes behind the text and a
// NUL, but cannot be sent that way, because nothing in a datagram tells where it starts.
#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

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

constexpr size_t kReceiveSize = 65536;

std::string os_error() {
  return std::strerror(errno);
}

sockaddr_in socket_address(uint32_t ip, uint16_t port) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(ip);
  address.sin_port = htons(port);
  return address;
}

uint32_t resolve(const std::string& host) {
  addrinfo hints = {};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_DGRAM;
  addrinfo* list = nullptr;
  const int failed = ::getaddrinfo(host.c_str(), nullptr, &hints, &list);
  if (failed != 0) {
    throw Error(fmt::format("no host \"{}\": {}", terminal_text(host), ::gai_strerror(failed)));
  }
  sockaddr_in address = {};
  std::memcpy(&address, list->ai_addr, sizeof address);
  ::freeaddrinfo(list);
  return ntohl(address.sin_addr.s_addr);
}

// The address from which this machine talks to `host`; 0 when there is no way there.
uint32_t source_towards(uint32_t host) {
  const FileDescriptor probe(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  const sockaddr_in target = socket_address(host, wire::kUdpPortSwitch);
  sockaddr_in own = {};
  socklen_t size = sizeof own;
  if (!probe ||
      ::connect(probe.get(), reinterpret_cast<const sockaddr*>(&target), sizeof target) < 0 ||
      ::getsockname(probe.get(), reinterpret_cast<sockaddr*>(&own), &size) < 0) {
    return 0;
  }
  return ntohl(own.sin_addr.s_addr);
}

// A datagram of text, or of text, NUL and chunk.
Payload split(std::span<const char> bytes) {
  const auto end = std::ranges::find(bytes, '\0');
  Payload payload;
  payload.text.assign(bytes.begin(), end);
  if (end != bytes.end()) {
    payload.chunk.assign(end + 1, bytes.end());
  }
  return payload;
}

class UdpTransport : public Transport {
 public:
  explicit UdpTransport(const std::string& host)
      : host_{{}, resolve(host), wire::kUdpPortSwitch},
        fd_(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
    if (!fd_) {
      throw Error(fmt::format("cannot open a UDP socket: {}", os_error()));
    }
    const int on = 1;
    ::setsockopt(fd_.get(), SOL_SOCKET, SO_BROADCAST, &on, sizeof on);
    const sockaddr_in own = socket_address(INADDR_ANY, wire::kUdpPortGateway);
    // Another gateway may have the port; switches answer to whatever port a message came from.
    if (::bind(fd_.get(), reinterpret_cast<const sockaddr*>(&own), sizeof own) < 0 &&
        errno != EADDRINUSE) {
      throw Error(fmt::format("cannot bind a UDP socket: {}", os_error()));
    }
    own_mac_ = mac_of_address(source_towards(host_.ip)).value_or(MacAddress{});
  }

  void send(const Peer& to, std::string_view text, std::span<const uint8_t> chunk,
            bool with_chunk) override {
    if (with_chunk || !chunk.empty()) {
      throw Error("a switch takes no files over UDP; use -i and Ethernet");
    }
    require_readable(text.size());
    const sockaddr_in target = socket_address(to.ip, to.port);
    if (::sendto(fd_.get(), text.data(), text.size(), 0, reinterpret_cast<const sockaddr*>(&target),
                 sizeof target) < 0 &&
        errno != ENOBUFS && errno != EAGAIN && errno != ECONNREFUSED) {
      throw Error(fmt::format("cannot send: {}", os_error()));
    }
  }

  std::optional<Incoming> receive(TimePoint deadline) override {
    sockaddr_in from = {};
    ssize_t size = read(from);
    if (size < 0 && errno == EAGAIN && wait_readable(fd_.get(), wake_fd_, deadline)) {
      size = read(from);
    }
    if (size <= 0) {
      return std::nullopt;
    }
    Payload payload = split(std::span(buffer_).first(static_cast<size_t>(size)));
    return Incoming{Peer{{}, ntohl(from.sin_addr.s_addr), ntohs(from.sin_port)},
                    std::move(payload)};
  }

  Peer everybody() const override { return host_; }
  Peer address_of(const MacAddress& /*mac*/) const override { return Peer{}; }
  MacAddress own_mac() const override { return own_mac_; }
  size_t max_message() const override { return max_request_bytes(); }
  bool carries_chunks() const override { return false; }
  void wake_on(int fd) override { wake_fd_ = fd; }

 private:
  ssize_t read(sockaddr_in& from) {
    socklen_t size = sizeof from;
    return ::recvfrom(fd_.get(), buffer_.data(), buffer_.size(), 0,
                      reinterpret_cast<sockaddr*>(&from), &size);
  }

  Peer host_;
  FileDescriptor fd_;
  MacAddress own_mac_;
  int wake_fd_ = -1;
  std::array<char, kReceiveSize> buffer_{};
};

}  // namespace

std::unique_ptr<Transport> open_udp(const std::string& host) {
  return std::make_unique<UdpTransport>(host);
}

}  // namespace qel_gateway
