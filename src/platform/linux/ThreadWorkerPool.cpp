// Posted tasks run on threads made on demand and ended when idle.
#include "ThreadWorkerPool.h"

#include <pthread.h>

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <system_error>
#include <thread>

#include "quarrystone/LinuxPlatform.h"

namespace qs {

namespace {

constexpr std::chrono::milliseconds kDefaultIdleTimeout{2000};
// The pool serves short operation starts. A flood of them, posted faster than
// they run, would otherwise become a thread each; past this many threads a
// task waits for one of them, as a system operation queue's default does.
constexpr std::size_t kMaxThreads = 16;

// What the workers share with the pool. Workers are detached and each holds
// this state, so a worker still returning after the pool is gone is safe.
struct PoolState {
  explicit PoolState(std::chrono::milliseconds timeout) : idleTimeout(timeout) {}
  const std::chrono::milliseconds idleTimeout;
  std::mutex mutex;
  std::condition_variable work;             // a task was queued, or the pool stops
  std::condition_variable exited;           // a worker left
  std::deque<std::function<void()>> tasks;  // guarded by mutex
  std::size_t idle = 0;                     // workers waiting for work; guarded by mutex
  std::size_t live = 0;                     // workers not yet left; guarded by mutex
  bool stopping = false;                    // guarded by mutex
};

// The pool whose worker the current thread is, if any.
thread_local const PoolState* currentPool = nullptr;

void runTask(std::function<void()>& task) {
  // A task's exception is its own failure; it must not end the thread's work.
  try {
    task();
  } catch (...) {
  }
  task = nullptr;
}

void workerMain(std::shared_ptr<PoolState> state) {
  pthread_setname_np(pthread_self(), "qs-worker");
  currentPool = state.get();
  std::unique_lock lock(state->mutex);
  for (;;) {
    if (!state->tasks.empty()) {
      auto task = std::move(state->tasks.front());
      state->tasks.pop_front();
      lock.unlock();
      runTask(task);
      lock.lock();
      continue;
    }
    if (state->stopping) break;
    ++state->idle;
    bool woken = state->work.wait_for(lock, state->idleTimeout,
                                      [&] { return !state->tasks.empty() || state->stopping; });
    --state->idle;
    if (!woken) break;
  }
  --state->live;
  state->exited.notify_all();
}

// Thread contract: post() from any thread, including from a task.
class ThreadWorkerPool final : public WorkerPool {
 public:
  explicit ThreadWorkerPool(std::chrono::milliseconds idleTimeout)
      : state_(std::make_shared<PoolState>(idleTimeout)) {}

  ~ThreadWorkerPool() override {
    std::unique_lock lock(state_->mutex);
    state_->stopping = true;
    state_->work.notify_all();
    // A pool released by one of its own tasks cannot wait for that task.
    std::size_t self = currentPool == state_.get() ? 1 : 0;
    state_->exited.wait(lock, [&] { return state_->live <= self; });
  }

  void post(std::function<void()> task) override {
    std::unique_lock lock(state_->mutex);
    state_->tasks.push_back(std::move(task));
    if (state_->idle >= state_->tasks.size() || state_->live >= kMaxThreads) {
      state_->work.notify_one();
      return;
    }
    ++state_->live;
    try {
      std::thread(workerMain, state_).detach();
      return;
    } catch (const std::system_error&) {
      --state_->live;
    }
    // No thread to be had: a worker that exists will get to the task; with
    // none at all, run it here rather than never.
    if (state_->live > 0) return;
    auto fallback = std::move(state_->tasks.back());
    state_->tasks.pop_back();
    lock.unlock();
    runTask(fallback);
  }

 private:
  std::shared_ptr<PoolState> state_;
};

}  // namespace

std::shared_ptr<WorkerPool> makeThreadWorkerPool(std::chrono::milliseconds idleTimeout) {
  return std::make_shared<ThreadWorkerPool>(idleTimeout);
}

std::shared_ptr<WorkerPool> makeThreadWorkerPool() {
  return makeThreadWorkerPool(kDefaultIdleTimeout);
}

}  // namespace qs
