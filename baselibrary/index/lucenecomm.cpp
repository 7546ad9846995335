#include "index/lucenecomm.h"

#include "core/context.h"
#include "index/lucenereplyparser_p.h"
#include "messaging/msgcondition.h"
#include "sockets/netaddress.h"
#include "sockets/tcpsocketdata.h"

#include <QElapsedTimer>

#include <boost/make_shared.hpp>

namespace Brevi {

namespace {
const unsigned TraceModule = TraceModuleLucene;

const unsigned ReadBufferSize = 8192;
// Socket buffers of a link asked to be fast: room for many queued
// documents in flight.
const unsigned FastBufferSize = 0x100000;
const qint64 CloseWaitMs = 0x2710;
// Between the tries of a connect to a server that does not listen yet.
const qint64 RetryMs = 100;

// A condition that never ends a wait: for the waits of disconnect, which
// has a time limit of its own.
class NeverDone : public MsgCondition
{};
} // namespace

LuceneComm::LuceneComm()
    : mpoParser(new ReplyParser)
{
    moReadBuffer.size(ReadBufferSize);
}

LuceneComm::~LuceneComm()
{
    if (mptSocket)
        mptSocket->close();
}

bool LuceneComm::validConnection() const { return mptSocket && mptSocket->isValid(); }

void LuceneComm::closeSocket()
{
    if (mptSocket)
        mptSocket->close();
    moCommandText.clear();
    miCommandSent = 0;
}

// --- Messages while waiting -------------------------------------------------

// Handles what is pending for this thread. False when the wait has to end:
// messaging is gone (the link is closed too), or a handler stopped the wait.
bool LuceneComm::serveMessages(MsgCondition& condition)
{
    if (moPending.handle(condition) || condition.done())
        return true;
    const MsgResult result = moPending.lastError();
    if (result == eMsgResultIpcError || result == eMsgResultFailed) {
        BTRACE(TraceAlways) << "Messaging has shutdown" << int(result);
        closeSocket();
        return false;
    }
    BTRACE(TraceAlways) << "Error checking messages" << int(result);
    return false;
}

// Waits up to `ms` on this link's socket for `type` and on the thread's
// messages. eTCPErrorNone when something is ready (the select tells what),
// eTCPErrorTimeout; anything else is a failure that has been traced with
// `failure` and has closed the link.
TCPError LuceneComm::waitReady(TCPSocketSelect::TypeE type, qint64 ms, const char* failure)
{
    for (;;) {
        if (!moPending.select(moSelect)) {
            BTRACE(TraceAlways) << "Messaging system has gone down";
            closeSocket();
            return eTCPErrorDisabled;
        }
        if (validConnection())
            moSelect.set(*mptSocket, type);
        const TCPError error = moSelect.wait(ms);
        if (error == eTCPErrorInterrupted)
            continue;
        if (error != eTCPErrorNone && error != eTCPErrorTimeout) {
            BTRACE(TraceAlways) << failure << error;
            closeSocket();
        }
        return error;
    }
}

// --- Connecting -------------------------------------------------------------

// Waits for the connect under way, serving messages. False with the socket
// closed when it failed: `refused` tells a server that does not listen
// (yet) from the other failures, which are traced here.
bool LuceneComm::waitConnected(MsgCondition& condition, bool& refused)
{
    refused = false;
    while (!condition.done() && validConnection()) {
        // A connect ends in writable, or in an error, which all sets see.
        if (waitReady(TCPSocketSelect::All, -1, "Error waiting on select") != eTCPErrorNone)
            return false;
        if (moSelect.isSet(*mptSocket, TCPSocketSelect::All)) {
            if (mptSocket->complete(0))
                return true;
            const TCPError failure = mptSocket->lastError();
            if (failure != eTCPErrorTimeout && failure != eTCPErrorWouldBlock && failure != eTCPErrorInterrupted) {
                refused = failure == eTCPErrorConnectionRefused;
                if (!refused)
                    BTRACE(TraceAlways) << "error connecting" << failure;
                closeSocket();
                return false;
            }
        }
        if (moPending.pending(moSelect) && !serveMessages(condition)) {
            BTRACE(TraceAlways) << "Error checking messages";
            closeSocket();
            return false;
        }
    }
    BTRACE(TraceAlways) << "error connecting: the wait ended" << int(condition.result());
    closeSocket();
    return false;
}

// Serves messages for up to `ms` milliseconds; false when the wait must end.
bool LuceneComm::pause(MsgCondition& condition, qint64 ms)
{
    const TCPError error = waitReady(TCPSocketSelect::Read, ms, "Error waiting on select");
    if (error == eTCPErrorNone && moPending.pending(moSelect) && !serveMessages(condition))
        return false;
    return (error == eTCPErrorNone || error == eTCPErrorTimeout) && !condition.done();
}

bool LuceneComm::connect(MsgCondition& condition, const FieldOptions& fieldOptions, unsigned int port, bool fast,
                         unsigned waitMs)
{
    if (Context::type() != Context::TypeAttached) {
        BTRACE(TraceAlways) << "Can only connect in an Attached context";
        return false;
    }
    if (mptSocket)
        mptSocket->close();
    moFieldOptions = fieldOptions;
    mbFast = fast;
    mpoParser->reset();
    moReplies.clear();
    moCommandText.clear();
    miCommandSent = 0;
    muiResultsTaken = muiResultsPerPage = muiMaximumResults = 0;
    meLastStatus = eStatusNone;
    msLastReason.clear();

    QElapsedTimer clock;
    clock.start();
    for (;;) {
        mptSocket =
            boost::make_shared<TCPSocketData>(QStringLiteral("Lucene"), NetAddress(QHostAddress::LocalHost, port));
        bool refused = mptSocket->lastError() == eTCPErrorConnectionRefused;
        if (mptSocket->isValid()) {
            if (fast) {
                mptSocket->setSendBufferSize(FastBufferSize);
                mptSocket->setRecvBufferSize(FastBufferSize);
            }
            if (waitConnected(condition, refused))
                break;
        }
        closeSocket();
        if (!refused || clock.elapsed() >= qint64(waitMs) || !pause(condition, RetryMs)) {
            BTRACE(TraceAlways) << "error connecting to port" << port << mptSocket->lastError();
            return false;
        }
    }
    BTRACE(TraceNormal) << "Send buffer   " << mptSocket->getSendBufferSize();
    BTRACE(TraceNormal) << "Receive buffer" << mptSocket->getRecvBufferSize();
    BTRACE(TraceNormal) << "Connected" << port;

    Command options;
    moFieldOptions.command(options);
    newCommand("FO", options, false);
    if (!sendCommand(condition, true))
        return false;
    BTRACE(TraceNormal) << "Field Options set";
    return true;
}

void LuceneComm::disconnect(bool quit)
{
    if (!validConnection()) {
        closeSocket();
        return;
    }
    NeverDone never;
    newCommand(quit ? "Quit" : "Close", Command(), false);
    if (sendCommand(never, false)) {
        // The server closes its end when it is done; what it still sends is
        // read and dropped.
        QElapsedTimer clock;
        clock.start();
        while (validConnection()) {
            const qint64 left = CloseWaitMs - clock.elapsed();
            if (left <= 0) {
                BTRACE(TraceAlways) << "Taking too long to close";
                break;
            }
            const TCPError error = waitReady(TCPSocketSelect::Read, left, "Error waiting on select");
            if (error == eTCPErrorTimeout)
                continue;
            if (error != eTCPErrorNone)
                break;
            if (moSelect.isSet(*mptSocket, TCPSocketSelect::Read) && !receive(true))
                break;
            if (moPending.pending(moSelect) && !moPending.handle(never)) {
                BTRACE(TraceAlways) << "Error checking messages" << int(moPending.lastError());
                if (moPending.lastError() == eMsgResultIpcError || moPending.lastError() == eMsgResultFailed)
                    break;
            }
        }
    }
    moReplies.clear();
    closeSocket();
}

// --- Sending ----------------------------------------------------------------

void LuceneComm::newCommand(const char* name, const Command& command, bool queued)
{
    if (miCommandSent == moCommandText.size()) {
        moCommandText.clear();
        miCommandSent = 0;
    }
    ++mullSequence;
    moCommandText += name;
    moCommandText += "(Seq(\"";
    moCommandText += QByteArray::number(mullSequence);
    moCommandText += "\")";
    moCommandText += command.toString().toUtf8();
    if (!command.returnClause().isEmpty())
        moCommandText += command.returnClause().toUtf8();
    moCommandText += queued ? ",ESO);" : ");";
}

bool LuceneComm::sendCommand(MsgCondition& condition, bool wait)
{
    if (!validConnection() || condition.done()) {
        BTRACE(TraceAlways) << "socket is invalid";
        return false;
    }
    if (miCommandSent >= moCommandText.size()) {
        BTRACE(TraceAlways) << "No command to send";
        closeSocket();
        return false;
    }
    while (!condition.done() && validConnection() && miCommandSent < moCommandText.size()) {
        if (waitReady(TCPSocketSelect::ReadWrite, -1, "Error waiting on select") != eTCPErrorNone)
            return false;
        const bool readable = moSelect.isSet(*mptSocket, TCPSocketSelect::Read);
        const bool writable = moSelect.isSet(*mptSocket, TCPSocketSelect::Write);
        const bool messages = moPending.pending(moSelect);
        // Replies first: a server that cannot write its replies stops
        // reading our commands.
        if (readable && !receive())
            return false;
        if (writable) {
            const unsigned sent = mptSocket->send(moCommandText.constData() + miCommandSent,
                                                  unsigned(moCommandText.size() - miCommandSent));
            if (sent) {
                miCommandSent += int(sent);
            } else if (mptSocket->lastError() != eTCPErrorWouldBlock &&
                       mptSocket->lastError() != eTCPErrorInterrupted && mptSocket->lastError() != eTCPErrorNoBuffers) {
                BTRACE(TraceAlways) << "Send Error" << mptSocket->lastError();
                closeSocket();
                return false;
            }
        }
        if (messages && !serveMessages(condition))
            return false;
    }
    if (miCommandSent < moCommandText.size())
        return false;
    moCommandText.clear();
    miCommandSent = 0;
    return wait ? commandComplete(condition) : true;
}

// --- Reading ----------------------------------------------------------------

// Takes what the socket holds now and parses it. False when the link ended
// (the server closed it, an error, a reply that cannot be parsed). While
// `closing`, the server's end of the stream is what is waited for.
bool LuceneComm::receive(bool closing)
{
    for (;;) {
        const unsigned got = mptSocket->recv(moReadBuffer.data(), moReadBuffer.size());
        if (got) {
            if (!mpoParser->feed(reinterpret_cast<const char*>(moReadBuffer.data()), int(got), moReplies)) {
                BTRACE(TraceAlways) << "Malformed reply:" << mpoParser->error();
                closeSocket();
                return false;
            }
            if (got < moReadBuffer.size())
                return true;
            continue;
        }
        const TCPError error = mptSocket->lastError();
        if (error == eTCPErrorWouldBlock || error == eTCPErrorInterrupted)
            return true;
        BTRACE(closing && error == eTCPErrorClosed ? TraceNormal : TraceAlways) << "Error while reading" << error;
        closeSocket();
        return false;
    }
}

bool LuceneComm::read(MsgCondition& condition, bool block)
{
    while (!condition.done() && validConnection()) {
        const TCPError error = waitReady(TCPSocketSelect::Read, block ? -1 : 0, "Error waiting for data");
        if (error == eTCPErrorTimeout)
            return true;
        if (error != eTCPErrorNone)
            return false;
        const bool messages = moPending.pending(moSelect);
        if (moSelect.isSet(*mptSocket, TCPSocketSelect::Read) && !receive())
            return false;
        if (messages && !serveMessages(condition))
            return false;
        return true;
    }
    return false;
}

// --- Replies ----------------------------------------------------------------

bool LuceneComm::nextReply(MsgCondition& condition, Reply& reply, const quint64* wanted)
{
    for (;;) {
        while (!moReplies.isEmpty()) {
            const quint64 sequence = moReplies.first().sequence();
            if (!wanted || sequence == *wanted) {
                reply = moReplies.takeFirst();
                return true;
            }
            if (sequence > *wanted) {
                BTRACE(TraceAlways) << "Lost reply for sequence" << *wanted << "found" << sequence;
                closeSocket();
                return false;
            }
            // The reply of a command whose caller did not wait for it.
            moReplies.removeFirst();
        }
        if (!validConnection() || condition.done())
            return false;
        if (!read(condition, true) && moReplies.isEmpty())
            return false;
    }
}

bool LuceneComm::commandReply(MsgCondition& condition, Reply& reply)
{
    return nextReply(condition, reply, &mullSequence);
}

bool LuceneComm::reply(MsgCondition& condition, Reply& reply) { return nextReply(condition, reply, nullptr); }

bool LuceneComm::commandComplete(MsgCondition& condition)
{
    Reply answer;
    if (!commandReply(condition, answer))
        return false;
    meLastStatus = answer.status();
    msLastReason.clear();
    Clause clause = eClauseUnknown;
    QStringList values;
    for (bool more = answer.firstClause(clause, values); more; more = answer.nextClause(clause, values))
        if (clause == eClauseStatus) {
            msLastReason = values.value(1);
            break;
        }
    if (meLastStatus != eStatusSuccess) {
        BTRACE(TraceAlways) << "The server refused" << answer.responseName() << "sequence" << answer.sequence()
                            << msLastReason;
        return false;
    }
    return true;
}

// --- Commands ---------------------------------------------------------------

bool LuceneComm::simpleCommand(MsgCondition& condition, const char* name, const Command& command, bool wait)
{
    newCommand(name, command, false);
    return sendCommand(condition, wait);
}

bool LuceneComm::indexSelect(MsgCondition& condition, const Command& command)
{
    return simpleCommand(condition, "IO", command, true);
}

bool LuceneComm::indexClose(MsgCondition& condition) { return simpleCommand(condition, "IC", Command(), true); }

bool LuceneComm::indexCommit(MsgCondition& condition, bool wait)
{
    return simpleCommand(condition, "CM", Command(), wait);
}

bool LuceneComm::indexOptimise(MsgCondition& condition) { return simpleCommand(condition, "IZ", Command(), true); }

bool LuceneComm::indexNoop(MsgCondition& condition) { return simpleCommand(condition, "NP", Command(), true); }

bool LuceneComm::indexTraceLevel(MsgCondition& condition, TraceLevelE level)
{
    const char* word = "NORMAL";
    if (level == TraceAlways || level == TraceTesting)
        word = "NONE";
    else if (level == TraceVerbose || level == TraceDebug)
        word = "VERBOSE";
    Command command;
    command.copyField(QStringLiteral("Level"), QString::fromLatin1(word));
    return simpleCommand(condition, "TL", command, true);
}

bool LuceneComm::indexAdd(MsgCondition& condition, const Command& command, bool wait)
{
    return simpleCommand(condition, "IA", command, wait);
}

bool LuceneComm::indexAddQueued(MsgCondition& condition, const Command& command)
{
    newCommand("IA", command, true);
    return sendCommand(condition, false);
}

bool LuceneComm::indexDeleteQuery(MsgCondition& condition, const Command& command, bool wait)
{
    return simpleCommand(condition, "IDQ", command, wait);
}

bool LuceneComm::indexDeleteQueryQueued(MsgCondition& condition, const Command& command)
{
    newCommand("IDQ", command, true);
    return sendCommand(condition, false);
}

bool LuceneComm::indexSearch(MsgCondition& condition, const Command& command, Reply& reply)
{
    muiResultsPerPage = command.resultsPerPage();
    muiMaximumResults = command.maximumResults();
    muiResultsTaken = 0;
    reply = Reply();
    newCommand("IS", command, false);
    if (!sendCommand(condition, false) || !commandReply(condition, reply))
        return false;
    meLastStatus = reply.status();
    msLastReason.clear();
    if (meLastStatus != eStatusSuccess) {
        Clause clause = eClauseUnknown;
        QStringList values;
        if (reply.firstClause(clause, values) && clause == eClauseStatus)
            msLastReason = values.value(1);
        BTRACE(TraceAlways) << "The server refused the search" << msLastReason;
        return false;
    }
    return true;
}

// --- Paging -----------------------------------------------------------------

unsigned LuceneComm::searchResultsLeft(MsgCondition&, const Reply& first) const
{
    unsigned total = first.matches();
    if (muiMaximumResults && muiMaximumResults < total)
        total = muiMaximumResults;
    return total > muiResultsTaken ? total - muiResultsTaken : 0;
}

bool LuceneComm::searchResultList(MsgCondition& condition, QList<Reply>& list, const Reply& first, bool prefetch)
{
    const unsigned left = searchResultsLeft(condition, first);
    if (!left)
        return false;
    const unsigned total = left + muiResultsTaken;
    if (muiResultsTaken) {
        if (prefetch)
            requestPage(condition);
        // The page request's own reply: commands sent since then do not
        // change which reply opens the page.
        Reply page;
        if (!nextReply(condition, page, &mullPageSequence) || page.status() != eStatusSuccess) {
            BTRACE(TraceAlways) << "Failed to get next page";
            muiResultsTaken = total;
            return false;
        }
    }
    const unsigned size = muiResultsPerPage && muiResultsPerPage < left ? muiResultsPerPage : left;
    unsigned taken = 0;
    for (; taken < size; ++taken) {
        Reply match;
        if (!reply(condition, match))
            break;
        if (match.response() != eResponseSearchMatch) {
            BTRACE(TraceAlways) << "Expected a search match, got" << match.responseName() << match.sequence();
            break;
        }
        list.append(match);
    }
    if (taken < size) {
        muiResultsTaken = total;
        return false;
    }
    muiResultsTaken += size;
    // The next page is asked for now, so that the server works on it while
    // the caller uses this one.
    if (!prefetch && muiResultsTaken < total)
        requestPage(condition);
    return true;
}

bool LuceneComm::requestPage(MsgCondition& condition)
{
    newCommand("SR", moNextPage, false);
    mullPageSequence = mullSequence;
    return sendCommand(condition, false);
}

} // namespace Brevi
