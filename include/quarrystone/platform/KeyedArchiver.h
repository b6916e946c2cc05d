#pragma once

#include <optional>

#include "quarrystone/Export.h"
#include "quarrystone/Value.h"

namespace qs {

// Encodes a record, given as a map from coder key to value, to bytes and
// back. A null root archives to bytes that decode to null (an "empty" root).
class QS_EXPORT KeyedArchiver {
 public:
  virtual ~KeyedArchiver() = default;
  virtual Bytes archive(const Value& root) = 0;
  // nullopt when the bytes are not an archive.
  virtual std::optional<Value> unarchive(const Bytes& bytes) = 0;
};

}  // namespace qs
