#pragma once

// The local service (qs-sandbox, found through $QS_SANDBOX_BIN) run by a
// test on a free loopback port, with its own event log, and a blocking HTTPS
// call for talking to it the way a host app talks to its backend. Owned by
// the test's main thread; stopped when destroyed.

#include <curl/curl.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "ChildProcess.h"
#include "quarrystone/DeploymentSettings.h"
#include "quarrystone/LinuxPlatform.h"
#include "quarrystone/QSManager.h"
#include "quarrystone/Value.h"

// The test programs' sanitizer suppressions (TsanSuppressions.cpp).
extern "C" const char* __tsan_default_suppressions();
extern "C" const char* __lsan_default_suppressions();

namespace qs::testing {

inline std::string readFile(const std::filesystem::path& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

inline std::string envOr(const char* name, const std::string& fallback = {}) {
  const char* value = std::getenv(name);
  return value != nullptr ? value : fallback;
}

struct HttpsAnswer {
  long status = 0;  // 0: no answer
  std::string body;
  std::string error;
};

// One blocking HTTPS request that trusts `caFile`; 15 s at most.
inline HttpsAnswer callHttps(const std::string& method, const std::string& url,
                             const std::vector<std::pair<std::string, std::string>>& headers,
                             const std::string& body, const std::string& caFile) {
  HttpsAnswer answer;
  std::unique_ptr<CURL, void (*)(CURL*)> curl(curl_easy_init(), curl_easy_cleanup);
  curl_slist* list = nullptr;
  for (const auto& [name, value] : headers) {
    list = curl_slist_append(list, (name + ": " + value).c_str());
  }
  auto collect = +[](char* data, size_t size, size_t count, void* out) {
    static_cast<std::string*>(out)->append(data, size * count);
    return size * count;
  };
  curl_easy_setopt(curl.get(), CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl.get(), CURLOPT_CUSTOMREQUEST, method.c_str());
  curl_easy_setopt(curl.get(), CURLOPT_HTTPHEADER, list);
  curl_easy_setopt(curl.get(), CURLOPT_CAINFO, caFile.c_str());
  curl_easy_setopt(curl.get(), CURLOPT_TIMEOUT, 15L);
  curl_easy_setopt(curl.get(), CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl.get(), CURLOPT_WRITEFUNCTION, collect);
  curl_easy_setopt(curl.get(), CURLOPT_WRITEDATA, &answer.body);
  if (!body.empty()) curl_easy_setopt(curl.get(), CURLOPT_POSTFIELDS, body.c_str());
  const CURLcode code = curl_easy_perform(curl.get());
  if (code == CURLE_OK) {
    curl_easy_getinfo(curl.get(), CURLINFO_RESPONSE_CODE, &answer.status);
  } else {
    answer.error = curl_easy_strerror(code);
  }
  curl_slist_free_all(list);
  return answer;
}

class SandboxProcess {
 public:
  // Starts the sandbox with its log and output in `dir`; `options` are extra
  // command-line options such as {"--token-ttl", "3"}. port() is 0 when it
  // did not come up within 20 s.
  SandboxProcess(const std::filesystem::path& dir, const std::vector<std::string>& options)
      : logPath_(dir / "events.jsonl"), outputPath_(dir / "sandbox.out") {
    std::vector<std::string> argv{
        envOr("QS_SANDBOX_BIN"), "--port", "0", "--log", logPath_, "--quiet"};
    argv.insert(argv.end(), options.begin(), options.end());
    process_ = std::make_unique<ChildProcess>(argv, std::vector<std::string>{}, outputPath_);
    const std::string prefix = "qs-sandbox listening on https://127.0.0.1:";
    waitUntil(
        [&] {
          const std::string out = readFile(outputPath_);
          const auto at = out.find(prefix);
          if (at == std::string::npos || out.find('\n', at) == std::string::npos) return false;
          port_ = std::atoi(out.c_str() + at + prefix.size());
          return true;
        },
        20);
  }

  int port() const { return port_; }
  std::string output() const { return readFile(outputPath_); }
  const std::string& caFile() const { return caFile_; }

  // Where the library finds this sandbox, with the store at `storePath`.
  DeploymentSettings settings(const std::string& storePath) const {
    DeploymentSettings settings;
    settings.collectorHostPattern = "{appId}.collector.localhost:" + std::to_string(port_);
    settings.webDomain = "localhost:" + std::to_string(port_);
    settings.caFile = caFile_;
    settings.storePath = storePath;
    return settings;
  }
  // The same as a host program's environment ("NAME=value"), with the test
  // programs' sanitizer suppressions written to files in `dir`: a host runs
  // the same uninstrumented GLib and toolkit.
  std::vector<std::string> hostEnvironment(const std::filesystem::path& dir,
                                           const std::string& storePath) const {
    const DeploymentSettings s = settings(storePath);
    const auto tsan = dir / "tsan.supp", lsan = dir / "lsan.supp";
    std::ofstream(tsan) << __tsan_default_suppressions();
    std::ofstream(lsan) << __lsan_default_suppressions();
    return {"QS_COLLECTOR_HOST_PATTERN=" + s.collectorHostPattern,
            "QS_WEB_DOMAIN=" + s.webDomain,
            "QS_CA_FILE=" + s.caFile,
            "QS_STORE_PATH=" + storePath,
            "TSAN_OPTIONS=" + envOr("TSAN_OPTIONS") + " suppressions=" + tsan.string(),
            "LSAN_OPTIONS=" + envOr("LSAN_OPTIONS") + " suppressions=" + lsan.string()};
  }
  std::string url(const std::string& path) const {
    return "https://localhost:" + std::to_string(port_) + path;
  }

  // The events logged so far, in order.
  std::vector<Value> events() const {
    std::vector<Value> events;
    std::istringstream lines(readFile(logPath_));
    for (std::string line; std::getline(lines, line);) {
      Value event = Value::parse(line, nullptr, false);
      if (!event.is_discarded()) events.push_back(std::move(event));
    }
    return events;
  }
  // Waits (bounded, real time) until at least `count` logged events match.
  bool waitForEvents(const std::function<bool(const Value&)>& match, std::size_t count,
                     double seconds) const {
    return waitUntil(
        [&] {
          std::size_t n = 0;
          for (const auto& e : events()) n += match(e) ? 1 : 0;
          return n >= count;
        },
        seconds);
  }

  // Switches the fault mode: normal, slow, garbage or down.
  bool setMode(const std::string& mode) const {
    return callHttps("POST", url("/sandbox/mode"), {}, mode, caFile_).status == 200;
  }

  // Polls `done` every 50 ms until it holds or `seconds` pass.
  static bool waitUntil(const std::function<bool()>& done, double seconds) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (!done()) {
      if (std::chrono::steady_clock::now() >= deadline) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return true;
  }

 private:
  std::string logPath_;
  std::string outputPath_;
  std::string caFile_ = envOr("QS_CA_FILE");
  std::unique_ptr<ChildProcess> process_;
  int port_ = 0;
};

// A fresh directory under the system's temporary folder, removed afterwards.
class TempDir {
 public:
  TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "qs-e2e.XXXXXX").string();
    if (mkdtemp(pattern.data()) != nullptr) path_ = pattern;
  }
  ~TempDir() {
    std::error_code ignored;
    if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

// A manager on the real Linux platform that talks to `sandbox`, with its store
// in `dir` and the whole trace (Debug and up) in `log`.
inline std::shared_ptr<QSManager> makeSandboxManager(const SandboxProcess& sandbox,
                                                     const std::filesystem::path& dir,
                                                     const std::string& hostName,
                                                     std::shared_ptr<Log> log) {
  const auto settings = sandbox.settings((dir / "store.sqlite").string());
  LinuxPlatformOptions options;
  options.bundle = {"1.0", hostName, "com.example." + hostName, {"en"}};
  options.log = std::move(log);
  options.logLevel = LogLevel::Debug;
  return QSManager::create(makeLinuxPlatform(settings, options), settings);
}

}  // namespace qs::testing
