#ifndef BASELIBRARY_PERSISTENT_NODE_H
#define BASELIBRARY_PERSISTENT_NODE_H

#include "core/byteorder.h"
#include "persistent/bplustree.h"
#include "persistent/bplustreelayout.h"
#include "persistent/keydata.h"
#include "persistent/keyhash.h"

#include <boost/shared_ptr.hpp>

namespace Brevi {

class Anchor;
class Blocks;
class Key;

// One node of a BPlusTree while an operation works on it: the block, held
// from the cache, and the tree's parameters (layout in
// persistent/bplustreelayout.h). Internal to BPlusTree.
//
// The node gives its block back when it is destroyed (flush()): to the free
// list if the free flag is set, otherwise returned to the cache, written if
// dirty. Every operation that changes the block, down to a single field, sets
// the dirty flag. Changes are made only inside a transaction of the block
// file: a node given back after its transaction has ended, committed or
// undone, has nothing left to write or free.
//
// Nothing here checks its arguments: BPlusTree validates a node when it reads
// it, and the algorithms keep slots and counts within the block.
class Node
{
public:
    Node(const boost::shared_ptr<Blocks>& blocks, quint64 id, void* data, const BPlusTreeLayout::Parameters& parameters,
         bool dirty);
    ~Node();
    Node(const Node&) = delete;
    Node& operator=(const Node&) = delete;

    quint64 id() const { return mullId; }
    unsigned char* data() const { return mpucData; }
    bool isDirty() const { return mbDirty; }
    void setDirty() { mbDirty = true; }
    // Its changes have been committed.
    void setClean() { mbDirty = false; }
    void setFree() { mbFree = true; }

    unsigned flags() const { return ByteOrder::load32(mpucData + BPlusTreeLayout::FlagsOffset); }
    bool isLeaf() const { return flags() & BPlusTreeLayout::FlagLeaf; }
    bool isRoot() const { return flags() & BPlusTreeLayout::FlagRoot; }
    void setRoot(bool root);
    unsigned entryCount() const { return ByteOrder::load32(mpucData + BPlusTreeLayout::CountOffset); }
    void setEntryCount(unsigned count)
    {
        ByteOrder::store32(mpucData + BPlusTreeLayout::CountOffset, count);
        mbDirty = true;
    }
    // Leaf: the next leaf to the right, 0 at the right edge.
    quint64 next() const { return ByteOrder::load64(mpucData + BPlusTreeLayout::NextOffset); }
    void setNext(quint64 id)
    {
        ByteOrder::store64(mpucData + BPlusTreeLayout::NextOffset, id);
        mbDirty = true;
    }

    // Leaf slot i or internal entry i.
    KeyHash keyHash(unsigned i) const { return KeyHash::load(mpucData + hashOffset(i)); }
    void setKeyHash(unsigned i, const KeyHash& hash)
    {
        hash.store(mpucData + hashOffset(i));
        mbDirty = true;
    }
    // Internal: child i.
    quint64 child(unsigned i) const { return ByteOrder::load64(mpucData + BPlusTreeLayout::entryChildOffset(i)); }
    void setChild(unsigned i, quint64 id)
    {
        ByteOrder::store64(mpucData + BPlusTreeLayout::entryChildOffset(i), id);
        mbDirty = true;
    }
    // Leaf: data offset and record size of slot i.
    unsigned dataOffset(unsigned i) const
    {
        return ByteOrder::load32(mpucData + BPlusTreeLayout::slotOffset(i) + BPlusTreeLayout::SlotDataOffset);
    }
    unsigned recordSize(unsigned i) const
    {
        return ByteOrder::load32(mpucData + BPlusTreeLayout::slotOffset(i) + BPlusTreeLayout::SlotRecordSizeOffset);
    }

    // The last slot whose KeyHash does not exceed `hash`, or 0; `iFindResult`
    // 0 for an exact match, otherwise 1 or -1 from the last comparison.
    unsigned findKey(int& iFindResult, const KeyHash& hash) const;
    // Internal: no room for one more entry. Leaf: no room for a record of
    // `size` bytes and its slot; a leaf with no records is never full.
    bool isFull(unsigned size) const;
    unsigned freeSpace() const { return freeSpace(entryCount()); }
    // Free bytes if the last slot were n.
    unsigned freeSpace(unsigned n) const { return dataOffset(n) - BPlusTreeLayout::SlotSize * n; }
    // Footprint of record i, slot included.
    unsigned keySize(unsigned i) const { return dataOffset(i - 1) - dataOffset(i) + BPlusTreeLayout::SlotSize; }
    unsigned spaceUsed() const
    {
        const unsigned n = entryCount();
        return dataOffset(0) - dataOffset(n) + BPlusTreeLayout::SlotSize * n;
    }
    // Whether the node may lose the entry at `slot` and stay within its bounds.
    bool canShrink(unsigned slot) const;
    // Whether a node whose last slot is n may lose its last entry.
    bool canShrinkAt(unsigned n) const;
    KeyData getData(unsigned slot) const
    {
        return KeyData(mpucData + BPlusTreeLayout::DataAreaOffset + dataOffset(slot), recordSize(slot));
    }

    void addEntry(const Key& key, unsigned slot);
    void addEntry(unsigned slot, const ChildEntry& entry);
    void removeEntry(unsigned slot);
    // Makes room: moves the records of slots first to last `bytes` towards
    // the block's start (towards its end when negative) and the table entries
    // `places` up.
    void pushEntries(unsigned first, unsigned last, unsigned places, int bytes = 0);
    // Closes the gap of the `places` entries before `first`.
    void pullEntries(unsigned first, unsigned last, unsigned places);
    void transferTo(Node& other, unsigned first, unsigned last, unsigned dest);
    void transferFrom(Node& other, unsigned first, unsigned last, unsigned dest);

    // Leaf split with `key` going in at `slot`; `entry` gets what the parent
    // is to add for `right`.
    void split(const Key& key, ChildEntry& entry, unsigned slot, Node& right);
    // Internal split with `entry` going in at `slot`; `entry` is overwritten
    // with what the parent is to add for `right`.
    void split(unsigned slot, ChildEntry& entry, Node& right);
    BPlusTree::DeleteResult mergeWithLeft(unsigned slot, Node& left, Anchor& anchor);
    BPlusTree::DeleteResult mergeWithRight(unsigned slot, Node& right, Anchor& anchor);
    void shiftFromLeft(unsigned slot, Node& left, Anchor& anchor);
    void shiftFromRight(unsigned slot, Node& right, Anchor& anchor);

    // Gives the block back; the destructor calls it.
    void flush();
    // Gives the block back and has the cache forget it, so that it is read
    // from the file, and checked, again next time.
    void discard();

private:
    unsigned hashOffset(unsigned i) const
    {
        return isLeaf() ? BPlusTreeLayout::slotOffset(i) + BPlusTreeLayout::SlotHashOffset
                        : BPlusTreeLayout::entryHashOffset(i);
    }
    void setSlot(unsigned i, const KeyHash& hash, unsigned offset, unsigned size);
    void setDataOffset(unsigned i, unsigned offset);
    // Entries first to last of `from` into `to` at `dest`, records included.
    static void copyEntries(const Node& from, unsigned first, unsigned last, Node& to, unsigned dest);
    void reduceCount(unsigned by);

    boost::shared_ptr<Blocks> mptBlocks;
    bool mbDirty;
    bool mbFree = false;
    quint64 mullId;
    unsigned muiFactor;
    unsigned muiMaximumEntries;
    unsigned muiDataSize;
    unsigned muiMaximumKeySize;
    unsigned char* mpucData;
};

} // namespace Brevi

#endif
