// SPDX-License-Identifier: Apache-2.0
//
// See support.h.
#include "tests/unit/linux/support.h"

#include <poll.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "platform/log.h"

RootTest::RootTest() {
  char name[] = "/tmp/morva-test-XXXXXX";
  EXPECT_NE(nullptr, mkdtemp(name));
  root_ = name;
  std::filesystem::create_directories(at("/var/run/morva"));
  std::filesystem::create_directories(at("/var/conf"));
  setenv("MORVA_ROOT", root_.c_str(), 1);
}

RootTest::~RootTest() {
  unsetenv("MORVA_ROOT");
  unsetenv("MORVA_QUERY_DEADLINE_MS");
  unsetenv("MORVA_QUERY_LOG");
  std::error_code ignored;
  std::filesystem::remove_all(root_, ignored);
}

static std::string socket_path(const std::string& module) {
  const char* root = getenv("MORVA_ROOT");
  return std::string(root != nullptr ? root : "") + "/var/run/morva/" + module + ".sock";
}

FakeModule::FakeModule(const std::string& name, Handler handler)
    : handler_(std::move(handler)), path_(socket_path(name)) {
  listener_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  EXPECT_LT(path_.size(), sizeof address.sun_path);
  memcpy(address.sun_path, path_.c_str(), path_.size());
  EXPECT_EQ(0, bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address));
  EXPECT_EQ(0, listen(listener_, 8));
  EXPECT_EQ(0, pipe(stop_));
  thread_ = std::thread([this] { serve(); });
}

FakeModule::FakeModule(const std::string& name, const std::string& reply)
    : FakeModule(name, [this, reply](int fd) {
        request_ = read_request(fd);
        send_text(fd, reply);
      }) {}

FakeModule::~FakeModule() {
  close(stop_[1]);
  thread_.join();
  close(stop_[0]);
  close(listener_);
  unlink(path_.c_str());
}

void FakeModule::serve() {
  for (;;) {
    pollfd entries[2] = {{listener_, POLLIN, 0}, {stop_[0], POLLIN, 0}};
    if (poll(entries, 2, -1) < 0 || entries[0].revents == 0) {
      return;  // told to stop, and nobody is waiting any more
    }
    const int fd = accept(listener_, nullptr, nullptr);
    if (fd >= 0) {
      handler_(fd);
      close(fd);
    }
  }
}

std::string FakeModule::read_request(int fd) {
  std::string text;
  char chunk[4096];
  for (ssize_t got = 0; (got = recv(fd, chunk, sizeof chunk, 0)) > 0;) {
    text.append(chunk, static_cast<size_t>(got));
  }
  return text;
}

void write_file(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

std::string read_file(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

bool file_exists(const std::string& path) {
  return std::filesystem::exists(path);
}

void send_text(int fd, const std::string& text) {
  size_t done = 0;
  while (done < text.size()) {
    const ssize_t sent = send(fd, text.data() + done, text.size() - done, MSG_NOSIGNAL);
    if (sent <= 0) {
      return;
    }
    done += static_cast<size_t>(sent);
  }
}

int run_in_child(const std::function<int()>& body) {
  const pid_t pid = fork();
  if (pid == 0) {
    _exit(body());
  }
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

LogCapture::LogCapture() {
  if (zlog_default == nullptr) {
    zlog_default = openzlog("test", 33, LOG_PID, LOG_DAEMON);
  }
  setenv("MORVA_LOG", "stderr", 1);
  testing::internal::CaptureStderr();
}

LogCapture::~LogCapture() {
  if (active_) {
    text();
  }
}

std::string LogCapture::text() {
  active_ = false;
  setenv("MORVA_LOG", "none", 1);  // the other tests' lines belong to nobody
  return testing::internal::GetCapturedStderr();
}
