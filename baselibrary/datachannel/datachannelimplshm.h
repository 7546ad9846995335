#ifndef BASELIBRARY_DATACHANNEL_DATACHANNELIMPLSHM_H
#define BASELIBRARY_DATACHANNEL_DATACHANNELIMPLSHM_H

#include "brevi_export.h"
#include "core/sharedmemoryprovider.h"
#include "core/sharedmemoryuser.h"
#include "datachannel/datachannelimpl.h"
#include "datachannel/datachannelsemaphore.h"

#include <boost/shared_ptr.hpp>

namespace Brevi {

class Messaging;

// A channel's bytes through a ring of fixed buffers in shared memory, between
// two processes (or threads) of one machine; what Best picks there. The
// layout of the area is in datachannel/datachannellayout.h.
//
// The receiver makes the area and two semaphores in it: the send semaphore
// counts free buffers (all of them at the start), the receive semaphore the
// buffers holding data. The sender attaches from the receive details,
// checks the layout and the receiver's process, and then removes the area's
// name, so that nothing is left in the system's namespace whichever end is
// killed. Both ends walk the block table in the same order, so no index is
// shared: a buffer is the sender's until posted to the receive semaphore,
// and the receiver's until posted back.
//
// There is no end marker: the owners agree in their own messages when the
// stream is over. A blocked operation returns eMessagePending after at most
// one heartbeat (1 s), so the thread handles its messages; at that point the
// peer's process is checked, and a peer that has gone takes the channel down
// (eDown from then on), the receiver only once it has read all that was
// handed over. getSendBuffer and getReceiveBuffer copy nothing.
//
// Threads: the owner's, like the Datachannel.
class BREVI_EXPORT DatachannelImplShm : public DatachannelImpl
{
public:
    // The receiving end, from send details; Setup::id is its new channel id.
    explicit DatachannelImplShm(const Setup& setup);
    // The sending end: connected from receive details, or unconnected.
    DatachannelImplShm(const Setup& setup, bool connected);
    ~DatachannelImplShm() override;

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
    XmlList receiveDetails() const override;
    Result connect(const Details& details) override;

    unsigned bufferCount() const { return muiBufferCount; }

protected:
    void peerGone(bool undeliverable) override;

private:
    Result attach(const Details& details);
    // A buffer in hand, by role: a free one to fill, or one holding data.
    Result take();
    // A wait that timed out: beats, and checks the peer.
    Result pending();
    // Hands the buffer in hand over to the other end.
    Result handOver(unsigned size);
    unsigned char* buffer() const;

    unsigned muiBufferCount = 0;
    SharedMemoryProvider moProvider;
    SharedMemoryUser moMemory;
    SharedMemoryId moMemoryId;
    unsigned muiIndex = 0;
    unsigned char* mpBuffer = nullptr;
    unsigned muiCurrentSize = 0;
    unsigned muiLeft = 0;
    bool mbBufferHeld = false;
    boost::shared_ptr<Messaging> mptMessaging;
    unsigned muiHeartbeatMs = 1000;
    DatachannelSemaphore moSend;
    DatachannelSemaphore moReceive;
    bool mbRegistered = false;
};

} // namespace Brevi

#endif
