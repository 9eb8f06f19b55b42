// The agent's content list, as a hostile source host could print it: parsing
// ends in a tagged error or in records of bounded size, and every name the
// content retrieval accepts stays inside the content directory.
#include <boost/lexical_cast.hpp>

#include "commons/exceptions.h"
#include "commons/formats.h"
#include "tests/fuzz/fuzz_support.h"
#include "vantrel/actions.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::unique_ptr<velmo::AgentFileList> list;
    try {
        list = velmo::getFileList(std::string(reinterpret_cast<const char*>(data), size));
        list->getTotalSize();
    } catch (const velmo::ExTraceable&) {
    } catch (const boost::bad_lexical_cast&) {
    }
    size_t names = 0;
    for (const velmo::DumpFile& record : list ? list->getFileList() : std::vector<velmo::DumpFile>()) {
        names += record.name.size();
        FUZZ_CHECK(record.name.size() <= 4096, "a listed name is no longer than a local path can be");
        try {
            velmo::checkContentFileName(record.name);
        } catch (const velmo::ExTraceable&) {
            continue;
        }
        // The depth below the content directory, walked as the kernel resolves the name.
        long depth = record.name[0] == '/' ? -1 : 0;
        for (size_t start = 0; depth >= 0 && start <= record.name.size();) {
            const size_t end = std::min(record.name.find('/', start), record.name.size());
            const std::string component = record.name.substr(start, end - start);
            depth += component == ".." ? -1 : component.empty() || component == "." ? 0 : 1;
            start = end + 1;
        }
        FUZZ_CHECK(depth >= 0 && record.name.find('\0') == std::string::npos,
                   "an accepted name stays inside the content directory");
    }
    FUZZ_CHECK(names <= size + (1u << 20), "entity references add at most 1 MiB of text");
    return 0;
}
