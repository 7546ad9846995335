#ifndef TESTS_DATACHANNEL_DCSTREAM_H
#define TESTS_DATACHANNEL_DCSTREAM_H

#include "core/sha1.h"
#include "datachannel/datachannel.h"
#include "messaging/condition.h"
#include "messaging/msg.h"
#include "messaging/msgaddress.h"
#include "messaging/msgcondition.h"

#include <QByteArray>
#include <QString>

#include <boost/make_shared.hpp>
#include <boost/shared_ptr.hpp>

#include <functional>

// What the data channel tests and their helper process share: the stream of
// test bytes with a hash taken at each end, and the handshake carried in
// messages of the tests' own.
namespace DcTest {

// Messages between the two ends of a test: the offer carries the sender's
// details, the accept the receiver's (both under "Details"), and done what
// one end counted.
const char* const Offer = "DcOfferPost";
const char* const Accept = "DcAcceptPost";
const char* const Done = "DcDonePost";

// Keeps the first message of `name` that comes while it lives, whoever
// handles messages meanwhile (a polled channel operation drops what no
// handler takes). As a channel's condition, it ends the polled waits.
class Catch : public Brevi::Condition
{
public:
    explicit Catch(const char* name);
    ~Catch() override;
    // The message, waiting up to `seconds` for it.
    Brevi::Msg wait(int seconds);

private:
    QString msName;
    Brevi::MsgHandlerPointer mptHandler;
};

struct Counted {
    Brevi::Datachannel::Result result = Brevi::Datachannel::eOk;
    unsigned long long bytes = 0;
    QByteArray hash;
    // How often eEOD came.
    int ends = 0;
};

// Sends `total` bytes of the test stream (forever for 0) in pieces of many
// sizes, by each of the ways a sender fills buffers, then flushes and closes
// the channel.
Counted sendStream(Brevi::Datachannel& channel, unsigned long long total);
// Reads by each of the ways a receiver can until the channel ends; `stopAt`
// (when non-zero) is called with the bytes so far, and a true answer stops
// the reading.
Counted
receiveStream(Brevi::Datachannel& channel,
              const std::function<bool(unsigned long long)>& stopAt = std::function<bool(unsigned long long)>());
// The hash of the first `total` bytes of the stream, as the two ends take it.
QByteArray streamHash(unsigned long long total);
QByteArray digest(Brevi::Sha1& sha);
// A piece of the stream from `offset`: up to `size` bytes, fewer where the
// pattern it is cut from wraps round.
const unsigned char* streamAt(unsigned long long offset, unsigned& size);

// A condition that never ends a wait.
inline boost::shared_ptr<Brevi::MsgCondition> never() { return boost::make_shared<Brevi::MsgCondition>(); }

// The sender's half of the handshake: offers `details` to `receiver` and
// connects with its answer. An invalid channel if no answer came.
Brevi::Datachannel offer(const Brevi::MsgAddress& receiver, const Brevi::XmlList& details,
                         const boost::shared_ptr<Brevi::MsgCondition>& condition = never(), int seconds = 20);
// The receiver's half: the channel of the next offer, answered; `source` is
// set to the sender.
Brevi::Datachannel accept(Brevi::MsgAddress* source = nullptr, int seconds = 20);

// Runs `body` on the calling thread in an attached context named `name`;
// false when the context did not come up.
bool runAttached(const std::function<void()>& body, const QString& name);

// Bytes the tests move by default, and the environment variable that asks
// for more (in MiB): DATACHANNEL_TEST_MIB.
unsigned long long streamBytes(unsigned long long defaultBytes);

} // namespace DcTest

#endif
