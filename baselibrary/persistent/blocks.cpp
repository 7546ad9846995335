#include "persistent/blocks.h"

#include "core/byteorder.h"
#include "core/trace.h"
#include "persistent/blocklayout.h"

namespace Brevi {

namespace {
const unsigned TraceModule = TraceModuleBlocks;

// In synchronous mode the journal grows by one transaction per commit; past
// this many bytes the files are synced and it starts again from its front.
// Without syncing there is nothing to wait for, and it starts again at every
// commit.
const quint64 JournalRestartBytes = 1024 * 1024;
} // namespace

Blocks::Blocks(unsigned cacheSize)
    : moCache(cacheSize, true)
    , moFreeList(2)
{ }

Blocks::~Blocks() { close(); }

bool Blocks::create(
    const QString& path, unsigned blockSize, unsigned generationBits, quint64 growBytes, RawFile::Mode mode)
{
    if (moCache)
        close();
    mbLockedElsewhere = false;
    msShortName = path.mid(path.lastIndexOf('/') + 1);
    const quint64 idMask = BlockLayout::idMaskFor(generationBits);
    if (blockSize < BlockLayout::MinimumBlockSize) {
        BTRACE(TraceAlways) << msShortName << "Invalid block size must be greater that"
                            << BlockLayout::MinimumBlockSize;
        return false;
    }
    // With no bit left for the place, every id would land on block 0 and its
    // control record.
    if (idMask == 0) {
        BTRACE(TraceAlways) << msShortName << "Invalid generation bits" << generationBits;
        return false;
    }
    if (!moCache.create(path, blockSize, idMask, mode)) {
        BTRACE(TraceAlways) << msShortName << "Failed to create file" << path;
        return false;
    }
    if (!lockAndRecover(path, false))
        return false;
    BTRACE(TraceNormal) << msShortName << "Initialize file" << path << mode;
    muiControlBlockSize = blockSize;
    muiControlReserved = 0;
    mullControlIdMask = idMask;
    if (!moFreeList.create(path + BlockLayout::FreeListSuffix, idMask)) {
        BTRACE(TraceAlways) << msShortName << "Failed to create freelist file for" << path;
        moJournal.close();
        moCache.close();
        return false;
    }
    mullGrowStep = growBytes == 0 ? BlockLayout::CreateGrowBlocks : growBytes / blockSize;
    mullTotalBlockCount = 1;
    bool made = begin();
    if (mullGrowStep < 2) {
        mullGrowStep = 0;
    } else if (made) {
        // Never more blocks than the id mask can place apart.
        if (idMask != ~quint64(0) && mullGrowStep > idMask)
            mullGrowStep = idMask + 1;
        mullTotalBlockCount = mullGrowStep;
        made = extendTo(mullTotalBlockCount) && moFreeList.grow(BlockLayout::FirstBlock, mullGrowStep - 1);
    }
    made = made && flushControl();
    if (!made)
        abort();
    if (!made || !commit()) {
        close();
        return false;
    }
    return true;
}

bool Blocks::lockAndRecover(const QString& path, bool recover)
{
    if (!moCache.lock()) {
        mbLockedElsewhere = true;
        BTRACE(TraceAlways) << msShortName << "Block file is open elsewhere" << path;
        moCache.close();
        return false;
    }
    // A transaction the journal holds whole was committed, and may not have
    // reached its places when its process stopped: it is written again before
    // anything reads the files. A file made anew has nothing to recover.
    unsigned replayed = 0;
    if (!moJournal.open(path) ||
        !(recover ? moJournal.recover(synchronous(), replayed) : moJournal.empty(synchronous()))) {
        BTRACE(TraceAlways) << msShortName << "Failed to recover from journal" << path;
        moJournal.close();
        moCache.close();
        return false;
    }
    if (replayed)
        BTRACE(TraceNormal) << msShortName << "Recovered" << replayed << "transactions" << path;
    mbUnwritten = false;
    mullFileLength[JournalLayout::BlockFile] = mullFileLength[JournalLayout::FreeListFile] = 0;
    return true;
}

bool Blocks::open(const QString& path, quint64 growBytes, RawFile::Mode mode)
{
    if (moCache)
        close();
    mbLockedElsewhere = false;
    msShortName = path.mid(path.lastIndexOf('/') + 1);
    BTRACE(TraceNormal) << msShortName << "Open" << path << mode;
    // Always read-write, whatever the caller asked: every use of a block file
    // may free or make blocks.
    if (!moCache.open(path, RawFile::eReadWrite)) {
        BTRACE(TraceAlways) << msShortName << "Failed to open file" << path;
        return false;
    }
    if (!lockAndRecover(path, true))
        return false;
    if (!getControl()) {
        BTRACE(TraceAlways) << msShortName << "Failed to get control block" << path;
        moJournal.close();
        moCache.close();
        return false;
    }
    if (!moFreeList.open(path + BlockLayout::FreeListSuffix, mullControlIdMask)) {
        BTRACE(TraceAlways) << msShortName << "Failed to open freelist file for" << path;
        moJournal.close();
        moCache.close();
        return false;
    }
    mullGrowStep = growBytes == 0 ? BlockLayout::OpenGrowBlocks : growBytes / muiControlBlockSize;
    if (mullGrowStep == 1)
        mullGrowStep = 0;
    return true;
}

bool Blocks::getControl()
{
    unsigned char record[BlockLayout::ControlSize];
    if (!moCache.read(record, sizeof(record))) {
        BTRACE(TraceAlways) << msShortName << "Failed to read control record";
        return false;
    }
    const quint64 total = ByteOrder::load64(record + BlockLayout::ControlTotalCountOffset);
    const unsigned blockSize = ByteOrder::load32(record + BlockLayout::ControlBlockSizeOffset);
    const unsigned reserved = ByteOrder::load32(record + BlockLayout::ControlReservedOffset);
    const quint64 idMask = ByteOrder::load64(record + BlockLayout::ControlIdMaskOffset);
    // A record that no create could have written is not trusted with an
    // allocation or with the place of a write.
    if (blockSize < BlockLayout::MinimumBlockSize || blockSize > BlockLayout::MaximumBlockSize) {
        BTRACE(TraceAlways) << msShortName << "Invalid block size in control record" << blockSize;
        return false;
    }
    if (!BlockLayout::plausibleIdMask(idMask) || total == 0) {
        BTRACE(TraceAlways) << msShortName << "Invalid control record" << total << hex << idMask;
        return false;
    }
    if (!moCache.setBlockSize(blockSize, idMask))
        return false;
    mullTotalBlockCount = total;
    muiControlBlockSize = blockSize;
    muiControlReserved = reserved;
    mullControlIdMask = idMask;
    return true;
}

bool Blocks::flushControl()
{
    unsigned char record[BlockLayout::ControlSize];
    ByteOrder::store64(record + BlockLayout::ControlTotalCountOffset, mullTotalBlockCount);
    ByteOrder::store32(record + BlockLayout::ControlBlockSizeOffset, muiControlBlockSize);
    ByteOrder::store32(record + BlockLayout::ControlReservedOffset, muiControlReserved);
    ByteOrder::store64(record + BlockLayout::ControlIdMaskOffset, mullControlIdMask);
    return moCache.write(record, sizeof(record));
}

bool Blocks::extendTo(quint64 blocks)
{
    if (!moCache.truncate(blocks * muiControlBlockSize))
        return false;
    mullFileLength[JournalLayout::BlockFile] = blocks * muiControlBlockSize;
    return true;
}

bool Blocks::close()
{
    if (!moCache) {
        // A file opened and refused on the way is closed all the same.
        moJournal.close();
        moCache.close();
        return false;
    }
    if (mbInTransaction)
        abort();
    bool closed = true;
    if (!mbUnwritten) {
        closed = flushControl() && moFreeList.flushControl();
        // The journal may be emptied only once what it holds is on the disk.
        if (synchronous())
            closed = moCache.sync() && moFreeList.moCache.sync() && closed;
        closed = moJournal.empty(synchronous()) && closed;
    }
    moJournal.close();
    const bool cache = moCache.close();
    const bool freeList = moFreeList.close();
    return closed && cache && freeList;
}

bool Blocks::begin()
{
    if (!moCache) {
        BTRACE(TraceAlways) << msShortName << "No transaction on a closed block file";
        return false;
    }
    if (mbInTransaction) {
        BTRACE(TraceAlways) << msShortName << "Error: `!mbInTransaction' failed.";
        return false;
    }
    if (mbUnwritten) {
        BTRACE(TraceAlways) << msShortName << "Changes wait in the journal until the file is opened again";
        return false;
    }
    mbInTransaction = true;
    mbFailed = false;
    mullSavedTotalBlockCount = mullTotalBlockCount;
    mullSavedFreeCount = moFreeList.mullEntryCount;
    moCache.hold();
    moFreeList.moCache.hold();
    return true;
}

bool Blocks::hasChanges() const { return moCache.hasHeld() || moFreeList.moCache.hasHeld(); }

bool Blocks::commit()
{
    if (!mbInTransaction)
        return false;
    if (mbFailed) {
        BTRACE(TraceAlways) << msShortName << "Transaction undone: a change in it failed";
        abort();
        return false;
    }
    moChanges.clear();
    moCache.heldChanges(moChanges, JournalLayout::BlockFile);
    moFreeList.moCache.heldChanges(moChanges, JournalLayout::FreeListFile);
    if (moChanges.empty()) {
        mbInTransaction = false;
        moCache.writeHeld();
        moFreeList.moCache.writeHeld();
        return true;
    }
    if (mullTotalBlockCount != mullSavedTotalBlockCount) {
        // The extension of the file is not in the journal's bytes, and a
        // power loss may take it back: the journal says how long it was.
        JournalChange length;
        length.kind = JournalLayout::KindLength;
        length.offset = mullTotalBlockCount * muiControlBlockSize;
        moChanges.push_back(length);
    }
    if (!reserve()) {
        BTRACE(TraceAlways) << msShortName << "Transaction undone: the files cannot grow";
        abort();
        return false;
    }
    if (!moJournal.append(moChanges, synchronous())) {
        BTRACE(TraceAlways) << msShortName << "Transaction undone: the journal could not take it";
        abort();
        return false;
    }
    mbInTransaction = false;
    const bool blocks = moCache.writeHeld();
    const bool freeList = moFreeList.moCache.writeHeld();
    if (!blocks || !freeList) {
        // Committed all the same: the journal holds it whole. It is written
        // from there now, or else by the next open.
        unsigned replayed = 0;
        if (!moJournal.recover(synchronous(), replayed)) {
            BTRACE(TraceAlways) << msShortName << "Changes wait in the journal until the file is opened again";
            mbUnwritten = true;
        }
        return true;
    }
    if (!synchronous()) {
        moJournal.restart();
    } else if (moJournal.size() >= JournalRestartBytes) {
        // What the journal holds may be written over once it is on the disk
        // in its places.
        if (moCache.sync() && moFreeList.moCache.sync())
            moJournal.restart();
    }
    return true;
}

bool Blocks::reserve()
{
    quint64 needed[JournalLayout::FileCount] = {};
    for (const JournalChange& change : moChanges) {
        if (change.kind != JournalLayout::KindLength)
            needed[change.file] = qMax(needed[change.file], change.offset + change.length);
    }
    BlockCache* const caches[JournalLayout::FileCount] = {&moCache, &moFreeList.moCache};
    for (unsigned file = 0; file < JournalLayout::FileCount; ++file) {
        if (needed[file] <= mullFileLength[file])
            continue;
        const quint64 length = caches[file]->fileSize();
        if (length < needed[file] && !caches[file]->truncate(needed[file]))
            return false;
        mullFileLength[file] = qMax(length, needed[file]);
    }
    return true;
}

void Blocks::abort()
{
    if (!mbInTransaction)
        return;
    mbInTransaction = false;
    const bool blocks = moCache.dropHeld();
    const bool freeList = moFreeList.moCache.dropHeld();
    if (!blocks || !freeList)
        BTRACE(TraceAlways) << msShortName << "Blocks held could not all be read again after an undo";
    mullTotalBlockCount = mullSavedTotalBlockCount;
    moFreeList.mullEntryCount = mullSavedFreeCount;
}

const void* Blocks::getBlock(quint64 id) const
{
    if ((id & mullControlIdMask) == 0)
        return nullptr;
    return moCache.getBlock(id);
}

void* Blocks::getBlock(quint64 id)
{
    if ((id & mullControlIdMask) == 0)
        return nullptr;
    return moCache.getBlock(id);
}

bool Blocks::returnBlock(const void* block) const { return block && moCache.returnBlock(block, false); }

bool Blocks::returnBlock(const void* block, bool updated)
{
    if (!block)
        return false;
    if (!updated)
        return moCache.returnBlock(block, false);
    if (mbInTransaction)
        return noteResult(moCache.returnBlock(block, true));
    if (!begin()) {
        moCache.returnBlock(block, false);
        return false;
    }
    const bool returned = moCache.returnBlock(block, true);
    return commit() && returned;
}

bool Blocks::updateBlock(const void* block)
{
    if (!block)
        return false;
    if (mbInTransaction)
        return noteResult(moCache.updateBlock(block));
    if (!begin())
        return false;
    const bool updated = moCache.updateBlock(block);
    return commit() && updated;
}

void* Blocks::newBlock(quint64& id)
{
    if (mbInTransaction)
        return makeBlock(id);
    if (!begin())
        return nullptr;
    quint64 made = id;
    void* block = makeBlock(made);
    if (!block) {
        abort();
        return nullptr;
    }
    if (!commit()) {
        // Undone: the id is free again, and the caller gets no block.
        moCache.discardBlock(block);
        return nullptr;
    }
    id = made;
    return block;
}

void* Blocks::makeBlock(quint64& id)
{
    if (!moCache)
        return nullptr;
    quint64 freeId = 0;
    while (moFreeList.get(freeId)) {
        const quint64 place = freeId & mullControlIdMask;
        if (place != 0 && place < mullTotalBlockCount) {
            id = freeId;
            return moCache.newBlock(id);
        }
        // Block 0 or a place the file does not count: using it would write
        // over the control record or beyond the blocks. The entry is dropped.
        BTRACE(TraceAlways) << msShortName << "Invalid block id in free list" << freeId;
    }
    if ((mullTotalBlockCount & ~mullControlIdMask) != 0) {
        BTRACE(TraceAlways) << msShortName << "No more block ids" << mullTotalBlockCount;
        return nullptr;
    }
    const quint64 next = mullTotalBlockCount;
    if (mullGrowStep != 0) {
        quint64 step = mullGrowStep;
        if (mullControlIdMask != ~quint64(0) && step > mullControlIdMask + 1 - next)
            step = mullControlIdMask + 1 - next;
        // The file and the control record first, the free list last: a process
        // that stops in between loses the new ids rather than listing ids the
        // control record does not count.
        if (!extendTo(next + step))
            return nullptr;
        mullTotalBlockCount = next + step;
        flushControl();
        if (!moFreeList.grow(next + 1, step - 1))
            return nullptr;
    } else {
        mullTotalBlockCount = next + 1;
        flushControl();
    }
    id = next;
    return moCache.newBlock(id);
}

bool Blocks::freeBlock(const void* block)
{
    if (!block)
        return false;
    const bool own = !mbInTransaction;
    if (own && !begin()) {
        moCache.returnBlock(block, false);
        return false;
    }
    const quint64 id = moCache.freeBlock(block);
    const bool freed = id != 0 && moFreeList.put(id);
    if (!own)
        return noteResult(freed);
    if (!freed) {
        abort();
        return false;
    }
    return commit();
}

bool Blocks::noteResult(bool result)
{
    if (!result)
        mbFailed = true;
    return result;
}

bool Blocks::discardBlock(const void* block) { return block && moCache.discardBlock(block) != 0; }

bool Blocks::flush()
{
    const bool cache = moCache.flush();
    return moFreeList.flush() && cache;
}

quint64 Blocks::number(const void* block) const { return moCache.number(block); }

} // namespace Brevi
