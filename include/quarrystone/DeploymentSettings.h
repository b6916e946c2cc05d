#pragma once

#include <optional>
#include <string>
#include <string_view>

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
  // The persistent store file; empty means the host application's own file
  // under the user's data folder (see resolvedStorePath).
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
  // The store file of the host application named `applicationIdentifier`:
  // storePath when set, else <defaultStoreRoot()>/<app folder>/defaults.sqlite,
  // so that two applications of one user never share a session or visitor.
  // nullopt when storePath is empty and the user has no home directory: the
  // store must then stay in memory, never in a folder others can read.
  std::optional<std::string> resolvedStorePath(std::string_view applicationIdentifier) const;

  // The folder that holds one store folder per application:
  // $XDG_DATA_HOME/quarrystone, else $HOME/.local/share/quarrystone, else the
  // same under the home directory the password database gives for this user.
  // nullopt when none of these is an absolute path.
  static std::optional<std::string> defaultStoreRoot();

  // `applicationIdentifier` as one safe path component: no '/', no leading
  // '.', no control or non-ASCII bytes, at most 100 bytes. An identifier that
  // had to be changed gets a hash of the original appended, so that distinct
  // identifiers keep distinct folders.
  static std::string storeFolderName(std::string_view applicationIdentifier);
};

}  // namespace qs
