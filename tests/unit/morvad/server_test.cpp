// SPDX-License-Identifier: Apache-2.0
//
// The modules' sockets and the interface manager, over real sockets: the Unix ones in the test's
// folder, TCP on loopback with ports that the system picks.
#include <arpa/inet.h>
#include <event2/event.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

#include "platform/linux/fd.h"
#include "platform/linux/morvad/manager.h"
#include "platform/linux/morvad/query_server.h"
#include "support.h"

namespace morvad {
namespace {

class LoopTest : public SwitchTest {
 protected:
  ~LoopTest() override { event_base_free(base); }

  /// Runs what is ready until `done` says so, asking once a round. False after many rounds.
  template <typename Done>
  bool run_until(Done done) {
    for (int i = 0; i < 5000; i++) {
      event_base_loop(base, EVLOOP_NONBLOCK);
      if (done()) {
        return true;
      }
      poll(nullptr, 0, 1);
    }
    return false;
  }

  void run_some() {
    for (int i = 0; i < 20; i++) {
      event_base_loop(base, EVLOOP_NONBLOCK);
    }
  }

  event_base* base = event_base_new();
};

class QueryServerTest : public LoopTest {
 protected:
  QueryServerTest() {
    EXPECT_EQ(server->bind(kMono), 1);
    EXPECT_EQ(server->bind(kPoe), 1);
  }
  ~QueryServerTest() override { server.reset(); }

  sockaddr_un address(const std::string& module) const {
    sockaddr_un out{};
    out.sun_family = AF_UNIX;
    snprintf(out.sun_path, sizeof out.sun_path, "%s",
             at("/var/run/morva/" + module + ".sock").c_str());
    return out;
  }

  std::unique_ptr<UniqueFd> dial(const std::string& module) const {
    auto fd = std::make_unique<UniqueFd>(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0));
    const sockaddr_un where = address(module);
    if (connect(fd->get(), reinterpret_cast<const sockaddr*>(&where), sizeof where) != 0) {
      fd->reset(-1);
    }
    return fd;
  }

  /// Reads to the end of the stream. "lost" when it was reset.
  std::string answer(int fd) {
    std::string text;
    bool ended = false;
    run_until([&] {
      char buffer[65536];
      const ssize_t count = recv(fd, buffer, sizeof buffer, 0);
      if (count > 0) {
        text.append(buffer, static_cast<size_t>(count));
      } else if (count == 0 || errno != EAGAIN) {
        ended = true;
        text = count == 0 ? text : "lost";
      }
      return ended;
    });
    return ended ? text : "no end";
  }

  std::string query(const std::string& module, const std::string& request) {
    const auto fd = dial(module);
    send(fd->get(), request.data(), request.size(), MSG_NOSIGNAL);
    shutdown(fd->get(), SHUT_WR);
    return answer(fd->get());
  }

  Context context{*sw, host};
  std::unique_ptr<QueryServer> server = std::make_unique<QueryServer>(base, context);
};

constexpr char kPoeQuery[] = R"({"mdl":"poe","cmd":"poe_qel_alarm_info_get"})";
constexpr char kPoeAnswer[] = R"({"ret":0,"totalpower":60000,"usepower":6500})";

TEST_F(QueryServerTest, AnswersAtTheEndOfTheRequest) {
  EXPECT_EQ(query("poe", kPoeQuery), kPoeAnswer);
  EXPECT_EQ(query("mono", kPoeQuery), R"({"ret":-1,"error":"mdl: this is mono"})");
  EXPECT_EQ(query("mono", ""), "");
}

TEST_F(QueryServerTest, SlowClientsWaitForNobodyAndNobodyForThem) {
  const auto slow = dial("poe");
  const std::string request = kPoeQuery;
  for (const char c : request) {
    send(slow->get(), &c, 1, MSG_NOSIGNAL);
    run_some();
    EXPECT_EQ(query("poe", kPoeQuery), kPoeAnswer);
  }
  shutdown(slow->get(), SHUT_WR);
  EXPECT_EQ(answer(slow->get()), kPoeAnswer);
}

TEST_F(QueryServerTest, ADripThatNeverEndsIsCutAtTheDeadline) {
  const auto slow = dial("poe");
  send(slow->get(), "{", 1, MSG_NOSIGNAL);
  run_some();
  host.advance_ms(QueryServer::kPatienceMs);
  send(slow->get(), " ", 1, MSG_NOSIGNAL);
  EXPECT_EQ(answer(slow->get()), "");
}

TEST_F(QueryServerTest, ARequestAboveTheBoundIsCutOff) {
  const auto big = dial("poe");
  const std::string part(65536, ' ');
  size_t sent = 0;
  bool cut = false;
  run_until([&] {
    const ssize_t count = send(big->get(), part.data(), part.size(), MSG_NOSIGNAL);
    if (count < 0 && errno != EAGAIN) {
      cut = true;
    }
    sent += count > 0 ? static_cast<size_t>(count) : 0;
    return cut || sent > 16U << 20;
  });
  EXPECT_TRUE(cut);
  EXPECT_LT(sent, 4U << 20);
  // Just below it everything is read.
  std::string padded = kPoeQuery;
  padded.insert(1, 1000000, ' ');
  const auto good = dial("poe");
  size_t done = 0;
  run_until([&] {
    const ssize_t count = send(good->get(), padded.data() + done, padded.size() - done, 0);
    done += count > 0 ? static_cast<size_t>(count) : 0;
    return done == padded.size();
  });
  shutdown(good->get(), SHUT_WR);
  EXPECT_EQ(answer(good->get()), kPoeAnswer);
}

TEST_F(QueryServerTest, TheOldestMakesRoomForTheNewest) {
  std::vector<std::unique_ptr<UniqueFd>> idle;
  for (size_t i = 0; i <= QueryServer::kConnectionsMax; i++) {
    idle.push_back(dial(i % 2 == 0 ? "poe" : "mono"));
    ASSERT_TRUE(idle.back()->valid());
    run_some();
  }
  EXPECT_EQ(answer(idle[0]->get()), "");
  char byte = 0;
  EXPECT_EQ(recv(idle[1]->get(), &byte, 1, 0), -1);
  EXPECT_EQ(errno, EAGAIN);
  EXPECT_EQ(query("poe", kPoeQuery), kPoeAnswer);
}

TEST_F(QueryServerTest, AClientThatLeavesEarlyDoesNoHarm) {
  for (int i = 0; i < 50; i++) {
    const auto gone = dial("poe");
    send(gone->get(), kPoeQuery, sizeof kPoeQuery - 1, MSG_NOSIGNAL);
    shutdown(gone->get(), SHUT_RDWR);
  }
  run_some();
  EXPECT_EQ(query("poe", kPoeQuery), kPoeAnswer);
}

TEST_F(QueryServerTest, AnAnswerLargerThanTheSocketHoldsComesWhole) {
  ASSERT_EQ(server->bind(kControl), 1);
  const uint32_t ports[] = {port("ge1").index};
  sw->l2().fill(20000, ports);
  const auto fd = dial("morvad");
  const std::string request = R"({"mdl":"morvad","cmd":"l2_list","data":{}})";
  const int small = 4096;
  setsockopt(fd->get(), SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
  send(fd->get(), request.data(), request.size(), 0);
  shutdown(fd->get(), SHUT_WR);
  const std::string text = answer(fd->get());
  EXPECT_EQ(nlohmann::json::parse(text)["data"].size(), 2000U);
}

TEST_F(QueryServerTest, ALivingServerKeepsItsName) {
  const sockaddr_un where = address("lldp");
  const UniqueFd other(socket(AF_UNIX, SOCK_STREAM, 0));
  ASSERT_EQ(bind(other.get(), reinterpret_cast<const sockaddr*>(&where), sizeof where), 0);
  ASSERT_EQ(listen(other.get(), 1), 0);
  EXPECT_EQ(server->bind(kLldp), 0);
}

TEST_F(QueryServerTest, AStaleNameIsTakenOver) {
  const sockaddr_un where = address("lldp");
  {
    const UniqueFd dead(socket(AF_UNIX, SOCK_STREAM, 0));
    ASSERT_EQ(bind(dead.get(), reinterpret_cast<const sockaddr*>(&where), sizeof where), 0);
  }
  EXPECT_EQ(server->bind(kLldp), 1);
  write_file(at("/var/run/morva/stp.sock"), "not a socket");
  EXPECT_EQ(server->bind(kStp), 1);
}

TEST_F(QueryServerTest, LeavingTakesAwayOnlyItsOwnNames) {
  unlink(address("mono").sun_path);
  write_file(at("/var/run/morva/mono.sock"), "somebody else's");
  server.reset();
  EXPECT_EQ(read_file(at("/var/run/morva/mono.sock")), "somebody else's");
  struct stat info {};
  EXPECT_NE(stat(address("poe").sun_path, &info), 0);
}

TEST_F(QueryServerTest, SocketsAreForUsAndOurGroup) {
  struct stat info {};
  ASSERT_EQ(stat(address("poe").sun_path, &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0660U);
}

TEST_F(QueryServerTest, APathThatNoSocketHoldsIsAnError) {
  setenv("MORVA_ROOT", ("/tmp/" + std::string(120, 'x')).c_str(), 1);
  EXPECT_EQ(server->bind(kLldp), -ENAMETOOLONG);
  setenv("MORVA_ROOT", at("/nowhere").c_str(), 1);
  EXPECT_EQ(server->bind(kLldp), -ENOENT);
}

// --- interface manager ------------------------------------------------------------------------

class ManagerTest : public LoopTest {
 protected:
  ManagerTest() { listener_port = listen_on(0); }
  ~ManagerTest() override { manager.reset(); }

  static sockaddr_in loopback(uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
  }

  uint16_t listen_on(uint16_t port) {
    listener.reset(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0));
    sockaddr_in address = loopback(port);
    socklen_t size = sizeof address;
    EXPECT_EQ(bind(listener.get(), reinterpret_cast<sockaddr*>(&address), size), 0);
    EXPECT_EQ(listen(listener.get(), 8), 0);
    getsockname(listener.get(), reinterpret_cast<sockaddr*>(&address), &size);
    return ntohs(address.sin_port);
  }

  /// A manager that finds an agent on `agent_port` at its start; port 9 has none.
  void start(uint16_t agent_port = 9) {
    manager = std::make_unique<Manager>(base, *sw);
    sw->observe([this](const Port& port, PortEvent event) { manager->tell(port, event); });
    ASSERT_EQ(manager->start(0, agent_port), 0);
  }

  void dial(UniqueFd& fd) {
    fd.reset(socket(AF_INET, SOCK_STREAM, 0));
    const sockaddr_in address = loopback(manager->port());
    ASSERT_EQ(connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  }

  void say(const UniqueFd& fd, const std::string& text) {
    send(fd.get(), text.data(), text.size(), MSG_NOSIGNAL);
  }

  void accept_back(UniqueFd& fd) {
    ASSERT_TRUE(run_until([&] {
      fd.reset(accept4(listener.get(), nullptr, nullptr, SOCK_NONBLOCK));
      return fd.valid();
    }));
  }

  /// What arrived on `fd` once `lines` lines are there, or its end.
  std::string heard(const UniqueFd& fd, long lines) {
    std::string text;
    bool ended = false;
    run_until([&] {
      char buffer[4096];
      const ssize_t count = recv(fd.get(), buffer, sizeof buffer, MSG_DONTWAIT);
      text.append(buffer, count > 0 ? static_cast<size_t>(count) : 0);
      ended = count == 0 || (count < 0 && errno != EAGAIN);
      return ended || std::count(text.begin(), text.end(), '\n') >= lines;
    });
    return ended ? text + "END" : text;
  }

  std::string registration() const {
    return R"({"register":"qel","port":)" + std::to_string(listener_port) + "}\n";
  }

  UniqueFd listener;
  uint16_t listener_port = 0;
  std::unique_ptr<Manager> manager;
};

TEST_F(ManagerTest, TellsARegisteredClientEachChangeOnce) {
  start();
  UniqueFd out;
  UniqueFd back;
  dial(out);
  say(out, registration());
  accept_back(back);
  sw->set_cable(port("ge1"), false);
  sw->set_cable(port("ge1"), false);
  sw->set_speed(port("ge2"), 6);
  sw->set_trunk(port("ge1"), 2);
  sw->set_mirror(port("xe1"), 1);
  EXPECT_EQ(
      heard(back, 4),
      R"({"duplex":0,"enable":1,"event":"if_status","link":0,"name":"ge1","speed":0,"speed_conf":0})"
      "\n"
      R"({"duplex":1,"enable":1,"event":"if_status","link":1,"name":"ge2","speed":100,"speed_conf":6})"
      "\n"
      R"({"event":"trunk_set","name":"ge1","trunk":2})"
      "\n"
      R"({"event":"mirror_get","mirror":1,"name":"xe1"})"
      "\n");
}

TEST_F(ManagerTest, FindsAnAgentThatOutlivedIt) {
  start(listener_port);
  UniqueFd back;
  accept_back(back);
  const std::string text = heard(back, 3);
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 3);
  sw->set_cable(port("ge1"), false);
  EXPECT_NE(heard(back, 1).find(R"("name":"ge1")"), std::string::npos);
}

TEST_F(ManagerTest, RegisteringAgainReplacesTheOldConnection) {
  start();
  UniqueFd first;
  UniqueFd second;
  UniqueFd old_back;
  UniqueFd back;
  dial(first);
  say(first, registration());
  accept_back(old_back);
  dial(second);
  say(second, registration());
  accept_back(back);
  EXPECT_EQ(heard(old_back, 1), "END");
  sw->set_cable(port("ge1"), false);
  EXPECT_NE(heard(back, 1).find(R"("name":"ge1")"), std::string::npos);
  EXPECT_EQ(manager->clients(), 1U);
}

TEST_F(ManagerTest, ClientsThatAreNotThereAreForgotten) {
  start();
  UniqueFd out;
  UniqueFd back;
  dial(out);
  say(out, registration());
  accept_back(back);
  back.reset(-1);
  EXPECT_TRUE(run_until([&] { return manager->clients() == 0; }));
  sw->set_cable(port("ge1"), false);
}

TEST_F(ManagerTest, WrongRegistrationsAreCutOff) {
  start();
  for (const std::string& text : {std::string("x\n"), std::string("{}\n"),
                                  std::string(R"({"register":"qel"})"
                                              "\n"),
                                  std::string(R"({"register":"qel","port":0})"
                                              "\n"),
                                  std::string(R"({"register":"qel","port":65536})"
                                              "\n"),
                                  std::string(R"({"register":7,"port":30056})"
                                              "\n"),
                                  std::string(5000, '[') + "\n", std::string(20000, ' ')}) {
    UniqueFd out;
    dial(out);
    say(out, text);
    EXPECT_EQ(heard(out, 1), "END") << text.substr(0, 40);
  }
  EXPECT_EQ(manager->clients(), 0U);
}

TEST_F(ManagerTest, AClientThatDoesNotReadIsDroppedBeforeItFillsTheMemory) {
  start();
  UniqueFd out;
  UniqueFd back;
  dial(out);
  say(out, registration());
  accept_back(back);
  ASSERT_TRUE(run_until([&] { return manager->clients() == 1; }));
  for (int i = 0; i < 400000 && manager->clients() == 1; i++) {
    sw->set_cable(port("ge1"), i % 2 != 0);
    if (i % 1000 == 0) {
      run_some();
    }
  }
  EXPECT_EQ(manager->clients(), 0U);
}

}  // namespace
}  // namespace morvad
