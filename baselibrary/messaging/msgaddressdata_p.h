#ifndef BASELIBRARY_MESSAGING_MSGADDRESSDATA_P_H
#define BASELIBRARY_MESSAGING_MSGADDRESSDATA_P_H

#include "messaging/binaryaddress.h"
#include "messaging/msgaddresstype.h"
#include "messaging/msgroute.h"

#include <QString>

namespace Brevi {

// The one immutable body behind every copy of a MsgAddress. Flat form and
// hash are made once, here, so that neither is computed per message; the
// flat form's views are set up before the body is shared, which is what lets
// several threads read one address.
class MsgAddressData
{
public:
    // The invalid address: type 0, id 0, the invalid route, empty flat form.
    MsgAddressData();
    // Builds the flat form from the fields.
    MsgAddressData(MsgAddressType type, unsigned id, const MsgRoute& route, const QString& name, const QString& group);
    // Takes over received flat text instead of building it again; the copy
    // starts at the first hop.
    MsgAddressData(MsgAddressType type, unsigned id, const MsgRoute& route, const QString& name, const QString& group,
        const Extent& flat);

    MsgAddressData(const MsgAddressData&) = delete;
    MsgAddressData& operator=(const MsgAddressData&) = delete;

    const MsgAddressType meType;
    const unsigned muiId;
    const MsgRoute moRoute;
    const QString msGroup;
    const QString msName;
    const BinaryAddress moBinary;
    const unsigned muiHash;

private:
    static unsigned computeHash(
        MsgAddressType type, unsigned id, const MsgRoute& route, const QString& name, const QString& group);
};

} // namespace Brevi

#endif
