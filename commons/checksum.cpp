#include "commons/checksum.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include <unistd.h>

#include "commons/exceptions.h"

namespace velmo {

Md5::Md5() : context_(EVP_MD_CTX_new(), EVP_MD_CTX_free) {
    if (!context_) throw VELMO_EXC(InvalidHandle);
    EVP_DigestInit(context_.get(), EVP_md5());
}

void Md5::update(const void* data, std::size_t length) { EVP_DigestUpdate(context_.get(), data, length); }

std::string Md5::hex() {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_DigestFinal(context_.get(), digest, &length);
    std::string text;
    char two[3];
    for (unsigned int i = 0; i < length; ++i) {
        std::snprintf(two, sizeof two, "%02x", digest[i]);
        text += two;
    }
    return text;
}

namespace {
const std::size_t kBackgroundBuffers = 8;
const std::size_t kBackgroundBuffer = 256 * 1024;
}  // namespace

BackgroundMd5::BackgroundMd5() : free_(kBackgroundBuffers), thread_(&BackgroundMd5::run, this) {
    MutexLock hold(mutex_);
    for (std::vector<char>& buffer : free_) buffer.reserve(kBackgroundBuffer);
}

BackgroundMd5::~BackgroundMd5() {
    {
        MutexLock hold(mutex_);
        closing_ = true;
    }
    changed_.notifyAll();
    thread_.join();
}

void BackgroundMd5::update(const void* data, std::size_t length) {
    const char* at = static_cast<const char*>(data);
    while (length > 0) {
        MutexLock hold(mutex_);
        while (free_.empty()) changed_.wait();
        Piece piece;
        piece.bytes = std::move(free_.back());
        free_.pop_back();
        hold.unlock();
        const std::size_t n = std::min(length, kBackgroundBuffer);
        piece.bytes.assign(at, at + n);
        at += n;
        length -= n;
        hold.lock();
        full_.push_back(std::move(piece));
        hold.unlock();
        changed_.notifyAll();
    }
}

void BackgroundMd5::updateFromFile(int fd, int64_t offset, int64_t length) {
    if (length <= 0) return;
    Piece piece;
    piece.fd = fd;
    piece.offset = offset;
    piece.length = length;
    {
        MutexLock hold(mutex_);
        full_.push_back(std::move(piece));
    }
    changed_.notifyAll();
}

std::string BackgroundMd5::hex() {
    MutexLock hold(mutex_);
    while (!full_.empty() || busy_) changed_.wait();
    if (readFailed_) throw VELMO_EXC(StreamRead);
    return sum_.hex();
}

bool BackgroundMd5::sumFile(const Piece& piece) {
    std::vector<char> buffer(kBackgroundBuffer);
    for (int64_t done = 0; done < piece.length;) {
        const std::size_t want = static_cast<std::size_t>(std::min<int64_t>(buffer.size(), piece.length - done));
        const ssize_t n = ::pread(piece.fd, buffer.data(), want, piece.offset + done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        sum_.update(buffer.data(), static_cast<std::size_t>(n));
        done += n;
    }
    return true;
}

void BackgroundMd5::run() {
    MutexLock hold(mutex_);
    for (;;) {
        while (!closing_ && full_.empty()) changed_.wait();
        if (full_.empty()) return;
        Piece piece = std::move(full_.front());
        full_.pop_front();
        busy_ = true;
        const bool readBack = piece.fd >= 0 && !readFailed_;
        hold.unlock();
        bool read = true;
        if (readBack)
            read = sumFile(piece);
        else if (piece.fd < 0)
            sum_.update(piece.bytes.data(), piece.bytes.size());
        hold.lock();
        busy_ = false;
        readFailed_ = readFailed_ || !read;
        if (piece.fd < 0) free_.push_back(std::move(piece.bytes));
        changed_.notifyAll();
    }
}

std::string countMd5Sum(std::istream& in) {
    Md5 sum;
    char buffer[4096];
    while (in.good()) {
        in.read(buffer, sizeof buffer);
        if ((in.fail() || in.bad()) && !in.eof()) throw VELMO_EXC(StreamRead);
        sum.update(buffer, static_cast<std::size_t>(in.gcount()));
    }
    if (!in.eof()) throw VELMO_EXC(StreamRead);
    return sum.hex();
}

}  // namespace velmo
