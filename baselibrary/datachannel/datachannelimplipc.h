#ifndef BASELIBRARY_DATACHANNEL_DATACHANNELIMPLIPC_H
#define BASELIBRARY_DATACHANNEL_DATACHANNELIMPLIPC_H

#include "brevi_export.h"
#include "datachannel/datachannelimpl.h"
#include "messaging/msgaddress.h"

#include <QElapsedTimer>
#include <QList>

#include <boost/shared_ptr.hpp>

namespace Brevi {

class DataPacket;
class Messaging;

// A channel's bytes as DataPackets on the context's Hub link, beside its
// messages: any two attached contexts that reach each other, also across
// machines. The fallback of Best.
//
// Each buffer is one packet to the receiver's channel id. The packet's second
// number (DataPacket::dataId) says what it is:
//
//   DataMark  0  a buffer of the stream: 1 to the buffer size of payload,
//                plain or compressed (OnSend, when that makes it smaller)
//   EndMark   1  no payload: the sender has closed its end; nothing follows
//   AckMark   2  no payload, to the sender's IpcAckId: one buffer received
//
// Windowed: a sender may have no more than the buffer count of buffers
// unacknowledged, and a receiver acknowledges each one as it takes it off its
// queue (not when it has read it). The receiver's queue is held to the window
// (and the last buffer and end mark of a closing sender): what a sender sends
// beyond it ends the channel. Unwindowed channels have no such bound: a
// receiver that does not read lets its queue grow.
//
// A sender keeps at most the buffer count of packets and refills them once
// the link has written them out, so a steady stream allocates nothing. Its
// throttle (bytes per second, 0 unlimited) is checked once per packet: a
// packet beyond the second's allowance still goes, and the next one waits
// until it is paid off, in Messaging::nap.
//
// Closing: the sending end's destructor sends what it holds and the end mark
// (the link takes them at the context's next wait, or its detach); the
// receiving end gives eEOD after the last buffer, once. When the peer process
// ends, a sender goes down at once and a receiver after what had already
// arrived.
//
// Threads: the owner's; Messaging's waits run inside these operations.
class BREVI_EXPORT DatachannelImplIPC : public DatachannelImpl
{
public:
    static const unsigned DataMark = 0;
    static const unsigned EndMark = 1;
    static const unsigned AckMark = 2;

    // The receiving end, from send details; Setup::id is its new channel id.
    explicit DatachannelImplIPC(const Setup& setup);
    // The sending end: connected from receive details, or unconnected from
    // the sender's own send details (Setup::connected).
    DatachannelImplIPC(const Setup& setup, bool connected);
    ~DatachannelImplIPC() override;

    Result send(const Extent& data, bool flush) override;
    Result receive(Extent& data) override;
    Result available(Extent& buffer) override;
    Result available(unsigned& count) override;
    Result flush() override;
    Result getReceiveBuffer(Extent& buffer) override;
    Result releaseBuffer() override;
    Result getSendBuffer(Extent& buffer) override;
    Result sendBuffer(unsigned size) override;
    Result used(unsigned size) override;
    void throttleChanged() override;
    XmlList receiveDetails() const override;
    Result connect(const Details& details) override;
    Compression compression() const override;
    void compression(Compression compression) override;

    unsigned ackId() const { return muiAckId; }
    unsigned bufferCount() const { return muiBufferCount; }
    Datachannel::Synchronization synchronization() const { return meSynchronization; }

protected:
    void peerGone(bool undeliverable) override;

private:
    bool windowed() const { return meSynchronization == Datachannel::Synchronization::Windowed; }
    // Messaging of this context, and the return address for the peer.
    bool takeMessaging();
    // Reads synchronization and compression; false, traced, for a text that
    // is neither word.
    bool readModes(const XmlList& details);
    // The sending end's keys from receive details.
    bool attach(const Details& details);

    // The sending end: a packet to fill, within the window.
    Result acquire();
    // Sends the current, prepared packet, within the throttle.
    Result transmit();
    // Prepares the current packet with what it holds and transmits it.
    Result transmitFilled(unsigned size);
    // The receiving end: the next buffer from the queue.
    Result fetch();
    void acknowledge();
    // A packet of the list the link has written out, or a new one.
    boost::shared_ptr<DataPacket> recycled(unsigned payload, unsigned channel, unsigned mark);
    // A closing sender's last buffer and end mark.
    void close();

    unsigned muiAckId = 0;
    unsigned muiAvailableAcks = 0;
    unsigned muiBufferCount = 0;
    Datachannel::Synchronization meSynchronization = Datachannel::Synchronization::None;
    bool mbCompress = false;
    boost::shared_ptr<DataPacket> mptCurrent;
    unsigned muiBytesLeft = 0;
    qint64 miTick = 1000;
    QElapsedTimer moTimer;
    boost::shared_ptr<Messaging> mptMessaging;
    MsgAddress moReturnAddress;
    QList<boost::shared_ptr<DataPacket>> moPackets;
    // The ids this end has put into its receive queue.
    bool mbChannelRegistered = false;
    bool mbAckRegistered = false;
    // A receiver whose sender has gone: what is queued is still read.
    bool mbPeerGone = false;
};

} // namespace Brevi

#endif
