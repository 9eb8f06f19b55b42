#include "vantrel/remote_programs.h"

#include <cstring>

namespace velmo {

std::vector<std::string> perlRunning(const char* program) {
    static const char digits[] = "0123456789abcdef";
    std::string encoded;
    encoded.reserve(2 * std::strlen(program));
    for (const char* c = program; *c; ++c) {
        encoded += digits[static_cast<unsigned char>(*c) >> 4];
        encoded += digits[static_cast<unsigned char>(*c) & 15];
    }
    return {"perl", "-e", "eval pack 'H*', shift; die $@ if $@", encoded};
}

}  // namespace velmo
