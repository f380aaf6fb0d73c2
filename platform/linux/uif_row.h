// SPDX-License-Identifier: Apache-2.0
//
// Reading one interface's description in JSON into a record, with every number checked. uif.cpp
// calls it; it knows nothing of the other records.
#ifndef MORVA_LINUX_UIF_ROW_H
#define MORVA_LINUX_UIF_ROW_H

#include "platform/uif.h"

struct cJSON;

// Reads a whole row over `record` (zeros, or the record so far; members that are not there keep
// their value). False, with `record` half written, when the name, the index, a number or, for a
// port, what every port must have is no good.
bool uif_row_read(const cJSON* row, uif* record);

// Reads the members that an interface-status message may carry over `record`. False as above.
bool uif_status_read(const cJSON* message, uif* record);

#endif  // MORVA_LINUX_UIF_ROW_H
