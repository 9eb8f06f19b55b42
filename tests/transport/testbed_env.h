// Helpers shared by the transport tests: the test bed's environment, the
// scripted server, scratch directories and log capture.
#ifndef VANTREL_TESTS_TRANSPORT_TESTBED_ENV_H
#define VANTREL_TESTS_TRANSPORT_TESTBED_ENV_H

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>

#include <fcntl.h>
#include <pwd.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <log4cpp/Category.hh>
#include <log4cpp/OstreamAppender.hh>
#include <log4cpp/PatternLayout.hh>

#include "commons/ssh-transfer.h"

namespace tb {

inline std::string env(const char* name) {
    const char* value = std::getenv(name);
    if (value == nullptr)
        throw std::runtime_error(std::string("not run under with_testbed: ") + name + " is unset");
    return value;
}

inline unsigned short port(const char* name) {
    return static_cast<unsigned short>(std::stoi(env(name)));
}

inline std::string host() { return env("VANTREL_TB_HOST"); }
inline std::string user() { return env("VANTREL_TB_USER"); }
inline std::string password() { return env("VANTREL_TB_PASSWORD"); }

inline std::unique_ptr<velmo::Ssh> connect(const char* portVariable = "VANTREL_TB_PORT") {
    return std::unique_ptr<velmo::Ssh>(
        new velmo::Ssh(host(), user(), password(), false, port(portVariable)));
}

inline std::string readFile(const std::string& path) {
    std::ifstream in(path.c_str(), std::ios::binary);
    std::ostringstream all;
    all << in.rdbuf();
    return all.str();
}

inline void writeFile(const std::string& path, const std::string& content, mode_t mode = 0644) {
    std::ofstream out(path.c_str(), std::ios::binary | std::ios::trunc);
    out << content;
    out.close();
    ::chmod(path.c_str(), mode);
}

inline bool exists(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0;
}

// A scratch directory that the test user may read and write; removed at the
// end.
class ScratchDir {
public:
    ScratchDir() {
        char pattern[] = "/tmp/vantrel-transport-XXXXXX";
        if (::mkdtemp(pattern) == nullptr)
            throw std::runtime_error("mkdtemp failed");
        path_ = pattern;
        ::chmod(path_.c_str(), 0755);
        if (const passwd* pw = ::getpwnam(user().c_str()))
            if (::chown(path_.c_str(), pw->pw_uid, pw->pw_gid) != 0)
                throw std::runtime_error("chown of the scratch directory failed");
    }
    ~ScratchDir() {
        const std::string command = "rm -rf '" + path_ + "'";
        if (std::system(command.c_str()) != 0)
            std::fprintf(stderr, "could not remove %s\n", path_.c_str());
    }
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

// The paramiko server of the test bed in one of its modes; stopped when the
// object goes away.
class ScriptedServer {
public:
    ScriptedServer(const std::string& mode, const std::string& logFile) : log_(logFile) {
        int out[2];
        if (::pipe(out) != 0)
            throw std::runtime_error("pipe failed");
        const std::string command = "exec " + env("VANTREL_TB_SCRIPTED") + " " + mode + " --log '" + logFile + "'";
        pid_ = ::fork();
        if (pid_ == 0) {
            ::dup2(out[1], 1);
            ::close(out[0]);
            ::close(out[1]);
            ::execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char*>(nullptr));
            ::_exit(127);
        }
        ::close(out[1]);
        stdout_ = out[0];
        std::string line;
        char c;
        while (::read(stdout_, &c, 1) == 1 && c != '\n')
            line += c;
        if (line.compare(0, 5, "PORT ") != 0)
            throw std::runtime_error("scripted server did not start: '" + line + "'");
        port_ = static_cast<unsigned short>(std::stoi(line.substr(5)));
    }
    ~ScriptedServer() {
        ::close(stdout_);
        ::kill(pid_, SIGTERM);
        int status;
        ::waitpid(pid_, &status, 0);
    }
    unsigned short port() const { return port_; }
    std::string events() const { return readFile(log_); }

private:
    std::string log_;
    pid_t pid_;
    int stdout_;
    unsigned short port_;
};

// Collects every line of the transport's log categories while it lives.
class LogCapture {
public:
    LogCapture() {
        appender_ = new log4cpp::OstreamAppender("transport-test", &text_);
        auto* layout = new log4cpp::PatternLayout();
        layout->setConversionPattern("%c %p %m%n");
        appender_->setLayout(layout);
        log4cpp::Category& root = log4cpp::Category::getRoot();
        savedPriority_ = root.getPriority();
        root.setPriority(log4cpp::Priority::DEBUG);
        root.addAppender(appender_);
    }
    ~LogCapture() {
        log4cpp::Category& root = log4cpp::Category::getRoot();
        root.removeAppender(appender_);
        root.setPriority(savedPriority_);
    }
    std::string text() const { return text_.str(); }

private:
    std::ostringstream text_;
    log4cpp::Appender* appender_;
    log4cpp::Priority::Value savedPriority_;
};

}  // namespace tb

#endif
