#include "core/fixedpath.h"

#include <QDir>
#include <QFileInfo>

#include <cstdlib>

#include <dlfcn.h>

namespace Brevi {

bool FixedPath::mbInitialized = false;
QString FixedPath::msHome, FixedPath::msConfig, FixedPath::msRuntime, FixedPath::msRulesBase, FixedPath::msTmp,
    FixedPath::msTrace, FixedPath::msDb, FixedPath::msDbMaster, FixedPath::msMasterRulesBase,
    FixedPath::msMasterRulesActive, FixedPath::msMasterRulesLatest, FixedPath::msMasterRulesDist,
    FixedPath::msMasterRulesNew, FixedPath::msMasterProfiles, FixedPath::msUiSaves, FixedPath::msLogDaemonSaves,
    FixedPath::msGuiHome, FixedPath::msMdStore, FixedPath::msMdStoreService, FixedPath::msMdStoreSnap,
    FixedPath::msMdStoreCloudEvents, FixedPath::msRepository, FixedPath::msRepositoryStores,
    FixedPath::msRepositoryStreams, FixedPath::msRepositoryStreamData;

namespace {
// Characters of the buffer an environment value is read through.
const int EnvironmentBufferSize = 1024;

bool isDirectory(const QString& path) { return !path.isEmpty() && QFileInfo(path).isDir(); }
} // namespace

QString FixedPath::environment(const char* name)
{
    const char* raw = std::getenv(name);
    if (!raw)
        return QString();
    QString value = QString::fromLocal8Bit(raw);
    if (value.size() >= EnvironmentBufferSize)
        return QString(); // does not fit the buffer: read as not set
    // An installer that writes a quoted path still works.
    if (value.size() >= 3 &&
        ((value.startsWith('"') && value.endsWith('"')) || (value.startsWith('\'') && value.endsWith('\''))))
        value = value.mid(1, value.size() - 2);
    return value;
}

QString FixedPath::rules(unsigned n)
{
    return msRulesBase.isEmpty() ? QString() : msRulesBase + '/' + QString::number(n);
}

QString FixedPath::data()
{
    // Where this library itself was loaded from decides, as for the
    // pkg-config file: the relative step from its directory to the data
    // directory is the same wherever the tree is installed. The step is
    // taken from the directory's real path: the loader may name the library
    // through a link (/lib -> /usr/lib), and a textual ".." would then
    // climb out of the link rather than out of the directory it stands for.
    Dl_info info;
    if (dladdr(reinterpret_cast<void*>(&FixedPath::data), &info) && info.dli_fname) {
        const QString installed = QFileInfo(QString::fromLocal8Bit(info.dli_fname)).canonicalPath() +
                                  QStringLiteral("/" BREVI_DATA_FROM_LIBDIR);
        if (isDirectory(installed))
            return QDir::cleanPath(installed);
    }
    const QString built = QStringLiteral(BREVI_BUILD_DATA_DIR);
    return isDirectory(built) ? built : QString();
}

bool FixedPath::initialize()
{
    if (mbInitialized)
        return true;

    // There is no registry on this platform: its values are all empty, and the
    // environment serves alone.
    QString home, trace, repository, stores, streams, streamData, metadataStore;

    if (!isDirectory(home)) {
        const QString fromEnvironment = environment("BREVI_HOME");
        if (!fromEnvironment.isEmpty())
            home = fromEnvironment;
    }
    if (home.endsWith('\\') || (home.size() > 1 && home.endsWith('/')))
        home.chop(1);
    if (!isDirectory(home))
        return false;

    mbInitialized = true;
    const auto fill = [](QString& setting, const char* variable) {
        if (setting.isEmpty())
            setting = environment(variable);
    };
    fill(trace, "BREVI_TRACE");
    fill(repository, "BREVI_REPOSITORY");
    fill(stores, "BREVI_REPOSITORY_STORES");
    fill(streams, "BREVI_REPOSITORY_STREAMS");
    fill(streamData, "BREVI_REPOSITORY_STREAM_DATA");
    fill(metadataStore, "BREVI_METADATA_STORE");

    msHome = QDir(home).absolutePath();
    msConfig = msHome + "/db/config";
    msRuntime = msHome + "/runtime";
    msRulesBase = msHome + "/db/rules";
    msTmp = msHome + "/runtime/tmp";
    msTrace = trace.isEmpty() ? msHome + "/runtime/trace" : trace;
    msDb = msHome + "/db";
    msDbMaster = msHome + "/db/master";
    msMasterRulesBase = msHome + "/db/master/rules";
    msMasterRulesActive = msHome + "/db/master/rules/active";
    msMasterRulesLatest = msHome + "/db/master/rules/latest";
    msMasterRulesDist = msHome + "/db/master/rules/distribute";
    msMasterRulesNew = msHome + "/runtime/tmp/rules/new";
    msMasterProfiles = msHome + "/db/master/profiles";
    msUiSaves = msHome + "/db/saves/ui";
    msLogDaemonSaves = msHome + "/db/saves/logdaemon";
    msGuiHome = msHome + "/resources/gui";

    // A machine without a repository has no store paths at all.
    if (!repository.isEmpty() && !metadataStore.isEmpty()) {
        msMdStore = metadataStore;
        msMdStoreService = metadataStore + "/svc";
        msMdStoreSnap = metadataStore + "/snap";
        msMdStoreCloudEvents = metadataStore + "/cloudevents";
        msRepository = repository;
        msRepositoryStores = stores.isEmpty() ? repository + "/stores" : stores;
        msRepositoryStreams = streams.isEmpty() ? repository + "/streams" : streams;
        msRepositoryStreamData = streamData.isEmpty() ? repository + "/streams" : streamData;
    }
    return true;
}

void FixedPath::resetForTesting()
{
    mbInitialized = false;
    for (QString* path : {&msHome,
                          &msConfig,
                          &msRuntime,
                          &msRulesBase,
                          &msTmp,
                          &msTrace,
                          &msDb,
                          &msDbMaster,
                          &msMasterRulesBase,
                          &msMasterRulesActive,
                          &msMasterRulesLatest,
                          &msMasterRulesDist,
                          &msMasterRulesNew,
                          &msMasterProfiles,
                          &msUiSaves,
                          &msLogDaemonSaves,
                          &msGuiHome,
                          &msMdStore,
                          &msMdStoreService,
                          &msMdStoreSnap,
                          &msMdStoreCloudEvents,
                          &msRepository,
                          &msRepositoryStores,
                          &msRepositoryStreams,
                          &msRepositoryStreamData})
        path->clear();
}

} // namespace Brevi
