// A process for the Hub to start (or for a test to start beside it). What it
// does is chosen by the first argument or, when the Hub starts it through a
// link in the programs directory, by the link's name:
//   attach     attaches with BREVI_CONTEXT_TITLE, _NAME and _GROUP, enables,
//              says "HubTestHelloPost" to its parent address, answers
//              "HubTestEchoRequest", and ends on HubRtrShutdownPost
//   noattach   ends at once with status 3
//   noenable   attaches and takes its trace buffer, then ends with status 6
//              without enabling its connection
//   silent     connects and never attaches
//   monitored  attaches as a monitored process, drops its link as such a
//              process does, and runs on until killed
//   sharedmemory  attaches, makes two shared-memory names of its own and
//              runs on until killed (which leaves the names behind)
// Each mode ends by itself after a minute at the latest.

#include "hubclient.h"

#include "core/sharedmemoryprovider.h"

#include "messaging/binaryaddress.h"
#include "messaging/msgaddress.h"
#include "messaging/msgcatalogue.h"
#include "messaging/msgpacket.h"
#include "sockets/tcpsocketdata.h"

#include <QFileInfo>
#include <QThread>

#include <cstdlib>

using namespace Brevi;
using namespace Brevi::Catalogue;
using HubTest::HubClient;

namespace {

const int Lifetime = 60000;

QString variable(const char* name) { return QString::fromLocal8Bit(qgetenv(name)); }

int attachMode(HubClient& client)
{
    const QString title = variable("BREVI_CONTEXT_TITLE");
    const QString name = variable("BREVI_CONTEXT_NAME");
    const QString group = variable("BREVI_CONTEXT_GROUP");
    if (!client.start(title.isEmpty() ? QStringLiteral("child") : title, name, group))
        return 4;
    XmlList parent;
    if (client.attachReply().get(parent, HubMgrAttachReply::ParentAddress)) {
        XmlList hello;
        hello.set(HubMgrAttachReply::ProcessId, client.processId());
        hello.set(HubMgrCreateProcessRequest::Title, title);
        hello.set(HubMgrCreateProcessRequest::Name, name);
        hello.set(HubMgrCreateProcessRequest::Group, group);
        hello.set(HubMgrCreateProcessRequest::TraceFile, variable("BREVI_CONTEXT_TRACE_FILE"));
        hello.set(HubMgrAttachReply::ParentAddress, parent);
        const MsgAddress address(parent);
        client.send(address.binary().text().toQByteArray(), "HubTestHelloPost", hello);
    }
    const unsigned long long end = HubTest::steadyMs() + Lifetime;
    while (HubTest::steadyMs() < end) {
        const boost::shared_ptr<IpcPacket> packet = client.next(500);
        if (!packet) {
            if (client.closed())
                return 0;
            continue;
        }
        if (packet->type() != eIpcTypeMessage)
            continue;
        const MsgPacket& message = static_cast<const MsgPacket&>(*packet);
        if (message.name() == HubRtrShutdownPost::Message)
            return 0;
        if (message.name() == "HubTestEchoRequest")
            client.send(message.source().text().toQByteArray(), "HubTestEchoReply", message.xml(), message.cookie());
    }
    return 0;
}

int monitoredMode(HubClient& client)
{
    if (!client.attach("monitored child", QString(), QString(), HubMgrAttachRequest::TypeMonitored) ||
        !client.traceBuffer() || !client.enable())
        return 4;
    client.send(client.router(), HubRtrConnectionDetachPost::Message);
    client.waitClosed(5000);
    QThread::msleep(Lifetime);
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    QString mode = argc > 1 ? QString::fromLocal8Bit(argv[1]) : QFileInfo(QString::fromLocal8Bit(argv[0])).fileName();
    if (mode.startsWith("child"))
        mode = mode.mid(5);
    if (mode == "noattach")
        return 3;
    const unsigned port = variable("BREVI_HUB_PORT").toUInt();
    HubClient client(port);
    if (!client.connected())
        return 5;
    if (mode == "silent") {
        QThread::msleep(Lifetime);
        return 0;
    }
    if (mode == "monitored")
        return monitoredMode(client);
    if (mode == "sharedmemory") {
        if (!client.start("shared memory child"))
            return 4;
        SharedMemoryProvider::initialize(QString());
        const SharedMemoryProvider first(4096), second(4096);
        QThread::msleep(Lifetime);
        return first && second ? 0 : 7;
    }
    if (mode == "noenable") {
        client.attach(variable("BREVI_CONTEXT_TITLE"));
        client.traceBuffer();
        return 6;
    }
    return attachMode(client);
}
