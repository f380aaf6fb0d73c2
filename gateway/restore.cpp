// SPDX-License-Identifier: Apache-2.0
//
// See restore.h.
#include "gateway/restore.h"

#include <utility>

#include <fmt/format.h>

#include "gateway/transfer.h"

namespace qel_gateway {

namespace {

std::string files_text(size_t count) {
  return count == 1 ? "the file" : fmt::format("the {} files", count);
}

// Compares what a switch that restarted holds with what it was sent. Throws Interrupted.
Task<void> read_back(Session& session, const Switch& one, const std::vector<ArchiveMember>& sent,
                     Duration patience, RestoreReport& report) {
  const ProgressSink quiet = [](uint64_t, uint64_t) {};
  try {
    const std::vector<uint8_t> bytes = co_await fetch_archive(session, one, patience, quiet);
    report.differences = compare_configurations(sent, read_archive(bytes));
  } catch (const Error& error) {
    report.code = error.code();
    report.words =
        fmt::format("the switch restarted; what it holds could not be read back: {}", error.what());
    co_return;
  }
  report.read_back = true;
  if (report.differences.empty()) {
    report.code = ExitCode::Done;
    report.words = fmt::format("the switch restarted and holds {} sent", files_text(sent.size()));
    co_return;
  }
  report.words = fmt::format("the switch restarted; it does not hold what was sent: {}",
                             differences_text(report.differences));
}

}  // namespace

Task<RestoreReport> await_restored(Session& session, const Switch& one, RestartMark mark,
                                   const std::vector<ArchiveMember>& sent,
                                   RestorePatience patience) {
  RestoreReport report;
  try {
    const EffectReport restart =
        co_await await_restart(session, one, std::move(mark), patience.restart, patience.come_back);
    report.restart = restart.effect;
    if (restart.effect == Effect::Took) {
      co_await read_back(session, one, sent, patience.chunk, report);
      co_return report;
    }
    // No backup: one that did not restart answers with what it packed for an earlier one.
    if (restart.effect == Effect::Silent) {
      report.code = ExitCode::NoAnswer;
    }
    report.words = restart.detail + "; whether it holds what was sent is not known";
  } catch (const Interrupted&) {
    throw Interrupted(
        "interrupted; the switch has all of the archive, and whether it was restored is not known");
  } catch (const Error& error) {
    report.code = error.code();
    report.words = fmt::format(
        "{}; the switch has all of the archive, and whether it was restored is not known",
        error.what());
  }
  co_return report;
}

}  // namespace qel_gateway
