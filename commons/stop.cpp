#include "commons/stop.h"

#include <atomic>

namespace velmo {

namespace {

std::atomic<bool> stopRequested(false);
static_assert(std::atomic<bool>::is_always_lock_free, "a signal handler sets the stop flag");

// Set while the thread finishes one last exchange that a stop request must
// not cut short.
thread_local bool finishingDespiteStop = false;

}  // namespace

MigrationTerminatedException::MigrationTerminatedException()
    : std::runtime_error("Migration has been terminated") {}

void terminateProgram() { stopRequested.store(true); }

bool programTerminated() { return stopRequested.load(); }

void checkProgramTerminated() {
    if (stopRequested.load() && !finishingDespiteStop) throw MigrationTerminatedException();
}

FinishingDespiteStop::FinishingDespiteStop() { finishingDespiteStop = true; }

FinishingDespiteStop::~FinishingDespiteStop() { finishingDespiteStop = false; }

}  // namespace velmo
