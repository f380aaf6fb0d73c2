// SPDX-License-Identifier: Apache-2.0
//
// Progress of several transfers at once: bars that are redrawn in place on a terminal, plain lines
// elsewhere. Bars of ended transfers become lasting lines above those still under way.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "gateway/clock.h"
#include "gateway/table.h"

namespace qel_gateway {

class Progress {
 public:
  using Sink = std::function<void(const std::string&)>;  // takes text for standard error

  struct Options {
    bool terminal = false;  // redraw in place
    bool colour = false;
    size_t width = 80;
  };

  // `clock` must outlive this.
  Progress(Options options, const Clock& clock, Sink sink);

  // Starts a line for `title`; returns its number.
  size_t add(const std::string& title);

  // Bytes done and in all.
  void update(size_t job, uint64_t done, uint64_t total);

  // The last word on a job, such as "done" or what went wrong.
  void finish(size_t job, bool good, const std::string& word);

  // Takes the bars that are still there off the terminal; for an end before the end.
  void clear();

  // "[#####.....]  50%  1.2 MB/s  0:12", without the title, in `width` columns.
  static std::string bar(uint64_t done, uint64_t total, double seconds, size_t width);

 private:
  struct Job {
    std::string title;
    uint64_t done = 0;
    uint64_t total = 0;
    TimePoint start;
    int told = 0;  // quarters that plain lines have told
    bool active = true;
  };

  void redraw();
  std::string line_of(const Job& job) const;
  double seconds_of(const Job& job) const;

  Options options_;
  const Clock& clock_;
  Sink sink_;
  std::vector<Job> jobs_;
  size_t drawn_ = 0;  // lines of bars on the terminal
  TimePoint last_draw_;
};

}  // namespace qel_gateway
