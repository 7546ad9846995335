#include "dcstream.h"

#include "core/context.h"
#include "core/extent.h"
#include "core/sha1.h"
#include "messaging/msg.h"

#include <QtGlobal>

#include <boost/make_shared.hpp>

#include <algorithm>
#include <cstring>
#include <vector>

using namespace Brevi;

namespace DcTest {

namespace {
typedef Datachannel::Result Result;

// The stream is a block of this many bytes, read round and round: a prime,
// so that no buffer size lines up with it. Four bits of each byte vary, so
// that compression has something to take and something to leave.
const unsigned PatternSize = 1048573;

const std::vector<unsigned char>& pattern()
{
    static const std::vector<unsigned char> block = [] {
        std::vector<unsigned char> bytes(PatternSize);
        unsigned state = 2463534242u;
        for (unsigned char& byte : bytes) {
            state ^= state << 13;
            state ^= state >> 17;
            state ^= state << 5;
            byte = (unsigned char)(0x40 | (state & 0x0F));
        }
        return bytes;
    }();
    return block;
}

QByteArray digest(Sha1& sha)
{
    const Extent& result = sha.result();
    return QByteArray(reinterpret_cast<const char*>(result.data()), int(result.size())).toHex();
}

// Sizes of the pieces a sender hands over and a receiver asks for.
const unsigned SendPieces[] = {1, 777, 16384, 65539, 200000, 4096, 17408};
const unsigned ReceivePieces[] = {1, 5000, 17408, 70000, 333};
const unsigned ReceiveSpace = 70000;
} // namespace

Deadline::Deadline(int seconds)
    : muiDeadline(Context::systemTime() + 1000ull * unsigned(seconds))
{}

bool Deadline::done()
{
    if (!mbDone && Context::systemTime() >= muiDeadline) {
        setResult(eMsgResultTimeout);
        setDone(true);
    }
    return mbDone;
}

Catch::Catch(const char* name)
    : msName(QString::fromLatin1(name))
    , mptCondition(boost::make_shared<Condition>())
{
    const boost::shared_ptr<Condition> condition = mptCondition;
    mptHandler = boost::make_shared<MsgHandlerFunction>([condition](const Msg& m) { return condition->handle(m); });
    Msg::addHandler(msName, mptHandler);
}

Catch::~Catch() { Msg::removeHandler(msName, mptHandler); }

bool Catch::done()
{
    setResult(mptCondition->result());
    return mptCondition->done();
}

Msg Catch::wait(int seconds)
{
    Msg::wait(*mptCondition, seconds);
    return mptCondition->message();
}

const unsigned char* streamAt(unsigned long long offset, unsigned& size)
{
    const unsigned at = unsigned(offset % PatternSize);
    size = std::min(size, PatternSize - at);
    return pattern().data() + at;
}

QByteArray streamHash(unsigned long long total)
{
    Sha1 sha;
    for (unsigned long long done = 0; done < total;) {
        unsigned size = unsigned(std::min<unsigned long long>(total - done, PatternSize));
        const unsigned char* data = streamAt(done, size);
        sha.addData(data, size);
        done += size;
    }
    return digest(sha);
}

Counted sendStream(Datachannel& channel, unsigned long long total)
{
    Counted counted;
    Sha1 sha;
    for (unsigned step = 0; total == 0 || counted.bytes < total; ++step) {
        unsigned size = SendPieces[step % (sizeof SendPieces / sizeof *SendPieces)];
        if (total)
            size = unsigned(std::min<unsigned long long>(size, total - counted.bytes));
        const unsigned char* data = streamAt(counted.bytes, size);
        Result result = Datachannel::eOk;
        Extent buffer;
        switch (step % 3) {
        case 0:
            result = channel.sendPolled(data, size);
            break;
        case 1:
            // In place: the partly filled buffer goes first.
            result = channel.flushPolled();
            if (result == Datachannel::eOk)
                result = channel.getSendBufferPolled(buffer);
            if (result == Datachannel::eOk) {
                size = std::min(size, buffer.size());
                std::memcpy(buffer.data(), data, size);
                result = channel.sendBufferPolled(size);
            }
            break;
        default:
            result = channel.availablePolled(buffer);
            if (result == Datachannel::eOk) {
                size = std::min(size, buffer.available());
                std::memcpy(buffer.data(), data, size);
                result = channel.usedPolled(size);
            }
            break;
        }
        if (result != Datachannel::eOk) {
            counted.result = result;
            break;
        }
        sha.addData(data, size);
        counted.bytes += size;
    }
    if (counted.result == Datachannel::eOk)
        counted.result = channel.flushPolled();
    channel.close();
    counted.hash = digest(sha);
    return counted;
}

Counted receiveStream(Datachannel& channel, const std::function<bool(unsigned long long)>& stopAt)
{
    Counted counted;
    Sha1 sha;
    std::vector<unsigned char> space(ReceiveSpace);
    for (unsigned step = 0;; ++step) {
        if (stopAt && stopAt(counted.bytes))
            break;
        Result result = Datachannel::eOk;
        Extent buffer;
        unsigned got = 0;
        switch (step % 3) {
        case 0: {
            Extent into(space.data(), ReceivePieces[step % (sizeof ReceivePieces / sizeof *ReceivePieces)]);
            result = channel.receivePolled(into);
            got = into.offset();
            sha.addData(space.data(), got);
            break;
        }
        case 1: {
            // A whole buffer needs the one in hand read first.
            unsigned held = 0;
            channel.available(held);
            if (held && (result = channel.availablePolled(buffer)) == Datachannel::eOk) {
                got = buffer.available();
                sha.addData(buffer.data(), got);
                result = channel.usedPolled(got);
                break;
            }
            result = channel.getReceiveBufferPolled(buffer);
            if (result == Datachannel::eOk) {
                got = buffer.size();
                sha.addData(buffer.data(), got);
                result = channel.releaseBufferPolled();
            }
            break;
        }
        default:
            result = channel.availablePolled(buffer);
            if (result == Datachannel::eOk) {
                got = std::min(buffer.available(), 3000u);
                sha.addData(buffer.data(), got);
                result = channel.usedPolled(got);
            }
            break;
        }
        counted.bytes += got;
        if (result == Datachannel::eEOD) {
            // Seen once: the channel is over from here on.
            ++counted.ends;
            Extent one(space.data(), 1);
            result = channel.receive(one);
            counted.ends += result == Datachannel::eEOD;
        }
        if (result != Datachannel::eOk) {
            counted.result = result;
            break;
        }
    }
    counted.hash = digest(sha);
    return counted;
}

Datachannel offer(const MsgAddress& receiver, const XmlList& details, const boost::shared_ptr<MsgCondition>& condition,
                  int seconds)
{
    Datachannel channel(condition, details);
    XmlList body;
    body.set("Details", details);
    // Again each second, for a receiver that is still starting: it takes
    // the first offer that reaches it.
    Msg answer;
    for (int tries = 0; channel && !answer && tries < seconds; ++tries)
        if (Msg(receiver, Offer, body).send(true))
            answer = Msg::wait(Accept, receiver, 1);
    XmlList receiveDetails;
    if (!answer || !answer.body().get(receiveDetails, "Details") || channel.connect(receiveDetails) != Datachannel::eOk)
        return Datachannel();
    return channel;
}

Datachannel accept(const boost::shared_ptr<MsgCondition>& condition, MsgAddress* source, int seconds)
{
    const Msg request = Msg::wait(Offer, seconds);
    XmlList details;
    if (!request || !request.body().get(details, "Details"))
        return Datachannel();
    if (source)
        *source = request.source();
    Datachannel channel(condition, details);
    XmlList body;
    body.set("Details", channel.receiveDetails());
    request.reply(Accept, body, eMsgDoNotCompress, true);
    return channel;
}

bool runAttached(const std::function<void()>& body, const QString& name)
{
    static thread_local const std::function<void()>* current = nullptr;
    current = &body;
    return Context::run([] { (*current)(); }, Context::TypeAttached, Context::FlagAttachOnce, name, name);
}

unsigned long long streamBytes(unsigned long long defaultBytes)
{
    const unsigned long long mib = qEnvironmentVariableIntValue("DATACHANNEL_TEST_MIB");
    return mib ? mib << 20 : defaultBytes;
}

} // namespace DcTest
