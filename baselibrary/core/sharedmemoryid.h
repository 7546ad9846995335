#ifndef BASELIBRARY_CORE_SHAREDMEMORYID_H
#define BASELIBRARY_CORE_SHAREDMEMORYID_H

#include "brevi_export.h"
#include "core/operatorboolgenerator.h"

#include <QString>

#include <boost/shared_ptr.hpp>

namespace Brevi {

class XmlList;

// Names a shared mapping and a window in it: the small value a provider hands
// out, in a message body, so that another process can attach.
//
// Valid when its size is not 0. The window always lies inside the mapping:
// windowOffset < size and windowOffset + windowSize <= size. Copies share their
// data until setWindow() gives one its own.
//
// The XmlList form (what travels): BreviObjectName "SharedMemoryId", Size,
// Id, and WindowOffset / WindowSize only where they differ from 0 / Size.
class BREVI_EXPORT SharedMemoryId
{
public:
    SharedMemoryId();
    // Valid when `id` is not empty and `size` is not 0; the window is the whole.
    SharedMemoryId(const QString& id, unsigned size);
    // The nested list under `key`; invalid unless every key reads right.
    SharedMemoryId(const XmlList& list, const QString& key);

    XmlList toXml() const;
    unsigned size() const;
    const QString& id() const;
    unsigned windowOffset() const;
    unsigned windowSize() const;
    bool isValid() const { return size() != 0; }
    // False, and the window unchanged, unless it fits in the mapping.
    bool setWindow(unsigned offset, unsigned size);

    operator OperatorBoolGenerator<SharedMemoryId>::Result() const
    {
        return OperatorBoolGenerator<SharedMemoryId>::make(isValid());
    }

private:
    struct Data;
    boost::shared_ptr<Data> mptData;
};

} // namespace Brevi

#endif
