#include <cerrno>
#include <cstring>
#include <string>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "commons/exceptions.h"
#include "commons/handle.h"
#include "commons/socket.h"

using velmo::Exc;

namespace {

int releaseCalls = 0;
int* lastReleased = nullptr;
void countRelease(int* p) {
    ++releaseCalls;
    lastReleased = p;
}
typedef velmo::Handle<int*, &countRelease> CountedHandle;

// A listening loopback socket on a free port.
struct Listener {
    Listener() {
        fd = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        addr.sin_port = 0;
        EXPECT_EQ(0, ::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr));
        EXPECT_EQ(0, ::listen(fd, 4));
        socklen_t len = sizeof addr;
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
        port = ntohs(addr.sin_port);
    }
    ~Listener() {
        if (fd >= 0) ::close(fd);
    }
    void close() {
        ::close(fd);
        fd = -1;
    }
    int fd;
    unsigned short port;
};

}  // namespace

TEST(Handle, RefusesNullWithoutReleasingAndReleasesOwnedValueOnce) {
    releaseCalls = 0;
    try {
        CountedHandle h(nullptr);
        FAIL() << "a null handle was accepted";
    } catch (const Exc<&velmo::InvalidHandle>& e) {
        EXPECT_STREQ("Invalid handle passed", e.what());
    }
    EXPECT_EQ(0, releaseCalls);

    int value = 7;
    {
        CountedHandle h(&value);
        EXPECT_EQ(&value, h.get());
        EXPECT_EQ(0, releaseCalls);
    }
    EXPECT_EQ(1, releaseCalls);
    EXPECT_EQ(&value, lastReleased);

    // The string instance frees with free(): the sanitizer build catches a
    // mismatch or a leak here.
    velmo::StringHandle s(strdup("publickey"));
    EXPECT_STREQ("publickey", s.get());
}

TEST(Socket, ConnectsToListenerAndClosesItsDescriptor) {
    Listener listener;
    int fd;
    {
        velmo::Socket socket("127.0.0.1", listener.port);
        fd = socket.fd();
        ASSERT_GE(fd, 0);
        sockaddr_in peer{};
        socklen_t len = sizeof peer;
        ASSERT_EQ(0, ::getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &len));
        EXPECT_EQ(listener.port, ntohs(peer.sin_port));
    }
    errno = 0;
    EXPECT_EQ(-1, ::fcntl(fd, F_GETFD));
    EXPECT_EQ(EBADF, errno);
}

TEST(Socket, ClosedLoopbackPortIsConnectionRefused) {
    Listener listener;
    const unsigned short port = listener.port;
    listener.close();
    try {
        velmo::Socket socket("127.0.0.1", port);
        FAIL() << "connected to a closed port";
    } catch (const Exc<&velmo::ConnectionRefused>& e) {
        EXPECT_EQ("ConnectionRefused", e.code());
        EXPECT_STREQ("No one listening on the remote address at host 127.0.0.1", e.what());
    }
}

TEST(Socket, UnresolvableNameIsHostNotFoundAlsoOnStandardError) {
    // An invalid character makes the resolver refuse the name itself, so no
    // query leaves the machine.
    const std::string host = "no such host!";
    testing::internal::CaptureStderr();
    std::string message;
    bool thrown = false;
    try {
        velmo::Socket socket(host, 22);
    } catch (const Exc<&velmo::HostNotFound>& e) {
        thrown = true;
        message = e.what();
    }
    const std::string stderrText = testing::internal::GetCapturedStderr();
    ASSERT_TRUE(thrown);
    const std::string prefix = "Unable to resolve hostname " + host + ": ";
    ASSERT_EQ(0u, message.find(prefix)) << message;
    const std::string reason = message.substr(prefix.size());
    EXPECT_FALSE(reason.empty());
    EXPECT_NE(std::string::npos, stderrText.find("Unable to resolve " + host + ": " + reason)) << stderrText;
}

TEST(Socket, PortReachesResolverAsPlainDecimal) {
    for (unsigned short port : {22, 65535, 1}) {
        addrinfo* list = velmo::Socket::gethostbyname("127.0.0.1", port);
        ASSERT_NE(nullptr, list);
        ASSERT_EQ(AF_INET, list->ai_family);
        EXPECT_EQ(port, ntohs(reinterpret_cast<sockaddr_in*>(list->ai_addr)->sin_port));
        freeaddrinfo(list);
    }
}

TEST(AlarmSignalBlock, HoldsSigalrmBackAndRestoresTheMaskWhenNested) {
    auto alarmBlocked = [] {
        sigset_t now;
        sigprocmask(SIG_BLOCK, nullptr, &now);
        return sigismember(&now, SIGALRM) == 1;
    };
    ASSERT_FALSE(alarmBlocked());
    {
        velmo::AlarmSignalBlock outer;
        EXPECT_TRUE(alarmBlocked());
        {
            velmo::AlarmSignalBlock inner;
            EXPECT_TRUE(alarmBlocked());
        }
        EXPECT_TRUE(alarmBlocked());
    }
    EXPECT_FALSE(alarmBlocked());
}
