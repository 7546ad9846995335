#ifndef PROGRAMS_LOGDAEMON_LOGRECORD_H
#define PROGRAMS_LOGDAEMON_LOGRECORD_H

#include "core/xmllist.h"

#include <QDateTime>
#include <QList>
#include <QPair>
#include <QString>

namespace Brevi {

// One stored log message: when the daemon took it, who sent it (the
// process's address, and its title when known), its category and level, and
// its text with the parameters put in.
//
// The store keeps one record a line, six fields separated by tabs:
//
//   2024-05-02 13:07:55.120 <tab> 1/12/node@id <tab> Backup Worker <tab> Backup <tab> Warning <tab> Job 'a' done
//
// time (local, to the millisecond), the sender's flat address, its title,
// the category, the level's name (or its number when it has none), and the
// text. A message with HTML or plain-text parameters has a seventh field: the
// message itself (see `message`), as "key=value" pairs joined by "&", each
// key and value percent-encoded, so that markup never stands in the file as
// markup, yet can be shown again. A backslash, tab, line feed or carriage
// return inside the other fields is written as \\, \t, \n, \r, so that every
// record stays one line. Lines of five fields (no title) are read too.
struct LogRecord {
    // The format and the values of a log body, in body order: Arg, each
    // "%<n><letter>" key, DataSize and DataSizePrfix.
    typedef QList<QPair<QString, QString>> Parameters;

    QDateTime time;
    QString source;
    QString process;
    QString category;
    unsigned level = 0;
    QString text;
    // Only for a message with an h or p parameter: what the text was made
    // from, for toHtml. Empty otherwise: the text then says it all.
    Parameters message;

    // The record of a log body taken at `received`; the source and title
    // are the daemon's to fill in.
    static LogRecord fromBody(const XmlList& body, const QDateTime& received);

    // What of a log body makes its text; the category and level go into
    // `record` when one is given.
    static Parameters parameters(const XmlList& body, LogRecord* record = nullptr);

    // The format (Arg) with each "%<n><letter>" replaced by the value under
    // that key: HTML (h) as its words (HtmlText::toPlain), a size (c) from
    // DataSize as DataSizePrfix asks, anything else as it stands. A parameter
    // the message lacks stays as written, so that the reader sees what is
    // missing.
    static QString render(const Parameters& message);
    static QString render(const XmlList& body) { return render(parameters(body)); }

    // The text as a fragment of a page: the same, with every value escaped,
    // except HTML, which keeps its markup as far as HtmlText::toSafe allows,
    // and plain text, whose line ends stay line ends.
    QString toHtml() const;

    // "Debug", "Information", "Warning", "Error", "Critical" for 0 to 4; the
    // number for any other level.
    static QString levelName(unsigned level);
    // A level by name (any case) or number; false for anything else.
    static bool levelFromText(const QString& text, unsigned& level);

    // The stored line; without the message field when `withMessage` is false.
    QString toLine(bool withMessage = true) const;
    // False, and `record` untouched, for a line that is not five to seven
    // fields with a time and a level that read.
    static bool fromLine(const QString& line, LogRecord& record);
};

} // namespace Brevi

#endif
