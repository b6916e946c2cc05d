#pragma once

#include <string>

#include "quarrystone/Export.h"

namespace qs {

// Where the service lives. Compiled-in defaults, overridable before
// startWith() and, for tools and tests, by environment variables:
// QS_COLLECTOR_HOST_PATTERN, QS_WEB_DOMAIN, QS_STORE_PATH, QS_CA_FILE.
struct QS_EXPORT DeploymentSettings {
  // Host (optionally with ":port") of an app's collector; "{appId}" is
  // replaced by the app id, unescaped.
  std::string collectorHostPattern = "collector-{appId}.quarrystone.net";
  // The service's bare web domain (optionally with ":port").
  std::string webDomain = "quarrystone.net";
  // The persistent store file; empty means $XDG_DATA_HOME/quarrystone/defaults.sqlite.
  std::string storePath;
  // A PEM file of extra trusted certificate authorities (test servers).
  std::string caFile;

  // The defaults with any environment overrides applied.
  static DeploymentSettings fromEnvironment();

  std::string collectorHost(const std::string& appId) const;
  // "https://<collector host>/api/v1/collector/mobile"
  std::string collectorUrl(const std::string& appId) const;
  // "https://<collector host>/api/v1/collector/clientError?r=<encodedRecord>"
  std::string clientErrorUrl(const std::string& appId, const std::string& encodedRecord) const;
  // The resolved store path.
  std::string resolvedStorePath() const;
};

}  // namespace qs
