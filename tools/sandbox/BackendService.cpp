#include "BackendService.h"

#include "BlockPage.h"
#include "SandboxCodec.h"

namespace qs::sandbox {

namespace {

// Sandbox tokens are baked as "_qs3" cookies, so the header carries level 3.
constexpr std::string_view kLevelPrefix = "3:";

const char* describe(TokenStatus status) {
  switch (status) {
    case TokenStatus::Valid:
      return "valid token";
    case TokenStatus::Malformed:
      return "malformed token";
    case TokenStatus::BadSignature:
      return "token signature does not verify";
    case TokenStatus::Expired:
      return "token expired";
  }
  return "invalid token";
}

Value orderList() {
  return Value::array({
      {{"id", "A-1001"}, {"item", "Granite worktop sample"}, {"quantity", 2}, {"total", "18.40"}},
      {{"id", "A-1002"}, {"item", "Slate coaster set"}, {"quantity", 1}, {"total", "24.00"}},
      {{"id", "A-1003"}, {"item", "Marble chopping board"}, {"quantity", 1}, {"total", "39.90"}},
  });
}

}  // namespace

BackendService::BackendService(const TokenSigner& signer, Clock clock,
                               DeploymentSettings deployment, bool autosolve)
    : signer_(signer),
      clock_(std::move(clock)),
      deployment_(std::move(deployment)),
      autosolve_(autosolve) {}

HttpOutcome BackendService::orders(const BackendRequest& request) const {
  const double now = clock_();
  const bool autosolve = autosolve_ || request.autosolve;

  TokenCheck check;
  std::string reason = "no token";
  if (request.authorization && request.authorization->compare(0, 2, kLevelPrefix) == 0) {
    check = signer_.verify(std::string_view(*request.authorization).substr(2), now);
    reason = describe(check.status);
  } else if (request.authorization && *request.authorization != "1") {
    reason = "authorization is neither \"1\" nor a level-3 token";
  }

  if (auto scripted = scenario(request, check, reason, autosolve, now)) return *scripted;
  if (request.simulate == "block" || request.simulate == "captcha") {
    return deny(request.simulate, "X-QS-SIMULATE: " + request.simulate, check.claims, autosolve,
                now);
  }
  if (check.status != TokenStatus::Valid) {
    return deny("captcha", reason, check.claims, autosolve, now);
  }
  if (!check.claims.simulate.empty()) {
    return deny(check.claims.simulate, "token marked by a simulating collector", check.claims,
                autosolve, now);
  }

  HttpOutcome outcome;
  outcome.body = SandboxCodec::dumpJson(Value{{"orders", orderList()}});
  outcome.event = {{"ts", now},        {"event", "backend"},          {"decision", "allow"},
                   {"reason", reason}, {"appId", check.claims.appId}, {"vid", check.claims.vid}};
  return outcome;
}

std::optional<HttpOutcome> BackendService::scenario(const BackendRequest& request,
                                                    const TokenCheck& check,
                                                    const std::string& reason, bool autosolve,
                                                    double now) const {
  const std::string& name = request.challenge;
  if (name.empty()) return std::nullopt;
  HttpOutcome outcome;
  if (name == "always") {
    outcome = deny("captcha", "scenario: always", check.claims, autosolve, now);
  } else if (name == "block") {
    outcome = deny("block", "scenario: block", check.claims, autosolve, now);
  } else if (name == "once") {
    if (check.status != TokenStatus::Valid) return std::nullopt;
    bool first = false;
    {
      std::lock_guard lock(mutex_);
      auto [it, inserted] = firstTokens_.try_emplace(request.scenarioKey, *request.authorization);
      first = it->second == *request.authorization;
    }
    if (!first) return std::nullopt;
    outcome = deny("captcha", "scenario: once", check.claims, autosolve, now);
  } else if (name == "badjson" || name == "badpage" || name == "plain") {
    outcome.status = 403;
    outcome.body = name == "badjson" ? std::string("{\"action\": \"captcha\", \"page\": ")
                   : name == "badpage"
                       ? SandboxCodec::dumpJson(Value{{"action", "captcha"}, {"page", "%%%"}})
                       : std::string("{\"error\":\"forbidden\"}");
    outcome.event = {{"ts", now}, {"event", "backend"}, {"decision", name}, {"reason", reason}};
  } else {
    return std::nullopt;
  }
  outcome.event["case"] = request.scenarioKey;
  return outcome;
}

HttpOutcome BackendService::deny(const std::string& action, const std::string& reason,
                                 const TokenClaims& claims, bool autosolve, double now) const {
  const std::string uuid = SandboxCodec::uuid4();
  const std::string page =
      action == "block" ? BlockPage::blockHtml(uuid) : BlockPage::captchaHtml(uuid, autosolve);
  const std::string collectorUrl =
      claims.appId.empty() ? std::string() : deployment_.collectorUrl(claims.appId);

  HttpOutcome outcome;
  outcome.status = 403;
  outcome.body = SandboxCodec::dumpJson(Value{{"action", action},
                                              {"uuid", uuid},
                                              {"vid", claims.vid},
                                              {"appId", claims.appId},
                                              {"collectorUrl", collectorUrl},
                                              {"page", SandboxCodec::base64Encode(page)}});
  outcome.event = {{"ts", now},         {"event", "backend"},    {"decision", action},
                   {"reason", reason},  {"uuid", uuid},          {"appId", claims.appId},
                   {"vid", claims.vid}, {"autosolve", autosolve}};
  return outcome;
}

}  // namespace qs::sandbox
