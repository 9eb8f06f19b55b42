// A thin object layer over libssh2: the session started on a connected
// socket, its authentication, and the channels that run one command each.
#ifndef VANTREL_COMMONS_LIBSSH2PP_H
#define VANTREL_COMMONS_LIBSSH2PP_H

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <libssh2.h>

#include "commons/handle.h"

namespace velmo {
namespace libssh2pp {

// Release functions of the right shape for Handle.
void qmv_libssh2_channel_free(LIBSSH2_CHANNEL* channel);
void qmv_libssh2_session_free(LIBSSH2_SESSION* session);

// Whether a library error means that the connection itself is gone.
bool isConnectionLost(int error);

// What a login may use, in the order it is tried: a private key file, the
// keys of the running ssh-agent, then the password.
struct Credentials {
    std::string login;
    std::string password;    // empty: none
    std::string keyFile;     // empty: none
    std::string passphrase;  // of the key file
    bool agent = false;      // the ssh-agent that SSH_AUTH_SOCK names
};

class Channel : public Handle<LIBSSH2_CHANNEL*, &qmv_libssh2_channel_free,
                              DefaultValidationPolicy<LIBSSH2_CHANNEL*> > {
public:
    // Takes ownership of a channel; throws Exc<&InvalidHandle> for null.
    explicit Channel(LIBSSH2_CHANNEL* channel);
    ~Channel() override;

    // Whether the peer closed the channel (with or without an end of file),
    // or the whole connection went away.
    enum class State { open, closedByPeer, connectionGone };
    State state();
};

class Session : public Handle<LIBSSH2_SESSION*, &qmv_libssh2_session_free,
                              DefaultValidationPolicy<LIBSSH2_SESSION*> > {
public:
    // Starts SSH on the connected descriptor socket. disableEncryption asks
    // for the "none" cipher (ignored by a library without it);
    // compatibilityMode restricts the key exchange to
    // diffie-hellman-group1-sha1 and opens a reserve channel after
    // authentication. Throws Exc<&UnableToStartSshSession>.
    //
    // loginTimeoutMs > 0 bounds the handshake and the authentication that
    // follows together: a peer that stops answering before authorize() is
    // through gives Exc<&ConnectionTimedOut> (naming the peer by its
    // address) instead of a wait without end. The bound is lifted once
    // authorize() succeeds, so remote commands may take as long as they take.
    Session(int socket, bool disableEncryption, bool compatibilityMode, long loginTimeoutMs = 0);
    ~Session() override;

    // The authentication methods the server allows for login, split at ",".
    void getAuthMethodsList(const std::string& login, std::vector<std::string>& methods);
    // Tries the key file, the agent's keys (when the server offers
    // "publickey"), then "password" and "keyboard-interactive" with the
    // password, each at most once. Throws Exc<&SshAuthorizationFailed>, or
    // Exc<&SshKeyUnusable> for a key file that cannot be read or opened
    // (an encrypted one without its passphrase, say).
    void authorize(const Credentials& credentials);

    // Keyboard-interactive callback: answers every prompt with the password
    // that authorize left in the session's abstract slot.
    static void userauth_callback(const char* name, int name_len, const char* instruction,
                                  int instruction_len, int num_prompts,
                                  const LIBSSH2_USERAUTH_KBDINT_PROMPT* prompts,
                                  LIBSSH2_USERAUTH_KBDINT_RESPONSE* responses, void** abstract);

    // Opens a session channel without waiting: null while the library waits
    // for the peer (lastErrno() is LIBSSH2_ERROR_EAGAIN; call again with
    // nothing else sent meanwhile), or when the peer refused it. Its receive
    // window opens at 2 MiB (maxWindow at most), its packets are 32 KiB.
    // One channel opens at a time.
    LIBSSH2_CHANNEL* openChannel(unsigned maxWindow = 15u << 20, int share = 1);
    // The largest receive window a channel needs: what the link can carry in
    // one round trip, from 2 MiB on short links up to 15 MiB, maxWindow at
    // most.
    unsigned windowCeiling(unsigned maxWindow, int share = 1) const;
    // A channel asked for at since has opened: one more measure of the link.
    void channelOpened(std::chrono::steady_clock::time_point since) { sawRoundTrips(since, 1); }

    // Opens the reserve channel: "cat" waiting on the remote side for input
    // that never comes, kept open until the session ends.
    void create_reserve_channel();

    // The library's text and code for the last error of the session.
    std::string lastError() const;
    int lastErrno() const { return libssh2_session_last_errno(get()); }

    // Blocking mode for the calls of the library: the channel loop switches
    // it off and waits on the socket itself.
    void setBlocking(bool blocking) { libssh2_session_set_blocking(get(), blocking ? 1 : 0); }
    // How long a blocking call of the library waits for the peer once logged
    // in: two minutes, or a few seconds while leaving after a failure.
    enum class Waits { working, leaving };
    void boundWaits(Waits waits);
    // What the library waits for on the socket: POLLIN, POLLOUT or both.
    short pollEvents() const;
    // Whether the library holds a packet it could only partly send: the call
    // that started it must be repeated before anything else is sent.
    bool sendPending() const { return (libssh2_session_block_directions(get()) & LIBSSH2_SESSION_BLOCK_OUTBOUND) != 0; }
    int socket() const { return socket_; }

    // The shortest round trip seen so far, in milliseconds.
    double roundTripMs() const { return roundTripMs_; }

private:
    bool byKeyFile(const Credentials& credentials);
    // libssh2 before 1.11 signs with an RSA key in SHA-1 only.
    static bool signsRsaWithSha1Only();
    // Whether the host may refuse SHA-1 signatures (OpenSSH since 8.8 does).
    bool peerRefusesSha1() const;
    bool byAgent(const Credentials& credentials);
    bool byPassword(const Credentials& credentials, const std::vector<std::string>& methods);
    void sawRoundTrips(std::chrono::steady_clock::time_point since, int trips);

    // Calls a step of the login (a call of the library) until it is through,
    // waiting on the socket meanwhile, and returns its result. A stop
    // request throws MigrationTerminatedException, the end of the login's
    // time Exc<&ConnectionTimedOut>.
    int waitFor(const char* step, const std::function<int()>& call);
    [[noreturn]] void loginTimedOut(const char* step);
    // Throws Exc<&ConnectionFault> when the library's last error of the
    // session is a lost connection: no refused login, no bad handle.
    void checkConnection(const char* step);
    void endLoginTimeout();

    int socket_;
    double roundTripMs_;
    bool loginLimited_;
    long loginTimeoutMs_;
    std::chrono::steady_clock::time_point loginDeadline_;
    bool compatibilityMode_;
    std::unique_ptr<Channel> reserveChannel_;
    bool refusedForSha1_ = false;  // the key file is RSA, refused for its SHA-1 signature
};

}  // namespace libssh2pp
}  // namespace velmo

#endif
