#ifndef BASELIBRARY_INDEX_LUCENECOMM_H
#define BASELIBRARY_INDEX_LUCENECOMM_H

#include "brevi_export.h"
#include "core/buffer.h"
#include "core/trace.h"
#include "core/xmllist.h"
#include "messaging/msgpending.h"
#include "sockets/tcpsocketselect.h"

#include <QByteArray>
#include <QDateTime>
#include <QHash>
#include <QList>
#include <QPair>
#include <QString>
#include <QStringList>
#include <QtGlobal>

#include <boost/shared_ptr.hpp>

#include <memory>

namespace Brevi {

class MsgCondition;
class TCPSocketData;

// The client of the search-index server, a process of its own (started by
// SpawnLucene) that this thread reaches over a TCP socket on the loopback
// address.
//
//     LuceneComm::FieldOptions fields("name");
//     fields.add("size", LuceneComm::Options("V2N"));     // a 64-bit number
//     LuceneComm index;
//     if (!index.connect(condition, fields, port, false))
//         ... the server is not there
//     LuceneComm::Command open;
//     open.addIndexList(QString(), {indexDirectory});
//     index.indexSelect(condition, open);
//     LuceneComm::Command document(fields);
//     document.addField("name", "report.pdf");
//     document.addField("size", 48213ull);
//     index.indexAddQueued(condition, document);             // no reply
//     LuceneComm::Command query(fields);
//     query.addField("name", "report*");
//     query.addReturn("size");
//     LuceneComm::Reply found;
//     if (index.indexSearch(condition, query, found))
//         while (index.searchResultsLeft(condition, found)) {
//             QList<LuceneComm::Reply> page;
//             if (!index.searchResultList(condition, page, found, false))
//                 break;
//             ... each SearchMatch reply's fields
//         }
//
// The protocol is text, UTF-8, with no line structure. A command is a short
// name and a bracketed list of clauses ending in ';':
//     IS(Seq("17"),In("main"),Expr(M),Fd("path","c:\\x"),Expr(E),Re(P50,"path","size"));
// Every command carries the next sequence number, and the server answers it
// with a reply of the same short name carrying that number and a status
// (St("T...") for success), except the queued commands, marked ",ESO", which
// get no reply at all. A search's hits come as one SearchMatch reply each,
// a page at a time: the first page follows the search's own reply, and each
// further page answers a page request (SR).
//
// Command builds the clause list from typed values (Options says how a field
// is typed: numbers that are not stored as numbers are padded with zeros so
// that they sort as text); Reply is one parsed reply.
//
// Waiting: every wait on the socket also serves this thread's messages, and
// ends when the MsgCondition handed in is done, so that a thread blocked on
// the index still obeys its handlers (a shutdown, a freeze). The send loop
// reads replies while it writes: the server and this client never block
// each other, however many queued commands go out.
//
// Failure: every operation returns false, and traces why at TraceAlways. A
// failure of the link (the server went away, a reply that cannot be parsed,
// a reply lost) closes the socket, and every later call finds
// validConnection() false. A command the server refused is a reply with
// another status: the operation returns false, lastStatus() says which
// status came, and lastReason() gives the server's own words.
//
// Threads: one LuceneComm belongs to one thread, an attached context's; it
// holds no lock.
class BREVI_EXPORT LuceneComm
{
public:
    // The replies, by the short name that the server writes.
    enum Response {
        eResponseUnknown = 0,
        eResponseIndexOpen = 1,        // IO
        eResponseIndexClose = 2,       // IC
        eResponseIndexOptimise = 3,    // IZ
        eResponseIndexAdd = 4,         // IA
        eResponseIndexSearch = 5,      // IS
        eResponseIndexDelete = 6,      // ID
        eResponseSearchMatch = 7,      // SM, one per hit
        eResponseIndexDeleteQuery = 8, // IDQ
        eResponseIndexCommit = 9,      // CM
        eResponseSearchResults = 10,   // SR
        eResponseIndexNoop = 11,       // NP
        eResponseIndexTraceLevel = 12  // TL
    };

    // The clauses a reply keeps. "Seq" becomes the reply's sequence and is
    // not kept; any other name is skipped ("Unknown clause").
    enum Clause {
        eClauseUnknown = 0,
        eClauseStatus = 1, // "Status" or "St"
        eClauseHits = 2,   // "Hits" or "Hi"
        eClauseField = 3   // "Field" or "Fd": a name and a value
    };

    enum Status {
        eStatusNone = 0,
        // The status value begins with "T".
        eStatusSuccess = 1,
        // The status value's second character is "M": the server refused
        // the command, and says why in the clause's second value.
        eStatusOther = 2
    };

    class Command;

    // How one field is indexed, from a short text of letters and digits:
    //   V<n>  value type: 0 (or none) text, 1 32-bit integer, 2 64-bit
    //         integer, 3 date, 4 enumeration, 5 boolean;
    //   A<n>  analyzer 1 to 8; 0 (or none) the server's default, which
    //         keeps the whole value as one term;
    //   B     binary: stored, not searchable;
    //   N     numeric: the server keeps a number, so nothing is padded here;
    //   U     not stored; a field is stored unless this is given.
    // The server's analyzers: 1 standard, 2 simple (letters, lower case),
    // 3 white space, 4 stop words, 5 classic, 6 the whole value in lower
    // case, 7 file names (words and numbers of a path, lower case),
    // 8 English with stemming.
    class BREVI_EXPORT Options
    {
    public:
        enum ValueE { eText = 0, eInt32 = 1, eInt64 = 2, eDate = 3, eEnum = 4, eBoolean = 5 };

        Options() = default;
        explicit Options(const QString& options)
            : msOptions(options)
        {}

        const QString& options() const { return msOptions; }
        bool numeric() const { return msOptions.contains(QLatin1Char('N')); }
        bool binary() const { return msOptions.contains(QLatin1Char('B')); }
        bool stored() const { return !msOptions.contains(QLatin1Char('U')); }
        // The value type; a number out of range reads as text.
        ValueE value() const;
        unsigned analyzer() const { return getOptionValue(QLatin1Char('A')); }
        // The digits behind the first occurrence of `letter`; 0 when the
        // letter is not there or no digit follows.
        unsigned getOptionValue(QChar letter) const;

    private:
        QString msOptions;
    };

    // The options of every field of an index: by field name, by tag (a
    // short bare word that a clause may carry to pick options for itself),
    // and the entry "Default" for every field not named. Also the default
    // field, which the server searches when a query text names none.
    class BREVI_EXPORT FieldOptions
    {
    public:
        explicit FieldOptions(const QString& defaultField = QString())
            : msDefault(defaultField)
        {}

        void setDefault(const QString& defaultField) { msDefault = defaultField; }
        const QString& defaultField() const { return msDefault; }
        void add(const QString& name, const Options& options) { moNames.insert(name, options); }
        void addTag(const QString& tag, const Options& options) { moTags.insert(tag, options); }
        // The options of `name`, or else those of "Default", or else text.
        Options options(const QString& name) const;
        // The options of a clause: its tag's when it has a known one, else
        // its name's.
        Options options(const QString& name, const QString& tag) const;
        const QHash<QString, Options>& names() const { return moNames; }
        const QHash<QString, Options>& tags() const { return moTags; }

        // Clears `command` and fills it with what the server must know:
        // De("default"), then one field per name, Fd("name","options"), and
        // one per tag, Fd(tag,"","options"). What connect sends as FO.
        void command(Command& command) const;

    private:
        QString msDefault;
        QHash<QString, Options> moNames;
        QHash<QString, Options> moTags;
    };

    // The clause list of one command, built from typed values.
    //
    // Field and range clauses take the value type of the field (FieldOptions)
    // and turn values into the text the index holds: as they stand for text,
    // and for numbers in base 10, zero-padded to a fixed width unless the
    // field is numeric (pad functions below). A value that does not fit the
    // field's type is refused: the call returns false and adds nothing.
    //
    // Names and tags are written as they stand, so a name holding a double
    // quote or a backslash, and a tag holding anything but letters, digits
    // and '_', '-', '.', are refused. Values are escaped (a backslash before
    // each backslash and double quote), and may hold anything.
    //
    // Clauses: field Fd(tag,"name","value"), range Fi(tag,"name","low","high")
    // (both bounds included), sort So(tag,"name"), index In(tag,"name"),
    // default field De("name"), and the list brackets Expr(M), Expr(S),
    // Expr(N) and Expr(E): the clauses between a bracket and its end must,
    // should (at least one of them), and must not match, and lists nest.
    // Clauses outside any list must match. A query of no clauses matches
    // every document.
    //
    // The return clause Re(options P<per page> M<maximum>,"field",...) says
    // what a search gives back: the stored fields named (all stored fields
    // when none is named), so many results a page, at most so many results
    // (0: all). Return options: "S" adds each hit's score as the field
    // "score"; "D" (distinct) gives hits whose returned fields are all equal
    // once.
    class BREVI_EXPORT Command
    {
    public:
        // Results a page when none is given.
        static const unsigned DefaultResultsPerPage = 50;

        Command() = default;
        explicit Command(const FieldOptions& fieldOptions)
            : moFieldOptions(fieldOptions)
        {}

        void setFieldOptions(const FieldOptions& fieldOptions) { moFieldOptions = fieldOptions; }
        const FieldOptions& fieldOptions() const { return moFieldOptions; }
        // The options a field clause of `name` with `tag` is built with.
        Options options(const QString& name, const QString& tag = QString()) const
        {
            return moFieldOptions.options(name, tag);
        }

        bool addDefault(const QString& name);

        // A field: a document's value when adding, a term (or, on an
        // analysed text field, a query text the server parses) when
        // searching or deleting. A number for a text field fails ("Cannot
        // add a number to string field"), a date for a field that is not of
        // date type too ("Cannot store date in non date field"). Dates are
        // seconds since 1970 (UTC), which must fit 32 bits.
        bool addField(const QString& name, const QString& value, const QString& tag = QString());
        bool addField(const QString& name, const char* value, const QString& tag = QString())
        {
            return addField(name, QString::fromUtf8(value), tag);
        }
        bool addField(const QString& name, unsigned int value, const QString& tag = QString());
        bool addField(const QString& name, unsigned long long value, const QString& tag = QString());
        bool addField(const QString& name, const QDateTime& value, const QString& tag = QString());
        bool addField(const QString& name, bool value, const QString& tag = QString());
        // The field as the text stands, escaped; no type applies.
        bool copyField(const QString& name, const QString& text, const QString& tag = QString());

        // A range over one field, both bounds included. An empty bound is the
        // least, or the greatest, value of the field's type.
        bool addRange(const QString& name, const QString& low, const QString& high, const QString& tag = QString());
        bool addRange(const QString& name, unsigned int low, unsigned int high, const QString& tag = QString());
        bool addRange(const QString& name, unsigned long long low, unsigned long long high,
                      const QString& tag = QString());
        bool addRange(const QString& name, const QDateTime& low, const QDateTime& high, const QString& tag = QString());
        bool copyRange(const QString& name, const QString& low, const QString& high, const QString& tag = QString());
        // Every document that has the field: a range with two empty bounds.
        bool addAll(const QString& name, const QString& tag = QString());

        bool addSort(const QString& tag, const QString& name);
        // The indexes a command concerns: the one to open, or those to search.
        bool addIndexList(const QString& tag, const QStringList& names);

        void mustContainClauseList();
        void shouldContainClauseList();
        void mustNotContainClauseList();
        void endClauseList();

        // The return clause; each call writes it anew. addReturn() alone
        // asks for the clause with every stored field.
        void addReturn();
        bool addReturn(const QString& name);
        bool addReturn(const QStringList& names);
        void returnOptions(const QString& options);
        void resultsPerPage(unsigned count);
        void maximumResults(unsigned count);
        unsigned resultsPerPage() const { return muiResultsPerPage; }
        unsigned maximumResults() const { return muiMaximumResults; }
        const QString& returnOptions() const { return msReturnOptions; }
        const QStringList& returnFields() const { return mqReturnClauseList; }
        const QString& returnClause() const { return msReturnClause; }
        // Whether the return options ask for distinct results.
        bool isDistinct() const { return msReturnOptions.contains(QLatin1Char('D')); }

        // Empties the clause list and the return clause, and forgets the
        // return fields.
        void clear();
        // The clause list, without the return clause.
        const QString& toString() const { return msClauseList; }

        // The command as an XmlList, for a message: "ClauseList",
        // "ReturnOptions", one "ReturnField" each, "ResultsPerPage",
        // "MaximumResults", "Return" (whether there is a return clause). The
        // field options do not travel.
        XmlList toXml() const;
        // False, with a trace, for an entry of another name ("Unexpected
        // entry in lucene command xml"); what was read before it stays.
        bool fromXml(const XmlList& xml);

    private:
        bool typedValue(QString& text, const QString& name, const QString& tag, const QString& value) const;
        bool numberValue(QString& text, const QString& name, const QString& tag, unsigned long long value) const;
        bool rangeBound(QString& text, const Options& options, const QString& value, bool high) const;
        void makeReturnClause();
        void writeTag(const QString& tag);

        FieldOptions moFieldOptions;
        QString msClauseList;
        QString msReturnOptions;
        QStringList mqReturnClauseList;
        unsigned muiResultsPerPage = DefaultResultsPerPage;
        unsigned muiMaximumResults = 0;
        QString msReturnClause;
    };

    // One reply: its response, sequence, match count, status and clauses.
    // The cursors walk the clauses, or only the field clauses, in order.
    class BREVI_EXPORT Reply
    {
    public:
        typedef QPair<Clause, QStringList> ClauseEntry;

        Reply() = default;
        explicit Reply(const QString& responseName);

        Response response() const { return meResponse; }
        // "IndexOpen", "SearchMatch", ...; empty for eResponseUnknown.
        QString responseName() const { return responseName(meResponse); }
        static QString responseName(Response response);
        // The response of a short name ("IS"); eResponseUnknown for others.
        static Response responseFromCode(const QString& code);

        quint64 sequence() const { return mullSequence; }
        // The hits of a search (IS, SR): the number behind the "T" of its
        // status.
        unsigned matches() const { return muiMatches; }
        Status status() const { return meStatus; }
        const QList<ClauseEntry>& clauses() const { return moClauses; }

        bool firstClause(Clause& clause, QStringList& values);
        bool nextClause(Clause& clause, QStringList& values);
        bool firstField(QString& name, QString& value);
        bool nextField(QString& name, QString& value);
        // The value of the first field clause of `name`; a null string, and
        // `found` false, when there is none.
        QString field(bool* found, const QString& name) const;
        // The field clauses with a name and a value.
        unsigned fieldCount() const;

        // Used by the parser as the reply is read.
        void setSequence(quint64 sequence) { mullSequence = sequence; }
        void addClause(Clause clause, const QStringList& values);
        void setStatus(const QString& value);

    private:
        Response meResponse = eResponseUnknown;
        quint64 mullSequence = 0;
        unsigned muiMatches = 0;
        Status meStatus = eStatusNone;
        QList<ClauseEntry> moClauses;
        int miClause = 0;
        int miField = 0;
    };

    LuceneComm();
    ~LuceneComm();
    LuceneComm(const LuceneComm&) = delete;
    LuceneComm& operator=(const LuceneComm&) = delete;

    // Connects to the server on the loopback address and `port` and sends it
    // the field options (FO). `fast` asks for large socket buffers, for a
    // link that will carry many documents. A server just started takes a
    // moment before it listens: a refused connect is tried again every 100
    // milliseconds for up to `waitMs`, serving messages between the tries.
    // Only in an attached context ("Can only connect in an Attached context").
    bool connect(MsgCondition& condition, const FieldOptions& fieldOptions, unsigned int port, bool fast,
                 unsigned waitMs = 0);
    // Tells the server "Quit" (the server ends) or "Close" (it ends this
    // link), waits up to 10 seconds for it to close its end, and closes.
    void disconnect(bool quit);
    bool validConnection() const;
    bool isFast() const { return mbFast; }
    const FieldOptions& fieldOptions() const { return moFieldOptions; }
    // The sequence number of the last command sent.
    quint64 sequence() const { return mullSequence; }
    // The status of the last command whose reply was awaited.
    Status lastStatus() const { return meLastStatus; }
    // The server's reason when it refused that command; empty otherwise.
    const QString& lastReason() const { return msLastReason; }

    // Opens the index the command names (In("directory")), made if it does
    // not exist, for the commands that follow on this link.
    bool indexSelect(MsgCondition& condition, const Command& command);
    // Commits and closes the selected index.
    bool indexClose(MsgCondition& condition);
    bool indexCommit(MsgCondition& condition, bool wait = true);
    // Merges the index down to one segment.
    bool indexOptimise(MsgCondition& condition);
    // Runs the search and takes its reply, whose matches() say how many hits
    // there are; the pages follow through searchResultList.
    bool indexSearch(MsgCondition& condition, const Command& command, Reply& reply);
    bool indexAdd(MsgCondition& condition, const Command& command, bool wait = true);
    // Sent with ",ESO": the server answers nothing, and a failure shows only
    // in its trace.
    bool indexAddQueued(MsgCondition& condition, const Command& command);
    bool indexNoop(MsgCondition& condition);
    // The server's trace level: "NONE" for TraceAlways and TraceTesting,
    // "VERBOSE" for TraceVerbose and TraceDebug, else "NORMAL".
    bool indexTraceLevel(MsgCondition& condition, TraceLevelE level);
    // Deletes every document the command's query matches.
    bool indexDeleteQuery(MsgCondition& condition, const Command& command, bool wait = true);
    bool indexDeleteQueryQueued(MsgCondition& condition, const Command& command);

    // The reply of the last command sent: older replies nobody waited for
    // are dropped; a newer one means a reply was lost, and closes the link.
    bool commandReply(MsgCondition& condition, Reply& reply);
    // The same, keeping the reply's status; true when it is success.
    bool commandComplete(MsgCondition& condition);
    // The next reply, whatever its sequence.
    bool reply(MsgCondition& condition, Reply& reply);

    // Appends the next page of hits of the search that gave `first`. False
    // when no results were left or the page did not come whole; the search
    // then counts as used up. With `prefetch` false the next page is asked
    // for as soon as this one is taken, so that the server works on it while
    // the caller uses this one; with `prefetch` true it is asked for when the
    // caller comes for it. Keep to one of the two for a search, and send no
    // other command between its pages: the next command's wait drops the
    // replies of the page asked for ahead.
    bool searchResultList(MsgCondition& condition, QList<Reply>& list, const Reply& first, bool prefetch);
    // The hits of `first` not yet taken, at most the command's maximum.
    unsigned searchResultsLeft(MsgCondition& condition, const Reply& first) const;

    // The texts that index terms are made of: base 10, zero-padded to a
    // fixed width, so that numbers sort as text.
    static QString padBoolean(bool value);
    static QString padEnum(unsigned int value);
    static QString padInt32(int value);
    static QString padDate(int value);
    static QString padInt64(long long value);

private:
    class ReplyParser;

    void newCommand(const char* name, const Command& command, bool queued);
    bool sendCommand(MsgCondition& condition, bool wait);
    bool read(MsgCondition& condition, bool block);
    bool receive(bool closing = false);
    bool serveMessages(MsgCondition& condition);
    bool waitConnected(MsgCondition& condition, bool& refused);
    bool pause(MsgCondition& condition, qint64 ms);
    TCPError waitReady(TCPSocketSelect::TypeE type, qint64 ms, const char* failure);
    bool nextReply(MsgCondition& condition, Reply& reply, const quint64* wanted);
    bool requestPage(MsgCondition& condition);
    bool simpleCommand(MsgCondition& condition, const char* name, const Command& command, bool wait);
    void closeSocket();

    FieldOptions moFieldOptions;
    boost::shared_ptr<TCPSocketData> mptSocket;
    QByteArray moCommandText;
    int miCommandSent = 0;
    quint64 mullSequence = 0;
    QList<Reply> moReplies;
    std::unique_ptr<ReplyParser> mpoParser;
    Buffer moReadBuffer;
    unsigned muiResultsPerPage = 0;
    unsigned muiMaximumResults = 0;
    unsigned muiResultsTaken = 0;
    quint64 mullPageSequence = 0;
    Command moNextPage;
    MsgPending moPending;
    TCPSocketSelect moSelect;
    Status meLastStatus = eStatusNone;
    QString msLastReason;
    bool mbFast = false;
};

} // namespace Brevi

#endif
