#include "messaging/msg.h"

#include "core/buffer.h"
#include "core/context.h"
#include "core/machinename.h"
#include "core/trace.h"
#include "messaging/condition.h"
#include "messaging/datamsgpacket.h"
#include "messaging/messaging.h"
#include "messaging/msgpacket.h"

#include <boost/bind/bind.hpp>
#include <boost/make_shared.hpp>

namespace Brevi {

namespace {
const unsigned TraceModule = TraceModuleMsg;

// The machine an authorization is made for: the destination's, or this
// machine's for a context of this process and for the Hub, whose addresses
// name no machine.
QString machineOf(const MsgAddress& destination)
{
    const MachineName& machine = destination.machine();
    return machine.isEmpty() ? Context::machineName().fullName() : machine.fullName();
}

// Takes the registered handler of a wait off every name again, also when a
// handler throws through the wait.
class HandlerRegistration
{
public:
    HandlerRegistration(const QStringList& names, const MsgHandlerPointer& handler)
        : moNames(names)
        , mptHandler(handler)
    {
        for (const QString& name : moNames)
            Msg::addHandler(name, mptHandler);
    }
    ~HandlerRegistration()
    {
        for (const QString& name : moNames)
            Msg::removeHandler(name, mptHandler);
    }
    HandlerRegistration(const HandlerRegistration&) = delete;
    HandlerRegistration& operator=(const HandlerRegistration&) = delete;

private:
    const QStringList& moNames;
    MsgHandlerPointer mptHandler;
};
} // namespace

std::once_flag Msg::moOnce;
boost::shared_ptr<Msg::Data>* Msg::mpoInvalid = nullptr;

void Msg::initialize()
{
    // Made once and never freed: invalid messages may outlive every static
    // destructor of the process.
    mpoInvalid = new boost::shared_ptr<Data>(boost::make_shared<Data>());
}

const boost::shared_ptr<Msg::Data>& Msg::invalidData()
{
    std::call_once(moOnce, &Msg::initialize);
    return *mpoInvalid;
}

// ---------------------------------------------------------------------------
// Construction

Msg::Msg()
    : mptData(invalidData())
{}

Msg::Msg(const MsgAddress& destination, const QString& name, const XmlList& body, MsgCompression compression)
{
    const MsgAddress source =
        destination.type() == eMsgAddressHub ? MsgAddress() : destination.returnAddress(Context::address(), 0);
    make(QByteArray(), source, destination, name, body, compression);
}

Msg::Msg(const Authorization& authorization, const MsgAddress& destination, const QString& name, const XmlList& body,
         MsgCompression compression)
{
    const MsgAddress source =
        destination.type() == eMsgAddressHub ? MsgAddress() : destination.returnAddress(Context::address(), 0);
    make(authorization.binary(machineOf(destination)), source, destination, name, body, compression);
}

Msg::Msg(const Authorization& authorization, const MsgAddress& source, const MsgAddress& destination,
         const QString& name, const XmlList& body, MsgCompression compression)
{
    make(authorization.binary(machineOf(destination)), source, destination, name, body, compression);
}

namespace {
// The packet's fields for a message of its own: the packet's views end with
// its buffer.
template <typename Packet>
void takeFields(Msg::Data& data, const Packet& packet)
{
    data.moSource = MsgAddress(packet.source());
    data.moDestination = MsgAddress(packet.destination());
    data.msName = packet.name();
    data.msCookie = packet.cookie();
    data.moBody = packet.xml();
    data.meCompression = packet.compression();
    data.moAuthorization = QByteArray(packet.authorization().constData(), packet.authorization().size());
}
} // namespace

Msg::Msg(const boost::shared_ptr<IpcPacket>& packet)
    : meLastError(eMsgResultIpcError)
    , mptData(invalidData())
{
    if (!packet) {
        BTRACE(TraceAlways) << "No packet";
        return;
    }
    if (!*packet || packet->size() == 0) {
        BTRACE(TraceAlways) << "Invalid packet";
        return;
    }
    boost::shared_ptr<Data> data = boost::make_shared<Data>();
    switch (packet->type()) {
    case eIpcTypeMessage:
        BTRACE(TraceDebug) << "Reconstruct a Message packet";
        takeFields(*data, static_cast<const MsgPacket&>(*packet));
        break;
    case eIpcTypeDataMessage: {
        BTRACE(TraceDebug) << "Reconstruct a DataMessage packet";
        const DataMsgPacket& dataMessage = static_cast<const DataMsgPacket&>(*packet);
        takeFields(*data, dataMessage);
        data->mptRawData = dataMessage.data();
        break;
    }
    default:
        BTRACE(TraceAlways) << "Invalid packet type" << unsigned(packet->type());
        return;
    }
    mptData = data;
    meLastError = eMsgResultOk;
}

void Msg::make(const QByteArray& authorization, const MsgAddress& source, const MsgAddress& destination,
               const QString& name, const XmlList& body, MsgCompression compression)
{
    if (!destination) {
        BTRACE(TraceAlways) << "Invalid destination for message" << name;
        fail(eMsgResultInvalidArgs);
        return;
    }
    if (name.isEmpty()) {
        BTRACE(TraceAlways) << "No message name for" << destination;
        fail(eMsgResultInvalidArgs);
        return;
    }
    mptData = boost::make_shared<Data>();
    mptData->moSource = source;
    mptData->moDestination = destination;
    mptData->msName = name;
    mptData->moBody = body;
    mptData->meCompression = compression;
    mptData->moAuthorization = authorization;
}

Msg Msg::invalid(MsgResult lastError)
{
    Msg message;
    message.meLastError = lastError;
    return message;
}

void Msg::fail(MsgResult error)
{
    mptData = invalidData();
    meLastError = error;
}

bool Msg::isValid() const { return mptData.get() != invalidData().get(); }

void Msg::setCookie(const QString& cookie)
{
    if (isValid())
        mptData->msCookie = cookie;
}

void Msg::rawData(const boost::shared_ptr<Buffer>& data)
{
    if (isValid())
        mptData->mptRawData = data;
}

Msg Msg::clone() const
{
    if (!isValid())
        return *this;
    Msg copy;
    copy.mptData = boost::make_shared<Data>(*mptData);
    copy.mptData->moBody = mptData->moBody.clone();
    if (mptData->mptRawData)
        copy.mptData->mptRawData = boost::make_shared<Buffer>(*mptData->mptRawData);
    return copy;
}

// ---------------------------------------------------------------------------
// The body's values

bool Msg::set(const QString& key, bool value, XmlList::SetTypeE type)
{
    return isValid() && mptData->moBody.set(key, value, type);
}

bool Msg::set(const QString& key, const QString& value, XmlList::SetTypeE type)
{
    return isValid() && mptData->moBody.set(key, value, type);
}

bool Msg::set(const QString& key, const char* value, XmlList::SetTypeE type)
{
    return isValid() && mptData->moBody.set(key, QString::fromUtf8(value), type);
}

bool Msg::set(const QString& key, unsigned value, XmlList::SetTypeE type)
{
    return isValid() && mptData->moBody.set(key, value, type);
}

bool Msg::set(const QString& key, int value, XmlList::SetTypeE type)
{
    return isValid() && mptData->moBody.set(key, value, type);
}

bool Msg::set(const QString& key, unsigned long long value, XmlList::SetTypeE type)
{
    return isValid() && mptData->moBody.set(key, value, type);
}

bool Msg::set(const QString& key, long long value, XmlList::SetTypeE type)
{
    return isValid() && mptData->moBody.set(key, value, type);
}

bool Msg::set(const QString& key, const XmlList& value, XmlList::SetTypeE type)
{
    return isValid() && mptData->moBody.set(key, value, type);
}

bool Msg::set(const QString& key, const MachineName& value, XmlList::SetTypeE type)
{
    return isValid() && mptData->moBody.set(key, value.fullName(), type);
}

namespace {
template <typename T>
T getOr(const XmlList& body, const QString& key, const T& otherwise)
{
    T value;
    return body.get(value, key) ? value : otherwise;
}

template <typename T>
T getFound(const XmlList& body, const QString& key, bool* found)
{
    T value = T();
    if (!body.get(value, key)) {
        if (found)
            *found = false;
        return T();
    }
    return value;
}
} // namespace

bool Msg::get(const QString& key, bool otherwise) const { return getOr(body(), key, otherwise); }

QString Msg::get(const QString& key, const QString& otherwise) const { return getOr(body(), key, otherwise); }

QString Msg::get(const QString& key, const char* otherwise) const
{
    return getOr(body(), key, QString::fromUtf8(otherwise));
}

unsigned Msg::get(const QString& key, unsigned otherwise) const { return getOr(body(), key, otherwise); }

int Msg::get(const QString& key, int otherwise) const { return getOr(body(), key, otherwise); }

unsigned long long Msg::get(const QString& key, unsigned long long otherwise) const
{
    return getOr(body(), key, otherwise);
}

long long Msg::get(const QString& key, long long otherwise) const { return getOr(body(), key, otherwise); }

XmlList Msg::get(const QString& key, const XmlList& otherwise) const { return getOr(body(), key, otherwise); }

bool Msg::getBool(const QString& key, bool* found) const { return getFound<bool>(body(), key, found); }

QString Msg::getString(const QString& key, bool* found) const { return getFound<QString>(body(), key, found); }

unsigned Msg::getUint32(const QString& key, bool* found) const { return getFound<unsigned>(body(), key, found); }

int Msg::getInt32(const QString& key, bool* found) const { return getFound<int>(body(), key, found); }

unsigned long long Msg::getUint64(const QString& key, bool* found) const
{
    return getFound<unsigned long long>(body(), key, found);
}

long long Msg::getInt64(const QString& key, bool* found) const { return getFound<long long>(body(), key, found); }

XmlList Msg::getXmlList(const QString& key, bool* found) const { return getFound<XmlList>(body(), key, found); }

// ---------------------------------------------------------------------------
// Sending

bool Msg::send(bool flush) const { return isValid() && Context::msgSend(*this, flush); }

bool Msg::sendOnce() const { return isValid() && Context::msgSendOnce(*this); }

bool Msg::reply(const QString& name, const XmlList& body, MsgCompression compression, bool flush) const
{
    return reply(name, boost::shared_ptr<Buffer>(), body, compression, flush);
}

bool Msg::reply(const QString& name, const boost::shared_ptr<Buffer>& data, const XmlList& body,
                MsgCompression compression, bool flush) const
{
    Msg answer(source(), name, body, compression);
    if (!answer)
        return false;
    answer.setCookie(getCookie());
    answer.rawData(data);
    return answer.send(flush);
}

bool Msg::reply(const Authorization& authorization, const QString& name, const XmlList& body,
                MsgCompression compression, bool flush) const
{
    return reply(authorization, name, boost::shared_ptr<Buffer>(), body, compression, flush);
}

bool Msg::reply(const Authorization& authorization, const QString& name, const boost::shared_ptr<Buffer>& data,
                const XmlList& body, MsgCompression compression, bool flush) const
{
    Msg answer(authorization, source(), name, body, compression);
    if (!answer)
        return false;
    answer.setCookie(getCookie());
    answer.rawData(data);
    return answer.send(flush);
}

// ---------------------------------------------------------------------------
// The thread's messaging

bool Msg::addHandler(const QString& name, const MsgHandlerPointer& handler)
{
    return Context::msgHandlerAdd(name, handler);
}

bool Msg::addHandler(const QString& name, const QByteArray& authorization, const MsgHandlerPointer& handler)
{
    return Context::msgHandlerAdd(name, authorization, handler);
}

bool Msg::removeHandler(const QString& name, const MsgHandlerPointer& handler)
{
    return Context::msgHandlerRemove(name, handler);
}

bool Msg::addAuthorization(const QString& name, const Authorization& authorization)
{
    return Context::msgAddAuthorization(name, authorization);
}

bool Msg::removeAuthorization(const QString& name, const Authorization& authorization)
{
    return Context::msgRemoveAuthorization(name, authorization);
}

bool Msg::setUI() { return Context::msgSetUI(); }

int Msg::socket() { return Context::msgSocket(); }

bool Msg::flush() { return Context::msgFlush(); }

Msg Msg::receive(int seconds)
{
    IpcResult result = eIpcResultOk;
    return Context::msgReceive(result, milliseconds(seconds));
}

bool Msg::requeue(const QList<Msg>& messages)
{
    const boost::shared_ptr<Messaging> current = Context::messaging();
    if (!current)
        return false;
    current->requeue(messages);
    return true;
}

boost::shared_ptr<Messaging> Msg::messaging() { return Context::messaging(); }

bool Msg::hubDisconnected(const boost::shared_ptr<Messaging>& messaging)
{
    return !messaging || messaging->socket() == -1;
}

// ---------------------------------------------------------------------------
// Waiting

bool Msg::handle(MsgResult& result, const boost::shared_ptr<Messaging>& messaging, qint64 timeoutMs)
{
    IpcResult ipcResult = eIpcResultOk;
    Msg message;
    if (messaging) {
        message = messaging->receive(ipcResult, timeoutMs);
    } else {
        BTRACE(TraceNormal) << "No messaging on this thread";
        message.fail(eMsgResultIpcError);
    }

    if (!message) {
        result = message.lastError();
        if (result == eMsgResultTimeout) {
            if (timeoutMs != 0)
                return true;
            BTRACE(TraceDebug) << "Timeout";
            return false;
        }
        BTRACE(TraceNormal) << "Invaild message" << int(result);
        return false;
    }

    // A copy: a handler may add and remove handlers while it runs.
    const QList<MsgHandlerListEntry> handlers = messaging->waitHandlers(message);
    if (handlers.isEmpty()) {
        BTRACE(TraceNormal) << "Message" << message.name() << "from" << message.source() << "has no handlers";
        return true;
    }
    for (const MsgHandlerListEntry& entry : handlers) {
        if (!entry.moAuthorization.isEmpty() && !Authorization::equal(entry.moAuthorization, message.authorization()))
            continue;
        result = (*entry.mptFunction)(message);
        if (result == eMsgResultHandled) {
            BTRACE(TraceDebug) << "Handled message" << message.name();
            return true;
        }
        if (result != eMsgResultNotHandled) {
            BTRACE(TraceNormal) << "Handler error" << int(result) << "for" << message.name();
            return false;
        }
    }
    BTRACE(TraceNormal) << "Message" << message.name() << "from" << message.source() << "not handled";
    return true;
}

MsgResult Msg::wait(MsgCondition& condition, int seconds)
{
    const boost::shared_ptr<Messaging> current = Context::messaging();
    const qint64 limit = milliseconds(seconds);
    const unsigned long long deadline = limit > 0 ? Context::systemTime() + quint64(limit) : 0;
    qint64 remaining = limit;
    MsgResult result = eMsgResultUnknown;
    for (;;) {
        if (condition.done()) {
            BTRACE(TraceDebug) << "MsgCondition returned true";
            return condition.result();
        }
        if (!handle(result, current, remaining))
            return result;
        if (limit <= 0)
            continue;
        const unsigned long long now = Context::systemTime();
        remaining = now < deadline ? qint64(deadline - now) : 0;
        if (remaining <= 0) {
            BTRACE(TraceDebug) << "Timeout";
            return eMsgResultTimeout;
        }
    }
}

MsgResult Msg::wait(int seconds)
{
    const boost::shared_ptr<Messaging> current = Context::messaging();
    const qint64 limit = milliseconds(seconds);
    const unsigned long long deadline = limit > 0 ? Context::systemTime() + quint64(limit) : 0;
    qint64 remaining = limit;
    MsgResult result = eMsgResultUnknown;
    while (handle(result, current, remaining)) {
        if (limit > 0) {
            const unsigned long long now = Context::systemTime();
            remaining = now < deadline ? qint64(deadline - now) : 0;
        }
    }
    // Running out of time is how a serving wait is meant to end.
    return result == eMsgResultTimeout ? eMsgResultOk : result;
}

MsgResult Msg::wait(Msg& out, const QStringList& names, const MsgAddress& source, int seconds)
{
    Condition condition(source);
    const MsgHandlerPointer handler =
        boost::make_shared<MsgHandlerFunction>(boost::bind(&Condition::handle, &condition, boost::placeholders::_1));
    BTRACE(TraceDebug) << "Create handler function pointer";
    MsgResult result = eMsgResultUnknown;
    {
        HandlerRegistration registration(names, handler);
        BTRACE(TraceDebug) << "Wait for the condition to be met or an IPC error";
        result = wait(condition, seconds);
    }
    if (condition.done() && condition.message()) {
        out = condition.message();
        out.meLastError = result;
    } else {
        out.fail(result);
    }
    return result;
}

Msg Msg::wait(const QString& name, int seconds) { return wait(QStringList(name), MsgAddress(), seconds); }

Msg Msg::wait(const QString& name, const MsgAddress& source, int seconds)
{
    return wait(QStringList(name), source, seconds);
}

Msg Msg::wait(const QStringList& names, int seconds) { return wait(names, MsgAddress(), seconds); }

Msg Msg::wait(const QStringList& names, const MsgAddress& source, int seconds)
{
    Msg out;
    wait(out, names, source, seconds);
    return out;
}

// ---------------------------------------------------------------------------
// Msg::HubDisconnected

Msg::HubDisconnected::HubDisconnected(const boost::shared_ptr<Messaging>& messaging)
    : mptMessaging(messaging)
{}

Msg::HubDisconnected::~HubDisconnected() = default;

bool Msg::HubDisconnected::done()
{
    if (mbDone)
        return true;
    if (Msg::hubDisconnected(mptMessaging)) {
        setResult(eMsgResultExit);
        setDone(true);
    }
    return mbDone;
}

Trace& operator<<(Trace& trace, const Msg& message)
{
    if (!message)
        return trace << "(invalid message)" << int(message.lastError());
    return trace << message.name() << message.source();
}

} // namespace Brevi
