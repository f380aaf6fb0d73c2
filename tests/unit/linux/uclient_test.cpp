// SPDX-License-Identifier: Apache-2.0
//
// The interface manager's client, against a manager that the test plays on loopback.
#include "platform/uclient.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <vector>

#include "platform/linux/uif_internal.h"
#include "tests/unit/linux/support.h"

namespace {

constexpr uint32_t kLoopback = 0x7f000001;

int listen_somewhere(unsigned short* port) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(kLoopback);
  socklen_t size = sizeof address;
  EXPECT_EQ(0, bind(fd, reinterpret_cast<sockaddr*>(&address), size));
  EXPECT_EQ(0, listen(fd, 4));
  EXPECT_EQ(0, getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size));
  *port = ntohs(address.sin_port);
  return fd;
}

std::vector<std::string> heard;

int hear(const char* what, int result) {
  heard.push_back(std::string(what) + " " + std::to_string(result));
  return result;
}

class UclientTest : public RootTest {
 protected:
  UclientTest() {
    setenv("MORVA_START_WAIT_MS", "0", 1);
    heard.clear();
    {
      FakeModule manager("ifmgr", R"({"ret":0,"data":[
{"index":33554433,"name":"u1","port_no":101,"speed_class":2,"medium":1,"link":1,"speed":1000}]})");
      uif_init();
    }
    manager_ = listen_somewhere(&manager_port_);
    close(listen_somewhere(&listen_port_));
    client_ = uclient_connect(kLoopback, manager_port_, listen_port_);
    if (client_ == nullptr) {
      return;
    }
    client_->new_if = [](uclient* client, const uclient_msg* msg) {
      return hear("new_if", uclient_new_if(client, msg));
    };
    client_->if_status = [](uclient* client, const uclient_msg* msg) {
      const uif* record = uclient_if_status(client, msg);
      return hear("if_status", record != nullptr ? record->link : -1);
    };
    client_->trunk_set = [](uclient* client, const uclient_msg* msg) {
      return hear("trunk_set", uclient_trunk_set(client, msg));
    };
    client_->mirror_get = [](uclient* client, const uclient_msg* msg) {
      return hear("mirror_get", uclient_mirror_get(client, msg));
    };
  }

  ~UclientTest() override {
    close(manager_);
    if (client_ != nullptr) {
      close(client_->conn_fd);
      close(client_->listen_fd);
      free(client_);
    }
    uif_clear();
    unsetenv("MORVA_START_WAIT_MS");
  }

  int accept_registration() const { return accept(manager_, nullptr, nullptr); }

  // The manager's connection back to the client, and the client's end of it.
  void connect_back(int* sender, int* receiver) const {
    *sender = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(kLoopback);
    address.sin_port = htons(listen_port_);
    ASSERT_EQ(0, connect(*sender, reinterpret_cast<sockaddr*>(&address), sizeof address));
    pollfd entry = {client_->listen_fd, POLLIN, 0};
    ASSERT_EQ(1, poll(&entry, 1, 5000));
    *receiver = accept(client_->listen_fd, nullptr, nullptr);
    ASSERT_GE(*receiver, 0);
  }

  // Handles everything that was sent, as the loop would. The last result.
  int handle_all(int receiver) const {
    int result = 0;
    pollfd entry = {receiver, POLLIN, 0};
    while (result >= 0 && poll(&entry, 1, 100) == 1) {
      result = uclient_handle_async(client_, receiver);
    }
    return result;
  }

  int manager_ = -1;
  unsigned short manager_port_ = 0;
  unsigned short listen_port_ = 0;
  uclient* client_ = nullptr;
};

TEST_F(UclientTest, RegistersItself) {
  ASSERT_NE(nullptr, client_);
  const int fd = accept_registration();
  char text[128] = "";
  const ssize_t got = recv(fd, text, sizeof text - 1, 0);
  EXPECT_EQ("{\"register\":\"qel\",\"port\":" + std::to_string(listen_port_) + "}\n",
            std::string(text, got > 0 ? static_cast<size_t>(got) : 0));
  close(fd);
}

TEST_F(UclientTest, NobodyInheritsItsSockets) {
  ASSERT_NE(nullptr, client_);
  int sender = -1;
  int receiver = -1;
  connect_back(&sender, &receiver);
  EXPECT_EQ(0, uclient_handle_async(client_, receiver));
  for (const int fd : {client_->conn_fd, client_->listen_fd, receiver}) {
    EXPECT_EQ(FD_CLOEXEC, fcntl(fd, F_GETFD));
  }
  close(sender);
  close(receiver);
}

TEST_F(UclientTest, NobodyToConnectTo) {
  unsigned short port = 0;
  unsigned short own = 0;
  close(listen_somewhere(&port));
  close(listen_somewhere(&own));
  LogCapture log;
  EXPECT_EQ(nullptr, uclient_connect(kLoopback, port, own));
  EXPECT_NE(std::string::npos,
            log.text().find("interface manager: cannot connect to port " + std::to_string(port)));
}

TEST_F(UclientTest, OwnPortIsTaken) {
  unsigned short taken = 0;
  const int other = listen_somewhere(&taken);
  EXPECT_EQ(nullptr, uclient_connect(kLoopback, manager_port_, taken));
  close(other);
}

TEST_F(UclientTest, EventsReachTheirHooks) {
  ASSERT_NE(nullptr, client_);
  int sender = -1;
  int receiver = -1;
  connect_back(&sender, &receiver);
  send_text(sender,
            "{\"event\":\"if_status\",\"name\":\"u1\",\"link\":0,\"speed\":0,\"duplex\":0,"
            "\"enable\":1,\"speed_conf\":0}\n"
            "{\"event\":\"trunk_set\",\"name\":\"u1\",\"trunk\":2}\n"
            "{\"event\":\"mirror_get\",\"name\":\"u1\",\"mirror\":1}\n"
            "{\"event\":\"new_if\",\"name\":\"vlanif900\",\"index\":900}\n"
            "{\"event\":\"something_new\"}\n"
            "{\"event\":7}\n{}\n"
            "{\"event\":\"if_status\",\"name\":\"u1\",\"link\":1,\"speed\":100}\n");
  EXPECT_EQ(0, handle_all(receiver));
  EXPECT_EQ((std::vector<std::string>{"if_status 0", "trunk_set 0", "mirror_get 0", "new_if 0",
                                      "if_status 1"}),
            heard);
  EXPECT_EQ(100, uif_get_by_name("u1")->speed);
  EXPECT_EQ(1, uif_get_by_name("u1")->mirror);
  EXPECT_EQ(900U, uif_get_by_name("vlanif900")->index);
  close(sender);
  EXPECT_EQ(-1, handle_all(receiver));
  close(receiver);
}

TEST_F(UclientTest, BadEventsChangeNothing) {
  ASSERT_NE(nullptr, client_);
  int sender = -1;
  int receiver = -1;
  connect_back(&sender, &receiver);
  send_text(sender,
            "{\"event\":\"if_status\",\"name\":\"nobody\",\"link\":0}\n"
            "{\"event\":\"if_status\",\"name\":\"u1\",\"link\":0,\"speed\":\"fast\"}\n"
            "{\"event\":\"trunk_set\",\"name\":\"u1\",\"trunk\":256}\n"
            "{\"event\":\"trunk_set\",\"name\":\"nobody\",\"trunk\":1}\n"
            "{\"event\":\"mirror_get\",\"name\":\"u1\",\"mirror\":-1}\n"
            "{\"event\":\"mirror_get\",\"name\":\"u1\"}\n"
            "{\"event\":\"new_if\",\"name\":\"vlanif901\"}\n");
  EXPECT_EQ(0, handle_all(receiver));
  EXPECT_EQ(
      (std::vector<std::string>{"if_status -1", "if_status -1", "trunk_set -1", "trunk_set -1",
                                "mirror_get -1", "mirror_get -1", "new_if -1"}),
      heard);
  EXPECT_EQ(nullptr, uif_get_by_name("vlanif901"));
  close(sender);
  close(receiver);
}

TEST_F(UclientTest, HooksThatAreNotSetAreLeftOut) {
  ASSERT_NE(nullptr, client_);
  int sender = -1;
  int receiver = -1;
  connect_back(&sender, &receiver);
  client_->trunk_set = nullptr;
  send_text(sender, "{\"event\":\"trunk_set\",\"name\":\"u1\",\"trunk\":1}\n");
  EXPECT_EQ(0, handle_all(receiver));
  EXPECT_TRUE(heard.empty());
  close(sender);
  close(receiver);
}

TEST_F(UclientTest, LinesInPieces) {
  ASSERT_NE(nullptr, client_);
  int sender[2];
  int receiver[2];
  connect_back(&sender[0], &receiver[0]);
  connect_back(&sender[1], &receiver[1]);
  // Two connections at once do not disturb each other.
  for (const char byte : std::string("{\"event\":\"trunk_set\",\"name\":\"u1\",\"trunk\":3}")) {
    send_text(sender[0], std::string(1, byte));
    EXPECT_EQ(0, uclient_handle_async(client_, receiver[0]));
    send_text(sender[1], std::string(1, byte));
    EXPECT_EQ(0, uclient_handle_async(client_, receiver[1]));
  }
  EXPECT_TRUE(heard.empty());
  send_text(sender[1], "\n{\"eve");
  EXPECT_EQ(0, handle_all(receiver[1]));
  EXPECT_EQ((std::vector<std::string>{"trunk_set 0"}), heard);
  send_text(sender[1], "nt\":\"mirror_get\",\"name\":\"u1\",\"mirror\":5}\n");
  EXPECT_EQ(0, handle_all(receiver[1]));
  EXPECT_EQ((std::vector<std::string>{"trunk_set 0", "mirror_get 0"}), heard);
  for (int i = 0; i < 2; ++i) {
    close(sender[i]);
    EXPECT_EQ(-1, handle_all(receiver[i]));  // the unfinished line is gone with it
    close(receiver[i]);
  }
  EXPECT_EQ(2U, heard.size());
}

TEST_F(UclientTest, LongestLine) {
  ASSERT_NE(nullptr, client_);
  int sender = -1;
  int receiver = -1;
  const std::string event = "{\"event\":\"trunk_set\",\"name\":\"u1\",\"trunk\":1}";
  connect_back(&sender, &receiver);
  send_text(sender, event + std::string(16384 - event.size(), ' ') + "\n");
  EXPECT_EQ(0, handle_all(receiver));
  EXPECT_EQ(1U, heard.size());
  send_text(sender, event + std::string(16385 - event.size(), ' ') + "\n");
  EXPECT_EQ(-1, handle_all(receiver));
  EXPECT_EQ(1U, heard.size());
  close(sender);
  close(receiver);
}

TEST_F(UclientTest, RubbishClosesTheConnection) {
  ASSERT_NE(nullptr, client_);
  for (const std::string& rubbish :
       {std::string("hello\n"), std::string("\n"), std::string("[]\n"), std::string("7\n"),
        std::string("{\"event\":\"trunk_set\"\n"), std::string("{}\0{}\n", 6),
        std::string("\0\n", 2), std::string(5000, '[') + "\n", std::string("{} {}\n")}) {
    int sender = -1;
    int receiver = -1;
    connect_back(&sender, &receiver);
    send_text(sender, rubbish);
    EXPECT_EQ(-1, handle_all(receiver)) << rubbish.substr(0, 40);
    close(sender);
    close(receiver);
  }
  EXPECT_TRUE(heard.empty());
}

TEST_F(UclientTest, LosingTheManagerIsSeenInTheRecord) {
  ASSERT_NE(nullptr, client_);
  const int fd = client_->conn_fd;
  close(accept_registration());
  EXPECT_EQ(-1, handle_all(fd));
  EXPECT_EQ(-1, client_->conn_fd);
  close(fd);
}

TEST_F(UclientTest, ConnectionsAreBounded) {
  ASSERT_NE(nullptr, client_);
  std::vector<int> all;
  int results = 0;
  for (int i = 0; i < 20; ++i) {
    int sender = -1;
    int receiver = -1;
    connect_back(&sender, &receiver);
    send_text(sender, "{\"begun");
    pollfd entry = {receiver, POLLIN, 0};
    ASSERT_EQ(1, poll(&entry, 1, 5000));
    results += uclient_handle_async(client_, receiver);
    all.insert(all.end(), {sender, receiver});
  }
  EXPECT_EQ(-4, results) << "16 are kept, 4 turned away";
  for (size_t i = 0; i < all.size(); i += 2) {
    close(all[i]);
    EXPECT_EQ(-1, handle_all(all[i + 1]));
    close(all[i + 1]);
  }
}

}  // namespace
