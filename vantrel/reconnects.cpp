#include "vantrel/reconnects.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <random>
#include <thread>
#include <utility>

#include <log4cpp/Category.hh>

#include "commons/env_number.h"
#include "commons/ssh-transfer.h"

namespace velmo {

namespace {

log4cpp::Category& reconnectLog = log4cpp::Category::getInstance("p.Action");

const int kMostTries = 8;
const double kFirstPauseSec = 2;
const double kPauseGrowth = 1.5;
const double kLongestPauseSec = 60;
const double kPauseSpread = 0.25;
const long kDefaultDeadlineSec = 600;
const long kLongestDeadlineSec = 7 * 24 * 3600;

}  // namespace

bool isConnectionFailure(const ExTraceable& e) {
    return dynamic_cast<const Exc<&SshConnectionFault>*>(&e) || dynamic_cast<const Exc<&ConnectionRefused>*>(&e) ||
           dynamic_cast<const Exc<&ConnectionTimedOut>*>(&e) || dynamic_cast<const Exc<&NetworkUnreachable>*>(&e) ||
           dynamic_cast<const Exc<&HostUnreachable>*>(&e) || dynamic_cast<const Exc<&ConnectionFault>*>(&e) ||
           dynamic_cast<const Exc<&HostNotFound>*>(&e) || dynamic_cast<const Exc<&UnableToStartSshSession>*>(&e);
}

Reconnects::Reconnects()
    : deadline_(std::chrono::seconds(envNumber("KVA_RECONNECT_DEADLINE", 0, kLongestDeadlineSec, kDefaultDeadlineSec))),
      random_(std::random_device()()) {}

bool Reconnects::again(const std::string& what, const std::string& why, std::chrono::milliseconds& pause) {
    const auto now = std::chrono::steady_clock::now();
    if (tries_ == 0) firstLoss_ = now;
    // Runs that lost their connections together do not come back together.
    const double seconds = std::min(kLongestPauseSec, kFirstPauseSec * std::pow(kPauseGrowth, tries_)) *
                           std::uniform_real_distribution<double>(1 - kPauseSpread, 1 + kPauseSpread)(random_);
    pause = std::chrono::milliseconds(static_cast<long>(seconds * 1000));
    const bool more = ++tries_ <= kMostTries && now + pause - firstLoss_ <= deadline_;
    if (more)
        reconnectLog.warnStream() << what << ": " << why << "; connecting again in " << std::round(seconds * 10) / 10
                                  << " s (try " << tries_
                                  << " of " << kMostTries << ")";
    else
        reconnectLog.errorStream() << what << ": " << why << "; giving up after " << tries_ - 1 << " tries";
    return more;
}

std::chrono::milliseconds Reconnects::connectLimit() const {
    if (tries_ == 0) return std::chrono::milliseconds(0);
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(firstLoss_ + deadline_ -
                                                                           std::chrono::steady_clock::now());
    return std::max(left, std::chrono::milliseconds(1000));
}

void Reconnects::wait(std::chrono::milliseconds pause) {
    const auto until = std::chrono::steady_clock::now() + pause;
    while (std::chrono::steady_clock::now() < until) {
        checkProgramTerminated();
        std::this_thread::sleep_for(std::min<std::chrono::steady_clock::duration>(
            std::chrono::milliseconds(100), until - std::chrono::steady_clock::now()));
    }
}

}  // namespace velmo
