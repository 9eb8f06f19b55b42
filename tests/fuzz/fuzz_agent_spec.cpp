// Agent::parse over arbitrary spec file content: either the file is refused
// with ParseFailed, or the five values are those of the "Token: value" rules
// (first colon splits, leading white space of the value dropped, last one wins).
#include <array>
#include <string>

#include "commons/agent_spec.h"
#include "commons/exceptions.h"
#include "tests/fuzz/fuzz_support.h"

namespace {

bool cspace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r'; }

// The expected values, or false when some line must be refused.
bool model(const std::string& text, velmo::Agent::ParseResult& values) {
    std::string::size_type from = 0;
    while (from < text.size()) {
        std::string::size_type end = text.find('\n', from);
        if (end == std::string::npos) end = text.size();
        const std::string line = text.substr(from, end - from);
        from = end + 1;
        if (line.empty()) continue;
        const std::string::size_type colon = line.find(':');
        if (colon == std::string::npos) return false;
        int index = 0;
        while (index < velmo::AGENT_SPEC_TOKENS && line.compare(0, colon, velmo::theAgentSpecTokens[index]) != 0)
            ++index;
        if (index == velmo::AGENT_SPEC_TOKENS) return false;
        std::string::size_type value = colon + 1;
        while (value < line.size() && cspace(line[value])) ++value;
        values[index] = line.substr(value);
    }
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static fuzz::MemoryFile file;
    const std::string& path = file.set(data, size);
    const std::string text(reinterpret_cast<const char*>(data), size);

    velmo::Agent::ParseResult expected;
    const bool valid = model(text, expected);
    try {
        const velmo::Agent::ParseResult values = velmo::Agent::parse(path);
        FUZZ_CHECK(valid, "a malformed spec file is refused");
        FUZZ_CHECK(values == expected, "values follow the token rules");
    } catch (const velmo::Exc<&velmo::ParseFailed>& e) {
        FUZZ_CHECK(!valid, "a well-formed spec file is accepted");
        FUZZ_CHECK(std::string(e.what()).find(path) != std::string::npos, "the refusal names the file");
    }
    return 0;
}
