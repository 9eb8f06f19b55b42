#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <boost/filesystem.hpp>
#include <log4cpp/AppenderSkeleton.hh>
#include <log4cpp/Category.hh>

#include "commons/agent_spec.h"
#include "commons/exceptions.h"
#include "commons/session.h"

using namespace velmo;
namespace fs = boost::filesystem;

namespace {

// Collects "category|PRIORITY|message" lines.
class CollectingAppender : public log4cpp::AppenderSkeleton {
public:
    CollectingAppender() : log4cpp::AppenderSkeleton("collect") {}
    void close() override {}
    bool requiresLayout() const override { return false; }
    void setLayout(log4cpp::Layout*) override {}
    std::vector<std::string> lines;

protected:
    void _append(const log4cpp::LoggingEvent& event) override {
        lines.push_back(event.categoryName + "|" + log4cpp::Priority::getPriorityName(event.priority) +
                        "|" + event.message);
    }
};

CollectingAppender* collected = nullptr;
fs::path productRoot;

void writeFile(const fs::path& path, const std::string& text) {
    fs::create_directories(path.parent_path());
    std::ofstream out(path.string().c_str(), std::ios::binary | std::ios::trunc);
    out << text;
}

fs::path agentsRoot() { return productRoot / "QMV" / "agents"; }

// Lays out <agents root>/<name>/control/spec with the given text.
fs::path makeAgent(const std::string& name, const std::string& spec) {
    const fs::path spath = agentsRoot() / name / "control" / "spec";
    writeFile(spath, spec);
    return spath;
}

// Points the product root at a fresh directory before the first
// configuration lookup of the process, and captures the catalogue's log.
class AgentEnvironment : public ::testing::Environment {
public:
    void SetUp() override {
        char tmpl[] = "/tmp/agent_spec_test.XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(tmpl));
        productRoot = tmpl;
        // Keep whatever configuration the build tree had, for the next test.
        std::ifstream previous(VANTREL_KVA_CONF, std::ios::binary);
        hadConf_ = previous.is_open();
        if (hadConf_) conf_.assign(std::istreambuf_iterator<char>(previous), std::istreambuf_iterator<char>());
        writeFile(fs::path(VANTREL_KVA_CONF), "PRODUCT_ROOT_D " + productRoot.string() + "\n");
        fs::create_directories(agentsRoot());
        ASSERT_EQ(agentsRoot().string(), files::agents::getDir());

        collected = new CollectingAppender;
        log4cpp::Category& root = log4cpp::Category::getRoot();
        root.setPriority(log4cpp::Priority::DEBUG);
        root.removeAllAppenders();
        root.addAppender(collected);
    }
    void TearDown() override {
        fs::remove_all(productRoot);
        if (hadConf_)
            writeFile(fs::path(VANTREL_KVA_CONF), conf_);
        else
            fs::remove(fs::path(VANTREL_KVA_CONF));
    }

private:
    bool hadConf_ = false;
    std::string conf_;
};

const ::testing::Environment* const environment =
    ::testing::AddGlobalTestEnvironment(new AgentEnvironment);

Agent::ParseResult parseText(const std::string& text) {
    const fs::path spath = productRoot / "parse" / "spec";
    writeFile(spath, text);
    return Agent::parse(spath.string());
}

// The message of the ParseFailed that parsing text raises, or "" if none.
std::string parseFailure(const std::string& text, std::string* specPath = nullptr) {
    const fs::path spath = productRoot / "parse" / "spec";
    if (specPath) *specPath = spath.string();
    writeFile(spath, text);
    try {
        Agent::parse(spath.string());
    } catch (const Exc<&ParseFailed>& e) {
        EXPECT_EQ("Agent::ParseFailed", e.code());
        return e.what();
    }
    return "";
}

bool logged(const std::string& line) {
    for (const std::string& l : collected->lines)
        if (l == line) return true;
    return false;
}

}  // namespace

TEST(AgentSpec, ValuesAndWhitespace) {
    // Colons in the value, trailing blanks kept, all leading white space
    // dropped, empty lines skipped, last definition wins, no final line feed.
    Agent::ParseResult v = parseText(
        "Description: x:y\n\nEntryPoint: a\nDocumentType:\t\v\f doc.dtd \nEntryPoint:b\nStylesheet: s.xsl");
    EXPECT_EQ(Agent::ParseResult({"x:y", "b", "doc.dtd ", "s.xsl", ""}), v);

    // Carriage returns stay in values; after the colon they are leading space.
    v = parseText("Description: d\r\nEntryPoint: e.pl\r\nInterpreter:\r\n");
    EXPECT_EQ(Agent::ParseResult({"d\r", "e.pl\r", "", "", ""}), v);

    // An empty file and a file that is not there give empty values.
    EXPECT_EQ(Agent::ParseResult(), parseText(""));
    EXPECT_EQ(Agent::ParseResult(), Agent::parse((productRoot / "no" / "spec").string()));
}

TEST(AgentSpec, MalformedLines) {
    std::string spath;
    parseFailure("", &spath);
    const std::string badLine = "Unable to parse spec file: " + spath + ":";
    const std::string illegal = "Unable to parse spec file: Illegal parameter found in " + spath + ": ";
    const std::pair<std::string, std::string> cases[] = {
        {"Description: a\n \nEntryPoint: b\n", badLine + "2: Expected '<token>: <value>', got ' '"},
        // The line count includes skipped empty lines.
        {"Description: a\n\nEntryPoint\n", badLine + "3: Expected '<token>: <value>', got 'EntryPoint'"},
        // A line of a lone carriage return is not empty.
        {"Description: a\r\n\r\n", badLine + "2: Expected '<token>: <value>', got '\r'"},
        {"# 100% sure\n", badLine + "1: Expected '<token>: <value>', got '# 100% sure'"},
        {"entrypoint: a.pl\n", illegal + "entrypoint"},
        {"EntryPoint : a.pl\n", illegal + "EntryPoint "},
        {" Description: a\n", illegal + " Description"},
    };
    for (const auto& c : cases) EXPECT_EQ(c.second, parseFailure(c.first)) << ::testing::PrintToString(c.first);
}

TEST(AgentsFactory, MissingOrBrokenAgentsAreNotFound) {
    AgentsFactory& factory = theAgentsFactory();
    auto expectNotFound = [&](const std::string& name) {
        try {
            factory.getAgent(name);
            ADD_FAILURE() << "agent '" << name << "' was found";
        } catch (const Exc<&AgentNotFound>& e) {
            EXPECT_EQ("Agent " + name + " was not found or does not contain proper spec file",
                      std::string(e.what()));
        }
    };

    collected->lines.clear();
    expectNotFound("nodir");
    fs::create_directories(agentsRoot() / "nospec" / "control");
    expectNotFound("nospec");
    fs::create_directories(agentsRoot() / "specdir" / "control" / "spec");
    expectNotFound("specdir");
    makeAgent("broken", "EntryPoint: a.pl\nBogus: 1\n");
    expectNotFound("broken");
    const std::string brokenSpec = (agentsRoot() / "broken" / "control" / "spec").string();
    EXPECT_TRUE(logged("p.AgentsFactory|WARN|" + brokenSpec + " is not a valid agent spec file"));
    EXPECT_TRUE(logged("p.AgentsFactory|WARN|" +
                       (agentsRoot() / "specdir" / "control" / "spec").string() +
                       " is not a regular file"));

    // Names that are not one plain directory are refused even where a spec
    // file would be found by following them.
    writeFile(productRoot / "QMV" / "outside" / "control" / "spec", "EntryPoint: x.pl\n");
    writeFile(agentsRoot() / "control" / "spec", "EntryPoint: x.pl\n");
    makeAgent("inner", "EntryPoint: x.pl\n");
    for (const char* bad : {"", ".", "..", "../outside", "inner/", "./inner", "/inner"})
        expectNotFound(bad);
    EXPECT_THROW(factory.getAgent(std::string("inner\0x", 7)), Exc<&AgentNotFound>);
    EXPECT_FALSE(factory.parseAgent("../outside"));

    // A failure is not remembered: the agent is found once it exists.
    makeAgent("nodir", "EntryPoint: late.pl\n");
    EXPECT_EQ("late.pl", factory.getAgent("nodir")->getEntryPoint());
}

TEST(AgentsFactory, ParsesOnceAndSharesTheAgent) {
    makeAgent("once", "Description: first\nEntryPoint: once.pl\nInterpreter: /usr/bin/perl -w\n");
    AgentsFactory& factory = theAgentsFactory();
    collected->lines.clear();
    boost::shared_ptr<Agent> first = factory.getAgent("once");
    ASSERT_TRUE(first);
    EXPECT_EQ("once", first->getName());
    EXPECT_EQ("first", first->getData().description);
    EXPECT_EQ("/usr/bin/perl -w", first->getEffectiveInterpreter());
    EXPECT_EQ(std::vector<std::string>({
                  "p.AgentsFactory|INFO|Parsing once",
                  "p.AgentsFactory|INFO|Parsing " + (agentsRoot() / "once").string(),
                  "p.Agent|INFO|Agent once",
                  "p.Agent|INFO|Description: first",
                  "p.Agent|INFO|EntryPoint: once.pl",
                  "p.Agent|INFO|DocumentType: ",
                  "p.Agent|INFO|Interpreter: /usr/bin/perl -w",
              }),
              collected->lines);

    // Changing or breaking the file afterwards changes nothing.
    makeAgent("once", "EntryPoint: second.pl\n");
    EXPECT_EQ(first.get(), factory.getAgent("once").get());
    makeAgent("once", "garbage\n");
    EXPECT_EQ(first.get(), factory.getAgent("once").get());
    EXPECT_EQ("once.pl", factory.getAgent("once")->getEntryPoint());

    // An agent filed under the final component of its path; the first stays.
    writeFile(productRoot / "elsewhere" / "once" / "control" / "spec", "EntryPoint: other.pl\n");
    EXPECT_TRUE(factory.parseAgent("once", productRoot / "elsewhere" / "once"));
    EXPECT_EQ(first.get(), factory.getAgent("once").get());
}

TEST(AgentsFactory, DerivedValuesAndLog) {
    makeAgent("typed", "DocumentType: dump.dtd\nStylesheet: s.xsl\nEntryPoint: t.pl\n");
    collected->lines.clear();
    boost::shared_ptr<Agent> agent = theAgentsFactory().getAgent("typed");
    const std::string dtd = agentsRoot().string() + "/typed/control/dump.dtd";
    EXPECT_EQ(dtd, agent->getDocumentTypePath());
    EXPECT_EQ("perl", agent->getEffectiveInterpreter());
    EXPECT_EQ("", agent->getData().interpreter);
    EXPECT_EQ("s.xsl", agent->getData().stylesheet);
    EXPECT_TRUE(logged("p.Agent|INFO|DocumentType: " + dtd));
    EXPECT_TRUE(logged("p.Agent|INFO|Interpreter: perl"));
    for (const std::string& l : collected->lines) EXPECT_EQ(std::string::npos, l.find("s.xsl")) << l;
}

TEST(AgentsFactory, GetAllAgentsSkipsSharedAndBroken) {
    AgentsFactory& factory = theAgentsFactory();
    fs::create_directories(agentsRoot() / AGENTS_SHARED_DIR / "lib");
    makeAgent("all-a", "EntryPoint: a.pl\n");
    makeAgent("all-b", "EntryPoint: b.pl\n");
    makeAgent("all-bad", "EntryPoint a.pl\n");
    writeFile(agentsRoot() / "all-file", "EntryPoint: f.pl\n");
    collected->lines.clear();
    factory.getAllAgents();
    EXPECT_EQ("p.AgentsFactory|INFO|Parsing available agents info", collected->lines.at(0));
    const AgentsFactory::AgentMap& agents = factory.getAgents();
    EXPECT_EQ(1u, agents.count("all-a"));
    EXPECT_EQ(1u, agents.count("all-b"));
    EXPECT_EQ(0u, agents.count("all-bad"));
    EXPECT_EQ(0u, agents.count("all-file"));
    EXPECT_EQ(0u, agents.count(AGENTS_SHARED_DIR));
    EXPECT_TRUE(logged("p.AgentsFactory|WARN|" +
                       (agentsRoot() / AGENTS_SHARED_DIR / AGENTS_CONTROL_DIR / "spec").string() +
                       " is not a regular file"));
}
