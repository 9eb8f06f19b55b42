// The cap on what a run moves per second (KVA_BWLIMIT).
#ifndef VANTREL_COMMONS_RATE_LIMIT_H
#define VANTREL_COMMONS_RATE_LIMIT_H

#include <atomic>
#include <chrono>
#include <cstddef>

#include "commons/mutex.h"

namespace velmo {

// What all connections of the run move, both ways together, at most per
// second (KVA_BWLIMIT): a bucket that holds a tenth of a second's worth and
// fills as time passes. Without a rate, everything may move at once.
class RateLimit {
public:
    static void set(long long bytesPerSecond) EXCLUDES(mutex_);  // 0: no cap
    static long long rate() { return rate_; }
    // How many of want bytes may move now; 0 until a useful amount may.
    static std::size_t allow(std::size_t want) EXCLUDES(mutex_);
    static void spend(std::size_t bytes) EXCLUDES(mutex_);
    // Milliseconds until bytes may move again; 0 when they may now.
    static long wait() EXCLUDES(mutex_);

private:
    static void refill() REQUIRES(mutex_);

    static std::atomic<long long> rate_;  // set before any connection is made
    // The bucket below is protected by mutex_: connections serviced on
    // threads of their own share it.
    static Mutex mutex_;
    static double tokens_ GUARDED_BY(mutex_);
    static std::chrono::steady_clock::time_point filled_ GUARDED_BY(mutex_);
};

}  // namespace velmo

#endif
