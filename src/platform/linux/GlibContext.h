#pragma once

#include <glib.h>

#include <chrono>
#include <functional>
#include <memory>

#include "quarrystone/platform/Platform.h"

namespace qs {

// The GLib context behind a main loop made by makeGlibMainLoop; null for any
// other MainLoop. The adapters that do network I/O attach their sources to
// it, from functions dispatched onto that loop.
GMainContext* glibContextOf(const MainLoop& loop);

// A GLib loop on a thread of the library's that runs only while there is
// work: from the loop's creation, and from any dispatch or timer, until
// `idle` has passed with none queued and the loop not marked busy. Sources
// attached to its context by other means stay attached while no thread runs;
// they are only polled while one does.
std::shared_ptr<MainLoop> makeOnDemandGlibLoop(std::chrono::milliseconds idle);

// Marks an on-demand loop busy (its thread stays) or not (its idle time
// starts). Nothing for other loops. Loop thread only.
void setGlibLoopBusy(MainLoop& loop, bool busy);

// Tells ThreadSanitizer that data handed to GLib on one thread (a source's
// callback data) is seen in order on another; GLib's own lock, which gives
// that order, is invisible to it. Does nothing in other builds.
void glibHandOver();

// Runs `fn` on `loop` and waits for it; inline when the caller is already on
// the loop's thread. Returns false if the loop dropped the call (it is being
// destroyed).
bool runOnLoopAndWait(MainLoop& loop, std::function<void()> fn);

}  // namespace qs
