#pragma once

#include <memory>
#include <optional>
#include <string_view>

#include "quarrystone/Export.h"
#include "quarrystone/platform/Platform.h"

namespace qs {

// The services that are the same on every platform: they need nothing of the
// operating system beyond the C++ standard library, nlohmann-json, OpenSSL's
// libcrypto and utf8proc, which build wherever the core does. Each platform
// (the Linux one, the fake one for tests) takes them from here.
// Caller-owned results (shared); each is safe to use from any thread.

// Writes the lines at or above `minimum` to stderr, prefixed "Quarrystone: ".
QS_EXPORT std::shared_ptr<Log> makeStderrLog(LogLevel minimum = LogLevel::Warning);
// Passes on to `sink` the lines at or above `minimum`.
QS_EXPORT std::shared_ptr<Log> makeFilteredLog(std::shared_ptr<Log> sink, LogLevel minimum);
// "debug", "info", "warning" or "error", and back.
QS_EXPORT const char* logLevelName(LogLevel level);
QS_EXPORT std::optional<LogLevel> logLevelFromName(std::string_view name);
QS_EXPORT std::shared_ptr<Clock> makeSystemClock();
QS_EXPORT std::shared_ptr<NotificationCenter> makeLocalNotificationCenter();
QS_EXPORT std::shared_ptr<KeyedArchiver> makeCborArchiver();
QS_EXPORT std::shared_ptr<Crypto> makeOpenSslCrypto();
QS_EXPORT std::shared_ptr<Text> makeUtf8procText();

}  // namespace qs
