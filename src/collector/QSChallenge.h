#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "quarrystone/Value.h"

namespace qs {

// A challenge sent by the collector in an "appc" command, answered by the
// challenge activity. A value type: copies are independent; not synchronised.
class QSChallenge {
 public:
  // The timestamp text is read as a plain decimal number ("42", "-1.5",
  // "1,234"); anything else, the empty text included, leaves it absent.
  QSChallenge(std::string type, std::string timestampText, std::string signedHash,
              std::string uuid);

  // A JSON integer when the value is whole and fits 64 bits, else a double.
  // nullopt when the whole text is not such a number.
  static std::optional<Value> numberFromDecimalText(std::string_view text);

  const std::string& type() const { return type_; }
  // A JSON number, or nullopt when the text did not parse.
  const std::optional<Value>& timestamp() const { return timestamp_; }
  const std::string& signedHash() const { return signedHash_; }
  const std::string& uuid() const { return uuid_; }
  void setType(std::string type) { type_ = std::move(type); }
  void setTimestamp(std::optional<Value> timestamp) { timestamp_ = std::move(timestamp); }
  void setSignedHash(std::string hash) { signedHash_ = std::move(hash); }
  void setUuid(std::string uuid) { uuid_ = std::move(uuid); }

  // "QSChallenge: type=%@ timestamp=%@ uuid=%@"; the signed hash stays out.
  std::string description() const;

  // The record by its coder keys "type", "timestamp" (left out when absent),
  // "signedHash", "uuid".
  Value encodeWithCoder() const;
  // nullopt when a string key is missing or a key holds the wrong kind.
  static std::optional<QSChallenge> initWithCoder(const Value& coded);

  bool operator==(const QSChallenge&) const = default;

 private:
  QSChallenge() = default;

  std::string type_;
  std::optional<Value> timestamp_;
  std::string signedHash_;
  std::string uuid_;
};

}  // namespace qs
