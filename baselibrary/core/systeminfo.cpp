#include "core/systeminfo.h"

#include <QFile>
#include <QStringList>

#include <algorithm>
#include <mutex>

#include <sys/utsname.h>

namespace Brevi {

namespace {

struct Detected {
    unsigned osType = SystemInfo::eLinux;
    SystemInfo::WindowsVersion version = 0;
    SystemInfo::WindowsEdition edition = 0;
    QString kernelRelease;
    QString distributionName;
};

std::once_flag moOnce;
Detected* mpoDetected = nullptr;

// One value of an os-release file: the text after "KEY=", without the quotes
// and with the shell escapes undone.
QString osReleaseValue(const QString& line, const QString& key)
{
    if (!line.startsWith(key + '='))
        return QString();
    QString value = line.mid(key.size() + 1).trimmed();
    if (value.size() >= 2 && (value.startsWith('"') || value.startsWith('\'')) && value.endsWith(value[0]))
        value = value.mid(1, value.size() - 2);
    QString unescaped;
    for (int i = 0; i < value.size(); ++i) {
        if (value[i] == '\\' && i + 1 < value.size())
            ++i;
        unescaped += value[i];
    }
    return unescaped;
}

QString readDistributionName()
{
    for (const char* path : {"/etc/os-release", "/usr/lib/os-release"}) {
        QFile file(QString::fromLatin1(path));
        if (!file.open(QIODevice::ReadOnly | QIODevice::Text))
            continue;
        QString pretty;
        QString name;
        const QStringList lines = QString::fromUtf8(file.readAll()).split('\n');
        for (const QString& line : lines) {
            if (pretty.isEmpty())
                pretty = osReleaseValue(line, QStringLiteral("PRETTY_NAME"));
            if (name.isEmpty())
                name = osReleaseValue(line, QStringLiteral("NAME"));
        }
        return pretty.isEmpty() ? name : pretty;
    }
    return QString();
}

void detect()
{
    mpoDetected = new Detected;
    utsname names;
    if (uname(&names) == 0)
        mpoDetected->kernelRelease = QString::fromUtf8(names.release);
    mpoDetected->version = SystemInfo::linuxVersion(mpoDetected->kernelRelease);
    mpoDetected->distributionName = readDistributionName();
}

const Detected& detected()
{
    std::call_once(moOnce, detect);
    return *mpoDetected;
}

} // namespace

unsigned SystemInfo::osType() { return detected().osType; }

SystemInfo::WindowsVersion SystemInfo::osVersion() { return detected().version; }

SystemInfo::WindowsEdition SystemInfo::osEdition() { return detected().edition; }

QString SystemInfo::kernelRelease() { return detected().kernelRelease; }

QString SystemInfo::distributionName() { return detected().distributionName; }

QString SystemInfo::osName()
{
    const Detected& system = detected();
    QString name = osName(system.osType, system.version);
    if (system.osType == eLinux) {
        QStringList details;
        if (!system.distributionName.isEmpty())
            details << system.distributionName;
        if (!system.kernelRelease.isEmpty())
            details << "kernel " + system.kernelRelease;
        if (!details.isEmpty())
            name += " (" + details.join(QStringLiteral(", ")) + ')';
    }
    return name;
}

QString SystemInfo::osName(unsigned osType, unsigned version)
{
    switch (osType) {
    case eWindows:
        switch (version) {
        case 1:
            return QStringLiteral("Win32s");
        case 2:
            return QStringLiteral("Windows 95");
        case 3:
            return QStringLiteral("Windows 98");
        case 4:
            return QStringLiteral("Windows ME");
        case 16:
            return QStringLiteral("Windows NT");
        case 32:
            // Node details compare this text as it stands.
            return QStringLiteral("Windown 2000");
        case 48:
            return QStringLiteral("Windows XP");
        case 64:
            return QStringLiteral("Windows 2003");
        case 128:
            return QStringLiteral("Windows Vista");
        case 240:
            return QStringLiteral("Windows 2008");
        case 256:
            return QStringLiteral("Windows 7");
        default:
            return QStringLiteral("Windows (unknown version)");
        }
    case eMac:
        return QStringLiteral("Mac");
    case eLinux:
        return QStringLiteral("Linux");
    default:
        return QStringLiteral("Unknown OS");
    }
}

QString SystemInfo::editionName(unsigned osType, unsigned, unsigned edition)
{
    static const char* const Names[] = {
        "Unlicensed", "Regular", "Home",       "Started",     "Standard",        "Professional",
        "Business",   "Server",  "Web Server", "Data Center", "Advanced Server", "Blade (Web Edition)",
        "Enterprise", "Ultimate"};
    if (osType != eWindows || edition < 1 || edition > sizeof(Names) / sizeof(Names[0]))
        return QString();
    return QString::fromLatin1(Names[edition - 1]);
}

QString SystemInfo::chassisName(unsigned chassis)
{
    switch (chassis) {
    case 3:
        return QStringLiteral("Laptop");
    case 6:
        return QStringLiteral("Virtual");
    default:
        return QStringLiteral("Server/Workstation");
    }
}

QString SystemInfo::systemLevelName(unsigned level)
{
    switch (level) {
    case 1:
        return QStringLiteral("Workstation");
    case 2:
        return QStringLiteral("Server");
    default:
        return QStringLiteral("Unknown");
    }
}

unsigned SystemInfo::linuxVersion(const QString& release)
{
    // "6.1.0-18-amd64": the numbers before the first character that is
    // neither a digit nor a dot.
    unsigned parts[3] = {0, 0, 0};
    int part = 0;
    bool digits = false;
    for (QChar c : release) {
        if (c.isDigit()) {
            parts[part] = std::min(parts[part] * 10 + unsigned(c.digitValue()), 0xFFFFu);
            digits = true;
        } else if (c == '.' && digits && part < 2) {
            ++part;
        } else {
            break;
        }
    }
    if (!digits)
        return 0;
    return (std::min(parts[0], 255u) << 16) + (std::min(parts[1], 255u) << 8) + std::min(parts[2], 255u);
}

SystemInfo::WindowsRecord SystemInfo::windowsVersion(unsigned platformId, unsigned major, unsigned minor,
                                                     unsigned productType)
{
    const bool workstation = productType == 1;
    WindowsRecord record;
    auto set = [&record](WindowsVersion version, WindowsEdition edition) {
        record.version = version;
        record.firstEdition = edition;
        return record;
    };
    if (platformId == 2) {
        // The NT family: 6.1 on a server is still "2008", like 6.0 on a server.
        if (major == 6 && (minor == 0 || minor == 1) && !workstation)
            return set(240, 8);
        if (major == 6 && minor == 1)
            return set(256, 5);
        if (major == 6 && minor == 0)
            return set(128, 5);
        if (major == 5 && minor == 2)
            return workstation ? set(48, 6) : set(64, 8);
        if (major == 5 && minor == 1)
            return set(48, 5);
        if (major == 5 && minor == 0)
            return set(32, 0);
        if (major == 4)
            return set(16, 2);
    } else if (platformId == 1 && major == 4) {
        if (minor == 0)
            return set(2, 0);
        if (minor == 10)
            return set(3, 0);
        if (minor == 90)
            return set(4, 0);
    } else if (platformId == 0) {
        return set(1, 0);
    }
    return record;
}

void SystemInfo::setForTesting(unsigned osType, WindowsVersion version)
{
    detected();
    mpoDetected->osType = osType;
    mpoDetected->version = version;
}

} // namespace Brevi
