#ifndef BASELIBRARY_DATACHANNEL_DATACHANNELIMPLFILE_H
#define BASELIBRARY_DATACHANNEL_DATACHANNELIMPLFILE_H

#include "brevi_export.h"
#include "core/sharedmemoryprovider.h"
#include "core/sharedmemoryuser.h"
#include "datachannel/datachannelcondition.h"
#include "datachannel/datachannelimpl.h"
#include "datachannel/datachannellayout.h"
#include "persistent/rawfile.h"
#include "persistent/spoolstatefile.h"

#include <boost/shared_ptr.hpp>

#include <vector>

namespace Brevi {

class Messaging;

// A channel's bytes as records in a spool of numbered files on one machine
// (persistent/spoollayout.h): either end can stop and come back, since the
// data and both ends' positions are on disk. Each buffer the sender hands
// over is one record, written with its header in one write and followed by
// the write state; a file that reaches the page size ends with a next-file
// record, and the reader deletes it once it has moved on.
//
// The receiver makes a small coordination area (datachannel/
// datachannellayout.h) with a condition in it, and copies both states into
// it from the state file; a sender that connects with the receive details
// updates its state there and wakes the reader. A sender may also write with
// no receiver at all (unconnected, with the states in its own memory), and a
// receiver with no sender attached, or whose sender has gone, follows the
// write state in the state file, looking a few times a second.
//
// Delivery is at least once: a record is released (the read state written
// past it) by releaseBuffer, or by used() reaching its end; a receiver that
// stops before that gets it again when it comes back. A sender that comes
// back cuts away what a crash left behind the write state. There is no end
// marker: the owners agree when the stream is over, and discard() removes
// the files.
//
// Bad files give a clear result and a trace, never a read outside a record:
// a state file cut short or whose read state is ahead of its write state
// leaves the receiver invalid; a missing data file, a record header that is
// not one, a zero or oversized length, or a record that runs past its file's
// end take the channel down with eReceiveError.
//
// Threads: the owner's, like the Datachannel.
class BREVI_EXPORT DatachannelImplFile : public DatachannelImpl
{
public:
    // The receiving end, from send details.
    explicit DatachannelImplFile(const Setup& setup);
    // The sending end: connected from receive details, or unconnected from
    // send details, which may write at once.
    DatachannelImplFile(const Setup& setup, bool connected);
    ~DatachannelImplFile() override;

    // Removes the files of the spool the details name.
    static void discard(const XmlList& details);

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
    Result availableBufferCount(unsigned long long& count) override;

private:
    // The keys both ends need; false, traced.
    bool readKeys(const XmlList& details);
    // Opens the state file, or makes a new spool, and puts both states in
    // the area.
    bool openStates(SpoolState& write, SpoolState& read);
    bool openReceiveSpool();
    bool openSendSpool();
    Result attach(const Details& details);

    SpoolState areaState(unsigned offset) const;
    void storeAreaState(unsigned offset, const SpoolState& state);

    // Sending: the buffer in hand written as one record, then the state.
    Result writeRecord(unsigned size);
    bool updateWriteState(unsigned recordSize);

    // Receiving: the next data record in hand.
    Result fetch();
    Result waitForData();
    Result readRecord();
    // Bytes of the read file at the read position, through the read-ahead.
    bool readBytes(quint64 position, void* into, unsigned count);
    Result release();

    SharedMemoryProvider moProvider;
    SharedMemoryUser moMemory;
    SharedMemoryId moMemoryId;
    std::vector<unsigned char> moData;
    unsigned muiFilled = 0;
    unsigned muiRecordSize = 0;
    unsigned muiLeft = 0;
    boost::shared_ptr<Messaging> mptMessaging;
    bool mbBufferHeld = false;
    unsigned muiHeartbeatMs = 1000;
    DatachannelCondition moCondition;
    QString msBasePath;
    quint64 mullPageSize = 0;
    // This end's own state: the write state at a sender, the read state at a
    // receiver; `mullRecordEnd` is where the record in hand ends.
    SpoolState moLocal;
    quint64 mullRecordEnd = 0;
    SpoolStateFile moStateFile;
    RawFile moWriteFile;
    RawFile moReadFile;
    std::vector<unsigned char> moReadAhead;
    quint64 mullAheadStart = 0;
    // The end of what the write state covers in the read file.
    quint64 mullReadLimit = 0;
    unsigned muiAheadSize = 0;
    unsigned char mabPrivate[DatachannelFileLayout::StateAreaSize] = {};
    unsigned char* mpArea = mabPrivate;
    bool mbRegistered = false;
};

} // namespace Brevi

#endif
