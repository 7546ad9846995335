#ifndef BASELIBRARY_PERSISTENT_BPLUSTREECHECK_H
#define BASELIBRARY_PERSISTENT_BPLUSTREECHECK_H

#include "brevi_export.h"
#include "persistent/bplustreelayout.h"

#include <QString>
#include <QStringList>

#include <vector>

namespace Brevi {

// What a check found in a B+ tree file.
struct BPlusTreeReport {
    // The control record, the header and the free list could be read.
    bool fileRead = false;
    // The header names a well-formed node flagged as the root: the file holds
    // a tree, whatever else is wrong with it.
    bool treeFound = false;
    unsigned blockSize = 0;
    quint64 totalBlockCount = 0;
    quint64 rootId = 0;
    // Levels, the root's included; 1 for a tree that is a single leaf.
    unsigned depth = 0;
    quint64 internalCount = 0;
    quint64 leafCount = 0;
    quint64 recordCount = 0;
    quint64 freeCount = 0;
    // The blocks neither reached from the root nor on the free list, all of
    // them, while `problems` lists only the first.
    std::vector<quint64> unreachedBlocks;
    // One line per fault; empty for a sound tree.
    QStringList problems;

    bool sound() const { return fileRead && problems.isEmpty(); }
};

// Read-only checks of B+ tree files (persistent/bplustreelayout.h), for tests
// and inspection tools. The file is opened read-only and read by its layout,
// not through BPlusTree, so that a fault in the tree's code cannot hide
// itself; it may be checked while a tree has it open, between operations.
class BREVI_EXPORT BPlusTreeCheck
{
public:
    // True when the tree is sound:
    // - the block file and its free list are sound (BlockFileCheck);
    // - the header names a root inside the file, flagged as root;
    // - every node is well formed (nodeProblem), with the root flag on the
    //   root alone and all leaves on one level;
    // - KeyHashes rise strictly within every node and fall inside the range
    //   that the separators above give; no stored sequence number is 0;
    // - a non-root internal node has from Factor - 1 to MaximumEntries
    //   entries, an internal root at least 1; a leaf other than the root at
    //   least one record;
    // - the leaves, chained by their next ids, are the tree's leaves left to
    //   right, the last one with next id 0;
    // - every block from 2 up to the total count is either reached from the
    //   root or on the free list, exactly once.
    static bool checkTreeFile(const QString& path, BPlusTreeReport& report);

    // Whether one node block can be worked on safely: flags, entry count
    // within the block, and, for a leaf, the sentinel and records packed from
    // the end of the block without overlapping the slots. Null when it can,
    // else what is wrong. BPlusTree calls this on every node it reads.
    static const char* nodeProblem(const unsigned char* block, const BPlusTreeLayout::Parameters& parameters);
};

} // namespace Brevi

#endif
