// qs-soak: what load from the host costs the process, on the real Linux
// platform against the sandbox over loopback HTTPS.
//
//   --flood      N host threads call wakeup() as fast as they can for a given
//                number of calls in all; the backlog of activities waiting to
//                be sent, the resident memory, the open descriptors and the
//                threads are sampled while they do and until the backlog has
//                drained, and the peak and final figures are printed.
//   --exchanges  N sequential exchanges (new session, wake-up, renewal in
//                turn, each waiting for the previous one and whatever it led
//                to), sampling the same figures; growth over a long run shows
//                a leak. The figures at rest after the first 100 exchanges
//                are the baseline that growth is measured from.
//   --check      with --exchanges: exit non-zero when descriptors (beyond one
//                kept-alive connection) or threads at rest grew beyond that
//                baseline (the CI soak; under ASan a leak fails it at exit).
//   --token-ttl  the sandbox's token life in seconds: a short one makes the
//                library's own renewal timer fire during the run too.
//
// The sandbox runs as a child process, so the figures are this process's
// alone (read from /proc/self). The library's log lines are counted, never
// kept, so that the log does not grow with the load it describes.
//
// Usage: qs-soak --flood [--threads N] [--calls N] [--drain SECONDS]
//        qs-soak --exchanges N [--check]
//        common: [--sandbox PATH] [--ca PEM] [--no-challenge] [--sample-ms MS]
//                [--token-ttl SECONDS]
#include <dirent.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <fmt/format.h>

#include "manager/QSManagerHelper.h"
#include "manager/QSManagerInternals.h"
#include "network/QSNetworkManager.h"
#include "quarrystone/LinuxPlatform.h"
#include "quarrystone/QSManager.h"

extern char** environ;

namespace {

using SteadyClock = std::chrono::steady_clock;

#ifdef QS_SOAK_SANDBOX
constexpr const char* kDefaultSandbox = QS_SOAK_SANDBOX;
#else
constexpr const char* kDefaultSandbox = "";
#endif
#ifdef QS_SOAK_CA
constexpr const char* kDefaultCa = QS_SOAK_CA;
#else
constexpr const char* kDefaultCa = "";
#endif

struct Options {
  bool flood = false;
  long exchanges = 0;
  int threads = 8;
  long calls = 20000;
  double drainSeconds = 180;
  int sampleMs = 20;
  bool challenge = true;
  bool check = false;
  long tokenTtl = 0;  // 0: the sandbox's default
  std::string sandbox = kDefaultSandbox;
  std::string ca = kDefaultCa;
};

// ------------------------------------------------------------ figures ---

struct Sample {
  double rssMb = 0;
  long fds = 0;
  long threads = 0;
  std::size_t pending = 0;
};

long countEntries(const char* dir) {
  DIR* d = opendir(dir);
  if (d == nullptr) return -1;
  long n = 0;
  while (dirent* entry = readdir(d)) n += entry->d_name[0] == '.' ? 0 : 1;
  closedir(d);
  return n;
}

double residentMb() {
  std::ifstream statm("/proc/self/statm");
  long size = 0, resident = 0;
  statm >> size >> resident;
  return static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE)) / 1048576.0;
}

// The directory listing of /proc/self/fd holds one descriptor of its own
// while it is read; it is not counted.
Sample sampleNow(std::size_t pending) {
  return {residentMb(), countEntries("/proc/self/fd") - 1, countEntries("/proc/self/task"),
          pending};
}

// Threads by name ("qs-worker x9, ..."): who the threads are.
std::string threadNames() {
  std::map<std::string, int> names;
  DIR* d = opendir("/proc/self/task");
  if (d == nullptr) return {};
  while (dirent* entry = readdir(d)) {
    if (entry->d_name[0] == '.') continue;
    std::ifstream comm(std::string("/proc/self/task/") + entry->d_name + "/comm");
    std::string name;
    std::getline(comm, name);
    ++names[name];
  }
  closedir(d);
  std::string text;
  for (const auto& [name, count] : names) {
    text += fmt::format("{}{} x{}", text.empty() ? "" : ", ", name, count);
  }
  return text;
}

std::string describe(const Sample& s) {
  return fmt::format("RSS {:8.1f} MB, {:6} descriptors, {:4} threads, {:6} pending", s.rssMb, s.fds,
                     s.threads, s.pending);
}

// Samples on a thread of its own every `period` and keeps the peaks.
class Sampler {
 public:
  Sampler(std::function<std::size_t()> pending, std::chrono::milliseconds period)
      : pending_(std::move(pending)), period_(period), thread_([this] { run(); }) {}
  ~Sampler() {
    {
      std::lock_guard lock(mutex_);
      stop_ = true;
    }
    cv_.notify_all();
    thread_.join();
  }
  Sample peak() const {
    std::lock_guard lock(mutex_);
    return peak_;
  }

 private:
  void run() {
    std::unique_lock lock(mutex_);
    while (!stop_) {
      lock.unlock();
      const Sample s = sampleNow(pending_());
      lock.lock();
      peak_.rssMb = std::max(peak_.rssMb, s.rssMb);
      peak_.fds = std::max(peak_.fds, s.fds);
      peak_.threads = std::max(peak_.threads, s.threads);
      peak_.pending = std::max(peak_.pending, s.pending);
      cv_.wait_for(lock, period_, [&] { return stop_; });
    }
  }

  const std::function<std::size_t()> pending_;
  const std::chrono::milliseconds period_;
  mutable std::mutex mutex_;
  std::condition_variable cv_;
  bool stop_ = false;  // guarded by mutex_
  Sample peak_;        // guarded by mutex_
  std::thread thread_;
};

// ---------------------------------------------------------- the library ---

// Counts the log lines that tell how exchanges ended; keeps none of them.
class CountingLog final : public qs::Log {
 public:
  using qs::Log::write;
  void write(qs::LogLevel, std::string_view line) override {
    if (line.rfind("handleCollectorResponse <--", 0) == 0) {
      answered.fetch_add(1);
    } else if (line.rfind(kFailed, 0) == 0) {
      failed.fetch_add(1);
      std::lock_guard lock(mutex_);
      ++errors_[std::string(line.substr(kFailed.size()))];
    } else if (line.find("dropped") != std::string_view::npos) {
      dropped.fetch_add(1);
    }
  }
  long completions() const { return answered.load() + failed.load(); }
  std::map<std::string, long> errors() const {
    std::lock_guard lock(mutex_);
    return errors_;
  }

  std::atomic<long> answered{0};
  std::atomic<long> failed{0};
  std::atomic<long> dropped{0};

 private:
  static constexpr std::string_view kFailed = "CollectorRequest received error: ";
  mutable std::mutex mutex_;
  std::map<std::string, long> errors_;  // guarded by mutex_
};

class ReadyDelegate final : public qs::QSManagerDelegate {
 public:
  void managerReady(const qs::HeaderMap&) override { mark(); }
  void newHeaders(const qs::HeaderMap&) override {}
  bool wait(double seconds) {
    std::unique_lock lock(mutex_);
    return cv_.wait_for(lock, std::chrono::duration<double>(seconds), [&] { return ready_; });
  }

 private:
  void mark() {
    std::lock_guard lock(mutex_);
    ready_ = true;
    cv_.notify_all();
  }
  std::mutex mutex_;
  std::condition_variable cv_;
  bool ready_ = false;
};

// ------------------------------------------------------------ sandbox ---

class Sandbox {
 public:
  ~Sandbox() { stop(); }

  void stop() {
    if (pid_ > 0) {
      kill(pid_, SIGTERM);
      waitpid(pid_, nullptr, 0);
      pid_ = 0;
    }
    if (out_ != nullptr) std::fclose(out_);
    out_ = nullptr;
  }

  // Starts the sandbox on a free port; false if it did not come up.
  bool start(const Options& o, const std::string& logPath) {
    std::vector<std::string> args = {o.sandbox, "--port", "0", "--quiet", "--log", logPath};
    if (!o.challenge) args.emplace_back("--no-challenge");
    if (o.tokenTtl > 0) {
      args.emplace_back("--token-ttl");
      args.push_back(std::to_string(o.tokenTtl));
    }
    int fds[2];
    if (pipe(fds) != 0) return false;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
    posix_spawn_file_actions_addclose(&actions, fds[0]);
    posix_spawn_file_actions_addclose(&actions, fds[1]);
    std::vector<char*> argv;
    for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    const int rc = posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(fds[1]);
    if (rc != 0) {
      pid_ = 0;
      close(fds[0]);
      return false;
    }
    out_ = fdopen(fds[0], "r");
    std::string line;
    for (int c; out_ != nullptr && (c = std::fgetc(out_)) != EOF && c != '\n';) {
      line += static_cast<char>(c);
    }
    const std::string prefix = "qs-sandbox listening on https://127.0.0.1:";
    if (line.rfind(prefix, 0) != 0) return false;
    port_ = std::atoi(line.substr(prefix.size()).c_str());
    return port_ > 0;
  }
  int port() const { return port_; }

 private:
  pid_t pid_ = 0;
  FILE* out_ = nullptr;
  int port_ = 0;
};

struct Run {
  std::shared_ptr<CountingLog> log = std::make_shared<CountingLog>();
  std::shared_ptr<ReadyDelegate> delegate = std::make_shared<ReadyDelegate>();
  std::shared_ptr<qs::QSManager> manager;
  std::size_t pending() const {
    return qs::QSManagerInternals::networkManager(*manager)->requestsQueue().operationCount();
  }
};

std::unique_ptr<Run> startLibrary(const Sandbox& sandbox, const Options& o,
                                  const std::string& dir) {
  qs::DeploymentSettings settings;
  settings.collectorHostPattern = "{appId}.collector.localhost:" + std::to_string(sandbox.port());
  settings.webDomain = "localhost:" + std::to_string(sandbox.port());
  settings.caFile = o.ca;
  settings.storePath = dir + "/store.sqlite";
  auto run = std::make_unique<Run>();
  qs::LinuxPlatformOptions platformOptions;
  platformOptions.bundle = qs::BundleInfo{"1.0", "qs-soak", "org.quarrystone.soak", {"en"}};
  platformOptions.log = run->log;
  platformOptions.logLevel = qs::LogLevel::Debug;  // it counts trace lines
  run->manager = qs::QSManager::create(qs::makeLinuxPlatform(settings, platformOptions), settings);
  run->manager->setDelegate(run->delegate);
  return run;
}

// Polls until `done` or `seconds` pass.
bool waitUntil(const std::function<bool()>& done, double seconds) {
  const auto deadline = SteadyClock::now() + std::chrono::duration<double>(seconds);
  while (!done()) {
    if (SteadyClock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

void printErrors(const CountingLog& log) {
  for (const auto& [text, count] : log.errors())
    std::printf("    %6ld x %s\n", count, text.c_str());
}

// -------------------------------------------------------------- flood ---

int flood(const Options& o, Run& run) {
  run.manager->startWith("soak-flood");
  if (!run.delegate->wait(20)) {
    std::fprintf(stderr, "qs-soak: the manager did not become ready\n");
    return 1;
  }
  // Let the start-up exchange (and its challenge answer) finish first.
  waitUntil([&] { return run.pending() == 0; }, 20);
  std::this_thread::sleep_for(std::chrono::seconds(3));  // idle workers end
  const Sample baseline = sampleNow(run.pending());
  const long completedBefore = run.log->completions();
  std::printf("flood: %d host threads, %ld wakeup() calls in all\n", o.threads, o.calls);
  std::printf("  at rest before:   %s\n", describe(baseline).c_str());

  Sampler sampler([&] { return run.pending(); }, std::chrono::milliseconds(o.sampleMs));
  std::atomic<long> next{0};
  const auto start = SteadyClock::now();
  std::vector<std::thread> hosts;
  for (int t = 0; t < o.threads; ++t) {
    hosts.emplace_back([&] {
      while (next.fetch_add(1) < o.calls) run.manager->wakeup();
    });
  }
  for (auto& host : hosts) host.join();
  const double callSeconds = std::chrono::duration<double>(SteadyClock::now() - start).count();
  const Sample afterCalls = sampleNow(run.pending());
  std::printf("  calls done:       %s  (%.2f s, %.0f calls/s)\n", describe(afterCalls).c_str(),
              callSeconds, static_cast<double>(o.calls) / callSeconds);
  std::printf("    threads: %s\n", threadNames().c_str());

  const bool drained = waitUntil([&] { return run.pending() == 0; }, o.drainSeconds);
  const double drainSeconds =
      std::chrono::duration<double>(SteadyClock::now() - start).count() - callSeconds;
  const Sample peak = sampler.peak();
  std::this_thread::sleep_for(std::chrono::seconds(3));  // idle workers end
  const Sample final = sampleNow(run.pending());
  const long completed = run.log->completions() - completedBefore;
  std::printf("  backlog %s after %.2f s more\n", drained ? "drained" : "NOT drained",
              drainSeconds);
  std::printf("  peak:             %s\n", describe(peak).c_str());
  std::printf("  final (at rest):  %s\n", describe(final).c_str());
  std::printf("  exchanges completed %ld (%ld answered, %ld failed), %ld activities dropped\n",
              completed, run.log->answered.load(), run.log->failed.load(), run.log->dropped.load());
  if (completed > 0) {
    std::printf("  sent at %.0f exchanges/s over the whole run\n",
                static_cast<double>(completed) / (callSeconds + drainSeconds));
  }
  if (peak.pending > 0) {
    std::printf("  memory per pending activity at the peak: %.1f KB\n",
                (peak.rssMb - baseline.rssMb) * 1024.0 / static_cast<double>(peak.pending));
  }
  printErrors(*run.log);
  return drained ? 0 : 1;
}

// ---------------------------------------------------------- exchanges ---

int exchanges(const Options& o, Run& run) {
  const std::string appId = "soak-exchanges";
  std::printf("exchanges: %ld sequential (new session, wake-up, renewal in turn)\n", o.exchanges);
  Sampler sampler([&] { return run.pending(); }, std::chrono::milliseconds(o.sampleMs));
  const long checkpoint = std::max(1L, o.exchanges / 10);
  const long baselineAt = std::min(100L, o.exchanges);
  std::optional<Sample> baseline;
  long stalled = 0;
  const auto start = SteadyClock::now();
  for (long i = 0; i < o.exchanges; ++i) {
    const long before = run.log->completions();
    switch (i % 3) {
      case 0:
        run.manager->startWith(appId);
        break;
      case 1:
        run.manager->wakeup();
        break;
      default:
        // The activity the renewal timer sends when the token nears expiry.
        qs::QSManagerInternals::managerHelper(*run.manager).sendAppIdleActivity();
        break;
    }
    // Done when it (and any challenge answer it led to) has completed.
    if (!waitUntil([&] { return run.log->completions() > before && run.pending() == 0; }, 20)) {
      ++stalled;
    }
    if (i + 1 == baselineAt) {
      std::this_thread::sleep_for(std::chrono::seconds(3));  // idle workers end
      baseline = sampleNow(run.pending());
      std::printf("  at rest after %ld: %s\n", baselineAt, describe(*baseline).c_str());
    }
    if ((i + 1) % checkpoint == 0 || i + 1 == o.exchanges) {
      const Sample s = sampleNow(run.pending());
      std::printf("  after %7ld: %s\n", i + 1, describe(s).c_str());
      std::fflush(stdout);
    }
  }
  const double seconds = std::chrono::duration<double>(SteadyClock::now() - start).count();
  std::this_thread::sleep_for(std::chrono::seconds(3));  // idle workers end
  if (o.check) {
    // On a loaded machine a worker may end late: give it a bounded while
    // before calling its thread (or a closing descriptor) growth.
    waitUntil(
        [&] {
          const Sample s = sampleNow(0);
          return s.threads <= baseline->threads && s.fds <= baseline->fds + 1;
        },
        10);
  }
  const Sample final = sampleNow(run.pending());
  const Sample peak = sampler.peak();
  std::printf("  peak:             %s\n", describe(peak).c_str());
  std::printf("  final (at rest):  %s\n", describe(final).c_str());
  const long fdGrowth = final.fds - baseline->fds;
  const long threadGrowth = final.threads - baseline->threads;
  std::printf("  growth at rest after the first %ld: %+.1f MB, %+ld descriptors, %+ld threads\n",
              baselineAt, final.rssMb - baseline->rssMb, fdGrowth, threadGrowth);
  std::printf("  %.1f s, %ld answered, %ld failed, %ld did not complete within 20 s\n", seconds,
              run.log->answered.load(), run.log->failed.load(), stalled);
  printErrors(*run.log);
  // One descriptor of slack: the kept-alive connection to the collector may
  // be open at one of the two samples and already closed at the other.
  if (o.check && (fdGrowth > 1 || threadGrowth > 0)) {
    std::fprintf(stderr, "qs-soak: descriptors or threads grew over the run\n");
    return 1;
  }
  return stalled == 0 ? 0 : 1;
}

// ---------------------------------------------------------------- main ---

bool parse(int argc, char** argv, Options& o) {
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    const char* value = i + 1 < argc ? argv[i + 1] : nullptr;
    auto number = [&](auto& out) {
      if (value == nullptr) return false;
      ++i;
      out = static_cast<std::decay_t<decltype(out)>>(std::atof(value));
      return true;
    };
    auto text = [&](std::string& out) {
      if (value == nullptr) return false;
      ++i;
      out = value;
      return true;
    };
    bool ok = true;
    if (arg == "--flood") {
      o.flood = true;
    } else if (arg == "--exchanges") {
      ok = number(o.exchanges) && o.exchanges > 0;
    } else if (arg == "--threads") {
      ok = number(o.threads) && o.threads > 0;
    } else if (arg == "--calls") {
      ok = number(o.calls) && o.calls > 0;
    } else if (arg == "--drain") {
      ok = number(o.drainSeconds);
    } else if (arg == "--sample-ms") {
      ok = number(o.sampleMs) && o.sampleMs > 0;
    } else if (arg == "--check") {
      o.check = true;
    } else if (arg == "--token-ttl") {
      ok = number(o.tokenTtl) && o.tokenTtl > 0;
    } else if (arg == "--no-challenge") {
      o.challenge = false;
    } else if (arg == "--sandbox") {
      ok = text(o.sandbox);
    } else if (arg == "--ca") {
      ok = text(o.ca);
    } else {
      ok = false;
    }
    if (!ok) return false;
  }
  return o.flood != (o.exchanges > 0) && !o.sandbox.empty();
}

}  // namespace

int main(int argc, char** argv) {
  Options o;
  if (!parse(argc, argv, o)) {
    std::fprintf(stderr,
                 "usage: qs-soak --flood [--threads N] [--calls N] [--drain SECONDS]\n"
                 "       qs-soak --exchanges N [--check]\n"
                 "       common: [--sandbox PATH] [--ca PEM] [--no-challenge] [--sample-ms MS]\n"
                 "               [--token-ttl SECONDS]\n");
    return 2;
  }
  char dirTemplate[] = "/tmp/qs-soak-XXXXXX";
  if (mkdtemp(dirTemplate) == nullptr) return 1;
  const std::string dir = dirTemplate;
  int rc = 1;
  {
    Sandbox sandbox;
    if (!sandbox.start(o, dir + "/events.jsonl")) {
      std::fprintf(stderr, "qs-soak: cannot start %s\n", o.sandbox.c_str());
    } else {
      std::printf("qs-soak: sandbox on port %d, %u hardware threads, descriptor limit %ld\n",
                  sandbox.port(), std::thread::hardware_concurrency(), sysconf(_SC_OPEN_MAX));
      std::printf("  at start:         %s\n", describe(sampleNow(0)).c_str());
      auto run = startLibrary(sandbox, o, dir);
      rc = o.flood ? flood(o, *run) : exchanges(o, *run);
      std::fflush(stdout);
      // The manager's threads go with the process; a backlog that did not
      // drain must not hold up the exit.
      sandbox.stop();
      std::error_code ignored;
      std::filesystem::remove_all(dir, ignored);
      std::_Exit(rc);
    }
  }
  std::error_code ignored;
  std::filesystem::remove_all(dir, ignored);
  return rc;
}
