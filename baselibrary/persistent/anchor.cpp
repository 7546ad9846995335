#include "persistent/anchor.h"

#include "persistent/node.h"

namespace Brevi {

quint64 Anchor::id() const { return mptNode ? mptNode->id() : 0; }

bool Anchor::getKey(KeyHash& hash) const
{
    if (!mptNode || !muiSlot)
        return false;
    hash = mptNode->keyHash(muiSlot);
    return true;
}

void Anchor::setKey(const KeyHash& hash)
{
    if (!mptNode)
        return;
    mptNode->setKeyHash(muiSlot, hash);
    mptNode->setDirty();
}

} // namespace Brevi
