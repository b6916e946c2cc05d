#pragma once

// A program that a test starts, with stdout and stderr going to one file.
// Owned by the test's thread (it must be the main thread: the child is told
// to end when the thread that started it ends). Destruction ends the child's
// whole process group, first politely, then with SIGKILL.

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <optional>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace qs::testing {

class ChildProcess {
 public:
  // `env` entries ("NAME=value") are added to (or replace) this process's
  // environment for the child.
  ChildProcess(std::vector<std::string> argv, const std::vector<std::string>& env,
               const std::string& outputPath) {
    std::vector<std::string> environment = env;
    for (char** e = environ; *e != nullptr; ++e) {
      std::string entry = *e;
      std::string name = entry.substr(0, entry.find('='));
      bool replaced = false;
      for (const auto& extra : env) replaced = replaced || extra.rfind(name + "=", 0) == 0;
      if (!replaced) environment.push_back(entry);
    }
    // Everything the child needs is prepared before fork: it only execs.
    std::vector<char*> args;
    for (auto& a : argv) args.push_back(a.data());
    args.push_back(nullptr);
    std::vector<char*> envp;
    for (auto& e : environment) envp.push_back(e.data());
    envp.push_back(nullptr);
    const int out = open(outputPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    const int in = open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (out < 0 || in < 0) return;
    pid_ = fork();
    if (pid_ == 0) {
      setpgid(0, 0);
      prctl(PR_SET_PDEATHSIG, SIGTERM);
      dup2(in, 0);
      dup2(out, 1);
      dup2(out, 2);
      execvpe(args[0], args.data(), envp.data());
      _exit(127);
    }
    close(out);
    close(in);
  }
  ~ChildProcess() { stop(); }
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  bool started() const { return pid_ > 0; }
  bool running() const { return started() && !status_; }

  // Waits up to `seconds` for the child to exit. Its exit code (128 + signal
  // when killed), or nullopt while it still runs.
  std::optional<int> waitExit(double seconds) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (running()) {
      int raw = 0;
      if (waitpid(pid_, &raw, WNOHANG) == pid_) {
        status_ = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
        break;
      }
      if (std::chrono::steady_clock::now() >= deadline) break;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return status_;
  }

  // Ends the child and everything it started; bounded.
  void stop() {
    if (!running()) return;
    kill(-pid_, SIGTERM);
    kill(pid_, SIGTERM);
    if (!waitExit(10)) {
      kill(-pid_, SIGKILL);
      kill(pid_, SIGKILL);
      waitExit(5);
    }
  }

 private:
  pid_t pid_ = -1;
  std::optional<int> status_;
};

}  // namespace qs::testing
