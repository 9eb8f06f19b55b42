// The SSH transport of a run: an authenticated connection to the source
// host, the table of its remote commands, which ChannelLoop services, and
// reading and writing remote files, which are commands like any other.
#ifndef VANTREL_COMMONS_SSH_TRANSFER_H
#define VANTREL_COMMONS_SSH_TRANSFER_H

#include <chrono>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "commons/byte_channels.h"
#include "commons/channel_loop.h"
#include "commons/libssh2pp.h"
#include "commons/rate_limit.h"
#include "commons/remote_command.h"
#include "commons/socket.h"
#include "commons/stop.h"

namespace velmo {

// One authenticated connection to the source host.
class Ssh {
public:
    class NullCounter : public Counter {
    public:
        void operator()(int) override {}
    };
    static NullCounter null_counter;
    typedef velmo::Counter Counter;

    // Connects and authenticates. A failed handshake is tried once more on a
    // new connection in compatibility mode; refused credentials give
    // Exc<&SshInvalidCredentials>.
    Ssh(const std::string& host, const std::string& login, const std::string& password,
        bool disableEncryption, unsigned short port);
    // The same with whatever the credentials offer (keys first). host may be
    // an IPv6 address in brackets. The TCP connection takes connectLimit at
    // most (0: what the kernel gives it). A connection that the host drops
    // or that is cut before the login is through gives
    // Exc<&ConnectionFault>.
    Ssh(const std::string& host, unsigned short port, const libssh2pp::Credentials& credentials,
        bool disableEncryption, std::chrono::milliseconds connectLimit = std::chrono::milliseconds(0));
    ~Ssh();
    Ssh(const Ssh&) = delete;
    Ssh& operator=(const Ssh&) = delete;

    // Puts command into this connection's table; the loop opens its channel,
    // starts it and services it until it ends. A channel or a command that
    // the source host refuses ends it as refused.
    void start(RemoteCommand& command);

    // Runs command to its end and returns its exit status; the channels of
    // this connection and its periodic task are serviced meanwhile. The
    // connection gone gives Exc<&SshConnectionFault>, a refusal
    // Exc<&CommandRefused>.
    int exec(const std::string& command, IOReadChannel& in, IOWriteChannel& out, IOWriteChannel& err,
             const ExecOptions& how = ExecOptions());

    // Reads a remote file with "cat" into out; returns the exit status.
    int get(std::ostream& out, const std::string& remotePath);
    // The same into a local file (mode 0640, kvaadm's), which takes its name
    // only when the read succeeds: a read that fails, by status or by error,
    // leaves what stood there before. A link under that name is replaced,
    // never written through.
    int get(const std::string& localPath, const std::string& remotePath);
    // Writes a remote file with "cat >" from a local file; a file that
    // cannot be opened throws Exc<&StreamRead> before anything is sent, a
    // write that fails on the remote side Exc<&CantWriteRemoteFile>.
    void put(const std::string& localPath, const std::string& remotePath);

    // Work the loop does about every interval while this connection's
    // commands run, between two passes; it may start commands (never run
    // one to its end: that is the loop's). The task returns false to stop
    // being run.
    void setPeriodic(std::chrono::milliseconds interval, std::function<bool()> task);
    void clearPeriodic() { periodic_ = nullptr; }

    // Whether the connection went away (its commands then ended as lost),
    // and what the library said of it.
    bool lost() const { return lost_; }
    const std::string& whyLost() const { return whyLost_; }
    // The shortest round trip seen on the connection, in milliseconds.
    double roundTripMs() const { return session_->roundTripMs(); }

private:
    friend class ChannelLoop;
    friend class RemoteCommand;
    // Named by what a step waits for when the library could not finish it.
    typedef bool (Ssh::*Step)(RemoteCommand&);

    void logIn(const std::string& host, unsigned short port, const libssh2pp::Credentials& credentials,
               bool disableEncryption, std::chrono::milliseconds connectLimit);

    // One pass over the table: each command's phases in turn. True when
    // anything moved.
    bool service();
    // Takes the commands that ended out of the table.
    void dropEnded();
    bool open(RemoteCommand& command);
    // Whether a command that is in a hurry waits to open.
    bool othersWait() const;
    bool startCommand(RemoteCommand& command);
    bool sendInput(RemoteCommand& command);
    bool sendEof(RemoteCommand& command);
    bool receive(RemoteCommand& command);
    // Lets the peer send more when the window has fallen below three
    // quarters of its target.
    bool growWindow(RemoteCommand& command);
    bool close(RemoteCommand& command);
    // Calls a step; a step that the library left with a packet half sent is
    // remembered, and the next pass starts by finishing it.
    bool take(Step step, RemoteCommand& command);
    void enter(RemoteCommand& command, RemoteCommand::Phase phase);
    // Whether an exchange around the command waits for the peer too long.
    bool overdue(const RemoteCommand& command) const;
    void end(RemoteCommand& command);
    void refuse(RemoteCommand& command, const std::string& what);
    void loseConnection(const std::string& why = std::string());
    void abandon(RemoteCommand& command);
    // Finishes the packet that a step left half sent, calling that step
    // again (a few seconds at most).
    void flushPending();

    // What the loop waits for on the socket.
    short pollEvents() const;
    // Whether the library holds something a pass would take: packets that
    // another channel's read took off the socket, or window that came for
    // input waiting to go.
    bool hasQueued() const;
    // Runs the periodic task when it is due; returns the milliseconds the
    // loop may wait before it is due again (0 when it just ran).
    long runPeriodicTask();

    std::unique_ptr<Socket> socket_;
    std::unique_ptr<libssh2pp::Session> session_;
    std::vector<RemoteCommand*> table_;
    RemoteCommand* pendingCommand_ = nullptr;
    Step pendingStep_ = nullptr;
    bool opening_ = false;
    bool lost_ = false;
    std::string whyLost_;
    std::function<bool()> periodic_;
    std::chrono::milliseconds periodicInterval_{0};
    std::chrono::steady_clock::time_point periodicDue_;
};

// A command that reads a remote file whole: its line, and how it runs (its
// output past a marker of its own, kept out of the debug log).
struct FileRead {
    std::string line;
    ExecOptions how;
};
FileRead fileRead(const std::string& remotePath);

}  // namespace velmo

#endif
