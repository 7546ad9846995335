#ifndef BASELIBRARY_DATACHANNEL_DATACHANNEL_H
#define BASELIBRARY_DATACHANNEL_DATACHANNEL_H

#include "brevi_export.h"
#include "core/authorization.h"
#include "core/operatorboolgenerator.h"
#include "core/xmllist.h"
#include "datachannel/datachanneltransport.h"
#include "messaging/msgresult.h"

#include <QString>

#include <boost/shared_ptr.hpp>

namespace Brevi {

class DatachannelImpl;
class Extent;
class MsgAddress;
class MsgCondition;

// A one-way stream of bulk bytes between two contexts, beside the messages
// that carry the control: backup data goes through channels, requests and
// replies through messages. One end sends, the other receives.
//
// The two ends agree on a transport by exchanging two XmlLists of details,
// which the applications carry in messages of their own:
//
//     // sender
//     XmlList details = Datachannel::sendDetails(Datachannel::Best, receiver);
//     Datachannel out(condition, details);          // valid, not yet connected
//     ... send `details` to the receiver in a request ...
//     // receiver
//     Datachannel in(condition, detailsFromRequest); // chooses the transport
//     ... reply with in.receiveDetails() ...
//     // sender
//     out.connect(detailsFromReply);                 // now send() moves bytes
//
// A sender that already holds receive details builds a connected channel from
// them at once. Between processes the IPC transport carries the bytes as data
// packets on the Hub link; `Best` chooses shared memory on one machine when
// the thread can take it, and the IPC transport otherwise.
//
// Moving bytes: `send` and `receive` copy; `getSendBuffer`/`sendBuffer` and
// `getReceiveBuffer`/`releaseBuffer` hand out the transport's own buffer, to
// be filled or read in place. A sender's bytes go in buffers of the agreed
// size; `flush` sends a partly filled one. Closing the last copy of a send
// channel (`close`, or its destructor) tells the receiver that no more data
// comes: after the last buffer the receiver gets eEOD, once, and eDown from
// then on.
//
// Results: every operation returns a Result. eMessagePending is no failure:
// a message waits (messages go before data) or the transport has to wait for
// the other end; the caller handles its messages and calls again. The
// `...Polled` forms do that themselves, handling messages with Msg::wait on
// the channel's condition until the operation is done, the condition is
// satisfied (eMessagePending, and lastPollResult() says why), or it fails. A
// failure that ends the channel (eSendError, eReceiveError,
// eAuthorizationError, eInternalError, eDown) is final: every later call
// gives eDown. A channel also goes down when its peer process ends or its data
// cannot be delivered; a receiver first gets what had already arrived.
//
// Failure to build a channel leaves it invalid (isValid() false) with the
// reason in the trace, module DATACHANNEL.
//
// A thin handle: copies share one channel, which goes when the last copy
// goes. A channel belongs to the thread that made it (its registration is in
// that thread's Messaging) and so do all its copies; nothing is locked.
class BREVI_EXPORT Datachannel : public DatachannelTransport
{
public:
    // Whether a sender waits for the receiver's acknowledgements, so that no
    // more than the buffer count of buffers is ever in flight (key
    // IpcSynchronization; "None", "Windowed").
    enum class Synchronization : unsigned { Default = 0, None = 1, Windowed = 2 };
    // Whether each buffer is compressed on its way (key IpcCompression;
    // "None", "OnSend"). A buffer that does not shrink goes as it is.
    enum class Compression : unsigned { Default = 0, None = 1, OnSend = 2 };

    // Traced by the names resultName() gives.
    enum Result {
        eOk = 0,
        eSendError = 1,
        eReceiveError = 2,
        // The sender has closed its end and every buffer has been read.
        eEOD = 3,
        eInvalidArgument = 4,
        // Handle messages and call again; no failure.
        eMessagePending = 5,
        // The channel is invalid: never built, closed, or ended by a failure.
        eDown = 6,
        // Not for this end of the channel, or not in its present state.
        eInvalidRequest = 7,
        eNoBuffer = 8,
        eInternalError = 9,
        // A received buffer did not carry the channel's authorization.
        eAuthorizationError = 10,
        // Used inside the file transport on crossing to its next file.
        eTryAgain = 11,
        // The buffer is queued for the link but a message came first; the
        // channel stays up.
        eFlushFailed = 12,
        // A send channel that has no receive details yet.
        eNotConnected = 13
    };

    // "eOk" to "eNotConnected"; "unknown" for any other value.
    static const char* resultName(Result result);
    // The texts of the details: "Best", "IPC", "Memory", "File"; "None",
    // "Windowed"; "None", "OnSend". An empty text for a value without one.
    static QString transportText(Transport transport);
    static QString synchronizationText(Synchronization synchronization);
    static QString compressionText(Compression compression);
    // The value of a text; None or Default for any other text.
    static Transport transportFromText(const QString& text);
    static Synchronization synchronizationFromText(const QString& text);
    static Compression compressionFromText(const QString& text);

    // --- Details --------------------------------------------------------------
    // The details a sender starts with, for Best, IPC or Memory, to `peer`
    // (the sender's own address is written when `peer` is invalid). A 0 or
    // Default asks for the machine's default, from the list "Default" of
    // "datachannel.cfg" in the configuration directory, else 17,408-byte
    // buffers by 160, windowed and uncompressed for IPC, 66,560 by 10 for
    // shared memory. Windowed details get a new acknowledgement id. An empty
    // list, with the reason traced, for another transport or a context that
    // is not attached.
    static XmlList sendDetails(Transport transport, const MsgAddress& peer,
                               Synchronization synchronization = Synchronization::Default, unsigned bufferSize = 0,
                               unsigned bufferCount = 0, Compression compression = Compression::Default);
    // The details of a file channel spooled under `basePath`; an empty list
    // for an empty path ("No base path supplied").
    static XmlList sendDetails(const QString& basePath, unsigned long long pageSize, unsigned bufferSize);
    // Removes what a channel left behind under its details: the spool of a
    // file channel. Nothing for the other transports.
    static void discard(const XmlList& details);

    // --- Construction -----------------------------------------------------------
    // An invalid channel.
    Datachannel();
    // From details. Send details with this context's own address: the
    // unconnected send channel of the handshake. Send details from another
    // context: the receiving end, on the transport chosen here. Receive
    // details: a connected send channel. `condition` ends the polled forms'
    // waits (it may be null). An empty `authorization` leaves received
    // buffers unchecked.
    Datachannel(const boost::shared_ptr<MsgCondition>& condition, const XmlList& details,
                const Authorization& authorization = Authorization());
    // An IPC send channel to a receiving channel `id` of `peer` that is known
    // without details: unwindowed, buffers of the default size.
    Datachannel(const boost::shared_ptr<MsgCondition>& condition, const MsgAddress& peer, unsigned id,
                Compression compression, const Authorization& authorization = Authorization());
    // The thread's default IPC receive channel, id 0, for data from `peer`.
    Datachannel(const boost::shared_ptr<MsgCondition>& condition, const MsgAddress& peer,
                const Authorization& authorization = Authorization());
    Datachannel(const Datachannel& other);
    Datachannel& operator=(const Datachannel& other);
    ~Datachannel();
    // Lets go of the channel: it goes when no other copy holds it.
    void close();

    // --- Moving bytes ---------------------------------------------------------------
    // Sending end. `send` copies all of `data` from its cursor (which it
    // moves) into buffers and sends each full one; with `flush`, also the
    // last, partly filled one. eMessagePending leaves the cursor after what
    // was taken: call again with the same Extent.
    Result send(const Extent& data, bool flush = false);
    // The same from raw bytes; `sent` says how many were taken.
    Result send(unsigned& sent, const void* data, unsigned size, bool flush = false);
    // The buffer to fill in place, and the sending of `size` bytes of it.
    Result getSendBuffer(Extent& buffer);
    Result getSendBuffer(void*& buffer, unsigned& size);
    Result sendBuffer(unsigned size);
    // Sends the partly filled buffer, if there is one.
    Result flush();
    // Receiving end. `receive` fills `data` from its cursor to its end; eEOD
    // or a failure may come with part of it filled (its cursor says how much).
    Result receive(Extent& data);
    Result receive(unsigned& got, void* data, unsigned size);
    // The next received buffer, to read in place, and its release.
    Result getReceiveBuffer(Extent& buffer);
    Result getReceiveBuffer(const void*& buffer, unsigned& size);
    Result releaseBuffer();
    // Either end: the rest of the current buffer (free room, or bytes not yet
    // read), taking a new one if there is none; and `used` says how much of
    // it has been filled or read. A buffer used up goes (sent, or released).
    Result available(Extent& buffer);
    Result used(unsigned size);
    // Bytes left in the current buffer, without taking a new one.
    Result available(unsigned& count);
    // Sending end of the handshake: the receiver's details.
    Result connect(const XmlList& receiveDetails);

    // --- Polled forms: messages are handled while they wait. -----------------------
    Result sendPolled(const Extent& data);
    Result sendPolled(const void* data, unsigned size);
    Result receivePolled(Extent& data);
    Result receivePolled(void* data, unsigned size);
    Result flushPolled();
    Result getSendBufferPolled(Extent& buffer);
    Result sendBufferPolled(unsigned size);
    Result getReceiveBufferPolled(Extent& buffer);
    Result releaseBufferPolled();
    Result availablePolled(Extent& buffer);
    Result usedPolled(unsigned size);
    // What the last handling of messages by a polled form ended with:
    // eMsgResultOk when the condition was satisfied, a handler's result, or
    // eMsgResultIpcError.
    MsgResult lastPollResult() const;

    // --- State ----------------------------------------------------------------------
    // The receiving end's details for the sender; empty at a sending end.
    XmlList receiveDetails() const;
    // Whether a receiver pushes each acknowledgement out at once (the default),
    // or leaves it to go with the link's next write.
    void flushAcks(bool flush);
    // Bytes per second a sender may send; 0 for no limit. Only IPC acts on it.
    void throttle(unsigned bytesPerSecond);
    unsigned throttle() const;
    Compression compression() const;
    void compression(Compression compression);
    // The channel's number at the receiving end (at a sending end, the
    // receiver's).
    unsigned id() const;
    Transport transport() const;
    bool connected() const;
    bool isValid() const;
    operator OperatorBoolGenerator<Datachannel>::Result() const
    {
        return OperatorBoolGenerator<Datachannel>::make(isValid());
    }
    unsigned bufferSize() const;
    // Buffers written and not yet read; only the file transport knows.
    Result availableBufferCount(unsigned long long& count);

    // The shared implementation, for channel groups.
    const boost::shared_ptr<DatachannelImpl>& impl() const { return mptImpl; }

private:
    // eOk when the channel is valid and this end sends (`send`) or receives;
    // otherwise eDown, or eInvalidRequest with `refusal` traced.
    Result role(bool send, const char* refusal) const;
    template <typename Operation>
    Result poll(Operation operation, const char* words);

    boost::shared_ptr<DatachannelImpl> mptImpl;
};

} // namespace Brevi

#endif
