// The agent's content list, as a hostile source host could print it: parsing
// ends in a tagged error or in records of bounded size, and every name that
// the content retrieval accepts stays inside the content directory.
#include <string>

#include <boost/lexical_cast.hpp>

#include "commons/exceptions.h"
#include "commons/formats.h"
#include "tests/fuzz/fuzz_support.h"
#include "vantrel/actions.h"

namespace {

// Walks the name the way the kernel resolves it below a directory (no links
// on the way): the depth below the content directory never goes negative.
bool staysInside(const std::string& name) {
    if (name.empty() || name[0] == '/') return false;
    long depth = 0;
    std::string::size_type start = 0;
    while (start <= name.size()) {
        std::string::size_type end = name.find('/', start);
        if (end == std::string::npos) end = name.size();
        const std::string component = name.substr(start, end - start);
        if (component == "..")
            --depth;
        else if (!component.empty() && component != ".")
            ++depth;
        if (depth < 0) return false;
        start = end + 1;
    }
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    std::unique_ptr<velmo::AgentFileList> list;
    try {
        list = velmo::getFileList(text);
    } catch (const velmo::ExTraceable&) {
        return 0;
    } catch (const boost::bad_lexical_cast&) {
        return 0;
    }

    for (const char* total : {"size", "unpacked"}) {
        try {
            if (std::string(total) == "size")
                list->getTotalSize();
            else
                list->getUnpackedSize();
        } catch (const velmo::ExTraceable&) {
        } catch (const boost::bad_lexical_cast&) {
        }
    }

    size_t names = 0;
    for (const velmo::DumpFile& record : list->getFileList()) names += record.name.size();
    FUZZ_CHECK(names <= size + (1u << 20), "entity references add at most 1 MiB of text");

    for (const velmo::DumpFile& record : list->getFileList()) {
        // Entity references must not turn a short list into huge names.
        FUZZ_CHECK(record.name.size() <= 4096, "a listed name is no longer than a local path can be");
        bool accepted = true;
        try {
            velmo::checkContentFileName(record.name);
        } catch (const velmo::Exc<&velmo::UnsafeContentFileName>&) {
            accepted = false;
        }
        if (accepted) {
            FUZZ_CHECK(staysInside(record.name), "an accepted content name stays in the content directory");
            FUZZ_CHECK(record.name.find('\0') == std::string::npos, "an accepted content name holds no NUL");
        }
    }
    return 0;
}
