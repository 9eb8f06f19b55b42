// What a person running vantrel by hand sees beyond what the controlling
// process sees. All of it is written only when standard error is a terminal:
// a process that reads standard error through a pipe or a file gets the
// same bytes as ever.
#ifndef VANTREL_VANTREL_TERMINAL_H
#define VANTREL_VANTREL_TERMINAL_H

#include <chrono>
#include <cstdint>
#include <string>

#include "commons/exceptions.h"

namespace velmo {

// The reason a command line was refused, which otherwise goes to the log only.
void showRefusal(const ExTraceable& e);

// Ends the line of a failure's message, already written, and lists the
// failures it wraps under it, outermost first.
void showCauses(const ExTraceable& e);

// One line that redraws itself while something long goes on: the item in
// hand, bytes done and in all, percent, rate and time left. It redraws at
// most five times a second and ends its line when it goes away.
class ProgressLine {
public:
    ProgressLine();
    ~ProgressLine();
    ProgressLine(const ProgressLine&) = delete;
    ProgressLine& operator=(const ProgressLine&) = delete;

    void update(const std::string& item, int64_t done, int64_t total);

private:
    bool shown_;
    bool drawn_;
    std::chrono::steady_clock::time_point start_;
    std::chrono::steady_clock::time_point last_;
};

}  // namespace velmo

#endif
