// Where things live: the environment rules of the directory tree.

#include "core/fixedpath.h"

#include "testhome.h"

#include <QDir>

#include <gtest/gtest.h>

#include <cstdlib>

using namespace Brevi;

TEST(FixedPath, NoHomeLeavesEverythingEmpty)
{
    unsetenv("BREVI_HOME");
    EXPECT_FALSE(FixedPath::initialize());
    EXPECT_TRUE(FixedPath::home().isEmpty());
    EXPECT_TRUE(FixedPath::config().isEmpty());
    EXPECT_TRUE(FixedPath::rules(7).isEmpty());

    setenv("BREVI_HOME", "/no/such/directory", 1);
    EXPECT_FALSE(FixedPath::initialize());
}

TEST(FixedPath, QuotesAndATrailingSeparatorAreRemoved)
{
    QTemporaryDir dir;
    for (const char* quote : {"\"", "'"}) {
        FixedPath::resetForTesting();
        const QString quoted = quote + dir.path() + "/" + quote;
        setenv("BREVI_HOME", quoted.toLocal8Bit().constData(), 1);
        ASSERT_TRUE(FixedPath::initialize()) << quoted.toStdString();
        EXPECT_EQ(FixedPath::home(), dir.path());
    }
    FixedPath::resetForTesting();
    setenv("BREVI_HOME", "\"\"", 1);
    EXPECT_FALSE(FixedPath::initialize()) << "two quotes are not a quoted value, and not a directory";
}

TEST(FixedPath, TreeUnderHome)
{
    BreviTest::TestHome home;
    ASSERT_TRUE(FixedPath::initialize());
    const QString h = home.path();
    EXPECT_EQ(FixedPath::home(), h);
    EXPECT_EQ(FixedPath::config(), h + "/db/config");
    EXPECT_EQ(FixedPath::runtime(), h + "/runtime");
    EXPECT_EQ(FixedPath::tmp(), h + "/runtime/tmp");
    EXPECT_EQ(FixedPath::trace(), h + "/runtime/trace");
    EXPECT_EQ(FixedPath::masterRulesNew(), h + "/runtime/tmp/rules/new");
    EXPECT_EQ(FixedPath::masterRulesDist(), h + "/db/master/rules/distribute");
    EXPECT_EQ(FixedPath::logDaemonSaves(), h + "/db/saves/logdaemon");
    EXPECT_EQ(FixedPath::guiHome(), h + "/resources/gui");
    EXPECT_EQ(FixedPath::rules(7), h + "/db/rules/7");
    EXPECT_EQ(FixedPath::masterProfile("x"), h + "/db/master/profiles/x.cfg");
    EXPECT_EQ(FixedPath::masterRulesActive("r"), h + "/db/master/rules/active/r");
    EXPECT_TRUE(FixedPath::repository().isEmpty());
    EXPECT_TRUE(FixedPath::metaDataStoreSaves().isEmpty());

    setenv("BREVI_HOME", "/elsewhere", 1);
    EXPECT_TRUE(FixedPath::initialize());
    EXPECT_EQ(FixedPath::home(), h) << "filled once";
}

TEST(FixedPath, TraceDirectoryMovesAlone)
{
    BreviTest::TestHome home;
    setenv("BREVI_TRACE", "'/var/tmp/brevi trace'", 1);
    ASSERT_TRUE(FixedPath::initialize());
    EXPECT_EQ(FixedPath::trace(), "/var/tmp/brevi trace");
    EXPECT_EQ(FixedPath::tmp(), home.path() + "/runtime/tmp");

    // An overlong value reads as unset.
    FixedPath::resetForTesting();
    setenv("BREVI_TRACE", QByteArray(1100, 'x').constData(), 1);
    ASSERT_TRUE(FixedPath::initialize());
    EXPECT_EQ(FixedPath::trace(), home.path() + "/runtime/trace");
    unsetenv("BREVI_TRACE");
}

TEST(FixedPath, StorePathsNeedRepositoryAndMetadataStore)
{
    BreviTest::TestHome home;
    setenv("BREVI_REPOSITORY", "/repo", 1);
    ASSERT_TRUE(FixedPath::initialize());
    EXPECT_TRUE(FixedPath::repository().isEmpty());
    EXPECT_TRUE(FixedPath::repositoryStores().isEmpty());

    FixedPath::resetForTesting();
    setenv("BREVI_METADATA_STORE", "/md", 1);
    ASSERT_TRUE(FixedPath::initialize());
    EXPECT_EQ(FixedPath::repository(), "/repo");
    EXPECT_EQ(FixedPath::repositoryStores(), "/repo/stores");
    EXPECT_EQ(FixedPath::repositoryStreams(), "/repo/streams");
    EXPECT_EQ(FixedPath::repositoryStreamData(), FixedPath::repositoryStreams());
    EXPECT_EQ(FixedPath::metaDataStoreSaves(), "/md");
    EXPECT_EQ(FixedPath::metaDataStoreService(), "/md/svc");
    EXPECT_EQ(FixedPath::metaDataStoreSnap(), "/md/snap");
    EXPECT_EQ(FixedPath::metaDataStoreCloudEvents(), "/md/cloudevents");

    FixedPath::resetForTesting();
    setenv("BREVI_REPOSITORY_STREAM_DATA", "/data", 1);
    setenv("BREVI_REPOSITORY_STORES", "/stores", 1);
    ASSERT_TRUE(FixedPath::initialize());
    EXPECT_EQ(FixedPath::repositoryStores(), "/stores");
    EXPECT_EQ(FixedPath::repositoryStreamData(), "/data");
    EXPECT_EQ(FixedPath::repositoryStreams(), "/repo/streams");
    for (const char* name :
         {"BREVI_REPOSITORY", "BREVI_METADATA_STORE", "BREVI_REPOSITORY_STREAM_DATA", "BREVI_REPOSITORY_STORES"})
        unsetenv(name);
}
