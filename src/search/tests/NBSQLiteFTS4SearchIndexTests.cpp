// Tests of the full-text index: query formatting, the add and remove rules of both modes, phrases read from
// matchinfo, batches and stops of the result block, the synchronous form's time-out, files on disk (kept,
// damaged), closing, transactions and the abstract base.
#include "search/NBSQLiteFTS4SearchIndex.h"

#include "foundation/testing/NBMessageCapture.h"
#include "foundation/testing/NBTemporaryDirectory.h"

#include <SQLiteCpp/SQLiteCpp.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <QFile>

#include <chrono>
#include <future>
#include <thread>

namespace {

constexpr double waitSeconds = 30;

std::shared_ptr<NBSQLiteFTS4SearchIndex> indexInMode(bool contentLess, const QUrl& url = QUrl()) {
    return NBSQLiteFTS4SearchIndex::persistedIndexWithName(
        "test", url, {{QString::fromUtf8(kNBSearchIndexContentLessOption), contentLess}});
}

// The identifiers a query finds, sorted.
QStringList identifiersFound(NBSearchIndex& index, const QString& query) {
    bool timedOut = true;
    QStringList identifiers;
    for (const NBSearchResult& result : index.searchResultsForQuery(query, 0, waitSeconds, &timedOut))
        identifiers << result.documentIdentifier();
    EXPECT_FALSE(timedOut) << query.toStdString();
    identifiers.sort();
    return identifiers;
}

// Every call of a result block: how many results it carried and whether more followed.
struct BlockCall {
    qsizetype resultCount;
    bool moreFollow;
    bool operator==(const BlockCall&) const = default;
};
void PrintTo(const BlockCall& call, std::ostream* out) {
    *out << '{' << call.resultCount << ", " << (call.moreFollow ? "more" : "last") << '}';
}

std::vector<BlockCall> blockCalls(NBSearchIndex& index, const QString& query, unsigned maximumBatchSize,
                                  int stopAfterCall = -1) {
    std::promise<std::vector<BlockCall>> finished;
    auto calls = std::make_shared<std::vector<BlockCall>>();
    index.query(query, 0, maximumBatchSize, [&, calls](const NBSearchResultSet& results, bool moreFollow) {
        calls->push_back({results.size(), moreFollow});
        if (!moreFollow)
            finished.set_value(*calls);
        return int(calls->size()) != stopAfterCall;
    });
    auto future = finished.get_future();
    EXPECT_EQ(future.wait_for(std::chrono::seconds(30)), std::future_status::ready);
    return future.get();
}

qint64 rowCount(NBSQLiteFTS4SearchIndex& index, const char* table) {
    qint64 count = -1;
    index.accessSQLiteDBSynchronouslyWithBlock([&](SQLite::Database* database) {
        count = database->execAndGet(std::string("SELECT count(*) FROM ") + table).getInt64();
    });
    return count;
}

} // namespace

TEST(NBSQLiteFTS4SearchIndex, QueriesBecomeMatchExpressionsByLiteralRewrites) {
    const std::vector<std::pair<QString, QString>> cases = {
        {"cell", "cell*"},
        {"  cell\t  division \n", "cell* AND division*"},
        {"cell OR division", "cell* OR division*"},
        {"cell AND division", "cell* AND division*"},
        {"(cell OR mitosis) division", "(cell* OR mitosis*) AND division*"},
        {"( cell OR mitosis ) division", "( cell* OR mitosis* ) AND division*"},
        {"\"cell division\"", "cell* division*"},
        {"\"cell division", "cell* division*"},
        {"\"", "*"},
        {"", "*"},
        // Odd results are kept as the rewrites leave them; SQLite refuses them as malformed.
        {"cell OR", "cell* AND OR*"},
        {"OR cell", "OR* AND cell*"},
        {"cell (", "cell* AND (*"},
        {"a\nb", "a\nb*"},
    };
    for (const auto& [query, expected] : cases)
        EXPECT_EQ(NBSQLiteFTS4SearchIndex::formattedQueryFromQuery(query), expected) << query.toStdString();
}

TEST(NBSQLiteFTS4SearchIndex, BothModesAnswerTheSameEditsAlike) {
    // Each step edits both indexes, then every query must find the same identifiers in both.
    struct Step {
        QString identifier;
        std::optional<QString> content; // none: remove
    };
    const std::vector<Step> steps = {
        {"p1", "cells were incubated overnight"},
        {"p2", "cell division observed"},
        {"p3", "western blot of lysate"},
        {"p1", "cells were washed twice"},
        {"p2", std::nullopt},
        {"p4", "incubation at 37 c"},
        {"p4", ""},
        {"p2", "division of labour"},
        {"p3", std::nullopt},
        {"p3", "blot again"},
    };
    const QStringList queries = {"cell",         "incub",   "division", "blot",          "washed",
                                 "cell OR blot", "western", "labour",   "\"cell wash\"", "again"};
    auto contentFull = indexInMode(false);
    auto contentLess = indexInMode(true);
    for (const Step& step : steps) {
        for (auto& index : {contentFull, contentLess}) {
            if (step.content)
                index->addDocumentWithIdentifier(step.identifier, *step.content);
            else
                index->removeDocumentWithIdentifier(step.identifier);
        }
        for (const QString& query : queries)
            EXPECT_EQ(identifiersFound(*contentFull, query), identifiersFound(*contentLess, query))
                << "after " << step.identifier.toStdString() << ", query " << query.toStdString();
    }
    EXPECT_EQ(identifiersFound(*contentFull, "cell"), QStringList({"p1"}));
    EXPECT_EQ(identifiersFound(*contentFull, "blot"), QStringList({"p3"}));
    EXPECT_EQ(identifiersFound(*contentFull, "incub"), QStringList());
}

TEST(NBSQLiteFTS4SearchIndex, AddAndRemoveFollowTheRulesOfEachMode) {
    auto contentFull = indexInMode(false);
    EXPECT_FALSE(contentFull->addDocumentWithIdentifier("", "text"));
    EXPECT_FALSE(contentFull->removeDocumentWithIdentifier(""));
    EXPECT_TRUE(contentFull->addDocumentWithIdentifier("a", "first text"));
    EXPECT_TRUE(contentFull->addDocumentWithIdentifier("a", "second text"));
    EXPECT_EQ(rowCount(*contentFull, "SearchIndex"), 1);
    // Empty content only removes the row, and says so by returning false.
    EXPECT_FALSE(contentFull->addDocumentWithIdentifier("a", ""));
    EXPECT_EQ(rowCount(*contentFull, "SearchIndex"), 0);

    auto contentLess = indexInMode(true);
    EXPECT_FALSE(contentLess->removeDocumentWithIdentifier("never"));
    EXPECT_TRUE(contentLess->addDocumentWithIdentifier("a", "old words"));
    EXPECT_TRUE(contentLess->addDocumentWithIdentifier("a", "new words"));
    EXPECT_TRUE(contentLess->addDocumentWithIdentifier("b", "old words too"));
    EXPECT_TRUE(contentLess->removeDocumentWithIdentifier("b"));
    // The stale rows stay in the table, yet never produce a hit.
    EXPECT_EQ(rowCount(*contentLess, "SearchIdentifier"), 4);
    EXPECT_EQ(identifiersFound(*contentLess, "old"), QStringList());
    EXPECT_EQ(identifiersFound(*contentLess, "words"), QStringList({"a"}));
    EXPECT_EQ(identifiersFound(*contentLess, "new"), QStringList({"a"}));
}

TEST(NBSQLiteFTS4SearchIndex, ResultsNameTheQueryPhrasesTheyMatched) {
    for (const bool contentLess : {false, true}) {
        auto index = indexInMode(contentLess);
        index->addDocumentWithIdentifier("both", "alpha beta");
        index->addDocumentWithIdentifier("first", "alpha gamma");
        index->addDocumentWithIdentifier("second", "beta delta");
        QMap<QString, QSet<unsigned>> phrases;
        bool timedOut = true;
        for (const NBSearchResult& result :
             index->searchResultsForQuery("alpha OR beta", 0, waitSeconds, &timedOut)) {
            phrases.insert(result.documentIdentifier(), result.phraseMatchIndexes());
            EXPECT_EQ(result.phraseCount(), 2u);
            EXPECT_EQ(result.searchIndex(), index);
        }
        EXPECT_FALSE(timedOut);
        const QMap<QString, QSet<unsigned>> expected = {{"both", {0, 1}}, {"first", {0}}, {"second", {1}}};
        EXPECT_EQ(phrases, expected) << "content-less: " << contentLess;
        // One phrase: every result holds phrase 0 of 1.
        for (const NBSearchResult& result : index->searchResultsForQuery("delta", 0, waitSeconds)) {
            EXPECT_EQ(result.phraseMatchIndexes(), QSet<unsigned>({0}));
            EXPECT_EQ(result.phraseCount(), 1u);
        }
    }
}

TEST(NBSQLiteFTS4SearchIndex, ResultBlockGetsBatchesAndCanStopTheSearch) {
    for (const bool contentLess : {false, true}) {
        auto index = indexInMode(contentLess);
        for (int number = 0; number < 5; ++number)
            index->addDocumentWithIdentifier(QString::number(number), "sample");
        // Batch size 0: one call with everything.
        EXPECT_EQ(blockCalls(*index, "sample", 0), std::vector<BlockCall>({{5, false}}));
        // Batches of 2: every call carries all results so far, and a last one comes at the end.
        EXPECT_EQ(blockCalls(*index, "sample", 2),
                  std::vector<BlockCall>({{2, true}, {4, true}, {5, false}}));
        EXPECT_EQ(blockCalls(*index, "sample", 5), std::vector<BlockCall>({{5, true}, {5, false}}));
        // A block that answers false stops the reading; one last call still comes.
        EXPECT_EQ(blockCalls(*index, "sample", 2, 1), std::vector<BlockCall>({{2, true}, {2, false}}));
        // Nothing found, or a malformed expression: one call with nothing.
        EXPECT_EQ(blockCalls(*index, "nothing", 2), std::vector<BlockCall>({{0, false}}));
        EXPECT_EQ(blockCalls(*index, "sample OR", 2), std::vector<BlockCall>({{0, false}}));
    }
}

TEST(NBSQLiteFTS4SearchIndex, MalformedQueriesFindNothingWithoutError) {
    auto index = indexInMode(false);
    index->addDocumentWithIdentifier("a", "cell division");
    NBMessageCapture capture;
    // Each is either refused by SQLite or asks for words the text does not hold ("OR*", "**").
    for (const QString query : {"", "\"", "OR", "AND", "cell OR", "cell AND", "(cell", "( cell", "cell )",
                                ")", "*", "NEAR", "\"\"\"", "cell (OR)", "((((", "- cell", "cell division )"})
        EXPECT_EQ(identifiersFound(*index, query), QStringList()) << query.toStdString();
    EXPECT_TRUE(capture.assertions().isEmpty());
}

TEST(NBSQLiteFTS4SearchIndex, SynchronousQueryStopsWaitingAtItsTimeOut) {
    auto index = indexInMode(false);
    index->addDocumentWithIdentifier("a", "sample");
    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    // Holds the search queue, so the query cannot start before the wait runs out.
    index->accessSQLiteDBAsynchronouslyWithBlock([released](SQLite::Database*) { released.wait(); });
    bool timedOut = false;
    EXPECT_TRUE(index->searchResultsForQuery("sample", 0, 0.05, &timedOut).isEmpty());
    EXPECT_TRUE(timedOut);
    release.set_value();
    EXPECT_EQ(index->searchResultsForQuery("sample", 0, waitSeconds, &timedOut).size(), 1);
    EXPECT_FALSE(timedOut);
}

TEST(NBSQLiteFTS4SearchIndex, FileKeepsItsIndexAndDamageLeavesItClosed) {
    NBTemporaryDirectory directory;
    const QUrl url = QUrl::fromLocalFile(directory.filePath("index.searchdb"));
    for (const bool contentLess : {false, true}) {
        QFile::remove(url.toLocalFile());
        {
            auto index = indexInMode(contentLess, url);
            EXPECT_TRUE(index->addDocumentWithIdentifier("kept", "persisted words"));
        }
        auto reopened = indexInMode(contentLess, url);
        EXPECT_EQ(identifiersFound(*reopened, "persist"), QStringList({"kept"}));
        EXPECT_TRUE(reopened->checkDatabaseWithError());
    }
    // A file that is not a database: adding fails, queries find nothing, and the failure is logged once.
    QFile damaged(url.toLocalFile());
    ASSERT_TRUE(damaged.open(QIODevice::WriteOnly | QIODevice::Truncate));
    damaged.write(QByteArray(8192, 'x'));
    damaged.close();
    NBMessageCapture capture;
    auto index = indexInMode(false, url);
    EXPECT_FALSE(index->addDocumentWithIdentifier("a", "text"));
    EXPECT_EQ(identifiersFound(*index, "text"), QStringList());
    NBError error;
    EXPECT_FALSE(index->checkDatabaseWithError(&error));
    EXPECT_EQ(error.domain(), "NBSQLiteFTS4SearchIndex");
    EXPECT_EQ(error.code(), kNBSQLiteFTS4SearchIndexErrorOpen);
    const QString message = "could not open search index at path '" + url.toLocalFile() + "'";
    const QStringList texts = capture.texts();
    EXPECT_EQ(std::count_if(texts.begin(), texts.end(),
                            [&](const QString& text) { return text.startsWith(message); }),
              1)
        << texts.join('\n').toStdString();
    EXPECT_TRUE(capture.assertions().isEmpty());
}

TEST(NBSQLiteFTS4SearchIndex, ClosingReportsRowSetsLeftOpen) {
    auto index = indexInMode(false);
    index->addDocumentWithIdentifier("a", "one");
    index->addDocumentWithIdentifier("b", "two");
    NBMessageCapture capture;
    // A block that leaves a statement in the middle of its rows.
    index->accessSQLiteDBSynchronouslyWithBlock([](SQLite::Database* database) {
        sqlite3_stmt* statement = nullptr;
        sqlite3_prepare_v2(database->getHandle(), "SELECT identifier FROM SearchIndex", -1, &statement,
                           nullptr);
        EXPECT_EQ(sqlite3_step(statement), SQLITE_ROW);
    });
    index->close();
    index->accessSQLiteDBSynchronouslyWithBlock([](SQLite::Database*) {});
    EXPECT_EQ(capture.texts(),
              QStringList({"Unexpected state before closing database at path ':memory:': it should "
                           "not have any open result sets."}));
    // Closing an index in memory lets go of its content; the next access opens an empty one.
    EXPECT_EQ(identifiersFound(*index, "one"), QStringList());
    EXPECT_TRUE(index->addDocumentWithIdentifier("c", "three"));
    EXPECT_EQ(identifiersFound(*index, "three"), QStringList({"c"}));
}

TEST(NBSQLiteFTS4SearchIndex, TransactionsCommitOrRollBackAsAWhole) {
    auto index = indexInMode(true);
    std::promise<void> done;
    index->performTransactionAsynchronously([&](SQLite::Database* database) {
        EXPECT_NE(database, nullptr);
        // Adding from inside the search queue runs at once, inside the transaction.
        EXPECT_TRUE(index->addDocumentWithIdentifier("a", "committed"));
        EXPECT_TRUE(index->addDocumentWithIdentifier("b", "committed"));
    });
    NBMessageCapture capture;
    index->performTransactionAsynchronously([&](SQLite::Database*) {
        index->addDocumentWithIdentifier("c", "rolled back");
        throw std::runtime_error("failed halfway");
    });
    index->accessSQLiteDBAsynchronouslyWithBlock([&](SQLite::Database*) { done.set_value(); });
    done.get_future().wait();
    EXPECT_EQ(identifiersFound(*index, "committed"), QStringList({"a", "b"}));
    EXPECT_EQ(identifiersFound(*index, "rolled"), QStringList());
    EXPECT_EQ(capture.texts(), QStringList({"transaction on search index 'test' failed: failed halfway"}));
}

TEST(NBSQLiteFTS4SearchIndex, QueueIsNamedAfterTheIndexAndItsPath) {
    auto index = NBSQLiteFTS4SearchIndex::persistedIndexWithName(
        "experimentContent", QUrl::fromLocalFile("/tmp/lib/content.searchdb"));
    EXPECT_EQ(index->searchQueue()->label(),
              "org.quillon.Quillon.fts4-queue.experimentContent.tmp.lib.content.searchdb");
    EXPECT_FALSE(index->inMemory());
    EXPECT_FALSE(index->contentLess());
    EXPECT_EQ(index->databasePath(), "/tmp/lib/content.searchdb");
    auto inMemory = NBSQLiteFTS4SearchIndex::inMemoryIndexWithName("metadata");
    EXPECT_EQ(inMemory->searchQueue()->label(), "org.quillon.Quillon.fts4-queue.metadata.");
    EXPECT_TRUE(inMemory->inMemory());
    EXPECT_EQ(inMemory->databasePath(), ":memory:");
}

namespace {
// A kind that keeps the base class's answers.
class NBEmptySearchIndex : public NBSearchIndex {
public:
    NBEmptySearchIndex() : NBSearchIndex("empty", QUrl(), {}) {}
};
} // namespace

TEST(NBSearchIndex, BaseClassCannotBeCreatedAndAnswersNothing) {
    NBMessageCapture capture;
    EXPECT_EQ(NBSearchIndex::inMemoryIndexWithName("x"), nullptr);
    EXPECT_EQ(NBSearchIndex::persistedIndexWithName("x", QUrl::fromLocalFile("/tmp/x")), nullptr);
    const QString message =
        "NBSearchIndex is an abstract class that should not be initialized directly: use a subclass.";
    EXPECT_EQ(capture.assertions(), QStringList({message, message}));
    auto empty = std::make_shared<NBEmptySearchIndex>();
    EXPECT_FALSE(empty->addDocumentWithIdentifier("a", "text"));
    EXPECT_FALSE(empty->removeDocumentWithIdentifier("a"));
    EXPECT_EQ(blockCalls(*empty, "text", 3), std::vector<BlockCall>({{0, false}}));
    // The stop-word lists: the short one within the long one.
    EXPECT_TRUE(NBSearchIndex::englishStopWords().contains("and"));
    EXPECT_FALSE(NBSearchIndex::englishStopWords().contains("yourselves"));
    EXPECT_TRUE(NBSearchIndex::englishStopWordsExtended().contains(NBSearchIndex::englishStopWords()));
    EXPECT_TRUE(NBSearchIndex::englishStopWordsExtended().contains("yourselves"));
}
