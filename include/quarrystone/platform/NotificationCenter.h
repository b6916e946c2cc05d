#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "quarrystone/Export.h"

namespace qs {

// The application is about to return to the foreground. Posted by the host
// (or its toolkit adapter) on the main thread.
inline constexpr const char* kApplicationWillEnterForegroundNotification =
    "UIApplicationWillEnterForegroundNotification";

struct Notification {
  std::string name;
  const void* object = nullptr;  // weak; identity of the poster, may be null
};

// A process-wide name -> observers registry. Observers are called
// synchronously on the posting thread. Thread-safe.
class QS_EXPORT NotificationCenter {
 public:
  using Observer = std::function<void(const Notification&)>;
  using Token = std::uint64_t;

  virtual ~NotificationCenter() = default;
  virtual Token addObserver(const std::string& name, Observer observer) = 0;
  virtual void removeObserver(Token token) = 0;
  virtual void post(const std::string& name, const void* object) = 0;
};

}  // namespace qs
