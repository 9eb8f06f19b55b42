// One remote command on a channel of a connection: how it runs, and its
// state from the request for a channel to the exit status. The connection's
// loop (Ssh, ChannelLoop) moves it through its phases.
#ifndef VANTREL_COMMONS_REMOTE_COMMAND_H
#define VANTREL_COMMONS_REMOTE_COMMAND_H

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "commons/byte_channels.h"
#include "commons/libssh2pp.h"
#include "commons/shell_noise.h"

namespace velmo {

class Ssh;

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

    // It exited, its connection went away first (lost), or the source host
    // refused it.
    bool ended() const { return phase_ == Phase::ended; }
    // The source host runs it (or it ended).
    bool started() const { return phase_ >= Phase::running; }
    // Its output began: the marker came (when it has one).
    bool begun() const { return noise_ ? noise_->passed() : started(); }
    // Its window takes its part of a link that commands on share connections
    // use.
    void shareLink(int share);
    bool lost() const { return lost_; }
    // What the source host refused (a channel, a terminal, to run it), or
    // an empty text: a refused command never ran, and would be refused again.
    const std::string& refusal() const { return refusal_; }
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
    std::string refusal_;
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

}  // namespace velmo

#endif
