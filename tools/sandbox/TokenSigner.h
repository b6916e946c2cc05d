#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace qs::sandbox {

// What a sandbox risk token says about its holder.
struct TokenClaims {
  std::string appId;
  std::string vid;
  std::int64_t expiresAt = 0;  // seconds since 1970; invalid from this second on
  std::string simulate;        // "block" or "captcha" when the collector was asked to simulate
};

enum class TokenStatus { Valid, Malformed, BadSignature, Expired };

struct TokenCheck {
  TokenStatus status = TokenStatus::Malformed;
  TokenClaims claims;  // filled for Valid and Expired
};

// Signs and verifies everything the sandbox hands out and later takes back:
// risk tokens, visitor ids and challenge hashes, all by HMAC-SHA256 under one
// secret, so the collector and the backend need no shared table. Immutable
// after construction; safe to use from any thread.
class TokenSigner {
 public:
  explicit TokenSigner(std::string secret);

  // "<base64url claims JSON>.<hex HMAC>": no "|" or ":", so it travels in a
  // collector command and after the level in the authorization header.
  std::string sign(const TokenClaims& claims) const;
  TokenCheck verify(std::string_view token, double now) const;

  // A fresh visitor id that isKnownVisitor() will recognise.
  std::string newVisitorId() const;
  bool isKnownVisitor(std::string_view vid) const;

  // The signed hash of a challenge: hex HMAC over its uuid and timestamp.
  std::string challengeHash(std::string_view uuid, std::int64_t timestamp) const;

 private:
  std::string mac(std::string_view domain, std::string_view message) const;

  const std::string secret_;
};

}  // namespace qs::sandbox
