#pragma once

#include <optional>
#include <string_view>

namespace qs::sandbox {

// How the collector endpoints behave, switchable while the sandbox runs.
enum class SandboxMode {
  Normal,   // answers as a real collector would
  Slow,     // answers, but only after a delay longer than the client's time-out
  Garbage,  // answers 200 with a body that is not JSON
  Down,     // closes the connection before a response body arrives
};

std::optional<SandboxMode> parseSandboxMode(std::string_view text);
std::string_view sandboxModeName(SandboxMode mode);

}  // namespace qs::sandbox
