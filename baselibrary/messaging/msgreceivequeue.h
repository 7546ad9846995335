#ifndef BASELIBRARY_MESSAGING_MSGRECEIVEQUEUE_H
#define BASELIBRARY_MESSAGING_MSGRECEIVEQUEUE_H

#include "brevi_export.h"
#include "datachannel/datachanneltransport.h"
#include "messaging/ipcresult.h"
#include "messaging/msg.h"

#include <QByteArray>
#include <QHash>
#include <QList>
#include <QString>

#include <boost/shared_ptr.hpp>

namespace Brevi {

class IpcPacket;

// Where received messages and data packets wait for their thread, inside
// every Messaging: messages in delivery order, and per data channel the
// packets that came for it.
//
// Two rules apply on the way in:
// - authorization: a message whose name has authorizations registered gets
//   in only with one of them; others are dropped ("Not authorized, give it
//   to the bit bucket") and the sender learns nothing. A name without
//   authorizations is open to all;
// - messages before data: every data read answers eIpcResultMessagePending
//   while a message waits, so that a stream of data cannot starve control
//   traffic.
//
// Threads: only the thread of the owning context uses it; nothing is locked.
class BREVI_EXPORT MsgReceiveQueue
{
public:
    typedef DatachannelTransport::Transport Transport;

    MsgReceiveQueue();
    ~MsgReceiveQueue();
    MsgReceiveQueue(const MsgReceiveQueue&) = delete;
    MsgReceiveQueue& operator=(const MsgReceiveQueue&) = delete;

    // Appends, or puts in front (what requeue uses). False when the
    // message is refused or invalid.
    bool enqueue(const Msg& message);
    bool prepend(const Msg& message);
    // Appends unless a message of the same name and an equal source is
    // already waiting; true in both cases.
    bool enqueueOnce(const Msg& message);
    // A packet from the link: a message or data message becomes a Msg and is
    // enqueued; data goes to its channel. False when it went to the bit
    // bucket (unknown channel, unknown kind, refused message).
    bool enqueue(const boost::shared_ptr<IpcPacket>& packet);
    // Takes the first message; false when there is none.
    bool dequeue(Msg& message);
    bool isEmpty() const { return moMessages.isEmpty(); }
    int count() const { return moMessages.size(); }

    // The binary authorizations a name accepts. A name may hold the same one
    // several times (one per handler); removing takes one off.
    void addAuthorization(const QString& name, const QByteArray& authorization);
    void removeAuthorization(const QString& name, const QByteArray& authorization);
    // Whether `message` would be let in.
    bool authorized(const Msg& message) const;

    // --- Data channels of this thread --------------------------------------
    // A packet queue for the channel; nothing happens if the id is known.
    // With a `limit`, a packet that finds that many waiting is more than the
    // sender may have in flight: the channel is closed ("Data beyond the
    // window of datachannel"), its packets dropped, and its reads give
    // eIpcResultClosed from then on, so that a peer that ignores the window
    // cannot fill this process's memory.
    void addDatachannel(unsigned id, Transport transport, unsigned limit = 0);
    // Drops the queue with the packets in it; later data for the id goes to
    // the bit bucket.
    void removeDatachannel(unsigned id);
    // Rewrites `transport`, the one a new channel of this thread wants, to
    // what is possible beside the channels it has: any number of IPC
    // channels, or one memory channel, or one file channel, never a mix; Best
    // becomes Memory on a thread without channels. None where nothing is
    // possible; the result says whether something is.
    bool dataTransportType(Transport& transport) const;
    // eIpcResultMessagePending while a message waits; otherwise eIpcResultOk
    // if the channel (the first of the list that has one) has a packet,
    // eIpcResultAgain if not or if the channel is unknown. A channel closed
    // for overrunning its limit gives eIpcResultClosed alone, and counts as
    // one with a packet in a list, so that its reader hears of it.
    IpcResult dataAvailable(unsigned id) const;
    IpcResult dataAvailable(const QList<unsigned>& ids) const;
    // The first packet of the channel, taken off: eIpcResultOk. Null with
    // eIpcResultMessagePending (a message first), eIpcResultClosed (unknown
    // or overrun channel) or eIpcResultAgain (nothing there).
    boost::shared_ptr<IpcPacket> dequeueData(IpcResult& result, unsigned id);
    // On a sending channel every incoming packet is an acknowledgement: takes
    // them all off and gives their number; 0 for an unknown channel.
    unsigned availableAcks(unsigned id);
    int channelCount() const { return moChannels.size(); }
    bool hasDatachannel(unsigned id) const { return moChannels.contains(id); }

private:
    struct Channel {
        Transport meTransport = DatachannelTransport::None;
        QList<boost::shared_ptr<IpcPacket>> moPackets;
        unsigned muiLimit = 0;
        bool mbOverrun = false;
    };

    bool admit(const Msg& message) const;

    QList<Msg> moMessages;
    QHash<unsigned, Channel> moChannels;
    QHash<QString, QList<QByteArray>> moAuthorizations;
};

} // namespace Brevi

#endif
