// SPDX-License-Identifier: Apache-2.0
//
// See vty_match.h.
#include "platform/linux/vty_match.h"

#include <algorithm>
#include <charconv>
#include <iterator>

namespace morva::shell {
namespace {

constexpr std::string_view kBlanks = " \t";
constexpr std::string_view kLineMayEnd = "<cr>";
constexpr std::string_view kInterfaceWord = "interface";

// How well a word fits a place, worst first; the order is what matters.
enum class Fit { kNone, kName, kRange, kBegun, kFull };

struct Word {
  std::string_view text;
  size_t column;
};

std::vector<Word> split(std::string_view line) {
  std::vector<Word> words;
  size_t begin = line.find_first_not_of(kBlanks);
  while (begin != std::string_view::npos) {
    const size_t end = std::min(line.find_first_of(kBlanks, begin), line.size());
    words.push_back({line.substr(begin, end - begin), begin});
    begin = line.find_first_not_of(kBlanks, end);
  }
  return words;
}

bool parse_number(std::string_view text, long long& value) {
  const char* end = text.data() + text.size();
  const auto result = std::from_chars(text.data(), end, value);
  return result.ec == std::errc() && result.ptr == end;
}

// Takes the next line of help off the front of `doc`; empty when there is none left.
std::string_view take_help(std::string_view& doc) {
  const size_t end = std::min(doc.find('\n'), doc.size());
  const std::string_view help = doc.substr(0, end);
  doc.remove_prefix(std::min(end + 1, doc.size()));
  return help;
}

bool parse_alternatives(std::string_view text, std::string_view& doc, Token& token) {
  token.kind = TokenKind::kChoice;
  text.remove_prefix(1);
  text.remove_suffix(1);
  for (;;) {
    const size_t end = std::min(text.find('|'), text.size());
    const std::vector<Word> words = split(text.substr(0, end));
    if (words.size() != 1) {
      return false;
    }
    token.choices.push_back({words[0].text, take_help(doc)});
    if (end == text.size()) {
      return true;
    }
    text.remove_prefix(end + 1);
  }
}

bool parse_range(std::string_view text, std::string_view& doc, Token& token) {
  token.kind = TokenKind::kRange;
  token.choices.push_back({text, take_help(doc)});
  const std::string_view inner = text.substr(1, text.size() - 2);
  const size_t dash = inner.find('-', 1);  // the first byte may be a sign
  return dash != std::string_view::npos && parse_number(inner.substr(0, dash), token.minimum) &&
         parse_number(inner.substr(dash + 1), token.maximum) && token.minimum <= token.maximum;
}

bool is_name(std::string_view text) {
  bool upper = false;
  for (const char c : text) {
    if (c >= 'a' && c <= 'z') {
      return false;
    }
    upper = upper || (c >= 'A' && c <= 'Z');
  }
  return upper;
}

bool parse_token(std::string_view text, std::string_view& doc, Token& token) {
  if (text.size() >= 2 && text.front() == '(' && text.back() == ')') {
    return parse_alternatives(text, doc, token);
  }
  if (text.size() >= 4 && text.front() == '<' && text.back() == '>') {
    return parse_range(text, doc, token);
  }
  token.kind = is_name(text) ? TokenKind::kName : TokenKind::kLiteral;
  token.choices.push_back({text, take_help(doc)});
  return true;
}

// Tells the last token, if it is a free word, whether it names an interface.
void mark_interface(std::vector<Token>& tokens) {
  if (tokens.size() >= 2 && tokens.back().kind == TokenKind::kName) {
    const Token& before = tokens[tokens.size() - 2];
    tokens.back().interface =
        before.kind == TokenKind::kLiteral && before.choices.front().word == kInterfaceWord;
  }
}

Fit fit_fixed(std::string_view fixed, std::string_view word) {
  if (!fixed.starts_with(word)) {
    return Fit::kNone;
  }
  return fixed.size() == word.size() ? Fit::kFull : Fit::kBegun;
}

// How `word` fits `choice` of `token`.
Fit fit_choice(const Token& token, const Choice& choice, std::string_view word) {
  switch (token.kind) {
    case TokenKind::kLiteral:
    case TokenKind::kChoice:
      return fit_fixed(choice.word, word);
    case TokenKind::kRange: {
      long long value = 0;
      const bool fits =
          parse_number(word, value) && value >= token.minimum && value <= token.maximum;
      return fits ? Fit::kRange : Fit::kNone;
    }
    case TokenKind::kName:
      return Fit::kName;
  }
  return Fit::kNone;
}

// The choice of `token` that `word` fits best, and how well.
const Choice* best_choice(const Token& token, std::string_view word, Fit& fit) {
  const Choice* best = nullptr;
  fit = Fit::kNone;
  for (const Choice& choice : token.choices) {
    const Fit candidate = fit_choice(token, choice, word);
    if (candidate > fit) {
      fit = candidate;
      best = &choice;
    }
  }
  return best;
}

using Race = std::vector<const Pattern*>;

// True when `word` begins two different fixed words at place `index` of the patterns in the race.
bool begins_several(const Race& race, size_t index, std::string_view word) {
  std::string_view seen;
  for (const Pattern* pattern : race) {
    const Token& token = pattern->tokens[index];
    for (const Choice& choice : token.choices) {
      if (fit_choice(token, choice, word) != Fit::kBegun) {
        continue;
      }
      if (!seen.empty() && seen != choice.word) {
        return true;
      }
      seen = choice.word;
    }
  }
  return false;
}

// Keeps in the race the patterns whose place `index` the word fits best.
MatchStatus narrow(Race& race, size_t index, std::string_view word) {
  Race kept;
  Fit best = Fit::kNone;
  for (const Pattern* pattern : race) {
    if (index >= pattern->tokens.size()) {
      continue;
    }
    Fit fit;
    best_choice(pattern->tokens[index], word, fit);
    if (fit == Fit::kNone || fit < best) {
      continue;
    }
    if (fit > best) {
      kept.clear();
      best = fit;
    }
    kept.push_back(pattern);
  }
  race.swap(kept);
  if (race.empty()) {
    return MatchStatus::kUnknown;
  }
  return best == Fit::kBegun && begins_several(race, index, word) ? MatchStatus::kAmbiguous
                                                                  : MatchStatus::kOk;
}

Race all_of(std::span<const Pattern> patterns) {
  Race race;
  race.reserve(patterns.size());
  for (const Pattern& pattern : patterns) {
    race.push_back(&pattern);
  }
  return race;
}

std::vector<std::string> arguments_of(const Pattern& pattern, const std::vector<Word>& words) {
  std::vector<std::string> arguments;
  for (size_t i = 0; i < words.size(); i++) {
    const Token& token = pattern.tokens[i];
    if (token.kind == TokenKind::kChoice) {
      Fit fit;
      arguments.emplace_back(best_choice(token, words[i].text, fit)->word);
    } else if (token.kind != TokenKind::kLiteral) {
      arguments.emplace_back(words[i].text);
    }
  }
  return arguments;
}

// The race after all words but the one being typed, which is left in `begun` ("" after a blank).
struct Standing {
  MatchStatus status = MatchStatus::kOk;
  size_t column = 0;
  Race race;
  size_t index = 0;  // place of the word being typed
  std::string_view begun;
};

Standing stand_at_end(std::span<const Pattern> patterns, std::string_view line) {
  Standing standing;
  standing.race = all_of(patterns);
  standing.column = line.size();
  std::vector<Word> words = split(line);
  if (!words.empty() && kBlanks.find(line.back()) == std::string_view::npos) {
    standing.begun = words.back().text;
    standing.column = words.back().column;
    words.pop_back();
  }
  for (const Word& word : words) {
    standing.status = narrow(standing.race, standing.index, word.text);
    if (standing.status != MatchStatus::kOk) {
      standing.column = word.column;
      return standing;
    }
    standing.index++;
  }
  return standing;
}

void add_help_rows(const Standing& standing, std::vector<Choice>& rows) {
  for (const Pattern* pattern : standing.race) {
    if (standing.index >= pattern->tokens.size()) {
      continue;
    }
    const Token& token = pattern->tokens[standing.index];
    for (const Choice& choice : token.choices) {
      if (standing.begun.empty() || fit_choice(token, choice, standing.begun) != Fit::kNone) {
        rows.push_back(choice);
      }
    }
  }
  const auto by_word = [](const Choice& a, const Choice& b) { return a.word < b.word; };
  const auto same_word = [](const Choice& a, const Choice& b) { return a.word == b.word; };
  std::stable_sort(rows.begin(), rows.end(), by_word);
  rows.erase(std::unique(rows.begin(), rows.end(), same_word), rows.end());
}

// The interfaces that the word being typed may become: all that it begins, where a command in the
// race takes one.
std::vector<std::string_view> interfaces_at(const Standing& standing, Names interfaces) {
  const auto takes_one = [&](const Pattern* pattern) {
    return standing.index < pattern->tokens.size() && pattern->tokens[standing.index].interface;
  };
  std::vector<std::string_view> names;
  if (std::any_of(standing.race.begin(), standing.race.end(), takes_one)) {
    std::copy_if(interfaces.begin(), interfaces.end(), std::back_inserter(names),
                 [&](std::string_view name) { return name.starts_with(standing.begun); });
  }
  return names;
}

bool line_may_end(const Standing& standing) {
  return standing.begun.empty() && standing.index > 0 &&
         std::any_of(standing.race.begin(), standing.race.end(), [&](const Pattern* pattern) {
           return pattern->tokens.size() == standing.index;
         });
}

size_t common_length(const std::vector<std::string_view>& words) {
  size_t length = words.front().size();
  for (const std::string_view word : words) {
    length = std::min(length, word.size());
    const auto difference = std::mismatch(
        word.begin(), word.begin() + static_cast<std::ptrdiff_t>(length), words.front().begin());
    length = static_cast<size_t>(difference.first - word.begin());
  }
  return length;
}

}  // namespace

bool pattern_parse(const cmd_element& element, Pattern& pattern) {
  pattern.element = &element;
  pattern.tokens.clear();
  std::string_view syntax = element.string;
  std::string_view doc = element.doc != nullptr ? element.doc : "";
  for (;;) {
    syntax.remove_prefix(std::min(syntax.find_first_not_of(kBlanks), syntax.size()));
    if (syntax.empty()) {
      return !pattern.tokens.empty();
    }
    size_t end = std::min(syntax.find_first_of(kBlanks), syntax.size());
    if (syntax.front() == '(') {
      end = syntax.find(')');
      if (end == std::string_view::npos) {
        return false;
      }
      end++;
    }
    if (!parse_token(syntax.substr(0, end), doc, pattern.tokens.emplace_back())) {
      return false;
    }
    mark_interface(pattern.tokens);
    syntax.remove_prefix(end);
  }
}

MatchResult match_line(std::span<const Pattern> patterns, std::string_view line) {
  MatchResult result;
  const std::vector<Word> words = split(line);
  if (words.empty() || words[0].text.front() == '!' || words[0].text.front() == '#') {
    return result;
  }
  Race race = all_of(patterns);
  for (size_t i = 0; i < words.size(); i++) {
    result.status = narrow(race, i, words[i].text);
    if (result.status != MatchStatus::kOk) {
      result.column = words[i].column;
      return result;
    }
  }
  std::erase_if(race, [&](const Pattern* p) { return p->tokens.size() != words.size(); });
  if (race.size() != 1) {
    const Word& last = words.back();
    result.status = race.empty() ? MatchStatus::kIncomplete : MatchStatus::kAmbiguous;
    result.column = race.empty() ? last.column + last.text.size() + 1 : last.column;
    return result;
  }
  result.pattern = race.front();
  result.arguments = arguments_of(*result.pattern, words);
  return result;
}

HelpResult match_help(std::span<const Pattern> patterns, std::string_view line, Names interfaces) {
  const Standing standing = stand_at_end(patterns, line);
  HelpResult result;
  result.status = standing.status;
  result.column = standing.column;
  if (result.status != MatchStatus::kOk) {
    return result;
  }
  add_help_rows(standing, result.rows);
  for (const std::string_view name : interfaces_at(standing, interfaces)) {
    result.rows.push_back({name, ""});
  }
  if (line_may_end(standing)) {
    result.rows.push_back({kLineMayEnd, ""});
  }
  if (result.rows.empty()) {
    result.status = MatchStatus::kUnknown;
  }
  return result;
}

Completion match_complete(std::span<const Pattern> patterns, std::string_view line,
                          Names interfaces) {
  const Standing standing = stand_at_end(patterns, line);
  Completion completion;
  if (standing.status != MatchStatus::kOk) {
    return completion;
  }
  for (const Pattern* pattern : standing.race) {
    if (standing.index >= pattern->tokens.size()) {
      continue;
    }
    const Token& token = pattern->tokens[standing.index];
    const bool fixed = token.kind == TokenKind::kLiteral || token.kind == TokenKind::kChoice;
    for (const Choice& choice : token.choices) {
      if (fixed && choice.word.starts_with(standing.begun)) {
        completion.candidates.push_back(choice.word);
      }
    }
  }
  auto& words = completion.candidates;
  std::sort(words.begin(), words.end());
  words.erase(std::unique(words.begin(), words.end()), words.end());
  const std::vector<std::string_view> names = interfaces_at(standing, interfaces);
  words.insert(words.end(), names.begin(), names.end());
  if (words.empty()) {
    return completion;
  }
  const size_t begun = standing.begun.size();
  completion.insertion = std::string(words.front().substr(begun, common_length(words) - begun));
  if (words.size() == 1) {
    completion.insertion += ' ';
  }
  return completion;
}

}  // namespace morva::shell
