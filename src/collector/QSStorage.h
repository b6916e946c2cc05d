#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "base/QSCookie.h"
#include "quarrystone/Value.h"
#include "quarrystone/platform/KeyValueStore.h"
#include "quarrystone/platform/KeyedArchiver.h"
#include "quarrystone/platform/Log.h"

namespace qs {

// The values that survive a restart of the host: session id, visitor id,
// risk cookie, resume counter and custom parameters, over the platform's
// key/value store. A stored value of the wrong kind reads as absent and is
// logged. Thread-safe; getCookie() is served from a decoded cache while the
// store has not changed.
class QSStorage {
 public:
  static constexpr const char* kSidKey = "QS_COLLECTOR_RESPONSE_SID";
  static constexpr const char* kVidKey = "QS_COLLECTOR_RESPONSE_VID";
  static constexpr const char* kCookieKey = "QS_COLLECTOR_RESPONSE_COOKIE";
  static constexpr const char* kResumeCounterKey = "QS_RESUME_COUNTER";
  static constexpr const char* kCustomParamsKey = "QS_CUSTOM_PARAMS_KEY";

  QSStorage(std::shared_ptr<KeyValueStore> store, std::shared_ptr<KeyedArchiver> archiver,
            std::shared_ptr<Log> log);

  std::optional<std::string> getSid();
  void saveSid(const std::optional<std::string>& sid);
  std::optional<std::string> getVid();
  void saveVid(const std::optional<std::string>& vid);
  std::optional<QSCookie> getCookie();
  // Absent stores an archive of an empty root: the key stays, reads absent.
  void saveCookie(const std::optional<QSCookie>& cookie);
  std::optional<Value> getAppResumeCounter();  // a number
  void saveAppResumeCounter(const std::optional<Value>& counter);
  std::optional<Value> getCustomParams();  // a map
  void saveCustomParams(const std::optional<Value>& params);
  bool synchronize();

  KeyValueStore& store() { return *store_; }

 private:
  // The value under `key`, or nullopt (logged) when it is not of the kind.
  std::optional<Value> getOfKind(const char* key, bool (*isKind)(const Value&));
  std::optional<std::string> getString(const char* key);

  const std::shared_ptr<KeyValueStore> store_;
  const std::shared_ptr<KeyedArchiver> archiver_;
  const std::shared_ptr<Log> log_;

  std::mutex cacheMutex_;
  bool cacheValid_ = false;               // guarded by cacheMutex_
  std::uint64_t cacheChangeCount_ = 0;    // guarded by cacheMutex_
  std::optional<QSCookie> cachedCookie_;  // guarded by cacheMutex_
};

}  // namespace qs
