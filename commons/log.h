// The two logs of a run: the debug log (log4cpp categories configured from the
// installation's log4cpp.properties) and the XML result document.
#ifndef VANTREL_COMMONS_LOG_H
#define VANTREL_COMMONS_LOG_H

#include <string>

#include <libxml/tree.h>

#include "commons/exceptions.h"
#include "commons/local_files.h"
#include "commons/xml_wrap.h"

namespace velmo {

// The debug log: every line is one INFO event of the category "p.log", with
// every known password masked.
class DebugLog {
public:
    void log(const std::string& text);
    void log(const ExTraceable& e);
};

// The debug log of the run; null outside it.
extern DebugLog* theDebugLog;
// Writes into the debug log of the run, when there is one.
void debugLog(const std::string& text);
void debugLog(const ExTraceable& e);

// Writes an exception into the result document: attributes code, id and
// severity and a "description" on the current element, and a nested "message"
// element per inner exception. Where it was thrown is never written.
class XmlMsgFormatter : public ExInfoVisitor {
public:
    XmlMsgFormatter(tXmlQmvDocument& doc, xmlNode* element) : doc_(doc), element_(element) {}
    void setCode(const std::string& code) override;
    void setId(const std::string& id) override;
    void setMessage(const std::string& message) override;
    void setContext(const std::string&) override {}
    void setFile(const std::string&) override {}
    void setLine(int) override {}
    void advanceToInnerException() override;
    void setSeverity(int severity) override;

private:
    tXmlQmvDocument& doc_;
    xmlNode* element_;
};

// The result document "execution-result" of a run, saved atomically when it
// is destroyed.
class XmlLog : public tXmlQmvDocument {
public:
    // name empty: the session's result file; otherwise that name in the session
    // directory. An existing file of that name is moved to name.1, name.2, ...
    explicit XmlLog(const std::string& name);
    // Saves the document; failures are reported on stderr and in the debug log.
    ~XmlLog();

    void setSuccess(bool success) { success_ = success; }
    void log(const ExTraceable& e);

private:
    bool success_;
    Directory dir_;
    std::string name_;
};

// The result document of the run; null outside it.
extern XmlLog* theLog;

// Configures log4cpp from the installation's log4cpp.properties once per
// process, with LOG_FILE_NAME set to the session's log file; removes the
// appender A2 from the root category unless debug is set.
void initializeLog4Cpp(bool debug);

// debug (--verbose) keeps the log's copy on standard error (appender A2).
class DebugLogLifetimeController {
public:
    explicit DebugLogLifetimeController(bool debug);
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
    void setExitCode(int code) { exitCode_ = code; }

private:
    std::string name_;
    int exitCode_;
};

}  // namespace velmo

#endif
