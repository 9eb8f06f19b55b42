#include <csignal>
#include <exception>
#include <iostream>

#include "commons/exceptions.h"
#include "vantrel/vantrel.h"

int main(int argc, char** argv) {
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
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
