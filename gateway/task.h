// SPDX-License-Identifier: Apache-2.0
//
// A coroutine that yields one value. It starts when it is awaited, resumes whoever awaits it when
// it ends, and hands an exception on. Commands are written as tasks, so that a talk with one switch
// reads from top to bottom while a session holds many such talks on one socket.
#pragma once

#include <coroutine>
#include <exception>
#include <optional>
#include <utility>

namespace qel_gateway {

template <typename T = void>
class Task;

namespace detail {

struct FinalAwaiter {
  bool await_ready() const noexcept { return false; }

  template <typename Promise>
  std::coroutine_handle<> await_suspend(std::coroutine_handle<Promise> ended) const noexcept {
    const auto next = ended.promise().continuation;
    return next ? next : std::noop_coroutine();
  }

  void await_resume() const noexcept {}
};

struct PromiseBase {
  std::coroutine_handle<> continuation;
  std::exception_ptr failure;

  std::suspend_always initial_suspend() const noexcept { return {}; }
  FinalAwaiter final_suspend() const noexcept { return {}; }
  void unhandled_exception() { failure = std::current_exception(); }
};

template <typename T>
struct Promise : PromiseBase {
  std::optional<T> value;

  Task<T> get_return_object();
  void return_value(T result) { value.emplace(std::move(result)); }
  T take() {
    if (failure) {
      std::rethrow_exception(failure);
    }
    return std::move(*value);
  }
};

template <>
struct Promise<void> : PromiseBase {
  Task<void> get_return_object();
  void return_void() const noexcept {}
  void take() const {
    if (failure) {
      std::rethrow_exception(failure);
    }
  }
};

}  // namespace detail

template <typename T>
class [[nodiscard]] Task {
 public:
  using promise_type = detail::Promise<T>;
  using Handle = std::coroutine_handle<promise_type>;

  explicit Task(Handle handle) : handle_(handle) {}
  Task(const Task&) = delete;
  Task& operator=(const Task&) = delete;
  Task(Task&& other) noexcept : handle_(std::exchange(other.handle_, {})) {}
  Task& operator=(Task&& other) noexcept {
    std::swap(handle_, other.handle_);
    return *this;
  }
  ~Task() {
    if (handle_) {
      handle_.destroy();
    }
  }

  bool await_ready() const noexcept { return false; }
  std::coroutine_handle<> await_suspend(std::coroutine_handle<> awaiting) noexcept {
    handle_.promise().continuation = awaiting;
    return handle_;
  }
  T await_resume() { return handle_.promise().take(); }

  // For the session, which is what tasks at the root are started and ended by.
  void start() { handle_.resume(); }
  bool done() const { return handle_.done(); }
  T result() const { return handle_.promise().take(); }

 private:
  Handle handle_;
};

namespace detail {

template <typename T>
Task<T> Promise<T>::get_return_object() {
  return Task<T>(std::coroutine_handle<Promise<T>>::from_promise(*this));
}

inline Task<void> Promise<void>::get_return_object() {
  return Task<void>(std::coroutine_handle<Promise<void>>::from_promise(*this));
}

}  // namespace detail

}  // namespace qel_gateway
