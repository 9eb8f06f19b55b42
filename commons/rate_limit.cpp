#include "commons/rate_limit.h"

#include <algorithm>

namespace velmo {

std::atomic<long long> RateLimit::rate_(0);
Mutex RateLimit::mutex_;
double RateLimit::tokens_ = 0;
std::chrono::steady_clock::time_point RateLimit::filled_;

// The least a capped read or write moves, so that a slow rate does not turn
// into a stream of tiny packets.
static const std::size_t kLeastMove = 4096;

void RateLimit::set(long long bytesPerSecond) {
    MutexLock hold(mutex_);
    rate_ = bytesPerSecond > 0 ? bytesPerSecond : 0;
    tokens_ = 0;
    filled_ = std::chrono::steady_clock::now();
}

void RateLimit::refill() {
    const auto now = std::chrono::steady_clock::now();
    tokens_ = std::min(tokens_ + std::chrono::duration<double>(now - filled_).count() * static_cast<double>(rate_),
                       std::max(static_cast<double>(rate_) / 10, static_cast<double>(kLeastMove)));
    filled_ = now;
}

std::size_t RateLimit::allow(std::size_t want) {
    if (rate_ == 0) return want;
    MutexLock hold(mutex_);
    refill();
    const std::size_t may = static_cast<std::size_t>(std::max(0.0, tokens_));
    return may >= std::min(want, kLeastMove) ? std::min(want, may) : 0;
}

void RateLimit::spend(std::size_t bytes) {
    if (rate_ == 0) return;
    MutexLock hold(mutex_);
    tokens_ -= static_cast<double>(bytes);
}

long RateLimit::wait() {
    if (rate_ == 0) return 0;
    MutexLock hold(mutex_);
    refill();
    const double missing = static_cast<double>(kLeastMove) - tokens_;
    return missing <= 0 ? 0 : std::max(1L, static_cast<long>(1000 * missing / static_cast<double>(rate_)));
}

}  // namespace velmo
