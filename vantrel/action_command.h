// A command of an action on the source host: how it runs (in a fresh sh in
// its directory, as root through sudo, under the watchdog), the line that
// says so, and what it left. Through sudo, the line checks that sudo exists
// and takes the password before the command runs; where sudo wants a
// terminal (Defaults requiretty) the command runs on a channel with one, its
// streams carried by a relay beside it.
#ifndef VANTREL_ACTION_COMMAND_H
#define VANTREL_ACTION_COMMAND_H

#include <memory>
#include <string>
#include <vector>

#include "commons/ssh-transfer.h"

namespace velmo {

// How a command runs on the source host.
struct CommandOptions {
    explicit CommandOptions(std::string dir = std::string()) : dir(std::move(dir)) {}
    // As root, through sudo when --sudo-password is given.
    CommandOptions& asRoot() {
        root = true;
        return *this;
    }
    // Its output, or its input, stays out of the debug log (file content).
    CommandOptions& quietOutput() {
        logOutput = false;
        return *this;
    }
    CommandOptions& quietInput() {
        logInput = false;
        return *this;
    }
    // It ends, with everything it started, when its channel goes away
    // (remote/watchdog.pl): a command that may wait for ever does not outlive
    // the run.
    CommandOptions& endingWithRun() {
        guarded = true;
        return *this;
    }
    // It is one of commands that take the link's bandwidth together.
    CommandOptions& sharingLinkWith(int commands) {
        linkShare = commands;
        return *this;
    }
    // Its channel opens after those of the commands that wait with it: it
    // has nothing to do yet.
    CommandOptions& inNoHurry() {
        patient = true;
        return *this;
    }
    // It must not run twice (a dump, a removal): it starts only once vantrel
    // has seen that its line got that far, so that a connection lost before
    // says for sure that it did not run.
    CommandOptions& once() {
        runsOnce = true;
        return *this;
    }

    std::string dir;  // where it runs; the login's home when empty
    bool root = false;
    bool logOutput = true;
    bool logInput = true;
    bool guarded = false;
    int linkShare = 1;
    bool patient = false;
    bool runsOnce = false;
};

// What a command left behind.
struct CommandResult {
    int status = 0;
    std::string output;  // its standard output, unless the caller took it
    std::string errors;  // its standard error: the start and the end of it when it said much
};

// What an action's commands need to know of the run.
struct CommandContext {
    std::string host;
    std::string login;
    bool useSudo = false;
    std::string sudoPassword;
    bool sudoWantsTerminal = false;  // learnt from the first refusal, for the rest of the run
};

class TailKeeper;
class SudoOnTerminal;
class CommandInput;

// A command of an action, ready to start on a connection.
class ActionCommand {
public:
    ActionCommand(CommandContext& context, const CommandOptions& how, const std::string& command, IOReadChannel& in,
                  IOWriteChannel& out);
    ~ActionCommand();
    ActionCommand(const ActionCommand&) = delete;
    ActionCommand& operator=(const ActionCommand&) = delete;

    // Puts it into the table of ssh, whose loop runs it.
    void start(Ssh& ssh);
    // Every channel it needs is through, or it cannot go on.
    bool ended() const;
    bool lost() const;
    // The source host runs it.
    bool started() const;
    // The command itself may have run: told to go, when it runs once, or
    // its line got that far.
    bool mayHaveRun() const;
    void shareLink(int share);
    // Once it ended: what it left. sudo missing on the source host gives
    // Exc<&SudoNotFound>, a refused password Exc<&SudoNotAllowed>, a sudo
    // that wants a terminal Exc<&SudoNeedsTerminal> (the context then says
    // so, and the command may run again on one), a lost connection
    // Exc<&SshConnectionFault>.
    CommandResult result();

private:
    CommandContext& context_;
    bool root_;
    std::unique_ptr<CommandInput> input_;
    BoundedText errors_;
    std::unique_ptr<TailKeeper> tail_;
    std::unique_ptr<RemoteCommand> remote_;
    std::unique_ptr<SudoOnTerminal> terminal_;  // instead of remote_ where sudo wants a terminal
};

// A command line made of words quoted for the remote shell.
std::string commandLine(const std::vector<std::string>& words);

}  // namespace velmo

#endif
