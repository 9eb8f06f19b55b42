// Files vantrel writes on this host for the controlling process. vantrel runs
// as root in directories that another account (kvaadm) may write, where a
// link can stand wherever a file or a directory is expected. So directories
// are held by their descriptors, files are opened relative to them without
// following a link, and every change (owner, mode, name) goes through a
// descriptor, never through a path that could be swapped meanwhile.
#ifndef VANTREL_COMMONS_LOCAL_FILES_H
#define VANTREL_COMMONS_LOCAL_FILES_H

#include <cstddef>
#include <memory>
#include <string>

#include <sys/stat.h>
#include <sys/types.h>

namespace velmo {

// An open file descriptor, closed when it goes.
class Fd {
public:
    explicit Fd(int fd = -1) : fd_(fd) {}
    ~Fd();
    Fd(Fd&& other) noexcept : fd_(other.release()) {}
    Fd& operator=(Fd&& other) noexcept;
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;

    int get() const { return fd_; }
    int release();
    explicit operator bool() const { return fd_ >= 0; }

private:
    int fd_;
};

// An open directory.
class Directory {
public:
    // Opens the directory at path. A symbolic link on the way is followed only
    // where the directory holding it is writable by root alone (there it is
    // the system's own); anywhere else it gives Exc<&LinkNotFollowed>, which
    // names it. Other failures give Exc<&CantOpenDirectory>.
    static Directory open(const std::string& path);
    // The same, making what is missing with owner and mode (whatever the
    // file-creation mask says). Directories that exist are left as they are.
    static Directory make(const std::string& path, uid_t uid, gid_t gid, mode_t mode);

    // The directory that holds path, opened as open() does; the last
    // component of path lands in name.
    static Directory holding(const std::string& path, std::string& name);
    // Takes an open directory descriptor, known by path.
    static Directory fromFd(const std::string& path, Fd fd);

    Directory() = default;

    // The directory at relative (which may hold "/") below this one, made
    // level by level where missing; a link at any level gives
    // Exc<&LinkNotFollowed>, never followed.
    Directory below(const std::string& relative, uid_t uid, gid_t gid, mode_t mode) const;
    // The same without making anything: an empty Directory (see isOpen) when
    // a level is missing or is not a plain directory.
    Directory existingBelow(const std::string& relative) const;

    bool isOpen() const { return fd_ != nullptr; }
    int fd() const;
    const std::string& path() const { return path_; }
    // path() + "/" + name, for messages and logs.
    std::string pathOf(const std::string& name) const;
    // Whether both name the same directory.
    bool sameAs(const Directory& other) const;

    // What stands under name, the link itself for a link; false when nothing.
    bool lstat(const std::string& name, struct stat& st) const;
    // A plain file opened for reading, never through a link: empty when name
    // is missing or is anything else (errno says what).
    Fd openRegular(const std::string& name) const;
    // Opens name to go on writing it (flags: O_WRONLY or O_RDWR, O_APPEND or
    // O_TRUNC): created with mode when missing. A link, a file of another
    // kind, or one that has more names than this one stands there instead of
    // the file: it is removed, and a new file is made. The file is kvaadm's.
    Fd openOwn(const std::string& name, int flags, mode_t mode) const;
    // Removes name (a link itself, never what it points to); false when
    // nothing was there.
    bool remove(const std::string& name) const;
    // Renames within this directory; whatever stands under to (a link
    // included) is replaced. Exc<&CantRenameFile>.
    void rename(const std::string& from, const std::string& to) const;
    // A new empty file named prefix and six random characters, made
    // exclusively; its name lands in name. Exc<&CantCreateTempFile>.
    Fd createTemp(const std::string& prefix, mode_t mode, std::string& name) const;

private:
    Directory(std::string path, std::shared_ptr<Fd> fd) : path_(std::move(path)), fd_(std::move(fd)) {}

    std::string path_;
    std::shared_ptr<Fd> fd_;
};

// A file written under a temporary name beside its target and put under the
// target's name by commit(), replacing whatever stands there (a link is
// replaced, never followed); without commit() the temporary file goes. It
// is kvaadm's from the start.
class NewFile {
public:
    NewFile(const Directory& dir, const std::string& name, mode_t mode = 0640);
    ~NewFile();
    NewFile(const NewFile&) = delete;
    NewFile& operator=(const NewFile&) = delete;

    int fd() const { return fd_.get(); }
    const std::string& path() const { return path_; }
    // Writes all of it; Exc<&FileWrite> naming the target.
    void write(const char* data, std::size_t length);
    void write(const std::string& text) { write(text.data(), text.size()); }
    // Exc<&CantRenameFile>.
    void commit();
    // The same on the way out of a failure, which is the one to report: a
    // rename that fails then is logged only.
    void commitQuietly() noexcept;

private:
    Directory dir_;
    std::string name_;
    std::string temp_;
    std::string path_;
    Fd fd_;
    bool committed_;
};

// Makes the open file kvaadm's (user and primary group); a failure is logged
// with name, and the file stays as it is.
void handToAdmin(int fd, const std::string& name);

}  // namespace velmo

#endif
