#include "commons/agent_spec.h"

#include <cctype>
#include <fstream>

#include <boost/filesystem/operations.hpp>
#include <boost/format.hpp>
#include <log4cpp/Category.hh>

#include "commons/exceptions.h"
#include "commons/session.h"

namespace fs = boost::filesystem;

namespace velmo {

namespace {
log4cpp::Category& agentLogger = log4cpp::Category::getInstance("p.Agent");
log4cpp::Category& factoryLogger = log4cpp::Category::getInstance("p.AgentsFactory");

AgentsFactory theFactory;

// Whitespace of the default "C" locale: blank, \t, \n, \v, \f, \r.
bool isCSpace(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

// Existence tests that report a failing stat as "no" instead of throwing.
bool existsNoThrow(const fs::path& p) {
    boost::system::error_code ec;
    return fs::exists(p, ec) && !ec;
}

bool isDirectoryNoThrow(const fs::path& p) {
    boost::system::error_code ec;
    return fs::is_directory(p, ec) && !ec;
}
}  // namespace

const char* const AGENTS_SHARED_DIR = "shared";
const char* const AGENTS_CONTROL_DIR = "control";

namespace {
const char* const theAgentSpecTokens[AGENT_SPEC_TOKENS] = {
    "Description", "EntryPoint", "DocumentType", "Stylesheet", "Interpreter"};
}  // namespace

bool isValidAgentName(const std::string& name) {
    return !name.empty() && name != "." && name != ".." &&
           name.find('/') == std::string::npos && name.find('\0') == std::string::npos;
}

Agent::ParseResult Agent::parse(const std::string& specPath) {
    ParseResult values;
    std::ifstream in(specPath.c_str());
    if (!in.is_open()) return values;

    std::string line;
    unsigned lineNumber = 0;
    while (std::getline(in, line)) {
        ++lineNumber;
        if (line.empty()) continue;

        const std::string::size_type colon = line.find(':');
        if (colon == std::string::npos) {
            throw VELMO_EXC(ParseFailed) %
                  (boost::format("%1%:%2%: Expected '<token>: <value>', got '%3%'") % specPath %
                   lineNumber % line)
                      .str();
        }
        const std::string token = line.substr(0, colon);
        std::string::size_type valueStart = colon + 1;
        while (valueStart < line.size() && isCSpace(line[valueStart])) ++valueStart;

        int index = 0;
        while (index < AGENT_SPEC_TOKENS && token != theAgentSpecTokens[index]) ++index;
        if (index == AGENT_SPEC_TOKENS) {
            throw VELMO_EXC(ParseFailed) %
                  (boost::format("Illegal parameter found in %1%: %2%") % specPath % token).str();
        }
        values[index] = line.substr(valueStart);
    }
    return values;
}

Agent::Agent(const std::string& name, const std::string& specPath) : name_(name) {
    const ParseResult values = parse(specPath);
    data_.description = values[0];
    data_.entryPoint = values[1];
    data_.documentType = values[2];
    data_.stylesheet = values[3];
    data_.interpreter = values[4];
    agentLogger.infoStream() << "Agent " << name_;
    agentLogger.infoStream() << "Description: " << data_.description;
    agentLogger.infoStream() << "EntryPoint: " << data_.entryPoint;
    agentLogger.infoStream() << "DocumentType: "
                             << (data_.documentType.empty() ? std::string()
                                                            : files::agents::getDir() + "/" + name_ + "/" +
                                                                  AGENTS_CONTROL_DIR + "/" + data_.documentType);
    agentLogger.infoStream() << "Interpreter: " << getEffectiveInterpreter();
}

std::string Agent::getEffectiveInterpreter() const {
    return data_.interpreter.empty() ? std::string("perl") : data_.interpreter;
}

boost::shared_ptr<Agent> AgentsFactory::getAgent(const std::string& name) {
    if (!isValidAgentName(name)) throw VELMO_EXC(AgentNotFound) % name;

    AgentMap::const_iterator found = agents_.find(name);
    if (found != agents_.end()) return found->second;

    if (!parseAgent(name)) throw VELMO_EXC(AgentNotFound) % name;
    found = agents_.find(name);
    if (found == agents_.end()) throw VELMO_EXC(AgentNotFound) % name;
    return found->second;
}

bool AgentsFactory::parseAgent(const std::string& name) {
    factoryLogger.infoStream() << "Parsing " << name;
    if (!isValidAgentName(name)) {
        factoryLogger.warnStream() << "'" << name << "' is not a valid agent name";
        return false;
    }
    const fs::path root(files::agents::getDir());
    if (!isDirectoryNoThrow(root)) return false;
    const fs::path agentPath = root / name;
    factoryLogger.infoStream() << "Parsing " << agentPath.string();
    const fs::path specPath = agentPath / AGENTS_CONTROL_DIR / "spec";
    if (!existsNoThrow(specPath) || isDirectoryNoThrow(specPath)) {
        factoryLogger.warn((boost::format("%1% is not a regular file") % specPath.string()).str());
        return false;
    }

    boost::shared_ptr<Agent> agent;
    try {
        agent.reset(new Agent(name, specPath.string()));
    } catch (const Exc<&ParseFailed>& e) {
        factoryLogger.debugStream() << e.what();
        factoryLogger.warn(
            (boost::format("%1% is not a valid agent spec file") % specPath.string()).str());
        return false;
    }
    agents_.insert(AgentMap::value_type(name, agent));
    return true;
}

AgentsFactory& theAgentsFactory() { return theFactory; }

}  // namespace velmo
