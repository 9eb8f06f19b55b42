#include "commons/commons.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <log4cpp/Category.hh>

#include "commons/exceptions.h"
#include "commons/local_files.h"
#include "commons/mutex.h"
#include "commons/session.h"
#include "utils/read_configuration.h"

namespace velmo {

namespace {
log4cpp::Category& runLog = log4cpp::Category::getInstance("p.log");
}

const char* const KVA_ADMIN_USER = "kvaadm";

uint64_t getFreeSpace(const std::string& path) {
    struct statfs64 fs;
    if (statfs64(path.c_str(), &fs) != 0) throw VELMO_EXC(CantStatFS) % path % std::strerror(errno);
    return static_cast<uint64_t>(fs.f_bavail) * static_cast<uint64_t>(fs.f_bsize);
}

std::string QMV_getTempFileName(const std::string& dir, const std::string& prefix) {
    std::string base;
    if (!dir.empty()) {
        base = dir;
    } else if (const char* tmp = kvaConfGet("DUMP_TMP_D")) {
        base = tmp;
    } else {
        base = files::getTmpDir();
    }
    std::string name;
    Directory::open(base).createTemp(prefix, 0600, name);
    return base + (base.empty() || base.back() != '/' ? "/" : "") + name;
}

bool check_input_file(const char* path, bool) {
    if (path == nullptr || *path == '\0') return false;
    struct stat st;
    return stat(path, &st) == 0 && S_ISREG(st.st_mode);
}

void make_dir(const std::string& path, unsigned uid, unsigned gid, unsigned mode) {
    Directory::make(path, uid, gid, mode);
}

void make_content_dir(const std::string& path, unsigned uid, unsigned gid, unsigned mode) {
    make_dir(path, uid, gid, mode);
}

std::string getFileNameFromPath(const std::string& path) {
    std::string::size_type at = path.rfind('/');
    return at == std::string::npos ? path : path.substr(at + 1);
}

std::string getPath(const std::string& path) {
    std::string::size_type at = path.rfind('/');
    return at == std::string::npos ? std::string() : path.substr(0, at);
}

void getAdminIds(uid_t& uid, gid_t& gid) {
    // Looked up once: the account does not change during a run, and threads
    // that write files for it ask at once.
    static const std::pair<uid_t, gid_t> ids = [] {
        errno = 0;
        struct passwd entry;
        struct passwd* pw = nullptr;
        std::vector<char> buffer(16384);
        const int error = getpwnam_r(KVA_ADMIN_USER, &entry, buffer.data(), buffer.size(), &pw);
        if (pw == nullptr)
            runLog.warn("The account %s is missing (%s): files for the controlling process stay root's",
                        KVA_ADMIN_USER, error ? std::strerror(error) : "no such user");
        return pw ? std::make_pair(pw->pw_uid, pw->pw_gid) : std::make_pair(uid_t(0), gid_t(0));
    }();
    uid = ids.first;
    gid = ids.second;
}

namespace {
// Logins on several threads register their secrets while others log.
Mutex secretsMutex;
std::vector<std::string> secretsList GUARDED_BY(secretsMutex);
std::vector<std::string> plainNamesList GUARDED_BY(secretsMutex);
// Shorter passwords are too likely to stand in ordinary text for a message
// to be masked where they do.
const std::size_t kMinMaskedInMessages = 6;
}  // namespace

void addPlainName(const std::string& name) {
    MutexLock hold(secretsMutex);
    if (!name.empty()) plainNamesList.push_back(name);
}

void addSecret(const std::string& secret) {
    if (secret.empty()) return;
    MutexLock hold(secretsMutex);
    std::vector<std::string>& list = secretsList;
    if (std::find(list.begin(), list.end(), secret) != list.end()) return;
    list.push_back(secret);
    // Longest first, so that a password containing another is masked whole.
    std::sort(list.begin(), list.end(),
              [](const std::string& a, const std::string& b) { return a.size() > b.size(); });
}

std::string maskSecrets(const std::string& text, bool inMessage) {
    std::string out = text;
    MutexLock hold(secretsMutex);
    for (const std::string& secret : secretsList) {
        if (inMessage) {
            if (secret.size() < kMinMaskedInMessages) continue;
            const std::vector<std::string>& names = plainNamesList;
            if (std::any_of(names.begin(), names.end(),
                            [&](const std::string& name) { return name.find(secret) != std::string::npos; }))
                continue;
        }
        std::string::size_type at = 0;
        while ((at = out.find(secret, at)) != std::string::npos) {
            out.replace(at, secret.size(), "********");
            at += 8;
        }
    }
    return out;
}

}  // namespace velmo
