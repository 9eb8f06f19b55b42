// What a source host offers for the SSH key exchange, read by a probe of our
// own: the host's first packet (KEXINIT) travels in clear, before any key
// exists. When the handshake fails, it says which kind of method the host and
// this build of libssh2 have none of in common, and both lists.
#ifndef VANTREL_COMMONS_HOST_OFFER_H
#define VANTREL_COMMONS_HOST_OFFER_H

#include <chrono>
#include <string>
#include <vector>

namespace velmo {

// The host's name-lists in the order of its KEXINIT: key exchange, host key,
// ciphers and MACs each way, compression each way.
struct HostOffer {
    enum Kind { kex, hostKey, cipherOut, cipherIn, macOut, macIn, compressionOut, compressionIn, kinds };
    std::vector<std::string> methods[kinds];
};

// Parses the start of what a host sends: its identification line (after any
// lines before it) and its KEXINIT packet. False while more is needed; throws
// std::runtime_error when it is no such thing.
bool parseHostOffer(const std::string& received, HostOffer& offer);

// Connects to host and port again and reads its offer, within limit. False
// when the host could not be read.
bool readHostOffer(const std::string& host, unsigned short port, std::chrono::milliseconds limit, HostOffer& offer);

// Which kind of method the host and this build of libssh2 share none of,
// naming host as given, with both lists, or an empty text when every kind
// has one in common. keyExchangeOnly says that the key exchange alone is
// missing.
std::string methodMismatch(const HostOffer& offer, const std::string& host, bool& keyExchangeOnly);

}  // namespace velmo

#endif
