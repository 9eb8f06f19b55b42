#include "commons/ssh-transfer.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <vector>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <boost/format.hpp>
#include <log4cpp/Category.hh>

#include "commons/commons.h"
#include "commons/exceptions.h"
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

int SshChannelWriteChannel::write(const char* data, unsigned size) {
    return static_cast<int>(libssh2_channel_write_ex(channel_.get(), 0, data, size));
}

std::ostream& operator<<(std::ostream& out, const memchunk_log& chunk) {
    for (std::size_t i = 0; i < chunk.length; ++i)
        out << chunk.data[i];
    return out;
}

// Logs a chunk of a remote stream behind prefix, with every known password
// masked; nothing is built when debug lines are not wanted.
static void logChunk(const char* prefix, const char* data, int length) {
    if (length <= 0 || !logger.isDebugEnabled())
        return;
    const std::string text = maskSecrets(std::string(data, static_cast<std::size_t>(length)));
    logger.debugStream() << prefix << memchunk_log(text.data(), text.size());
}

void Ssh::logPump(const char* data, int length) {
    logChunk("remote stdin <- ", data, length);
}

void pump_write(IOWriteChannel& to, char* data, int length) {
    checkProgramTerminated();
    if (length < 1)
        return;
    char* position = data;
    int remaining = length;
    for (;;) {
        const int written = to.write(position, static_cast<unsigned>(remaining));
        if (written < 0)
            throw VELMO_EXC(StreamWrite);
        if (written >= remaining)
            return;
        position += written;
        remaining -= written;
    }
}

static void pumpChunks(IOReadChannel& from, IOWriteChannel& to, bool logChunks) {
    std::vector<char> buffer(kChunkSize);
    for (;;) {
        const int n = from.read(buffer.data(), kChunkSize);
        if (n == 0)
            return;
        if (n < 0)
            throw VELMO_EXC(StreamRead);
        pump_write(to, buffer.data(), n);
        if (logChunks)
            Ssh::logPump(buffer.data(), n);
    }
}

void pump(IOReadChannel& from, IOWriteChannel& to) {
    pumpChunks(from, to, false);
}

void pump_with_log(IOReadChannel& from, IOWriteChannel& to, Ssh& /*ssh*/) {
    pumpChunks(from, to, true);
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
    socket_.reset(new Socket(host, port));
    try {
        try {
            session_.reset(new libssh2pp::Session(socket_->fd(), disableEncryption, false, limitMs));
        } catch (const Exc<&UnableToStartSshSession>&) {
            socket_.reset();
            logger.debugStream() << "Attempt to start SSH session in a 'compatibility' mode";
            socket_.reset(new Socket(host, port));
            // The second attempt gets what the first one left of the time.
            const long spentMs = static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(
                std::chrono::steady_clock::now() - start).count());
            if (spentMs >= limitMs)
                throw VELMO_EXC(ConnectionTimedOut) % host;
            session_.reset(new libssh2pp::Session(socket_->fd(), disableEncryption, true, limitMs - spentMs));
        }
        session_->authorize(login, password);
    } catch (const Exc<&SshAuthorizationFailed>&) {
        throw VELMO_EXC(SshInvalidCredentials) % host;
    } catch (const Exc<&ConnectionTimedOut>&) {
        // The session knows the peer by its address only; name it as the
        // caller did.
        throw VELMO_EXC(ConnectionTimedOut) % host;
    }
}

Ssh::~Ssh() {
    session_.reset();
    socket_.reset();
}

// The library does not notice a peer that closed the TCP connection without
// closing its channels first: it keeps finding the socket readable and waits
// out every time-out. Looking at the socket directly tells such a connection
// from one that is merely quiet.
bool Ssh::connectionLost() const {
    char probe;
    ssize_t rc;
    do {
        rc = ::recv(socket_->fd(), &probe, 1, MSG_PEEK | MSG_DONTWAIT);
    } while (rc < 0 && errno == EINTR);
    if (rc == 0)
        return true;
    return rc < 0 && errno != EAGAIN && errno != EWOULDBLOCK;
}

// Library errors that mean the connection itself is gone.
static bool isSocketError(ssize_t rc) {
    return rc == LIBSSH2_ERROR_SOCKET_RECV || rc == LIBSSH2_ERROR_SOCKET_SEND ||
           rc == LIBSSH2_ERROR_SOCKET_DISCONNECT || rc == LIBSSH2_ERROR_SOCKET_TIMEOUT;
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

int Ssh::exec(const std::string& command, std::istream& in, std::ostream& out, std::ostream& err,
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

int Ssh::execChannel(const std::string& command, std::istream& in, std::ostream& out, std::ostream& err,
                     bool quietOutput, bool quietInput, Counter& counter) {
    logger.debugStream() << "Executing " << maskSecrets(command) << " on the remote host";
    std::unique_ptr<libssh2pp::Channel> channel =
        session_->openExecChannel(command, libssh2pp::Channel::Blocking);
    LIBSSH2_CHANNEL* raw = channel->get();

    {
        IOStreamReadChannel input(in);
        SshChannelWriteChannel toRemote(*channel);
        if (quietInput)
            pump(input, toRemote);
        else
            pump_with_log(input, toRemote, *this);
    }

    int rc = libssh2_channel_send_eof(raw);
    if (rc < 0)
        throw VELMO_EXC(UnableToSendEof) % session_->lastError();

    IOStreamWriteChannel outChannel(out);
    IOStreamWriteChannel errChannel(err);
    std::vector<char> buffer(kChunkSize);
    bool closedWithoutEof = false;
    // Reads one chunk of a stream without waiting. Every read also makes the
    // library decode what it has already taken off the socket: a packet it
    // holds undecoded (the end of file, the close) leaves the socket quiet,
    // so waiting on the socket alone would never see it.
    // When that read gives nothing although data of the stream is queued
    // (the read's window adjustment did not go out at once), a blocking read
    // takes it: with data queued it does not wait for the peer. The test for
    // standard error also answers for queued standard output, so standard
    // error is read that way only when no standard output is queued.
    const auto readNow = [&](int stream) -> ssize_t {
        libssh2_channel_set_blocking(raw, libssh2pp::Channel::NonBlocking);
        ssize_t got = libssh2_channel_read_ex(raw, stream, buffer.data(), kChunkSize);
        libssh2_channel_set_blocking(raw, libssh2pp::Channel::Blocking);
        if (got == LIBSSH2_ERROR_EAGAIN) {
            const bool queued = stream == 0 ? libssh2_poll_channel_read(raw, 0) != 0
                                            : !libssh2_poll_channel_read(raw, 0) &&
                                                  libssh2_poll_channel_read(raw, 1);
            got = queued ? libssh2_channel_read_ex(raw, stream, buffer.data(), kChunkSize) : 0;
        }
        return got == LIBSSH2_ERROR_EAGAIN ? 0 : got;
    };
    for (;;) {
        checkProgramTerminated();
        if (libssh2_channel_eof(raw) != 0)
            break;
        const int waitMs = runPeriodicTask();

        bool readSomething = false;
        ssize_t n = readNow(0);
        // Any other negative count is an error of the library: nothing to
        // log, count or write. Once the socket has failed, though, every
        // later read fails the same way, so the loop would spin on it.
        if (isSocketError(n))
            throw VELMO_EXC(SshConnectionFault);
        if (n > 0) {
            readSomething = true;
            if (!quietOutput)
                logChunk("remote stdout -> ", buffer.data(), static_cast<int>(n));
            counter(static_cast<int>(n));
            pump_write(outChannel, buffer.data(), static_cast<int>(n));
        }
        n = readNow(1);
        if (isSocketError(n))
            throw VELMO_EXC(SshConnectionFault);
        if (n > 0) {
            readSomething = true;
            if (!quietOutput)
                logChunk("remote stderr -> ", buffer.data(), static_cast<int>(n));
            pump_write(errChannel, buffer.data(), static_cast<int>(n));
        }
        if (readSomething)
            continue;

        if (libssh2_channel_eof(raw) != 0)
            break;
        const bool queued = libssh2_poll_channel_read(raw, 1) != 0;
        if (queued) {
            // Queued data that no read would take (a window adjustment the
            // socket did not accept yet, say): give it a moment rather than
            // spin.
            ::usleep(10000);
            continue;
        }
        if (connectionLost())
            throw VELMO_EXC(SshConnectionFault);
        const int events = channel->poll(waitMs);
        // A channel closed by the peer without an end of file would otherwise
        // keep the loop spinning.
        if (events & LIBSSH2_POLLFD_CHANNEL_CLOSED) {
            if (!libssh2_poll_channel_read(raw, 1) && libssh2_channel_eof(raw) == 0) {
                closedWithoutEof = true;
                break;
            }
        }
    }

    char* signalName = nullptr;
    rc = closedWithoutEof ? 0 : libssh2_channel_wait_closed(raw);
    int status = libssh2_channel_get_exit_status(raw);
    if (rc == 0)
        libssh2_channel_get_exit_signal(raw, &signalName, nullptr, nullptr, nullptr, nullptr, nullptr);
    // Without the close the status is unknown: the library would say 0.
    if (rc < 0)
        throw VELMO_EXC(SshConnectionFault);
    if (signalName != nullptr) {
        // A command killed by a signal has no exit status; report it as the
        // OpenSSH client does rather than as a success.
        logger.debugStream() << "Remote command was killed by signal " << signalName;
        libssh2_free(session_->get(), signalName);
        if (status == 0)
            status = 255;
    }
    logger.debugStream() << "Execution finished with return code " << status;
    channel.reset();
    return status;
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

namespace {
// Sets the file-creation mask and puts the previous one back.
class UmaskScope {
public:
    explicit UmaskScope(mode_t mask) : saved_(::umask(mask)) {}
    ~UmaskScope() { ::umask(saved_); }

private:
    mode_t saved_;
};
}  // namespace

int Ssh::get(const std::string& localPath, std::ostream& err, const std::string& remotePath,
             Counter& counter) {
    logger.debugStream() << "Reading data to the file " << localPath;
    int status;
    std::ofstream file;
    {
        UmaskScope mask(026);
        file.open(localPath.c_str(), std::ios::out | std::ios::trunc | std::ios::binary);
        try {
            status = get(file, err, remotePath, counter);
        } catch (...) {
            // Never leave a partial copy behind. A file that could not be
            // opened is not ours to remove.
            if (file.is_open()) {
                file.close();
                ::unlink(localPath.c_str());
            }
            throw;
        }
    }
    if (!file.is_open())
        return status;
    if (status != 0) {
        ::unlink(localPath.c_str());
        file.close();
        return status;
    }
    file.close();
    if (file.fail()) {
        // The last buffered bytes did not reach the disk.
        ::unlink(localPath.c_str());
        throw VELMO_EXC(StreamWrite);
    }
    return status;
}

int Ssh::get(const std::string& localPath, const std::string& remotePath) {
    std::ostringstream discarded;
    return get(localPath, discarded, remotePath, null_counter);
}

void Ssh::put(std::istream& in, const std::string& remotePath) {
    logger.debugStream() << "Writing data to the remote file " << remotePath;
    const std::string command = (boost::format("cat > %1%") % sh_quote(remotePath)).str();
    std::ostringstream discardedOut;
    std::ostringstream discardedErr;
    exec(command, in, discardedOut, discardedErr, true, true, null_counter);
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
