#include "vantrel/action_command.h"

#include <algorithm>
#include <cstring>

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
    const std::string guarded = how.guarded ? endingWithRun(command) : command;
    const std::string marker = "echo " + options.marker + "; ";
    if (root_ && context.sudoWantsTerminal) {
        input_.reset(new SameInput(in));
        terminal_.reset(new SudoOnTerminal(context, line, guarded, *input_, out, *tail_, options));
        return;
    }
    if (!root_) {
        line += marker + guarded;
        input_.reset(new SameInput(in));
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
        input_.reset(new PasswordFirst(context.sudoPassword, in));
    }
    remote_.reset(new RemoteCommand(commandLine({"sh", "-c", line}), *input_, out, *tail_, options));
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

CommandResult ActionCommand::result() {
    if (lost()) throw VELMO_EXC(SshConnectionFault);
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
