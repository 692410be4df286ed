#pragma once

// A value, or the reason, for display, why there is none.

#include <string>
#include <utility>
#include <variant>

namespace hardware::simulated {

struct Failure {
  std::string reason;
};

template <typename T>
class [[nodiscard]] Result {
 public:
  Result(T value) : _content(std::move(value)) {}
  Result(Failure failure) : _content(std::move(failure)) {}

  explicit operator bool() const noexcept { return _content.index() == 0; }

  T& operator*() { return std::get<0>(_content); }
  const T& operator*() const { return std::get<0>(_content); }
  T* operator->() { return &std::get<0>(_content); }
  const T* operator->() const { return &std::get<0>(_content); }

  const std::string& reason() const { return std::get<1>(_content).reason; }
  Failure failure() const { return std::get<1>(_content); }

 private:
  std::variant<T, Failure> _content;
};

}  // namespace hardware::simulated
