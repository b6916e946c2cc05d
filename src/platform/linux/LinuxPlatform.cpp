#include "quarrystone/LinuxPlatform.h"

namespace qs {

Platform makeLinuxPlatform(const DeploymentSettings& settings, LinuxPlatformOptions options) {
  Platform platform;
  platform.log = options.log ? makeFilteredLog(options.log, options.logLevel)
                             : makeStderrLog(options.logLevel);
  platform.clock = makeSystemClock();
  platform.mainLoop = makeGlibMainLoop(options.hostContext);
  platform.notifications = makeLocalNotificationCenter();
  // Network I/O (libcurl's transfers and the network monitor) shares one
  // GLib loop: the library's own loop thread when the library owns the main
  // loop, otherwise one network thread, so the host's thread never waits on
  // the network.
  auto network = options.hostContext != nullptr ? makeGlibMainLoop(nullptr) : platform.mainLoop;
  platform.reachability = makeGioReachability(platform.mainLoop, network);
  platform.http = makeCurlHttpClient(settings.caFile, platform.log, network);
  platform.workers = makeThreadWorkerPool();
  platform.store = openSqliteStore(settings.resolvedStorePath(), platform.log);
  platform.archiver = makeCborArchiver();
  platform.device = makeLinuxDeviceInfo(std::move(options.bundle), options.screen);
  platform.crypto = makeOpenSslCrypto();
  platform.text = makeUtf8procText();
  return platform;
}

}  // namespace qs
