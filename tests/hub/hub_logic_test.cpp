// The Hub's decisions without sockets: its command line, its process table
// and where its router sends a destination.

#include "huboptions.h"
#include "processtable.h"
#include "router.h"

#include "messaging/msgaddress.h"
#include "messaging/msgpacket.h"

#include <QCoreApplication>

#include <gtest/gtest.h>

#include <boost/make_shared.hpp>

#include <cstdlib>

using namespace Brevi;

namespace {

bool parse(HubOptions& options, const QStringList& arguments, QString* error = nullptr)
{
    // The parser takes the program's name and directory from the application.
    static int argc = 1;
    static char name[] = "hub";
    static char* argv[] = {name, nullptr};
    static QCoreApplication application(argc, argv);
    QString message, help;
    const bool ok = options.parse(QStringList{"hub", "--node", "n", "--machine-id", "m"} + arguments, message, help);
    if (error)
        *error = message;
    return ok;
}

ProcessPointer entry(const QString& name = QString(), const QString& group = QString())
{
    ProcessPointer process = boost::make_shared<ProcessEntry>();
    process->name = name;
    process->group = group;
    process->linkSerial = 1;
    return process;
}

} // namespace

TEST(HubOptions, PortComesFromTheCommandLineThenTheEnvironment)
{
    unsetenv("BREVI_HUB_PORT");
    HubOptions plain;
    ASSERT_TRUE(parse(plain, {}));
    EXPECT_EQ(plain.port, 30303u);
    EXPECT_EQ(plain.traceBufferSize, 1024u * 1024);
    EXPECT_EQ(plain.machineName().fullName(), "n@m");

    setenv("BREVI_HUB_PORT", "30404", 1);
    HubOptions fromEnvironment;
    ASSERT_TRUE(parse(fromEnvironment, {}));
    EXPECT_EQ(fromEnvironment.port, 30404u);
    HubOptions given;
    ASSERT_TRUE(parse(given, {"--port", "31000", "--trace-buffer-size", "2M"}));
    EXPECT_EQ(given.port, 31000u);
    EXPECT_EQ(given.traceBufferSize, 2u * 1024 * 1024);
    unsetenv("BREVI_HUB_PORT");
}

TEST(HubOptions, QueueLimitsHoldTogether)
{
    // The queue limit has room for the largest packet; the pause mark is
    // never above the limit.
    HubOptions small;
    ASSERT_TRUE(parse(small, {"--max-packet", "1M", "--max-queue", "64K", "--pause-queue", "4M"}));
    EXPECT_EQ(small.maximumQueueBytes, 1024u * 1024);
    EXPECT_EQ(small.pauseQueueBytes, 1024u * 1024);
    HubOptions given;
    ASSERT_TRUE(parse(given, {"--max-packet", "1M", "--max-queue", "8M", "--pause-queue", "64K"}));
    EXPECT_EQ(given.maximumQueueBytes, 8u * 1024 * 1024);
    EXPECT_EQ(given.pauseQueueBytes, 64u * 1024);
}

TEST(HubOptions, BadValuesAreRefusedWithAReason)
{
    for (const QStringList& arguments : QList<QStringList>{{"--port", "0"},
                                                           {"--port", "abc"},
                                                           {"--port", "70000"},
                                                           {"--trace-buffer-size", "1K"},
                                                           {"--max-packet", "1000"},
                                                           {"--node", "a/b"},
                                                           {"--node", "a@b"},
                                                           {"--machine-id", ""},
                                                           {"--daemon", "--foreground"},
                                                           {"stray"},
                                                           {"--no-such-option"}}) {
        HubOptions options;
        QString error;
        EXPECT_FALSE(parse(options, arguments, &error)) << arguments.join(' ').toStdString();
        EXPECT_FALSE(error.isEmpty());
    }
    HubOptions help;
    QString error, text;
    ASSERT_TRUE(parse(help, {"--help"}));
    ASSERT_TRUE(help.parse({"hub", "--help"}, error, text));
    EXPECT_TRUE(text.contains("--trace-buffer-size"));
}

TEST(HubProcessTable, IdsAreNeverReusedAndNamesAreUnique)
{
    ProcessTable table(2);
    const ProcessPointer first = table.add(entry("a"));
    const ProcessPointer second = table.add(entry());
    ASSERT_TRUE(first && second);
    EXPECT_EQ(first->processId, 16u);
    EXPECT_EQ(second->processId, 17u);
    EXPECT_FALSE(table.add(entry("a")));
    EXPECT_TRUE(table.add(entry("a", "other group")));
    EXPECT_EQ(table.byName("a", QString()), first);

    ASSERT_TRUE(table.remove(first->processId));
    EXPECT_FALSE(table.remove(first->processId));
    EXPECT_FALSE(table.byId(16));
    EXPECT_FALSE(first->live());
    // The name is free again; the id is not given again.
    const ProcessPointer again = table.add(entry("a"));
    ASSERT_TRUE(again);
    EXPECT_GT(again->processId, 18u);
}

TEST(HubProcessTable, TheLogDaemonsNameGetsItsWellKnownId)
{
    ProcessTable table(0);
    EXPECT_EQ(ProcessTable::wellKnownId("LogDaemonLocal", QString()), 8u);
    EXPECT_EQ(ProcessTable::wellKnownId("LogDaemonLocal", "g"), 0u);
    const ProcessPointer logDaemon = table.add(entry("LogDaemonLocal"));
    ASSERT_TRUE(logDaemon);
    EXPECT_EQ(logDaemon->processId, 8u);
    EXPECT_FALSE(table.add(entry("LogDaemonLocal")));
    table.remove(8);
    EXPECT_EQ(table.add(entry("LogDaemonLocal"))->processId, 8u);
}

TEST(HubRouter, DestinationsByTheirFlatText)
{
    ProcessTable table(0);
    const ProcessPointer service = table.add(entry("svc", "grp"));
    const QByteArray id = QByteArray::number(service->processId);
    Router router(MachineName("here@1"), table);

    auto route = [&router](const QByteArray& text, QByteArray* after = nullptr) {
        MsgPacket packet(BinaryAddress(Extent(text)), BinaryAddress(), QByteArray(), "Name", QString(), QByteArray(), 1,
                         false);
        const Router::Result result = router.route(packet);
        if (after)
            *after = Router::text(packet.destination());
        return result.kind;
    };
    EXPECT_EQ(route("3/1"), Router::Result::eManager);
    EXPECT_EQ(route("3/2"), Router::Result::eRouter);
    EXPECT_EQ(route("1/1/here@1"), Router::Result::eManager);
    EXPECT_EQ(route("1/2/here@1"), Router::Result::eRouter);
    EXPECT_EQ(route("1/" + id + "/here@1"), Router::Result::eProcess);
    EXPECT_EQ(route("1/0/here@1/svc/grp"), Router::Result::eProcess);
    EXPECT_EQ(route("4/" + id + "/a/a/here@1"), Router::Result::eProcess);
    for (const QByteArray& nowhere :
         QList<QByteArray>{"3/3", "2/1", "1/999/here@1", "1/0/here@1/svc", "1/" + id + "/there@2", "garbage", ""})
        EXPECT_EQ(route(nowhere), Router::Result::eUndeliverable) << nowhere.toStdString();

    // This machine as the first of two hops: the hop is stepped on in the
    // packet's bytes, to a machine there is no link to.
    QByteArray after;
    EXPECT_EQ(route("4/" + id + "/b/a/there@2/here@1", &after), Router::Result::eUndeliverable);
    EXPECT_EQ(after, "4/" + id + "/b/b/there@2/here@1");

    // A process without a link can be watched but not reached.
    service->linkSerial = 0;
    EXPECT_EQ(route("1/" + id + "/here@1"), Router::Result::eUndeliverable);
    EXPECT_EQ(router.resolve(MsgAddress(MachineName("here@1"), service->processId)).kind, Router::Result::eProcess);
}
