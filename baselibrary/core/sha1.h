#ifndef BASELIBRARY_CORE_SHA1_H
#define BASELIBRARY_CORE_SHA1_H

#include "brevi_export.h"
#include "core/buffer.h"

struct evp_md_ctx_st;

namespace Brevi {

// A SHA-1 digest taken over data added in pieces.
//
//   Sha1 sha;
//   sha.addData(header);
//   sha.addData(body.data(), body.size());
//   const Extent& digest = sha.result(); // 20 bytes
//
// result() finishes the digest on its first call and gives the same 20 bytes
// until reset(); data added in between is ignored. A value type (a copy takes
// the state so far); an object belongs to one thread. Should the crypto
// library fail to set up, result() gives 20 zero bytes.
class BREVI_EXPORT Sha1
{
public:
    static const unsigned DigestSize = 20;

    // Ready to take data.
    Sha1();
    Sha1(const Sha1& other);
    Sha1& operator=(const Sha1& other);
    ~Sha1();

    // Starts a new digest.
    void reset();
    void addData(const void* data, unsigned size);
    // The Extent's whole view, whatever its cursor.
    void addData(const Extent& data) { addData(data.data(), data.size()); }
    // The digest, 20 bytes, valid while this object lives and is not reset.
    const Extent& result();

private:
    evp_md_ctx_st* mpContext;
    Buffer moDigest;
    bool mbFinal = false;
};

} // namespace Brevi

#endif
