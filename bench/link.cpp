// bench-link: a packet-level link between two network namespaces. It makes a
// TUN device in each, gives them point-to-point addresses, and moves every IP
// packet from one device to the other with a delay, random loss, a rate cap
// behind a tail-drop queue, and a switch that drops everything (link down).
//
//   bench-link --source-netns PATH --client-netns PATH
//              [--source-addr A] [--client-addr B] [--mtu N] [--seed S]
//
// PATH names a network namespace (/run/netns/<name>, /proc/<pid>/ns/net).
// The device is "vtlink" in both; A (default 198.18.0.1) is the source side's
// address, B (default 198.18.0.2) the client side's, each the peer of the
// other. The program prints "ready" once both devices are up, then reads
// commands on standard input, one a line, and answers each with "ok ..." or
// "error ...":
//
//   set DIR KEY=VALUE...  DIR: to-client, to-source or both. Keys: delay (ms
//                         one way), loss (probability 0..1), rate (Mbit/s,
//                         0: no cap), queue (bytes the rate cap may hold,
//                         more are dropped at the tail)
//   down / up             drop every packet, those on their way too / carry
//                         them again
//   stats                 "ok DIR packets=.. bytes=.. lost=.. tail=.. down=.."
//                         for each direction
//   seed N                starts the random losses of both directions again
//                         from N: runs that start from the same seed meet
//                         the same losses, packet for packet
//
// The end of standard input ends the program; the devices go with it.
//
// Each direction has a thread of its own: it reads what the kernel sends to
// one device, decides its fate, and writes it to the other device when its
// time has come. A packet's time is when the rate cap has sent it (after
// those before it) plus the delay. Packets go out in bursts of up to
// kQuantum of their times, which keeps wake-ups to a few thousand a second
// at any rate.
#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/if.h>
#include <linux/if_tun.h>
#include <net/route.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <iostream>
#include <mutex>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

using Nanos = int64_t;

constexpr const char* kDevice = "vtlink";
// Packets due within this much of now go out together.
constexpr Nanos kQuantum = 200 * 1000;
// What the kernel may queue on a device before the thread reads it; a
// stall of the thread of some 100 ms at 400 Mbit/s fits.
constexpr int kTxQueue = 4000;
// Bound of what one direction holds on its way, whatever the settings.
constexpr std::size_t kMaxHeld = 256u << 20;

Nanos now() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<Nanos>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

[[noreturn]] void fail(const std::string& what) {
    std::cerr << "bench-link: " << what << ": " << std::strerror(errno) << std::endl;
    std::exit(1);
}

struct Settings {
    double delayMs = 0;
    double loss = 0;
    double rateMbit = 0;
    std::size_t queueBytes = 1u << 20;
};

struct Packet {
    Nanos due;
    std::vector<uint8_t> bytes;
};

class Direction {
public:
    Direction(const char* name, uint64_t seed) : name_(name), random_(seed) {
        wake_ = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
        timer_ = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
        if (wake_ < 0 || timer_ < 0) fail("eventfd/timerfd");
    }

    const char* name() const { return name_; }
    void connect(int from, int to, std::size_t mtu) {
        from_ = from;
        to_ = to;
        mtu_ = mtu;
    }
    void set(const Settings& s) {
        std::lock_guard<std::mutex> lock(mutex_);
        settings_ = s;
        wake();
    }
    Settings settings() {
        std::lock_guard<std::mutex> lock(mutex_);
        return settings_;
    }
    void reseed(uint64_t seed) {
        seed_ = seed;
        reseed_ = true;
        wake();
    }
    void setDown(bool down) {
        down_ = down;
        wake();
    }
    void stop() {
        stopping_ = true;
        wake();
    }
    std::string stats() const {
        std::ostringstream out;
        out << name_ << " packets=" << packets_ << " bytes=" << bytes_ << " lost=" << lost_ << " tail=" << tail_
            << " down=" << downDrops_;
        return out.str();
    }
    void run();

private:
    void wake() {
        const uint64_t one = 1;
        (void)!write(wake_, &one, sizeof one);
    }
    void take(Nanos t, const Settings& s, std::vector<uint8_t>&& bytes);
    void send(Nanos t);
    void arm();

    const char* name_;
    int from_ = -1, to_ = -1, wake_ = -1, timer_ = -1;
    std::size_t mtu_ = 1500;
    std::mutex mutex_;
    Settings settings_;
    std::atomic<bool> down_{false}, stopping_{false}, reseed_{false};
    std::atomic<uint64_t> seed_{0};
    std::atomic<uint64_t> packets_{0}, bytes_{0}, lost_{0}, tail_{0}, downDrops_{0};
    std::mt19937_64 random_;
    std::uniform_real_distribution<double> uniform_{0.0, 1.0};
    std::deque<Packet> held_;
    std::size_t heldBytes_ = 0;
    std::vector<std::vector<uint8_t>> spare_;
    Nanos capFree_ = 0;  // when the rate cap has sent all it holds
};

void Direction::run() {
    pollfd fds[3] = {{from_, POLLIN, 0}, {timer_, POLLIN, 0}, {wake_, POLLIN, 0}};
    while (!stopping_) {
        if (poll(fds, 3, -1) < 0 && errno != EINTR) fail("poll");
        uint64_t count;
        (void)!read(timer_, &count, sizeof count);
        (void)!read(wake_, &count, sizeof count);
        const Settings s = settings();
        if (reseed_.exchange(false)) random_.seed(seed_);
        if (down_) {
            downDrops_ += held_.size();
            held_.clear();
            heldBytes_ = 0;
        }
        // Reads are taken in turns with sends, so that a flood in does not
        // hold back what is due out.
        for (int i = 0; i < 256; ++i) {
            std::vector<uint8_t> bytes;
            if (!spare_.empty()) {
                bytes = std::move(spare_.back());
                spare_.pop_back();
            }
            bytes.resize(mtu_ + 64);
            const ssize_t n = read(from_, bytes.data(), bytes.size());
            if (n < 0) {
                if (errno != EAGAIN && errno != EINTR) fail("read from the device");
                spare_.push_back(std::move(bytes));
                break;
            }
            bytes.resize(static_cast<std::size_t>(n));
            take(now(), s, std::move(bytes));
        }
        send(now());
        arm();
    }
}

void Direction::take(Nanos t, const Settings& s, std::vector<uint8_t>&& bytes) {
    if (down_) {
        ++downDrops_;
        return;
    }
    if (s.loss > 0 && uniform_(random_) < s.loss) {
        ++lost_;
        return;
    }
    Nanos leaves = t;
    if (s.rateMbit > 0) {
        // A work-conserving FIFO at the cap: what it holds is what it still
        // has to send until capFree_.
        const double bytesPerNano = s.rateMbit * 1e6 / 8 / 1e9;
        const double queued = capFree_ > t ? static_cast<double>(capFree_ - t) * bytesPerNano : 0.0;
        if (queued + static_cast<double>(bytes.size()) > static_cast<double>(s.queueBytes)) {
            ++tail_;
            return;
        }
        capFree_ = std::max(capFree_, t) + static_cast<Nanos>(static_cast<double>(bytes.size()) / bytesPerNano);
        leaves = capFree_;
    }
    if (heldBytes_ + bytes.size() > kMaxHeld) {
        ++tail_;
        return;
    }
    // A later packet never overtakes an earlier one, also when the delay
    // shrinks while both are on their way.
    Nanos due = leaves + static_cast<Nanos>(s.delayMs * 1e6);
    if (!held_.empty()) due = std::max(due, held_.back().due);
    heldBytes_ += bytes.size();
    held_.push_back(Packet{due, std::move(bytes)});
}

void Direction::send(Nanos t) {
    while (!held_.empty() && held_.front().due <= t + kQuantum) {
        Packet& p = held_.front();
        if (write(to_, p.bytes.data(), p.bytes.size()) < 0) {
            // The device on the other side refused it (it is going away).
            ++downDrops_;
        } else {
            ++packets_;
            bytes_ += p.bytes.size();
        }
        heldBytes_ -= p.bytes.size();
        if (spare_.size() < 1024) spare_.push_back(std::move(p.bytes));
        held_.pop_front();
    }
}

void Direction::arm() {
    itimerspec when{};
    if (!held_.empty()) {
        const Nanos due = held_.front().due;
        when.it_value.tv_sec = due / 1000000000;
        when.it_value.tv_nsec = due % 1000000000;
    }
    if (timerfd_settime(timer_, TFD_TIMER_ABSTIME, &when, nullptr) < 0) fail("timerfd_settime");
}

// Enters the network namespace at path, for the calling thread.
void enter(const std::string& path) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) fail("open " + path);
    if (setns(fd, CLONE_NEWNET) < 0) fail("setns " + path);
    close(fd);
}

void ioctlOrFail(int fd, unsigned long request, ifreq& ifr, const char* what) {
    if (ioctl(fd, request, &ifr) < 0) fail(std::string(what) + " " + ifr.ifr_name);
}

void setAddress(int sock, ifreq& ifr, unsigned long request, const std::string& address) {
    sockaddr_in in{};
    in.sin_family = AF_INET;
    if (inet_pton(AF_INET, address.c_str(), &in.sin_addr) != 1) {
        errno = EINVAL;
        fail("address " + address);
    }
    std::memcpy(&ifr.ifr_addr, &in, sizeof in);
    ioctlOrFail(sock, request, ifr, "address");
}

void bringUp(int sock, const char* name) {
    ifreq ifr{};
    std::strncpy(ifr.ifr_name, name, IFNAMSIZ - 1);
    ioctlOrFail(sock, SIOCGIFFLAGS, ifr, "SIOCGIFFLAGS");
    ifr.ifr_flags |= IFF_UP | IFF_RUNNING;
    ioctlOrFail(sock, SIOCSIFFLAGS, ifr, "SIOCSIFFLAGS");
}

// Makes the device in the namespace at path, with address local and peer
// remote, and brings it and the namespace's loopback up. Returns the
// device's descriptor.
int makeDevice(const std::string& path, const std::string& local, const std::string& remote, int mtu) {
    enter(path);
    const int fd = open("/dev/net/tun", O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) fail("open /dev/net/tun");
    ifreq ifr{};
    std::strncpy(ifr.ifr_name, kDevice, IFNAMSIZ - 1);
    ifr.ifr_flags = IFF_TUN | IFF_NO_PI;
    ioctlOrFail(fd, TUNSETIFF, ifr, "TUNSETIFF");

    const int sock = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (sock < 0) fail("socket");
    ifr = ifreq{};
    std::strncpy(ifr.ifr_name, kDevice, IFNAMSIZ - 1);
    ifr.ifr_mtu = mtu;
    ioctlOrFail(sock, SIOCSIFMTU, ifr, "SIOCSIFMTU");
    ifr.ifr_qlen = kTxQueue;
    ioctlOrFail(sock, SIOCSIFTXQLEN, ifr, "SIOCSIFTXQLEN");
    setAddress(sock, ifr, SIOCSIFADDR, local);
    setAddress(sock, ifr, SIOCSIFDSTADDR, remote);
    bringUp(sock, kDevice);
    bringUp(sock, "lo");
    close(sock);
    return fd;
}

bool parseSettings(std::istringstream& words, Settings& s) {
    std::string word;
    while (words >> word) {
        const std::size_t eq = word.find('=');
        if (eq == std::string::npos) return false;
        const std::string key = word.substr(0, eq);
        char* end = nullptr;
        const double value = std::strtod(word.c_str() + eq + 1, &end);
        if (end == word.c_str() + eq + 1 || *end != '\0' || !(value >= 0) || !std::isfinite(value)) return false;
        if (key == "delay")
            s.delayMs = value;
        else if (key == "loss" && value <= 1)
            s.loss = value;
        else if (key == "rate")
            s.rateMbit = value;
        else if (key == "queue")
            s.queueBytes = static_cast<std::size_t>(value);
        else
            return false;
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    std::string sourceNs, clientNs, sourceAddr = "198.18.0.1", clientAddr = "198.18.0.2";
    int mtu = 1500;
    uint64_t seed = 1;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string key = argv[i], value = argv[i + 1];
        if (key == "--source-netns")
            sourceNs = value;
        else if (key == "--client-netns")
            clientNs = value;
        else if (key == "--source-addr")
            sourceAddr = value;
        else if (key == "--client-addr")
            clientAddr = value;
        else if (key == "--mtu")
            mtu = std::atoi(value.c_str());
        else if (key == "--seed")
            seed = std::strtoull(value.c_str(), nullptr, 10);
        else
            sourceNs.clear();
    }
    if (sourceNs.empty() || clientNs.empty() || argc % 2 == 0 || mtu < 576 || mtu > 65535) {
        std::cerr << "usage: bench-link --source-netns PATH --client-netns PATH [--source-addr A] "
                     "[--client-addr B] [--mtu N] [--seed S]"
                  << std::endl;
        return 2;
    }
    const int source = makeDevice(sourceNs, sourceAddr, clientAddr, mtu);
    const int client = makeDevice(clientNs, clientAddr, sourceAddr, mtu);

    Direction toClient("to-client", seed), toSource("to-source", seed * 7919 + 1);
    toClient.connect(source, client, static_cast<std::size_t>(mtu));
    toSource.connect(client, source, static_cast<std::size_t>(mtu));
    std::thread a(&Direction::run, &toClient), b(&Direction::run, &toSource);
    std::cout << "ready" << std::endl;

    std::string line;
    while (std::getline(std::cin, line)) {
        std::istringstream words(line);
        std::string command, which;
        uint64_t n = 0;
        words >> command;
        if (command == "set") {
            words >> which;
            std::vector<Direction*> dirs;
            if (which == "to-client" || which == "both") dirs.push_back(&toClient);
            if (which == "to-source" || which == "both") dirs.push_back(&toSource);
            const std::streampos at = words.tellg();
            const std::string keys = at < 0 ? std::string() : line.substr(static_cast<std::size_t>(at));
            Settings checked;
            if (dirs.empty() || !parseSettings(words, checked)) {
                std::cout << "error: set to-client|to-source|both delay=MS loss=P rate=MBIT queue=BYTES" << std::endl;
                continue;
            }
            // Keys not named keep each direction's own value.
            for (Direction* d : dirs) {
                Settings s = d->settings();
                std::istringstream again(keys);
                parseSettings(again, s);
                d->set(s);
            }
            std::cout << "ok" << std::endl;
        } else if (command == "down" || command == "up") {
            toClient.setDown(command == "down");
            toSource.setDown(command == "down");
            std::cout << "ok" << std::endl;
        } else if (command == "seed" && (words >> n)) {
            toClient.reseed(n);
            toSource.reseed(n * 7919 + 1);
            std::cout << "ok" << std::endl;
        } else if (command == "stats") {
            std::cout << "ok " << toClient.stats() << "; " << toSource.stats() << std::endl;
        } else if (!command.empty()) {
            std::cout << "error: unknown command " << command << std::endl;
        }
    }
    toClient.stop();
    toSource.stop();
    a.join();
    b.join();
    return 0;
}
