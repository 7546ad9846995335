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

// Sizes of the pieces a sender hands over and a receiver asks for.
const unsigned SendPieces[] = {1, 777, 16384, 65539, 200000, 4096, 17408};
const unsigned ReceivePieces[] = {1, 5000, 17408, 70000, 333};
const unsigned ReceiveSpace = 70000;
} // namespace

QByteArray digest(Sha1& sha)
{
    const Extent& result = sha.result();
    return QByteArray(reinterpret_cast<const char*>(result.data()), int(result.size())).toHex();
}

Catch::Catch(const char* name)
    : msName(QString::fromLatin1(name))
    , mptHandler(boost::make_shared<MsgHandlerFunction>([this](const Msg& message) { return handle(message); }))
{
    Msg::addHandler(msName, mptHandler);
}

Catch::~Catch() { Msg::removeHandler(msName, mptHandler); }

Msg Catch::wait(int seconds)
{
    Msg::wait(*this, seconds);
    return message();
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
    for (unsigned step = 0; counted.result == Datachannel::eOk && (total == 0 || counted.bytes < total); ++step) {
        unsigned size = SendPieces[step % (sizeof SendPieces / sizeof *SendPieces)];
        if (total)
            size = unsigned(std::min<unsigned long long>(size, total - counted.bytes));
        const unsigned char* data = streamAt(counted.bytes, size);
        Extent buffer;
        // Copied, or in place: in a whole new buffer (the partly filled one
        // goes first), or in the rest of the one in hand.
        const bool whole = step % 3 == 1;
        if (step % 3 == 0)
            counted.result = channel.sendPolled(data, size);
        else if ((counted.result = whole ? channel.flushPolled() : Datachannel::eOk) == Datachannel::eOk &&
                 (counted.result = whole ? channel.getSendBufferPolled(buffer) : channel.availablePolled(buffer)) ==
                     Datachannel::eOk) {
            size = std::min(size, buffer.available());
            std::memcpy(buffer.data(), data, size);
            counted.result = whole ? channel.sendBufferPolled(size) : channel.usedPolled(size);
        }
        if (counted.result == Datachannel::eOk) {
            sha.addData(data, size);
            counted.bytes += size;
        }
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
    for (unsigned step = 0; counted.result == Datachannel::eOk && !(stopAt && stopAt(counted.bytes)); ++step) {
        Extent buffer;
        unsigned held = 0;
        channel.available(held);
        if (step % 2 == 0) {
            Extent into(space.data(), ReceivePieces[step % (sizeof ReceivePieces / sizeof *ReceivePieces)]);
            counted.result = channel.receivePolled(into);
            buffer = Extent(space.data(), into.offset());
        } else {
            // A part of the buffer in hand, or a whole new one.
            counted.result = held ? channel.availablePolled(buffer) : channel.getReceiveBufferPolled(buffer);
            if (held && counted.result == Datachannel::eOk)
                buffer = Extent(buffer.data(), std::min(held, 3000u));
        }
        sha.addData(buffer);
        counted.bytes += buffer.size();
        if (step % 2 && counted.result == Datachannel::eOk)
            counted.result = held ? channel.usedPolled(buffer.size()) : channel.releaseBufferPolled();
        if (counted.result == Datachannel::eEOD) {
            // Seen once: the channel is over from here on.
            ++counted.ends;
            Extent one(space.data(), 1);
            counted.result = channel.receive(one);
            counted.ends += counted.result == Datachannel::eEOD;
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

Datachannel accept(MsgAddress* source, int seconds)
{
    const Msg request = Msg::wait(Offer, seconds);
    XmlList details;
    if (!request || !request.body().get(details, "Details"))
        return Datachannel();
    if (source)
        *source = request.source();
    Datachannel channel(never(), details);
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
