// SPDX-License-Identifier: Apache-2.0
//
// What the tests of the Linux library stand on: a folder of their own in the place of /, and
// modules that answer as a test says.
#ifndef TESTS_UNIT_LINUX_SUPPORT_H
#define TESTS_UNIT_LINUX_SUPPORT_H

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <thread>

// A fresh folder that MORVA_ROOT points to, with the folders that the platform expects to find.
class RootTest : public testing::Test {
 protected:
  RootTest();
  ~RootTest() override;

  // The place of an absolute path inside the folder.
  std::string at(const std::string& path) const { return root_ + path; }

 private:
  std::string root_;
};

// A module of the switch: serves its socket on a thread of its own until it goes away.
class FakeModule {
 public:
  // What happens on a connection: it is closed when this returns.
  using Handler = std::function<void(int fd)>;

  FakeModule(const std::string& name, Handler handler);
  // The same for a module that reads the request and gives this answer.
  FakeModule(const std::string& name, const std::string& reply);
  ~FakeModule();

  // The last request that was read whole. Only after the query returned.
  std::string request() const { return request_; }
  std::string read_request(int fd);

 private:
  void serve();

  Handler handler_;
  std::string path_;
  std::string request_;
  int listener_ = -1;
  int stop_[2] = {-1, -1};
  std::thread thread_;
};

void write_file(const std::string& path, const std::string& text);
std::string read_file(const std::string& path);  // "" when it is not there
bool file_exists(const std::string& path);
void send_text(int fd, const std::string& text);

// Runs `body` in a child process; its result is the exit status. For what changes a whole process.
int run_in_child(const std::function<int()>& body);

// Lines logged while it lives go into a text instead of standard error.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  // What was logged so far; ends the capture.
  std::string text();

 private:
  bool active_ = true;
};

#endif  // TESTS_UNIT_LINUX_SUPPORT_H
