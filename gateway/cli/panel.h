// SPDX-License-Identifier: Apache-2.0
//
// The front panel of a switch, drawn from the positions of its ports.
#pragma once

#include <string>

#include "gateway/ports.h"
#include "gateway/table.h"

namespace qel_gateway::cli {

// Boxes in rows and columns as on the panel, each with the port's name and a sign for its state,
// and a line below that says what the signs mean. Columns that do not fit the width go into further
// rows of boxes. Ports without a position are listed behind the drawing.
std::string panel_text(const PortTable& table, const TableStyle& style);

}  // namespace qel_gateway::cli
