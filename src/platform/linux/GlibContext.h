#pragma once

#include <glib.h>

#include <memory>

#include "quarrystone/platform/Platform.h"

namespace qs {

// The GLib context behind a main loop made by makeGlibMainLoop; null for any
// other MainLoop. The adapters that do network I/O attach their sources to
// it, from functions dispatched onto that loop.
GMainContext* glibContextOf(const MainLoop& loop);

// `network` when it is a GLib loop, otherwise a fresh library-owned one: the
// loop on which an adapter runs its I/O.
std::shared_ptr<MainLoop> glibNetworkLoop(std::shared_ptr<MainLoop> network);

// Runs `fn` on `loop` and waits for it; inline when the caller is already on
// the loop's thread. Returns false if the loop dropped the call (it is being
// destroyed).
bool runOnLoopAndWait(MainLoop& loop, std::function<void()> fn);

}  // namespace qs
