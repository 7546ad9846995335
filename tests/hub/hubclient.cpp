#include "hubclient.h"

#include "messaging/binaryaddress.h"
#include "messaging/ipcpacketlayout.h"
#include "messaging/msgcatalogue.h"
#include "messaging/msgpacket.h"
#include "sockets/tcpsocketdata.h"
#include "sockets/tcpsocketselect.h"

#include <boost/make_shared.hpp>

#include <chrono>

#include <unistd.h>

using namespace Brevi;
using namespace Brevi::Catalogue;

namespace HubTest {

unsigned long long steadyMs()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

namespace {
int left(unsigned long long deadline)
{
    const unsigned long long now = steadyMs();
    return now >= deadline ? 0 : int(deadline - now);
}
} // namespace

HubClient::HubClient(unsigned port, int ms)
    : mptSocket(boost::make_shared<TCPSocketData>("Client", NetAddress(QHostAddress::LocalHost, port)))
    , mptSelect(boost::make_shared<TCPSocketSelect>())
{
    if (!mptSocket->isValid() || !mptSocket->complete(ms)) {
        mbClosed = true;
        return;
    }
    moSend.setSocket(mptSocket);
    moReceive.setSocket(mptSocket);
}

HubClient::HubClient(const boost::shared_ptr<TCPSocketData>& socket)
    : mptSocket(socket)
    , mptSelect(boost::make_shared<TCPSocketSelect>())
{
    if (!mptSocket || !mptSocket->isValid()) {
        mbClosed = true;
        return;
    }
    moSend.setSocket(mptSocket);
    moReceive.setSocket(mptSocket);
}

HubClient::~HubClient() { close(); }

bool HubClient::connected() const { return !mbClosed && mptSocket->isValid(); }

void HubClient::close()
{
    if (mptSocket)
        mptSocket->close();
    mbClosed = true;
}

QByteArray HubClient::address() const
{
    return muiProcessId ? "1/" + QByteArray::number(muiProcessId) + '/' + moMachine.toUtf8() : QByteArray();
}

QByteArray HubClient::logical(const QString& name, const QString& group) const
{
    QByteArray text = "1/0/" + moMachine.toUtf8() + '/' + name.toUtf8();
    if (!group.isEmpty())
        text += '/' + group.toUtf8();
    return text;
}

QByteArray HubClient::manager() const { return "1/1/" + moMachine.toUtf8(); }
QByteArray HubClient::router() const { return "1/2/" + moMachine.toUtf8(); }

void HubClient::readAll()
{
    for (;;) {
        const IpcResult result = moReceive.receive();
        if (result == eIpcResultOk) {
            moInbox.push_back(moReceive.get(muiNextId++));
            continue;
        }
        if (result != eIpcResultAgain)
            mbClosed = true;
        return;
    }
}

void HubClient::pump(int ms)
{
    if (mbClosed)
        return;
    TCPSocketSelect& select = *mptSelect;
    select.zero();
    select.set(*mptSocket, TCPSocketSelect::Read);
    if (!moOutbox.empty())
        select.set(*mptSocket, TCPSocketSelect::Write);
    if (select.wait(ms) != eTCPErrorNone)
        return;
    if (select.isSet(*mptSocket, TCPSocketSelect::Write))
        while (!moOutbox.empty()) {
            if (!moSend.pending())
                moSend.set(moOutbox.front());
            const IpcResult result = moSend.send();
            if (result == eIpcResultAgain)
                break;
            moOutbox.pop_front();
            if (result != eIpcResultOk) {
                mbClosed = true;
                return;
            }
        }
    if (select.isSet(*mptSocket, TCPSocketSelect::Read))
        readAll();
}

bool HubClient::flush(int ms)
{
    const unsigned long long deadline = steadyMs() + ms;
    while (!moOutbox.empty() && !mbClosed && left(deadline) > 0)
        pump(left(deadline));
    return moOutbox.empty();
}

bool HubClient::sendPacket(const boost::shared_ptr<IpcPacket>& packet)
{
    if (mbClosed)
        return false;
    moOutbox.push_back(packet);
    return flush(5000);
}

bool HubClient::send(const QByteArray& destination, const QString& name, const XmlList& body, const QString& cookie)
{
    return sendPacket(boost::make_shared<MsgPacket>(BinaryAddress(Extent(destination)),
                                                    BinaryAddress(Extent(address())), QByteArray(), name, cookie, body,
                                                    muiNextId++, false));
}

bool HubClient::sendRaw(const QByteArray& bytes)
{
    if (!flush(5000))
        return false;
    const unsigned long long deadline = steadyMs() + 5000;
    int offset = 0;
    while (offset < bytes.size() && left(deadline) > 0) {
        const unsigned sent = mptSocket->send(bytes.constData() + offset, unsigned(bytes.size() - offset));
        if (sent) {
            offset += int(sent);
            continue;
        }
        if (mptSocket->lastError() != eTCPErrorWouldBlock)
            return false;
        TCPSocketSelect& select = *mptSelect;
        select.zero();
        select.set(*mptSocket, TCPSocketSelect::Write);
        select.wait(left(deadline));
    }
    return offset == bytes.size();
}

boost::shared_ptr<IpcPacket> HubClient::next(int ms)
{
    const unsigned long long deadline = steadyMs() + ms;
    // One look even with no time to wait.
    if (moInbox.empty())
        pump(0);
    while (moInbox.empty() && !mbClosed && left(deadline) > 0)
        pump(left(deadline));
    if (moInbox.empty())
        return boost::shared_ptr<IpcPacket>();
    boost::shared_ptr<IpcPacket> packet = moInbox.front();
    moInbox.pop_front();
    return packet;
}

boost::shared_ptr<MsgPacket> HubClient::wait(const QString& name, int ms)
{
    const unsigned long long deadline = steadyMs() + ms;
    // One look even with no time to wait.
    for (bool first = true;; first = false) {
        for (auto it = moInbox.begin(); it != moInbox.end(); ++it)
            if ((*it)->type() == eIpcTypeMessage && static_cast<MsgPacket&>(**it).name() == name) {
                boost::shared_ptr<MsgPacket> found = boost::static_pointer_cast<MsgPacket>(*it);
                moInbox.erase(it);
                return found;
            }
        if (mbClosed || (!first && left(deadline) == 0))
            return boost::shared_ptr<MsgPacket>();
        pump(left(deadline));
    }
}

boost::shared_ptr<MsgPacket> HubClient::request(const QByteArray& destination, const QString& name, const XmlList& body,
                                                const QString& replyName, int ms)
{
    if (!send(destination, name, body))
        return boost::shared_ptr<MsgPacket>();
    return wait(replyName, ms);
}

bool HubClient::waitClosed(int ms)
{
    const unsigned long long deadline = steadyMs() + ms;
    while (!mbClosed && left(deadline) > 0)
        pump(left(deadline));
    return mbClosed;
}

bool HubClient::attach(const QString& title, const QString& name, const QString& group, const QString& type,
                       bool notifyReady)
{
    XmlList body;
    body.set(HubMgrAttachRequest::Title, title);
    body.set(HubMgrAttachRequest::Type, type);
    body.set(HubMgrAttachRequest::OSPid, unsigned(::getpid()));
    body.set(HubMgrAttachRequest::ContextId, 1u);
    if (notifyReady)
        body.set(HubMgrAttachRequest::NotifyReady, true);
    if (!name.isEmpty()) {
        body.set(HubMgrAttachRequest::Name, name);
        if (!group.isEmpty())
            body.set(HubMgrAttachRequest::Group, group);
    }
    if (!send("3/1", HubMgrAttachRequest::Message, body))
        return false;
    mptAttachPacket = wait(HubMgrAttachReply::Message, 5000);
    if (!mptAttachPacket)
        return false;
    moAttachReply = mptAttachPacket->xml();
    QString machine;
    moAttachReply.get(machine, HubMgrAttachReply::MachineName);
    moMachine = MachineName(machine);
    unsigned id = 0;
    moAttachReply.get(id, HubMgrAttachReply::ProcessId);
    muiProcessId = id;
    return id != 0;
}

SharedMemoryId HubClient::traceBuffer()
{
    const boost::shared_ptr<MsgPacket> reply =
        request("3/1", HubMgrTraceBufferRequest::Message, XmlList(), HubMgrTraceBufferReply::Message);
    return reply ? SharedMemoryId(reply->xml(), HubMgrTraceBufferReply::Id) : SharedMemoryId();
}

bool HubClient::enable()
{
    if (!request("3/1", HubMgrConnectionEnableRequest::Message, XmlList(), HubRtrConnectionEnableReply::Message))
        return false;
    moReceive.setMaximumSize(IpcPacketLayout::EnabledMaximumSize);
    return true;
}

bool HubClient::start(const QString& title, const QString& name, const QString& group)
{
    return attach(title, name, group) && traceBuffer() && enable();
}

} // namespace HubTest
