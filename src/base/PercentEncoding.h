#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace qs {

// Percent-encodes everything but the characters allowed in a URL host:
// letters, digits and !$&'()*+,-.:;=[]_~ stay; every other byte is %XX.
std::string percentEncodeHostAllowed(std::string_view text);

// Decodes %XX escapes ("+" stays "+"). nullopt for a broken escape.
std::optional<std::string> percentDecode(std::string_view text);

}  // namespace qs
