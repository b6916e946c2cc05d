#pragma once

// A GoogleTest environment that gives a test program a display: the headless
// toolkit settings, a private Xvfb server when no display is set, then GTK.

#include <gtest/gtest.h>
#include <gtk/gtk.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "HeadlessToolkit.h"

namespace qs::test {

class XvfbDisplay final : public ::testing::Environment {
 public:
  void SetUp() override {
    applyHeadlessToolkitEnvironment();
    if (std::getenv("DISPLAY") == nullptr && std::getenv("WAYLAND_DISPLAY") == nullptr) {
      startXvfb();
    }
    ASSERT_TRUE(gtk_init_check()) << "no usable display";
    // A critical message is a programming error somewhere in the toolkit's
    // use: stop the test there.
    g_log_set_always_fatal(static_cast<GLogLevelFlags>(G_LOG_FATAL_MASK | G_LOG_LEVEL_CRITICAL));
  }

 private:
  void startXvfb() {
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    std::string fd = std::to_string(fds[1]);
    const char* argv[] = {"Xvfb",        "-displayfd", fd.c_str(), "-screen", "0",
                          "1024x768x24", "-nolisten",  "tcp",      nullptr};
    // Forked before GTK starts any thread. The server ends with this process
    // (killing it any earlier makes the toolkit exit on a lost display).
    pid_t xvfb = fork();
    ASSERT_GE(xvfb, 0);
    if (xvfb == 0) {
      close(fds[0]);
      prctl(PR_SET_PDEATHSIG, SIGTERM);
      execvp("Xvfb", const_cast<char**>(argv));
      _exit(127);
    }
    close(fds[1]);
    // Xvfb writes its display number once it accepts connections.
    std::string number;
    pollfd p{fds[0], POLLIN, 0};
    char c;
    while (poll(&p, 1, 15000) == 1 && read(fds[0], &c, 1) == 1 && c != '\n') number += c;
    close(fds[0]);
    ASSERT_FALSE(number.empty()) << "Xvfb did not start";
    setenv("DISPLAY", (":" + number).c_str(), 1);
  }
};

// Runs the default GLib context until `done` holds or `seconds` have passed.
template <typename Done>
bool iterateUntil(Done done, unsigned seconds = 30) {
  bool expired = false;
  guint timeout = g_timeout_add_seconds(
      seconds,
      [](gpointer flag) {
        *static_cast<bool*>(flag) = true;
        return G_SOURCE_REMOVE;
      },
      &expired);
  while (!done() && !expired) g_main_context_iteration(nullptr, TRUE);
  if (!expired) g_source_remove(timeout);
  return done();
}

}  // namespace qs::test
