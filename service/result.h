// A value or the Error that prevented it: how the service's lower layers answer without
// throwing.
#pragma once

#include <utility>
#include <variant>

#include "nembra/error.h"

namespace nembra {

template <class T>
class Result {
 public:
  Result(T value) : state_(std::move(value)) {}      // NOLINT: implicit by design
  Result(Error error) : state_(std::move(error)) {}  // NOLINT: implicit by design

  bool ok() const { return std::holds_alternative<T>(state_); }
  explicit operator bool() const { return ok(); }

  // REQUIRES: ok().
  T& value() { return std::get<T>(state_); }
  const T& value() const { return std::get<T>(state_); }
  T* operator->() { return &value(); }
  const T* operator->() const { return &value(); }
  T& operator*() { return value(); }
  const T& operator*() const { return value(); }

  // REQUIRES: !ok().
  const Error& error() const { return std::get<Error>(state_); }

 private:
  std::variant<T, Error> state_;
};

}  // namespace nembra
