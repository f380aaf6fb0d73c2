// SPDX-License-Identifier: Apache-2.0
//
// Telling effects.
#include "gateway/cli/effect_output.h"

#include <fmt/format.h>

namespace qel_gateway::cli {

namespace {

Tint tint_of(Effect effect) {
  switch (effect) {
    case Effect::Took:
      return Tint::Green;
    case Effect::NotTaken:
      return Tint::Red;
    case Effect::Unseen:
    case Effect::Silent:
      return Tint::Yellow;
  }
  return Tint::Plain;
}

ExitCode code_of(Effect effect) {
  switch (effect) {
    case Effect::Took:
    case Effect::Unseen:
      return ExitCode::Done;
    case Effect::NotTaken:
      return ExitCode::Failed;
    case Effect::Silent:
      return ExitCode::NoAnswer;
  }
  return ExitCode::Failed;
}

}  // namespace

Told tell_effect(const Context& context, const Switch& one, const std::string& command,
                 const EffectReport& report) {
  Told told;
  told.code = code_of(report.effect);
  told.text = fmt::format(
      "{}: {}: {}: {}\n", title_of(one), command,
      tinted(effect_word(report.effect), tint_of(report.effect), context.style().colour),
      report.detail);
  told.json["command"] = command;
  told.json["result"] = effect_word(report.effect);
  told.json["detail"] = report.detail;
  return told;
}

}  // namespace qel_gateway::cli
