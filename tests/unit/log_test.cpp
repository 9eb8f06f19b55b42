#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <functional>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <string>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <log4cpp/Appender.hh>
#include <log4cpp/Category.hh>

#include "commons/commons.h"
#include "commons/log.h"
#include "commons/session.h"
#include "commons/sh_quoting.h"

using namespace velmo;
namespace fs = boost::filesystem;

namespace {

std::string makeTempDir() {
    char name[] = "/tmp/log_test.XXXXXX";
    if (mkdtemp(name) == nullptr) throw std::runtime_error("mkdtemp");
    return name;
}

std::string readFile(const std::string& name) {
    std::stringstream text;
    text << std::ifstream(name.c_str()).rdbuf();
    return text.str();
}

// A product root of our own with the logging configuration of the source
// tree, named in the configuration file before anything reads it.
struct ProductRoot {
    ProductRoot() : dir(makeTempDir()) {
        std::string source = std::getenv("VANTREL_SOURCE_DIR") ? std::getenv("VANTREL_SOURCE_DIR") : "";
        if (source.empty()) source = fs::path(__FILE__).parent_path().parent_path().parent_path().string();
        fs::create_directories(dir + "/QMV/tmp");
        fs::copy_file(source + "/product/QMV/log4cpp.properties", dir + "/QMV/log4cpp.properties");
        fs::create_directories(fs::path(VANTREL_KVA_CONF).parent_path());
        std::ofstream(VANTREL_KVA_CONF) << "PRODUCT_ROOT_D " << dir << "\n";
    }
    ~ProductRoot() { fs::remove_all(dir); }
    std::string dir;
};

const ProductRoot& productRoot() {
    static ProductRoot root;
    return root;
}

class LogTest : public ::testing::Test {
protected:
    void SetUp() override {
        productRoot();
        dir_ = makeTempDir();
        session_ = dir_ + "/session";
    }
    void TearDown() override { fs::remove_all(dir_); }

    std::string dir_;
    std::string session_;
};

// The result file with each message reduced to "<m/>".
std::string shape(const std::string& file) {
    return std::regex_replace(readFile(file), std::regex("<message .*?</message>"), "<m/>");
}

}  // namespace

TEST_F(LogTest, ResultDocumentOfAFailureWithAnInnerException) {
    addSecret("pa55word");
    Exc<&SshConnectionFault> inner = VELMO_EXC(SshConnectionFault);
    Exc<&CantRetrieveDump> outer = VELMO_EXC_INNER(CantRetrieveDump, inner);
    {
        SessionLifetimeController session(session_);
        LogLifetimeController log("");
        theLog->log(outer);
        theLog->log(VELMO_EXC(FailedToExecuteScout) % 1 % "sudo said pa55word");
    }
    EXPECT_EQ(nullptr, theLog);
    const std::string id = "id=\"([0-9a-f-]{36})\"";
    std::regex expected("<\\?xml version=\"1.0\"\\?>\n<execution-result status=\"error\">"
                        "<message code=\"CantRetrieveDump\" " + id + " severity=\"error\">"
                        "<description>Error during dump retrieval</description>"
                        "<message code=\"SshConnectionFault\" " + id + " severity=\"error\">"
                        "<description>Lost connection with the remote host</description></message></message>"
                        "<message code=\"FailedToExecuteScout\" id=\"[^\"]*\" severity=\"error\"><description>"
                        "Failed to execute scout. \nThe return code is 1\nThe output on STDERR is\nsudo said \\*{8}"
                        "</description></message></execution-result>\n");
    const std::string text = readFile(session_ + "/migration.result");
    std::smatch m;
    ASSERT_TRUE(std::regex_match(text, m, expected)) << text;
    EXPECT_EQ(outer.id(), m[1]);
    EXPECT_EQ(inner.id(), m[2]);
}

TEST_F(LogTest, ObjectsWithNothingLoggedLeaveNoTrace) {
    SessionLifetimeController session(session_);
    {
        XmlLog log("objects.result");
        EXPECT_THROW(log.popObject(), Exc<&NoParentNode>);
        log.pushObject("empty", "domain");
        log.popObject();
        log.pushObject("kept", "account");
        log.pushObject("dropped", "domain");
        EXPECT_EQ(2, log.getDepth());
        log.popObject();
        log.log(VELMO_EXC(StreamRead));
        log.popObject();
        log.pushObject("outer", "account");
        log.pushObject("inner", "domain");
        log.log(VELMO_EXC(StreamWrite));
        log.popObject();
        log.pushObject("dropped too", "domain");
        log.popObject();
        log.popObject();
        EXPECT_EQ(0, log.getDepth());
        log.setSuccess(true);
    }
    EXPECT_EQ("<?xml version=\"1.0\"?>\n<execution-result status=\"success\">"
              "<object name=\"kept\" type=\"account\"><m/></object>"
              "<object name=\"outer\" type=\"account\"><object name=\"inner\" type=\"domain\"><m/></object></object>"
              "</execution-result>\n",
              shape(session_ + "/objects.result"));
}

TEST_F(LogTest, EarlierResultFilesAreMovedAside) {
    SessionLifetimeController session(session_);
    for (const char* run : {"first", "second", "third"}) {
        XmlLog log("run.result");
        log.pushObject(run, "run");
        log.log(VELMO_EXC(StreamRead));
        log.popObject();
    }
    EXPECT_NE(std::string::npos, readFile(session_ + "/run.result").find("\"third\""));
    EXPECT_NE(std::string::npos, readFile(session_ + "/run.result.1").find("\"first\""));
    EXPECT_NE(std::string::npos, readFile(session_ + "/run.result.2").find("\"second\""));
    EXPECT_FALSE(fs::exists(session_ + "/run.result.3"));
}

TEST_F(LogTest, FailedSaveAtCloseIsReportedNotThrown) {
    SessionLifetimeController session(session_);
    testing::internal::CaptureStderr();
    { XmlLog log("missing-dir/x.result"); }
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(std::string::npos, err.find("Unable to save the result document " + session_ + "/missing-dir/x.result: "))
        << err;
    EXPECT_NE(std::string::npos, err.find("CantCreateTempFile")) << err;
}

namespace {

// One configured run in a child process: log4cpp is configured once per
// process. Returns what the child found out as its exit status.
int configuredRun(const std::string& session, bool debug) {
    int err = open((session + ".stderr").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    dup2(err, 2);
    close(err);

    SessionLifetimeController sessionLife(session);
    DebugLogLifetimeController debugLife(false, debug);
    if (theDebugLog->isDebugMode() != debug || theDebugLog->isVerboseMode()) return 1;
    addSecret("pa55word");
    {
        const char* argv[] = {"vantrel", "", "--session-path", "a b"};
        StartStopLogger logger("Vantrel", 4, const_cast<char* const*>(argv));
        if (childDaemonHandlers.size() != 1) return 2;
        childDaemonHandlers[0].first(childDaemonHandlers[0].second);
        logger.setExitCode(3);
    }
    if (!childDaemonHandlers.empty()) return 3;
    {
        const char* argv[] = {"vantrel"};
        StartStopLogger logger("Vantrel", 1, const_cast<char* const*>(argv));
    }
    log4cpp::Category::getInstance("p.Ssh").debug("hidden debug line");
    log4cpp::Category::getInstance("p.SendAgentAction").notice("visible notice");
    theDebugLog->log(boost::format("password %1%") % "pa55word");
    // Configured once: a second call changes nothing.
    initializeLog4Cpp(!debug);
    // getAppender(name) looks in log4cpp's global registry: ask the root itself.
    int found = 0;
    for (log4cpp::Appender* a : log4cpp::Category::getRoot().getAllAppenders()) found |= a->getName() == "A2" ? 1 : 0;
    return found ? 10 : 20;
}

int inChild(const std::function<int()>& body) {
    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        int code = 99;
        try {
            code = body();
        } catch (...) {
            code = 98;
        }
        _exit(code);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

TEST_F(LogTest, ConfiguredRunsWriteStartAndStopLines) {
    for (bool debug : {false, true}) {
        SCOPED_TRACE(debug ? "debug" : "normal");
        const std::string session = session_ + (debug ? "-debug" : "-normal");
        EXPECT_EQ(debug ? 10 : 20, inChild([&] { return configuredRun(session, debug); }));

        const std::string log = readFile(session + "/migration.log");
        const std::string start = "[INFO] p.log: Vantrel started : vantrel '' --session-path " + sh_quote("a b") + "\n";
        EXPECT_NE(std::string::npos, log.find(start)) << log;
        EXPECT_NE(std::string::npos, log.find("[INFO] p.log: Vantrel finished. Exit code: 3\n")) << log;
        EXPECT_NE(std::string::npos, log.find("[INFO] p.log: Vantrel started : vantrel\n")) << log;
        EXPECT_NE(std::string::npos, log.find("[INFO] p.log: Vantrel finished.  (exit code is not reported)\n")) << log;
        EXPECT_TRUE(std::regex_search(log, std::regex(R"(p\.log: Vantrel ([0-9]+) -> \(\1 daemon\)\n)"))) << log;
        EXPECT_NE(std::string::npos, log.find("[NOTICE] p.SendAgentAction: visible notice\n")) << log;
        EXPECT_NE(std::string::npos, log.find("password ********")) << log;
        EXPECT_EQ(std::string::npos, log.find("pa55word")) << log;
        EXPECT_EQ(std::string::npos, log.find("hidden debug line")) << log;

        const std::string err = readFile(session + ".stderr");
        EXPECT_EQ(debug, err.find(start) != std::string::npos) << err;
    }
    // The substituted copy of the configuration is gone.
    EXPECT_TRUE(fs::is_empty(productRoot().dir + "/QMV/tmp"));
}
