#pragma once

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "BackendService.h"
#include "CollectorService.h"
#include "EventLog.h"
#include "HttpOutcome.h"
#include "TokenSigner.h"

namespace httplib {
class Server;
struct Response;
}  // namespace httplib

namespace qs::sandbox {

struct SandboxConfig {
  std::string host = "127.0.0.1";  // loopback only
  int port = 8443;                 // 0 picks a free port
  std::string certFile;            // PEM server certificate and key
  std::string keyFile;
  std::string secret;  // signs tokens, visitor ids and challenges; empty: random per run
  CollectorSettings collector;
  SandboxMode mode = SandboxMode::Normal;
  bool autosolve = false;         // every captcha page solves itself
  std::string logPath;            // JSON-lines event log; empty: none, "-": stdout
  bool quiet = false;             // no one-line summaries on stderr
  std::function<double()> clock;  // seconds since 1970; empty: the system clock
};

// The sandbox over HTTPS: the collector endpoints, the host backend, the
// captcha callback and the admin routes, wired onto the services above.
// bind() and run() on one thread; stop() from any thread (signal watcher,
// test); requests are served on the HTTP library's worker threads.
class SandboxServer {
 public:
  explicit SandboxServer(SandboxConfig config);
  ~SandboxServer();
  SandboxServer(const SandboxServer&) = delete;
  SandboxServer& operator=(const SandboxServer&) = delete;

  // Loads the certificate, opens the event log and binds the port. Returns
  // why not on failure.
  std::optional<std::string> bind();
  // The bound port. REQUIRES: bind() succeeded.
  int port() const { return port_; }
  // Serves until stop(); false if serving failed. REQUIRES: bind() succeeded.
  bool run();
  // Makes run() return and cuts short any answer held back by the Slow mode.
  void stop();

 private:
  void routes();
  void apply(const HttpOutcome& outcome, httplib::Response& res);
  void record(const Value& event);
  void waitOrStop(double seconds);

  SandboxConfig config_;
  TokenSigner signer_;
  std::unique_ptr<CollectorService> collector_;
  std::unique_ptr<BackendService> backend_;
  std::unique_ptr<EventLog> log_;  // null when no log was asked for
  std::unique_ptr<httplib::Server> server_;
  int port_ = 0;

  std::mutex stopMutex_;
  std::condition_variable stopped_;
  bool stopping_ = false;  // guarded by stopMutex_
};

}  // namespace qs::sandbox
