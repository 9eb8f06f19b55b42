#include "vantrel/action_command.h"

#include <algorithm>
#include <cstring>
#include <functional>

#include <log4cpp/Category.hh>

#include "commons/commons.h"
#include "commons/exceptions.h"
#include "commons/log.h"
#include "commons/sh_quoting.h"
#include "vantrel/remote_programs.h"
#include "vantrel/sudo_terminal.h"

namespace velmo {

namespace {

log4cpp::Category& commandLog = log4cpp::Category::getInstance("p.Action");

// What the sudo part of a privileged line prints last, and its status, when
// sudo cannot be used: no sudo command, the password refused, or a sudo that
// runs only on a terminal.
const char* const kNoSudoMark = "vantrel: sudo not found";
const char* const kSudoRefusedMark = "vantrel: sudo refused";
const char* const kSudoWantsTerminalMark = "vantrel: sudo wants a terminal";
const int kNoSudoStatus = 250;
const int kSudoRefusedStatus = 251;
const int kSudoWantsTerminalStatus = 252;

// The line's part that waits for the word.
const char* const kWaitForGo = "{ IFS= read -r go && [ \"$go\" = go ] || exit 1; } && ";

// Runs its arguments as a command under remote/watchdog.pl where the source
// host has perl, as they are where it has none.
std::string endingWithRun(const std::string& command) {
    std::vector<std::string> words = perlRunning(remote::watchdog);
    // Without perl, the loader's words (all but the first: "$0") go.
    const std::string loaderWords = std::to_string(words.size() - 1);
    words.insert(words.begin(), {"sh", "-c", "command -v perl >/dev/null 2>&1 && exec \"$0\" \"$@\"; shift " +
                                                 loaderWords + "; exec \"$@\""});
    return commandLine(words) + " " + command;
}

}  // namespace

// What a command reads: the password line for sudo (as root), then, for a
// command that must not run twice, the word "go" once its line said that it
// is about to run (its marker came), then its own input. A command never
// told to go has not run.
class CommandInput : public IOReadChannel {
public:
    CommandInput(std::string head, IOReadChannel& rest) : head_(std::move(head)), rest_(rest) {}
    // The word waits until begun() is true.
    void gate(std::function<bool()> begun) { begun_ = std::move(begun); }
    bool gated() const { return static_cast<bool>(begun_); }
    bool goSent() const { return goSent_; }
    int read(char* buffer, unsigned size) override {
        if (sent_ < head_.size()) {
            const std::size_t n = std::min<std::size_t>(size, head_.size() - sent_);
            std::memcpy(buffer, head_.data() + sent_, n);
            sent_ += n;
            return static_cast<int>(n);
        }
        if (begun_ && !goSent_) {
            if (!begun_() || size < kGo.size()) return later;
            goSent_ = true;
            std::memcpy(buffer, kGo.data(), kGo.size());
            return static_cast<int>(kGo.size());
        }
        return rest_.read(buffer, size);
    }
    bool rewind() override {
        sent_ = 0;
        goSent_ = false;
        return rest_.rewind();
    }

private:
    static const std::string kGo;
    std::string head_;
    std::size_t sent_ = 0;
    IOReadChannel& rest_;
    std::function<bool()> begun_;
    bool goSent_ = false;
};
const std::string CommandInput::kGo = "go\n";

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

ActionCommand::ActionCommand(CommandContext& context, const CommandOptions& how, const std::string& command,
                             IOReadChannel& in, IOWriteChannel& out)
    : context_(context), root_(how.root && context.useSudo), tail_(new TailKeeper(errors_)) {
    ExecOptions options;
    options.logOutput = how.logOutput;
    options.logInput = how.logInput;
    options.linkShare = how.linkShare;
    options.patient = how.patient;
    options.marker = newCommandMarker();
    // Every command runs in a fresh sh; it does not run at all when the
    // directory cannot be entered.
    std::string line = (how.dir.empty() ? std::string("cd") : "cd " + sh_quote(how.dir)) + " || exit 1; ";
    std::string guarded = how.guarded ? endingWithRun(command) : command;
    if (how.runsOnce) guarded = commandLine({"sh", "-c", std::string(kWaitForGo) + "exec " + guarded});
    input_.reset(new CommandInput(root_ && !context.sudoWantsTerminal ? context.sudoPassword + "\n" : "", in));
    if (root_ && context.sudoWantsTerminal) {
        terminal_.reset(new SudoOnTerminal(context, line, guarded, *input_, out, *tail_, options));
        if (how.runsOnce) input_->gate([this] { return terminal_->begun(); });
        return;
    }
    const std::string marker = "echo " + options.marker + "; ";
    if (!root_) {
        line += marker + guarded;
    } else {
        // One exchange does it all: see that sudo exists, check the password
        // once (the pipe ends after one line, so a wrong password is one
        // failed attempt and never a wait), then run the command on the
        // credentials sudo has just cached, or, where it caches none, with
        // the password once more. The password is the first line of the
        // input; the command gets the rest. sudo's verdict is read in the C
        // locale: one that wants a terminal says so, and nothing has run.
        line += "sudo -V >/dev/null 2>&1 || { echo '" + std::string(kNoSudoMark) + "' >&2; exit " +
                std::to_string(kNoSudoStatus) +
                "; }; "
                "IFS= read -r p; "
                "e=$(printf '%s\\n' \"$p\" | LC_ALL=C sudo -S -k -p ' ' -v 2>&1) || { "
                "case $e in *'must have a tty'*) echo '" +
                kSudoWantsTerminalMark + "' >&2; exit " + std::to_string(kSudoWantsTerminalStatus) +
                ";; esac; printf '%s\\n' \"$e\" >&2; echo '" + kSudoRefusedMark + "' >&2; exit " +
                std::to_string(kSudoRefusedStatus) + "; }; " + marker +
                "if sudo -n true 2>/dev/null; then sudo -n " + guarded +
                "; else { printf '%s\\n' \"$p\"; exec cat; } | sudo -S -k -p ' ' " + guarded + "; fi";
    }
    remote_.reset(new RemoteCommand(commandLine({"sh", "-c", line}), *input_, out, *tail_, options));
    if (how.runsOnce) input_->gate([this] { return remote_->begun(); });
}

ActionCommand::~ActionCommand() = default;

void ActionCommand::start(Ssh& ssh) {
    if (terminal_)
        terminal_->start(ssh);
    else
        ssh.start(*remote_);
}

bool ActionCommand::ended() const { return terminal_ ? terminal_->ended() : remote_->ended(); }

bool ActionCommand::lost() const { return terminal_ ? terminal_->lost() : remote_->lost(); }

bool ActionCommand::started() const { return terminal_ ? terminal_->started() : remote_->started(); }

void ActionCommand::shareLink(int share) {
    if (terminal_)
        terminal_->shareLink(share);
    else
        remote_->shareLink(share);
}

bool ActionCommand::mayHaveRun() const {
    if (input_->gated()) return input_->goSent();
    return terminal_ ? terminal_->begun() : remote_->begun();
}

CommandResult ActionCommand::result() {
    if (lost()) throw VELMO_EXC(SshConnectionFault);
    const std::string& refusal = terminal_ ? terminal_->refusal() : remote_->refusal();
    if (!refusal.empty()) throw VELMO_EXC(CommandRefused) % refusal;
    CommandResult result;
    if (terminal_) {
        result.status = terminal_->status();
        result.errors = errors_.str();
        return result;
    }
    result.status = remote_->status();
    if (root_ && result.status == kNoSudoStatus && tail_->endsWith(kNoSudoMark))
        throw VELMO_EXC(SudoNotFound) % context_.host;
    if (root_ && result.status == kSudoRefusedStatus && tail_->endsWith(kSudoRefusedMark)) {
        debugLog("sudo refused the password: " + maskSecrets(tail_->tail()));
        throw VELMO_EXC(SudoNotAllowed) % context_.login % context_.host;
    }
    if (root_ && result.status == kSudoWantsTerminalStatus && tail_->endsWith(kSudoWantsTerminalMark)) {
        context_.sudoWantsTerminal = true;
        commandLog.infoStream() << "sudo on " << context_.host
                                << " wants a terminal (Defaults requiretty): privileged commands run on one";
        throw VELMO_EXC(SudoNeedsTerminal) % context_.host % "the command could not run without one";
    }
    result.errors = errors_.str();
    return result;
}

}  // namespace velmo
