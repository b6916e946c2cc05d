// The log a platform writes to stderr, the level filter in front of it, and
// the names of the levels.
#include <cstdio>
#include <mutex>
#include <utility>

#include "quarrystone/PortableServices.h"

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

}  // namespace qs
