#include "vantrel/content_progress.h"

#include <boost/lexical_cast.hpp>

namespace velmo {

namespace {

// How often the status file follows the bytes of an archive.
const std::chrono::seconds kStatusInterval(1);

std::string decimal(int64_t value) { return boost::lexical_cast<std::string>(value); }

}  // namespace

FileRetrievalProgressUpdater::FileRetrievalProgressUpdater(MigrationStatus& status, int64_t totalSize,
                                                           int32_t files)
    : status_(status), start_(std::time(nullptr)), totalSize_(totalSize), filesLeft_(files) {}

void FileRetrievalProgressUpdater::operator()(int bytes) {
    if (bytes <= 0) return;
    MutexLock hold(mutex_);
    transferred_ += bytes;
    bytesSince_ = true;
}

void FileRetrievalProgressUpdater::fileDone() {
    MutexLock hold(mutex_);
    --filesLeft_;
    changed_ = true;
}

void FileRetrievalProgressUpdater::changed() {
    MutexLock hold(mutex_);
    changed_ = true;
}

bool FileRetrievalProgressUpdater::due() const {
    MutexLock hold(mutex_);
    return changed_ || (bytesSince_ && std::chrono::steady_clock::now() - saved_ >= kStatusInterval);
}

void FileRetrievalProgressUpdater::save(const std::string& current, int64_t currentSize, int64_t currentLeft,
                                        int64_t held) {
    MutexLock hold(mutex_);
    const std::time_t now = std::time(nullptr);
    const int64_t speed = now != start_ ? transferred_ / static_cast<int64_t>(now - start_) : 0;
    const int32_t filesLeft = filesLeft_;
    changed_ = bytesSince_ = false;
    saved_ = std::chrono::steady_clock::now();
    hold.unlock();
    if (!current.empty()) status_.setCurrentFile(current, decimal(currentSize));
    status_.setTransferSpeed(decimal(speed));
    status_.setTransferFilesLeft(decimal(filesLeft));
    // The size left counts the archives that come, as they come; the ones
    // here already stay in it.
    status_.setTransferSizeLeft(decimal(totalSize_ - held));
    status_.setTransferCurrentFileSizeLeft(decimal(currentLeft));
    status_.saveFile();
}

void FileRetrievalProgressUpdater::show(const std::string& item, int64_t done, int64_t total) {
    MutexLock hold(mutex_);
    line_.update(item, done, total);
}

}  // namespace velmo
