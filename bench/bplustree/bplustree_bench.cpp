// Random inserts, random finds and removes of 16-byte keys with 100-byte
// records: BPlusTree beside LMDB, LevelDB and SQLite on the same data, in the
// same program.
//
// Every store makes each operation reach its file before the next starts, and
// none of them waits for the disk: BPlusTree commits each operation through
// its journal (what survives a killed process), LMDB commits each operation
// with MDB_NOSYNC, LevelDB writes its log without sync, SQLite runs in WAL
// mode with synchronous off and commits each statement. One line, LMDB with
// 1000 inserts to a commit, shows what batching buys.
//
// The "Sync" lines wait for the disk at every commit, so that a committed
// operation survives a power loss: BPlusTree with Blocks::eSynchronous, LMDB
// without MDB_NOSYNC, SQLite in WAL mode with synchronous=FULL. They insert
// and remove fewer records (a wait for the disk takes milliseconds); finds
// do not depend on it.
//
// Each store's phases run in order (insert, then find, then remove) on one
// database in its own directory; a phase run alone builds what it needs. The
// counters "file_MB" and "disk_MB" are the length of the store's files and the
// space they take on disk after the phase.
//
// Environment: BREVI_BENCH_RECORDS (default 1000000), BREVI_BENCH_SYNC_RECORDS
// (default 5000) and BREVI_BENCH_DIR (a scratch directory; default the
// system's temporary directory, which must be on a disk for the Sync lines to
// mean anything).

#include "persistent/bplustree.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>

#include <benchmark/benchmark.h>
#include <leveldb/db.h>
#include <lmdb.h>
#include <sqlite3.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <sys/stat.h>

using namespace Brevi;

namespace {

const unsigned KeySize = 16;
const unsigned ValueSize = 100;

typedef std::array<unsigned char, KeySize> KeyBytes;
typedef std::array<unsigned char, ValueSize> ValueBytes;

struct Data {
    std::vector<KeyBytes> keys;
    std::vector<ValueBytes> values;
    std::vector<unsigned> findOrder;
    std::vector<unsigned> removeOrder;
};

const Data& data()
{
    static Data* made = nullptr;
    if (made)
        return *made;
    made = new Data;
    const char* records = std::getenv("BREVI_BENCH_RECORDS");
    const unsigned count = records && *records ? unsigned(std::strtoul(records, nullptr, 10)) : 1000000;
    std::mt19937_64 random(20240601);
    made->keys.resize(count);
    made->values.resize(count);
    for (unsigned i = 0; i < count; ++i) {
        for (unsigned b = 0; b < KeySize; b += 8) {
            const quint64 word = random();
            std::memcpy(made->keys[i].data() + b, &word, 8);
        }
        for (unsigned b = 0; b < ValueSize; ++b)
            made->values[i][b] = static_cast<unsigned char>(random());
    }
    for (unsigned i = 0; i < count; ++i) {
        made->findOrder.push_back(i);
        made->removeOrder.push_back(i);
    }
    std::shuffle(made->findOrder.begin(), made->findOrder.end(), random);
    std::shuffle(made->removeOrder.begin(), made->removeOrder.end(), random);
    return *made;
}

unsigned syncRecords()
{
    const char* records = std::getenv("BREVI_BENCH_SYNC_RECORDS");
    const unsigned count = records && *records ? unsigned(std::strtoul(records, nullptr, 10)) : 5000;
    return std::min(count, unsigned(data().keys.size()));
}

QString benchDirectory(const char* store)
{
    const char* base = std::getenv("BREVI_BENCH_DIR");
    const QString root = base && *base ? QString::fromLocal8Bit(base) : QDir::tempPath() + "/brevi-bplustree-bench";
    return root + "/" + store;
}

// Length of the files, and what they take on disk: a store that extends its
// file ahead of use (the block file grows in steps of many blocks) has a
// length well beyond the space it takes.
struct Footprint {
    quint64 length = 0;
    quint64 allocated = 0;
};

Footprint footprint(const QString& path)
{
    Footprint total;
    QDirIterator files(path, QDir::Files);
    while (files.hasNext()) {
        const QByteArray name = QFile::encodeName(files.next());
        struct stat status;
        if (::stat(name.constData(), &status) == 0) {
            total.length += quint64(status.st_size);
            total.allocated += quint64(status.st_blocks) * 512;
        }
    }
    return total;
}

void countFootprint(benchmark::State& state, const QString& path)
{
    const Footprint total = footprint(path);
    state.counters["file_MB"] = double(total.length) / 1e6;
    state.counters["disk_MB"] = double(total.allocated) / 1e6;
}

// Any well-mixed 32-bit hash of the key gives the tree the same work.
quint32 hashOf(const KeyBytes& key)
{
    quint64 a;
    quint64 b;
    std::memcpy(&a, key.data(), 8);
    std::memcpy(&b, key.data() + 8, 8);
    quint64 h = a ^ (b * 0x9e3779b97f4a7c15ull);
    h ^= h >> 33;
    h *= 0xff51afd7ed558ccdull;
    h ^= h >> 33;
    return quint32(h);
}

// A record: the key, then the value.
class RecordKey : public Key
{
public:
    RecordKey(const KeyBytes& key, const ValueBytes* value)
        : moHash(hashOf(key))
        , mpKey(&key)
        , mpValue(value)
    {}

    void setHash(const KeyHash& hash) override { moHash = hash; }
    KeyHash hash() const override { return moHash; }
    unsigned size() const override { return KeySize + ValueSize; }
    void store(KeyData& data) const override
    {
        std::memcpy(data.data(), mpKey->data(), KeySize);
        std::memcpy(data.data() + KeySize, mpValue->data(), ValueSize);
    }
    void load(const KeyData& data) override { std::memcpy(moLoaded.data(), data.data() + KeySize, ValueSize); }
    bool equal(const KeyData& data) const override
    {
        return data.size() >= KeySize && std::memcmp(data.data(), mpKey->data(), KeySize) == 0;
    }

    ValueBytes moLoaded;

private:
    KeyHash moHash;
    const KeyBytes* mpKey;
    const ValueBytes* mpValue;
};

class Store
{
public:
    virtual ~Store() = default;
    virtual bool create(const QString& directory) = 0;
    virtual bool open(const QString& directory) = 0;
    virtual bool insert(unsigned i) = 0;
    virtual bool find(unsigned i) = 0;
    virtual bool remove(unsigned i) = 0;
};

// `CacheBlocks` blocks of 4096 bytes stay in memory: the default 1024 (4 MB),
// or, in the second set of lines, enough for the whole tree, which is what the
// stores that map their files get from the page cache.
template <unsigned CacheBlocks, Blocks::Durability Durability = Blocks::eProcessSafe>
class TreeStore : public Store
{
public:
    TreeStore()
        : moTree(CacheBlocks)
    {
        moTree.setDurability(Durability);
    }
    bool create(const QString& directory) override { return moTree.create(directory + "/tree", 4096); }
    bool open(const QString& directory) override { return moTree.open(directory + "/tree"); }
    bool insert(unsigned i) override
    {
        RecordKey key(data().keys[i], &data().values[i]);
        return moTree.insert(key);
    }
    bool find(unsigned i) override
    {
        RecordKey key(data().keys[i], nullptr);
        return moTree.find(key);
    }
    // A caller with only the key finds its place first.
    bool remove(unsigned i) override
    {
        RecordKey key(data().keys[i], nullptr);
        return moTree.find(key) && moTree.remove(key);
    }

private:
    BPlusTree moTree;
};

template <unsigned Batch, bool Sync = false>
class LmdbStore : public Store
{
public:
    ~LmdbStore() override { close(); }
    bool create(const QString& directory) override { return open(directory); }
    bool open(const QString& directory) override
    {
        if (mdb_env_create(&mpEnv))
            return false;
        mdb_env_set_mapsize(mpEnv, size_t(8) << 30);
        if (mdb_env_open(mpEnv, QFile::encodeName(directory).constData(), Sync ? 0 : MDB_NOSYNC, 0600))
            return false;
        MDB_txn* txn = nullptr;
        mdb_txn_begin(mpEnv, nullptr, 0, &txn);
        mdb_dbi_open(txn, nullptr, 0, &mDbi);
        return mdb_txn_commit(txn) == 0;
    }
    bool insert(unsigned i) override
    {
        if (!mpWrite && mdb_txn_begin(mpEnv, nullptr, 0, &mpWrite))
            return false;
        MDB_val key{KeySize, const_cast<unsigned char*>(data().keys[i].data())};
        MDB_val value{ValueSize, const_cast<unsigned char*>(data().values[i].data())};
        const bool put = mdb_put(mpWrite, mDbi, &key, &value, MDB_NOOVERWRITE) == 0;
        return commit(false) && put;
    }
    bool find(unsigned i) override
    {
        if (!mpRead) {
            if (mdb_txn_begin(mpEnv, nullptr, MDB_RDONLY, &mpRead))
                return false;
        } else if (mdb_txn_renew(mpRead)) {
            return false;
        }
        MDB_val key{KeySize, const_cast<unsigned char*>(data().keys[i].data())};
        MDB_val value;
        const bool found = mdb_get(mpRead, mDbi, &key, &value) == 0;
        if (found)
            std::memcpy(mLoaded.data(), value.mv_data, ValueSize);
        mdb_txn_reset(mpRead);
        return found;
    }
    bool remove(unsigned i) override
    {
        if (!mpWrite && mdb_txn_begin(mpEnv, nullptr, 0, &mpWrite))
            return false;
        MDB_val key{KeySize, const_cast<unsigned char*>(data().keys[i].data())};
        const bool deleted = mdb_del(mpWrite, mDbi, &key, nullptr) == 0;
        return commit(false) && deleted;
    }

private:
    bool commit(bool now)
    {
        if (!mpWrite || (!now && ++muiPending < Batch))
            return true;
        muiPending = 0;
        MDB_txn* txn = mpWrite;
        mpWrite = nullptr;
        return mdb_txn_commit(txn) == 0;
    }
    void close()
    {
        commit(true);
        if (mpRead)
            mdb_txn_abort(mpRead);
        if (mpEnv)
            mdb_env_close(mpEnv);
        mpEnv = nullptr;
    }

    MDB_env* mpEnv = nullptr;
    MDB_dbi mDbi = 0;
    MDB_txn* mpWrite = nullptr;
    MDB_txn* mpRead = nullptr;
    unsigned muiPending = 0;
    ValueBytes mLoaded;
};

class LevelDbStore : public Store
{
public:
    bool create(const QString& directory) override { return open(directory); }
    bool open(const QString& directory) override
    {
        leveldb::Options options;
        options.create_if_missing = true;
        leveldb::DB* db = nullptr;
        const leveldb::Status status = leveldb::DB::Open(options, QFile::encodeName(directory).toStdString(), &db);
        mpDb.reset(db);
        return status.ok();
    }
    bool insert(unsigned i) override
    {
        const leveldb::Slice key(reinterpret_cast<const char*>(data().keys[i].data()), KeySize);
        const leveldb::Slice value(reinterpret_cast<const char*>(data().values[i].data()), ValueSize);
        return mpDb->Put(leveldb::WriteOptions(), key, value).ok();
    }
    bool find(unsigned i) override
    {
        const leveldb::Slice key(reinterpret_cast<const char*>(data().keys[i].data()), KeySize);
        return mpDb->Get(leveldb::ReadOptions(), key, &msLoaded).ok();
    }
    bool remove(unsigned i) override
    {
        const leveldb::Slice key(reinterpret_cast<const char*>(data().keys[i].data()), KeySize);
        return mpDb->Delete(leveldb::WriteOptions(), key).ok();
    }

private:
    std::unique_ptr<leveldb::DB> mpDb;
    std::string msLoaded;
};

template <bool Sync = false>
class SqliteStore : public Store
{
public:
    ~SqliteStore() override
    {
        for (sqlite3_stmt* statement : {mpInsert, mpSelect, mpDelete})
            sqlite3_finalize(statement);
        if (mpDb)
            sqlite3_close(mpDb);
    }
    bool create(const QString& directory) override
    {
        return open(directory) &&
               exec("CREATE TABLE IF NOT EXISTS kv (k BLOB PRIMARY KEY, v BLOB NOT NULL) WITHOUT ROWID") && prepare();
    }
    bool open(const QString& directory) override
    {
        if (sqlite3_open(QFile::encodeName(directory + "/kv.db").constData(), &mpDb) != SQLITE_OK)
            return false;
        return exec("PRAGMA journal_mode=WAL") && exec(Sync ? "PRAGMA synchronous=FULL" : "PRAGMA synchronous=OFF") &&
               (mpInsert || prepareIfTable());
    }
    bool insert(unsigned i) override
    {
        sqlite3_bind_blob(mpInsert, 1, data().keys[i].data(), KeySize, SQLITE_STATIC);
        sqlite3_bind_blob(mpInsert, 2, data().values[i].data(), ValueSize, SQLITE_STATIC);
        const bool done = sqlite3_step(mpInsert) == SQLITE_DONE;
        sqlite3_reset(mpInsert);
        return done;
    }
    bool find(unsigned i) override
    {
        sqlite3_bind_blob(mpSelect, 1, data().keys[i].data(), KeySize, SQLITE_STATIC);
        const bool found = sqlite3_step(mpSelect) == SQLITE_ROW;
        if (found)
            std::memcpy(mLoaded.data(), sqlite3_column_blob(mpSelect, 0), ValueSize);
        sqlite3_reset(mpSelect);
        return found;
    }
    bool remove(unsigned i) override
    {
        sqlite3_bind_blob(mpDelete, 1, data().keys[i].data(), KeySize, SQLITE_STATIC);
        const bool done = sqlite3_step(mpDelete) == SQLITE_DONE && sqlite3_changes(mpDb) == 1;
        sqlite3_reset(mpDelete);
        return done;
    }

private:
    bool exec(const char* sql) { return sqlite3_exec(mpDb, sql, nullptr, nullptr, nullptr) == SQLITE_OK; }
    bool prepareIfTable()
    {
        // Opening a directory with no table yet leaves preparing to create().
        sqlite3_stmt* probe = nullptr;
        const bool table = sqlite3_prepare_v2(mpDb, "SELECT 1 FROM kv", -1, &probe, nullptr) == SQLITE_OK;
        sqlite3_finalize(probe);
        return !table || prepare();
    }
    bool prepare()
    {
        if (mpInsert)
            return true;
        return sqlite3_prepare_v2(mpDb, "INSERT INTO kv (k, v) VALUES (?, ?)", -1, &mpInsert, nullptr) == SQLITE_OK &&
               sqlite3_prepare_v2(mpDb, "SELECT v FROM kv WHERE k = ?", -1, &mpSelect, nullptr) == SQLITE_OK &&
               sqlite3_prepare_v2(mpDb, "DELETE FROM kv WHERE k = ?", -1, &mpDelete, nullptr) == SQLITE_OK;
    }

    sqlite3* mpDb = nullptr;
    sqlite3_stmt* mpInsert = nullptr;
    sqlite3_stmt* mpSelect = nullptr;
    sqlite3_stmt* mpDelete = nullptr;
    ValueBytes mLoaded;
};

// A directory that holds a store with every record, ready for find and remove.
const char* const LoadedMark = "/loaded";

template <typename S>
std::unique_ptr<Store> loadedStore(const char* name, benchmark::State& state, unsigned count)
{
    const QString directory = benchDirectory(name);
    std::unique_ptr<Store> store(new S);
    if (QFile::exists(directory + LoadedMark) && store->open(directory))
        return store;
    QDir(directory).removeRecursively();
    QDir().mkpath(directory);
    store.reset(new S);
    if (!store->create(directory)) {
        state.SkipWithError("create failed");
        return nullptr;
    }
    for (unsigned i = 0; i < count; ++i)
        store->insert(i);
    QFile(directory + LoadedMark).open(QIODevice::WriteOnly);
    return store;
}

template <typename S>
void insertAll(benchmark::State& state, const char* name, unsigned count = unsigned(data().keys.size()))
{
    const QString directory = benchDirectory(name);
    for (auto _ : state) {
        state.PauseTiming();
        QDir(directory).removeRecursively();
        QDir().mkpath(directory);
        std::unique_ptr<Store> store(new S);
        if (!store->create(directory)) {
            state.SkipWithError("create failed");
            return;
        }
        state.ResumeTiming();
        unsigned failed = 0;
        for (unsigned i = 0; i < count; ++i)
            failed += !store->insert(i);
        state.PauseTiming();
        store.reset();
        if (failed)
            state.SkipWithError("an insert failed");
        QFile(directory + LoadedMark).open(QIODevice::WriteOnly);
        countFootprint(state, directory);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * int64_t(count));
}

template <typename S>
void findAll(benchmark::State& state, const char* name)
{
    const Data& records = data();
    for (auto _ : state) {
        state.PauseTiming();
        std::unique_ptr<Store> store = loadedStore<S>(name, state, unsigned(records.keys.size()));
        if (!store)
            return;
        state.ResumeTiming();
        unsigned missing = 0;
        for (unsigned i : records.findOrder)
            missing += !store->find(i);
        state.PauseTiming();
        if (missing)
            state.SkipWithError("a find failed");
        store.reset();
        countFootprint(state, benchDirectory(name));
        state.ResumeTiming();
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * int64_t(records.keys.size()));
}

// The records are removed in a random order; with a `count` below all of
// them, only those a store of `count` records holds.
template <typename S>
void removeAll(benchmark::State& state, const char* name, unsigned count = unsigned(data().keys.size()))
{
    const Data& records = data();
    const QString directory = benchDirectory(name);
    for (auto _ : state) {
        state.PauseTiming();
        std::unique_ptr<Store> store = loadedStore<S>(name, state, count);
        if (!store)
            return;
        QFile::remove(directory + LoadedMark);
        state.ResumeTiming();
        unsigned failed = 0;
        for (unsigned i : records.removeOrder) {
            if (i < count)
                failed += !store->remove(i);
        }
        state.PauseTiming();
        if (failed)
            state.SkipWithError("a remove failed");
        store.reset();
        countFootprint(state, directory);
        QDir(directory).removeRecursively();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * int64_t(count));
}

void BPlusTreeInsert(benchmark::State& state) { insertAll<TreeStore<1024>>(state, "bplustree"); }
void BPlusTreeFind(benchmark::State& state) { findAll<TreeStore<1024>>(state, "bplustree"); }
void BPlusTreeRemove(benchmark::State& state) { removeAll<TreeStore<1024>>(state, "bplustree"); }
void BPlusTreeWholeCacheInsert(benchmark::State& state) { insertAll<TreeStore<65536>>(state, "bplustree-cached"); }
void BPlusTreeWholeCacheFind(benchmark::State& state) { findAll<TreeStore<65536>>(state, "bplustree-cached"); }
void BPlusTreeWholeCacheRemove(benchmark::State& state) { removeAll<TreeStore<65536>>(state, "bplustree-cached"); }
void LmdbInsert(benchmark::State& state) { insertAll<LmdbStore<1>>(state, "lmdb"); }
void LmdbFind(benchmark::State& state) { findAll<LmdbStore<1>>(state, "lmdb"); }
void LmdbRemove(benchmark::State& state) { removeAll<LmdbStore<1>>(state, "lmdb"); }
void LmdbInsertBatched(benchmark::State& state) { insertAll<LmdbStore<1000>>(state, "lmdb-batched"); }
void LevelDbInsert(benchmark::State& state) { insertAll<LevelDbStore>(state, "leveldb"); }
void LevelDbFind(benchmark::State& state) { findAll<LevelDbStore>(state, "leveldb"); }
void LevelDbRemove(benchmark::State& state) { removeAll<LevelDbStore>(state, "leveldb"); }
void SqliteInsert(benchmark::State& state) { insertAll<SqliteStore<>>(state, "sqlite"); }
void SqliteFind(benchmark::State& state) { findAll<SqliteStore<>>(state, "sqlite"); }
void SqliteRemove(benchmark::State& state) { removeAll<SqliteStore<>>(state, "sqlite"); }

typedef TreeStore<1024, Blocks::eSynchronous> SyncTreeStore;
void BPlusTreeSyncInsert(benchmark::State& state) { insertAll<SyncTreeStore>(state, "bplustree-sync", syncRecords()); }
void BPlusTreeSyncRemove(benchmark::State& state) { removeAll<SyncTreeStore>(state, "bplustree-sync", syncRecords()); }
void LmdbSyncInsert(benchmark::State& state) { insertAll<LmdbStore<1, true>>(state, "lmdb-sync", syncRecords()); }
void LmdbSyncRemove(benchmark::State& state) { removeAll<LmdbStore<1, true>>(state, "lmdb-sync", syncRecords()); }
void SqliteSyncInsert(benchmark::State& state) { insertAll<SqliteStore<true>>(state, "sqlite-sync", syncRecords()); }
void SqliteSyncRemove(benchmark::State& state) { removeAll<SqliteStore<true>>(state, "sqlite-sync", syncRecords()); }

void LmdbBatchedCleanup(benchmark::State& state)
{
    for (auto _ : state)
        QDir(benchDirectory("lmdb-batched")).removeRecursively();
}

} // namespace

// One pass over all records is one iteration; the phases of a store run in
// this order and hand their files on.
#define BREVI_PHASE(function) BENCHMARK(function)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime()
BREVI_PHASE(BPlusTreeInsert);
BREVI_PHASE(BPlusTreeFind);
BREVI_PHASE(BPlusTreeRemove);
BREVI_PHASE(BPlusTreeWholeCacheInsert);
BREVI_PHASE(BPlusTreeWholeCacheFind);
BREVI_PHASE(BPlusTreeWholeCacheRemove);
BREVI_PHASE(LmdbInsert);
BREVI_PHASE(LmdbFind);
BREVI_PHASE(LmdbRemove);
BREVI_PHASE(LmdbInsertBatched);
BREVI_PHASE(LmdbBatchedCleanup);
BREVI_PHASE(LevelDbInsert);
BREVI_PHASE(LevelDbFind);
BREVI_PHASE(LevelDbRemove);
BREVI_PHASE(SqliteInsert);
BREVI_PHASE(SqliteFind);
BREVI_PHASE(SqliteRemove);
BREVI_PHASE(BPlusTreeSyncInsert);
BREVI_PHASE(BPlusTreeSyncRemove);
BREVI_PHASE(LmdbSyncInsert);
BREVI_PHASE(LmdbSyncRemove);
BREVI_PHASE(SqliteSyncInsert);
BREVI_PHASE(SqliteSyncRemove);

BENCHMARK_MAIN();
