// SPDX-License-Identifier: Apache-2.0
//
// The member accessors over cJSON: what a missing member gives, and what stands beyond 32 bits.
#include "qel/qel_cjson.h"

#include <gtest/gtest.h>

namespace {

constexpr char kMembers[] = R"({"none":0,"small":-5,"large":4294967296,"low":-9007199254740992,)"
                            R"("huge":1e300,"deep":-1e300,"text":"7"})";

class AccessorTest : public testing::Test {
 protected:
  qel_cjson_tree tree_{cJSON_Parse(kMembers)};
};

TEST_F(AccessorTest, MissingMemberIsTheDefaultOfTheCaller) {
  for (int64_t fallback : {int64_t{7}, int64_t{-1}, int64_t{7000000000}, INT64_MIN}) {
    EXPECT_EQ(cJSON_GetObjectItemLongIntDef(tree_.get(), "other", fallback), fallback);
    EXPECT_EQ(cJSON_GetObjectItemLongIntDef(nullptr, "small", fallback), fallback);
  }
  for (int32_t fallback : {7, -1, INT32_MIN}) {
    EXPECT_EQ(cJSON_GetObjectItemIntDef(tree_.get(), "other", fallback), fallback);
    EXPECT_EQ(cJSON_GetObjectItemIntDef(nullptr, "small", fallback), fallback);
  }
  EXPECT_EQ(cJSON_GetObjectItemInt(tree_.get(), "other"), 0);
  EXPECT_EQ(cJSON_GetObjectItemString(tree_.get(), "other"), nullptr);
}

TEST_F(AccessorTest, MemberThatIsThereIsNeverTheDefault) {
  EXPECT_EQ(cJSON_GetObjectItemLongIntDef(tree_.get(), "none", 7), 0);
  EXPECT_EQ(cJSON_GetObjectItemLongIntDef(tree_.get(), "small", 7), -5);
  EXPECT_EQ(cJSON_GetObjectItemIntDef(tree_.get(), "none", 7), 0);
  EXPECT_EQ(cJSON_GetObjectItemIntDef(tree_.get(), "small", 7), -5);
  EXPECT_EQ(cJSON_GetObjectItemInt(tree_.get(), "small"), -5);
  EXPECT_STREQ(cJSON_GetObjectItemString(tree_.get(), "text"), "7");
}

TEST_F(AccessorTest, LongFormReadsBeyond32BitsAndStopsAtTheEndsOf64) {
  EXPECT_EQ(cJSON_GetObjectItemLongIntDef(tree_.get(), "large", 7), 4294967296);
  EXPECT_EQ(cJSON_GetObjectItemLongIntDef(tree_.get(), "low", 7), -9007199254740992);
  EXPECT_EQ(cJSON_GetObjectItemLongIntDef(tree_.get(), "huge", 7), INT64_MAX);
  EXPECT_EQ(cJSON_GetObjectItemLongIntDef(tree_.get(), "deep", 7), INT64_MIN);
}

}  // namespace
