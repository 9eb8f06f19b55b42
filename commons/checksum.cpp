#include "commons/checksum.h"

#include <cstdio>
#include <memory>

#include <openssl/evp.h>

#include "commons/exceptions.h"

namespace velmo {

std::string countMd5Sum(std::istream& in) {
    std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX*)> ctx(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    if (!ctx) throw VELMO_EXC(InvalidHandle);
    EVP_DigestInit(ctx.get(), EVP_md5());

    char buffer[4096];
    while (in.good()) {
        in.read(buffer, sizeof buffer);
        if ((in.fail() || in.bad()) && !in.eof()) throw VELMO_EXC(StreamRead);
        EVP_DigestUpdate(ctx.get(), buffer, static_cast<size_t>(in.gcount()));
    }
    if (!in.eof()) throw VELMO_EXC(StreamRead);

    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_DigestFinal(ctx.get(), digest, &length);
    std::string hex;
    char two[3];
    for (unsigned int i = 0; i < length; ++i) {
        std::snprintf(two, sizeof two, "%02x", digest[i]);
        hex += two;
    }
    return hex;
}

}  // namespace velmo
