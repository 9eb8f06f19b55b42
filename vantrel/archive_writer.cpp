#include "vantrel/archive_writer.h"

#include <cerrno>
#include <cstring>
#include <string>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <log4cpp/Category.hh>

#include "commons/exceptions.h"

namespace velmo {

namespace {

log4cpp::Category& writerLog = log4cpp::Category::getInstance("p.Action");

const char* const kWholeAttribute = "user.vantrel.whole";
const char* const kRemovalAttribute = "user.vantrel.remove-on-source";
// How far the length without a gap may run ahead of its record.
const int64_t kRecordEvery = 1 << 20;

std::string partName(const std::string& name) { return name + ".part"; }

}  // namespace

bool ArchiveWriter::removalDue(const Directory& dir, const std::string& name) {
    Fd file = dir.isOpen() ? dir.openRegular(name) : Fd();
    char mark;
    return file && ::fgetxattr(file.get(), kRemovalAttribute, &mark, 1) == 1;
}

void ArchiveWriter::removed(const Directory& dir, const std::string& name) {
    Fd file = dir.isOpen() ? dir.openRegular(name) : Fd();
    if (file) (void)::fremovexattr(file.get(), kRemovalAttribute);
}

int64_t ArchiveWriter::resumable(const Directory& dir, const std::string& name) {
    if (!dir.isOpen()) return -1;
    Fd part = dir.openRegular(partName(name));
    struct stat st;
    if (!part || ::fstat(part.get(), &st) != 0 || st.st_nlink != 1) return -1;
    char text[32] = {0};
    const ssize_t n = ::fgetxattr(part.get(), kWholeAttribute, text, sizeof text - 1);
    if (n <= 0) return st.st_size;
    char* end = nullptr;
    const long long whole = std::strtoll(text, &end, 10);
    return end != text && *end == '\0' && whole >= 0 ? std::min<int64_t>(whole, st.st_size) : 0;
}

ArchiveWriter::ArchiveWriter(const Directory& dir, const std::string& name, int64_t size, int64_t from)
    : dir_(dir), name_(name), part_(partName(name)), size_(size), whole_(from), held_(from),
      md5_(new BackgroundMd5()) {
    fd_ = dir_.openOwn(part_, O_RDWR | (from > 0 ? 0 : O_TRUNC), 0640);
    // Only what the next run can trust stays: nothing beyond from, no record.
    if (::ftruncate(fd_.get(), from) != 0) throw VELMO_EXC(StreamWrite);
    ranges_ = ::fremovexattr(fd_.get(), kWholeAttribute) == 0 || errno == ENODATA;
    // The part that is here counts into the sum; it is read back on the
    // summing thread.
    md5_->updateFromFile(fd_.get(), 0, from);
}

ArchiveWriter::~ArchiveWriter() {
    MutexLock hold(mutex_);
    if (done_ || !fd_) return;
    // Kept for the next run: the bytes without a gap, and nothing else; a
    // part that holds none of them goes.
    if (whole_ == 0) {
        dir_.remove(part_);
        return;
    }
    if (::ftruncate(fd_.get(), whole_) != 0 || (recordedWhole_ >= 0 && ::fremovexattr(fd_.get(), kWholeAttribute) != 0))
        writerLog.warnStream() << "Cannot cut " << dir_.pathOf(part_) << " back to its first " << whole_
                               << " bytes: " << std::strerror(errno);
    try {
        md5_.reset();
    } catch (...) {
    }
}

void ArchiveWriter::write(int64_t offset, const char* data, std::size_t length) {
    MutexLock hold(mutex_);
    if (offset < whole_ || offset + static_cast<int64_t>(length) > size_ || done_)
        throw std::logic_error("archive bytes written twice or beyond its size");
    if (offset > whole_ && beyond_.empty()) {
        // The record goes first: a run killed while the gap is open must not
        // take what lies beyond it.
        recordedWhole_ = -1;
        recordGap();
    }
    // Another thread's range may become whole meanwhile: where these bytes
    // stand is looked at again below.
    hold.unlock();
    for (std::size_t done = 0; done < length;) {
        const ssize_t n = ::pwrite(fd_.get(), data + done, length - done, offset + static_cast<int64_t>(done));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            writerLog.errorStream() << "Writing " << dir_.pathOf(part_) << ": " << std::strerror(errno);
            throw VELMO_EXC(StreamWrite);
        }
        done += static_cast<std::size_t>(n);
    }
    hold.lock();
    held_ += static_cast<int64_t>(length);
    if (offset > whole_) {
        beyond_[offset] = offset + static_cast<int64_t>(length);
        return;
    }
    md5_->update(data, length);
    whole_ += static_cast<int64_t>(length);
    // Ranges that now follow without a gap are summed from the file.
    for (auto next = beyond_.begin(); next != beyond_.end() && next->first == whole_; next = beyond_.erase(next)) {
        md5_->updateFromFile(fd_.get(), next->first, next->second - next->first);
        whole_ = next->second;
    }
    if (!beyond_.empty() && whole_ - recordedWhole_ >= kRecordEvery) recordGap();
    if (beyond_.empty() && recordedWhole_ >= 0) {
        (void)::fremovexattr(fd_.get(), kWholeAttribute);
        recordedWhole_ = -1;
    }
}

void ArchiveWriter::recordGap() {
    const std::string text = std::to_string(whole_);
    if (::fsetxattr(fd_.get(), kWholeAttribute, text.data(), text.size(), 0) != 0) throw VELMO_EXC(StreamWrite);
    recordedWhole_ = whole_;
}

int64_t ArchiveWriter::whole() const {
    MutexLock hold(mutex_);
    return whole_;
}

int64_t ArchiveWriter::held() const {
    MutexLock hold(mutex_);
    return held_;
}

std::string ArchiveWriter::sum() {
    MutexLock hold(mutex_);
    done_ = true;
    return md5_->hex();
}

void ArchiveWriter::finish() {
    MutexLock hold(mutex_);
    done_ = true;
    // Where the file system keeps no such marks, only this run removes it.
    (void)::fsetxattr(fd_.get(), kRemovalAttribute, "1", 1, 0);
    dir_.rename(part_, name_);
}

void ArchiveWriter::drop() {
    MutexLock hold(mutex_);
    done_ = true;
    dir_.remove(part_);
}

}  // namespace velmo
