#pragma once

#include <functional>
#include <optional>
#include <string>

#include "HttpOutcome.h"
#include "TokenSigner.h"
#include "quarrystone/DeploymentSettings.h"

namespace qs::sandbox {

// What the host's backend looks at in a request.
struct BackendRequest {
  std::optional<std::string> authorization;  // "X-QS-AUTHORIZATION"
  std::string simulate;                      // "X-QS-SIMULATE", empty when absent
  bool autosolve = false;                    // the demo wants a self-solving captcha
};

// A host backend that trusts only sandbox tokens: "3:" and a token that
// verifies and has not expired gets the order list; anything else gets 403
// with the block JSON whose "page" is the captcha page (no or bad token) or
// the block page (when a block is simulated). Immutable; thread-safe.
class BackendService {
 public:
  using Clock = std::function<double()>;  // seconds since 1970

  // REQUIRES: signer outlives this service. deployment names the collector
  // host pattern used for the "collectorUrl" of block answers.
  BackendService(const TokenSigner& signer, Clock clock, DeploymentSettings deployment,
                 bool autosolve = false);

  // GET /api/orders
  HttpOutcome orders(const BackendRequest& request) const;

 private:
  HttpOutcome deny(const std::string& action, const std::string& reason, const TokenClaims& claims,
                   bool autosolve, double now) const;

  const TokenSigner& signer_;  // weak
  const Clock clock_;
  const DeploymentSettings deployment_;
  const bool autosolve_;
};

}  // namespace qs::sandbox
