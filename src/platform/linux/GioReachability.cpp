// Reachability from GIO's network monitor. A private monitor instance lives
// on the adapters' network loop (a GLib loop the library runs, shared with
// the HTTP client), so its change signals arrive whatever the host does with
// its own loops; changes are handed to the platform MainLoop. Flags are computed from a cached copy
// of the monitor's state (plus a kernel route probe for numeric addresses), so reading them is
// cheap and safe from any thread and never waits on DNS.
#include "GioReachability.h"

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
//   GIO has no notion of a connection brought up on demand.
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

void onNetworkChanged(GNetworkMonitor*, gboolean, gpointer watcher);
void onPropertyChanged(GObject*, GParamSpec*, gpointer watcher);

// Owns a private GNetworkMonitor that lives on the network loop: it is made
// there, signals there and is released there. Thread contract: add() and
// flagsOf() from any thread; the monitor and its signals only on the network
// loop's thread.
class NetworkWatcher {
 public:
  // Null when no monitor can be made.
  static std::shared_ptr<NetworkWatcher> start(std::shared_ptr<MainLoop> mainLoop,
                                               std::shared_ptr<MainLoop> network) {
    auto watcher = std::make_shared<NetworkWatcher>(std::move(mainLoop), std::move(network));
    return watcher->run() ? watcher : nullptr;
  }

  NetworkWatcher(std::shared_ptr<MainLoop> mainLoop, std::shared_ptr<MainLoop> network)
      : mainLoop_(std::move(mainLoop)), network_(std::move(network)) {}

  NetworkWatcher(const NetworkWatcher&) = delete;
  NetworkWatcher& operator=(const NetworkWatcher&) = delete;

  ~NetworkWatcher() {
    if (monitor_ == nullptr) return;
    runOnLoopAndWait(*network_, [this] {
      g_signal_handlers_disconnect_matched(monitor_, G_SIGNAL_MATCH_DATA, 0, 0, nullptr, nullptr,
                                           this);
      g_object_unref(monitor_);
      monitor_ = nullptr;
    });
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

  // Network loop: refreshes the state and reports every scheduled target
  // whose flags changed, through the main loop.
  void refresh() {
    readState();
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
  // Makes the monitor on the network loop and waits until it exists (or
  // has failed).
  bool run() {
    // The process-wide monitor tells which implementation GIO picked; ours is
    // a fresh instance of it, made with the network loop's context as the
    // thread default so that it signals there.
    GNetworkMonitor* shared = g_network_monitor_get_default();
    GMainContext* context = glibContextOf(*network_);
    if (shared == nullptr || context == nullptr) return false;
    GType type = reinterpret_cast<GTypeInstance*>(shared)->g_class->g_type;
    runOnLoopAndWait(*network_, [this, type, context] {
      g_main_context_push_thread_default(context);
      GError* error = nullptr;
      auto* monitor = static_cast<GNetworkMonitor*>(g_initable_new(type, nullptr, &error, nullptr));
      if (error != nullptr) g_error_free(error);
      g_main_context_pop_thread_default(context);
      if (monitor == nullptr) return;
      monitor_ = monitor;
      g_signal_connect_data(monitor, "network-changed",
                            reinterpret_cast<GCallback>(&onNetworkChanged), this, nullptr,
                            static_cast<GConnectFlags>(0));
      for (const char* signal : {"notify::connectivity", "notify::network-metered"}) {
        g_signal_connect_data(monitor, signal, reinterpret_cast<GCallback>(&onPropertyChanged),
                              this, nullptr, static_cast<GConnectFlags>(0));
      }
      readState();
    });
    return monitor_ != nullptr;
  }

  // Network loop only.
  void readState() {
    NetworkState network{g_network_monitor_get_network_available(monitor_) != FALSE,
                         g_network_monitor_get_connectivity(monitor_),
                         g_network_monitor_get_network_metered(monitor_) != FALSE};
    std::lock_guard lock(mutex_);
    state_ = network;
  }

  std::shared_ptr<MainLoop> mainLoop_;
  std::shared_ptr<MainLoop> network_;
  // Written on the network loop while start() or the destructor waits for it.
  GNetworkMonitor* monitor_ = nullptr;
  mutable std::mutex mutex_;
  NetworkState state_;                              // guarded by mutex_
  std::vector<std::weak_ptr<TargetCore>> targets_;  // guarded by mutex_
};

void onNetworkChanged(GNetworkMonitor*, gboolean, gpointer watcher) {
  static_cast<NetworkWatcher*>(watcher)->refresh();
}

void onPropertyChanged(GObject*, GParamSpec*, gpointer watcher) {
  static_cast<NetworkWatcher*>(watcher)->refresh();
}

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
        watcher_ = NetworkWatcher::start(mainLoop_, glibNetworkLoop(network_));
        watcherFailed_ = !watcher_;
      }
      watcher = watcher_;
    }
    if (!watcher) return nullptr;
    return std::make_unique<GioReachabilityTarget>(
        std::move(watcher), std::make_shared<TargetCore>(*kind, std::move(probe)));
  }

  std::shared_ptr<MainLoop> mainLoop_;
  std::shared_ptr<MainLoop> network_;  // null: a loop of the watcher's own
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
