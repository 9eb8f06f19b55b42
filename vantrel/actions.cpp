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
#include "commons/session.h"
#include "commons/sh_quoting.h"
#include "vantrel/remote_programs.h"

namespace velmo {

namespace {

log4cpp::Category& actionLog = log4cpp::Category::getInstance("p.Action");

// What the sudo part of a privileged line prints last, and its status, when
// sudo cannot be used: no sudo command, or the password refused.
const char* const kNoSudoMark = "vantrel: sudo not found";
const char* const kSudoRefusedMark = "vantrel: sudo refused";
const int kNoSudoStatus = 250;
const int kSudoRefusedStatus = 251;

// The password line for sudo, then the command's own input.
class PasswordFirst : public IOReadChannel {
public:
    PasswordFirst(const std::string& password, IOReadChannel& rest) : line_(password + "\n"), rest_(rest) {}
    int read(char* buffer, unsigned size) override {
        if (sent_ < line_.size()) {
            const std::size_t n = std::min<std::size_t>(size, line_.size() - sent_);
            std::memcpy(buffer, line_.data() + sent_, n);
            sent_ += n;
            return static_cast<int>(n);
        }
        return rest_.read(buffer, size);
    }

private:
    std::string line_;
    std::size_t sent_ = 0;
    IOReadChannel& rest_;
};

// The command's own input as it is.
class SameInput : public IOReadChannel {
public:
    explicit SameInput(IOReadChannel& in) : in_(in) {}
    int read(char* buffer, unsigned size) override { return in_.read(buffer, size); }

private:
    IOReadChannel& in_;
};

// Runs its arguments as a command under remote/watchdog.pl where the source
// host has perl, as they are where it has none.
std::string endingWithRun(const std::string& command) {
    std::vector<std::string> words = perlRunning(remote::watchdog);
    words.insert(words.begin(), {"sh", "-c", "command -v perl >/dev/null 2>&1 && exec \"$0\" \"$@\"; shift 4; exec \"$@\""});
    return commandLine(words) + " " + command;
}

}  // namespace

// Passes standard error on and keeps its last bytes, where the sudo part of
// a privileged line leaves its verdict.
class TailKeeper : public IOWriteChannel {
public:
    explicit TailKeeper(IOWriteChannel& to) : to_(to) {}
    int write(const char* data, unsigned size) override {
        const int n = to_.write(data, size);
        if (n > 0) {
            tail_.append(data, static_cast<std::size_t>(n));
            if (tail_.size() > 256) tail_.erase(0, tail_.size() - 256);
        }
        return n;
    }
    bool endsWith(const std::string& line) const {
        const std::string mark = line + "\n";
        return tail_.size() >= mark.size() && tail_.compare(tail_.size() - mark.size(), mark.size(), mark) == 0;
    }
    const std::string& tail() const { return tail_; }

private:
    IOWriteChannel& to_;
    std::string tail_;
};

std::string commandLine(const std::vector<std::string>& words) {
    std::string line;
    for (const std::string& word : words) {
        if (!line.empty()) line += ' ';
        // An empty word must stay a word.
        line += word.empty() ? std::string("''") : sh_quote(word);
    }
    return line;
}

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
    RateLimit::set(cfg->bandwidthLimit);
}

Ssh* Action::getSsh(std::chrono::milliseconds connectLimit) {
    if (ssh && ssh->lost()) ssh.reset();
    if (!ssh) {
        ssh = connect(connectLimit);
        if (lost_) actionLog.infoStream() << "Connected again to " << cfg->host;
        connected_ = true;
        lost_ = false;
    }
    return ssh.get();
}

void Action::reconnecting(const std::string& what, const std::function<void()>& work) {
    std::unique_ptr<ExTraceable> loss;
    for (;;) {
        try {
            work();
            return;
        } catch (const ExTraceable& e) {
            if (!connected_ || !isConnectionFailure(e)) throw;
            checkProgramTerminated();
            if (!loss) loss.reset(e.clone());
            std::chrono::milliseconds pause;
            if (!reconnects_.again(what, e.what(), pause)) loss->raise();
            ssh.reset();
            lost_ = true;
            Reconnects::wait(pause);
        }
    }
}

std::unique_ptr<Ssh> Action::connect(std::chrono::milliseconds connectLimit,
                                     const std::function<void()>& beforeLogin) const {
    const unsigned short port = cfg->port == 0 ? 22 : static_cast<unsigned short>(cfg->port);
    libssh2pp::Credentials credentials;
    credentials.login = cfg->login;
    credentials.password = cfg->password;
    credentials.keyFile = cfg->keyFile;
    credentials.passphrase = cfg->keyPassphrase;
    credentials.agent = cfg->useAgent;
    return std::unique_ptr<Ssh>(new Ssh(cfg->host, port, credentials, cfg->noEncryption, connectLimit, beforeLogin));
}

const std::string& Action::agentDir() {
    if (agentDirKnown_) return agentDir_;
    agentDir_ = cfg->agentDir;
    if (!agentDir_.empty() && agentDir_[0] != '/') {
        // File transfers would find a relative path from the home directory
        // and commands from inside the agent directory: one absolute path
        // serves both.
        const CommandResult pwd = run(CommandOptions(), "pwd");
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

ActionCommand::ActionCommand(Action& action, const CommandOptions& how, const std::string& command,
                             IOReadChannel& in, IOWriteChannel& out)
    : action_(action), root_(how.root && action.cfg->useSudo), tail_(new TailKeeper(errors_)) {
    // Every command runs in a fresh sh; it does not run at all when the
    // directory cannot be entered.
    std::string line = (how.dir.empty() ? std::string("cd") : "cd " + sh_quote(how.dir)) + " || exit 1; ";
    const std::string guarded = how.guarded ? endingWithRun(command) : command;
    if (!root_) {
        line += guarded;
        input_.reset(new SameInput(in));
    } else {
        // One exchange does it all: see that sudo exists, check the password
        // once (the pipe ends after one line, so a wrong password is one
        // failed attempt and never a wait), then run the command on the
        // credentials sudo has just cached, or, where it caches none, with
        // the password once more. The password is the first line of the
        // input; the command gets the rest.
        line += "sudo -V >/dev/null 2>&1 || { echo '" + std::string(kNoSudoMark) + "' >&2; exit " +
                std::to_string(kNoSudoStatus) +
                "; }; "
                "IFS= read -r p; "
                "printf '%s\\n' \"$p\" | sudo -S -k -p ' ' -v || { echo '" +
                kSudoRefusedMark + "' >&2; exit " + std::to_string(kSudoRefusedStatus) +
                "; }; "
                "if sudo -n true 2>/dev/null; then sudo -n " +
                guarded + "; else { printf '%s\\n' \"$p\"; exec cat; } | sudo -S -k -p ' ' " + guarded + "; fi";
        input_.reset(new PasswordFirst(action.cfg->sudoPassword, in));
    }
    ExecOptions options;
    options.logOutput = how.logOutput;
    options.logInput = how.logInput;
    options.linkShare = how.linkShare;
    options.patient = how.patient;
    remote_.reset(new RemoteCommand(commandLine({"sh", "-c", line}), *input_, out, *tail_, options));
}

ActionCommand::~ActionCommand() = default;

CommandResult ActionCommand::result() {
    if (remote_->lost()) throw VELMO_EXC(SshConnectionFault);
    CommandResult result;
    result.status = remote_->status();
    if (root_ && result.status == kNoSudoStatus && tail_->endsWith(kNoSudoMark))
        throw VELMO_EXC(SudoNotFound) % action_.cfg->host;
    if (root_ && result.status == kSudoRefusedStatus && tail_->endsWith(kSudoRefusedMark)) {
        debugLog("sudo refused the password: " + maskSecrets(tail_->tail()));
        throw VELMO_EXC(SudoNotAllowed) % action_.cfg->login % action_.cfg->host;
    }
    result.errors = errors_.str();
    return result;
}

CommandResult Action::run(const CommandOptions& how, const std::string& command, IOReadChannel& in,
                          IOWriteChannel& out) {
    ActionCommand remote(*this, how, command, in, out);
    Ssh* ssh = getSsh();
    ssh->start(remote.remote());
    try {
        ChannelLoop({ssh}).run([&remote] { return remote.remote().ended(); });
    } catch (const ExTraceable&) {
        // A stop request cuts the library's waits short: what fails then
        // fails because of the stop.
        checkProgramTerminated();
        throw;
    }
    return remote.result();
}

CommandResult Action::run(const CommandOptions& how, const std::string& command, const std::string& input) {
    std::istringstream text(input);
    IOStreamReadChannel in(text);
    BoundedText output(64u << 20);
    CommandResult result = run(how, command, in, output);
    result.output = output.str();
    return result;
}

int Action::execRoot(const std::string& command, std::istream& in, std::ostream& out, std::ostream& err,
                     bool quietOutput, bool quietInput) {
    CommandOptions how(agentDir());
    how.asRoot();
    how.logOutput = !quietOutput;
    how.logInput = !quietInput;
    IOStreamReadChannel input(in);
    IOStreamWriteChannel output(out);
    const CommandResult result = run(how, command, input, output);
    err << result.errors;
    return result.status;
}

int Action::execRoot(const std::string& command, std::ostream& out, std::ostream& err, bool quietOutput) {
    std::istringstream empty;
    return execRoot(command, empty, out, err, quietOutput, false);
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

    // What the scout printed stays, also when it failed.
    NewFile result(theSession->directory(), session_names::SCOUT_RESULT);
    NewFileWriter output(result);
    IOStreamReadChannel input(script);
    CommandResult scout;
    try {
        scout = run(CommandOptions(agentDir()).asRoot().quietInput().endingWithRun(), "perl", input, output);
    } catch (...) {
        result.commitQuietly();
        throw;
    }
    result.commit();
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
    StatusCopy(const std::string& remote)
        : file(theSession->directory(), files::getRemoteDumpingStatusFileName()), output(file),
          command("cat " + sh_quote(remote), none, output, errors) {
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
        copy_.reset(new StatusCopy(agentDir() + "/" + files::getRemoteDumpingStatusFileName()));
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
    // every 5 seconds. What it prints is logged, not kept.
    CommandResult dump;
    {
        PeriodicTask refresh(*getSsh(), std::chrono::seconds(5), [this] { return refreshDumpingStatus(); });
        std::istringstream text(standardInput_);
        IOStreamReadChannel in(text);
        BoundedText out(0);
        dump = run(CommandOptions(agentDir()).asRoot().endingWithRun(), command, in, out);
    }
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
            if (run(CommandOptions("/").asRoot(), commandLine({"sh", "-c", script})).status == 3)
                why = "it holds no deployed agent";
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
