#include "commons/channel_loop.h"

#include <algorithm>

#include <poll.h>

#include "commons/rate_limit.h"
#include "commons/ssh-transfer.h"
#include "commons/stop.h"

namespace velmo {

PeriodicTask::PeriodicTask(Ssh& ssh, std::chrono::milliseconds interval, std::function<bool()> task) : ssh_(ssh) {
    ssh_.setPeriodic(interval, std::move(task));
}

PeriodicTask::~PeriodicTask() { ssh_.clearPeriodic(); }

// --------------------------------------------------------------- periodic

void Ssh::setPeriodic(std::chrono::milliseconds interval, std::function<bool()> task) {
    periodic_ = std::move(task);
    periodicInterval_ = interval;
    periodicDue_ = std::chrono::steady_clock::now() + interval;
}

long Ssh::runPeriodicTask() {
    using namespace std::chrono;
    if (!periodic_) return ChannelLoop::kLongestWaitMs;
    if (steady_clock::now() >= periodicDue_) {
        periodicDue_ = steady_clock::now() + periodicInterval_;
        if (!periodic_()) periodic_ = nullptr;
        // What the task started goes out at the next pass, not after a wait.
        return 0;
    }
    return std::max<long>(0, duration_cast<milliseconds>(periodicDue_ - steady_clock::now()).count());
}

// ------------------------------------------------------------------ loop

namespace {

// A thread's loop is never entered again from inside: a periodic task or a
// sink starts commands, it never runs one to its end.
class OnlyLoop {
public:
    OnlyLoop() {
        if (running_) throw std::logic_error("the channel loop was entered from inside itself");
        running_ = true;
    }
    ~OnlyLoop() { running_ = false; }

private:
    static thread_local bool running_;
};
thread_local bool OnlyLoop::running_ = false;

// Whether the library holds something for a command that a pass would
// take: packets that another channel's read took off the socket, or window
// that arrived for input waiting to go (read from its source and not sent;
// a source that has nothing yet is asked again on the channel's next news).
bool queued(LIBSSH2_CHANNEL* channel, bool wantsToWrite) {
    return libssh2_poll_channel_read(channel, 0) || libssh2_poll_channel_read(channel, 1) ||
           libssh2_channel_eof(channel) != 0 || (wantsToWrite && libssh2_channel_window_write_ex(channel, nullptr) > 0);
}

}  // namespace

bool Ssh::hasQueued() const {
    for (const RemoteCommand* command : table_)
        if (command->phase_ == RemoteCommand::Phase::running &&
            queued(command->channel_->get(), command->inputSent_ < command->inputLength_))
            return true;
    return false;
}

void ChannelLoop::run(const std::function<bool()>& done, long longestWaitMs) {
    OnlyLoop only;
    while (!done()) {
        checkProgramTerminated();
        if (!pass(longestWaitMs)) return;
    }
}

bool ChannelLoop::finish(const std::function<bool()>& done, std::chrono::milliseconds limit) {
    OnlyLoop only;
    const FinishingDespiteStop finishing;
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!done() && std::chrono::steady_clock::now() < deadline)
        if (!pass(std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now())
                      .count()))
            break;
    return done();
}

bool ChannelLoop::pass(long longestWaitMs) {
    bool progress = false;
    bool alive = false;
    for (Ssh* ssh : connections_) {
        progress |= ssh->service();
        alive |= !ssh->lost() && !ssh->table_.empty();
    }
    if (progress) return true;
    if (!alive) return false;
    long waitMs = longestWaitMs;
    for (Ssh* ssh : connections_)
        if (!ssh->lost()) waitMs = std::min(waitMs, ssh->runPeriodicTask());
    // Under a cap that holds everything back, the loop waits for the cap
    // whatever the library holds.
    const long capped = RateLimit::wait();
    if (capped > 0) {
        // Not on the sockets: they may well have bytes that must wait.
        ::poll(nullptr, 0, static_cast<int>(std::min(waitMs, capped)));
        return true;
    }
    for (Ssh* ssh : connections_)
        if (!ssh->lost() && ssh->hasQueued()) return true;
    if (waitMs > 0) wait(waitMs);
    return true;
}

void ChannelLoop::wait(long timeoutMs) {
    std::vector<pollfd> entries;
    for (Ssh* ssh : connections_)
        if (!ssh->lost()) entries.push_back(pollfd{ssh->session_->socket(), ssh->pollEvents(), 0});
    // A signal cuts the wait short: the next pass looks at the stop flag.
    ::poll(entries.data(), entries.size(), static_cast<int>(std::max<long>(0, timeoutMs)));
}

}  // namespace velmo
