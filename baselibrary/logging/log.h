#ifndef BASELIBRARY_LOGGING_LOG_H
#define BASELIBRARY_LOGGING_LOG_H

#include "brevi_export.h"
#include "core/xmllist.h"

#include <QByteArray>
#include <QList>
#include <QPair>
#include <QString>

#include <string>

class QDate;
class QTime;

namespace Brevi {

class DataSize;
class Html;
class MachineName;
class PlainText;

// A message for the operator, as opposed to trace, which is for engineers.
//
// A Log writes no file. It builds the body of a LogDaemonLocalWriteLog
// message, a format string and its values each under a named parameter, and
// sends it to the machine's log daemon, which stores it, shows it, and can
// translate the format text. The values stay apart from the text until they
// reach the reader; that is why each parameter in the format is numbered and
// typed: "%", the number, the type letter.
//
//     Log& log = *Context::logging();
//     log.initialiseMessage("Backup", Log::eLogWarning)
//         << "Job %1s skipped %2i files on %3m (%4c)" << job << skipped << machine << size;
//     log.sendMessage();
//
// or, the same in one statement that sends at its end:
//
//     BREVI_LOG("Backup", Log::eLogWarning) << "Job %1s skipped %2i files" << job << skipped;
//
// (see logging/logline.h).
//
// Numbers count from 1 in the order in which values are streamed; the first
// string streamed after initialiseMessage is the format. The letters:
//   s  QString, const QString*, QByteArray, std::string, const char*
//   i  int, unsigned          l  long long, unsigned long long (and long)
//   b  bool ("true", "false") d  QDate (ISO)     t  QTime (ISO)
//   m  MachineName (its node name)               h  Html
//   p  PlainText              c  DataSize (keys DataSize and DataSizePrfix)
// Every '"' of a string value becomes '\'': the daemon's query language
// quotes with '"'. A format holding "%%%" is refused: the reader keeps that
// text as a marker of its own.
//
// The counter: a string whose key is not in the format is traced and does
// not count, so the next string takes its place; any other value counts
// whether or not its key is in the format, so one bad number does not shift
// the values behind it. The two paths differ on purpose.
//
// Failure: nothing is returned to the caller, since logging must not disturb
// the work it reports on. Every refusal is a trace line in module LOG ("Log:
// parameter ... not defined in formatting string", "No logging address"...),
// and a message that cannot go is kept until the next initialiseMessage. A
// context reaches the log daemon only when its Messaging has a logging
// address: an attached context has the daemon's well-known address; a thread
// connected to it with Log::eProxy logs through it.
//
// Threads: each context has its own Log (Context::logging()); it belongs to
// that context's thread and has no lock.
class BREVI_EXPORT Log
{
public:
    // How serious a message is. The library passes the value on; the log
    // daemon interprets it. A process's start and stop are eLogInformation.
    enum LogLevelE { eLogDebug = 0, eLogInformation = 1, eLogWarning = 2, eLogError = 3, eLogCritical = 4 };

    // For initialiseStateLogging.
    enum LogProcessStateE { eProcessStarting = 1, eProcessStarted = 2, eProcessShutdown = 3 };

    // Given to Messaging::connect and ThreadComms::connect: with eProxy a
    // context that has no logging address of its own logs through the
    // attached context it connects to.
    enum Proxy { eNoProxy = 0, eProxy = 1 };

    typedef QList<QPair<QString, QString>> TagList;

    // The release this library belongs to, after the build number text.
    static const char* const BranchName;

    // An empty message: no category, no format; the counter at 0.
    Log();
    Log(const Log&) = delete;
    Log& operator=(const Log&) = delete;

    // Starts a message: Category, Level, BuildNumber and a LogTag<name> for
    // each tag; what was built before is dropped. The next string streamed is
    // the format.
    Log& initialiseMessage(const QString& category, LogLevelE level, const TagList& tags = TagList());
    // Appends the pair (name, value) to `list`.
    static void addTagToList(TagList& list, const QString& name, const QString& value);
    // Starts the message of a process starting, started or shutting down:
    // tags ProcessName and ProcessState ("Starting", "Started", "Shutdown"),
    // level eLogInformation, format "%1s is starting", "%1s has started" or
    // "%1s is shutting down" (translated), with the name as %1s. Send it
    // with sendMessage.
    Log& initialiseStateLogging(const QString& category, const QString& processName, LogProcessStateE state);

    // Strings: the format, then the s parameters. A null pointer counts as
    // an empty string.
    Log& operator<<(const QString& value);
    Log& operator<<(const QString* value);
    Log& operator<<(const QByteArray& value);
    Log& operator<<(const std::string& value);
    Log& operator<<(const char* value);
    // The other values.
    Log& operator<<(int value);
    Log& operator<<(unsigned value);
    Log& operator<<(long value) { return *this << static_cast<long long>(value); }
    Log& operator<<(unsigned long value) { return *this << static_cast<unsigned long long>(value); }
    Log& operator<<(long long value);
    Log& operator<<(unsigned long long value);
    Log& operator<<(bool value);
    Log& operator<<(const QDate& value);
    Log& operator<<(const QTime& value);
    Log& operator<<(const MachineName& value);
    Log& operator<<(const Html& value);
    Log& operator<<(const PlainText& value);
    Log& operator<<(const DataSize& value);

    // Sends the message to the context's logging address and starts afresh.
    // Without messaging ("No messaging"), without a logging address ("No
    // logging address") or without a format ("Log: malformed log message not
    // sent") nothing goes and the message stays as it is.
    void sendMessage();

    // What is being built, for whoever wants to look.
    const XmlList& body() const { return moBody; }
    const QString& format() const { return msFormat; }
    // 0 before the format; then the number the next value will take.
    unsigned counter() const { return muiCounter; }
    // "002.02.11698 RC0610": major, minor and build of this library, and
    // the branch.
    const QString& buildNumber() const { return msBuildNumber; }

private:
    // The key of the next non-string value, "%<counter><letter>"; false, and
    // traced, when there is no format yet.
    bool nextKey(char letter, QString& key) const;
    void notInFormat(const QString& key, const char* text) const;
    void setParameter(char letter, const QString& text);

    QString msFormat;
    XmlList moBody;
    unsigned muiCounter = 0;
    QString msBuildNumber;
};

} // namespace Brevi

#endif
