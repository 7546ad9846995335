#ifndef BASELIBRARY_PERSISTENT_KEYDATA_H
#define BASELIBRARY_PERSISTENT_KEYDATA_H

#include <QtGlobal>

namespace Brevi {

// A record inside a node block: where it starts and how many bytes it has.
// The bytes belong to the tree's block cache and are valid only during the
// call of Key that receives them.
class KeyData
{
public:
    KeyData() = default;
    KeyData(void* data, unsigned size)
        : mpucData(static_cast<unsigned char*>(data))
        , muiSize(size)
    { }

    unsigned char* data() const { return mpucData; }
    unsigned size() const { return muiSize; }

private:
    unsigned char* mpucData = nullptr;
    unsigned muiSize = 0;
};

} // namespace Brevi

#endif
