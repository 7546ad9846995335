#ifndef PROGRAMS_LOGDAEMON_LOGSTORE_H
#define PROGRAMS_LOGDAEMON_LOGSTORE_H

#include "logrecord.h"

#include <QFile>
#include <QString>
#include <QStringList>

namespace Brevi {

// The files the log daemon keeps its records in, one line each (see
// logrecord.h), appended to and never rewritten. Each record is written out
// whole before append returns, so a reader (the daemon's --tail) sees it at
// once and a daemon that dies loses nothing it has taken.
//
// Rotation: a record that would take the file past `maxBytes` starts a new
// one; the full file becomes "<path>.1", the one before "<path>.2", and so
// on, and what would become "<path>.<keep + 1>" is deleted. A file is cut
// only between records, so no record is ever split between two files; a
// record longer than the limit has a file to itself. With `keep` 0 the full
// file is simply deleted.
//
// Failure: open and append return false and say why in errorString(); the
// daemon traces it and goes on taking messages. A rotation that cannot
// rename a file is traced and the current file goes on growing.
//
// Threads: one owner.
class LogStore
{
public:
    static const qint64 DefaultMaxBytes = 10 << 20;
    static const int DefaultKeep = 5;

    // runtime/log/logdaemon.log under the home directory.
    static QString defaultPath();

    explicit LogStore(const QString& path, qint64 maxBytes = DefaultMaxBytes, int keep = DefaultKeep);

    const QString& path() const { return msPath; }
    qint64 maxBytes() const { return mllMaxBytes; }
    int keep() const { return miKeep; }
    // Creates the folder and the file (owner read and write only) if need be.
    bool open();
    bool isOpen() const { return moFile.isOpen(); }
    bool append(const LogRecord& record);
    QString errorString() const { return moFile.errorString(); }

    // The files of the store at `path` that exist, oldest first: the numbered
    // ones from the highest number down, then `path` itself.
    static QStringList files(const QString& path);

private:
    void rotate();
    // The numbers of the numbered files that exist, highest first.
    static QList<int> numbers(const QString& path);

    QString msPath;
    qint64 mllMaxBytes;
    int miKeep;
    QFile moFile;
    qint64 mllSize = 0;
    // The size past which the next record starts a new file.
    qint64 mllLimit;
};

} // namespace Brevi

#endif
