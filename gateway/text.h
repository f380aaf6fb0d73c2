// SPDX-License-Identifier: Apache-2.0
//
// Text for people: making foreign text harmless, measuring it, and writing figures shortly.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace qel_gateway {

// `text` on one line and without anything a terminal would obey or that would reorder the line:
// control characters, bytes that are not UTF-8, direction marks and invisible characters each
// become '?'. At most `limit` characters are kept.
std::string terminal_text(std::string_view text, size_t limit = 256);

// Columns that terminal_text() output takes; East Asian wide characters count two.
size_t text_width(std::string_view text);

// `text` cut to `width` columns, its last one an ellipsis when something was cut off.
std::string fit_text(std::string_view text, size_t width);

// "12s", "3m 20s", "5h 3m", "12d 4h".
std::string short_duration(int64_t seconds);

// "999", "1.2k", "35M": three figures and a decimal prefix.
std::string short_count(uint64_t value);

// "512 B", "1.5 KB", "8.0 MB": sizes of files, in steps of 1000.
std::string short_size(uint64_t bytes);

}  // namespace qel_gateway
