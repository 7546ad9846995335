// childctl: freezes, thaws and shuts down a supervised process, and with it
// the tree of processes and threads below it, through the Hub.
//
// A freeze lasts as long as the one who ordered it: should it end, the Hub
// tells the frozen process, which thaws by itself. So `freeze` stays with the
// frozen tree until the time given with --for is up, until it is interrupted
// (Ctrl-C, SIGTERM), or until `childctl thaw` asks it to end the freeze; then
// it thaws the tree and ends. While it holds the freeze its title at the Hub
// is "childctl freeze <ProcessId>", by which `thaw` finds it.

#include "hubquery.h"
#include "toolcommon.h"

#include "core/context.h"
#include "messaging/msg.h"
#include "messaging/msgaddress.h"
#include "messaging/msgcatalogue.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QTextStream>

#include <csignal>

using namespace Brevi;
using namespace Brevi::Catalogue;
using namespace Brevi::ToolCommon;

namespace {

// Between a `thaw` and the `freeze` that holds the freeze: the request, and
// the answer once the tree runs again (Success, Text).
const char* const ThawPost = "ChildCtlThawPost";
const char* const ThawDonePost = "ChildCtlThawDonePost";
const char* const Tool = "childctl";
// How long `thaw` waits for a holder to answer.
const int HolderSeconds = 30;

struct Request {
    QString command;
    QString process;
    // --for: seconds to hold the freeze; negative: until told.
    int holdSeconds = -1;
    int timeoutSeconds = 30;
};
Request gRequest;

volatile std::sig_atomic_t gInterrupted = 0;
void onSignal(int) { gInterrupted = 1; }

QTextStream& out()
{
    static QTextStream stream(stdout);
    return stream;
}
QTextStream& err()
{
    static QTextStream stream(stderr);
    return stream;
}

QString holderTitle(unsigned processId) { return QStringLiteral("childctl freeze %1").arg(processId); }

QString milliseconds(const QElapsedTimer& clock)
{
    return QString::number(double(clock.nsecsElapsed()) / 1e6, 'f', 1) + " ms";
}

MsgAddress localRouter() { return MsgAddress(eMsgAddressHub, eWellKnownHubRouter); }

void watchExit(const MsgAddress& address, bool on)
{
    Msg post(localRouter(), on ? HubRtrRegisterNotifyOnExitPost::Message : HubRtrUnregisterNotifyOnExitPost::Message);
    post.set(HubRtrRegisterNotifyOnExitPost::Address, address.toXml());
    post.send();
}

bool sendTo(const MsgAddress& target, const QString& name, const QString& cookie)
{
    Msg request(target, name);
    request.setCookie(cookie);
    return request.send(true);
}

// What came back for a request: the answer, the target's end, a request the
// Hub could not deliver, or nothing in time.
struct Answer {
    enum Kind { eReply, eEnded, eUndeliverable, eTimeout, eInterrupted, eFailed } kind = eFailed;
    Msg message;
};

// Waits for an answer of one of `names` with `cookie`, or for the end of
// `target`, for up to `seconds`; with `interruptible`, a signal ends it too.
Answer await(const QStringList& names, const QString& cookie, const MsgAddress& target, int seconds,
             bool interruptible = false)
{
    QStringList wanted = names;
    wanted << HubRtrProcessExitedPost::Message << HubRtrUndeliverableMessagePost::Message;
    QElapsedTimer clock;
    clock.start();
    Answer answer;
    for (;;) {
        if (interruptible && gInterrupted) {
            answer.kind = Answer::eInterrupted;
            return answer;
        }
        if (seconds >= 0 && clock.elapsed() >= qint64(seconds) * 1000) {
            answer.kind = Answer::eTimeout;
            return answer;
        }
        // One second at a time, so that a signal is noticed.
        const Msg message = Msg::wait(wanted, 1);
        if (!message) {
            if (message.lastError() == eMsgResultTimeout)
                continue;
            return answer;
        }
        answer.message = message;
        if (message.name() == HubRtrProcessExitedPost::Message) {
            if (MsgAddress(message.getXmlList(HubRtrProcessExitedPost::Address)) == target) {
                answer.kind = Answer::eEnded;
                return answer;
            }
        } else if (message.name() == HubRtrUndeliverableMessagePost::Message) {
            if (message.getString(HubRtrUndeliverableMessagePost::Cookie) == cookie) {
                answer.kind = Answer::eUndeliverable;
                return answer;
            }
        } else if (cookie.isEmpty() || message.getCookie() == cookie) {
            answer.kind = Answer::eReply;
            return answer;
        }
    }
}

// The words of a refusal: the manager's state word, or why it came to none.
QString refusal(const Msg& reply)
{
    const QString reason = reply.getString(ChildMgrFreezeReply::Reason);
    if (reason.isEmpty())
        return QStringLiteral("a process of the tree refused or ended");
    if (reason == ChildMgrStateDidNotFreeze)
        return QStringLiteral("DidNotFreeze: someone else holds the freeze");
    return reason;
}

// Thaws what this run froze; true once the tree runs again.
bool thaw(const MonitorEntry& target, const QString& cookie, QString& text)
{
    out() << target.label() << ": thawing\n";
    out().flush();
    QElapsedTimer clock;
    clock.start();
    if (!sendTo(target.address(), ChildMgrThawRequest::Message, cookie)) {
        text = QStringLiteral("cannot send the thaw request");
        return false;
    }
    const Answer answer = await({ChildMgrThawReply::Message, ChildMgrFreezeReply::Message}, cookie, target.address(),
                                gRequest.timeoutSeconds);
    switch (answer.kind) {
    case Answer::eReply:
        // A freeze that never came about ends with its own answer, false.
        if (answer.message.name() == ChildMgrFreezeReply::Message) {
            text = QStringLiteral("the freeze was given up");
            return false;
        }
        if (!answer.message.getBool(ChildMgrThawReply::Success)) {
            text = QStringLiteral("not thawed: ") + refusal(answer.message);
            return false;
        }
        text = QStringLiteral("running again in ") + milliseconds(clock);
        return true;
    case Answer::eEnded:
        text = QStringLiteral("has ended");
        return false;
    default:
        text = QStringLiteral("no answer to the thaw in %1 s").arg(gRequest.timeoutSeconds);
        return false;
    }
}

int freeze(const MonitorEntry& target)
{
    const QString cookie = QString::number(Context::uniqueId());
    // How `thaw` finds this run.
    Msg title(MsgAddress(eMsgAddressHub, eWellKnownHubManager), HubMgrSetTitlePost::Message);
    title.set(HubMgrSetTitlePost::Title, holderTitle(target.processId));
    title.send();
    watchExit(target.address(), true);
    out() << target.label() << ": freezing\n";
    out().flush();
    QElapsedTimer clock;
    clock.start();
    if (!sendTo(target.address(), ChildMgrFreezeRequest::Message, cookie)) {
        err() << Tool << ": cannot send to " << target.label() << '\n';
        return eExitFailed;
    }
    const Answer frozen = await({ChildMgrFreezeReply::Message}, cookie, target.address(), gRequest.timeoutSeconds);
    QString text;
    switch (frozen.kind) {
    case Answer::eReply:
        if (frozen.message.getBool(ChildMgrFreezeReply::Success))
            break;
        out() << target.label() << ": not frozen: " << refusal(frozen.message) << '\n';
        return eExitFailed;
    case Answer::eEnded:
    case Answer::eUndeliverable:
        out() << target.label() << ": has ended\n";
        return eExitFailed;
    default:
        out() << target.label() << ": not frozen in " << gRequest.timeoutSeconds << " s\n";
        thaw(target, cookie, text);
        out() << target.label() << ": " << text << '\n';
        return eExitFailed;
    }
    out() << target.label() << ": frozen in " << milliseconds(clock);
    if (gRequest.holdSeconds >= 0)
        out() << ", for " << gRequest.holdSeconds << " s";
    out() << " (childctl thaw " << gRequest.process << " or Ctrl-C thaws it)\n";
    out().flush();

    // Held until the time is up, a signal, or a thaw asked by name.
    const Answer held = await({QString::fromLatin1(ThawPost)}, QString(), target.address(), gRequest.holdSeconds, true);
    if (held.kind == Answer::eEnded) {
        out() << target.label() << ": has ended while frozen\n";
        return eExitFailed;
    }
    const bool thawed = thaw(target, cookie, text);
    out() << target.label() << ": " << text << '\n';
    out().flush();
    if (held.kind == Answer::eReply) {
        XmlList done;
        done.set("Success", thawed);
        done.set("Text", text);
        held.message.reply(ThawDonePost, done, eMsgDoNotCompress, true);
    }
    watchExit(target.address(), false);
    return thawed ? eExitOk : eExitFailed;
}

int thawCommand(const MonitorEntry& target, const QList<MonitorEntry>& processes)
{
    // The run that holds the freeze thaws it; without one the process itself
    // is asked, and says why it does not thaw.
    const QString cookie = QString::number(Context::uniqueId());
    for (const MonitorEntry& holder : processes) {
        if (!holder.live() || holder.title != holderTitle(target.processId))
            continue;
        if (!sendTo(holder.address(), ThawPost, cookie))
            break;
        const Answer answer = await({QString::fromLatin1(ThawDonePost)}, cookie, holder.address(), HolderSeconds);
        if (answer.kind == Answer::eReply) {
            out() << target.label() << ": " << answer.message.getString("Text") << '\n';
            return answer.message.getBool("Success") ? eExitOk : eExitFailed;
        }
        out() << target.label() << ": the run that holds the freeze did not answer\n";
        return eExitFailed;
    }
    if (!sendTo(target.address(), ChildMgrThawRequest::Message, cookie)) {
        err() << Tool << ": cannot send to " << target.label() << '\n';
        return eExitFailed;
    }
    const Answer answer = await({ChildMgrThawReply::Message, ChildMgrFreezeReply::Message}, cookie, target.address(),
                                gRequest.timeoutSeconds);
    if (answer.kind != Answer::eReply) {
        out() << target.label() << ": no answer\n";
        return eExitFailed;
    }
    if (answer.message.getBool(ChildMgrThawReply::Success)) {
        out() << target.label() << ": running again\n";
        return eExitOk;
    }
    out() << target.label() << ": not thawed: " << refusal(answer.message) << '\n';
    return eExitFailed;
}

int shutdown(const MonitorEntry& target, const QList<MonitorEntry>& below)
{
    QList<MonitorEntry> waiting = below;
    waiting.prepend(target);
    for (const MonitorEntry& entry : waiting)
        watchExit(entry.address(), true);
    out() << target.label() << ": shutting down";
    if (!below.isEmpty())
        out() << " with the " << below.size() << (below.size() == 1 ? " process" : " processes") << " it started";
    out() << '\n';
    out().flush();
    QElapsedTimer clock;
    clock.start();
    if (!sendTo(target.address(), ChildMgrShutdownPost::Message, QString())) {
        err() << Tool << ": cannot send to " << target.label() << '\n';
        return eExitFailed;
    }
    while (!waiting.isEmpty()) {
        if (clock.elapsed() >= qint64(gRequest.timeoutSeconds) * 1000) {
            QStringList names;
            for (const MonitorEntry& entry : waiting)
                names << entry.label();
            out() << "still running after " << gRequest.timeoutSeconds << " s: " << names.join(", ") << '\n';
            return eExitFailed;
        }
        const Msg ended = Msg::wait(HubRtrProcessExitedPost::Message, 1);
        if (!ended) {
            if (ended.lastError() == eMsgResultTimeout)
                continue;
            err() << Tool << ": the link to the Hub failed\n";
            return eExitFailed;
        }
        const MsgAddress gone(ended.getXmlList(HubRtrProcessExitedPost::Address));
        for (int i = 0; i < waiting.size(); ++i)
            if (waiting[i].address() == gone) {
                out() << waiting[i].label() << ": ended after " << milliseconds(clock) << '\n';
                out().flush();
                waiting.removeAt(i);
                break;
            }
    }
    return eExitOk;
}

int control()
{
    HubQuery hub;
    if (!hub.refresh()) {
        err() << Tool << ": " << hub.error() << '\n';
        return eExitFailed;
    }
    QString error;
    const MonitorEntry* target = hub.select(gRequest.process, error);
    if (!target) {
        err() << Tool << ": " << error << '\n';
        return eExitFailed;
    }
    if (!target->live()) {
        err() << Tool << ": " << target->label() << " has ended\n";
        return eExitFailed;
    }
    if (gRequest.command == "freeze")
        return freeze(*target);
    if (gRequest.command == "thaw")
        return thawCommand(*target, hub.entries());
    return shutdown(*target, hub.descendants(*target));
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName(Tool);
    QCommandLineParser parser;
    parser.setApplicationDescription(
        "Freezes, thaws or shuts down a supervised process, and with it the processes and threads it\n"
        "supervises, through the Hub.\n"
        "  freeze    freezes the tree, holds the freeze until --for seconds are up, Ctrl-C, or\n"
        "            'childctl thaw' for the same process, then thaws it (a freeze ends when its\n"
        "            holder does: the Hub tells the tree, which thaws by itself)\n"
        "  thaw      ends the freeze that a running 'childctl freeze' holds on the process; without\n"
        "            one, asks the process, which says why it does not thaw (NotFrozen, DidNotFreeze)\n"
        "  shutdown  asks the process to shut down, and prints each process of its tree as it ends\n"
        "PROCESS is a ProcessId, pid:<OS pid>, #<Hub Id>, name, name/group or title.\n"
        "Exit status: 0 done, 1 refused, failed or not done in time, 2 bad command line.\n"
        "Example: childctl freeze Tree --for 10");
    parser.addHelpOption();
    parser.addPositionalArgument("command", "freeze, thaw or shutdown.", "COMMAND");
    parser.addPositionalArgument("process", "The process at the top of the tree.", "PROCESS");
    const QCommandLineOption port = portOption();
    const QCommandLineOption holdFor("for", "freeze: thaw again after this many seconds.", "seconds");
    const QCommandLineOption timeout("timeout", "Seconds to wait for each answer, or for the end (default 30).",
                                     "seconds");
    parser.addOption(port);
    parser.addOption(holdFor);
    parser.addOption(timeout);
    const int parsed = parseCommandLine(parser, application.arguments(), Tool, err());
    if (parsed >= 0)
        return parsed;

    const QStringList arguments = parser.positionalArguments();
    if (arguments.size() != 2 || !QStringList{"freeze", "thaw", "shutdown"}.contains(arguments[0])) {
        err() << Tool << ": give a COMMAND (freeze, thaw or shutdown) and a PROCESS (see --help)\n";
        return eExitUsage;
    }
    gRequest.command = arguments[0];
    gRequest.process = arguments[1];
    const auto seconds = [&](const QCommandLineOption& option, int& value) {
        if (!parser.isSet(option))
            return true;
        bool ok = false;
        value = parser.value(option).toInt(&ok);
        if (ok && value >= 0)
            return true;
        err() << Tool << ": --" << option.names().constFirst() << " takes a number of seconds\n";
        return false;
    };
    if (!seconds(holdFor, gRequest.holdSeconds) || !seconds(timeout, gRequest.timeoutSeconds))
        return eExitUsage;
    if (!applyPort(parser, port, Tool, err()))
        return eExitUsage;

    struct sigaction action = {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);

    return runAttached(Tool, control, err());
}
