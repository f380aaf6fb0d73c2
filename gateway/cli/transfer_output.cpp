// SPDX-License-Identifier: Apache-2.0
//
// Bars while transfers run, a line for each switch when they have ended.
#include "gateway/cli/transfer_output.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include <fmt/format.h>

#include "gateway/cli/identity_output.h"
#include "gateway/progress.h"
#include "gateway/text.h"

namespace qel_gateway::cli {

namespace {

constexpr size_t kAtOnce = 8;

Progress::Options progress_options(const Context& context) {
  Progress::Options options;
  winsize size = {};
  options.terminal = ::isatty(STDERR_FILENO) == 1;
  options.colour = context.error_colour();
  if (::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) {
    options.width = size.ws_col;
  }
  return options;
}

struct Ended {
  Transferred result;
  bool good = false;
  bool interrupted = false;
};

std::string word_of(ExitCode code) {
  switch (code) {
    case ExitCode::Done:
      return "done";
    case ExitCode::NoAnswer:
      return "no answer";
    case ExitCode::Failed:
    case ExitCode::Usage:
      return "failed";
  }
  return "failed";
}

class Transfers {
 public:
  Transfers(Context& context, std::string command, const std::vector<Switch>& switches,
            const TransferJob& job)
      : context_(context),
        command_(std::move(command)),
        switches_(switches),
        labels_(labels_of(switches)),
        job_(job),
        ended_(switches.size()),
        progress_(progress_options(context), clock_, [](const std::string& text) {
          std::fwrite(text.data(), 1, text.size(), stderr);
          std::fflush(stderr);
        }) {}

  ExitCode run() {
    const auto one = [this](size_t i) { return run_one(i); };
    context_.run(context_.session().each(switches_.size(), kAtOnce, one));
    progress_.clear();
    for (size_t i = 0; i < switches_.size(); ++i) {
      tell(i);
    }
    if (context_.session().interrupted()) {
      throw Interrupted();
    }
    ExitCode worst = ExitCode::Done;
    for (const Ended& ended : ended_) {
      worst = worse(worst, ended.result.code);
    }
    return worst;
  }

 private:
  Task<void> run_one(size_t i) {
    Ended& ended = ended_[i];
    if (context_.session().interrupted()) {
      set_interrupted(ended, "not begun");
      co_return;
    }
    const size_t line = progress_.add(labels_[i]);
    const ProgressSink sink = [this, line](uint64_t done, uint64_t total) {
      progress_.update(line, done, total);
    };
    try {
      ended.result = co_await job_(switches_[i], sink);
    } catch (const Interrupted& reason) {
      set_interrupted(ended, reason.what());
    } catch (const Error& error) {
      ended.result.code = error.code();
      ended.result.words = error.what();
      ended.result.json["error"] = error.what();
    }
    progress_.finish(line, ended.result.code == ExitCode::Done, word_of(ended.result.code));
  }

  static void set_interrupted(Ended& ended, const char* word) {
    ended.interrupted = true;
    ended.result.code = ExitCode::Failed;
    ended.result.words = word;
    ended.result.json["error"] = word;
  }

  void tell(size_t i) const {
    const Transferred& result = ended_[i].result;
    if (context_.options().json) {
      OrderedJson line = json_of(switches_[i]);
      line["command"] = command_;
      line["status"] = word_of(result.code);
      line.update(result.json);
      context_.print_json(line);
      return;
    }
    const Tint tint = result.code == ExitCode::Done ? Tint::Green : Tint::Red;
    context_.print(fmt::format("{}: {}: {}: {}\n", title_of(switches_[i]), command_,
                               tinted(word_of(result.code), tint, context_.style().colour),
                               result.words));
  }

  Context& context_;
  std::string command_;
  const std::vector<Switch>& switches_;
  std::vector<std::string> labels_;
  const TransferJob& job_;
  std::vector<Ended> ended_;
  SteadyClock clock_;
  Progress progress_;
};

}  // namespace

ExitCode transfer_each(Context& context, const std::string& command,
                       const std::vector<Switch>& switches, const TransferJob& job) {
  return Transfers(context, command, switches, job).run();
}

}  // namespace qel_gateway::cli
