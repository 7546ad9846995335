// supervised: one process of a supervised tree, attached to the Hub. The top
// of a tree is started by hand; it starts its children through the Hub (the
// same program, from the Hub's programs directory), each child starts its
// own, and every process runs a ChildManager over what it started, so that
// the tree can be frozen, thawed and shut down from the top (see childctl).
//
//   supervised --name Tree --shape "Worker(*,*,Leaf),Indexer,Store" [--peer Audit]
//
// The shape lists the children of the top, separated by commas, each with
// its own children in parentheses: a name is a child process (named
// "<parent>.<name>" in the tree's group), "*" a child thread, "Name#N" N
// processes Name1 to NameN. A name may end in "!" for a child that ignores
// shutdown requests and SIGTERM (the Hub's shutdown ends it in the end), or
// in "?" for one that never reports itself frozen, which holds a freeze up.
// --peer names a process of the group that the top watches without having
// started it; a peer started with --name and no --shape has no children.
// A child started through the Hub takes its part of the shape from its
// parent's first message (TreeRolePost).
//
// With --observer NAME, every change a parent makes to its records of its
// children is posted to the process NAME of the group (TreeStatePost:
// Parent, Child, State), and every process says it is up (TreeHelloPost:
// Name, OSPid); that is how the tests watch a freeze travel through the tree.
// With --log, starts, freezes, thaws and stops go to the log daemon. A
// TreeWorkPost to any process is answered with TreeWorkDonePost (the same
// body) at once while it runs, and after the freeze while one lasts.

#include "core/context.h"
#include "core/trace.h"
#include "logging/logline.h"
#include "messaging/msg.h"
#include "messaging/msgaddress.h"
#include "messaging/msgcatalogue.h"
#include "messaging/threadcomms.h"
#include "process/child.h"
#include "process/childmanager.h"
#include "process/processcreate.h"

#include <QFileInfo>
#include <QStringList>
#include <QTextStream>

#include <boost/make_shared.hpp>
#include <boost/thread/thread.hpp>

#include <csignal>

#include <unistd.h>

using namespace Brevi;
using namespace Brevi::Catalogue;

namespace {

const unsigned TraceModule = TraceModuleApplication;
const char* const RolePost = "TreeRolePost";
const char* const StatePost = "TreeStatePost";
const char* const HelloPost = "TreeHelloPost";
const char* const WorkPost = "TreeWorkPost";
const char* const WorkDonePost = "TreeWorkDonePost";
const char* const LogCategory = "Tree";
const int RoleSeconds = 30;
// A process that ignores shutdown leaves by itself after this long, so that
// a test that fails never leaves one behind for good.
const int StubbornLifetime = 300;

// What a process is: its name, its children's shape, and how it behaves.
struct Role {
    QString name;
    QString group = QStringLiteral("Supervised");
    QString shape;
    QStringList peers;
    QString observer;
    bool log = false;
    bool stubborn = false;
    bool hold = false;

    XmlList toXml() const
    {
        XmlList body;
        body.set("Name", name);
        body.set("Group", group);
        body.set("Shape", shape);
        body.set("Observer", observer);
        body.set("Log", log);
        body.set("Stubborn", stubborn);
        body.set("Hold", hold);
        return body;
    }
    static Role fromMessage(const Msg& message)
    {
        Role role;
        role.name = message.getString("Name");
        role.group = message.getString("Group");
        role.shape = message.getString("Shape");
        role.observer = message.getString("Observer");
        role.log = message.getBool("Log");
        role.stubborn = message.getBool("Stubborn");
        role.hold = message.getBool("Hold");
        return role;
    }
};

// One entry of a shape: a thread, or a process with the shape of its own
// children.
struct Node {
    bool thread = false;
    Role role;
};

// Splits "A(x,y),B!,*" into its top-level entries; false for a shape that
// does not parse (unbalanced parentheses, an empty name, a bad count).
bool parseShape(const QString& shape, const Role& parent, QList<Node>& nodes)
{
    QStringList entries;
    int depth = 0;
    QString current;
    for (const QChar c : shape) {
        if (c == '(')
            ++depth;
        else if (c == ')' && --depth < 0)
            return false;
        if (c == ',' && depth == 0) {
            entries.append(current);
            current.clear();
        } else {
            current.append(c);
        }
    }
    if (depth != 0)
        return false;
    if (!shape.trimmed().isEmpty())
        entries.append(current);
    for (QString entry : entries) {
        entry = entry.trimmed();
        Node node;
        node.role.group = parent.group;
        node.role.observer = parent.observer;
        node.role.log = parent.log;
        const int open = entry.indexOf('(');
        if (open >= 0) {
            if (!entry.endsWith(')'))
                return false;
            node.role.shape = entry.mid(open + 1, entry.size() - open - 2);
            entry = entry.left(open).trimmed();
        }
        int count = 0;
        const int hash = entry.indexOf('#');
        if (hash >= 0) {
            bool ok = false;
            count = entry.mid(hash + 1).toInt(&ok);
            if (!ok || count < 1)
                return false;
            entry = entry.left(hash);
        }
        while (entry.endsWith('!') || entry.endsWith('?')) {
            (entry.endsWith('!') ? node.role.stubborn : node.role.hold) = true;
            entry.chop(1);
        }
        if (entry == "*") {
            if (!node.role.shape.isEmpty())
                return false;
            node.thread = true;
        } else if (entry.isEmpty() || entry.contains('/') || entry.contains('.')) {
            return false;
        }
        for (int i = 1; i <= qMax(count, 1); ++i) {
            Node copy = node;
            copy.role.name = parent.name + '.' + entry + (count ? QString::number(i) : QString());
            nodes.append(copy);
        }
    }
    return true;
}

Role gRole;
QString gProgram;

MsgAddress named(const QString& name) { return MsgAddress(Context::machineName(), name, gRole.group); }

void logLine(const QString& who, const QString& what)
{
    if (gRole.log)
        BREVI_LOG(LogCategory, Log::eLogInformation) << "%1s %2s" << who << what;
}

// A parent's record of a child, which tells the observer of every change.
class ReportedChild : public Child
{
public:
    using Child::Child;
    void state(State state) override
    {
        const bool changed = state != Child::state();
        Child::state(state);
        if (!changed || gRole.observer.isEmpty())
            return;
        XmlList body;
        body.set("Parent", gRole.name);
        body.set("Child", name());
        body.set("State", QString::fromLatin1(ChildManager::stateName(state)));
        Msg(named(gRole.observer), StatePost, body).send();
    }
};

// The manager of one process or thread: it does nothing while frozen, so
// the freeze is taken as soon as the children are frozen, unless the role
// holds it up.
class TreeManager : public ChildManager
{
public:
    TreeManager(const QString& name, bool hold)
        : msName(name)
        , mbHold(hold)
    {}

    void checkState(bool& changed, MsgResult& result, const Msg& message) override
    {
        ChildManager::checkState(changed, result, message);
        if (mbHold)
            return;
        // The freeze is taken, and waited out, inside.
        const bool freezing = state() == CMFreezing && childrenFrozen();
        if (freezing)
            logLine(msName, "is frozen");
        simpleFreezeCheckState(changed, result, message);
        if (freezing && state() == CMRunning)
            logLine(msName, "runs again");
    }

private:
    QString msName;
    bool mbHold;
};

// --- threads ----------------------------------------------------------------------

thread_local ThreadComms* tpComms = nullptr;

void threadBody()
{
    if (!tpComms->connect(Log::eProxy)) {
        tpComms->failed();
        return;
    }
    TreeManager manager(Context::object()->title(), false);
    manager.initialize(ChildManager::CMStarting, ChildManager::eIgnoreHubShutdown);
    manager.contextReady();
    Msg::wait(-1);
    manager.release();
    tpComms->disconnect();
}

void threadMain(ThreadComms comms)
{
    tpComms = &comms;
    if (!Context::run(threadBody, Context::TypeStandalone, 0, gRole.name + ".thread" + comms.name()))
        comms.failed();
    tpComms = nullptr;
}

// --- the process ------------------------------------------------------------------

bool startChildren(TreeManager& manager, const QList<Node>& nodes)
{
    bool all = true;
    for (const Node& node : nodes) {
        if (node.thread) {
            ThreadComms comms(ChildManager::nextId());
            const auto thread = boost::make_shared<boost::thread>(threadMain, comms);
            manager.addChild(
                boost::make_shared<ReportedChild>(thread, comms.name(), Child::eFreezable, Child::eNoShutdownOnExit));
            continue;
        }
        const ProcessCreate created(Context::machineName(), gProgram, node.role.name, node.role.name, node.role.group);
        if (!created) {
            BTRACE(TraceAlways) << "Failed to start" << node.role.name << "error" << int(created.error());
            all = false;
            continue;
        }
        Msg(created.address(), RolePost, node.role.toXml()).send();
        manager.addChild(boost::make_shared<ReportedChild>(node.role.name, created.address(), Child::eWaitForExit,
                                                           Child::eFreezable, Child::eNoShutdownOnExit));
    }
    return all;
}

void processMain(int& result, int, char** const)
{
    if (gRole.name.isEmpty()) {
        // Started by a parent through the Hub: the parent says what to be.
        const Msg role = Msg::wait(RolePost, RoleSeconds);
        if (!role) {
            BTRACE(TraceAlways) << "No role from" << Context::parentAddress();
            result = 1;
            return;
        }
        gRole = Role::fromMessage(role);
    }
    QList<Node> nodes;
    if (!parseShape(gRole.shape, gRole, nodes)) {
        BTRACE(TraceAlways) << "Bad shape" << gRole.shape;
        result = 2;
        return;
    }
    if (gRole.stubborn)
        std::signal(SIGTERM, SIG_IGN);

    TreeManager manager(gRole.name, gRole.hold);
    manager.initialize(ChildManager::CMStarting, ChildManager::eHonorHubShutdown);
    const MsgHandlerPointer ignore =
        boost::make_shared<MsgHandlerFunction>([](const Msg&) { return eMsgResultHandled; });
    if (gRole.stubborn) {
        // Asked before the manager's own handlers: the requests go nowhere.
        Msg::addHandler(ChildMgrShutdownPost::Message, ignore);
        Msg::addHandler(HubRtrShutdownPost::Message, ignore);
    }
    manager.addMsgHandler(WorkPost, boost::make_shared<MsgHandlerFunction>([&manager](const Msg& work) {
                              if (!manager.deferred(work))
                                  work.reply(WorkDonePost, work.body());
                              return eMsgResultHandled;
                          }));

    const bool started = startChildren(manager, nodes);
    // A peer is not this process's to stop, nor to wait for.
    for (const QString& peer : gRole.peers)
        manager.addPeer(boost::make_shared<ReportedChild>(peer, named(peer), Child::eNoWaitForExit, Child::eFreezable,
                                                          Child::eNoShutdownOnExit),
                        false);
    // Before the ready: whoever learns from the Hub that this process is
    // ready has been told of it already.
    if (!gRole.observer.isEmpty()) {
        XmlList hello;
        hello.set("Name", gRole.name);
        hello.set("OSPid", unsigned(::getpid()));
        Msg(named(gRole.observer), HelloPost, hello).send();
    }
    manager.contextReady();
    logLine(gRole.name, started ? "has started" : "has started without some of its children");

    // Until a handler ends the loop (the shutdown is complete) or the Hub
    // link is gone for good.
    const MsgResult ended = Msg::wait(gRole.stubborn ? StubbornLifetime : -1);
    BTRACE(TraceNormal) << gRole.name << "leaves its loop with" << int(ended);
    logLine(gRole.name, "stops");
    manager.release();
    BTRACE(TraceNormal) << gRole.name << "ends";
}

int usage(QTextStream& out, int status)
{
    out << "Usage: supervised --name NAME [--group GROUP] [--shape SHAPE] [--peer NAME]... [--observer NAME] [--log]\n"
           "One process of a supervised tree, attached to the Hub (port from BREVI_HUB_PORT). The top of a\n"
           "tree is started by hand; its children, started through the Hub, learn their part from it.\n"
           "SHAPE: children separated by commas, each with its own in parentheses; NAME a process,\n"
           "* a thread, NAME#N N processes; NAME! ignores shutdown, NAME? never reports frozen.\n"
           "Example: supervised --name Tree --shape \"Worker(*,*,Leaf),Indexer,Store\" --peer Audit\n"
           "Exit status: 0 ended in order, 1 could not attach or was given no part, 2 bad command line.\n";
    return status;
}

} // namespace

int main(int argc, char** argv)
{
    QTextStream out(stdout);
    QTextStream err(stderr);
    gProgram = QFileInfo(QString::fromLocal8Bit(argv[0])).fileName();
    for (int i = 1; i < argc; ++i) {
        const QString option = QString::fromLocal8Bit(argv[i]);
        const bool hasValue = i + 1 < argc;
        if (option == "--help" || option == "-h")
            return usage(out, 0);
        if (option == "--log")
            gRole.log = true;
        else if (option == "--name" && hasValue)
            gRole.name = QString::fromLocal8Bit(argv[++i]);
        else if (option == "--group" && hasValue)
            gRole.group = QString::fromLocal8Bit(argv[++i]);
        else if (option == "--shape" && hasValue)
            gRole.shape = QString::fromLocal8Bit(argv[++i]);
        else if (option == "--peer" && hasValue)
            gRole.peers.append(QString::fromLocal8Bit(argv[++i]));
        else if (option == "--observer" && hasValue)
            gRole.observer = QString::fromLocal8Bit(argv[++i]);
        else
            return usage(err, 2);
    }
    QList<Node> check;
    if (!parseShape(gRole.shape, gRole, check) || gRole.name.contains('/')) {
        err << "supervised: the shape '" << gRole.shape << "' does not parse\n";
        return 2;
    }

    int result = 0;
    // A child of the tree takes title, name and group from the Hub, and
    // reports ready only once its manager can answer a freeze.
    const unsigned flags = Context::FlagAttachOnce | Context::FlagNotifyReady |
                           (gRole.name.isEmpty() ? unsigned(Context::FlagUseEnvironment) : 0u);
    if (!Context::run(processMain, result, argc, argv, Context::TypeAttached, flags,
                      gRole.name.isEmpty() ? QStringLiteral("supervised") : gRole.name, gRole.name, gRole.group)) {
        err << "supervised: could not attach to the Hub\n";
        return 1;
    }
    return result;
}
