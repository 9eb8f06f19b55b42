// The two logs of a run: the debug log (log4cpp categories configured from the
// installation's log4cpp.properties) and the XML result document.
#ifndef VANTREL_COMMONS_LOG_H
#define VANTREL_COMMONS_LOG_H

#include <string>
#include <vector>

#include <boost/format.hpp>
#include <log4cpp/Category.hh>

#include "commons/exceptions.h"

namespace velmo {

class DebugLog {
public:
    virtual ~DebugLog();
    virtual void log(const std::string& text) = 0;
    virtual void log(const boost::format& text) = 0;
    virtual void log(const ExTraceable& e) = 0;
    virtual bool isVerboseMode() const = 0;
    virtual bool isDebugMode() const = 0;
};

// The debug log of the run; null outside it.
extern DebugLog* theDebugLog;

class Log {
public:
    virtual ~Log();
    virtual void setSuccess(bool success) = 0;
    virtual void log(const ExTraceable& e) = 0;
    virtual void pushObject(const std::string& name, const std::string& type) = 0;
    virtual void popObject() = 0;
};

// The result document of the run; null outside it.
extern Log* theLog;

// Configures log4cpp from the installation's log4cpp.properties once per
// process, with LOG_FILE_NAME set to the session's log file; removes the
// appender A2 from the root category unless debug is set.
void initializeLog4Cpp(bool debug);

class DebugLogLifetimeController {
public:
    DebugLogLifetimeController(bool verbose, bool debug);
    ~DebugLogLifetimeController();
    DebugLogLifetimeController(const DebugLogLifetimeController&) = delete;
    DebugLogLifetimeController& operator=(const DebugLogLifetimeController&) = delete;
};

class LogLifetimeController {
public:
    explicit LogLifetimeController(std::string name);
    ~LogLifetimeController();
    LogLifetimeController(const LogLifetimeController&) = delete;
    LogLifetimeController& operator=(const LogLifetimeController&) = delete;
};

// Frames a run with its start line and its stop line in "p.log".
class StartStopLogger {
public:
    StartStopLogger(const std::string& name, int argc, char* const* argv);
    ~StartStopLogger();
    void setExitCode(int code);
    void daemonized();

private:
    std::string name_;
    int pid_;
    int exitCode_;
};

typedef void (*DaemonHandler)(void*);
// Hooks for a child or parent process after daemonizing; never run by vantrel.
extern std::vector<std::pair<DaemonHandler, void*>> childDaemonHandlers;
extern std::vector<std::pair<DaemonHandler, void*>> parentDaemonHandlers;

}  // namespace velmo

#endif
