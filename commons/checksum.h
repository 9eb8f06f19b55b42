#ifndef VANTREL_COMMONS_CHECKSUM_H
#define VANTREL_COMMONS_CHECKSUM_H

#include <cstdint>
#include <cstddef>
#include <deque>
#include <istream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <openssl/evp.h>

#include "commons/mutex.h"

namespace velmo {

// An MD5 sum computed piece by piece, as data passes.
class Md5 {
public:
    Md5();
    void update(const void* data, std::size_t length);
    // The sum of everything so far as 32 lower-case hex digits; the object
    // is spent afterwards.
    std::string hex();

private:
    std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX*)> context_;
};

// An MD5 sum computed on a thread of its own while the caller goes on
// receiving: the bytes are copied into a few buffers (2 MiB at most) that the
// thread sums in order, or, where they are already in a file, read back from
// it there; update() waits while all buffers are full. The thread touches no
// socket or signal, and no file but through the descriptors it is given.
class BackgroundMd5 {
public:
    BackgroundMd5();
    ~BackgroundMd5();
    BackgroundMd5(const BackgroundMd5&) = delete;
    BackgroundMd5& operator=(const BackgroundMd5&) = delete;

    void update(const void* data, std::size_t length) EXCLUDES(mutex_);
    // The next length bytes of the sum are those of the open file fd from
    // offset on (read there; fd stays open until hex() returns).
    void updateFromFile(int fd, int64_t offset, int64_t length) EXCLUDES(mutex_);
    // The sum of everything handed so far; the object is spent afterwards.
    // Exc<&StreamRead> when a file could not be read back.
    std::string hex() EXCLUDES(mutex_);

private:
    struct Piece {
        std::vector<char> bytes;
        int fd = -1;
        int64_t offset = 0;
        int64_t length = 0;
    };
    void run() EXCLUDES(mutex_);
    // Sums a piece read back from its file; false when it could not be read.
    bool sumFile(const Piece& piece);

    Md5 sum_;  // the summing thread's, and hex()'s once it is idle

    // State below is protected by mutex_: the pieces handed over in order,
    // and the buffers free for more.
    Mutex mutex_;
    CondVar changed_{&mutex_};
    std::deque<Piece> full_ GUARDED_BY(mutex_);
    std::vector<std::vector<char>> free_ GUARDED_BY(mutex_);
    bool closing_ GUARDED_BY(mutex_) = false;
    bool busy_ GUARDED_BY(mutex_) = false;
    bool readFailed_ GUARDED_BY(mutex_) = false;

    std::thread thread_;
};

// MD5 of everything the stream yields, as 32 lower-case hex digits; reads in
// 4096-byte blocks; throws Exc<&StreamRead> on a read error.
std::string countMd5Sum(std::istream& in);

}  // namespace velmo

#endif
