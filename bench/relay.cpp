// bench-relay: a loopback TCP relay that holds every byte back a fixed time in
// each direction, so that the benchmarks can run as over a long link.
//
//   bench-relay --target-port P --delay-ms D [--listen-port L]
//
// Listens on 127.0.0.1:L (L 0 or missing: a free port), prints "port <n>" on
// standard output once it listens, and relays every accepted connection to
// 127.0.0.1:P until SIGTERM or SIGINT. A byte read at time t is written on at
// t + D: the relay reads as much as it is offered and queues without bound,
// so that only the delay, never the relay, limits a transfer. The end of a
// stream (a shutdown or a close) reaches the other side after the same delay;
// a reset or a write error drops both sides at once.
//
// A new connection also pays the round trip of a TCP handshake: what the
// client sends counts as sent one round trip after its connect, and the
// connection to the target is made when the handshake would reach the server.
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <iostream>
#include <list>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

// One read, or the end of the stream (empty bytes), and when it may go on.
struct Chunk {
    Clock::time_point due;
    std::vector<char> bytes;
    std::size_t written = 0;
    bool end = false;
};

// The bytes of one direction between reading them from one socket and
// writing them to the other.
struct Direction {
    std::deque<Chunk> queue;
    Clock::time_point notBefore;  // reads count as made no earlier than this
    bool readEnded = false;       // the source reported its end
    bool shutDown = false;        // the end went on to the destination
    bool blocked = false;         // the destination's buffer is full
};

struct Link;

// What epoll reports an event for: one of the two sockets of a link.
struct Side {
    Link* link;
    bool server;
};

struct Link {
    int client = -1;
    int server = -1;
    bool connecting = false;  // connect() to the target is under way
    bool connected = false;
    Clock::time_point connectAt;
    Direction up;    // client to server
    Direction down;  // server to client
    Side clientSide{this, false};
    Side serverSide{this, true};
    unsigned clientEvents = 0;  // what epoll watches for; 0: not in the set
    unsigned serverEvents = 0;
    bool dead = false;
};

constexpr std::size_t kReadSize = 256 * 1024;
constexpr int kReadsPerEvent = 16;

volatile sig_atomic_t stopRequested = 0;

void onStop(int) { stopRequested = 1; }

[[noreturn]] void fail(const std::string& what) {
    std::cerr << "bench-relay: " << what << ": " << std::strerror(errno) << std::endl;
    std::exit(1);
}

int usage() {
    std::cerr << "usage: bench-relay --target-port P --delay-ms D [--listen-port L]\n";
    return 2;
}

sockaddr_in loopback(unsigned short port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    return address;
}

// Small segments must not wait for the peer's ACK: the relay forwards what
// the endpoints already chose to send.
void noDelay(int fd) {
    int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
}

class Relay {
public:
    Relay(int listener, unsigned short target, Clock::duration delay)
        : listener_(listener), target_(target), delay_(delay) {
        epoll_ = epoll_create1(EPOLL_CLOEXEC);
        if (epoll_ < 0) fail("epoll_create1");
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.ptr = nullptr;
        if (epoll_ctl(epoll_, EPOLL_CTL_ADD, listener_, &event) != 0) fail("epoll_ctl");
    }

    void run() {
        std::vector<epoll_event> events(64);
        while (!stopRequested) {
            const int n = epoll_wait(epoll_, events.data(), static_cast<int>(events.size()), timeout());
            if (n < 0) {
                if (errno == EINTR) continue;
                fail("epoll_wait");
            }
            for (int i = 0; i < n; ++i) {
                if (events[i].data.ptr == nullptr) {
                    accept();
                    continue;
                }
                Side* side = static_cast<Side*>(events[i].data.ptr);
                if (!side->link->dead) onEvent(*side, events[i].events);
            }
            const Clock::time_point now = Clock::now();
            for (Link& link : links_) {
                if (!link.dead && !link.connected && !link.connecting && link.connectAt <= now) connect(link);
                if (!link.dead) flush(link, now);
            }
            for (auto it = links_.begin(); it != links_.end();) {
                if (it->dead || (it->up.shutDown && it->down.shutDown)) {
                    close(it->client);
                    if (it->server >= 0) close(it->server);
                    it = links_.erase(it);
                } else {
                    ++it;
                }
            }
        }
    }

private:
    // Milliseconds until the next chunk or connect is due, -1 if none is.
    int timeout() const {
        bool any = false;
        Clock::time_point next;
        auto consider = [&](Clock::time_point t) {
            if (!any || t < next) next = t;
            any = true;
        };
        for (const Link& link : links_) {
            if (!link.connected && !link.connecting) consider(link.connectAt);
            if (link.connected && !link.up.blocked && !link.up.queue.empty()) consider(link.up.queue.front().due);
            if (!link.down.blocked && !link.down.queue.empty()) consider(link.down.queue.front().due);
        }
        if (!any) return -1;
        const auto wait = next - Clock::now();
        if (wait <= Clock::duration::zero()) return 0;
        // Rounded up: waking early would only spin.
        return static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(wait).count());
    }

    void accept() {
        for (;;) {
            const int fd = accept4(listener_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
            if (fd < 0) {
                if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) return;
                if (errno == ECONNABORTED) continue;
                fail("accept");
            }
            noDelay(fd);
            links_.emplace_back();
            Link& link = links_.back();
            link.client = fd;
            const Clock::time_point now = Clock::now();
            link.up.notBefore = now + 2 * delay_;
            link.connectAt = now + 3 * delay_;
            watch(link, false);
        }
    }

    void connect(Link& link) {
        link.server = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        if (link.server < 0) fail("socket");
        noDelay(link.server);
        const sockaddr_in address = loopback(target_);
        if (::connect(link.server, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
            link.connected = true;
        } else if (errno == EINPROGRESS) {
            link.connecting = true;
        } else {
            std::cerr << "bench-relay: connect to port " << target_ << ": " << std::strerror(errno) << std::endl;
            close(link.server);
            link.server = -1;
            link.dead = true;
            return;
        }
        watch(link, true);
    }

    void onEvent(Side& side, unsigned events) {
        Link& link = *side.link;
        if (side.server && link.connecting) {
            int error = 0;
            socklen_t length = sizeof error;
            getsockopt(link.server, SOL_SOCKET, SO_ERROR, &error, &length);
            if (error != 0) {
                std::cerr << "bench-relay: connect to port " << target_ << ": " << std::strerror(error)
                          << std::endl;
                link.dead = true;
                return;
            }
            link.connecting = false;
            link.connected = true;
            watch(link, true);
            return;
        }
        // A hang-up also ends a wait for room: the next write tells whether
        // the peer is gone.
        if (events & (EPOLLOUT | EPOLLHUP | EPOLLERR)) (side.server ? link.up : link.down).blocked = false;
        if (events & (EPOLLIN | EPOLLHUP | EPOLLERR)) read(link, side.server);
    }

    // Reads what the socket offers, up to a bound per event so that one busy
    // connection cannot starve the others.
    void read(Link& link, bool fromServer) {
        Direction& d = fromServer ? link.down : link.up;
        const int fd = fromServer ? link.server : link.client;
        if (d.readEnded) return;
        for (int i = 0; i < kReadsPerEvent; ++i) {
            buffer_.resize(kReadSize);
            const ssize_t n = ::read(fd, buffer_.data(), buffer_.size());
            if (n < 0) {
                if (errno == EINTR) continue;
                if (errno == EAGAIN || errno == EWOULDBLOCK) return;
                link.dead = true;  // a reset: both sides go at once
                return;
            }
            Chunk chunk;
            chunk.due = std::max(Clock::now(), d.notBefore) + delay_;
            if (n == 0) {
                chunk.end = true;
                d.readEnded = true;
                d.queue.push_back(std::move(chunk));
                watch(link, fromServer);
                return;
            }
            chunk.bytes.assign(buffer_.data(), buffer_.data() + n);
            d.queue.push_back(std::move(chunk));
            if (static_cast<std::size_t>(n) < kReadSize) return;
        }
    }

    void flush(Link& link, Clock::time_point now) {
        if (link.connected) flush(link, link.up, link.server, true, now);
        flush(link, link.down, link.client, false, now);
    }

    void flush(Link& link, Direction& d, int fd, bool toServer, Clock::time_point now) {
        const bool wasBlocked = d.blocked;
        while (!link.dead && !d.blocked && !d.queue.empty() && d.queue.front().due <= now) {
            Chunk& chunk = d.queue.front();
            if (chunk.end) {
                shutdown(fd, SHUT_WR);
                d.shutDown = true;
                d.queue.pop_front();
                continue;
            }
            const ssize_t n = ::send(fd, chunk.bytes.data() + chunk.written, chunk.bytes.size() - chunk.written,
                                     MSG_NOSIGNAL);
            if (n < 0) {
                if (errno == EINTR) continue;
                if (errno == EAGAIN || errno == EWOULDBLOCK)
                    d.blocked = true;
                else
                    link.dead = true;
                continue;
            }
            chunk.written += static_cast<std::size_t>(n);
            if (chunk.written == chunk.bytes.size()) d.queue.pop_front();
        }
        if (!link.dead && d.blocked != wasBlocked) watch(link, toServer);
    }

    // Brings the epoll registration of one socket in line with what it is
    // waiting for.
    void watch(Link& link, bool server) {
        const int fd = server ? link.server : link.client;
        unsigned wanted = 0;
        if (server) {
            if (link.connecting) {
                wanted = EPOLLOUT;
            } else {
                if (!link.down.readEnded) wanted |= EPOLLIN;
                if (link.up.blocked) wanted |= EPOLLOUT;
            }
        } else {
            if (!link.up.readEnded) wanted |= EPOLLIN;
            if (link.down.blocked) wanted |= EPOLLOUT;
        }
        // A socket that is neither read nor waited on leaves the set: epoll
        // would report its hang-up at every pass.
        unsigned& current = server ? link.serverEvents : link.clientEvents;
        if (wanted == current) return;
        epoll_event event{};
        event.events = wanted;
        event.data.ptr = server ? &link.serverSide : &link.clientSide;
        const int op = current == 0 ? EPOLL_CTL_ADD : wanted == 0 ? EPOLL_CTL_DEL : EPOLL_CTL_MOD;
        if (epoll_ctl(epoll_, op, fd, &event) != 0) fail("epoll_ctl");
        current = wanted;
    }

    int listener_;
    unsigned short target_;
    Clock::duration delay_;
    int epoll_ = -1;
    std::list<Link> links_;
    std::vector<char> buffer_;
};

}  // namespace

int main(int argc, char** argv) {
    long targetPort = -1, listenPort = 0;
    long delayMs = -1;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string arg = argv[i];
        char* end = nullptr;
        const long value = std::strtol(argv[i + 1], &end, 10);
        if (*end != '\0' || value < 0) return usage();
        if (arg == "--target-port")
            targetPort = value;
        else if (arg == "--listen-port")
            listenPort = value;
        else if (arg == "--delay-ms")
            delayMs = value;
        else
            return usage();
    }
    if (argc % 2 != 1 || targetPort <= 0 || targetPort > 65535 || listenPort > 65535 || delayMs < 0)
        return usage();

    struct sigaction action {};
    action.sa_handler = onStop;
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGINT, &action, nullptr);
    signal(SIGPIPE, SIG_IGN);

    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (listener < 0) fail("socket");
    int one = 1;
    setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in address = loopback(static_cast<unsigned short>(listenPort));
    if (bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) fail("bind");
    if (listen(listener, 128) != 0) fail("listen");
    socklen_t length = sizeof address;
    if (getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) != 0) fail("getsockname");
    std::cout << "port " << ntohs(address.sin_port) << std::endl;

    Relay relay(listener, static_cast<unsigned short>(targetPort), std::chrono::milliseconds(delayMs));
    relay.run();
    return 0;
}
