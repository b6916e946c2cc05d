// qs-sandbox: see SandboxOptions::usage().

#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <cstdio>
#include <ctime>
#include <thread>

#include "SandboxOptions.h"
#include "SandboxServer.h"

int main(int argc, char** argv) {
  using namespace qs::sandbox;
  const auto options = SandboxOptions::parse(argc, argv);
  if (!options) {
    std::fprintf(stderr, "qs-sandbox: %s\n\n%s", options.error.c_str(),
                 SandboxOptions::usage().c_str());
    return 2;
  }
  if (options.value->help) {
    std::fputs(SandboxOptions::usage().c_str(), stdout);
    return 0;
  }

  // SIGINT and SIGTERM are taken by one watcher thread instead of a handler,
  // so stopping the server runs as ordinary code. Block them before any
  // other thread exists so that every thread inherits the mask.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);

  SandboxServer server(options.value->config);
  if (const auto error = server.bind()) {
    std::fprintf(stderr, "qs-sandbox: %s\n", error->c_str());
    return 1;
  }
  std::printf("qs-sandbox listening on https://127.0.0.1:%d\n", server.port());
  std::fflush(stdout);

  std::atomic<bool> done{false};
  std::thread watcher([&] {
    const timespec tick{0, 200'000'000};
    while (!done.load()) {
      if (sigtimedwait(&signals, nullptr, &tick) > 0) {
        server.stop();
        return;
      }
    }
  });
  const bool served = server.run();
  done.store(true);
  watcher.join();
  std::fprintf(stderr, "qs-sandbox: stopped\n");
  return served ? 0 : 1;
}
