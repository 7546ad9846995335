#include "logging/log.h"

#include "core/context.h"
#include "core/datasize.h"
#include "core/machinename.h"
#include "core/trace.h"
#include "logging/html.h"
#include "logging/plaintext.h"
#include "messaging/messaging.h"
#include "messaging/msg.h"
#include "messaging/msgcatalogue.h"

#include <QDate>
#include <QObject>
#include <QTime>

namespace Brevi {

namespace {
const unsigned TraceModule = TraceModuleLog;

namespace Key = Catalogue::LogKey;

// What the log daemon's reader keeps for itself inside a format.
const QString ReservedMarker = QStringLiteral("%%%");

// The missing-key texts differ by kind of value; the reader's tools look for
// them as they are.
const char* const NotDefined = "not defined in formatting string";
const char* const NotInHtml = "not informatting string";
const char* const NotFound = "not found in formatting string";

QString makeBuildNumber()
{
    const QString branch = QString::fromLatin1(Log::BranchName);
    QString text = QStringLiteral("%1.%2.%3")
                       .arg(BREVI_VERSION_MAJOR, 3, 10, QLatin1Char('0'))
                       .arg(BREVI_VERSION_MINOR, 2, 10, QLatin1Char('0'))
                       .arg(BREVI_VERSION_BUILD, 5, 10, QLatin1Char('0'));
    if (!branch.isEmpty())
        text += ' ' + branch;
    return text;
}
} // namespace

const char* const Log::BranchName = "RC0610";

Log::Log()
    : msBuildNumber(makeBuildNumber())
{}

// ---------------------------------------------------------------------------
// Starting a message

Log& Log::initialiseMessage(const QString& category, LogLevelE level, const TagList& tags)
{
    // A fresh document rather than clear(): a body already handed to a Msg
    // shares its document with this one.
    moBody = XmlList();
    msFormat.clear();
    moBody.set(Key::Category, category);
    moBody.set(Key::Level, unsigned(level));
    moBody.set(Key::BuildNumber, msBuildNumber);
    for (const QPair<QString, QString>& tag : tags)
        moBody.set(Key::LogTag + tag.first, tag.second);
    muiCounter = 0;
    return *this;
}

void Log::addTagToList(TagList& list, const QString& name, const QString& value)
{
    list.append(qMakePair(name, value));
}

Log& Log::initialiseStateLogging(const QString& category, const QString& processName, LogProcessStateE state)
{
    namespace Attachment = Catalogue::LogAttachment;
    QString stateText;
    QString format;
    switch (state) {
    case eProcessStarting:
        stateText = Attachment::ProcessStateStarting;
        format = QObject::tr("%1s is starting");
        break;
    case eProcessStarted:
        stateText = Attachment::ProcessStateStarted;
        format = QObject::tr("%1s has started");
        break;
    case eProcessShutdown:
        stateText = Attachment::ProcessStateShutdown;
        format = QObject::tr("%1s is shutting down");
        break;
    }
    TagList tags;
    addTagToList(tags, Attachment::ProcessName, processName);
    if (stateText.isEmpty()) {
        // Started without a format, so that sendMessage refuses it rather
        // than sending a state nobody can read.
        BTRACE(TraceAlways) << "Log: unknown process state" << int(state) << "for" << processName;
        initialiseMessage(category, eLogInformation, tags);
        return *this;
    }
    addTagToList(tags, Attachment::ProcessState, stateText);
    initialiseMessage(category, eLogInformation, tags);
    return *this << format << processName;
}

// ---------------------------------------------------------------------------
// Strings: the format, then the s parameters

Log& Log::operator<<(const QString& value)
{
    QString text = value;
    text.replace(QLatin1Char('"'), QLatin1Char('\''));

    if (muiCounter == 0) {
        if (text.contains(ReservedMarker)) {
            BTRACE(TraceAlways) << "Log: Formatting string malformed" << text;
            return *this;
        }
        moBody.set(Key::Arg, text);
        msFormat = text;
        muiCounter = 1;
        return *this;
    }

    const QString key = QLatin1Char('%') + QString::number(muiCounter) + QLatin1Char('s');
    if (msFormat.contains(key, Qt::CaseSensitive)) {
        moBody.set(key, text);
        ++muiCounter;
    } else {
        // The counter stays: the next string is tried under the same number.
        notInFormat(key, NotDefined);
    }
    return *this;
}

Log& Log::operator<<(const QString* value) { return *this << (value ? *value : QString()); }

Log& Log::operator<<(const QByteArray& value) { return *this << QString::fromUtf8(value); }

Log& Log::operator<<(const std::string& value) { return *this << QString::fromStdString(value); }

Log& Log::operator<<(const char* value) { return *this << (value ? QString::fromUtf8(value) : QString()); }

// ---------------------------------------------------------------------------
// The other values: each takes its number whether or not it is used

bool Log::nextKey(char letter, QString& key) const
{
    if (muiCounter == 0) {
        BTRACE(TraceAlways) << "Log: no formatting string defined";
        return false;
    }
    key = QLatin1Char('%') + QString::number(muiCounter) + QLatin1Char(letter);
    return true;
}

void Log::notInFormat(const QString& key, const char* text) const
{
    BTRACE(TraceAlways) << "Log: parameter" << key << text << msFormat;
}

void Log::setParameter(char letter, const QString& text)
{
    QString key;
    if (!nextKey(letter, key))
        return;
    if (msFormat.contains(key, Qt::CaseSensitive))
        moBody.set(key, text);
    else
        notInFormat(key, NotDefined);
    ++muiCounter;
}

Log& Log::operator<<(int value)
{
    setParameter('i', QString::number(value));
    return *this;
}

Log& Log::operator<<(unsigned value)
{
    setParameter('i', QString::number(value));
    return *this;
}

Log& Log::operator<<(long long value)
{
    setParameter('l', QString::number(value));
    return *this;
}

Log& Log::operator<<(unsigned long long value)
{
    setParameter('l', QString::number(value));
    return *this;
}

Log& Log::operator<<(bool value)
{
    setParameter('b', value ? Catalogue::TrueWord : Catalogue::FalseWord);
    return *this;
}

Log& Log::operator<<(const QDate& value)
{
    setParameter('d', value.toString(Qt::ISODate));
    return *this;
}

Log& Log::operator<<(const QTime& value)
{
    setParameter('t', value.toString(Qt::ISODate));
    return *this;
}

Log& Log::operator<<(const MachineName& value)
{
    setParameter('m', value.nodeName());
    return *this;
}

Log& Log::operator<<(const Html& value)
{
    QString key;
    if (!nextKey('h', key))
        return *this;
    if (value.isEmpty())
        BTRACE(TraceAlways) << "Log: cannot log empty html";
    else if (msFormat.contains(key, Qt::CaseSensitive))
        moBody.set(key, value.contents());
    else
        notInFormat(key, NotInHtml);
    ++muiCounter;
    return *this;
}

Log& Log::operator<<(const PlainText& value)
{
    QString key;
    if (!nextKey('p', key))
        return *this;
    if (value.isEmpty())
        BTRACE(TraceAlways) << "Log: cannot log empty plain text object";
    else if (msFormat.contains(key, Qt::CaseSensitive))
        moBody.set(key, value.contents());
    else
        notInFormat(key, NotFound);
    ++muiCounter;
    return *this;
}

Log& Log::operator<<(const DataSize& value)
{
    QString key;
    if (!nextKey('c', key))
        return *this;
    // The size travels under two fixed keys rather than under its own, so a
    // message shows one size at most.
    if (msFormat.contains(key, Qt::CaseSensitive)) {
        moBody.set(Key::DataSize, value.size());
        moBody.set(Key::DataSizePrfix, int(value.prefix()));
    } else {
        notInFormat(key, NotFound);
    }
    ++muiCounter;
    return *this;
}

// ---------------------------------------------------------------------------
// Sending

void Log::sendMessage()
{
    const boost::shared_ptr<Messaging> messaging = Context::messaging();
    if (!messaging) {
        BTRACE(TraceAlways) << "No messaging";
        return;
    }
    const MsgAddress address = messaging->loggingAddress();
    if (!address) {
        BTRACE(TraceAlways) << "No logging address";
        return;
    }
    QString format;
    if (!moBody.get(format, Key::Arg) || format.isEmpty()) {
        BTRACE(TraceAlways) << "Log: malformed log message not sent";
        return;
    }
    const Msg message(address, Catalogue::LogDaemonLocalWriteLog::Message, moBody);
    if (!messaging->send(message))
        BTRACE(TraceNormal) << "Log message to" << address << "not taken";
    // The message has the document now: start a new one.
    moBody = XmlList();
    msFormat.clear();
    muiCounter = 0;
}

} // namespace Brevi
