// SPDX-License-Identifier: Apache-2.0
//
// Bars and lines.
#include "gateway/progress.h"

#include <algorithm>

#include <fmt/format.h>

#include "gateway/text.h"

namespace qel_gateway {

namespace {

constexpr Duration kRedrawEvery{100};
constexpr int kQuarters = 4;
constexpr size_t kTitleWidth = 24;

std::string minutes(double seconds) {
  constexpr double kLongest = 359999;
  const auto whole = static_cast<int64_t>(std::min(seconds + 0.5, kLongest));
  return fmt::format("{}:{:02}", whole / 60, whole % 60);
}

}  // namespace

Progress::Progress(Options options, const Clock& clock, Sink sink)
    : options_(options), clock_(clock), sink_(std::move(sink)) {}

size_t Progress::add(const std::string& title) {
  Job job;
  job.title = title;
  job.start = clock_.now();
  jobs_.push_back(std::move(job));
  if (options_.terminal) {
    redraw();
  }
  return jobs_.size() - 1;
}

double Progress::seconds_of(const Job& job) const {
  return std::chrono::duration<double>(clock_.now() - job.start).count();
}

std::string Progress::bar(uint64_t done, uint64_t total, double seconds, size_t width) {
  const double part = total > 0 ? static_cast<double>(done) / static_cast<double>(total) : 0.0;
  const double rate = seconds > 0 ? static_cast<double>(done) / seconds : 0.0;
  const std::string left =
      rate > 0 ? minutes(static_cast<double>(total - std::min(done, total)) / rate) : "-:--";
  const std::string figures = fmt::format(" {:3}%  {:>8}/s  {:>6}", static_cast<int>(part * 100),
                                          short_size(static_cast<uint64_t>(rate)), left);
  constexpr size_t kBrackets = 2;
  if (width < figures.size() + kBrackets + 1) {
    return figures.substr(1, 4);
  }
  const size_t room = width - figures.size() - kBrackets;
  const auto filled = static_cast<size_t>(part * static_cast<double>(room));
  return "[" + std::string(filled, '#') + std::string(room - filled, '.') + "]" + figures;
}

std::string Progress::line_of(const Job& job) const {
  const size_t title_width = std::min(kTitleWidth, options_.width / 3);
  const std::string title = fit_text(job.title, title_width);
  const std::string fill(title_width - std::min(title_width, text_width(title)), ' ');
  // One column less than the terminal has, so that no line wraps.
  const size_t room = options_.width > title_width + 2 ? options_.width - title_width - 2 : 0;
  return title + fill + " " + bar(job.done, job.total, seconds_of(job), room);
}

void Progress::redraw() {
  std::string out;
  if (drawn_ > 0) {
    out += fmt::format("\033[{}A", drawn_);
  }
  drawn_ = 0;
  for (const Job& job : jobs_) {
    if (job.active) {
      out += "\r\033[K" + line_of(job) + "\n";
      ++drawn_;
    }
  }
  sink_(out + "\033[J");
  last_draw_ = clock_.now();
}

void Progress::update(size_t job, uint64_t done, uint64_t total) {
  Job& one = jobs_.at(job);
  one.done = done;
  one.total = total;
  if (options_.terminal) {
    if (clock_.now() - last_draw_ >= kRedrawEvery || done == total) {
      redraw();
    }
    return;
  }
  const auto quarter = total > 0 ? static_cast<int>(done * kQuarters / total) : 0;
  if (quarter > one.told && quarter < kQuarters) {
    one.told = quarter;
    sink_(fmt::format("{}: {}% of {}\n", one.title, quarter * 100 / kQuarters, short_size(total)));
  }
}

void Progress::finish(size_t job, bool good, const std::string& word) {
  Job& one = jobs_.at(job);
  one.active = false;
  std::string line;
  if (options_.terminal && drawn_ > 0) {
    line = fmt::format("\033[{}A\r\033[J", drawn_);
    drawn_ = 0;
  }
  line += fmt::format("{}: {}\n", one.title,
                      tinted(word, good ? Tint::Green : Tint::Red, options_.colour));
  sink_(line);
  if (options_.terminal) {
    redraw();
  }
}

void Progress::clear() {
  if (options_.terminal && drawn_ > 0) {
    sink_(fmt::format("\033[{}A\r\033[J", drawn_));
    drawn_ = 0;
  }
}

}  // namespace qel_gateway
