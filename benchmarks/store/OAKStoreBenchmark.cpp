// Store benchmarks, each beside its floor measured in the same run:
// - loading a package of 100,000 log rows over 4 devices (1,000 keys), cold, against a raw SQLite read of
//   the same rows sorted by timestamp;
// - 100,000 setPropertyListValue calls then saveNow, against raw batched inserts of the same rows (the
//   callers' own time is reported too: they never wait for the disk);
// - the memory (heap in use) of a loaded store of 10,000 keys, against the same values held in a plain map;
// - an incremental sync after one foreign device appended 100 rows, in packages of 10,000, 100,000 and
//   1,000,000 rows, against a raw SQLite read of the 100 new rows (the sync step reads only new rows, so its
//   time must not grow with the package; the 1,000,000-row package is made once and kept in /tmp);
//   the same with a store that keeps chosen keys, 100 of which no log holds (looked up at every sync);
// - the time from a save in another process to the sync notification here, against the sync timer's delay.
#include "foundation/NBNotificationCenter.h"
#include "foundation/NBPropertyList.h"
#include "store/OAKStore.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>
#include <SQLiteCpp/SQLiteCpp.h>
#include <benchmark/benchmark.h>

#include <chrono>
#include <condition_variable>
#include <iostream>
#include <malloc.h>
#include <mutex>
#include <string>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

class AllKeysStore : public OAKStore {
public:
    using OAKStore::OAKStore;

protected:
    std::optional<QSet<QString>> relevantKeysForSync() const override { return std::nullopt; }
};

QVariant sampleValue(int index) {
    return QVariantMap{
        {QStringLiteral("type"), QStringLiteral("step")},
        {QStringLiteral("content"), QStringLiteral("Incubate sample %1 at 37 °C for 1 h 30 min").arg(index)},
        {QStringLiteral("index"), qint64(index)}};
}

QByteArray sampleBlob(int index) {
    return *dataWithPropertyList(sampleValue(index), NBPropertyListFormat::Binary);
}

// A package of `rowCount` rows spread round-robin over `deviceCount` devices and `keyCount` keys, with
// increasing timestamps.
void writePackage(const QString& package, int rowCount, int deviceCount, int keyCount) {
    std::vector<std::unique_ptr<OAKStoreLog>> logs;
    for (int device = 0; device < deviceCount; ++device) {
        const QString folder = QStringLiteral("%1/devices/device-%2").arg(package).arg(device);
        QDir().mkpath(folder);
        logs.push_back(
            OAKStoreLog::open(folder + QStringLiteral("/logs.db"), OAKStoreLog::Mode::ReadWrite, nullptr));
    }
    const NBTimestamp start = timestampNow() - rowCount;
    for (int row = 0; row < rowCount; ++row)
        logs[std::size_t(row % deviceCount)]->insertRow(
            start + row, std::nullopt, QStringLiteral("key%1").arg(row % keyCount), sampleBlob(row), nullptr);
    for (auto& log : logs)
        log->save(nullptr);
}

struct RawRow {
    QByteArray blob;
    QString key;
    qint64 timestamp;
    qint64 parentTimestamp;
};

// The floor: every row of every log, all four columns, newest first, as SQLite gives them.
std::size_t rawRead(const QString& package) {
    std::vector<RawRow> rows;
    for (const QString& device :
         QDir(package + QStringLiteral("/devices")).entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        SQLite::Database database(
            (package + QStringLiteral("/devices/") + device + QStringLiteral("/logs.db")).toStdString(),
            SQLite::OPEN_READONLY);
        SQLite::Statement statement(
            database, "SELECT blob, key, timestamp, parentTimestamp FROM Log ORDER BY timestamp DESC");
        while (statement.executeStep()) {
            const SQLite::Column blob = statement.getColumn(0);
            const SQLite::Column key = statement.getColumn(1);
            rows.push_back({QByteArray(static_cast<const char*>(blob.getBlob()), blob.getBytes()),
                            QString::fromUtf8(static_cast<const char*>(key.getBlob()), key.getBytes()),
                            statement.getColumn(2).getInt64(), statement.getColumn(3).getInt64()});
        }
    }
    return rows.size();
}

void BM_LoadPackage(benchmark::State& state) {
    QTemporaryDir directory;
    const QString package = directory.filePath(QStringLiteral("Load.nbexperiment"));
    writePackage(package, 100000, 4, 1000);
    double storeSeconds = 0;
    double rawSeconds = 0;
    for (auto _ : state) {
        auto start = Clock::now();
        auto store = std::make_shared<AllKeysStore>(QUrl::fromLocalFile(package), QStringLiteral("reader"));
        store->loadNow();
        storeSeconds += secondsSince(start);
        if (store->allRelevantValues().size() != 1000)
            state.SkipWithError("wrong number of keys loaded");
        store->tearDownNow();
        store.reset();
        QDir(package + QStringLiteral("/devices/reader")).removeRecursively();
        start = Clock::now();
        benchmark::DoNotOptimize(rawRead(package));
        rawSeconds += secondsSince(start);
    }
    const double iterations = double(state.iterations());
    state.counters["store_ms"] = storeSeconds / iterations * 1000;
    state.counters["raw_sqlite_ms"] = rawSeconds / iterations * 1000;
    state.counters["ratio"] = storeSeconds / rawSeconds;
}
BENCHMARK(BM_LoadPackage)->Unit(benchmark::kMillisecond)->Iterations(5)->UseRealTime();

void BM_SetValuesThenSave(benchmark::State& state) {
    const int count = 100000;
    double callerSeconds = 0;
    double storeSeconds = 0;
    double rawSeconds = 0;
    for (auto _ : state) {
        QTemporaryDir directory;
        {
            auto store = OAKStore::storeWithURL(
                QUrl::fromLocalFile(directory.filePath(QStringLiteral("Set.nbexperiment"))),
                QStringLiteral("device"));
            store->loadNow();
            const auto start = Clock::now();
            for (int index = 0; index < count; ++index)
                store->setPropertyListValue(sampleValue(index), QStringLiteral("key%1").arg(index % 1000));
            callerSeconds += secondsSince(start);
            store->saveNow();
            storeSeconds += secondsSince(start);
            store->tearDownNow();
        }
        {
            // The floor: the same values serialised and inserted in one transaction with one prepared
            // statement.
            const QString path = directory.filePath(QStringLiteral("raw.db"));
            const auto start = Clock::now();
            SQLite::Database database(path.toStdString(), SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE);
            database.exec("PRAGMA journal_mode=TRUNCATE");
            database.exec(
                "CREATE TABLE Log (blob BLOB, key TEXT, timestamp INTEGER, parentTimestamp INTEGER)");
            database.exec("CREATE INDEX Log_key ON Log (key)");
            database.exec("CREATE INDEX Log_timestamp ON Log (timestamp)");
            database.exec("CREATE INDEX Log_parentTimestamp ON Log (parentTimestamp)");
            SQLite::Transaction transaction(database);
            SQLite::Statement insert(
                database, "INSERT INTO Log (blob, key, timestamp, parentTimestamp) VALUES (?, ?, ?, ?)");
            for (int index = 0; index < count; ++index) {
                const QByteArray blob =
                    *dataWithPropertyList(sampleValue(index), NBPropertyListFormat::Binary);
                insert.bind(1, blob.constData(), int(blob.size()));
                insert.bind(2, QStringLiteral("key%1").arg(index % 1000).toStdString());
                insert.bind(3, std::int64_t(timestampNow()));
                if (index >= 1000)
                    insert.bind(4, std::int64_t(index));
                else
                    insert.bind(4);
                insert.exec();
                insert.reset();
            }
            transaction.commit();
            rawSeconds += secondsSince(start);
        }
    }
    const double iterations = double(state.iterations());
    state.counters["callers_ms"] = callerSeconds / iterations * 1000;
    state.counters["store_ms"] = storeSeconds / iterations * 1000;
    state.counters["raw_sqlite_ms"] = rawSeconds / iterations * 1000;
    state.counters["ratio"] = storeSeconds / rawSeconds;
}
BENCHMARK(BM_SetValuesThenSave)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();

// Heap bytes in use (glibc's count): resident-set deltas hide allocations that reuse freed pages.
double allocatedBytes() {
    const struct mallinfo2 info = mallinfo2();
    return double(info.uordblks + info.hblkhd);
}

void BM_LoadedStoreMemory(benchmark::State& state) {
    QTemporaryDir directory;
    const QString package = directory.filePath(QStringLiteral("Memory.nbexperiment"));
    writePackage(package, 10000, 1, 10000);
    for (auto _ : state) {
        const double before = allocatedBytes();
        auto store = std::make_shared<AllKeysStore>(QUrl::fromLocalFile(package), QStringLiteral("reader"));
        store->loadNow();
        const double loaded = allocatedBytes();
        store->tearDownNow();
        store.reset();
        // The floor: the same 10,000 values in a plain map.
        const double beforeMap = allocatedBytes();
        QVariantMap map;
        for (int index = 0; index < 10000; ++index)
            map.insert(QStringLiteral("key%1").arg(index), sampleValue(index));
        const double mapped = allocatedBytes();
        state.counters["store_bytes_per_key"] = (loaded - before) / 10000;
        state.counters["plain_map_bytes_per_key"] = (mapped - beforeMap) / 10000;
        state.counters["ratio"] = (loaded - before) / std::max(1.0, mapped - beforeMap);
    }
}
BENCHMARK(BM_LoadedStoreMemory)->Iterations(1);

// A package of `rowCount` rows over 4 devices kept in /tmp between runs (it is only ever appended to).
QString cachedPackage(int rowCount) {
    const QString package = QStringLiteral("/tmp/quillon-store-benchmark-%1.nbexperiment").arg(rowCount);
    const QString complete = package + QStringLiteral("/complete");
    if (!QFileInfo::exists(complete)) {
        QDir(package).removeRecursively();
        writePackage(package, rowCount, 4, 1000);
        QFile marker(complete);
        marker.open(QIODevice::WriteOnly);
    }
    return package;
}

// Keeps the package's 1,000 keys and `missingCount` keys that no log holds (as a document keeps metadata
// keys that were never set): the sync step looks those up in full at every pass.
class DocumentLikeStore : public OAKStore {
public:
    DocumentLikeStore(const QUrl& url, int missingCount) : OAKStore(url, QStringLiteral("reader")) {
        for (int key = 0; key < 1000; ++key)
            keys_.insert(QStringLiteral("key%1").arg(key));
        for (int key = 0; key < missingCount; ++key)
            keys_.insert(QStringLiteral("missing%1").arg(key));
    }

protected:
    std::optional<QSet<QString>> relevantKeysForSync() const override { return keys_; }

private:
    QSet<QString> keys_;
};

void incrementalSync(benchmark::State& state, const QString& package,
                     const std::shared_ptr<OAKStore>& reader) {
    reader->loadNow();
    const QString foreignLog = package + QStringLiteral("/devices/device-0/logs.db");
    SQLite::Database raw(foreignLog.toStdString(), SQLite::OPEN_READONLY);
    SQLite::Statement newRows(
        raw, "SELECT blob, key, timestamp, parentTimestamp FROM Log WHERE timestamp > ? ORDER BY timestamp");
    double syncSeconds = 0;
    double rawSeconds = 0;
    for (auto _ : state) {
        state.PauseTiming();
        const NBTimestamp before = timestampNow();
        {
            auto writer = OAKStoreLog::open(foreignLog, OAKStoreLog::Mode::ReadWrite, nullptr);
            for (int row = 0; row < 100; ++row)
                writer->insertRow(timestampNow(), std::nullopt, QStringLiteral("key%1").arg(row * 7 % 1000),
                                  sampleBlob(row), nullptr);
            writer->save(nullptr);
        }
        state.ResumeTiming();
        auto start = Clock::now();
        reader->syncNow();
        syncSeconds += secondsSince(start);
        start = Clock::now();
        std::vector<RawRow> rows;
        newRows.reset();
        newRows.bind(1, std::int64_t(before));
        while (newRows.executeStep()) {
            const SQLite::Column blob = newRows.getColumn(0);
            const SQLite::Column key = newRows.getColumn(1);
            rows.push_back({QByteArray(static_cast<const char*>(blob.getBlob()), blob.getBytes()),
                            QString::fromUtf8(static_cast<const char*>(key.getBlob()), key.getBytes()),
                            newRows.getColumn(2).getInt64(), newRows.getColumn(3).getInt64()});
        }
        rawSeconds += secondsSince(start);
        if (rows.size() != 100)
            state.SkipWithError("the raw read did not find the 100 new rows");
    }
    reader->tearDownNow();
    const double iterations = double(state.iterations());
    state.counters["sync_ms"] = syncSeconds / iterations * 1000;
    state.counters["raw_new_rows_ms"] = rawSeconds / iterations * 1000;
    state.counters["ratio"] = syncSeconds / rawSeconds;
}

void BM_IncrementalSync(benchmark::State& state) {
    const QString package = cachedPackage(int(state.range(0)));
    incrementalSync(state, package,
                    std::make_shared<AllKeysStore>(QUrl::fromLocalFile(package), QStringLiteral("reader")));
}

// The same with chosen keys, 100 of which no log holds.
void BM_IncrementalSyncWithMissingKeys(benchmark::State& state) {
    const QString package = cachedPackage(int(state.range(0)));
    incrementalSync(state, package, std::make_shared<DocumentLikeStore>(QUrl::fromLocalFile(package), 100));
}
BENCHMARK(BM_IncrementalSyncWithMissingKeys)
    ->Arg(100000)
    ->Iterations(20)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

BENCHMARK(BM_IncrementalSync)
    ->Arg(10000)
    ->Arg(100000)
    ->Arg(1000000)
    ->Iterations(20)
    ->Unit(benchmark::kMillisecond);

// The writer process of BM_SyncLatency: for every line on standard input, sets a value, saves, and prints
// the wall-clock timestamp at which the save returned.
int runWriter(const QString& package) {
    auto store = OAKStore::storeWithURL(QUrl::fromLocalFile(package), QStringLiteral("writer"));
    store->loadNow();
    std::string line;
    qint64 sequence = 0;
    while (std::getline(std::cin, line)) {
        store->setPropertyListValue(++sequence, QStringLiteral("sequence"));
        store->saveNow();
        std::cout << timestampNow() << std::endl;
    }
    store->tearDownNow();
    return 0;
}

void BM_SyncLatency(benchmark::State& state) {
    QTemporaryDir directory;
    const QString package = directory.filePath(QStringLiteral("Latency.nbexperiment"));
    auto reader = std::make_shared<AllKeysStore>(QUrl::fromLocalFile(package), QStringLiteral("reader"));
    reader->loadNow();
    std::mutex mutex;
    std::condition_variable synced;
    NBTimestamp syncedAt = 0;
    std::atomic<qint64> expected{1};
    NBScopedObserver observer(
        NBNotificationCenter::defaultCenter(),
        NBNotificationCenter::defaultCenter().addObserverForName(
            QString::fromUtf8(OAKStoreDidSyncNotification), reader.get(), [&](const NBNotification&) {
                std::lock_guard lock(mutex);
                syncedAt = timestampNow();
                synced.notify_all();
            }));
    QProcess writer;
    writer.start(QCoreApplication::applicationFilePath(), {QStringLiteral("--writer"), package});
    writer.waitForStarted();
    // Let the sync that the writer's new device folder triggers pass first.
    std::this_thread::sleep_for(std::chrono::seconds(2));
    double latencySeconds = 0;
    for (auto _ : state) {
        {
            std::lock_guard lock(mutex);
            syncedAt = 0;
        }
        writer.write("set\n");
        writer.waitForBytesWritten();
        writer.waitForReadyRead(10000);
        const NBTimestamp savedAt = writer.readLine().trimmed().toLongLong();
        std::unique_lock lock(mutex);
        if (!synced.wait_for(lock, std::chrono::seconds(20), [&] { return syncedAt != 0; })) {
            state.SkipWithError("no sync notification");
            break;
        }
        latencySeconds += double(syncedAt - savedAt) / 1e6;
        ++expected;
    }
    writer.closeWriteChannel();
    writer.waitForFinished();
    reader->tearDownNow();
    const double iterations = double(state.iterations());
    state.counters["save_to_sync_ms"] = latencySeconds / iterations * 1000;
    state.counters["sync_delay_ms"] = 1000;
    state.counters["ratio"] = latencySeconds / iterations / 1.0;
}
BENCHMARK(BM_SyncLatency)->Iterations(5)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace

int main(int argc, char** argv) {
    QCoreApplication application(argc, argv);
    if (argc == 3 && std::string(argv[1]) == "--writer")
        return runWriter(QString::fromLocal8Bit(argv[2]));
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
