#include <csignal>
#include <cstring>
#include <exception>
#include <iostream>

#include "commons/exceptions.h"
#include "commons/ssh-transfer.h"
#include "vantrel/vantrel.h"

namespace {

void onStopRequest(int) { velmo::terminateProgram(); }

// SIGTERM and SIGINT ask for a clean stop: the transfer in progress ends at
// its next chunk or wait and the run exits 0 with the termination text. The
// handler only sets the flag; interrupted system calls resume (SA_RESTART),
// and the waits that do not resume are followed by a look at the flag.
void handleStopRequests() {
    struct sigaction action;
    std::memset(&action, 0, sizeof action);
    action.sa_handler = onStopRequest;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGINT, &action, nullptr);
}

}  // namespace

int main(int argc, char** argv) {
    // A controlling process may start us with signals blocked: a stop
    // request must get through whatever it inherited.
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    handleStopRequests();
    try {
        return velmo::real_main(argc, argv);
    } catch (const velmo::ExTraceable& e) {
        std::cerr << "Uncaught ExTraceableException: " << velmo::formatPlainTextMessage(e) << "\n";
    } catch (const std::exception& e) {
        std::cerr << "Uncaught std::exception: " << e.what() << "\n";
    } catch (...) {
        std::cerr << "Uncaught unknown exception\n";
    }
    return 1;
}
