// SPDX-License-Identifier: Apache-2.0
//
// The small rules of form that every reader of outside text shares: what a port name, a settings
// key, a MAC address or a host address may look like. Pure functions.
#ifndef MORVA_LINUX_MORVAD_NAMES_H
#define MORVA_LINUX_MORVAD_NAMES_H

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

namespace morvad {

/// Deepest nesting of a JSON text that is looked at; the messages need five levels.
inline constexpr int kMaxDepth = 32;

/// True when the brackets of a JSON text nest deeper than `limit`. Brackets in strings do not
/// count.
bool too_deep(std::string_view json, int limit);

/// A letter, then at most 30 of [A-Za-z0-9._-]: fits an interface record and a settings key.
bool is_port_name(std::string_view text);

/// 1 to 15 printable characters other than '/' and blank.
bool is_linux_interface(std::string_view text);

/// 1 to 63 of [A-Za-z0-9._-].
bool is_setting_key(std::string_view text);

/// At most 255 bytes, none of them a control character.
bool is_setting_value(std::string_view text);

/// True when no byte is below 0x20 or 0x7f.
bool is_printable(std::string_view text);

/// True when the text stands for itself inside a JSON string: printable, no quote, no backslash.
/// The agent writes settings of the identity into its messages as they are.
bool is_plain(std::string_view text);

/// Dotted decimal IPv4 address that a host can have: not network 0, not loopback, and below the
/// multicast addresses.
bool is_host_address(const std::string& text);

/// Reads "aa:bb:cc:dd:ee:ff" (either case) into `mac`. False when the text is something else.
bool parse_mac(std::string_view text, std::array<uint8_t, 6>& mac);

/// Appends `mac` as "aa:bb:cc:dd:ee:ff" to `out`.
void append_mac(std::string& out, const std::array<uint8_t, 6>& mac);

/// The settings key of a port's switch: switch_key("iso", "ge1") is "iso.ge1.enable".
std::string switch_key(std::string_view name, std::string_view port);

/// The settings key of another property of a port: port_key("port", "ge1", "speed").
std::string port_key(std::string_view group, std::string_view port, std::string_view property);

/// `text` in quotes for a message, cut after 40 bytes, control characters shown as '?'.
std::string in_quotes(std::string_view text);

}  // namespace morvad

#endif  // MORVA_LINUX_MORVAD_NAMES_H
