#ifndef TESTS_ATTACHED_ATTACHEDTEST_H
#define TESTS_ATTACHED_ATTACHEDTEST_H

#include "hubclient.h"
#include "hubtest.h"

#include "core/context.h"
#include "core/xmllist.h"
#include "messaging/msg.h"

#include <QByteArray>
#include <QString>

#include <boost/shared_ptr.hpp>

#include <functional>
#include <memory>

namespace Brevi {
class MsgPacket;
class TCPSocketListen;
} // namespace Brevi

namespace AttachedTest {

// Runs `body` on this thread inside a Context of `type` (Context::run);
// false when the context did not come up and `body` was not called.
bool runContext(const std::function<void()>& body, Brevi::Context::Type type, unsigned flags, const QString& title,
                const QString& name = QString(), const QString& group = QString());

// Points this process, and the children it starts, at the Hub on `port`.
void useHubPort(unsigned port);

// The helper program: an attached process driven by its arguments.
inline QString helperProgram() { return HubTest::childProgram(); }

// The text of every trace file under `directory`, one after the other.
QString traceFiles(const QString& directory);

// Whether the trace buffer the Hub lists for the process titled `title`
// (a HubMgrMonitorReply body) holds a line with `text`.
bool traced(const Brevi::XmlList& monitorReply, const QString& title, const QString& text);

// The next message of `name` for the calling thread, or the invalid message;
// the handlers of other messages run meanwhile.
Brevi::Msg waitFor(const QString& name, int seconds = 10);

// The Hub side of one link, played by the test: it listens on a free port of
// the loopback address, accepts one process at a time, and says exactly what
// the test tells it. Meant to run on a thread of its own while the test's
// thread attaches; every wait is bounded.
class FakeHub
{
public:
    FakeHub();
    ~FakeHub();
    unsigned port() const { return muiPort; }
    // The machine name this Hub gives out, and its services' flat addresses.
    static QString machine() { return QStringLiteral("fakenode@feed"); }
    static QByteArray manager() { return "1/1/" + machine().toUtf8(); }
    static QByteArray router() { return "1/2/" + machine().toUtf8(); }
    static QByteArray process(unsigned id) { return "1/" + QByteArray::number(id) + '/' + machine().toUtf8(); }

    // Waits for a process to connect; the link of an earlier one is dropped.
    bool accept(int ms = 10000);
    HubTest::HubClient& link() { return *mpLink; }

    // The next message of `name` from the process; null if none came.
    boost::shared_ptr<Brevi::MsgPacket> wait(const QString& name, int ms = 10000);
    // A message from `source` to `destination`, written whole.
    bool send(const QByteArray& source, const QByteArray& destination, const QString& name,
              const Brevi::XmlList& body = Brevi::XmlList(), const QString& cookie = QString());
    // The attach reply a Hub gives: ProcessId and MachineName from the
    // manager, to the process's new address.
    bool replyAttach(unsigned processId, const QString& cookie = QString());
    // Attach request in, reply out; the request is kept in `request`.
    bool attach(unsigned processId, boost::shared_ptr<Brevi::MsgPacket>* request = nullptr);
    // Waits for the process to close its end, then closes the Hub's: how a
    // Hub ends a link whose process detaches. True when the process closed.
    bool finish(int ms = 15000);
    // Trace buffer (none given) and enable, as the Hub answers them.
    bool serveStart(int ms = 10000);

private:
    std::unique_ptr<Brevi::TCPSocketListen> mpListener;
    std::unique_ptr<HubTest::HubClient> mpLink;
    unsigned muiPort = 0;
    unsigned muiNextId = 1;
    unsigned muiProcessId = 0;
};

} // namespace AttachedTest

#endif
