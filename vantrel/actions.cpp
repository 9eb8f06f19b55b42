#include "vantrel/actions.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>

#include <boost/lexical_cast.hpp>
#include <log4cpp/Category.hh>

#include "commons/agent_spec.h"
#include "commons/commons.h"
#include "commons/log.h"
#include "commons/login_slots.h"
#include "commons/session.h"
#include "commons/sh_quoting.h"
#include "vantrel/remote_programs.h"

namespace velmo {

namespace {

log4cpp::Category& actionLog = log4cpp::Category::getInstance("p.Action");

}  // namespace

void writeNameFile(const std::string& name, const std::string& text) {
    NewFile file(theSession->directory(), name);
    file.write(text);
    file.commit();
}

// ---------------------------------------------------------------- Action

Action::Action(StatusFile statusFile) : cfg(nullptr), agentDirKnown_(false) {
    if (statusFile == StatusFile::kept) {
        status = createMigrationStatusFile();
        status->setIdle();
        status->saveFile();
    }
}

Action::~Action() {
    if (status) {
        try {
            status->setIdle();
            status->saveFile();
        } catch (const ExTraceable& e) {
            debugLog(e);
        } catch (const std::exception& e) {
            debugLog(std::string("Unable to save the idle migration status: ") + e.what());
        }
    }
    // The connection goes last: session first, then socket.
    ssh.reset();
}

void Action::setConfig(const config* c) {
    cfg = c;
    commands_.host = cfg->host;
    commands_.login = cfg->login;
    commands_.useSudo = cfg->useSudo;
    commands_.sudoPassword = cfg->sudoPassword;
    RateLimit::set(cfg->bandwidthLimit);
}

Ssh* Action::getSsh(Reconnects& tries) {
    if (ssh && ssh->lost()) ssh.reset();
    if (!ssh) {
        ssh = connect(tries);
        if (lost_) actionLog.infoStream() << "Connected again to " << cfg->host;
        connected_ = true;
        lost_ = false;
    }
    return ssh.get();
}

void Action::reconnecting(const std::string& what, const std::function<void()>& work) {
    std::unique_ptr<ExTraceable> loss;
    for (;;) {
        ranOnce_ = false;
        try {
            work();
            return;
        } catch (const ExTraceable& e) {
            if (!connected_ || !isConnectionFailure(e)) throw;
            checkProgramTerminated();
            if (ranOnce_) {
                actionLog.errorStream() << what << ": " << e.what()
                                        << "; the command may have run, and is not started twice";
                throw;
            }
            if (!loss) loss.reset(e.clone());
            std::chrono::milliseconds pause;
            if (!reconnects_.again(what, e.what(), pause)) loss->raise();
            ssh.reset();
            lost_ = true;
            Reconnects::wait(pause);
        }
    }
}

std::unique_ptr<Ssh> Action::connect(Reconnects& tries, const std::function<bool()>& giveUp) const {
    const unsigned short port = cfg->port == 0 ? 22 : static_cast<unsigned short>(cfg->port);
    libssh2pp::Credentials credentials;
    credentials.login = cfg->login;
    credentials.password = cfg->password;
    credentials.keyFile = cfg->keyFile;
    credentials.passphrase = cfg->keyPassphrase;
    credentials.agent = cfg->useAgent;
    std::unique_ptr<ExTraceable> drop;
    for (;;) {
        try {
            const LoginSlot slot(cfg->host, port, giveUp);
            return std::unique_ptr<Ssh>(new Ssh(cfg->host, port, credentials, cfg->noEncryption, tries.connectLimit()));
        } catch (const Exc<&ConnectionFault>& e) {
            // The host was there and dropped the connection, or it was cut,
            // before the login was through: a loaded sshd (MaxStartups) does
            // that to new connections, a link that drops now and then too.
            checkProgramTerminated();
            if (!drop) drop.reset(e.clone());
            std::chrono::milliseconds pause;
            if (!tries.again("The login", e.what(), pause)) drop->raise();
            Reconnects::wait(pause);
        }
    }
}

const std::string& Action::agentDir() {
    if (agentDirKnown_) return agentDir_;
    agentDir_ = cfg->agentDir;
    if (!agentDir_.empty() && agentDir_[0] != '/') {
        // File transfers would find a relative path from the home directory
        // and commands from inside the agent directory: one absolute path
        // serves both.
        CommandResult pwd;
        reconnecting("The login's home directory", [&] { pwd = run(CommandOptions(), "pwd"); });
        std::string home = pwd.output;
        while (!home.empty() && home.back() == '\n') home.pop_back();
        if (pwd.status != 0 || home.empty() || home[0] != '/')
            throw VELMO_EXC(CantFindHomeDirectory) % cfg->agentDir % pwd.errors;
        agentDir_ = (home == "/" ? std::string() : home) + "/" + cfg->agentDir;
        actionLog.infoStream() << "Agent directory " << cfg->agentDir << " is " << agentDir_;
    }
    agentDirKnown_ = true;
    return agentDir_;
}

CommandResult Action::run(const CommandOptions& how, const std::string& command, IOReadChannel& in,
                          IOWriteChannel& out) {
    const bool onTerminal = commands_.sudoWantsTerminal;
    for (;;) {
        ActionCommand remote(commands_, how, command, in, out);
        Ssh* ssh = getSsh();
        remote.start(*ssh);
        try {
            ChannelLoop({ssh}).run([&remote] { return remote.ended(); });
            return remote.result();
        } catch (const Exc<&SudoNeedsTerminal>&) {
            // Nothing ran: sudo refused before the command's turn.
            if (onTerminal || !commands_.sudoWantsTerminal) throw;
            if (!in.rewind())
                throw VELMO_EXC(SudoNeedsTerminal) % cfg->host % "the command's input cannot be sent once more";
        } catch (const ExTraceable&) {
            // A stop request cuts the library's waits short: what fails then
            // fails because of the stop.
            checkProgramTerminated();
            ranOnce_ = how.runsOnce && remote.mayHaveRun();
            throw;
        }
    }
}

CommandResult Action::run(const CommandOptions& how, const std::string& command, const std::string& input) {
    std::istringstream text(input);
    IOStreamReadChannel in(text);
    BoundedText output(64u << 20);
    CommandResult result = run(how, command, in, output);
    result.output = output.str();
    return result;
}

void Action::takeFile(const std::string& remotePath) {
    if (!cfg->useSudo) return;
    const CommandResult result = run(CommandOptions(agentDir()).asRoot(), commandLine({"chown", cfg->login, remotePath}));
    if (result.status != 0) throw VELMO_EXC(CantTakeFileOwnership) % remotePath % result.errors;
}

// ---------------------------------------------------------------- scout

void SendScoutAction::execute() {
    status->setAgentParams(cfg->host);
    status->setAgentOperation(MigrationStatus::deploy);
    status->saveFile();

    const std::string scoutPath = files::getScoutFileName();
    std::ifstream script(scoutPath.c_str(), std::ios::in | std::ios::binary);
    if (!script.is_open()) throw VELMO_EXC(UnableToOpenScoutFile) % scoutPath;

    // What the scout printed stays, also when it failed. It only looks at
    // the host: a cut one runs again.
    IOStreamReadChannel input(script);
    CommandResult scout;
    reconnecting("The scout", [&] {
        NewFile result(theSession->directory(), session_names::SCOUT_RESULT);
        NewFileWriter output(result);
        if (!input.rewind()) throw VELMO_EXC(UnableToOpenScoutFile) % scoutPath;
        try {
            scout = run(CommandOptions(agentDir()).asRoot().quietInput().endingWithRun(), "perl", input, output);
        } catch (...) {
            result.commitQuietly();
            throw;
        }
        result.commit();
    });
    if (scout.status != 0) throw VELMO_EXC(FailedToExecuteScout) % scout.status % scout.errors;

    status->setAgentOperation(MigrationStatus::wait);
    status->saveFile();
}

// ---------------------------------------------------------------- dump

RetrieveDumpAction::RetrieveDumpAction(const std::vector<std::string>& arguments,
                                       const std::string& standardInput)
    : Action(StatusFile::kept), arguments_(arguments), standardInput_(standardInput) {}

void RetrieveDumpAction::execute() {
    try {
        retrieve();
    } catch (const ExTraceable& e) {
        throw VELMO_EXC_INNER(CantRetrieveDump, e);
    }
}

// One copy of the agent's dumping status into the session: a command of its
// own beside the agent's, whose file takes its name when the copy is whole.
struct RetrieveDumpAction::StatusCopy {
    explicit StatusCopy(const FileRead& read)
        : file(theSession->directory(), files::getRemoteDumpingStatusFileName()), output(file),
          command(read.line, none, output, errors, read.how) {
        command.onEnd = [this](RemoteCommand& copy) {
            if (!copy.lost() && copy.status() == 0) file.commitQuietly();
        };
    }
    NewFile file;
    NewFileWriter output;
    EmptyInput none;
    BoundedText errors;
    RemoteCommand command;
};

RetrieveDumpAction::~RetrieveDumpAction() = default;

bool RetrieveDumpAction::refreshDumpingStatus() {
    try {
        // A copy still on its way is left to finish.
        if (copy_ && !copy_->command.ended()) return true;
        copy_.reset();
        copy_.reset(new StatusCopy(fileRead(agentDir() + "/" + files::getRemoteDumpingStatusFileName())));
        getSsh()->start(copy_->command);
        return true;
    } catch (const ExTraceable& e) {
        // The refresh stops for the rest of the run; the action goes on.
        debugLog(e);
    } catch (const std::exception& e) {
        debugLog(std::string("Dumping status refresh failed: ") + e.what());
    }
    return false;
}

void RetrieveDumpAction::retrieve() {
    status->setAgentParams(cfg->host);
    status->setAgentOperation(MigrationStatus::wait);
    status->saveFile();

    boost::shared_ptr<Agent> agent = theAgentsFactory().getAgent(cfg->agentName);
    const std::string remoteDump = agentDir() + "/dump.xml";
    std::vector<std::string> words{agent->getEffectiveInterpreter(), agentDir() + "/" + agent->getEntryPoint()};
    words.insert(words.end(), arguments_.begin(), arguments_.end());
    if (cfg->noContent) words.push_back("--no-content");
    const std::string command = commandLine(words);

    // While the agent works, its dumping status is copied into the session
    // every 5 seconds. What it prints is logged, not kept. A connection lost
    // before the agent started connects again; once it may have started,
    // the dump ends with its connection (watchdog and all), and is not
    // started twice.
    CommandResult dump;
    reconnecting("The dump", [&] {
        PeriodicTask refresh(*getSsh(), std::chrono::seconds(5), [this] { return refreshDumpingStatus(); });
        std::istringstream text(standardInput_);
        IOStreamReadChannel in(text);
        BoundedText out(0);
        dump = run(CommandOptions(agentDir()).asRoot().endingWithRun().once(), command, in, out);
    });
    copy_.reset();
    if (dump.status != 0) throw VELMO_EXC(CantRetrieveDumpFile) % dump.errors;

    // The dump is the agent's, done: a connection lost while it comes over
    // connects again and fetches it once more. (A dump that runs when the
    // connection goes ends with it, watchdog and all.)
    const std::string localDump = theSession->getDumpFileName();
    reconnecting("The dump's download", [&] {
        takeFile(remoteDump);
        getSsh()->get(localDump, remoteDump);
    });
    writeNameFile(session_names::DUMP_NAME, localDump);
}

void GetDumpingStatusAction::execute() {
    try {
        status->setAgentParams(cfg->host);
        status->setAgentOperation(MigrationStatus::wait);
        status->saveFile();
        const std::string remoteStatus = agentDir() + "/" + files::getRemoteDumpingStatusFileName();
        // Kept until it is whole, so that a connection lost half way and
        // made again prints it once.
        std::ostringstream copy;
        reconnecting("The dumping status", [&] {
            copy.str("");
            takeFile(remoteStatus);
            getSsh()->get(copy, remoteStatus);
        });
        std::cout << copy.str();
        std::cout.flush();
    } catch (const ExTraceable& e) {
        throw VELMO_EXC_INNER(DumpStatusError, e);
    }
}

void RemoveDumpingStatusAction::execute() {
    // The session's own copy of the agent's dumping status; nothing outside
    // the session directory is touched and no connection is made.
    theSession->directory().remove(files::getRemoteDumpingStatusFileName());
}

// ---------------------------------------------------------------- removal

const char* const AGENT_DIR_MARKER = ".vantrel-agent";

namespace {
// The entry point of the agent name in the local catalogue; empty when the
// catalogue does not know it.
std::string knownEntryPoint(const std::string& name) {
    try {
        return theAgentsFactory().getAgent(name)->getEntryPoint();
    } catch (const Exc<&AgentNotFound>&) {
        return std::string();
    }
}

// Why dir must not be removed whatever it holds, or an empty text.
std::string neverRemoved(const std::string& dir) {
    if (dir.find_first_not_of("/.") == std::string::npos) return "it names the root directory";
    for (std::string::size_type at = 0; (at = dir.find("..", at)) != std::string::npos; at += 2) {
        const bool startsComponent = at == 0 || dir[at - 1] == '/';
        const bool endsComponent = at + 2 == dir.size() || dir[at + 2] == '/';
        if (startsComponent && endsComponent) return "it contains a '..' component";
    }
    return std::string();
}
}  // namespace

void RemoveAgentAction::execute() {
    try {
        std::string why = cfg->agentDir.empty() ? "the agent directory is empty" : neverRemoved(cfg->agentDir);
        if (why.empty()) why = neverRemoved(agentDir());
        if (why.empty()) {
            // Ours is a directory that holds the deployment's marker, or
            // (deployed before markers) the agent's entry point, when the
            // agent is still known here. The test and the removal go in one
            // exchange.
            const std::string dir = agentDir();
            std::string test = "test -e " + sh_quote(dir + "/" + AGENT_DIR_MARKER);
            const std::string entry = knownEntryPoint(cfg->agentName);
            if (!entry.empty()) test += " || test -f " + sh_quote(dir + "/" + entry);
            const std::string script = "{ " + test + "; } || exit 3; " + commandLine({"rm", "-rf", "--", dir});
            // Half removed, the directory may have lost its marker: a cut
            // removal is not started again.
            reconnecting("The agent's removal", [&] {
                if (run(CommandOptions("/").asRoot().once(), commandLine({"sh", "-c", script})).status == 3)
                    why = "it holds no deployed agent";
            });
        }
        if (!why.empty()) {
            actionLog.warn("Refusing to remove agent directory '%s': %s", cfg->agentDir.c_str(), why.c_str());
            debugLog("Refusing to remove agent directory '" + cfg->agentDir + "': " + why);
        }
    } catch (const ExTraceable& e) {
        // Removal is a clean-up: its failures never fail the run.
        debugLog(e);
    }
}

}  // namespace velmo
