#include "commons/ssh-transfer.h"

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdint>

#include <poll.h>

#include <log4cpp/Category.hh>

#include "commons/commons.h"
#include "commons/exceptions.h"

namespace velmo {

static log4cpp::Category& logger = log4cpp::Category::getInstance("p.Ssh");

// Every command moves data in chunks of this size, in both directions.
static const unsigned kChunkSize = 65536;
// What one command reads of one stream in one pass of the loop at most, so
// that the channels of a connection take turns.
static const std::size_t kReadPerPass = 1 << 20;
// What opening a channel, starting a command or closing it may take.
static const std::chrono::seconds kExchangeLimit(120);
// How often a channel without news is asked whether it or its connection
// went away.
static const std::chrono::milliseconds kStateInterval(100);

Counter::~Counter() {}

Ssh::NullCounter Ssh::null_counter;

ExecOptions::ExecOptions() : counter(&Ssh::null_counter) {}

class StreamLog {
public:
    explicit StreamLog(const char* prefix) : prefix_(prefix) {}
    ~StreamLog() {
        if (skipped_ > 0)
            logger.debugStream() << prefix_ << "(" << skipped_ << " more bytes, not logged)";
    }
    void add(const char* data, std::size_t length) {
        if (length == 0 || !logger.isDebugEnabled()) return;
        const std::size_t n = std::min(length, kLogged - std::min(kLogged, logged_));
        skipped_ += length - n;
        logged_ += n;
        if (n == 0) return;
        const std::string text = maskSecrets(std::string(data, n));
        logger.debugStream() << prefix_ << memchunk_log(text.data(), text.size());
    }

private:
    static constexpr std::size_t kLogged = 64 * 1024;
    const char* prefix_;
    std::size_t logged_ = 0;
    unsigned long long skipped_ = 0;
};

// What a command's three streams carry, for the debug log.
class CommandLog {
public:
    StreamLog input{"remote stdin <- "};
    StreamLog output[2] = {StreamLog("remote stdout -> "), StreamLog("remote stderr -> ")};
};

RemoteCommand::RemoteCommand(std::string line, IOReadChannel& in, IOWriteChannel& out, IOWriteChannel& err,
                             const ExecOptions& how)
    : line_(std::move(line)), in_(in), out_(out), err_(err), how_(how), log_(new CommandLog()),
      noise_(how.marker.empty() ? nullptr : new ShellNoise(how.marker)) {}

RemoteCommand::~RemoteCommand() {
    if (ssh_ == nullptr) return;
    if (phase_ != Phase::ended) {
        ssh_->abandon(*this);
    } else {
        // Ended, it waits in the table for the next pass to take it out; it
        // leaves now, the connection may go before another pass.
        auto& table = ssh_->table_;
        table.erase(std::remove(table.begin(), table.end(), this), table.end());
        ssh_ = nullptr;
    }
}

void RemoteCommand::shareLink(int share) {
    how_.linkShare = share;
    if (ssh_ != nullptr && window_.most != 0) window_.ceiling = ssh_->session_->windowCeiling(window_.most, share);
}

namespace {

bool isSocketError(ssize_t rc) {
    return libssh2pp::isConnectionLost(static_cast<int>(rc)) || rc == LIBSSH2_ERROR_TIMEOUT;
}

// A command's channel, for the calls of the library.
LIBSSH2_CHANNEL* rawChannel(const std::unique_ptr<libssh2pp::Channel>& channel) { return channel->get(); }

}  // namespace

void Ssh::start(RemoteCommand& command) {
    logger.debugStream() << "Executing " << maskSecrets(command.line_) << " on the remote host";
    command.ssh_ = this;
    command.phase_ = RemoteCommand::Phase::waiting;
    table_.push_back(&command);
    if (lost_) loseConnection();
}

// A window far beyond what the link carries only fills the server's buffer:
// OpenSSH's sshd reads a command's output as long as the window lets it, and
// it enlarges that buffer by copying it whole for every 32 KiB it reads. With
// megabytes waiting there, the copies take more of its time than the link
// does, and the sender stalls. So a channel opens small and its window grows
// as the data comes, to about two round trips of what the link carries.
void RemoteCommand::Window::arrived(std::size_t bytes, double roundTripMs) {
    since += bytes;
    const auto now = std::chrono::steady_clock::now();
    const double elapsedMs = std::chrono::duration<double, std::milli>(now - mark).count();
    if (elapsedMs < roundTripMs) return;
    const double perRoundTrip = static_cast<double>(since) * roundTripMs / elapsedMs;
    target = std::max(target, static_cast<unsigned long>(std::min(static_cast<double>(ceiling), 2 * perRoundTrip)));
    since = 0;
    mark = now;
}

// ------------------------------------------------------------ the phases

bool Ssh::take(Step step, RemoteCommand& command) {
    const bool progress = (this->*step)(command);
    if (!lost_ && command.phase_ != RemoteCommand::Phase::ended && session_->sendPending()) {
        pendingStep_ = step;
        pendingCommand_ = &command;
    }
    return progress;
}

bool Ssh::service() {
    if (lost_) return false;
    session_->setBlocking(false);
    bool progress = false;
    if (pendingStep_ != nullptr) {
        // A packet half sent goes out first: the library sends nothing else
        // meanwhile.
        const Step step = pendingStep_;
        RemoteCommand& command = *pendingCommand_;
        pendingStep_ = nullptr;
        pendingCommand_ = nullptr;
        progress = take(step, command);
    }
    // Commands started meanwhile (by a command's end, say) wait for the
    // next pass.
    const std::size_t count = table_.size();
    for (std::size_t i = 0; i < count && i < table_.size() && !pendingStep_ && !lost_; ++i) {
        RemoteCommand& command = *table_[i];
        if (overdue(command)) {
            loseConnection("no answer within " + std::to_string(kExchangeLimit.count()) +
                           " s while a channel opened, started or closed");
            progress = true;
            break;
        }
        switch (command.phase_) {
            case RemoteCommand::Phase::waiting:
                if (!opening_ && !(command.how_.patient && othersWait())) progress |= take(&Ssh::open, command);
                break;
            case RemoteCommand::Phase::opening:
                progress |= take(&Ssh::open, command);
                break;
            case RemoteCommand::Phase::starting:
                progress |= take(&Ssh::startCommand, command);
                // Once the request is out, the input goes along: the peer
                // takes it in order, after the request it answers.
                for (const Step step : {&Ssh::sendInput, &Ssh::sendEof})
                    if (!pendingStep_ && !lost_ && command.phase_ == RemoteCommand::Phase::starting &&
                        command.requested_)
                        progress |= take(step, command);
                break;
            case RemoteCommand::Phase::running:
                // Each step while the one before left the command running.
                for (const Step step : {&Ssh::sendInput, &Ssh::sendEof, &Ssh::receive, &Ssh::growWindow})
                    if (!pendingStep_ && !lost_ && command.phase_ == RemoteCommand::Phase::running)
                        progress |= take(step, command);
                break;
            case RemoteCommand::Phase::closing:
                progress |= take(&Ssh::close, command);
                break;
            case RemoteCommand::Phase::ended:
                break;
        }
    }
    dropEnded();
    return progress;
}

void Ssh::dropEnded() {
    // A command out of the table is no longer this connection's to know.
    table_.erase(std::remove_if(table_.begin(), table_.end(),
                                [](RemoteCommand* c) {
                                    if (c->phase_ != RemoteCommand::Phase::ended) return false;
                                    c->ssh_ = nullptr;
                                    return true;
                                }),
                 table_.end());
}

void Ssh::enter(RemoteCommand& command, RemoteCommand::Phase phase) {
    command.phase_ = phase;
    command.since_ = std::chrono::steady_clock::now();
}

bool Ssh::overdue(const RemoteCommand& command) const {
    // A command runs as long as it runs; the exchanges around it (opening
    // its channel, starting it, closing it) wait for the peer alone.
    const bool exchange = command.phase_ == RemoteCommand::Phase::opening ||
                          command.phase_ == RemoteCommand::Phase::starting ||
                          command.phase_ == RemoteCommand::Phase::closing;
    return exchange && std::chrono::steady_clock::now() - command.since_ > kExchangeLimit;
}

bool Ssh::open(RemoteCommand& command) {
    if (command.phase_ == RemoteCommand::Phase::waiting) {
        opening_ = true;
        enter(command, RemoteCommand::Phase::opening);
        command.asked_ = std::chrono::steady_clock::now();
    }
    // Under a cap, a channel's window holds a quarter of a second's worth:
    // what crosses the link keeps close to what the cap lets through.
    const long long rate = RateLimit::rate();
    const unsigned maxWindow = rate == 0 ? UINT32_MAX : static_cast<unsigned>(std::max(64LL << 10, rate / 4));
    LIBSSH2_CHANNEL* channel = session_->openChannel(maxWindow, command.how_.linkShare);
    if (channel == nullptr) {
        const int error = session_->lastErrno();
        if (error == LIBSSH2_ERROR_EAGAIN) return false;
        opening_ = false;
        if (isSocketError(error)) {
            loseConnection();
        } else {
            refuse(command, "a channel: " + session_->lastError());
        }
        return true;
    }
    opening_ = false;
    session_->channelOpened(command.asked_);
    command.channel_.reset(new libssh2pp::Channel(channel));
    libssh2_channel_window_read_ex(channel, nullptr, &command.window_.target);
    command.window_.most = maxWindow;
    command.window_.ceiling = session_->windowCeiling(maxWindow, command.how_.linkShare);
    command.window_.mark = std::chrono::steady_clock::now();
    command.input_.resize(kChunkSize);
    enter(command, RemoteCommand::Phase::starting);
    return true;
}

// A terminal's modes, as the protocol encodes them: no echo (ECHO, 53, is 0),
// so that nothing typed comes back; then the end of the list.
static const char kTerminalModes[] = {53, 0, 0, 0, 0, 0};

bool Ssh::startCommand(RemoteCommand& command) {
    if (command.how_.terminal && !command.terminalGiven_) {
        const int rc = libssh2_channel_request_pty_ex(rawChannel(command.channel_), "dumb", 4, kTerminalModes,
                                                      sizeof kTerminalModes, 80, 24, 0, 0);
        if (rc == LIBSSH2_ERROR_EAGAIN) return false;
        if (isSocketError(rc)) {
            loseConnection();
            return true;
        }
        if (rc != 0) {
            refuse(command, "a terminal: " + session_->lastError());
            return true;
        }
        command.terminalGiven_ = true;
    }
    const int rc = libssh2_channel_process_startup(rawChannel(command.channel_), "exec", 4, command.line_.c_str(),
                                                   static_cast<unsigned>(command.line_.size()));
    if (rc == LIBSSH2_ERROR_EAGAIN) {
        // Sent whole, the request waits for its answer.
        if (command.requested_ || session_->sendPending()) return false;
        command.requested_ = true;
        return true;
    }
    if (rc == 0) {
        enter(command, RemoteCommand::Phase::running);
    } else if (isSocketError(rc)) {
        loseConnection();
    } else {
        // The source host answered the exec request with a refusal: the
        // command never ran.
        refuse(command, "to run the command: " + session_->lastError());
    }
    return true;
}

bool Ssh::sendInput(RemoteCommand& command) {
    if (command.inputEnded_) return false;
    bool progress = false;
    if (command.inputSent_ == command.inputLength_) {
        const int n = command.in_.read(command.input_.data(), kChunkSize);
        if (n == IOReadChannel::later) return false;
        if (n < 0) throw VELMO_EXC(StreamRead);
        if (command.how_.logInput) command.log_->input.add(command.input_.data(), static_cast<std::size_t>(n));
        command.inputLength_ = static_cast<std::size_t>(n);
        command.inputSent_ = 0;
        command.inputEnded_ = n == 0;
        progress = true;
        if (n == 0) return progress;
    }
    const std::size_t may = RateLimit::allow(command.inputLength_ - command.inputSent_);
    if (may == 0) return progress;
    const ssize_t w = libssh2_channel_write_ex(rawChannel(command.channel_), 0,
                                               command.input_.data() + command.inputSent_, may);
    if (w > 0) {
        command.inputSent_ += static_cast<std::size_t>(w);
        RateLimit::spend(static_cast<std::size_t>(w));
        return true;
    }
    if (w == LIBSSH2_ERROR_EAGAIN) return progress;
    if (isSocketError(w)) {
        loseConnection();
        return true;
    }
    // The command takes no more input (it ended, or closed its end): what it
    // said and its status tell the rest.
    logger.debugStream() << "The remote command stopped taking input: " << session_->lastError();
    command.inputEnded_ = command.eofSent_ = true;
    return true;
}

bool Ssh::sendEof(RemoteCommand& command) {
    if (!command.inputEnded_ || command.eofSent_) return false;
    const int rc = libssh2_channel_send_eof(rawChannel(command.channel_));
    if (rc == LIBSSH2_ERROR_EAGAIN) return false;
    if (isSocketError(rc)) {
        loseConnection();
    } else if (rc != 0 && command.channel_->state() == libssh2pp::Channel::State::open) {
        throw VELMO_EXC(UnableToSendEof) % session_->lastError();
    }
    command.eofSent_ = true;
    return true;
}

// Once a run: the account's start-up files print on every command, and one
// warning says so.
static void reportNoise(const ShellNoise& noise) {
    static std::atomic<bool> told(false);
    if (noise.dropped() == 0 || told.exchange(true)) return;
    std::string start;
    for (const unsigned char c : noise.start()) {
        static const char digits[] = "0123456789abcdef";
        if (c >= 0x20 && c < 0x7f)
            start += static_cast<char>(c);
        else
            start += std::string("\\x") + digits[c >> 4] + digits[c & 15];
    }
    logger.warnStream() << "The login shell of the source host printed " << noise.dropped()
                        << " bytes before a command's own output; they are dropped (the account's start-up files, "
                           ".bashrc or .cshrc say, print on every command). They began: '"
                        << maskSecrets(start) << "'";
}

bool Ssh::receive(RemoteCommand& command) {
    static thread_local std::vector<char> buffer(kChunkSize);
    LIBSSH2_CHANNEL* channel = rawChannel(command.channel_);
    bool progress = false;
    for (int stream = 0; stream < 2; ++stream) {
        // Reading standard output took every packet off the socket already.
        if (stream == 1 && !libssh2_poll_channel_read(channel, 1)) break;
        for (std::size_t read = 0; read < kReadPerPass;) {
            const std::size_t may = RateLimit::allow(kChunkSize);
            if (may == 0) break;
            const ssize_t n = libssh2_channel_read_ex(channel, stream, buffer.data(), may);
            if (n == LIBSSH2_ERROR_EAGAIN || n == 0) break;
            if (n < 0) {
                if (isSocketError(n)) loseConnection();
                return true;
            }
            progress = true;
            read += static_cast<std::size_t>(n);
            RateLimit::spend(static_cast<std::size_t>(n));
            command.window_.arrived(static_cast<std::size_t>(n), session_->roundTripMs());
            if (command.how_.logOutput) command.log_->output[stream].add(buffer.data(), static_cast<std::size_t>(n));
            const char* data = buffer.data();
            std::size_t length = static_cast<std::size_t>(n);
            if (stream == 0 && command.noise_ && !command.noise_->passed()) {
                const std::size_t noise = command.noise_->skip(data, length);
                data += noise;
                length -= noise;
                if (command.noise_->passed()) reportNoise(*command.noise_);
            }
            if (length > 0) {
                if (stream == 0) (*command.how_.counter)(static_cast<int>(length));
                pump_write(stream == 0 ? command.out_ : command.err_, data, static_cast<int>(length));
            }
            if (session_->sendPending()) return true;  // a window adjustment half sent
        }
        if (session_->sendPending()) return true;
    }
    // The end of its output, or a channel the peer closed without one.
    if (libssh2_channel_eof(channel) != 0) {
        enter(command, RemoteCommand::Phase::closing);
        return true;
    }
    if (progress) return true;
    // Asking the library costs a poll and a read of the socket: once in a
    // while is enough for a channel that stays silent.
    const auto now = std::chrono::steady_clock::now();
    if (now - command.stateAsked_ < kStateInterval) return false;
    command.stateAsked_ = now;
    const libssh2pp::Channel::State state = command.channel_->state();
    if (state == libssh2pp::Channel::State::connectionGone) {
        // Not the command's end: its status never came.
        loseConnection();
        return true;
    }
    if (state == libssh2pp::Channel::State::closedByPeer && !libssh2_poll_channel_read(channel, 0) &&
        !libssh2_poll_channel_read(channel, 1)) {
        command.closedWithoutEof_ = true;
        enter(command, RemoteCommand::Phase::closing);
        return true;
    }
    return progress;
}

bool Ssh::othersWait() const {
    return std::any_of(table_.begin(), table_.end(), [](const RemoteCommand* command) {
        return command->phase_ == RemoteCommand::Phase::waiting && !command->how_.patient;
    });
}

bool Ssh::growWindow(RemoteCommand& command) {
    RemoteCommand::Window& window = command.window_;
    LIBSSH2_CHANNEL* channel = rawChannel(command.channel_);
    if (window.due == 0) {
        const unsigned long left = libssh2_channel_window_read_ex(channel, nullptr, nullptr);
        if (left >= window.target - window.target / 4) return false;
        window.due = window.target - left;
    }
    // Called again with the same amount until it went out: the library
    // counts what it is given on the call that completes.
    const int rc = libssh2_channel_receive_window_adjust2(channel, window.due, 1, nullptr);
    if (rc == LIBSSH2_ERROR_EAGAIN) return false;
    window.due = 0;
    if (isSocketError(rc)) loseConnection();
    return true;
}

bool Ssh::close(RemoteCommand& command) {
    LIBSSH2_CHANNEL* channel = rawChannel(command.channel_);
    if (!command.closedWithoutEof_) {
        const int rc = libssh2_channel_wait_closed(channel);
        if (rc == LIBSSH2_ERROR_EAGAIN) return false;
        // Without the close the status is unknown: the library would say 0.
        if (rc < 0) {
            if (isSocketError(rc)) loseConnection();
            command.lost_ = true;
            end(command);
            return true;
        }
    }
    int status = libssh2_channel_get_exit_status(channel);
    char* signalName = nullptr;
    if (!command.closedWithoutEof_)
        libssh2_channel_get_exit_signal(channel, &signalName, nullptr, nullptr, nullptr, nullptr, nullptr);
    if (signalName != nullptr) {
        // A command killed by a signal has no exit status; report it as the
        // OpenSSH client does rather than as a success.
        logger.debugStream() << "Remote command was killed by signal " << signalName;
        libssh2_free(session_->get(), signalName);
        if (status == 0) status = 255;
    }
    if (libssh2_channel_close(channel) == LIBSSH2_ERROR_EAGAIN) return false;
    command.status_ = status;
    logger.debugStream() << "Execution finished with return code " << status;
    end(command);
    return true;
}

void Ssh::refuse(RemoteCommand& command, const std::string& what) {
    logger.errorStream() << "The source host refused " << what;
    command.refusal_ = what;
    end(command);
}

void Ssh::end(RemoteCommand& command) {
    command.channel_.reset();
    command.phase_ = RemoteCommand::Phase::ended;
    command.log_.reset();  // says what was left out of the log
    if (command.onEnd) command.onEnd(command);
}

void Ssh::loseConnection(const std::string& why) {
    if (!lost_) {
        whyLost_ = why.empty() ? session_->lastError() : why;
        if (whyLost_.empty()) whyLost_ = "the connection went away";
        logger.errorStream() << "Lost connection with the remote host: " << whyLost_;
    }
    lost_ = true;
    pendingStep_ = nullptr;
    pendingCommand_ = nullptr;
    opening_ = false;
    for (std::size_t i = 0; i < table_.size(); ++i) {
        RemoteCommand& command = *table_[i];
        if (command.phase_ == RemoteCommand::Phase::ended) continue;
        command.lost_ = true;
        end(command);
    }
}

// Waits a little for the socket to take what the library sends.
static void waitToSend(int socket) {
    pollfd entry = {socket, POLLOUT, 0};
    ::poll(&entry, 1, 100);
}

void Ssh::flushPending() {
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(3);
    session_->setBlocking(false);
    while (pendingStep_ != nullptr && !lost_ && std::chrono::steady_clock::now() < until) {
        const Step step = pendingStep_;
        RemoteCommand& owner = *pendingCommand_;
        pendingStep_ = nullptr;
        pendingCommand_ = nullptr;
        take(step, owner);
        if (pendingStep_ != nullptr) waitToSend(session_->socket());
    }
}

void Ssh::abandon(RemoteCommand& command) {
    // A packet half sent goes out first (the library holds it, and may hold
    // it for this very command).
    if (!lost_) flushPending();
    table_.erase(std::remove(table_.begin(), table_.end(), &command), table_.end());
    if (!lost_ && command.phase_ != RemoteCommand::Phase::waiting && command.phase_ != RemoteCommand::Phase::ended) {
        // An open that the library is in the middle of is finished: it holds
        // its state too.
        if (command.phase_ == RemoteCommand::Phase::opening) {
            opening_ = false;
            LIBSSH2_CHANNEL* channel = nullptr;
            for (int tries = 0; !channel && tries < 30 && session_->lastErrno() == LIBSSH2_ERROR_EAGAIN; ++tries) {
                channel = session_->openChannel();
                if (!channel) waitToSend(session_->socket());
            }
            if (channel) command.channel_.reset(new libssh2pp::Channel(channel));
        }
        // Closed without waiting long for a peer that may be gone, or for a
        // command that does not end.
        session_->setBlocking(true);
        session_->boundWaits(libssh2pp::Session::Waits::leaving);
        command.channel_.reset();
        session_->boundWaits(libssh2pp::Session::Waits::working);
    }
    command.channel_.reset();
    command.ssh_ = nullptr;
    command.phase_ = RemoteCommand::Phase::ended;
}

short Ssh::pollEvents() const { return session_->pollEvents(); }

}  // namespace velmo
