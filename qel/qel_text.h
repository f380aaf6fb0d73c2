// SPDX-License-Identifier: Apache-2.0
//
// The bounded text writer: every text that leaves the agent is built with it.
//
// A writer is a cursor over a caller's area. Appending past the end stores nothing more, but the
// wanted length keeps counting, so that one comparison at the end tells whether the text is whole.
// The area is zero behind the text, which readers further down rely on (a second fragment takes
// bytes behind the text), and one byte always stays free for the closing NUL.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

class qel_text {
 public:
  // Writes into `area` of `size` bytes (at least 1), whose first byte becomes NUL. The caller
  // guarantees zeros behind; the area must outlive the writer.
  qel_text(char* area, size_t size);

  // Append: printf style, a text as it stands, one character, decimal numbers, a MAC address as
  // 12 lower-case hexadecimal digits.
  void printf(const char* format, ...) __attribute__((format(printf, 2, 3)));
  void put(std::string_view text);
  void put(char character) {
    if (length_ + 1 < size_) {
      area_[length_] = character;
      area_[length_ + 1] = '\0';
    }
    ++length_;
  }
  // Appends `text` without the bytes that qel_text_is_plain refuses, so that it cannot end the JSON
  // string that it stands in.
  void put_plain(std::string_view text);
  void put_int(int64_t number);
  void put_uint(uint64_t number);
  void put_mac(const uint8_t mac[6]);

  // The text so far, NUL-terminated; cut at the area's end when it overflowed.
  [[nodiscard]] const char* c_str() const { return area_; }
  [[nodiscard]] std::string_view view() const { return {area_, stored()}; }

  // Bytes that the whole text needs, without its NUL; may exceed the area.
  [[nodiscard]] size_t length() const { return length_; }

  // True when the text did not fit: it must not be sent.
  [[nodiscard]] bool overflowed() const { return length_ >= size_; }

 private:
  [[nodiscard]] size_t stored() const { return overflowed() ? size_ - 1 : length_; }
  void put_cut(std::string_view text);

  char* area_;
  size_t size_;
  size_t length_ = 0;
};

// True when `text` stands for itself inside a JSON string: no quote, no backslash, no control byte
// (below 0x20, or 0x7f). Bytes from 0x80 on pass, whatever they encode.
bool qel_text_is_plain(std::string_view text);

// Zeroes `size` bytes.
void qel_text_clear(char* bytes, size_t size);

// A message area that is used again and again. begin() hands out a writer over an area that is all
// zeros, clearing only what the last text can have touched: clearing all of it for each message
// would cost more than the message does.
template <size_t Size>
class qel_text_area {
 public:
  qel_text& begin() {
    qel_text_clear(bytes_, writer_.length() < Size ? writer_.length() : Size);
    writer_ = qel_text(bytes_, Size);
    return writer_;
  }

 private:
  char bytes_[Size] = {};
  qel_text writer_{bytes_, Size};
};

// Bytes of a message area: every outgoing message and every module reply has one of these.
inline constexpr size_t kQelMessageSize = 65535;
