// SPDX-License-Identifier: Apache-2.0
//
// The shell's sockets: listeners on loopback TCP and on a Unix socket, and one connection for each
// session. Nothing here waits. A client that does not read stops being read; a client that sends
// much gets one command for each turn of the loop; a client that does nothing is timed out.
//
// The loop's own registrations cannot be taken back, nor do they tell when a socket can be written,
// so this file works with the events underneath.
#include <arpa/inet.h>
#include <event2/event.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "platform/linux/fd.h"
#include "platform/linux/loop_internal.h"
#include "platform/linux/paths.h"
#include "platform/linux/vty_internal.h"
#include "platform/log.h"

namespace morva::shell {
namespace {

constexpr int kBacklog = 16;
constexpr timeval kAcceptPause = {1, 0};  // when the system has no descriptors left
constexpr timeval kSweepInterval = {1, 0};
constexpr timeval kNextTurn = {0, 0};
constexpr char kRefusal[] = "% Too many sessions, try again later\r\n";

// An event that is taken back before its descriptor is closed.
struct EventDeleter {
  void operator()(event* entry) const { event_free(entry); }
};
using UniqueEvent = std::unique_ptr<event, EventDeleter>;

struct Connection {
  UniqueFd socket;
  std::unique_ptr<vty> session;
  UniqueEvent readable;
  UniqueEvent writable;
  UniqueEvent resume;   // received bytes wait for the next turn
  uint64_t active = 0;  // when the client was last heard, or told to go
};

struct Listener {
  UniqueFd socket;
  SessionKind kind = SessionKind::kPlain;
  UniqueEvent connectable;
  UniqueEvent pause;
};

struct Server {
  thread_master* master = nullptr;
  std::vector<std::unique_ptr<Listener>> listeners;
  std::vector<std::unique_ptr<Connection>> connections;
  UniqueEvent sweep;
  uint64_t (*clock)() = nullptr;
};

Server& server() {
  static Server instance;
  return instance;
}

uint64_t now_ms() {
  if (server().clock != nullptr) {
    return server().clock();
  }
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1000000;
}

// --- connections

void finish(Connection& connection) {
  auto& all = server().connections;
  std::erase_if(all, [&](const auto& entry) { return entry.get() == &connection; });
  if (all.empty() && server().sweep != nullptr) {
    event_del(server().sweep.get());
  }
}

// Sends what the socket takes. False when the connection is beyond use.
bool flush(Connection& connection) {
  std::string& output = connection.session->output;
  size_t sent = 0;
  while (sent < output.size()) {
    const ssize_t count = send(connection.socket.get(), output.data() + sent, output.size() - sent,
                               MSG_NOSIGNAL | MSG_DONTWAIT);
    if (count < 0 && errno == EINTR) {
      continue;
    }
    if (count < 0 && errno != EAGAIN && errno != EWOULDBLOCK) {
      return false;
    }
    if (count <= 0) {
      break;
    }
    sent += static_cast<size_t>(count);
  }
  output.erase(0, sent);
  return true;
}

void want(event* entry, bool wanted) {
  if (wanted) {
    event_add(entry, nullptr);
  } else {
    event_del(entry);
  }
}

// Works on received bytes, sends, and arranges for what the connection waits for next. May end it.
void advance(Connection& connection) {
  vty& session = *connection.session;
  if (!session.closing && session_has_input(session) && session.output.size() < kOutputPause) {
    session_step(session);
  }
  if (session.dropped || !flush(connection) || (session.closing && session.output.empty())) {
    finish(connection);
    return;
  }
  const bool may_work = !session.closing && session.output.size() < kOutputPause;
  const bool waiting = session_has_input(session);
  want(connection.writable.get(), !session.output.empty());
  want(connection.readable.get(), may_work && !waiting);
  if (may_work && waiting) {
    event_add(connection.resume.get(), &kNextTurn);
  } else {
    event_del(connection.resume.get());
  }
}

void on_readable(evutil_socket_t fd, short /*events*/, void* opaque) {
  Connection& connection = *static_cast<Connection*>(opaque);
  uint8_t buffer[kInputChunk];
  const ssize_t count = recv(fd, buffer, sizeof(buffer), MSG_DONTWAIT);
  if (count < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) {
    return;
  }
  if (count < 0) {
    finish(connection);
    return;
  }
  connection.active = now_ms();
  if (count == 0) {
    connection.session->closing = true;  // what it asked for is still sent
  } else {
    session_feed(*connection.session, {buffer, static_cast<size_t>(count)});
  }
  advance(connection);
}

void on_writable(evutil_socket_t /*fd*/, short /*events*/, void* opaque) {
  advance(*static_cast<Connection*>(opaque));
}

void on_resume(evutil_socket_t /*fd*/, short /*events*/, void* opaque) {
  advance(*static_cast<Connection*>(opaque));
}

void on_sweep(evutil_socket_t /*fd*/, short /*events*/, void* /*opaque*/) {
  server_sweep(now_ms());
}

void start_sweeping() {
  Server& self = server();
  if (self.sweep == nullptr) {
    self.sweep.reset(event_new(self.master->base, -1, EV_PERSIST, on_sweep, nullptr));
  }
  if (self.sweep != nullptr) {
    event_add(self.sweep.get(), &kSweepInterval);
  }
}

void open_connection(UniqueFd& socket, SessionKind kind) {
  Server& self = server();
  auto connection = std::make_unique<Connection>();
  connection->session = session_open(kind);
  event_base* base = self.master->base;
  Connection* opaque = connection.get();
  connection->readable.reset(
      event_new(base, socket.get(), EV_READ | EV_PERSIST, on_readable, opaque));
  connection->writable.reset(
      event_new(base, socket.get(), EV_WRITE | EV_PERSIST, on_writable, opaque));
  connection->resume.reset(event_new(base, -1, 0, on_resume, opaque));
  if (connection->session == nullptr || connection->readable == nullptr ||
      connection->writable == nullptr || connection->resume == nullptr) {
    zlog_err("vty: no memory for a session");
    return;
  }
  connection->socket.reset(socket.release());
  connection->active = now_ms();
  self.connections.push_back(std::move(connection));
  start_sweeping();
  session_greet(*opaque->session);
  advance(*opaque);
}

// --- listeners

void after_pause(evutil_socket_t /*fd*/, short /*events*/, void* opaque) {
  event_add(static_cast<Listener*>(opaque)->connectable.get(), nullptr);
}

void on_connect(evutil_socket_t fd, short /*events*/, void* opaque) {
  Listener& listener = *static_cast<Listener*>(opaque);
  UniqueFd socket(accept4(fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
  if (!socket.valid()) {
    if (errno == EMFILE || errno == ENFILE || errno == ENOMEM || errno == ENOBUFS) {
      // The client stays in the queue, so the listener would be readable again at once, for ever.
      zlog_err("vty: accept: %s", strerror(errno));
      event_del(listener.connectable.get());
      event_add(listener.pause.get(), &kAcceptPause);
    }
    return;  // else the client went away, or there is none
  }
  if (server().connections.size() >= kSessionMaximum) {
    send(socket.get(), kRefusal, sizeof(kRefusal) - 1, MSG_NOSIGNAL | MSG_DONTWAIT);
    return;
  }
  if (listener.kind == SessionKind::kTelnet) {
    const int on = 1;
    setsockopt(socket.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    // A telnet client's interrupt comes with urgent data, which is a part of the protocol's bytes.
    setsockopt(socket.get(), SOL_SOCKET, SO_OOBINLINE, &on, sizeof(on));
  }
  open_connection(socket, listener.kind);
}

void add_listener(UniqueFd& socket, SessionKind kind) {
  event_base* base = server().master->base;
  auto listener = std::make_unique<Listener>();
  Listener* opaque = listener.get();
  listener->kind = kind;
  listener->connectable.reset(
      event_new(base, socket.get(), EV_READ | EV_PERSIST, on_connect, opaque));
  listener->pause.reset(event_new(base, -1, 0, after_pause, opaque));
  if (listener->connectable == nullptr || listener->pause == nullptr ||
      event_add(listener->connectable.get(), nullptr) != 0) {
    zlog_err("vty: no memory for a listener");
    return;
  }
  listener->socket.reset(socket.release());
  server().listeners.push_back(std::move(listener));
}

void listen_tcp(const char* address, unsigned short port) {
  sockaddr_in place = {};
  place.sin_family = AF_INET;
  place.sin_port = htons(port);
  place.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (address != nullptr && inet_pton(AF_INET, address, &place.sin_addr) != 1) {
    zlog_err("vty: \"%s\" is not an address", address);
    return;
  }
  if (ntohl(place.sin_addr.s_addr) >> 24 != IN_LOOPBACKNET) {
    zlog_err("vty: %s is not a loopback address; the shell asks nobody for a password", address);
    return;
  }
  UniqueFd socket(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  const int on = 1;
  if (!socket.valid() || setsockopt(socket.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) != 0 ||
      bind(socket.get(), reinterpret_cast<const sockaddr*>(&place), sizeof(place)) != 0 ||
      listen(socket.get(), kBacklog) != 0) {
    zlog_err("vty: port %u: %s", port, strerror(errno));
    return;
  }
  add_listener(socket, SessionKind::kTelnet);
}

// True when a living process serves the Unix socket at `place`.
bool is_served(const sockaddr_un& place) {
  UniqueFd probe(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  return probe.valid() &&
         (connect(probe.get(), reinterpret_cast<const sockaddr*>(&place), sizeof(place)) == 0 ||
          errno == EAGAIN);
}

void listen_unix(const char* path) {
  char buffer[kMorvaPathSize];
  const char* actual = morva_path(buffer, sizeof(buffer), path);
  const size_t length = strlen(actual);
  sockaddr_un place = {};
  place.sun_family = AF_UNIX;
  if (length == 0 || length >= sizeof(place.sun_path)) {
    zlog_err("vty: \"%s\" is no path for a socket", path);
    return;
  }
  memcpy(place.sun_path, actual, length + 1);
  if (is_served(place)) {
    zlog_err("vty: %s is in use", actual);
    return;
  }
  struct stat status = {};
  if (lstat(actual, &status) == 0 && S_ISSOCK(status.st_mode)) {
    unlink(actual);
  }
  UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  const mode_t mask = umask(0177);  // the socket is never open to others, not even for a moment
  const bool bound = socket.valid() && bind(socket.get(), reinterpret_cast<const sockaddr*>(&place),
                                            sizeof(place)) == 0;
  const int error = errno;
  umask(mask);
  if (!bound || listen(socket.get(), kBacklog) != 0) {
    zlog_err("vty: %s: %s", actual, strerror(bound ? errno : error));
    return;
  }
  add_listener(socket, SessionKind::kPlain);
}

}  // namespace

thread_master* server_loop() {
  return server().master;
}

unsigned short server_tcp_port() {
  for (const auto& listener : server().listeners) {
    sockaddr_in place = {};
    socklen_t size = sizeof(place);
    if (listener->kind == SessionKind::kTelnet &&
        getsockname(listener->socket.get(), reinterpret_cast<sockaddr*>(&place), &size) == 0) {
      return ntohs(place.sin_port);
    }
  }
  return 0;
}

size_t server_sessions() {
  return server().connections.size();
}

void server_sweep(uint64_t now) {
  std::vector<Connection*> late;
  const uint64_t idle_ms = uint64_t{settings().idle_seconds} * 1000;
  for (const auto& connection : server().connections) {
    const uint64_t silent = now - connection->active;
    const bool farewell = connection->session->closing;
    if (farewell ? silent >= kFarewellMs : idle_ms != 0 && silent >= idle_ms) {
      late.push_back(connection.get());
    }
  }
  for (Connection* connection : late) {
    if (connection->session->closing) {
      finish(*connection);
      continue;
    }
    session_expire(*connection->session);
    connection->active = now;
    advance(*connection);
  }
}

void server_set_clock(uint64_t (*clock)()) {
  server().clock = clock;
}

void server_stop() {
  Server& self = server();
  self.connections.clear();
  self.listeners.clear();
  self.sweep.reset();
  self.master = nullptr;
}

}  // namespace morva::shell

void vty_init(struct thread_master* master) {
  morva::shell::server().master = master;
}

void vty_serv_sock(const char* address, unsigned short port, const char* path) {
  if (morva::shell::server().master == nullptr) {
    zlog_err("vty: no event loop to listen on");
    return;
  }
  morva::shell::listen_tcp(address, port);
  if (path != nullptr) {
    morva::shell::listen_unix(path);
  }
}
