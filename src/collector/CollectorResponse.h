#pragma once

#include <optional>
#include <string>

#include "base/QSCookie.h"
#include "collector/QSChallenge.h"
#include "quarrystone/Value.h"

namespace qs {

// What one collector answer says: session id, visitor id, the best risk
// cookie and a challenge, each possibly absent. A value type; not synchronised.
class CollectorResponse {
 public:
  CollectorResponse() = default;

  // Reads the "|"-separated commands of the body's "do" array, in order:
  // "sid|S" and "vid|V" (the last one wins), "bake|name|-|token|-|ttl" (the
  // cookie of strictly higher level wins, the first on a tie), "appc|type|
  // timestamp|hash|uuid" (the last one wins). Anything else, including a
  // "bake" of fewer than 4 fields or an "appc" of fewer than 5, is skipped.
  // A body that is absent, not an object or without a "do" array gives an
  // empty record. A command too short for a field it reads ("sid" or "vid"
  // alone, "bake" of 4 or 5 fields) stops the parse: nullopt, and a
  // one-line reason in *error when `error` is not null. `now` dates the
  // cookie's renewal. Never throws.
  static std::optional<CollectorResponse> initWithCollectorResponse(
      const std::optional<Value>& body, double now, std::string* error);

  const std::optional<std::string>& sid() const { return sid_; }
  const std::optional<std::string>& vid() const { return vid_; }
  const std::optional<QSCookie>& cookie() const { return cookie_; }
  const std::optional<QSChallenge>& challenge() const { return challenge_; }
  void setSid(std::optional<std::string> sid) { sid_ = std::move(sid); }
  void setVid(std::optional<std::string> vid) { vid_ = std::move(vid); }
  void setCookie(std::optional<QSCookie> cookie) { cookie_ = std::move(cookie); }
  void setChallenge(std::optional<QSChallenge> challenge) { challenge_ = std::move(challenge); }

  // "CollectorResponse: sid=%@ vid=%@ %@", the last being the cookie's
  // description; absent values read "(null)".
  std::string description() const;

  // The record by its coder keys "sid", "vid", "cookie", "challenge"; absent
  // fields are left out.
  Value encodeWithCoder() const;
  // nullopt when the value is not a map or a present key holds the wrong kind.
  static std::optional<CollectorResponse> initWithCoder(const Value& coded);

  bool operator==(const CollectorResponse&) const = default;

 private:
  std::optional<std::string> sid_;
  std::optional<std::string> vid_;
  std::optional<QSCookie> cookie_;
  std::optional<QSChallenge> challenge_;
};

}  // namespace qs
