// How many logins toward one source host are under way at once, across every
// vantrel process of this machine. sshd drops new connections once too many
// have not yet logged in (MaxStartups, 10 by default): the runs of one
// migration share that budget instead of tripping it. A slot is a lock on a
// file under /run/vantrel/logins/, so that a process that dies, however it
// dies, gives its slots back.
#ifndef VANTREL_COMMONS_LOGIN_SLOTS_H
#define VANTREL_COMMONS_LOGIN_SLOTS_H

#include <functional>
#include <string>

namespace velmo {

// Holds one of the slots toward host and port from construction (waiting
// for a free one; a stop request ends the wait, and so does giveUp when it
// says so, with Exc<&SshConnectionFault>) until destruction. Where the slots
// cannot be kept (no /run/vantrel, not root), it holds none.
class LoginSlot {
public:
    LoginSlot(const std::string& host, unsigned short port, const std::function<bool()>& giveUp = nullptr);
    ~LoginSlot();
    LoginSlot(const LoginSlot&) = delete;
    LoginSlot& operator=(const LoginSlot&) = delete;

    // The slots toward one host: KVA_LOGIN_SLOTS (1 to 10), or 4.
    static int count();
    // Where they are.
    static const char* directory();

private:
    int fd_ = -1;
};

}  // namespace velmo

#endif
