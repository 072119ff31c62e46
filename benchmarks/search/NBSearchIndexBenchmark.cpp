// Speed of the multi-document full-text index over a generated corpus of laboratory notes: how fast it is
// built, and how long queries take, each beside a floor measured in the same run on the same table.
//
// The corpus has QUILLON_SEARCH_BENCHMARK_PARAGRAPHS paragraphs (1,000,000 unless the environment says
// otherwise), 100 to a document, of lab prose with units, numbers, Greek letters, accented names and
// reagents. It is generated once, from a fixed seed, and cached in the build folder with the index built
// from it, so later runs go straight to the queries.
//
//   Build: paragraphs indexed a second through NBMultiDocumentSearchIndex::addParagraphsOfDocuments, one
//   document a transaction (as the search service indexes a document) and a hundred (as a rebuild can),
//   into a fresh file. Floor: the same search forms inserted by raw SQLite into a bare content-less FTS4
//   table, as many rows a transaction.
//   Queries: p50 and p99 latency of searchResultsForQuery (normalising, formatting, FTS4 MATCH with
//   matchinfo, identifier lookups, grouping by document) for one-word prefix, two-word prefix, quoted and
//   OR queries, beside the raw FTS4 MATCH of the same formatted expression on the same table, stepping
//   through every docid. "ratio" is ours over raw at p50. The "proposed" figures measure, on the same
//   table, the query path of the layout that BENCHMARKS.md proposes.
#include "search/NBMultiDocumentSearchIndex.h"
#include "search/NBSearchNormalization.h"
#include "search/NBSearchQuery.h"

#include <SQLiteCpp/SQLiteCpp.h>
#include <benchmark/benchmark.h>

#include <QDataStream>
#include <QDir>
#include <QFile>
#include <QStringList>

#include <algorithm>
#include <cstring>
#include <ctime>
#include <random>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace {

qint64 paragraphCount() {
    const qint64 count = qEnvironmentVariableIntValue("QUILLON_SEARCH_BENCHMARK_PARAGRAPHS");
    return count > 0 ? count : 1'000'000;
}

constexpr int paragraphsPerDocument = 100;

QString cacheDirectory() {
    const QString path = QString::fromUtf8(QUILLON_BENCHMARK_CACHE_DIR);
    QDir().mkpath(path);
    return path;
}

// ---- The corpus ----

const QStringList& words(const char* list) {
    static std::map<const char*, QStringList> lists;
    auto found = lists.find(list);
    if (found == lists.end())
        found = lists.emplace(list, QString::fromUtf8(list).split(u' ', Qt::SkipEmptyParts)).first;
    return found->second;
}

const char* const prose =
    "the cells were incubated overnight at with in buffer washed twice and centrifuged pellet resuspended "
    "protein expression was induced by samples analysed on gel western blot antibody dilution primary "
    "secondary plasmid transformed into competent colonies picked from plate culture measured supernatant "
    "discarded lysis sonicated on ice for minutes hours then added mixed gently stored aliquots sequencing "
    "primers reaction template elution column purified concentration yield observed significant increase "
    "compared to control group replicate experiment repeated result showed no difference between conditions "
    "medium fresh passage confluent flask seeded density counted viability stained fixed permeabilized "
    "blocked imaged microscope objective exposure channel fluorescence signal background subtracted "
    "normalized quantified plotted mean standard deviation error bars tissue section slide mounted dried "
    "digested ligated vector insert clone verified restriction enzyme band expected size ladder loaded "
    "lane run voltage transfer membrane incubation temperature room shaking rpm speed spin tube";
const char* const reagents =
    "PBS Tris-HCl NaCl MgCl₂ EDTA DMSO IPTG SDS-PAGE BSA HEPES DTT glycerol ethanol "
    "agarose ampicillin kanamycin DAPI trypsin E.coli HeLa HEK293 CRISPR Cas9 PCR qPCR "
    "RNA DNA cDNA mRNA siRNA GFP mCherry OD600 ＰＣＲ ＲＮＡ";
const char* const units = "µL μL mL L µg mg ng nM µM mM M °C h min s ×g kDa bp kb % w/v v/v pH";
const char* const greek = "α-helix β-sheet TNF-α IFN-γ Δ5 NF-κB σ-factor λ-phage ΔCt Ω π-stacking ε-toxin "
                          "µ-opioid β-galactosidase α-tubulin γ-H2AX";
const char* const names = "Müller Søren Dvořák Łukasiewicz Ødegaard François José Gödel Ångström Björk "
                          "Núñez Çelik Ñandú Zürich Kraków Straße café naïve résumé";

struct Corpus {
    std::vector<QString> paragraphs; // paragraph i belongs to document i / paragraphsPerDocument
};

Corpus generateCorpus(qint64 count) {
    std::mt19937 random(20261123);
    const auto pick = [&random](const QStringList& list) {
        return list[std::uniform_int_distribution<qsizetype>(0, list.size() - 1)(random)];
    };
    const QStringList punctuation = {" ", " ", " ", " ", " ", " ", ", ", ". ", "; ", " (", ") "};
    Corpus corpus;
    corpus.paragraphs.reserve(std::size_t(count));
    for (qint64 index = 0; index < count; ++index) {
        QString paragraph;
        const int wordCount = std::uniform_int_distribution<int>(4, 40)(random);
        for (int word = 0; word < wordCount; ++word) {
            const int kind = std::uniform_int_distribution<int>(0, 99)(random);
            if (kind < 62)
                paragraph += pick(words(prose));
            else if (kind < 72)
                paragraph += QString::number(std::uniform_int_distribution<int>(0, 5000)(random) / 10.0);
            else if (kind < 80)
                paragraph += pick(words(units));
            else if (kind < 89)
                paragraph += pick(words(reagents));
            else if (kind < 95)
                paragraph += pick(words(greek));
            else
                paragraph += pick(words(names));
            paragraph += pick(punctuation);
        }
        corpus.paragraphs.push_back(paragraph.trimmed());
    }
    return corpus;
}

// The corpus, read from the cache or generated and cached.
const Corpus& corpus() {
    static const Corpus cached = [] {
        const qint64 count = paragraphCount();
        QFile file(cacheDirectory() + QString("/search-corpus-%1.bin").arg(count));
        Corpus read;
        if (file.open(QIODevice::ReadOnly)) {
            QDataStream stream(&file);
            qint64 stored = 0;
            stream >> stored;
            if (stored == count) {
                read.paragraphs.resize(std::size_t(count));
                for (QString& paragraph : read.paragraphs)
                    stream >> paragraph;
                if (stream.status() == QDataStream::Ok)
                    return read;
            }
            file.close();
        }
        read = generateCorpus(count);
        if (file.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
            QDataStream stream(&file);
            stream << count;
            for (const QString& paragraph : read.paragraphs)
                stream << paragraph;
        }
        return read;
    }();
    return cached;
}

// An index file with its write-ahead log.
void removeDatabase(const QString& path) {
    for (const char* suffix : {"", "-wal", "-shm"})
        QFile::remove(path + suffix);
}

// Timing uses the CPU time of the whole process (the index works on its own queue's thread): the figures
// stay meaningful on a machine shared with other work, where a wall clock would count the time the process
// waited for a core. In seconds.
double processSeconds() {
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return double(now.tv_sec) + double(now.tv_nsec) / 1e9;
}

QString documentUUID(qint64 document) {
    return QString("D%1").arg(document, 8, 10, QChar(u'0'));
}

QString paragraphUUID(qint64 paragraph) {
    return QString("P%1").arg(paragraph, 8, 10, QChar(u'0'));
}

// Indexes the corpus, `documentsPerTransaction` documents a transaction. Returns the CPU seconds it took.
double buildIndex(NBMultiDocumentSearchIndex& index, int documentsPerTransaction = 1) {
    const Corpus& text = corpus();
    const double start = processSeconds();
    const auto paragraphs = qint64(text.paragraphs.size());
    const qint64 rowsPerTransaction = qint64(paragraphsPerDocument) * documentsPerTransaction;
    std::vector<std::pair<QString, QList<NBParagraph>>> documents;
    for (qint64 first = 0; first < paragraphs; first += rowsPerTransaction) {
        documents.clear();
        for (qint64 paragraph = first; paragraph < std::min(first + rowsPerTransaction, paragraphs);
             ++paragraph) {
            const QString document = documentUUID(paragraph / paragraphsPerDocument);
            if (documents.empty() || documents.back().first != document)
                documents.emplace_back(document, QList<NBParagraph>());
            documents.back().second << *NBParagraph::paragraphWithUUID(
                paragraphUUID(paragraph),
                {{"type", "normal"}, {"content", text.paragraphs[std::size_t(paragraph)]}});
        }
        if (!index.addParagraphsOfDocuments(documents))
            return -1;
    }
    return processSeconds() - start;
}

// The floor: the same search forms into a bare content-less FTS4 table by raw SQLite, as many rows a
// transaction. The normalisation is done beforehand and not timed, so the floor is SQLite's own indexing
// cost.
double buildRawIndex(const QString& path, int documentsPerTransaction) {
    const Corpus& text = corpus();
    std::vector<std::string> forms;
    forms.reserve(text.paragraphs.size());
    for (const QString& paragraph : text.paragraphs)
        forms.push_back(normalizedStringForSearch(paragraph).toStdString());
    removeDatabase(path);
    SQLite::Database database(path.toStdString(), SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE);
    database.exec("PRAGMA journal_mode=WAL");
    database.exec("PRAGMA synchronous=NORMAL");
    database.exec("CREATE VIRTUAL TABLE SearchIndex USING fts4(content=\"\", content_to_index)");
    SQLite::Statement insert(database, "INSERT INTO SearchIndex (docid, content_to_index) VALUES (?,?)");
    const std::size_t rowsPerTransaction = std::size_t(paragraphsPerDocument * documentsPerTransaction);
    const double start = processSeconds();
    for (std::size_t first = 0; first < forms.size(); first += rowsPerTransaction) {
        SQLite::Transaction transaction(database);
        for (std::size_t row = first; row < std::min(first + rowsPerTransaction, forms.size()); ++row) {
            insert.reset();
            insert.bind(1, std::int64_t(row + 1));
            insert.bindNoCopy(2, forms[row]);
            insert.exec();
        }
        transaction.commit();
    }
    return processSeconds() - start;
}

// Argument: documents a transaction (1: as the search service indexes each document; 100: as a rebuild
// can).
void BM_BuildIndex(benchmark::State& state) {
    const Corpus& text = corpus();
    const int documentsPerTransaction = int(state.range(0));
    const QString path = cacheDirectory() + "/search-build.searchdb";
    const QString rawPath = cacheDirectory() + "/search-build-raw.searchdb";
    double seconds = 0;
    for (auto _ : state) {
        removeDatabase(path);
        auto index = NBMultiDocumentSearchIndex::persistedIndexWithName("build", QUrl::fromLocalFile(path));
        seconds = buildIndex(*index, documentsPerTransaction);
        if (seconds < 0)
            state.SkipWithError("indexing failed");
        index->close();
    }
    const double rawSeconds = buildRawIndex(rawPath, documentsPerTransaction);
    const double count = double(text.paragraphs.size());
    state.counters["paragraphs/s"] = count / seconds;
    state.counters["raw_paragraphs/s"] = count / rawSeconds;
    state.counters["ratio"] = seconds / rawSeconds;
    removeDatabase(path);
    removeDatabase(rawPath);
}

// ---- Queries ----

// The index the queries run on: built once and kept in the cache folder.
std::shared_ptr<NBMultiDocumentSearchIndex> queryIndex() {
    static const std::shared_ptr<NBMultiDocumentSearchIndex> index = [] {
        const QString path = cacheDirectory() + QString("/search-index-%1.searchdb").arg(paragraphCount());
        const QString complete = path + ".complete";
        if (!QFile::exists(complete))
            removeDatabase(path);
        auto built =
            NBMultiDocumentSearchIndex::persistedIndexWithName("benchmark", QUrl::fromLocalFile(path));
        if (!QFile::exists(complete)) {
            buildIndex(*built, 100);
            QFile marker(complete);
            marker.open(QIODevice::WriteOnly);
        }
        return built;
    }();
    return index;
}

enum class QueryKind { OneWordPrefix, TwoWordPrefix, Quoted, Or };

// 40 queries of a kind, from the corpus's own words (prefixes of 3 to 6 letters), fixed seed.
QStringList queriesOfKind(QueryKind kind) {
    std::mt19937 random(20261124 + int(kind));
    QStringList vocabulary = words(prose) + words(reagents) + words(greek) + words(names);
    const auto prefix = [&] {
        for (;;) {
            const QString word = normalizedStringForSearch(
                vocabulary[std::uniform_int_distribution<qsizetype>(0, vocabulary.size() - 1)(random)]);
            const QString first = word.section(u' ', 0, 0);
            if (first.size() >= 3)
                return first.left(std::uniform_int_distribution<qsizetype>(
                    3, std::min<qsizetype>(6, first.size()))(random));
        }
    };
    QStringList queries;
    for (int index = 0; index < 40; ++index) {
        switch (kind) {
        case QueryKind::OneWordPrefix:
            queries << prefix();
            break;
        case QueryKind::TwoWordPrefix:
            queries << prefix() + " " + prefix();
            break;
        case QueryKind::Quoted:
            queries << "\"" + prefix() + " " + prefix() + "\"";
            break;
        case QueryKind::Or:
            queries << prefix() + " OR " + prefix();
            break;
        }
    }
    return queries;
}

double percentile(std::vector<double> values, double fraction) {
    std::sort(values.begin(), values.end());
    const std::size_t index = std::min(values.size() - 1, std::size_t(fraction * double(values.size())));
    return values[index];
}

void BM_Query(benchmark::State& state) {
    const auto kind = QueryKind(state.range(0));
    auto index = queryIndex();
    const QStringList queries = queriesOfKind(kind);
    SQLite::Database raw(index->searchIndex()->databasePath().toStdString(), SQLite::OPEN_READONLY);
    SQLite::Statement rawQuery(raw, "SELECT docid FROM SearchIndex WHERE SearchIndex MATCH ?");
    std::vector<double> ours;
    std::vector<double> floor;
    double hits = 0;
    const auto runRaw = [&](const QString& query) {
        const std::string expression =
            NBSQLiteFTS4SearchIndex::formattedQueryFromQuery(normalizedQueryForSearch(query)).toStdString();
        const double start = processSeconds();
        rawQuery.reset();
        rawQuery.bind(1, expression);
        qint64 rows = 0;
        while (rawQuery.executeStep())
            rows += rawQuery.getColumn(0).getInt64() != 0;
        benchmark::DoNotOptimize(rows);
        return (processSeconds() - start) * 1e3;
    };
    // The proposed layout (see BENCHMARKS.md), measured on the same table: the document of a row follows
    // from its docid by arithmetic (here the corpus's fixed 100 paragraphs a document), stale rows are a
    // set held in memory (here 100,000 docids that never match, so every hit pays the lookup), documents'
    // UUIDs are held in memory by number, and matchinfo is read only for queries with OR, the only ones
    // whose hits can match different phrases.
    SQLite::Statement proposedQuery(raw, "SELECT docid FROM SearchIndex WHERE SearchIndex MATCH ?");
    SQLite::Statement proposedPhraseQuery(
        raw, "SELECT docid,matchinfo(SearchIndex, 'px') FROM SearchIndex WHERE SearchIndex MATCH ?");
    // The documents' UUIDs by number, which the proposed layout keeps in memory (10,000 here).
    std::vector<QString> documentUUIDsByNumber;
    for (qint64 document = 0; document * paragraphsPerDocument < paragraphCount(); ++document)
        documentUUIDsByNumber.push_back(documentUUID(document));
    std::unordered_set<qint64> staleRows;
    for (qint64 row = 0; row < 100'000; ++row)
        staleRows.insert(-1 - row);
    std::vector<double> proposed;
    const auto runProposed = [&](const QString& query) {
        const QString expression =
            NBSQLiteFTS4SearchIndex::formattedQueryFromQuery(normalizedQueryForSearch(query));
        const double start = processSeconds();
        const bool readsPhrases = expression.contains(QStringLiteral(" OR "));
        SQLite::Statement& statement = readsPhrases ? proposedPhraseQuery : proposedQuery;
        statement.reset();
        statement.bind(1, expression.toStdString());
        std::unordered_map<qint64, std::vector<std::pair<qint64, std::uint32_t>>> rowsByDocument;
        while (statement.executeStep()) {
            const qint64 docID = statement.getColumn(0).getInt64();
            if (staleRows.count(docID) != 0)
                continue;
            std::uint32_t phrases = 1;
            if (readsPhrases) {
                const auto* blob = static_cast<const char*>(statement.getColumn(1).getBlob());
                std::uint32_t count = 0;
                std::memcpy(&count, blob, 4);
                phrases = 0;
                for (std::uint32_t phrase = 0; phrase < count && phrase < 32; ++phrase) {
                    std::uint32_t phraseHits = 0;
                    std::memcpy(&phraseHits, blob + 4 + 12 * phrase, 4);
                    phrases |= phraseHits > 0 ? 1u << phrase : 0;
                }
            }
            rowsByDocument[(docID - 1) / paragraphsPerDocument].emplace_back(docID, phrases);
        }
        QStringList documentUUIDs;
        for (const auto& entry : rowsByDocument)
            documentUUIDs << documentUUIDsByNumber[std::size_t(entry.first)];
        benchmark::DoNotOptimize(documentUUIDs);
        return (processSeconds() - start) * 1e3;
    };
    const auto runOurs = [&](const QString& query) {
        const double start = processSeconds();
        const QList<NBDocumentSearchResult> results = index->searchResultsForQuery(query, 600);
        const double milliseconds = (processSeconds() - start) * 1e3;
        for (const NBDocumentSearchResult& document : results)
            hits += double(document.paragraphs.size());
        return milliseconds;
    };
    // One pass to bring the pages in, then the measured passes, ours and raw alternating query by query.
    for (const QString& query : queries) {
        runRaw(query);
        runOurs(query);
        runProposed(query);
    }
    for (auto _ : state) {
        for (const QString& query : queries) {
            floor.push_back(runRaw(query));
            ours.push_back(runOurs(query));
            proposed.push_back(runProposed(query));
        }
    }
    state.counters["p50_ms"] = percentile(ours, 0.5);
    state.counters["p99_ms"] = percentile(ours, 0.99);
    state.counters["raw_p50_ms"] = percentile(floor, 0.5);
    state.counters["raw_p99_ms"] = percentile(floor, 0.99);
    state.counters["ratio"] = percentile(ours, 0.5) / percentile(floor, 0.5);
    state.counters["proposed_p50_ms"] = percentile(proposed, 0.5);
    state.counters["proposed_p99_ms"] = percentile(proposed, 0.99);
    state.counters["proposed_ratio"] = percentile(proposed, 0.5) / percentile(floor, 0.5);
    state.counters["hits/query"] = hits / double(ours.size());
}

} // namespace

BENCHMARK(BM_BuildIndex)->Arg(1)->Arg(100)->Unit(benchmark::kSecond)->Iterations(1);
// Argument: 0 one-word prefix, 1 two-word prefix, 2 quoted, 3 OR.
BENCHMARK(BM_Query)->Arg(0)->Arg(1)->Arg(2)->Arg(3)->Unit(benchmark::kMillisecond)->Iterations(1);

BENCHMARK_MAIN();
