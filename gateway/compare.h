// SPDX-License-Identifier: Apache-2.0
//
// Whether a switch holds the configuration that it was sent: the members of two archives, file by
// file. All files have to be equal in every byte but "nvram.conf", which a running switch writes,
// too: that one counts as equal when it says the same, setting by setting. What a switch writes by
// itself there stands in one table in compare.cpp, with the reason.
#pragma once

#include <string>
#include <vector>

#include "gateway/archive.h"

namespace qel_gateway {

enum class DifferenceKind {
  Missing,  // was sent and is not there
  Extra,    // is there and was not sent
  Changed,  // is there with another content
};

struct Difference {
  std::string file;
  std::string key;  // the setting of "nvram.conf"; empty: the whole file
  DifferenceKind kind = DifferenceKind::Changed;
};

// What of `sent` is not in `found`, or otherwise, and what of `found` was not sent, in the order of
// files and settings by name. Both as read_archive() gives them.
std::vector<Difference> compare_configurations(const std::vector<ArchiveMember>& sent,
                                               const std::vector<ArchiveMember>& found);

// A word for machines: "missing", "extra", "changed".
const char* difference_word(DifferenceKind kind);

// "qel.conf is missing, nvram.conf: oem.1 was not sent and 3 more", fit for a terminal. Without
// values: a configuration holds secrets. `differences` is not empty.
std::string differences_text(const std::vector<Difference>& differences);

}  // namespace qel_gateway
