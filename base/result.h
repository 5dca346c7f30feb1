// The result of an operation of a tool: a value, or an error text for the user that says what
// failed and what to do. The daemon does not use it.
#pragma once

#include <string>
#include <type_traits>
#include <utility>
#include <variant>

namespace tarnik {

struct Error {
  std::string text;    // without program name and newline
  int exitStatus = 1;  // of the tool that ends because of it
};

// The value of an operation that returns none.
struct Done {};

template <class Value = Done>
class [[nodiscard]] Result {
 public:
  Result() requires std::is_default_constructible_v<Value>
  = default;
  Result(Value value) : content_(std::move(value)) {}  // NOLINT(google-explicit-constructor)
  Result(Error error) : content_(std::move(error)) {}  // NOLINT(google-explicit-constructor)

  [[nodiscard]] bool ok() const { return std::holds_alternative<Value>(content_); }
  [[nodiscard]] explicit operator bool() const { return ok(); }
  // Only when ok().
  [[nodiscard]] Value& operator*() { return std::get<Value>(content_); }
  [[nodiscard]] const Value& operator*() const { return std::get<Value>(content_); }
  [[nodiscard]] Value* operator->() { return &std::get<Value>(content_); }
  [[nodiscard]] const Value* operator->() const { return &std::get<Value>(content_); }
  // Only when not ok().
  [[nodiscard]] const std::string& error() const { return std::get<Error>(content_).text; }
  [[nodiscard]] int exitStatus() const { return std::get<Error>(content_).exitStatus; }

 private:
  std::variant<Value, Error> content_;
};

}  // namespace tarnik
