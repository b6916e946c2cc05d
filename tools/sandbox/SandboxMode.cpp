#include "SandboxMode.h"

#include <array>
#include <utility>

namespace qs::sandbox {

namespace {

constexpr std::array<std::pair<std::string_view, SandboxMode>, 4> kModes = {{
    {"normal", SandboxMode::Normal},
    {"slow", SandboxMode::Slow},
    {"garbage", SandboxMode::Garbage},
    {"down", SandboxMode::Down},
}};

}  // namespace

std::optional<SandboxMode> parseSandboxMode(std::string_view text) {
  // Bodies from curl or a shell often end in a newline.
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r' || text.back() == ' ')) {
    text.remove_suffix(1);
  }
  for (const auto& [name, mode] : kModes) {
    if (name == text) return mode;
  }
  return std::nullopt;
}

std::string_view sandboxModeName(SandboxMode mode) {
  for (const auto& [name, value] : kModes) {
    if (value == mode) return name;
  }
  return "normal";
}

}  // namespace qs::sandbox
