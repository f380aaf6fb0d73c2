// SPDX-License-Identifier: Apache-2.0
//
// The grammar of the shell's commands: parses the syntax text of a command once, then answers three
// questions about a typed line: which command is it, what may come next, how does this word go on.
// Pure functions over their arguments: no session, no output, no state. Lines may hold any byte.
//
// A word fits a literal or an alternative in full, or as the beginning of one; a number fits a
// range; anything fits a free word. At each word only the commands that it fits best stay in the
// race, in that order, so "di" reaches "disable" though a free word would have taken it too.
#ifndef MORVA_PLATFORM_LINUX_VTY_MATCH_H
#define MORVA_PLATFORM_LINUX_VTY_MATCH_H

#include <cstddef>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/vty.h"

namespace morva::shell {

enum class TokenKind {
  kLiteral,  // one fixed word, not an argument
  kChoice,   // "(a|b)": one of several fixed words
  kRange,    // "<0-255>": a decimal number
  kName,     // "NAME": any word
};

// A word as it stands in the syntax (or one of its alternatives), with its line of help.
struct Choice {
  std::string_view word;
  std::string_view help;
};

struct Token {
  TokenKind kind = TokenKind::kLiteral;
  std::vector<Choice> choices;  // one, or for kChoice as many as there are
  long long minimum = 0;        // kRange only
  long long maximum = 0;
  bool interface = false;  // kName only: the name of an interface, behind the word "interface"
};

// A command ready for matching. Its views point into the element's texts.
struct Pattern {
  const cmd_element* element = nullptr;
  std::vector<Token> tokens;
};

enum class MatchStatus {
  kOk,
  kEmpty,       // nothing but blanks, or a comment ("!" or "#")
  kUnknown,     // no command has this word here
  kAmbiguous,   // several do
  kIncomplete,  // the line ends before any command does
};

struct MatchResult {
  MatchStatus status = MatchStatus::kEmpty;
  size_t column = 0;                   // offset of the word at fault; line end for kIncomplete
  const Pattern* pattern = nullptr;    // for kOk
  std::vector<std::string> arguments;  // for kOk: variable words, alternatives written out
};

struct HelpResult {
  MatchStatus status = MatchStatus::kOk;  // kOk, kUnknown or kAmbiguous
  size_t column = 0;                      // offset of the word at fault
  // Sorted by word; then interfaces; "<cr>" last: the line may end here.
  std::vector<Choice> rows;
};

struct Completion {
  std::string insertion;                     // to be inserted at the line's end; may be empty
  std::vector<std::string_view> candidates;  // the words that fit, sorted; then interfaces
};

// Names of interfaces, in the order in which they are to be shown.
using Names = std::span<const std::string_view>;

// Parses the syntax of `element` into `pattern`. Returns false when the text is not a syntax
// (no word, empty alternative, range without numbers); `pattern` is then not to be used.
bool pattern_parse(const cmd_element& element, Pattern& pattern);

// Finds the command that `line` means.
MatchResult match_line(std::span<const Pattern> patterns, std::string_view line);

// What may stand at the end of `line` (its last word, if it does not end in a blank, being begun).
// Where an interface may stand, those of `interfaces` are told, which the result points into.
HelpResult match_help(std::span<const Pattern> patterns, std::string_view line,
                      Names interfaces = {});

// How the last word of `line` goes on: as far as all candidates agree, and a blank when only one is
// left. `interfaces` as above.
Completion match_complete(std::span<const Pattern> patterns, std::string_view line,
                          Names interfaces = {});

}  // namespace morva::shell

#endif  // MORVA_PLATFORM_LINUX_VTY_MATCH_H
