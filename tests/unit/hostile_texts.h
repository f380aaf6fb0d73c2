// SPDX-License-Identifier: Apache-2.0
//
// Messages that no honest gateway sends. Each must be survived, over Ethernet and over UDP alike.
#pragma once

#include <gtest/gtest.h>

#include <optional>
#include <ostream>
#include <string>
#include <vector>

struct HostileText {
  const char* name;
  std::string text;
  std::optional<size_t> answers;  // how many; nothing: the JSON library's affair
};
inline void PrintTo(const HostileText& one, std::ostream* stream) {
  *stream << one.name;
}

// A probe whose sender's name holds every control byte that is not NUL.
inline std::string every_control_byte() {
  std::string text = R"({"cmd":"probe","subcmd":"probe","mac":")";
  for (int byte = 1; byte < 0x20; ++byte) {
    text += static_cast<char>(byte);
  }
  return text + R"(","data":{"ntick":1}})";
}

inline std::string repeated(const std::string& part, int times) {
  std::string text;
  for (int i = 0; i < times; ++i) {
    text += part;
  }
  return text;
}

inline std::vector<HostileText> hostile_texts() {
  return {
      HostileText{"Empty", "", 0},
      HostileText{"NotJson", "hello", 0},
      HostileText{"OpeningBrackets", std::string(1600, '['), 0},
      HostileText{"OpeningBraces", std::string(1600, '{'), 0},
      HostileText{"NestedObjects", repeated(R"({"a":)", 260), 0},
      HostileText{"NoNulInTheWholeFrame", std::string(1568, 'a'), 0},
      HostileText{"AllBytesFf", std::string(1568, '\xff'), 0},
      HostileText{"TopLevelArray", R"(["cmd","probe"])", 0},
      HostileText{"TopLevelNumber", "12", 0},
      HostileText{"TopLevelNull", "null", 0},
      HostileText{"CmdIsANumber", R"({"cmd":1,"subcmd":"probe","data":{}})", 0},
      HostileText{"CmdIsNull", R"({"cmd":null,"subcmd":"probe","data":{}})", 0},
      HostileText{"CmdIsAnObject", R"({"cmd":{"a":1},"subcmd":"probe","data":{}})", 0},
      HostileText{"SubcmdIsAnArray", R"({"cmd":"probe","subcmd":["probe"],"data":{}})", 0},
      HostileText{"MacIsANumber", R"({"mac":7,"cmd":"probe","subcmd":"probe","data":{}})", 1},
      HostileText{"MacIsMissing", R"({"cmd":"probe","subcmd":"probe","data":{}})", 1},
      HostileText{"DataIsANumber", R"({"cmd":"probe","subcmd":"probe","data":5})", 1},
      HostileText{"DataIsAText", R"({"cmd":"probe","subcmd":"probe","data":"x"})", 1},
      HostileText{"DataIsNull", R"({"cmd":"probe","subcmd":"probe","data":null})", 1},
      HostileText{"DataIsAnArray", R"({"cmd":"probe","subcmd":"probe","data":[1,2]})", 1},
      HostileText{"TickIsAText", R"({"cmd":"probe","subcmd":"probe","data":{"ntick":"9"}})", 1},
      HostileText{"TickIsAnObject", R"({"cmd":"probe","subcmd":"probe","data":{"ntick":{}}})", 1},
      HostileText{"TickBeyond64Bits",
                  R"({"cmd":"probe","subcmd":"probe","data":{"ntick":99999999999999999999999999}})",
                  1},
      HostileText{"TickBeyondADouble", R"({"cmd":"probe","subcmd":"probe","data":{"ntick":1e999}})",
                  1},
      HostileText{"TickBelow64Bits",
                  R"({"cmd":"probe","subcmd":"probe","data":{"ntick":-99999999999999999999999}})",
                  1},
      HostileText{"TickIsAFraction", R"({"cmd":"probe","subcmd":"probe","data":{"ntick":1.9999}})",
                  1},
      HostileText{"DuplicateKeys",
                  R"({"cmd":"probe","cmd":"set","subcmd":"probe","subcmd":"x","data":{},"data":1})",
                  1},
      HostileText{"ControlBytes", every_control_byte(), 1},
      HostileText{"EscapedNul", R"({"cmd":"probe","subcmd":"probe\u0000x","data":{}})", {}},
      HostileText{
          "LoneSurrogate", R"({"cmd":"probe","subcmd":"probe","mac":"\ud800","data":{}})", {}},
      HostileText{"UnterminatedText", R"({"cmd":"probe","subcmd":"pro)", 0},
      HostileText{"PercentSigns", R"({"mac":"%s%n%s%n","cmd":"probe","subcmd":"probe","data":{}})",
                  1},
      HostileText{
          "LongMac",
          R"({"cmd":"probe","subcmd":"probe","data":{},"mac":")" + std::string(1400, 'm') + R"("})",
          1},
      HostileText{"LongSubcmd", R"({"cmd":"probe","subcmd":")" + std::string(1400, 's') + R"("})",
                  0}};
}
