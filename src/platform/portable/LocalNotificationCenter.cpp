// The small adapters that need no outside library beyond the standard one
// and nlohmann-json: stderr log, system clock, notification registry and the
// CBOR keyed archiver.
#include <chrono>
#include <cstdio>
#include <map>
#include <mutex>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "quarrystone/LinuxPlatform.h"

namespace qs {

namespace {

class StderrLog final : public Log {
 public:
  using Log::write;
  void write(LogLevel, std::string_view line) override {
    std::lock_guard lock(mutex_);
    std::fprintf(stderr, "Quarrystone: %.*s\n", static_cast<int>(line.size()), line.data());
  }

 private:
  std::mutex mutex_;
};

// Passes on the lines at or above a level. The level is fixed at creation,
// so the filter needs no lock of its own.
class FilteredLog final : public Log {
 public:
  FilteredLog(std::shared_ptr<Log> sink, LogLevel minimum)
      : sink_(std::move(sink)), minimum_(minimum) {}
  using Log::write;
  void write(LogLevel level, std::string_view line) override {
    if (level >= minimum_) sink_->write(level, line);
  }

 private:
  const std::shared_ptr<Log> sink_;
  const LogLevel minimum_;
};

class SystemClock final : public Clock {
 public:
  double now() const override {
    using namespace std::chrono;
    return duration<double>(system_clock::now().time_since_epoch()).count();
  }
};

// Observers are copied out under the lock and called without it, so an
// observer may add or remove observers or post again.
class LocalNotificationCenter final : public NotificationCenter {
 public:
  Token addObserver(const std::string& name, Observer observer) override {
    std::lock_guard lock(mutex_);
    Token token = ++lastToken_;
    observers_.emplace(token, Entry{name, std::make_shared<Observer>(std::move(observer))});
    return token;
  }
  void removeObserver(Token token) override {
    std::lock_guard lock(mutex_);
    observers_.erase(token);
  }
  void post(const std::string& name, const void* object) override {
    std::vector<std::shared_ptr<Observer>> matching;
    {
      std::lock_guard lock(mutex_);
      for (const auto& [token, entry] : observers_) {
        if (entry.name == name) matching.push_back(entry.observer);
      }
    }
    Notification notification{name, object};
    for (const auto& observer : matching) (*observer)(notification);
  }

 private:
  struct Entry {
    std::string name;
    std::shared_ptr<Observer> observer;
  };
  std::mutex mutex_;
  Token lastToken_ = 0;               // guarded by mutex_
  std::map<Token, Entry> observers_;  // guarded by mutex_
};

// A record archives as a CBOR map of its coder keys inside a small envelope
// that names the format and its version, so other bytes are recognised.
class CborKeyedArchiver final : public KeyedArchiver {
 public:
  Bytes archive(const Value& root) override {
    Value envelope = Value::object();
    envelope["$archiver"] = "QSKeyedArchive";
    envelope["$version"] = 1;
    envelope["$root"] = root;
    return Value::to_cbor(envelope);
  }
  std::optional<Value> unarchive(const Bytes& bytes) override {
    Value envelope = Value::from_cbor(bytes, /*strict=*/true, /*allow_exceptions=*/false);
    if (envelope.is_discarded() || !envelope.is_object()) return std::nullopt;
    auto tag = envelope.find("$archiver");
    auto version = envelope.find("$version");
    auto root = envelope.find("$root");
    if (tag == envelope.end() || *tag != "QSKeyedArchive" || version == envelope.end() ||
        *version != 1 || root == envelope.end()) {
      return std::nullopt;
    }
    return *root;
  }
};

}  // namespace

const char* logLevelName(LogLevel level) {
  switch (level) {
    case LogLevel::Debug:
      return "debug";
    case LogLevel::Info:
      return "info";
    case LogLevel::Warning:
      return "warning";
    case LogLevel::Error:
      return "error";
  }
  return "unknown";
}

std::optional<LogLevel> logLevelFromName(std::string_view name) {
  for (LogLevel level : {LogLevel::Debug, LogLevel::Info, LogLevel::Warning, LogLevel::Error}) {
    if (name == logLevelName(level)) return level;
  }
  return std::nullopt;
}

std::shared_ptr<Log> makeStderrLog(LogLevel minimum) {
  return makeFilteredLog(std::make_shared<StderrLog>(), minimum);
}

std::shared_ptr<Log> makeFilteredLog(std::shared_ptr<Log> sink, LogLevel minimum) {
  if (!sink) return nullptr;
  if (minimum == LogLevel::Debug) return sink;
  return std::make_shared<FilteredLog>(std::move(sink), minimum);
}
std::shared_ptr<Clock> makeSystemClock() { return std::make_shared<SystemClock>(); }
std::shared_ptr<NotificationCenter> makeLocalNotificationCenter() {
  return std::make_shared<LocalNotificationCenter>();
}
std::shared_ptr<KeyedArchiver> makeCborArchiver() { return std::make_shared<CborKeyedArchiver>(); }

}  // namespace qs
