#include "commons/socket.h"

#include <cerrno>
#include <cstring>
#include <iostream>
#include <stdexcept>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <unistd.h>

#include <log4cpp/Category.hh>

#include "commons/exceptions.h"

namespace velmo {

static log4cpp::Category& logger = log4cpp::Category::getInstance("p.libssh2pp.Socket");

addrinfo* Socket::gethostbyname(const std::string& host, unsigned short port) {
    logger.errorStream() << "Resolving " << host;
    const std::string service = std::to_string(static_cast<unsigned>(port));
    addrinfo* list = nullptr;
    const int code = getaddrinfo(host.c_str(), service.c_str(), nullptr, &list);
    if (code == 0)
        return list;
    const std::string reason = gai_strerror(code);
    std::cerr << "Unable to resolve " << host << ": " << reason << std::endl;
    throw VELMO_EXC(HostNotFound) % host % reason;
}

Socket::Socket(const std::string& host, unsigned short port) : fd_(-1), addresses_(nullptr) {
    logger.debugStream() << "Connecting to " << host << ":" << port << "\n";
    addresses_ = gethostbyname(host, port);

    fd_ = ::socket(addresses_->ai_family, SOCK_STREAM, 0);
    if (fd_ < 0) {
        const int error = errno;
        freeaddrinfo(addresses_);
        addresses_ = nullptr;
        throw std::runtime_error(std::string("socket: ") + std::strerror(error));
    }

    if (::connect(fd_, addresses_->ai_addr, addresses_->ai_addrlen) != 0) {
        const int error = errno;
        const std::string reason = std::strerror(error);
        logger.errorStream() << "Unable to open socket to " << host << ":" << port << ": " << reason << "\n";
        freeaddrinfo(addresses_);
        addresses_ = nullptr;
        ::close(fd_);
        fd_ = -1;
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
    // Every remote command is a few small packets (channel open, exec,
    // close) that wait on one another; held back for the peer's delayed
    // acknowledgement, each would cost some 40 ms.
    const int one = 1;
    if (::setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one) != 0)
        logger.debugStream() << "TCP_NODELAY not set: " << std::strerror(errno);
    logger.debugStream() << "Connected";
}

Socket::~Socket() {
    if (addresses_ != nullptr)
        freeaddrinfo(addresses_);
    if (fd_ >= 0)
        ::close(fd_);
}

}  // namespace velmo
