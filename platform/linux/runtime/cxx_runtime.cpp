// SPDX-License-Identifier: Apache-2.0
//
// The little of the C++ run-time that code without exceptions needs: memory from malloc, and an end
// by abort() where the standard library would throw. A program that links it carries no exception
// machinery at all, which is two fifths of a small agent. Programs that do throw must not link it.
#include <bits/functexcept.h>
#include <cxxabi.h>
#include <stddef.h>
#include <stdlib.h>

#include <new>

namespace {

void* allocate(size_t size) {
  void* memory = malloc(size > 0 ? size : 1);
  if (memory == nullptr) {
    abort();
  }
  return memory;
}

}  // namespace

namespace std {

const nothrow_t nothrow{};

// All of them: one that is missing would bring in the library's own, and with it everything.
void __throw_bad_exception() {
  abort();
}
void __throw_bad_alloc() {
  abort();
}
void __throw_bad_array_new_length() {
  abort();
}
void __throw_bad_cast() {
  abort();
}
void __throw_bad_typeid() {
  abort();
}
void __throw_logic_error(const char*) {
  abort();
}
void __throw_domain_error(const char*) {
  abort();
}
void __throw_invalid_argument(const char*) {
  abort();
}
void __throw_length_error(const char*) {
  abort();
}
void __throw_out_of_range(const char*) {
  abort();
}
void __throw_out_of_range_fmt(const char*, ...) {
  abort();
}
void __throw_runtime_error(const char*) {
  abort();
}
void __throw_range_error(const char*) {
  abort();
}
void __throw_overflow_error(const char*) {
  abort();
}
void __throw_underflow_error(const char*) {
  abort();
}
void __throw_ios_failure(const char*) {
  abort();
}
void __throw_ios_failure(const char*, int) {
  abort();
}
void __throw_system_error(int) {
  abort();
}
void __throw_future_error(int) {
  abort();
}
void __throw_bad_function_call() {
  abort();
}

}  // namespace std

void* operator new(size_t size) {
  return allocate(size);
}
void* operator new[](size_t size) {
  return allocate(size);
}
void* operator new(size_t size, const std::nothrow_t& /*tag*/) noexcept {
  return malloc(size > 0 ? size : 1);
}
void* operator new[](size_t size, const std::nothrow_t& /*tag*/) noexcept {
  return malloc(size > 0 ? size : 1);
}
void operator delete(void* memory) noexcept {
  free(memory);
}
void operator delete[](void* memory) noexcept {
  free(memory);
}
void operator delete(void* memory, size_t /*size*/) noexcept {
  free(memory);
}
void operator delete[](void* memory, size_t /*size*/) noexcept {
  free(memory);
}

// Static objects inside functions are made once; there is one thread, so nobody has to wait.
extern "C" int __cxxabiv1::__cxa_guard_acquire(__guard* guard) {
  return *reinterpret_cast<const char*>(guard) == 0 ? 1 : 0;
}
extern "C" void __cxxabiv1::__cxa_guard_release(__guard* guard) noexcept {
  *reinterpret_cast<char*>(guard) = 1;
}
extern "C" void __cxxabiv1::__cxa_pure_virtual() {
  abort();
}
