// The agent's answer to --get-status, stored as the deployment status
// document: any content ends in a tagged error or in the status file name,
// which entity references cannot blow up.
#include <string>

#include "commons/exceptions.h"
#include "tests/fuzz/fuzz_support.h"
#include "vantrel/send_agent.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static fuzz::MemoryFile file;
    const std::string& path = file.set(data, size);
    try {
        velmo::XmlAgentDeploymentStatusDocument document(path);
        const std::string name = document.getAgentDeploymentStatusFileName();
        FUZZ_CHECK(name.size() <= size + (1u << 20), "entity references add at most 1 MiB of text");
    } catch (const velmo::ExTraceable&) {
    }
    return 0;
}
