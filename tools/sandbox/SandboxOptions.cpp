#include "SandboxOptions.h"

#include <charconv>
#include <cstdlib>
#include <string_view>

#ifndef QS_SANDBOX_CERT_DIR
#define QS_SANDBOX_CERT_DIR "build/certs"
#endif

namespace qs::sandbox {

namespace {

bool toInt(std::string_view text, long long low, long long high, long long& out) {
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), out);
  return ec == std::errc() && end == text.data() + text.size() && out >= low && out <= high;
}

}  // namespace

std::string SandboxOptions::usage() {
  return R"(usage: qs-sandbox [options]

A local collector, a host backend that blocks, and the captcha page, served
over HTTPS on 127.0.0.1 for the demo and the end-to-end tests.

  --port N          port to listen on (default 8443; 0 picks a free one)
  --token-ttl SEC   time to live of the tokens handed out (default 600)
  --mode MODE       normal | slow | garbage | down (default normal); change it
                    later with: POST /sandbox/mode with the mode as body
  --log PATH        append every event as one JSON line to PATH ("-": stdout)
  --autosolve       every captcha page solves itself after about a second
  --no-challenge    a new session gets its token at once, without a challenge
  --secret TEXT     signing secret (default: random, tokens die with the run)
  --cert PEM        server certificate (default <certs>/server.pem)
  --key PEM         server key (default <certs>/server.key)
  --quiet           no per-request lines on stderr
  --help            this text

Point the library at it with the deployment settings
  QS_COLLECTOR_HOST_PATTERN={appId}.collector.localhost:PORT
  QS_WEB_DOMAIN=localhost:PORT  QS_CA_FILE=<certs>/ca.pem
)";
}

Parsed<SandboxOptions> SandboxOptions::parse(int argc, const char* const* argv) {
  using Result = Parsed<SandboxOptions>;
  SandboxOptions options;
  std::string certDir = QS_SANDBOX_CERT_DIR;
  if (const char* dir = std::getenv("QS_SANDBOX_CERT_DIR"); dir != nullptr && *dir != '\0') {
    certDir = dir;
  }
  auto& c = options.config;
  c.certFile = certDir + "/server.pem";
  c.keyFile = certDir + "/server.key";

  for (int i = 1; i < argc; ++i) {
    const std::string_view arg = argv[i];
    const auto value = [&]() -> const char* { return i + 1 < argc ? argv[++i] : nullptr; };
    const auto missing = [&] { return Result::fail(std::string(arg) + " needs a value"); };
    long long number = 0;
    if (arg == "--help" || arg == "-h") {
      options.help = true;
    } else if (arg == "--autosolve") {
      c.autosolve = true;
    } else if (arg == "--no-challenge") {
      c.collector.challengeNewSessions = false;
    } else if (arg == "--quiet") {
      c.quiet = true;
    } else if (arg == "--port") {
      const char* v = value();
      if (v == nullptr) return missing();
      if (!toInt(v, 0, 65535, number)) return Result::fail("--port takes 0 to 65535");
      c.port = static_cast<int>(number);
    } else if (arg == "--token-ttl") {
      const char* v = value();
      if (v == nullptr) return missing();
      if (!toInt(v, 1, 366LL * 24 * 3600, number)) {
        return Result::fail("--token-ttl takes seconds, 1 to a year");
      }
      c.collector.tokenTtlSeconds = number;
    } else if (arg == "--mode") {
      const char* v = value();
      if (v == nullptr) return missing();
      const auto mode = parseSandboxMode(v);
      if (!mode) return Result::fail("--mode takes normal, slow, garbage or down");
      c.mode = *mode;
    } else if (arg == "--log" || arg == "--secret" || arg == "--cert" || arg == "--key") {
      const char* v = value();
      if (v == nullptr || *v == '\0') return missing();
      std::string& target = arg == "--log"      ? c.logPath
                            : arg == "--secret" ? c.secret
                            : arg == "--cert"   ? c.certFile
                                                : c.keyFile;
      target = v;
    } else {
      return Result::fail("unknown option " + std::string(arg));
    }
  }
  return Result::ok(std::move(options));
}

}  // namespace qs::sandbox
