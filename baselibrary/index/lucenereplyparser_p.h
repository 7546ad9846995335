#ifndef BASELIBRARY_INDEX_LUCENEREPLYPARSER_P_H
#define BASELIBRARY_INDEX_LUCENEREPLYPARSER_P_H

#include "index/lucenecomm.h"

#include <QByteArray>
#include <QList>
#include <QStringList>

namespace Brevi {

// Reads the server's replies out of the byte stream, whatever pieces it
// comes in: the state and the text read so far are kept between feeds, so a
// reply split across reads parses as one in one piece.
//
//   Name ( Clause ( value , "quoted \" value" ) , Clause ( ) ) ;
//
// States: 0 before a reply's name, 1 in the name, 2 before a clause's name
// (or the reply's closing bracket), 3 in the clause's name, 4 before a value
// (or the clause's closing bracket), 5 in a value, 6 after the reply's
// closing bracket, up to ';', 7 after a clause, up to ',' or ')', 8 after a
// quoted value, up to ',' or ')'.
//
// What it does not read as a reply is an error of the link, not a reply to
// skip: a name too long or holding a bracket, quote or ';', a sequence that
// is not a number, a reply larger than MaximumReply.
class LuceneComm::ReplyParser
{
public:
    static const int MaximumName = 64;
    static const int MaximumReply = 64 * 1024 * 1024;

    // Parses `size` bytes; each complete reply is appended to `replies`.
    // False on input that is not a reply; error() says why.
    bool feed(const char* data, int size, QList<Reply>& replies);
    void reset();
    const char* error() const { return mpcError; }

private:
    bool fail(const char* why);
    bool endValue();
    bool endClause();

    int miState = 0;
    int miReplySize = 0;
    bool mbQuoted = false;
    bool mbEscape = false;
    bool mbEscapes = false;
    QByteArray moToken;
    QByteArray moClauseName;
    QStringList moValues;
    Reply moReply;
    const char* mpcError = "";
};

} // namespace Brevi

#endif
