#pragma once

#include <cstdio>
#include <memory>
#include <mutex>
#include <string>

#include "Parsed.h"
#include "quarrystone/Value.h"

namespace qs::sandbox {

// Appends events as JSON lines ({"ts":..., "event":..., ...}) to a file that
// tests and people read while the sandbox runs; each line is flushed at once.
// Thread-safe: lines from concurrent requests never interleave.
class EventLog {
 public:
  // path "-" writes to stdout. Caller-owned result, or why the file would
  // not open.
  static Parsed<std::unique_ptr<EventLog>> open(const std::string& path);
  ~EventLog();
  EventLog(const EventLog&) = delete;
  EventLog& operator=(const EventLog&) = delete;

  void write(const Value& event);

 private:
  EventLog(std::FILE* file, bool owned) : file_(file), owned_(owned) {}

  std::mutex mutex_;
  std::FILE* const file_;  // guarded by mutex_
  const bool owned_;
};

}  // namespace qs::sandbox
