// Helpers shared by the fuzz targets.
#ifndef VANTREL_TESTS_FUZZ_SUPPORT_H
#define VANTREL_TESTS_FUZZ_SUPPORT_H

#include <cstdio>
#include <cstdlib>
#include <string>

#include <sys/mman.h>
#include <unistd.h>

namespace fuzz {

// A file that lives only in memory, reachable by a path, for the readers that
// open a file by name. Its content is replaced by every set().
class MemoryFile {
public:
    MemoryFile() : fd_(memfd_create("vantrel-fuzz", 0)) {
        if (fd_ < 0) {
            std::perror("memfd_create");
            std::abort();
        }
        path_ = "/proc/self/fd/" + std::to_string(fd_);
    }
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;

    const std::string& set(const uint8_t* data, size_t size) {
        if (ftruncate(fd_, 0) != 0 || pwrite(fd_, data, size, 0) != static_cast<ssize_t>(size)) {
            std::perror("memory file");
            std::abort();
        }
        return path_;
    }

private:
    int fd_;
    std::string path_;
};

// Stops the run with a message when a property does not hold; libFuzzer keeps
// the input that led here.
#define FUZZ_CHECK(condition, what)                                                             \
    do {                                                                                        \
        if (!(condition)) {                                                                     \
            std::fprintf(stderr, "property violated: %s (%s) at %s:%d\n", what, #condition,     \
                         __FILE__, __LINE__);                                                   \
            std::abort();                                                                       \
        }                                                                                       \
    } while (0)

}  // namespace fuzz

#endif
