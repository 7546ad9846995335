#ifndef PROGRAMS_LOGDAEMON_LOGSTORE_H
#define PROGRAMS_LOGDAEMON_LOGSTORE_H

#include "logrecord.h"

#include <QFile>
#include <QString>

namespace Brevi {

// The file the log daemon keeps its records in, one line each (see
// logrecord.h), appended to and never rewritten. Each record is written out
// whole before append returns, so a reader (the daemon's --tail) sees it at
// once and a daemon that dies loses nothing it has taken.
//
// Failure: open and append return false and say why in errorString(); the
// daemon traces it and goes on taking messages.
//
// Threads: one owner.
class LogStore
{
public:
    // runtime/log/logdaemon.log under the home directory.
    static QString defaultPath();

    explicit LogStore(const QString& path);

    const QString& path() const { return msPath; }
    // Creates the folder and the file (owner read and write only) if need be.
    bool open();
    bool isOpen() const { return moFile.isOpen(); }
    bool append(const LogRecord& record);
    QString errorString() const { return moFile.errorString(); }

private:
    QString msPath;
    QFile moFile;
};

} // namespace Brevi

#endif
