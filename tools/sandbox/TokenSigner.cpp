#include "TokenSigner.h"

#include <cmath>

#include "SandboxCodec.h"

namespace qs::sandbox {

namespace {

constexpr std::size_t kMaxTokenLength = 4096;
constexpr std::size_t kVisitorRandomHex = 16;
constexpr std::size_t kVisitorMacHex = 16;

}  // namespace

TokenSigner::TokenSigner(std::string secret) : secret_(std::move(secret)) {}

std::string TokenSigner::mac(std::string_view domain, std::string_view message) const {
  std::string input(domain);
  input.push_back('|');
  input.append(message);
  return SandboxCodec::hmacSha256Hex(secret_, input);
}

std::string TokenSigner::sign(const TokenClaims& claims) const {
  // The nonce makes every token new, even two baked within the same second,
  // so the client never takes a renewal for the token it already holds.
  Value body = {{"appId", claims.appId},
                {"vid", claims.vid},
                {"exp", claims.expiresAt},
                {"n", SandboxCodec::randomHex(6)}};
  if (!claims.simulate.empty()) body["sim"] = claims.simulate;
  const std::string encoded = SandboxCodec::base64UrlEncode(SandboxCodec::dumpJson(body));
  return encoded + "." + mac("token", encoded);
}

TokenCheck TokenSigner::verify(std::string_view token, double now) const {
  TokenCheck check;
  const std::size_t dot = token.rfind('.');
  if (token.size() > kMaxTokenLength || dot == std::string_view::npos) return check;
  const std::string_view encoded = token.substr(0, dot);
  if (!SandboxCodec::constantTimeEquals(token.substr(dot + 1), mac("token", encoded))) {
    check.status = TokenStatus::BadSignature;
    return check;
  }
  // Signed by us, so the content is ours; still read it defensively.
  const auto json = SandboxCodec::base64UrlDecode(encoded);
  const auto body = json ? SandboxCodec::parseJson(*json, 2) : std::nullopt;
  if (!body || !body->is_object()) return check;
  const auto appId = body->find("appId");
  const auto vid = body->find("vid");
  const auto exp = body->find("exp");
  if (appId == body->end() || !appId->is_string() || vid == body->end() || !vid->is_string() ||
      exp == body->end() || !exp->is_number_integer()) {
    return check;
  }
  check.claims.appId = appId->get<std::string>();
  check.claims.vid = vid->get<std::string>();
  check.claims.expiresAt = exp->get<std::int64_t>();
  if (const auto sim = body->find("sim"); sim != body->end() && sim->is_string()) {
    check.claims.simulate = sim->get<std::string>();
  }
  check.status = std::floor(now) >= static_cast<double>(check.claims.expiresAt)
                     ? TokenStatus::Expired
                     : TokenStatus::Valid;
  return check;
}

std::string TokenSigner::newVisitorId() const {
  const std::string random = SandboxCodec::randomHex(kVisitorRandomHex / 2);
  return random + "-" + mac("vid", random).substr(0, kVisitorMacHex);
}

bool TokenSigner::isKnownVisitor(std::string_view vid) const {
  if (vid.size() != kVisitorRandomHex + 1 + kVisitorMacHex || vid[kVisitorRandomHex] != '-') {
    return false;
  }
  const std::string_view random = vid.substr(0, kVisitorRandomHex);
  return SandboxCodec::constantTimeEquals(vid.substr(kVisitorRandomHex + 1),
                                          mac("vid", random).substr(0, kVisitorMacHex));
}

std::string TokenSigner::challengeHash(std::string_view uuid, std::int64_t timestamp) const {
  return mac("appc", std::string(uuid) + "|" + std::to_string(timestamp));
}

}  // namespace qs::sandbox
