// One end of a file channel until it is killed, with no Hub and no handshake:
// "dcspoolpeer send BASE" writes records (spoolrecords.h), one a buffer, from
// the count the spool holds on, as a sender with no receiver; "dcspoolpeer
// receive BASE" follows the spool, printing "got N" before and "rel N" after
// each release. Both print "ready 0" once the channel is up. Exit codes: 1
// usage, 2 the channel did not come up, 3 a call failed or a record was wrong.
#include "spoolrecords.h"

#include "core/context.h"
#include "core/extent.h"
#include "datachannel/datachannel.h"
#include "messaging/msgaddress.h"
#include "messaging/msgcatalogue.h"
#include "messaging/msgcondition.h"
#include "persistent/spoolstatefile.h"

#include <boost/make_shared.hpp>

#include <cstring>

using namespace Brevi;

namespace {

// Files of 4 KiB, so that both ends cross from file to file often.
const unsigned PageSize = 4096;
const unsigned BufferSize = 512;

QString gBase;
bool gSend = false;
int gStatus = 2;

int sender()
{
    Datachannel channel(boost::make_shared<MsgCondition>(), Datachannel::sendDetails(gBase, PageSize, BufferSize));
    SpoolStateFile state;
    SpoolState write;
    if (!channel || !state.open(gBase) || !state.readWriteState(write))
        return 2;
    say("ready", 0);
    for (quint64 number = write.count;; ++number) {
        const QByteArray bytes = record(number);
        unsigned sent = 0;
        if (channel.send(sent, bytes.constData(), unsigned(bytes.size()), true) != Datachannel::eOk)
            return say("send failed", number), 3;
        if (number % 16 == 0)
            ::usleep(1000);
    }
}

int receiver()
{
    // Details as another context would have sent them.
    XmlList details = Datachannel::sendDetails(gBase, PageSize, BufferSize);
    details.set(Catalogue::DatachannelKey::PeerAddress, MsgAddress(eMsgAddressContext, 99).toXml());
    Datachannel channel(boost::make_shared<MsgCondition>(), details);
    if (!channel)
        return 2;
    say("ready", 0);
    for (;;) {
        const void* data = nullptr;
        unsigned size = 0;
        const Datachannel::Result result = channel.getReceiveBuffer(data, size);
        if (result == Datachannel::eMessagePending)
            continue;
        const quint64 number = result == Datachannel::eOk && size >= 8 ? ByteOrder::load64(data) : 0;
        if (result != Datachannel::eOk || QByteArray(static_cast<const char*>(data), int(size)) != record(number))
            return say("wrong record or result", result == Datachannel::eOk ? number : quint64(result)), 3;
        say("got", number);
        if (channel.releaseBuffer() != Datachannel::eOk)
            return say("release failed", number), 3;
        say("rel", number);
    }
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 3 || (std::strcmp(argv[1], "send") != 0 && std::strcmp(argv[1], "receive") != 0))
        return 1;
    gSend = std::strcmp(argv[1], "send") == 0;
    gBase = QString::fromLocal8Bit(argv[2]);
    const QString name = gSend ? QStringLiteral("dcspoolsender") : QStringLiteral("dcspoolreceiver");
    if (!Context::run([] { gStatus = gSend ? sender() : receiver(); }, Context::TypeStandalone, 0, name, name))
        return 2;
    return gStatus;
}
