// The source host's key, pinned per migration: the first run of a session
// records it in the session directory, every later run compares it right
// after the handshake, before a password goes out. A key the controlling
// process already knows comes in KVA_HOST_KEY and is checked on the first
// run too.
#ifndef VANTREL_COMMONS_HOST_KEY_H
#define VANTREL_COMMONS_HOST_KEY_H

#include <string>

#include <libssh2.h>

namespace velmo {

// The environment variable with the fingerprint the host must show.
extern const char* const HOST_KEY_VARIABLE;

// The type of the session's host key as OpenSSH names it ("ssh-ed25519") and
// its SHA-256 fingerprint in OpenSSH's form ("SHA256:" and unpadded base64).
struct HostKey {
    std::string type;
    std::string fingerprint;
};
HostKey hostKeyOf(LIBSSH2_SESSION* session);

// Checks key against KVA_HOST_KEY and against the session's pin, and pins it
// when the session has none. A different key gives Exc<&HostKeyMismatch>; a
// malformed KVA_HOST_KEY, or a pin that cannot be read or understood, gives
// Exc<&BadHostKeyPin>. Without a session directory only KVA_HOST_KEY counts.
void checkHostKey(const std::string& host, const HostKey& key);

}  // namespace velmo

#endif
