// SPDX-License-Identifier: Apache-2.0
//
// Tables as literal text.
#include "gateway/table.h"

#include <gtest/gtest.h>

namespace qel_gateway {
namespace {

Table sample() {
  Table table({{"PORT"},
               {"NAME", Align::Left, 0, 6},
               {"RATE", Align::Right},
               {"NOTE", Align::Left, 2},
               {"MORE", Align::Left, 1}});
  table.add({{"ge1", Tint::Cyan}, "Empfang West", "12M", "first", "x"});
  table.add({{"ge10", Tint::Cyan}, "Lager", "1", "", ""});
  return table;
}

TEST(Table, IsAsWideAsItsContent) {
  EXPECT_EQ(sample().text({0, false}),
            "PORT  NAME          RATE  NOTE   MORE\n"
            "ge1   Empfang West   12M  first  x\n"
            "ge10  Lager            1\n");
}

TEST(Table, LeavesOutTheHeaviestColumnsFirst) {
  EXPECT_EQ(sample().text({28, false}),
            "PORT  NAME        RATE  MORE\n"
            "ge1   Empfang W…   12M  x\n"
            "ge10  Lager          1\n");
}

TEST(Table, NarrowsWhatMayBeNarrow) {
  EXPECT_EQ(sample().text({18, false}),
            "PORT  NAME    RATE\n"
            "ge1   Empfa…   12M\n"
            "ge10  Lager      1\n");
}

TEST(Table, NeverNarrowsBelowItsLeast) {
  EXPECT_EQ(sample().text({5, false}),
            "PORT  NAME    RATE\n"
            "ge1   Empfa…   12M\n"
            "ge10  Lager      1\n");
}

TEST(Table, ColoursNeitherChangeWidthsNorReachTheFill) {
  EXPECT_EQ(sample().text({18, true}),
            "\033[1mPORT\033[0m  \033[1mNAME\033[0m    \033[1mRATE\033[0m\n"
            "\033[36mge1\033[0m   Empfa…   12M\n"
            "\033[36mge10\033[0m  Lager      1\n");
}

TEST(Table, LeavesOutColumnsWithoutContent) {
  Table table({{"A"}, {"B"}, {"C"}});
  table.add({"1", "", "3"});
  EXPECT_EQ(table.text({0, false}), "A  C\n1  3\n");
}

TEST(Table, WideCharactersCountTwo) {
  Table table({{"NAME"}, {"N"}});
  table.add({"交换机", "1"});
  table.add({"sw", "2"});
  EXPECT_EQ(table.text({0, false}), "NAME    N\n交换机  1\nsw      2\n");
}

TEST(Table, TintsAreOffWithoutColour) {
  EXPECT_EQ(tinted("up", Tint::Green, false), "up");
  EXPECT_EQ(tinted("up", Tint::Green, true), "\033[32mup\033[0m");
  EXPECT_EQ(tinted("", Tint::Green, true), "");
}

}  // namespace
}  // namespace qel_gateway
