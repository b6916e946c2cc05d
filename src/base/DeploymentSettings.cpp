#include "quarrystone/DeploymentSettings.h"

#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include <fmt/format.h>

namespace qs {

namespace {

void overrideFromEnv(std::string& field, const char* name) {
  if (const char* value = std::getenv(name); value != nullptr && *value != '\0') field = value;
}

// An absolute path from the environment, or null.
const char* absoluteFromEnv(const char* name) {
  const char* value = std::getenv(name);
  return value != nullptr && value[0] == '/' ? value : nullptr;
}

// The home directory of the current user in the password database, or "".
std::string passwdHome() {
  long hint = sysconf(_SC_GETPW_R_SIZE_MAX);
  std::vector<char> buffer(hint > 0 ? static_cast<std::size_t>(hint) : 4096);
  for (;;) {
    passwd entry{};
    passwd* found = nullptr;
    int rc = getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &found);
    if (rc == ERANGE && buffer.size() < (1u << 20)) {
      buffer.resize(buffer.size() * 2);
      continue;
    }
    if (rc != 0 || found == nullptr || found->pw_dir == nullptr) return {};
    return found->pw_dir;
  }
}

bool safeInFolderName(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' ||
         c == '-' || c == '_';
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

std::optional<std::string> DeploymentSettings::resolvedStorePath(
    std::string_view applicationIdentifier) const {
  if (!storePath.empty()) return storePath;
  auto root = defaultStoreRoot();
  if (!root) return std::nullopt;
  return *root + "/" + storeFolderName(applicationIdentifier) + "/defaults.sqlite";
}

std::optional<std::string> DeploymentSettings::defaultStoreRoot() {
  std::string base;
  if (const char* xdg = absoluteFromEnv("XDG_DATA_HOME")) {
    base = xdg;
  } else if (const char* home = absoluteFromEnv("HOME")) {
    base = std::string(home) + "/.local/share";
  } else if (std::string own = passwdHome(); own.starts_with('/')) {
    base = own + "/.local/share";
  } else {
    return std::nullopt;
  }
  while (base.size() > 1 && base.back() == '/') base.pop_back();
  return (base == "/" ? "" : base) + "/quarrystone";
}

std::string DeploymentSettings::storeFolderName(std::string_view applicationIdentifier) {
  constexpr std::size_t kMaxKept = 80;
  std::string name;
  for (char c : applicationIdentifier.substr(0, kMaxKept)) name += safeInFolderName(c) ? c : '_';
  // A leading dot would make ".", "..", or a hidden folder.
  if (!name.empty() && name.front() == '.') name.front() = '_';
  if (name == applicationIdentifier && !name.empty()) return name;
  // FNV-1a over the whole original keeps changed identifiers apart.
  std::uint32_t hash = 2166136261u;
  for (unsigned char c : applicationIdentifier) hash = (hash ^ c) * 16777619u;
  return fmt::format("{}{}{:08x}", name, name.empty() ? "" : "-", hash);
}

}  // namespace qs
