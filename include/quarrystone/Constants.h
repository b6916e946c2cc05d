#pragma once

#include "quarrystone/Export.h"

namespace qs {

// Each is defined beside the class it belongs to: the version with the
// version record, cookie names with the cookie, command names with the
// response parser, content types with the network operations.

// Version of this release, sent in every app activity and error report.
QS_EXPORT extern const char* const QS_SDK_VERSION;  // "0.4.0"
// Client tag sent in every collector request body.
QS_EXPORT extern const char* const QS_JS_CLIENT_TAG;  // "v2.51"

// Cookie names, by level.
QS_EXPORT extern const char* const QS_COOKIE_LEVEL_1;  // "_qs"
QS_EXPORT extern const char* const QS_COOKIE_LEVEL_2;  // "_qs2"
QS_EXPORT extern const char* const QS_COOKIE_LEVEL_3;  // "_qs3"

// Collector command names.
QS_EXPORT extern const char* const kSidCommand;        // "sid"
QS_EXPORT extern const char* const kVidCommand;        // "vid"
QS_EXPORT extern const char* const kBakeCommand;       // "bake"
QS_EXPORT extern const char* const kChallengeCommand;  // "appc"

QS_EXPORT extern const char* const kFormSubmitContentType;  // collector POST
QS_EXPORT extern const char* const kJsonContentType;        // "application/json"

// Posted whenever the reachability of a watched route changes; the object is
// the QSReachability monitor.
QS_EXPORT extern const char* const kQSReachabilityChangedNotification;

// Client error reports: URL format with the app id and the encoded record.
QS_EXPORT extern const char* const kDefaultLogEntriesUrlFormat;
QS_EXPORT extern const char* const QS_LOG_ENTRIES_URL;  // "", kept for compatibility

}  // namespace qs
