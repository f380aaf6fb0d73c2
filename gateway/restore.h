// SPDX-License-Identifier: Apache-2.0
//
// What became of a restore after the switch had all of the archive. That it says so proves nothing:
// it is restored when it restarted and a backup taken then equals what was sent.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "gateway/archive.h"
#include "gateway/compare.h"
#include "gateway/error.h"
#include "gateway/settings.h"

namespace qel_gateway {

struct RestorePatience {
  Duration restart;    // for the restart to be seen
  Duration come_back;  // beyond that while the switch is silent; not 0
  Duration chunk;      // for each chunk of the backup
};

struct RestoreReport {
  ExitCode code = ExitCode::Failed;  // Done: it restarted and holds what was sent
  std::string words;                 // the state of the switch, for people, fit for a terminal
  Effect restart = Effect::Unseen;
  bool read_back = false;               // it restarted, and a backup was taken and could be read
  std::vector<Difference> differences;  // of that backup from what was sent
};

// Waits for the restart of a switch that has taken all of an archive with the members `sent`, takes
// a backup and compares it. `mark`: from before the archive was pushed. Throws Interrupted with
// words that say what is not known.
Task<RestoreReport> await_restored(Session& session, const Switch& one, RestartMark mark,
                                   const std::vector<ArchiveMember>& sent,
                                   RestorePatience patience);

}  // namespace qel_gateway
