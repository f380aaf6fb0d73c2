// SPDX-License-Identifier: Apache-2.0
//
// The packet and the request list: blocks, ages, ids, and who gets an answer. Nothing in the agent
// adds to them, so these tests are their only users.
#include <csignal>
#include <cstring>
#include <set>

#include "qel/qel_eth_pkt.h"
#include "qel/qel_req.h"
#include "qel/qel_table.h"
#include "tests/unit/support.h"

namespace {

using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::SizeIs;
using testing::StartsWith;

constexpr size_t kPacketBlock = 32;
constexpr size_t kRequestBlock = 64;

// True when all bytes of `record` are zero.
template <typename Record>
bool all_zero(const Record& record) {
  const auto* bytes = reinterpret_cast<const unsigned char*>(&record);
  return std::all_of(bytes, bytes + sizeof record, [](unsigned char byte) { return byte == 0; });
}

template <typename Record>
std::vector<Record*> records(const struct list* list) {
  std::vector<Record*> found;
  for (const struct listnode* node = list->head; node != nullptr; node = node->next) {
    found.push_back(static_cast<Record*>(node->data));
  }
  return found;
}

// ---------------------------------------------------------------------------------------------
// Packets

class PacketListTest : public AgentTest {
 protected:
  PacketListTest() {
    g_qel_eth_pkt = {};
    g_qel_eth_total = 0;
    fake::set_now(1700000000);
    link_ = eth_link();
    qel_eth_pkt_list_init();
  }
  // Blocks are never given back by the agent; here each test has lists of its own.
  ~PacketListTest() override { free_blocks(records_of_both(), kPacketBlock); }

  static std::vector<qel_eth_pkt*> used() { return records<qel_eth_pkt>(g_qel_eth_pkt.used); }
  static std::vector<qel_eth_pkt*> free_records() {
    return records<qel_eth_pkt>(g_qel_eth_pkt.free);
  }

  // Adds a packet that was heard of now.
  qel_eth_pkt* add(uint64_t id, int fragments = 1) {
    qel_eth_pkt* record = qel_eth_pkt_lookup_add(id, "text", fragments, &link_);
    record->time = static_cast<uint32_t>(fake::now());
    return record;
  }

  qel_link link_ = {};

 private:
  static std::vector<qel_eth_pkt*> records_of_both() {
    std::vector<qel_eth_pkt*> all = used();
    for (qel_eth_pkt* record : free_records()) {
      all.push_back(record);
    }
    return all;
  }

 public:
  // Frees the blocks that the records lie in: those with no neighbour before them start one.
  template <typename Record>
  static void free_blocks(const std::vector<Record*>& all, size_t block) {
    const std::set<Record*> sorted(all.begin(), all.end());
    EXPECT_EQ(sorted.size() % block, 0U);
    size_t in_block = 0;
    Record* previous = nullptr;
    for (Record* record : sorted) {
      if (in_block == 0 || record != previous + 1) {
        EXPECT_EQ(in_block % block, 0U);
        in_block = 0;
        std::free(record);
      }
      in_block = (in_block + 1) % block;
      previous = record;
    }
  }
};
