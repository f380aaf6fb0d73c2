// SPDX-License-Identifier: Apache-2.0
//
// Text for terminals.
#include "gateway/text.h"

#include <gtest/gtest.h>

#include "gateway/mac.h"

namespace qel_gateway {
namespace {

using namespace std::string_literals;

TEST(Text, TakesAwayWhatATerminalObeys) {
  EXPECT_EQ(terminal_text("office-sw"), "office-sw");
  EXPECT_EQ(terminal_text("\x1b[31mred\x1b[0m"), "?[31mred?[0m");
  EXPECT_EQ(terminal_text("a\nb\tc\rd\0e"s), "a?b?c?d?e");
  EXPECT_EQ(terminal_text("\x7f"), "?");
  EXPECT_EQ(terminal_text("\xc2\x9b"
                          "2J"),
            "?2J");  // the one-character CSI
  EXPECT_EQ(terminal_text("\xe2\x80\xae"
                          "abc"),
            "?abc");                              // right-to-left override
  EXPECT_EQ(terminal_text("\xe2\x80\x8b"), "?");  // zero width
  EXPECT_EQ(terminal_text("e\xcc\x81"), "e?");    // combining mark
}

TEST(Text, TakesAwayWhatIsNoUtf8) {
  EXPECT_EQ(terminal_text("\xff\xfe"), "??");
  EXPECT_EQ(terminal_text("\xc3"), "?");
  EXPECT_EQ(terminal_text("\xc0\xaf"), "??");  // overlong
  EXPECT_EQ(terminal_text("\xe0\x80\xaf"), "???");
  EXPECT_EQ(terminal_text("\xed\xa0\x80"), "?");         // surrogate
  EXPECT_EQ(terminal_text("\xf4\x90\x80\x80"), "????");  // beyond Unicode
}

TEST(Text, KeepsOtherScripts) {
  EXPECT_EQ(terminal_text("Büro-Ü1"), "Büro-Ü1");
  EXPECT_EQ(terminal_text("交换机"), "交换机");
}

TEST(Text, KeepsAtMostTheLimit) {
  EXPECT_EQ(terminal_text("abcdef", 3), "abc");
  EXPECT_EQ(terminal_text("ÄÖÜ", 2), "ÄÖ");
}

TEST(Text, MeasuresColumns) {
  EXPECT_EQ(text_width(""), 0u);
  EXPECT_EQ(text_width("Büro"), 4u);
  EXPECT_EQ(text_width("交换机"), 6u);
}

TEST(Text, FitsWithAnEllipsis) {
  EXPECT_EQ(fit_text("office", 6), "office");
  EXPECT_EQ(fit_text("office", 5), "offi…");
  EXPECT_EQ(fit_text("office", 1), "…");
  EXPECT_EQ(fit_text("office", 0), "");
  EXPECT_EQ(fit_text("交换机", 5), "交换…");
  EXPECT_EQ(fit_text("交换机", 4), "交…");
}

TEST(Text, WritesDurations) {
  EXPECT_EQ(short_duration(0), "0s");
  EXPECT_EQ(short_duration(59), "59s");
  EXPECT_EQ(short_duration(60), "1m 0s");
  EXPECT_EQ(short_duration(3599), "59m 59s");
  EXPECT_EQ(short_duration(3600), "1h 0m");
  EXPECT_EQ(short_duration(86399), "23h 59m");
  EXPECT_EQ(short_duration(90000), "1d 1h");
}

TEST(Text, WritesFigures) {
  EXPECT_EQ(short_count(0), "0");
  EXPECT_EQ(short_count(999), "999");
  EXPECT_EQ(short_count(1000), "1.0k");
  EXPECT_EQ(short_count(9999), "9.9k");
  EXPECT_EQ(short_count(10000), "10k");
  EXPECT_EQ(short_count(12500000), "12M");
  EXPECT_EQ(short_count(18446744073709551615U), "18E");
  EXPECT_EQ(short_size(512), "512 B");
  EXPECT_EQ(short_size(1536), "1.5 KB");
  EXPECT_EQ(short_size(8000000), "8.0 MB");
}

TEST(Mac, ReadsThreeForms) {
  const MacAddress mac{{0x0A, 0x1B, 0x2C, 0x3D, 0x4E, 0x5F}};
  EXPECT_EQ(parse_mac("0a1b2c3d4e5f"), mac);
  EXPECT_EQ(parse_mac("0A:1B:2c:3d:4e:5f"), mac);
  EXPECT_EQ(parse_mac("0a-1b-2c-3d-4e-5f"), mac);
  for (const char* wrong : {"", "0a1b2c3d4e5", "0a1b2c3d4e5g", "0a:1b:2c:3d:4e-5f",
                            "0a.1b.2c.3d.4e.5f", "0a1b2c3d4e5f0", "all", "0a:1b:2c:3d:4e:5"}) {
    EXPECT_FALSE(parse_mac(wrong)) << wrong;
  }
  EXPECT_EQ(mac_text(mac), "0a1b2c3d4e5f");
  EXPECT_EQ(mac_display(mac), "0a:1b:2c:3d:4e:5f");
}

}  // namespace
}  // namespace qel_gateway
