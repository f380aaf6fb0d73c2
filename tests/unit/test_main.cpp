// SPDX-License-Identifier: Apache-2.0
//
// Runs the unit tests. With QEL_TEST_PCAP_DIR set, the frames that each test made the agent send
// are left there as <suite>.<test>.pcap, to be opened in a packet viewer.
#include <gmock/gmock.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "tests/fake/fake.h"

namespace {

class CaptureWriter : public testing::EmptyTestEventListener {
 public:
  explicit CaptureWriter(std::string folder) : folder_(std::move(folder)) {}

  void OnTestEnd(const testing::TestInfo& test) override {
    if (fake::sent().empty()) {
      return;
    }
    std::string name = std::string(test.test_suite_name()) + "." + test.name();
    std::replace(name.begin(), name.end(), '/', '_');
    const std::string path = folder_ + "/" + name + ".pcap";
    if (!fake::write_pcap(path)) {
      std::perror(path.c_str());
    }
  }

 private:
  std::string folder_;
};

}  // namespace

int main(int argc, char** argv) {
  testing::InitGoogleMock(&argc, argv);
  const char* const folder = std::getenv("QEL_TEST_PCAP_DIR");
  if (folder != nullptr) {
    testing::UnitTest::GetInstance()->listeners().Append(new CaptureWriter(folder));
  }
  return RUN_ALL_TESTS();
}
