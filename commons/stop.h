// A stop request (SIGTERM, SIGINT): every transfer ends at its next chunk or
// wait, and the run ends as a clean stop. The request is one flag that a
// signal handler sets and every thread reads.
#ifndef VANTREL_COMMONS_STOP_H
#define VANTREL_COMMONS_STOP_H

#include <stdexcept>

#include "commons/exceptions.h"

namespace velmo {

// Stands outside the tagged exceptions; the driver treats it as a clean stop.
class MigrationTerminatedException : public std::runtime_error {
public:
    MigrationTerminatedException();
};

// Asks every transfer to stop; safe in a signal handler.
void terminateProgram();
// Whether a stop was asked for.
bool programTerminated();
// Throws MigrationTerminatedException once a stop was asked for, unless this
// thread finishes one last exchange (FinishingDespiteStop).
void checkProgramTerminated();

// While it lives, this thread's checks let one last exchange finish
// (removing on the source host what arrived, say): its caller bounds it in
// time.
class FinishingDespiteStop {
public:
    FinishingDespiteStop();
    ~FinishingDespiteStop();
    FinishingDespiteStop(const FinishingDespiteStop&) = delete;
    FinishingDespiteStop& operator=(const FinishingDespiteStop&) = delete;
};

// Runs work. A stop request cuts the library's waits short: what fails then
// fails because of the stop, and ends as one.
template <class Work>
auto stoppable(Work work) -> decltype(work()) {
    try {
        return work();
    } catch (const ExTraceable&) {
        checkProgramTerminated();
        throw;
    }
}

}  // namespace velmo

#endif
