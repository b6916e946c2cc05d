#include "quarrystone/LinuxPlatform.h"

namespace qs {

Platform makeLinuxPlatform(const DeploymentSettings& settings, LinuxPlatformOptions options) {
  Platform platform;
  platform.log = options.log ? options.log : makeStderrLog();
  platform.clock = makeSystemClock();
  platform.mainLoop = makeGlibMainLoop(options.hostContext);
  platform.notifications = makeLocalNotificationCenter();
  platform.reachability = makeGioReachability(platform.mainLoop);
  platform.http = makeCurlHttpClient(settings.caFile, platform.log);
  platform.workers = makeThreadWorkerPool();
  platform.store = openSqliteStore(settings.resolvedStorePath(), platform.log);
  platform.archiver = makeCborArchiver();
  platform.device = makeLinuxDeviceInfo(std::move(options.bundle), options.screen);
  platform.crypto = makeOpenSslCrypto();
  platform.text = makeUtf8procText();
  return platform;
}

}  // namespace qs
