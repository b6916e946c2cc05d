#pragma once

#include <functional>
#include <map>
#include <mutex>
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
  // A scenario for integration tests (query "challenge"), empty for none:
  //   "once"    the first valid token seen for `scenarioKey` gets a captcha,
  //             any other valid token passes (a solve brings a new one)
  //   "always"  every request gets a captcha (the backend keeps blocking)
  //   "block"   every request gets the block page
  //   "badjson" 403 whose body is not JSON; "badpage" a captcha whose page
  //             is not base64; "plain" a 403 that is not the service's
  std::string challenge;
  std::string scenarioKey;  // query "case"
};

// A host backend that trusts only sandbox tokens: "3:" and a token that
// verifies and has not expired gets the order list; anything else gets 403
// with the block JSON whose "page" is the captcha page (no or bad token) or
// the block page (when a block is simulated). Thread-safe: the only state
// is the first token of each "once" scenario.
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
  std::optional<HttpOutcome> scenario(const BackendRequest& request, const TokenCheck& check,
                                      const std::string& reason, bool autosolve, double now) const;
  HttpOutcome deny(const std::string& action, const std::string& reason, const TokenClaims& claims,
                   bool autosolve, double now) const;

  const TokenSigner& signer_;  // weak
  const Clock clock_;
  const DeploymentSettings deployment_;
  const bool autosolve_;
  mutable std::mutex mutex_;
  mutable std::map<std::string, std::string> firstTokens_;  // guarded by mutex_
};

}  // namespace qs::sandbox
