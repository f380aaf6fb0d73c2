// SPDX-License-Identifier: Apache-2.0
//
// See client.h.
#include "platform/linux/morvactl/client.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "platform/linux/fd.h"
#include "platform/linux/paths.h"

namespace morvactl {
namespace {

constexpr char kControlSocket[] = MORVA_RUN_DIR "/morvad.sock";
constexpr char kEventSocket[] = "/var/run/qel.udp";
constexpr size_t kAnswerMax = 16 << 20;  // bytes
constexpr timeval kPatience = {5, 0};

std::string rooted(const char* path) {
  char buffer[kMorvaPathSize];
  return morva_path(buffer, sizeof buffer, path);
}

sockaddr_un address_of(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) {
    throw Failure(path + ": the path is too long for a socket");
  }
  memcpy(address.sun_path, path.data(), path.size());
  return address;
}

std::string exchange(const std::string& request) {
  const std::string path = rooted(kControlSocket);
  const sockaddr_un address = address_of(path);
  const UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &kPatience, sizeof kPatience);
  setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &kPatience, sizeof kPatience);
  if (connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    throw Failure("morvad does not answer at " + path + " (" + strerror(errno) +
                  "); is it running, and may you reach it?");
  }
  size_t sent = 0;
  while (sent < request.size()) {
    const ssize_t count =
        send(fd.get(), request.data() + sent, request.size() - sent, MSG_NOSIGNAL);
    if (count <= 0) {
      throw Failure(std::string("the command was not taken: ") + strerror(errno));
    }
    sent += static_cast<size_t>(count);
  }
  shutdown(fd.get(), SHUT_WR);
  std::string answer;
  char buffer[16384];
  for (;;) {
    const ssize_t count = recv(fd.get(), buffer, sizeof buffer, 0);
    if (count == 0) {
      return answer;
    }
    if (count < 0 || answer.size() > kAnswerMax) {
      throw Failure(std::string("no whole answer from morvad: ") + strerror(errno));
    }
    answer.append(buffer, static_cast<size_t>(count));
  }
}

}  // namespace

json control(const std::string& command, const json& payload) {
  json request = {{"mdl", "morvad"}, {"cmd", command}};
  if (!payload.is_null()) {
    request["data"] = payload;
  }
  const json answer = json::parse(
      exchange(request.dump(-1, ' ', false, json::error_handler_t::replace)), nullptr, false);
  if (!answer.is_object() || !answer.contains("ret") || !answer["ret"].is_number_integer()) {
    throw Failure("morvad's answer makes no sense");
  }
  if (answer["ret"] != 0) {
    throw Failure(answer.value("error", "refused without a reason"));
  }
  return answer.value("data", json());
}

void send_event(const std::string& text) {
  const std::string path = rooted(kEventSocket);
  const sockaddr_un address = address_of(path);
  const UniqueFd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &kPatience, sizeof kPatience);
  if (sendto(fd.get(), text.data(), text.size(), MSG_NOSIGNAL,
             reinterpret_cast<const sockaddr*>(&address), sizeof address) < 0) {
    throw Failure("the agent does not take events at " + path + " (" + strerror(errno) + ")");
  }
}

}  // namespace morvactl
