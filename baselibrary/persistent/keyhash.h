#ifndef BASELIBRARY_PERSISTENT_KEYHASH_H
#define BASELIBRARY_PERSISTENT_KEYHASH_H

#include "brevi_export.h"

#include <QtGlobal>

namespace Brevi {

class Trace;

// The place of a record in a BPlusTree: the 32-bit hash of the record's key,
// as the Key computes it, and a sequence number that tells apart the records
// whose keys share one hash. Ordered by hash, then by sequence, both unsigned.
//
// Sequence 0 is never stored: a KeyHash with sequence 0 stands for "before
// every record of this hash", which is what a key that has not been placed yet
// carries. The tree gives sequence numbers from 1 upwards and reuses those of
// removed records.
class BREVI_EXPORT KeyHash
{
public:
    KeyHash() = default;
    explicit KeyHash(quint32 hash, quint32 sequence = 0)
        : muiHash(hash)
        , muiSequence(sequence)
    { }

    quint32 hash() const { return muiHash; }
    quint32 sequence() const { return muiSequence; }
    void setHash(quint32 hash) { muiHash = hash; }
    void setSequence(quint32 sequence) { muiSequence = sequence; }

    // The 8 bytes as they stand in a node: hash, then sequence, little-endian.
    void store(void* at) const;
    static KeyHash load(const void* at);

    // Both words as one number in the tree's order.
    quint64 orderValue() const { return (quint64(muiHash) << 32) | muiSequence; }

    bool operator==(const KeyHash& other) const { return orderValue() == other.orderValue(); }
    bool operator!=(const KeyHash& other) const { return orderValue() != other.orderValue(); }
    bool operator<(const KeyHash& other) const { return orderValue() < other.orderValue(); }
    bool operator<=(const KeyHash& other) const { return orderValue() <= other.orderValue(); }
    bool operator>(const KeyHash& other) const { return orderValue() > other.orderValue(); }
    bool operator>=(const KeyHash& other) const { return orderValue() >= other.orderValue(); }

private:
    quint32 muiHash = 0;
    quint32 muiSequence = 0;
};

// One entry of an internal node: the lowest KeyHash below a child, and the
// child's block id. A split hands one of these up to the parent.
struct ChildEntry {
    KeyHash oHash;
    quint64 ullChild = 0;
};

// Writes "hash:sequence", the hash in hex.
BREVI_EXPORT Trace& operator<<(Trace& trace, const KeyHash& hash);

} // namespace Brevi

#endif
