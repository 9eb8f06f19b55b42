// What a person running vantrel by hand sees beyond what the controlling
// process sees. Both functions write only when standard error is a terminal:
// a process that reads standard error through a pipe or a file gets the
// same bytes as ever.
#ifndef VANTREL_VANTREL_TERMINAL_H
#define VANTREL_VANTREL_TERMINAL_H

#include "commons/exceptions.h"

namespace velmo {

// The reason a command line was refused, which otherwise goes to the log only.
void showRefusal(const ExTraceable& e);

// Ends the line of a failure's message, already written, and lists the
// failures it wraps under it, outermost first.
void showCauses(const ExTraceable& e);

}  // namespace velmo

#endif
