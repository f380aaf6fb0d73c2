// SPDX-License-Identifier: Apache-2.0
//
// The grammar: which command a line means, what may follow, how a word goes on.
#include <random>

#include "tests/unit/vty/support.h"

namespace morva::shell {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using vtytest::note_call;

constexpr cmd_element kElements[] = {
    {"qel (enable|disable)", note_call, "Qel information\nEnable qel-eth\nDisable qel-eth\n"},
    {"qel debug <0-255>", note_call,
     "Debugging functions (see also 'undebug')\nDebug qel module\nvalue 0~255\n"},
    {"interface NAME", note_call, "Go to an interface\nIts name\n"},
    {"write", note_call, "Save\n"},
    {"write (file|memory|terminal)", note_call, "Save\nF\nM\nT\n"},
    {"show version", note_call, "Show\nVersion\n"},
    {"show vlan", note_call, "Show\nVLAN\n"},
    {"shift <-5-5> WORD", note_call, "Shift\nBy\nWhat\n"},
    {"show", note_call, "Show\n"},
    {"showroom NAME", note_call, "Rooms\nName\n"},
};

std::vector<Pattern> parse_all() {
  std::vector<Pattern> patterns;
  for (const cmd_element& element : kElements) {
    EXPECT_TRUE(pattern_parse(element, patterns.emplace_back())) << element.string;
  }
  return patterns;
}

class MatchTest : public testing::Test {
 protected:
  // "syntax -> arguments" of the command, or the status's letter and the column.
  std::string match(std::string_view line) const {
    const MatchResult result = match_line(patterns_, line);
    if (result.status != MatchStatus::kOk) {
      constexpr const char* kNames[] = {"ok", "empty", "unknown", "ambiguous", "incomplete"};
      return std::string(kNames[static_cast<int>(result.status)]) + " " +
             std::to_string(result.column);
    }
    std::string text = result.pattern->element->string;
    for (const std::string& argument : result.arguments) {
      text += " [" + argument + "]";
    }
    return text;
  }

  std::vector<std::string> help(std::string_view line) const {
    const HelpResult result = match_help(patterns_, line);
    std::vector<std::string> rows;
    for (const Choice& row : result.rows) {
      rows.push_back(std::string(row.word) + ": " + std::string(row.help));
    }
    return rows;
  }

  const std::vector<Pattern> patterns_ = parse_all();
};

TEST_F(MatchTest, FullWords) {
  EXPECT_EQ(match("qel enable"), "qel (enable|disable) [enable]");
  EXPECT_EQ(match("qel disable"), "qel (enable|disable) [disable]");
  EXPECT_EQ(match("qel debug 36"), "qel debug <0-255> [36]");
  EXPECT_EQ(match("interface ge1"), "interface NAME [ge1]");
}

TEST_F(MatchTest, BlanksDoNotCount) {
  EXPECT_EQ(match("  qel \t  debug\t36   "), "qel debug <0-255> [36]");
  EXPECT_EQ(match(""), "empty 0");
  EXPECT_EQ(match(" \t "), "empty 0");
  EXPECT_EQ(match("  ! qel disable"), "empty 0");
  EXPECT_EQ(match("# qel disable"), "empty 0");
}

TEST_F(MatchTest, UniqueAbbreviationsAreWrittenOut) {
  EXPECT_EQ(match("q e"), "qel (enable|disable) [enable]");
  EXPECT_EQ(match("qe di"), "qel (enable|disable) [disable]");
  EXPECT_EQ(match("q de 0"), "qel debug <0-255> [0]");
  EXPECT_EQ(match("w m"), "write (file|memory|terminal) [memory]");
  EXPECT_EQ(match("i e"), "interface NAME [e]");
}

TEST_F(MatchTest, AmbiguityIsAtTheWordThatHasIt) {
  EXPECT_EQ(match("qel d"), "ambiguous 4");
  EXPECT_EQ(match("  qel   d 5"), "ambiguous 8");
  EXPECT_EQ(match("sh version"), "ambiguous 0");  // shift, show, showroom
  EXPECT_EQ(match("show v"), "ambiguous 5");
}

TEST_F(MatchTest, AFullWordBeatsTheBeginningOfAnother) {
  EXPECT_EQ(match("show version"), "show version");
  EXPECT_EQ(match("show"), "show");
  EXPECT_EQ(match("showr x"), "showroom NAME [x]");
  EXPECT_EQ(match("write"), "write");
}

TEST_F(MatchTest, UnknownWords) {
  EXPECT_EQ(match("xyzzy"), "unknown 0");
  EXPECT_EQ(match("qel enabled"), "unknown 4");
  EXPECT_EQ(match("qel enable now"), "unknown 11");
  EXPECT_EQ(match("QEL enable"), "unknown 0");
}

TEST_F(MatchTest, IncompleteLines) {
  EXPECT_EQ(match("qel"), "incomplete 4");
  EXPECT_EQ(match("qel debug"), "incomplete 10");
  EXPECT_EQ(match("qel debug   "), "incomplete 10");
  EXPECT_EQ(match("interface"), "incomplete 10");
}

TEST_F(MatchTest, RangesTakeTheirNumbersOnly) {
  EXPECT_EQ(match("qel debug 0"), "qel debug <0-255> [0]");
  EXPECT_EQ(match("qel debug 255"), "qel debug <0-255> [255]");
  for (const char* line : {"qel debug 256", "qel debug -1", "qel debug 1x", "qel debug 0x10",
                           "qel debug +1", "qel debug 99999999999999999999999999", "qel debug -"}) {
    EXPECT_EQ(match(line), "unknown 10") << line;
  }
  EXPECT_EQ(match("shift -5 a"), "shift <-5-5> WORD [-5] [a]");
  EXPECT_EQ(match("shift 5 b"), "shift <-5-5> WORD [5] [b]");
  EXPECT_EQ(match("shift -6 a"), "unknown 6");
}

TEST_F(MatchTest, HelpListsWhatMayCome) {
  EXPECT_THAT(help("qel "), ElementsAre("debug: Debug qel module", "disable: Disable qel-eth",
                                        "enable: Enable qel-eth"));
  EXPECT_THAT(help("qel d"), ElementsAre("debug: Debug qel module", "disable: Disable qel-eth"));
  EXPECT_THAT(help("q"), ElementsAre("qel: Qel information"));
  EXPECT_THAT(help("qel debug "), ElementsAre("<0-255>: value 0~255"));
  EXPECT_THAT(help("qel debug 3"), ElementsAre("<0-255>: value 0~255"));
  EXPECT_THAT(help("interface "), ElementsAre("NAME: Its name"));
  EXPECT_THAT(help("write "), ElementsAre("file: F", "memory: M", "terminal: T", "<cr>: "));
  EXPECT_THAT(help("qel debug 3 "), ElementsAre("<cr>: "));
  EXPECT_EQ(help("").size(), 6u);  // interface qel shift show showroom write
}

TEST_F(MatchTest, HelpAfterAFaultSaysWhere) {
  const HelpResult unknown = match_help(patterns_, "qel frobnicate ");
  EXPECT_EQ(unknown.status, MatchStatus::kUnknown);
  EXPECT_EQ(unknown.column, 4u);
  const HelpResult nothing_begins_so = match_help(patterns_, "qel x");
  EXPECT_EQ(nothing_begins_so.status, MatchStatus::kUnknown);
  EXPECT_EQ(nothing_begins_so.column, 4u);
  const HelpResult ambiguous = match_help(patterns_, "qel d ");
  EXPECT_EQ(ambiguous.status, MatchStatus::kAmbiguous);
  EXPECT_EQ(ambiguous.column, 4u);
}

TEST_F(MatchTest, CompletionGoesAsFarAsAllAgree) {
  EXPECT_EQ(match_complete(patterns_, "q").insertion, "el ");
  EXPECT_EQ(match_complete(patterns_, "qel").insertion, " ");
  EXPECT_EQ(match_complete(patterns_, "qel e").insertion, "nable ");
  EXPECT_EQ(match_complete(patterns_, "sho").insertion, "w");
  EXPECT_EQ(match_complete(patterns_, "qel d").insertion, "");
  EXPECT_THAT(match_complete(patterns_, "qel d").candidates, ElementsAre("debug", "disable"));
  EXPECT_THAT(match_complete(patterns_, "interface g").candidates, IsEmpty());
  EXPECT_THAT(match_complete(patterns_, "nonsense q").candidates, IsEmpty());
}

TEST_F(MatchTest, InterfacesAreToldWhereOneMayStand) {
  constexpr std::string_view kNames[] = {"ge1", "ge2", "ge10", "vlanif1"};
  EXPECT_EQ(match_complete(patterns_, "interface v", kNames).insertion, "lanif1 ");
  EXPECT_EQ(match_complete(patterns_, "interface g", kNames).insertion, "e");
  EXPECT_EQ(match_complete(patterns_, "in ge2", kNames).insertion, " ");
  EXPECT_EQ(match_complete(patterns_, "interface ge1", kNames).insertion, "");
  EXPECT_THAT(match_complete(patterns_, "interface ge1", kNames).candidates,
              ElementsAre("ge1", "ge10"));
  EXPECT_THAT(match_complete(patterns_, "interface ", kNames).candidates,
              ElementsAre("ge1", "ge2", "ge10", "vlanif1"));
  EXPECT_THAT(match_complete(patterns_, "interface x", kNames).candidates, IsEmpty());
  // Other free words are no interfaces, nor is what comes behind one.
  EXPECT_THAT(match_complete(patterns_, "showroom g", kNames).candidates, IsEmpty());
  EXPECT_THAT(match_complete(patterns_, "interface ge1 g", kNames).candidates, IsEmpty());
  std::vector<std::string> words;
  for (const Choice& row : match_help(patterns_, "interface g", kNames).rows) {
    words.emplace_back(row.word);
  }
  EXPECT_THAT(words, ElementsAre("NAME", "ge1", "ge2", "ge10"));
  EXPECT_EQ(match_help(patterns_, "showroom ", kNames).rows.size(), 1u);
}

TEST(PatternTest, RefusesWhatIsNoSyntax) {
  for (const char* text :
       {"", "  ", "a (b|", "a (b||c)", "a ()", "a <1-b>", "a <5-1>", "a <12>", "a (b c|d)"}) {
    const cmd_element element = {text, note_call, ""};
    Pattern pattern;
    EXPECT_FALSE(pattern_parse(element, pattern)) << text;
  }
}

TEST(PatternTest, BlanksInAlternativesAndMissingHelpAreFine) {
  const cmd_element element = {"a ( b | c )", note_call, "A\n"};
  Pattern pattern;
  ASSERT_TRUE(pattern_parse(element, pattern));
  ASSERT_EQ(pattern.tokens.size(), 2u);
  EXPECT_EQ(pattern.tokens[1].choices[1].word, "c");
  EXPECT_EQ(pattern.tokens[1].choices[1].help, "");
}

TEST_F(MatchTest, AnyBytesAtAll) {
  std::mt19937 random(4711);
  constexpr std::string_view kLetters = "qel debug 123 <>()|enable\t\xff";
  for (int i = 0; i < 20000; i++) {
    std::string line(random() % 40, ' ');
    for (char& c : line) {
      c = random() % 8 == 0 ? static_cast<char>(random()) : kLetters[random() % kLetters.size()];
    }
    const MatchResult result = match_line(patterns_, line);
    EXPECT_EQ(result.status == MatchStatus::kOk, result.pattern != nullptr);
    EXPECT_LE(match_help(patterns_, line).column, line.size());
    match_complete(patterns_, line);
  }
}

}  // namespace
}  // namespace morva::shell
