#ifndef BASELIBRARY_CORE_SYSTEMINFO_H
#define BASELIBRARY_CORE_SYSTEMINFO_H

#include "brevi_export.h"

#include <QString>

namespace Brevi {

// What machine this is, in the numbers that travel in node details, and the
// names those numbers stand for.
//
// osType() is 1 for Windows, 2 for Mac, 3 for Linux; this library runs on
// Linux and gives 3. osVersion() is a plain number whose meaning depends on
// the type: for Windows the version values below (16 NT, 32 2000, 48 XP,
// 64 2003, 128 Vista, 240 2008, 256 7), for Linux the running kernel's version
// as (major << 16) + (minor << 8) + patch, patch capped at 255. osEdition() is
// a Windows edition (see editionName) and 0 here.
//
// Detection runs once per process, on the first call of any of the detecting
// members, under a once flag; afterwards every member may be called from any
// thread. Nothing here fails: what cannot be read is empty or 0.
class BREVI_EXPORT SystemInfo
{
public:
    typedef unsigned WindowsVersion;
    typedef unsigned WindowsEdition;

    enum OsTypeE { eWindows = 1, eMac = 2, eLinux = 3 };

    static unsigned osType();
    static WindowsVersion osVersion();
    static WindowsEdition osEdition();

    // The kernel's release text ("6.1.0-18-amd64").
    static QString kernelRelease();
    // The distribution's name, from /etc/os-release (or /usr/lib/os-release):
    // PRETTY_NAME, else NAME, else empty.
    static QString distributionName();
    // This machine's system in words: osName(osType(), osVersion()), and for
    // Linux the distribution and kernel after it:
    // "Linux (Debian GNU/Linux 12 (bookworm), kernel 6.1.0-18-amd64)".
    static QString osName();

    // The name of a system by type and version, as node details compare it:
    // the Windows versions above ("Windown 2000" for 32, spelled so on
    // purpose), "Windows (unknown version)" for any other Windows number,
    // "Mac", "Linux", and "Unknown OS" for another type.
    static QString osName(unsigned osType, unsigned version);
    // A Windows edition 1 to 14 ("Unlicensed" .. "Ultimate"); empty for any
    // other edition or type. The version plays no part.
    static QString editionName(unsigned osType, unsigned version, unsigned edition);
    // 3 "Laptop", 6 "Virtual", anything else "Server/Workstation".
    static QString chassisName(unsigned chassis);
    // 1 "Workstation", 2 "Server", anything else "Unknown".
    static QString systemLevelName(unsigned level);

    // The Linux version number of a kernel release text; 0 if it does not
    // start with a number.
    static unsigned linuxVersion(const QString& release);

    // What a Windows version record stands for: the version number and the
    // first edition, decided by the record's platform id, major and minor
    // version and product type (1 a workstation). A record of a system this
    // table does not know gives version 0 and edition 0. Used when this
    // machine's details are compared with a Windows machine's record.
    struct WindowsRecord {
        WindowsVersion version = 0;
        WindowsEdition firstEdition = 0;
    };
    static WindowsRecord windowsVersion(unsigned platformId, unsigned major, unsigned minor, unsigned productType);

    // Makes this process report another type and version from now on, so that
    // a test can take the paths another system takes. Not for use while other
    // threads read them.
    static void setForTesting(unsigned osType, WindowsVersion version);
};

} // namespace Brevi

#endif
