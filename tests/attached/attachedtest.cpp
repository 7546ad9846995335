#include "attachedtest.h"

#include "core/sharedmemoryid.h"
#include "core/sharedmemoryuser.h"
#include "core/xmllistiterator.h"
#include "messaging/binaryaddress.h"
#include "messaging/msgcatalogue.h"
#include "messaging/msgpacket.h"
#include "sockets/netaddress.h"
#include "sockets/tcpsocketdata.h"
#include "sockets/tcpsocketlisten.h"

#include "tracelines.h"

#include <QDir>
#include <QFile>

#include <boost/make_shared.hpp>

#include <cstdlib>

using namespace Brevi;
using namespace Brevi::Catalogue;

namespace AttachedTest {

namespace {
const std::function<void()>* gpBody = nullptr;

void callBody() { (*gpBody)(); }
} // namespace

bool runContext(const std::function<void()>& body, Context::Type type, unsigned flags, const QString& title,
                const QString& name, const QString& group)
{
    gpBody = &body;
    const bool ran = Context::run(callBody, type, flags, title, name, group);
    gpBody = nullptr;
    return ran;
}

void useHubPort(unsigned port) { ::setenv("BREVI_HUB_PORT", QByteArray::number(port).constData(), 1); }

QString traceFiles(const QString& directory)
{
    QString text;
    const QDir dir(directory);
    for (const QString& name : dir.entryList(QDir::Files, QDir::Name)) {
        QFile file(dir.absoluteFilePath(name));
        if (file.open(QIODevice::ReadOnly))
            text += QString::fromUtf8(file.readAll());
    }
    return text;
}

bool traced(const XmlList& monitorReply, const QString& title, const QString& text)
{
    for (XmlListIterator it = monitorReply.first("Entry"); !it.isNull(); it.next("Entry")) {
        XmlList entry;
        QString entryTitle;
        if (!monitorReply.get(entry, it) || !entry.get(entryTitle, HubMgrMonitorReply::Title) || entryTitle != title)
            continue;
        const SharedMemoryUser buffer{SharedMemoryId(entry, HubMgrMonitorReply::TraceId)};
        if (!buffer)
            continue;
        if (!BreviTest::ringTexts(buffer.address(), buffer.size()).filter(text).isEmpty())
            return true;
    }
    return false;
}

Msg waitFor(const QString& name, int seconds) { return Msg::wait(name, seconds); }

FakeHub::FakeHub()
    : mpListener(new TCPSocketListen("Fake Hub", NetAddress(QHostAddress::LocalHost, 0), 5))
{
    muiPort = mpListener->localAddress().getPort();
}

FakeHub::~FakeHub() = default;

bool FakeHub::accept(int ms)
{
    mpLink.reset();
    const boost::shared_ptr<TCPSocketData> socket = mpListener->accept("Fake Hub link", ms);
    if (!socket)
        return false;
    mpLink.reset(new HubTest::HubClient(socket));
    return mpLink->connected();
}

boost::shared_ptr<MsgPacket> FakeHub::wait(const QString& name, int ms)
{
    return mpLink ? mpLink->wait(name, ms) : boost::shared_ptr<MsgPacket>();
}

bool FakeHub::send(const QByteArray& source, const QByteArray& destination, const QString& name, const XmlList& body,
                   const QString& cookie)
{
    return mpLink && mpLink->sendPacket(boost::make_shared<MsgPacket>(BinaryAddress(Extent(destination)),
                                                                      BinaryAddress(Extent(source)), QByteArray(), name,
                                                                      cookie, body, muiNextId++, false));
}

bool FakeHub::replyAttach(unsigned processId, const QString& cookie)
{
    XmlList body;
    body.set(HubMgrAttachReply::ProcessId, processId);
    body.set(HubMgrAttachReply::MachineName, machine());
    return send(manager(), process(processId), HubMgrAttachReply::Message, body, cookie);
}

bool FakeHub::attach(unsigned processId, boost::shared_ptr<MsgPacket>* request)
{
    const boost::shared_ptr<MsgPacket> asked = wait(HubMgrAttachRequest::Message);
    if (request)
        *request = asked;
    muiProcessId = processId;
    return asked && replyAttach(processId, asked->cookie());
}

bool FakeHub::finish(int ms)
{
    if (!mpLink)
        return false;
    const bool closed = mpLink->waitClosed(ms);
    mpLink->close();
    return closed;
}

bool FakeHub::serveStart(int ms)
{
    const boost::shared_ptr<MsgPacket> buffer = wait(HubMgrTraceBufferRequest::Message, ms);
    if (!buffer || !send(manager(), process(muiProcessId), HubMgrTraceBufferReply::Message))
        return false;
    const boost::shared_ptr<MsgPacket> enable = wait(HubMgrConnectionEnableRequest::Message, ms);
    return enable && send(router(), process(muiProcessId), HubRtrConnectionEnableReply::Message);
}

} // namespace AttachedTest
