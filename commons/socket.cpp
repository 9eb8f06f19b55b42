#include "commons/socket.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <iostream>
#include <stdexcept>

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <unistd.h>

#include <log4cpp/Category.hh>

#include "commons/exceptions.h"
#include "commons/ssh-transfer.h"

namespace velmo {

static log4cpp::Category& logger = log4cpp::Category::getInstance("p.libssh2pp.Socket");

namespace {

// Connects without waiting inside the kernel, so that a stop request is seen
// while a host that drops packets is waited for (the kernel gives up on it
// after about two minutes, or at deadline when there is one). Returns 0 or
// the error of the connection.
int connectStoppably(int fd, const addrinfo* address, const std::chrono::steady_clock::time_point* deadline) {
    const int flags = ::fcntl(fd, F_GETFL);
    ::fcntl(fd, F_SETFL, flags | O_NONBLOCK);
    int error = ::connect(fd, address->ai_addr, address->ai_addrlen) == 0 ? 0 : errno;
    while (error == EINPROGRESS || error == EINTR) {
        checkProgramTerminated();
        if (deadline != nullptr && std::chrono::steady_clock::now() >= *deadline) {
            error = ETIMEDOUT;
            break;
        }
        pollfd entry = {fd, POLLOUT, 0};
        if (::poll(&entry, 1, 250) <= 0) continue;
        socklen_t length = sizeof error;
        if (::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) != 0) error = errno;
    }
    ::fcntl(fd, F_SETFL, flags);
    return error;
}

// Every remote command is a few small packets (channel open, exec,
// close) that wait on one another; held back for the peer's delayed
// acknowledgement, each would cost some 40 ms. A link that stalls is a lost
// connection after half a minute: an idle one is probed (and a NAT on the
// way kept awake), and what is sent must be acknowledged within that time.
void setLinkOptions(int fd) {
    const int one = 1;
    if (::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one) != 0)
        logger.debugStream() << "TCP_NODELAY not set: " << std::strerror(errno);
    const int idle = 15, interval = 5, probes = 3, unacknowledgedMs = 30000;
    if (::setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &one, sizeof one) != 0 ||
        ::setsockopt(fd, IPPROTO_TCP, TCP_KEEPIDLE, &idle, sizeof idle) != 0 ||
        ::setsockopt(fd, IPPROTO_TCP, TCP_KEEPINTVL, &interval, sizeof interval) != 0 ||
        ::setsockopt(fd, IPPROTO_TCP, TCP_KEEPCNT, &probes, sizeof probes) != 0 ||
        ::setsockopt(fd, IPPROTO_TCP, TCP_USER_TIMEOUT, &unacknowledgedMs, sizeof unacknowledgedMs) != 0)
        logger.debugStream() << "Keepalive not set: " << std::strerror(errno);
}

}  // namespace

addrinfo* Socket::gethostbyname(const std::string& host, unsigned short port) {
    logger.errorStream() << "Resolving " << host;
    const std::string service = std::to_string(static_cast<unsigned>(port));
    // An IPv6 literal may come in brackets, as in URLs and OpenSSH's
    // configuration ("[::1]"); the resolver takes it bare.
    const bool bracketed = host.size() > 2 && host.front() == '[' && host.back() == ']';
    const std::string name = bracketed ? host.substr(1, host.size() - 2) : host;
    addrinfo* list = nullptr;
    const int code = getaddrinfo(name.c_str(), service.c_str(), nullptr, &list);
    if (code == 0)
        return list;
    const std::string reason = gai_strerror(code);
    // Once a run, however many of its connections try.
    static std::atomic<bool> told(false);
    if (!told.exchange(true)) std::cerr << "Unable to resolve " << host << ": " << reason << std::endl;
    throw VELMO_EXC(HostNotFound) % host % reason;
}

Socket::Socket(const std::string& host, unsigned short port, std::chrono::milliseconds connectLimit)
    : fd_(-1), addresses_(nullptr) {
    logger.debugStream() << "Connecting to " << host << ":" << port << "\n";
    const auto deadline = std::chrono::steady_clock::now() + connectLimit;
    addresses_ = gethostbyname(host, port);

    // Every stream address of the name in turn, as OpenSSH's client does;
    // when none answers, the last one's failure is the one reported.
    int error = 0;        // of the last connect
    int socketError = 0;  // of the last socket that could not be made
    for (const addrinfo* address = addresses_; address != nullptr && fd_ < 0; address = address->ai_next) {
        if (address->ai_socktype != SOCK_STREAM && address->ai_socktype != 0) continue;
        fd_ = ::socket(address->ai_family, SOCK_STREAM, 0);
        if (fd_ < 0) {
            socketError = errno;
            continue;
        }
        error = connectStoppably(fd_, address, connectLimit.count() > 0 ? &deadline : nullptr);
        if (error == 0) break;
        char numeric[NI_MAXHOST] = "?";
        getnameinfo(address->ai_addr, address->ai_addrlen, numeric, sizeof numeric, nullptr, 0, NI_NUMERICHOST);
        logger.errorStream() << "Unable to open socket to " << host << ":" << port << " (" << numeric
                             << "): " << std::strerror(error) << "\n";
        ::close(fd_);
        fd_ = -1;
    }
    if (fd_ < 0) {
        freeaddrinfo(addresses_);
        addresses_ = nullptr;
        if (error == 0)
            throw std::runtime_error(std::string("socket: ") + std::strerror(socketError ? socketError : EAFNOSUPPORT));
        const std::string reason = std::strerror(error);
        switch (error) {
        case ENETUNREACH:
            throw VELMO_EXC(NetworkUnreachable) % host;
        case ETIMEDOUT:
            throw VELMO_EXC(ConnectionTimedOut) % host;
        case ECONNREFUSED:
            throw VELMO_EXC(ConnectionRefused) % host;
        case EHOSTUNREACH:
            throw VELMO_EXC(HostUnreachable) % host;
        default:
            throw VELMO_EXC(ConnectionFault) % host % reason;
        }
    }
    setLinkOptions(fd_);
    logger.debugStream() << "Connected";
}

Socket::~Socket() {
    if (addresses_ != nullptr)
        freeaddrinfo(addresses_);
    if (fd_ >= 0)
        ::close(fd_);
}

}  // namespace velmo
