#include "commons/libssh2pp.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <cerrno>

#include <netdb.h>
#include <unistd.h>
#include <poll.h>
#include <sys/socket.h>

#include <log4cpp/Category.hh>

#include "commons/commons.h"
#include "commons/exceptions.h"
#include "commons/key_type.h"
#include "commons/socket.h"
#include "commons/stop.h"

namespace velmo {
namespace libssh2pp {

static log4cpp::Category& sessionLogger = log4cpp::Category::getInstance("p.libssh2pp.Session");
static log4cpp::Category& channelLogger = log4cpp::Category::getInstance("p.libssh2pp.Channel");

// Receive window of a channel: it opens with kMinWindow and may grow to one
// round trip of the fastest link that this client can drain (libssh2 reads
// some 120 MiB/s), within bounds. On a short link the window stays small, so
// that little waits in memory; a channel holds at most its window. OpenSSH
// gives a channel's input 16 MiB at most.
static const double kDrainBytesPerMs = 256.0 * 1024;
static const unsigned kMinWindow = 2u << 20;
static const unsigned kMaxWindow = 15u << 20;
static const unsigned kLeastWindow = 256u << 10;
// The largest packet libssh2 accepts is a little over 32 KiB.
static const unsigned kPacketSize = 32768;
// Once logged in, a blocking call of the library (opening or closing a
// channel, starting a command) that waits this long for the peer fails:
// remote commands themselves run without a bound, outside blocking calls.
static const long kProtocolTimeoutMs = 120 * 1000;
// What closing a session may take before it is given up, and closing a
// channel after a failure or a stop request.
static const long kCloseTimeoutMs = 5000;
static const long kLeavingTimeoutMs = 3000;
// How often a login that waits for the peer looks at the stop flag.
static const long kLoginLookMs = 100;

void qmv_libssh2_channel_free(LIBSSH2_CHANNEL* channel) {
    (void)libssh2_channel_free(channel);
}

void qmv_libssh2_session_free(LIBSSH2_SESSION* session) {
    (void)libssh2_session_free(session);
}

Channel::Channel(LIBSSH2_CHANNEL* channel) : Handle(channel) {}

Channel::~Channel() {
    channelLogger.debugStream() << "Closed";
}

Channel::State Channel::state() {
    LIBSSH2_POLLFD entry;
    entry.type = LIBSSH2_POLLFD_CHANNEL;
    entry.fd.channel = get();
    entry.events = 0;
    entry.revents = 0;
    libssh2_poll(&entry, 1, 0);
    // A connection that went away marks its channels closed too.
    if ((entry.revents & LIBSSH2_POLLFD_SESSION_CLOSED) != 0) return State::connectionGone;
    return (entry.revents & LIBSSH2_POLLFD_CHANNEL_CLOSED) != 0 ? State::closedByPeer : State::open;
}

bool isConnectionLost(int error) {
    return error == LIBSSH2_ERROR_SOCKET_RECV || error == LIBSSH2_ERROR_SOCKET_SEND ||
           error == LIBSSH2_ERROR_SOCKET_DISCONNECT || error == LIBSSH2_ERROR_SOCKET_TIMEOUT;
}

// The numeric address of the peer of a connected socket, for messages.
static std::string peerAddress(int socket) {
    sockaddr_storage address;
    socklen_t length = sizeof address;
    char host[NI_MAXHOST];
    if (::getpeername(socket, reinterpret_cast<sockaddr*>(&address), &length) != 0 ||
        ::getnameinfo(reinterpret_cast<sockaddr*>(&address), length, host, sizeof host, nullptr, 0,
                      NI_NUMERICHOST) != 0)
        return "(unknown)";
    return host;
}

Session::Session(int socket, bool disableEncryption, bool compatibilityMode, long loginTimeoutMs)
    : Handle(libssh2_session_init_ex(nullptr, nullptr, nullptr, nullptr)),
      socket_(socket),
      roundTripMs_(1e9),
      loginLimited_(loginTimeoutMs > 0),
      loginTimeoutMs_(loginTimeoutMs),
      loginDeadline_(std::chrono::steady_clock::now() + std::chrono::milliseconds(loginTimeoutMs)),
      compatibilityMode_(compatibilityMode) {
    LIBSSH2_SESSION* session = get();
    sessionLogger.debugStream() << "Trying to start SSH session";
    if (disableEncryption) {
        sessionLogger.debugStream() << "Disabling SSH encryption";
        // A library built without the "none" cipher refuses these; the
        // default ciphers are negotiated then.
        (void)libssh2_session_method_pref(session, LIBSSH2_METHOD_CRYPT_CS, "none");
        (void)libssh2_session_method_pref(session, LIBSSH2_METHOD_CRYPT_SC, "none");
    }
    if (compatibilityMode)
        (void)libssh2_session_method_pref(session, LIBSSH2_METHOD_KEX, "diffie-hellman-group1-sha1");

    const int rc = waitFor("handshake", [session, socket] { return libssh2_session_handshake(session, socket); });
    if (rc != 0) {
        const std::string reason = lastError();
        sessionLogger.errorStream() << "SSH session was not started: " << reason;
        // The base class frees the library session on the way out. A
        // connection lost before the session stands is no refusal of SSH.
        if (isConnectionLost(libssh2_session_last_errno(session)))
            throw VELMO_EXC(ConnectionFault) % peerAddress(socket) % "the connection was lost during the SSH handshake";
        throw VELMO_EXC(UnableToStartSshSession) % reason;
    }
    const char* cipher = libssh2_session_methods(session, LIBSSH2_METHOD_CRYPT_SC);
    sessionLogger.debugStream() << "Selected " << (cipher ? cipher : "") << " encryption method";
    sessionLogger.debugStream() << "SSH session started successfully";
}

Session::~Session() {
    sessionLogger.debugStream() << "SSH session finished";
    // Closing what is left waits a little for the peer, never for ever.
    libssh2_session_set_blocking(get(), 1);
    libssh2_session_set_timeout(get(), kCloseTimeoutMs);
    reserveChannel_.reset();
}

short Session::pollEvents() const {
    const int directions = libssh2_session_block_directions(get());
    short events = 0;
    if (directions & LIBSSH2_SESSION_BLOCK_INBOUND) events |= POLLIN;
    if (directions & LIBSSH2_SESSION_BLOCK_OUTBOUND) events |= POLLOUT;
    return events != 0 ? events : POLLIN;
}

void Session::sawRoundTrips(std::chrono::steady_clock::time_point since, int trips) {
    const double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - since).count();
    roundTripMs_ = std::min(roundTripMs_, ms / trips);
}

void Session::loginTimedOut(const char* step) {
    sessionLogger.errorStream() << "SSH " << step << " timed out: the remote host did not answer within "
                                << loginTimeoutMs_ << " ms of the start of the login";
    throw VELMO_EXC(ConnectionTimedOut) % peerAddress(socket_);
}

void Session::checkConnection(const char* step) {
    if (!isConnectionLost(libssh2_session_last_errno(get()))) return;
    sessionLogger.errorStream() << "The connection was lost during SSH " << step << ": " << lastError();
    throw VELMO_EXC(ConnectionFault) % peerAddress(socket_) % (std::string("the connection was lost during ") + step);
}

void Session::endLoginTimeout() {
    loginLimited_ = false;
    boundWaits(Waits::working);
}

void Session::boundWaits(Waits waits) {
    if (!loginLimited_)
        libssh2_session_set_timeout(get(), waits == Waits::leaving ? kLeavingTimeoutMs : kProtocolTimeoutMs);
}

std::string Session::lastError() const {
    char* text = nullptr;
    libssh2_session_last_error(get(), &text, nullptr, 0);
    return text ? std::string(text) : std::string();
}

void Session::getAuthMethodsList(const std::string& login, std::vector<std::string>& methods) {
    sessionLogger.debugStream() << "Getting userauth methods for user '" << login << "'";
    // The "none" authentication: one round trip with next to no work on the
    // server, the first measure of the link.
    const auto asked = std::chrono::steady_clock::now();
    const char* raw = nullptr;
    waitFor("authentication", [&] {
        raw = libssh2_userauth_list(get(), login.c_str(), static_cast<unsigned>(login.size()));
        return raw != nullptr ? 0 : lastErrno();
    });
    if (raw != nullptr)
        sawRoundTrips(asked, 1);
    if (raw == nullptr) {
        checkConnection("authentication");
        throw VELMO_EXC(InvalidHandle);
    }
    // The library owns this string and frees it with the session: copy it,
    // never release it here.
    const std::string list(raw);
    sessionLogger.debugStream() << "Got the following allowed userauth methods: " << list;

    methods.clear();
    std::string::size_type start = 0;
    for (;;) {
        const std::string::size_type comma = list.find(',', start);
        if (comma == std::string::npos) {
            methods.push_back(list.substr(start));
            break;
        }
        methods.push_back(list.substr(start, comma - start));
        start = comma + 1;
    }
}

void Session::authorize(const Credentials& credentials) {
    sessionLogger.debugStream() << "Requested authorization for user " << credentials.login;
    std::vector<std::string> methods;
    getAuthMethodsList(credentials.login, methods);
    const bool keys = std::find(methods.begin(), methods.end(), "publickey") != methods.end();
    if (!(keys && byKeyFile(credentials)) && !(keys && byAgent(credentials)) && !byPassword(credentials, methods)) {
        checkConnection("authentication");
        sessionLogger.errorStream() << "Authentication failed";
        if (refusedForSha1_)
            throw VELMO_EXC(SshKeyUnusable) % credentials.keyFile %
                (std::string("the host refused it: this build of libssh2 (") + libssh2_version(0) +
                 ") signs with RSA keys in SHA-1 only (ssh-rsa), which OpenSSH refuses since 8.8; the host wants "
                 "rsa-sha2-256 or rsa-sha2-512. Use an Ed25519 or ECDSA key, or a build with libssh2 1.11 or later");
        throw VELMO_EXC(SshAuthorizationFailed);
    }
    if (compatibilityMode_) create_reserve_channel();
    endLoginTimeout();
}

bool Session::byKeyFile(const Credentials& credentials) {
    if (credentials.keyFile.empty()) return false;
    sessionLogger.debugStream() << "Trying 'publickey' authentication with " << credentials.keyFile;
    // The library says little about a key it cannot read: look first.
    if (::access(credentials.keyFile.c_str(), R_OK) != 0)
        throw VELMO_EXC(SshKeyUnusable) % credentials.keyFile % std::strerror(errno);
    const int rc = waitFor("authentication", [&] {
        return libssh2_userauth_publickey_fromfile_ex(
            get(), credentials.login.c_str(), static_cast<unsigned>(credentials.login.size()), nullptr,
            credentials.keyFile.c_str(), credentials.passphrase.empty() ? nullptr : credentials.passphrase.c_str());
    });
    if (rc == 0) return true;
    if (rc == LIBSSH2_ERROR_FILE)
        throw VELMO_EXC(SshKeyUnusable) % credentials.keyFile %
            (credentials.passphrase.empty() ? "no such key, or one that needs a passphrase (KVA_KEY_PASSPHRASE)"
                                            : "no such key, or not this passphrase");
    sessionLogger.debugStream() << "The host refused the key " << credentials.keyFile << ": " << lastError();
    refusedForSha1_ = signsRsaWithSha1Only() && peerRefusesSha1() && isRsaKeyFile(credentials.keyFile);
    return false;
}

bool Session::signsRsaWithSha1Only() { return libssh2_version(0x010b00) == nullptr; }

bool Session::peerRefusesSha1() const {
    // OpenSSH from 8.8 on; of other servers it is not known, and they are
    // taken to, since they refused the key.
    const char* banner = libssh2_session_banner_get(get());
    int major = 0, minor = 0;
    if (banner == nullptr || std::sscanf(banner, "SSH-2.0-OpenSSH_%d.%d", &major, &minor) != 2) return true;
    return major > 8 || (major == 8 && minor >= 8);
}

bool Session::byAgent(const Credentials& credentials) {
    if (!credentials.agent) return false;
    LIBSSH2_AGENT* agent = libssh2_agent_init(get());
    if (agent == nullptr) return false;
    bool done = false;
    if (libssh2_agent_connect(agent) != 0 || libssh2_agent_list_identities(agent) != 0) {
        sessionLogger.warnStream() << "The ssh-agent of SSH_AUTH_SOCK cannot be used: " << lastError();
    } else {
        libssh2_agent_publickey* identity = nullptr;
        while (!done && libssh2_agent_get_identity(agent, &identity, identity) == 0) {
            sessionLogger.debugStream() << "Trying 'publickey' authentication with the agent's key "
                                        << (identity->comment ? identity->comment : "");
            done = waitFor("authentication", [&] {
                       return libssh2_agent_userauth(agent, credentials.login.c_str(), identity);
                   }) == 0;
        }
    }
    libssh2_agent_disconnect(agent);
    libssh2_agent_free(agent);
    return done;
}

bool Session::byPassword(const Credentials& credentials, const std::vector<std::string>& methods) {
    const auto offered = [&methods](const char* name) {
        return std::find(methods.begin(), methods.end(), name) != methods.end();
    };
    const std::string& login = credentials.login;
    const std::string& password = credentials.password;
    if (password.empty()) return false;
    if (offered("password")) {
        sessionLogger.debugStream() << "Trying 'password' authentication";
        const int rc = waitFor("authentication", [&] {
            return libssh2_userauth_password_ex(get(), login.c_str(), static_cast<unsigned>(login.size()),
                                                password.c_str(), static_cast<unsigned>(password.size()), nullptr);
        });
        if (rc == 0) {
            sessionLogger.debugStream() << "Authenticated succesfully";
            return true;
        }
    }
    if (offered("keyboard-interactive")) {
        sessionLogger.debugStream() << "Trying 'keyboard-interactive' authentication";
        void** slot = libssh2_session_abstract(get());
        *slot = const_cast<std::string*>(&password);
        const int rc = waitFor("authentication", [&] {
            return libssh2_userauth_keyboard_interactive_ex(get(), login.c_str(), static_cast<unsigned>(login.size()),
                                                            &Session::userauth_callback);
        });
        *slot = nullptr;
        if (rc == 0) {
            sessionLogger.debugStream() << "Authenticated successfully";
            return true;
        }
    }
    return false;
}

void Session::userauth_callback(const char* /*name*/, int /*name_len*/, const char* /*instruction*/,
                                int /*instruction_len*/, int num_prompts,
                                const LIBSSH2_USERAUTH_KBDINT_PROMPT* /*prompts*/,
                                LIBSSH2_USERAUTH_KBDINT_RESPONSE* responses, void** abstract) {
    sessionLogger.debugStream() << "'keyboard-interactive' callback requested. "
                                << "Filling " << num_prompts << " responses with the password";
    const std::string* password = static_cast<const std::string*>(*abstract);
    for (int i = 0; i < num_prompts; ++i) {
        const std::size_t length = password ? password->size() : 0;
        // The library releases the answers with free().
        char* copy = static_cast<char*>(std::malloc(length > 0 ? length : 1));
        if (length > 0)
            std::memcpy(copy, password->data(), length);
        responses[i].text = copy;
        responses[i].length = static_cast<unsigned>(length);
    }
}

// Channels on connections that share one link share these bounds too:
// together they hold what one would, so that a cut drops no more.
static unsigned firstWindow(unsigned maxWindow, int share) {
    return std::min(maxWindow, std::max(kLeastWindow, kMinWindow / static_cast<unsigned>(std::max(1, share))));
}

LIBSSH2_CHANNEL* Session::openChannel(unsigned maxWindow, int share) {
    return libssh2_channel_open_ex(get(), "session", 7, firstWindow(maxWindow, share), kPacketSize, nullptr, 0);
}

unsigned Session::windowCeiling(unsigned maxWindow, int share) const {
    const double whole = std::min<double>(kMaxWindow, std::max<double>(kMinWindow, roundTripMs_ * kDrainBytesPerMs));
    return static_cast<unsigned>(std::min<double>(
        maxWindow, std::max<double>(firstWindow(maxWindow, share), whole / std::max(1, share))));
}

void Session::create_reserve_channel() {
    sessionLogger.debugStream() << "Create a reserve channel";
    LIBSSH2_CHANNEL* channel = nullptr;
    waitFor("authentication", [&] {
        channel = openChannel();
        return channel != nullptr ? 0 : lastErrno();
    });
    if (channel == nullptr) throw VELMO_EXC(SshConnectionFault);
    reserveChannel_.reset(new Channel(channel));
    // A refused command is as good as no channel: the connection is not fit.
    if (waitFor("authentication", [channel] { return libssh2_channel_process_startup(channel, "exec", 4, "cat", 3); }) != 0) {
        sessionLogger.errorStream() << "The reserve channel's command was refused: " << lastError();
        throw VELMO_EXC(SshConnectionFault);
    }
}

int Session::waitFor(const char* step, const std::function<int()>& call) {
    // The library's calls do not block: a stop request and the end of the
    // login's time are seen here, whether or not a signal would cut the
    // library's own wait short (1.11 retries what it cuts).
    setBlocking(false);
    int rc;
    while ((rc = call()) == LIBSSH2_ERROR_EAGAIN) {
        checkProgramTerminated();
        long waitMs = kLoginLookMs;
        if (loginLimited_) {
            const long left = static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(
                loginDeadline_ - std::chrono::steady_clock::now()).count());
            if (left <= 0) loginTimedOut(step);
            waitMs = std::min(waitMs, left);
        }
        pollfd entry = {socket_, pollEvents(), 0};
        ::poll(&entry, 1, static_cast<int>(waitMs));
    }
    setBlocking(true);
    return rc;
}

}  // namespace libssh2pp
}  // namespace velmo
