// A privileged command where sudo runs only on a terminal (Defaults
// requiretty, the default sudoers of older Red Hat systems). Two channels
// carry it: one with a terminal, where sudo asks for the password and starts
// the command, and one without, where remote/stream-relay.pl carries the
// command's input, output and errors through named pipes, so that its bytes
// never pass a terminal's line discipline and its errors stay apart. The
// password is typed only at sudo's own prompt, with the terminal's echo off.
#ifndef VANTREL_SUDO_TERMINAL_H
#define VANTREL_SUDO_TERMINAL_H

#include <memory>
#include <string>

#include "commons/ssh-transfer.h"
#include "vantrel/action_command.h"

namespace velmo {

class SudoOnTerminal {
public:
    // cd is the line's start that enters the command's directory; guarded
    // the command itself; in, out and err its streams; how says how its
    // output is logged and shares the link.
    SudoOnTerminal(const CommandContext& context, const std::string& cd, const std::string& guarded,
                   IOReadChannel& in, IOWriteChannel& out, IOWriteChannel& err, const ExecOptions& how);
    ~SudoOnTerminal();

    // The relay starts; the command once the relay made its pipes.
    void start(Ssh& ssh);
    bool ended() const;
    bool lost() const;
    // What the source host refused of the relay's channel or the command's.
    const std::string& refusal() const;
    bool started() const { return relay_->started(); }
    // sudo took the password and the command's streams are open.
    bool begun() const;
    void shareLink(int share) { relay_->shareLink(share); }
    // Once ended: the command's exit status. sudo missing gives
    // Exc<&SudoNotFound>, a refused password Exc<&SudoNotAllowed>, a relay
    // that could not run Exc<&SudoNeedsTerminal>.
    int status();

private:
    class RelayTap;
    class Watch;
    class Answer;
    void relayReady(const std::string& pipes);

    const CommandContext& context_;
    std::string cd_;
    std::string guarded_;
    std::string prompt_;   // sudo's prompt: the password is typed after it
    std::string noSudo_;   // printed where sudo is missing
    std::string ready_;    // printed once the command's streams are open
    Ssh* ssh_ = nullptr;
    std::unique_ptr<RelayTap> tap_;
    std::unique_ptr<Watch> watch_;
    std::unique_ptr<Answer> answer_;
    std::unique_ptr<RemoteCommand> relay_;
    std::unique_ptr<RemoteCommand> command_;  // on the terminal, once the relay is ready
};

}  // namespace velmo

#endif
