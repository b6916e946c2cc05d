#pragma once

#include <optional>
#include <string>
#include <utility>

namespace qs::sandbox {

// The outcome of a parse: a value, or the reason why there is none. The reason
// is a short lower-case text meant for the sandbox's log and 400 answers.
template <class T>
struct Parsed {
  std::optional<T> value;
  std::string error;

  static Parsed ok(T v) { return Parsed{std::move(v), {}}; }
  static Parsed fail(std::string reason) { return Parsed{std::nullopt, std::move(reason)}; }
  explicit operator bool() const { return value.has_value(); }
};

}  // namespace qs::sandbox
