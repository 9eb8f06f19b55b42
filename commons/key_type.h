// The type of a private key file, read without its passphrase: OpenSSH's
// format keeps the public half in clear, PEM names RSA in its header, and
// PKCS#8 says it inside (in clear unless the file is encrypted).
#ifndef VANTREL_COMMONS_KEY_TYPE_H
#define VANTREL_COMMONS_KEY_TYPE_H

#include <string>

namespace velmo {

// True when the file holds an RSA key; false for any other key, or a file
// that cannot be read or understood.
bool isRsaKeyFile(const std::string& path);

// The same for a file's text.
bool isRsaKeyText(const std::string& text);

}  // namespace velmo

#endif
