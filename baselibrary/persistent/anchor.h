#ifndef BASELIBRARY_PERSISTENT_ANCHOR_H
#define BASELIBRARY_PERSISTENT_ANCHOR_H

#include "persistent/keyhash.h"

#include <boost/shared_ptr.hpp>

namespace Brevi {

class Node;

// The ancestor entry whose KeyHash separates a node from its neighbour on one
// side, as a deletion finds it on the way down: the node holding the entry and
// the entry's number. An empty anchor (no node) means there is no neighbour on
// that side. Internal to BPlusTree.
class Anchor
{
public:
    Anchor() = default;
    Anchor(const boost::shared_ptr<Node>& node, unsigned slot)
        : mptNode(node)
        , muiSlot(slot)
    { }

    const boost::shared_ptr<Node>& node() const { return mptNode; }
    unsigned slot() const { return muiSlot; }
    // The block id of the anchor's node, 0 when empty.
    quint64 id() const;
    // The separating KeyHash; false when the anchor is empty or names entry 0,
    // whose KeyHash is not kept.
    bool getKey(KeyHash& hash) const;
    // Sets the separating KeyHash, and marks the node dirty; nothing when empty.
    void setKey(const KeyHash& hash);

private:
    boost::shared_ptr<Node> mptNode;
    unsigned muiSlot = 0;
};

} // namespace Brevi

#endif
