// What a hostile source host could send in place of the content sender's
// framing, in pieces of any size: the parser never reads beyond what it was
// fed, hands out no more archive bytes than it was given, and says nothing
// more once it said that the stream is garbled.
#include <cassert>
#include <cstdint>

#include "vantrel/content_frames.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const std::size_t step = 1 + data[0] % 64;
    const char* text = reinterpret_cast<const char*>(data + 1);
    velmo::SenderFrames frames;
    std::size_t bytes = 0;
    bool garbled = false;
    for (std::size_t at = 0; at < size - 1; at += step) {
        const std::size_t length = std::min(step, size - 1 - at);
        for (const velmo::SenderEvent& e : frames.feed(text + at, length)) {
            assert(!garbled && "nothing follows a garbled stream");
            garbled = e.kind == velmo::SenderEvent::garbled;
            if (e.kind != velmo::SenderEvent::data) continue;
            assert(e.bytes >= text + at && e.bytes + e.length <= text + at + length && "data lies in what was fed");
            bytes += e.length;
        }
    }
    assert(bytes <= size && "no more archive bytes than were sent");
    return 0;
}
