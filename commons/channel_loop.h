// The loop that services every channel of a set of connections, as
// OpenSSH's client loop services its channel table, and the periodic tasks
// of a connection that it runs between its passes.
#ifndef VANTREL_COMMONS_CHANNEL_LOOP_H
#define VANTREL_COMMONS_CHANNEL_LOOP_H

#include <chrono>
#include <functional>
#include <vector>

namespace velmo {

class Ssh;

// A connection's periodic task for as long as this lives.
class PeriodicTask {
public:
    PeriodicTask(Ssh& ssh, std::chrono::milliseconds interval, std::function<bool()> task);
    ~PeriodicTask();
    PeriodicTask(const PeriodicTask&) = delete;
    PeriodicTask& operator=(const PeriodicTask&) = delete;

private:
    Ssh& ssh_;
};

// Passes over the channels of a set of connections until a condition holds.
class ChannelLoop {
public:
    // Longest wait for the sockets between two passes.
    static const long kLongestWaitMs = 5000;

    explicit ChannelLoop(std::vector<Ssh*> connections) : connections_(std::move(connections)) {}

    // Passes until done() is true, or no connection has a command left; a
    // stop request ends it with MigrationTerminatedException. Between passes
    // it waits for the sockets longestWaitMs at most.
    void run(const std::function<bool()>& done, long longestWaitMs = kLongestWaitMs);
    // The same, after a stop request, for at most limit: one last exchange
    // (removing on the source host what arrived, say) that the stop does
    // not cut short. False when the limit came first.
    bool finish(const std::function<bool()>& done, std::chrono::milliseconds limit);

private:
    // One pass over every connection, and a wait on their sockets when
    // nothing moved; false when no connection has a command left.
    bool pass(long longestWaitMs = kLongestWaitMs);
    // Waits on the sockets for what the library waits for, at most timeoutMs.
    void wait(long timeoutMs);

    std::vector<Ssh*> connections_;
};

}  // namespace velmo

#endif
