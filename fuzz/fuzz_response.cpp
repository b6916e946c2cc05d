// Collector answers: bytes parsed as JSON the way the library reads a
// response body, then turned into a response record. A record that parses
// must survive its coder keys unchanged.
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "collector/CollectorResponse.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view text(reinterpret_cast<const char*>(data), size);
  std::optional<qs::Value> body;
  if (qs::Value parsed = qs::Value::parse(text, nullptr, false); !parsed.is_discarded()) {
    body = std::move(parsed);
  }
  std::string error;
  auto response = qs::CollectorResponse::initWithCollectorResponse(body, 1'700'000'000, &error);
  if (!response) {
    if (error.empty()) __builtin_trap();
    return 0;
  }
  (void)response->description();
  if (qs::CollectorResponse::initWithCoder(response->encodeWithCoder()) != response) {
    __builtin_trap();
  }
  return 0;
}
