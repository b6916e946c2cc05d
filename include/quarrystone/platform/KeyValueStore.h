#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "quarrystone/Export.h"
#include "quarrystone/Value.h"

namespace qs {

// The host's persistent key/value defaults. Values are property-list-like
// (see Value; bytes are binary values). Reads fall back to the registered
// defaults. All operations are thread-safe.
class QS_EXPORT KeyValueStore {
 public:
  virtual ~KeyValueStore() = default;
  virtual std::optional<Value> objectForKey(const std::string& key) = 0;
  // nullopt removes the key from the persisted layer.
  virtual void setObject(const std::string& key, std::optional<Value> value) = 0;
  // Merges `defaults` (a map) into the in-memory fallback layer; never persisted.
  virtual void registerDefaults(const Value& defaults) = 0;
  // Forces pending writes to disk. True on success.
  virtual bool synchronize() = 0;
  // Incremented by every setObject/registerDefaults; lets callers cache
  // decoded values without reading the store.
  virtual std::uint64_t changeCount() const = 0;
};

}  // namespace qs
