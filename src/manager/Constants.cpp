#include "quarrystone/Constants.h"

namespace qs {

const char* const QS_SDK_VERSION = "0.4.0";
const char* const QS_JS_CLIENT_TAG = "v2.51";

const char* const QS_COOKIE_LEVEL_1 = "_qs";
const char* const QS_COOKIE_LEVEL_2 = "_qs2";
const char* const QS_COOKIE_LEVEL_3 = "_qs3";

const char* const kSidCommand = "sid";
const char* const kVidCommand = "vid";
const char* const kBakeCommand = "bake";
const char* const kChallengeCommand = "appc";

const char* const kFormSubmitContentType = "application/x-www-form-urlencoded; charset=utf-8";
const char* const kJsonContentType = "application/json";

const char* const kQSReachabilityChangedNotification = "kQSReachabilityChangedNotification";

// The default deployment's client-error endpoint: app id, then the record.
const char* const kDefaultLogEntriesUrlFormat =
    "https://collector-%@.quarrystone.net/api/v1/collector/clientError?r=%@";
const char* const QS_LOG_ENTRIES_URL = "";

}  // namespace qs
