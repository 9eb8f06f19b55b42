#include "commons/host_offer.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <stdexcept>

#include <poll.h>
#include <sys/socket.h>

#include <libssh2.h>
#include <log4cpp/Category.hh>

#include "commons/exceptions.h"
#include "commons/socket.h"

namespace velmo {

namespace {

log4cpp::Category& offerLog = log4cpp::Category::getInstance("p.libssh2pp.Session");

const unsigned char kKexInit = 20;
// What the protocol allows before the identification line, and for a packet.
const std::size_t kMostBeforeIdentification = 8192;
const uint32_t kMostPacket = 35000;

uint32_t bigEndian(const std::string& bytes, std::size_t at) {
    return static_cast<uint32_t>(static_cast<unsigned char>(bytes[at])) << 24 |
           static_cast<uint32_t>(static_cast<unsigned char>(bytes[at + 1])) << 16 |
           static_cast<uint32_t>(static_cast<unsigned char>(bytes[at + 2])) << 8 |
           static_cast<uint32_t>(static_cast<unsigned char>(bytes[at + 3]));
}

std::vector<std::string> split(const std::string& list) {
    std::vector<std::string> names;
    for (std::string::size_type start = 0; start < list.size();) {
        std::string::size_type comma = list.find(',', start);
        if (comma == std::string::npos) comma = list.size();
        names.push_back(list.substr(start, comma - start));
        start = comma + 1;
    }
    return names;
}

std::string joined(const std::vector<std::string>& names) {
    std::string text;
    for (const std::string& name : names) text += (text.empty() ? "" : ", ") + name;
    return text.empty() ? "nothing" : text;
}

// Names in a key exchange list that only announce protocol extensions.
bool announcement(const std::string& name) {
    return name.compare(0, 9, "ext-info-") == 0 || name.compare(0, 11, "kex-strict-") == 0;
}

// What this build of the library supports, kind by kind (the library's
// method types are numbered as HostOffer's kinds).
std::vector<std::string> supported(LIBSSH2_SESSION* session, int kind) {
    const char** algorithms = nullptr;
    const int n = libssh2_session_supported_algs(session, kind, &algorithms);
    std::vector<std::string> names;
    for (int i = 0; i < n; ++i) names.push_back(algorithms[i]);
    if (n > 0) libssh2_free(session, algorithms);
    return names;
}

bool libraryBefore(int major, int minor) {
    return libssh2_version((major << 16) | (minor << 8)) == nullptr;
}

// Why an older library lacks what the host offers, if that is why.
std::string hint(int kind, const std::vector<std::string>& offered) {
    if (!libraryBefore(1, 11)) return std::string();
    const auto all = [&offered](const char* ending) {
        return std::all_of(offered.begin(), offered.end(), [ending](const std::string& name) {
            const std::string end(ending);
            return name.size() >= end.size() && name.compare(name.size() - end.size(), end.size(), end) == 0;
        });
    };
    const bool gcm = std::any_of(offered.begin(), offered.end(),
                                 [](const std::string& name) { return name.find("-gcm@") != std::string::npos; });
    if ((kind == HostOffer::macOut || kind == HostOffer::macIn) && all("-etm@openssh.com"))
        return "; encrypt-then-MAC needs 1.11";
    if ((kind == HostOffer::cipherOut || kind == HostOffer::cipherIn) && gcm) return "; AES-GCM needs 1.11";
    return std::string();
}

}  // namespace

bool parseHostOffer(const std::string& received, HostOffer& offer) {
    // Lines before the identification are allowed; the identification ends
    // with a line feed.
    std::string::size_type at = 0;
    for (;;) {
        const std::string::size_type end = received.find('\n', at);
        if (end == std::string::npos) {
            if (received.size() > kMostBeforeIdentification) throw std::runtime_error("no SSH identification");
            return false;
        }
        const bool identification = received.compare(at, 4, "SSH-") == 0;
        at = end + 1;
        if (identification) break;
        if (at > kMostBeforeIdentification) throw std::runtime_error("no SSH identification");
    }
    if (received.size() < at + 5) return false;
    const uint32_t length = bigEndian(received, at);
    if (length > kMostPacket || length < 2) throw std::runtime_error("no SSH packet");
    if (received.size() < at + 4 + length) return false;
    const std::size_t padding = static_cast<unsigned char>(received[at + 4]);
    if (padding + 1 >= length) throw std::runtime_error("no SSH packet");
    const std::string payload = received.substr(at + 5, length - padding - 1);
    if (payload.empty() || static_cast<unsigned char>(payload[0]) != kKexInit)
        throw std::runtime_error("the host's first packet is no key exchange");
    std::size_t p = 1 + 16;  // the message number and the cookie
    for (std::vector<std::string>& list : offer.methods) {
        if (payload.size() < p + 4) throw std::runtime_error("a key exchange packet cut short");
        const uint32_t n = bigEndian(payload, p);
        if (payload.size() - p - 4 < n) throw std::runtime_error("a key exchange packet cut short");
        list = split(payload.substr(p + 4, n));
        p += 4 + n;
    }
    auto& kex = offer.methods[HostOffer::kex];
    kex.erase(std::remove_if(kex.begin(), kex.end(), announcement), kex.end());
    return true;
}

bool readHostOffer(const std::string& host, unsigned short port, std::chrono::milliseconds limit, HostOffer& offer) {
    try {
        const auto deadline = std::chrono::steady_clock::now() + limit;
        Socket socket(host, port, limit);
        const std::string hello = "SSH-2.0-vantrel_probe\r\n";
        if (::send(socket.fd(), hello.data(), hello.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(hello.size()))
            return false;
        std::string received;
        while (!parseHostOffer(received, offer)) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
            pollfd entry = {socket.fd(), POLLIN, 0};
            if (left.count() <= 0 || ::poll(&entry, 1, static_cast<int>(left.count())) <= 0) return false;
            char buffer[4096];
            const ssize_t n = ::recv(socket.fd(), buffer, sizeof buffer, 0);
            if (n <= 0) return false;
            received.append(buffer, static_cast<std::size_t>(n));
        }
        return true;
    } catch (const std::exception& e) {
        offerLog.debugStream() << "The host's offer of methods could not be read: " << e.what();
        return false;
    }
}

std::string methodMismatch(const HostOffer& offer, const std::string& host, bool& keyExchangeOnly) {
    static const char* const names[] = {"key exchange method", "host key type", "cipher", "cipher",
                                        "MAC", "MAC", "compression", "compression"};
    LIBSSH2_SESSION* session = libssh2_session_init_ex(nullptr, nullptr, nullptr, nullptr);
    if (session == nullptr) return std::string();
    std::string text;
    int missing = 0;
    keyExchangeOnly = false;
    for (int kind = 0; kind < HostOffer::kinds; ++kind) {
        const std::vector<std::string>& offered = offer.methods[kind];
        const std::vector<std::string> ours = supported(session, kind);
        const bool common = std::any_of(offered.begin(), offered.end(), [&ours](const std::string& name) {
            return std::find(ours.begin(), ours.end(), name) != ours.end();
        });
        if (common) continue;
        ++missing;
        if (!text.empty()) continue;
        keyExchangeOnly = kind == HostOffer::kex;
        text = std::string("No common ") + names[kind] + " with " + host + ": the host offers " + joined(offered) +
               "; this build supports " + joined(ours) + " (libssh2 " + libssh2_version(0) + hint(kind, offered) + ")";
    }
    libssh2_session_free(session);
    keyExchangeOnly = keyExchangeOnly && missing == 1;
    return text;
}

}  // namespace velmo
