// SPDX-License-Identifier: Apache-2.0
//
// See manager.h.
#include "platform/linux/morvad/manager.h"

#include <arpa/inet.h>
#include <event2/buffer.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

#include "platform/linux/morvad/log.h"
#include "platform/linux/morvad/names.h"
#include "platform/linux/morvad/request.h"

namespace morvad {
namespace {

sockaddr_in loopback(uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

}  // namespace

/// Somebody who connected to us; it stays open as long as the other end likes.
struct Manager::Caller {
  Manager* manager;
  bufferevent* stream;
  bool registered = false;
};

/// A connection back to a client.
struct Manager::Client {
  Manager* manager;
  bufferevent* stream;
  uint16_t port;
  bool tell_all;  // of every port, once it is connected
};

Manager::Manager(event_base* base, Switch& sw) : base_(base), switch_(&sw) {}

Manager::~Manager() {
  while (!callers_.empty()) {
    drop_caller(callers_.front().get());
  }
  while (!clients_.empty()) {
    drop_client(clients_.front().get());
  }
  if (listener_ != nullptr) {
    evconnlistener_free(listener_);
  }
}

int Manager::start(uint16_t port, uint16_t agent_port) {
  const sockaddr_in address = loopback(port);
  listener_ = evconnlistener_new_bind(
      base_, on_caller, this, LEV_OPT_CLOSE_ON_FREE | LEV_OPT_CLOSE_ON_EXEC | LEV_OPT_REUSEABLE, 16,
      reinterpret_cast<const sockaddr*>(&address), sizeof address);
  if (listener_ == nullptr) {
    return -errno;
  }
  connect_back(agent_port, true);
  return 0;
}

uint16_t Manager::port() const {
  sockaddr_in address{};
  socklen_t size = sizeof address;
  getsockname(evconnlistener_get_fd(listener_), reinterpret_cast<sockaddr*>(&address), &size);
  return ntohs(address.sin_port);
}

void Manager::on_caller(evconnlistener*, evutil_socket_t fd, sockaddr*, int, void* self) {
  auto& manager = *static_cast<Manager*>(self);
  bufferevent* stream = bufferevent_socket_new(manager.base_, fd, BEV_OPT_CLOSE_ON_FREE);
  if (stream == nullptr) {
    evutil_closesocket(fd);
    return;
  }
  if (manager.callers_.size() >= kClientsMax) {
    manager.drop_caller(manager.callers_.front().get());
  }
  manager.callers_.push_back(std::make_unique<Caller>(Caller{&manager, stream}));
  bufferevent_setcb(stream, on_caller_text, nullptr, on_caller_gone, manager.callers_.back().get());
  bufferevent_setwatermark(stream, EV_READ, 0, kLineMax + 1);
  bufferevent_enable(stream, EV_READ);
}

void Manager::on_caller_text(bufferevent* stream, void* caller) {
  auto* source = static_cast<Caller*>(caller);
  Manager& manager = *source->manager;
  evbuffer* input = bufferevent_get_input(stream);
  size_t length = 0;
  while (char* line = evbuffer_readln(input, &length, EVBUFFER_EOL_LF)) {
    const std::string text(line, length);
    free(line);
    try {
      if (length > kLineMax || source->registered) {
        throw Refused("one registration of at most 16384 bytes is expected");
      }
      manager.register_client(text);
      source->registered = true;
    } catch (const Refused& refusal) {
      log_line(std::string("interface manager: registration refused: ") + refusal.what());
      manager.drop_caller(source);
      return;
    }
  }
  if (evbuffer_get_length(input) > kLineMax) {
    manager.drop_caller(source);
  }
}

void Manager::on_caller_gone(bufferevent*, short, void* caller) {
  auto* source = static_cast<Caller*>(caller);
  source->manager->drop_caller(source);
}

void Manager::register_client(const std::string& line) {
  if (too_deep(line, kMaxDepth)) {
    throw Refused("nested too deep");
  }
  const json message = json::parse(line, nullptr, false);
  text_member(message, "register");
  connect_back(static_cast<uint16_t>(int_member(message, "port", 1, 65535)), false);
}

void Manager::connect_back(uint16_t port, bool tell_all) {
  const auto same = std::find_if(clients_.begin(), clients_.end(),
                                 [port](const auto& client) { return client->port == port; });
  if (same != clients_.end()) {
    drop_client(same->get());  // the same client anew; each one hears each event once
  }
  if (clients_.size() >= kClientsMax) {
    throw Refused("too many clients");
  }
  bufferevent* stream = bufferevent_socket_new(base_, -1, BEV_OPT_CLOSE_ON_FREE);
  if (stream == nullptr) {
    throw Refused("no memory");
  }
  clients_.push_back(std::make_unique<Client>(Client{this, stream, port, tell_all}));
  bufferevent_setcb(stream, on_client_text, nullptr, on_client_event, clients_.back().get());
  bufferevent_enable(stream, EV_READ | EV_WRITE);
  const sockaddr_in address = loopback(port);
  Client* client = clients_.back().get();
  // A refusal arrives as an event, which drops the client; without a socket there is no event.
  const auto* to = reinterpret_cast<const sockaddr*>(&address);
  if (bufferevent_socket_connect(stream, to, sizeof address) != 0) {
    clients_.remove_if([client](const auto& each) {
      if (each.get() != client) {
        return false;
      }
      bufferevent_free(client->stream);
      return true;
    });
  }
}

void Manager::on_client_event(bufferevent*, short what, void* client) {
  auto* target = static_cast<Client*>(client);
  Manager& manager = *target->manager;
  if ((what & BEV_EVENT_CONNECTED) == 0) {
    manager.drop_client(target);
    return;
  }
  // Who has outlived us knows the ports as they were before.
  if (target->tell_all) {
    for (const Port& port : manager.switch_->ports()) {
      manager.send(*target, event_line(port, PortEvent::status));
    }
  }
}

void Manager::on_client_text(bufferevent* stream, void*) {
  evbuffer* input = bufferevent_get_input(stream);
  evbuffer_drain(input, evbuffer_get_length(input));  // clients have nothing to say here
}

void Manager::send(Client& client, const std::string& line) {
  bufferevent_write(client.stream, line.data(), line.size());
}

void Manager::tell(const Port& port, PortEvent event) {
  const std::string line = event_line(port, event);
  for (auto next = clients_.begin(); next != clients_.end();) {
    Client& client = **next++;
    if (evbuffer_get_length(bufferevent_get_output(client.stream)) > kUnreadMax) {
      log_line("interface manager: the client on port " + std::to_string(client.port) +
               " does not read, dropped");
      drop_client(&client);
    } else {
      send(client, line);
    }
  }
}

void Manager::drop_caller(Caller* caller) {
  bufferevent_free(caller->stream);
  callers_.remove_if([caller](const auto& each) { return each.get() == caller; });
}

void Manager::drop_client(Client* client) {
  bufferevent_free(client->stream);
  clients_.remove_if([client](const auto& each) { return each.get() == client; });
}

std::string event_line(const Port& port, PortEvent event) {
  const std::string& name = port.built.name;
  json message;
  switch (event) {
    case PortEvent::status: {
      const PortStatus status = port.status();
      message = {{"event", "if_status"},
                 {"name", name},
                 {"link", status.link},
                 {"speed", status.speed},
                 {"duplex", status.duplex},
                 {"enable", status.enable},
                 {"speed_conf", status.speed_conf}};
      break;
    }
    case PortEvent::trunk:
      message = {{"event", "trunk_set"}, {"name", name}, {"trunk", port.trunk}};
      break;
    case PortEvent::mirror:
      message = {{"event", "mirror_get"}, {"name", name}, {"mirror", port.mirror}};
      break;
  }
  return to_text(message) + "\n";
}

}  // namespace morvad
