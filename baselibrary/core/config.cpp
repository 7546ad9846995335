#include "core/config.h"

#include "core/trace.h"
#include "core/xmllist_p.h"
#include "core/xmllisttext_p.h"

#include <QDateTime>
#include <QFile>
#include <QTextStream>

#include <limits>

namespace Brevi {

namespace {

const unsigned TraceModule = TraceModuleConfig;

// Nested levels of a file step by 4, unlike the 1 of a message body, so that
// people can read and edit the files.
const int FileIndent = 4;

QString versionTag() { return QStringLiteral("version"); }
QString numberAttribute() { return QStringLiteral("number"); }
QString timeAttribute() { return QStringLiteral("time"); }

int readVersion(const QDomDocument& document)
{
    const QDomElement version = document.documentElement().firstChildElement(versionTag());
    if (version.isNull()) {
        BTRACE(TraceVerbose) << "No version number found, use" << 0;
        return 0;
    }
    const int number = version.attribute(numberAttribute()).toInt(nullptr, 10);
    BTRACE(TraceVerbose) << "File Version number is" << number;
    return number;
}

bool parse(QFile& file, QDomDocument& document)
{
    QString error;
    int line = 0;
    int column = 0;
    if (XmlListText::parse(file.readAll(), document, error, line, column))
        return true;
    BTRACE(TraceAlways) << "Error parsing XML at line" << line << "column" << column << error << file.fileName();
    return false;
}

// The document as a file holds it. UTF-8 whatever the locale: the text has
// no declaration, and XML without one is UTF-8.
bool write(QFile& file, const QDomDocument& document)
{
    QTextStream stream(&file);
    stream.setCodec("UTF-8");
    document.save(stream, FileIndent);
    stream.flush();
    return stream.status() == QTextStream::Ok && file.error() == QFileDevice::NoError;
}

} // namespace

Config::Config() = default;

Config::Config(const QString& fileName, const QString& machine) { load(fileName, machine); }

bool Config::load(const QString& fileName, const QString& machine)
{
    clear();
    msFileName.clear();
    msMachineName.clear();
    miVersion = 0;

    if (!machine.isEmpty()) {
        // Kept, so that a save says why it cannot write.
        msFileName = fileName;
        msMachineName = machine;
        BTRACE(TraceAlways) << "Remote cfg not supported yet" << fileName << machine;
        return true;
    }
    QFile file(fileName);
    if (!file.exists()) {
        BTRACE(TraceNormal) << "Cfg File" << fileName << "does not exist";
        return true;
    }
    if (!file.open(QIODevice::ReadOnly)) {
        BTRACE(TraceAlways) << "Failed to open cfg file read" << fileName << file.errorString();
        setValid(false);
        return false;
    }
    if (!parse(file, getXmlDoc())) {
        // Half a document is not a configuration.
        XmlListDetail::removeChildren(getXmlDoc());
        setValid(false);
        return false;
    }
    msFileName = fileName;
    miVersion = readVersion(getXmlDoc());
    setValid(true);
    BTRACE(TraceNormal) << "Config loaded successfully"
                        << "File Name =" << msFileName << "Machine Name =" << msMachineName
                        << "Version number =" << miVersion;
    return true;
}

bool Config::save()
{
    if (msFileName.isEmpty()) {
        BTRACE(TraceAlways) << "Failed to open NULL config file";
        return false;
    }
    if (!msMachineName.isEmpty()) {
        BTRACE(TraceAlways) << "Remote config not supported yet" << msFileName << msMachineName;
        return false;
    }
    QDomDocument& document = getXmlDoc();
    QDomElement root = document.documentElement();
    if (!isValid() || root.isNull()) {
        // Writing would replace the file with nothing.
        BTRACE(TraceAlways) << "Failed to save config" << msFileName << "the list is not valid";
        return false;
    }

    QFile file(msFileName);
    if (file.exists()) {
        if (!file.open(QIODevice::ReadOnly)) {
            BTRACE(TraceAlways) << "Failed to open cfg file read" << msFileName << file.errorString();
            return false;
        }
        QDomDocument current;
        if (!parse(file, current))
            return false;
        const int onFile = readVersion(current);
        file.close();
        if (onFile != miVersion) {
            BTRACE(TraceAlways) << "Failed to save config, file has changed from" << miVersion << "to" << onFile
                                << msFileName;
            return false;
        }
    }
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        BTRACE(TraceAlways) << "Failed to open cfg file for write" << msFileName << file.errorString();
        return false;
    }

    // The number counts saves; past the largest it starts again at 1, so
    // that such a file can still be written and still shows a change.
    if (miVersion == std::numeric_limits<int>::max()) {
        BTRACE(TraceAlways) << "Version number of" << msFileName << "is at its largest, start again at" << 1;
        miVersion = 1;
    } else {
        ++miVersion;
    }
    QDomElement version = root.firstChildElement(versionTag());
    if (version.isNull()) {
        // The time records when the file got its first version; later saves
        // change only the number.
        version = document.createElement(versionTag());
        version.setAttribute(timeAttribute(), QDateTime::currentDateTime().toString("yyMMdd-hh:mm:ss.zzz"));
        root.insertBefore(version, root.firstChild());
    }
    version.setAttribute(numberAttribute(), QString::number(miVersion));

    if (!write(file, document)) {
        BTRACE(TraceAlways) << "Failed to write cfg file" << msFileName << file.errorString();
        return false;
    }
    file.close();
    BTRACE(TraceNormal) << "Saved config file" << msFileName << "with version" << miVersion;
    return true;
}

bool Config::dumpToFile(const QString& fileName) const
{
    QFile file(fileName);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        BTRACE(TraceAlways) << "Failed to open or create file" << fileName << file.errorString();
        return false;
    }
    if (!write(file, getXmlDoc())) {
        BTRACE(TraceAlways) << "Failed to write file" << fileName << file.errorString();
        return false;
    }
    return true;
}

} // namespace Brevi
