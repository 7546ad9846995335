#ifndef PROGRAMS_LOGDAEMON_LOGRECORD_H
#define PROGRAMS_LOGDAEMON_LOGRECORD_H

#include "core/xmllist.h"

#include <QDateTime>
#include <QString>

namespace Brevi {

class Msg;

// One stored log message: when the daemon took it, who sent it, its category
// and level, and its text with the parameters put in.
//
// The store keeps one record a line, five fields separated by tabs:
//
//   2024-05-02 13:07:55.120 <tab> 1/12/node@id <tab> Backup <tab> Warning <tab> Job 'a' skipped 3 files
//
// time (local, to the millisecond), the sender's flat address, the category,
// the level's name (or its number when it has none), and the text. A
// backslash, tab, line feed or carriage return inside a field is written as
// \\, \t, \n, \r, so that every record stays one line with five fields.
struct LogRecord {
    QDateTime time;
    QString source;
    QString category;
    unsigned level = 0;
    QString text;

    // The record of a LogDaemonLocalWriteLog message taken at `received`.
    static LogRecord fromMessage(const Msg& message, const QDateTime& received);

    // The format of a log body (its Arg) with each "%<n><letter>" replaced
    // by the value under that key; a "%<n>c" shows the body's DataSize as
    // its DataSizePrfix asks. A parameter the body lacks stays as it is in
    // the text, so that the reader sees what is missing.
    static QString render(const XmlList& body);

    // "Debug", "Information", "Warning", "Error", "Critical" for 0 to 4; the
    // number for any other level.
    static QString levelName(unsigned level);
    // A level by name (any case) or number; false for anything else.
    static bool levelFromText(const QString& text, unsigned& level);

    QString toLine() const;
    // False, and `record` untouched, for a line that is not five fields with
    // a time that reads.
    static bool fromLine(const QString& line, LogRecord& record);
};

} // namespace Brevi

#endif
