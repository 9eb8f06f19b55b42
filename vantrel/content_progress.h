// The progress of a content transfer, as the migration status file and a
// terminal show it: the mean speed of the run, what is left in all and of
// the archive the run is mostly on.
#ifndef VANTREL_CONTENT_PROGRESS_H
#define VANTREL_CONTENT_PROGRESS_H

#include <chrono>
#include <cstdint>
#include <ctime>
#include <string>

#include "commons/formats.h"
#include "commons/mutex.h"
#include "commons/ssh-transfer.h"
#include "vantrel/terminal.h"

namespace velmo {

// Counts on whichever thread bytes and archives come; the status file is
// written by the transfer's thread alone (save), which owns the status:
// about once a second while bytes come, and as each archive starts and
// arrives.
class FileRetrievalProgressUpdater : public Ssh::Counter {
public:
    FileRetrievalProgressUpdater(MigrationStatus& status, int64_t totalSize, int32_t files);
    // Bytes received in this run.
    void operator()(int bytes) override EXCLUDES(mutex_);
    // One archive less to go: fetched, or here already.
    void fileDone() EXCLUDES(mutex_);
    // An archive started or arrived: the status is due at once.
    void changed() EXCLUDES(mutex_);
    // Whether the status is due: something changed, or bytes came and a
    // second passed since it was last saved.
    bool due() const EXCLUDES(mutex_);
    // Saves the status: the archive the run is mostly on (name and size),
    // what is left of it, and the bytes here of everything fetched.
    void save(const std::string& current, int64_t currentSize, int64_t currentLeft, int64_t held) EXCLUDES(mutex_);
    // The terminal's line, when standard error is one.
    void show(const std::string& item, int64_t done, int64_t total) EXCLUDES(mutex_);
    int64_t totalSize() const { return totalSize_; }

private:
    MigrationStatus& status_;  // the transfer's thread's
    const std::time_t start_;
    const int64_t totalSize_;

    // State below is protected by mutex_.
    mutable Mutex mutex_;
    int64_t transferred_ GUARDED_BY(mutex_) = 0;
    int32_t filesLeft_ GUARDED_BY(mutex_);
    bool changed_ GUARDED_BY(mutex_) = true;
    bool bytesSince_ GUARDED_BY(mutex_) = false;  // bytes came since the last save
    std::chrono::steady_clock::time_point saved_ GUARDED_BY(mutex_);
    ProgressLine line_ GUARDED_BY(mutex_);
};

}  // namespace velmo

#endif
