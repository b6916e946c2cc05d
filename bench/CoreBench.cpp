// The two paths a host pays for most often: the headers it attaches to every
// one of its own requests, and the encoding of an activity into the form body
// posted to the collector. The header benchmark runs on the in-memory fake
// store (argument 0) and on a real SQLite file (argument 1); its counters
// "store_reads" and "unarchives" (per call) show that a stored cookie that did
// not change is served without touching the store or the archive.
#include <benchmark/benchmark.h>

#include <unistd.h>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>

#include "FakePlatform.h"
#include "activity/AppActivity.h"
#include "collector/CollectorRequest.h"
#include "collector/QSStorage.h"
#include "manager/QSManagerHelper.h"
#include "manager/QSManagerInternals.h"
#include "quarrystone/LinuxPlatform.h"
#include "quarrystone/QSManager.h"

namespace {

constexpr double kNow = 1'700'000'000.0;
// About the size of a token the collector bakes.
const std::string kToken =
    "eyJhcHBJZCI6ImJlbmNoIiwidmlkIjoiMGYxZTJkM2MtNGI1YS00Njk3LTg4NzctNjY1NTQ0MzMyMjExIiwiZXhwIjox"
    "NzAwMDAwNjAwfQ.9c1f0e6b2a4d8e7f3a5b6c7d8e9f0a1b2c3d4e5f60718293a4b5c6d7e8f90a1b";

// Counts reads that reach the store underneath; everything else passes through.
class CountingStore final : public qs::KeyValueStore {
 public:
  explicit CountingStore(std::shared_ptr<qs::KeyValueStore> inner) : inner_(std::move(inner)) {}
  std::optional<qs::Value> objectForKey(const std::string& key) override {
    reads.fetch_add(1, std::memory_order_relaxed);
    return inner_->objectForKey(key);
  }
  void setObject(const std::string& key, std::optional<qs::Value> value) override {
    inner_->setObject(key, std::move(value));
  }
  void registerDefaults(const qs::Value& defaults) override { inner_->registerDefaults(defaults); }
  bool synchronize() override { return inner_->synchronize(); }
  std::uint64_t changeCount() const override { return inner_->changeCount(); }

  std::atomic<std::uint64_t> reads{0};

 private:
  const std::shared_ptr<qs::KeyValueStore> inner_;
};

class CountingArchiver final : public qs::KeyedArchiver {
 public:
  explicit CountingArchiver(std::shared_ptr<qs::KeyedArchiver> inner) : inner_(std::move(inner)) {}
  qs::Bytes archive(const qs::Value& root) override { return inner_->archive(root); }
  std::optional<qs::Value> unarchive(const qs::Bytes& bytes) override {
    unarchives.fetch_add(1, std::memory_order_relaxed);
    return inner_->unarchive(bytes);
  }

  std::atomic<std::uint64_t> unarchives{0};

 private:
  const std::shared_ptr<qs::KeyedArchiver> inner_;
};

// A manager on the fake platform, optionally over a SQLite file that is
// removed again when the setup goes away.
struct ManagerSetup {
  explicit ManagerSetup(bool sqlite) {
    fake.clock->set(kNow);
    qs::Platform platform = fake.platform();
    std::shared_ptr<qs::KeyValueStore> inner = platform.store;
    if (sqlite) {
      char dir[] = "/tmp/qs-bench-XXXXXX";
      if (mkdtemp(dir) != nullptr) {
        directory = dir;
        inner = qs::openSqliteStore(directory + "/defaults.sqlite", platform.log);
      }
    }
    store = std::make_shared<CountingStore>(inner);
    archiver = std::make_shared<CountingArchiver>(platform.archiver);
    platform.store = store;
    platform.archiver = archiver;
    manager = qs::QSManager::create(platform, qs::DeploymentSettings{});
  }
  ~ManagerSetup() {
    manager.reset();
    if (!directory.empty()) {
      std::error_code ignored;
      std::filesystem::remove_all(directory, ignored);
    }
  }

  qs::fake::FakePlatform fake;
  std::string directory;
  std::shared_ptr<CountingStore> store;
  std::shared_ptr<CountingArchiver> archiver;
  std::shared_ptr<qs::QSManager> manager;
};

void BM_HttpHeaders(benchmark::State& state) {
  ManagerSetup setup(state.range(0) == 1);
  if (state.range(0) == 1 && setup.directory.empty()) {
    state.SkipWithError("no temporary directory for the SQLite store");
    return;
  }
  state.SetLabel(state.range(0) == 1 ? "sqlite" : "fake store");
  qs::QSManagerInternals::storage(*setup.manager)
      ->saveCookie(qs::QSCookie("_qs3", kToken, kNow + 480));
  setup.manager->httpHeaders();  // the first read after the save may decode
  const std::uint64_t reads = setup.store->reads.load();
  const std::uint64_t unarchives = setup.archiver->unarchives.load();

  for (auto _ : state) {
    qs::HeaderMap headers = setup.manager->httpHeaders();
    benchmark::DoNotOptimize(headers);
  }

  const auto perCall = [&](std::uint64_t count) {
    return benchmark::Counter(static_cast<double>(count), benchmark::Counter::kAvgIterations);
  };
  state.counters["store_reads"] = perCall(setup.store->reads.load() - reads);
  state.counters["unarchives"] = perCall(setup.archiver->unarchives.load() - unarchives);
  if (setup.manager->httpHeaders().at("X-QS-AUTHORIZATION") != "3:" + kToken) {
    state.SkipWithError("the stored cookie was not used");
  }
}
BENCHMARK(BM_HttpHeaders)->Arg(0)->Arg(1);

// An app-init activity as the library builds it at the start of a session,
// with the sid and vid of an earlier answer stored.
struct ActivitySetup {
  ActivitySetup() : setup(false) {
    auto& storage = *qs::QSManagerInternals::storage(*setup.manager);
    storage.saveSid("a1b2c3d4-e5f6-4711-8899-aabbccddeeff");
    storage.saveVid("0f1e2d3c-4b5a-4697-8877-665544332211");
    qs::AppActivity builder(qs::QSManagerInternals::platform(*setup.manager), storage,
                            *qs::QSManagerInternals::utils(*setup.manager),
                            *qs::QSManagerInternals::uuid(*setup.manager));
    activity = builder.collectActivityData(qs::QSAppStateNewSession);
  }
  qs::CollectorRequest& request() {
    return qs::QSManagerInternals::managerHelper(*setup.manager).collectorRequest();
  }

  ManagerSetup setup;
  qs::Value activity;
  const std::string appId = "bench-app";
};

void BM_ActivityToFormBody(benchmark::State& state) {
  ActivitySetup s;
  std::size_t bytes = 0;
  for (auto _ : state) {
    const std::string payload = qs::CollectorRequest::payloadValueToBase64(s.activity, s.appId);
    const std::string form =
        qs::CollectorRequest::toFormSubmitPostString(s.request().prepareBodyWith(payload, s.appId));
    bytes = form.size();
    benchmark::DoNotOptimize(form.data());
  }
  state.counters["form_bytes"] = static_cast<double>(bytes);
}
BENCHMARK(BM_ActivityToFormBody);

// The same path in its three steps, to see where the time goes.
void BM_ActivityPayload(benchmark::State& state) {
  ActivitySetup s;
  for (auto _ : state) {
    std::string payload = qs::CollectorRequest::payloadValueToBase64(s.activity, s.appId);
    benchmark::DoNotOptimize(payload.data());
  }
}
BENCHMARK(BM_ActivityPayload);

void BM_PrepareBody(benchmark::State& state) {
  ActivitySetup s;
  const std::string payload = qs::CollectorRequest::payloadValueToBase64(s.activity, s.appId);
  for (auto _ : state) {
    qs::Value body = s.request().prepareBodyWith(payload, s.appId);
    benchmark::DoNotOptimize(body);
  }
}
BENCHMARK(BM_PrepareBody);

void BM_FormString(benchmark::State& state) {
  ActivitySetup s;
  const qs::Value body = s.request().prepareBodyWith(
      qs::CollectorRequest::payloadValueToBase64(s.activity, s.appId), s.appId);
  for (auto _ : state) {
    std::string form = qs::CollectorRequest::toFormSubmitPostString(body);
    benchmark::DoNotOptimize(form.data());
  }
}
BENCHMARK(BM_FormString);

// Building the activity itself, for comparison (not part of the encoding path).
void BM_CollectActivity(benchmark::State& state) {
  ActivitySetup s;
  auto& m = *s.setup.manager;
  qs::AppActivity builder(qs::QSManagerInternals::platform(m), *qs::QSManagerInternals::storage(m),
                          *qs::QSManagerInternals::utils(m), *qs::QSManagerInternals::uuid(m));
  for (auto _ : state) {
    qs::Value activity = builder.collectActivityData(qs::QSAppStateIdle);
    benchmark::DoNotOptimize(activity);
  }
}
BENCHMARK(BM_CollectActivity);

}  // namespace
