#include "quarrystone/QSBlockResponse.h"

#include <optional>
#include <string_view>

#include "crypto/Base64.h"

namespace qs {

namespace {

// True when `bytes` is well-formed UTF-8 (no overlong forms, no surrogates,
// nothing above U+10FFFF).
bool isValidUtf8(std::string_view bytes) {
  std::size_t i = 0;
  while (i < bytes.size()) {
    auto lead = static_cast<unsigned char>(bytes[i]);
    std::size_t length;
    unsigned char low = 0x80, high = 0xBF;  // range of the first continuation byte
    if (lead < 0x80) {
      length = 1;
    } else if (lead >= 0xC2 && lead <= 0xDF) {
      length = 2;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
      length = 3;
      if (lead == 0xE0) low = 0xA0;
      if (lead == 0xED) high = 0x9F;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
      length = 4;
      if (lead == 0xF0) low = 0x90;
      if (lead == 0xF4) high = 0x8F;
    } else {
      return false;
    }
    if (bytes.size() - i < length) return false;
    for (std::size_t k = 1; k < length; ++k) {
      auto c = static_cast<unsigned char>(bytes[i + k]);
      if (k == 1 ? (c < low || c > high) : (c < 0x80 || c > 0xBF)) return false;
    }
    i += length;
  }
  return true;
}

std::string stringOrEmpty(const Value& response, const char* key) {
  auto it = response.find(key);
  return it != response.end() && it->is_string() ? it->get<std::string>() : std::string();
}

// The page's HTML: strict standard base64 of UTF-8 text. nullopt when either
// layer is malformed.
std::optional<std::string> decodePage(const Value& page) {
  if (!page.is_string()) return std::nullopt;
  auto bytes = base64Decode(page.get_ref<const std::string&>(), /*ignoreUnknownCharacters=*/false);
  if (!bytes) return std::nullopt;
  std::string text(bytes->begin(), bytes->end());
  if (!isValidUtf8(text)) return std::nullopt;
  return text;
}

}  // namespace

QSBlockResponse::QSBlockResponse(const Value& response) {
  if (!response.is_object()) return;
  auto action = response.find("action");
  if (action == response.end() || !action->is_string()) return;
  const auto& name = action->get_ref<const std::string&>();
  if (name == "block") {
    type_ = QSBlockResponseTypeBlock;
  } else if (name == "captcha") {
    type_ = QSBlockResponseTypeCaptcha;
  } else {
    return;
  }
  uuid_ = stringOrEmpty(response, "uuid");
  vid_ = stringOrEmpty(response, "vid");
  appId_ = stringOrEmpty(response, "appId");
  collectorUrl_ = stringOrEmpty(response, "collectorUrl");
  if (auto page = response.find("page"); page != response.end()) {
    pageHtml_ = decodePage(*page).value_or("");
  }
}

}  // namespace qs
