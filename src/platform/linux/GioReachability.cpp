// Reachability from the kernel's route table, judged as GIO's network
// monitor judges it on a machine without a network manager: the network is
// available while a default route exists. The routing socket is watched
// from a GLib loop (the main loop's, or the one the caller names), with no
// thread of its own and without GIO's monitor, whose first use starts GLib's
// worker thread and tries the system bus. Changes are handed to the platform
// MainLoop. Flags are computed from a cached copy of the state (plus a kernel
// route probe for numeric addresses), so reading them is cheap and safe from
// any thread and never waits on DNS.
#include "GioReachability.h"

#include <glib-unix.h>
#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "GlibContext.h"
#include "NetlinkRouteMonitor.h"
#include "quarrystone/LinuxPlatform.h"

namespace qs {

std::optional<ReachabilityTargetKind> classifyReachabilityTarget(const std::string& text,
                                                                 bool mustBeAddress) {
  GInetAddress* address = g_inet_address_new_from_string(text.c_str());
  if (address == nullptr) {
    if (mustBeAddress || text.empty()) return std::nullopt;
    std::string lower;
    for (char c : text) lower += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (lower == "localhost" || lower.ends_with(".localhost")) {
      return ReachabilityTargetKind::Loopback;
    }
    return ReachabilityTargetKind::HostName;
  }
  ReachabilityTargetKind kind = ReachabilityTargetKind::Address;
  if (g_inet_address_get_is_any(address)) {
    kind = ReachabilityTargetKind::Internet;
  } else if (g_inet_address_get_is_loopback(address)) {
    kind = ReachabilityTargetKind::Loopback;
  } else if (g_inet_address_get_is_link_local(address)) {
    kind = ReachabilityTargetKind::LinkLocal;
  }
  g_object_unref(address);
  return kind;
}

// How each bit is derived:
// - reachable: for the internet and host names, the monitor's
//   network-available (a default route exists); for numeric addresses, the
//   kernel has a route to the address.
// - connection required: internet/host name, connectivity below full
//   (limited, or behind a captive portal): a route exists but the internet
//   is not really there yet.
// - intervention required: internet/host name, connectivity is a captive
//   portal (the user must sign in).
// - is WWAN: the network is metered (the nearest a desktop has to cellular),
//   for targets that leave the machine's link.
// - is local address and is direct: loopback targets; is direct alone for
//   link-local targets, which are reached without a gateway.
// - transient connection, connection on traffic, connection on demand: never;
//   the route table has no notion of a connection brought up on demand.
std::uint32_t reachabilityFlagsFor(const NetworkState& network, ReachabilityTargetKind kind,
                                   bool routeToTarget) {
  std::uint32_t flags = 0;
  switch (kind) {
    case ReachabilityTargetKind::Loopback:
      if (routeToTarget) {
        flags = kReachabilityFlagsReachable | kReachabilityFlagsIsLocalAddress |
                kReachabilityFlagsIsDirect;
      }
      break;
    case ReachabilityTargetKind::LinkLocal:
      if (routeToTarget) flags = kReachabilityFlagsReachable | kReachabilityFlagsIsDirect;
      break;
    case ReachabilityTargetKind::Address:
      if (routeToTarget) {
        flags = kReachabilityFlagsReachable;
        if (network.metered) flags |= kReachabilityFlagsIsWWAN;
      }
      break;
    case ReachabilityTargetKind::Internet:
    case ReachabilityTargetKind::HostName:
      if (network.available) {
        flags = kReachabilityFlagsReachable;
        if (network.connectivity != G_NETWORK_CONNECTIVITY_FULL) {
          flags |= kReachabilityFlagsConnectionRequired;
        }
        if (network.connectivity == G_NETWORK_CONNECTIVITY_PORTAL) {
          flags |= kReachabilityFlagsInterventionRequired;
        }
        if (network.metered) flags |= kReachabilityFlagsIsWWAN;
      }
      break;
  }
  return flags;
}

namespace {

// Whether the kernel has a route to a numeric address: connecting a UDP
// socket looks the route up without sending anything. Nullopt when the probe
// itself fails.
std::optional<bool> routeExists(const std::string& numeric) {
  addrinfo hints{};
  hints.ai_flags = AI_NUMERICHOST;
  hints.ai_socktype = SOCK_DGRAM;
  addrinfo* found = nullptr;
  if (getaddrinfo(numeric.c_str(), "9", &hints, &found) != 0 || found == nullptr) {
    return std::nullopt;
  }
  std::optional<bool> result;
  int fd = socket(found->ai_family, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd >= 0) {
    int rc = connect(fd, found->ai_addr, found->ai_addrlen);
    int error = errno;
    close(fd);
    if (rc == 0) {
      result = true;
    } else if (error == ENETUNREACH || error == EHOSTUNREACH || error == ENETDOWN ||
               error == EADDRNOTAVAIL) {
      result = false;
    }
  }
  freeaddrinfo(found);
  return result;
}

// One target's state, shared between its owner, the network loop and the
// callbacks queued on the main loop, so that the target can go while a
// queued change is still to be dropped.
struct TargetCore {
  TargetCore(ReachabilityTargetKind k, std::string probe)
      : kind(k), probeAddress(std::move(probe)) {}

  // Main loop: calls the callback unless the target was unscheduled since the
  // change was queued, and lets unschedule() know when the call is over.
  void deliver(std::uint32_t flags) {
    const auto self = std::this_thread::get_id();
    std::function<void(std::uint32_t)> call;
    {
      std::lock_guard lock(mutex);
      if (!scheduled || !callback) return;
      call = callback;
      running.push_back(self);
    }
    call(flags);
    {
      std::lock_guard lock(mutex);
      running.erase(std::find(running.begin(), running.end(), self));
    }
    callbackReturned.notify_all();
  }

  // No call starts after this returns, and one running on another thread has
  // finished. A call on this thread (the callback stopping its own target)
  // is not waited for: it finishes after this returns.
  void unschedule() {
    std::unique_lock lock(mutex);
    scheduled = false;
    const auto self = std::this_thread::get_id();
    callbackReturned.wait(lock, [&] {
      return std::all_of(running.begin(), running.end(),
                         [self](std::thread::id id) { return id == self; });
    });
  }

  const ReachabilityTargetKind kind;
  const std::string probeAddress;  // numeric address for route probes; empty if none
  std::mutex mutex;
  std::condition_variable callbackReturned;
  std::function<void(std::uint32_t)> callback;  // guarded by mutex
  bool scheduled = false;                       // guarded by mutex
  std::optional<std::uint32_t> lastFlags;       // guarded by mutex; last seen while scheduled
  std::vector<std::thread::id> running;         // guarded by mutex: threads inside callback
};

// Watches the route table from a GLib loop: a source on the loop's context
// reads the routing socket's change notices and, after each burst of them,
// the table again. Thread contract: add() and flagsOf() from any thread;
// refresh() on the loop's thread. The source holds the socket and only a
// weak reference to the watcher, so the watcher may go on any thread.
class NetworkWatcher : public std::enable_shared_from_this<NetworkWatcher> {
 public:
  // Null when the routing socket cannot be used.
  static std::shared_ptr<NetworkWatcher> start(std::shared_ptr<MainLoop> mainLoop,
                                               std::shared_ptr<MainLoop> loop) {
    // Subscribed before the first read, so no change falls between the two.
    auto monitor = NetlinkRouteMonitor::open();
    if (!monitor) return nullptr;
    auto available = NetlinkRouteMonitor::defaultRouteExists();
    if (!available) return nullptr;
    auto watcher = std::make_shared<NetworkWatcher>(std::move(mainLoop), std::move(loop));
    watcher->state_ = stateFor(*available);
    watcher->attach(std::move(monitor));
    return watcher;
  }

  // REQUIRES: `loop` runs on a GLib context.
  NetworkWatcher(std::shared_ptr<MainLoop> mainLoop, std::shared_ptr<MainLoop> loop)
      : mainLoop_(std::move(mainLoop)), loop_(std::move(loop)), context_(glibContextOf(*loop_)) {}

  NetworkWatcher(const NetworkWatcher&) = delete;
  NetworkWatcher& operator=(const NetworkWatcher&) = delete;

  ~NetworkWatcher() {
    // Safe from any thread; the socket closes once no callback can run.
    if (source_ != nullptr) {
      g_source_destroy(source_);
      g_source_unref(source_);
    }
  }

  void add(const std::shared_ptr<TargetCore>& target) {
    std::lock_guard lock(mutex_);
    std::erase_if(targets_, [](const auto& weak) { return weak.expired(); });
    targets_.push_back(target);
  }

  std::optional<std::uint32_t> flagsOf(const TargetCore& target) const {
    bool route = false;
    if (!target.probeAddress.empty()) {
      auto probed = routeExists(target.probeAddress);
      if (!probed) return std::nullopt;
      route = *probed;
    }
    NetworkState network;
    {
      std::lock_guard lock(mutex_);
      network = state_;
    }
    return reachabilityFlagsFor(network, target.kind, route);
  }

  // Loop thread: reads the routes again and reports every scheduled target
  // whose flags changed, through the main loop. A table that cannot be read
  // leaves the last state.
  void refresh() {
    if (auto available = NetlinkRouteMonitor::defaultRouteExists()) {
      std::lock_guard lock(mutex_);
      state_ = stateFor(*available);
    }
    std::vector<std::shared_ptr<TargetCore>> targets;
    {
      std::lock_guard lock(mutex_);
      for (const auto& weak : targets_) {
        if (auto target = weak.lock()) targets.push_back(std::move(target));
      }
    }
    for (const auto& target : targets) {
      auto flags = flagsOf(*target);
      if (!flags) continue;
      {
        std::lock_guard lock(target->mutex);
        if (!target->scheduled || target->lastFlags == flags) continue;
        target->lastFlags = flags;
      }
      mainLoop_->dispatchAsync([weak = std::weak_ptr<TargetCore>(target), value = *flags] {
        if (auto core = weak.lock()) core->deliver(value);
      });
    }
  }

 private:
  // What a default route tells: a way out, taken to reach the internet (the
  // kernel knows nothing of captive portals); never metered.
  static NetworkState stateFor(bool defaultRoute) {
    return {defaultRoute, defaultRoute ? G_NETWORK_CONNECTIVITY_FULL : G_NETWORK_CONNECTIVITY_LOCAL,
            false};
  }

  // What the source owns: the socket, and the way back to the watcher.
  struct Watch {
    std::unique_ptr<NetlinkRouteMonitor> monitor;
    std::weak_ptr<NetworkWatcher> watcher;
  };

  void attach(std::unique_ptr<NetlinkRouteMonitor> monitor) {
    GSource* source = g_unix_fd_source_new(monitor->fd(), G_IO_IN);
    auto* watch = new Watch{std::move(monitor), weak_from_this()};
    // A file-descriptor source calls a GUnixFDSourceFunc through the generic
    // callback slot; the detour through void(*)() is GLib's own idiom.
    auto* notice = reinterpret_cast<void (*)()>(&NetworkWatcher::onNotice);
    g_source_set_callback(source, reinterpret_cast<GSourceFunc>(notice), watch, &deleteWatch);
    source_ = source;
    glibHandOver();
    g_source_attach(source, context_);
  }

  static gboolean onNotice(gint, GIOCondition condition, gpointer data) {
    glibHandOver();
    auto* watch = static_cast<Watch*>(data);
    if (condition & G_IO_NVAL) return G_SOURCE_REMOVE;
    const bool changed = watch->monitor->drainNotices();
    if (auto watcher = watch->watcher.lock(); watcher && changed) watcher->refresh();
    glibHandOver();
    return G_SOURCE_CONTINUE;
  }

  static void deleteWatch(gpointer data) {
    glibHandOver();
    delete static_cast<Watch*>(data);
  }

  std::shared_ptr<MainLoop> mainLoop_;
  const std::shared_ptr<MainLoop> loop_;  // the loop that reads the socket
  GMainContext* const context_;           // loop_'s
  GSource* source_ = nullptr;             // our reference; set before the watcher is shared
  mutable std::mutex mutex_;
  NetworkState state_;                              // guarded by mutex_ once shared
  std::vector<std::weak_ptr<TargetCore>> targets_;  // guarded by mutex_
};

// Thread contract: flags() from any thread; the callback runs on the main
// loop, only while the target is scheduled (see TargetCore::unschedule).
class GioReachabilityTarget final : public ReachabilityTarget {
 public:
  GioReachabilityTarget(std::shared_ptr<NetworkWatcher> watcher, std::shared_ptr<TargetCore> core)
      : watcher_(std::move(watcher)), core_(std::move(core)) {
    watcher_->add(core_);
  }
  ~GioReachabilityTarget() override { unschedule(); }

  std::optional<std::uint32_t> flags() override { return watcher_->flagsOf(*core_); }

  bool setCallback(std::function<void(std::uint32_t)> callback) override {
    std::lock_guard lock(core_->mutex);
    core_->callback = std::move(callback);
    return true;
  }

  bool schedule() override {
    // Changes are reported against the flags as they are now.
    auto now = watcher_->flagsOf(*core_);
    std::lock_guard lock(core_->mutex);
    core_->scheduled = true;
    core_->lastFlags = now;
    return true;
  }

  void unschedule() override { core_->unschedule(); }

 private:
  std::shared_ptr<NetworkWatcher> watcher_;
  std::shared_ptr<TargetCore> core_;
};

// Thread contract: any thread.
class GioReachability final : public Reachability {
 public:
  GioReachability(std::shared_ptr<MainLoop> mainLoop, std::shared_ptr<MainLoop> network)
      : mainLoop_(std::move(mainLoop)), network_(std::move(network)) {}

  std::unique_ptr<ReachabilityTarget> targetForHostName(const std::string& host) override {
    return make(host, /*mustBeAddress=*/false);
  }
  std::unique_ptr<ReachabilityTarget> targetForAddress(const std::string& address) override {
    return make(address, /*mustBeAddress=*/true);
  }

 private:
  std::unique_ptr<ReachabilityTarget> make(const std::string& text, bool mustBeAddress) {
    auto kind = classifyReachabilityTarget(text, mustBeAddress);
    if (!kind) return nullptr;
    std::string probe;
    if (*kind == ReachabilityTargetKind::Loopback) {
      probe = g_hostname_is_ip_address(text.c_str()) ? text : "127.0.0.1";
    } else if (*kind == ReachabilityTargetKind::Address ||
               *kind == ReachabilityTargetKind::LinkLocal) {
      probe = text;
    }
    std::shared_ptr<NetworkWatcher> watcher;
    {
      // The watcher starts with the first target and stays for the rest.
      std::lock_guard lock(mutex_);
      if (!watcher_ && !watcherFailed_) {
        // The named loop, else the main loop; a loop of the watcher's own
        // when neither runs on GLib.
        std::shared_ptr<MainLoop> loop = network_ ? network_ : mainLoop_;
        if (!loop || glibContextOf(*loop) == nullptr) loop = makeGlibMainLoop(nullptr);
        watcher_ = NetworkWatcher::start(mainLoop_, std::move(loop));
        watcherFailed_ = !watcher_;
      }
      watcher = watcher_;
    }
    if (!watcher) return nullptr;
    return std::make_unique<GioReachabilityTarget>(
        std::move(watcher), std::make_shared<TargetCore>(*kind, std::move(probe)));
  }

  std::shared_ptr<MainLoop> mainLoop_;
  std::shared_ptr<MainLoop> network_;  // null: the main loop
  std::mutex mutex_;
  std::shared_ptr<NetworkWatcher> watcher_;  // guarded by mutex_
  bool watcherFailed_ = false;               // guarded by mutex_
};

}  // namespace

std::shared_ptr<Reachability> makeGioReachability(std::shared_ptr<MainLoop> mainLoop,
                                                  std::shared_ptr<MainLoop> network) {
  return std::make_shared<GioReachability>(std::move(mainLoop), std::move(network));
}

}  // namespace qs
