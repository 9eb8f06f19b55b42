// The local agents catalogue: every agent is a directory under the agents root
// (files::agents::getDir()) described by its spec file <name>/control/spec, a
// text file of "Token: value" lines. The catalogue parses a spec file once per
// process and hands out the same Agent object on every later request.
#ifndef VANTREL_COMMONS_AGENT_SPEC_H
#define VANTREL_COMMONS_AGENT_SPEC_H

#include <array>
#include <map>
#include <string>

#include <boost/shared_ptr.hpp>

namespace velmo {

// Directory under the agents root deployed together with every agent.
extern const char* const AGENTS_SHARED_DIR;
// Name of an agent's control directory (holds the spec file; never deployed).
extern const char* const AGENTS_CONTROL_DIR;

// Number of tokens a spec file knows.
const int AGENT_SPEC_TOKENS = 5;

class Agent {
public:
    // The values of a spec file; a token the file does not set stays empty.
    struct Data {
        std::string description;
        std::string entryPoint;
        std::string documentType;
        std::string stylesheet;
        std::string interpreter;
    };

    typedef std::array<std::string, AGENT_SPEC_TOKENS> ParseResult;

    // Reads the spec file at specPath; the values of "Description",
    // "EntryPoint", "DocumentType", "Stylesheet" and "Interpreter", in this
    // order. A file that cannot be opened gives five empty values. Throws
    // Exc<&ParseFailed> on a malformed line.
    static ParseResult parse(const std::string& specPath);

    // Parses specPath (Exc<&ParseFailed> escapes) and logs the agent.
    Agent(const std::string& name, const std::string& specPath);

    const std::string& getEntryPoint() const { return data_.entryPoint; }
    // The Interpreter value, or "perl" when the spec file leaves it empty.
    std::string getEffectiveInterpreter() const;

private:
    std::string name_;
    Data data_;
};

class AgentsFactory {
public:
    typedef std::map<std::string, boost::shared_ptr<Agent>> AgentMap;

    // The agent called name, parsed on first use; throws Exc<&AgentNotFound>
    // for a name that is not a plain directory name, a missing agent or a
    // malformed spec file.
    boost::shared_ptr<Agent> getAgent(const std::string& name);

    // Looks name up under the agents root; true when the agent is now known.
    // Never throws for a missing or malformed agent.
    bool parseAgent(const std::string& name);

private:
    AgentMap agents_;
};

// The catalogue of the process.
AgentsFactory& theAgentsFactory();

// True for a name usable as one directory under the agents root: not empty,
// not "." or "..", without "/" or NUL bytes.
bool isValidAgentName(const std::string& name);

}  // namespace velmo

#endif
