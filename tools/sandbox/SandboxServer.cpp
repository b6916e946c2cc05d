#include "SandboxServer.h"

#include <fmt/core.h>
#include <httplib.h>

#include <chrono>
#include <cstdio>
#include <exception>

#include "BlockPage.h"
#include "SandboxCodec.h"

namespace qs::sandbox {

namespace {

constexpr std::size_t kMaxRequestBody = 1 << 20;

double systemNow() {
  return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

std::string text(const Value& event, const char* key) {
  const auto it = event.find(key);
  if (it == event.end()) return {};
  return it->is_string() ? it->get<std::string>() : SandboxCodec::dumpJson(*it);
}

// One human-readable line per event, for whoever watches the terminal.
std::string summary(const Value& event) {
  const std::string kind = text(event, "event");
  std::string line = kind;
  if (kind == "activity") {
    line += fmt::format(" {} {} -> {}", text(event, "type"), text(event, "decision"),
                        text(event, "answer"));
  } else if (kind == "backend") {
    line += fmt::format(" {}", text(event, "decision"));
  } else if (kind == "rejected" || kind == "dropped") {
    line += fmt::format(" {}", text(event, "endpoint"));
  } else if (kind == "client_error" && event.contains("report")) {
    line += fmt::format(" {}", text(event["report"], "message"));
  }
  for (const char* key : {"reason", "simulate", "mode"}) {
    if (event.contains(key)) line += fmt::format(" {}={}", key, text(event, key));
  }
  return line;
}

}  // namespace

SandboxServer::SandboxServer(SandboxConfig config)
    : config_(std::move(config)),
      signer_(config_.secret.empty() ? SandboxCodec::randomHex(32) : config_.secret) {
  if (!config_.clock) config_.clock = systemNow;
}

SandboxServer::~SandboxServer() { stop(); }

std::optional<std::string> SandboxServer::bind() {
  if (!config_.logPath.empty()) {
    auto opened = EventLog::open(config_.logPath);
    if (!opened) return "cannot open the event log " + opened.error;
    log_ = std::move(*opened.value);
  }
  auto server =
      std::make_unique<httplib::SSLServer>(config_.certFile.c_str(), config_.keyFile.c_str());
  if (!server->is_valid()) {
    return "cannot load the certificate " + config_.certFile + " and key " + config_.keyFile +
           " (run scripts/make-certs)";
  }
  server_ = std::move(server);
  server_->set_payload_max_length(kMaxRequestBody);
  // Answers go out as soon as they are written, as from a production server.
  // With Nagle's algorithm the answer on a connection would wait for the
  // client's delayed ACK of the TLS session tickets or of the answer's
  // headers: about 40 ms per exchange on loopback.
  server_->set_tcp_nodelay(true);
  if (config_.port == 0) {
    port_ = server_->bind_to_any_port(config_.host);
  } else if (server_->bind_to_port(config_.host, config_.port)) {
    port_ = config_.port;
  } else {
    port_ = -1;
  }
  if (port_ <= 0) return fmt::format("cannot listen on {}:{}", config_.host, config_.port);

  DeploymentSettings deployment;
  deployment.collectorHostPattern = fmt::format("{{appId}}.collector.localhost:{}", port_);
  deployment.webDomain = fmt::format("localhost:{}", port_);
  collector_ =
      std::make_unique<CollectorService>(signer_, config_.clock, config_.collector, config_.mode);
  backend_ = std::make_unique<BackendService>(signer_, config_.clock, std::move(deployment),
                                              config_.autosolve);
  routes();
  return std::nullopt;
}

bool SandboxServer::run() {
  {
    std::lock_guard lock(stopMutex_);
    if (stopping_) return true;
  }
  return server_->listen_after_bind();
}

void SandboxServer::stop() {
  {
    std::lock_guard lock(stopMutex_);
    stopping_ = true;
  }
  stopped_.notify_all();
  if (server_) server_->stop();
}

void SandboxServer::waitOrStop(double seconds) {
  std::unique_lock lock(stopMutex_);
  stopped_.wait_for(lock, std::chrono::duration<double>(seconds), [this] { return stopping_; });
}

void SandboxServer::record(const Value& event) {
  if (event.is_null()) return;
  if (log_) log_->write(event);
  if (!config_.quiet) std::fprintf(stderr, "qs-sandbox: %s\n", summary(event).c_str());
}

void SandboxServer::apply(const HttpOutcome& outcome, httplib::Response& res) {
  record(outcome.event);
  if (outcome.delaySeconds > 0) waitOrStop(outcome.delaySeconds);
  if (outcome.dropConnection) {
    // The headers promise a body that never comes: the client sees the
    // connection close mid-answer, as with a collector that went away.
    res.set_content_provider(1024, "application/json",
                             [](std::size_t, std::size_t, httplib::DataSink&) { return false; });
    return;
  }
  res.status = outcome.status;
  res.set_content(outcome.body, outcome.contentType.c_str());
}

void SandboxServer::routes() {
  auto& s = *server_;
  // No exception may take the sandbox down; the client then sees a 500.
  s.set_exception_handler(
      [this](const httplib::Request& req, httplib::Response& res, std::exception_ptr) {
        record({{"ts", config_.clock()}, {"event", "error"}, {"path", req.path}});
        res.status = 500;
        res.set_content("{\"error\":\"internal\"}", "application/json");
      });

  s.Post("/api/v1/collector/mobile", [this](const httplib::Request& req, httplib::Response& res) {
    HttpOutcome outcome = collector_->collect(req.body, req.get_header_value("X-QS-SIMULATE"));
    // The client's address and port name its connection: requests that share
    // one came over one TLS handshake.
    if (outcome.event.is_object()) {
      outcome.event["peer"] = fmt::format("{}:{}", req.remote_addr, req.remote_port);
    }
    apply(outcome, res);
  });
  s.Get("/api/v1/collector/clientError",
        [this](const httplib::Request& req, httplib::Response& res) {
          apply(collector_->clientError(req.target), res);
        });

  const auto orders = [this](const httplib::Request& req, httplib::Response& res) {
    BackendRequest request;
    if (req.has_header("X-QS-AUTHORIZATION")) {
      request.authorization = req.get_header_value("X-QS-AUTHORIZATION");
    }
    request.simulate = req.get_header_value("X-QS-SIMULATE");
    request.autosolve = req.get_param_value("autosolve") == "1" ||
                        req.get_header_value("X-QS-Demo-Autosolve") == "1";
    request.challenge = req.get_param_value("challenge");
    request.scenarioKey = req.get_param_value("case");
    HttpOutcome outcome = backend_->orders(request);
    // What the request carried, for tests that check where the token went.
    if (outcome.event.is_object()) {
      outcome.event["host"] = req.get_header_value("Host");
      outcome.event["method"] = req.method;
      outcome.event["body"] = req.body;
      if (!request.scenarioKey.empty()) outcome.event["case"] = request.scenarioKey;
      outcome.event["authorization"] =
          request.authorization ? Value(*request.authorization) : Value(nullptr);
    }
    apply(outcome, res);
  };
  s.Get("/api/orders", orders);
  s.Post("/api/orders", orders);
  s.Put("/api/orders", orders);
  s.Delete("/api/orders", orders);

  // The library's web view intercepts this URL; a browser that follows it
  // lands here.
  s.Get("/qs/captcha_callback", [this](const httplib::Request& req, httplib::Response& res) {
    record({{"ts", config_.clock()},
            {"event", "captcha_callback"},
            {"status", req.get_param_value("status")}});
    res.set_content("<!DOCTYPE html><title>Verified</title><p>Verified. You can go back.</p>",
                    "text/html");
  });
  s.Get("/sandbox/page/captcha", [this](const httplib::Request&, httplib::Response& res) {
    res.set_content(BlockPage::captchaHtml("preview", config_.autosolve), "text/html");
  });
  s.Get("/sandbox/page/block", [](const httplib::Request&, httplib::Response& res) {
    res.set_content(BlockPage::blockHtml("preview"), "text/html");
  });

  s.Get("/sandbox/health", [](const httplib::Request&, httplib::Response& res) {
    res.set_content("ok\n", "text/plain");
  });
  s.Get("/sandbox/mode", [this](const httplib::Request&, httplib::Response& res) {
    res.set_content(std::string(sandboxModeName(collector_->mode())) + "\n", "text/plain");
  });
  s.Post("/sandbox/mode", [this](const httplib::Request& req, httplib::Response& res) {
    const auto mode = parseSandboxMode(req.body);
    if (!mode) {
      res.status = 400;
      res.set_content("mode must be normal, slow, garbage or down\n", "text/plain");
      return;
    }
    collector_->setMode(*mode);
    record({{"ts", config_.clock()}, {"event", "mode"}, {"mode", sandboxModeName(*mode)}});
    res.set_content(std::string(sandboxModeName(*mode)) + "\n", "text/plain");
  });
}

}  // namespace qs::sandbox
