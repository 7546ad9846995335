#ifndef BASELIBRARY_SOCKETS_NETADDRESS_H
#define BASELIBRARY_SOCKETS_NETADDRESS_H

#include "brevi_export.h"
#include "core/operatorboolgenerator.h"

#include <QHostAddress>
#include <QString>

struct sockaddr;

namespace Brevi {

class Trace;

// A host address with a TCP port: where a socket is bound or connected.
//
// The host part is a QHostAddress and keeps its rules: it holds a numeric
// IPv4 or IPv6 address, never a name (fromHostName looks a name up). The port
// is in host byte order. An address is valid when its host is IPv4 or IPv6;
// the null address (default constructed, or after a text that did not parse)
// is not.
//
// The text form is the host, one blank, the port in decimal ("127.0.0.1
// 30303"): getAddressString writes it, setAddress(QString) reads it.
//
// QHostAddress::Any stands for the IPv4 any-address (0.0.0.0) here, as it did
// when QHostAddress meant IPv4 by it: the sockets connect and bind only over
// IPv4 (getAddress), and "any" must be an address they can bind. AnyIPv6
// gives the IPv6 one.
//
// Equality compares the hosts only and ignores the port: two ends of a
// machine's connections compare equal to each other and to the machine's
// address. Compare getPort() as well where the port matters.
//
// A value type; copies are independent. Any thread may use its own copies.
class BREVI_EXPORT NetAddress : public QHostAddress
{
public:
    // The null address, port 0.
    NetAddress();
    NetAddress(SpecialAddress address, unsigned port);
    // Host and port of an IPv4 (AF_INET) or IPv6 (AF_INET6) structure; for any
    // other family the null address with port 0. The structure must be as
    // long as its family says (sockaddr_in, sockaddr_in6; sockaddr_storage
    // holds either).
    explicit NetAddress(const sockaddr& address);
    // The text form, as setAddress(QString) reads it.
    explicit NetAddress(const QString& text);
    NetAddress(const NetAddress& other) = default;
    NetAddress& operator=(const NetAddress& other) = default;

    // Looks `host` up: a numeric address as it stands, otherwise a name
    // through the system's resolver (hosts file, DNS), preferring an IPv4
    // result. Blocks for as long as the resolver takes. A name that does not
    // resolve gives the null address and traces "Failed to resolve host name"
    // with the resolver's reason.
    static NetAddress fromHostName(const QString& host, unsigned port);

    // As the constructor from a structure. Returns valid().
    bool setAddress(const sockaddr& address);
    void setAddress(SpecialAddress address, unsigned port);
    // Clears the address, then splits `text` at blanks, leaving out empty
    // parts. Two parts are a numeric host and a decimal port; a port that does
    // not parse leaves the address null. Any other number of parts is tried
    // whole as a host (port 0), which fails for text with inner blanks. An
    // IPv6 scope id with a blank or a control character leaves it null too.
    // Returns valid().
    bool setAddress(const QString& text);
    NetAddress& operator=(const QString& text)
    {
        setAddress(text);
        return *this;
    }
    void setPort(unsigned port) { muiPort = port; }
    // setScopeId and protocol are QHostAddress's own.

    // Fills an IPv4 structure of 16 bytes (AF_INET, port and address in
    // network order, zeros in the rest) and returns true. For an address that
    // is not IPv4 it returns false and leaves `address` untouched: the sockets
    // bind and connect over IPv4 only. So does a port above 65535, which no
    // socket can have.
    bool getAddress(sockaddr& address) const;

    // The host text ("127.0.0.1", "::1"); empty for the null address.
    QString getHostString() const { return toString(); }
    unsigned getPort() const { return muiPort; }
    QString getScopeId() const { return scopeId(); }
    // The host text, one blank, the port ("127.0.0.1 30303"); what
    // setAddress(QString) reads back to the same address and port.
    QString getAddressString() const;

    bool valid() const;
    operator OperatorBoolGenerator<NetAddress>::Result() const
    {
        return OperatorBoolGenerator<NetAddress>::make(valid());
    }

    // Hosts only; the ports do not count.
    bool operator==(const NetAddress& other) const;
    bool operator!=(const NetAddress& other) const { return !(*this == other); }
    // Against the special address as this class reads it (Any is 0.0.0.0).
    bool operator==(SpecialAddress other) const;
    bool operator!=(SpecialAddress other) const { return !(*this == other); }

    // Writes the host text and the port as two values, or "(null address)".
    Trace& trace(Trace& trace) const;

private:
    unsigned muiPort = 0;
};

BREVI_EXPORT Trace& operator<<(Trace& trace, const NetAddress& address);

} // namespace Brevi

#endif
