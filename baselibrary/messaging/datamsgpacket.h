#ifndef BASELIBRARY_MESSAGING_DATAMSGPACKET_H
#define BASELIBRARY_MESSAGING_DATAMSGPACKET_H

#include "brevi_export.h"
#include "core/buffer.h"
#include "core/extent.h"
#include "core/xmllist.h"
#include "messaging/ipcpacket.h"
#include "messaging/msgresult.h"

#include <QByteArray>
#include <QString>

#include <boost/shared_ptr.hpp>

#include <memory>

namespace Brevi {

class MsgAddress;

// A message with raw data: the fields of a MsgPacket, the raw data's length in
// the header, then raw data and the body's XmlList text, both plain or both in
// one qCompress block (ipcpacketlayout.h).
//
// Built in one allocation of exactly its size. With compression asked for,
// raw data and text are joined and compressed; the block is used only when
// strictly smaller than the two plain ("Compressed message with data," with
// the sizes), otherwise "Uncompressable data, send it uncompressed".
//
// Received in place. In the plain form raw data and text are views on the
// buffer at once. In the compressed form the block is kept until data() or
// xml() first asks (prepareReceive), and is expanded at most once.
//
// Failure: see IpcPacket for the deserialisation errors; in the plain form a
// raw data length beyond the packet is one too ("Message deserialize error:
// raw data size beyond the packet"). A compressed block that does not expand,
// or that expands to less than the raw data's length, gives empty raw data,
// an invalid XmlList and "Failed to uncompress message data" at TraceAlways.
//
// Threads: one at a time, as for IpcPacket.
class BREVI_EXPORT DataMsgPacket : public IpcPacket
{
public:
    // An empty packet, to be filled by IpcPacketReceive.
    DataMsgPacket();
    // A message with raw data to send; the arguments as for MsgPacket. A null
    // `data` is sent as no raw data.
    DataMsgPacket(const BinaryAddress& destination, const BinaryAddress& source, const QByteArray& authorization,
                  const QString& name, const QString& cookie, const XmlList& body,
                  const boost::shared_ptr<Buffer>& data, unsigned id, bool compress);
    DataMsgPacket(const BinaryAddress& destination, const BinaryAddress& source, const QByteArray& authorization,
                  const QString& name, const QString& cookie, const QByteArray& bodyText, const Extent& data,
                  unsigned id, bool compress);
    DataMsgPacket(const MsgAddress& destination, const MsgAddress& source, const QByteArray& authorization,
                  const QString& name, const QString& cookie, const XmlList& body,
                  const boost::shared_ptr<Buffer>& data, unsigned id, bool compress);
    ~DataMsgPacket() override;

    IpcTypeE type() const override { return eIpcTypeDataMessage; }

    QString name() const { return moName.toQString(); }
    QString cookie() const { return moCookie.toQString(); }
    const Extent& nameExtent() const { return moName; }
    const Extent& cookieExtent() const { return moCookie; }
    // eMsgCompressOnSend when the packet went compressed (the magic says so).
    MsgCompression compression() const { return isCompressed() ? eMsgCompressOnSend : eMsgDoNotCompress; }
    // The raw data's length, from the header.
    unsigned dataSize() const { return muiDataSize; }

    // Expands a compressed packet's block, once; true when raw data and text
    // are in hand (at once for a plain packet), false for an empty packet or
    // a block that does not expand.
    bool prepareReceive() const;
    // Views of the raw data and of the XmlList text, expanded first if need
    // be; valid while the packet lives.
    Extent rawData() const;
    Extent xmlText() const;
    // A copy of the raw data in a Buffer of its own, made on first use; the
    // same pointer later. Never null.
    boost::shared_ptr<Buffer> data() const;
    // The body, parsed on first use; later calls return the same list.
    // Invalid when the block does not expand or the text does not parse.
    XmlList xml() const;

private:
    void build(const BinaryAddress& destination, const BinaryAddress& source, const QByteArray& authorization,
               const QString& name, const QString& cookie, const QByteArray& bodyText, const Extent& data,
               bool compress);
    bool parse() override;
    void empty() override;

    Extent moName;
    Extent moCookie;
    // Behind the cookie to the end: plain raw data and text, or the block.
    Extent moRest;
    mutable Extent moRawData;
    mutable Extent moXmlText;
    mutable QByteArray moExpanded;
    mutable boost::shared_ptr<Buffer> mptData;
    mutable std::unique_ptr<XmlList> mpXml;
    unsigned muiDataSize = 0;
    mutable bool mbPrepared = false;
    mutable bool mbExpandFailed = false;
};

} // namespace Brevi

#endif
