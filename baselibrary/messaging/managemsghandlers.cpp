#include "messaging/managemsghandlers.h"

#include "messaging/msg.h"

#include <QMultiMap>

#include <boost/make_shared.hpp>

namespace Brevi {

// What the copies share. Its end is the end of the last copy, and takes the
// handlers it still records off the thread's Messaging.
class ManageMsgHandlers::Record
{
public:
    ~Record()
    {
        removeIf([](const QString&) { return true; });
    }

    template <typename Predicate>
    void removeIf(Predicate wanted)
    {
        for (auto it = moHandlers.begin(); it != moHandlers.end();) {
            if (wanted(it.key())) {
                Msg::removeHandler(it.key(), it.value());
                it = moHandlers.erase(it);
            } else {
                ++it;
            }
        }
    }

    QMultiMap<QString, MsgHandlerPointer> moHandlers;
};

ManageMsgHandlers::ManageMsgHandlers()
    : mptRecord(boost::make_shared<Record>())
{}

ManageMsgHandlers::~ManageMsgHandlers() = default;

bool ManageMsgHandlers::add(const QString& name, const MsgHandlerPointer& handler)
{
    if (!Msg::addHandler(name, handler))
        return false;
    mptRecord->moHandlers.insert(name, handler);
    return true;
}

bool ManageMsgHandlers::add(const QString& name, const QByteArray& authorization, const MsgHandlerPointer& handler)
{
    if (!Msg::addHandler(name, authorization, handler))
        return false;
    mptRecord->moHandlers.insert(name, handler);
    return true;
}

void ManageMsgHandlers::remove(const QString& name)
{
    mptRecord->removeIf([&name](const QString& key) { return key == name; });
}

void ManageMsgHandlers::remove(const QString& name, const MsgHandlerPointer& handler)
{
    auto it = mptRecord->moHandlers.find(name, handler);
    if (it == mptRecord->moHandlers.end())
        return;
    Msg::removeHandler(name, handler);
    mptRecord->moHandlers.erase(it);
}

void ManageMsgHandlers::removeAll()
{
    mptRecord->removeIf([](const QString&) { return true; });
}

void ManageMsgHandlers::removeAllExcept(const QStringList& keep)
{
    mptRecord->removeIf([&keep](const QString& key) { return !keep.contains(key); });
}

int ManageMsgHandlers::count() const { return mptRecord->moHandlers.size(); }

} // namespace Brevi
