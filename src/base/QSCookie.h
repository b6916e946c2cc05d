#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "quarrystone/Value.h"

namespace qs {

// The risk token handed out by the collector, with its renewal date.
// A value type: copies are independent; not synchronised.
class QSCookie {
 public:
  // `ttl` is the time to live in seconds, as text or a number; text that is
  // not a number counts as 0. The fire date lies at 80% of it from `now`.
  QSCookie(std::string name, std::string token, const Value& ttl, double now);
  QSCookie(std::string name, std::string token, double ttlFireDate);

  // 1, 2 or 3 for "_qs", "_qs2", "_qs3"; all bits set for any other name,
  // which therefore outranks every known level.
  static std::size_t cookieLevelFrom(const std::optional<std::string>& name);

  // True once `now` is later than the fire date.
  bool ttlExpired(double now) const { return now > ttlFireDate_; }

  const std::string& name() const { return name_; }
  const std::string& token() const { return token_; }
  // Declared for the record's contract but never assigned: always absent.
  std::optional<double> ttl() const { return std::nullopt; }
  double ttlFireDate() const { return ttlFireDate_; }
  void setName(std::string name) { name_ = std::move(name); }
  void setToken(std::string token) { token_ = std::move(token); }
  void setTtlFireDate(double date) { ttlFireDate_ = date; }

  // "Cookie: Name=%@ ttlFireDate=%@ Token=%@"
  std::string description() const;

  // The record by its coder keys "name", "token", "ttlFireDate".
  Value encodeWithCoder() const;
  // nullopt when a key is missing or of the wrong kind.
  static std::optional<QSCookie> initWithCoder(const Value& coded);

  bool operator==(const QSCookie&) const = default;

 private:
  std::string name_;
  std::string token_;
  double ttlFireDate_ = 0;
};

// Formats seconds since 1970 as "YYYY-MM-DD hh:mm:ss +0000".
std::string formatDate(double secondsSince1970);

// Lenient number reading of text: leading white space and a sign are
// accepted, reading stops at the first character that does not fit, and
// text with no leading number gives 0. Never throws.
double doubleValue(std::string_view text);
long long integerValue(std::string_view text);

}  // namespace qs
