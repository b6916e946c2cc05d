// The main loop on a GLib main context: either the host's (which the host
// iterates on its main thread) or one the library runs on a thread it owns.
//
// Dispatched functions and timers are GSources that become ready at a
// monotonic time (now for dispatches), so an idle loop has no source that
// wakes it. Sources of equal priority that are ready together run in the
// order they were attached, which keeps dispatches first-in, first-out.
#include <glib.h>
#include <pthread.h>

#include <chrono>
#include <system_error>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <condition_variable>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "GlibContext.h"
#include "quarrystone/LinuxPlatform.h"

#if defined(__SANITIZE_THREAD__)
#define QS_TSAN_BUILD 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define QS_TSAN_BUILD 1
#endif
#endif
#ifdef QS_TSAN_BUILD
#include <sanitizer/tsan_interface.h>
#endif

namespace qs {

namespace {

// State the sources share with the adapter; outlives the adapter while a
// source still refers to it.
struct LoopState {
  explicit LoopState(std::thread::id thread) : mainThread(thread) {}
  // False once the adapter is gone: later dispatches are dropped.
  std::atomic<bool> alive{true};
  // The thread that last ran one of our sources (at first, the creator's).
  std::atomic<std::thread::id> mainThread;
};

void runGuarded(const std::function<void()>& fn) {
  // An exception cannot cross GLib's C frames; the function owns its failure.
  try {
    fn();
  } catch (...) {
  }
}

gboolean dispatchCallback(GSource* /*source*/, GSourceFunc callback, gpointer data) {
  return callback != nullptr ? callback(data) : G_SOURCE_REMOVE;
}

GSourceFuncs kCallSourceFuncs = {nullptr, nullptr, dispatchCallback, nullptr, nullptr, nullptr};

// A source that runs once at `readyTimeUs` (monotonic microseconds; 0 = now).
// Caller owns the returned reference.
GSource* newCallSource(gint64 readyTimeUs, GSourceFunc callback, gpointer data,
                       GDestroyNotify destroy) {
  GSource* source = g_source_new(&kCallSourceFuncs, sizeof(GSource));
  g_source_set_priority(source, G_PRIORITY_DEFAULT);
  g_source_set_ready_time(source, readyTimeUs);
  g_source_set_callback(source, callback, data, destroy);
  return source;
}

// Monotonic time `seconds` from now: non-positive or NaN is now (0); an
// interval beyond any useful range (about 146,000 years, or infinite) is
// never (-1), which keeps GLib's own timeout arithmetic from overflowing.
gint64 readyTimeAfter(double seconds) {
  if (!(seconds > 0)) return 0;
  gint64 now = g_get_monotonic_time();
  double micros = seconds * 1e6;
  if (micros >= static_cast<double>(G_MAXINT64 / 2 - now)) return -1;
  return now + static_cast<gint64>(micros);
}

// GLib passes a source's data between threads (attaching thread, loop thread,
// the thread that destroys the source) under its context's lock, which orders
// those steps. The lock is a futex of GLib's own that ThreadSanitizer cannot
// see, so sanitizer builds tell it about that order at each hand-over. Other
// builds need nothing more, and do nothing.
void handOver() {
#ifdef QS_TSAN_BUILD
  static char order;
  __tsan_acquire(&order);
  __tsan_release(&order);
#endif
}

// What an on-demand loop's thread shares with the loop's callers. The thread
// serves the context while a source of ours is attached (a dispatch or a
// timer not yet run) or the loop is marked busy, and ends `idle` after the
// last of these; the next dispatch starts a new one. The decision to end is
// taken under `mutex`, where every dispatch registers first, so none is left
// behind with no thread to run it.
struct DemandState {
  DemandState(GMainContext* c, gint64 idleMicros) : context(c), idle(idleMicros) {}
  GMainContext* const context;  // weak: the loop and its thread hold it
  const gint64 idle;            // microseconds
  std::mutex mutex;
  std::size_t pending = 0;        // guarded by mutex: our sources attached and not yet destroyed
  bool busy = false;              // guarded by mutex
  bool stopping = false;          // guarded by mutex: the loop is being destroyed
  bool running = false;           // guarded by mutex: a thread serves the context
  std::condition_variable ended;  // notified when a serving thread stops serving
  gint64 idleSince = 0;           // guarded by mutex: monotonic time the last activity ended
  std::atomic<std::thread::id> thread;  // the serving thread; none between threads

  // Called as one of our sources goes, on whichever thread destroys it. The
  // thread may be asleep with nothing to wake it: it is woken to start its
  // idle count.
  void sourceGone() {
    std::lock_guard lock(mutex);
    if (--pending != 0 || busy) return;
    idleSince = g_get_monotonic_time();
    if (!stopping && thread.load() != std::this_thread::get_id()) g_main_context_wakeup(context);
  }
};

// What a source runs. Sources of an on-demand loop count themselves while
// they exist.
struct SourceCall {
  SourceCall(std::function<void()> f, std::shared_ptr<DemandState> d)
      : fn(std::move(f)), demand(std::move(d)) {
    handOver();
  }
  ~SourceCall() {
    if (demand) demand->sourceGone();
  }
  SourceCall(const SourceCall&) = delete;
  SourceCall& operator=(const SourceCall&) = delete;
  std::function<void()> fn;
  std::shared_ptr<DemandState> demand;
};

gboolean runSourceCall(gpointer data) {
  auto* call = static_cast<SourceCall*>(data);
  handOver();
  runGuarded(call->fn);
  handOver();
  return G_SOURCE_REMOVE;
}

void deleteSourceCall(gpointer data) {
  auto* call = static_cast<SourceCall*>(data);
  handOver();
  delete call;
}

// A one-shot timer. Thread contract: isValid/invalidate from any thread; the
// function runs on the loop's thread. Firing and invalidating decide under
// mutex_, so once invalidate() has returned the function can no longer be
// chosen to run; one already chosen may still be running.
class GlibTimer final : public Timer {
 public:
  GlibTimer(std::shared_ptr<LoopState> state, std::function<void()> fn)
      : state_(std::move(state)), fn_(std::move(fn)) {}
  ~GlibTimer() override {
    if (source_ != nullptr) g_source_unref(source_);
  }

  bool isValid() const override {
    std::lock_guard lock(mutex_);
    return valid_;
  }

  void invalidate() override {
    std::function<void()> dropped;
    GSource* source = nullptr;
    {
      std::lock_guard lock(mutex_);
      valid_ = false;
      dropped = std::move(fn_);
      source = std::exchange(source_, nullptr);
    }
    if (source != nullptr) {
      g_source_destroy(source);
      g_source_unref(source);
    }
  }

  // Takes over the caller's reference to the source that fires this timer.
  void adopt(GSource* source) {
    std::lock_guard lock(mutex_);
    source_ = source;
  }

  // Runs on the loop's thread. The timer stops being valid as it fires.
  void fire() {
    std::function<void()> fn;
    GSource* source = nullptr;
    {
      std::lock_guard lock(mutex_);
      if (!valid_) return;
      valid_ = false;
      fn = std::move(fn_);
      source = std::exchange(source_, nullptr);
    }
    if (source != nullptr) g_source_unref(source);
    state_->mainThread.store(std::this_thread::get_id());
    fn();
  }

 private:
  std::shared_ptr<LoopState> state_;
  mutable std::mutex mutex_;
  bool valid_ = true;          // guarded by mutex_
  std::function<void()> fn_;   // guarded by mutex_
  GSource* source_ = nullptr;  // guarded by mutex_; our reference
};

gboolean quitLoop(gpointer loop) {
  g_main_loop_quit(static_cast<GMainLoop*>(loop));
  return G_SOURCE_REMOVE;
}

void unrefLoop(gpointer loop) { g_main_loop_unref(static_cast<GMainLoop*>(loop)); }

gboolean clearWake(gpointer) {
  g_source_set_ready_time(g_main_current_source(), -1);
  return G_SOURCE_CONTINUE;
}

// An on-demand loop's thread: serves the context until it has been idle for
// the state's time, or the loop goes. Detached, so a thread that has ended
// leaves nothing behind (a finished thread nobody joins keeps its stack); it
// holds its own references to the context and the wake source, and says
// through `ended` when it no longer serves.
void serveOnDemand(std::shared_ptr<DemandState> demand, GMainContext* context, GSource* wake) {
  pthread_setname_np(pthread_self(), "qs-network");
  demand->thread.store(std::this_thread::get_id());
  g_main_context_push_thread_default(context);
  for (;;) {
    {
      std::lock_guard lock(demand->mutex);
      gint64 wakeAt = -1;
      if (!demand->stopping && demand->pending == 0 && !demand->busy) {
        wakeAt = demand->idleSince + demand->idle;
      }
      if (demand->stopping || (wakeAt >= 0 && g_get_monotonic_time() >= wakeAt)) {
        demand->running = false;
        demand->thread.store(std::thread::id());
        demand->ended.notify_all();
        break;
      }
      g_source_set_ready_time(wake, wakeAt);
    }
    g_main_context_iteration(context, TRUE);
  }
  g_main_context_pop_thread_default(context);
  g_source_unref(wake);
  g_main_context_unref(context);
}

// Thread contract: every member may be called from any thread. On
// destruction pending dispatches are dropped and pending timers invalidated;
// an owned loop thread is stopped and joined (detached if the last reference
// goes away on that very thread).
class GlibMainLoop final : public MainLoop {
 public:
  // A loop on a thread that runs only while there is work (see DemandState),
  // started at once.
  explicit GlibMainLoop(std::chrono::milliseconds idle) {
    context_ = g_main_context_new();
    demand_ = std::make_shared<DemandState>(context_, static_cast<gint64>(idle.count()) * 1000);
    wake_ = newCallSource(-1, clearWake, nullptr, nullptr);
    g_source_attach(wake_, context_);
    state_ = std::make_shared<LoopState>(std::thread::id());
    std::lock_guard lock(demand_->mutex);
    demand_->idleSince = g_get_monotonic_time();
    startOnDemandThread();
  }

  explicit GlibMainLoop(GMainContext* hostContext) {
    if (hostContext != nullptr) {
      context_ = g_main_context_ref(hostContext);
      state_ = std::make_shared<LoopState>(std::this_thread::get_id());
      return;
    }
    context_ = g_main_context_new();
    loop_ = g_main_loop_new(context_, FALSE);
    GMainContext* context = g_main_context_ref(context_);
    GMainLoop* loop = g_main_loop_ref(loop_);
    thread_ = std::thread([context, loop] {
      // The name shows in debuggers and /proc; at most 15 characters.
      pthread_setname_np(pthread_self(), "qs-loop");
      g_main_context_push_thread_default(context);
      g_main_loop_run(loop);
      g_main_context_pop_thread_default(context);
      g_main_loop_unref(loop);
      g_main_context_unref(context);
    });
    state_ = std::make_shared<LoopState>(thread_.get_id());
  }

  ~GlibMainLoop() override {
    state_->alive.store(false);
    std::vector<std::weak_ptr<GlibTimer>> timers;
    {
      std::lock_guard lock(timersMutex_);
      timers.swap(timers_);
    }
    for (const auto& weak : timers) {
      if (auto timer = weak.lock()) timer->invalidate();
    }
    if (demand_) {
      std::unique_lock lock(demand_->mutex);
      demand_->stopping = true;
      g_main_context_wakeup(context_);
      // Once the serving thread has stopped, no source of ours runs again.
      // Dropped on that very thread, it stops after the current dispatch.
      if (demand_->thread.load() != std::this_thread::get_id()) {
        demand_->ended.wait(lock, [&] { return !demand_->running; });
      }
      lock.unlock();
      g_source_destroy(wake_);
      g_source_unref(wake_);
    } else if (thread_.joinable()) {
      if (std::this_thread::get_id() == thread_.get_id()) {
        g_main_loop_quit(loop_);
        thread_.detach();
      } else {
        // Quitting from inside the loop cannot be lost to a loop not yet running.
        GSource* quit = newCallSource(0, quitLoop, g_main_loop_ref(loop_), unrefLoop);
        g_source_set_priority(quit, G_PRIORITY_HIGH);
        g_source_attach(quit, context_);
        g_source_unref(quit);
        thread_.join();
      }
    }
    if (loop_ != nullptr) g_main_loop_unref(loop_);
    g_main_context_unref(context_);
  }

  // Both read every member they need before the SourceCall hands over: once
  // the source is attached it may run, and drop the last reference to this
  // loop, on the loop's thread, and the sanitizer only sees the hand-over.
  void dispatchAsync(std::function<void()> fn) override {
    GMainContext* context = context_;
    auto demand = enterOnDemand();
    auto* call = new SourceCall(
        [state = state_, fn = std::move(fn)] {
          if (!state->alive.load()) return;
          state->mainThread.store(std::this_thread::get_id());
          fn();
        },
        std::move(demand));
    GSource* source = newCallSource(0, runSourceCall, call, deleteSourceCall);
    g_source_attach(source, context);
    g_source_unref(source);
  }

  std::shared_ptr<Timer> scheduleTimer(double seconds, std::function<void()> fn) override {
    GMainContext* context = context_;
    auto timer = std::make_shared<GlibTimer>(state_, std::move(fn));
    {
      std::lock_guard lock(timersMutex_);
      std::erase_if(timers_, [](const auto& weak) { return weak.expired(); });
      timers_.push_back(timer);
    }
    // The source holds the timer strongly, so a timer the caller drops still fires.
    GSource* source = newCallSource(readyTimeAfter(seconds), runSourceCall,
                                    new SourceCall([timer] { timer->fire(); }, enterOnDemand()),
                                    deleteSourceCall);
    timer->adopt(source);
    g_source_attach(source, context);
    return timer;
  }

  GMainContext* context() const { return context_; }

  // On-demand loops: whether the thread must stay although nothing of ours
  // is queued. Loop thread only.
  void setBusy(bool busy) {
    if (!demand_) return;
    std::lock_guard lock(demand_->mutex);
    demand_->busy = busy;
    if (!busy) demand_->idleSince = g_get_monotonic_time();
  }

  bool isMainThread() const override {
    if (demand_) return std::this_thread::get_id() == demand_->thread.load();
    if (thread_.joinable()) return std::this_thread::get_id() == state_->mainThread.load();
    return g_main_context_is_owner(context_) ||
           std::this_thread::get_id() == state_->mainThread.load();
  }

 private:
  // On-demand loops: counts a source about to be attached, and starts a
  // thread unless one serves the context. Null for other loops.
  std::shared_ptr<DemandState> enterOnDemand() {
    if (!demand_) return nullptr;
    std::lock_guard lock(demand_->mutex);
    ++demand_->pending;
    if (!demand_->running && !demand_->stopping) startOnDemandThread();
    return demand_;
  }

  // REQUIRES: demand_->mutex held, no thread running. The one before may
  // still be on its way out; it holds its own references.
  void startOnDemandThread() {
    try {
      std::thread(serveOnDemand, demand_, g_main_context_ref(context_),
                  static_cast<GSource*>(g_source_ref(wake_)))
          .detach();
      demand_->running = true;
    } catch (const std::system_error&) {
      g_source_unref(wake_);
      g_main_context_unref(context_);
      // No thread to be had now: the next dispatch tries again.
    }
  }

  GMainContext* context_ = nullptr;      // our reference
  GMainLoop* loop_ = nullptr;            // our reference; only when we own the thread
  std::thread thread_;                   // the loop's own thread, when it owns one (not on-demand)
  std::shared_ptr<DemandState> demand_;  // on-demand loops only
  GSource* wake_ = nullptr;              // on-demand: fires at the idle deadline; our reference
  std::shared_ptr<LoopState> state_;
  std::mutex timersMutex_;
  std::vector<std::weak_ptr<GlibTimer>> timers_;  // guarded by timersMutex_
};

}  // namespace

std::shared_ptr<MainLoop> makeGlibMainLoop(GMainContext* hostContext) {
  return std::make_shared<GlibMainLoop>(hostContext);
}

GMainContext* glibContextOf(const MainLoop& loop) {
  const auto* glib = dynamic_cast<const GlibMainLoop*>(&loop);
  return glib != nullptr ? glib->context() : nullptr;
}

std::shared_ptr<MainLoop> makeOnDemandGlibLoop(std::chrono::milliseconds idle) {
  return std::make_shared<GlibMainLoop>(idle);
}

void setGlibLoopBusy(MainLoop& loop, bool busy) {
  if (auto* glib = dynamic_cast<GlibMainLoop*>(&loop)) glib->setBusy(busy);
}

void glibHandOver() { handOver(); }

bool runOnLoopAndWait(MainLoop& loop, std::function<void()> fn) {
  if (loop.isMainThread()) {
    fn();
    return true;
  }
  // A call the loop drops destroys the promise unfulfilled, which ends the wait.
  auto ran = std::make_shared<std::promise<void>>();
  auto done = ran->get_future();
  loop.dispatchAsync([ran, fn = std::move(fn)]() mutable {
    fn();
    ran->set_value();
  });
  ran.reset();
  try {
    done.get();
    return true;
  } catch (const std::future_error&) {
    return false;
  }
}

}  // namespace qs
