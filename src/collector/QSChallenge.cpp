#include "collector/QSChallenge.h"

#include <charconv>
#include <cmath>
#include <cstdint>

#include <fmt/format.h>

namespace qs {

namespace {

bool isDigit(char c) { return c >= '0' && c <= '9'; }

// Accepts the integer part either as plain digits or grouped by "," in
// threes ("1,234,567"). Returns the digits without separators, or nullopt.
std::optional<std::string> integerDigits(std::string_view part) {
  if (part.find(',') == std::string_view::npos) {
    for (char c : part) {
      if (!isDigit(c)) return std::nullopt;
    }
    return std::string(part);
  }
  std::string digits;
  std::size_t group = 0;
  bool first = true;
  for (char c : part) {
    if (c == ',') {
      if (group == 0 || group > 3 || (!first && group != 3)) return std::nullopt;
      first = false;
      group = 0;
    } else if (isDigit(c)) {
      digits.push_back(c);
      ++group;
    } else {
      return std::nullopt;
    }
  }
  if (group != 3) return std::nullopt;
  return digits;
}

}  // namespace

std::optional<Value> QSChallenge::numberFromDecimalText(std::string_view text) {
  bool negative = false;
  if (!text.empty() && (text.front() == '-' || text.front() == '+')) {
    negative = text.front() == '-';
    text.remove_prefix(1);
  }
  std::size_t dot = text.find('.');
  std::string_view integerPart = text.substr(0, dot);
  std::string_view fraction =
      dot == std::string_view::npos ? std::string_view() : text.substr(dot + 1);
  auto digits = integerDigits(integerPart);
  if (!digits) return std::nullopt;
  for (char c : fraction) {
    if (!isDigit(c)) return std::nullopt;
  }
  if (digits->empty() && fraction.empty()) return std::nullopt;

  std::string integerText = negative ? "-" : "";
  integerText += digits->empty() ? "0" : *digits;
  if (fraction.find_first_not_of('0') == std::string_view::npos) {
    std::int64_t whole = 0;
    const char* end = integerText.data() + integerText.size();
    auto [ptr, ec] = std::from_chars(integerText.data(), end, whole);
    if (ec == std::errc() && ptr == end) return Value(whole);
  }
  std::string decimalText = integerText;
  if (!fraction.empty()) {
    decimalText += '.';
    decimalText += fraction;
  }
  double value = 0;
  const char* end = decimalText.data() + decimalText.size();
  auto [ptr, ec] = std::from_chars(decimalText.data(), end, value);
  if (ec != std::errc() || ptr != end || !std::isfinite(value)) return std::nullopt;
  return Value(value);
}

QSChallenge::QSChallenge(std::string type, std::string timestampText, std::string signedHash,
                         std::string uuid)
    : type_(std::move(type)),
      timestamp_(numberFromDecimalText(timestampText)),
      signedHash_(std::move(signedHash)),
      uuid_(std::move(uuid)) {}

std::string QSChallenge::description() const {
  return fmt::format("QSChallenge: type={} timestamp={} uuid={}", type_,
                     timestamp_ ? timestamp_->dump() : "(null)", uuid_);
}

Value QSChallenge::encodeWithCoder() const {
  Value coded = Value::object();
  coded["type"] = type_;
  if (timestamp_) coded["timestamp"] = *timestamp_;
  coded["signedHash"] = signedHash_;
  coded["uuid"] = uuid_;
  return coded;
}

std::optional<QSChallenge> QSChallenge::initWithCoder(const Value& coded) {
  if (!coded.is_object()) return std::nullopt;
  auto type = coded.find("type");
  auto timestamp = coded.find("timestamp");
  auto hash = coded.find("signedHash");
  auto uuid = coded.find("uuid");
  if (type == coded.end() || !type->is_string() || hash == coded.end() || !hash->is_string() ||
      uuid == coded.end() || !uuid->is_string()) {
    return std::nullopt;
  }
  QSChallenge challenge;
  challenge.type_ = type->get<std::string>();
  challenge.signedHash_ = hash->get<std::string>();
  challenge.uuid_ = uuid->get<std::string>();
  if (timestamp != coded.end() && !timestamp->is_null()) {
    if (!timestamp->is_number()) return std::nullopt;
    challenge.timestamp_ = *timestamp;
  }
  return challenge;
}

}  // namespace qs
