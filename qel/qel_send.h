// SPDX-License-Identifier: Apache-2.0
//
// Sending to the gateway: every message goes through qel_cmd_send or qel_cmd_send_tail, which frame
// it for raw Ethernet or send it as one datagram over UDP.
#pragma once

#include <cstddef>
#include <cstdint>

#include "qel/qel_link.h"
#include "qel/qel_text.h"

// Sends one message of `length` bytes on `link`. The caller's buffer must be readable, and zero,
// for 1600 bytes behind the last full 1280: a second frame repeats `length` bytes from there on.
// A null argument or a length above 1600 is refused with a console line, and nothing is sent.
// Returns 0 in every case: a failed send is told by perror.
int qel_cmd_send(const qel_link* link, const char* text, size_t length);

// The same without those checks; `tail` other than 0 replaces the frames' length field.
// For links of kind 1 and 4 only. Returns 0. Used by the configuration upload. Over Ethernet a
// message longer than a frame can hold (2048 bytes) is refused with a console line; over UDP the
// system call decides.
int qel_cmd_send_tail(const qel_link* link, const char* text, size_t length, uint16_t tail);

// Sends a finished text with qel_cmd_send; `extra` bytes behind it (the closing NUL, say) count.
// A text that did not fit is longer than any message, so it is refused there and never sent cut.
int qel_cmd_send_text(const qel_link* link, const qel_text& text, size_t extra = 0);

// Builds and sends the frames of one message; a failed frame does not stop the others. Returns 0.
int qel_eth_send_frames(const qel_link* link, const char* text, size_t length, uint16_t tail);

// Sends one frame. Returns 0 when bytes went out, else -1 with perror("sendto(eth)").
int qel_eth_sendto(const qel_link* link, const uint8_t* frame, size_t length);
