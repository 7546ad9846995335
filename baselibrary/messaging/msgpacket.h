#ifndef BASELIBRARY_MESSAGING_MSGPACKET_H
#define BASELIBRARY_MESSAGING_MSGPACKET_H

#include "brevi_export.h"
#include "core/extent.h"
#include "core/xmllist.h"
#include "messaging/ipcpacket.h"
#include "messaging/msgresult.h"

#include <QByteArray>
#include <QString>

#include <memory>

namespace Brevi {

class MsgAddress;

// A message on the wire: destination, source, authorization, name, cookie and
// the body's XmlList text, plain or through qCompress (ipcpacketlayout.h).
//
// Built whole from a message's fields in one allocation of exactly its size.
// With compression asked for, a non-empty body is compressed, and the
// compressed form and magic are used only when strictly smaller than the
// plain text; otherwise "Uncompressable data, send it uncompressed" is traced
// and the plain form goes.
//
// Received in place: name, cookie and body are views on the buffer, and the
// body is expanded and parsed only when xml() or bodyText() asks for it, so a
// router passes a packet on without ever looking at its body.
//
// Failure: see IpcPacket for the deserialisation errors of a received packet.
// A compressed body that does not expand gives an invalid XmlList from xml()
// (and "Failed to uncompress message body" at TraceAlways); the packet's other
// fields stay usable.
//
// Threads: one at a time, as for IpcPacket.
class BREVI_EXPORT MsgPacket : public IpcPacket
{
public:
    // An empty packet, to be filled by IpcPacketReceive.
    MsgPacket();
    // A message to send. `destination` and `source` are flat forms (an empty
    // source is allowed: the Hub knows the other end of its link);
    // `authorization` must hold no NUL byte, since the field ends at the
    // first one. `compress` is the sender's wish (eMsgCompressOnSend).
    MsgPacket(const BinaryAddress& destination, const BinaryAddress& source, const QByteArray& authorization,
              const QString& name, const QString& cookie, const XmlList& body, unsigned id, bool compress);
    // The same with the body's XmlList text already made (an empty array for
    // an empty body).
    MsgPacket(const BinaryAddress& destination, const BinaryAddress& source, const QByteArray& authorization,
              const QString& name, const QString& cookie, const QByteArray& bodyText, unsigned id, bool compress);
    // The same from structured addresses, through their flat forms.
    MsgPacket(const MsgAddress& destination, const MsgAddress& source, const QByteArray& authorization,
              const QString& name, const QString& cookie, const XmlList& body, unsigned id, bool compress);
    ~MsgPacket() override;

    IpcTypeE type() const override { return eIpcTypeMessage; }

    // The name and cookie, from UTF-8; empty for an empty packet.
    QString name() const { return moName.toQString(); }
    QString cookie() const { return moCookie.toQString(); }
    // The same as views on the buffer.
    const Extent& nameExtent() const { return moName; }
    const Extent& cookieExtent() const { return moCookie; }
    // eMsgCompressOnSend when the packet went compressed (the magic says so).
    MsgCompression compression() const { return isCompressed() ? eMsgCompressOnSend : eMsgDoNotCompress; }
    // The body as it stands on the wire: XmlList text, or its qCompress block
    // when isCompressed().
    const Extent& body() const { return moBody; }

    // The body's XmlList text, expanded on first use ("Compressed message,",
    // the new size, "from", the old size); empty when expansion fails. The
    // bytes stay valid while the packet lives.
    QByteArray bodyText() const;
    // The body, parsed on first use; later calls return the same list (which
    // shares its document, as XmlList copies do). Invalid when the body does
    // not expand or does not parse.
    XmlList xml() const;
    // True once the body has been expanded (or found plain).
    bool isExpanded() const { return mbExpanded; }

private:
    void build(const BinaryAddress& destination, const BinaryAddress& source, const QByteArray& authorization,
               const QString& name, const QString& cookie, const QByteArray& bodyText, bool compress);
    bool parse() override;
    void empty() override;
    void expandBody() const;

    Extent moName;
    Extent moCookie;
    Extent moBody;
    // The expanded text of a compressed body, or a view of the plain one.
    mutable QByteArray moText;
    // Made on the first xml(): a document costs an allocation or two, and a
    // router never asks.
    mutable std::unique_ptr<XmlList> mpXml;
    mutable bool mbExpanded = false;
    mutable bool mbUnreadable = false;
};

} // namespace Brevi

#endif
