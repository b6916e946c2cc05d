#include "quarrystone/LinuxPlatform.h"

#include <errno.h>
#include <unistd.h>

#include <string>

#include "quarrystone/platform/DefaultPlatform.h"

namespace qs {

namespace {

// Names the host application for its store folder: the bundle identifier it
// declares, else the name of its program file, else the name it was started
// under. Never empty.
std::string applicationIdentifier(const BundleInfo& bundle) {
  if (bundle.identifier && !bundle.identifier->empty()) return *bundle.identifier;
  char target[4096];
  ssize_t length = readlink("/proc/self/exe", target, sizeof target - 1);
  if (length > 0) {
    std::string program(target, static_cast<std::size_t>(length));
    // A program file replaced while it runs reads as "<path> (deleted)".
    if (program.ends_with(" (deleted)")) program.resize(program.size() - 10);
    program = program.substr(program.rfind('/') + 1);
    if (!program.empty()) return program;
  }
  if (program_invocation_short_name != nullptr && *program_invocation_short_name != '\0') {
    return program_invocation_short_name;
  }
  return "unnamed-app";
}

}  // namespace

Platform makeLinuxPlatform(const DeploymentSettings& settings, LinuxPlatformOptions options) {
  Platform platform;
  platform.log = options.log ? makeFilteredLog(options.log, options.logLevel)
                             : makeStderrLog(options.logLevel);
  platform.clock = makeSystemClock();
  platform.mainLoop = makeGlibMainLoop(options.hostContext);
  platform.notifications = makeLocalNotificationCenter();
  // libcurl's transfers run on the library's own loop thread when the
  // library owns the main loop. On a host's context they get a network thread
  // instead, so the host's thread never runs a TLS handshake; that thread
  // ends when it has had no transfer for a while. The route watch is a
  // socket read now and then, so it sits on the main loop either way.
  auto network = options.hostContext != nullptr ? nullptr : platform.mainLoop;
  platform.reachability = makeGioReachability(platform.mainLoop);
  platform.http = makeCurlHttpClient(settings.caFile, platform.log, network);
  // The default location's folders are the library's own and kept private;
  // the folders of a path the host chose are the host's.
  const auto storePath = settings.resolvedStorePath(applicationIdentifier(options.bundle));
  const std::string ownedRoot =
      settings.storePath.empty() ? DeploymentSettings::defaultStoreRoot().value_or("") : "";
  // Store writes are committed on the worker pool, so no caller (an answer on
  // its way to the host) waits for SQLite.
  platform.workers = makeThreadWorkerPool();
  platform.store =
      openSqliteStore(storePath.value_or(""), platform.log, ownedRoot, platform.workers);
  platform.archiver = makeCborArchiver();
  platform.device = makeLinuxDeviceInfo(std::move(options.bundle), options.screen);
  platform.crypto = makeOpenSslCrypto();
  platform.text = makeUtf8procText();
  return platform;
}

// Linux is the platform this adapter's build selects.
Platform defaultPlatform(const DeploymentSettings& settings) { return makeLinuxPlatform(settings); }

}  // namespace qs
