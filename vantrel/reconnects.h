// Connections lost under a run: when to connect again, and when to give up.
#ifndef VANTREL_RECONNECTS_H
#define VANTREL_RECONNECTS_H

#include <chrono>
#include <random>
#include <string>

#include "commons/exceptions.h"

namespace velmo {

// Whether e says that the connection went away or could not be made again:
// a lost connection, or any failure of the socket or of the handshake.
// Refused credentials, another host key, a refused sudo and a command's own
// failure are not: they would fail again.
bool isConnectionFailure(const ExTraceable& e);

// The tries after connections were lost, or dropped before the login was
// through: at most eight in a row without progress, the first after about
// 2 s, each pause about half again as long up to a minute (each a quarter
// more or less, at random), and all of them within KVA_RECONNECT_DEADLINE
// seconds of the first loss since the last progress (600 by default; 0 never
// connects again). Every loss and every try is logged.
class Reconnects {
public:
    Reconnects();
    // The connection that what used is gone, for the reason why: true with
    // the pause before the next try, or false when the tries are spent.
    bool again(const std::string& what, const std::string& why, std::chrono::milliseconds& pause);
    // Something moved since: the tries start afresh.
    void progressed() { tries_ = 0; }
    // How long connecting again may wait for the host: what is left of the
    // deadline (a second at least), or 0 (the kernel's own bound) outside
    // a streak of losses.
    std::chrono::milliseconds connectLimit() const;
    // Sleeps pause, waking for a stop request.
    static void wait(std::chrono::milliseconds pause);

private:
    int tries_ = 0;
    std::chrono::milliseconds deadline_;
    std::minstd_rand random_;
    std::chrono::steady_clock::time_point firstLoss_;
};

}  // namespace velmo

#endif
