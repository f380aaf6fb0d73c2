// SPDX-License-Identifier: Apache-2.0
//
// The packet and the request list: blocks, ages, ids, and who gets an answer. Nothing in the agent
// adds to them, so these tests are their only users.
#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "qel/qel_eth_pkt.h"
#include "qel/qel_main.h"
#include "qel/qel_req.h"
#include "qel/qel_table.h"
#include "tests/unit/calloc.h"
#include "tests/unit/support.h"

extern "C" void* __real_calloc(size_t count, size_t size);
bool g_calloc_fails = false;
void (*g_on_calloc)(size_t count, size_t size) = nullptr;
extern "C" __attribute__((used)) void* __wrap_calloc(size_t count, size_t size) {
  if (g_on_calloc != nullptr) {
    g_on_calloc(count, size);
  }
  return g_calloc_fails ? nullptr : __real_calloc(count, size);
}

namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::SizeIs;

constexpr uint32_t kNow = 1700000000;

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

// Counts what the lists could take from the heap while it lives: blocks of records and list nodes.
class allocation_watch {
 public:
  allocation_watch() : nodes_before_(fake::list_nodes_made()) {
    blocks = 0;
    g_on_calloc = [](size_t, size_t) { ++blocks; };
  }
  ~allocation_watch() { g_on_calloc = nullptr; }
  allocation_watch(const allocation_watch&) = delete;
  allocation_watch& operator=(const allocation_watch&) = delete;

  [[nodiscard]] size_t seen() const { return blocks + fake::list_nodes_made() - nodes_before_; }

 private:
  static inline size_t blocks = 0;
  size_t nodes_before_;
};

// ---------------------------------------------------------------------------------------------
// Packets

class PacketListTest : public AgentTest {
 protected:
  PacketListTest() {
    g_qel_eth_pkt = {};
    g_qel_eth_total = 0;
    fake::set_now(kNow);
    link_ = eth_link();
    qel_eth_pkt_list_init();
  }

  static std::vector<qel_eth_pkt*> used() { return records<qel_eth_pkt>(g_qel_eth_pkt.used); }
  static std::vector<qel_eth_pkt*> unused() { return records<qel_eth_pkt>(g_qel_eth_pkt.free); }

  qel_eth_pkt* add(uint64_t id, int fragments = 1) {
    return qel_eth_pkt_lookup_add(id, "text", fragments, &link_);
  }

  // Adds packets with ids from 1 on that were heard of now.
  void add_fresh(uint64_t count) {
    for (uint64_t id = 1; id <= count; ++id) {
      add(id)->time = static_cast<uint32_t>(fake::now());
    }
  }

  qel_link link_ = {};
};

TEST_F(PacketListTest, RecordHoldsIdMaskTimeLinkAndAFullText) {
  EXPECT_EQ(sizeof(qel_eth_pkt), 65616U);
  EXPECT_EQ(offsetof(qel_eth_pkt, id), 0U);
  EXPECT_EQ(offsetof(qel_eth_pkt, mask), 8U);
  EXPECT_EQ(offsetof(qel_eth_pkt, time), 16U);
  EXPECT_EQ(offsetof(qel_eth_pkt, link), 20U);
  EXPECT_EQ(sizeof(qel_link), 52U);
  EXPECT_EQ(offsetof(qel_eth_pkt, payload), 72U);
}

TEST_F(PacketListTest, BeginsWithOneBlockOf32FreeRecords) {
  EXPECT_THAT(used(), IsEmpty());
  EXPECT_THAT(unused(), SizeIs(32));
  EXPECT_EQ(g_qel_eth_total, 32U);
}

TEST_F(PacketListTest, BlockIsOneZeroedPieceOf2099712Bytes) {
  const std::vector<qel_eth_pkt*> block = unused();
  ASSERT_THAT(block, SizeIs(32));
  for (size_t i = 0; i < block.size(); ++i) {
    EXPECT_EQ(block[i], block[0] + i);
    EXPECT_TRUE(all_zero(*block[i])) << i;
  }
  EXPECT_EQ(reinterpret_cast<char*>(block[31] + 1) - reinterpret_cast<char*>(block[0]), 2099712);
}

TEST_F(PacketListTest, ExpandingAddsABlockBehindTheFreeOnes) {
  const std::vector<qel_eth_pkt*> before = unused();
  qel_eth_pkt_list_expand();
  ASSERT_THAT(unused(), SizeIs(64));
  EXPECT_TRUE(std::equal(before.begin(), before.end(), unused().begin()));
  EXPECT_EQ(g_qel_eth_total, 64U);
}

using PacketListDeathTest = PacketListTest;

TEST_F(PacketListDeathTest, NoMemoryForABlockEndsTheProcess) {
  EXPECT_DEATH(
      {
        g_calloc_fails = true;
        qel_eth_pkt_list_expand();
      },
      "assertion failed: .*, file qel/qel_eth_pkt, line [0-9]+, function "
      "qel_eth_pkt_list_expand");
}

TEST_F(PacketListDeathTest, UsedNodeWithoutDataEndsTheProcessInEveryWalk) {
  const std::string told =
      R"(assertion failed: \(node\)->data != \(\(void \*\)0\), file qel/qel_eth_pkt, line [0-9]+, )"
      "function ";
  add_fresh(1);
  listnode_add(g_qel_eth_pkt.used, nullptr);
  EXPECT_DEATH(qel_eth_pkt_list_recycle(), told + "qel_eth_pkt_list_recycle");
  EXPECT_DEATH(qel_eth_pkt_lookup(2), told + "qel_eth_pkt_lookup");
  EXPECT_DEATH(qel_eth_pkt_show_list(), told + "qel_eth_pkt_show_list");
}

TEST_F(PacketListTest, AddedPacketTakesTheHeadOfTheFreeListWithIdMaskAndLink) {
  qel_eth_pkt* const head = unused().front();
  qel_eth_pkt* const record = add(7, 3);
  EXPECT_EQ(record, head);
  EXPECT_THAT(used(), ElementsAre(record));
  EXPECT_THAT(unused(), SizeIs(31));
  EXPECT_EQ(record->id, 7U);
  EXPECT_EQ(record->mask, 7U);
  EXPECT_EQ(std::memcmp(&record->link, &link_, 52), 0);
}

TEST_F(PacketListTest, UsedListKeepsTheOrderOfAdding) {
  qel_eth_pkt* const first = add(9);
  qel_eth_pkt* const second = add(3);
  EXPECT_THAT(used(), ElementsAre(first, second));
}

TEST_F(PacketListTest, KnownPacketIsReturnedAsItIs) {
  qel_eth_pkt* const record = add(7, 3);
  qel_link other = udp_link();
  EXPECT_EQ(qel_eth_pkt_lookup_add(7, "more", 5, &other), record);
  EXPECT_EQ(record->mask, 7U);
  EXPECT_EQ(std::memcmp(&record->link, &link_, 52), 0);
  EXPECT_THAT(used(), SizeIs(1));
}

TEST_F(PacketListTest, MaskHasOneBitForEachFragmentIn32Bits) {
  struct Case {
    int fragments;
    uint64_t mask;
  };
  uint64_t id = 0;
  for (const Case& one : {Case{0, 0}, Case{1, 1}, Case{2, 3}, Case{8, 0xff}, Case{16, 0xffff},
                          Case{30, 0x3fffffff}, Case{31, 0x7fffffff}}) {
    EXPECT_EQ(add(++id, one.fragments)->mask, one.mask) << one.fragments;
  }
}

// No shift is defined for these; the low five bits count, and nothing undefined happens.
TEST_F(PacketListTest, MaskOfImpossibleCountsIsDefined) {
  EXPECT_EQ(add(1, 32)->mask, 0U);
  EXPECT_EQ(add(2, 33)->mask, 1U);
  EXPECT_EQ(add(3, -1)->mask, 0x7fffffffU);
  EXPECT_EQ(add(4, std::numeric_limits<int>::min())->mask, 0U);
}

TEST_F(PacketListTest, LookupFindsOnlyUsedRecordsByTheWholeId) {
  EXPECT_EQ(qel_eth_pkt_lookup(0), nullptr);  // the id of every free record
  qel_eth_pkt* const low = add(1);
  qel_eth_pkt* const high = add(0x100000001);
  EXPECT_NE(low, high);
  EXPECT_EQ(qel_eth_pkt_lookup(1), low);
  EXPECT_EQ(qel_eth_pkt_lookup(0x100000001), high);
  EXPECT_EQ(qel_eth_pkt_lookup(2), nullptr);
  EXPECT_EQ(qel_eth_pkt_lookup(0xffffffffffffffff), nullptr);
}

TEST_F(PacketListTest, LookupGivesTheFirstOfEqualIds) {
  qel_eth_pkt* const first = add(1);
  add(2)->id = 1;
  EXPECT_EQ(qel_eth_pkt_lookup(1), first);
}

TEST_F(PacketListTest, ReleasedRecordIsZeroedAndGoesBehindTheFreeOnes) {
  qel_eth_pkt* const record = add(7, 3);
  std::memset(record->payload, 0xaa, sizeof record->payload);
  EXPECT_EQ(qel_eth_pkt_release(7), 0);
  EXPECT_TRUE(all_zero(*record));
  EXPECT_THAT(used(), IsEmpty());
  ASSERT_THAT(unused(), SizeIs(32));
  EXPECT_EQ(unused().back(), record);
  EXPECT_EQ(qel_eth_pkt_lookup(7), nullptr);
}

TEST_F(PacketListTest, ReleaseOfAnUnknownIdIsMinusOneAndChangesNothing) {
  add(7);
  EXPECT_EQ(qel_eth_pkt_release(8), -1);
  EXPECT_EQ(qel_eth_pkt_release(0), -1);
  EXPECT_THAT(used(), SizeIs(1));
  EXPECT_EQ(qel_eth_pkt_release(7), 0);
  EXPECT_EQ(qel_eth_pkt_release(7), -1);
}

TEST_F(PacketListTest, RecordsOfFiveSecondsAndOlderAreRecycled) {
  struct Case {
    uint32_t age;
    bool recycled;
  };
  for (const Case& one :
       {Case{0, false}, Case{4, false}, Case{5, true}, Case{6, true}, Case{100000, true}}) {
    qel_eth_pkt* const record = add(1);
    record->time = kNow - one.age;
    qel_eth_pkt_list_recycle();
    EXPECT_EQ(qel_eth_pkt_lookup(1) == nullptr, one.recycled) << one.age;
    EXPECT_EQ(all_zero(*record), one.recycled) << one.age;
    qel_eth_pkt_release(1);
  }
}

TEST_F(PacketListTest, RecyclingTakesEveryOldRecordWhereverItStands) {
  add_fresh(6);
  for (uint64_t id : {1U, 2U, 4U, 6U}) {
    qel_eth_pkt_lookup(id)->time = kNow - 5;
  }
  qel_eth_pkt* const third = qel_eth_pkt_lookup(3);
  qel_eth_pkt* const fifth = qel_eth_pkt_lookup(5);
  qel_eth_pkt_list_recycle();
  EXPECT_THAT(used(), ElementsAre(third, fifth));
  EXPECT_THAT(unused(), SizeIs(30));
}

TEST_F(PacketListTest, RecordOfTheFutureIsNotOld) {
  add(1)->time = kNow + 60;
  qel_eth_pkt_list_recycle();
  EXPECT_NE(qel_eth_pkt_lookup(1), nullptr);
}

TEST_F(PacketListTest, AddedPacketHasNoTimeAndIsRecyclableAtOnce) {
  EXPECT_EQ(add(1)->time, 0U);
  qel_eth_pkt_list_recycle();
  EXPECT_THAT(used(), IsEmpty());
}

TEST_F(PacketListTest, PacketWithoutATimeIsRecyclableBehind2038Too) {
  for (int64_t now : {2147483647LL, 2147483648LL, 4294967290LL}) {
    fake::set_now(now);
    add(1);
    qel_eth_pkt_list_recycle();
    EXPECT_THAT(used(), IsEmpty()) << now;
  }
}

TEST_F(PacketListTest, AgesCountAcrossTheEndOf32Bits) {
  fake::set_now(4294967298);
  add(1)->time = 4294967294;  // 4 seconds ago
  add(2)->time = 4294967293;  // 5
  qel_eth_pkt_list_recycle();
  EXPECT_NE(qel_eth_pkt_lookup(1), nullptr);
  EXPECT_EQ(qel_eth_pkt_lookup(2), nullptr);
}

TEST_F(PacketListTest, OldRecordsStayWhileAnyIsFree) {
  add_fresh(31);
  fake::advance(60);
  add(32);
  EXPECT_THAT(used(), SizeIs(32));
  EXPECT_NE(qel_eth_pkt_lookup(1), nullptr);
}

TEST_F(PacketListTest, FullListRecyclesBeforeItGrows) {
  add_fresh(32);
  fake::advance(4);
  add_fresh(32);  // those are known
  fake::advance(4);
  qel_eth_pkt_lookup(20)->time = kNow;
  qel_eth_pkt* const oldest = qel_eth_pkt_lookup(20);
  EXPECT_EQ(add(100), oldest);
  EXPECT_EQ(qel_eth_pkt_lookup(20), nullptr);
  EXPECT_EQ(g_qel_eth_total, 32U);
}

TEST_F(PacketListTest, FullListOfFreshPacketsGrowsByABlock) {
  add_fresh(32);
  qel_eth_pkt* const record = add(100);
  EXPECT_THAT(used(), SizeIs(33));
  EXPECT_THAT(unused(), SizeIs(31));
  EXPECT_EQ(g_qel_eth_total, 64U);
  EXPECT_EQ(record->id, 100U);
  EXPECT_NE(qel_eth_pkt_lookup(1), nullptr);
}

TEST_F(PacketListTest, SteadyTrafficAllocatesNothing) {
  const allocation_watch watch;
  for (uint64_t id = 1; id <= 2000; ++id) {
    add(id);
    if (id % 3 == 0) {
      EXPECT_EQ(qel_eth_pkt_release(id), 0);
    }
  }
  EXPECT_EQ(watch.seen(), 0U);
  EXPECT_EQ(g_qel_eth_total, 32U);
  EXPECT_NE(qel_eth_pkt_lookup(2000), nullptr);
}

TEST_F(PacketListTest, ShowPrintsTheTotalAndEachUsedId) {
  add(5);
  add(0xffffffffffffffff);
  EXPECT_THAT(stdout_of(qel_eth_pkt_show_list),
              MatchesRegex("qel_eth_pkt_show_list,[0-9]+ show list g_qel_eth_total=32 \r\n"
                           "id= 5 \r\nid= -1 \r\n"));
}

TEST_F(PacketListTest, ShowOfAnEmptyListPrintsTheTotalOnly) {
  qel_eth_pkt_list_expand();
  EXPECT_THAT(stdout_of(qel_eth_pkt_show_list),
              MatchesRegex("qel_eth_pkt_show_list,[0-9]+ show list g_qel_eth_total=64 \r\n"));
}

// ---------------------------------------------------------------------------------------------
// Requests

struct Answered {
  qel_req_context context;
  std::string text;
  bool still_known;  // while the callback ran
};
std::vector<Answered> g_answered;

void keep_answer(const qel_req_context* context, const char* text) {
  g_answered.push_back({*context, text, g_qel_req.used->head != nullptr});
}

class RequestListTest : public AgentTest {
 protected:
  RequestListTest() {
    g_answered.clear();
    g_qel_req = {};
    g_qel_dev.reqid = 1;
    fake::set_now(kNow);
    qel_req_list_init();
  }

  static std::vector<qel_req*> used() { return records<qel_req>(g_qel_req.used); }
  static std::vector<qel_req*> unused() { return records<qel_req>(g_qel_req.free); }

  static qel_req_context context(int32_t fd = 55) {
    qel_req_context who = {};
    who.kind = 1;
    who.fd = fd;
    who.addr.udp.sin_family = AF_INET;
    who.addr.udp.sin_port = htons(20681);
    who.addrlen = 16;
    return who;
  }

  static uint64_t add() {
    const qel_req_context who = context();
    return qel_req_add(&who, keep_answer)->reqid;
  }

  static void add_many(int count) {
    for (int i = 0; i < count; ++i) {
      add();
    }
  }

  // What the answer printed; its result goes to `result`.
  static std::string answer(uint64_t reqid, int* result, const char* text = "{}") {
    const qel_cjson_tree tree(cJSON_Parse(text));
    return stdout_of([&] { *result = qel_req_answer(reqid, tree.get()); });
  }
};

TEST_F(RequestListTest, ContextIsTheFirstPartOfALink) {
  EXPECT_EQ(sizeof(qel_req_context), 40U);
  EXPECT_EQ(offsetof(qel_req_context, kind), offsetof(qel_link, kind));
  EXPECT_EQ(offsetof(qel_req_context, reserved), offsetof(qel_link, reserved));
  EXPECT_EQ(offsetof(qel_req_context, fd), offsetof(qel_link, fd));
  EXPECT_EQ(offsetof(qel_req_context, addr), offsetof(qel_link, addr));
  EXPECT_EQ(offsetof(qel_req_context, addrlen), offsetof(qel_link, addrlen));
  EXPECT_EQ(offsetof(qel_req_context, flags), offsetof(qel_link, flags));
}

TEST_F(RequestListTest, RecordIs56BytesWherePointersAre32Bits) {
  if (sizeof(void*) == 4) {
    EXPECT_EQ(sizeof(qel_req), 56U);
  }
  EXPECT_EQ(offsetof(qel_req, reqid), 0U);
  EXPECT_EQ(offsetof(qel_req, time), 8U);
  EXPECT_EQ(offsetof(qel_req, context), 12U);
  EXPECT_GE(offsetof(qel_req, callback), 52U);
}

TEST_F(RequestListTest, BeginsWithOneZeroedBlockOf64FreeRecords) {
  EXPECT_THAT(used(), IsEmpty());
  EXPECT_EQ(g_qel_req.total, 64U);
  const std::vector<qel_req*> block = unused();
  ASSERT_THAT(block, SizeIs(64));
  for (size_t i = 0; i < block.size(); ++i) {
    EXPECT_EQ(block[i], block[0] + i);
    EXPECT_TRUE(all_zero(*block[i])) << i;
  }
}

TEST_F(RequestListTest, ExpandingAdds64) {
  qel_req_list_expand();
  EXPECT_THAT(unused(), SizeIs(128));
  EXPECT_EQ(g_qel_req.total, 128U);
}

using RequestListDeathTest = RequestListTest;

TEST_F(RequestListDeathTest, NoMemoryForABlockEndsTheProcess) {
  EXPECT_DEATH(
      {
        g_calloc_fails = true;
        qel_req_list_expand();
      },
      "assertion failed: .*, file qel/qel_req, line [0-9]+, function qel_req_list_expand");
}

TEST_F(RequestListDeathTest, UsedNodeWithoutDataEndsTheProcessInEveryWalk) {
  const std::string told =
      R"(assertion failed: \(node\)->data != \(\(void \*\)0\), file qel/qel_req, line [0-9]+, )"
      "function ";
  add();
  listnode_add(g_qel_req.used, nullptr);
  EXPECT_DEATH(qel_req_recycle_timeout(), told + "qel_req_recycle_timeout");
  EXPECT_DEATH(qel_req_lookup(2), told + "qel_req_lookup");
  EXPECT_DEATH(qel_req_show_list(), told + "qel_req_show_list");
}

TEST_F(RequestListTest, AddedRequestHoldsIdTimeContextAndCallback) {
  qel_req* const head = unused().front();
  const qel_req_context who = context(77);
  qel_req* const record = qel_req_add(&who, keep_answer);
  EXPECT_EQ(record, head);
  EXPECT_THAT(used(), ElementsAre(record));
  EXPECT_THAT(unused(), SizeIs(63));
  EXPECT_EQ(record->reqid, 1U);
  EXPECT_EQ(record->time, 1700000000U);
  EXPECT_EQ(std::memcmp(&record->context, &who, sizeof who), 0);
  EXPECT_EQ(record->callback, &keep_answer);
}

TEST_F(RequestListTest, IdsGoUpFromOneForTheLifeOfTheProcess) {
  for (uint64_t expected = 1; expected <= 5000; ++expected) {
    ASSERT_EQ(add(), expected);
    fake::advance(1);
  }
  EXPECT_EQ(g_qel_dev.reqid, 5001U);
}

TEST_F(RequestListTest, IdsStartAtOneWithTheDeviceRecord) {
  g_qel_dev.reqid = 99;
  start();
  EXPECT_EQ(add(), 1U);
}

TEST_F(RequestListTest, IdsCross32BitsWithoutLoss) {
  g_qel_dev.reqid = 0xfffffffe;
  EXPECT_EQ(add(), 4294967294U);
  EXPECT_EQ(add(), 4294967295U);
  EXPECT_EQ(add(), 4294967296U);
  EXPECT_EQ(add(), 4294967297U);
  int result = 0;
  answer(0, &result);
  EXPECT_EQ(result, -1);
  answer(1, &result);
  EXPECT_EQ(result, -1);
  EXPECT_THAT(answer(4294967296, &result), EndsWith("id= 4294967297 \r\n"));
  EXPECT_EQ(result, 0);
}

TEST_F(RequestListTest, RequestsOfThreeSecondsAndOlderAreRecycled) {
  struct Case {
    unsigned age;
    bool recycled;
  };
  for (const Case& one : {Case{0, false}, Case{2, false}, Case{3, true}, Case{4, true}}) {
    const uint64_t id = add();
    fake::advance(one.age);
    qel_req_recycle_timeout();
    EXPECT_EQ(qel_req_lookup(id) == nullptr, one.recycled) << one.age;
  }
  EXPECT_TRUE(all_zero(*unused().back()));
}

TEST_F(RequestListTest, UnansweredRequestLivesOnWhileRecordsAreFree) {
  const uint64_t id = add();
  fake::advance(3600);
  add_many(63);
  int result = -1;
  answer(id, &result);
  EXPECT_EQ(result, 0);
  EXPECT_THAT(g_answered, SizeIs(1));
}

TEST_F(RequestListTest, UnansweredRequestIsLostWhenTheFreeListRunsDry) {
  const uint64_t id = add();
  fake::advance(3);
  add_many(64);
  EXPECT_EQ(g_qel_req.total, 64U);
  int result = 0;
  EXPECT_EQ(answer(id, &result), "error reqid \r");
  EXPECT_EQ(result, -1);
  EXPECT_THAT(g_answered, IsEmpty());
}

TEST_F(RequestListTest, FullListOfFreshRequestsGrowsByABlockAndLosesNone) {
  const uint64_t id = add();
  fake::advance(2);
  add_many(64);
  EXPECT_THAT(used(), SizeIs(65));
  EXPECT_EQ(g_qel_req.total, 128U);
  int result = -1;
  answer(id, &result);
  EXPECT_EQ(result, 0);
}

TEST_F(RequestListTest, SteadyTrafficAllocatesNothing) {
  const allocation_watch watch;
  for (int i = 0; i < 300; ++i) {
    add_many(16);  // 48 within three seconds
    fake::advance(1);
  }
  EXPECT_EQ(watch.seen(), 0U);
  EXPECT_EQ(g_qel_req.total, 64U);
}

TEST_F(RequestListTest, AnswerGoesPrintedFormattedToWhoAsked) {
  const qel_req_context who = context(77);
  const uint64_t id = qel_req_add(&who, keep_answer)->reqid;
  int result = -1;
  const std::string printed = answer(id, &result, R"({"reqid":1,"data":{"a":[1,2]}})");
  EXPECT_EQ(result, 0);
  ASSERT_THAT(g_answered, SizeIs(1));
  EXPECT_EQ(std::memcmp(&g_answered[0].context, &who, sizeof who), 0);
  EXPECT_EQ(g_answered[0].text, "{\n\t\"reqid\":\t1,\n\t\"data\":\t{\n\t\t\"a\":\t[1, 2]\n\t}\n}");
  EXPECT_TRUE(g_answered[0].still_known);
  EXPECT_THAT(printed, MatchesRegex("qel_req_show_list,[0-9]+ show list \r\n"));
}

TEST_F(RequestListTest, AnsweredRequestIsReleasedZeroedAndTheRestIsShown) {
  qel_req* const record = qel_req_lookup(add());
  add();
  int result = -1;
  EXPECT_THAT(answer(1, &result),
              MatchesRegex("qel_req_show_list,[0-9]+ show list \r\nid= 2 \r\n"));
  EXPECT_TRUE(all_zero(*record));
  EXPECT_EQ(unused().back(), record);
}

TEST_F(RequestListTest, SecondAnswerFindsNobody) {
  const uint64_t id = add();
  int result = -1;
  answer(id, &result);
  EXPECT_EQ(answer(id, &result), "error reqid \r");
  EXPECT_EQ(result, -1);
  EXPECT_THAT(g_answered, SizeIs(1));
}

TEST_F(RequestListTest, AnswerToAnUnknownIdIsSaidAndMinusOne) {
  add();
  for (uint64_t id : {uint64_t{0}, uint64_t{2}, uint64_t{0xffffffffffffffff}}) {
    int result = 0;
    EXPECT_EQ(answer(id, &result), "error reqid \r");
    EXPECT_EQ(result, -1);
  }
  EXPECT_THAT(used(), SizeIs(1));
}

TEST_F(RequestListTest, StandardCallbackWritesTheTextWithoutItsNul) {
  const qel_req_context who = context(77);
  std::string before;
  fake::on_write([&before] {
    before = testing::internal::GetCapturedStdout();
    testing::internal::CaptureStdout();
  });
  const std::string after = stdout_of([&] { qel_req_callback_write(&who, "{\"a\":1}"); });
  EXPECT_EQ(before, "callback write fd start\r");
  EXPECT_EQ(after, "callback write fd end\r");
  EXPECT_THAT(fake::calls_of({"write"}), ElementsAre("write(77, {\"a\":1})"));
}

TEST_F(RequestListTest, StandardCallbackAnswersThroughTheList) {
  const qel_req_context who = context(77);
  qel_req_add(&who, qel_req_callback_write);
  int result = -1;
  EXPECT_THAT(answer(1, &result, "[1]"),
              MatchesRegex("callback write fd start\rcallback write fd end\r"
                           "qel_req_show_list,[0-9]+ show list \r\n"));
  EXPECT_THAT(fake::calls_of({"write"}), ElementsAre("write(77, [1])"));
}

TEST_F(RequestListTest, ShowPrintsEachUsedId) {
  g_qel_dev.reqid = 0x100000000;
  add();
  add();
  EXPECT_THAT(stdout_of(qel_req_show_list), MatchesRegex("qel_req_show_list,[0-9]+ show list \r\n"
                                                         "id= 4294967296 \r\nid= 4294967297 \r\n"));
}

// ---------------------------------------------------------------------------------------------
// Start

TEST_F(AgentTest, StartCreatesBothListsWithTheirFirstBlock) {
  g_qel_req = {};
  g_qel_eth_pkt = {};
  g_qel_eth_total = 0;
  qel_init();
  ASSERT_NE(g_qel_req.free, nullptr);
  ASSERT_NE(g_qel_eth_pkt.free, nullptr);
  EXPECT_EQ(g_qel_req.free->count, 64U);
  EXPECT_EQ(g_qel_eth_pkt.free->count, 32U);
  EXPECT_EQ(g_qel_eth_total, 32U);
}

}  // namespace
