#include "ThreadWorkerPool.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <mutex>
#include <thread>

namespace qs {
namespace {

std::size_t threadCount() {
  auto tasks = std::filesystem::directory_iterator("/proc/self/task");
  return static_cast<std::size_t>(std::distance(begin(tasks), end(tasks)));
}

// Polls `condition` for at most ten seconds.
bool eventually(const std::function<bool()>& condition) {
  for (int i = 0; i < 500 && !condition(); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return condition();
}

TEST(ThreadWorkerPool, RunsTasksSideBySideAndEndsIdleThreads) {
  std::thread([] {}).join();  // a sanitizer's helper thread starts with the first thread
  const std::size_t before = threadCount();
  auto pool = makeThreadWorkerPool(std::chrono::milliseconds(100));

  // Each task waits until all have started: only possible if none waits for another.
  constexpr int kTasks = 8;
  std::mutex mutex;
  std::condition_variable cv;
  int started = 0, finished = 0, metAll = 0;
  for (int i = 0; i < kTasks; ++i) {
    pool->post([&] {
      std::unique_lock lock(mutex);
      ++started;
      cv.notify_all();
      if (cv.wait_for(lock, std::chrono::seconds(10), [&] { return started == kTasks; })) ++metAll;
      ++finished;
      cv.notify_all();
    });
  }
  {
    std::unique_lock lock(mutex);
    ASSERT_TRUE(cv.wait_for(lock, std::chrono::seconds(10), [&] { return finished == kTasks; }));
    EXPECT_EQ(metAll, kTasks);
  }
  EXPECT_TRUE(eventually([&] { return threadCount() == before; }));

  // An emptied pool makes threads again, and a pool released by one of its
  // own tasks neither waits for that task nor drops the others.
  std::atomic<int> ran{0};
  for (int i = 0; i < 50; ++i) pool->post([&] { ran.fetch_add(1); });
  auto* raw = pool.get();
  raw->post([&ran, keep = std::move(pool)]() mutable {
    keep.reset();
    ran.fetch_add(1000);
  });
  EXPECT_TRUE(eventually([&] { return ran.load() == 1050; }));
}

}  // namespace
}  // namespace qs
