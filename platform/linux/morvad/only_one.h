// SPDX-License-Identifier: Apache-2.0
//
// One morvad for one switch. A second one beside one that works ends before it touches anything;
// one that is stopped, or answers nobody any more, makes room for its successor.
#ifndef MORVA_LINUX_MORVAD_ONLY_ONE_H
#define MORVA_LINUX_MORVAD_ONLY_ONE_H

namespace morvad {

/// Takes the switch for the life of this process. Waits up to 10 seconds for a sign of life of one
/// that has it, and up to kProcessEndMs more for its end. False, with a line in the log, when
/// another process keeps it.
bool hold_switch();

}  // namespace morvad

#endif  // MORVA_LINUX_MORVAD_ONLY_ONE_H
