// What the library reads back from the host's key/value store: the values
// under its own keys may be of any kind (an older or damaged store, another
// writer), and the cookie is an archive of arbitrary bytes. The input decides,
// key by key, what the store holds: nothing, a scalar, a string, raw bytes, an
// arbitrary CBOR value, or a cookie archive (raw bytes, or a well-formed
// envelope around an arbitrary record). Every read either gives a value of the
// kind asked for or reads as absent, and a cookie that reads back survives
// being saved and read again.
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "FuzzInput.h"
#include "collector/QSStorage.h"
#include "quarrystone/PortableServices.h"

namespace {

// The store as a plain map; no defaults layer is needed by these reads.
class MapStore final : public qs::KeyValueStore {
 public:
  std::optional<qs::Value> objectForKey(const std::string& key) override {
    auto it = values_.find(key);
    return it == values_.end() ? std::nullopt : std::optional<qs::Value>(it->second);
  }
  void setObject(const std::string& key, std::optional<qs::Value> value) override {
    ++changes_;
    if (value) {
      values_[key] = std::move(*value);
    } else {
      values_.erase(key);
    }
  }
  void registerDefaults(const qs::Value&) override { ++changes_; }
  bool synchronize() override { return true; }
  std::uint64_t changeCount() const override { return changes_; }

 private:
  std::map<std::string, qs::Value> values_;
  std::uint64_t changes_ = 0;
};

class NullLog final : public qs::Log {
 public:
  void write(qs::LogLevel, std::string_view) override {}
};

qs::Value binary(const std::string& bytes) {
  return qs::Value::binary(qs::Bytes(bytes.begin(), bytes.end()));
}

// Arbitrary CBOR as a value; null when it does not decode (including the
// excessive element counts the parser throws for despite its flag).
qs::Value cbor(const std::string& bytes) {
  try {
    qs::Value value = qs::Value::from_cbor(bytes, /*strict=*/false, /*allow_exceptions=*/false);
    return value.is_discarded() ? qs::Value() : value;
  } catch (const qs::Value::exception&) {
    return qs::Value();
  }
}

qs::Value archived(qs::KeyedArchiver& archiver, const qs::Value& root) {
  return qs::Value::array({qs::Value::binary(archiver.archive(root))});
}

// One stored value of a kind chosen by the input, or nullopt for none.
std::optional<qs::Value> storedValue(qs::fuzz::FuzzInput& in, qs::KeyedArchiver& archiver) {
  switch (in.byte() % 10) {
    case 0:
      return std::nullopt;
    case 1:
      return qs::Value(in.byte() % 2 == 1);
    case 2:
      return qs::Value(static_cast<std::int64_t>(in.integer()));
    case 3: {
      std::uint64_t bits = in.integer();
      double number;
      static_assert(sizeof number == sizeof bits);
      __builtin_memcpy(&number, &bits, sizeof number);
      return qs::Value(number);
    }
    case 4:
      return qs::Value(in.piece());
    case 5:
      return binary(in.piece());
    case 6:
      return cbor(in.piece());
    case 7:  // a cookie archive of arbitrary bytes
      return qs::Value::array({binary(in.piece())});
    case 8:  // a well-formed archive of an arbitrary record
      return archived(archiver, cbor(in.piece()));
    default: {  // a cookie-shaped record with arbitrary fields
      qs::Value record = qs::Value::object();
      record["name"] = cbor(in.piece());
      record["token"] = in.piece();
      record["ttlFireDate"] = cbor(in.piece());
      return archived(archiver, record);
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  qs::fuzz::FuzzInput in(data, size);
  auto store = std::make_shared<MapStore>();
  auto archiver = qs::makeCborArchiver();
  auto log = std::make_shared<NullLog>();
  for (const char* key : {qs::QSStorage::kSidKey, qs::QSStorage::kVidKey, qs::QSStorage::kCookieKey,
                          qs::QSStorage::kResumeCounterKey, qs::QSStorage::kCustomParamsKey}) {
    store->setObject(key, storedValue(in, *archiver));
  }

  qs::QSStorage storage(store, archiver, log);
  auto stored = [&](const char* key) { return store->objectForKey(key); };
  if (auto sid = storage.getSid(); sid && *stored(qs::QSStorage::kSidKey) != *sid) __builtin_trap();
  if (auto vid = storage.getVid(); vid && *stored(qs::QSStorage::kVidKey) != *vid) __builtin_trap();
  if (auto counter = storage.getAppResumeCounter(); counter && !counter->is_number())
    __builtin_trap();
  if (auto params = storage.getCustomParams(); params && !params->is_object()) __builtin_trap();

  auto cookie = storage.getCookie();
  if (storage.getCookie() != cookie) __builtin_trap();  // served from the cache
  if (cookie) {
    storage.saveCookie(cookie);
    qs::QSStorage reopened(store, archiver, log);
    if (reopened.getCookie() != cookie) __builtin_trap();
  }
  return 0;
}
