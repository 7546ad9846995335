#ifndef BASELIBRARY_PERSISTENT_BPLUSTREEREPAIR_H
#define BASELIBRARY_PERSISTENT_BPLUSTREEREPAIR_H

#include "brevi_export.h"

#include <QString>
#include <QStringList>

#include <vector>

namespace Brevi {

// What a repair did, or why it did nothing.
struct BPlusTreeRepairReport {
    // Transactions the journal held whole, written again on opening.
    unsigned replayed = 0;
    // The blocks put back on the free list.
    std::vector<quint64> reclaimed;
    // Why nothing was changed: the file could not be opened, or the tree has
    // faults that reclaiming blocks does not mend. Empty after a repair.
    QStringList problems;
};

// Mends B+ tree files (persistent/bplustreelayout.h) that have lost blocks:
// blocks neither reached from the root nor on the free list, as a process of
// an earlier version left them when it stopped half way through an operation.
// For tools; the file must not be open elsewhere.
class BREVI_EXPORT BPlusTreeRepair
{
public:
    // Opens the file, which writes again what its journal holds, checks the
    // tree (BPlusTreeCheck) and puts every lost block back on the free list,
    // zeroed, in one transaction. True when the tree is sound afterwards.
    // Changes nothing, and says why in `report`, when the file is open
    // elsewhere or not readable, or when the check finds anything else wrong:
    // a block that no node reaches may still belong to a damaged part of the
    // tree.
    static bool reclaimLostBlocks(const QString& path, BPlusTreeRepairReport& report);
};

} // namespace Brevi

#endif
