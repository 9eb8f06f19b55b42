#include "commons/ssh-transfer.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <vector>

#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <boost/format.hpp>
#include <log4cpp/Category.hh>

#include "commons/commons.h"
#include "commons/exceptions.h"
#include "commons/host_key.h"
#include "commons/local_files.h"
#include "commons/sh_quoting.h"

namespace velmo {

static log4cpp::Category& logger = log4cpp::Category::getInstance("p.Ssh");

// Every transfer moves data in chunks of this size, in both directions.
static const unsigned kChunkSize = 65536;
// Longest wait of the execution loop for output before it passes again.
static const int kPollTimeoutMs = 5000;
// Longest time the SSH handshake and the authentication may take together,
// in seconds, unless $VANTREL_SSH_LOGIN_TIMEOUT says otherwise. Once logged
// in, nothing bounds a remote command: an agent may work for hours.
static const long kDefaultLoginTimeoutSec = 30;
static const long kMaxLoginTimeoutSec = 24 * 3600;

IOReadChannel::~IOReadChannel() {}
IOWriteChannel::~IOWriteChannel() {}
Ssh::Counter::~Counter() {}

Ssh::NullCounter Ssh::null_counter;

volatile std::sig_atomic_t isProgramTerminated = 0;

MigrationTerminatedException::MigrationTerminatedException()
    : std::runtime_error("Migration has been terminated") {}

void terminateProgram() {
    isProgramTerminated = 1;
}

void checkProgramTerminated() {
    if (isProgramTerminated)
        throw MigrationTerminatedException();
}

int IOStreamReadChannel::read(char* buffer, unsigned size) {
    if (in_.eof())
        return 0;
    in_.read(buffer, size);
    return static_cast<int>(in_.gcount());
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
         bool disableEncryption, unsigned short port) {
    addSecret(password);
    try {
        logIn(host, login, password, disableEncryption, port);
    } catch (const ExTraceable&) {
        // A stop request cuts the library's waits short: what fails then
        // fails because of the stop.
        checkProgramTerminated();
        throw;
    }
}

void Ssh::logIn(const std::string& host, const std::string& login, const std::string& password,
                bool disableEncryption, unsigned short port) {
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
    socket_.reset(new Socket(host, port));
    try {
        startSession(false, limitMs);
    } catch (const ExTraceable& e) {
        // A peer that refused the handshake, or dropped the connection
        // during it, may be an old one that wants the old key exchange.
        if (!dynamic_cast<const Exc<&UnableToStartSshSession>*>(&e) && !dynamic_cast<const Exc<&ConnectionFault>*>(&e))
            throw;
        checkProgramTerminated();
        socket_.reset();
        logger.debugStream() << "Attempt to start SSH session in a 'compatibility' mode";
        socket_.reset(new Socket(host, port));
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
        session_->authorize(login, password);
    } catch (const Exc<&SshAuthorizationFailed>&) {
        throw VELMO_EXC(SshInvalidCredentials) % host;
    } catch (const Exc<&ConnectionTimedOut>&) {
        throw VELMO_EXC(ConnectionTimedOut) % host;
    }
}

Ssh::~Ssh() {
    session_.reset();
    socket_.reset();
}

// Library errors that mean the connection itself is gone.
static bool isSocketError(ssize_t rc) {
    return rc == LIBSSH2_ERROR_SOCKET_RECV || rc == LIBSSH2_ERROR_SOCKET_SEND ||
           rc == LIBSSH2_ERROR_SOCKET_DISCONNECT || rc == LIBSSH2_ERROR_SOCKET_TIMEOUT ||
           rc == LIBSSH2_ERROR_TIMEOUT;
}

void Ssh::setPeriodic(std::chrono::milliseconds interval, std::function<bool()> task) {
    periodic_ = std::move(task);
    periodicInterval_ = interval;
    periodicDue_ = std::chrono::steady_clock::now() + interval;
}

int Ssh::runPeriodicTask() {
    using namespace std::chrono;
    if (!periodic_)
        return kPollTimeoutMs;
    if (steady_clock::now() >= periodicDue_) {
        // The task may run commands of its own on this connection: it is
        // taken out so that their loops do not run it again.
        std::function<bool()> task = std::move(periodic_);
        periodic_ = nullptr;
        if (task() && !periodic_) {
            periodic_ = std::move(task);
            periodicDue_ = steady_clock::now() + periodicInterval_;
        }
        if (!periodic_)
            return kPollTimeoutMs;
    }
    const auto left = duration_cast<milliseconds>(periodicDue_ - steady_clock::now()).count();
    return static_cast<int>(std::max<long long>(0, std::min<long long>(left, kPollTimeoutMs)));
}

int Ssh::exec(const std::string& command, IOReadChannel& in, IOWriteChannel& out, IOWriteChannel& err,
              bool quietOutput, bool quietInput, Counter& counter) {
    try {
        return execChannel(command, in, out, err, quietOutput, quietInput, counter);
    } catch (const ExTraceable&) {
        // A stop request cuts the library's waits short: what fails then
        // fails because of the stop.
        checkProgramTerminated();
        throw;
    }
}

namespace {
// Puts the session back into blocking mode when a command is done with it,
// however it ends, so that its channel is closed in that mode.
class BlockingWhenDone {
public:
    explicit BlockingWhenDone(libssh2pp::Session& session) : session_(session) { session_.boundWaits(false); }
    ~BlockingWhenDone() {
        session_.setBlocking(true);
        // A command left for a failure or a stop request is closed without
        // waiting long for a peer that may be gone, or for a command that
        // does not end.
        if (std::uncaught_exceptions() > 0) session_.boundWaits(true);
    }

private:
    libssh2pp::Session& session_;
};
}  // namespace

// The loop never blocks inside the library. A call that the library cannot
// finish at once (EAGAIN) is made again, with the same arguments, before any
// other call that sends: the library keeps a packet it could only partly send
// and refuses to send another one meanwhile. In between the loop waits on the
// socket, for at most the time left to the periodic task.
int Ssh::execChannel(const std::string& command, IOReadChannel& in, IOWriteChannel& out, IOWriteChannel& err,
                     bool quietOutput, bool quietInput, Counter& counter) {
    logger.debugStream() << "Executing " << maskSecrets(command) << " on the remote host";
    std::unique_ptr<libssh2pp::Channel> channel = session_->openExecChannel(command);
    BlockingWhenDone blockingWhenDone(*session_);
    LIBSSH2_CHANNEL* raw = channel->get();

    enum { SendInput, SendEof, Receive } phase = SendInput;
    std::vector<char> input(kChunkSize);
    int inputLength = 0;
    int inputSent = 0;
    std::vector<char> buffer(kChunkSize);
    bool closedWithoutEof = false;
    StreamLog inputLog("remote stdin <- ");
    StreamLog outputLog[2] = {StreamLog("remote stdout -> "), StreamLog("remote stderr -> ")};
    for (;;) {
        checkProgramTerminated();
        session_->setBlocking(false);
        bool progress = false;

        if (phase == SendInput) {
            if (inputSent == inputLength) {
                const int n = in.read(input.data(), kChunkSize);
                if (n < 0)
                    throw VELMO_EXC(StreamRead);
                if (!quietInput) inputLog.add(input.data(), static_cast<std::size_t>(n));
                inputLength = n;
                inputSent = 0;
                if (n == 0)
                    phase = SendEof;
                progress = true;
            }
            if (phase == SendInput) {
                const ssize_t w = libssh2_channel_write_ex(raw, 0, input.data() + inputSent,
                                                           static_cast<size_t>(inputLength - inputSent));
                if (w > 0) {
                    inputSent += static_cast<int>(w);
                    progress = true;
                } else if (isSocketError(w)) {
                    throw VELMO_EXC(SshConnectionFault);
                } else if (w != LIBSSH2_ERROR_EAGAIN) {
                    // The command takes no more input (it ended or closed its
                    // end): what it said and its status tell the rest.
                    logger.debugStream() << "The remote command stopped taking input: " << session_->lastError();
                    phase = Receive;
                    progress = true;
                }
            }
        }

        if (phase == SendEof) {
            const int rc = libssh2_channel_send_eof(raw);
            if (rc == 0 || (rc != LIBSSH2_ERROR_EAGAIN && channel->closedByPeer())) {
                phase = Receive;
                progress = true;
            } else if (isSocketError(rc)) {
                throw VELMO_EXC(SshConnectionFault);
            } else if (rc != LIBSSH2_ERROR_EAGAIN) {
                throw VELMO_EXC(UnableToSendEof) % session_->lastError();
            }
        }

        if (phase == Receive) {
            for (int stream = 0; stream < 2; ++stream) {
                const ssize_t n = libssh2_channel_read_ex(raw, stream, buffer.data(), kChunkSize);
                if (n > 0) {
                    progress = true;
                    if (!quietOutput) outputLog[stream].add(buffer.data(), static_cast<std::size_t>(n));
                    if (stream == 0)
                        counter(static_cast<int>(n));
                    pump_write(stream == 0 ? out : err, buffer.data(), static_cast<int>(n));
                } else if (isSocketError(n)) {
                    throw VELMO_EXC(SshConnectionFault);
                }
            }
            if (!session_->sendPending()) {
                if (libssh2_channel_eof(raw) != 0)
                    break;
                if (!progress && channel->closedByPeer() && !libssh2_poll_channel_read(raw, 0) &&
                    !libssh2_poll_channel_read(raw, 1)) {
                    closedWithoutEof = true;
                    break;
                }
            }
        }
        if (progress)
            continue;

        int waitMs = kPollTimeoutMs;
        if (phase == Receive && !session_->sendPending()) {
            waitMs = runPeriodicTask();
            session_->setBlocking(false);
            // The task's own reads may have taken this command's data off
            // the socket: look again before waiting on it.
            if (libssh2_poll_channel_read(raw, 0) || libssh2_poll_channel_read(raw, 1) ||
                libssh2_channel_eof(raw) != 0)
                continue;
        }
        session_->waitSocket(waitMs);
    }

    int rc = 0;
    while (!closedWithoutEof && (rc = libssh2_channel_wait_closed(raw)) == LIBSSH2_ERROR_EAGAIN) {
        checkProgramTerminated();
        session_->waitSocket(kPollTimeoutMs);
    }
    // Without the close the status is unknown: the library would say 0.
    if (rc < 0)
        throw VELMO_EXC(SshConnectionFault);
    int status = libssh2_channel_get_exit_status(raw);
    char* signalName = nullptr;
    if (!closedWithoutEof)
        libssh2_channel_get_exit_signal(raw, &signalName, nullptr, nullptr, nullptr, nullptr, nullptr);
    if (signalName != nullptr) {
        // A command killed by a signal has no exit status; report it as the
        // OpenSSH client does rather than as a success.
        logger.debugStream() << "Remote command was killed by signal " << signalName;
        libssh2_free(session_->get(), signalName);
        if (status == 0)
            status = 255;
    }
    logger.debugStream() << "Execution finished with return code " << status;
    session_->setBlocking(true);
    channel.reset();
    return status;
}

int Ssh::exec(const std::string& command, std::istream& in, std::ostream& out, std::ostream& err,
              bool quietOutput, bool quietInput, Counter& counter) {
    IOStreamReadChannel input(in);
    IOStreamWriteChannel output(out);
    IOStreamWriteChannel errors(err);
    return exec(command, input, output, errors, quietOutput, quietInput, counter);
}

int Ssh::exec(const std::string& command, std::ostream& out, std::ostream& err, bool quietOutput,
              Counter& counter) {
    std::istringstream empty;
    return exec(command, empty, out, err, quietOutput, false, counter);
}

int Ssh::get(std::ostream& out, std::ostream& err, const std::string& remotePath, Counter& counter) {
    logger.debugStream() << "Reading data from the remote file " << remotePath;
    const std::string command = (boost::format("cat %1%") % sh_quote(remotePath)).str();
    std::istringstream empty;
    return exec(command, empty, out, err, true, true, counter);
}

int Ssh::get(std::ostream& out, const std::string& remotePath) {
    std::ostringstream discarded;
    return get(out, discarded, remotePath, null_counter);
}

int Ssh::get(const std::string& localPath, std::ostream& err, const std::string& remotePath,
             Counter& counter) {
    logger.debugStream() << "Reading data to the file " << localPath;
    std::string name;
    const Directory dir = Directory::holding(localPath, name);
    // The copy takes the name only once the read succeeded: a read that
    // fails leaves what stood there before.
    NewFile file(dir, name, 0640);
    NewFileWriter output(file);
    IOStreamWriteChannel errors(err);
    std::istringstream empty;
    IOStreamReadChannel none(empty);
    const std::string command = (boost::format("cat %1%") % sh_quote(remotePath)).str();
    const int status = exec(command, none, output, errors, true, true, counter);
    if (status == 0) file.commit();
    return status;
}

int Ssh::get(const std::string& localPath, const std::string& remotePath) {
    std::ostringstream discarded;
    return get(localPath, discarded, remotePath, null_counter);
}

void Ssh::put(std::istream& in, const std::string& remotePath) {
    logger.debugStream() << "Writing data to the remote file " << remotePath;
    const std::string command = (boost::format("cat > %1%") % sh_quote(remotePath)).str();
    std::ostringstream out;
    std::ostringstream err;
    if (exec(command, in, out, err, true, true, null_counter) != 0)
        throw VELMO_EXC(CantWriteRemoteFile) % remotePath % err.str();
}

void Ssh::put(const std::string& localPath, const std::string& remotePath) {
    logger.debugStream() << "Writing file " << localPath << " to the remote host";
    std::ifstream file(localPath.c_str(), std::ios::in | std::ios::binary);
    // Sending an unreadable file would truncate the remote copy to nothing.
    if (!file.is_open())
        throw VELMO_EXC(StreamRead);
    put(file, remotePath);
}

}  // namespace velmo
