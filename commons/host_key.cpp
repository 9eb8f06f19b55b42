#include "commons/host_key.h"

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include <openssl/evp.h>
#include <log4cpp/Category.hh>

#include "commons/commons.h"
#include "commons/exceptions.h"
#include "commons/session.h"

namespace velmo {

namespace {

log4cpp::Category& keyLog = log4cpp::Category::getInstance("p.libssh2pp.Session");

const char* typeName(int type) {
    switch (type) {
        case LIBSSH2_HOSTKEY_TYPE_RSA: return "ssh-rsa";
        case LIBSSH2_HOSTKEY_TYPE_DSS: return "ssh-dss";
        case LIBSSH2_HOSTKEY_TYPE_ECDSA_256: return "ecdsa-sha2-nistp256";
        case LIBSSH2_HOSTKEY_TYPE_ECDSA_384: return "ecdsa-sha2-nistp384";
        case LIBSSH2_HOSTKEY_TYPE_ECDSA_521: return "ecdsa-sha2-nistp521";
        case LIBSSH2_HOSTKEY_TYPE_ED25519: return "ssh-ed25519";
        default: return "unknown";
    }
}

// "SHA256:" and 43 characters of unpadded base64.
bool isFingerprint(const std::string& text) {
    if (text.size() != 50 || text.compare(0, 7, "SHA256:") != 0) return false;
    for (std::size_t i = 7; i < text.size(); ++i) {
        const char c = text[i];
        if (!std::isalnum(static_cast<unsigned char>(c)) && c != '+' && c != '/') return false;
    }
    return true;
}

}  // namespace

const char* const HOST_KEY_VARIABLE = "KVA_HOST_KEY";

HostKey hostKeyOf(LIBSSH2_SESSION* session) {
    HostKey key;
    size_t length = 0;
    int type = LIBSSH2_HOSTKEY_TYPE_UNKNOWN;
    libssh2_session_hostkey(session, &length, &type);
    key.type = typeName(type);
    const unsigned char* hash =
        reinterpret_cast<const unsigned char*>(libssh2_hostkey_hash(session, LIBSSH2_HOSTKEY_HASH_SHA256));
    if (hash == nullptr) return key;
    unsigned char text[64];
    const int n = EVP_EncodeBlock(text, hash, 32);
    std::string encoded(reinterpret_cast<const char*>(text), static_cast<std::size_t>(n));
    while (!encoded.empty() && encoded.back() == '=') encoded.pop_back();
    key.fingerprint = "SHA256:" + encoded;
    return key;
}

void checkHostKey(const std::string& host, const HostKey& key) {
    keyLog.noticeStream() << "Host key of " << host << ": " << key.type << " " << key.fingerprint;
    if (const char* given = std::getenv(HOST_KEY_VARIABLE)) {
        if (!isFingerprint(given))
            throw VELMO_EXC(BadHostKeyPin) % host % HOST_KEY_VARIABLE % "not a fingerprint of the form SHA256:...";
        if (key.fingerprint != given) throw VELMO_EXC(HostKeyMismatch) % host % given % key.fingerprint;
    }
    if (theSession == nullptr) return;

    const std::string pin = theSession->getHostKeyFileName();
    std::ifstream in(pin.c_str());
    if (in.is_open()) {
        std::string type, fingerprint, rest;
        std::getline(in, rest);
        std::istringstream line(rest);
        line >> type >> fingerprint;
        if (in.bad() || !isFingerprint(fingerprint) || (line >> rest))
            throw VELMO_EXC(BadHostKeyPin) % host % pin % "not a line \"<key type> SHA256:...\"";
        if (key.fingerprint != fingerprint)
            throw VELMO_EXC(HostKeyMismatch) % host % (type + " " + fingerprint) % (key.type + " " + key.fingerprint);
        return;
    }
    if (errno != ENOENT) throw VELMO_EXC(BadHostKeyPin) % host % pin % std::strerror(errno);
    {
        std::ofstream out(pin.c_str(), std::ios::out | std::ios::trunc);
        out << key.type << " " << key.fingerprint << "\n";
        if (!out.flush()) throw VELMO_EXC(FileWrite) % pin % std::strerror(errno);
    }
    handToAdmin(pin);
    keyLog.noticeStream() << "Pinned the host key of " << host << " in " << pin;
}

}  // namespace velmo
