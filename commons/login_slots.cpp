#include "commons/login_slots.h"

#include <cctype>
#include <cerrno>
#include <chrono>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <log4cpp/Category.hh>

#include "commons/env_number.h"
#include "commons/exceptions.h"
#include "commons/ssh-transfer.h"

namespace velmo {

namespace {

log4cpp::Category& slotLog = log4cpp::Category::getInstance("p.Ssh");

const char kDirectory[] = "/run/vantrel/logins";
const int kDefaultSlots = 4;
const int kMostSlots = 10;
// How long a wait for a free slot sleeps between looks, at most.
const int kLongestLookMs = 50;

// A directory of root's that nobody else can change; false when it cannot be had.
bool ownDirectory(const char* path) {
    if (::mkdir(path, 0700) != 0 && errno != EEXIST) return false;
    struct stat seen;
    return ::lstat(path, &seen) == 0 && S_ISDIR(seen.st_mode) && seen.st_uid == ::geteuid() &&
           (seen.st_mode & 077) == 0;
}

// The file name of a slot: the host as given (other bytes than letters,
// digits, dots and dashes as '_'), the port, the slot's number.
std::string slotName(const std::string& host, unsigned short port, int slot) {
    std::string name;
    for (const char c : host)
        name += (std::isalnum(static_cast<unsigned char>(c)) || c == '.' || c == '-') ? c : '_';
    return std::string(kDirectory) + "/" + name + "_" + std::to_string(port) + "." + std::to_string(slot);
}

}  // namespace

int LoginSlot::count() { return static_cast<int>(envNumber("KVA_LOGIN_SLOTS", 1, kMostSlots, kDefaultSlots)); }

const char* LoginSlot::directory() { return kDirectory; }

LoginSlot::LoginSlot(const std::string& host, unsigned short port, const std::function<bool()>& giveUp) {
    if (!ownDirectory("/run/vantrel") || !ownDirectory(kDirectory)) {
        slotLog.debugStream() << "No login slots under " << kDirectory << ": logins are not counted";
        return;
    }
    const int slots = count();
    std::vector<int> files;
    for (int i = 0; i < slots; ++i) {
        const int fd = ::open(slotName(host, port, i).c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
        if (fd >= 0) files.push_back(fd);
    }
    std::minstd_rand random(static_cast<unsigned>(::getpid()) ^ static_cast<unsigned>(
        std::chrono::steady_clock::now().time_since_epoch().count()));
    bool told = false;
    while (fd_ < 0 && !files.empty()) {
        // Each process starts its look at a slot of its own choice, so that
        // the first slot is no queue.
        const std::size_t first = random() % files.size();
        for (std::size_t i = 0; i < files.size() && fd_ < 0; ++i) {
            const int fd = files[(first + i) % files.size()];
            if (::flock(fd, LOCK_EX | LOCK_NB) == 0) fd_ = fd;
        }
        if (fd_ >= 0) break;
        if (!std::exchange(told, true))
            slotLog.infoStream() << "Waiting for one of the " << slots << " login slots toward " << host << " port "
                                 << port << " (" << kDirectory << ")";
        try {
            checkProgramTerminated();
            if (giveUp && giveUp()) throw VELMO_EXC(SshConnectionFault);
        } catch (...) {
            for (const int fd : files) ::close(fd);
            throw;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1 + random() % kLongestLookMs));
    }
    for (const int fd : files)
        if (fd != fd_) ::close(fd);
}

LoginSlot::~LoginSlot() {
    // Closing the file gives its lock back.
    if (fd_ >= 0) ::close(fd_);
}

}  // namespace velmo
