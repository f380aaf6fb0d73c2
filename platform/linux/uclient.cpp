// SPDX-License-Identifier: Apache-2.0
//
// The client of the interface manager, platform/uclient.h. Messages are lines of JSON; each
// connection has a bounded buffer for the line that has begun. The daemon accepts and closes
// connections itself, so a buffer is found by its descriptor and given up when this side says that
// it is to be closed.
#include "platform/uclient.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

#include "platform/linux/fd.h"
#include "platform/linux/json.h"
#include "platform/linux/morva_call.h"
#include "platform/linux/signals.h"
#include "platform/linux/uif_internal.h"
#include "platform/log.h"

// One message: the JSON tree is the caller's.
struct uclient_msg {
  const cJSON* json;
};

namespace {

constexpr size_t kLineMax = 16384;  // bytes of a line, without its end
constexpr int kConnections = 16;
constexpr int kTrunkMax = 255;
constexpr int kConnectWaitMs = 2000;
constexpr int kConnectPollMs = 20;

// A connection: `line` is null while no line has begun.
struct connection {
  int fd;
  char* line;
  size_t length;
};

// The client with what is not the daemon's business. Never freed.
struct client_state {
  uclient open;  // first: the daemon's pointer is this record's
  connection connections[kConnections];
};

sockaddr_in make_address(uint32_t address, unsigned short port) {
  sockaddr_in result = {};
  result.sin_family = AF_INET;
  result.sin_addr.s_addr = htonl(address);
  result.sin_port = htons(port);
  return result;
}

int open_listener(const sockaddr_in& address) {
  UniqueFd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  const int on = 1;
  if (!fd.valid() || setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
      bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      listen(fd.get(), kConnections) != 0) {
    zlog_err("interface manager: cannot listen on port %u: %s", ntohs(address.sin_port),
             strerror(errno));
    return -1;
  }
  return fd.release();
}

// One attempt, at most `wait_ms` long. The connection, or -1 with errno set.
int try_connect(const sockaddr_in& address, int wait_ms) {
  UniqueFd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!fd.valid()) {
    return -1;
  }
  if (connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
    return fd.release();
  }
  if (errno != EINPROGRESS) {
    return -1;
  }
  int error = ETIMEDOUT;
  socklen_t size = sizeof error;
  if (signals_poll(fd.get(), POLLOUT, wait_ms) == 1) {
    getsockopt(fd.get(), SOL_SOCKET, SO_ERROR, &error, &size);
  }
  if (error != 0) {
    errno = error;
    return -1;
  }
  return fd.release();
}

// Connects and registers. A manager that is about to start gets a moment to do so.
int open_connection(const sockaddr_in& address, unsigned short listen_port) {
  const int patience_ms =
      morva_start_wait_ms() < kConnectWaitMs ? morva_start_wait_ms() : kConnectWaitMs;
  const int64_t end = morva_now_ns() + static_cast<int64_t>(patience_ms) * 1000000;
  UniqueFd fd(try_connect(address, kConnectWaitMs));
  while (!fd.valid() && errno == ECONNREFUSED && morva_now_ns() < end) {
    signals_poll(-1, 0, kConnectPollMs);
    fd.reset(try_connect(address, kConnectWaitMs));
  }
  char hello[64];
  const int length =
      snprintf(hello, sizeof hello, "{\"register\":\"qel\",\"port\":%u}\n", listen_port);
  if (!fd.valid() || send(fd.get(), hello, static_cast<size_t>(length), MSG_NOSIGNAL) != length) {
    zlog_err("interface manager: cannot connect to port %u: %s", ntohs(address.sin_port),
             strerror(errno));
    return -1;
  }
  return fd.release();
}

connection* find_connection(client_state* state, int fd) {
  connection* unused = nullptr;
  for (connection& entry : state->connections) {
    if (entry.fd == fd) {
      return &entry;
    }
    if (entry.fd < 0 && unused == nullptr) {
      unused = &entry;
    }
  }
  if (unused != nullptr) {
    // The daemon accepted it; shell commands that the daemon starts shall not inherit it.
    fcntl(fd, F_SETFD, FD_CLOEXEC);
    unused->fd = fd;
  }
  return unused;
}

void forget_connection(client_state* state, int fd) {
  for (connection& entry : state->connections) {
    if (entry.fd == fd) {
      free(entry.line);
      entry = {-1, nullptr, 0};
    }
  }
  if (state->open.conn_fd == fd) {
    state->open.conn_fd = -1;
  }
}

// Calls the hook of one complete line, which is NUL-terminated. False when the line is no JSON
// object. Unknown events are left alone: a newer manager may have more of them.
bool deliver_line(uclient* client, const char* line, size_t length) {
  // A NUL inside would hide what stands behind it.
  const bool is_text = strlen(line) == length;
  const JsonTree tree(is_text ? cJSON_ParseWithOpts(line, nullptr, 1) : nullptr);
  if (!cJSON_IsObject(tree.get())) {
    return false;
  }
  const struct {
    const char* event;
    int (*hook)(uclient* client, const uclient_msg* msg);
  } rows[] = {
      {"new_if", client->new_if},
      {"if_status", client->if_status},
      {"trunk_set", client->trunk_set},
      {"mirror_get", client->mirror_get},
  };
  const char* event = json_text(tree.get(), "event");
  const uclient_msg message = {tree.get()};
  for (const auto& row : rows) {
    if (event != nullptr && row.hook != nullptr && strcmp(event, row.event) == 0) {
      row.hook(client, &message);
    }
  }
  return true;
}

// Delivers the complete lines of the buffer and moves the rest to its front.
bool deliver_lines(uclient* client, connection* entry) {
  size_t start = 0;
  while (start < entry->length) {
    char* line = entry->line + start;
    char* end = static_cast<char*>(memchr(line, '\n', entry->length - start));
    if (end == nullptr) {
      break;
    }
    *end = '\0';
    const size_t length = static_cast<size_t>(end - line);
    if (!deliver_line(client, line, length)) {
      return false;
    }
    start += length + 1;
  }
  entry->length -= start;
  memmove(entry->line, entry->line + start, entry->length);
  return entry->length <= kLineMax;
}

// A connection between two lines needs no buffer.
void drop_empty_line(connection* entry) {
  if (entry->length == 0) {
    free(entry->line);
    entry->line = nullptr;
  }
}

// Reads once what is there. False when the connection is to be closed.
bool read_connection(uclient* client, connection* entry) {
  if (entry->line == nullptr) {
    entry->line = static_cast<char*>(malloc(kLineMax + 1));
    if (entry->line == nullptr) {
      return false;
    }
  }
  const ssize_t got =
      recv(entry->fd, entry->line + entry->length, kLineMax + 1 - entry->length, MSG_DONTWAIT);
  if (got < 0) {
    const bool later = errno == EAGAIN || errno == EINTR;
    drop_empty_line(entry);
    return later;
  }
  if (got == 0) {
    return false;
  }
  entry->length += static_cast<size_t>(got);
  if (!deliver_lines(client, entry)) {
    zlog_err("interface manager: a message that cannot be one, connection closed");
    return false;
  }
  drop_empty_line(entry);
  return true;
}

}  // namespace

uclient* uclient_connect(uint32_t address, unsigned short port, unsigned short listen_port) {
  // Listening comes first: the manager may connect back before our connect returns.
  UniqueFd listener(open_listener(make_address(address, listen_port)));
  if (!listener.valid()) {
    return nullptr;
  }
  UniqueFd link(open_connection(make_address(address, port), listen_port));
  client_state* state =
      link.valid() ? static_cast<client_state*>(calloc(1, sizeof(client_state))) : nullptr;
  if (state == nullptr) {
    return nullptr;
  }
  state->open.conn_fd = link.release();
  state->open.listen_fd = listener.release();
  for (connection& entry : state->connections) {
    entry.fd = -1;
  }
  return &state->open;
}

int uclient_handle_async(uclient* client, int fd) {
  client_state* state = reinterpret_cast<client_state*>(client);
  connection* entry = fd >= 0 ? find_connection(state, fd) : nullptr;
  if (entry == nullptr) {
    zlog_err("interface manager: too many connections");
    return -1;
  }
  if (!read_connection(client, entry)) {
    forget_connection(state, fd);
    return -1;
  }
  return 0;
}

int uclient_new_if(uclient* /*client*/, const uclient_msg* msg) {
  return uif_apply_row(msg->json) != nullptr ? 0 : -1;
}

uif* uclient_if_status(uclient* /*client*/, const uclient_msg* msg) {
  return uif_apply_status(msg->json);
}

int uclient_trunk_set(uclient* /*client*/, const uclient_msg* msg) {
  // The records have no place for the trunk, so there is nothing to apply; the message is checked.
  int64_t trunk = 0;
  const bool good = uif_get_by_name(json_text(msg->json, "name")) != nullptr &&
                    json_int(msg->json, "trunk", 0, kTrunkMax, &trunk);
  return good ? 0 : -1;
}

int uclient_mirror_get(uclient* /*client*/, const uclient_msg* msg) {
  uif* record = uif_get_by_name(json_text(msg->json, "name"));
  int64_t mirror = 0;
  if (record == nullptr || !json_int(msg->json, "mirror", 0, INT32_MAX, &mirror)) {
    return -1;
  }
  record->mirror = static_cast<int32_t>(mirror);
  return 0;
}
