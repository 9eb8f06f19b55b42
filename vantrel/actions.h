// The actions of vantrel: the common base (lazy connection, execution as the
// login or as root through sudo, ownership hand-back) and the scout, dump,
// dumping-status and removal actions. Agent deployment and content
// retrieval have units of their own.
#ifndef VANTREL_ACTIONS_H
#define VANTREL_ACTIONS_H

#include <functional>
#include <istream>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "commons/formats.h"
#include "commons/log.h"
#include "commons/ssh-transfer.h"
#include "vantrel/action_command.h"
#include "vantrel/reconnects.h"
#include "vantrel/options.h"

namespace velmo {

// Whether an action keeps the migration status file up to date.
enum class StatusFile { kept, none };

class Action {
public:
    explicit Action(StatusFile statusFile);
    virtual ~Action();
    Action(const Action&) = delete;
    Action& operator=(const Action&) = delete;

    virtual void setConfig(const config* cfg);
    virtual void execute() = 0;

    // The connection of the run, made on first use (again after a loss).
    Ssh* getSsh() { return getSsh(reconnects_); }
    // The connection there is, if any: none is made.
    Ssh* connection() const { return ssh.get(); }
    // The same, connecting as tries allow.
    Ssh* getSsh(Reconnects& tries);
    // One more connection to the source host, in one of the login slots
    // toward it (LoginSlot; giveUp ends the wait for one). A connection that
    // the host drops, or that is cut, before the login is through is made
    // again as tries allow; its TCP connection takes what tries leave of
    // their deadline (or what the kernel gives it, before any loss).
    std::unique_ptr<Ssh> connect(Reconnects& tries, const std::function<bool()>& giveUp = nullptr) const;
    // Runs work; when the connection is lost under it, or cannot be made
    // again, connects again and runs it once more, as the run's Reconnects
    // allow (work marks its progress there). Other failures, those of the
    // first connection of the run (connect tried it as it could), and the
    // loss of a command that runs once after it may have run, pass through;
    // when the tries are spent, the loss that began them fails the run.
    void reconnecting(const std::string& what, const std::function<void()>& work);
    Reconnects& reconnects() { return reconnects_; }
    // The agent directory as an absolute path. A relative --agent-dir lies
    // in the login's home directory, which is asked for once.
    const std::string& agentDir();

    // What the commands of this action need to know of the run.
    CommandContext& commandContext() { return commands_; }

    // Makes the login the owner of a file root created on the remote host.
    void takeFile(const std::string& remotePath);

    // Runs command in a fresh sh as how says, with in as its standard input
    // and out taking its standard output. A directory that cannot be entered
    // ends the line with status 1 before the command runs. As root, a host
    // without sudo gives Exc<&SudoNotFound>, a refused password
    // Exc<&SudoNotAllowed>; where sudo wants a terminal, the command runs
    // once more on one (when its input can be read again).
    CommandResult run(const CommandOptions& how, const std::string& command, IOReadChannel& in, IOWriteChannel& out);
    // The same with input given as text (none by default) and the output
    // kept in the result, the start and the end of it beyond 64 MiB.
    CommandResult run(const CommandOptions& how, const std::string& command, const std::string& input = "");

protected:

    std::unique_ptr<Ssh> ssh;
    const config* cfg;
    std::unique_ptr<MigrationStatus> status;

private:
    CommandContext commands_;
    Reconnects reconnects_;
    bool connected_ = false;
    bool lost_ = false;  // the connection went away; the next one is made again
    bool ranOnce_ = false;  // a command that runs once was lost after it may have run

    std::string agentDir_;
    bool agentDirKnown_;
};

class SendScoutAction : public Action {
public:
    SendScoutAction() : Action(StatusFile::kept) {}
    void execute() override;
};

class RetrieveDumpAction : public Action {
public:
    RetrieveDumpAction(const std::vector<std::string>& arguments, const std::string& standardInput);
    ~RetrieveDumpAction() override;
    void execute() override;

private:
    struct StatusCopy;

    void retrieve();
    // Starts a copy of the agent's dumping status into the session directory
    // unless one is on its way; false once that failed, which ends the
    // refresh for the rest of the run.
    bool refreshDumpingStatus();

    std::vector<std::string> arguments_;
    std::string standardInput_;
    std::unique_ptr<StatusCopy> copy_;
};

class GetDumpingStatusAction : public Action {
public:
    GetDumpingStatusAction() : Action(StatusFile::kept) {}
    void execute() override;
};

// Removes the session's local copy of the agent's dumping status.
class RemoveDumpingStatusAction : public Action {
public:
    RemoveDumpingStatusAction() : Action(StatusFile::kept) {}
    void execute() override;
};

// Name of the file a deployment writes first into the agent directory: a
// directory that holds it is ours to remove.
extern const char* const AGENT_DIR_MARKER;

class RemoveAgentAction : public Action {
public:
    RemoveAgentAction() : Action(StatusFile::none) {}
    void execute() override;
};

// Writes text with no line end into the session file name (kvaadm's);
// throws FileWrite.
void writeNameFile(const std::string& name, const std::string& text);

}  // namespace velmo

#endif
