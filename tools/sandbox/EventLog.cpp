#include "EventLog.h"

#include <cerrno>
#include <cstring>

#include "SandboxCodec.h"

namespace qs::sandbox {

Parsed<std::unique_ptr<EventLog>> EventLog::open(const std::string& path) {
  using Result = Parsed<std::unique_ptr<EventLog>>;
  if (path == "-") return Result::ok(std::unique_ptr<EventLog>(new EventLog(stdout, false)));
  std::FILE* file = std::fopen(path.c_str(), "a");
  if (file == nullptr) return Result::fail(path + ": " + std::strerror(errno));
  return Result::ok(std::unique_ptr<EventLog>(new EventLog(file, true)));
}

EventLog::~EventLog() {
  if (owned_) std::fclose(file_);
}

void EventLog::write(const Value& event) {
  const std::string line = SandboxCodec::dumpJson(event) + "\n";
  std::lock_guard lock(mutex_);
  std::fwrite(line.data(), 1, line.size(), file_);
  std::fflush(file_);
}

}  // namespace qs::sandbox
