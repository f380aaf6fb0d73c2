// SPDX-License-Identifier: Apache-2.0
//
// Module queries: whatever a module does, the caller has its answer or nothing, in time.
#include "platform/jclient.h"

#include <poll.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <memory>

#include "platform/linux/morva_call.h"
#include "tests/unit/linux/support.h"

namespace {

constexpr char kRequest[] = R"({"mdl":"mono","cmd":"qel_port_enable_set","data":{"port":"ge3"}})";

class JclientTest : public RootTest {
 protected:
  JclientTest() : reply_(new char[JCLIENT_REPLY_SIZE]) {
    memset(reply_.get(), '~', JCLIENT_REPLY_SIZE);
  }

  int query(const char* request = kRequest) { return jclient_query(request, reply_.get()); }

  void expect_untouched() const {
    for (size_t i = 0; i < JCLIENT_REPLY_SIZE; ++i) {
      ASSERT_EQ('~', reply_[i]) << "at " << i;
    }
  }

  std::unique_ptr<char[]> reply_;  // of the exact size, so that a byte more is noticed
};

TEST_F(JclientTest, RequestGoesOutAsItIsAndTheReplyComesBack) {
  FakeModule module("mono", R"({"ret":0,"data":[1,2]})");
  EXPECT_EQ(0, query());
  EXPECT_STREQ(R"({"ret":0,"data":[1,2]})", reply_.get());
  EXPECT_EQ(R"({"mdl":"mono","cmd":"qel_port_enable_set","data":{"port":"ge3"}})",
            module.request());
}

TEST_F(JclientTest, ModuleIsTheMemberMdlWhereverItStands) {
  FakeModule module("poe", "{}");
  EXPECT_EQ(0, query(R"( { "cmd" : "x", "data":{"mdl":"mono"}, "mdl" : "poe" } )"));
  EXPECT_STREQ("{}", reply_.get());
}

TEST_F(JclientTest, PayloadThatIsNoJsonIsTheModulesAffair) {
  FakeModule module("mono", R"({"ret":-1,"error":"no JSON"})");
  EXPECT_EQ(0, query(R"({"mdl":"mono","cmd":"x","data":rubbish)"));
  EXPECT_EQ(R"({"mdl":"mono","cmd":"x","data":rubbish)", module.request());
}

TEST_F(JclientTest, ModulesOfTheLibraryAreNotReached) {
  for (const char* module : {"sys", "hal", "ifmgr", "morvad"}) {
    const FakeModule served(module, "{}");
    EXPECT_EQ(-1, query((std::string(R"({"mdl":")") + module + R"(","cmd":"c"})").c_str()));
    expect_untouched();
    EXPECT_EQ("", served.request());
  }
}

TEST_F(JclientTest, NamesThatAreNoModules) {
  for (const char* request :
       {R"({"mdl":"","cmd":"x"})", R"({"mdl":"../../tmp/x","cmd":"x"})", R"({"mdl":"Mono"})",
        R"({"mdl":"mo no"})", R"({"mdl":"mono\u0000"})", R"({"mdl":7})", R"({"cmd":"x"})", "", "[]",
        "mono", R"({"mdl":"abcdefghijklmnopqrstuvwxyz0123456"})", R"({"mdl":"mono)",
        R"({"mdl":".."})", R"({"mdl":"/tmp/x"})", R"({"mdl":"x/../y"})",
        R"({"cmd":"x","mdl":"../../tmp/x"})",
        R"({"cmd":"x","mdl":"abcdefghijklmnopqrstuvwxyz0123456"})"}) {
    EXPECT_EQ(-1, query(request)) << request;
  }
  expect_untouched();
}

TEST_F(JclientTest, LongestModuleName) {
  FakeModule module("abcdefghijklmnopqrstuvwxyz012345", "{}");
  EXPECT_EQ(0, query(R"({"mdl":"abcdefghijklmnopqrstuvwxyz012345"})"));
}

TEST_F(JclientTest, AbsentModule) {
  EXPECT_EQ(-1, query());
  expect_untouched();
}

TEST_F(JclientTest, SocketThatNobodyServes) {
  write_file(at("/var/run/morva/mono.sock"), "");
  EXPECT_EQ(-1, query());
  expect_untouched();
}

TEST_F(JclientTest, ClosesAtOnce) {
  FakeModule module("mono", [](int) {});
  EXPECT_EQ(-1, query());
  expect_untouched();
}

TEST_F(JclientTest, ClosesAtOnceUnderABigRequest) {
  FakeModule module("mono", [](int) {});
  const std::string request = R"({"mdl":"mono","cmd":")" + std::string(1000000, 'x') + "\"}";
  EXPECT_EQ(-1, query(request.c_str()));  // and no SIGPIPE
  expect_untouched();
}

TEST_F(JclientTest, ReadsAndSaysNothing) {
  FakeModule module("mono", "");
  EXPECT_EQ(-1, query());
  expect_untouched();
}

TEST_F(JclientTest, AnswersWithoutReading) {
  FakeModule module("mono", [](int fd) { send_text(fd, R"({"ret":0})"); });
  // The module's end breaks off with the request unread: its answer cannot be to the request.
  EXPECT_EQ(-1, query());
  expect_untouched();
}

TEST_F(JclientTest, HalfAReply) {
  for (const char* half :
       {R"({"ret":0,"data":[{"name":"ge1")", R"({"ret":0,"na)", "[", "\"text", R"({"a":"}\"})"}) {
    FakeModule module("mono", half);
    EXPECT_EQ(-1, query()) << half;
    expect_untouched();
  }
}

TEST_F(JclientTest, WholeRepliesWithBracketsInTexts) {
  for (const char* whole : {R"({"a":"{[\""})", R"({"a":"\\"})", "[]", "7"}) {
    FakeModule module("mono", whole);
    EXPECT_EQ(0, query()) << whole;
    EXPECT_STREQ(whole, reply_.get());
  }
}

TEST_F(JclientTest, NotJsonIsHandedOn) {
  FakeModule module("mono", "no such command\n");
  EXPECT_EQ(0, query());
  EXPECT_STREQ("no such command\n", reply_.get());
}

TEST_F(JclientTest, NulInsideIsNoText) {
  FakeModule module("mono", std::string("{}\0{}", 5));
  EXPECT_EQ(-1, query());
  expect_untouched();
}

TEST_F(JclientTest, LongestReply) {
  const std::string text = "\"" + std::string(65532, 'x') + "\"";
  ASSERT_EQ(65534U, text.size());
  FakeModule module("mono", text);
  EXPECT_EQ(0, query());
  EXPECT_EQ(text, reply_.get());
}

// A socket holds some hundred such pieces, then the module waits for its client.
TEST_F(JclientTest, LongReplyInPiecesOfAByte) {
  const std::string text = '"' + std::string(20000, 'x') + '"';
  FakeModule module("mono", [&](int fd) {
    EXPECT_EQ(kRequest, module.read_request(fd));
    for (const char& byte : text) {
      ASSERT_EQ(1, send(fd, &byte, 1, MSG_NOSIGNAL));
    }
  });
  ASSERT_EQ(0, query());
  EXPECT_EQ(text, reply_.get());
}

TEST_F(JclientTest, OneByteTooLong) {
  FakeModule module("mono", "\"" + std::string(65533, 'x') + "\"");
  EXPECT_EQ(-1, query());
  expect_untouched();
}

TEST_F(JclientTest, TenMegabytes) {
  std::string text = "\"";
  text.resize(10485760, 'x');
  FakeModule module("mono", text + "\"");
  EXPECT_EQ(-1, query());
  expect_untouched();
}

// --- the deadline

// A query that does not keep its deadline waits for as long as the module of the test does, which
// is longer than this many milliseconds; a busy machine may take that long.
constexpr int64_t kPatienceMs = 30000;

// Milliseconds that the query took.
int64_t timed(const std::function<void()>& body) {
  const int64_t start = morva_now_ns();
  body();
  return (morva_now_ns() - start) / 1000000;
}

// Holds the connection until the other end gives up.
void wait_for_hangup(int fd) {
  pollfd entry = {fd, 0, 0};
  poll(&entry, 1, 4 * kPatienceMs);
}

TEST_F(JclientTest, NeverAnswers) {
  setenv("MORVA_QUERY_DEADLINE_MS", "100", 1);
  FakeModule module("mono", wait_for_hangup);
  const int64_t took = timed([this] { EXPECT_EQ(-1, query()); });
  EXPECT_GE(took, 99);
  EXPECT_LT(took, kPatienceMs);
  expect_untouched();
}

TEST_F(JclientTest, StutteringDoesNotExtendTheDeadline) {
  setenv("MORVA_QUERY_DEADLINE_MS", "100", 1);
  FakeModule module("mono", [](int fd) {
    pollfd entry = {fd, 0, 0};
    for (int i = 0; i < kPatienceMs && poll(&entry, 1, 2) == 0; ++i) {
      send_text(fd, " ");
    }
  });
  const int64_t took = timed([this] { EXPECT_EQ(-1, query()); });
  EXPECT_GE(took, 99);
  EXPECT_LT(took, kPatienceMs);
  expect_untouched();
}

TEST_F(JclientTest, DoesNotReadABigRequest) {
  setenv("MORVA_QUERY_DEADLINE_MS", "100", 1);
  FakeModule module("mono", wait_for_hangup);
  const std::string request = R"({"mdl":"mono","cmd":")" + std::string(4000000, 'x') + "\"}";
  EXPECT_LT(timed([&] { EXPECT_EQ(-1, query(request.c_str())); }), kPatienceMs);
}

TEST_F(JclientTest, DoesNotEvenAccept) {
  setenv("MORVA_QUERY_DEADLINE_MS", "100", 1);
  const std::string path = at("/var/run/morva/mono.sock");
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  memcpy(address.sun_path, path.c_str(), path.size());
  const int listener = socket(AF_UNIX, SOCK_STREAM, 0);
  ASSERT_EQ(0, bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address));
  ASSERT_EQ(0, listen(listener, 0));
  EXPECT_EQ(-1, query());  // stays in the backlog, which is full with it
  const int64_t took = timed([this] { EXPECT_EQ(-1, query()); });
  EXPECT_GE(took, 99);
  EXPECT_LT(took, kPatienceMs);
  setenv("MORVA_QUERY_DEADLINE_MS", "20000", 1);
  EXPECT_LT(timed([] { EXPECT_EQ(-1, jclient_query(kRequest, nullptr)); }), 10000);
  expect_untouched();
  close(listener);
}

TEST_F(JclientTest, DeadlineSettingsThatAreNone) {
  for (const char* text : {"0", "-5", "abc", "100x", "99999999999999", ""}) {
    setenv("MORVA_QUERY_DEADLINE_MS", text, 1);
    EXPECT_EQ(2000, morva_deadline_ms()) << text;
  }
  setenv("MORVA_QUERY_DEADLINE_MS", "600000", 1);
  EXPECT_EQ(600000, morva_deadline_ms());
}

// --- without an answer

TEST_F(JclientTest, NullReplyDoesNotWait) {
  int gate[2];
  ASSERT_EQ(0, pipe(gate));
  std::string seen;
  {
    FakeModule module("mono", [&](int fd) {
      char byte = 0;
      EXPECT_EQ(1, read(gate[0], &byte, 1));  // busy with something else first
      char text[256];
      const ssize_t got = recv(fd, text, sizeof text, 0);
      seen.assign(text, got > 0 ? static_cast<size_t>(got) : 0);
    });
    EXPECT_EQ(0, jclient_query(kRequest, nullptr));
    ASSERT_EQ(1, write(gate[1], "x", 1));
  }
  EXPECT_EQ(kRequest, seen);
  close(gate[0]);
  close(gate[1]);
}

TEST_F(JclientTest, NullReplyToNobody) {
  EXPECT_EQ(-1, jclient_query(kRequest, nullptr));
}

// --- the log of queries

// The line without its time, which differs; "" when there is no such end.
std::string without_time(const std::string& line) {
  const size_t at = line.rfind(",\"us\":");
  const bool number = at != std::string::npos && line.size() > at + 6 &&
                      line.substr(at + 6).find_first_not_of("0123456789") == line.size() - at - 8 &&
                      line.substr(line.size() - 2) == "}\n";
  return number ? line.substr(0, at) : "";
}

TEST_F(JclientTest, QueryLog) {
  const std::string path = at("/queries.jsonl");
  setenv("MORVA_QUERY_LOG", path.c_str(), 1);
  {
    FakeModule module("mono", R"({"ret":0})");
    EXPECT_EQ(0, query("{\"mdl\":\"mono\",\"cmd\":\"a\\\\b\n\x01\x7f\xc3\xa4\xff\"}"));
  }
  EXPECT_EQ(R"({"module":"mono","request":"{\"mdl\":\"mono\",\"cmd\":\"a\\\\b\u000a\u0001\u007f)"
            "\xc3\xa4"
            R"(\u00ff\"}","reply_bytes":9)",
            without_time(read_file(path)));
  unlink(path.c_str());
  EXPECT_EQ(-1, query("{\"mdl\":\"No\"}"));
  EXPECT_EQ(R"({"module":"","request":"{\"mdl\":\"No\"}","reply_bytes":0)",
            without_time(read_file(path)));
}

TEST_F(JclientTest, QueryLogThatCannotBeWrittenChangesNothing) {
  setenv("MORVA_QUERY_LOG", "/nowhere/queries.jsonl", 1);
  FakeModule module("mono", R"({"ret":0})");
  EXPECT_EQ(0, query());
  EXPECT_STREQ(R"({"ret":0})", reply_.get());
}

}  // namespace
