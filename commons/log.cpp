#include "commons/log.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <functional>
#include <sstream>

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/format.hpp>
#include <log4cpp/Appender.hh>
#include <log4cpp/Category.hh>
#include <log4cpp/Priority.hh>
#include <log4cpp/PropertyConfigurator.hh>

#include "commons/commons.h"
#include "commons/session.h"
#include "commons/sh_quoting.h"

namespace velmo {

namespace {
log4cpp::Category& runLog = log4cpp::Category::getInstance("p.log");
}  // namespace

DebugLog* theDebugLog = nullptr;
XmlLog* theLog = nullptr;

// ---------------------------------------------------------------- debug log

void DebugLog::log(const std::string& text) { runLog.getStream(log4cpp::Priority::INFO) << maskSecrets(text); }

void DebugLog::log(const ExTraceable& e) { log(formatPlainTextMessage(e)); }

namespace {

bool log4cppConfigured = false;

// Replaces every "${NAME}" for which value gives a text; other references are
// left for log4cpp, which resolves them from its own properties and the
// environment.
std::string substituteVariables(const std::string& text,
                                const std::function<bool(const std::string&, std::string&)>& value) {
    std::string out;
    std::string::size_type at = 0;
    while (true) {
        std::string::size_type open = text.find("${", at);
        std::string::size_type close = open == std::string::npos ? open : text.find('}', open + 2);
        if (close == std::string::npos) break;
        std::string replacement;
        out.append(text, at, open - at);
        if (value(text.substr(open + 2, close - open - 2), replacement))
            out += replacement;
        else
            out.append(text, open, close + 1 - open);
        at = close + 1;
    }
    out.append(text, at, std::string::npos);
    return out;
}

// An open file that lives in memory only, closed when it goes out of scope.
class MemoryFile {
public:
    MemoryFile() : fd_(memfd_create("log4cpp.properties", MFD_CLOEXEC)) {}
    ~MemoryFile() {
        if (fd_ >= 0) ::close(fd_);
    }
    bool write(const std::string& text) const {
        for (std::size_t done = 0; fd_ >= 0 && done < text.size();) {
            const ssize_t n = ::write(fd_, text.data() + done, text.size() - done);
            if (n <= 0) return false;
            done += static_cast<std::size_t>(n);
        }
        return fd_ >= 0;
    }
    // A name under which the file can be opened again.
    std::string name() const { return "/proc/self/fd/" + std::to_string(fd_); }

private:
    int fd_;
};

void configureLog4Cpp(const std::string& propertiesFile) {
    std::ifstream in(propertiesFile.c_str(), std::ios::binary);
    if (!in) {
        // Let the configurator report the missing file in its own words.
        log4cpp::PropertyConfigurator::configure(propertiesFile);
        return;
    }
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    // The configurator reads only files: hand it a substituted copy that
    // lives in memory, so that starting up writes nothing to disk.
    MemoryFile copy;
    // The session's log is opened only when the configuration names it.
    const auto value = [](const std::string& name, std::string& text) {
        if (name != "LOG_FILE_NAME") return false;
        text = theSession ? theSession->logForLog4cpp() : std::string();
        return true;
    };
    if (!copy.write(substituteVariables(text, value)))
        throw VELMO_EXC(FileWrite) % "the copy of the log configuration" % std::strerror(errno);
    log4cpp::PropertyConfigurator::configure(copy.name());
}

}  // namespace

void initializeLog4Cpp(bool debug) {
    if (log4cppConfigured) return;
    configureLog4Cpp(files::getQmvLogConfigFileName());
    if (!debug) {
        log4cpp::Category& root = log4cpp::Category::getRoot();
        if (log4cpp::Appender* console = root.getAppender("A2")) root.removeAppender(console);
    }
    log4cppConfigured = true;
}

DebugLogLifetimeController::DebugLogLifetimeController(bool debug) {
    initializeLog4Cpp(debug);
    theDebugLog = new DebugLog();
}

DebugLogLifetimeController::~DebugLogLifetimeController() {
    delete theDebugLog;
    theDebugLog = nullptr;
}

// ---------------------------------------------------------- start/stop lines

void debugLog(const std::string& text) {
    if (theDebugLog != nullptr) theDebugLog->log(text);
}

void debugLog(const ExTraceable& e) {
    if (theDebugLog != nullptr) theDebugLog->log(e);
}

StartStopLogger::StartStopLogger(const std::string& name, int argc, char* const* argv)
    : name_(name), exitCode_(-1) {
    std::string commandLine;
    for (int i = 0; i < argc; ++i) {
        if (i > 0) commandLine += ' ';
        const std::string arg = argv[i] ? argv[i] : "";
        commandLine += arg.empty() ? std::string("''") : sh_quote(arg);
    }
    debugLog(name_ + " started : " + commandLine);
}

StartStopLogger::~StartStopLogger() {
    try {
        if (exitCode_ == -1)
            debugLog(name_ + " finished. " + " (exit code is not reported)");
        else
            debugLog(name_ + " finished. " + "Exit code: " + std::to_string(exitCode_));
    } catch (...) {
        // Nothing is left to tell it to.
    }
}

// ----------------------------------------------------------- result document

void XmlMsgFormatter::setCode(const std::string& code) { doc_.addAttribute(element_, "code", code); }

void XmlMsgFormatter::setId(const std::string& id) { doc_.addAttribute(element_, "id", id); }

void XmlMsgFormatter::setMessage(const std::string& message) {
    doc_.newTextChild(element_, "description", maskSecrets(message, true));
}

void XmlMsgFormatter::setSeverity(int severity) {
    doc_.addAttribute(element_, "severity", severity == 4 ? "warning" : "error");
}

void XmlMsgFormatter::advanceToInnerException() { element_ = doc_.newChild(element_, "message"); }

namespace {

// Renames an existing file to the first free name.1, name.2, ...
void moveAside(const Directory& dir, const std::string& name) {
    struct stat st;
    if (!dir.lstat(name, st)) return;
    for (unsigned n = 1;; ++n) {
        const std::string candidate = name + "." + std::to_string(n);
        if (!dir.lstat(candidate, st)) {
            dir.rename(name, candidate);
            return;
        }
    }
}

}  // namespace

XmlLog::XmlLog(const std::string& name)
    : success_(false),
      dir_(theSession ? theSession->directory() : Directory::open(".")),
      name_(name.empty() ? session_names::RESULT : name) {
    initNewDoc("execution-result");
    moveAside(dir_, name_);
}

XmlLog::~XmlLog() {
    std::string failure;
    try {
        addAttribute(getRoot(), "status", success_ ? "success" : "error");
        saveToFileAtomically(dir_, name_);
        return;
    } catch (const ExTraceable& e) {
        failure = formatPlainTextMessage(e);
    } catch (const std::exception& e) {
        failure = e.what();
    } catch (...) {
        failure = "unknown error";
    }
    // The destructor may run while another error unwinds: report, never throw.
    try {
        const std::string text = "Unable to save the result document " + dir_.pathOf(name_) + ": " + failure;
        std::cerr << text << std::endl;
        debugLog(text);
    } catch (...) {
    }
}

void XmlLog::log(const ExTraceable& e) {
    XmlMsgFormatter formatter(*this, newChild(getRoot(), "message"));
    e.accept(formatter);
}

LogLifetimeController::LogLifetimeController(std::string name) { theLog = new XmlLog(name); }

LogLifetimeController::~LogLifetimeController() {
    delete theLog;
    theLog = nullptr;
}

}  // namespace velmo
