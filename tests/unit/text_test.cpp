// SPDX-License-Identifier: Apache-2.0
//
// What may stand in a JSON string as it is, and the writer that leaves the rest out.
#include "qel/qel_text.h"

#include <gtest/gtest.h>

#include <array>
#include <string>

namespace {

TEST(PlainTextTest, OrdinaryTextsOfAnyLengthArePlain) {
  for (const std::string& text :
       {std::string(), std::string("ge1"), std::string(" !#[]^`{|}~/':,%"),
        std::string("B\xc3\xbcro \xe2\x82\xac"), std::string("\x80\xff"),
        std::string(70000, 'n')}) {
    EXPECT_TRUE(qel_text_is_plain(text)) << text;
  }
}

TEST(PlainTextTest, QuoteBackslashAndControlBytesAreNotPlainAnywhere) {
  std::string bad = "\"\\\x7f";
  for (char c = 0; c < 0x20; ++c) {
    bad += c;
  }
  ASSERT_EQ(bad.size(), 35U);
  for (const char c : bad) {
    EXPECT_FALSE(qel_text_is_plain(std::string(1, c))) << int{c};
    EXPECT_FALSE(qel_text_is_plain(std::string("ab") + c)) << int{c};
    EXPECT_FALSE(qel_text_is_plain(c + std::string("ab"))) << int{c};
  }
}

TEST(PlainTextTest, WriterLeavesOutWhatIsNotPlain) {
  std::array<char, 64> area = {};
  qel_text text(area.data(), area.size());
  text.put('<');
  text.put_plain(
      "a\"b\\c\x01\n\x1f"
      " d\x7f~\xc3\xa4\"");
  text.put('>');
  EXPECT_EQ(text.view(), "<abc d~\xc3\xa4>");
  EXPECT_EQ(text.length(), 10U);
}

TEST(PlainTextTest, WriterTakesAnOrdinaryTextByteForByte) {
  std::array<char, 16> area = {};
  qel_text text(area.data(), area.size());
  text.put_plain("");
  text.put_plain("attic switch 3/");
  EXPECT_EQ(text.view(), "attic switch 3/");
  EXPECT_FALSE(text.overflowed());
  text.put_plain("x");
  EXPECT_TRUE(text.overflowed());
  EXPECT_EQ(text.view(), "attic switch 3/");
}

TEST(PlainTextTest, BytesLeftOutTakeNoRoom) {
  std::array<char, 4> area = {};
  qel_text text(area.data(), area.size());
  text.put_plain("\"\"\"\"a\\b\nc");
  EXPECT_EQ(text.view(), "abc");
  EXPECT_FALSE(text.overflowed());
  text.put_plain("\"d");
  EXPECT_TRUE(text.overflowed());
  EXPECT_EQ(text.length(), 4U);
  EXPECT_EQ(text.view(), "abc");
}

}  // namespace
