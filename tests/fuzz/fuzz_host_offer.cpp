// What a hostile or broken host could send before any key exists, read as
// its offer of methods: in pieces of any size, the reader only ever says
// "more" or finishes or refuses, never reads beyond what it was given, and
// what it finds can be named in a message.
#include <cstdint>
#include <stdexcept>
#include <string>

#include "commons/host_offer.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const std::size_t step = 1 + data[0] % 256;
    const std::string sent(reinterpret_cast<const char*>(data + 1), size - 1);
    std::string received;
    for (std::size_t at = 0; at < sent.size(); at += step) {
        received += sent.substr(at, step);
        velmo::HostOffer offer;
        try {
            if (!velmo::parseHostOffer(received, offer)) continue;
        } catch (const std::runtime_error&) {
            return 0;
        }
        bool keyExchangeOnly = false;
        (void)velmo::methodMismatch(offer, "host", keyExchangeOnly);
        return 0;
    }
    return 0;
}
