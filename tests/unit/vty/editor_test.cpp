// SPDX-License-Identifier: Apache-2.0
//
// The line editor, byte by byte. The rule behind all cases: what the terminal shows is the line.
#include <random>

#include "platform/linux/vty_editor.h"
#include "tests/unit/vty/support.h"

namespace morva::shell {
namespace {

class EditorTest : public testing::Test {
 protected:
  EditorAction type(std::string_view bytes) {
    EditorAction last = EditorAction::kNone;
    for (const char byte : bytes) {
      std::string echo;
      last = editor_feed(editor_, static_cast<uint8_t>(byte), echo);
      screen_.feed(echo);
    }
    return last;
  }

  void expect(std::string_view line, size_t cursor) {
    EXPECT_EQ(editor_.line, line);
    EXPECT_EQ(editor_.cursor, cursor);
    // The screen's row ends at its last letter.
    EXPECT_EQ(screen_.row(), line.substr(0, line.find_last_not_of(' ') + 1));
    EXPECT_EQ(screen_.column(), cursor);
  }

  Editor editor_;
  vtytest::Screen screen_;
};

TEST_F(EditorTest, TextAndEnter) {
  EXPECT_EQ(type("qel debug"), EditorAction::kNone);
  expect("qel debug", 9);
  EXPECT_EQ(type("\r"), EditorAction::kEnter);
  expect("qel debug", 9);
}

TEST_F(EditorTest, OneEnterForEachLineEnd) {
  EXPECT_EQ(type("\r"), EditorAction::kEnter);
  EXPECT_EQ(type("\n"), EditorAction::kNone);
  EXPECT_EQ(type("\n"), EditorAction::kEnter);
  EXPECT_EQ(type("\r"), EditorAction::kEnter);
  EXPECT_EQ(type(std::string_view("\0", 1)), EditorAction::kNone);
  EXPECT_EQ(type("\r"), EditorAction::kEnter);
  EXPECT_EQ(type("\r"), EditorAction::kEnter);
}

TEST_F(EditorTest, InsertingInTheMiddle) {
  type(
      "qel bug\x1b[D\x1b[D\x1b[D"
      "de");
  expect("qel debug", 6);
}

TEST_F(EditorTest, MovingStopsAtTheEdges) {
  type("ab\x02\x02\x02\x02x\x06\x06\x06\x06y");
  expect("xaby", 4);
  type("\x01z\x05!");
  expect("zxaby!", 6);
}

TEST_F(EditorTest, HomeAndEndKeysOfAllTerminals) {
  for (const char* home : {"\x1b[H", "\x1bOH", "\x1b[1~", "\x1b[7~", "\x01"}) {
    for (const char* last : {"\x1b[F", "\x1bOF", "\x1b[4~", "\x1b[8~", "\x05"}) {
      editor_ = Editor();
      screen_ = vtytest::Screen();
      type("bc");
      type(home);
      type("a");
      type(last);
      type("d");
      expect("abcd", 4);
    }
  }
}

TEST_F(EditorTest, Erasing) {
  type("abcdef\x7f\x08");
  expect("abcd", 4);
  type("\x01\x04\x1b[3~");
  expect("cd", 0);
  type("\x7f");
  expect("cd", 0);
  type("\x05\x1b[3~");
  expect("cd", 2);
}

TEST_F(EditorTest, KillingParts) {
  type("one two  three\x17");
  expect("one two  ", 9);
  type("\x17");
  expect("one ", 4);
  type("two\x01\x06\x06\x0b");
  expect("on", 2);
  type(" more\x02\x02\x15");
  expect("re", 0);
}

TEST_F(EditorTest, KeysForTheSession) {
  EXPECT_EQ(type("?"), EditorAction::kHelp);
  EXPECT_EQ(type("\t"), EditorAction::kComplete);
  EXPECT_EQ(type("\x03"), EditorAction::kInterrupt);
  EXPECT_EQ(type("\x1a"), EditorAction::kLeave);
  EXPECT_EQ(type("\x0c"), EditorAction::kRedraw);
  EXPECT_EQ(type("\x10"), EditorAction::kPrevious);
  EXPECT_EQ(type("\x0e"), EditorAction::kNext);
  EXPECT_EQ(type("\x1b[A"), EditorAction::kPrevious);
  EXPECT_EQ(type("\x1bOB"), EditorAction::kNext);
  EXPECT_EQ(type("\x04"), EditorAction::kEndOfFile);
  type("x");
  EXPECT_EQ(type("\x04"), EditorAction::kNone);
  expect("x", 1);
}

TEST_F(EditorTest, AQuotedQuestionMarkIsText) {
  EXPECT_EQ(type("what\x16?"), EditorAction::kNone);
  expect("what?", 5);
}

TEST_F(EditorTest, BytesThatAreNoKeysLeaveNoTrace) {
  for (int byte = 0x80; byte <= 0xff; byte++) {
    const char raw = static_cast<char>(byte);
    type({&raw, 1});
  }
  EXPECT_EQ(screen_.bells(), 128);
  type("\x1b[12;34;5z\x1b[99999999999~\x1bx");
  type(std::string_view("\0\x06", 2));
  expect("", 0);
  EXPECT_EQ(screen_.bells(), 128);
}

TEST_F(EditorTest, WhatIsNotTakenRings) {
  type("z\xc3\xbcrich");  // a letter of two bytes
  expect("zrich", 5);
  EXPECT_EQ(screen_.bells(), 2);
  type("\x07\x1d");  // controls that are no keys
  EXPECT_EQ(screen_.bells(), 4);
  type("\x16\xff\x16\r");  // quoting makes no text of them
  EXPECT_EQ(screen_.bells(), 6);
  expect("zrich", 5);
}

TEST_F(EditorTest, AnUnfinishedSequenceDoesNotSwallowTheLineEnd) {
  for (const char* begun : {"\x1b", "\x1b[", "\x1b[1", "\x1bO"}) {
    type(begun);
    EXPECT_EQ(type("\r"), EditorAction::kEnter) << begun + 1;
  }
}

TEST_F(EditorTest, ALineHasItsLimit) {
  const std::string full(Editor::kMaximum, 'a');
  type(full);
  EXPECT_FALSE(editor_.overlong);
  expect(full, Editor::kMaximum);
  type(std::string(100000, 'b'));
  EXPECT_TRUE(editor_.overlong);
  EXPECT_EQ(screen_.bells(), 1);
  expect(full, Editor::kMaximum);
  editor_clear(editor_);
  EXPECT_FALSE(editor_.overlong);
}

TEST_F(EditorTest, ReplacingALine) {
  type("a long line that was typed\x01\x06");
  std::string echo;
  editor_replace(editor_, "short", echo);
  screen_.feed(echo);
  expect("short", 5);
  echo.clear();
  editor_replace(editor_, std::string(2 * Editor::kMaximum, 'x'), echo);
  screen_.feed(echo);
  expect(std::string(Editor::kMaximum, 'x'), Editor::kMaximum);
}

TEST_F(EditorTest, ShowingTheLineAgain) {
  type("qel debug\x02\x02");
  vtytest::Screen fresh;
  std::string echo;
  editor_show(editor_, echo);
  fresh.feed(echo);
  EXPECT_EQ(fresh.row(), "qel debug");
  EXPECT_EQ(fresh.column(), 7u);
}

// --- lines of several rows, on a terminal of 10 columns with a prompt of 4

class WrappedEditorTest : public EditorTest {
 protected:
  WrappedEditorTest() {
    screen_ = vtytest::Screen(10);
    screen_.feed("qel>");
    editor_.columns = 10;
    editor_.prompt = 4;
  }

  std::string echo_of(std::string_view bytes) {
    std::string echo;
    for (const char byte : bytes) {
      editor_feed(editor_, static_cast<uint8_t>(byte), echo);
    }
    screen_.feed(echo);
    return echo;
  }
};

TEST_F(WrappedEditorTest, TheEndOfARowIsTheBeginningOfTheNext) {
  EXPECT_EQ(echo_of("abcde"), "abcde");
  EXPECT_EQ(echo_of("f"), "f \r");
  EXPECT_EQ(echo_of("g"), "g");
  EXPECT_EQ(echo_of("\x7f"), "\b \b");
  EXPECT_EQ(echo_of("\x7f"), "\x1b[1A\r\x1b[9C  \r\x1b[1A\r\x1b[9C");
  EXPECT_EQ(screen_.rows(), "qel>abcde\n");
}

TEST_F(WrappedEditorTest, MovingOverTheEndsOfRows) {
  EXPECT_EQ(echo_of("abcdefghijklmnopqrst"), "abcdef \rghijklmnop \rqrst");
  EXPECT_EQ(screen_.rows(), "qel>abcdef\nghijklmnop\nqrst");
  EXPECT_EQ(echo_of("\x01"), "\x1b[2A\r\x1b[4C");
  EXPECT_EQ(screen_.column(), 4u);
  EXPECT_EQ(echo_of("\x05"), "abcdefghijklmnopqrst");
  EXPECT_EQ(echo_of("\x02\x02\x02\x02"), "\b\b\b\b");
  EXPECT_EQ(echo_of("\x02"), "\x1b[1A\r\x1b[9C");
  EXPECT_EQ(echo_of("\x06"), "pq\r");
  EXPECT_EQ(echo_of("\x06"), "q");
  EXPECT_EQ(screen_.rows(), "qel>abcdef\nghijklmnop\nqrst");
}

TEST_F(WrappedEditorTest, ChangingTheMiddleMovesTheRowsBelow) {
  echo_of("abcdefghijklmnopqrst\x01\x06\x06");
  EXPECT_EQ(echo_of("X"), "Xcdefghijklmnopqrst\x1b[2A\r\x1b[7C");
  EXPECT_EQ(screen_.rows(), "qel>abXcde\nfghijklmno\npqrst");
  EXPECT_EQ(echo_of("\x7f"), "\bcdefghijklmnopqrst \x1b[2A\r\x1b[6C");
  EXPECT_EQ(screen_.rows(), "qel>abcdef\nghijklmnop\nqrst");
  EXPECT_EQ(echo_of("\x0b"), "                  \x1b[2A\r\x1b[6C");
  EXPECT_EQ(screen_.rows(), "qel>ab\n\n");
}

TEST_F(WrappedEditorTest, LeavingTheLineGoesToItsEnd) {
  echo_of("abcdefgh\x01\x06");
  std::string echo;
  editor_leave(editor_, echo);
  EXPECT_EQ(echo, "bcdefgh");
  EXPECT_EQ(editor_.cursor, 1u);
  echo.clear();
  echo_of("\x05");
  editor_leave(editor_, echo);
  EXPECT_EQ(echo, "");
}

TEST_F(WrappedEditorTest, ReplacingAndShowingALineOfSeveralRows) {
  echo_of("abcdefghijk");
  std::string echo;
  editor_replace(editor_, "one", echo);
  EXPECT_EQ(echo, "\x1b[1A\r\x1b[4Cone        \x1b[1A\r\x1b[7C");
  screen_.feed(echo);
  EXPECT_EQ(screen_.rows(), "qel>one\n");
  echo_of("twothree\x01");
  echo.clear();
  editor_show(editor_, echo);
  EXPECT_EQ(echo, "onetwothree\x1b[1A\r\x1b[4C");
}

TEST_F(WrappedEditorTest, APromptOfAFullRow) {
  screen_ = vtytest::Screen(10);
  screen_.feed("switch-01>");
  editor_.prompt = 10;
  echo_of("abc\x15");
  EXPECT_EQ(screen_.rows(), "switch-01>\n");
  echo_of("abc\x01X");
  EXPECT_EQ(screen_.rows(), "switch-01>\nXabc");
  EXPECT_EQ(screen_.column(), 11u);
}

TEST_F(WrappedEditorTest, WhateverIsTypedTheScreenShowsTheLine) {
  std::mt19937 random(204);
  constexpr std::string_view kKeys = "\x01\x02\x04\x05\x06\x08\x0b\x15\x17\x7f\x1b[ADOHF31~ \x16";
  for (int i = 0; i < 100000; i++) {
    const unsigned pick = random() % 4;
    const char byte =
        pick == 0 ? kKeys[random() % kKeys.size()] : static_cast<char>('a' + random() % 26);
    type({&byte, 1});
    const std::string& line = editor_.line;
    ASSERT_EQ(screen_.column(), 4 + editor_.cursor);
    ASSERT_EQ(screen_.row(), "qel>" + line.substr(0, line.find_last_not_of(' ') + 1));
    if (line.size() > 45) {
      type("\x15\x0b");
    }
  }
}

// --- any keys

TEST_F(EditorTest, WhateverIsTypedTheScreenShowsTheLine) {
  std::mt19937 random(815);
  constexpr std::string_view kKeys = "\x01\x02\x04\x05\x06\x08\x0b\x15\x17\x7f\x1b[ADOHF31~ \x16";
  for (int i = 0; i < 200000; i++) {
    const unsigned pick = random() % 4;
    const char byte = pick == 0   ? static_cast<char>(random())
                      : pick == 1 ? kKeys[random() % kKeys.size()]
                                  : static_cast<char>('a' + random() % 26);
    type({&byte, 1});
    ASSERT_LE(editor_.cursor, editor_.line.size());
    ASSERT_EQ(screen_.column(), editor_.cursor);
    ASSERT_EQ(screen_.row(), editor_.line.substr(0, editor_.line.find_last_not_of(' ') + 1));
    if (editor_.line.size() > 60) {
      type("\x15\x0b");
    }
  }
}

}  // namespace
}  // namespace morva::shell
