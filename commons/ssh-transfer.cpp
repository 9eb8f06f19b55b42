#include "commons/ssh-transfer.h"

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdint>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <vector>

#include <poll.h>
#include <sys/types.h>
#include <unistd.h>

#include <log4cpp/Category.hh>

#include "commons/commons.h"
#include "commons/exceptions.h"
#include "commons/host_key.h"
#include "commons/host_offer.h"
#include "commons/local_files.h"
#include "commons/sh_quoting.h"

namespace velmo {

static log4cpp::Category& logger = log4cpp::Category::getInstance("p.Ssh");

// Every command moves data in chunks of this size, in both directions.
static const unsigned kChunkSize = 65536;
// What one command reads of one stream in one pass of the loop at most, so
// that the channels of a connection take turns.
static const std::size_t kReadPerPass = 1 << 20;
// Longest wait of the loop for the peer before it passes again.
static const long kPollTimeoutMs = 5000;
// What opening a channel, starting a command or closing it may take.
static const std::chrono::seconds kExchangeLimit(120);
// How often a channel without news is asked whether it or its connection
// went away.
static const std::chrono::milliseconds kStateInterval(100);
// Longest time the SSH handshake and the authentication may take together,
// in seconds, unless $VANTREL_SSH_LOGIN_TIMEOUT says otherwise. Once logged
// in, nothing bounds a remote command: an agent may work for hours.
static const long kDefaultLoginTimeoutSec = 30;
static const long kMaxLoginTimeoutSec = 24 * 3600;
// What reading the host's offer of methods may take after a refused handshake.
static const long kOfferLimitMs = 10000;

IOReadChannel::~IOReadChannel() {}
IOWriteChannel::~IOWriteChannel() {}
Counter::~Counter() {}

Ssh::NullCounter Ssh::null_counter;

ExecOptions::ExecOptions() : counter(&Ssh::null_counter) {}

// ------------------------------------------------------------------ rate

long long RateLimit::rate_ = 0;
double RateLimit::tokens_ = 0;
std::chrono::steady_clock::time_point RateLimit::filled_;
std::mutex RateLimit::mutex_;

// The least a capped read or write moves, so that a slow rate does not turn
// into a stream of tiny packets.
static const std::size_t kLeastMove = 4096;

void RateLimit::set(long long bytesPerSecond) {
    std::lock_guard<std::mutex> hold(mutex_);
    rate_ = bytesPerSecond > 0 ? bytesPerSecond : 0;
    tokens_ = 0;
    filled_ = std::chrono::steady_clock::now();
}

void RateLimit::refill() {
    const auto now = std::chrono::steady_clock::now();
    tokens_ = std::min(tokens_ + std::chrono::duration<double>(now - filled_).count() * static_cast<double>(rate_),
                       std::max(static_cast<double>(rate_) / 10, static_cast<double>(kLeastMove)));
    filled_ = now;
}

std::size_t RateLimit::allow(std::size_t want) {
    if (rate_ == 0) return want;
    std::lock_guard<std::mutex> hold(mutex_);
    refill();
    const std::size_t may = static_cast<std::size_t>(std::max(0.0, tokens_));
    return may >= std::min(want, kLeastMove) ? std::min(want, may) : 0;
}

void RateLimit::spend(std::size_t bytes) {
    if (rate_ == 0) return;
    std::lock_guard<std::mutex> hold(mutex_);
    tokens_ -= static_cast<double>(bytes);
}

long RateLimit::wait() {
    if (rate_ == 0) return 0;
    std::lock_guard<std::mutex> hold(mutex_);
    refill();
    const double missing = static_cast<double>(kLeastMove) - tokens_;
    return missing <= 0 ? 0 : std::max(1L, static_cast<long>(1000 * missing / static_cast<double>(rate_)));
}

volatile std::sig_atomic_t isProgramTerminated = 0;

MigrationTerminatedException::MigrationTerminatedException()
    : std::runtime_error("Migration has been terminated") {}

void terminateProgram() {
    isProgramTerminated = 1;
}

// Set while the thread's loop finishes one last exchange that a stop request
// must not cut short (ChannelLoop::finish, bounded in time).
static thread_local bool finishingDespiteStop = false;

void checkProgramTerminated() {
    if (isProgramTerminated && !finishingDespiteStop)
        throw MigrationTerminatedException();
}

int IOStreamReadChannel::read(char* buffer, unsigned size) {
    if (in_.eof())
        return 0;
    in_.read(buffer, size);
    return static_cast<int>(in_.gcount());
}

bool IOStreamReadChannel::rewind() {
    in_.clear();
    in_.seekg(0);
    return !in_.fail();
}

int IOStreamWriteChannel::write(const char* data, unsigned size) {
    out_.write(data, size);
    if (out_.bad() || out_.fail())
        return -1;
    return static_cast<int>(size);
}

int BoundedText::write(const char* data, unsigned size) {
    const std::size_t toHead = std::min<std::size_t>(size, half_ - head_.size());
    head_.append(data, toHead);
    tail_.append(data + toHead, size - toHead);
    if (tail_.size() > half_) {
        leftOut_ += tail_.size() - half_;
        tail_.erase(0, tail_.size() - half_);
    }
    return static_cast<int>(size);
}

std::string BoundedText::str() const {
    if (leftOut_ == 0) return head_ + tail_;
    return head_ + "\n[... " + std::to_string(leftOut_) + " bytes left out ...]\n" + tail_;
}

int NewFileWriter::write(const char* data, unsigned size) {
    file_.write(data, size);
    return static_cast<int>(size);
}

std::ostream& operator<<(std::ostream& out, const memchunk_log& chunk) {
    for (std::size_t i = 0; i < chunk.length; ++i)
        out << chunk.data[i];
    return out;
}

// Logs what one stream of a remote command carries, chunk by chunk behind its
// prefix, with every known password masked: the first bytes only, then how
// many more there were, so that a loud command cannot fill the disk.
class CommandLog;

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

void pump_write(IOWriteChannel& to, const char* data, int length) {
    checkProgramTerminated();
    while (length > 0) {
        const int written = to.write(data, static_cast<unsigned>(length));
        if (written < 0)
            throw VELMO_EXC(StreamWrite);
        data += written;
        length -= written;
    }
}

static libssh2pp::Credentials passwordOnly(const std::string& login, const std::string& password) {
    libssh2pp::Credentials credentials;
    credentials.login = login;
    credentials.password = password;
    return credentials;
}

// The login time-out in seconds: a whole number from 1 to a day in
// $VANTREL_SSH_LOGIN_TIMEOUT, or the default.
static long loginTimeoutSec() {
    const char* text = std::getenv("VANTREL_SSH_LOGIN_TIMEOUT");
    if (text == nullptr || *text == '\0')
        return kDefaultLoginTimeoutSec;
    char* end = nullptr;
    errno = 0;
    const long value = std::strtol(text, &end, 10);
    if (errno != 0 || *end != '\0' || value < 1 || value > kMaxLoginTimeoutSec) {
        logger.debugStream() << "Ignoring VANTREL_SSH_LOGIN_TIMEOUT='" << text << "': not a number of seconds from 1 to "
                             << kMaxLoginTimeoutSec;
        return kDefaultLoginTimeoutSec;
    }
    return value;
}

Ssh::Ssh(const std::string& host, const std::string& login, const std::string& password,
         bool disableEncryption, unsigned short port)
    : Ssh(host, port, passwordOnly(login, password), disableEncryption) {}

Ssh::Ssh(const std::string& host, unsigned short port, const libssh2pp::Credentials& credentials,
         bool disableEncryption, std::chrono::milliseconds connectLimit) {
    addSecret(credentials.password);
    addSecret(credentials.passphrase);
    try {
        logIn(host, port, credentials, disableEncryption, connectLimit);
    } catch (const ExTraceable&) {
        // A stop request cuts the library's waits short: what fails then
        // fails because of the stop.
        checkProgramTerminated();
        throw;
    }
}

// Throws Exc<&UnableToStartSshSession> naming what the host and this build
// have none of in common, when its offer shows it (and the compatibility
// mode's old key exchange would not help).
static void refuseWithoutCommonMethods(const std::string& host, unsigned short port, long limitMs) {
    HostOffer offer;
    if (!readHostOffer(host, port, std::chrono::milliseconds(std::min(limitMs, kOfferLimitMs)), offer)) return;
    bool keyExchangeOnly = false;
    const std::string mismatch = methodMismatch(offer, host, keyExchangeOnly);
    const auto& kex = offer.methods[HostOffer::kex];
    const bool oldKex = std::find(kex.begin(), kex.end(), "diffie-hellman-group1-sha1") != kex.end();
    if (mismatch.empty() || (keyExchangeOnly && oldKex)) return;
    logger.errorStream() << mismatch;
    throw VELMO_EXC(UnableToStartSshSession) % mismatch;
}

void Ssh::logIn(const std::string& host, unsigned short port, const libssh2pp::Credentials& credentials,
                bool disableEncryption, std::chrono::milliseconds connectLimit) {
    const long limitMs = loginTimeoutSec() * 1000;
    const auto start = std::chrono::steady_clock::now();
    logger.debugStream() << "SSH handshake and authentication may take up to " << limitMs / 1000 << " s";
    // The session knows the peer by its address only: failures name it as
    // the caller did.
    const auto startSession = [&](bool compatibilityMode, long timeoutMs) {
        try {
            session_.reset(new libssh2pp::Session(socket_->fd(), disableEncryption, compatibilityMode, timeoutMs));
        } catch (const Exc<&ConnectionTimedOut>&) {
            throw VELMO_EXC(ConnectionTimedOut) % host;
        } catch (const Exc<&ConnectionFault>&) {
            throw VELMO_EXC(ConnectionFault) % host % "the connection was lost during the SSH handshake";
        }
    };
    socket_.reset(new Socket(host, port, connectLimit));
    try {
        startSession(false, limitMs);
    } catch (const ExTraceable& e) {
        // A peer that refused the handshake may be an old one that wants the
        // old key exchange. (One that dropped the connection is tried again
        // by the caller, after a pause: a loaded sshd drops new connections.)
        if (!dynamic_cast<const Exc<&UnableToStartSshSession>*>(&e)) throw;
        checkProgramTerminated();
        socket_.reset();
        // A host that shares no method with this build says which one in its
        // first packet; only an old key exchange is worth the other mode.
        refuseWithoutCommonMethods(host, port, limitMs);
        logger.debugStream() << "Attempt to start SSH session in a 'compatibility' mode";
        socket_.reset(new Socket(host, port, connectLimit));
        // The second attempt gets what the first one left of the time.
        const long spentMs = static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(
            std::chrono::steady_clock::now() - start).count());
        if (spentMs >= limitMs) throw VELMO_EXC(ConnectionTimedOut) % host;
        startSession(true, limitMs - spentMs);
    }
    try {
        // Nothing of the login goes to a host that is not the one of the
        // migration.
        checkHostKey(host, hostKeyOf(session_->get()));
        session_->authorize(credentials);
    } catch (const Exc<&SshAuthorizationFailed>&) {
        throw VELMO_EXC(SshInvalidCredentials) % host;
    } catch (const Exc<&ConnectionTimedOut>&) {
        throw VELMO_EXC(ConnectionTimedOut) % host;
    } catch (const Exc<&ConnectionFault>&) {
        throw VELMO_EXC(ConnectionFault) % host % "the connection was lost during the SSH login";
    }
}


// What a command's three streams carry, for the debug log.
class CommandLog {
public:
    StreamLog input{"remote stdin <- "};
    StreamLog output[2] = {StreamLog("remote stdout -> "), StreamLog("remote stderr -> ")};
};

Ssh::~Ssh() {
    // The library frees the channels with the session: the commands still
    // here let go of theirs first, without waiting for the peer, and end
    // as lost.
    if (session_ && !table_.empty()) session_->setBlocking(false);
    for (RemoteCommand* command : table_) {
        command->channel_.reset();
        command->ssh_ = nullptr;
        command->lost_ = true;
        command->phase_ = RemoteCommand::Phase::ended;
    }
    session_.reset();
    socket_.reset();
}

// ---------------------------------------------------------------- commands

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

int Ssh::exec(const std::string& command, IOReadChannel& in, IOWriteChannel& out, IOWriteChannel& err,
              const ExecOptions& how) {
    RemoteCommand remote(command, in, out, err, how);
    start(remote);
    try {
        ChannelLoop({this}).run([&remote] { return remote.ended(); });
    } catch (const ExTraceable&) {
        // A stop request cuts the library's waits short: what fails then
        // fails because of the stop.
        checkProgramTerminated();
        throw;
    }
    if (remote.lost()) throw VELMO_EXC(SshConnectionFault);
    return remote.status();
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
            logger.errorStream() << "The source host refused a channel: " << session_->lastError();
            command.lost_ = true;
            end(command);
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
            logger.errorStream() << "The source host refused a terminal: " << session_->lastError();
            command.lost_ = true;
            end(command);
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
        logger.errorStream() << "The source host refused to run the command: " << session_->lastError();
        command.lost_ = true;
        end(command);
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
        session_->boundWaits(true);
        command.channel_.reset();
        session_->boundWaits(false);
    }
    command.channel_.reset();
    command.ssh_ = nullptr;
    command.phase_ = RemoteCommand::Phase::ended;
}

short Ssh::pollEvents() const { return session_->pollEvents(); }

// --------------------------------------------------------------- periodic

void Ssh::setPeriodic(std::chrono::milliseconds interval, std::function<bool()> task) {
    periodic_ = std::move(task);
    periodicInterval_ = interval;
    periodicDue_ = std::chrono::steady_clock::now() + interval;
}

long Ssh::runPeriodicTask() {
    using namespace std::chrono;
    if (!periodic_) return kPollTimeoutMs;
    if (steady_clock::now() >= periodicDue_) {
        periodicDue_ = steady_clock::now() + periodicInterval_;
        if (!periodic_()) periodic_ = nullptr;
        // What the task started goes out at the next pass, not after a wait.
        return 0;
    }
    return std::max<long>(0, duration_cast<milliseconds>(periodicDue_ - steady_clock::now()).count());
}

// ------------------------------------------------------------------ loop

namespace {

// A thread's loop is never entered again from inside: a periodic task or a
// sink starts commands, it never runs one to its end.
class OnlyLoop {
public:
    OnlyLoop() {
        if (running_) throw std::logic_error("the channel loop was entered from inside itself");
        running_ = true;
    }
    ~OnlyLoop() { running_ = false; }

private:
    static thread_local bool running_;
};
thread_local bool OnlyLoop::running_ = false;

// Whether the library holds something for a command that a pass would
// take: packets that another channel's read took off the socket, or window
// that arrived for input waiting to go (read from its source and not sent;
// a source that has nothing yet is asked again on the channel's next news).
bool queued(LIBSSH2_CHANNEL* channel, bool wantsToWrite) {
    return libssh2_poll_channel_read(channel, 0) || libssh2_poll_channel_read(channel, 1) ||
           libssh2_channel_eof(channel) != 0 || (wantsToWrite && libssh2_channel_window_write_ex(channel, nullptr) > 0);
}

}  // namespace

bool Ssh::hasQueued() const {
    for (const RemoteCommand* command : table_)
        if (command->phase_ == RemoteCommand::Phase::running &&
            queued(rawChannel(command->channel_), command->inputSent_ < command->inputLength_))
            return true;
    return false;
}

void ChannelLoop::run(const std::function<bool()>& done, long longestWaitMs) {
    OnlyLoop only;
    while (!done()) {
        checkProgramTerminated();
        if (!pass(longestWaitMs)) return;
    }
}

bool ChannelLoop::finish(const std::function<bool()>& done, std::chrono::milliseconds limit) {
    OnlyLoop only;
    struct Finishing {
        Finishing() { finishingDespiteStop = true; }
        ~Finishing() { finishingDespiteStop = false; }
    } finishing;
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!done() && std::chrono::steady_clock::now() < deadline)
        if (!pass(std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now())
                      .count()))
            break;
    return done();
}

bool ChannelLoop::pass(long longestWaitMs) {
    bool progress = false;
    bool alive = false;
    for (Ssh* ssh : connections_) {
        progress |= ssh->service();
        alive |= !ssh->lost() && !ssh->table_.empty();
    }
    if (progress) return true;
    if (!alive) return false;
    long waitMs = longestWaitMs;
    for (Ssh* ssh : connections_)
        if (!ssh->lost()) waitMs = std::min(waitMs, ssh->runPeriodicTask());
    // Under a cap that holds everything back, the loop waits for the cap
    // whatever the library holds.
    const long capped = RateLimit::wait();
    if (capped > 0) {
        // Not on the sockets: they may well have bytes that must wait.
        ::poll(nullptr, 0, static_cast<int>(std::min(waitMs, capped)));
        return true;
    }
    for (Ssh* ssh : connections_)
        if (!ssh->lost() && ssh->hasQueued()) return true;
    if (waitMs > 0) wait(waitMs);
    return true;
}

void ChannelLoop::wait(long timeoutMs) {
    std::vector<pollfd> entries;
    for (Ssh* ssh : connections_)
        if (!ssh->lost()) entries.push_back(pollfd{ssh->session_->socket(), ssh->pollEvents(), 0});
    // A signal cuts the wait short: the next pass looks at the stop flag.
    ::poll(entries.data(), entries.size(), static_cast<int>(std::max<long>(0, timeoutMs)));
}

// ------------------------------------------------------------ files

namespace {
ExecOptions fileContent() {
    ExecOptions how;
    how.logOutput = how.logInput = false;
    return how;
}

int readRemote(Ssh& ssh, const std::string& remotePath, IOWriteChannel& out) {
    const FileRead read = fileRead(remotePath);
    EmptyInput none;
    BoundedText errors;
    return ssh.exec(read.line, none, out, errors, read.how);
}
}  // namespace

FileRead fileRead(const std::string& remotePath) {
    FileRead read;
    read.how = fileContent();
    read.how.marker = newCommandMarker();
    read.line = "sh -c " + sh_quote("echo " + read.how.marker + " && exec cat -- \"$0\"") + " " + sh_quote(remotePath);
    return read;
}

int Ssh::get(std::ostream& out, const std::string& remotePath) {
    logger.debugStream() << "Reading data from the remote file " << remotePath;
    IOStreamWriteChannel output(out);
    return readRemote(*this, remotePath, output);
}

int Ssh::get(const std::string& localPath, const std::string& remotePath) {
    logger.debugStream() << "Reading data to the file " << localPath;
    std::string name;
    const Directory dir = Directory::holding(localPath, name);
    // The copy takes the name only once the read succeeded: a read that
    // fails leaves what stood there before.
    NewFile file(dir, name, 0640);
    NewFileWriter output(file);
    const int status = readRemote(*this, remotePath, output);
    if (status == 0) file.commit();
    return status;
}

void Ssh::put(const std::string& localPath, const std::string& remotePath) {
    logger.debugStream() << "Writing file " << localPath << " to the remote host as " << remotePath;
    std::ifstream file(localPath.c_str(), std::ios::in | std::ios::binary);
    // Sending an unreadable file would truncate the remote copy to nothing.
    if (!file.is_open()) throw VELMO_EXC(StreamRead);
    IOStreamReadChannel input(file);
    BoundedText output, errors;
    if (exec("cat > " + sh_quote(remotePath), input, output, errors, fileContent()) != 0)
        throw VELMO_EXC(CantWriteRemoteFile) % remotePath % errors.str();
}

}  // namespace velmo
