#include "commons/checksum.h"

#include <algorithm>
#include <cstdio>

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
    for (std::vector<char>& buffer : free_) buffer.reserve(kBackgroundBuffer);
}

BackgroundMd5::~BackgroundMd5() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        closing_ = true;
    }
    changed_.notify_all();
    thread_.join();
}

void BackgroundMd5::update(const void* data, std::size_t length) {
    const char* at = static_cast<const char*>(data);
    while (length > 0) {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait(lock, [this] { return !free_.empty(); });
        std::vector<char> buffer = std::move(free_.back());
        free_.pop_back();
        lock.unlock();
        const std::size_t n = std::min(length, kBackgroundBuffer);
        buffer.assign(at, at + n);
        at += n;
        length -= n;
        lock.lock();
        full_.push_back(std::move(buffer));
        lock.unlock();
        changed_.notify_all();
    }
}

std::string BackgroundMd5::hex() {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [this] { return full_.empty() && !busy_; });
    return sum_.hex();
}

void BackgroundMd5::run() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        changed_.wait(lock, [this] { return closing_ || !full_.empty(); });
        if (full_.empty()) return;
        std::vector<char> buffer = std::move(full_.front());
        full_.pop_front();
        busy_ = true;
        lock.unlock();
        sum_.update(buffer.data(), buffer.size());
        lock.lock();
        busy_ = false;
        free_.push_back(std::move(buffer));
        changed_.notify_all();
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
