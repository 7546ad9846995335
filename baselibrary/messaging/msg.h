#ifndef BASELIBRARY_MESSAGING_MSG_H
#define BASELIBRARY_MESSAGING_MSG_H

#include "brevi_export.h"
#include "core/authorization.h"
#include "core/operatorboolgenerator.h"
#include "core/xmllist.h"
#include "messaging/msgaddress.h"
#include "messaging/msgcondition.h"
#include "messaging/msghandlerlistentry.h"
#include "messaging/msgresult.h"

#include <QByteArray>
#include <QList>
#include <QString>
#include <QStringList>
#include <QtGlobal>

#include <boost/shared_ptr.hpp>

#include <mutex>

namespace Brevi {

class Buffer;
class IpcPacket;
class MachineName;
class Messaging;
class Trace;

// The unit all parts of the system exchange: a named message with an XmlList
// body, an optional raw data buffer, a source, a destination, a binary
// authorization and a cookie (a reply carries the cookie of its request).
//
//     Msg request(server, "FileStatRequest", body);
//     request.setCookie(QString::number(Context::uniqueId()));
//     request.send();
//     Msg reply = Msg::wait("FileStatReply", server, 30);
//     if (!reply)
//         ... reply.lastError(): eMsgResultTimeout, eMsgResultIpcError, ...
//
// A small handle: copies share one body, so a message handed to a queue is
// not copied and setCookie() shows in every copy; clone() is the deep copy.
// Every failure gives the invalid message, which carries what went wrong in
// `lastError`. All invalid messages share one body, made once per process; a
// default Msg is invalid with lastError eMsgResultOk. Changing the content of
// an invalid message does nothing.
//
// The statics act on the calling thread's Messaging (through Context): they
// register handlers, and they wait, running the handlers of whatever arrives
// meanwhile on the waiting thread. On a thread without messaging they fail:
// false, or the invalid message with eMsgResultIpcError. Time limits of the
// statics are in seconds: negative waits without limit, 0 handles only what
// is there now.
//
// Threads: a Msg belongs to one thread at a time; only the reference count of
// the shared body is atomic.
class BREVI_EXPORT Msg
{
public:
    // The content all copies of a message share.
    class Data
    {
    public:
        MsgAddress moSource;
        MsgAddress moDestination;
        QString msName;
        XmlList moBody;
        MsgCompression meCompression = eMsgDoNotCompress;
        QByteArray moAuthorization;
        QString msCookie;
        boost::shared_ptr<Buffer> mptRawData;
    };

    class HubDisconnected;

    // The invalid message, lastError eMsgResultOk.
    Msg();
    // The invalid message with `lastError`: how the layers below report.
    static Msg invalid(MsgResult lastError);
    // To `destination`, from the address by which it can answer this
    // context (none for the Hub, which knows the other end of its link).
    // No authorization. Invalid (eMsgResultInvalidArgs) for an invalid
    // destination or an empty name.
    Msg(const MsgAddress& destination, const QString& name, const XmlList& body = XmlList(),
        MsgCompression compression = eMsgDoNotCompress);
    // The same with the authorization in its binary form for the
    // destination's machine.
    Msg(const Authorization& authorization, const MsgAddress& destination, const QString& name,
        const XmlList& body = XmlList(), MsgCompression compression = eMsgDoNotCompress);
    // With the source as given.
    Msg(const Authorization& authorization, const MsgAddress& source, const MsgAddress& destination,
        const QString& name, const XmlList& body = XmlList(), MsgCompression compression = eMsgDoNotCompress);
    // A received message packet or data message packet; invalid, with
    // eMsgResultIpcError, for no packet or any other kind ("No packet",
    // "Invalid packet", "Invalid packet type").
    explicit Msg(const boost::shared_ptr<IpcPacket>& packet);

    bool isValid() const;
    bool valid() const { return isValid(); }
    operator OperatorBoolGenerator<Msg>::Result() const { return OperatorBoolGenerator<Msg>::make(isValid()); }
    // Why the message is invalid; eMsgResultOk for a good one.
    MsgResult lastError() const { return meLastError; }

    const MsgAddress& source() const { return mptData->moSource; }
    const MsgAddress& destination() const { return mptData->moDestination; }
    const QString& name() const { return mptData->msName; }
    const XmlList& body() const { return mptData->moBody; }
    MsgCompression compression() const { return mptData->meCompression; }
    const QByteArray& authorization() const { return mptData->moAuthorization; }
    const QString& getCookie() const { return mptData->msCookie; }
    // The raw data; null when there is none. A message with raw data travels
    // as a data message.
    const boost::shared_ptr<Buffer>& rawData() const { return mptData->mptRawData; }

    // Set until the message is sent; every copy sees the change.
    void setCookie(const QString& cookie);
    void rawData(const boost::shared_ptr<Buffer>& data);

    // A new body, a clone of the XmlList and a copy of the raw bytes; the
    // invalid message for an invalid one.
    Msg clone() const;

    // --- The body's values: see XmlList. False on an invalid message. -----
    bool set(const QString& key, bool value, XmlList::SetTypeE type = XmlList::SetModify);
    bool set(const QString& key, const QString& value, XmlList::SetTypeE type = XmlList::SetModify);
    bool set(const QString& key, const char* value, XmlList::SetTypeE type = XmlList::SetModify);
    bool set(const QString& key, unsigned value, XmlList::SetTypeE type = XmlList::SetModify);
    bool set(const QString& key, int value, XmlList::SetTypeE type = XmlList::SetModify);
    bool set(const QString& key, unsigned long long value, XmlList::SetTypeE type = XmlList::SetModify);
    bool set(const QString& key, long long value, XmlList::SetTypeE type = XmlList::SetModify);
    bool set(const QString& key, const XmlList& value, XmlList::SetTypeE type = XmlList::SetModify);
    // Stored as a string.
    bool set(const QString& key, const MachineName& value, XmlList::SetTypeE type = XmlList::SetModify);

    // The value, or `otherwise` where the key is absent or of another type.
    bool get(const QString& key, bool otherwise) const;
    QString get(const QString& key, const QString& otherwise) const;
    QString get(const QString& key, const char* otherwise) const;
    unsigned get(const QString& key, unsigned otherwise) const;
    int get(const QString& key, int otherwise) const;
    unsigned long long get(const QString& key, unsigned long long otherwise) const;
    long long get(const QString& key, long long otherwise) const;
    XmlList get(const QString& key, const XmlList& otherwise) const;

    // The value, or an empty one; `found`, if given, is cleared where the key
    // is absent and never set: start it as true and test it after several
    // calls.
    bool getBool(const QString& key, bool* found = nullptr) const;
    QString getString(const QString& key, bool* found = nullptr) const;
    unsigned getUint32(const QString& key, bool* found = nullptr) const;
    int getInt32(const QString& key, bool* found = nullptr) const;
    unsigned long long getUint64(const QString& key, bool* found = nullptr) const;
    long long getInt64(const QString& key, bool* found = nullptr) const;
    XmlList getXmlList(const QString& key, bool* found = nullptr) const;

    // --- Sending: through the calling thread's Messaging. ------------------
    // False for an invalid message (without a trace) and when the thread's
    // Messaging refuses it. `flush` waits until the link has taken it.
    bool send(bool flush = false) const;
    // Only to a context connected in this process, and only if no message of
    // the same name and source is still waiting there: for periodic posts.
    bool sendOnce() const;

    // A new message to this message's source with this message's cookie,
    // sent; with a buffer it goes as a data message. False, and nothing sent,
    // when the reply cannot be made (no source to answer to).
    bool reply(const QString& name, const XmlList& body = XmlList(), MsgCompression compression = eMsgDoNotCompress,
               bool flush = false) const;
    bool reply(const QString& name, const boost::shared_ptr<Buffer>& data, const XmlList& body = XmlList(),
               MsgCompression compression = eMsgDoNotCompress, bool flush = false) const;
    bool reply(const Authorization& authorization, const QString& name, const XmlList& body = XmlList(),
               MsgCompression compression = eMsgDoNotCompress, bool flush = false) const;
    bool reply(const Authorization& authorization, const QString& name, const boost::shared_ptr<Buffer>& data,
               const XmlList& body = XmlList(), MsgCompression compression = eMsgDoNotCompress,
               bool flush = false) const;

    // --- The calling thread's messaging. ----------------------------------
    // Handlers of a name are asked newest first. With an authorization the
    // handler sees only messages that carry it, and messages of that name
    // without it are refused on arrival.
    static bool addHandler(const QString& name, const MsgHandlerPointer& handler);
    static bool addHandler(const QString& name, const QByteArray& authorization, const MsgHandlerPointer& handler);
    static bool removeHandler(const QString& name, const MsgHandlerPointer& handler);
    // Messages of `name` get in only with one of the authorizations added
    // for the name (in their binary form for this context's machine).
    static bool addAuthorization(const QString& name, const Authorization& authorization);
    static bool removeAuthorization(const QString& name, const Authorization& authorization);
    // Marks the thread as one that cannot block: every send also serves
    // what is pending (Messaging::setUI).
    static bool setUI();
    // The descriptor of the thread's Hub link, -1 when there is none.
    static int socket();
    static bool flush();
    // The next message, without running handlers; the invalid message with
    // eMsgResultTimeout or eMsgResultIpcError otherwise.
    static Msg receive(int seconds);
    // Puts messages back in front of what is waiting; the list ends up in
    // reverse order.
    static bool requeue(const QList<Msg>& messages);
    static boost::shared_ptr<Messaging> messaging();
    // True without messaging or when it has no Hub link (socket -1).
    static bool hubDisconnected(const boost::shared_ptr<Messaging>& messaging);

    // --- Waiting: handlers run inside these. -------------------------------
    // Takes one message from `messaging` (waiting up to `timeoutMs`
    // milliseconds) and gives it to the handlers of its name. True when the
    // caller may wait on: the message was handled, declined by all, had no
    // handler, or the time ran out of a non-zero wait. False with `result`
    // set: a handler's stop (anything but handled and not handled), a link
    // failure, or a timeout of a zero wait (everything pending is done).
    static bool handle(MsgResult& result, const boost::shared_ptr<Messaging>& messaging, qint64 timeoutMs);
    // Handles messages until `condition` is done (its result), a handler
    // stops the wait (its result), the link fails (eMsgResultIpcError), or
    // the time is up (eMsgResultTimeout).
    static MsgResult wait(MsgCondition& condition, int seconds);
    // Serves messages for the time given; eMsgResultOk when the time ran
    // out, otherwise why it ended early.
    static MsgResult wait(int seconds);
    // Waits for a message of one of `names` from `source` (any source if
    // invalid); the handlers of other messages run meanwhile. On success
    // `out` is the message; `out.lastError` is set to the result either way.
    static MsgResult wait(Msg& out, const QStringList& names, const MsgAddress& source, int seconds);
    // The same, returning the message or the invalid one with the result.
    static Msg wait(const QString& name, int seconds);
    static Msg wait(const QString& name, const MsgAddress& source, int seconds);
    static Msg wait(const QStringList& names, int seconds);
    static Msg wait(const QStringList& names, const MsgAddress& source, int seconds);

    // The wait family's seconds as the milliseconds Messaging takes;
    // negative stays negative.
    static qint64 milliseconds(int seconds) { return qint64(seconds) * 1000; }

private:
    static void initialize();
    static const boost::shared_ptr<Data>& invalidData();
    void make(const QByteArray& authorization, const MsgAddress& source, const MsgAddress& destination,
              const QString& name, const XmlList& body, MsgCompression compression);
    void fail(MsgResult error);

    static std::once_flag moOnce;
    static boost::shared_ptr<Data>* mpoInvalid;

    MsgResult meLastError = eMsgResultOk;
    boost::shared_ptr<Data> mptData;
};

// A condition that is true when the thread's Hub link is gone: waits built on
// it end with eMsgResultExit. Once true it stays true.
class BREVI_EXPORT Msg::HubDisconnected : public MsgCondition
{
public:
    explicit HubDisconnected(const boost::shared_ptr<Messaging>& messaging);
    ~HubDisconnected() override;
    bool done() override;

private:
    boost::shared_ptr<Messaging> mptMessaging;
};

// The name and the source, or "(invalid message)" and the lastError.
BREVI_EXPORT Trace& operator<<(Trace& trace, const Msg& message);

} // namespace Brevi

#endif
