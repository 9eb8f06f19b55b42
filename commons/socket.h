// The TCP connection to the source host, and the guard that keeps SIGALRM
// away from the system calls of the transport.
#ifndef VANTREL_COMMONS_SOCKET_H
#define VANTREL_COMMONS_SOCKET_H

#include <string>

#include <netdb.h>
#include <signal.h>

namespace velmo {

// Holds SIGALRM back for as long as it lives and restores the previous signal
// mask afterwards; a signal that came meanwhile is delivered at that moment.
//
// Why: the actions arm SIGALRM every 5 seconds with a handler installed
// without SA_RESTART, and the SSH library gives up on a system call that a
// signal interrupts (EINTR) as if the connection had failed. Every call into
// the library, and the resolver and connect() here, therefore runs inside one
// of these guards. The handler itself only marks the connection for a status
// refresh, so delaying it until the current call returns changes nothing: the
// execution loop picks the mark up at its next pass, which comes at least
// every 5 seconds. Guards nest.
class AlarmSignalBlock {
public:
    AlarmSignalBlock();
    ~AlarmSignalBlock();
    AlarmSignalBlock(const AlarmSignalBlock&) = delete;
    AlarmSignalBlock& operator=(const AlarmSignalBlock&) = delete;

private:
    sigset_t saved_;
};

class Socket {
public:
    // Resolves host, connects to the first address the resolver returns and
    // throws the tagged error that the failure maps to (HostNotFound,
    // NetworkUnreachable, ConnectionTimedOut, ConnectionRefused,
    // HostUnreachable, ConnectionFault); a descriptor that cannot be created
    // gives a plain std::runtime_error.
    Socket(const std::string& host, unsigned short port);
    ~Socket();

    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;

    // The resolver's address list for host and port; the caller frees it with
    // freeaddrinfo. Throws Exc<&HostNotFound> and writes the resolver's text
    // on standard error.
    static addrinfo* gethostbyname(const std::string& host, unsigned short port);

    // The connected descriptor.
    int fd() const { return fd_; }

private:
    int fd_;
    addrinfo* addresses_;
};

}  // namespace velmo

#endif
