// SPDX-License-Identifier: Apache-2.0
//
// The session's loop: ready talks first, then the next message or the next deadline.
#include "gateway/session.h"

#include <algorithm>
#include <random>

#include "gateway/error.h"

namespace qel_gateway {

struct Session::Exchange : std::enable_shared_from_this<Exchange> {
  Question question;
  TimePoint resend;  // when the question goes out again
  TimePoint deadline;
  int sends_left = 0;
  TimePoint last = TimePoint::max();  // the deadline is not moved beyond this
  bool asleep = false;                // no question, only time
  bool joint = false;                 // no question and no time: waits for other tasks
  bool finished = false;
  Outcome outcome = Outcome::Silent;
  std::exception_ptr failure;      // of the wire; what the waiter is thrown
  std::coroutine_handle<> waiter;  // empty again when it is resumed or gone
};

namespace {

// Pieces of one answer may each renew the patience, but not for ever.
constexpr int kPatienceRounds = 10;
constexpr size_t kMessageMax = 4096;

// A queue that never ends may not hold up the time for ever. No socket here holds as many.
constexpr int kHeardAtOnce = 1024;

Duration resend_step(const Question& question) {
  return question.patience / std::max(question.sends, 1);
}

}  // namespace

Reply read_reply(Incoming incoming) {
  Reply reply;
  reply.from = incoming.from;
  reply.text = std::move(incoming.payload.text);
  reply.chunk = std::move(incoming.payload.chunk);
  if (reply.text.size() > kMessageMax) {
    throw BadReply("message longer than any of the protocol");
  }
  const bool object = reply.text.starts_with('{');
  Json root;
  try {
    root = parse_json(reply.text);
  } catch (const BadReply&) {
    if (object) {
      throw;
    }
    return reply;  // a module may answer what it likes
  }
  if (!object || !root.contains("cmd") || !root.contains("mac")) {
    reply.data = std::move(root);
    return reply;
  }
  const auto mac = parse_mac(text_member(root, "mac"));
  if (!mac) {
    throw BadReply("\"mac\" is no MAC address");
  }
  reply.mac = *mac;
  const std::string verb = text_member(root, "cmd");
  reply.subject = verb == "update" ? text_member(root, "subcmd") : verb;
  if (reply.subject.empty()) {
    throw BadReply("no subject");
  }
  reply.data = member(root, "data");
  return reply;
}

Session::Wait::~Wait() {
  if (exchange_) {
    exchange_->finished = true;
    exchange_->waiter = {};
  }
}

bool Session::Wait::await_ready() const {
  return exchange_->finished;
}

void Session::Wait::await_suspend(std::coroutine_handle<> waiter) {
  exchange_->waiter = waiter;
}

Outcome Session::Wait::await_resume() const {
  if (exchange_->failure) {
    std::rethrow_exception(exchange_->failure);
  }
  return exchange_->outcome;
}

Session::Wait Session::ask(Question question) {
  auto exchange = std::make_shared<Exchange>();
  exchange->question = std::move(question);
  if (stopped(*exchange)) {
    return Wait(exchange);
  }
  exchange->sends_left = std::max(exchange->question.sends, 1);
  exchange->deadline = now() + exchange->question.patience;
  exchange->last = now() + (exchange->question.quiet > Duration(0) ? 1 : kPatienceRounds) *
                               exchange->question.patience;
  transmit(*exchange);
  exchanges_.push_back(exchange);
  return Wait(exchange);
}

Session::Wait Session::sleep(Duration duration) {
  auto exchange = std::make_shared<Exchange>();
  exchange->asleep = true;
  exchange->deadline = now() + duration;
  if (!stopped(*exchange)) {
    exchanges_.push_back(exchange);
  }
  return Wait(exchange);
}

// Finishes a new exchange of a session that an interrupt or the end of the wire has stopped.
bool Session::stopped(Exchange& exchange) const {
  if (!interrupted_ && !failure_) {
    return false;
  }
  exchange.finished = true;
  exchange.outcome = Outcome::Interrupted;
  exchange.failure = interrupted_ ? nullptr : failure_;
  return true;
}

void Session::wake_sleepers() {
  for (const auto& exchange : exchanges_) {
    if (exchange->asleep) {
      finish(*exchange, Outcome::Answered);
    }
  }
}

void Session::spawn(Task<void> task) {
  spawned_.push_back(std::move(task));
  spawned_.back().start();
}

Task<void> Session::each(size_t count, size_t limit, std::function<Task<void>(size_t)> job) {
  size_t next = 0;
  size_t running = std::min(count, limit);
  std::exception_ptr failure;
  auto joint = std::make_shared<Exchange>();
  joint->deadline = TimePoint::max();
  joint->joint = true;
  const auto worker = [&]() -> Task<void> {
    while (next < count) {
      const size_t mine = next++;
      try {
        co_await job(mine);
      } catch (...) {
        failure = std::current_exception();
      }
    }
    if (--running == 0) {
      finish(*joint, Outcome::Answered);
    }
  };
  exchanges_.push_back(joint);
  std::list<Task<void>> workers;
  for (size_t i = running; i > 0; --i) {
    workers.push_back(worker());
    workers.back().start();
  }
  if (!workers.empty()) {
    co_await Wait(joint);
  }
  finish(*joint, Outcome::Answered);
  if (failure) {
    std::rethrow_exception(failure);
  }
}

uint32_t Session::next_tick() {
  constexpr uint32_t kTickMax = 0x7FFFFFFF;
  if (tick_ == 0) {
    // Two gateways on one machine hear each other's answers; a random start tells them apart.
    tick_ = std::random_device{}() & (kTickMax >> 1);
  }
  tick_ = tick_ % kTickMax + 1;
  return tick_;
}

void Session::transmit(Exchange& exchange) {
  const Question& question = exchange.question;
  transport_.send(question.to, question.text, question.chunk, question.with_chunk);
  --exchange.sends_left;
  exchange.resend = now() + resend_step(question);
}

void Session::finish(Exchange& exchange, Outcome outcome) {
  if (exchange.finished) {
    return;
  }
  exchange.finished = true;
  exchange.outcome = outcome;
  if (exchange.waiter) {
    ready_.push_back(exchange.shared_from_this());
  }
}

void Session::fail(Exchange& exchange, const std::exception_ptr& failure) {
  if (!exchange.finished) {
    exchange.failure = failure;
    finish(exchange, Outcome::Silent);
  }
}

void Session::resume_ready() {
  while (!ready_.empty()) {
    std::erase_if(exchanges_, [](const auto& exchange) { return exchange->finished; });
    const auto batch = std::exchange(ready_, {});
    for (const auto& exchange : batch) {
      // Empty when the waiter was destroyed since: by a task resumed before, or by an exception.
      if (const auto waiter = std::exchange(exchange->waiter, {})) {
        waiter.resume();
      }
    }
    for (auto task = spawned_.begin(); task != spawned_.end();) {
      if (!task->done()) {
        ++task;
        continue;
      }
      const Task<void> ended = std::move(*task);
      task = spawned_.erase(task);
      ended.result();
    }
  }
}

void Session::check_interrupt() {
  if (!interrupted_ && interrupt_ && interrupt_()) {
    interrupted_ = true;
  }
  if (interrupted_) {
    for (const auto& exchange : exchanges_) {
      if (!exchange->joint) {
        finish(*exchange, Outcome::Interrupted);
      }
    }
  }
}

TimePoint Session::next_deadline() const {
  TimePoint next = TimePoint::max();
  for (const auto& exchange : exchanges_) {
    if (exchange->finished) {
      continue;  // its waiter has other things to wait for first
    }
    next = std::min(next, exchange->deadline);
    if (exchange->sends_left > 0) {
      next = std::min(next, exchange->resend);
    }
  }
  return next;
}

void Session::serve_timers() {
  const TimePoint time = now();
  for (const auto& exchange : exchanges_) {
    if (exchange->finished) {
      continue;
    }
    if (time >= exchange->deadline) {
      finish(*exchange, Outcome::Silent);
    } else if (exchange->sends_left > 0 && time >= exchange->resend) {
      try {
        transmit(*exchange);
      } catch (const Error&) {
        fail(*exchange, std::current_exception());
      }
    }
  }
}

std::optional<Incoming> Session::receive() {
  try {
    return transport_.receive(next_deadline());
  } catch (const Error&) {
    failure_ = std::current_exception();
  }
  for (const auto& exchange : exchanges_) {
    if (!exchange->joint) {
      fail(*exchange, failure_);
    }
  }
  return std::nullopt;
}

bool Session::offer(const Reply& reply, Exchange& exchange) {
  const Question& question = exchange.question;
  if (exchange.finished || exchange.asleep || exchange.joint ||
      (question.source && !(*question.source == reply.from))) {
    return false;
  }
  if (question.subjects.empty() != reply.subject.empty()) {
    return false;
  }
  if (!question.subjects.empty() &&
      ((question.mac && *question.mac != reply.mac) ||
       std::ranges::find(question.subjects, reply.subject) == question.subjects.end())) {
    return false;
  }
  const Verdict verdict = question.take(reply);
  if (verdict == Verdict::Ignore) {
    return false;
  }
  if (verdict == Verdict::Done) {
    finish(exchange, Outcome::Answered);
  } else if (verdict == Verdict::More && question.quiet > Duration(0)) {
    exchange.deadline = std::min(now() + question.quiet, exchange.last);
  }
  return true;
}

// The switch is alive and at work: whoever waits for it gets new patience, up to a bound.
void Session::renew(Exchange& exchange) {
  const Question& question = exchange.question;
  if (exchange.finished || question.whole_time || question.quiet > Duration(0)) {
    return;
  }
  exchange.deadline = std::min(now() + question.patience, exchange.last);
  exchange.resend = now() + resend_step(question);
}

void Session::deliver(Incoming incoming) {
  const Peer from = incoming.from;
  if (incoming.overheard) {
    if (overheard_) {
      overheard_(from, incoming.payload.text);
    }
    return;
  }
  try {
    const Reply reply = read_reply(std::move(incoming));
    for (const auto& exchange : exchanges_) {
      if (offer(reply, *exchange)) {
        for (const auto& other : exchanges_) {
          if (other->question.source == from) {
            renew(*other);
          }
        }
        return;
      }
    }
    if (unasked_) {
      unasked_(reply);
    }
  } catch (const BadReply& reason) {
    if (bad_reply_) {
      bad_reply_(from, reason.what());
    }
  }
}

// Whoever looks at the time before the messages that came meanwhile takes for silence what was a
// pause of this program: all that waits is heard first.
void Session::loop(const std::function<bool()>& done) {
  int heard = 0;
  while (true) {
    resume_ready();
    if (done()) {
      return;
    }
    auto incoming = receive();
    if (wake_) {
      wake_();
    }
    const bool more = incoming && ++heard < kHeardAtOnce;
    if (incoming) {
      deliver(std::move(*incoming));
    }
    check_interrupt();
    if (!more) {
      heard = 0;
      serve_timers();
    }
  }
}

}  // namespace qel_gateway
