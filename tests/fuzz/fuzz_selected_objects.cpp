// The selected-objects file and the agent arguments built from it: any file
// ends in a tagged error or in a well-formed argument list.
#include <algorithm>
#include <string>
#include <vector>

#include "commons/exceptions.h"
#include "tests/fuzz/fuzz_support.h"
#include "vantrel/dump_options.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static fuzz::MemoryFile file;
    config cfg;
    cfg.selectedObjectsFile = file.set(data, size);

    std::vector<std::string> arguments;
    std::string standardInput;
    try {
        velmo::prepareDumpOptions(cfg, arguments, standardInput);
    } catch (const velmo::ExTraceable&) {
        return 0;
    }

    FUZZ_CHECK(standardInput.size() <= size + (1u << 20), "entity references add at most 1 MiB of text");
    FUZZ_CHECK(std::count(arguments.begin(), arguments.end(), "--include-app-distrib") == 1,
               "the distribution switch is passed once");
    FUZZ_CHECK(std::count(arguments.begin(), arguments.end(), "--only-mail") +
                       std::count(arguments.begin(), arguments.end(), "--only-hosting") <= 1,
               "at most one filter");
    // Server, administrator and licence switches come from the command line only.
    for (const char* flag : {"--server", "--admin-info", "--no-license"})
        FUZZ_CHECK(std::find(arguments.begin(), arguments.end(), flag) == arguments.end(),
                   "the file alone sets no command-line switch");
    const bool anyList = std::find_if(arguments.begin(), arguments.end(), [](const std::string& a) {
                             return a.compare(0, 7, "--dump-") == 0;
                         }) != arguments.end();
    FUZZ_CHECK(anyList == !standardInput.empty(), "object lists on standard input go with their arguments");
    return 0;
}
