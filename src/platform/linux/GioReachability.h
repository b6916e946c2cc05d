#pragma once

#include <gio/gio.h>

#include <cstdint>
#include <optional>
#include <string>

namespace qs {

// What is known of the machine's network, in the terms of GIO's network
// monitor: the route watch fills in availability (and full connectivity with
// it); a source that knows of portals or metered links may say more.
struct NetworkState {
  bool available = false;  // there is a default route
  GNetworkConnectivity connectivity = G_NETWORK_CONNECTIVITY_LOCAL;
  bool metered = false;
};

// What a reachability target points at, which decides how its flags are made.
enum class ReachabilityTargetKind {
  Internet,   // the wildcard address: any route out
  HostName,   // a name; taken to be reached through the default route (no lookup)
  Address,    // a numeric address elsewhere
  Loopback,   // this machine (127/8, ::1, "localhost")
  LinkLocal,  // the local link (169.254/16, fe80::/10)
};

// Classifies a target's text. `mustBeAddress`: names are refused. Nullopt when
// the text cannot name a target.
std::optional<ReachabilityTargetKind> classifyReachabilityTarget(const std::string& text,
                                                                 bool mustBeAddress);

// The reachability flag bits for a target, from the monitor's state and, for
// address targets, whether the kernel has a route to the address. Pure.
std::uint32_t reachabilityFlagsFor(const NetworkState& network, ReachabilityTargetKind kind,
                                   bool routeToTarget);

}  // namespace qs
