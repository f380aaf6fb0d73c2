// SPDX-License-Identifier: Apache-2.0
//
// The interface manager: it tells registered clients what happens to interfaces. A client connects
// to 127.0.0.1:30000 and writes one line, {"register":NAME,"port":N}; the manager then connects to
// 127.0.0.1:N and writes one line of JSON for each event there. At its own start it also tries the
// agent's port, for an agent that lived on while morvad did not.
#ifndef MORVA_LINUX_MORVAD_MANAGER_H
#define MORVA_LINUX_MORVAD_MANAGER_H

#include <event2/bufferevent.h>
#include <event2/listener.h>

#include <list>
#include <memory>
#include <string>

#include "platform/linux/morvad/switch.h"

namespace morvad {

class Manager {
 public:
  static constexpr uint16_t kPort = 30000;
  static constexpr uint16_t kAgentPort = 30056;
  static constexpr size_t kClientsMax = 16;
  static constexpr size_t kLineMax = 16384;      // bytes of a registration
  static constexpr size_t kUnreadMax = 1 << 20;  // a client that lets more pile up is dropped

  /// `base` and `sw` are not owned and outlive the manager.
  Manager(event_base* base, Switch& sw);
  ~Manager();
  Manager(const Manager&) = delete;
  Manager& operator=(const Manager&) = delete;

  /// Listens on 127.0.0.1:`port` (0: any free one) and tries the agent. Returns 0 or -errno.
  int start(uint16_t port = kPort, uint16_t agent_port = kAgentPort);

  /// The port that is listened on.
  uint16_t port() const;

  /// Tells every client; called by the switch's observer.
  void tell(const Port& port, PortEvent event);

  size_t clients() const { return clients_.size(); }

 private:
  struct Caller;
  struct Client;

  static void on_caller(evconnlistener*, evutil_socket_t fd, sockaddr*, int, void* self);
  static void on_caller_text(bufferevent*, void* caller);
  static void on_caller_gone(bufferevent*, short, void* caller);
  static void on_client_event(bufferevent*, short what, void* client);
  static void on_client_text(bufferevent* stream, void*);

  void register_client(const std::string& line);
  void connect_back(uint16_t port, bool tell_all);
  void send(Client& client, const std::string& line);
  void drop_caller(Caller* caller);
  void drop_client(Client* client);

  event_base* base_;
  Switch* switch_;
  evconnlistener* listener_ = nullptr;
  std::list<std::unique_ptr<Caller>> callers_;
  std::list<std::unique_ptr<Client>> clients_;
};

/// The text of an event, with its line end.
std::string event_line(const Port& port, PortEvent event);

}  // namespace morvad

#endif  // MORVA_LINUX_MORVAD_MANAGER_H
