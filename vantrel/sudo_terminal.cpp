#include "vantrel/sudo_terminal.h"

#include <cstring>

#include <log4cpp/Category.hh>

#include "commons/commons.h"
#include "commons/exceptions.h"
#include "commons/log.h"
#include "commons/sh_quoting.h"
#include "vantrel/remote_programs.h"

namespace velmo {

namespace {
// Status of a command the remote shell cannot find.
const int kCommandNotFound = 127;
// What the log keeps of the terminal's text when sudo says no.
const std::size_t kTerminalTextKept = 2048;
}  // namespace

// The relay's first line names the directory of its pipes; the rest is the
// command's output.
class SudoOnTerminal::RelayTap : public IOWriteChannel {
public:
    RelayTap(SudoOnTerminal& owner, IOWriteChannel& out) : owner_(owner), out_(out) {}
    int write(const char* data, unsigned size) override {
        if (!ready_) {
            const char* end = static_cast<const char*>(std::memchr(data, '\n', size));
            line_.append(data, end ? static_cast<std::size_t>(end - data) : size);
            if (!end) return static_cast<int>(size);
            ready_ = true;
            owner_.relayReady(line_);
            const unsigned used = static_cast<unsigned>(end - data) + 1;
            if (used < size) pump_write(out_, end + 1, static_cast<int>(size - used));
            return static_cast<int>(size);
        }
        return out_.write(data, size);
    }
    bool ready() const { return ready_; }

private:
    SudoOnTerminal& owner_;
    IOWriteChannel& out_;
    std::string line_;
    bool ready_ = false;
};

// Reads the terminal: sudo's prompts, and the words our line prints. Nothing
// of it is the command's.
class SudoOnTerminal::Watch : public IOWriteChannel {
public:
    explicit Watch(const SudoOnTerminal& owner) : owner_(owner) {}
    int write(const char* data, unsigned size) override {
        // A word may begin in the chunk before: its end is looked at too.
        const std::string seen = recent_ + std::string(data, size);
        prompts_ += count(seen, owner_.prompt_);
        noSudo_ = noSudo_ || count(seen, owner_.noSudo_) > 0;
        ready_ = ready_ || count(seen, owner_.ready_) > 0;
        recent_ = seen.substr(seen.size() - std::min<std::size_t>(seen.size(), 64));
        if (text_.size() < kTerminalTextKept)
            text_.append(data, std::min<std::size_t>(size, kTerminalTextKept - text_.size()));
        return static_cast<int>(size);
    }
    int prompts() const { return prompts_; }
    bool noSudo() const { return noSudo_; }
    bool ready() const { return ready_; }
    // sudo asked again: the password was refused.
    bool refused() const { return prompts_ > 1; }
    const std::string& text() const { return text_; }

private:
    // Occurrences of word that end past the bytes kept from before.
    int count(const std::string& seen, const std::string& word) const {
        int n = 0;
        for (std::size_t at = seen.find(word); at != std::string::npos; at = seen.find(word, at + 1))
            n += at + word.size() > recent_.size();
        return n;
    }

    const SudoOnTerminal& owner_;
    std::string recent_;
    std::string text_;
    int prompts_ = 0;
    bool noSudo_ = false;
    bool ready_ = false;
};

// The password, typed once, when sudo first asks for it; the terminal's
// input takes nothing else, and never ends: its end would hang it up.
class SudoOnTerminal::Answer : public IOReadChannel {
public:
    Answer(const Watch& watch, const std::string& password) : watch_(watch), line_(password + "\n") {}
    int read(char* buffer, unsigned size) override {
        if (answered_ || watch_.prompts() != 1 || size < line_.size()) return later;
        answered_ = true;
        std::memcpy(buffer, line_.data(), line_.size());
        return static_cast<int>(line_.size());
    }

private:
    const Watch& watch_;
    std::string line_;
    bool answered_ = false;
};

SudoOnTerminal::SudoOnTerminal(const CommandContext& context, const std::string& cd, const std::string& guarded,
                               IOReadChannel& in, IOWriteChannel& out, IOWriteChannel& err, const ExecOptions& how)
    : context_(context),
      cd_(cd),
      guarded_(guarded),
      prompt_(newCommandMarker() + " password:"),
      noSudo_(newCommandMarker() + " no sudo"),
      ready_(newCommandMarker() + " ready"),
      tap_(new RelayTap(*this, out)),
      watch_(new Watch(*this)),
      answer_(new Answer(*watch_, context.sudoPassword)) {
    // The relay enters the directory first: one that cannot be entered ends
    // it with status 1, as the line without a terminal does.
    relay_.reset(new RemoteCommand(
        commandLine({"sh", "-c", cd + "echo " + how.marker + "; exec " + commandLine(perlRunning(remote::stream_relay))}),
        in, *tap_, err, how));
}

SudoOnTerminal::~SudoOnTerminal() = default;

void SudoOnTerminal::start(Ssh& ssh) {
    ssh_ = &ssh;
    ssh.start(*relay_);
}

void SudoOnTerminal::relayReady(const std::string& pipes) {
    // The command opens its streams on the pipes, in the order the relay
    // waits for them, and says so on the terminal before it runs; sudo asks
    // for the password there first, every time (-k).
    const std::string inner = "exec 3>&1 <\"$0/in\" >\"$0/out\" 2>\"$0/err\" && echo '" + ready_ +
                              "' >&3 && exec 3>&- && exec " + guarded_;
    const std::string line = cd_ + "sudo -V >/dev/null 2>&1 || { echo '" + noSudo_ + "'; exit 1; }; exec sudo -k -p " +
                             sh_quote(prompt_) + " sh -c " + sh_quote(inner) + " " + sh_quote(pipes);
    ExecOptions how;
    how.terminal = true;
    how.logInput = false;
    command_.reset(new RemoteCommand(commandLine({"sh", "-c", line}), *answer_, *watch_, *watch_, how));
    ssh_->start(*command_);
}

bool SudoOnTerminal::ended() const {
    if (!command_) return relay_->ended();
    // sudo said no: the relay waits for a command that never comes.
    if (watch_->refused() || (command_->ended() && !watch_->ready())) return true;
    return command_->ended() && relay_->ended();
}

bool SudoOnTerminal::begun() const { return watch_->ready(); }

const std::string& SudoOnTerminal::refusal() const {
    return command_ && relay_->refusal().empty() ? command_->refusal() : relay_->refusal();
}

bool SudoOnTerminal::lost() const { return relay_->lost() || (command_ && command_->lost()); }

int SudoOnTerminal::status() {
    if (!command_) {
        if (relay_->status() == kCommandNotFound)
            throw VELMO_EXC(SudoNeedsTerminal) % context_.host % "the source host has no perl to carry the command's streams";
        // Its directory could not be entered, say: that is the command's status.
        if (relay_->status() != 0) return relay_->status();
        throw VELMO_EXC(SudoNeedsTerminal) % context_.host % "the relay of the command's streams ended early";
    }
    if (watch_->noSudo()) throw VELMO_EXC(SudoNotFound) % context_.host;
    if (!watch_->ready()) {
        debugLog("sudo on a terminal did not run the command: " + maskSecrets(watch_->text()));
        throw VELMO_EXC(SudoNotAllowed) % context_.login % context_.host;
    }
    return command_->status();
}

}  // namespace velmo
