#ifndef BASELIBRARY_MESSAGING_IPCPACKET_P_H
#define BASELIBRARY_MESSAGING_IPCPACKET_P_H

#include "core/extent.h"
#include "messaging/binaryaddress.h"
#include "messaging/ipcpacketlayout.h"

#include <QByteArray>
#include <QString>

#include <cstring>

namespace Brevi {

// The NUL-ended fields a packet is built from, gathered before the one
// allocation so that its size is known: destination, source, authorization,
// and for messages name and cookie. The texts are views on the caller's
// objects: ASCII names and cookies are read from the QString itself, and only
// other text is converted to UTF-8 and kept here, so that building a message
// copies nothing before the packet's own buffer.
class IpcPacketFields
{
public:
    IpcPacketFields(const BinaryAddress& destination, const BinaryAddress& source, const QByteArray& authorization)
    {
        moText[0] = destination.text();
        moText[1] = source.text();
        moText[2] = Extent(authorization);
        muiCount = 3;
    }

    // Adds a text field (name, then cookie) as UTF-8. Text that is all ASCII,
    // as names and cookies are, is written straight into the packet later;
    // anything else is converted here.
    void add(const QString& text)
    {
        const ushort* chars = text.utf16();
        const unsigned n = unsigned(text.size());
        bool ascii = true;
        for (unsigned i = 0; i < n && ascii; ++i)
            ascii = chars[i] < 0x80;
        if (ascii) {
            mpAscii[muiCount] = chars;
            moText[muiCount++] = Extent(nullptr, n);
            return;
        }
        QByteArray& utf8 = moUtf8[muiCount - 3];
        utf8 = text.toUtf8();
        moText[muiCount++] = Extent(utf8);
    }

    // The fields' bytes with their NULs.
    unsigned long long bytes() const
    {
        unsigned long long total = muiCount;
        for (unsigned i = 0; i < muiCount; ++i)
            total += moText[i].size();
        return total;
    }

    // The words of the first field that holds a NUL byte, which would end it
    // early on the far side; null when none does.
    const char* withNul() const
    {
        static const char* const names[] = {"destination", "source", "authorization", "name", "cookie"};
        for (unsigned i = 0; i < muiCount; ++i) {
            const unsigned n = moText[i].size();
            if (mpAscii[i]) {
                for (unsigned k = 0; k < n; ++k)
                    if (mpAscii[i][k] == 0)
                        return names[i];
            } else if (n && std::memchr(moText[i].data(), IpcPacketLayout::FieldEnd, n)) {
                return names[i];
            }
        }
        return nullptr;
    }

    // Writes the fields NUL-ended from `at` and puts a view of each (its NUL
    // left out) into `views`; returns the offset behind the last NUL.
    unsigned write(unsigned char* base, unsigned at, Extent* views) const
    {
        for (unsigned i = 0; i < muiCount; ++i) {
            const unsigned n = moText[i].size();
            if (mpAscii[i]) {
                for (unsigned k = 0; k < n; ++k)
                    base[at + k] = static_cast<unsigned char>(mpAscii[i][k]);
            } else if (n) {
                std::memcpy(base + at, moText[i].data(), n);
            }
            base[at + n] = IpcPacketLayout::FieldEnd;
            views[i] = Extent(base + at, n);
            at += n + 1;
        }
        return at;
    }

private:
    Extent moText[IpcPacketLayout::MessageFieldCount];
    // The characters of a field kept as ASCII text, null for the others.
    const ushort* mpAscii[IpcPacketLayout::MessageFieldCount] = {};
    QByteArray moUtf8[2];
    unsigned muiCount = 0;
};

} // namespace Brevi

#endif
