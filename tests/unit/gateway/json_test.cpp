// SPDX-License-Identifier: Apache-2.0
//
// Hostile JSON.
#include "gateway/json.h"

#include <gtest/gtest.h>

#include <functional>

namespace qel_gateway {
namespace {

std::string fault_of(const std::function<void()>& action) {
  try {
    action();
  } catch (const BadReply& reason) {
    return reason.what();
  }
  return "none";
}

std::string parse_fault(std::string_view text) {
  return fault_of([text] { parse_json(text); });
}

TEST(Json, RefusesWhatIsNotExactlyOneValue) {
  EXPECT_EQ(parse_fault(""), "no JSON from byte 1 on");
  EXPECT_EQ(parse_fault("{} x"), "no JSON from byte 4 on");
  EXPECT_EQ(parse_fault("{\"a\":1,}"), "no JSON from byte 8 on");
  EXPECT_EQ(parse_fault("{'a':1}"), "no JSON from byte 2 on");
  EXPECT_EQ(parse_fault("/* c */ {}"), "no JSON from byte 1 on");
  EXPECT_EQ(parse_fault("[NaN]"), "no JSON from byte 2 on");
  EXPECT_EQ(parse_fault("\"\x1b[31m\""), "no JSON from byte 2 on");
  EXPECT_EQ(parse_fault("\"\xff\""), "no JSON from byte 2 on");
  EXPECT_EQ(parse_fault("{\"a\":1e999}"), "JSON with a number that no computer holds");
}

TEST(Json, RefusesANameTwiceButNotInTwoObjects) {
  EXPECT_EQ(parse_fault(R"({"a":1,"a":2})"), "JSON object with one name twice");
  EXPECT_EQ(parse_fault(R"([{"a":1},{"a":2},{"b":{"a":3}}])"), "none");
}

TEST(Json, RefusesDepthAndLength) {
  EXPECT_EQ(parse_fault(std::string(32, '[') + std::string(32, ']')), "none");
  EXPECT_EQ(parse_fault(std::string(34, '[') + std::string(34, ']')), "JSON nested deeper than 32");
  EXPECT_EQ(parse_fault(std::string(1600, '[')), "JSON nested deeper than 32");
  EXPECT_EQ(parse_fault("\"" + std::string(70000, 'a') + "\""), "more than 65536 bytes of JSON");
}

TEST(Json, ChecksMembersWhereTheyAreTaken) {
  const Json object = parse_json(
      R"({"n":5,"t":"text","big":9223372036854775808,"huge":123456789012345678901234567890,"f":1.5})");
  EXPECT_EQ(integer_member(object, "n", 0, 5), 5);
  EXPECT_EQ(fault_of([&] { integer_member(object, "n", 6, 9); }), "\"n\": number 5 outside 6..9");
  EXPECT_EQ(fault_of([&] { integer_member(object, "t", 0, 9); }),
            "\"t\": no whole number where one belongs");
  EXPECT_EQ(fault_of([&] { integer_member(object, "f", 0, 9); }),
            "\"f\": no whole number where one belongs");
  EXPECT_EQ(fault_of([&] { integer_member(object, "big", 0, INT64_MAX); }),
            "\"big\": number out of range");
  EXPECT_EQ(fault_of([&] { integer_member(object, "huge", 0, INT64_MAX); }),
            "\"huge\": no whole number where one belongs");
  EXPECT_EQ(fault_of([&] { integer_member(object, "gone", 0, 9); }), "\"gone\" is missing");
  EXPECT_EQ(fault_of([&] { integer_member(Json::array(), "n", 0, 9); }), "no object around \"n\"");
  EXPECT_EQ(text_member(object, "t"), "text");
  EXPECT_EQ(fault_of([&] { text_member(object, "n"); }), "\"n\": a value where a text belongs");
  EXPECT_EQ(fault_of([&] { text_member(object, "t", 3); }), "\"t\": text of more than 3 bytes");
}

TEST(Json, ChecksElements) {
  const Json array = parse_json(R"([1,"b",18446744073709551615,-1])");
  EXPECT_EQ(integer_at(array, 0, 0, 1), 1);
  EXPECT_EQ(text_at(array, 1), "b");
  EXPECT_EQ(unsigned_at(array, 2), 18446744073709551615U);
  EXPECT_EQ(fault_of([&] { unsigned_at(array, 3); }), "no unsigned number where one belongs");
  EXPECT_EQ(fault_of([&] { integer_at(array, 4, 0, 1); }), "array with no element 4");
  EXPECT_EQ(fault_of([&] { integer_at(Json::object(), 0, 0, 1); }), "array with no element 0");
}

TEST(Json, WritesWhatNoTerminalObeys) {
  const Json value = {{"name", "a\x1b[2J\x7f\xc2\x9b\xe2\x80\xae"}};
  EXPECT_EQ(dump_json(value), R"({"name":"a\u001b[2J\u007f\u009b\u202e"})");
}

}  // namespace
}  // namespace qel_gateway
