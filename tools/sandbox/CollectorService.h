#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string_view>

#include "FormBody.h"
#include "HttpOutcome.h"
#include "SandboxMode.h"
#include "TokenSigner.h"

namespace qs::sandbox {

struct CollectorSettings {
  std::int64_t tokenTtlSeconds = 600;
  double challengeMaxAgeSeconds = 300;  // older challenge answers earn no token
  double slowDelaySeconds = 7;          // the Slow mode's delay, beyond the client's 5 s
  std::size_t maxPayloadLength = 256 * 1024;
  // False: a new session earns its token at once, without a challenge round.
  bool challengeNewSessions = true;
};

// The collector's decisions: decrypts and checks each activity, answers with
// "do" commands (sid, vid, an "appc" challenge for a new session, a "bake"d
// "_qs3" token for a correct challenge answer or a known visitor's renewal),
// and reads client error reports. Never throws; malformed input gives 400.
// Thread-safe: the mode is atomic, everything else is immutable.
class CollectorService {
 public:
  using Clock = std::function<double()>;  // seconds since 1970

  // REQUIRES: signer outlives this service.
  CollectorService(const TokenSigner& signer, Clock clock, CollectorSettings settings,
                   SandboxMode mode = SandboxMode::Normal);

  // POST /api/v1/collector/mobile with its raw form body and the
  // "X-QS-SIMULATE" header value (empty when absent).
  HttpOutcome collect(std::string_view body, std::string_view simulate) const;
  // GET /api/v1/collector/clientError?r=...; target is the raw request target.
  HttpOutcome clientError(std::string_view target) const;

  void setMode(SandboxMode mode) { mode_.store(mode); }
  SandboxMode mode() const { return mode_.load(); }

 private:
  struct Activity;
  struct Decision;

  Parsed<Activity> readActivity(const FormBody& form) const;
  Decision decide(const Activity& activity, std::string_view simulate, double now) const;
  void checkChallengeAnswer(const Activity& activity, double now, Decision& decision) const;
  std::string bake(const Activity& activity, const std::string& vid, std::string_view simulate,
                   double now) const;
  HttpOutcome reject(std::string_view endpoint, std::string reason, double now) const;
  void applyMode(SandboxMode mode, HttpOutcome& outcome) const;

  const TokenSigner& signer_;  // weak
  const Clock clock_;
  const CollectorSettings settings_;
  std::atomic<SandboxMode> mode_;
};

}  // namespace qs::sandbox
