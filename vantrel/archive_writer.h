// One content archive on its way into "<name>.part" beside its final name.
#ifndef VANTREL_ARCHIVE_WRITER_H
#define VANTREL_ARCHIVE_WRITER_H

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "commons/checksum.h"
#include "commons/local_files.h"
#include "commons/mutex.h"

namespace velmo {

// Bytes are written where they belong, and may come in any order (byte ranges
// over several streams, at once from their threads); the MD5 sum follows the
// part that has no gap from the start. The archive takes its name only once
// it is whole and proven.
//
// While bytes lie beyond a gap, the part carries the length without a gap in
// its extended attribute "user.vantrel.whole", so that a run killed then is
// continued from there, never across the gap. A file system without
// extended attributes takes the archive's bytes in order only (takesRanges).
class ArchiveWriter {
public:
    // Whether the archive under name in dir came here by a run that did not
    // get to remove it on the source host (its extended attribute
    // "user.vantrel.remove-on-source"), and the mark taken away once it is.
    static bool removalDue(const Directory& dir, const std::string& name);
    static void removed(const Directory& dir, const std::string& name);

    // How much of the part under name in dir the next run can trust: its
    // length, or less when it has gaps; -1 when there is none.
    static int64_t resumable(const Directory& dir, const std::string& name);

    // Opens the part (a link or a foreign file there is replaced, the file is
    // kvaadm's) and takes its first from bytes as they are.
    ArchiveWriter(const Directory& dir, const std::string& name, int64_t size, int64_t from);
    // Unless finished or dropped, cuts the part to its bytes without a gap
    // and keeps it for the next run.
    ~ArchiveWriter();
    ArchiveWriter(const ArchiveWriter&) = delete;
    ArchiveWriter& operator=(const ArchiveWriter&) = delete;

    bool takesRanges() const { return ranges_; }
    // Exc<&StreamWrite> (the disk is full, say), after which the writer is
    // spent; the bytes must lie within the archive and not be here yet.
    // Several threads may write ranges of their own at once.
    void write(int64_t offset, const char* data, std::size_t length) EXCLUDES(mutex_);
    // Bytes from the start without a gap, and bytes here in all.
    int64_t whole() const EXCLUDES(mutex_);
    int64_t held() const EXCLUDES(mutex_);
    // Once no write is on its way: the MD5 sum of the first whole() bytes;
    // the writer takes no more.
    std::string sum() EXCLUDES(mutex_);
    // Gives the part its name (whatever stood there is replaced), marked as
    // one still to be removed on the source host (see removalDue).
    void finish() EXCLUDES(mutex_);
    // Removes the part.
    void drop() EXCLUDES(mutex_);

private:
    void recordGap() REQUIRES(mutex_);

    // Unchanged after construction.
    Directory dir_;
    std::string name_;
    std::string part_;
    int64_t size_;
    Fd fd_;
    bool ranges_;

    // State below is protected by mutex_: the bytes that came, their sum in
    // order, and the record of a gap. The bytes themselves are written to
    // the part without it.
    mutable Mutex mutex_;
    int64_t whole_ GUARDED_BY(mutex_);
    int64_t held_ GUARDED_BY(mutex_);
    int64_t recordedWhole_ GUARDED_BY(mutex_) = -1;
    std::map<int64_t, int64_t> beyond_ GUARDED_BY(mutex_);  // ranges past a gap: start -> end
    std::unique_ptr<BackgroundMd5> md5_ GUARDED_BY(mutex_);
    bool done_ GUARDED_BY(mutex_) = false;
};

}  // namespace velmo

#endif
