#include "base/QSCookie.h"

#include <cctype>
#include <cmath>
#include <cstdint>
#include <ctime>
#include <limits>

#include <fmt/format.h>

#include "quarrystone/Constants.h"

namespace qs {

const char* const QS_COOKIE_LEVEL_1 = "_qs";
const char* const QS_COOKIE_LEVEL_2 = "_qs2";
const char* const QS_COOKIE_LEVEL_3 = "_qs3";

namespace {

// Fire dates beyond this (about 31,700 years) are clamped so that date
// arithmetic and timers stay finite.
constexpr double kMaxTtlSeconds = 1e12;

double ttlSeconds(const Value& ttl) {
  double seconds = 0;
  if (ttl.is_number()) {
    seconds = ttl.get<double>();
  } else if (ttl.is_string()) {
    seconds = doubleValue(ttl.get_ref<const std::string&>());
  }
  if (!std::isfinite(seconds)) return 0;
  if (seconds > kMaxTtlSeconds) return kMaxTtlSeconds;
  if (seconds < -kMaxTtlSeconds) return -kMaxTtlSeconds;
  return seconds;
}

}  // namespace

QSCookie::QSCookie(std::string name, std::string token, const Value& ttl, double now)
    : name_(std::move(name)), token_(std::move(token)), ttlFireDate_(now + 0.8 * ttlSeconds(ttl)) {}

QSCookie::QSCookie(std::string name, std::string token, double ttlFireDate)
    : name_(std::move(name)), token_(std::move(token)), ttlFireDate_(ttlFireDate) {}

std::size_t QSCookie::cookieLevelFrom(const std::optional<std::string>& name) {
  if (name) {
    if (*name == QS_COOKIE_LEVEL_1) return 1;
    if (*name == QS_COOKIE_LEVEL_2) return 2;
    if (*name == QS_COOKIE_LEVEL_3) return 3;
  }
  return static_cast<std::size_t>(-1);
}

std::string QSCookie::description() const {
  return fmt::format("Cookie: Name={} ttlFireDate={} Token={}", name_, formatDate(ttlFireDate_),
                     token_);
}

Value QSCookie::encodeWithCoder() const {
  Value coded = Value::object();
  coded["name"] = name_;
  coded["token"] = token_;
  coded["ttlFireDate"] = ttlFireDate_;
  return coded;
}

std::optional<QSCookie> QSCookie::initWithCoder(const Value& coded) {
  if (!coded.is_object()) return std::nullopt;
  auto name = coded.find("name");
  auto token = coded.find("token");
  auto date = coded.find("ttlFireDate");
  if (name == coded.end() || !name->is_string() || token == coded.end() || !token->is_string() ||
      date == coded.end() || !date->is_number()) {
    return std::nullopt;
  }
  double fireDate = date->get<double>();
  if (!std::isfinite(fireDate)) return std::nullopt;
  return QSCookie(name->get<std::string>(), token->get<std::string>(), fireDate);
}

std::string formatDate(double secondsSince1970) {
  if (!std::isfinite(secondsSince1970)) return "(invalid date)";
  std::time_t t = static_cast<std::time_t>(std::floor(secondsSince1970));
  std::tm tm{};
  if (gmtime_r(&t, &tm) == nullptr) return "(invalid date)";
  return fmt::format("{:04}-{:02}-{:02} {:02}:{:02}:{:02} +0000", tm.tm_year + 1900, tm.tm_mon + 1,
                     tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec);
}

namespace {

// Skips leading white space and reads an optional sign; returns the position
// of the first digit candidate.
std::size_t skipSpaceAndSign(std::string_view text, bool& negative) {
  std::size_t i = 0;
  while (i < text.size() && std::isspace(static_cast<unsigned char>(text[i]))) ++i;
  negative = false;
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) {
    negative = text[i] == '-';
    ++i;
  }
  return i;
}

}  // namespace

double doubleValue(std::string_view text) {
  bool negative = false;
  std::size_t i = skipSpaceAndSign(text, negative);
  double value = 0;
  bool anyDigit = false;
  for (; i < text.size() && std::isdigit(static_cast<unsigned char>(text[i])); ++i) {
    value = value * 10 + (text[i] - '0');
    anyDigit = true;
  }
  if (i < text.size() && text[i] == '.') {
    double scale = 0.1;
    for (++i; i < text.size() && std::isdigit(static_cast<unsigned char>(text[i])); ++i) {
      value += (text[i] - '0') * scale;
      scale /= 10;
      anyDigit = true;
    }
  }
  if (!anyDigit) return 0;
  if (i + 1 < text.size() && (text[i] == 'e' || text[i] == 'E')) {
    bool expNegative = false;
    std::size_t j = i + 1;
    if (text[j] == '+' || text[j] == '-') expNegative = text[j++] == '-';
    int exponent = 0;
    bool expDigit = false;
    for (; j < text.size() && std::isdigit(static_cast<unsigned char>(text[j])); ++j) {
      if (exponent < 10000) exponent = exponent * 10 + (text[j] - '0');
      expDigit = true;
    }
    if (expDigit) value *= std::pow(10.0, expNegative ? -exponent : exponent);
  }
  return negative ? -value : value;
}

long long integerValue(std::string_view text) {
  bool negative = false;
  std::size_t i = skipSpaceAndSign(text, negative);
  // Accumulate as a negative number so that the minimum value fits; saturate.
  constexpr long long kMin = std::numeric_limits<long long>::min();
  long long value = 0;
  for (; i < text.size() && std::isdigit(static_cast<unsigned char>(text[i])); ++i) {
    int digit = text[i] - '0';
    if (value < (kMin + digit) / 10) {
      value = kMin;
      break;
    }
    value = value * 10 - digit;
  }
  if (negative) return value;
  return value == kMin ? std::numeric_limits<long long>::max() : -value;
}

}  // namespace qs
