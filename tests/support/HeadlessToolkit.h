#pragma once

#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

namespace qs::test {

// The environment under which the GTK toolkit behaves the same on every
// machine: no GL (GDK would otherwise load the machine's driver, whose memory
// the leak checker reports), the cairo renderer, X11 under a private server,
// no accessibility bus. scripts/demo sets the same for the demo under Xvfb.
inline constexpr std::pair<const char*, const char*> kHeadlessToolkitEnvironment[] = {
    {"GDK_DEBUG", "gl-disable"}, {"GSK_RENDERER", "cairo"}, {"GDK_BACKEND", "x11"},
    {"GTK_A11Y", "none"},        {"NO_AT_BRIDGE", "1"},
};

// Sets them in this process, before the toolkit starts.
inline void applyHeadlessToolkitEnvironment() {
  for (const auto& [name, value] : kHeadlessToolkitEnvironment) setenv(name, value, 1);
}

// As "NAME=value" entries for a child process's environment.
inline std::vector<std::string> headlessToolkitEnvironment() {
  std::vector<std::string> env;
  for (const auto& [name, value] : kHeadlessToolkitEnvironment) {
    env.push_back(std::string(name) + "=" + value);
  }
  return env;
}

}  // namespace qs::test
