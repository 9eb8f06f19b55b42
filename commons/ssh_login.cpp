#include "commons/ssh-transfer.h"

#include <algorithm>

#include <log4cpp/Category.hh>

#include "commons/commons.h"
#include "commons/env_number.h"
#include "commons/exceptions.h"
#include "commons/host_key.h"
#include "commons/host_offer.h"

namespace velmo {

static log4cpp::Category& logger = log4cpp::Category::getInstance("p.Ssh");

// Longest time the SSH handshake and the authentication may take together,
// in seconds, unless $VANTREL_SSH_LOGIN_TIMEOUT says otherwise. Once logged
// in, nothing bounds a remote command: an agent may work for hours.
static const long kDefaultLoginTimeoutSec = 30;
static const long kMaxLoginTimeoutSec = 24 * 3600;
// What reading the host's offer of methods may take after a refused handshake.
static const long kOfferLimitMs = 10000;

static libssh2pp::Credentials passwordOnly(const std::string& login, const std::string& password) {
    libssh2pp::Credentials credentials;
    credentials.login = login;
    credentials.password = password;
    return credentials;
}

Ssh::Ssh(const std::string& host, const std::string& login, const std::string& password,
         bool disableEncryption, unsigned short port)
    : Ssh(host, port, passwordOnly(login, password), disableEncryption) {}

Ssh::Ssh(const std::string& host, unsigned short port, const libssh2pp::Credentials& credentials,
         bool disableEncryption, std::chrono::milliseconds connectLimit) {
    addSecret(credentials.password);
    addSecret(credentials.passphrase);
    stoppable([&] { logIn(host, port, credentials, disableEncryption, connectLimit); });
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
    const long limitMs = envNumber("VANTREL_SSH_LOGIN_TIMEOUT", 1, kMaxLoginTimeoutSec, kDefaultLoginTimeoutSec) * 1000;
    const auto start = std::chrono::steady_clock::now();
    logger.debugStream() << "SSH handshake and authentication may take up to " << limitMs / 1000 << " s";
    // The session knows the peer by its address only: failures name it as
    // the caller did.
    enum class Mode { usual, compatibility };
    const auto startSession = [&](Mode mode, long timeoutMs) {
        try {
            session_.reset(new libssh2pp::Session(socket_->fd(), disableEncryption, mode == Mode::compatibility, timeoutMs));
        } catch (const Exc<&ConnectionTimedOut>&) {
            throw VELMO_EXC(ConnectionTimedOut) % host;
        } catch (const Exc<&ConnectionFault>&) {
            throw VELMO_EXC(ConnectionFault) % host % "the connection was lost during the SSH handshake";
        }
    };
    socket_.reset(new Socket(host, port, connectLimit));
    try {
        startSession(Mode::usual, limitMs);
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
        startSession(Mode::compatibility, limitMs - spentMs);
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

}  // namespace velmo
