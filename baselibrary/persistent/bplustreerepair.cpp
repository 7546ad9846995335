#include "persistent/bplustreerepair.h"

#include "persistent/blocks.h"
#include "persistent/bplustreecheck.h"
#include "persistent/journal.h"

namespace Brevi {

bool BPlusTreeRepair::reclaimLostBlocks(const QString& path, BPlusTreeRepairReport& report)
{
    report = BPlusTreeRepairReport();
    std::vector<JournalRecord> records;
    const unsigned pending = Journal::read(path, records);
    Blocks blocks(16);
    if (!blocks.open(path, 0, RawFile::eReadWrite)) {
        report.problems << (blocks.lockedElsewhere() ? QStringLiteral("the file is open elsewhere")
                                                     : QStringLiteral("the file cannot be opened as a block file"));
        return false;
    }
    report.replayed = pending;

    // The check reads the files on disk, which are whole now that the journal
    // has been written, and which this object holds locked.
    BPlusTreeReport check;
    BPlusTreeCheck::checkTreeFile(path, check);
    if (!check.fileRead) {
        report.problems << check.problems;
        return false;
    }
    // Lost blocks are listed after every other fault, so any other fault
    // is among the lines listed.
    for (const QString& problem : check.problems) {
        if (!problem.contains(QStringLiteral("neither in the tree nor free")) &&
            problem != QStringLiteral("more problems follow"))
            report.problems << problem;
    }
    if (!report.problems.isEmpty())
        return false;
    if (check.unreachedBlocks.empty())
        return true;

    if (!blocks.begin()) {
        report.problems << QStringLiteral("the file takes no changes");
        return false;
    }
    for (quint64 id : check.unreachedBlocks) {
        const void* block = blocks.getBlock(id);
        if (!block || !blocks.freeBlock(block)) {
            blocks.abort();
            report.problems << QStringLiteral("block %1 could not be freed").arg(id);
            return false;
        }
    }
    if (!blocks.commit() || !blocks.close()) {
        report.problems << QStringLiteral("the changes could not be written");
        return false;
    }
    report.reclaimed = check.unreachedBlocks;
    return true;
}

} // namespace Brevi
