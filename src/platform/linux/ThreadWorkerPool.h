#pragma once

#include <chrono>
#include <memory>

#include "quarrystone/platform/WorkerPool.h"

namespace qs {

// A worker pool whose threads are made on demand: a task that finds no idle
// thread gets a new one, up to 16 threads; past that it waits for one of them,
// so at most 16 tasks wait for each other. A thread that has
// been idle for `idleTimeout` ends, so an idle pool has no threads at all.
// Caller-owned; destruction lets queued and running tasks finish first.
std::shared_ptr<WorkerPool> makeThreadWorkerPool(std::chrono::milliseconds idleTimeout);

}  // namespace qs
