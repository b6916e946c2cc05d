#include "collector/QSStorage.h"

namespace qs {

QSStorage::QSStorage(std::shared_ptr<KeyValueStore> store, std::shared_ptr<KeyedArchiver> archiver,
                     std::shared_ptr<Log> log)
    : store_(std::move(store)), archiver_(std::move(archiver)), log_(std::move(log)) {}

std::optional<Value> QSStorage::getOfKind(const char* key, bool (*isKind)(const Value&)) {
  auto value = store_->objectForKey(key);
  if (value && !isKind(*value)) {
    log_->write(LogLevel::Warning,
                std::string("QSStorage - ignoring a stored value of the wrong kind under ") + key);
    return std::nullopt;
  }
  return value;
}

std::optional<std::string> QSStorage::getString(const char* key) {
  auto value = getOfKind(key, [](const Value& v) { return v.is_string(); });
  if (!value) return std::nullopt;
  return value->get<std::string>();
}

std::optional<std::string> QSStorage::getSid() { return getString(kSidKey); }

void QSStorage::saveSid(const std::optional<std::string>& sid) {
  store_->setObject(kSidKey, sid ? std::optional<Value>(*sid) : std::nullopt);
}

std::optional<std::string> QSStorage::getVid() { return getString(kVidKey); }

void QSStorage::saveVid(const std::optional<std::string>& vid) {
  store_->setObject(kVidKey, vid ? std::optional<Value>(*vid) : std::nullopt);
}

std::optional<QSCookie> QSStorage::getCookie() {
  std::lock_guard lock(cacheMutex_);
  // The store's change counter moves on every write, so an unchanged counter
  // means the decoded cookie is still what the store holds.
  const std::uint64_t changes = store_->changeCount();
  if (cacheValid_ && changes == cacheChangeCount_) return cachedCookie_;

  std::optional<QSCookie> cookie;
  if (auto stored = store_->objectForKey(kCookieKey)) {
    // The archive is kept as the only element of an array.
    if (stored->is_array() && stored->size() == 1 && (*stored)[0].is_binary()) {
      const auto& binary = (*stored)[0].get_binary();
      auto root = archiver_->unarchive(Bytes(binary.begin(), binary.end()));
      if (!root) {
        log_->write(LogLevel::Warning,
                    "QSStorage - the stored cookie is not a readable archive; ignoring it");
      } else if (!root->is_null()) {
        cookie = QSCookie::initWithCoder(*root);
        if (!cookie)
          log_->write(LogLevel::Warning,
                      "QSStorage - the stored cookie record is incomplete; ignoring it");
      }
    } else {
      log_->write(
          LogLevel::Warning,
          std::string("QSStorage - ignoring a stored value of the wrong kind under ") + kCookieKey);
    }
  }
  cachedCookie_ = cookie;
  cacheChangeCount_ = changes;
  cacheValid_ = true;
  return cookie;
}

void QSStorage::saveCookie(const std::optional<QSCookie>& cookie) {
  Value root = cookie ? cookie->encodeWithCoder() : Value();
  Value wrapped = Value::array();
  wrapped.push_back(Value::binary(archiver_->archive(root)));
  std::lock_guard lock(cacheMutex_);
  store_->setObject(kCookieKey, std::move(wrapped));
  cachedCookie_ = cookie;
  cacheChangeCount_ = store_->changeCount();
  cacheValid_ = true;
}

std::optional<Value> QSStorage::getAppResumeCounter() {
  return getOfKind(kResumeCounterKey, [](const Value& v) { return v.is_number(); });
}

void QSStorage::saveAppResumeCounter(const std::optional<Value>& counter) {
  store_->setObject(kResumeCounterKey, counter);
}

std::optional<Value> QSStorage::getCustomParams() {
  return getOfKind(kCustomParamsKey, [](const Value& v) { return v.is_object(); });
}

void QSStorage::saveCustomParams(const std::optional<Value>& params) {
  store_->setObject(kCustomParamsKey, params);
}

bool QSStorage::synchronize() { return store_->synchronize(); }

}  // namespace qs
