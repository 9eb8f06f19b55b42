// The two logs of a run: the debug log (log4cpp categories configured from the
// installation's log4cpp.properties) and the XML result document.
#ifndef VANTREL_COMMONS_LOG_H
#define VANTREL_COMMONS_LOG_H

#include <string>
#include <vector>

#include <libxml/tree.h>

#include <boost/format.hpp>
#include <log4cpp/Category.hh>

#include "commons/exceptions.h"
#include "commons/xml_wrap.h"

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

// Writes every line as one INFO event of the category "p.log".
class Log4cppDebugLog : public DebugLog {
public:
    Log4cppDebugLog(bool verbose, bool debug) : verbose_(verbose), debug_(debug) {}
    void log(const std::string& text) override;
    void log(const boost::format& text) override;
    void log(const ExTraceable& e) override;
    bool isVerboseMode() const override { return verbose_; }
    bool isDebugMode() const override { return debug_; }

private:
    static log4cpp::Category* category_;
    bool verbose_;
    bool debug_;
};

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
// is destroyed. Objects in which nothing was logged leave no trace.
class XmlLog : public Log, public tXmlQmvDocument {
public:
    // name empty: the session's result file; otherwise that name in the session
    // directory. An existing file of that name is moved to name.1, name.2, ...
    explicit XmlLog(const std::string& name);
    // Saves the document; failures are reported on stderr and in the debug log.
    ~XmlLog() override;

    void setSuccess(bool success) override { success_ = success; }
    void log(const ExTraceable& e) override;
    void pushObject(const std::string& name, const std::string& type) override;
    // Throws Exc<&NoParentNode> when no object is open.
    void popObject() override;
    // Number of open objects.
    virtual int getDepth() const;

    const std::string& getFileName() const { return fileName_; }

private:
    bool success_;
    std::string fileName_;
    XmlNode current_;
    std::vector<bool> contentFlags_;
};

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
