#include "core/sharedmemoryid.h"

#include "core/xmllist.h"

#include <boost/make_shared.hpp>

namespace Brevi {

struct SharedMemoryId::Data {
    unsigned size = 0;
    unsigned windowOffset = 0;
    unsigned windowSize = 0;
    QString id;
};

namespace {
const char* const ObjectName = "SharedMemoryId";

bool windowFits(unsigned size, unsigned offset, unsigned windowSize)
{
    return offset < size && windowSize <= size - offset;
}
} // namespace

SharedMemoryId::SharedMemoryId()
    : mptData(boost::make_shared<Data>())
{}

SharedMemoryId::SharedMemoryId(const QString& id, unsigned size)
    : mptData(boost::make_shared<Data>())
{
    if (id.isEmpty() || size == 0)
        return;
    mptData->id = id;
    mptData->size = size;
    mptData->windowSize = size;
}

SharedMemoryId::SharedMemoryId(const XmlList& list, const QString& key)
    : mptData(boost::make_shared<Data>())
{
    XmlList nested;
    QString objectName, id;
    unsigned size = 0;
    if (!list.get(nested, key) || !nested.get(objectName, "BreviObjectName") || objectName != ObjectName ||
        !nested.get(size, "Size") || size == 0 || !nested.get(id, "Id") || id.isEmpty())
        return;
    unsigned offset = 0, windowSize = size;
    nested.get(offset, "WindowOffset");
    nested.get(windowSize, "WindowSize");
    if (!windowFits(size, offset, windowSize))
        return;
    mptData->size = size;
    mptData->id = id;
    mptData->windowOffset = offset;
    mptData->windowSize = windowSize;
}

XmlList SharedMemoryId::toXml() const
{
    XmlList list;
    if (!isValid())
        return list;
    list.set("BreviObjectName", QString(ObjectName), XmlList::SetCreate);
    list.set("Size", mptData->size, XmlList::SetCreate);
    list.set("Id", mptData->id, XmlList::SetCreate);
    if (mptData->windowOffset != 0)
        list.set("WindowOffset", mptData->windowOffset, XmlList::SetCreate);
    if (mptData->windowSize != mptData->size)
        list.set("WindowSize", mptData->windowSize, XmlList::SetCreate);
    return list;
}

unsigned SharedMemoryId::size() const { return mptData->size; }
const QString& SharedMemoryId::id() const { return mptData->id; }
unsigned SharedMemoryId::windowOffset() const { return mptData->windowOffset; }
unsigned SharedMemoryId::windowSize() const { return mptData->windowSize; }

bool SharedMemoryId::setWindow(unsigned offset, unsigned size)
{
    if (!windowFits(mptData->size, offset, size))
        return false;
    mptData = boost::make_shared<Data>(*mptData);
    mptData->windowOffset = offset;
    mptData->windowSize = size;
    return true;
}

} // namespace Brevi
