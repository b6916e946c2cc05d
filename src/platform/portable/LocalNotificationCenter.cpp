#include <map>
#include <mutex>
#include <vector>

#include "quarrystone/PortableServices.h"

namespace qs {

namespace {

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

}  // namespace

std::shared_ptr<NotificationCenter> makeLocalNotificationCenter() {
  return std::make_shared<LocalNotificationCenter>();
}

}  // namespace qs
