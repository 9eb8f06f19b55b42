// The driver: sets up the session and the logs, runs the one action of the
// run and turns its failures into exit codes.
#ifndef VANTREL_VANTREL_H
#define VANTREL_VANTREL_H

#include <memory>
#include <string>

#include "vantrel/actions.h"
#include "vantrel/options.h"

namespace velmo {

int real_main(int argc, char** argv);
int do_actions(config& cfg);
std::unique_ptr<Action> getActionById(const config& cfg);
Action* getActionByIdInternal(const config& cfg);
std::string getLogName(const config& cfg);

}  // namespace velmo

#endif
