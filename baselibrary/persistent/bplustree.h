#ifndef BASELIBRARY_PERSISTENT_BPLUSTREE_H
#define BASELIBRARY_PERSISTENT_BPLUSTREE_H

#include "brevi_export.h"
#include "core/operatorboolgenerator.h"
#include "persistent/blocks.h"
#include "persistent/bplustreelayout.h"
#include "persistent/key.h"

#include <QList>
#include <QString>

#include <boost/shared_ptr.hpp>

#include <optional>
#include <vector>

namespace Brevi {

class Anchor;
class Node;

// A persistent B+ tree of variable-size records in a block file (layout in
// persistent/bplustreelayout.h).
//
// Records are found by KeyHash: the 32-bit hash of the record's key and a
// sequence number that the tree gives to tell apart the records of one hash.
// The caller derives a Key that knows the record's format, its hash and its
// equality; the tree stores what the Key writes. insert() places a key and
// gives it its final KeyHash; later find(const Key&), update() and remove() go
// straight to that place, while find(Key&) looks a key up by hash and equality
// alone and loads the record into it.
//
// Each insert(), update() and remove() is one transaction of the block file
// (persistent/blocks.h): everything it changes (nodes, header, the file's
// control record and free list) reaches the file together before it returns
// true, or not at all. An operation that returns false has changed nothing,
// in the file or in memory, whatever stopped it: an equal record, a write or
// an extension of the file refused, a damaged node met half way. A process
// killed at any moment leaves a tree that opens whole, with every operation
// that returned true; with setDurability(Blocks::eSynchronous) that holds
// for a power loss as well, at the price of a wait for the disk per
// operation. Between operations the tree holds only its header block and its
// root node.
//
// One opener at a time: a second open() or create() of a file that a tree
// (or a Blocks) holds open, in this process or another, fails with eInUse.
//
// Failure: false, and lastError() tells why (Result); each failure is also
// traced at TraceAlways. lastError() is not reset by a later success of
// insert() or find(): it tells what the last failure was. A damaged file gives
// eFileError, never a crash.
//
// One thread at a time; nothing locks. A copy shares the open tree with its
// original (block file, header and root), so each sees the other's changes;
// copies are not to be used at the same time either. close(), create() and
// open() on one copy leave the others with the tree they had, and the file is
// closed when the last copy lets go of it.
class BREVI_EXPORT BPlusTree
{
public:
    enum Result {
        eSuccess = 0,
        // insert(): a record equal to the key is already in the tree.
        eDuplicate = 1,
        eNotFound = 2,
        eNotOpen = 3,
        // update(): the record's size differs from the stored one.
        eSizeMismatch = 4,
        // A node could not be read, written or allocated, or is not well
        // formed.
        eFileError = 5,
        // insert(): the record is larger than maximumKeySize().
        eTooLarge = 6,
        // create(), open(): another opener holds the file.
        eInUse = 7
    };
    enum InsertResult { eInsertDone = 0, eInsertSplit = 1, eInsertRetry = 2, eInsertFailed = 3 };
    enum DeleteResult { eDeleteDone = 0, eDeleteMergedLeft = 1, eDeleteMergedRight = 2 };

    // `cacheSize` blocks are kept in memory between operations.
    explicit BPlusTree(unsigned cacheSize = 1024);
    BPlusTree(const BPlusTree& other);
    BPlusTree& operator=(const BPlusTree& other);
    // Writes the header and releases everything; the last copy closes the file.
    ~BPlusTree();

    // Makes a new, empty tree in `path` (and `path`.free). `blockSize` is at
    // least BPlusTreeLayout::MinimumBlockSize; 4096 suits most records.
    bool create(const QString& path, unsigned blockSize);
    // Opens an existing tree, after writing again the last operation of a
    // process that stopped half way through it. A header without a root, or a
    // root that is not a well-formed node, is refused.
    bool open(const QString& path);
    bool close();
    // What a true result of insert(), update() and remove() survives; takes
    // effect at once and lasts across opens. Blocks::eProcessSafe at first.
    void setDurability(Blocks::Durability durability);

    // Places a new record. On success `key` holds its final KeyHash. Fails with
    // eDuplicate when an equal record is there.
    bool insert(Key& key);
    // Looks up a record by the key's hash and equal(); on success load()s it
    // into `key` and gives the key its KeyHash (setHash). Not finding it is no
    // error. Note that a non-const key picks this overload.
    bool find(Key& key);
    // Whether the record at the key's full KeyHash is there. Not finding it is
    // no error. The KeyHash is trusted: a record there that is not equal() to
    // the key is traced, and still counts.
    bool find(const Key& key);
    // Rewrites the record at the key's full KeyHash in place; the size must
    // stay (eSizeMismatch), and the record must be there (eNotFound).
    bool update(const Key& key);
    // Removes the record at the key's full KeyHash (eNotFound if none).
    bool remove(const Key& key);

    Result lastError() const { return meLastError; }
    // The largest record a key may have; 0 while closed.
    unsigned maximumKeySize() const;
    quint64 cacheHits() const;
    quint64 cacheMisses() const;
    unsigned cacheSize() const;

    // True while the tree is open.
    operator OperatorBoolGenerator<BPlusTree>::Result() const
    {
        return OperatorBoolGenerator<BPlusTree>::make(isOpen());
    }

    // Traces every node, level by level.
    void display();
    // Traces every record, left to right, through key.display().
    void displayKeys(const Key& key);

private:
    typedef boost::shared_ptr<Node> NodePtr;
    // What copies share: the open file, its header block and the root node.
    struct Body;

    bool isOpen() const;
    // The start of every operation: the tree must be open.
    bool begin(const char* operation);
    // The end of every operation that reads only: the node hash is emptied.
    void finishOperation();
    // The start of an operation that changes the tree: a transaction.
    bool beginChange(const char* operation);
    // The end of one: committed when `done`, otherwise undone, so that the
    // tree is as before the call. The result is whether it was committed.
    bool finishChange(bool done);
    // After an undo: the root as the file has it.
    void reloadRoot();
    // A fresh closed Body when this one is shared or not there.
    void detach();
    bool fail(Result error);

    bool setRoot(const NodePtr& node);
    // Lets go of the nodes of the operation, which writes the changed ones.
    void releaseNodes();
    void releaseNode(quint64 id);
    NodePtr newNode(bool leaf);
    NodePtr readNode(quint64 id, bool root = false);
    // Whether a node just got from the cache is well formed (checked only
    // when its block came from the file, `misses` being the cache's count
    // before) and has the root flag as it should; if not, traced, eFileError
    // and the block forgotten.
    bool acceptNode(Node& node, quint64 misses, bool root);
    // The look-ups of find() pass through nodes without keeping them: one
    // level's block is held in `held`, on the caller's stack, until the next
    // is got, so that a descent allocates nothing and leaves the node hash
    // alone. visitNode() gives back what `held` had and puts node `id` there
    // (the root is never put there); null when it cannot be read.
    const Node* visitNode(quint64 id, std::optional<Node>& held);
    // A descent that has gone `depth` levels down without a leaf is walking a
    // cycle: traced, eFileError.
    bool tooDeep(unsigned depth);
    const Node* lookUp(const KeyHash& hash, unsigned& slot, int& iFindResult, std::optional<Node>& held);
    void deleteNode(quint64 id);
    // Descends by the key's full KeyHash to mpoNode and muiSlot.
    bool doFind(const Key& key);
    NodePtr descend(const KeyHash& hash, unsigned& slot, int& iFindResult);
    // The next leaf to the right, for walks along the leaves; null at the right
    // edge or on a damaged chain. `release` lets go of the leaf left behind.
    NodePtr nextLeaf(const NodePtr& leaf, quint64& steps, bool release);
    // The checks of a step along the leaves: the chain is no longer than the
    // file has blocks, and what it reaches is a leaf.
    bool mayStepTo(quint64 id, quint64& steps);
    bool reachedLeaf(const Node& node, quint64 id);
    // The work of insert() and remove(), inside their transaction: what they
    // hold is let go of on return, before the transaction ends.
    bool insertOperation(Key& key);
    void removeOperation(const Key& key);
    InsertResult insertKey(Key& key, const NodePtr& node, KeyHash& hash, unsigned depth = 0);
    DeleteResult deleteKey(const Key& key, const NodePtr& node, quint64 parent, quint64 left, quint64 right,
                           Anchor& leftAnchor, Anchor& rightAnchor, unsigned depth = 0);
    DeleteResult rebalance(const NodePtr& node, unsigned slot, quint64 parent, quint64 left, quint64 right,
                           Anchor& leftAnchor, Anchor& rightAnchor);
    QList<quint64> displayLevel(const QList<quint64>& ids, unsigned level);

    boost::shared_ptr<Body> mptBody;
    // Nodes read or made during one operation ("NodeHash"). An operation
    // holds a few nodes per level, so a search along a short array beats
    // hashing.
    std::vector<NodePtr> moNodeHash;
    Result meLastError = eSuccess;
    // The highest node on a deletion's path from which rebalancing is needed.
    quint64 mullRebalanceId = 0;
    // What a split hands up to the parent.
    ChildEntry moSplitEntry;
    // The position doFind() found.
    unsigned muiSlot = 0;
    NodePtr mpoNode;
    unsigned muiCacheSize;
    Blocks::Durability meDurability = Blocks::eProcessSafe;
};

} // namespace Brevi

#endif
