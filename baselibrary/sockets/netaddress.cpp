#include "sockets/netaddress.h"

#include "core/trace.h"

#include <QStringList>

#include <cstring>

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace Brevi {

namespace {
const unsigned TraceModule = TraceModuleNetAddress;

// The special addresses as the socket layer reads them: "any" is the IPv4
// any-address, because an address that cannot be bound is no use as a default.
QHostAddress special(QHostAddress::SpecialAddress address)
{
    return QHostAddress(address == QHostAddress::Any ? QHostAddress::AnyIPv4 : address);
}
} // namespace

NetAddress::NetAddress() = default;

NetAddress::NetAddress(SpecialAddress address, unsigned port)
    : QHostAddress(special(address))
    , muiPort(port)
{}

NetAddress::NetAddress(const sockaddr& address) { setAddress(address); }

NetAddress::NetAddress(const QString& text) { setAddress(text); }

NetAddress NetAddress::fromHostName(const QString& host, unsigned port)
{
    NetAddress result;
    if (static_cast<QHostAddress&>(result).setAddress(host.trimmed())) {
        result.muiPort = port;
        return result;
    }
    addrinfo hints;
    std::memset(&hints, 0, sizeof hints);
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    const QByteArray name = host.trimmed().toUtf8();
    const int error = name.isEmpty() ? EAI_NONAME : getaddrinfo(name.constData(), nullptr, &hints, &found);
    if (error != 0) {
        BTRACE(TraceAlways) << "Failed to resolve host name" << host << gai_strerror(error);
        return result;
    }
    // The sockets connect over IPv4 only: take an IPv4 result if there is one.
    const addrinfo* chosen = found;
    for (const addrinfo* at = found; at; at = at->ai_next) {
        if (at->ai_family == AF_INET) {
            chosen = at;
            break;
        }
    }
    if (chosen && chosen->ai_addr)
        result.setAddress(*chosen->ai_addr);
    freeaddrinfo(found);
    if (!result.valid()) {
        BTRACE(TraceAlways) << "Failed to resolve host name" << host << "no usable address";
        return NetAddress();
    }
    result.muiPort = port;
    BTRACE(TraceVerbose) << "Resolved" << host << "to" << result;
    return result;
}

bool NetAddress::setAddress(const sockaddr& address)
{
    clear();
    muiPort = 0;
    if (address.sa_family == AF_INET) {
        QHostAddress::setAddress(&address);
        muiPort = ntohs(reinterpret_cast<const sockaddr_in&>(address).sin_port);
    } else if (address.sa_family == AF_INET6) {
        QHostAddress::setAddress(&address);
        muiPort = ntohs(reinterpret_cast<const sockaddr_in6&>(address).sin6_port);
    }
    return valid();
}

void NetAddress::setAddress(SpecialAddress address, unsigned port)
{
    static_cast<QHostAddress&>(*this) = special(address);
    muiPort = port;
}

bool NetAddress::setAddress(const QString& text)
{
    clear();
    muiPort = 0;
    const QStringList parts = text.split(QLatin1Char(' '), Qt::SkipEmptyParts);
    if (parts.size() == 2) {
        bool ok = false;
        const unsigned port = parts.at(1).toUInt(&ok, 10);
        if (!ok)
            return false;
        if (QHostAddress::setAddress(parts.at(0)))
            muiPort = port;
    } else {
        QHostAddress::setAddress(text);
    }
    // A scope id with a blank or a control character in it could not come
    // back through the text form: getAddressString would write what this
    // reads otherwise.
    const QString scope = scopeId();
    for (const QChar c : scope)
        if (c.unicode() <= ' ' || c.unicode() == 0x7F) {
            clear();
            muiPort = 0;
            return false;
        }
    return valid();
}

bool NetAddress::getAddress(sockaddr& address) const
{
    if (QHostAddress::protocol() != QAbstractSocket::IPv4Protocol || muiPort > 0xFFFFu)
        return false;
    sockaddr_in& in = reinterpret_cast<sockaddr_in&>(address);
    std::memset(&in, 0, sizeof in);
    in.sin_family = AF_INET;
    in.sin_port = htons(quint16(muiPort));
    in.sin_addr.s_addr = htonl(toIPv4Address());
    return true;
}

QString NetAddress::getAddressString() const { return toString() + QLatin1Char(' ') + QString::number(muiPort); }

bool NetAddress::valid() const
{
    const QAbstractSocket::NetworkLayerProtocol family = QHostAddress::protocol();
    return family == QAbstractSocket::IPv4Protocol || family == QAbstractSocket::IPv6Protocol;
}

bool NetAddress::operator==(const NetAddress& other) const
{
    return static_cast<const QHostAddress&>(*this) == static_cast<const QHostAddress&>(other);
}

bool NetAddress::operator==(SpecialAddress other) const
{
    return static_cast<const QHostAddress&>(*this) == special(other);
}

Trace& NetAddress::trace(Trace& trace) const
{
    if (!valid())
        return trace << "(null address)";
    return trace << toString() << muiPort;
}

Trace& operator<<(Trace& trace, const NetAddress& address) { return address.trace(trace); }

} // namespace Brevi
