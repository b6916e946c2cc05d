#include "worker_pool_threads.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <filesystem>
#include <mutex>

namespace qs {
namespace {

std::size_t threadCount() {
  std::size_t n = 0;
  for ([[maybe_unused]] const auto& entry :
       std::filesystem::directory_iterator("/proc/self/task")) {
    ++n;
  }
  return n;
}

// Waits until `done` holds, polling the condition on `cv`, for at most ten seconds.
template <typename Predicate>
bool waitFor(std::mutex& mutex, std::condition_variable& cv, Predicate done) {
  std::unique_lock lock(mutex);
  return cv.wait_for(lock, std::chrono::seconds(10), done);
}

TEST(ThreadWorkerPool, RunsTasksSideBySideAndEndsIdleThreads) {
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
  ASSERT_TRUE(waitFor(mutex, cv, [&] { return finished == kTasks; }));
  EXPECT_EQ(metAll, kTasks);

  // Idle threads end; the wait is bounded, the idle time is short.
  bool ended = false;
  for (int i = 0; i < 200 && !ended; ++i) {
    ended = threadCount() == before;
    std::unique_lock lock(mutex);
    cv.wait_for(lock, std::chrono::milliseconds(50));
  }
  EXPECT_TRUE(ended) << threadCount() << " threads, " << before << " before";

  // An emptied pool makes threads again; destruction lets queued tasks finish.
  std::atomic<int> ran{0};
  for (int i = 0; i < 50; ++i) pool->post([&] { ran.fetch_add(1); });
  pool.reset();
  EXPECT_EQ(ran.load(), 50);
}

TEST(ThreadWorkerPool, ReleasedByItsOwnTaskDoesNotDeadlock) {
  auto pool = makeThreadWorkerPool(std::chrono::milliseconds(100));
  std::mutex mutex;
  std::condition_variable cv;
  bool released = false;
  auto* raw = pool.get();
  raw->post([&, keep = std::move(pool)]() mutable {
    keep.reset();  // the last reference goes away on a worker thread
    std::lock_guard lock(mutex);
    released = true;
    cv.notify_all();
  });
  EXPECT_TRUE(waitFor(mutex, cv, [&] { return released; }));
}

}  // namespace
}  // namespace qs
