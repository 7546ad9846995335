#include "core/sha1.h"

#include <openssl/evp.h>

#include <cstring>

namespace Brevi {

Sha1::Sha1()
    : mpContext(EVP_MD_CTX_new())
    , moDigest(DigestSize)
{
    reset();
}

Sha1::Sha1(const Sha1& other)
    : mpContext(EVP_MD_CTX_new())
    , moDigest(other.moDigest)
    , mbFinal(other.mbFinal)
{
    if (mpContext && other.mpContext)
        EVP_MD_CTX_copy_ex(mpContext, other.mpContext);
}

Sha1& Sha1::operator=(const Sha1& other)
{
    if (this != &other) {
        if (mpContext && other.mpContext)
            EVP_MD_CTX_copy_ex(mpContext, other.mpContext);
        moDigest = other.moDigest;
        mbFinal = other.mbFinal;
    }
    return *this;
}

Sha1::~Sha1() { EVP_MD_CTX_free(mpContext); }

void Sha1::reset()
{
    std::memset(moDigest.data(), 0, DigestSize);
    mbFinal = false;
    if (mpContext)
        EVP_DigestInit_ex(mpContext, EVP_sha1(), nullptr);
}

void Sha1::addData(const void* data, unsigned size)
{
    // A finished context takes no more data; the digest stands until reset().
    if (mbFinal || !mpContext || size == 0)
        return;
    EVP_DigestUpdate(mpContext, data, size);
}

const Extent& Sha1::result()
{
    if (!mbFinal) {
        unsigned length = 0;
        if (!mpContext || !EVP_DigestFinal_ex(mpContext, moDigest.data(), &length) || length != DigestSize)
            std::memset(moDigest.data(), 0, DigestSize);
        mbFinal = true;
    }
    return moDigest;
}

} // namespace Brevi
