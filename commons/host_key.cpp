#include "commons/host_key.h"

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include <sys/stat.h>
#include <unistd.h>

#include <openssl/evp.h>
#include <log4cpp/Category.hh>

#include "commons/commons.h"
#include "commons/exceptions.h"
#include "commons/local_files.h"
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
    const Directory& dir = theSession->directory();
    Fd file = dir.openRegular(session_names::HOST_KEY);
    if (file) {
        char text[512];
        const ssize_t length = ::read(file.get(), text, sizeof text - 1);
        std::istringstream in(std::string(text, length > 0 ? static_cast<std::size_t>(length) : 0));
        std::string type, fingerprint, rest;
        std::getline(in, rest);
        std::istringstream line(rest);
        line >> type >> fingerprint;
        if (length < 0 || !isFingerprint(fingerprint) || (line >> rest))
            throw VELMO_EXC(BadHostKeyPin) % host % pin % "not a line \"<key type> SHA256:...\"";
        if (key.fingerprint != fingerprint)
            throw VELMO_EXC(HostKeyMismatch) % host % (type + " " + fingerprint) % (key.type + " " + key.fingerprint);
        return;
    }
    struct stat st;
    if (dir.lstat(session_names::HOST_KEY, st))
        throw VELMO_EXC(BadHostKeyPin) % host % pin %
            (S_ISREG(st.st_mode) ? std::strerror(errno) : "it is not a plain file (a link is not followed)");
    if (errno != ENOENT) throw VELMO_EXC(BadHostKeyPin) % host % pin % std::strerror(errno);
    NewFile out(dir, session_names::HOST_KEY, 0640);
    out.write(key.type + " " + key.fingerprint + "\n");
    out.commit();
    keyLog.noticeStream() << "Pinned the host key of " << host << " in " << pin;
}

}  // namespace velmo
