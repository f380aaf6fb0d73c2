// SPDX-License-Identifier: Apache-2.0
//
// How the gateway's code fails: one exception type, whose kind becomes qelctl's exit status.
#pragma once

#include <stdexcept>
#include <string>

namespace qel_gateway {

// The values are the exit statuses of qelctl and do not change.
enum class ExitCode : int { Done = 0, Failed = 1, Usage = 2, NoAnswer = 3 };

class Error : public std::runtime_error {
 public:
  // `what` is one line for people, without the program's name and without a newline; texts that
  // came from a switch have gone through terminal_text() before.
  explicit Error(const std::string& what, ExitCode code = ExitCode::Failed)
      : std::runtime_error(what), code_(code) {}

  ExitCode code() const { return code_; }

 private:
  ExitCode code_;
};

// A signal ended the wait. Not a failure to be explained: whoever sent it knows.
class Interrupted : public std::runtime_error {
 public:
  // `what` says what was left in which state, where there is something to say.
  explicit Interrupted(const std::string& what = "interrupted") : std::runtime_error(what) {}
};

}  // namespace qel_gateway
