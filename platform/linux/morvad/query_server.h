// SPDX-License-Identifier: Apache-2.0
//
// The modules' sockets: Unix stream sockets /var/run/morva/MODULE.sock. A client writes a request,
// shuts its writing side down, and reads the answer to the end of the stream.
//
//     accept -> read what is there -> end of stream: serve, write, close      (the usual case)
//                                  -> not yet: wait under a deadline          (slow clients)
//
// Nobody waits for anybody: a slow client costs one slot and is dropped at its deadline, or earlier
// when the slots run out and it is the oldest.
#ifndef MORVA_LINUX_MORVAD_QUERY_SERVER_H
#define MORVA_LINUX_MORVAD_QUERY_SERVER_H

#include <event2/event.h>

#include <deque>
#include <list>
#include <memory>
#include <string>

#include "platform/linux/morvad/modules.h"

namespace morvad {

class QueryServer {
 public:
  static constexpr size_t kRequestMax = 1 << 20;  // bytes; a longer request is cut off unanswered
  static constexpr int kPatienceMs = 5000;        // for a whole exchange
  static constexpr size_t kConnectionsMax = 128;

  /// `base` and `context` are not owned and outlive the server.
  QueryServer(event_base* base, Context& context);
  ~QueryServer();
  QueryServer(const QueryServer&) = delete;
  QueryServer& operator=(const QueryServer&) = delete;

  /// Takes the module's name unless a living process serves it. Returns 1 when it is ours now, 0
  /// when somebody else has it, or a negative errno (the name is not served then).
  int bind(const Module& module);

 private:
  struct Listener;
  struct Connection;

  static void on_accept(evutil_socket_t fd, short what, void* listener);
  static void on_ready(evutil_socket_t fd, short what, void* connection);

  void accept_one(Listener& listener);
  void greet(Listener& listener, int fd);
  bool read_request(int fd, std::string& request, bool& complete);
  void answer_request(Connection& connection);
  void wait_for(Connection& connection, short what);
  void write_reply(Connection& connection);
  void drop(Connection& connection);

  event_base* base_;
  Context* context_;
  std::deque<Listener> listeners_;
  std::list<std::unique_ptr<Connection>> connections_;  // oldest first
  std::unique_ptr<Connection> spare_;                   // kept for the next client, buffers and all
};

}  // namespace morvad

#endif  // MORVA_LINUX_MORVAD_QUERY_SERVER_H
