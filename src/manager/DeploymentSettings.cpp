#include "quarrystone/DeploymentSettings.h"

#include <cstdlib>

namespace qs {

namespace {

void overrideFromEnv(std::string& field, const char* name) {
  if (const char* value = std::getenv(name); value != nullptr && *value != '\0') field = value;
}

}  // namespace

DeploymentSettings DeploymentSettings::fromEnvironment() {
  DeploymentSettings s;
  overrideFromEnv(s.collectorHostPattern, "QS_COLLECTOR_HOST_PATTERN");
  overrideFromEnv(s.webDomain, "QS_WEB_DOMAIN");
  overrideFromEnv(s.storePath, "QS_STORE_PATH");
  overrideFromEnv(s.caFile, "QS_CA_FILE");
  return s;
}

std::string DeploymentSettings::collectorHost(const std::string& appId) const {
  static constexpr std::string_view kPlaceholder = "{appId}";
  std::string host;
  std::size_t from = 0;
  for (std::size_t at; (at = collectorHostPattern.find(kPlaceholder, from)) != std::string::npos;
       from = at + kPlaceholder.size()) {
    host.append(collectorHostPattern, from, at - from).append(appId);
  }
  host.append(collectorHostPattern, from, std::string::npos);
  return host;
}

std::string DeploymentSettings::collectorUrl(const std::string& appId) const {
  return "https://" + collectorHost(appId) + "/api/v1/collector/mobile";
}

std::string DeploymentSettings::clientErrorUrl(const std::string& appId,
                                               const std::string& encodedRecord) const {
  return "https://" + collectorHost(appId) + "/api/v1/collector/clientError?r=" + encodedRecord;
}

std::string DeploymentSettings::resolvedStorePath() const {
  if (!storePath.empty()) return storePath;
  std::string base;
  if (const char* xdg = std::getenv("XDG_DATA_HOME"); xdg != nullptr && *xdg == '/') {
    base = xdg;
  } else if (const char* home = std::getenv("HOME"); home != nullptr && *home != '\0') {
    base = std::string(home) + "/.local/share";
  } else {
    base = "/tmp";
  }
  return base + "/quarrystone/defaults.sqlite";
}

}  // namespace qs
