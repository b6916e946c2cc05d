#include "network/QSNetworkOperation.h"

#include <algorithm>
#include <cctype>

namespace qs {

namespace {

bool sameHeaderName(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return std::tolower(static_cast<unsigned char>(x)) ==
                  std::tolower(static_cast<unsigned char>(y));
         });
}

}  // namespace

void QSNetworkOperation::setFinished(bool finished) {
  setFlag(isFinished_, finished, "isFinished");
}

bool QSNetworkOperation::isFinished() const { return isFinished_.load() || isCancelled(); }

void QSNetworkOperation::cancel() {
  cancelled_.store(true);
  std::lock_guard lock(flagMutex_);
  if (isExecuting()) {
    setExecuting(false);
    setFinished(true);
  }
}

void QSNetworkOperation::setExecuting(bool executing) {
  setFlag(isExecuting_, executing, "isExecuting");
}

bool QSNetworkOperation::isExecuting() const { return isExecuting_.load(); }

void QSNetworkOperation::start() {
  if (isCancelled()) return;
  setFinished(false);
  setExecuting(true);
  main();
}

void QSNetworkOperation::addObserver(KeyObserver observer) {
  std::lock_guard lock(observersMutex_);
  observers_.push_back(std::move(observer));
}

void QSNetworkOperation::setFlag(std::atomic<bool>& flag, bool value, std::string_view key) {
  // An observer may drop the last owner (the queue releases a finished
  // operation from its did-change announcement); stay alive until done.
  auto keepAlive = weak_from_this().lock();
  std::lock_guard lock(flagMutex_);
  if (flag.load() == value) return;
  announce(key, true);
  flag.store(value);
  announce(key, false);
}

void QSNetworkOperation::announce(std::string_view key, bool prior) {
  std::vector<KeyObserver> observers;
  {
    std::lock_guard lock(observersMutex_);
    observers = observers_;
  }
  for (const auto& observer : observers) observer(key, prior);
}

QSNetworkOperation::HeaderList QSNetworkOperation::sessionHeaders(
    const std::string& userAgent, const std::optional<HeaderMap>& extra) {
  HeaderList headers{{"User-Agent", userAgent}};
  if (extra) {
    for (const auto& [name, value] : *extra) setRequestHeader(headers, name, value);
  }
  return headers;
}

void QSNetworkOperation::setRequestHeader(HeaderList& headers, const std::string& name,
                                          std::string value) {
  auto same = [&](const auto& entry) { return sameHeaderName(entry.first, name); };
  auto it = std::find_if(headers.begin(), headers.end(), same);
  if (it == headers.end()) {
    headers.emplace_back(name, std::move(value));
    return;
  }
  // Keep the first position, drop any later duplicates.
  *it = {name, std::move(value)};
  headers.erase(std::remove_if(std::next(it), headers.end(), same), headers.end());
}

void QSNetworkOperation::markCompleted() {
  setExecuting(false);
  setFinished(true);
}

}  // namespace qs
