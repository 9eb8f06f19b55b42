// The TCP connection to the source host.
#ifndef VANTREL_COMMONS_SOCKET_H
#define VANTREL_COMMONS_SOCKET_H

#include <chrono>
#include <string>

#include <netdb.h>

namespace velmo {

class Socket {
public:
    // Resolves host and connects to the first of its stream addresses that
    // answers. When none does, throws the tagged error that the last failure
    // maps to (HostNotFound, NetworkUnreachable, ConnectionTimedOut,
    // ConnectionRefused, HostUnreachable, ConnectionFault); a descriptor that
    // cannot be created gives a plain std::runtime_error. Connecting takes
    // connectLimit at most (0: as long as the kernel tries, about two
    // minutes against a host that drops packets).
    Socket(const std::string& host, unsigned short port,
           std::chrono::milliseconds connectLimit = std::chrono::milliseconds(0));
    ~Socket();

    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;

    // The resolver's address list for host (a name, an address, or an IPv6
    // address in brackets) and port; the caller frees it with freeaddrinfo.
    // Throws Exc<&HostNotFound> and writes the resolver's text on standard
    // error.
    static addrinfo* gethostbyname(const std::string& host, unsigned short port);

    // The connected descriptor.
    int fd() const { return fd_; }

private:
    int fd_;
    addrinfo* addresses_;
};

}  // namespace velmo

#endif
