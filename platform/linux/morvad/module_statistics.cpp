// SPDX-License-Identifier: Apache-2.0
//
// Module "statistics". Gateways poll these figures, so the answers are written by hand: no tree and
// no printf.
#include <charconv>
#include <cstring>

#include "platform/linux/morvad/modules.h"

namespace morvad {
namespace {

/// Writes rows into `out`, through a buffer: a reply is some hundred short pieces.
class RowWriter {
 public:
  explicit RowWriter(std::string& out) : out_(out) {
    out_.clear();
    put("{\"ret\":0,\"data\":[");
  }

  /// Begins the row of a port.
  void row(std::string_view name) {
    put(first_ ? "{\"name\":\"" : "},{\"name\":\"");
    first_ = false;
    put(name);  // a port name needs no escaping
    put("\"");
  }

  /// Adds a member; `key` is `,"NAME":`.
  void figure(std::string_view key, uint64_t value) {
    put(key);
    char digits[20];
    const auto end = std::to_chars(digits, digits + sizeof digits, value).ptr;
    put({digits, static_cast<size_t>(end - digits)});
  }

  void finish() {
    put(first_ ? "]}" : "}]}");
    flush();
  }

 private:
  void put(std::string_view text) {
    if (text.size() > sizeof buffer_ - used_) {
      flush();
    }
    if (text.size() > sizeof buffer_) {
      out_ += text;
      return;
    }
    memcpy(buffer_ + used_, text.data(), text.size());
    used_ += text.size();
  }

  void flush() {
    out_.append(buffer_, used_);
    used_ = 0;
  }

  std::string& out_;
  char buffer_[4096];
  size_t used_ = 0;
  bool first_ = true;
};

/// Writes one row for each port; `figures(writer, counters)` adds its members.
template <typename Figures>
void write_rows(Context& context, std::string& out, Figures figures) {
  RowWriter writer(out);
  const uint64_t now = context.host.now_ns();
  for (const Port& port : context.sw.ports()) {
    writer.row(port.built.name);
    figures(writer, port.counters(now));
  }
  writer.finish();
}

void basic_get_all(Context& context, const Request&, std::string& out) {
  write_rows(context, out, [](RowWriter& row, const Counters& port) {
    row.figure(",\"tx_bytes\":", port.tx_bytes);
    row.figure(",\"rx_bytes\":", port.rx_bytes);
  });
}

void sums_get_all(Context& context, const Request&, std::string& out) {
  write_rows(context, out, [](RowWriter& row, const Counters& port) {
    row.figure(",\"tx_sum\":", port.tx_bytes);
    row.figure(",\"rx_sum\":", port.rx_bytes);
    row.figure(",\"tx_rate\":", port.tx_rate);
    row.figure(",\"rx_rate\":", port.rx_rate);
  });
}

void dot3_get_all(Context& context, const Request&, std::string& out) {
  write_rows(context, out, [](RowWriter& row, const Counters& port) {
    row.figure(",\"dot3_FCSErrors\":", port.fcs_errors);
    row.figure(",\"dot3_InPauseFrames\":", port.pause_frames);
    row.figure(",\"rx_bytes\":", port.rx_bytes);
    row.figure(",\"tx_bytes\":", port.tx_bytes);
  });
}

constexpr Command kCommands[] = {
    {"port_statistic_qel_get_all", sums_get_all},
    {"port_basic_statistic_get_all", basic_get_all},
    {"port_statistic_qel_dot3_get_all", dot3_get_all},
};

}  // namespace

const Module kStatistics = {"statistics", kCommands};

}  // namespace morvad
