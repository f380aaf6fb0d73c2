// SPDX-License-Identifier: Apache-2.0
//
// The interface cache: what the interface manager's rows become, and that no row can break it.
#include "platform/uif.h"

#include <cjson/cJSON.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/linux/uif_internal.h"
#include "tests/unit/linux/support.h"

namespace {

constexpr char kTable[] = R"({"ret":0,"port_max":2,"data":[
{"index":16777217,"name":"ge1","port_no":1,"speed_class":2,"medium":1,"max_speed":1000,"speed":1000,
 "duplex":1,"speed_conf":14,"pos_x":1,"pos_y":2,"aux_index":-1,"mirror":0,"limit":64,"link":1,"enable":1},
{"index":1,"name":"vlanif1"},
{"index":4278190081,"name":"te2","port_no":2,"speed_class":3,"medium":2,"max_speed":10000,"speed":0,
 "duplex":0,"speed_conf":0,"pos_x":9,"pos_y":1,"aux_index":0,"mirror":1,"limit":0,"link":0,"enable":0}
]})";

class UifTest : public RootTest {
 protected:
  UifTest() { setenv("MORVA_START_WAIT_MS", "0", 1); }
  ~UifTest() override {
    unsetenv("MORVA_START_WAIT_MS");
    uif_clear();
  }

  // Fills the cache from `table`, as at the start of a daemon.
  void fill(const std::string& table) {
    uif_clear();
    FakeModule manager("ifmgr", table);
    uif_init();
    uvlan_init();
  }
};

TEST_F(UifTest, RowsBecomeRecords) {
  fill(kTable);
  EXPECT_EQ(2, g_port_max);
  ASSERT_EQ(3U, g_uif_list->count);
  const uif* ge1 = static_cast<uif*>(g_uif_list->head->data);
  EXPECT_STREQ("ge1", ge1->name);
  EXPECT_EQ(0x01000001U, ge1->index);
  EXPECT_EQ(1, ge1->port_no);
  EXPECT_EQ(UIF_CLASS_GIGA, ge1->speed_class);
  EXPECT_EQ(UIF_MEDIUM_COPPER, ge1->medium);
  EXPECT_EQ(1000, ge1->max_speed);
  EXPECT_EQ(1000, ge1->speed);
  EXPECT_EQ(1, ge1->duplex);
  EXPECT_EQ(14, ge1->speed_conf);
  EXPECT_EQ(1, ge1->pos_x);
  EXPECT_EQ(2, ge1->pos_y);
  EXPECT_EQ(-1, ge1->aux_index);
  EXPECT_EQ(0, ge1->mirror);
  EXPECT_EQ(64, ge1->limit);
  EXPECT_EQ(nullptr, ge1->info);
  EXPECT_EQ(1, uif_is_enable(ge1));
  EXPECT_EQ(1, uif_is_linkup(ge1));
  const uif* te2 = uif_lookup_by_name("te2");
  ASSERT_NE(nullptr, te2);
  EXPECT_EQ(0, uif_is_enable(te2));
  EXPECT_EQ(0, uif_is_linkup(te2));
  EXPECT_EQ(1, te2->mirror);
}

TEST_F(UifTest, LookUps) {
  fill(kTable);
  uif* ge1 = uif_get_by_name("ge1");
  uif* te2 = uif_get_by_name("te2");
  uif* vlanif1 = uif_get_by_name("vlanif1");
  ASSERT_TRUE(ge1 != nullptr && te2 != nullptr && vlanif1 != nullptr);
  EXPECT_EQ(ge1, uif_lookup_by_index(0x01000001));
  EXPECT_EQ(te2, uif_lookup_by_index(0xff000001));
  EXPECT_EQ(vlanif1, uif_lookup_by_index(1));
  EXPECT_EQ(nullptr, uif_lookup_by_index(0));
  EXPECT_EQ(ge1, uif_lookup_by_port_index(0));
  EXPECT_EQ(te2, uif_lookup_by_port_index(1));
  for (const int index : {-2147483647 - 1, -1, 2, 254, 255, 256, 2147483647}) {
    EXPECT_EQ(nullptr, uif_lookup_by_port_index(index)) << index;
  }
  EXPECT_EQ(nullptr, uif_get_by_name("ge2"));
  EXPECT_EQ(nullptr, uif_get_by_name(""));
  EXPECT_EQ(nullptr, uif_get_by_name(nullptr));
  EXPECT_EQ(nullptr, uif_lookup_by_name(nullptr));
}

TEST_F(UifTest, ManyInterfacesAreAllFound) {
  std::string table = R"({"ret":0,"data":[)";
  for (int i = 1; i <= 52; ++i) {
    const std::string n = std::to_string(i);
    table.append(R"({"index":)").append(std::to_string(0x01000000 + i));
    table.append(R"(,"name":"ge)").append(n).append(R"(","port_no":)").append(n);
    table.append(R"(,"speed_class":2,"medium":1},)");
  }
  for (int i = 1; i <= 500; ++i) {
    const std::string n = std::to_string(i);
    table.append(R"({"index":)").append(n).append(R"(,"name":"vlanif)").append(n).append("\"},");
  }
  table.back() = ']';
  fill(table + "}");
  EXPECT_EQ(52, g_port_max);
  EXPECT_EQ(552U, g_uif_list->count);
  for (int i = 1; i <= 52; ++i) {
    const uif* port = uif_get_by_name(("ge" + std::to_string(i)).c_str());
    ASSERT_NE(nullptr, port);
    EXPECT_EQ(port, uif_lookup_by_port_index(i - 1));
  }
  for (uint32_t i = 1; i <= 500; ++i) {
    const uif* vlan = uif_get_by_name(("vlanif" + std::to_string(i)).c_str());
    ASSERT_NE(nullptr, vlan);
    EXPECT_EQ(vlan, uif_lookup_by_index(i));
  }
}

TEST_F(UifTest, BadRowsAreLeftOutAlone) {
  const std::string good =
      R"("index":16777219,"name":"ge3","port_no":3,"speed_class":1,"medium":1)";
  std::string rows;
  for (
      const char* bad :
      {R"({})",
       "7",
       "null",
       R"({"index":16777218,"port_no":2,"speed_class":2,"medium":1})",
       R"({"name":"a","port_no":2,"speed_class":2,"medium":1})",
       R"({"index":0,"name":"b"})",
       R"({"index":4294967296,"name":"c"})",
       R"({"index":-1,"name":"d"})",
       R"({"index":1.5,"name":"e"})",
       R"({"index":1e999,"name":"f"})",
       R"({"index":"1","name":"g"})",
       R"({"index":2,"name":""})",
       R"({"index":3,"name":"abcdefghijklmnopqrstuvwxyz012345"})",
       R"({"index":4,"name":"ge1;reboot"})",
       R"({"index":5,"name":"a\"b"})",
       R"({"index":6,"name":"h","port_no":1})",
       R"({"index":16777218,"name":"i","port_no":0,"speed_class":2,"medium":1})",
       R"({"index":16777218,"name":"j","port_no":256,"speed_class":2,"medium":1})",
       R"({"index":16777218,"name":"k","port_no":2,"speed_class":4,"medium":1})",
       R"({"index":16777218,"name":"l","port_no":2,"speed_class":2,"medium":3})",
       R"({"index":16777218,"name":"m","port_no":2,"speed_class":2})",
       R"({"index":16777218,"name":"n","port_no":2,"speed_class":2,"medium":1,"speed_conf":15})",
       R"({"index":16777218,"name":"o","port_no":2,"speed_class":2,"medium":1,"speed":-1})",
       R"({"index":16777218,"name":"p","port_no":2,"speed_class":2,"medium":1,"link":2})",
       R"({"index":16777218,"name":"q","port_no":2,"speed_class":2,"medium":1,"enable":"1"})",
       R"({"index":16777218,"name":"r","port_no":2,"speed_class":2,"medium":1,"limit":2147483648})"}) {
    rows += std::string(bad) + ",";
  }
  fill(R"({"ret":0,"data":[)" + rows + "{" + good + R"(},
{"index":16777219,"name":"same-index","port_no":4,"speed_class":1,"medium":1},
{"index":16777220,"name":"same-port","port_no":3,"speed_class":1,"medium":1}]})");
  EXPECT_EQ(1, g_port_max);
  ASSERT_EQ(1U, g_uif_list->count);
  EXPECT_STREQ("ge3", static_cast<uif*>(g_uif_list->head->data)->name);
}

TEST_F(UifTest, ManagersThatGiveNoTable) {
  for (const char* table : {"", "rubbish", "{}", R"({"ret":-1,"error":"busy"})", R"({"ret":0})",
                            R"({"ret":0,"data":{}})", R"({"ret":"0","data":[]})"}) {
    fill(table);
    ASSERT_NE(nullptr, g_uif_list);
    EXPECT_EQ(0U, g_uif_list->count);
    EXPECT_EQ(0, g_port_max);
    EXPECT_EQ(nullptr, uif_lookup_by_port_index(0));
  }
}

TEST_F(UifTest, NoManagerIsSaidInTheLog) {
  LogCapture log;
  uif_init();
  EXPECT_NE(std::string::npos, log.text().find("error: interface table: no answer"));
  EXPECT_NE(nullptr, g_uif_list);
  EXPECT_EQ(0, g_port_max);
}

TEST_F(UifTest, WaitsForAManagerThatStartsLater) {
  setenv("MORVA_START_WAIT_MS", "10000", 1);
  int ready[2];
  ASSERT_EQ(0, pipe(ready));
  const pid_t child = fork();
  if (child == 0) {
    [[maybe_unused]] const ssize_t sent = write(ready[1], "x", 1);
    uif_init();
    _exit(g_port_max);
  }
  char byte = 0;
  ASSERT_EQ(1, read(ready[0], &byte, 1));
  FakeModule manager("ifmgr", kTable);
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_EQ(2, WEXITSTATUS(status));
  close(ready[0]);
  close(ready[1]);
}

uif* apply(const char* text, uif* (*function)(const cJSON*)) {
  cJSON* tree = cJSON_Parse(text);
  uif* record = function(tree);
  cJSON_Delete(tree);
  return record;
}

TEST_F(UifTest, RowsOfKnownInterfacesKeepTheRecord) {
  fill(kTable);
  uif* vlan = uif_get_by_name("vlanif1");
  int mine = 0;
  vlan->info = &mine;
  EXPECT_EQ(vlan, apply(R"({"index":77,"name":"vlanif1"})", uif_apply_row));
  EXPECT_EQ(vlan, uif_lookup_by_index(77));
  EXPECT_EQ(nullptr, uif_lookup_by_index(1));
  EXPECT_EQ(&mine, vlan->info);
  EXPECT_EQ(3U, g_uif_list->count);
  // An interface does not become a port, nor a port an interface, nor take another's place.
  EXPECT_EQ(nullptr, apply(R"({"index":16777300,"name":"vlanif1","port_no":9,"speed_class":2,
                                 "medium":1})",
                           uif_apply_row));
  EXPECT_EQ(nullptr, apply(R"({"index":5,"name":"ge1","port_no":0})", uif_apply_row));
  EXPECT_EQ(nullptr, apply(R"({"index":4278190081,"name":"ge1"})", uif_apply_row));
  EXPECT_EQ(nullptr, apply(R"({"index":16777217,"name":"ge1","port_no":2})", uif_apply_row));
  EXPECT_EQ(vlan, uif_lookup_by_index(77));
  EXPECT_EQ(uif_get_by_name("ge1"), uif_lookup_by_port_index(0));
  // A port that moves leaves its old place.
  EXPECT_NE(nullptr, apply(R"({"index":16777218,"name":"ge1","port_no":3})", uif_apply_row));
  EXPECT_EQ(nullptr, uif_lookup_by_port_index(0));
  EXPECT_EQ(uif_get_by_name("ge1"), uif_lookup_by_port_index(2));
}

TEST_F(UifTest, StatusIsTakenWholeOrNotAtAll) {
  fill(kTable);
  uif* ge1 = uif_get_by_name("ge1");
  EXPECT_EQ(ge1, apply(R"({"name":"ge1","link":0,"speed":0,"duplex":0,"enable":0,"speed_conf":3,
                             "port_no":7,"index":9})",
                       uif_apply_status));
  EXPECT_EQ(0, uif_is_linkup(ge1));
  EXPECT_EQ(0, uif_is_enable(ge1));
  EXPECT_EQ(0, ge1->speed);
  EXPECT_EQ(0, ge1->duplex);
  EXPECT_EQ(3, ge1->speed_conf);
  EXPECT_EQ(1, ge1->port_no);
  EXPECT_EQ(0x01000001U, ge1->index);
  EXPECT_EQ(ge1, apply(R"({"name":"ge1","enable":1})", uif_apply_status));
  EXPECT_EQ(1, uif_is_enable(ge1));
  EXPECT_EQ(3, ge1->speed_conf);
  EXPECT_EQ(nullptr, apply(R"({"name":"ge1","link":1,"speed_conf":99})", uif_apply_status));
  EXPECT_EQ(0, uif_is_linkup(ge1));
  EXPECT_EQ(nullptr, apply(R"({"name":"ge9","link":1})", uif_apply_status));
  EXPECT_EQ(nullptr, apply(R"({"link":1})", uif_apply_status));
  EXPECT_EQ(nullptr, apply(R"([1])", uif_apply_status));
}

}  // namespace
