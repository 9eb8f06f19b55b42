// The selected-objects file and the agent arguments built from it: any file
// ends in a tagged error or in a well-formed argument list.
#include <algorithm>

#include "commons/exceptions.h"
#include "tests/fuzz/fuzz_support.h"
#include "vantrel/dump_options.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    config cfg;
    cfg.selectedObjectsFile = memoryFile(data, size);
    std::vector<std::string> args;
    std::string input;
    try {
        velmo::prepareDumpOptions(cfg, args, input);
    } catch (const velmo::ExTraceable&) {
        return 0;
    }
    const auto count = [&](const char* a) { return std::count(args.begin(), args.end(), a); };
    FUZZ_CHECK(input.size() <= size + (1u << 20), "entity references add at most 1 MiB of text");
    FUZZ_CHECK(count("--include-app-distrib") == 1, "the distribution switch is passed once");
    FUZZ_CHECK(count("--only-mail") + count("--only-hosting") <= 1, "at most one filter");
    FUZZ_CHECK(count("--server") + count("--admin-info") + count("--no-license") == 0,
               "these switches come from the command line only");
    FUZZ_CHECK(std::any_of(args.begin(), args.end(), [](const std::string& a) { return a.rfind("--dump-", 0) == 0; }) ==
                   !input.empty(),
               "object lists on standard input go with their arguments");
    return 0;
}
