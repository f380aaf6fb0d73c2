// SPDX-License-Identifier: Apache-2.0
//
// The operating system that the agent sees in unit tests: descriptors, datagram queues and network
// interfaces. Files and the shell are in qel_os_files.cpp. Errors are those that Linux gives.
#include "qel/qel_os.h"

#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <sys/ioctl.h>
#include <sys/un.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>

#include "tests/fake/fake.h"
#include "tests/fake/internal.h"

namespace {

constexpr int kFirstDescriptor = 100;  // far from real ones, which nothing here may touch
constexpr int kEthernetHeader = 14;    // bytes that an MTU does not count
constexpr int kJobPid = 4321;
constexpr int kKilled = 9;  // wait status of a process that SIGKILL ended

struct Datagram {
  std::string bytes;
  sockaddr_storage from{};
  socklen_t from_length = 0;
  int error = 0;  // not 0: the read fails with it
  tpacket_auxdata auxiliary{};
  int message_flags = 0;
};

struct Descriptor {
  int family = 0;
  bool open = true;
  int waiting_connections = 0;
  bool auxiliary = false;  // PACKET_AUXDATA is on
  std::deque<Datagram> queue;
};

struct State {
  std::map<int, Descriptor> descriptors;
  int opened = 0;  // numbers are not used again, so that one kept too long is noticed
  std::map<std::string, fake::NetInterface> interfaces;
  std::vector<fake::Sent> sent;
  std::string job;      // the command that runs beside the loop
  qel_os_job job_ids;   // as it was handed out
  int job_status = -1;  // with which it ends
  std::function<void()> send_hook;
};

State& state() {
  static State* const instance = new State;
  return *instance;
}

int fail_with(int error) {
  errno = error;
  return -1;
}

// The open descriptor, or null with errno set.
Descriptor* descriptor(int fd) {
  const auto found = state().descriptors.find(fd);
  if (found == state().descriptors.end() || !found->second.open) {
    errno = EBADF;
    return nullptr;
  }
  return &found->second;
}

const char* family_name(int family) {
  switch (family) {
    case AF_PACKET:
      return "AF_PACKET";
    case AF_INET:
      return "AF_INET";
    case AF_UNIX:
      return "AF_UNIX";
    default:
      return "another family";
  }
}

const char* type_name(int type) {
  switch (type) {
    case SOCK_RAW:
      return "SOCK_RAW";
    case SOCK_DGRAM:
      return "SOCK_DGRAM";
    case SOCK_STREAM:
      return "SOCK_STREAM";
    default:
      return "another type";
  }
}

std::string option_name(int level, int option) {
  if (level == SOL_SOCKET && option == SO_REUSEADDR) {
    return "SO_REUSEADDR";
  }
  if (level == SOL_SOCKET && option == SO_BROADCAST) {
    return "SO_BROADCAST";
  }
  if (level == SOL_PACKET && option == PACKET_AUXDATA) {
    return "PACKET_AUXDATA";
  }
  return "level " + std::to_string(level) + " option " + std::to_string(option);
}

std::string address_text(const struct sockaddr* address, socklen_t length) {
  if (address->sa_family == AF_INET && length >= sizeof(sockaddr_in)) {
    sockaddr_in in{};
    std::memcpy(&in, address, sizeof in);
    char text[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &in.sin_addr, text, sizeof text);
    return std::string(text) + ":" + std::to_string(ntohs(in.sin_port));
  }
  if (address->sa_family == AF_UNIX) {
    const std::string path = reinterpret_cast<const sockaddr_un*>(address)->sun_path;
    return length == sizeof(sockaddr_un) ? path : path + " of " + std::to_string(length) + " bytes";
  }
  return "another address";
}

const fake::NetInterface* interface_by_index(int index) {
  for (const auto& [name, net] : state().interfaces) {
    if (net.index == index) {
      return &net;
    }
  }
  return nullptr;
}

// What the kernel would refuse.
int send_error(const Descriptor& socket, const struct sockaddr* address, socklen_t address_length,
               size_t length) {
  if (socket.family == AF_PACKET) {
    if (address == nullptr || address_length < sizeof(sockaddr_ll)) {
      return EINVAL;
    }
    sockaddr_ll to{};
    std::memcpy(&to, address, sizeof to);
    const fake::NetInterface* const net = interface_by_index(to.sll_ifindex);
    if (net == nullptr) {
      return ENXIO;
    }
    return length > static_cast<size_t>(net->mtu + kEthernetHeader) ? EMSGSIZE : 0;
  }
  return socket.family == AF_INET && (address == nullptr || address_length < sizeof(sockaddr_in))
             ? EINVAL
             : 0;
}

// What recvmsg tells beside the bytes, as far as there is room for it.
void say_beside(const Descriptor& socket, const Datagram& datagram, struct msghdr* message) {
  const size_t room = message->msg_controllen;
  message->msg_controllen = 0;
  if (!socket.auxiliary || room < CMSG_SPACE(sizeof datagram.auxiliary)) {
    message->msg_flags |= socket.auxiliary && room > 0 ? MSG_CTRUNC : 0;
    return;
  }
  message->msg_controllen = CMSG_SPACE(sizeof datagram.auxiliary);
  struct cmsghdr* const said = CMSG_FIRSTHDR(message);
  said->cmsg_level = SOL_PACKET;
  said->cmsg_type = PACKET_AUXDATA;
  said->cmsg_len = CMSG_LEN(sizeof datagram.auxiliary);
  std::memcpy(CMSG_DATA(said), &datagram.auxiliary, sizeof datagram.auxiliary);
}

void set_inet_address(struct sockaddr* target, const std::string& dotted) {
  sockaddr_in in{};
  in.sin_family = AF_INET;
  inet_pton(AF_INET, dotted.c_str(), &in.sin_addr);
  std::memcpy(target, &in, sizeof in);
}

}  // namespace

int qel_os_socket(int domain, int type, int protocol) {
  fake::internal::record("socket(%s, %s, 0x%04x)", family_name(domain), type_name(type),
                         ntohs(static_cast<uint16_t>(protocol)));
  if (fake::internal::os_fails("socket")) {
    return -1;
  }
  return fake::internal::open_descriptor(domain);
}

int qel_os_setsockopt(int fd, int level, int option, int value) {
  fake::internal::record("setsockopt(%d, %s, %d)", fd, option_name(level, option).c_str(), value);
  Descriptor* const socket = descriptor(fd);
  if (fake::internal::os_fails("setsockopt") || socket == nullptr) {
    return -1;
  }
  socket->auxiliary |= level == SOL_PACKET && option == PACKET_AUXDATA && value != 0;
  return 0;
}

int qel_os_bind(int fd, const struct sockaddr* address, socklen_t length) {
  fake::internal::record("bind(%d, %s)", fd, address_text(address, length).c_str());
  return fake::internal::os_fails("bind") || descriptor(fd) == nullptr ? -1 : 0;
}

int qel_os_accept(int fd, struct sockaddr* address, socklen_t* length) {
  fake::internal::record("accept(%d)", fd);
  Descriptor* const socket = descriptor(fd);
  if (fake::internal::os_fails("accept")) {
    // The connection is lost with it, as with ECONNABORTED.
    if (socket != nullptr && socket->waiting_connections > 0) {
      --socket->waiting_connections;
    }
    return -1;
  }
  if (socket == nullptr) {
    return -1;
  }
  if (socket->waiting_connections == 0) {
    return fail_with(EAGAIN);
  }
  --socket->waiting_connections;
  if (address != nullptr && length != nullptr) {
    sockaddr_in from{};
    from.sin_family = AF_INET;
    from.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    std::memcpy(address, &from, std::min<size_t>(*length, sizeof from));
    *length = sizeof from;
  }
  return fake::internal::open_descriptor(AF_INET);
}

ssize_t qel_os_recvfrom(int fd, void* buffer, size_t size, struct sockaddr* address,
                        socklen_t* length) {
  struct iovec area = {buffer, size};
  struct msghdr message = {};
  message.msg_name = address;
  message.msg_namelen = length != nullptr ? *length : 0;
  message.msg_iov = &area;
  message.msg_iovlen = 1;
  const ssize_t count = qel_os_recvmsg(fd, &message);
  if (count >= 0 && length != nullptr) {
    *length = message.msg_namelen;
  }
  return count;
}

ssize_t qel_os_recvmsg(int fd, struct msghdr* message) {
  Descriptor* const socket = descriptor(fd);
  if (socket == nullptr) {
    return -1;
  }
  if (socket->queue.empty()) {
    return fail_with(EAGAIN);
  }
  const Datagram datagram = socket->queue.front();
  socket->queue.pop_front();
  if (datagram.error != 0) {
    return fail_with(datagram.error);
  }
  const size_t count = std::min(message->msg_iov->iov_len, datagram.bytes.size());
  std::memcpy(message->msg_iov->iov_base, datagram.bytes.data(), count);
  if (message->msg_name != nullptr) {
    std::memcpy(message->msg_name, &datagram.from,
                std::min(message->msg_namelen, datagram.from_length));
    message->msg_namelen = datagram.from_length;
  }
  message->msg_flags = datagram.message_flags;
  say_beside(*socket, datagram, message);
  return static_cast<ssize_t>(count);
}

ssize_t qel_os_sendto(int fd, const void* data, size_t length, int flags,
                      const struct sockaddr* address, socklen_t address_length) {
  fake::internal::record("sendto(%d, %zu bytes)", fd, length);
  const Descriptor* const socket = descriptor(fd);
  if (socket == nullptr || fake::internal::os_fails("sendto")) {
    return -1;
  }
  const int error = send_error(*socket, address, address_length, length);
  if (error != 0) {
    return fail_with(error);
  }
  fake::Sent sent{fd, std::string(static_cast<const char*>(data), length), flags, {}, 0};
  sent.to_length = std::min<socklen_t>(address_length, sizeof sent.to);
  if (address != nullptr) {
    std::memcpy(&sent.to, address, sent.to_length);
  }
  state().sent.push_back(sent);
  if (state().send_hook) {
    state().send_hook();
  }
  return static_cast<ssize_t>(length);
}

int qel_os_close(int fd) {
  fake::internal::record("close(%d)", fd);
  Descriptor* const socket = descriptor(fd);
  if (socket == nullptr) {
    return -1;
  }
  socket->open = false;
  socket->queue.clear();
  return 0;
}

int qel_os_ifreq(int fd, unsigned long request, struct ifreq* interface_request) {
  if (descriptor(fd) == nullptr || fake::internal::os_fails("ifreq")) {
    return -1;
  }
  const std::string name(interface_request->ifr_name,
                         strnlen(interface_request->ifr_name, IFNAMSIZ));
  const auto found = state().interfaces.find(name);
  if (found == state().interfaces.end()) {
    return fail_with(ENODEV);
  }
  const fake::NetInterface& net = found->second;
  switch (request) {
    case SIOCGIFINDEX:
      interface_request->ifr_ifindex = net.index;
      return 0;
    case SIOCGIFMTU:
      interface_request->ifr_mtu = net.mtu;
      return 0;
    case SIOCGIFHWADDR:
      interface_request->ifr_hwaddr.sa_family = 1;
      std::memcpy(interface_request->ifr_hwaddr.sa_data, net.mac.data(), net.mac.size());
      return 0;
    case SIOCGIFADDR:
    case SIOCGIFNETMASK:
      if (net.ip.empty()) {
        return fail_with(EADDRNOTAVAIL);
      }
      set_inet_address(&interface_request->ifr_addr, request == SIOCGIFADDR ? net.ip : net.mask);
      return 0;
    default:
      return fail_with(EINVAL);
  }
}

int64_t qel_os_time() {
  return fake::now();
}

long qel_os_sysinfo_uptime() {
  return fake::internal::sysinfo_uptime();
}

int qel_os_daemon() {
  fake::internal::record("daemon()");
  return fake::internal::os_fails("daemon") ? -1 : 0;
}

void qel_os_umask(unsigned mask) {
  fake::internal::record("umask(0%o)", mask);
}

// Tells the log on standard error, where a death test can read it.
void qel_os_exit(int status) {
  fake::internal::record("exit(%d)", status);
  for (const std::string& line : fake::log_lines()) {
    std::fprintf(stderr, "%s\n", line.c_str());
  }
  std::exit(status);
}

int qel_os_job_start(const char* command, qel_os_job* job) {
  fake::internal::record("job(%s)", command);
  if (fake::internal::os_fails("job")) {
    return -1;
  }
  state().job = command;
  *job = {.pid = kJobPid, .end = fake::internal::open_descriptor(AF_UNSPEC)};
  state().job_ids = *job;
  return 0;
}

void qel_os_job_kill(const qel_os_job* job) {
  fake::internal::record("job_kill(%d)", job->pid);
  fake::job_ends(kKilled);
}

int qel_os_job_end(qel_os_job* job) {
  if (job->pid <= 0) {
    return -1;
  }
  fake::internal::record("job_end(%d)", job->pid);
  state().descriptors[job->end].open = false;
  state().job.clear();
  *job = {};
  return state().job_status;
}

namespace fake {

int Sent::family() const {
  return to.ss_family;
}

int Sent::ifindex() const {
  sockaddr_ll address{};
  std::memcpy(&address, &to, sizeof address);
  return to.ss_family == AF_PACKET ? address.sll_ifindex : -1;
}

std::string Sent::ip() const {
  sockaddr_in address{};
  std::memcpy(&address, &to, sizeof address);
  char text[INET_ADDRSTRLEN] = "";
  if (to.ss_family == AF_INET) {
    inet_ntop(AF_INET, &address.sin_addr, text, sizeof text);
  }
  return text;
}

int Sent::port() const {
  sockaddr_in address{};
  std::memcpy(&address, &to, sizeof address);
  return to.ss_family == AF_INET ? ntohs(address.sin_port) : -1;
}

const std::vector<Sent>& sent() {
  return state().sent;
}

void on_send(std::function<void()> action) {
  state().send_hook = std::move(action);
}

NetInterface& net(const std::string& name) {
  return state().interfaces[name];
}
void remove_net(const std::string& name) {
  state().interfaces.erase(name);
}

void receive_frame(int fd, std::string_view bytes, const Arrival& arrival) {
  sockaddr_ll from{};
  from.sll_family = AF_PACKET;
  from.sll_protocol = htons(0x9301);
  from.sll_ifindex = arrival.ifindex ? *arrival.ifindex : net("vlanif1").index;
  from.sll_pkttype = arrival.packet_type;
  from.sll_halen = 6;
  std::memcpy(from.sll_addr, bytes.data() + std::min<size_t>(6, bytes.size()),
              std::min<size_t>(6, bytes.size() - std::min<size_t>(6, bytes.size())));
  Datagram datagram{std::string(bytes), {}, sizeof from, 0, {}, arrival.message_flags};
  std::memcpy(&datagram.from, &from, sizeof from);
  datagram.auxiliary.tp_vlan_tci = arrival.tci.value_or(0);
  datagram.auxiliary.tp_status = arrival.tci && arrival.tci_valid ? TP_STATUS_VLAN_VALID : 0;
  state().descriptors[fd].queue.push_back(datagram);
}

void receive_udp(int fd, std::string_view bytes, const std::string& ip, uint16_t port) {
  sockaddr_in from{};
  from.sin_family = AF_INET;
  from.sin_port = htons(port);
  inet_pton(AF_INET, ip.c_str(), &from.sin_addr);
  Datagram datagram{std::string(bytes), {}, sizeof from, 0, {}, 0};
  std::memcpy(&datagram.from, &from, sizeof from);
  state().descriptors[fd].queue.push_back(datagram);
}

void receive_local(int fd, std::string_view bytes) {
  state().descriptors[fd].queue.push_back({std::string(bytes), {}, 0, 0, {}, 0});
}

void receive_error(int fd, int error) {
  state().descriptors[fd].queue.push_back({"", {}, 0, error, {}, 0});
}

std::string job_command() {
  return state().job;
}

void job_ends(int status) {
  state().job_status = status;
  receive_local(state().job_ids.end, "");
}

void connect_to(int fd) {
  ++state().descriptors[fd].waiting_connections;
}

int last_socket(int family) {
  int last = -1;
  for (const auto& [fd, socket] : state().descriptors) {
    last = socket.family == family ? fd : last;
  }
  return last;
}

bool is_open(int fd) {
  const auto found = state().descriptors.find(fd);
  return found != state().descriptors.end() && found->second.open;
}

namespace internal {

int open_descriptor(int family) {
  const int fd = kFirstDescriptor + state().opened++;
  state().descriptors[fd].family = family;
  return fd;
}

bool os_readable(int fd) {
  const auto found = state().descriptors.find(fd);
  return found != state().descriptors.end() && found->second.open &&
         (!found->second.queue.empty() || found->second.waiting_connections > 0);
}

void reset_os() {
  state() = State{};
  state().interfaces["vlanif1"] = {
      7, {0x0a, 0x1b, 0x2c, 0x3d, 0x4e, 0x5f}, "192.168.1.10", "255.255.255.0", 2000};
  reset_os_files();
}

void clear_os_records() {
  state().sent.clear();
  std::erase_if(state().descriptors, [](const auto& entry) { return !entry.second.open; });
  clear_os_file_records();
}

}  // namespace internal
}  // namespace fake
