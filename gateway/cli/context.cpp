// SPDX-License-Identifier: Apache-2.0
//
// The wire and the ways to speak, as the options have it.
#include "gateway/cli/context.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include <fmt/format.h>

#include "gateway/cli/interrupt.h"
#include "gateway/interfaces.h"
#include "gateway/text.h"

namespace qel_gateway::cli {

namespace {

std::string environment(const char* name) {
  const char* value = std::getenv(name);
  return value != nullptr ? value : "";
}

bool wants_colour(const std::string& choice, int fd) {
  if (choice != "auto") {
    return choice == "always";
  }
  return environment("NO_COLOR").empty() && environment("TERM") != "dumb" && ::isatty(fd) == 1;
}

// COLUMNS, else the terminal's width, else 0 for no limit.
size_t output_width() {
  constexpr long kWidest = 10000;
  const std::string columns = environment("COLUMNS");
  const long asked = std::strtol(columns.c_str(), nullptr, 10);
  if (asked > 0 && asked < kWidest) {
    return static_cast<size_t>(asked);
  }
  winsize size = {};
  if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0) {
    return size.ws_col;
  }
  return 0;
}

}  // namespace

Context::Context(Options options) : options_(std::move(options)) {}

Context::~Context() = default;

Transport& Context::transport() {
  if (!transport_) {
    if (!options_.udp.empty()) {
      transport_ = open_udp(options_.udp);
    } else {
      transport_ =
          open_ethernet(options_.interface.empty() ? only_interface() : options_.interface);
    }
    transport_->wake_on(interrupt_descriptor());
  }
  return *transport_;
}

Session& Context::session() {
  if (!session_) {
    session_ = std::make_unique<Session>(transport(), clock_);
    session_->set_interrupt(interrupt_seen);
  }
  return *session_;
}

Duration Context::patience(Duration otherwise) const {
  constexpr double kMillisecond = 1000.0;
  return options_.timeout ? Duration(static_cast<int64_t>(*options_.timeout * kMillisecond))
                          : otherwise;
}

TableStyle Context::style() const {
  return {output_width(), wants_colour(options_.colour, STDOUT_FILENO)};
}

bool Context::error_colour() const {
  return wants_colour(options_.colour, STDERR_FILENO);
}

void Context::print(const std::string& text) const {
  std::fwrite(text.data(), 1, text.size(), stdout);
}

void Context::print_json(const OrderedJson& value) const {
  print(dump_json(value) + "\n");
}

void Context::note(const std::string& text) const {
  std::fflush(stdout);
  fmt::print(stderr, "qelctl: {}\n", text);
}

void Context::note_once(const std::string& text) {
  if (std::ranges::find(noted_, text) == noted_.end()) {
    noted_.push_back(text);
    note(text);
  }
}

void Context::note_wire() {
  if (const std::string remark = transport().remark(); !remark.empty()) {
    note_once(remark);
  }
}

}  // namespace qel_gateway::cli
