#include "commons/local_files.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <random>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

#include <log4cpp/Category.hh>

#include "commons/commons.h"
#include "commons/exceptions.h"

namespace velmo {

namespace {

log4cpp::Category& fileLog = log4cpp::Category::getInstance("p.log");

// Links followed in one walk at most, as the kernel allows.
const int kMaxLinks = 40;

// The non-empty components of path but ".".
std::vector<std::string> components(const std::string& path) {
    std::vector<std::string> parts;
    std::string::size_type start = 0;
    while (start <= path.size()) {
        std::string::size_type end = path.find('/', start);
        if (end == std::string::npos) end = path.size();
        const std::string part = path.substr(start, end - start);
        if (!part.empty() && part != ".") parts.push_back(part);
        start = end + 1;
    }
    return parts;
}

// A link in a directory that no account but root can write was put there by
// root: the system's own layout (/var -> /srv/var, say).
bool writableByRootAlone(int dirFd) {
    struct stat st;
    return ::fstat(dirFd, &st) == 0 && st.st_uid == 0 && (st.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

struct Walk {
    bool create;
    bool followSystemLinks;
    uid_t uid;
    gid_t gid;
    mode_t mode;
    int links;
};

Fd openDirectoryAt(int at, const std::string& name) {
    return Fd(::openat(at, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

// Walks parts from the directory start (whose path shown is shown), making
// what is missing when asked; throws with the path of the level that fails.
Fd walk(Fd start, std::string shown, const std::vector<std::string>& parts, Walk& how) {
    Fd at = std::move(start);
    for (const std::string& part : parts) {
        shown += shown.empty() || shown.back() != '/' ? "/" + part : part;
        Fd next = openDirectoryAt(at.get(), part);
        if (!next && errno == ENOENT && how.create && ::mkdirat(at.get(), part.c_str(), how.mode) == 0) {
            next = openDirectoryAt(at.get(), part);
            // The mode asked for, whatever the file-creation mask says.
            if (next && (::fchown(next.get(), how.uid, how.gid) != 0 || ::fchmod(next.get(), how.mode) != 0))
                fileLog.warn("Unable to set owner and mode of %s: %s", shown.c_str(), std::strerror(errno));
        } else if (!next && errno == EEXIST) {
            next = openDirectoryAt(at.get(), part);  // made by somebody else meanwhile
        }
        if (next) {
            at = std::move(next);
            continue;
        }
        const int error = errno;
        struct stat st;
        if (::fstatat(at.get(), part.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISLNK(st.st_mode))
            throw VELMO_EXC(CantOpenDirectory) % shown % std::strerror(error);
        if (!how.followSystemLinks || !writableByRootAlone(at.get()) || ++how.links > kMaxLinks)
            throw VELMO_EXC(LinkNotFollowed) % shown;
        char target[PATH_MAX];
        const ssize_t length = ::readlinkat(at.get(), part.c_str(), target, sizeof target);
        if (length <= 0 || static_cast<std::size_t>(length) >= sizeof target)
            throw VELMO_EXC(CantOpenDirectory) % shown % "the link changed while it was read";
        const std::string to(target, static_cast<std::size_t>(length));
        Fd from(to[0] == '/' ? ::open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC) : ::dup(at.get()));
        if (!from) throw VELMO_EXC(CantOpenDirectory) % shown % std::strerror(errno);
        at = walk(std::move(from), shown + " -> " + to, components(to), how);
    }
    return at;
}

Directory openPath(const std::string& path, Walk how) {
    Fd root(::open(!path.empty() && path[0] == '/' ? "/" : ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!root) throw VELMO_EXC(CantOpenDirectory) % path % std::strerror(errno);
    return Directory::fromFd(path, walk(std::move(root), path[0] == '/' ? "/" : ".", components(path), how));
}

void clearNonBlocking(int fd) {
    const int flags = ::fcntl(fd, F_GETFL);
    if (flags >= 0) (void)::fcntl(fd, F_SETFL, flags & ~O_NONBLOCK);
}

}  // namespace

// ------------------------------------------------------------------- Fd

Fd::~Fd() {
    if (fd_ >= 0) ::close(fd_);
}

Fd& Fd::operator=(Fd&& other) noexcept {
    if (this != &other) {
        if (fd_ >= 0) ::close(fd_);
        fd_ = other.release();
    }
    return *this;
}

int Fd::release() {
    const int fd = fd_;
    fd_ = -1;
    return fd;
}

// ------------------------------------------------------------ Directory

Directory Directory::fromFd(const std::string& path, Fd fd) {
    return Directory(path, std::make_shared<Fd>(std::move(fd)));
}

Directory Directory::open(const std::string& path) { return openPath(path, Walk{false, true, 0, 0, 0, 0}); }

Directory Directory::make(const std::string& path, uid_t uid, gid_t gid, mode_t mode) {
    return openPath(path, Walk{true, true, uid, gid, mode, 0});
}

Directory Directory::holding(const std::string& path, std::string& name) {
    const std::string::size_type at = path.rfind('/');
    name = at == std::string::npos ? path : path.substr(at + 1);
    return open(at == std::string::npos ? "." : at == 0 ? "/" : path.substr(0, at));
}

Directory Directory::below(const std::string& relative, uid_t uid, gid_t gid, mode_t mode) const {
    Fd start(::dup(fd()));
    if (!start) throw VELMO_EXC(CantOpenDirectory) % pathOf(relative) % std::strerror(errno);
    Walk how{true, false, uid, gid, mode, 0};
    return fromFd(relative.empty() ? path_ : pathOf(relative),
                  walk(std::move(start), path_, components(relative), how));
}

Directory Directory::existingBelow(const std::string& relative) const {
    Fd at(::dup(fd()));
    for (const std::string& part : components(relative)) {
        if (!at) return Directory();
        at = openDirectoryAt(at.get(), part);
    }
    return at ? fromFd(relative.empty() ? path_ : pathOf(relative), std::move(at)) : Directory();
}

int Directory::fd() const { return fd_ ? fd_->get() : -1; }

std::string Directory::pathOf(const std::string& name) const { return path_ + "/" + name; }

bool Directory::sameAs(const Directory& other) const {
    struct stat a, b;
    return ::fstat(fd(), &a) == 0 && ::fstat(other.fd(), &b) == 0 && a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

bool Directory::lstat(const std::string& name, struct stat& st) const {
    return ::fstatat(fd(), name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0;
}

Fd Directory::openRegular(const std::string& name) const {
    // Not blocking: a named pipe planted here would hold the open for good.
    Fd file(::openat(fd(), name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat st;
    if (file && (::fstat(file.get(), &st) != 0 || !S_ISREG(st.st_mode))) {
        errno = EINVAL;
        return Fd();
    }
    if (file) clearNonBlocking(file.get());
    return file;
}

Fd Directory::openOwn(const std::string& name, int flags, mode_t mode) const {
    const std::string shown = pathOf(name);
    for (int attempt = 0; attempt < 3; ++attempt) {
        // Truncated only once it is known to be ours: a second name of a
        // file of root's would be cut short before the check.
        Fd file(::openat(fd(), name.c_str(), (flags & ~O_TRUNC) | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC,
                         mode));
        struct stat st;
        if (file && ::fstat(file.get(), &st) == 0 && S_ISREG(st.st_mode) && st.st_nlink == 1) {
            clearNonBlocking(file.get());
            if ((flags & O_TRUNC) && ::ftruncate(file.get(), 0) != 0)
                throw VELMO_EXC(FileWrite) % shown % std::strerror(errno);
            (void)::fchmod(file.get(), mode);
            handToAdmin(file.get(), shown);
            return file;
        }
        if (!file && errno != ELOOP && errno != ENXIO) throw VELMO_EXC(FileWrite) % shown % std::strerror(errno);
        // A link, a pipe or a second name of another file: not ours to write
        // through. It goes, and a file of our own takes its place.
        fileLog.warn("%s was not a plain file of its own: replacing it", shown.c_str());
        if (::unlinkat(fd(), name.c_str(), 0) != 0 && errno != ENOENT)
            throw VELMO_EXC(FileWrite) % shown % std::strerror(errno);
    }
    throw VELMO_EXC(FileWrite) % shown % "it keeps being replaced by something else";
}

bool Directory::remove(const std::string& name) const { return ::unlinkat(fd(), name.c_str(), 0) == 0; }

void Directory::rename(const std::string& from, const std::string& to) const {
    if (::renameat(fd(), from.c_str(), fd(), to.c_str()) != 0)
        throw VELMO_EXC(CantRenameFile) % pathOf(from) % pathOf(to) % std::strerror(errno);
}

Fd Directory::createTemp(const std::string& prefix, mode_t mode, std::string& name) const {
    static const char letters[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
    static std::mt19937 random{std::random_device{}()};
    std::uniform_int_distribution<int> pick(0, sizeof letters - 2);
    for (int attempt = 0; attempt < 100; ++attempt) {
        name = prefix;
        for (int i = 0; i < 6; ++i) name += letters[pick(random)];
        Fd file(::openat(fd(), name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode));
        if (file) {
            (void)::fchmod(file.get(), mode);
            return file;
        }
        if (errno != EEXIST) break;
    }
    throw VELMO_EXC(CantCreateTempFile) % pathOf(prefix + "XXXXXX") % std::strerror(errno);
}

// -------------------------------------------------------------- NewFile

NewFile::NewFile(const Directory& dir, const std::string& name, mode_t mode)
    : dir_(dir), name_(name), path_(dir.pathOf(name)), committed_(false) {
    fd_ = dir_.createTemp(name, mode, temp_);
    handToAdmin(fd_.get(), dir_.pathOf(temp_));
}

NewFile::~NewFile() {
    if (!committed_) dir_.remove(temp_);
}

void NewFile::write(const char* data, std::size_t length) {
    while (length > 0) {
        const ssize_t n = ::write(fd_.get(), data, length);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) throw VELMO_EXC(FileWrite) % path_ % std::strerror(n < 0 ? errno : EIO);
        data += n;
        length -= static_cast<std::size_t>(n);
    }
}

void NewFile::commit() {
    dir_.rename(temp_, name_);
    committed_ = true;
}

void NewFile::commitQuietly() noexcept {
    try {
        commit();
    } catch (const std::exception& e) {
        fileLog.warn("%s", e.what());
    }
}

void handToAdmin(int fd, const std::string& name) {
    uid_t uid;
    gid_t gid;
    getAdminIds(uid, gid);
    if (::fchown(fd, uid, gid) != 0)
        fileLog.warn("Unable to hand %s to %s: %s", name.c_str(), KVA_ADMIN_USER, std::strerror(errno));
}

}  // namespace velmo
