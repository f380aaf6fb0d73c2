// SPDX-License-Identifier: Apache-2.0
//
// The session: one socket, many talks. It sends requests, repeats those that may be repeated,
// sorts what comes in to whoever asked for it, and ends a wait when its time is up.
//
// A reply belongs to a question when it comes from the switch that was asked (the sender of the
// frame as well as the "mac" in the text) and is about the subject of the question. What belongs
// to no question is handed to the unasked-for handler: the traps, and other people's answers.
//
// When the wire is gone, every wait throws the Error that says so, and so does every later one:
// each talk ends by itself and can say how far it came.
#pragma once

#include <coroutine>
#include <cstdint>
#include <exception>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "gateway/clock.h"
#include "gateway/json.h"
#include "gateway/task.h"
#include "gateway/transport.h"

namespace qel_gateway {

// One message from a switch, taken apart.
struct Reply {
  Peer from;
  MacAddress mac;       // the "mac" of the envelope; zero when there is none
  std::string subject;  // "answer", "pong", or the "subcmd" of an update; empty without envelope
  // The "data" of the envelope; without envelope the whole text, discarded when it is no JSON.
  Json data = Json(Json::value_t::discarded);
  std::string text;  // as it came
  std::vector<uint8_t> chunk;
};

// Takes a message apart. Throws BadReply for one that is no envelope though it claims to be, and
// for text that a module can not have sent.
Reply read_reply(Incoming incoming);

enum class Verdict {
  Ignore,  // not an answer to this question
  Seen,    // an answer, but nothing new
  More,    // a piece of the answer
  Done,    // the last piece
};

struct Question {
  Peer to;
  std::optional<Peer> source;         // whose frames count; empty: everybody's
  std::optional<MacAddress> mac;      // whose "mac" counts; empty: everybody's
  std::vector<std::string> subjects;  // empty: a reply without envelope
  std::string text;
  std::vector<uint8_t> chunk;
  bool with_chunk = false;
  Duration patience{2000};  // from the last piece of the answer on
  int sends = 1;            // how often the question may go out within its patience
  bool whole_time = false;  // listens for all of `patience`, whatever comes in
  Duration quiet{0};        // if not 0: after the first piece, ends so long after the last piece
  // Looks at a reply that matches. A BadReply that it throws is treated like Ignore and told to the
  // bad-reply handler.
  std::function<Verdict(const Reply&)> take;
};

enum class Outcome { Answered, Silent, Interrupted };

class Session {
 public:
  // Both must outlive the session.
  Session(Transport& transport, const Clock& clock) : transport_(transport), clock_(clock) {}
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  Transport& transport() { return transport_; }
  TimePoint now() const { return clock_.now(); }

  // Called for messages that answer no open question, and for those that cannot be read.
  void on_unasked(std::function<void(const Reply&)> handler) { unasked_ = std::move(handler); }
  // Called for what other programs of this machine ask switch `to` (or the group), if the transport
  // overhears that.
  void on_overheard(std::function<void(const Peer& to, const std::string& text)> handler) {
    overheard_ = std::move(handler);
  }
  using BadReplyHandler = std::function<void(const Peer&, const std::string& why)>;
  // Returns the handler that was there before.
  BadReplyHandler on_bad_reply(BadReplyHandler handler) {
    return std::exchange(bad_reply_, std::move(handler));
  }
  // Asked whenever the loop wakes; true ends every wait with Interrupted, from then on.
  void set_interrupt(std::function<bool()> interrupted) { interrupt_ = std::move(interrupted); }
  // Called each time the loop wakes, before anything else: a view looks at the keyboard here.
  void on_wake(std::function<void()> handler) { wake_ = std::move(handler); }

  struct Exchange;

  // The awaitable end of a question. Letting go of it withdraws the question.
  class [[nodiscard]] Wait {
   public:
    explicit Wait(std::shared_ptr<Exchange> exchange) : exchange_(std::move(exchange)) {}
    Wait(const Wait&) = delete;
    Wait& operator=(const Wait&) = delete;
    Wait(Wait&&) noexcept = default;
    Wait& operator=(Wait&&) = delete;
    ~Wait();
    bool await_ready() const;
    void await_suspend(std::coroutine_handle<> waiter);
    Outcome await_resume() const;

   private:
    std::shared_ptr<Exchange> exchange_;
  };

  // Sends the question; awaiting the result waits for the end of the answer.
  Wait ask(Question question);

  // Awaits the passing of time. Interrupted when that was cut short.
  Wait sleep(Duration duration);

  // Ends all sleeps now.
  void wake_sleepers();

  // Starts a task that goes on beside the others until it ends or the session does.
  void spawn(Task<void> task);

  // Runs `job(0)` to `job(count - 1)`, at most `limit` of them at a time; ends when all have.
  // An exception of a job ends nothing else and is thrown at the end.
  Task<void> each(size_t count, size_t limit, std::function<Task<void>(size_t)> job);

  // Runs a task to its end, and all that is spawned meanwhile along with it.
  template <typename T>
  T run(Task<T> task) {
    task.start();
    loop([&task] { return task.done(); });
    return task.result();
  }

  bool interrupted() const { return interrupted_; }

  // A number that no probe of this session bore before.
  uint32_t next_tick();

 private:
  void loop(const std::function<bool()>& done);
  void resume_ready();
  void deliver(Incoming incoming);
  std::optional<Incoming> receive();
  bool stopped(Exchange& exchange) const;
  void fail(Exchange& exchange, const std::exception_ptr& failure);
  bool offer(const Reply& reply, Exchange& exchange);
  void serve_timers();
  TimePoint next_deadline() const;
  void finish(Exchange& exchange, Outcome outcome);
  void check_interrupt();
  void transmit(Exchange& exchange);
  void renew(Exchange& exchange);

  Transport& transport_;
  const Clock& clock_;
  std::list<std::shared_ptr<Exchange>> exchanges_;
  std::vector<std::shared_ptr<Exchange>> ready_;  // finished ones with a waiter
  std::list<Task<void>> spawned_;
  std::function<void(const Reply&)> unasked_;
  std::function<void(const Peer&, const std::string&)> overheard_;
  BadReplyHandler bad_reply_;
  std::function<bool()> interrupt_;
  std::function<void()> wake_;
  bool interrupted_ = false;
  std::exception_ptr failure_;  // of the wire
  uint32_t tick_ = 0;
};

}  // namespace qel_gateway
