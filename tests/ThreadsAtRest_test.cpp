// The threads the library leaves in a host process once its exchanges are
// over: one loop thread when it runs the main loop itself, none when the host
// lends its GLib context. Counted from /proc/self/task after real exchanges
// against the sandbox.
#include <glib.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "SandboxProcess.h"
#include "quarrystone/LinuxPlatform.h"
#include "quarrystone/QSManager.h"

namespace qs::testing {
namespace {

struct ReadyDelegate final : QSManagerDelegate {
  void managerReady(const HeaderMap&) override { ready = true; }
  void newHeaders(const HeaderMap&) override {}
  std::atomic<bool> ready{false};
};

std::vector<std::string> threadNames() {
  std::vector<std::string> names;
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    names.push_back(readFile(task.path() / "comm"));
    while (!names.back().empty() && names.back().back() == '\n') names.back().pop_back();
  }
  return names;
}

// A host that runs its GLib context on a thread of its own.
class HostLoop {
 public:
  HostLoop() : context_(g_main_context_new()), loop_(g_main_loop_new(context_, FALSE)) {
    thread_ = std::thread([this] {
      pthread_setname_np(pthread_self(), "host-loop");
      g_main_context_push_thread_default(context_);
      g_main_loop_run(loop_);
      g_main_context_pop_thread_default(context_);
    });
  }
  ~HostLoop() {
    g_main_context_invoke(
        context_,
        [](gpointer loop) {
          g_main_loop_quit(static_cast<GMainLoop*>(loop));
          return G_SOURCE_REMOVE;
        },
        loop_);
    thread_.join();
    g_main_loop_unref(loop_);
    g_main_context_unref(context_);
  }
  GMainContext* context() const { return context_; }

 private:
  GMainContext* context_;
  GMainLoop* loop_;
  std::thread thread_;
};

TEST(ThreadsAtRest, OneLoopThreadOfItsOwnAndNoneOnTheHostsContext) {
  if (envOr("QS_SANDBOX_BIN").empty()) GTEST_SKIP() << "the sandbox is not built";
  TempDir dir;
  SandboxProcess sandbox(dir.path(), {});
  ASSERT_NE(sandbox.port(), 0) << sandbox.output();
  HostLoop host;
  std::thread([] {}).join();  // a sanitizer's helper thread starts with the first thread

  const std::size_t before = threadNames().size();
  for (const bool hostContext : {false, true}) {
    SCOPED_TRACE(hostContext ? "host context" : "own loop");
    const auto storePath = dir.path() / (hostContext ? "host.sqlite" : "own.sqlite");
    const auto settings = sandbox.settings(storePath.string());
    LinuxPlatformOptions options;
    options.bundle = {"1.0", "threads", "com.example.threads", {"en"}};
    options.hostContext = hostContext ? host.context() : nullptr;
    auto manager = QSManager::create(makeLinuxPlatform(settings, options), settings);
    auto delegate = std::make_shared<ReadyDelegate>();
    manager->setDelegate(delegate);
    manager->startWith("threads-app");
    ASSERT_TRUE(SandboxProcess::waitUntil([&] { return delegate->ready.load(); }, 20));

    // Workers and the network thread end about 2 s after their last work.
    const std::size_t expected = before + (hostContext ? 0 : 1);
    const auto atRest = [&] { return threadNames().size() == expected; };
    ASSERT_TRUE(SandboxProcess::waitUntil(atRest, 20)) << ::testing::PrintToString(threadNames());
    const auto names = threadNames();
    EXPECT_EQ(std::count(names.begin(), names.end(), "qs-loop"), hostContext ? 0 : 1);
    EXPECT_EQ(std::count(names.begin(), names.end(), "gmain"), 0);

    // The next exchange brings the network thread back, and it goes again.
    const auto requests = [](const Value& e) { return e.value("event", "") == "activity"; };
    const auto events = sandbox.events();
    const std::size_t sent = std::count_if(events.begin(), events.end(), requests);
    manager->wakeup();
    EXPECT_TRUE(sandbox.waitForEvents(requests, sent + 1, 20));
    EXPECT_TRUE(SandboxProcess::waitUntil(atRest, 20)) << ::testing::PrintToString(threadNames());

    manager.reset();
    ASSERT_TRUE(SandboxProcess::waitUntil([&] { return threadNames().size() == before; }, 20))
        << "threads outlived the manager: " << ::testing::PrintToString(threadNames());
  }
}

}  // namespace
}  // namespace qs::testing
