// Document store benchmarks over one experiment of 10,000 paragraphs, each beside its floor measured in the
// same run:
// - opening (loading) the package, against a raw SQLite read of the same rows;
// - `paragraphs`, against looking the same 10,000 infos up in a plain QVariantMap;
// - inserting one paragraph at the front (the caller's time: the log is written on the store's queue),
//   against a QVariantMap insert plus a QStringList prepend of the same data, and against encoding the
//   10,000-entry layout as a binary property list, which the store does for every edit that changes the
//   order (on its database queue, beside the caller);
// - documentChangeSinceTimestamp over the last 100 edits, against a raw SQLite read of those rows;
// - another device's sync step after one edit (a paragraph's text, or an insertion that logs a new layout)
//   in a document whose layout was already rewritten 100 times, against a raw SQLite read of the new rows.
// Targets: open under 100 ms, one edit under 1 ms of the caller's time, a sync step after a text edit
// within a few times the raw read of its rows.
#include "document/NBExperiment.h"
#include "foundation/NBPropertyList.h"

#include <QCoreApplication>
#include <QDir>
#include <QTemporaryDir>
#include <SQLiteCpp/SQLiteCpp.h>
#include <benchmark/benchmark.h>

#include <chrono>

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kParagraphCount = 10000;

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

void ensureApplication() {
    static int argc = 1;
    static char name[] = "quillon_document_benchmark";
    static char* argv[] = {name, nullptr};
    if (!QCoreApplication::instance())
        new QCoreApplication(argc, argv); // lives for the whole run, on purpose
}

QList<NBParagraph> sampleParagraphs(int count) {
    QList<NBParagraph> paragraphs;
    for (int index = 0; index < count; ++index) {
        if (index % 100 == 0)
            paragraphs.append(NBParagraph::dayParagraphWithDay(NBDay::relativeDayWithInteger(index / 100)));
        else if (index % 3 == 0)
            paragraphs.append(NBParagraph::stepParagraphWithTitle(
                QStringLiteral("Incubate sample %1 at 37 °C for 1 h 30 min").arg(index), QString(),
                QString()));
        else
            paragraphs.append(NBParagraph::normalParagraphWithContent(
                QStringLiteral("Spin down at <b>4,000 g</b> for 10 min, keep the pellet (%1)").arg(index)));
    }
    return paragraphs;
}

// One package of 10,000 paragraphs for the whole run, written as a device would write it.
struct Fixture {
    QTemporaryDir directory;
    QString package;
    QString device = QStringLiteral("writer");

    Fixture() {
        ensureApplication();
        auto experiment =
            NBExperiment::newExperimentInFolder(directory.path(), device, QStringLiteral("Bench"));
        experiment->insertParagraphs(sampleParagraphs(kParagraphCount), QString());
        experiment->saveNow();
        package = experiment->storePath();
        experiment->tearDownNow();
    }
    static Fixture& shared() {
        static Fixture fixture;
        return fixture;
    }
};

std::size_t rawRead(const QString& log, std::optional<NBTimestamp> since) {
    SQLite::Database database(log.toStdString(), SQLite::OPEN_READONLY);
    SQLite::Statement statement(database,
                                since ? "SELECT blob, key, timestamp FROM Log WHERE timestamp > ?"
                                      : "SELECT blob, key, timestamp FROM Log ORDER BY timestamp DESC");
    if (since)
        statement.bind(1, static_cast<int64_t>(*since));
    std::vector<std::pair<QByteArray, QString>> rows;
    while (statement.executeStep()) {
        const SQLite::Column blob = statement.getColumn(0);
        const SQLite::Column key = statement.getColumn(1);
        rows.emplace_back(QByteArray(static_cast<const char*>(blob.getBlob()), blob.getBytes()),
                          QString::fromUtf8(static_cast<const char*>(key.getBlob()), key.getBytes()));
    }
    return rows.size();
}

void BM_OpenDocument(benchmark::State& state) {
    Fixture& fixture = Fixture::shared();
    const QString log = fixture.package + QStringLiteral("/devices/writer/logs.db");
    double documentSeconds = 0, rawSeconds = 0;
    for (auto _ : state) {
        auto start = Clock::now();
        OAKStoreOptions options;
        options.readOnly = true;
        auto document = NBDocument::openDocumentAtPath(fixture.package, QString(), options);
        documentSeconds += secondsSince(start);
        if (!document || document->layout().size() != kParagraphCount)
            state.SkipWithError("the document did not load");
        document->tearDownNow();
        start = Clock::now();
        benchmark::DoNotOptimize(rawRead(log, std::nullopt));
        rawSeconds += secondsSince(start);
    }
    const double iterations = double(state.iterations());
    state.counters["open_ms"] = documentSeconds / iterations * 1000;
    state.counters["raw_sqlite_ms"] = rawSeconds / iterations * 1000;
    state.counters["ratio"] = documentSeconds / rawSeconds;
}
BENCHMARK(BM_OpenDocument)->Unit(benchmark::kMillisecond)->Iterations(10)->UseRealTime();

void BM_Paragraphs(benchmark::State& state) {
    Fixture& fixture = Fixture::shared();
    OAKStoreOptions options;
    options.readOnly = true;
    auto document = NBDocument::openDocumentAtPath(fixture.package, QString(), options);
    const QVariantMap values = document->allRelevantValues();
    const QStringList layout = document->layout();
    double documentSeconds = 0, floorSeconds = 0;
    for (auto _ : state) {
        auto start = Clock::now();
        const QList<NBParagraph> paragraphs = document->paragraphs();
        documentSeconds += secondsSince(start);
        if (paragraphs.size() != kParagraphCount)
            state.SkipWithError("wrong paragraph count");
        start = Clock::now();
        QList<QVariantMap> infos;
        infos.reserve(layout.size());
        for (const QString& uuid : layout)
            infos.append(values.value(uuid).toMap());
        benchmark::DoNotOptimize(infos.data());
        floorSeconds += secondsSince(start);
    }
    const double iterations = double(state.iterations());
    state.counters["paragraphs_ms"] = documentSeconds / iterations * 1000;
    state.counters["map_lookups_ms"] = floorSeconds / iterations * 1000;
    state.counters["ratio"] = documentSeconds / floorSeconds;
    document->tearDownNow();
}
BENCHMARK(BM_Paragraphs)->Unit(benchmark::kMillisecond)->Iterations(20)->UseRealTime();

void BM_InsertAtFront(benchmark::State& state) {
    Fixture& fixture = Fixture::shared();
    QTemporaryDir copy;
    // Edit a copy, so the other benchmarks keep reading 10,000 paragraphs.
    auto document = NBExperiment::newExperimentInFolder(copy.path(), fixture.device, QStringLiteral("Edit"));
    document->insertParagraphs(sampleParagraphs(kParagraphCount), QString());
    document->saveNow();
    QVariantMap floorMap = document->allRelevantValues();
    QStringList floorLayout = document->layout();
    double documentSeconds = 0, floorSeconds = 0, encodeSeconds = 0;
    int index = 0;
    for (auto _ : state) {
        const NBParagraph paragraph =
            NBParagraph::normalParagraphWithContent(QStringLiteral("Inserted note %1").arg(index++));
        const QString first = document->layout().constFirst();
        auto start = Clock::now();
        document->insertParagraph(paragraph, first);
        documentSeconds += secondsSince(start);
        start = Clock::now();
        floorMap.insert(paragraph.uuid(), paragraph.info());
        floorLayout.prepend(paragraph.uuid());
        benchmark::DoNotOptimize(floorLayout.data());
        floorSeconds += secondsSince(start);
        // What the format asks of every edit that changes the order: the whole layout, encoded once.
        QVariantList layout;
        for (const QString& uuid : floorLayout)
            layout.append(uuid);
        start = Clock::now();
        benchmark::DoNotOptimize(dataWithPropertyList(layout, NBPropertyListFormat::Binary));
        encodeSeconds += secondsSince(start);
    }
    document->waitUntilFinished();
    const double iterations = double(state.iterations());
    state.counters["insert_ms"] = documentSeconds / iterations * 1000;
    state.counters["map_insert_ms"] = floorSeconds / iterations * 1000;
    state.counters["ratio"] = documentSeconds / floorSeconds;
    state.counters["layout_encoding_ms"] = encodeSeconds / iterations * 1000;
    state.counters["ratio_to_encoding"] = documentSeconds / encodeSeconds;
    document->tearDownNow();
}
BENCHMARK(BM_InsertAtFront)->Unit(benchmark::kMillisecond)->Iterations(100)->UseRealTime();

void BM_DocumentChangeOfLast100Edits(benchmark::State& state) {
    Fixture& fixture = Fixture::shared();
    QTemporaryDir copy;
    auto document =
        NBExperiment::newExperimentInFolder(copy.path(), fixture.device, QStringLiteral("Changes"));
    document->insertParagraphs(sampleParagraphs(kParagraphCount), QString());
    document->saveNow();
    const NBTimestamp since = timestampNow();
    QList<NBParagraph> paragraphs = document->paragraphs();
    for (int index = 0; index < 100; ++index) {
        NBParagraph& paragraph = paragraphs[index * 97];
        paragraph.setContent(paragraph.content() + QStringLiteral(" (edited)"));
        document->modifyParagraph(paragraph);
    }
    document->saveNow();
    const QString log = document->databasePathForDeviceIdentifier(fixture.device);
    double documentSeconds = 0, rawSeconds = 0;
    for (auto _ : state) {
        auto start = Clock::now();
        const NBDocumentChange change = document->documentChangeSinceTimestamp(since);
        documentSeconds += secondsSince(start);
        if (change.paragraphsByUUID.size() != 100)
            state.SkipWithError("wrong number of changed paragraphs");
        start = Clock::now();
        benchmark::DoNotOptimize(rawRead(log, since));
        rawSeconds += secondsSince(start);
    }
    const double iterations = double(state.iterations());
    state.counters["change_ms"] = documentSeconds / iterations * 1000;
    state.counters["raw_sqlite_ms"] = rawSeconds / iterations * 1000;
    state.counters["ratio"] = documentSeconds / rawSeconds;
    document->tearDownNow();
}
BENCHMARK(BM_DocumentChangeOfLast100Edits)->Unit(benchmark::kMillisecond)->Iterations(50)->UseRealTime();

// A reader device's sync step after the writer device saved one edit, in a document of 10,000 paragraphs
// whose layout was already rewritten by 100 earlier insertions (every insertion logs the whole layout).
// Two kinds of edit: a paragraph's text (the layout is unchanged) and an insertion (a new layout). The
// floor is a raw SQLite read of the rows the writer added since the previous sync.
void syncAfterForeignEdit(benchmark::State& state, bool changeLayout) {
    ensureApplication();
    QTemporaryDir directory;
    auto writer = NBExperiment::newExperimentInFolder(directory.path(), QStringLiteral("writer"),
                                                      QStringLiteral("Sync"));
    writer->insertParagraphs(sampleParagraphs(kParagraphCount), QString());
    for (int index = 0; index < 100; ++index)
        writer->insertParagraph(
            NBParagraph::normalParagraphWithContent(QStringLiteral("Earlier %1").arg(index)),
            writer->layout().at(index * 50));
    writer->saveNow();
    auto reader = std::dynamic_pointer_cast<NBExperiment>(
        NBDocument::openDocumentAtPath(writer->storePath(), QStringLiteral("reader")));
    const QString log = writer->databasePathForDeviceIdentifier(QStringLiteral("writer"));
    QList<NBParagraph> paragraphs = writer->paragraphs();
    double syncSeconds = 0, rawSeconds = 0;
    int index = 0;
    for (auto _ : state) {
        const NBTimestamp since = timestampNow();
        if (changeLayout) {
            writer->insertParagraph(
                NBParagraph::normalParagraphWithContent(QStringLiteral("Inserted %1").arg(index)),
                paragraphs.at(index * 37 % paragraphs.size()).uuid());
        } else {
            NBParagraph& paragraph = paragraphs[index * 37 % paragraphs.size()];
            paragraph.setContent(paragraph.content() + QStringLiteral(" (edited)"));
            writer->modifyParagraph(paragraph);
        }
        ++index;
        writer->saveNow();
        auto start = Clock::now();
        reader->syncNow();
        syncSeconds += secondsSince(start);
        start = Clock::now();
        benchmark::DoNotOptimize(rawRead(log, since));
        rawSeconds += secondsSince(start);
    }
    if (reader->layout() != writer->layout())
        state.SkipWithError("the reader's layout differs from the writer's");
    const double iterations = double(state.iterations());
    state.counters["sync_ms"] = syncSeconds / iterations * 1000;
    state.counters["raw_sqlite_ms"] = rawSeconds / iterations * 1000;
    state.counters["ratio"] = syncSeconds / rawSeconds;
    reader->tearDownNow();
    writer->tearDownNow();
}

void BM_SyncAfterForeignTextEdit(benchmark::State& state) {
    syncAfterForeignEdit(state, false);
}
BENCHMARK(BM_SyncAfterForeignTextEdit)->Unit(benchmark::kMillisecond)->Iterations(30)->UseRealTime();

void BM_SyncAfterForeignInsertion(benchmark::State& state) {
    syncAfterForeignEdit(state, true);
}
BENCHMARK(BM_SyncAfterForeignInsertion)->Unit(benchmark::kMillisecond)->Iterations(30)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
