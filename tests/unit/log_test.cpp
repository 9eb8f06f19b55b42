#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <log4cpp/Appender.hh>
#include <log4cpp/Category.hh>
#include <log4cpp/Configurator.hh>

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
    std::ifstream in(name.c_str(), std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
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

xmlNode* firstElement(xmlNode* parent) { return xmlFirstElementChild(parent); }
std::string name(xmlNode* node) { return reinterpret_cast<const char*>(node->name); }
int countAttributes(xmlNode* node) {
    int n = 0;
    for (xmlAttr* a = node->properties; a; a = a->next) ++n;
    return n;
}

}  // namespace

TEST_F(LogTest, ResultDocumentOfAFailureWithAnInnerException) {
    addSecret("pa55word");
    Exc<&SshConnectionFault> inner = VELMO_EXC(SshConnectionFault);
    Exc<&CantRetrieveDump> outer = VELMO_EXC_INNER(CantRetrieveDump, inner);
    Exc<&FailedToExecuteScout> leaky = VELMO_EXC(FailedToExecuteScout) % 1 % "sudo said pa55word";
    {
        SessionLifetimeController session(session_);
        LogLifetimeController log("");
        theLog->pushObject("alice", "account");
        theLog->log(outer);
        theLog->popObject();
        theLog->log(leaky);
    }
    EXPECT_EQ(nullptr, theLog);

    const std::string text = readFile(session_ + "/migration.result");
    EXPECT_EQ(std::string::npos, text.find("log_test")) << text;
    EXPECT_EQ(std::string::npos, text.find("TestBody")) << text;
    EXPECT_EQ(std::string::npos, text.find("pa55word")) << text;

    tXmlQmvDocument doc(std::string(text.c_str()));
    doc.initFileDoc("execution-result");
    EXPECT_EQ("error", doc.getAttribute(doc.getRoot(), "status"));
    xmlNode* object = firstElement(doc.getRoot());
    ASSERT_EQ("object", name(object));
    EXPECT_EQ("alice", doc.getAttribute(object, "name"));
    EXPECT_EQ("account", doc.getAttribute(object, "type"));

    xmlNode* message = firstElement(object);
    ASSERT_EQ("message", name(message));
    EXPECT_EQ(nullptr, xmlNextElementSibling(message));
    EXPECT_EQ(3, countAttributes(message));
    EXPECT_EQ("CantRetrieveDump", doc.getAttribute(message, "code"));
    EXPECT_EQ(outer.id(), doc.getAttribute(message, "id"));
    EXPECT_EQ("error", doc.getAttribute(message, "severity"));
    xmlNode* description = firstElement(message);
    ASSERT_EQ("description", name(description));
    EXPECT_EQ("Error during dump retrieval", doc.getNodeText(description));

    xmlNode* nested = xmlNextElementSibling(description);
    ASSERT_EQ("message", name(nested));
    EXPECT_EQ(nullptr, xmlNextElementSibling(nested));
    EXPECT_EQ(3, countAttributes(nested));
    EXPECT_EQ("SshConnectionFault", doc.getAttribute(nested, "code"));
    EXPECT_EQ(inner.id(), doc.getAttribute(nested, "id"));
    EXPECT_EQ("Lost connection with the remote host", doc.getNodeText(firstElement(nested)));
    EXPECT_EQ(nullptr, xmlNextElementSibling(firstElement(nested)));

    xmlNode* second = xmlNextElementSibling(object);
    ASSERT_EQ("message", name(second));
    EXPECT_EQ("Failed to execute scout. \nThe return code is 1\nThe output on STDERR is\nsudo said ********",
              doc.getNodeText(firstElement(second)));
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
    tXmlQmvDocument doc((session_ + "/objects.result").c_str());
    doc.initFileDoc("execution-result");
    EXPECT_EQ("success", doc.getAttribute(doc.getRoot(), "status"));

    xmlNode* kept = firstElement(doc.getRoot());
    ASSERT_NE(nullptr, kept);
    EXPECT_EQ("kept", doc.getAttribute(kept, "name"));
    ASSERT_EQ("message", name(firstElement(kept)));
    EXPECT_EQ(nullptr, xmlNextElementSibling(firstElement(kept)));

    xmlNode* outer = xmlNextElementSibling(kept);
    ASSERT_NE(nullptr, outer);
    EXPECT_EQ("outer", doc.getAttribute(outer, "name"));
    xmlNode* inner = firstElement(outer);
    ASSERT_NE(nullptr, inner);
    EXPECT_EQ("inner", doc.getAttribute(inner, "name"));
    EXPECT_EQ(nullptr, xmlNextElementSibling(inner));
    EXPECT_EQ("StreamWrite", doc.getAttribute(firstElement(inner), "code"));
    EXPECT_EQ(nullptr, xmlNextElementSibling(outer));
}

TEST_F(LogTest, EarlierResultFilesAreMovedAside) {
    SessionLifetimeController session(session_);
    for (const char* run : {"first", "second", "third"}) {
        XmlLog log("run.result");
        log.pushObject(run, "run");
        log.log(VELMO_EXC(StreamRead));
        log.popObject();
    }
    auto runOf = [](const std::string& file) {
        tXmlQmvDocument doc(file.c_str());
        doc.initFileDoc("execution-result");
        return doc.getAttribute(xmlFirstElementChild(doc.getRoot()), "name");
    };
    EXPECT_EQ("third", runOf(session_ + "/run.result"));
    EXPECT_EQ("first", runOf(session_ + "/run.result.1"));
    EXPECT_EQ("second", runOf(session_ + "/run.result.2"));
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

TEST_F(LogTest, MissingLogConfigurationReachesTheCaller) {
    const std::string properties = productRoot().dir + "/QMV/log4cpp.properties";
    const int code = inChild([&] {
        fs::rename(properties, properties + ".away");
        int result = 1;
        try {
            initializeLog4Cpp(false);
        } catch (const log4cpp::ConfigureFailure&) {
            result = 0;
        }
        fs::rename(properties + ".away", properties);
        return result;
    });
    EXPECT_EQ(0, code);
}
