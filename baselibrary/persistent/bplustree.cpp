#include "persistent/bplustree.h"

#include "core/byteorder.h"
#include "core/trace.h"
#include "persistent/anchor.h"
#include "persistent/blocks.h"
#include "persistent/bplustreecheck.h"
#include "persistent/node.h"

#include <QSet>

#include <boost/make_shared.hpp>

namespace Brevi {

namespace {
const unsigned TraceModule = TraceModuleBPlusTree;
}

using namespace BPlusTreeLayout;

struct BPlusTree::Body {
    explicit Body(unsigned cacheSize)
        : mptBlocks(boost::make_shared<Blocks>(cacheSize))
    {}
    // Every change has been committed by now: the header has nothing to write.
    ~Body() { close(false); }
    Body(const Body&) = delete;
    Body& operator=(const Body&) = delete;

    // Drops the root and the header, then closes the block file.
    bool close(bool writeHeader)
    {
        mptRoot.reset();
        if (!mpvHeader)
            return false;
        const bool returned = mptBlocks->returnBlock(mpvHeader, writeHeader);
        mpvHeader = nullptr;
        return mptBlocks->close() && returned;
    }

    // The header block, held for as long as the tree is open; null when closed.
    void* mpvHeader = nullptr;
    Parameters moParameters;
    boost::shared_ptr<Blocks> mptBlocks;
    // Held apart from the node hash, so that it stays between operations.
    NodePtr mptRoot;
};

BPlusTree::BPlusTree(unsigned cacheSize)
    : mptBody(boost::make_shared<Body>(cacheSize))
    , muiCacheSize(cacheSize)
{}

BPlusTree::BPlusTree(const BPlusTree& other)
    : mptBody(other.mptBody)
    , meLastError(other.meLastError)
    , muiCacheSize(other.muiCacheSize)
    , meDurability(other.meDurability)
{}

BPlusTree& BPlusTree::operator=(const BPlusTree& other)
{
    if (this != &other) {
        releaseNodes();
        mpoNode.reset();
        mptBody = other.mptBody;
        meLastError = other.meLastError;
        muiCacheSize = other.muiCacheSize;
        meDurability = other.meDurability;
    }
    return *this;
}

BPlusTree::~BPlusTree()
{
    releaseNodes();
    mpoNode.reset();
}

bool BPlusTree::isOpen() const { return mptBody && mptBody->mpvHeader; }

unsigned BPlusTree::maximumKeySize() const { return isOpen() ? mptBody->moParameters.maximumKeySize - SlotSize : 0; }

quint64 BPlusTree::cacheHits() const { return mptBody->mptBlocks->cacheHits(); }
quint64 BPlusTree::cacheMisses() const { return mptBody->mptBlocks->cacheMisses(); }
unsigned BPlusTree::cacheSize() const { return mptBody->mptBlocks->cacheSize(); }

bool BPlusTree::fail(Result error)
{
    meLastError = error;
    return false;
}

void BPlusTree::detach()
{
    if (!mptBody || mptBody.use_count() > 1)
        mptBody = boost::make_shared<Body>(muiCacheSize);
    mptBody->mptBlocks->setDurability(meDurability);
}

void BPlusTree::setDurability(Blocks::Durability durability)
{
    meDurability = durability;
    if (mptBody)
        mptBody->mptBlocks->setDurability(durability);
}

bool BPlusTree::create(const QString& path, unsigned blockSize)
{
    BTRACE(TraceNormal) << "IN:create" << path << blockSize;
    if (isOpen())
        close();
    detach();
    Body& body = *mptBody;
    if (blockSize < MinimumBlockSize) {
        BTRACE(TraceAlways) << "Invalid block size" << blockSize << "must be at least" << MinimumBlockSize;
        return fail(eFileError);
    }
    if (!body.mptBlocks->create(path, blockSize, 0, 0, RawFile::eReadWrite)) {
        BTRACE(TraceAlways) << "Failed to create tree" << path;
        return fail(body.mptBlocks->lockedElsewhere() ? eInUse : eFileError);
    }
    // The header and the root come into being together, or the file stays
    // without a tree.
    quint64 id = 0;
    void* header = body.mptBlocks->begin() ? body.mptBlocks->newBlock(id) : nullptr;
    if (!header || id != body.mptBlocks->firstBlock()) {
        BTRACE(TraceAlways) << "Header of" << path << "is not the first block but" << id;
        if (header)
            body.mptBlocks->returnBlock(header, false);
        body.mptBlocks->close();
        return fail(eFileError);
    }
    body.mpvHeader = header;
    body.moParameters = parametersFor(blockSize);
    BTRACE(TraceNormal) << "Factor" << body.moParameters.factor << "MaximumEntries" << body.moParameters.maximumEntries
                        << "DataSize" << body.moParameters.dataSize << "SplitSize" << body.moParameters.maximumKeySize;

    NodePtr root = newNode(true);
    if (!root) {
        releaseNodes();
        body.close(false);
        return false;
    }
    root->setRoot(true);
    body.mptRoot = root;
    releaseNodes();
    body.mptBlocks->updateBlock(root->data());
    ByteOrder::store64(static_cast<unsigned char*>(header) + HeaderRootOffset, root->id());
    if (!body.mptBlocks->updateBlock(header) || !body.mptBlocks->commit()) {
        BTRACE(TraceAlways) << "Failed to write the header of" << path;
        root->setClean();
        root.reset();
        body.close(false);
        return fail(eFileError);
    }
    root->setClean();
    meLastError = eSuccess;
    return true;
}

bool BPlusTree::open(const QString& path)
{
    BTRACE(TraceNormal) << "IN:open" << path;
    if (isOpen())
        close();
    detach();
    Body& body = *mptBody;
    if (!body.mptBlocks->open(path, 0, RawFile::eReadWrite)) {
        BTRACE(TraceAlways) << "Failed to open tree" << path;
        return fail(body.mptBlocks->lockedElsewhere() ? eInUse : eFileError);
    }
    const unsigned blockSize = body.mptBlocks->blockSize();
    if (blockSize < MinimumBlockSize) {
        BTRACE(TraceAlways) << "Invalid block size" << blockSize << "must be at least" << MinimumBlockSize << "in"
                            << path;
        body.mptBlocks->close();
        return fail(eFileError);
    }
    void* header = body.mptBlocks->getBlock(body.mptBlocks->firstBlock());
    if (!header) {
        BTRACE(TraceAlways) << "Failed to read the header of" << path;
        body.mptBlocks->close();
        return fail(eFileError);
    }
    body.moParameters = parametersFor(blockSize);
    BTRACE(TraceNormal) << "Factor" << body.moParameters.factor << "MaximumEntries" << body.moParameters.maximumEntries
                        << "DataSize" << body.moParameters.dataSize << "SplitSize" << body.moParameters.maximumKeySize;
    const quint64 rootId = ByteOrder::load64(static_cast<unsigned char*>(header) + HeaderRootOffset);
    if (!rootId) {
        BTRACE(TraceAlways) << "No root node in" << path;
        body.mptBlocks->returnBlock(header, false);
        body.mptBlocks->close();
        return fail(eFileError);
    }
    body.mpvHeader = header;
    NodePtr root = readNode(rootId, true);
    releaseNodes();
    if (!root) {
        BTRACE(TraceAlways) << "Failed to read the root node" << rootId << "of" << path;
        body.close(false);
        return fail(eFileError);
    }
    body.mptRoot = root;
    meLastError = eSuccess;
    return true;
}

bool BPlusTree::close()
{
    BTRACE(TraceNormal) << "IN:close";
    releaseNodes();
    mpoNode.reset();
    if (!isOpen()) {
        BTRACE(TraceAlways) << "close on a tree that is not open";
        return fail(eNotOpen);
    }
    if (mptBody.use_count() > 1) {
        // Other copies keep the tree open; this one only lets go of it.
        mptBody = boost::make_shared<Body>(muiCacheSize);
        return true;
    }
    return mptBody->close(false);
}

bool BPlusTree::begin(const char* operation)
{
    if (isOpen())
        return true;
    BTRACE(TraceAlways) << operation << "on a tree that is not open";
    return fail(eNotOpen);
}

void BPlusTree::finishOperation()
{
    BTRACE(TraceDebug) << "NodeHash" << unsigned(moNodeHash.size());
    mpoNode.reset();
    releaseNodes();
}

bool BPlusTree::beginChange(const char* operation)
{
    if (!begin(operation))
        return false;
    if (!mptBody->mptBlocks->begin()) {
        BTRACE(TraceAlways) << operation << "refused: the file takes no changes now";
        return fail(eFileError);
    }
    return true;
}

bool BPlusTree::finishChange(bool done)
{
    // The operation's own nodes are gone by now, each giving its changes to
    // the transaction; the root stays between operations, so its changes are
    // given here.
    finishOperation();
    Body& body = *mptBody;
    Blocks& blocks = *body.mptBlocks;
    if (body.mptRoot->isDirty())
        blocks.updateBlock(body.mptRoot->data());
    if (done && blocks.commit()) {
        body.mptRoot->setClean();
        return true;
    }
    if (done) {
        BTRACE(TraceAlways) << "Changes undone: they could not be committed";
        meLastError = eFileError;
    } else if (!blocks.hasChanges()) {
        // Refused before it changed anything: nothing to put back.
        blocks.abort();
        return false;
    }
    blocks.abort();
    reloadRoot();
    return false;
}

void BPlusTree::reloadRoot()
{
    Body& body = *mptBody;
    // The blocks still referenced, the header among them, hold the file's
    // bytes again; the root may have been another node before the undo.
    body.mptRoot->setClean();
    body.mptRoot.reset();
    const quint64 rootId = ByteOrder::load64(static_cast<unsigned char*>(body.mpvHeader) + HeaderRootOffset);
    NodePtr root = readNode(rootId, true);
    releaseNodes();
    if (!root) {
        BTRACE(TraceAlways) << "Failed to read the root node" << rootId << "again after an undo";
        body.close(false);
        return;
    }
    body.mptRoot = root;
}

bool BPlusTree::setRoot(const NodePtr& node)
{
    Body& body = *mptBody;
    if (body.mptRoot)
        body.mptRoot->setRoot(false);
    body.mptRoot = node;
    node->setRoot(true);
    if (node->isDirty())
        body.mptBlocks->updateBlock(node->data());
    ByteOrder::store64(static_cast<unsigned char*>(body.mpvHeader) + HeaderRootOffset, node->id());
    if (!body.mptBlocks->updateBlock(body.mpvHeader)) {
        BTRACE(TraceAlways) << "Failed to write the header with root" << node->id();
        return fail(eFileError);
    }
    return true;
}

BPlusTree::NodePtr BPlusTree::newNode(bool leaf)
{
    Body& body = *mptBody;
    quint64 id = 0;
    void* data = body.mptBlocks->newBlock(id);
    if (!data || !id) {
        BTRACE(TraceAlways) << "Failed to allocate a node";
        meLastError = eFileError;
        return NodePtr();
    }
    NodePtr node = boost::make_shared<Node>(body.mptBlocks, id, data, body.moParameters, true);
    unsigned char* bytes = node->data();
    ByteOrder::store32(bytes + FlagsOffset, leaf ? FlagLeaf : 0);
    ByteOrder::store32(bytes + CountOffset, 0);
    if (leaf) {
        // The sentinel: the end of the data area, where the first record ends.
        ByteOrder::store32(bytes + slotOffset(0) + SlotDataOffset, body.moParameters.dataSize);
    }
    moNodeHash.push_back(node);
    return node;
}

void BPlusTree::releaseNodes()
{
    // clear() keeps the capacity, so that an operation allocates nothing here.
    moNodeHash.clear();
}

void BPlusTree::releaseNode(quint64 id)
{
    for (std::vector<NodePtr>::iterator node = moNodeHash.begin(); node != moNodeHash.end(); ++node) {
        if ((*node)->id() == id) {
            moNodeHash.erase(node);
            return;
        }
    }
}

BPlusTree::NodePtr BPlusTree::readNode(quint64 id, bool root)
{
    if (!id)
        return NodePtr();
    for (const NodePtr& held : moNodeHash) {
        if (held->id() == id)
            return held;
    }
    Body& body = *mptBody;
    if (body.mptRoot && body.mptRoot->id() == id)
        return body.mptRoot;
    const quint64 misses = body.mptBlocks->cacheMisses();
    void* data = body.mptBlocks->getBlock(id);
    if (!data) {
        BTRACE(TraceAlways) << "Failed to read node" << id;
        meLastError = eFileError;
        return NodePtr();
    }
    NodePtr node = boost::make_shared<Node>(body.mptBlocks, id, data, body.moParameters, false);
    if (!acceptNode(*node, misses, root))
        return NodePtr();
    moNodeHash.push_back(node);
    return node;
}

bool BPlusTree::acceptNode(Node& node, quint64 misses, bool root)
{
    const Blocks& blocks = *mptBody->mptBlocks;
    // A block the cache already held has been checked when it came from the
    // file, and the tree keeps what it writes well formed.
    const char* problem = nullptr;
    if (blocks.cacheMisses() != misses || !blocks.cacheSize())
        problem = BPlusTreeCheck::nodeProblem(node.data(), mptBody->moParameters);
    if (!problem && node.isRoot() != root)
        problem = root ? "root flag missing" : "root flag on a node below the root";
    if (!problem)
        return true;
    BTRACE(TraceAlways) << "Corrupt node" << node.id() << problem;
    meLastError = eFileError;
    node.discard();
    return false;
}

const Node* BPlusTree::visitNode(quint64 id, std::optional<Node>& held)
{
    held.reset();
    Body& body = *mptBody;
    if (body.mptRoot->id() == id)
        return body.mptRoot.get();
    if (!id)
        return nullptr;
    const quint64 misses = body.mptBlocks->cacheMisses();
    void* data = body.mptBlocks->getBlock(id);
    if (!data) {
        BTRACE(TraceAlways) << "Failed to read node" << id;
        meLastError = eFileError;
        return nullptr;
    }
    held.emplace(body.mptBlocks, id, data, body.moParameters, false);
    if (!acceptNode(*held, misses, false)) {
        held.reset();
        return nullptr;
    }
    return &*held;
}

bool BPlusTree::tooDeep(unsigned depth)
{
    if (depth < MaximumDepth)
        return false;
    BTRACE(TraceAlways) << "Corrupt tree: no leaf within" << MaximumDepth << "levels";
    meLastError = eFileError;
    return true;
}

const Node* BPlusTree::lookUp(const KeyHash& hash, unsigned& slot, int& iFindResult, std::optional<Node>& held)
{
    const Node* node = mptBody->mptRoot.get();
    for (unsigned depth = 0;; ++depth) {
        slot = node->findKey(iFindResult, hash);
        if (node->isLeaf())
            return node;
        if (tooDeep(depth))
            return nullptr;
        node = visitNode(node->child(slot), held);
        if (!node)
            return nullptr;
    }
}

void BPlusTree::deleteNode(quint64 id)
{
    NodePtr node = readNode(id);
    if (node)
        node->setFree();
}

BPlusTree::NodePtr BPlusTree::descend(const KeyHash& hash, unsigned& slot, int& iFindResult)
{
    NodePtr node = mptBody->mptRoot;
    for (unsigned depth = 0;; ++depth) {
        slot = node->findKey(iFindResult, hash);
        if (node->isLeaf())
            return node;
        if (tooDeep(depth))
            return NodePtr();
        node = readNode(node->child(slot));
        if (!node)
            return NodePtr();
    }
}

BPlusTree::NodePtr BPlusTree::nextLeaf(const NodePtr& leaf, quint64& steps, bool release)
{
    const quint64 id = leaf->next();
    if (!mayStepTo(id, steps))
        return NodePtr();
    if (release && leaf != mpoNode && leaf != mptBody->mptRoot)
        releaseNode(leaf->id());
    NodePtr next = readNode(id);
    if (next && !reachedLeaf(*next, id))
        return NodePtr();
    return next;
}

bool BPlusTree::mayStepTo(quint64 id, quint64& steps)
{
    if (!id)
        return false;
    // A chain longer than the file has blocks is a loop.
    if (++steps > mptBody->mptBlocks->totalBlockCount()) {
        BTRACE(TraceAlways) << "Corrupt leaf chain: it loops at" << id;
        meLastError = eFileError;
        return false;
    }
    return true;
}

bool BPlusTree::reachedLeaf(const Node& node, quint64 id)
{
    if (node.isLeaf())
        return true;
    BTRACE(TraceAlways) << "Corrupt leaf chain: node" << id << "is not a leaf";
    meLastError = eFileError;
    return false;
}

bool BPlusTree::insert(Key& key)
{
    BTRACE(TraceDebug) << "IN:insert";
    if (!begin("insert"))
        return false;
    if (key.size() > maximumKeySize()) {
        BTRACE(TraceAlways) << "Record of" << key.size() << "bytes is larger than" << maximumKeySize();
        return fail(eTooLarge);
    }
    if (!beginChange("insert"))
        return false;
    const KeyHash given = key.hash();
    bool done = insertOperation(key);
    done = finishChange(done);
    // A key that was not placed keeps the KeyHash it came with.
    if (!done)
        key.setHash(given);
    BTRACE(TraceDebug) << "OUT:insert ," << done << key.hash();
    return done;
}

bool BPlusTree::insertOperation(Key& key)
{
    KeyHash hash(key.hash().hash(), 0);
    const NodePtr root = mptBody->mptRoot;
    InsertResult result = insertKey(key, root, hash);
    bool retried = false;
    if (result == eInsertRetry) {
        retried = true;
        result = insertKey(key, root, hash);
    }
    switch (result) {
    case eInsertDone:
        return true;
    case eInsertSplit: {
        NodePtr newRoot = newNode(false);
        if (!newRoot) {
            BTRACE(TraceAlways) << "Insert failed" << meLastError;
            return false;
        }
        newRoot->setChild(0, root->id());
        newRoot->addEntry(1, moSplitEntry);
        return setRoot(newRoot);
    }
    case eInsertRetry:
        if (retried)
            BTRACE(TraceAlways) << "Should never get a retry from a retry";
        return false;
    case eInsertFailed:
        BTRACE(TraceAlways) << "Insert failed" << meLastError;
        return false;
    }
    return false;
}

BPlusTree::InsertResult BPlusTree::insertKey(Key& key, const NodePtr& node, KeyHash& hash, unsigned depth)
{
    int iFindResult = 0;
    const unsigned slot = node->findKey(iFindResult, hash);

    if (!node->isLeaf()) {
        if (tooDeep(depth))
            return eInsertFailed;
        NodePtr child = readNode(node->child(slot));
        if (!child)
            return eInsertFailed;
        const InsertResult result = insertKey(key, child, hash, depth + 1);
        if (result != eInsertSplit)
            return result;
        if (!node->isFull(0)) {
            node->addEntry(slot + 1, moSplitEntry);
            return eInsertDone;
        }
        NodePtr right = newNode(false);
        if (!right)
            return eInsertFailed;
        node->split(slot + 1, moSplitEntry, *right);
        return eInsertSplit;
    }

    unsigned insertSlot = slot + 1;
    if (!hash.sequence()) {
        // First pass: walk the records of this hash in sequence order, for an
        // equal record and for the lowest free sequence number. The walk goes
        // on after a hole, since an equal record may still come.
        if (!iFindResult)
            BTRACE(TraceAlways) << "Error: `iFindResult' failed.";
        quint32 sequence = 1;
        NodePtr walk = node;
        unsigned at = slot;
        bool hole = false;
        InsertResult result = eInsertDone;
        quint64 steps = 0;
        for (;;) {
            if (at >= walk->entryCount()) {
                if (!walk->next()) {
                    if (!hole)
                        insertSlot = at + 1;
                    break;
                }
                walk = nextLeaf(walk, steps, false);
                if (!walk)
                    return eInsertFailed;
                at = 0;
                if (!hole && result == eInsertDone) {
                    // The new record belongs to a leaf further right than the
                    // descent by sequence 0 reached.
                    BTRACE(TraceNormal) << "#### will need to retry ####";
                    result = eInsertRetry;
                }
                continue;
            }
            ++at;
            const KeyHash entry = walk->keyHash(at);
            if (entry.hash() != hash.hash()) {
                if (!hole)
                    insertSlot = at;
                break;
            }
            if (key.equal(walk->getData(at))) {
                BTRACE(TraceNormal) << "found a match" << entry;
                meLastError = eDuplicate;
                return eInsertFailed;
            }
            if (!hole) {
                if (entry.sequence() == sequence) {
                    ++sequence;
                } else {
                    BTRACE(TraceNormal) << "Found hole at" << entry.sequence() << sequence;
                    hole = true;
                    insertSlot = at;
                }
            }
        }
        hash.setSequence(sequence);
        if (result != eInsertDone)
            return result;
    }

    if (!node->isFull(key.size())) {
        key.setHash(hash);
        node->addEntry(key, insertSlot);
        return eInsertDone;
    }
    NodePtr right = newNode(true);
    if (!right)
        return eInsertFailed;
    key.setHash(hash);
    node->split(key, moSplitEntry, insertSlot, *right);
    return eInsertSplit;
}

bool BPlusTree::doFind(const Key& key)
{
    const KeyHash hash = key.hash();
    if (!hash.sequence())
        return false;
    int iFindResult = 0;
    mpoNode = descend(hash, muiSlot, iFindResult);
    if (!mpoNode)
        return false;
    if (!iFindResult) {
        if (!key.equal(mpoNode->getData(muiSlot)))
            BTRACE(TraceAlways) << "Error: `roKey.equal(mpoNode->getData(muiSlot))' failed.";
        return true;
    }
    ++muiSlot;
    return false;
}

bool BPlusTree::find(const Key& key)
{
    if (!begin("find"))
        return false;
    const KeyHash hash = key.hash();
    bool found = false;
    if (hash.sequence()) {
        std::optional<Node> held;
        unsigned slot = 0;
        int iFindResult = 0;
        const Node* leaf = lookUp(hash, slot, iFindResult, held);
        found = leaf && !iFindResult;
        if (found && !key.equal(leaf->getData(slot)))
            BTRACE(TraceAlways) << "Error: `roKey.equal(mpoNode->getData(muiSlot))' failed.";
    }
    finishOperation();
    return found;
}

bool BPlusTree::find(Key& key)
{
    if (!begin("find"))
        return false;
    const KeyHash hash(key.hash().hash(), 0);
    // Descending by sequence 1 rather than 0 lands on the leaf that holds the
    // hash's first record when that record starts a leaf, instead of on the
    // leaf before it; the walk then starts just before the place found.
    std::optional<Node> held;
    unsigned slot = 0;
    int iFindResult = 0;
    const Node* node = lookUp(KeyHash(hash.hash(), 1), slot, iFindResult, held);
    if (node && !iFindResult)
        --slot;
    bool found = false;
    quint64 steps = 0;
    while (node) {
        if (slot >= node->entryCount()) {
            BTRACE(TraceDebug) << "Time for the next node";
            const quint64 id = node->next();
            node = mayStepTo(id, steps) ? visitNode(id, held) : nullptr;
            if (node && !reachedLeaf(*node, id))
                node = nullptr;
            slot = 0;
            continue;
        }
        ++slot;
        const KeyHash entry = node->keyHash(slot);
        if (entry.hash() != hash.hash()) {
            BTRACE(TraceDebug) << "no match";
            break;
        }
        const KeyData data = node->getData(slot);
        if (key.equal(data)) {
            BTRACE(TraceDebug) << "found a match" << entry;
            key.load(data);
            key.setHash(entry);
            found = true;
            break;
        }
        BTRACE(TraceDebug) << "match the key" << entry;
    }
    finishOperation();
    return found;
}

bool BPlusTree::update(const Key& key)
{
    if (!beginChange("update"))
        return false;
    if (!doFind(key)) {
        if (mpoNode || meLastError != eFileError) {
            BTRACE(TraceAlways) << "update: no record at" << key.hash();
            meLastError = eNotFound;
        }
        finishChange(false);
        return false;
    }
    meLastError = eSuccess;
    const unsigned size = key.size();
    if (size == mpoNode->recordSize(muiSlot)) {
        KeyData data = mpoNode->getData(muiSlot);
        key.store(data);
        mpoNode->setDirty();
    } else {
        BTRACE(TraceAlways) << "update: record at" << key.hash() << "has" << mpoNode->recordSize(muiSlot)
                            << "bytes, not" << size;
        meLastError = eSizeMismatch;
    }
    return finishChange(meLastError == eSuccess);
}

bool BPlusTree::remove(const Key& key)
{
    BTRACE(TraceDebug) << "IN:remove" << key.hash();
    if (!beginChange("remove"))
        return false;
    meLastError = eSuccess;
    removeOperation(key);
    const bool done = finishChange(meLastError == eSuccess);
    BTRACE(TraceDebug) << "OUT:remove ," << meLastError;
    return done;
}

void BPlusTree::removeOperation(const Key& key)
{
    mullRebalanceId = 0;
    Anchor leftAnchor;
    Anchor rightAnchor;
    const NodePtr root = mptBody->mptRoot;
    const DeleteResult result = deleteKey(key, root, 0, 0, 0, leftAnchor, rightAnchor);
    if (result == eDeleteDone)
        return;
    // The root lost one of its two children: the other becomes the root.
    const bool keepRight = result == eDeleteMergedLeft;
    NodePtr newRoot = readNode(root->child(keepRight ? 1 : 0));
    if (!newRoot) {
        BTRACE(TraceAlways) << "remove: the root's remaining child could not be read";
        return;
    }
    deleteNode(root->child(keepRight ? 0 : 1));
    root->setFree();
    setRoot(newRoot);
}

BPlusTree::DeleteResult BPlusTree::deleteKey(const Key& key, const NodePtr& node, quint64 parent, quint64 left,
                                             quint64 right, Anchor& leftAnchor, Anchor& rightAnchor, unsigned depth)
{
    int iFindResult = 0;
    unsigned slot = node->findKey(iFindResult, key.hash());
    // The rebalance id ends up as the topmost node of the unbroken run of
    // nodes, down to the leaf, that cannot lose an entry.
    if (node->canShrink(slot))
        mullRebalanceId = 0;
    else if (!mullRebalanceId)
        mullRebalanceId = node->id();

    if (node->isLeaf()) {
        if (iFindResult) {
            BTRACE(TraceAlways) << "Entry not found" << key.hash();
            meLastError = eNotFound;
            mullRebalanceId = 0;
            return eDeleteDone;
        }
        if (!key.equal(node->getData(slot)))
            BTRACE(TraceAlways) << "Error: `roKey.equal(roNode.getData(uiSlot))' failed.";
        if (mullRebalanceId)
            return rebalance(node, slot, parent, left, right, leftAnchor, rightAnchor);
        BTRACE(TraceDebug) << "Remove Entry" << node->id() << slot;
        node->removeEntry(slot);
        return eDeleteDone;
    }

    if (tooDeep(depth)) {
        mullRebalanceId = 0;
        return eDeleteDone;
    }

    // The child's neighbours, and the entries that separate it from them.
    Anchor childLeftAnchor;
    quint64 childLeft = 0;
    if (slot) {
        childLeftAnchor = Anchor(node, slot);
        childLeft = node->child(slot - 1);
    } else {
        childLeftAnchor = leftAnchor;
        NodePtr leftNode = readNode(left);
        if (leftNode && !leftNode->isLeaf())
            childLeft = leftNode->child(leftNode->entryCount());
    }
    Anchor childRightAnchor;
    quint64 childRight = 0;
    if (slot != node->entryCount()) {
        childRightAnchor = Anchor(node, slot + 1);
        childRight = node->child(slot + 1);
    } else {
        childRightAnchor = rightAnchor;
        NodePtr rightNode = readNode(right);
        if (rightNode && !rightNode->isLeaf())
            childRight = rightNode->child(0);
    }
    NodePtr child = readNode(node->child(slot));
    if (!child) {
        mullRebalanceId = 0;
        return eDeleteDone;
    }

    const DeleteResult result =
        deleteKey(key, child, node->id(), childLeft, childRight, childLeftAnchor, childRightAnchor, depth + 1);
    if (result == eDeleteDone)
        return eDeleteDone;
    if (result == eDeleteMergedRight)
        ++slot;
    deleteNode(node->child(slot));
    if (mullRebalanceId)
        return rebalance(node, slot, parent, left, right, leftAnchor, rightAnchor);
    node->removeEntry(slot);
    return eDeleteDone;
}

BPlusTree::DeleteResult BPlusTree::rebalance(const NodePtr& node, unsigned slot, quint64 parent, quint64 left,
                                             quint64 right, Anchor& leftAnchor, Anchor& rightAnchor)
{
    if (node->isRoot()) {
        if (node->isLeaf()) {
            node->removeEntry(slot);
            return eDeleteDone;
        }
        // remove() collapses the root onto its remaining child.
        return slot ? eDeleteMergedRight : eDeleteMergedLeft;
    }

    NodePtr leftNode = readNode(left);
    NodePtr rightNode = readNode(right);
    // Neighbours of another kind, or the node itself, mean a damaged tree:
    // the entry goes, and nothing else is touched.
    if ((leftNode && (leftNode == node || leftNode->isLeaf() != node->isLeaf())) ||
        (rightNode && (rightNode == node || rightNode->isLeaf() != node->isLeaf())) || (left && !leftNode) ||
        (right && !rightNode)) {
        BTRACE(TraceAlways) << "Corrupt tree: neighbours" << left << right << "of node" << node->id();
        meLastError = eFileError;
        mullRebalanceId = 0;
        node->removeEntry(slot);
        return eDeleteDone;
    }

    const bool canLeft = leftNode && leftNode->canShrink(leftNode->entryCount());
    const bool canRight = rightNode && rightNode->canShrink(1);
    const quint64 leftAnchorId = leftAnchor.id();
    const quint64 rightAnchorId = rightAnchor.id();
    const bool topOfRun = node->id() == mullRebalanceId;

    enum Action { ShiftFromLeft, ShiftFromRight, MergeWithLeft, MergeWithRight };
    Action action = ShiftFromLeft;
    if (canLeft && canRight && leftAnchorId == rightAnchorId) {
        if (node->isLeaf())
            action = leftNode->freeSpace() < rightNode->freeSpace() ? ShiftFromLeft : ShiftFromRight;
        else
            action = leftNode->entryCount() > rightNode->entryCount() ? ShiftFromLeft : ShiftFromRight;
    } else if (canLeft) {
        // At the top of the run a merge ends the upward work, so it is made
        // with a sibling when borrowing from it is not possible.
        if (topOfRun && right && !canRight && rightAnchorId == parent)
            action = MergeWithRight;
    } else if (canRight) {
        action = ShiftFromRight;
        if (topOfRun && left && leftAnchorId == parent)
            action = MergeWithLeft;
    } else {
        action = leftAnchorId == parent ? MergeWithLeft : MergeWithRight;
    }

    // A merge is only ever made with a sibling under the same parent.
    if ((action == MergeWithLeft && (!leftNode || leftAnchorId != parent)) ||
        (action == MergeWithRight && (!rightNode || rightAnchorId != parent))) {
        BTRACE(TraceAlways) << "Corrupt tree: node" << node->id() << "has no sibling to merge with";
        meLastError = eFileError;
        mullRebalanceId = 0;
        node->removeEntry(slot);
        return eDeleteDone;
    }

    DeleteResult result = eDeleteDone;
    switch (action) {
    case ShiftFromLeft:
        node->shiftFromLeft(slot, *leftNode, leftAnchor);
        mullRebalanceId = 0;
        return eDeleteDone;
    case ShiftFromRight:
        node->shiftFromRight(slot, *rightNode, rightAnchor);
        mullRebalanceId = 0;
        return eDeleteDone;
    case MergeWithLeft:
        result = node->mergeWithLeft(slot, *leftNode, leftAnchor);
        break;
    case MergeWithRight:
        result = node->mergeWithRight(slot, *rightNode, rightAnchor);
        break;
    }
    if (result == eDeleteDone || topOfRun)
        mullRebalanceId = 0;
    return result;
}

void BPlusTree::display()
{
    if (!begin("display"))
        return;
    BTRACE(TraceAlways) << "################ DISPLAY TREE ###############";
    QList<quint64> level;
    level.append(mptBody->mptRoot->id());
    QSet<quint64> seen;
    for (unsigned depth = 0; !level.isEmpty() && depth < MaximumDepth; ++depth) {
        // A damaged tree may reach a node twice; it is shown once.
        QList<quint64> fresh;
        for (quint64 id : level) {
            if (!seen.contains(id)) {
                seen.insert(id);
                fresh.append(id);
            }
        }
        level = displayLevel(fresh, depth);
        releaseNodes();
    }
    finishOperation();
}

QList<quint64> BPlusTree::displayLevel(const QList<quint64>& ids, unsigned level)
{
    BTRACE(TraceAlways) << "Level " << level << "nodes" << ids.size();
    QList<quint64> children;
    for (quint64 id : ids) {
        NodePtr node = id == mptBody->mptRoot->id() ? mptBody->mptRoot : readNode(id);
        if (!node)
            continue;
        const unsigned n = node->entryCount();
        if (node->isLeaf()) {
            BTRACE(TraceAlways) << "Leaf" << id << "Entries" << n << "Next" << node->next() << "Free"
                                << node->freeSpace();
            for (unsigned i = 1; i <= n; ++i)
                BTRACE(TraceAlways) << "  " << i << node->keyHash(i) << "Size" << node->recordSize(i);
        } else {
            BTRACE(TraceAlways) << "Node" << id << "Entries" << n;
            for (unsigned i = 0; i <= n; ++i) {
                if (i)
                    BTRACE(TraceAlways) << "  " << i << node->keyHash(i) << "Child" << node->child(i);
                else
                    BTRACE(TraceAlways) << "  " << i << "Child" << node->child(i);
                children.append(node->child(i));
            }
        }
        if (node != mptBody->mptRoot)
            releaseNode(id);
    }
    return children;
}

void BPlusTree::displayKeys(const Key& key)
{
    if (!begin("displayKeys"))
        return;
    NodePtr node = mptBody->mptRoot;
    for (unsigned depth = 0; node && !node->isLeaf() && depth < MaximumDepth; ++depth)
        node = readNode(node->child(0));
    quint64 steps = 0;
    while (node && node->isLeaf()) {
        BTRACE(TraceAlways) << "Leaf" << node->id();
        for (unsigned i = 1; i <= node->entryCount(); ++i) {
            BTRACE(TraceAlways) << "  " << node->keyHash(i);
            key.display(node->getData(i));
        }
        node = nextLeaf(node, steps, true);
    }
    finishOperation();
}

} // namespace Brevi
