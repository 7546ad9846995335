#ifndef BASELIBRARY_CORE_FIXEDPATH_H
#define BASELIBRARY_CORE_FIXEDPATH_H

#include "brevi_export.h"

#include <QString>

namespace Brevi {

// Where things live on this machine, under the home directory.
//
// Filled once by initialize(), which the first Context of a process runs; after
// that the values never change and any thread may read them. Settings come
// from the environment (there is no registry here):
//   BREVI_HOME, BREVI_TRACE, BREVI_REPOSITORY, BREVI_REPOSITORY_STORES,
//   BREVI_REPOSITORY_STREAMS, BREVI_REPOSITORY_STREAM_DATA, BREVI_METADATA_STORE.
// A value of three or more characters in matching single or double quotes
// loses them. Without a home directory every path is empty, and no context
// comes up. The store paths exist only when both the repository and the
// metadata store are configured.
class BREVI_EXPORT FixedPath
{
public:
    static bool initialize();
    static bool isInitialized() { return mbInitialized; }

    static const QString& home() { return msHome; }
    static const QString& config() { return msConfig; }
    static const QString& runtime() { return msRuntime; }
    static const QString& rulesBase() { return msRulesBase; }
    static const QString& tmp() { return msTmp; }
    static const QString& trace() { return msTrace; }
    static const QString& db() { return msDb; }
    static const QString& dbMaster() { return msDbMaster; }
    static const QString& masterRulesBase() { return msMasterRulesBase; }
    static const QString& masterRulesActive() { return msMasterRulesActive; }
    static const QString& masterRulesLatest() { return msMasterRulesLatest; }
    static const QString& masterRulesDist() { return msMasterRulesDist; }
    static const QString& masterRulesNew() { return msMasterRulesNew; }
    static const QString& masterProfiles() { return msMasterProfiles; }
    static const QString& uiSaves() { return msUiSaves; }
    static const QString& logDaemonSaves() { return msLogDaemonSaves; }
    static const QString& guiHome() { return msGuiHome; }
    static const QString& metaDataStoreSaves() { return msMdStore; }
    static const QString& metaDataStoreService() { return msMdStoreService; }
    static const QString& metaDataStoreSnap() { return msMdStoreSnap; }
    static const QString& metaDataStoreCloudEvents() { return msMdStoreCloudEvents; }
    static const QString& repository() { return msRepository; }
    static const QString& repositoryStores() { return msRepositoryStores; }
    static const QString& repositoryStreams() { return msRepositoryStreams; }
    static const QString& repositoryStreamData() { return msRepositoryStreamData; }

    static QString rules(unsigned n);
    static QString masterRulesActive(const QString& name) { return msMasterRulesActive + '/' + name; }
    static QString masterRulesLatest(const QString& name) { return msMasterRulesLatest + '/' + name; }
    static QString masterRulesDist(const QString& name) { return msMasterRulesDist + '/' + name; }
    static QString masterProfile(const QString& name) { return msMasterProfiles + '/' + name + ".cfg"; }

    // The data installed with the library (the default rule files): the
    // directory <prefix>/share/brevi that belongs to the <prefix>/lib this
    // library was loaded from, so an installed tree may move; for a library
    // that runs where it was built, the build tree's share/brevi. It does not
    // depend on home or on initialize(); empty if neither directory exists.
    static QString data();

    // An environment variable through a 1024-character buffer, with one pair
    // of enclosing quotes removed; empty when not set.
    static QString environment(const char* name);

    // Forgets everything, so that a test can initialize again under another
    // environment. Not for use while other threads read the paths.
    static void resetForTesting();

private:
    static bool mbInitialized;
    static QString msHome, msConfig, msRuntime, msRulesBase, msTmp, msTrace, msDb, msDbMaster, msMasterRulesBase,
        msMasterRulesActive, msMasterRulesLatest, msMasterRulesDist, msMasterRulesNew, msMasterProfiles, msUiSaves,
        msLogDaemonSaves, msGuiHome, msMdStore, msMdStoreService, msMdStoreSnap, msMdStoreCloudEvents, msRepository,
        msRepositoryStores, msRepositoryStreams, msRepositoryStreamData;
};

} // namespace Brevi

#endif
