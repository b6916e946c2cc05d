#include "CollectorService.h"

#include <algorithm>
#include <cmath>
#include <optional>
#include <string>

#include "SandboxCodec.h"
#include "base/PercentEncoding.h"
#include "crypto/SHA256_CBC.h"

namespace qs::sandbox {

namespace {

constexpr std::string_view kAppInit = "QS315";
constexpr std::string_view kAppIdle = "QS325";
constexpr std::string_view kChallengeAnswer = "QS329";
constexpr std::string_view kAppState = "QS330";
constexpr std::string_view kChallengeTimestamp = "QS259";
constexpr std::string_view kChallengeSigned = "QS256";
constexpr std::string_view kChallengeResult = "QS257";
constexpr std::string_view kChallengeType = "hmac";
constexpr std::size_t kMaxAppIdLength = 128;
// A client clock somewhat ahead of ours is tolerated.
constexpr double kChallengeFutureSkewSeconds = 60;
constexpr std::string_view kGarbageBody = "<html><body>502 Bad Gateway</body></html>";

// The one place where the sandbox uses the library's payload cipher.
std::optional<std::string> decryptPayload(std::string_view payload, std::string_view appId) {
  return SHA256_CBC::decryptBase64StringToString(payload, appId);
}

// Seconds as the client echoes them: an integer number, an integral floating
// number or decimal digits. -1 when absent or anything else.
std::int64_t readTimestamp(const Value& d) {
  const auto it = d.find(kChallengeTimestamp);
  if (it == d.end()) return -1;
  if (it->is_number_unsigned()) {
    return it->get<std::uint64_t>() > 1'000'000'000'000'000 ? -1 : it->get<std::int64_t>();
  }
  if (it->is_number_integer()) return std::max<std::int64_t>(it->get<std::int64_t>(), -1);
  if (it->is_number_float()) {
    const double v = it->get<double>();
    const bool integral = std::isfinite(v) && v == std::floor(v) && v >= 0 && v < 1e15;
    return integral ? static_cast<std::int64_t>(v) : -1;
  }
  if (it->is_string()) {
    const auto& s = it->get_ref<const std::string&>();
    const bool digits = !s.empty() && s.size() <= 15 && std::all_of(s.begin(), s.end(), [](char c) {
      return c >= '0' && c <= '9';
    });
    return digits ? std::stoll(s) : -1;
  }
  return -1;
}

const std::string* stringField(const Value& d, std::string_view key) {
  const auto it = d.find(key);
  return it != d.end() && it->is_string() ? &it->get_ref<const std::string&>() : nullptr;
}

// The client leaves "&", "=" and "+" unescaped inside r, so r is the only
// parameter and runs to the end of the query.
Parsed<Value> readReport(std::string_view target) {
  const std::size_t q = target.find('?');
  const std::string_view query = q == std::string_view::npos ? "" : target.substr(q + 1);
  if (query.substr(0, 2) != "r=") return Parsed<Value>::fail("missing query parameter r");
  const auto text = qs::percentDecode(query.substr(2));
  if (!text) return Parsed<Value>::fail("r is not percent-encoded");
  auto report = SandboxCodec::parseJson(*text);
  if (!report || !report->is_object()) return Parsed<Value>::fail("r is not a JSON object");
  return Parsed<Value>::ok(std::move(*report));
}

}  // namespace

struct CollectorService::Activity {
  std::string appId;
  std::string sid;  // as sent; empty when absent
  std::string vid;
  std::string uuid;  // the client's per-process id
  std::string tag;
  std::string type;
  Value details;
};

struct CollectorService::Decision {
  Value answer = Value::array();
  std::string name;
  std::string reason;
};

CollectorService::CollectorService(const TokenSigner& signer, Clock clock,
                                   CollectorSettings settings, SandboxMode mode)
    : signer_(signer), clock_(std::move(clock)), settings_(settings), mode_(mode) {}

HttpOutcome CollectorService::collect(std::string_view body, std::string_view simulate) const {
  const double now = clock_();
  const SandboxMode mode = mode_.load();
  HttpOutcome outcome;
  if (mode == SandboxMode::Down) {
    outcome.dropConnection = true;
    outcome.event = {{"ts", now}, {"event", "dropped"}, {"endpoint", "collector"}};
    return outcome;
  }

  const auto form = FormBody::parse(body);
  const auto activity = form ? readActivity(*form.value) : Parsed<Activity>::fail(form.error);
  if (!activity) {
    outcome = reject("collector", activity.error, now);
    applyMode(mode, outcome);
    return outcome;
  }

  const Activity& a = *activity.value;
  const Decision decision = decide(a, simulate, now);
  outcome.body = SandboxCodec::dumpJson(Value{{"do", decision.answer}});
  outcome.event = {{"ts", now},
                   {"event", "activity"},
                   {"appId", a.appId},
                   {"type", a.type},
                   {"sid", a.sid},
                   {"vid", a.vid},
                   {"uuid", a.uuid},
                   {"tag", a.tag},
                   {"d", a.details},
                   {"decision", decision.name},
                   {"answer", decision.answer}};
  if (!decision.reason.empty()) outcome.event["reason"] = decision.reason;
  if (!simulate.empty()) outcome.event["simulate"] = simulate;
  applyMode(mode, outcome);
  return outcome;
}

Parsed<CollectorService::Activity> CollectorService::readActivity(const FormBody& form) const {
  using Result = Parsed<Activity>;
  const std::string_view appId = form.get("appId");
  const std::string_view payload = form.get("payload");
  if (appId.empty() || appId.size() > kMaxAppIdLength) return Result::fail("missing or long appId");
  if (payload.empty()) return Result::fail("missing payload");
  if (payload.size() > settings_.maxPayloadLength) return Result::fail("payload too long");

  const auto plain = decryptPayload(payload, appId);
  if (!plain) return Result::fail("payload does not decrypt under the app id");
  const auto json = SandboxCodec::parseJson(*plain);
  if (!json) return Result::fail("decrypted payload is not JSON");
  if (!json->is_array() || json->size() != 1 || !(*json)[0].is_object()) {
    return Result::fail("payload is not an array of one activity");
  }
  const Value& record = (*json)[0];
  const auto t = record.find("t");
  const auto d = record.find("d");
  if (t == record.end() || !t->is_string() || d == record.end() || !d->is_object()) {
    return Result::fail("activity lacks a string \"t\" or an object \"d\"");
  }
  return Result::ok(Activity{std::string(appId), std::string(form.get("sid")),
                             std::string(form.get("vid")), std::string(form.get("uuid")),
                             std::string(form.get("tag")), t->get<std::string>(), *d});
}

CollectorService::Decision CollectorService::decide(const Activity& a, std::string_view simulate,
                                                    double now) const {
  Decision decision;
  // A vid we did not sign (another sandbox run, a typo) counts as a new visitor.
  const bool knownVisitor = signer_.isKnownVisitor(a.vid);
  const std::string vid = knownVisitor ? a.vid : signer_.newVisitorId();
  const std::string* state = stringField(a.details, kAppState);
  const bool newSession =
      a.sid.empty() || (a.type == kAppInit && state != nullptr && *state == "new_session");

  if (newSession) decision.answer.push_back("sid|" + SandboxCodec::uuid4());
  if (!knownVisitor) decision.answer.push_back("vid|" + vid);

  if (a.type == kChallengeAnswer) {
    checkChallengeAnswer(a, now, decision);
    if (decision.reason.empty()) {
      decision.answer.push_back(bake(a, vid, simulate, now));
      decision.name = "challenge_passed";
    }
  } else if (newSession && (a.type == kAppInit || a.type == kAppIdle) &&
             !settings_.challengeNewSessions) {
    decision.answer.push_back(bake(a, vid, simulate, now));
    decision.name = "new_session";
  } else if (newSession && (a.type == kAppInit || a.type == kAppIdle)) {
    const auto timestamp = static_cast<std::int64_t>(std::floor(now));
    const std::string uuid = SandboxCodec::uuid4();
    decision.answer.push_back(std::string("appc|") + std::string(kChallengeType) + "|" +
                              std::to_string(timestamp) + "|" +
                              signer_.challengeHash(uuid, timestamp) + "|" + uuid);
    decision.name = "new_session";
  } else if (knownVisitor && (a.type == kAppIdle || a.type == kAppInit)) {
    decision.answer.push_back(bake(a, vid, simulate, now));
    decision.name = "token_renewed";
  } else if (!knownVisitor) {
    decision.name = "unknown_visitor";
    decision.reason = "a token needs a known visitor; answer the new session's challenge first";
  } else {
    decision.name = "unknown_type";
    decision.reason = "activity type '" + a.type + "' earns nothing";
  }
  return decision;
}

void CollectorService::checkChallengeAnswer(const Activity& a, double now,
                                            Decision& decision) const {
  const std::int64_t timestamp = readTimestamp(a.details);
  const std::string* signedHash = stringField(a.details, kChallengeSigned);
  const std::string* result = stringField(a.details, kChallengeResult);
  decision.name = "challenge_failed";
  if (timestamp < 0 || signedHash == nullptr || result == nullptr) {
    decision.reason = "challenge answer lacks QS259, QS256 or QS257";
    return;
  }
  const std::string uuid(result->rbegin(), result->rend());
  if (!SandboxCodec::constantTimeEquals(*signedHash, signer_.challengeHash(uuid, timestamp))) {
    decision.reason = "signed hash does not match the reversed uuid and timestamp";
    return;
  }
  const double age = now - static_cast<double>(timestamp);
  if (age > settings_.challengeMaxAgeSeconds || age < -kChallengeFutureSkewSeconds) {
    decision.name = "challenge_stale";
    decision.reason =
        "challenge timestamp is " + std::to_string(static_cast<long long>(age)) + " s old";
  }
}

std::string CollectorService::bake(const Activity& a, const std::string& vid,
                                   std::string_view simulate, double now) const {
  TokenClaims claims;
  claims.appId = a.appId;
  claims.vid = vid;
  claims.expiresAt = static_cast<std::int64_t>(std::floor(now)) + settings_.tokenTtlSeconds;
  if (simulate == "block" || simulate == "captcha") claims.simulate = simulate;
  return "bake|_qs3|x|" + signer_.sign(claims) + "|y|" + std::to_string(settings_.tokenTtlSeconds);
}

HttpOutcome CollectorService::clientError(std::string_view target) const {
  const double now = clock_();
  const SandboxMode mode = mode_.load();
  HttpOutcome outcome;
  if (mode == SandboxMode::Down) {
    outcome.dropConnection = true;
    outcome.event = {{"ts", now}, {"event", "dropped"}, {"endpoint", "clientError"}};
    return outcome;
  }
  const auto report = readReport(target);
  if (!report) {
    outcome = reject("clientError", report.error, now);
    applyMode(mode, outcome);
    return outcome;
  }
  outcome.body = "{}";
  outcome.event = {{"ts", now}, {"event", "client_error"}, {"report", *report.value}};
  Value missing = Value::array();
  for (const char* key : {"message", "tag", "appId", "sdk_version"}) {
    if (!report.value->contains(key)) missing.push_back(key);
  }
  if (!missing.empty()) outcome.event["missing"] = missing;
  applyMode(mode, outcome);
  return outcome;
}

HttpOutcome CollectorService::reject(std::string_view endpoint, std::string reason,
                                     double now) const {
  HttpOutcome outcome;
  outcome.status = 400;
  outcome.body = SandboxCodec::dumpJson(Value{{"error", reason}});
  outcome.event = {{"ts", now},
                   {"event", "rejected"},
                   {"endpoint", endpoint},
                   {"status", 400},
                   {"reason", std::move(reason)}};
  return outcome;
}

// Slow holds back every answer; Garbage replaces only accepted ones, so that a
// malformed request still shows up as a 400.
void CollectorService::applyMode(SandboxMode mode, HttpOutcome& outcome) const {
  if (mode == SandboxMode::Slow) outcome.delaySeconds = settings_.slowDelaySeconds;
  if (mode == SandboxMode::Garbage && outcome.status == 200) {
    outcome.body = std::string(kGarbageBody);
    outcome.contentType = "text/html";
  }
  if (mode != SandboxMode::Normal) outcome.event["mode"] = sandboxModeName(mode);
}

}  // namespace qs::sandbox
