// The agent's content list, as a hostile source host could print it: parsing
// ends in a tagged error or in records of bounded size, and every name the
// content retrieval accepts stays inside the content directory.
#include <cassert>
#include <filesystem>

#include "commons/exceptions.h"
#include "commons/formats.h"
#include "vantrel/retrieve_content.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::unique_ptr<velmo::AgentFileList> list;
    try {
        list = velmo::getFileList(std::string(reinterpret_cast<const char*>(data), size));
        list->getTotalSize();
    } catch (const velmo::ExTraceable&) {
    }
    size_t names = 0;
    for (const velmo::DumpFile& record : list ? list->getFileList() : std::vector<velmo::DumpFile>()) {
        names += record.name.size();
        assert(record.name.size() <= 4096 && "a listed name is no longer than a local path can be");
        try {
            velmo::checkContentFileName(record.name);
        } catch (const velmo::ExTraceable&) {
            continue;
        }
        const std::string normal = std::filesystem::path(record.name).lexically_normal().string();
        assert(record.name[0] != '/' && normal != ".." && normal.rfind("../", 0) != 0 &&
               record.name.find('\0') == std::string::npos && "an accepted name stays in the content directory");
    }
    assert(names <= size + (1u << 20) && "entity references add at most 1 MiB of text");
    return 0;
}
