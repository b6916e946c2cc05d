#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace qs {

// A property-list-like value: null, bool, number, string, bytes (binary),
// array or string-keyed map. Maps keep insertion order, so records built in a
// fixed order serialise in that order.
using Value = nlohmann::ordered_json;

// Raw bytes as carried by the store, the archiver and the cipher.
using Bytes = std::vector<std::uint8_t>;

// Header name to header value. Enumerated in name order.
using HeaderMap = std::map<std::string, std::string>;

}  // namespace qs
