// qs-measure: what the library costs a host on the real Linux platform, over
// loopback HTTPS against the sandbox.
//
//   - time from startWith() to managerReady(), with the challenge round trip
//     (a fresh store: new session -> challenge -> answer -> token) and without
//     it (the sandbox started with --no-challenge);
//   - TLS connections per process: the sandbox logs each collector request
//     with the client's address and port, and requests that share them came
//     over one connection, hence one full handshake;
//   - threads of the library at rest, read from /proc/self/task;
//   - context switches of every thread during an idle period while the
//     renewal timer is pending, from /proc/self/task/<tid>/status;
//   - with --rtt MS, the same start-up through a relay that delays every
//     chunk by half the round trip each way (and the client's first bytes one
//     more round trip, for the TCP handshake): first launch with and without
//     the challenge, and a relaunch on the same store, in milliseconds and in
//     round trips, with the headers available right after startWith().
//   - the transport alone, for comparison: a plain libcurl client in a fresh
//     process, with OpenSSL's one-time set-up already done, connecting to
//     the same sandbox and posting two bodies of the start-up's sizes over
//     one connection (one for the series without a challenge). The sandbox
//     refuses them without the collector's work, so this is a little less
//     than the floor the library stands on; the difference is what the
//     library adds (its own compute, its event loop and thread hand-offs,
//     the collector's work on real activities).
//   - with --memory, the resident memory and malloc heap the library adds to
//     the process after managerReady and after --exchanges N forced renewals
//     (1,000 by default), apart from what libcurl and OpenSSL take for
//     themselves: a baseline phase makes one plain libcurl HTTPS request to
//     the sandbox before the library starts, so their one-time state is
//     counted before the library's.
//
// Every run is a child process of its own (this program with --child), so
// each starts cold: new process, new store file, new connection.
//
// Usage: qs-measure [--runs N] [--idle SECONDS] [--sandbox PATH] [--ca PEM]
//                   [--host-context] [--rtt MS] [--memory [--exchanges N]]
#include <curl/curl.h>
#include <dirent.h>
#include <malloc.h>
#include <openssl/ssl.h>
#include <pthread.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include <new>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <fmt/format.h>
#include <glib.h>

#include "DelayRelay.h"
#include "manager/QSManagerHelper.h"
#include "manager/QSManagerInternals.h"
#include "network/QSNetworkManager.h"
#include "quarrystone/LinuxPlatform.h"
#include "quarrystone/QSManager.h"

extern char** environ;

namespace {

using SteadyClock = std::chrono::steady_clock;

struct Options {
  int runs = 7;
  double idleSeconds = 10;
  double settleSeconds = 3;  // longer than an idle worker thread lives
  std::string sandbox = QS_MEASURE_SANDBOX;
  std::string ca = QS_MEASURE_CA;
  // Child mode.
  bool child = false;
  int port = 0;
  std::string appId;
  std::string store;
  bool trace = false;  // the library's log lines, with times, in the report
  // The host lends its GLib context (run here by a stand-in host thread)
  // instead of letting the library run its own loop.
  bool hostContext = false;
  // Round-trip time of the delaying relay, 0 for plain loopback.
  int rttMs = 0;
  // Child mode: the transport alone instead of the library.
  bool transport = false;
  // The memory report, and the forced renewals it makes.
  bool memory = false;
  long exchanges = 1000;
};

// ---------------------------------------------------------------- child ---

// Keeps the library's log lines; the report prints them only on failure.
class MemoryLog final : public qs::Log {
 public:
  using qs::Log::write;
  void write(qs::LogLevel, std::string_view line) override {
    const double ms =
        std::chrono::duration<double, std::milli>(SteadyClock::now() - start_).count();
    std::lock_guard lock(mutex_);
    lines_.push_back(fmt::format("[{:8.2f} ms] {}", ms, line));
  }
  std::vector<std::string> lines() const {
    std::lock_guard lock(mutex_);
    return lines_;
  }

 private:
  const SteadyClock::time_point start_ = SteadyClock::now();
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
};

class ReadyDelegate final : public qs::QSManagerDelegate {
 public:
  void managerReady(const qs::HeaderMap& headers) override { record(headers); }
  void newHeaders(const qs::HeaderMap& headers) override { record(headers); }

  // The time of the first call and its headers, or nullopt after `seconds`.
  std::optional<std::pair<SteadyClock::time_point, qs::HeaderMap>> wait(double seconds) {
    std::unique_lock lock(mutex_);
    if (!cv_.wait_for(lock, std::chrono::duration<double>(seconds), [&] { return called_; })) {
      return std::nullopt;
    }
    return std::pair{at_, headers_};
  }

 private:
  void record(const qs::HeaderMap& headers) {
    const auto now = SteadyClock::now();
    std::lock_guard lock(mutex_);
    if (called_) return;
    called_ = true;
    at_ = now;
    headers_ = headers;
    cv_.notify_all();
  }
  std::mutex mutex_;
  std::condition_variable cv_;
  bool called_ = false;
  SteadyClock::time_point at_;
  qs::HeaderMap headers_;
};

struct ThreadSample {
  std::string name;
  long long switches = 0;  // voluntary + involuntary
};

std::string readFirstLine(const std::string& path) {
  std::ifstream in(path);
  std::string line;
  std::getline(in, line);
  return line;
}

// Every thread of this process by id, with its name and context switches.
std::map<long, ThreadSample> sampleThreads() {
  std::map<long, ThreadSample> threads;
  DIR* dir = opendir("/proc/self/task");
  if (dir == nullptr) return threads;
  while (dirent* entry = readdir(dir)) {
    if (entry->d_name[0] == '.') continue;
    const std::string base = std::string("/proc/self/task/") + entry->d_name;
    ThreadSample sample;
    sample.name = readFirstLine(base + "/comm");
    std::ifstream status(base + "/status");
    for (std::string line; std::getline(status, line);) {
      if (line.rfind("voluntary_ctxt_switches:", 0) == 0 ||
          line.rfind("nonvoluntary_ctxt_switches:", 0) == 0) {
        sample.switches += std::atoll(line.substr(line.find(':') + 1).c_str());
      }
    }
    threads[std::atol(entry->d_name)] = sample;
  }
  closedir(dir);
  return threads;
}

std::string jsonString(const std::string& text) { return qs::Value(text).dump(); }

// What every measured child sets up: settings for the sandbox on `o.port`
// and the store at `o.store`, platform options that send the whole trace to
// `log`, and with --host-context a stand-in host whose GLib loop runs on a
// thread of its own (it belongs to the host, not the library; this thread
// stays free to measure, and the process ends with _Exit).
struct ChildSetup {
  qs::DeploymentSettings settings;
  qs::LinuxPlatformOptions platform;
};

ChildSetup childSetup(const Options& o, std::shared_ptr<qs::Log> log) {
  ChildSetup setup;
  setup.settings.collectorHostPattern = "{appId}.collector.localhost:" + std::to_string(o.port);
  setup.settings.webDomain = "localhost:" + std::to_string(o.port);
  setup.settings.caFile = o.ca;
  setup.settings.storePath = o.store;
  setup.platform.bundle = qs::BundleInfo{"1.0", "qs-measure", "org.quarrystone.measure", {"en"}};
  setup.platform.log = std::move(log);
  setup.platform.logLevel = qs::LogLevel::Debug;
  if (o.hostContext) {
    GMainContext* hostContext = g_main_context_new();
    GMainLoop* hostLoop = g_main_loop_new(hostContext, FALSE);
    setup.platform.hostContext = hostContext;
    std::thread([hostContext, hostLoop] {
      pthread_setname_np(pthread_self(), "host-loop");
      g_main_context_push_thread_default(hostContext);
      g_main_loop_run(hostLoop);
    }).detach();
    while (!g_main_loop_is_running(hostLoop)) std::this_thread::yield();
  }
  return setup;
}

int childMain(const Options& o) {
  auto log = std::make_shared<MemoryLog>();
  auto [settings, platformOptions] = childSetup(o, log);
  const long mainThread = static_cast<long>(getpid());
  const auto before = sampleThreads();

  auto manager = qs::QSManager::create(qs::makeLinuxPlatform(settings, platformOptions), settings);
  auto delegate = std::make_shared<ReadyDelegate>();
  manager->setDelegate(delegate);

  const auto start = SteadyClock::now();
  manager->startWith(o.appId);
  // What a host request made right now would carry: on a relaunch the stored
  // token, before any traffic.
  const auto early = manager->httpHeaders();
  const auto earlyAuth = early.find("X-QS-AUTHORIZATION");
  const bool tokenAtStart = earlyAuth != early.end() && earlyAuth->second.rfind("3:", 0) == 0;
  const auto ready = delegate->wait(10);

  std::string result = "{\"ok\":" + std::string(ready ? "true" : "false");
  result += ",\"token_at_start\":" + std::string(tokenAtStart ? "true" : "false");
  if (ready) {
    const double ms = std::chrono::duration<double, std::milli>(ready->first - start).count();
    const auto& auth = ready->second.at("X-QS-AUTHORIZATION");
    result += ",\"ready_ms\":" + std::to_string(ms);
    result += ",\"token\":" + std::string(auth.rfind("3:", 0) == 0 ? "true" : "false");
  }

  // Let worker threads that served the exchange run out their idle time.
  std::this_thread::sleep_for(std::chrono::duration<double>(o.settleSeconds));
  const auto rest = sampleThreads();
  std::string names;
  int libraryThreads = 0;
  for (const auto& [tid, sample] : rest) {
    if (tid == mainThread || before.count(tid) != 0) continue;
    ++libraryThreads;
    names += (names.empty() ? "" : ",") + jsonString(sample.name);
  }
  result += ",\"threads\":" + std::to_string(libraryThreads) + ",\"thread_names\":[" + names + "]";

  if (o.idleSeconds > 0) {
    auto timer = qs::QSManagerInternals::managerHelper(*manager).timer();
    result += ",\"timer_pending\":" + std::string(timer && timer->isValid() ? "true" : "false");
    const auto idleStart = sampleThreads();
    std::this_thread::sleep_for(std::chrono::duration<double>(o.idleSeconds));
    const auto idleEnd = sampleThreads();
    std::string perThread;
    long long total = 0;
    for (const auto& [tid, sample] : idleEnd) {
      if (tid == mainThread) continue;  // the measuring sleep itself
      auto it = idleStart.find(tid);
      const long long delta = sample.switches - (it == idleStart.end() ? 0 : it->second.switches);
      total += delta;
      perThread += (perThread.empty() ? "" : ",") +
                   jsonString(sample.name + "#" + std::to_string(tid)) + ":" +
                   std::to_string(delta);
    }
    result +=
        ",\"idle_switches\":" + std::to_string(total) + ",\"idle_by_thread\":{" + perThread + "}";
  }
  if (!ready || o.trace) {
    std::string lines;
    for (const auto& line : log->lines()) lines += (lines.empty() ? "" : ",") + jsonString(line);
    result += ",\"log\":[" + lines + "]";
  }
  std::printf("%s}\n", result.c_str());
  std::fflush(stdout);
  // The process ends here; the manager's threads go with it.
  std::_Exit(ready ? 0 : 1);
}

// ------------------------------------------------------- memory, child ---

// Live bytes allocated through C++ operator new in this process: the
// library's own objects (it is linked into this program) plus the little this
// program keeps; libcurl, OpenSSL, SQLite and GLib allocate with malloc and
// are not in it. Unlike malloc's in-use figure, chunks parked in per-thread
// caches do not count, so this is what is really held.
std::atomic<long long> liveCxxBytes{0};

}  // namespace

void* operator new(std::size_t size) {
  void* p = std::malloc(size == 0 ? 1 : size);
  if (p == nullptr) throw std::bad_alloc();
  liveCxxBytes.fetch_add(static_cast<long long>(malloc_usable_size(p)), std::memory_order_relaxed);
  return p;
}
void* operator new[](std::size_t size) { return operator new(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  try {
    return operator new(size);
  } catch (...) {
    return nullptr;
  }
}
void* operator new[](std::size_t size, const std::nothrow_t& tag) noexcept {
  return operator new(size, tag);
}
void operator delete(void* p) noexcept {
  if (p == nullptr) return;
  liveCxxBytes.fetch_sub(static_cast<long long>(malloc_usable_size(p)), std::memory_order_relaxed);
  std::free(p);
}
void operator delete[](void* p) noexcept { operator delete(p); }
void operator delete(void* p, std::size_t) noexcept { operator delete(p); }
void operator delete[](void* p, std::size_t) noexcept { operator delete(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { operator delete(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { operator delete(p); }

namespace {

// Counts the log lines that tell how exchanges ended; keeps none of them, so
// the report does not measure its own log.
class CompletionLog final : public qs::Log {
 public:
  using qs::Log::write;
  void write(qs::LogLevel, std::string_view line) override {
    if (line.rfind("handleCollectorResponse <--", 0) == 0 ||
        line.rfind("CollectorRequest received error: ", 0) == 0) {
      completions.fetch_add(1);
    }
    if (line.rfind("CollectorRequest received error: ", 0) == 0) failures.fetch_add(1);
  }
  std::atomic<long> completions{0};
  std::atomic<long> failures{0};
};

// The process's memory now: resident set from /proc/self/status (kB), and
// malloc's view over all arenas (bytes in use, bytes it holds from the
// system).
qs::Value sampleMemory(const std::string& label) {
  qs::Value sample = {{"label", label}};
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    for (const char* key : {"VmRSS", "RssAnon", "RssFile"}) {
      const std::string prefix = std::string(key) + ":";
      if (line.rfind(prefix, 0) == 0) sample[key] = std::atol(line.c_str() + prefix.size());
    }
  }
  const struct mallinfo2 heap = mallinfo2();
  sample["heap_in_use"] = heap.uordblks + heap.hblkhd;
  sample["heap_held"] = heap.arena + heap.hblkhd;
  sample["cxx_live"] = liveCxxBytes.load();
  sample["threads"] = std::distance(std::filesystem::directory_iterator("/proc/self/task"),
                                    std::filesystem::directory_iterator());
  return sample;
}

std::size_t discardBody(char*, std::size_t size, std::size_t count, void*) { return size * count; }

// A plain libcurl handle for `url`, trusting `ca`, the body discarded;
// null when libcurl cannot make one.
CURL* plainEasy(const std::string& url, const std::string& ca) {
  curl_global_init(CURL_GLOBAL_DEFAULT);
  CURL* easy = curl_easy_init();
  if (easy == nullptr) return nullptr;
  curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
  curl_easy_setopt(easy, CURLOPT_CAINFO, ca.c_str());
  curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, discardBody);
  curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(easy, CURLOPT_TIMEOUT, 10L);
  return easy;
}

// One HTTPS request with plain libcurl, as any host that uses it makes:
// libcurl's and OpenSSL's one-time state (global init, algorithm tables,
// error strings, the first TLS context) is then in place before the library.
bool plainHttpsRequest(int port, const std::string& ca) {
  CURL* easy = plainEasy("https://localhost:" + std::to_string(port) + "/", ca);
  if (easy == nullptr) return false;
  const CURLcode result = curl_easy_perform(easy);
  curl_easy_cleanup(easy);
  return result == CURLE_OK;
}

// The transport alone: what the library's start-up costs without the
// library. Same process start and the same TLS warm-up as the library's
// (see CurlHttpClient.cpp), but finished before the clock starts, which the
// library's is not when a host starts right after creating; then one new
// connection to the collector's host and bodies the size of the start-up's
// first activity and challenge answer.
int transportChild(const Options& o) {
  curl_global_init(CURL_GLOBAL_DEFAULT);
  SSL_CTX_free(SSL_CTX_new(TLS_client_method()));
  const auto start = SteadyClock::now();
  CURL* easy = plainEasy(
      fmt::format("https://{}.collector.localhost:{}/api/v1/collector/mobile", o.appId, o.port),
      o.ca);
  if (easy == nullptr) return 1;
  std::vector<double> done;
  for (const std::size_t size : {1000u, 700u}) {
    const std::string body = "p=" + std::string(size, 'A');
    curl_easy_setopt(easy, CURLOPT_COPYPOSTFIELDS, body.c_str());
    if (curl_easy_perform(easy) != CURLE_OK) break;
    done.push_back(std::chrono::duration<double, std::milli>(SteadyClock::now() - start).count());
  }
  curl_easy_cleanup(easy);
  const bool ok = done.size() == 2;
  std::printf("{\"ok\":%s,\"one_ms\":%f,\"two_ms\":%f}\n", ok ? "true" : "false",
              ok ? done[0] : 0.0, ok ? done[1] : 0.0);
  std::fflush(stdout);
  return ok ? 0 : 1;
}

int memoryChild(const Options& o) {
  qs::Value samples = qs::Value::array();
  samples.push_back(sampleMemory("process start"));
  const bool baseline = plainHttpsRequest(o.port, o.ca);
  samples.push_back(sampleMemory("after one plain libcurl HTTPS request"));

  auto log = std::make_shared<CompletionLog>();  // the completion lines are debug lines
  auto [settings, platformOptions] = childSetup(o, log);
  auto manager = qs::QSManager::create(qs::makeLinuxPlatform(settings, platformOptions), settings);
  auto delegate = std::make_shared<ReadyDelegate>();
  manager->setDelegate(delegate);
  manager->startWith(o.appId);
  const bool ready = delegate->wait(20).has_value();
  const auto settle = [&] {
    std::this_thread::sleep_for(std::chrono::duration<double>(o.settleSeconds));
  };
  settle();
  samples.push_back(sampleMemory("managerReady, at rest"));

  // Forced renewals: the activity the renewal timer sends when the token
  // nears its end, one after the other, each awaited with its answer.
  auto& helper = qs::QSManagerInternals::managerHelper(*manager);
  const auto pending = [&] {
    return qs::QSManagerInternals::networkManager(*manager)->requestsQueue().operationCount();
  };
  long stalled = 0;
  const long early = std::min(100L, o.exchanges);
  for (long i = 0; i < o.exchanges; ++i) {
    const long before = log->completions.load();
    helper.sendAppIdleActivity();
    const auto deadline = SteadyClock::now() + std::chrono::seconds(20);
    while (!(log->completions.load() > before && pending() == 0)) {
      if (SteadyClock::now() >= deadline) {
        ++stalled;
        break;
      }
      std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    if (i + 1 == early && early < o.exchanges) {
      settle();
      samples.push_back(sampleMemory(fmt::format("after {} exchanges, at rest", early)));
    }
  }
  settle();
  samples.push_back(sampleMemory(fmt::format("after {} exchanges, at rest", o.exchanges)));

  qs::Value result = {{"ok", baseline && ready && stalled == 0},
                      {"baseline_ok", baseline},
                      {"ready", ready},
                      {"stalled", stalled},
                      {"failures", log->failures.load()},
                      {"samples", samples}};
  std::printf("%s\n", result.dump().c_str());
  std::fflush(stdout);
  std::_Exit(0);
}

// --------------------------------------------------------------- parent ---

// Runs argv with its stdout into a pipe; returns the pid and the read end.
std::optional<std::pair<pid_t, FILE*>> spawnWithOutput(const std::vector<std::string>& args) {
  int fds[2];
  if (pipe(fds) != 0) return std::nullopt;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
  posix_spawn_file_actions_addclose(&actions, fds[0]);
  posix_spawn_file_actions_addclose(&actions, fds[1]);
  std::vector<char*> argv;
  for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  pid_t pid = 0;
  const int rc = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(fds[1]);
  if (rc != 0) {
    close(fds[0]);
    return std::nullopt;
  }
  return std::pair{pid, fdopen(fds[0], "r")};
}

std::string readLine(FILE* in) {
  std::string line;
  for (int c; (c = std::fgetc(in)) != EOF && c != '\n';) line += static_cast<char>(c);
  return line;
}

struct Sandbox {
  pid_t pid = 0;
  int port = 0;
  std::string logPath;
  FILE* out = nullptr;

  ~Sandbox() {
    if (pid > 0) {
      kill(pid, SIGTERM);
      waitpid(pid, nullptr, 0);
    }
    if (out != nullptr) std::fclose(out);
  }

  // The collector requests logged for `appId`, one connection name each.
  std::vector<std::string> peersOf(const std::string& appId) const {
    std::vector<std::string> peers;
    std::ifstream in(logPath);
    for (std::string line; std::getline(in, line);) {
      const qs::Value event = qs::Value::parse(line, nullptr, false);
      if (!event.is_object() || event.value("event", "") != "activity" ||
          event.value("appId", "") != appId) {
        continue;
      }
      peers.push_back(event.value("peer", "?"));
    }
    return peers;
  }
};

std::unique_ptr<Sandbox> startSandbox(const Options& o, const std::string& logPath,
                                      bool challenge) {
  std::vector<std::string> args = {o.sandbox, "--port", "0", "--quiet", "--log", logPath};
  if (!challenge) args.emplace_back("--no-challenge");
  auto spawned = spawnWithOutput(args);
  if (!spawned) return nullptr;
  auto sandbox = std::make_unique<Sandbox>();
  sandbox->pid = spawned->first;
  sandbox->out = spawned->second;
  sandbox->logPath = logPath;
  const std::string prefix = "qs-sandbox listening on https://127.0.0.1:";
  const std::string line = readLine(sandbox->out);
  if (line.rfind(prefix, 0) != 0) return nullptr;
  sandbox->port = std::atoi(line.substr(prefix.size()).c_str());
  return sandbox->port > 0 ? std::move(sandbox) : nullptr;
}

struct RunResult {
  qs::Value child;  // what the child printed
  std::size_t requests = 0;
  std::size_t connections = 0;
};

std::string appIdFor(int index) {
  return "measure-" + std::to_string(getpid()) + "-" + std::to_string(index);
}

// One child process against `sandbox`, reached on `port` (the sandbox's own,
// or a relay's in front of it). The store file is named after the app id, so
// a second run with the same id is a relaunch on the same store.
std::optional<RunResult> runChild(const Options& o, const std::string& self, const Sandbox& sandbox,
                                  int port, const std::string& dir, const std::string& appId,
                                  double idleSeconds, double settleSeconds) {
  const std::string store = dir + "/" + appId + ".sqlite";
  std::vector<std::string> args = {self,       "--child",
                                   "--port",   std::to_string(port),
                                   "--app-id", appId,
                                   "--store",  store,
                                   "--ca",     o.ca,
                                   "--idle",   std::to_string(idleSeconds),
                                   "--settle", std::to_string(settleSeconds)};
  if (o.hostContext) args.emplace_back("--host-context");
  if (o.transport) args.emplace_back("--transport");
  auto spawned = spawnWithOutput(args);
  if (!spawned) return std::nullopt;
  const std::string line = readLine(spawned->second);
  std::fclose(spawned->second);
  waitpid(spawned->first, nullptr, 0);
  RunResult result;
  result.child = qs::Value::parse(line, nullptr, false);
  if (!result.child.is_object()) return std::nullopt;
  const auto peers = sandbox.peersOf(appId);
  result.requests = peers.size();
  result.connections = std::set<std::string>(peers.begin(), peers.end()).size();
  return result;
}

std::optional<RunResult> runOnce(const Options& o, const std::string& self, const Sandbox& sandbox,
                                 const std::string& dir, int index, double idleSeconds) {
  return runChild(o, self, sandbox, sandbox.port, dir, appIdFor(index), idleSeconds,
                  o.settleSeconds);
}

struct Spread {
  double median = 0, min = 0, max = 0;
};

Spread spreadOf(std::vector<double> values) {
  if (values.empty()) return {};
  std::sort(values.begin(), values.end());
  const std::size_t n = values.size();
  const double median = n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
  return {median, values.front(), values.back()};
}

// Runs the series against one sandbox; prints a line per run and the summary.
bool series(const Options& o, const std::string& self, const std::string& dir, bool challenge,
            int& index, std::vector<RunResult>& results) {
  auto sandbox =
      startSandbox(o, dir + (challenge ? "/challenge.jsonl" : "/direct.jsonl"), challenge);
  if (!sandbox) {
    std::fprintf(stderr, "qs-measure: cannot start %s\n", o.sandbox.c_str());
    return false;
  }
  std::vector<double> ready, transport, added;
  std::printf("\n%s (sandbox on port %d)\n",
              challenge ? "With the challenge round trip" : "Without a challenge (--no-challenge)",
              sandbox->port);
  // One run before the series warms the page cache for the binaries and the
  // CA files; it is reported but not counted.
  for (int i = -1; i < o.runs; ++i) {
    auto run = runOnce(o, self, *sandbox, dir, index++, 0);
    if (!run || !run->child.value("ok", false)) {
      std::printf("  run %2d: failed %s\n", i + 1, run ? run->child.dump().c_str() : "");
      continue;
    }
    const double ms = run->child.value("ready_ms", 0.0);
    std::printf(
        "  run %2d: ready after %7.2f ms, token %s, %zu requests over %zu connection(s), "
        "%d library thread(s) at rest %s%s\n",
        i + 1, ms, run->child.value("token", false) ? "yes" : "NO", run->requests, run->connections,
        run->child.value("threads", 0), run->child["thread_names"].dump().c_str(),
        i < 0 ? " (warm-up)" : "");
    if (i < 0) continue;
    ready.push_back(ms);
    results.push_back(std::move(*run));
    // The transport alone right after, so that both see the same machine.
    Options alone = o;
    alone.transport = true;
    const auto bare = runOnce(alone, self, *sandbox, dir, index++, 0);
    if (bare && bare->child.value("ok", false)) {
      const double bareMs = bare->child.value(challenge ? "two_ms" : "one_ms", 0.0);
      transport.push_back(bareMs);
      added.push_back(ms - bareMs);
    }
  }
  const Spread s = spreadOf(ready);
  std::printf("  startWith -> managerReady: median %.2f ms, min %.2f, max %.2f over %zu runs\n",
              s.median, s.min, s.max, ready.size());
  const Spread t = spreadOf(transport);
  const Spread a = spreadOf(added);
  std::printf(
      "  the transport alone (plain libcurl, a new connection, %s), run after each: "
      "median %.2f ms, min %.2f, max %.2f; the library adds a median of %.2f ms\n",
      challenge ? "two requests" : "one request", t.median, t.min, t.max, a.median);
  return !ready.empty() && transport.size() == ready.size();
}

// Start-up through the delaying relay: first launch, then a relaunch on the
// same store, per run; the sandbox's log gives the connections of each.
bool rttSeries(const Options& o, const std::string& self, const std::string& dir, bool challenge,
               int& index) {
  auto sandbox =
      startSandbox(o, dir + (challenge ? "/rtt-challenge.jsonl" : "/rtt-direct.jsonl"), challenge);
  if (!sandbox) {
    std::fprintf(stderr, "qs-measure: cannot start %s\n", o.sandbox.c_str());
    return false;
  }
  qs::sandbox::DelayRelay relay(sandbox->port, std::chrono::milliseconds(o.rttMs));
  if (const auto error = relay.start()) {
    std::fprintf(stderr, "qs-measure: relay: %s\n", error->c_str());
    return false;
  }
  const double rtt = o.rttMs;
  std::printf("\n%s, %d ms round trip (relay on port %d)\n",
              challenge ? "With the challenge round trip" : "Without a challenge (--no-challenge)",
              o.rttMs, relay.port());
  std::vector<double> first, again;
  std::size_t maxConnections = 0, maxAgainConnections = 0;
  // Round trips on the wire, counted by the relay from the order of the
  // chunks: what the protocol needs, apart from the time either side takes.
  std::set<std::size_t> wire, againWire;
  bool tokenAtStartAlways = true;
  for (int i = 0; i < o.runs; ++i) {
    const std::string appId = appIdFor(index++);
    std::size_t tripsBefore = relay.roundTrips();
    auto launch = runChild(o, self, *sandbox, relay.port(), dir, appId, 0, 0);
    const std::size_t trips = relay.roundTrips() - tripsBefore;
    if (!launch || !launch->child.value("ok", false) || !launch->child.value("token", false)) {
      std::printf("  run %2d: first launch failed %s\n", i + 1,
                  launch ? launch->child.dump().c_str() : "");
      continue;
    }
    const double ms = launch->child.value("ready_ms", 0.0);
    first.push_back(ms);
    maxConnections = std::max(maxConnections, launch->connections);
    wire.insert(trips);
    std::string line = fmt::format(
        "  run {:2}: first launch {:7.1f} ms = {:.2f} round trips ({} on the wire), {} requests "
        "over {} connection(s)",
        i + 1, ms, ms / rtt, trips, launch->requests, launch->connections);
    if (challenge) {
      // The relaunch: its requests are the ones the sandbox logged after the
      // first launch's, under the same app id.
      tripsBefore = relay.roundTrips();
      auto relaunch = runChild(o, self, *sandbox, relay.port(), dir, appId, 0, 0);
      const std::size_t againTrips = relay.roundTrips() - tripsBefore;
      if (relaunch && relaunch->child.value("ok", false)) {
        const double againMs = relaunch->child.value("ready_ms", 0.0);
        const bool early = relaunch->child.value("token_at_start", false);
        tokenAtStartAlways = tokenAtStartAlways && early;
        again.push_back(againMs);
        againWire.insert(againTrips);
        const std::size_t extra = relaunch->connections - launch->connections;
        maxAgainConnections = std::max(maxAgainConnections, extra);
        line += fmt::format(
            "; relaunch: token {} at startWith, managerReady {:.1f} ms = {:.2f} round trips ({} "
            "on the wire), {} connection(s)",
            early ? "present" : "ABSENT", againMs, againMs / rtt, againTrips, extra);
      } else {
        tokenAtStartAlways = false;
        line += "; relaunch failed";
      }
    }
    std::printf("%s\n", line.c_str());
  }
  const auto counts = [](const std::set<std::size_t>& values) {
    std::string text;
    for (std::size_t v : values) text += (text.empty() ? "" : " or ") + std::to_string(v);
    return text.empty() ? std::string("-") : text;
  };
  const Spread s = spreadOf(first);
  std::printf(
      "  first launch, startWith -> managerReady: median %.1f ms = %.2f round trips "
      "(min %.2f, max %.2f), %s on the wire, at most %zu connection(s), %zu runs\n",
      s.median, s.median / rtt, s.min / rtt, s.max / rtt, counts(wire).c_str(), maxConnections,
      first.size());
  if (challenge) {
    const Spread r = spreadOf(again);
    std::printf(
        "  relaunch on the same store: level-3 token in the headers right after "
        "startWith in %s run; managerReady median %.1f ms = %.2f round trips, %s on the "
        "wire, at most %zu connection(s)\n",
        tokenAtStartAlways && !again.empty() ? "every" : "NOT every", r.median, r.median / rtt,
        counts(againWire).c_str(), maxAgainConnections);
  }
  return static_cast<int>(first.size()) == o.runs &&
         (!challenge || (static_cast<int>(again.size()) == o.runs && tokenAtStartAlways));
}

int runRtt(const Options& o, const std::string& self) {
  char dirTemplate[] = "/tmp/qs-measure-XXXXXX";
  if (mkdtemp(dirTemplate) == nullptr) return 1;
  const std::string dir = dirTemplate;
  std::printf("qs-measure: %d runs per series through a relay with a %d ms round trip\n", o.runs,
              o.rttMs);
  std::printf("(each chunk held %d ms each way, a client's first bytes %d ms more)\n", o.rttMs / 2,
              o.rttMs);
  int index = 0;
  bool ok = rttSeries(o, self, dir, true, index);
  ok = rttSeries(o, self, dir, false, index) && ok;
  std::error_code ignored;
  std::filesystem::remove_all(dir, ignored);
  return ok ? 0 : 1;
}

int runParent(const Options& o, const std::string& self) {
  char dirTemplate[] = "/tmp/qs-measure-XXXXXX";
  if (mkdtemp(dirTemplate) == nullptr) return 1;
  const std::string dir = dirTemplate;
  std::printf("qs-measure: %d runs per series, loopback HTTPS, real Linux platform\n", o.runs);
  std::printf("machine: %u hardware threads\n", std::thread::hardware_concurrency());
  std::printf("main loop: %s\n", o.hostContext ? "the host's GLib context (--host-context)"
                                               : "the library's own loop thread");

  int index = 0;
  std::vector<RunResult> withChallenge, direct;
  bool ok = series(o, self, dir, true, index, withChallenge);
  ok = series(o, self, dir, false, index, direct) && ok;

  std::size_t maxConnections = 0, maxThreads = 0;
  for (const auto* list : {&withChallenge, &direct}) {
    for (const auto& r : *list) {
      maxConnections = std::max(maxConnections, r.connections);
      maxThreads = std::max(maxThreads, static_cast<std::size_t>(r.child.value("threads", 0)));
    }
  }
  std::printf("\nTLS connections (full handshakes) per process: at most %zu\n", maxConnections);
  std::printf("Library threads at rest: at most %zu\n", maxThreads);

  if (o.idleSeconds > 0) {
    auto sandbox = startSandbox(o, dir + "/idle.jsonl", true);
    std::optional<RunResult> run;
    if (sandbox) run = runOnce(o, self, *sandbox, dir, index++, o.idleSeconds);
    if (run && run->child.value("ok", false)) {
      std::printf("\nIdle %.0f s after the exchange, renewal timer pending: %s\n", o.idleSeconds,
                  run->child.value("timer_pending", false) ? "yes" : "NO");
      std::printf("  context switches of the library's threads: %lld\n",
                  run->child.value("idle_switches", 0LL));
      for (const auto& [name, count] : run->child["idle_by_thread"].items()) {
        std::printf("    %-24s %lld\n", name.c_str(), count.get<long long>());
      }
    } else {
      std::printf("\nIdle measurement failed\n");
      ok = false;
    }
  }
  std::error_code ignored;
  std::filesystem::remove_all(dir, ignored);
  return ok ? 0 : 1;
}

// The memory report: one fresh child process against a sandbox, its samples
// as a table, with the library's share apart from libcurl's and OpenSSL's.
int runMemory(const Options& o, const std::string& self) {
  char dirTemplate[] = "/tmp/qs-measure-XXXXXX";
  if (mkdtemp(dirTemplate) == nullptr) return 1;
  const std::string dir = dirTemplate;
  auto sandbox = startSandbox(o, dir + "/memory.jsonl", true);
  if (!sandbox) {
    std::fprintf(stderr, "qs-measure: cannot start %s\n", o.sandbox.c_str());
    return 1;
  }
  const std::string appId = appIdFor(0);
  std::vector<std::string> args = {self,
                                   "--child",
                                   "--memory",
                                   "--exchanges",
                                   std::to_string(o.exchanges),
                                   "--port",
                                   std::to_string(sandbox->port),
                                   "--app-id",
                                   appId,
                                   "--store",
                                   dir + "/" + appId + ".sqlite",
                                   "--ca",
                                   o.ca,
                                   "--settle",
                                   std::to_string(o.settleSeconds)};
  if (o.hostContext) args.emplace_back("--host-context");
  auto spawned = spawnWithOutput(args);
  if (!spawned) return 1;
  const std::string line = readLine(spawned->second);
  std::fclose(spawned->second);
  waitpid(spawned->first, nullptr, 0);
  const qs::Value report = qs::Value::parse(line, nullptr, false);
  std::error_code ignored;
  std::filesystem::remove_all(dir, ignored);
  if (!report.is_object() || !report.contains("samples")) {
    std::fprintf(stderr, "qs-measure: the memory child failed: %s\n", line.c_str());
    return 1;
  }
  std::printf("qs-measure: memory of one host process, loopback HTTPS, real Linux platform\n");
  std::printf(
      "main loop: %s; %ld forced renewals, one after the other; at rest = %.0f s "
      "after the last work\n",
      o.hostContext ? "the host's GLib context" : "the library's own loop thread", o.exchanges,
      o.settleSeconds);
  std::printf("\n%-38s %9s %9s %9s %12s %12s %12s %7s\n", "point", "VmRSS kB", "anon kB", "file kB",
              "heap in use", "heap held", "C++ live", "threads");
  const auto& samples = report["samples"];
  for (const auto& s : samples) {
    std::printf("%-38s %9ld %9ld %9ld %12zu %12zu %12lld %7ld\n", s.value("label", "").c_str(),
                s.value("VmRSS", 0L), s.value("RssAnon", 0L), s.value("RssFile", 0L),
                s.value("heap_in_use", std::size_t{0}), s.value("heap_held", std::size_t{0}),
                s.value("cxx_live", 0LL), s.value("threads", 0L));
  }
  std::printf(
      "(VmRSS = anon + file + shmem; heap = malloc over all arenas: bytes in use, incl. "
      "chunks cached per thread, and bytes held from the system; C++ live = bytes held through "
      "operator new, the library's own objects)\n");
  const auto delta = [&](std::size_t from, std::size_t to, const char* key) {
    return samples[to].value(key, 0.0) - samples[from].value(key, 0.0);
  };
  const auto row = [&](const std::string& what, std::size_t from, std::size_t to) {
    std::printf(
        "%-34s RSS %+7.0f kB (anon %+6.0f, file %+6.0f), heap in use %+7.1f kB, "
        "C++ live %+7.1f kB\n",
        what.c_str(), delta(from, to, "VmRSS"), delta(from, to, "RssAnon"),
        delta(from, to, "RssFile"), delta(from, to, "heap_in_use") / 1024,
        delta(from, to, "cxx_live") / 1024);
  };
  const std::size_t last = samples.size() - 1;
  std::printf("\n");
  row("libcurl + OpenSSL, one request", 0, 1);
  row("the library, to managerReady", 1, 2);
  if (last > 3) {
    const long early = std::min(100L, o.exchanges);
    row(fmt::format("exchanges 1 to {}", early), 2, 3);
    row(fmt::format("exchanges {} to {}", early + 1, o.exchanges), 3, last);
  }
  row("the library in all, at the end", 1, last);
  std::printf("exchanges that failed: %ld, did not complete within 20 s: %ld\n",
              report.value("failures", 0L), report.value("stalled", 0L));
  return report.value("ok", false) ? 0 : 1;
}

bool parse(int argc, char** argv, Options& o) {
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    const char* value = i + 1 < argc ? argv[i + 1] : nullptr;
    const auto take = [&](auto& out) {
      if (value == nullptr) return false;
      ++i;
      if constexpr (std::is_same_v<std::decay_t<decltype(out)>, std::string>) {
        out = value;
      } else {
        out = static_cast<std::decay_t<decltype(out)>>(std::atof(value));
      }
      return true;
    };
    bool ok = true;
    if (arg == "--child") {
      o.child = true;
    } else if (arg == "--trace") {
      o.trace = true;
    } else if (arg == "--host-context") {
      o.hostContext = true;
    } else if (arg == "--transport") {
      o.transport = true;
    } else if (arg == "--memory") {
      o.memory = true;
    } else if (arg == "--exchanges") {
      ok = take(o.exchanges) && o.exchanges > 0;
    } else if (arg == "--rtt") {
      ok = take(o.rttMs) && o.rttMs > 0;
    } else if (arg == "--runs") {
      ok = take(o.runs) && o.runs > 0;
    } else if (arg == "--idle") {
      ok = take(o.idleSeconds);
    } else if (arg == "--settle") {
      ok = take(o.settleSeconds);
    } else if (arg == "--sandbox") {
      ok = take(o.sandbox);
    } else if (arg == "--ca") {
      ok = take(o.ca);
    } else if (arg == "--port") {
      ok = take(o.port);
    } else if (arg == "--app-id") {
      ok = take(o.appId);
    } else if (arg == "--store") {
      ok = take(o.store);
    } else {
      ok = false;
    }
    if (!ok) return false;
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (!parse(argc, argv, options)) {
    std::fprintf(stderr,
                 "usage: qs-measure [--runs N] [--idle SECONDS] [--settle SECONDS] "
                 "[--sandbox PATH] [--ca PEM] [--host-context] [--rtt MS] "
                 "[--memory [--exchanges N]]\n");
    return 2;
  }
  if (options.child) {
    if (options.transport) return transportChild(options);
    return options.memory ? memoryChild(options) : childMain(options);
  }
  const std::string self = std::filesystem::read_symlink("/proc/self/exe").string();
  if (options.memory) return runMemory(options, self);
  return options.rttMs > 0 ? runRtt(options, self) : runParent(options, self);
}
