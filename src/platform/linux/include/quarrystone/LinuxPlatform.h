#pragma once

#include <memory>
#include <optional>
#include <string>

#include "quarrystone/DeploymentSettings.h"
#include "quarrystone/Export.h"
#include "quarrystone/PortableServices.h"
#include "quarrystone/platform/Platform.h"

typedef struct _GMainContext GMainContext;

namespace qs {

// What the host declares about itself and how the library joins its loop.
struct QS_EXPORT LinuxPlatformOptions {
  BundleInfo bundle;                 // app name, version, identifier, localizations
  std::optional<ScreenInfo> screen;  // nullopt: no main screen
  // The GLib main context that the host runs on its main thread. Null: the
  // library runs its own context on a thread of its own.
  GMainContext* hostContext = nullptr;
  // Where the library's log lines go (null: stderr), and the least level
  // that is written there. By default only warnings and errors are written;
  // LogLevel::Debug gives the library's whole step-by-step trace.
  std::shared_ptr<Log> log;
  LogLevel logLevel = LogLevel::Warning;
};

// The real Linux platform: GLib main loop, the kernel's route table, libcurl,
// SQLite store, OpenSSL, utf8proc. The store is the host application's own
// (see DeploymentSettings::resolvedStorePath), named after the bundle
// identifier, else after the program. A store that cannot be opened is
// logged and replaced by an in-memory one; this never throws.
QS_EXPORT Platform makeLinuxPlatform(const DeploymentSettings& settings,
                                     LinuxPlatformOptions options = {});

// The individual adapters, for hosts that mix their own services in (the
// portable ones, such as the stderr log, come with PortableServices.h).
// Caller-owned results (shared).
QS_EXPORT std::shared_ptr<WorkerPool> makeThreadWorkerPool();
QS_EXPORT std::shared_ptr<MainLoop> makeGlibMainLoop(GMainContext* hostContext);
// The SQLite store at `path`. The file and its WAL and shared-memory files are
// readable by their owner only, and folders created on the way are 0700.
// `ownedRoot` (an ancestor folder of `path`, or empty) marks the folders from
// it down as the library's own: found open to others, they are tightened.
// An empty `path` keeps the values in memory only. Without `committer` every
// write is in the file when setObject returns; with one (the platform's
// worker pool) the cache changes at once and the file a moment later, in a
// task there, and synchronize(), closing the store or exit() wait for it.
QS_EXPORT std::shared_ptr<KeyValueStore> openSqliteStore(
    const std::string& path, std::shared_ptr<Log> log, const std::string& ownedRoot = {},
    std::shared_ptr<WorkerPool> committer = nullptr);
QS_EXPORT std::shared_ptr<DeviceInfo> makeLinuxDeviceInfo(BundleInfo bundle,
                                                          std::optional<ScreenInfo> screen);

// The HTTP client and the reachability monitor do their I/O on a GLib loop
// made by makeGlibMainLoop (`network`), which they may share. With none, the
// HTTP client makes a loop of its own whose thread runs while it has
// transfers (and ends about 2 s after the last), and the reachability
// monitor watches the routes from `mainLoop`, or from a loop thread of its
// own if that is not a GLib loop. A loop on the host's context must be
// iterated by the host for them to work.
QS_EXPORT std::shared_ptr<HttpClient> makeCurlHttpClient(
    const std::string& caFile, std::shared_ptr<Log> log,
    std::shared_ptr<MainLoop> network = nullptr);
QS_EXPORT std::shared_ptr<Reachability> makeGioReachability(
    std::shared_ptr<MainLoop> mainLoop, std::shared_ptr<MainLoop> network = nullptr);

}  // namespace qs
