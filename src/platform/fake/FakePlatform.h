#pragma once

#include <condition_variable>
#include <cstddef>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "FakeHttpClient.h"
#include "FakeMainLoop.h"
#include "quarrystone/platform/Platform.h"

namespace qs::fake {

// Captures log lines. Thread-safe.
class FakeLog final : public Log {
 public:
  using Log::write;
  void write(LogLevel level, std::string_view line) override;
  std::vector<std::string> lines() const;
  // Number of lines that contain `text`.
  std::size_t count(std::string_view text) const;
  bool contains(std::string_view text) const { return count(text) > 0; }
  // The level of the first line that contains `text`, if any.
  std::optional<LogLevel> levelOf(std::string_view text) const;
  void clear();

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;  // guarded by mutex_
  std::vector<LogLevel> levels_;    // one per line; guarded by mutex_
};

// An in-memory store with the registration layer. Thread-safe.
class FakeKeyValueStore final : public KeyValueStore {
 public:
  std::optional<Value> objectForKey(const std::string& key) override;
  void setObject(const std::string& key, std::optional<Value> value) override;
  void registerDefaults(const Value& defaults) override;
  bool synchronize() override;
  std::uint64_t changeCount() const override;
  std::size_t synchronizeCount() const;
  bool hasPersisted(const std::string& key) const;

 private:
  mutable std::mutex mutex_;
  std::map<std::string, Value> persisted_;  // guarded by mutex_
  std::map<std::string, Value> defaults_;   // guarded by mutex_
  std::uint64_t changes_ = 0;               // guarded by mutex_
  std::size_t syncs_ = 0;                   // guarded by mutex_
};

// Reachability with flags the test sets. setFlags() calls the callbacks of
// scheduled targets on the calling thread; a target that is unscheduled or
// destroyed is not called again, and unscheduling waits for a call of it
// running on another thread. Thread-safe.
class FakeReachability final : public Reachability {
 public:
  std::unique_ptr<ReachabilityTarget> targetForHostName(const std::string& host) override;
  std::unique_ptr<ReachabilityTarget> targetForAddress(const std::string& address) override;

  void setFlags(std::uint32_t flags);
  void setFlagsReadable(bool readable);
  void setCanCreateTargets(bool can);
  void setCanSetCallback(bool can);
  std::size_t scheduledTargetCount() const;

 private:
  class Target;
  friend class Target;
  struct Delivery;
  std::unique_ptr<ReachabilityTarget> make();
  void deliver(const std::shared_ptr<Delivery>& delivery, std::uint32_t flags);

  mutable std::mutex mutex_;
  std::condition_variable callbackReturned_;
  std::uint32_t flags_ = 0x2;  // reachable
  bool readable_ = true;
  bool canCreate_ = true;
  bool canSetCallback_ = true;
  std::vector<std::shared_ptr<Delivery>> scheduled_;  // guarded by mutex_
};

// Device facts with settable values. Unique strings and UUIDs count up, so
// tests can predict them. Not for concurrent mutation while in use.
class FakeDeviceInfo final : public DeviceInfo {
 public:
  std::string machine() override { return machineValue; }
  std::string systemName() override { return systemNameValue; }
  std::string systemVersion() override { return systemVersionValue; }
  std::string deviceName() override { return deviceNameValue; }
  std::optional<ScreenInfo> mainScreen() override { return screen; }
  std::optional<CarrierInfo> subscriberCarrier() override { return carrier; }
  std::vector<std::string> preferredLanguages() override { return languages; }
  BundleInfo bundle() override { return bundleValue; }
  std::string globallyUniqueString() override;
  std::string newUUID() override;

  std::string machineValue = "x86_64";
  std::string systemNameValue = "Linux";
  std::string systemVersionValue = "6.1";
  std::string deviceNameValue = "test-device";
  std::optional<ScreenInfo> screen = ScreenInfo{375, 667, 2};
  std::optional<CarrierInfo> carrier;
  std::vector<std::string> languages{"en-US"};
  BundleInfo bundleValue{"1.0", "TestApp", "com.example.test", {"en"}};
  // When set, globallyUniqueString() returns this instead of counting.
  std::optional<std::string> uniqueStringValue;

 private:
  std::mutex mutex_;
  std::uint64_t counter_ = 0;  // guarded by mutex_
};

// Runs each task at once on the posting thread (the default), or holds tasks
// until runAll() when `deferred` is set.
class FakeWorkerPool final : public WorkerPool {
 public:
  void post(std::function<void()> task) override;
  void setDeferred(bool deferred);
  std::size_t runAll();

 private:
  std::mutex mutex_;
  bool deferred_ = false;                    // guarded by mutex_
  std::vector<std::function<void()>> held_;  // guarded by mutex_
};

// The whole deterministic platform. `platform()` hands the services out;
// the typed members let tests script them. The notification registry,
// archiver, crypto and text are the real portable ones: they are deterministic.
struct FakePlatform {
  FakePlatform();

  Platform platform() const;

  std::shared_ptr<FakeLog> log;
  std::shared_ptr<FakeClock> clock;
  std::shared_ptr<FakeMainLoop> mainLoop;
  std::shared_ptr<NotificationCenter> notifications;
  std::shared_ptr<FakeReachability> reachability;
  std::shared_ptr<FakeHttpClient> http;
  std::shared_ptr<FakeWorkerPool> workers;
  std::shared_ptr<FakeKeyValueStore> store;
  std::shared_ptr<KeyedArchiver> archiver;
  std::shared_ptr<FakeDeviceInfo> device;
  std::shared_ptr<Crypto> crypto;
  std::shared_ptr<Text> text;
  std::shared_ptr<UI> ui;  // null unless a test installs one
};

}  // namespace qs::fake
