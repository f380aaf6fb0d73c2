// SPDX-License-Identifier: Apache-2.0
//
// Hardware, identity, restart and firmware calls: the exact questions, and answers that are no
// good.
#include "platform/sys.h"

#include <event2/event.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "platform/firmware.h"
#include "platform/hal.h"
#include "platform/linux/loop_internal.h"
#include "platform/loop.h"
#include "tests/unit/linux/support.h"

namespace {

class SysTest : public RootTest {};

TEST_F(SysTest, MacIsAskedForOnce) {
  EXPECT_EQ(0, run_in_child([] {
              const uint8_t wanted[6] = {0x0a, 0x1b, 0x2c, 0x3d, 0x4e, 0x5f};
              const uint8_t zeros[6] = {};
              uint8_t mac[6] = {9, 9, 9, 9, 9, 9};
              EXPECT_EQ(-1, morva_init());
              EXPECT_EQ(-1, sys_mac_get(mac));
              EXPECT_EQ(0, memcmp(zeros, mac, 6));
              for (const char* bad : {R"({"ret":0,"data":{"mac":"nonsense"}})", R"({"ret":0})",
                                      R"({"ret":-1,"data":{"mac":"0a:1b:2c:3d:4e:5f"}})"}) {
                FakeModule sys("sys", bad);
                EXPECT_EQ(-1, sys_mac_get(mac)) << bad;
              }
              {
                FakeModule sys("sys", R"({"ret":0,"data":{"mac":"0a:1b:2c:3d:4e:5f"}})");
                EXPECT_EQ(0, sys_mac_get(mac));
                EXPECT_EQ(R"({"mdl":"sys","cmd":"mac_get"})", sys.request());
              }
              memset(mac, 0, sizeof mac);
              EXPECT_EQ(0, sys_mac_get(mac));  // nobody is there to be asked
              EXPECT_EQ(0, memcmp(wanted, mac, 6));
              EXPECT_EQ(0, morva_init());
              return testing::Test::HasFailure() ? 1 : 0;
            }));
}

TEST_F(SysTest, OemRecord) {
  FakeModule sys("sys", R"({"ret":0,"data":{"words":[0,1,2,0,4,5,6,4294967295]}})");
  oem_info info = {};
  EXPECT_EQ(0, oem_info_get(&info));
  EXPECT_EQ(R"({"mdl":"sys","cmd":"oem_get"})", sys.request());
  EXPECT_EQ(1U, info.word[1]);
  EXPECT_EQ(0U, info.word[3]);
  EXPECT_EQ(4294967295U, info.word[7]);
}

TEST_F(SysTest, OemRecordsThatAreNone) {
  for (const char* bad : {R"({"ret":0,"data":{"words":[1,2,3,4,5,6,7]}})",
                          R"({"ret":0,"data":{"words":[1,2,3,4,5,6,7,8,9]}})",
                          R"({"ret":0,"data":{"words":[1,2,3,4,5,6,7,-1]}})",
                          R"({"ret":0,"data":{"words":[1,2,3,4,5,6,7,"8"]}})",
                          R"({"ret":0,"data":{"words":{"a":1}}})", R"({"ret":0})", "rubbish"}) {
    FakeModule sys("sys", bad);
    oem_info info;
    memset(&info, 0xff, sizeof info);
    EXPECT_EQ(-1, oem_info_get(&info)) << bad;
    for (const uint32_t word : info.word) {
      EXPECT_EQ(0U, word);
    }
  }
}

TEST_F(SysTest, SystemName) {
  sys_info info = {};
  {
    FakeModule sys("sys", R"({"ret":0,"data":{"name":"office \"sw\""}})");
    EXPECT_EQ(0, sys_info_get(&info));
    EXPECT_STREQ("office \"sw\"", info.name);
    EXPECT_EQ(0, sys_info_set(&info));
    EXPECT_EQ(R"({"mdl":"sys","cmd":"info_set","data":{"name":"office \"sw\""}})", sys.request());
    memset(info.name, 'x', sizeof info.name);
    EXPECT_EQ(-1, sys_info_set(&info)) << "not terminated";
  }
  FakeModule sys("sys", R"({"ret":0,"data":{"name":")" + std::string(64, 'n') + "\"}}");
  EXPECT_EQ(-1, sys_info_get(&info));
  EXPECT_STREQ("", info.name);
}

TEST_F(SysTest, RestartAndDefaults) {
  FakeModule sys("sys", R"({"ret":0})");
  EXPECT_EQ(0, sys_reboot());
  EXPECT_EQ(R"({"mdl":"sys","cmd":"reboot"})", sys.request());
  EXPECT_EQ(0, sys_restore_default());
  EXPECT_EQ(R"({"mdl":"sys","cmd":"restore_default"})", sys.request());
}

TEST_F(SysTest, RefusalIsAFailure) {
  FakeModule sys("sys", R"({"ret":-1,"error":"not now"})");
  EXPECT_EQ(-1, sys_reboot());
  EXPECT_EQ(-1, sys_restore_default());
  EXPECT_EQ(-1, sys_upgrade_firmware("/tmp/linux.trx"));
  EXPECT_EQ(0, sys_is_upgrading());
}

TEST_F(SysTest, Firmware) {
  FakeModule sys("sys", R"({"ret":0,"data":{"upgrading":1,"state":-5,"detail":70}})");
  EXPECT_EQ(1, sys_is_upgrading());
  EXPECT_EQ(R"({"mdl":"sys","cmd":"fw_upgrading"})", sys.request());
  EXPECT_EQ(0, sys_transmit_fw_begin());
  EXPECT_EQ(R"({"mdl":"sys","cmd":"fw_begin"})", sys.request());
  EXPECT_EQ(0, sys_transmit_fw_fail(-2));
  EXPECT_EQ(R"({"mdl":"sys","cmd":"fw_fail","data":{"code":-2}})", sys.request());
  EXPECT_EQ(0, sys_upgrade_firmware("/tmp/linux.trx"));
  EXPECT_EQ(R"({"mdl":"sys","cmd":"fw_upgrade","data":{"path":"/tmp/linux.trx"}})", sys.request());
  EXPECT_EQ(0, sys_upgrade_state_set(2, 0));
  EXPECT_EQ(R"({"mdl":"sys","cmd":"fw_state_set","data":{"state":2,"detail":0}})", sys.request());
  int state = 1;
  int detail = 1;
  EXPECT_EQ(0, sys_upgrade_state_get(&state, &detail));
  EXPECT_EQ(-5, state);
  EXPECT_EQ(70, detail);
  EXPECT_EQ(0, sys_upgrade_state_get(nullptr, nullptr));
}

TEST_F(SysTest, FirmwareStateOfNobody) {
  int state = 1;
  int detail = 1;
  EXPECT_EQ(-1, sys_upgrade_state_get(&state, &detail));
  EXPECT_EQ(0, state);
  EXPECT_EQ(0, detail);
}

TEST_F(SysTest, FailuresAreLoggedWhenTheyBeginAndEnd) {
  LogCapture log;
  {
    FakeModule sys("sys", R"({"ret":0})");
    sys_reboot();  // so that the row begins here, whatever ran before
  }
  sys_reboot();
  sys_reboot();
  sys_restore_default();
  {
    FakeModule sys("sys", R"({"ret":0})");
    sys_reboot();
    sys_reboot();
  }
  const std::string text = log.text();
  const std::string failed = "error: module sys: no good answer to reboot\n";
  const std::string again = "notice: module sys: answers again\n";
  const size_t at = text.find(failed);
  ASSERT_NE(std::string::npos, at) << text;
  EXPECT_EQ(std::string::npos, text.find("error: ", at + failed.size())) << text;
  EXPECT_NE(std::string::npos, text.find(again, at)) << text;
}

// --- hardware

constexpr char kOpen[] = R"({"mdl":"hal","cmd":"qel_enable","data":{"enable":1}})";
constexpr char kShut[] = R"({"mdl":"hal","cmd":"qel_enable","data":{"enable":0}})";

// What the test's own callback does in the loop; afterwards the loop is left.
std::function<void()> the_callback;

int call_and_leave(thread* thread) {
  the_callback();
  event_base_loopbreak(thread->master->base);
  return 0;
}

void run_loop(std::function<void()> callback) {
  static thread_master* const master = thread_master_create();
  the_callback = std::move(callback);
  funcname_thread_add_timer(master, call_and_leave, nullptr, 0, "test", "sys_test", 1);
  thread_main(master);
}

TEST_F(SysTest, HardwareSwitches) {
  FakeModule hal("hal", R"({"ret":0})");
  EXPECT_EQ(0, hal_init(23));
  EXPECT_EQ(R"({"mdl":"hal","cmd":"init","data":{"client":23}})", hal.request());
  run_loop([&] {
    EXPECT_EQ(0, hal_qel_enable(1));
    EXPECT_EQ(kOpen, hal.request());
    EXPECT_EQ(0, hal_qel_enable(0));
    EXPECT_EQ(kShut, hal.request());
  });
}

TEST_F(SysTest, HardwareThatIsNotThere) {
  EXPECT_EQ(0, hal_init(23));
  run_loop([] { EXPECT_EQ(-1, hal_qel_enable(1)); });
}

// A module "hal" that notes each request.
class GateModule {
 public:
  std::vector<std::string> told;

 private:
  FakeModule hal_{"hal", [this](int fd) {
                    told.push_back(hal_.read_request(fd));
                    send_text(fd, R"({"ret":0})");
                  }};
};

TEST_F(SysTest, OpeningAtStartWaitsForTheLoop) {
  GateModule hal;
  EXPECT_EQ(0, hal_qel_enable(1));
  EXPECT_TRUE(hal.told.empty());
  run_loop([&] { EXPECT_EQ(std::vector<std::string>{kOpen}, hal.told); });
}

TEST_F(SysTest, ClosingAtStartTakesEffectAtOnceAndStays) {
  GateModule hal;
  EXPECT_EQ(0, hal_qel_enable(1));
  EXPECT_EQ(0, hal_qel_enable(0));
  EXPECT_EQ(std::vector<std::string>{kShut}, hal.told);
  run_loop([&] { EXPECT_EQ(std::vector<std::string>{kShut}, hal.told); });
}

TEST_F(SysTest, OpeningAfterAClosingAtStartComesLast) {
  GateModule hal;
  EXPECT_EQ(0, hal_qel_enable(0));
  EXPECT_EQ(0, hal_qel_enable(1));
  run_loop([&] { EXPECT_EQ((std::vector<std::string>{kShut, kOpen}), hal.told); });
}

TEST_F(SysTest, SavedDisableNeverOpensTheGate) {
  GateModule hal;
  EXPECT_EQ(0, hal_qel_enable(1));
  loop_at_start(StartStep::kConfigure, [] { hal_qel_enable(0); });
  run_loop([&] { EXPECT_EQ(std::vector<std::string>{kShut}, hal.told); });
}

int get_macs(hal_mac_entry* entries, uint32_t start, uint32_t batch, uint32_t* count) {
  return hal_mac_get(entries, start, batch, 3, count, 0, 0, 0);
}

TEST_F(SysTest, LayerTwoTable) {
  FakeModule hal("hal", R"({"ret":0,"data":[
    {"port":16777217,"type":2,"aging_time":300,"vid":1,"mac":"aa:bb:cc:dd:ee:ff"},
    {"port":4294967295,"type":0,"aging_time":0,"vid":4095,"mac":"00:00:00:00:00:01"}]})");
  hal_mac_entry entries[20] = {};
  uint32_t count = 99;
  EXPECT_EQ(0, get_macs(entries, 40, 20, &count));
  EXPECT_EQ(R"({"mdl":"hal","cmd":"mac_get","data":{"start":40,"batch":20,"select":3}})",
            hal.request());
  ASSERT_EQ(2U, count);
  EXPECT_EQ(0x01000001U, entries[0].port);
  EXPECT_EQ(2U, entries[0].type);
  EXPECT_EQ(300U, entries[0].aging_time);
  EXPECT_EQ(1U, entries[0].vid);
  EXPECT_EQ(0, memcmp("\xaa\xbb\xcc\xdd\xee\xff", entries[0].mac, 6));
  EXPECT_EQ(4294967295U, entries[1].port);
  EXPECT_EQ(4095U, entries[1].vid);
}

constexpr char kGoodRow[] = R"({"port":1,"type":2,"aging_time":1,"vid":1,"mac":"aabbccddeeff"})";

void expect_no_macs(const std::string& answer) {
  FakeModule hal("hal", answer);
  hal_mac_entry entries[2] = {};  // two: a third would be written behind the end
  uint32_t count = 99;
  EXPECT_EQ(-1, get_macs(entries, 0, 2, &count)) << answer;
  EXPECT_EQ(0U, count);
}

TEST_F(SysTest, LayerTwoTablesThatAreNone) {
  expect_no_macs("rubbish");
  expect_no_macs(R"({"ret":0})");
  expect_no_macs(R"({"ret":-1,"data":[]})");
  const std::string row = kGoodRow;
  expect_no_macs(R"({"ret":0,"data":[)" + row + "," + row + "," + row + "]}");
  for (const char* bad :
       {"7", R"({"port":-1,"type":2,"aging_time":1,"vid":1,"mac":"aabbccddeeff"})",
        R"({"port":1,"type":2,"aging_time":1,"vid":4096,"mac":"aabbccddeeff"})",
        R"({"port":1,"type":2,"aging_time":1,"vid":1,"mac":"aa"})",
        R"({"port":1,"type":2,"aging_time":1,"vid":1})"}) {
    expect_no_macs(R"({"ret":0,"data":[)" + std::string(bad) + "]}");
  }
}

TEST_F(SysTest, BigBatchesAreAskedForInPieces) {
  std::string rows;
  for (int i = 0; i < 256; ++i) {
    rows += std::string(i > 0 ? "," : "") +
            R"({"port":16777217,"type":2,"aging_time":300,"vid":1,"mac":"aa:bb:cc:dd:ee:ff"})";
  }
  std::vector<std::string> requests;
  {
    FakeModule* self = nullptr;
    FakeModule hal("hal", [&](int fd) {
      requests.push_back(self->read_request(fd));
      send_text(fd, R"({"ret":0,"data":[)" + (requests.size() == 1 ? rows : "") + "]}");
    });
    self = &hal;
    std::vector<hal_mac_entry> entries(300);
    uint32_t count = 0;
    EXPECT_EQ(0, get_macs(entries.data(), 0, 300, &count));
    EXPECT_EQ(256U, count);
  }
  EXPECT_EQ((std::vector<std::string>{
                R"({"mdl":"hal","cmd":"mac_get","data":{"start":0,"batch":256,"select":3}})",
                R"({"mdl":"hal","cmd":"mac_get","data":{"start":256,"batch":44,"select":3}})"}),
            requests);
}

}  // namespace
