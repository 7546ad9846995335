#ifndef TESTS_PERSISTENT_TREEWRITER_H
#define TESTS_PERSISTENT_TREEWRITER_H

#include <QtGlobal>

// What the tree writer (treewriter.cpp) and the crash test that kills it
// agree on: the keys, their hashes and their records' sizes.
namespace TreeWriter {

const quint32 IdSpace = 2000;

struct Entry {
    quint32 sequence;
    unsigned size;
    quint32 version;
};

// One key in five shares a hash with 39 others, enough for the records of
// one hash to span leaves; the rest share theirs with five or six.
inline quint32 hashOf(quint32 id) { return id % 5 == 0 ? 0x80000000u + id / 200 : (id % 331) * 2654435761u; }

// Mostly small records, some of a quarter of a 256-byte block.
inline unsigned recordSize(unsigned random) { return random % 8 ? 4 + random % 28 : 4 + random % 56; }

} // namespace TreeWriter

#endif
