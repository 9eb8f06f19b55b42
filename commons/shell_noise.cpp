#include "commons/shell_noise.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

#include <openssl/rand.h>

namespace velmo {

namespace {
// What a warning shows of the noise.
const std::size_t kStartKept = 200;
}  // namespace

std::string newCommandMarker() {
    unsigned char bytes[8];
    if (RAND_bytes(bytes, sizeof bytes) != 1) throw std::runtime_error("no random bytes for a command marker");
    static const char digits[] = "0123456789abcdef";
    std::string marker = "vantrel-begin-";
    for (unsigned char b : bytes) {
        marker += digits[b >> 4];
        marker += digits[b & 15];
    }
    return marker;
}

std::size_t ShellNoise::skip(const char* data, std::size_t size) {
    if (passed_) return 0;
    std::size_t at = 0;
    if (!found_) {
        // What came so far begins the noise; a marker may begin in an
        // earlier chunk, so the end of the last one is looked at too.
        start_.append(data, std::min(size, kStartKept - std::min(kStartKept, start_.size())));
        const std::string seen = recent_ + std::string(data, size);
        const std::string::size_type hit = seen.find(marker_);
        if (hit == std::string::npos) {
            dropped_ += size;
            recent_ = seen.substr(seen.size() - std::min(seen.size(), marker_.size() - 1));
            return size;
        }
        found_ = true;
        dropped_ = dropped_ + hit - recent_.size();
        if (start_.size() > dropped_) start_.resize(static_cast<std::size_t>(dropped_));
        at = hit + marker_.size() - recent_.size();
        recent_.clear();
    }
    const void* lineEnd = at < size ? std::memchr(data + at, '\n', size - at) : nullptr;
    if (lineEnd == nullptr) return size;
    passed_ = true;
    return static_cast<std::size_t>(static_cast<const char*>(lineEnd) - data) + 1;
}

}  // namespace velmo
