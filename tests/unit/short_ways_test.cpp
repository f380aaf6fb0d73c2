// SPDX-License-Identifier: Apache-2.0
//
// The short ways round cJSON give what cJSON gives, or decline: printing of flat objects, and the
// reading of port counters.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "qel/qel_cjson.h"
#include "qel/qel_stats.h"
#include "qel/qel_text.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// What the short printer writes; "-" when it declines.
std::string print_flat(const std::string& json) {
  const qel_cjson_tree tree(cJSON_Parse(json.c_str()));
  static qel_text_area<4096> area;
  qel_text& out = area.begin();
  return qel_cjson_print_flat(out, tree.get()) ? std::string(out.view()) : "-";
}

TEST(PrintFlatTest, WritesTheLayoutOfTheFormattedPrinter) {
  EXPECT_EQ(print_flat(R"({"seq":7,"time":1700000000})"),
            "{\n\t\"seq\":\t7,\n\t\"time\":\t1700000000\n}");
  EXPECT_EQ(print_flat("{}"), "{\n}");
  EXPECT_EQ(
      print_flat(R"({"a":"b c","d":true,"e":false,"f":null,"":-5})"),
      "{\n\t\"a\":\t\"b c\",\n\t\"d\":\ttrue,\n\t\"e\":\tfalse,\n\t\"f\":\tnull,\n\t\"\":\t-5\n}");
}

TEST(PrintFlatTest, AgreesWithCjsonWhereverItDoesNotDecline) {
  for (const char* json :
       {R"({"n":0})", R"({"n":-1})", R"({"n":999999999999999})", R"({"n":-999999999999999})",
        R"({"n":123456789012})", R"({"n":1e3})", R"({"n":1.0})", R"({"n":2147483648})",
        "{\"text\":\"\xc3\xa4\x7f/\"}", R"({"a":1,"a":2})", R"({"s":"A"})"}) {
    const qel_cjson_tree tree(cJSON_Parse(json));
    ASSERT_NE(tree, nullptr) << json;
    const qel_cjson_text printed(cJSON_Print(tree.get()));
    EXPECT_EQ(print_flat(json), printed.get()) << json;
  }
}

TEST(PrintFlatTest, DeclinesWhatItDoesNotKnow) {
  for (const char* json :
       {R"({"n":1.5})", R"({"n":-0})", R"({"n":1e15})", R"({"n":-1e15})", R"({"n":1e999})",
        R"({"s":"a\"b"})", R"({"s":"a\\b"})", R"({"s":"\n"})", R"({"a\tb":1})", R"({"o":{}})",
        R"({"l":[1]})", R"([1])", "7", R"("text")", "null"}) {
    EXPECT_EQ(print_flat(json), "-") << json;
  }
}

TEST(PrintFlatTest, DeclinesTextsThatAreMissing) {
  const qel_cjson_tree tree(cJSON_Parse(R"({"s":"text"})"));
  cJSON* member = cJSON_GetObjectItem(tree.get(), "s");
  char* text = std::exchange(member->valuestring, nullptr);
  static qel_text_area<64> area;
  EXPECT_FALSE(qel_cjson_print_flat(area.begin(), tree.get()));
  member->valuestring = text;
  char* name = std::exchange(member->string, nullptr);
  EXPECT_FALSE(qel_cjson_print_flat(area.begin(), tree.get()));
  member->string = name;
}

std::vector<std::string> seen;

void note(const qel_stats_row& row) {
  seen.push_back(std::string(row.name) + " " + std::to_string(row.tx_sum) + " " +
                 std::to_string(row.rx_sum) + " " + std::to_string(row.tx_rate) + " " +
                 std::to_string(row.rx_rate));
}

bool read_stats(const std::string& reply) {
  seen.clear();
  return qel_stats_read(reply.c_str(), note);
}

constexpr char kRow[] = R"({"name":"ge1","tx_sum":1,"rx_sum":22,"tx_rate":0,"rx_rate":4444})";

std::string reply_of(const std::string& rows) {
  return R"({"ret":0,"data":[)" + rows + "]}";
}

TEST(StatsReadTest, ReadsRowsInTheirOrder) {
  EXPECT_TRUE(read_stats(reply_of(
      std::string(kRow) +
      R"(,{"name":"xe-1/2.3_b","tx_sum":900719925474099,"rx_sum":2,"tx_rate":3,"rx_rate":4})")));
  EXPECT_THAT(seen, ElementsAre("ge1 1 22 0 4444", "xe-1/2.3_b 900719925474099 2 3 4"));
}

// Above 2^53 a tree's numbers are rounded; so are these.
TEST(StatsReadTest, NumbersAreThoseOfATree) {
  EXPECT_TRUE(read_stats(reply_of(
      R"({"name":"ge1","tx_sum":9007199254740993,"rx_sum":999999999999999999,"tx_rate":10,"rx_rate":9})")));
  EXPECT_THAT(seen, ElementsAre("ge1 9007199254740992 1000000000000000000 10 9"));
}

TEST(StatsReadTest, AnyOtherFormIsLeftToTheParser) {
  const std::string row = kRow;
  for (const std::string& reply : {
           std::string(),
           std::string("{}"),
           reply_of(""),
           reply_of(row + ","),
           reply_of(row) + " ",
           reply_of(" " + row),
           reply_of(row + row),
           std::string(R"({"ret":0,"data":[)") + row,
           std::string(R"({"ret":0,"data":[)") + row + "]",
           std::string(R"({"ret":-1,"data":[)") + row + "]}",
           std::string(R"({"ret":0,"more":1,"data":[)") + row + "]}",
           reply_of(R"({"name":"","tx_sum":1,"rx_sum":2,"tx_rate":3,"rx_rate":4})"),
           reply_of(R"({"name":"a\"b","tx_sum":1,"rx_sum":2,"tx_rate":3,"rx_rate":4})"),
           reply_of(R"({"NAME":"ge1","tx_sum":1,"rx_sum":2,"tx_rate":3,"rx_rate":4})"),
           reply_of(R"({"name":"ge1","rx_sum":1,"tx_sum":2,"tx_rate":3,"rx_rate":4})"),
           reply_of(R"({"name":"ge1","tx_sum":-1,"rx_sum":2,"tx_rate":3,"rx_rate":4})"),
           reply_of(R"({"name":"ge1","tx_sum":1.5,"rx_sum":2,"tx_rate":3,"rx_rate":4})"),
           reply_of(R"({"name":"ge1","tx_sum":1e3,"rx_sum":2,"tx_rate":3,"rx_rate":4})"),
           reply_of(R"({"name":"ge1","tx_sum":01,"rx_sum":2,"tx_rate":3,"rx_rate":4})"),
           reply_of(R"({"name":"ge1","tx_sum":,"rx_sum":2,"tx_rate":3,"rx_rate":4})"),
           reply_of(R"({"name":"ge1","tx_sum":"1","rx_sum":2,"tx_rate":3,"rx_rate":4})"),
           reply_of(
               R"({"name":"ge1","tx_sum":1000000000000000000,"rx_sum":2,"tx_rate":3,"rx_rate":4})"),
           reply_of(R"({"name":"ge1","tx_sum":1,"rx_sum":2,"tx_rate":3,"rx_rate":4,"x":1})"),
           reply_of(R"({"name":")" + std::string(32, 'g') +
                    R"(","tx_sum":1,"rx_sum":2,"tx_rate":3,"rx_rate":4})"),
       }) {
    EXPECT_FALSE(read_stats(reply)) << reply;
    EXPECT_THAT(seen, IsEmpty()) << reply;
  }
}

TEST(StatsReadTest, HasALimitOfRows) {
  std::string rows = kRow;
  for (int i = 1; i < 128; ++i) {
    rows += std::string(",") + kRow;
  }
  EXPECT_TRUE(read_stats(reply_of(rows)));
  EXPECT_EQ(seen.size(), 128U);
  EXPECT_FALSE(read_stats(reply_of(rows + "," + kRow)));
  EXPECT_THAT(seen, IsEmpty());
}

// Whatever is cut off, nothing is stored and nothing behind the end is read.
TEST(StatsReadTest, CutAnywhere) {
  const std::string whole = reply_of(std::string(kRow) + "," + kRow);
  for (size_t length = 0; length < whole.size(); ++length) {
    const std::vector<char> exact(whole.begin(), whole.begin() + static_cast<long>(length));
    std::vector<char> text = exact;
    text.push_back('\0');
    text.shrink_to_fit();
    seen.clear();
    EXPECT_FALSE(qel_stats_read(text.data(), note)) << length;
    EXPECT_THAT(seen, IsEmpty());
  }
  EXPECT_TRUE(read_stats(whole));
}

}  // namespace
