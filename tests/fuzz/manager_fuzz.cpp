// SPDX-License-Identifier: Apache-2.0
//
// Bytes from the interface manager, cut where the socket cuts them, through the platform's client
// into the interface cache.
#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "platform/log.h"
#include "platform/uclient.h"
#include "platform/uif.h"

namespace {

// A client whose own connection leads to a socket of ours on loopback.
uclient* connect_client() {
  const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  if (bind(listener, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
      listen(listener, 1) != 0 ||
      getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    std::perror("listener");
    std::abort();
  }
  uclient* client = uclient_connect(INADDR_LOOPBACK, ntohs(address.sin_port), 0);
  if (client == nullptr) {
    std::abort();
  }
  client->new_if = uclient_new_if;
  client->if_status = [](uclient* self, const uclient_msg* msg) {
    return uclient_if_status(self, msg) != nullptr ? 0 : -1;
  };
  client->trunk_set = uclient_trunk_set;
  client->mirror_get = uclient_mirror_get;
  return client;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static uclient* const client = [] {
    setenv("MORVA_LOG", "none", 1);
    setenv("MORVA_START_WAIT_MS", "0", 1);
    setenv("MORVA_ROOT", "/nonexistent", 1);
    uif_init();
    return connect_client();
  }();
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
    return 0;
  }
  size_t sent = 0;
  bool open = true;
  while (open && sent < size) {
    // The first byte of each piece is its length, so that lines are cut in the middle.
    const size_t piece = std::min<size_t>(size - sent - 1, size_t{data[sent]} * 16 + 1);
    ++sent;
    if (piece > 0 && send(ends[0], data + sent, piece, MSG_NOSIGNAL) < 0) {
      break;
    }
    sent += piece;
    open = uclient_handle_async(client, ends[1]) >= 0;
  }
  close(ends[0]);
  while (open) {
    open = uclient_handle_async(client, ends[1]) >= 0;
  }
  close(ends[1]);
  return 0;
}
