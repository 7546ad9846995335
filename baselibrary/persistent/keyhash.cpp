#include "persistent/keyhash.h"

#include "core/byteorder.h"
#include "core/trace.h"
#include "persistent/bplustreelayout.h"

namespace Brevi {

void KeyHash::store(void* at) const
{
    unsigned char* bytes = static_cast<unsigned char*>(at);
    ByteOrder::store32(bytes, muiHash);
    ByteOrder::store32(bytes + BPlusTreeLayout::KeyHashSequenceOffset, muiSequence);
}

KeyHash KeyHash::load(const void* at)
{
    const unsigned char* bytes = static_cast<const unsigned char*>(at);
    return KeyHash(ByteOrder::load32(bytes), ByteOrder::load32(bytes + BPlusTreeLayout::KeyHashSequenceOffset));
}

Trace& operator<<(Trace& trace, const KeyHash& hash)
{
    trace << hex << hash.hash();
    trace << pack << ":";
    trace << pack << hash.sequence();
    return trace;
}

} // namespace Brevi
