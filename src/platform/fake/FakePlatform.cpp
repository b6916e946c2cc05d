#include "FakePlatform.h"

#include <algorithm>
#include <thread>

#include <fmt/format.h>

#include "quarrystone/PortableServices.h"

namespace qs::fake {

void FakeLog::write(LogLevel level, std::string_view line) {
  std::lock_guard lock(mutex_);
  lines_.emplace_back(line);
  levels_.push_back(level);
}

std::vector<std::string> FakeLog::lines() const {
  std::lock_guard lock(mutex_);
  return lines_;
}

std::size_t FakeLog::count(std::string_view text) const {
  std::lock_guard lock(mutex_);
  return static_cast<std::size_t>(std::count_if(lines_.begin(), lines_.end(), [&](const auto& l) {
    return l.find(text) != std::string::npos;
  }));
}

std::optional<LogLevel> FakeLog::levelOf(std::string_view text) const {
  std::lock_guard lock(mutex_);
  for (std::size_t i = 0; i < lines_.size(); ++i) {
    if (lines_[i].find(text) != std::string::npos) return levels_[i];
  }
  return std::nullopt;
}

void FakeLog::clear() {
  std::lock_guard lock(mutex_);
  lines_.clear();
  levels_.clear();
}

std::optional<Value> FakeKeyValueStore::objectForKey(const std::string& key) {
  std::lock_guard lock(mutex_);
  if (auto it = persisted_.find(key); it != persisted_.end()) return it->second;
  if (auto it = defaults_.find(key); it != defaults_.end()) return it->second;
  return std::nullopt;
}

void FakeKeyValueStore::setObject(const std::string& key, std::optional<Value> value) {
  std::lock_guard lock(mutex_);
  if (value) {
    persisted_[key] = std::move(*value);
  } else {
    persisted_.erase(key);
  }
  ++changes_;
}

void FakeKeyValueStore::registerDefaults(const Value& defaults) {
  if (!defaults.is_object()) return;
  std::lock_guard lock(mutex_);
  for (const auto& [key, value] : defaults.items()) defaults_[key] = value;
  ++changes_;
}

bool FakeKeyValueStore::synchronize() {
  std::lock_guard lock(mutex_);
  ++syncs_;
  return true;
}

std::uint64_t FakeKeyValueStore::changeCount() const {
  std::lock_guard lock(mutex_);
  return changes_;
}

std::size_t FakeKeyValueStore::synchronizeCount() const {
  std::lock_guard lock(mutex_);
  return syncs_;
}

bool FakeKeyValueStore::hasPersisted(const std::string& key) const {
  std::lock_guard lock(mutex_);
  return persisted_.count(key) != 0;
}

// One target's callback and whether it may still be called; shared with the
// calls in progress, so the target itself can go while they finish.
struct FakeReachability::Delivery {
  std::function<void(std::uint32_t)> callback;  // guarded by the owner's mutex_
  bool scheduled = false;                       // guarded by the owner's mutex_
  std::vector<std::thread::id> running;         // guarded: threads inside the callback
};

class FakeReachability::Target final : public ReachabilityTarget {
 public:
  explicit Target(FakeReachability& owner) : owner_(owner) {}
  ~Target() override { unschedule(); }

  std::optional<std::uint32_t> flags() override {
    std::lock_guard lock(owner_.mutex_);
    if (!owner_.readable_) return std::nullopt;
    return owner_.flags_;
  }
  bool setCallback(std::function<void(std::uint32_t)> callback) override {
    std::lock_guard lock(owner_.mutex_);
    if (!owner_.canSetCallback_) return false;
    delivery_->callback = std::move(callback);
    return true;
  }
  bool schedule() override {
    std::lock_guard lock(owner_.mutex_);
    if (!delivery_->scheduled) {
      delivery_->scheduled = true;
      owner_.scheduled_.push_back(delivery_);
    }
    return true;
  }
  // Waits for calls running on other threads; a call on this thread (the
  // callback stopping its own target) finishes after this returns.
  void unschedule() override {
    std::unique_lock lock(owner_.mutex_);
    delivery_->scheduled = false;
    std::erase(owner_.scheduled_, delivery_);
    const auto self = std::this_thread::get_id();
    owner_.callbackReturned_.wait(lock, [&] {
      return std::all_of(delivery_->running.begin(), delivery_->running.end(),
                         [self](std::thread::id id) { return id == self; });
    });
  }

 private:
  FakeReachability& owner_;  // weak: the platform outlives its targets
  const std::shared_ptr<Delivery> delivery_ = std::make_shared<Delivery>();
};

std::unique_ptr<ReachabilityTarget> FakeReachability::make() {
  std::lock_guard lock(mutex_);
  if (!canCreate_) return nullptr;
  return std::make_unique<Target>(*this);
}

std::unique_ptr<ReachabilityTarget> FakeReachability::targetForHostName(const std::string&) {
  return make();
}

std::unique_ptr<ReachabilityTarget> FakeReachability::targetForAddress(const std::string&) {
  return make();
}

void FakeReachability::setFlags(std::uint32_t flags) {
  std::vector<std::shared_ptr<Delivery>> deliveries;
  {
    std::lock_guard lock(mutex_);
    flags_ = flags;
    deliveries = scheduled_;
  }
  for (const auto& delivery : deliveries) deliver(delivery, flags);
}

// An earlier callback of this change may have unscheduled the target: it is
// checked again right before its own call.
void FakeReachability::deliver(const std::shared_ptr<Delivery>& delivery, std::uint32_t flags) {
  const auto self = std::this_thread::get_id();
  std::function<void(std::uint32_t)> callback;
  {
    std::lock_guard lock(mutex_);
    if (!delivery->scheduled || !delivery->callback) return;
    callback = delivery->callback;
    delivery->running.push_back(self);
  }
  callback(flags);
  {
    std::lock_guard lock(mutex_);
    delivery->running.erase(std::find(delivery->running.begin(), delivery->running.end(), self));
  }
  callbackReturned_.notify_all();
}

void FakeReachability::setFlagsReadable(bool readable) {
  std::lock_guard lock(mutex_);
  readable_ = readable;
}

void FakeReachability::setCanCreateTargets(bool can) {
  std::lock_guard lock(mutex_);
  canCreate_ = can;
}

void FakeReachability::setCanSetCallback(bool can) {
  std::lock_guard lock(mutex_);
  canSetCallback_ = can;
}

std::size_t FakeReachability::scheduledTargetCount() const {
  std::lock_guard lock(mutex_);
  return scheduled_.size();
}

std::string FakeDeviceInfo::globallyUniqueString() {
  if (uniqueStringValue) return *uniqueStringValue;
  std::lock_guard lock(mutex_);
  std::uint64_t n = ++counter_;
  return fmt::format("ABCDEF{:02X}-0000-4000-8000-{:012X}", n & 0xFF, n);
}

std::string FakeDeviceInfo::newUUID() {
  std::lock_guard lock(mutex_);
  return fmt::format("E621E1F8-C36C-495A-93FC-{:012X}", ++counter_);
}

void FakeWorkerPool::post(std::function<void()> task) {
  {
    std::lock_guard lock(mutex_);
    if (deferred_) {
      held_.push_back(std::move(task));
      return;
    }
  }
  task();
}

void FakeWorkerPool::setDeferred(bool deferred) {
  std::lock_guard lock(mutex_);
  deferred_ = deferred;
}

std::size_t FakeWorkerPool::runAll() {
  std::size_t ran = 0;
  for (;;) {
    std::function<void()> task;
    {
      std::lock_guard lock(mutex_);
      if (held_.empty()) return ran;
      task = std::move(held_.front());
      held_.erase(held_.begin());
    }
    task();
    ++ran;
  }
}

FakePlatform::FakePlatform()
    : log(std::make_shared<FakeLog>()),
      clock(std::make_shared<FakeClock>()),
      mainLoop(std::make_shared<FakeMainLoop>(clock)),
      notifications(makeLocalNotificationCenter()),
      reachability(std::make_shared<FakeReachability>()),
      http(std::make_shared<FakeHttpClient>()),
      workers(std::make_shared<FakeWorkerPool>()),
      store(std::make_shared<FakeKeyValueStore>()),
      archiver(makeCborArchiver()),
      device(std::make_shared<FakeDeviceInfo>()),
      crypto(makeOpenSslCrypto()),
      text(makeUtf8procText()) {}

Platform FakePlatform::platform() const {
  return Platform{log,   clock,    mainLoop, notifications, reachability, http, workers,
                  store, archiver, device,   crypto,        text,         ui};
}

}  // namespace qs::fake
