#ifndef BASELIBRARY_MESSAGING_MANAGEMSGHANDLERS_H
#define BASELIBRARY_MESSAGING_MANAGEMSGHANDLERS_H

#include "brevi_export.h"
#include "messaging/msghandlerlistentry.h"

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <boost/shared_ptr.hpp>

namespace Brevi {

// Owns a group of handlers registered on the calling thread's Messaging, so
// that an object can take all of its handlers off at once:
//
//     ManageMsgHandlers handlers;
//     handlers.add("JobStartPost", boost::make_shared<MsgHandlerFunction>(...));
//     ...
//     handlers.removeAll();      // or let the last copy go
//
// Copies share the record of what was registered; when the last copy goes,
// what is still recorded is removed. Use it on the thread whose Messaging
// holds the handlers: on another thread there is nothing to remove.
class BREVI_EXPORT ManageMsgHandlers
{
public:
    ManageMsgHandlers();
    ~ManageMsgHandlers();

    // Registers the handler (newest first) and records it; false, and
    // nothing recorded, when the thread's Messaging refuses it.
    bool add(const QString& name, const MsgHandlerPointer& handler);
    bool add(const QString& name, const QByteArray& authorization, const MsgHandlerPointer& handler);
    // Removes what is recorded under the name, or that one handler.
    void remove(const QString& name);
    void remove(const QString& name, const MsgHandlerPointer& handler);
    void removeAll();
    // Removes every recorded handler whose name is not in `keep`.
    void removeAllExcept(const QStringList& keep);

    // The number of handlers recorded.
    int count() const;

private:
    class Record;
    boost::shared_ptr<Record> mptRecord;
};

} // namespace Brevi

#endif
