#pragma once

// Monitors created, started, stopped and destroyed on several threads while
// the platform reports network changes: no change may reach a monitor once
// it is gone. Run against the fake platform and against the GIO adapter.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "manager/QSReachability.h"
#include "quarrystone/Constants.h"

namespace qs::testing {

// `platform` supplies the reachability service and the notification center;
// `fire(reachable)` makes the platform report the route going up or down and
// returns once the platform has taken the change in. `threads` workers make
// `iterations` monitors each, every one living through two changes; changes
// are fired until the workers are done.
inline void stressReachabilityMonitors(const Platform& platform,
                                       const std::function<void(bool)>& fire, int threads,
                                       int iterations) {
  struct Record {
    std::atomic<bool> gone{false};
    std::atomic<int> calls{0};
  };
  std::mutex mutex;
  std::condition_variable called;
  std::map<const void*, Record*> live;  // guarded by mutex: started monitors by address
  std::atomic<int> late{0}, unknown{0};

  auto observer = platform.notifications->addObserver(
      kQSReachabilityChangedNotification, [&](const Notification& n) {
        Record* record = nullptr;
        {
          std::lock_guard lock(mutex);
          if (auto it = live.find(n.object); it != live.end()) record = it->second;
        }
        if (record == nullptr) {
          ++unknown;
          return;
        }
        // The monitor is valid while its change is delivered, however long
        // the observers take.
        static_cast<const QSReachability*>(n.object)->connectionRequired();
        std::this_thread::yield();
        if (record->gone.load()) ++late;
        {
          std::lock_guard lock(mutex);
          ++record->calls;
        }
        called.notify_all();
      });

  // One monitor stays for the whole run: changes keep flowing at the end.
  Record keeperRecord;
  auto keeper = QSReachability::reachabilityForInternetConnection(platform);
  ASSERT_NE(keeper, nullptr);
  {
    std::lock_guard lock(mutex);
    live[keeper.get()] = &keeperRecord;
  }
  ASSERT_TRUE(keeper->startNotifier());

  std::atomic<bool> done{false};
  std::atomic<int> fired{0};
  bool up = true;
  std::thread flipper([&] {
    while (!done.load()) {
      fire(up = !up);
      ++fired;
    }
  });
  std::vector<std::thread> workers;
  for (int t = 0; t < threads; ++t) {
    workers.emplace_back([&] {
      std::vector<std::unique_ptr<Record>> records;  // outlive every delivery
      for (int i = 0; i < iterations; ++i) {
        auto record = std::make_unique<Record>();
        auto monitor = QSReachability::reachabilityForInternetConnection(platform);
        if (!monitor) {
          ADD_FAILURE() << "no monitor";
          return;
        }
        const void* address = monitor.get();
        {
          std::lock_guard lock(mutex);
          live[address] = record.get();
        }
        monitor->startNotifier();
        monitor->currentReachabilityStatus();
        // Stay until two changes were fired, so that the monitor goes while
        // its changes are on their way.
        const int seen = fired.load();
        while (fired.load() < seen + 2) std::this_thread::yield();
        if (i % 2 == 0) monitor->stopNotifier();  // half are stopped before they go
        monitor.reset();
        record->gone = true;
        {
          // The address may already belong to another thread's new monitor.
          std::lock_guard lock(mutex);
          if (auto it = live.find(address); it != live.end() && it->second == record.get()) {
            live.erase(it);
          }
        }
        records.push_back(std::move(record));
      }
    });
  }
  for (auto& worker : workers) worker.join();
  done = true;
  flipper.join();

  const int before = keeperRecord.calls.load();
  fire(!up);
  {
    std::unique_lock lock(mutex);
    EXPECT_TRUE(called.wait_for(lock, std::chrono::seconds(20), [&] {
      return keeperRecord.calls.load() > before;
    })) << "a change after the run did not arrive";
  }
  keeper.reset();
  platform.notifications->removeObserver(observer);
  EXPECT_EQ(late.load(), 0) << "changes delivered to monitors that were gone";
  EXPECT_EQ(unknown.load(), 0) << "changes from monitors that were never started";
}

}  // namespace qs::testing
