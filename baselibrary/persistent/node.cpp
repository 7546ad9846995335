#include "persistent/node.h"

#include "core/trace.h"
#include "persistent/anchor.h"
#include "persistent/blocks.h"
#include "persistent/key.h"

#include <cstring>

namespace Brevi {

namespace {
const unsigned TraceModule = TraceModuleBPlusTree;
}

using namespace BPlusTreeLayout;

Node::Node(const boost::shared_ptr<Blocks>& blocks, quint64 id, void* data, const Parameters& parameters, bool dirty)
    : mptBlocks(blocks)
    , mbDirty(dirty)
    , mullId(id)
    , muiFactor(parameters.factor)
    , muiMaximumEntries(parameters.maximumEntries)
    , muiDataSize(parameters.dataSize)
    , muiMaximumKeySize(parameters.maximumKeySize)
    , mpucData(static_cast<unsigned char*>(data))
{}

Node::~Node() { flush(); }

void Node::flush()
{
    if (!mpucData)
        return;
    const bool changing = mptBlocks->inTransaction();
    if (mbFree && changing)
        mptBlocks->freeBlock(mpucData);
    else
        mptBlocks->returnBlock(mpucData, mbDirty && changing);
    mpucData = nullptr;
}

void Node::discard()
{
    if (!mpucData)
        return;
    mptBlocks->discardBlock(mpucData);
    mpucData = nullptr;
}

void Node::setRoot(bool root)
{
    const unsigned value = root ? (flags() | FlagRoot) : (flags() & ~FlagRoot);
    ByteOrder::store32(mpucData + FlagsOffset, value);
    mbDirty = true;
}

void Node::setSlot(unsigned i, const KeyHash& hash, unsigned offset, unsigned size)
{
    unsigned char* slot = mpucData + slotOffset(i);
    hash.store(slot + SlotHashOffset);
    ByteOrder::store32(slot + SlotDataOffset, offset);
    ByteOrder::store32(slot + SlotRecordSizeOffset, size);
}

void Node::setDataOffset(unsigned i, unsigned offset)
{
    ByteOrder::store32(mpucData + slotOffset(i) + SlotDataOffset, offset);
}

void Node::reduceCount(unsigned by)
{
    const unsigned n = entryCount();
    setEntryCount(n > by ? n - by : 0);
}

unsigned Node::findKey(int& iFindResult, const KeyHash& hash) const
{
    // Leaf places and internal entries are both 16 bytes apart; only where the
    // table starts differs.
    const unsigned char* table = mpucData + (isLeaf() ? slotOffset(0) + SlotHashOffset : entryHashOffset(0));
    const quint64 value = hash.orderValue();
    unsigned low = 1;
    unsigned high = entryCount();
    unsigned slot = 0;
    iFindResult = 1;
    while (low <= high) {
        slot = (low + high) >> 1;
        const quint64 entry = orderValue(table + SlotSize * slot);
        if (value < entry) {
            high = slot - 1;
            iFindResult = -1;
        } else if (value > entry) {
            low = slot + 1;
            iFindResult = 1;
        } else {
            iFindResult = 0;
            break;
        }
    }
    if (iFindResult < 0)
        --slot;
    return slot;
}

bool Node::isFull(unsigned size) const
{
    const unsigned n = entryCount();
    if (!isLeaf())
        return n >= muiMaximumEntries;
    if (!n)
        return false;
    return freeSpace(n) < roundRecord(size) + SlotSize;
}

bool Node::canShrinkAt(unsigned n) const
{
    if (isRoot())
        return n > 1;
    if (!isLeaf())
        return n >= muiFactor;
    if (n < 2)
        return false;
    const unsigned free = freeSpace(n);
    return free < muiMaximumKeySize && keySize(n) <= muiMaximumKeySize - free;
}

bool Node::canShrink(unsigned slot) const
{
    const unsigned n = entryCount();
    if (isRoot())
        return n > 1;
    if (!isLeaf())
        return n >= muiFactor;
    if (n < 2 || !slot)
        return false;
    const unsigned free = freeSpace(n);
    return free < muiMaximumKeySize && keySize(slot) <= muiMaximumKeySize - free;
}

void Node::addEntry(const Key& key, unsigned slot)
{
    const unsigned size = key.size();
    const unsigned rounded = roundRecord(size);
    const unsigned n = entryCount();
    pushEntries(slot, n, 1, int(rounded));
    setEntryCount(n + 1);
    const unsigned offset = dataOffset(slot - 1) - rounded;
    setSlot(slot, key.hash(), offset, size);
    KeyData data(mpucData + DataAreaOffset + offset, size);
    key.store(data);
    mbDirty = true;
}

void Node::addEntry(unsigned slot, const ChildEntry& entry)
{
    const unsigned n = entryCount();
    pushEntries(slot, n, 1);
    setKeyHash(slot, entry.oHash);
    setChild(slot, entry.ullChild);
    setEntryCount(n + 1);
    mbDirty = true;
}

void Node::removeEntry(unsigned slot)
{
    pullEntries(slot + 1, entryCount(), 1);
    reduceCount(1);
    mbDirty = true;
}

void Node::pushEntries(unsigned first, unsigned last, unsigned places, int bytes)
{
    if (first > last)
        return;
    mbDirty = true;
    if (!isLeaf()) {
        if (places)
            std::memmove(mpucData + entryHashOffset(first + places), mpucData + entryHashOffset(first),
                         EntrySize * (last - first + 1));
        return;
    }
    if (bytes) {
        const unsigned start = dataOffset(last);
        const unsigned end = dataOffset(first) + roundRecord(recordSize(first));
        unsigned char* records = mpucData + DataAreaOffset;
        std::memmove(records + (qint64(start) - bytes), records + start, end - start);
    }
    if (places)
        std::memmove(mpucData + slotOffset(first + places), mpucData + slotOffset(first),
                     SlotSize * (last - first + 1));
    if (bytes) {
        for (unsigned i = first + places; i <= last + places; ++i)
            setDataOffset(i, unsigned(qint64(dataOffset(i)) - bytes));
    }
}

void Node::pullEntries(unsigned first, unsigned last, unsigned places)
{
    if (first > last || !places)
        return;
    mbDirty = true;
    if (!isLeaf()) {
        std::memmove(mpucData + entryHashOffset(first - places), mpucData + entryHashOffset(first),
                     EntrySize * (last - first + 1));
        return;
    }
    // The gap is what the removed records took: from the end of the first of
    // them down to the end of the first record that stays.
    const unsigned gapTop = dataOffset(first - places) + roundRecord(recordSize(first - places));
    const unsigned gapBottom = dataOffset(first - 1);
    const unsigned bytes = gapTop - gapBottom;
    if (bytes) {
        const unsigned start = dataOffset(last);
        unsigned char* records = mpucData + DataAreaOffset;
        std::memmove(records + start + bytes, records + start, gapBottom - start);
    }
    std::memmove(mpucData + slotOffset(first - places), mpucData + slotOffset(first), SlotSize * (last - first + 1));
    if (bytes) {
        for (unsigned i = first - places; i <= last - places; ++i)
            setDataOffset(i, dataOffset(i) + bytes);
    }
}

void Node::copyEntries(const Node& from, unsigned first, unsigned last, Node& to, unsigned dest)
{
    const unsigned count = last - first + 1;
    if (!from.isLeaf()) {
        std::memcpy(to.mpucData + entryHashOffset(dest), from.mpucData + entryHashOffset(first), EntrySize * count);
        return;
    }
    // The records of a run of places lie together; they go below the record
    // of the slot before `dest`, and their offsets follow them.
    const unsigned start = from.dataOffset(last);
    const unsigned end = from.dataOffset(first) + roundRecord(from.recordSize(first));
    const unsigned destinationEnd = to.dataOffset(dest - 1);
    const unsigned bytes = end - start;
    std::memcpy(to.mpucData + DataAreaOffset + destinationEnd - bytes, from.mpucData + DataAreaOffset + start, bytes);
    for (unsigned i = 0; i < count; ++i) {
        const unsigned offset = from.dataOffset(first + i) + destinationEnd - end;
        to.setSlot(dest + i, from.keyHash(first + i), offset, from.recordSize(first + i));
    }
}

void Node::transferTo(Node& other, unsigned first, unsigned last, unsigned dest)
{
    if (first > last)
        return;
    const unsigned count = last - first + 1;
    copyEntries(*this, first, last, other, dest);
    reduceCount(count);
    // A fresh node's entry 0 already counts.
    other.setEntryCount(other.entryCount() + (dest ? count : count - 1));
    mbDirty = true;
    other.mbDirty = true;
}

void Node::transferFrom(Node& other, unsigned first, unsigned last, unsigned dest)
{
    if (first > last)
        return;
    const unsigned count = last - first + 1;
    copyEntries(other, first, last, *this, dest);
    other.reduceCount(count);
    setEntryCount(entryCount() + count);
    mbDirty = true;
    other.mbDirty = true;
}

void Node::split(const Key& key, ChildEntry& entry, unsigned slot, Node& right)
{
    BTRACE(TraceDebug) << "IN:split" << mullId << "slot" << slot;
    right.setNext(next());
    setNext(right.id());

    const unsigned n = entryCount();
    unsigned used = 0;
    unsigned i = 1;
    bool keyGoesRight = false;
    while (i < slot) {
        used += keySize(i);
        if (used >= muiMaximumKeySize) {
            keyGoesRight = true;
            break;
        }
        ++i;
    }
    if (keyGoesRight) {
        // The records before the key already reach the split size: they stay,
        // and the key goes right in its order.
        BTRACE(TraceDebug) << "Put key in right sibling";
        transferTo(right, i + 1, slot - 1, 1);
        right.addEntry(key, right.entryCount() + 1);
        transferTo(right, slot, n, right.entryCount() + 1);
    } else {
        unsigned need = used + roundRecord(key.size()) + SlotSize;
        while (need < muiMaximumKeySize && i < n) {
            need += keySize(i);
            if (need >= muiMaximumKeySize)
                break;
            ++i;
        }
        transferTo(right, i, n, 1);
        addEntry(key, slot);
    }
    entry.oHash = right.keyHash(1);
    entry.ullChild = right.id();
    mbDirty = true;
    BTRACE(TraceDebug) << "OUT:split ," << entryCount() << right.entryCount();
}

void Node::split(unsigned slot, ChildEntry& entry, Node& right)
{
    BTRACE(TraceDebug) << "IN:split" << mullId << "slot" << slot;
    const unsigned factor = muiFactor;
    const unsigned n = entryCount();
    if (slot > factor) {
        transferTo(right, slot, n, slot - factor);
        const unsigned index = slot - factor - 1;
        right.setKeyHash(index, entry.oHash);
        right.setChild(index, entry.ullChild);
        if (index)
            right.setEntryCount(right.entryCount() + 1);
        transferTo(right, factor + 1, slot - 1, 0);
    } else {
        transferTo(right, factor, n, 0);
        addEntry(slot, entry);
    }
    // Right's entry 0 keeps its KeyHash, which takes no part in searches
    // there, and hands it up as the separator.
    entry.oHash = right.keyHash(0);
    entry.ullChild = right.id();
    mbDirty = true;
    right.mbDirty = true;
    BTRACE(TraceDebug) << "OUT:split ," << entryCount() << right.entryCount();
}

BPlusTree::DeleteResult Node::mergeWithLeft(unsigned slot, Node& left, Anchor& anchor)
{
    BTRACE(TraceDebug) << "IN:mergeWithLeft" << mullId << "slot" << slot << "left" << left.id();
    const unsigned n = entryCount();
    if (isLeaf()) {
        if (left.freeSpace() < spaceUsed() - keySize(slot)) {
            // The records do not fit; the node stays, one record short.
            removeEntry(slot);
            return BPlusTree::eDeleteDone;
        }
        left.setNext(next());
        transferTo(left, 1, slot - 1, left.entryCount() + 1);
    } else if (!slot) {
        transferTo(left, 1, n, left.entryCount() + 1);
        return BPlusTree::eDeleteMergedLeft;
    } else {
        KeyHash separator;
        if (!anchor.getKey(separator)) {
            BTRACE(TraceAlways) << "Error: `bGotAnchorKey' failed.";
            return BPlusTree::eDeleteMergedLeft;
        }
        setKeyHash(0, separator);
        transferTo(left, 0, slot - 1, left.entryCount() + 1);
    }
    reduceCount(1);
    transferTo(left, slot + 1, n, left.entryCount() + 1);
    return BPlusTree::eDeleteMergedLeft;
}

BPlusTree::DeleteResult Node::mergeWithRight(unsigned slot, Node& right, Anchor& anchor)
{
    BTRACE(TraceDebug) << "IN:mergeWithRight" << mullId << "slot" << slot << "right" << right.id();
    removeEntry(slot);
    if (isLeaf()) {
        if (freeSpace() < right.spaceUsed())
            return BPlusTree::eDeleteDone;
        setNext(right.next());
        transferFrom(right, 1, right.entryCount(), entryCount() + 1);
        return BPlusTree::eDeleteMergedRight;
    }
    KeyHash separator;
    if (!anchor.getKey(separator)) {
        BTRACE(TraceAlways) << "Error: `bGotAnchorKey' failed.";
        return BPlusTree::eDeleteMergedRight;
    }
    right.setKeyHash(0, separator);
    transferFrom(right, 0, right.entryCount(), entryCount() + 1);
    return BPlusTree::eDeleteMergedRight;
}

void Node::shiftFromLeft(unsigned slot, Node& left, Anchor& anchor)
{
    BTRACE(TraceDebug) << "IN:shitftFromLeft" << mullId << "slot" << slot << "left" << left.id();
    bool moved = false;
    if (isLeaf()) {
        // Take records from the end of the left node while that evens the two
        // out by bytes and leaves the left node within its bounds.
        const unsigned deleted = keySize(slot);
        unsigned free = freeSpace() + deleted;
        unsigned leftFree = left.freeSpace();
        const unsigned leftLast = left.entryCount();
        unsigned i = leftLast;
        while (left.canShrinkAt(i) && free > leftFree) {
            const unsigned size = left.keySize(i);
            if (size > free)
                break;
            leftFree += size;
            free -= size;
            --i;
        }
        if (i == leftLast) {
            removeEntry(slot);
        } else {
            const unsigned count = leftLast - i;
            const unsigned transfer = left.dataOffset(i) - left.dataOffset(leftLast);
            pushEntries(slot + 1, entryCount(), count - 1, int(transfer) - int(deleted) + int(SlotSize));
            reduceCount(1);
            pushEntries(1, slot - 1, count, int(transfer));
            transferFrom(left, i + 1, leftLast, 1);
            moved = true;
        }
        if (entryCount())
            anchor.setKey(keyHash(1));
    } else {
        const unsigned c = entryCount();
        const unsigned l = left.entryCount();
        const unsigned shift = l > c ? (l - c + 1) >> 1 : 0;
        if (!shift) {
            removeEntry(slot);
            // Entry 0's KeyHash is real only when it came from entry 1.
            moved = !slot;
        } else if (slot) {
            pushEntries(slot + 1, c, shift - 1);
            reduceCount(1);
            KeyHash separator;
            if (anchor.getKey(separator)) {
                setKeyHash(0, separator);
                pushEntries(0, slot - 1, shift);
            } else {
                BTRACE(TraceAlways) << "Error: `bGotAnchorKey' failed.";
            }
            transferFrom(left, l - shift + 1, l, 0);
            moved = true;
        } else {
            pushEntries(1, c, shift - 1);
            reduceCount(1);
            transferFrom(left, l - shift + 1, l, 0);
            moved = true;
        }
        if (moved)
            anchor.setKey(keyHash(0));
    }
    mbDirty = true;
    left.mbDirty = true;
}

void Node::shiftFromRight(unsigned slot, Node& right, Anchor& anchor)
{
    BTRACE(TraceDebug) << "IN:shiftFromRight" << mullId << "slot" << slot << "right" << right.id();
    removeEntry(slot);
    if (isLeaf()) {
        unsigned free = freeSpace();
        unsigned rightFree = right.freeSpace();
        const unsigned rightLast = right.entryCount();
        unsigned i = 1;
        // The right node keeps at least one record; within its bounds it
        // always does, and a damaged one is not emptied.
        while (rightFree < muiMaximumKeySize && free > rightFree && i < rightLast) {
            const unsigned size = right.keySize(i);
            if (size > free)
                break;
            ++i;
            rightFree += size;
            free -= size;
        }
        const unsigned n = i - 1;
        if (n) {
            transferFrom(right, 1, n, entryCount() + 1);
            right.pullEntries(n + 1, rightLast, n);
        }
        if (right.entryCount())
            anchor.setKey(right.keyHash(1));
    } else {
        const unsigned c = entryCount();
        const unsigned r = right.entryCount();
        const unsigned n = r > c ? (r - c) >> 1 : 0;
        if (n) {
            KeyHash separator;
            if (anchor.getKey(separator)) {
                right.setKeyHash(0, separator);
                transferFrom(right, 0, n - 1, c + 1);
                right.pullEntries(n, r, n);
                anchor.setKey(right.keyHash(0));
            } else {
                BTRACE(TraceAlways) << "Error: `bGotAnchorKey' failed.";
            }
        }
    }
    mbDirty = true;
    right.mbDirty = true;
}

} // namespace Brevi
