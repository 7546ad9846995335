#ifndef BASELIBRARY_DATACHANNEL_DATACHANNELIMPL_H
#define BASELIBRARY_DATACHANNEL_DATACHANNELIMPL_H

#include "brevi_export.h"
#include "core/authorization.h"
#include "core/xmllist.h"
#include "datachannel/datachannel.h"
#include "messaging/msgaddress.h"
#include "messaging/msgresult.h"

#include <QByteArray>

#include <boost/shared_ptr.hpp>

namespace Brevi {

class Extent;
class MsgCondition;

// One end of a channel as a transport implements it, behind the Datachannel
// handle, which checks roles and arguments and then calls these operations.
//
// This base is itself a channel, an invalid one: a default Datachannel holds
// it, and every moving operation refuses (eInvalidRequest). A transport
// derives from it, fills in the fields below in its constructors, sets
// `mbValid` once it is ready, and clears it on any failure that ends the
// channel.
//
// Transports are registered by their Transport value (`registerTransport`)
// with the functions that build their ends; Datachannel's constructors find
// them there. So a transport is added by its own two files, and the rest of
// the subsystem stays as it is. `Best` falls back to IPC while no memory
// transport is registered.
//
// The base also watches the peer for its transports (`watchPeer`): when the
// Hub reports that the peer process has ended (HubRtrProcessExitedPost,
// asked for with HubRtrRegisterNotifyOnExitPost) or that data for it could
// not be delivered (HubRtrUndeliverableDataPost), the channel is told
// (`peerGone`) while its thread handles that message. The watches of one
// thread's channels share one registration per peer.
//
// Threads: the owner's thread only, like the Datachannel.
class BREVI_EXPORT DatachannelImpl
{
public:
    typedef Datachannel::Result Result;
    typedef Datachannel::Transport Transport;
    typedef Datachannel::Compression Compression;

    // The common part of a details list, read once for every transport.
    struct Details {
        XmlList list;
        // Type "Send".
        bool send = false;
        Transport transport = DatachannelTransport::None;
        MsgAddress peer;
        // ReceiveId; 0 when absent.
        unsigned receiveId = 0;
    };

    // What a transport's builder is given.
    struct Setup {
        boost::shared_ptr<MsgCondition> condition;
        Details details;
        Authorization authorization;
        // The receiving end's new channel id; unused at a sending end.
        unsigned id = 0;
        // A sending end built from receive details; false for the unconnected
        // one of the handshake, which has the send details.
        bool connected = false;
    };

    // The builders of a transport's two ends, and the removal of what a
    // channel leaves behind (may be null). A builder returns its channel
    // whether or not it came up; the caller looks at isValid().
    struct Builders {
        boost::shared_ptr<DatachannelImpl> (*receiver)(const Setup& setup) = nullptr;
        boost::shared_ptr<DatachannelImpl> (*sender)(const Setup& setup) = nullptr;
        void (*discard)(const XmlList& details) = nullptr;
    };

    // Registers a transport once, from a static initializer of its own file.
    // False, with a trace, for Best or None, or a transport already there.
    static bool registerTransport(Transport transport, const Builders& builders);
    // Null when the transport is not registered.
    static const Builders* builders(Transport transport);

    // Reads the common keys; false with the reason traced ("No valid details
    // type supplied,", "No valid transport type supplied,", "No peer address
    // supplied", "Invalid peer address supplied", "Invalid receive channel id
    // supplied").
    static bool parse(const XmlList& list, Details& details);

    // The invalid channel.
    DatachannelImpl();
    virtual ~DatachannelImpl();
    DatachannelImpl(const DatachannelImpl&) = delete;
    DatachannelImpl& operator=(const DatachannelImpl&) = delete;

    // The operations of Datachannel, which has checked the role and the
    // arguments. The second `send` and `receive` wrap the first ones.
    virtual Result send(const Extent& data, bool flush);
    virtual Result send(unsigned& sent, const void* data, unsigned size, bool flush);
    virtual Result receive(Extent& data);
    virtual Result receive(unsigned& got, void* data, unsigned size);
    virtual Result available(Extent& buffer);
    virtual Result available(unsigned& count);
    virtual Result flush();
    virtual Result getReceiveBuffer(Extent& buffer);
    virtual Result releaseBuffer();
    virtual Result getSendBuffer(Extent& buffer);
    virtual Result sendBuffer(unsigned size);
    virtual Result used(unsigned size);
    // `muiThrottle` has changed.
    virtual void throttleChanged();
    virtual XmlList receiveDetails() const;
    // The receive details, whose common keys Datachannel has checked.
    virtual Result connect(const Details& details);
    // None here.
    virtual Compression compression() const;
    virtual void compression(Compression compression);
    virtual Result availableBufferCount(unsigned long long& count);

    const MsgAddress& peer() const { return moPeer; }
    Transport transport() const { return meTransport; }
    bool isSend() const { return mbSend; }
    unsigned id() const { return muiId; }
    bool isValid() const { return mbValid; }
    unsigned bufferSize() const { return muiBufferSize; }
    unsigned throttle() const { return muiThrottle; }
    void setThrottle(unsigned bytesPerSecond);
    MsgResult lastPollResult() const { return meLastPollResult; }
    void setLastPollResult(MsgResult result) { meLastPollResult = result; }
    bool flushAcks() const { return mbFlushAcks; }
    void setFlushAcks(bool flush) { mbFlushAcks = flush; }
    bool connected() const { return mbConnected; }
    const boost::shared_ptr<MsgCondition>& condition() const { return mptCondition; }

protected:
    // Takes condition, peer, authorization and role; the transport sets the
    // rest.
    DatachannelImpl(const Setup& setup, bool send);

    // Asks the Hub to tell this thread when the peer ends; only for a peer on
    // this machine that is not this context itself. Undone by the
    // destructor.
    void watchPeer();
    // The peer has ended (`undeliverable` false) or data for it came back
    // undeliverable. The base ends the channel.
    virtual void peerGone(bool undeliverable);
    // Ends the channel for good.
    void fail() { mbValid = false; }

    MsgAddress moPeer;
    Transport meTransport = DatachannelTransport::None;
    Authorization moAuthorization;
    // The authorization's binary form for the peer's machine; empty leaves
    // received buffers unchecked.
    QByteArray moAuthorizationBinary;
    bool mbSend = false;
    unsigned muiId = 0;
    bool mbValid = false;
    unsigned muiBufferSize = 0;
    unsigned muiThrottle = 0;
    MsgResult meLastPollResult = eMsgResultOk;
    bool mbFlushAcks = true;
    bool mbConnected = false;
    boost::shared_ptr<MsgCondition> mptCondition;

private:
    friend class DatachannelWatch;
    bool mbWatching = false;
};

} // namespace Brevi

#endif
