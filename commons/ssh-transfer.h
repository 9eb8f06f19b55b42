// The SSH transport of a run: authenticated connections to the source host,
// remote commands on their channels, and one loop that services every
// channel of every connection, as OpenSSH's client loop services its channel
// table. Reading a remote file and writing one are commands like any other.
#ifndef VANTREL_COMMONS_SSH_TRANSFER_H
#define VANTREL_COMMONS_SSH_TRANSFER_H

#include <chrono>
#include <csignal>
#include <cstddef>
#include <functional>
#include <istream>
#include <memory>
#include <mutex>
#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "commons/libssh2pp.h"
#include "commons/local_files.h"
#include "commons/shell_noise.h"
#include "commons/socket.h"

namespace velmo {

// A stop request: every transfer ends at its next chunk or wait. Stands
// outside the tagged exceptions; the driver treats it as a clean stop.
class MigrationTerminatedException : public std::runtime_error {
public:
    MigrationTerminatedException();
};

// Process-wide termination flag. terminateProgram() only stores into it, so
// it may be called from a signal handler.
extern volatile std::sig_atomic_t isProgramTerminated;
void terminateProgram();
// Throws MigrationTerminatedException once the flag is set.
void checkProgramTerminated();

// Source of bytes: more than 0 is a chunk, 0 the end of input, -1 an error,
// later that nothing is there yet but more will come: asked again once the
// command's channel has news, or the loop's wait is over.
class IOReadChannel {
public:
    static const int later = -2;
    virtual ~IOReadChannel();
    virtual int read(char* buffer, unsigned size) = 0;
    // Starts again from the first byte, for a command that runs once more;
    // false when this source cannot.
    virtual bool rewind() { return false; }
};

// Sink of bytes: returns how many it accepted, or a negative error.
class IOWriteChannel {
public:
    virtual ~IOWriteChannel();
    virtual int write(const char* data, unsigned size) = 0;
};

// Reads an input stream; a stream that cannot be read reports end of input.
class IOStreamReadChannel : public IOReadChannel {
public:
    explicit IOStreamReadChannel(std::istream& in) : in_(in) {}
    int read(char* buffer, unsigned size) override;
    bool rewind() override;

private:
    std::istream& in_;
};

// Writes an output stream; -1 once the stream has failed.
class IOStreamWriteChannel : public IOWriteChannel {
public:
    explicit IOStreamWriteChannel(std::ostream& out) : out_(out) {}
    int write(const char* data, unsigned size) override;

private:
    std::ostream& out_;
};

// What a remote command says, kept within a bound however much it says: its
// first and last bytes, and how many were left out between them.
class BoundedText : public IOWriteChannel {
public:
    // Keeps at most keep bytes, half of them from the start.
    explicit BoundedText(std::size_t keep = 64 * 1024) : half_(keep / 2) {}
    int write(const char* data, unsigned size) override;
    // The start, a line that says how much was left out (if anything was),
    // and the end.
    std::string str() const;

private:
    std::size_t half_;
    std::string head_;
    std::string tail_;
    unsigned long long leftOut_ = 0;
};

// Writes a file that takes its name once it is whole; Exc<&FileWrite>.
class NewFileWriter : public IOWriteChannel {
public:
    explicit NewFileWriter(NewFile& file) : file_(file) {}
    int write(const char* data, unsigned size) override;

private:
    NewFile& file_;
};

// A block of bytes written to a log stream as it is: no escaping, no
// truncation, no line end.
struct memchunk_log {
    memchunk_log(const char* data, std::size_t length) : data(data), length(length) {}
    const char* data;
    std::size_t length;
};
std::ostream& operator<<(std::ostream& out, const memchunk_log& chunk);

// No input at all.
class EmptyInput : public IOReadChannel {
public:
    int read(char*, unsigned) override { return 0; }
    bool rewind() override { return true; }
};

// Writes the whole chunk, calling to again for what it did not take; checks
// the termination flag first; Exc<&StreamWrite> on an error of to.
void pump_write(IOWriteChannel& to, const char* data, int length);

class Ssh;

// What all connections of the run move, both ways together, at most per
// second (KVA_BWLIMIT): a bucket that holds a tenth of a second's worth and
// fills as time passes. Without a rate, everything may move at once.
class RateLimit {
public:
    static void set(long long bytesPerSecond);  // 0: no cap
    static long long rate() { return rate_; }
    // How many of want bytes may move now; 0 until a useful amount may.
    static std::size_t allow(std::size_t want);
    static void spend(std::size_t bytes);
    // Milliseconds until bytes may move again; 0 when they may now.
    static long wait();

private:
    static void refill();

    static long long rate_;  // set before any connection is made
    static double tokens_;
    static std::chrono::steady_clock::time_point filled_;
    static std::mutex mutex_;  // connections serviced on threads of their own share the bucket
};

// Receives the size of every chunk of a command's standard output.
class Counter {
public:
    virtual ~Counter();
    virtual void operator()(int bytes) = 0;
};

// How a remote command runs.
struct ExecOptions {
    ExecOptions();
    bool logOutput = true;  // its output chunks go to the debug log
    bool logInput = true;   // its input chunks go to the debug log
    Counter* counter;       // counts its standard output
    int linkShare = 1;      // commands on several connections that share the link: each window takes its part
    bool patient = false;   // its channel opens after those of the others waiting (one opens at a time)
    // When given, the command line prints it on a line of its own right
    // before the command runs: standard output up to that line is the login
    // shell's (see ShellNoise), and is dropped.
    std::string marker;
    // It runs on a terminal (its echo off): standard error comes with the
    // output, and the end of input would hang it up.
    bool terminal = false;
};

// One command on a channel of a connection, in the loop's table from
// Ssh::start until it ends. Its input is read as the channel takes it, its
// output and errors are passed on as they arrive, both at once: a command
// may answer before it has read all its input.
class RemoteCommand {
public:
    RemoteCommand(std::string line, IOReadChannel& in, IOWriteChannel& out, IOWriteChannel& err,
                  const ExecOptions& how = ExecOptions());
    // A command that has not ended is abandoned: its channel is closed, and
    // the command ends on the source host with its channel.
    ~RemoteCommand();
    RemoteCommand(const RemoteCommand&) = delete;
    RemoteCommand& operator=(const RemoteCommand&) = delete;

    // It exited, or its connection went away first (lost).
    bool ended() const { return phase_ == Phase::ended; }
    // The source host runs it (or it ended).
    bool started() const { return phase_ >= Phase::running; }
    // Its output began: the marker came (when it has one).
    bool begun() const { return noise_ ? noise_->passed() : started(); }
    // Its window takes its part of a link that commands on share connections
    // use.
    void shareLink(int share);
    bool lost() const { return lost_; }
    // The exit status; a command killed by a signal counts as 255.
    int status() const { return status_; }
    // Called once, when it ends (not when it is abandoned).
    std::function<void(RemoteCommand&)> onEnd;

private:
    friend class Ssh;
    enum class Phase { waiting, opening, starting, running, closing, ended };

    std::string line_;
    IOReadChannel& in_;
    IOWriteChannel& out_;
    IOWriteChannel& err_;
    ExecOptions how_;
    Ssh* ssh_ = nullptr;
    std::unique_ptr<libssh2pp::Channel> channel_;
    Phase phase_ = Phase::waiting;
    std::vector<char> input_;
    std::size_t inputLength_ = 0;
    std::size_t inputSent_ = 0;
    bool inputEnded_ = false;
    bool eofSent_ = false;
    bool requested_ = false;  // the request to run it went out
    bool terminalGiven_ = false;
    bool closedWithoutEof_ = false;
    std::chrono::steady_clock::time_point asked_;
    std::chrono::steady_clock::time_point since_;  // of its phase
    std::chrono::steady_clock::time_point stateAsked_;  // whether it or its connection went away
    int status_ = -1;
    bool lost_ = false;
    std::unique_ptr<class CommandLog> log_;
    std::unique_ptr<ShellNoise> noise_;
    // The channel's receive window, grown with what the link carries.
    struct Window {
        // Once a round trip the target may grow to twice what arrived in the
        // last one, up to the ceiling; it never shrinks.
        void arrived(std::size_t bytes, double roundTripMs);
        unsigned long target = 0;   // what it is to hold
        unsigned long ceiling = 0;  // what it may grow to
        unsigned most = 0;          // the ceiling of a channel that has the link to itself
        std::size_t since = 0;      // bytes since mark
        std::chrono::steady_clock::time_point mark;
        unsigned long due = 0;      // an adjustment not sent whole yet
    } window_;
};

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
    // the source host refuses ends it as lost.
    void start(RemoteCommand& command);

    // Runs command to its end and returns its exit status; the channels of
    // this connection and its periodic task are serviced meanwhile. The
    // connection gone gives Exc<&SshConnectionFault>.
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

// A connection's periodic task for as long as this lives.
class PeriodicTask {
public:
    PeriodicTask(Ssh& ssh, std::chrono::milliseconds interval, std::function<bool()> task) : ssh_(ssh) {
        ssh_.setPeriodic(interval, std::move(task));
    }
    ~PeriodicTask() { ssh_.clearPeriodic(); }
    PeriodicTask(const PeriodicTask&) = delete;
    PeriodicTask& operator=(const PeriodicTask&) = delete;

private:
    Ssh& ssh_;
};

// Passes over the channels of a set of connections until a condition holds.
class ChannelLoop {
public:
    explicit ChannelLoop(std::vector<Ssh*> connections) : connections_(std::move(connections)) {}

    // Passes until done() is true, or no connection has a command left; a
    // stop request ends it with MigrationTerminatedException. Between passes
    // it waits for the sockets longestWaitMs at most.
    void run(const std::function<bool()>& done, long longestWaitMs = 5000);
    // The same, after a stop request, for at most limit: one last exchange
    // (removing on the source host what arrived, say) that the stop does
    // not cut short. False when the limit came first.
    bool finish(const std::function<bool()>& done, std::chrono::milliseconds limit);

private:
    // One pass over every connection, and a wait on their sockets when
    // nothing moved; false when no connection has a command left.
    bool pass(long longestWaitMs = 5000);
    // Waits on the sockets for what the library waits for, at most timeoutMs.
    void wait(long timeoutMs);

    std::vector<Ssh*> connections_;
};

}  // namespace velmo

#endif
