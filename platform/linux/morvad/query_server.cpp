// SPDX-License-Identifier: Apache-2.0
//
// See query_server.h.
#include "platform/linux/morvad/query_server.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "platform/linux/fd.h"
#include "platform/linux/morvad/log.h"
#include "platform/linux/paths.h"

namespace morvad {
namespace {

constexpr int kBacklog = 64;
constexpr size_t kReadStep = 16384;
constexpr size_t kBufferKept = size_t{256} * 1024;  // larger buffers are given back after use

bool socket_address(const Module& module, sockaddr_un& address) {
  const std::string place = std::string(MORVA_RUN_DIR "/") + std::string(module.name) + ".sock";
  char path[kMorvaPathSize];
  morva_path(path, sizeof path, place.c_str());
  address = {};
  address.sun_family = AF_UNIX;
  const int length = snprintf(address.sun_path, sizeof address.sun_path, "%s", path);
  return path[0] != '\0' && static_cast<size_t>(length) < sizeof address.sun_path;
}

/// True when a process accepts connections there.
bool served(const sockaddr_un& address) {
  const UniqueFd probe(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  const int result =
      connect(probe.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
  return result == 0 || errno == EAGAIN;  // EAGAIN: alive, its queue is full
}

pid_t peer_of(int fd) {
  ucred credentials{};
  socklen_t size = sizeof credentials;
  return getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &size) == 0 ? credentials.pid : 0;
}

}  // namespace

struct QueryServer::Listener {
  QueryServer* server = nullptr;
  const Module* module = nullptr;
  sockaddr_un address{};
  struct stat made {};  // the socket that we bound, to know it again when we leave
  int fd = -1;
  event* watch = nullptr;
};

struct QueryServer::Connection {
  QueryServer* server = nullptr;
  const Module* module = nullptr;
  int fd = -1;
  event* watch = nullptr;
  uint64_t deadline_ns = 0;
  std::string request;
  std::string reply;
  size_t written = 0;
  bool answered = false;
  std::list<std::unique_ptr<Connection>>::iterator place;
};

QueryServer::QueryServer(event_base* base, Context& context) : base_(base), context_(&context) {}

QueryServer::~QueryServer() {
  while (!connections_.empty()) {
    drop(*connections_.front());
  }
  for (Listener& listener : listeners_) {
    struct stat now {};
    const bool ours = stat(listener.address.sun_path, &now) == 0 &&
                      now.st_ino == listener.made.st_ino && now.st_dev == listener.made.st_dev;
    if (ours) {
      unlink(listener.address.sun_path);
    }
    event_free(listener.watch);
    close(listener.fd);
  }
}

int QueryServer::bind(const Module& module) {
  Listener listener;
  if (!socket_address(module, listener.address)) {
    return -ENAMETOOLONG;
  }
  if (served(listener.address)) {
    return 0;
  }
  unlink(listener.address.sun_path);
  UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  const auto* address = reinterpret_cast<const sockaddr*>(&listener.address);
  if (!fd.valid() || ::bind(fd.get(), address, sizeof listener.address) != 0 ||
      chmod(listener.address.sun_path, 0660) != 0 ||
      stat(listener.address.sun_path, &listener.made) != 0 || listen(fd.get(), kBacklog) != 0) {
    return -errno;
  }
  listener.server = this;
  listener.module = &module;
  listener.fd = fd.release();
  listeners_.push_back(listener);
  Listener& kept = listeners_.back();
  kept.watch = event_new(base_, kept.fd, EV_READ | EV_PERSIST, on_accept, &kept);
  if (kept.watch == nullptr || event_add(kept.watch, nullptr) != 0) {
    return -ENOMEM;
  }
  return 1;
}

void QueryServer::on_accept(evutil_socket_t, short, void* listener) {
  auto* source = static_cast<Listener*>(listener);
  source->server->accept_one(*source);
}

void QueryServer::accept_one(Listener& listener) {
  const int fd = accept4(listener.fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
  if (fd >= 0) {
    greet(listener, fd);
    return;
  }
  // Out of descriptors: those of the slowest client are the ones to have back.
  if ((errno == EMFILE || errno == ENFILE) && !connections_.empty()) {
    drop(*connections_.front());
  }
}

void QueryServer::greet(Listener& listener, int fd) {
  if (connections_.size() >= kConnectionsMax) {
    drop(*connections_.front());
  }
  std::unique_ptr<Connection> fresh =
      spare_ != nullptr ? std::move(spare_) : std::make_unique<Connection>();
  Connection& connection = *fresh;
  connection.server = this;
  connection.module = listener.module;
  connection.fd = fd;
  connection.deadline_ns = context_->host.now_ns() + kPatienceMs * 1000000ULL;
  connection.place = connections_.insert(connections_.end(), std::move(fresh));
  on_ready(fd, EV_READ, &connection);
}

/// Reads all that is there. False when the client is not worth waiting for; `complete` at the end
/// of the request.
bool QueryServer::read_request(int fd, std::string& request, bool& complete) {
  char buffer[kReadStep];
  for (;;) {
    const ssize_t count = recv(fd, buffer, sizeof buffer, 0);
    if (count == 0) {
      complete = true;
      return true;
    }
    if (count < 0) {
      return errno == EAGAIN || errno == EINTR;
    }
    request.append(buffer, static_cast<size_t>(count));
    if (request.size() > kRequestMax) {
      return false;
    }
  }
}

void QueryServer::on_ready(evutil_socket_t, short what, void* connection) {
  auto& client = *static_cast<Connection*>(connection);
  QueryServer& server = *client.server;
  if ((what & EV_TIMEOUT) != 0) {
    server.drop(client);
    return;
  }
  if (client.answered) {
    server.write_reply(client);
    return;
  }
  bool complete = false;
  if (!server.read_request(client.fd, client.request, complete)) {
    server.drop(client);
  } else if (complete) {
    server.answer_request(client);
  } else {
    server.wait_for(client, EV_READ);
  }
}

void QueryServer::answer_request(Connection& connection) {
  connection.answered = true;
  if (connection.request.empty()) {
    drop(connection);  // somebody looked whether we live
    return;
  }
  const pid_t pid = connection.module->wants_peer ? peer_of(connection.fd) : 0;
  serve(*context_, *connection.module, connection.request, pid, connection.reply);
  write_reply(connection);
}

void QueryServer::write_reply(Connection& connection) {
  while (connection.written < connection.reply.size()) {
    const ssize_t count =
        send(connection.fd, connection.reply.data() + connection.written,
             connection.reply.size() - connection.written, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (count < 0 && errno == EINTR) {
      continue;
    }
    if (count < 0 && errno == EAGAIN) {
      wait_for(connection, EV_WRITE);
      return;
    }
    if (count < 0) {
      break;
    }
    connection.written += static_cast<size_t>(count);
  }
  drop(connection);
}

void QueryServer::wait_for(Connection& connection, short what) {
  const uint64_t now = context_->host.now_ns();
  if (now >= connection.deadline_ns) {
    drop(connection);
    return;
  }
  if (connection.watch == nullptr) {
    connection.watch = event_new(base_, connection.fd, what, on_ready, &connection);
  } else if (event_get_events(connection.watch) != what) {
    event_assign(connection.watch, base_, connection.fd, what, on_ready, &connection);
  }
  const uint64_t left_us = (connection.deadline_ns - now) / 1000;
  const timeval patience = {static_cast<time_t>(left_us / 1000000),
                            static_cast<suseconds_t>(left_us % 1000000)};
  if (connection.watch == nullptr || event_add(connection.watch, &patience) != 0) {
    drop(connection);
  }
}

void QueryServer::drop(Connection& connection) {
  if (connection.watch != nullptr) {
    event_free(connection.watch);
    connection.watch = nullptr;
  }
  close(connection.fd);
  std::unique_ptr<Connection> gone = std::move(*connection.place);
  connections_.erase(connection.place);
  if (gone->request.capacity() + gone->reply.capacity() > kBufferKept) {
    return;
  }
  gone->request.clear();
  gone->reply.clear();
  gone->written = 0;
  gone->answered = false;
  spare_ = std::move(gone);
}

}  // namespace morvad
