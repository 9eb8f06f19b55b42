#include "commons/commons.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <log4cpp/Category.hh>

#include "commons/exceptions.h"
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

void initTempName(std::vector<char>& buffer, const std::string& dir, const std::string& prefix) {
    std::string name;
    name.reserve(4096);
    if (!dir.empty()) {
        name = dir;
    } else if (const char* tmp = kvaConfGet("DUMP_TMP_D")) {
        name = tmp;
    } else {
        name = files::getTmpDir();
    }
    if (name.empty() || name.back() != '/') name += '/';
    name += prefix;
    name += "XXXXXX";
    buffer.assign(name.begin(), name.end());
    buffer.push_back('\0');
}

std::string QMV_getTempFileName(const std::string& dir, const std::string& prefix) {
    std::vector<char> buffer;
    initTempName(buffer, dir, prefix);
    const std::string pattern(buffer.data());
    int fd = mkstemp64(buffer.data());
    if (fd < 0) throw VELMO_EXC(CantCreateTempFile) % pattern % std::strerror(errno);
    close(fd);
    return std::string(buffer.data());
}

bool check_input_file(const char* path, bool) {
    if (path == nullptr || *path == '\0') return false;
    struct stat st;
    return stat(path, &st) == 0 && S_ISREG(st.st_mode);
}

void make_dir(char* path, unsigned uid, unsigned gid, unsigned mode) {
    struct stat st;
    if (stat(path, &st) == 0 || errno != ENOENT) return;
    char* slash = std::strrchr(path, '/');
    if (slash != nullptr && slash != path) {
        *slash = '\0';
        make_dir(path, uid, gid, mode);
        *slash = '/';
    }
    if (mkdir(path, mode) == 0 && chown(path, uid, gid) != 0) {
        // Not checked here: a directory with the wrong owner shows when it is used.
    }
}

void make_dir(const std::string& path, unsigned uid, unsigned gid, unsigned mode) {
    std::unique_ptr<char, void (*)(void*)> copy(strdup(path.c_str()), std::free);
    if (!copy) throw VELMO_EXC(InvalidHandle);
    make_dir(copy.get(), uid, gid, mode);
}

void make_dir(const boost::filesystem::path& path, unsigned uid, unsigned gid, unsigned mode) {
    make_dir(path.string(), uid, gid, mode);
}

void make_content_dir(const std::string& path, unsigned uid, unsigned gid, unsigned mode) {
    mode_t old = umask(022);
    try {
        make_dir(path, uid, gid, mode);
    } catch (...) {
        umask(old);
        throw;
    }
    umask(old);
}

std::string getFileNameFromPath(const std::string& path) {
    std::string::size_type at = path.rfind('/');
    return at == std::string::npos ? path : path.substr(at + 1);
}

std::string getPath(const std::string& path) {
    std::string::size_type at = path.rfind('/');
    return at == std::string::npos ? std::string() : path.substr(0, at);
}

uid_t get_user_id(const std::string& user) {
    errno = 0;
    struct passwd* pw = getpwnam(user.c_str());
    if (pw == nullptr) {
        runLog.info("Unable to find uid for user %s: %s", user.c_str(),
                    errno ? std::strerror(errno) : "no such user");
        return 0;
    }
    return pw->pw_uid;
}

void getAdminIds(uid_t& uid, gid_t& gid) {
    struct passwd* pw = getpwnam(KVA_ADMIN_USER);
    uid = pw ? pw->pw_uid : 0;
    gid = pw ? pw->pw_gid : 0;
}

namespace {
std::vector<std::string>& secrets() {
    static std::vector<std::string> list;
    return list;
}
}  // namespace

void addSecret(const std::string& secret) {
    if (secret.empty()) return;
    std::vector<std::string>& list = secrets();
    if (std::find(list.begin(), list.end(), secret) != list.end()) return;
    list.push_back(secret);
    // Longest first, so that a password containing another is masked whole.
    std::sort(list.begin(), list.end(),
              [](const std::string& a, const std::string& b) { return a.size() > b.size(); });
}

std::string maskSecrets(const std::string& text) {
    std::string out = text;
    for (const std::string& secret : secrets()) {
        std::string::size_type at = 0;
        while ((at = out.find(secret, at)) != std::string::npos) {
            out.replace(at, secret.size(), "********");
            at += 8;
        }
    }
    return out;
}

}  // namespace velmo
