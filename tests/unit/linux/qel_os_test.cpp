// SPDX-License-Identifier: Apache-2.0
//
// The agent's door to the operating system, on the real one: which sockets it keeps for the next
// look-up of an interface, and which it closes.
#include "qel/qel_os.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <functional>

namespace {

bool is_open(int fd) {
  return fcntl(fd, F_GETFD) >= 0;
}

// Tells one socket from another that has its number.
ino_t inode_of(int fd) {
  struct stat status = {};
  EXPECT_EQ(fstat(fd, &status), 0);
  return status.st_ino;
}

int type_of(int fd) {
  int type = 0;
  socklen_t length = sizeof type;
  EXPECT_EQ(getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &length), 0);
  return type;
}

int open_query(int type) {
  return qel_os_socket(AF_INET, type, 0);
}

sockaddr_in loopback(uint16_t port) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

// Takes all descriptors for as long as it lives.
class NoDescriptors {
 public:
  NoDescriptors() {
    getrlimit(RLIMIT_NOFILE, &limit_);
    struct rlimit lower = limit_;
    lower.rlim_cur = 0;
    setrlimit(RLIMIT_NOFILE, &lower);
  }
  ~NoDescriptors() { setrlimit(RLIMIT_NOFILE, &limit_); }
  NoDescriptors(const NoDescriptors&) = delete;
  NoDescriptors& operator=(const NoDescriptors&) = delete;

 private:
  struct rlimit limit_ = {};
};

// No socket is kept when a test begins or has ended.
class QelOsSocketTest : public testing::Test {
 protected:
  QelOsSocketTest() { forget_kept(); }
  ~QelOsSocketTest() override { forget_kept(); }

  static void forget_kept() {
    for (const int type : {SOCK_STREAM, SOCK_DGRAM}) {
      const int fd = open_query(type);
      qel_os_setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, 1);
      qel_os_close(fd);
      ASSERT_FALSE(is_open(fd));
    }
  }
};

class QueryType : public QelOsSocketTest, public testing::WithParamInterface<int> {};

TEST_P(QueryType, SocketOnlyAskedThroughIsKeptAndHandedOutAgain) {
  const int first = open_query(GetParam());
  ASSERT_GT(first, 2);
  struct ifreq request = {};
  std::strcpy(request.ifr_name, "lo");
  ASSERT_EQ(qel_os_ifreq(first, SIOCGIFINDEX, &request), 0);
  const ino_t inode = inode_of(first);
  for (int round = 0; round < 3; ++round) {
    EXPECT_EQ(qel_os_close(first), 0);
    EXPECT_TRUE(is_open(first));
    ASSERT_EQ(open_query(GetParam()), first);
    EXPECT_EQ(inode_of(first), inode);
    EXPECT_EQ(type_of(first), GetParam());
    EXPECT_NE(fcntl(first, F_GETFD) & FD_CLOEXEC, 0);
  }
  qel_os_close(first);
}

TEST_P(QueryType, SocketUsedOtherwiseIsClosed) {
  const sockaddr_in to = loopback(9);
  const auto* address = reinterpret_cast<const struct sockaddr*>(&to);
  sockaddr_in any = loopback(0);
  const std::function<void(int)> uses[] = {
      [](int fd) { qel_os_setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, 1); },
      [&any](int fd) {
        qel_os_bind(fd, reinterpret_cast<const struct sockaddr*>(&any), sizeof any);
      },
      [address, &to](int fd) { qel_os_sendto(fd, "", 0, MSG_NOSIGNAL, address, sizeof to); },
      [](int fd) {
        char byte = 0;
        qel_os_recvfrom(fd, &byte, sizeof byte, nullptr, nullptr);
      },
      [](int fd) {
        const auto before = std::signal(SIGPIPE, SIG_IGN);
        qel_os_write(fd, "", 0);
        std::signal(SIGPIPE, before);
      },
  };
  for (const auto& use : uses) {
    const int fd = open_query(GetParam());
    use(fd);
    EXPECT_EQ(qel_os_close(fd), 0);
    EXPECT_FALSE(is_open(fd)) << "use " << &use - uses;
  }
}

TEST_P(QueryType, SocketUsedOtherwiseAfterItWasKeptIsClosed) {
  const int fd = open_query(GetParam());
  qel_os_close(fd);
  ASSERT_EQ(open_query(GetParam()), fd);
  qel_os_setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, 1);
  EXPECT_EQ(qel_os_close(fd), 0);
  EXPECT_FALSE(is_open(fd));
}

TEST_P(QueryType, SecondCloseFailsAndLeavesTheKeptSocketOpen) {
  const int fd = open_query(GetParam());
  EXPECT_EQ(qel_os_close(fd), 0);
  errno = 0;
  EXPECT_EQ(qel_os_close(fd), -1);
  EXPECT_EQ(errno, EBADF);
  EXPECT_TRUE(is_open(fd));
  EXPECT_EQ(open_query(GetParam()), fd);
  qel_os_close(fd);
}

TEST_P(QueryType, OfTwoOpenAtOnceOneIsKept) {
  for (const bool first_closes_first : {true, false}) {
    const int first = open_query(GetParam());
    const int second = open_query(GetParam());
    ASSERT_NE(first, second);
    EXPECT_EQ(qel_os_close(first_closes_first ? first : second), 0);
    EXPECT_EQ(qel_os_close(first_closes_first ? second : first), 0);
    EXPECT_NE(is_open(first), is_open(second));
    forget_kept();
    EXPECT_FALSE(is_open(first) || is_open(second));
  }
}

// The numbers of the standard streams: whoever detaches replaces them.
TEST_P(QueryType, LowDescriptorIsNotKept) {
  for (int low = 0; low <= 2; ++low) {
    const int saved = fcntl(low, F_DUPFD_CLOEXEC, 100);
    ASSERT_GE(saved, 0);
    close(low);
    const int got = open_query(GetParam());
    const int result = qel_os_close(got);
    const bool open = is_open(low);
    dup2(saved, low);
    close(saved);
    EXPECT_EQ(got, low);
    EXPECT_EQ(result, 0);
    EXPECT_FALSE(open) << low;
  }
}

TEST_P(QueryType, WithoutDescriptorsTheOpeningFailsAndNothingIsKept) {
  {
    const NoDescriptors none;
    errno = 0;
    EXPECT_EQ(open_query(GetParam()), -1);
    EXPECT_EQ(errno, EMFILE);
    EXPECT_EQ(qel_os_close(-1), -1);
  }
  const int fd = open_query(GetParam());
  EXPECT_GT(fd, 2);
  qel_os_close(fd);
}

TEST_P(QueryType, KeptSocketIsThereWhenDescriptorsAreNot) {
  const int fd = open_query(GetParam());
  qel_os_close(fd);
  const NoDescriptors none;
  EXPECT_EQ(open_query(GetParam()), fd);
  EXPECT_EQ(open_query(GetParam()), -1) << "there is one";
  EXPECT_TRUE(is_open(fd));
  EXPECT_EQ(qel_os_close(fd), 0);
}

INSTANTIATE_TEST_SUITE_P(Types, QueryType, testing::Values(SOCK_STREAM, SOCK_DGRAM),
                         [](const auto& case_info) {
                           return case_info.param == SOCK_STREAM ? "Stream" : "Datagram";
                         });

TEST_F(QelOsSocketTest, TypesAreKeptApart) {
  const int stream = open_query(SOCK_STREAM);
  const int datagram = open_query(SOCK_DGRAM);
  qel_os_close(datagram);
  qel_os_close(stream);
  EXPECT_TRUE(is_open(stream));
  EXPECT_TRUE(is_open(datagram));
  EXPECT_EQ(open_query(SOCK_DGRAM), datagram);
  EXPECT_EQ(open_query(SOCK_STREAM), stream);
  EXPECT_EQ(type_of(datagram), SOCK_DGRAM);
  EXPECT_EQ(type_of(stream), SOCK_STREAM);
  qel_os_close(stream);
  EXPECT_EQ(open_query(SOCK_STREAM), stream);
  EXPECT_TRUE(is_open(datagram)) << "still lent";
  qel_os_close(datagram);
  qel_os_close(stream);
}

TEST_F(QelOsSocketTest, SocketOfAnotherFamilyOrProtocolIsClosed) {
  const int kinds[][3] = {{AF_UNIX, SOCK_DGRAM, 0},
                          {AF_UNIX, SOCK_STREAM, 0},
                          {AF_INET6, SOCK_DGRAM, 0},
                          {AF_INET, SOCK_DGRAM, IPPROTO_UDP},
                          {AF_INET, SOCK_STREAM, IPPROTO_TCP}};
  for (const auto& kind : kinds) {
    const int fd = qel_os_socket(kind[0], kind[1], kind[2]);
    if (fd < 0) {
      continue;  // a machine without that family
    }
    EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_EQ(qel_os_close(fd), 0);
    EXPECT_FALSE(is_open(fd)) << kind[0] << " " << kind[1] << " " << kind[2];
  }
}

}  // namespace
