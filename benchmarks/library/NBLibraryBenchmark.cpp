// Library benchmarks on a library of 10,000 documents over two devices sharing one synchronised folder, each
// beside its floor measured in the same run:
// - from setUpWithError to the ready notification, with the derived data present, against the bare scan of
//   the same folders plus raw SQLite reads of both manifests and of the revision records;
// - retaining and releasing 1,000 documents (each opened, its manifest row refreshed, closed), against a raw
//   SQLite read of every row of the same 1,000 logs;
// - reading a foreign manifest of 10,000 rows, against a raw SQLite read of the same rows.
// The library is generated once (10,000 packages copied from two template packages, each given its own
// UUID, and the revision records filled by one full run of the library) and kept in
// /tmp/quillon-library-benchmark-1 for later runs.
#include "document/NBExperiment.h"
#include "foundation/NBNotificationCenter.h"
#include "foundation/NBPropertyList.h"
#include "library/NBBucket.h"
#include "library/NBDocumentsController.h"
#include "library/NBLibraryManager.h"
#include "library/NBManifestDatabase.h"

#include <QDir>
#include <QFile>
#include <QLoggingCategory>
#include <QUuid>
#include <SQLiteCpp/SQLiteCpp.h>
#include <benchmark/benchmark.h>

#include <chrono>
#include <condition_variable>
#include <iostream>
#include <mutex>

#include <dirent.h>

namespace {

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

constexpr int kDocumentsPerDevice = 5000;
const QString kBase = QStringLiteral("/tmp/quillon-library-benchmark-1");

struct Fixture {
    QString root = kBase + QStringLiteral("/Library");
    QString shared = kBase + QStringLiteral("/Shared");
    QString localDevice;
    QString otherDevice = QStringLiteral("BENCHMARK-OTHER-DEVICE");
    QStringList uuids; // every document, both devices
    QString bigManifest = kBase + QStringLiteral("/manifest-10000.db");
};

std::shared_ptr<NBLibraryManager> setUpLibrary(const Fixture& fixture) {
    auto manager = NBLibraryManager::sharedManagerWithRootPath(fixture.root);
    NBError error;
    if (!manager->setUpWithError(&error)) {
        std::cerr << error.description().toStdString() << std::endl;
        std::abort();
    }
    return manager;
}

// A package for `device` with a title, an author and 20 paragraphs, to be copied.
QString makeTemplate(const QString& folder, const QString& device) {
    auto document = NBExperiment::newExperimentInFolder(folder, device, QStringLiteral("Template"));
    document->setAuthor(QStringLiteral("Benchmark"));
    for (int index = 0; index < 20; ++index)
        document->appendParagraph(NBParagraph::normalParagraphWithContent(
            QStringLiteral("Paragraph %1 of the protocol run").arg(index)));
    document->saveNow();
    const QString path = document->storePath();
    document->tearDownNow();
    return path;
}

bool copyTree(const QString& source, const QString& destination) {
    QDir().mkpath(destination);
    for (const QFileInfo& entry : QDir(source).entryInfoList(QDir::AllEntries | QDir::NoDotAndDotDot)) {
        const QString target = destination + QLatin1Char('/') + entry.fileName();
        if (entry.isDir() ? !copyTree(entry.filePath(), target) : !QFile::copy(entry.filePath(), target))
            return false;
    }
    return true;
}

// Writes `count` packages of `device` into the bucket, and that device's manifest listing them.
QStringList writeDevice(const Fixture& fixture, const QString& device, int count) {
    const QString templatePath = makeTemplate(kBase + QStringLiteral("/templates"), device);
    const QString experiments = QStringLiteral("%1/%2/Experiments").arg(fixture.shared, device);
    QDir().mkpath(experiments);
    QStringList uuids;
    std::vector<NBManifestRow> rows;
    NBTimestamp newest = 0;
    {
        SQLite::Database log(
            (templatePath + QStringLiteral("/devices/") + device + QStringLiteral("/logs.db")).toStdString());
        newest = log.execAndGet("SELECT MAX(timestamp) FROM Log").getInt64();
    }
    for (int index = 0; index < count; ++index) {
        const QString uuid = QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper();
        const QString package = QStringLiteral("%1/%2.nbexperiment").arg(experiments, uuid);
        copyTree(templatePath, package);
        SQLite::Database log(
            (package + QStringLiteral("/devices/") + device + QStringLiteral("/logs.db")).toStdString(),
            SQLite::OPEN_READWRITE);
        SQLite::Statement update(log, "UPDATE Log SET blob = ? WHERE key = 'uuid'");
        const QByteArray blob = *dataWithPropertyList(uuid, NBPropertyListFormat::Binary);
        update.bind(1, blob.constData(), int(blob.size()));
        update.exec();
        uuids << uuid;
        rows.push_back(NBManifestRow{uuid, newest, false, false});
    }
    QDir().mkpath(QStringLiteral("%1/%2/Manifests").arg(fixture.shared, device));
    auto manifest = NBManifestDatabase::openDatabaseAtPath(
        QStringLiteral("%1/%2/Manifests/manifest.db").arg(fixture.shared, device), nullptr);
    manifest->saveRows(rows, nullptr);
    return uuids;
}

const Fixture& fixture() {
    static const Fixture* made = [] {
        auto* result = new Fixture();
        const QString complete = kBase + QStringLiteral("/complete");
        if (!QFile::exists(complete)) {
            std::cerr << "Generating the library of 10,000 documents in " << kBase.toStdString()
                      << " (once)..." << std::endl;
            QDir(kBase).removeRecursively();
            QDir().mkpath(result->shared);
            auto manager = setUpLibrary(*result);
            NBError error;
            manager->documentsController()->addSynchronisedFolder(result->shared, &error);
            result->localDevice = manager->deviceIdentifier();
            manager->tearDownWithError();
            writeDevice(*result, result->localDevice, kDocumentsPerDevice);
            writeDevice(*result, result->otherDevice, kDocumentsPerDevice);
            // One full run fills the revision records: the derived data is then present.
            const auto start = Clock::now();
            manager = setUpLibrary(*result);
            manager->waitUntilFinished();
            manager->tearDownWithError();
            std::cerr << "First run of the services over 10,000 documents: " << secondsSince(start) << " s"
                      << std::endl;
            // A 10,000-row manifest of a third device, outside the bucket.
            std::vector<NBManifestRow> rows;
            for (int index = 0; index < 2 * kDocumentsPerDevice; ++index)
                rows.push_back(NBManifestRow{QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper(),
                                             timestampNow(), index % 10 == 0, false});
            NBManifestDatabase::openDatabaseAtPath(result->bigManifest, nullptr)->saveRows(rows, nullptr);
            QFile marker(complete);
            marker.open(QIODevice::WriteOnly);
        }
        auto manager = setUpLibrary(*result);
        result->localDevice = manager->deviceIdentifier();
        for (const auto& bucket : manager->documentsController()->buckets())
            for (const QString& uuid : bucket->registeredDocumentUUIDs())
                result->uuids << uuid;
        result->uuids.sort();
        manager->tearDownWithError();
        return result;
    }();
    return *made;
}

std::size_t countEntries(const QString& path) {
    std::size_t count = 0;
    if (DIR* directory = ::opendir(QFile::encodeName(path).constData())) {
        while (::readdir(directory))
            ++count;
        ::closedir(directory);
    }
    return count;
}

std::size_t rawReadRows(const QString& path, const char* query) {
    SQLite::Database database(path.toStdString(), SQLite::OPEN_READONLY);
    SQLite::Statement statement(database, query);
    std::size_t rows = 0;
    while (statement.executeStep())
        ++rows;
    return rows;
}

void BM_SetUpToReady(benchmark::State& state) {
    const Fixture& made = fixture();
    double librarySeconds = 0;
    double floorSeconds = 0;
    for (auto _ : state) {
        std::mutex mutex;
        std::condition_variable readyChanged;
        bool ready = false;
        NBScopedObserver observer(
            NBNotificationCenter::defaultCenter(),
            NBNotificationCenter::defaultCenter().addObserverForName(
                QString::fromUtf8(NBLibaryIsReadyNotification), nullptr, [&](const NBNotification&) {
                    std::lock_guard lock(mutex);
                    ready = true;
                    readyChanged.notify_all();
                }));
        auto start = Clock::now();
        auto manager = setUpLibrary(made);
        {
            std::unique_lock lock(mutex);
            readyChanged.wait(lock, [&] { return ready; });
        }
        librarySeconds += secondsSince(start);
        state.PauseTiming();
        manager->waitUntilFinished();
        manager->tearDownWithError();
        state.ResumeTiming();

        // The floor: list every device folder and package folder, and read both manifests and the revision
        // records with raw SQLite.
        start = Clock::now();
        std::size_t entries = 0;
        for (const QString& device : {made.localDevice, made.otherDevice})
            entries += countEntries(QStringLiteral("%1/%2/Experiments").arg(made.shared, device)) +
                       countEntries(QStringLiteral("%1/%2/Protocols").arg(made.shared, device));
        for (const QString& device : {made.localDevice, made.otherDevice})
            entries += rawReadRows(QStringLiteral("%1/%2/Manifests/manifest.db").arg(made.shared, device),
                                   "SELECT documentUUID, timestamp, deleted FROM NBManifestRow");
        entries +=
            rawReadRows(made.root + QStringLiteral("/DerivedInfo/Revisions/revisions.db"),
                        "SELECT documentUUID, deviceIdentifier, timestamp, serviceName FROM NBRevision");
        benchmark::DoNotOptimize(entries);
        floorSeconds += secondsSince(start);
    }
    const double iterations = double(state.iterations());
    state.counters["documents"] = double(made.uuids.size());
    state.counters["ready_ms"] = librarySeconds / iterations * 1000;
    state.counters["scan_and_raw_reads_ms"] = floorSeconds / iterations * 1000;
    state.counters["ratio"] = librarySeconds / floorSeconds;
}
BENCHMARK(BM_SetUpToReady)->Unit(benchmark::kMillisecond)->Iterations(5)->UseRealTime();

void BM_RetainAndRelease1000(benchmark::State& state) {
    const Fixture& made = fixture();
    auto manager = setUpLibrary(made);
    manager->waitUntilFinished();
    const auto documents = manager->documentsController();
    QStringList chosen;
    for (qsizetype index = 0; index < made.uuids.size() && chosen.size() < 1000; index += 10)
        chosen << made.uuids[index];
    QStringList logs;
    for (const QString& uuid : chosen) {
        const QString package = documents->documentPathWithUUID(uuid);
        for (const QString& device :
             QDir(package + QStringLiteral("/devices")).entryList(QDir::Dirs | QDir::NoDotAndDotDot))
            logs << package + QStringLiteral("/devices/") + device + QStringLiteral("/logs.db");
    }
    double librarySeconds = 0;
    double floorSeconds = 0;
    for (auto _ : state) {
        auto start = Clock::now();
        for (const QString& uuid : chosen) {
            auto document = documents->retainedDocumentWithUUID(uuid);
            benchmark::DoNotOptimize(document.get());
            documents->releasedDocumentWithUUID(uuid);
        }
        librarySeconds += secondsSince(start);
        start = Clock::now();
        std::size_t rows = 0;
        for (const QString& log : logs)
            rows += rawReadRows(log, "SELECT blob, key, timestamp, parentTimestamp FROM Log");
        benchmark::DoNotOptimize(rows);
        floorSeconds += secondsSince(start);
    }
    manager->waitUntilFinished();
    manager->tearDownWithError();
    const double iterations = double(state.iterations());
    state.counters["library_ms"] = librarySeconds / iterations * 1000;
    state.counters["raw_log_reads_ms"] = floorSeconds / iterations * 1000;
    state.counters["ratio"] = librarySeconds / floorSeconds;
}
BENCHMARK(BM_RetainAndRelease1000)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();

void BM_ReadForeignManifest(benchmark::State& state) {
    const Fixture& made = fixture();
    double librarySeconds = 0;
    double floorSeconds = 0;
    for (auto _ : state) {
        auto start = Clock::now();
        const auto rows = NBManifestDatabase::rowsOfDatabaseAtPath(made.bigManifest, nullptr);
        benchmark::DoNotOptimize(rows->size());
        librarySeconds += secondsSince(start);
        start = Clock::now();
        benchmark::DoNotOptimize(rawReadRows(
            made.bigManifest, "SELECT rowid, documentUUID, timestamp, deleted FROM NBManifestRow"));
        floorSeconds += secondsSince(start);
    }
    const double iterations = double(state.iterations());
    state.counters["library_ms"] = librarySeconds / iterations * 1000;
    state.counters["raw_sqlite_ms"] = floorSeconds / iterations * 1000;
    state.counters["ratio"] = librarySeconds / floorSeconds;
}
BENCHMARK(BM_ReadForeignManifest)->Unit(benchmark::kMillisecond)->Iterations(20)->UseRealTime();

} // namespace

int main(int argc, char** argv) {
    // The library's progress notes would drown the figures.
    QLoggingCategory::setFilterRules(QStringLiteral("quillon.*.info=false"));
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
