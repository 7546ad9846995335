#include "loopback.h"

#include <QHostAddress>

namespace BreviTest {

LoopbackLink makeLoopbackLink(int waitMs)
{
    using namespace Brevi;
    LoopbackLink link;
    link.listener.reset(new TCPSocketListen("Listen", NetAddress(QHostAddress::LocalHost, 0), 5));
    if (!*link.listener)
        return link;
    link.client.reset(new TCPSocketData("Client", link.listener->localAddress()));
    link.server = link.listener->accept("Server", waitMs);
    if (!link.client->complete(waitMs))
        link.server.reset();
    return link;
}

} // namespace BreviTest
