#ifndef TESTS_HUB_HUBCLIENT_H
#define TESTS_HUB_HUBCLIENT_H

#include "core/machinename.h"
#include "core/sharedmemoryid.h"
#include "core/xmllist.h"
#include "messaging/ipcpacketreceive.h"
#include "messaging/ipcpacketsend.h"

#include <QByteArray>
#include <QString>

#include <boost/shared_ptr.hpp>

#include <deque>

namespace Brevi {
class IpcPacket;
class MsgPacket;
class TCPSocketData;
class TCPSocketSelect;
} // namespace Brevi

namespace HubTest {

// A scripted process on a Hub link, made of the library's sockets and packet
// machines only: it says exactly what a test tells it to, in the order told,
// and lets the test look at every packet that comes back.
//
// Every wait is bounded by the milliseconds given. Packets that arrive while
// a test waits for something else are kept, in order, for later waits.
class HubClient
{
public:
    // Connects to 127.0.0.1:`port`, waiting up to `ms`.
    explicit HubClient(unsigned port, int ms = 5000);
    // Speaks on a connection made elsewhere: the Hub's end of a link, for a
    // test that plays the Hub.
    explicit HubClient(const boost::shared_ptr<Brevi::TCPSocketData>& socket);
    ~HubClient();
    HubClient(const HubClient&) = delete;
    HubClient& operator=(const HubClient&) = delete;

    bool connected() const;

    // --- the exchanges of a process's start ------------------------------
    // HubMgrAttachRequest; true when a reply with a ProcessId came. The
    // reply is kept in attachReply() either way.
    bool attach(const QString& title, const QString& name = QString(), const QString& group = QString(),
                const QString& type = QStringLiteral("Attached"), bool notifyReady = false);
    Brevi::SharedMemoryId traceBuffer();
    bool enable();
    // attach, trace buffer and enable.
    bool start(const QString& title, const QString& name = QString(), const QString& group = QString());

    const Brevi::XmlList& attachReply() const { return moAttachReply; }
    const boost::shared_ptr<Brevi::MsgPacket>& attachPacket() const { return mptAttachPacket; }
    unsigned processId() const { return muiProcessId; }
    const Brevi::MachineName& machine() const { return moMachine; }
    // "1/<ProcessId>/<machine>".
    QByteArray address() const;
    // "1/0/<machine>/<name>[/<group>]" on the Hub's machine.
    QByteArray logical(const QString& name, const QString& group = QString()) const;
    // The Hub's services on its machine: "1/1/<machine>" and "1/2/<machine>".
    QByteArray manager() const;
    QByteArray router() const;

    // --- sending -----------------------------------------------------------
    // A message from this process's address (empty before attach).
    bool send(const QByteArray& destination, const QString& name, const Brevi::XmlList& body = Brevi::XmlList(),
              const QString& cookie = QString());
    bool sendPacket(const boost::shared_ptr<Brevi::IpcPacket>& packet);
    // Bytes as they stand, past the packet machines.
    bool sendRaw(const QByteArray& bytes);

    // --- receiving ---------------------------------------------------------
    // The next packet of any kind; null when none came in time.
    boost::shared_ptr<Brevi::IpcPacket> next(int ms);
    // The next message of that name; others are kept for later.
    boost::shared_ptr<Brevi::MsgPacket> wait(const QString& name, int ms);
    // Sends and waits for the reply of `replyName`; null when none came.
    boost::shared_ptr<Brevi::MsgPacket> request(const QByteArray& destination, const QString& name,
                                                const Brevi::XmlList& body, const QString& replyName, int ms = 5000);
    // True once the Hub has closed the link (within `ms`).
    bool waitClosed(int ms);
    bool closed() const { return mbClosed; }

    void close();

private:
    // One wait on the socket: writes what it can, reads what has come.
    void pump(int ms);
    bool flush(int ms);
    void readAll();

    boost::shared_ptr<Brevi::TCPSocketData> mptSocket;
    boost::shared_ptr<Brevi::TCPSocketSelect> mptSelect;
    Brevi::IpcPacketSend moSend;
    Brevi::IpcPacketReceive moReceive;
    std::deque<boost::shared_ptr<Brevi::IpcPacket>> moOutbox;
    std::deque<boost::shared_ptr<Brevi::IpcPacket>> moInbox;
    Brevi::XmlList moAttachReply;
    boost::shared_ptr<Brevi::MsgPacket> mptAttachPacket;
    Brevi::MachineName moMachine;
    unsigned muiProcessId = 0;
    unsigned muiNextId = 1;
    bool mbClosed = false;
};

// Milliseconds on a steady clock.
unsigned long long steadyMs();

} // namespace HubTest

#endif
