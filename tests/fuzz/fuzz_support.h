// Helpers of the fuzz targets.
#ifndef VANTREL_TESTS_FUZZ_SUPPORT_H
#define VANTREL_TESTS_FUZZ_SUPPORT_H

#include <cstdio>
#include <cstdlib>
#include <string>

#include <sys/mman.h>
#include <unistd.h>

// Stops the run when a property does not hold; libFuzzer keeps the input.
#define FUZZ_CHECK(condition, what)                                                                      \
    do {                                                                                                 \
        if (!(condition)) {                                                                              \
            std::fprintf(stderr, "property violated: %s (%s) at %s:%d\n", what, #condition, __FILE__, __LINE__); \
            std::abort();                                                                                \
        }                                                                                                \
    } while (0)

// The path of a file in memory holding data, for readers that open a file by name.
inline std::string memoryFile(const uint8_t* data, size_t size) {
    static const int fd = memfd_create("vantrel-fuzz", 0);
    FUZZ_CHECK(fd >= 0 && ftruncate(fd, 0) == 0 && pwrite(fd, data, size, 0) == static_cast<ssize_t>(size),
               "the memory file takes the input");
    return "/proc/self/fd/" + std::to_string(fd);
}

#endif
