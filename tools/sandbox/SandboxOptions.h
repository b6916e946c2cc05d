#pragma once

#include <string>

#include "Parsed.h"
#include "SandboxServer.h"

namespace qs::sandbox {

// The command line of qs-sandbox. Certificates default to the directory that
// scripts/make-certs fills ($QS_SANDBOX_CERT_DIR overrides it).
struct SandboxOptions {
  SandboxConfig config;
  bool help = false;

  static Parsed<SandboxOptions> parse(int argc, const char* const* argv);
  static std::string usage();
};

}  // namespace qs::sandbox
