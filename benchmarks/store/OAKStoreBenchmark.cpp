// Store benchmarks, each beside its floor measured in the same run:
// - loading a package of 100,000 log rows over 4 devices (1,000 keys), cold, against a raw SQLite read of
//   the same rows sorted by timestamp;
// - 100,000 setPropertyListValue calls then saveNow, against raw batched inserts of the same rows (the
//   callers' own time is reported too: they never wait for the disk);
// - the memory (heap in use) of a loaded store of 10,000 keys, against the same values held in a plain map.
#include "foundation/NBPropertyList.h"
#include "store/OAKStore.h"

#include <QCoreApplication>
#include <QDir>
#include <QTemporaryDir>
#include <SQLiteCpp/SQLiteCpp.h>
#include <benchmark/benchmark.h>

#include <chrono>
#include <malloc.h>

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

} // namespace

int main(int argc, char** argv) {
    QCoreApplication application(argc, argv);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
