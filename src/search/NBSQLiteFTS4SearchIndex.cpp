// The FTS4 full-text index: opening, the add and remove rules of each mode, query formatting, the batched
// query with its matchinfo reading, transactions and closing (the format is in the header).
#include "search/NBSQLiteFTS4SearchIndex.h"

#include "search/NBSearchLogging.h"
#include "search/NBTextCleanUp.h"

#include <SQLiteCpp/SQLiteCpp.h>
#include <sqlite3.h>

#include <QHash>
#include <QStringList>

#include <cstring>
#include <mutex>

namespace {

const char* const contentFullSchema =
    "CREATE VIRTUAL TABLE IF NOT EXISTS SearchIndex USING fts4(identifier, content_to_index)";
const char* const contentLessSchema[] = {
    "CREATE VIRTUAL TABLE IF NOT EXISTS SearchIndex USING fts4(content=\"\", content_to_index)",
    "CREATE TABLE IF NOT EXISTS SearchIdentifier (identifier)",
    "CREATE INDEX IF NOT EXISTS SearchIdentifierIndex ON SearchIdentifier(identifier)",
};

const char* const contentFullQuery =
    "SELECT identifier,matchinfo(SearchIndex, 'px') FROM SearchIndex WHERE content_to_index MATCH ?";
const char* const contentLessQuery =
    "SELECT docid,matchinfo(SearchIndex, 'px') FROM SearchIndex WHERE SearchIndex MATCH ?";

// How long a statement waits for another connection's lock on an index file (another process searching
// the same library, say) before it fails.
constexpr int busyTimeoutMilliseconds = 5000;

// SQLite must have FTS4 and the parenthesis syntax: without them no index can be created, or OR and
// brackets typed by the user would be read as words. Checked once, when the first index opens.
void checkSQLiteCompileOptions() {
    static std::once_flag checked;
    std::call_once(checked, [] {
        for (const char* option : {"ENABLE_FTS4", "ENABLE_FTS3_PARENTHESIS"}) {
            if (sqlite3_compileoption_used(option) == 0)
                nbRaiseAssertion(lcSearch(),
                                 nbFormat("SQLite was built without %@, which full-text search needs",
                                          QString::fromUtf8(option)));
        }
    });
}

std::string utf8(const QString& text) {
    return text.toStdString();
}

QString columnText(const SQLite::Column& column) {
    return QString::fromUtf8(column.getText(), column.getBytes());
}

// A text literal for the IN lists of the content-less queries: quoted, with quotation marks doubled.
QString quotedList(const QStringList& values) {
    QStringList quoted;
    quoted.reserve(values.size());
    for (QString value : values)
        quoted << value.replace(u'\'', QStringLiteral("''"));
    return "('" + quoted.join(QStringLiteral("','")) + "')";
}

// The phrases a row matched, from its matchinfo 'px' blob (see runQuery).
struct MatchinfoReader {
    // Bytes between the hits-in-this-row values of two phrases, and the offset of phrase 0's value: the
    // 'x' values come in triples per phrase and column, and only the last column is the indexed text.
    qint64 stride = 24;
    qint64 firstHitsOffset = 16;
    std::optional<unsigned> phraseCount;
    bool firstRow = true;

    static unsigned unsignedAt(const char* bytes, qint64 offset) {
        std::uint32_t value = 0;
        std::memcpy(&value, bytes + offset, sizeof value);
        return value;
    }

    QSet<unsigned> phrasesOfRow(const SQLite::Column& matchinfo) {
        const bool first = std::exchange(firstRow, false);
        if (phraseCount && *phraseCount < 2)
            return {0};
        const auto* bytes = static_cast<const char*>(matchinfo.getBlob());
        const qint64 size = matchinfo.getBytes();
        if (first) {
            if (size < 4 || bytes == nullptr)
                return {0};
            phraseCount = unsignedAt(bytes, 0);
        }
        if (!phraseCount)
            return {0};
        // The blob must be long enough for every phrase's triple; the bound is the phrase count times the
        // stride with the two low bits set, which for these strides is the blob's full size less one.
        if (size <= (qint64(*phraseCount) * stride | 3))
            return {0};
        QSet<unsigned> phrases;
        for (unsigned phrase = 0; phrase < *phraseCount; ++phrase) {
            if (unsignedAt(bytes, firstHitsOffset + stride * phrase) > 0)
                phrases.insert(phrase);
        }
        return phrases;
    }
};

} // namespace

struct NBSQLiteFTS4SearchIndex::Private {
    std::unique_ptr<SQLite::Database> database;
    // Prepared once per connection; destroyed before it closes.
    std::unique_ptr<SQLite::Statement> deleteIdentifier;
    std::unique_ptr<SQLite::Statement> insertContent;
    std::unique_ptr<SQLite::Statement> insertIdentifier;
    std::unique_ptr<SQLite::Statement> insertDocID;
    std::unique_ptr<SQLite::Statement> selectIdentifier;
    // The open failure last logged, so a damaged file is reported once per kind of failure, not at every
    // access.
    QString lastOpenFailure;

    // The statement in `slot`, prepared on first use and reset for a new run.
    static SQLite::Statement& reusable(std::unique_ptr<SQLite::Statement>& slot, SQLite::Database& database,
                                       const char* sql) {
        if (!slot)
            slot = std::make_unique<SQLite::Statement>(database, sql);
        slot->reset();
        return *slot;
    }

    // Content-full: removes the identifier's row.
    void deleteRow(SQLite::Database& database, const std::string& identifier) {
        SQLite::Statement& statement =
            reusable(deleteIdentifier, database, "DELETE FROM SearchIndex WHERE identifier = ?");
        statement.bind(1, identifier);
        statement.exec();
    }

    void finalizeStatements() {
        deleteIdentifier.reset();
        insertContent.reset();
        insertIdentifier.reset();
        insertDocID.reset();
        selectIdentifier.reset();
    }
};

NBSQLiteFTS4SearchIndex::NBSQLiteFTS4SearchIndex(const QString& name, const QUrl& url,
                                                 const QVariantMap& options)
    : NBSearchIndex(name, url, options), d(std::make_unique<Private>()) {
    contentLess_ = options.value(QString::fromUtf8(kNBSearchIndexContentLessOption)).toBool();
    QStringList pathComponents = url.path().split(u'/', Qt::SkipEmptyParts);
    searchQueue_ =
        OAKDispatchQueue::dispatchQueueWithLabel(OAKDispatchQueue::labelByPrependingBundleIdentifierToString(
            nbFormat("fts4-queue.%@.%@", name, pathComponents.join(u'.'))));
}

NBSQLiteFTS4SearchIndex::~NBSQLiteFTS4SearchIndex() {
    // Nobody else holds the index, so no block of the search queue can be using the connection.
    closeSQLiteDB();
}

std::shared_ptr<NBSQLiteFTS4SearchIndex> NBSQLiteFTS4SearchIndex::inMemoryIndexWithName(const QString& name) {
    return persistedIndexWithName(name, QUrl(), {});
}

std::shared_ptr<NBSQLiteFTS4SearchIndex> NBSQLiteFTS4SearchIndex::persistedIndexWithName(const QString& name,
                                                                                         const QUrl& url) {
    return persistedIndexWithName(name, url, {});
}

std::shared_ptr<NBSQLiteFTS4SearchIndex>
NBSQLiteFTS4SearchIndex::persistedIndexWithName(const QString& name, const QUrl& url,
                                                const QVariantMap& options) {
    return std::shared_ptr<NBSQLiteFTS4SearchIndex>(new NBSQLiteFTS4SearchIndex(name, url, options));
}

QString NBSQLiteFTS4SearchIndex::databasePath() const {
    return inMemory() ? QStringLiteral(":memory:") : url().toLocalFile();
}

SQLite::Database* NBSQLiteFTS4SearchIndex::database() const {
    return d->database.get();
}

// ---- Opening and closing (search queue) ----

SQLite::Database* NBSQLiteFTS4SearchIndex::openSQLiteDBIfNecessary(NBError* outError) {
    if (d->database)
        return d->database.get();
    checkSQLiteCompileOptions();
    const QString path = databasePath();
    try {
        auto database = std::make_unique<SQLite::Database>(
            utf8(path), SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE, busyTimeoutMilliseconds);
        if (!inMemory()) {
            // Write-ahead logging, synced at checkpoints only (see the header).
            database->exec("PRAGMA journal_mode=WAL");
            database->exec("PRAGMA synchronous=NORMAL");
        }
        if (contentLess_) {
            for (const char* statement : contentLessSchema)
                database->exec(statement);
        } else {
            database->exec(contentFullSchema);
        }
        d->database = std::move(database);
        d->lastOpenFailure.clear();
        return d->database.get();
    } catch (const SQLite::Exception& exception) {
        const QString reason = QString::fromUtf8(exception.what());
        if (reason != d->lastOpenFailure)
            qCWarning(lcSearch).noquote()
                << nbFormat("could not open search index at path '%@': %@", path, reason);
        d->lastOpenFailure = reason;
        nbFail(outError,
               NBError::errorWithObject("NBSQLiteFTS4SearchIndex", kNBSQLiteFTS4SearchIndexErrorOpen,
                                        nbFormat("could not open search index at path '%@'", path), reason));
        return nullptr;
    }
}

void NBSQLiteFTS4SearchIndex::closeSQLiteDB() {
    if (!d->database)
        return;
    d->finalizeStatements();
    // A statement still stepping is an open row set: a block kept it beyond its own run, which is
    // unexpected, and said so. Resetting closes the row sets (and the FTS4 cursors under them). FTS4 prepares
    // statements of its own over its shadow tables ("SearchIndex_content", "SearchIndex_segments", ...) and
    // finalizes them when the connection closes; every other statement still prepared is finalized here, so
    // the connection really closes. Its owner must not use it again.
    sqlite3* handle = d->database->getHandle();
    std::vector<sqlite3_stmt*> openRowSets;
    for (sqlite3_stmt* statement = sqlite3_next_stmt(handle, nullptr); statement;
         statement = sqlite3_next_stmt(handle, statement)) {
        if (sqlite3_stmt_busy(statement) != 0)
            openRowSets.push_back(statement);
    }
    if (!openRowSets.empty())
        qCWarning(lcSearch).noquote() << nbFormat(
            "Unexpected state before closing database at path '%@': it should not have any open result sets.",
            databasePath());
    for (sqlite3_stmt* statement : openRowSets)
        sqlite3_reset(statement);
    std::vector<sqlite3_stmt*> leftOver;
    for (sqlite3_stmt* statement = sqlite3_next_stmt(handle, nullptr); statement;
         statement = sqlite3_next_stmt(handle, statement)) {
        const char* sql = sqlite3_sql(statement);
        if (sql == nullptr || std::strstr(sql, "SearchIndex_") == nullptr)
            leftOver.push_back(statement);
    }
    for (sqlite3_stmt* statement : leftOver)
        sqlite3_finalize(statement);
    d->database.reset();
}

bool NBSQLiteFTS4SearchIndex::checkDatabaseWithError(NBError* outError) {
    bool usable = false;
    searchQueue_->dispatchSynchronously([&] { usable = openSQLiteDBIfNecessary(outError) != nullptr; });
    return usable;
}

void NBSQLiteFTS4SearchIndex::close() {
    auto self = std::static_pointer_cast<NBSQLiteFTS4SearchIndex>(shared_from_this());
    searchQueue_->dispatchAsynchronously([self] { self->closeSQLiteDB(); });
}

// ---- Database access ----

void NBSQLiteFTS4SearchIndex::accessSQLiteDBSynchronouslyWithBlock(const DatabaseBlock& block) {
    searchQueue_->dispatchSynchronously([&] { block(openSQLiteDBIfNecessary()); });
}

void NBSQLiteFTS4SearchIndex::accessSQLiteDBAsynchronouslyWithBlock(DatabaseBlock block) {
    auto self = std::static_pointer_cast<NBSQLiteFTS4SearchIndex>(shared_from_this());
    searchQueue_->dispatchAsynchronously(
        [self, block = std::move(block)] { block(self->openSQLiteDBIfNecessary()); });
}

void NBSQLiteFTS4SearchIndex::performTransactionAsynchronously(DatabaseBlock block) {
    auto self = std::static_pointer_cast<NBSQLiteFTS4SearchIndex>(shared_from_this());
    searchQueue_->dispatchAsynchronously([self, block = std::move(block)] {
        SQLite::Database* database = self->openSQLiteDBIfNecessary();
        if (!database) {
            block(nullptr);
            return;
        }
        try {
            SQLite::Transaction transaction(*database);
            block(database);
            transaction.commit();
        } catch (const std::exception& exception) {
            // The transaction's destructor has rolled it back.
            qCWarning(lcSearch).noquote() << nbFormat("transaction on search index '%@' failed: %@",
                                                      self->indexName(), QString::fromUtf8(exception.what()));
        }
    });
}

// ---- Adding and removing ----

bool NBSQLiteFTS4SearchIndex::addDocumentWithIdentifier(const QString& identifier,
                                                        const QString& stringContent) {
    if (identifier.isEmpty())
        return false;
    bool added = false;
    searchQueue_->dispatchSynchronously([&] { added = addOnSearchQueue(identifier, stringContent); });
    return added;
}

bool NBSQLiteFTS4SearchIndex::removeDocumentWithIdentifier(const QString& identifier) {
    if (identifier.isEmpty())
        return false;
    bool removed = false;
    searchQueue_->dispatchSynchronously([&] { removed = removeOnSearchQueue(identifier); });
    return removed;
}

bool NBSQLiteFTS4SearchIndex::addOnSearchQueue(const QString& identifier, const QString& content) {
    SQLite::Database* database = openSQLiteDBIfNecessary();
    if (!database)
        return false;
    const std::string identifierText = utf8(identifier);
    const std::string contentText = utf8(content);
    try {
        if (!contentLess_) {
            // Content-full: the identifier's row is replaced; empty content only removes it.
            d->deleteRow(*database, identifierText);
            if (content.isEmpty())
                return false;
            SQLite::Statement& insert =
                Private::reusable(d->insertContent, *database,
                                  "INSERT INTO SearchIndex (identifier, content_to_index) VALUES (?, ?)");
            insert.bind(1, identifierText);
            insert.bind(2, contentText);
            return insert.exec() == 1;
        }
        // Content-less: the identifier gets a new row, whose rowid is the docid of the new text.
        SQLite::Statement& insertIdentifier = Private::reusable(
            d->insertIdentifier, *database, "INSERT INTO SearchIdentifier (identifier) VALUES (?)");
        insertIdentifier.bind(1, identifierText);
        if (insertIdentifier.exec() != 1)
            return false;
        const qint64 docID = database->getLastInsertRowid();
        SQLite::Statement& insertText = Private::reusable(
            d->insertDocID, *database, "INSERT INTO SearchIndex (docid, content_to_index) VALUES (?,?)");
        insertText.bind(1, static_cast<std::int64_t>(docID));
        insertText.bind(2, contentText);
        return insertText.exec() == 1;
    } catch (const SQLite::Exception& exception) {
        qCWarning(lcSearch).noquote() << nbFormat("could not add '%@' to search index '%@': %@", identifier,
                                                  indexName(), QString::fromUtf8(exception.what()));
        return false;
    }
}

bool NBSQLiteFTS4SearchIndex::removeOnSearchQueue(const QString& identifier) {
    SQLite::Database* database = openSQLiteDBIfNecessary();
    if (!database)
        return false;
    try {
        if (!contentLess_) {
            d->deleteRow(*database, utf8(identifier));
            return true;
        }
        SQLite::Statement& select = Private::reusable(
            d->selectIdentifier, *database, "SELECT rowID FROM SearchIdentifier WHERE identifier IS ?");
        select.bind(1, utf8(identifier));
        const bool known = select.executeStep();
        select.reset();
        // Its newest row, with empty text, matches nothing and hides the older ones.
        return known && addOnSearchQueue(identifier, QString());
    } catch (const SQLite::Exception& exception) {
        qCWarning(lcSearch).noquote()
            << nbFormat("could not remove '%@' from search index '%@': %@", identifier, indexName(),
                        QString::fromUtf8(exception.what()));
        return false;
    }
}

// ---- Queries ----

QString NBSQLiteFTS4SearchIndex::formattedQueryFromQuery(const QString& query) {
    QString formatted = query;
    trimCharactersInSet(formatted, NBCharacterSet::whitespaceAndNewlineCharacterSet());
    formatted.replace(u'\t', u' ');
    cleanUpContiguousSpaces(formatted);
    if (formatted.startsWith(u'"')) {
        // A quoted query: every word a prefix that must occur (FTS4's implicit AND), not a phrase.
        formatted.remove(0, 1);
        if (formatted.endsWith(u'"'))
            formatted.chop(1);
        formatted.replace(QStringLiteral(" "), QStringLiteral("* "));
        formatted.append(u'*');
        return formatted;
    }
    // Literal rewrites, in this order; their odd results are kept (see the header).
    formatted.replace(QStringLiteral(" "), QStringLiteral("* AND "));
    formatted.append(u'*');
    formatted.replace(QStringLiteral("AND OR* AND"), QStringLiteral("OR"));
    formatted.replace(QStringLiteral("AND AND* AND"), QStringLiteral("AND"));
    formatted.replace(QStringLiteral(")*"), QStringLiteral("*)"));
    formatted.replace(QStringLiteral(" AND *)"), QStringLiteral(" )"));
    formatted.replace(QStringLiteral("(* AND "), QStringLiteral("( "));
    return formatted;
}

void NBSQLiteFTS4SearchIndex::query(const QString& query, double, unsigned maximumBatchSize,
                                    ResultBlock resultBlock) {
    // The block holds the index only while it reads rows, and makes the last call after letting it go: a
    // caller that drops the index once it has the answer must never leave the index's destruction to this
    // queue (at process exit, what the destructor uses may already be gone).
    const std::weak_ptr<NBSQLiteFTS4SearchIndex> weakSelf =
        std::static_pointer_cast<NBSQLiteFTS4SearchIndex>(shared_from_this());
    searchQueue_->dispatchAsynchronously(
        [weakSelf, query, maximumBatchSize, resultBlock = std::move(resultBlock)] {
            NBSearchResultSet results;
            if (const auto self = weakSelf.lock())
                results = self->runQuery(query, maximumBatchSize, resultBlock);
            resultBlock(results, false);
        });
}

// Reading a row's phrases. The phrase count is unknown until the first row. While it is known to be below
// 2, every row matched phrase 0. Otherwise the row's matchinfo 'px' blob is read: on the first row a blob
// shorter than 4 bytes leaves the count unknown (the row gets phrase 0), else its first 32-bit unsigned
// integer is the count. When the blob is longer than the count times the stride, bitwise-or 3, the row's
// phrases are those whose hits-in-this-row value (the first of the phrase's 'x' triple for the indexed
// column) is above 0; otherwise the row gets phrase 0. The content-full table has two columns, so the
// indexed column's triples lie 24 bytes apart from byte 16; the content-less one has one, 12 bytes apart
// from byte 4.
//
// Batching. With a maximum batch size above 0, each time the batch of rows read reaches it, the batch becomes
// results and joins the results so far; each time those reach the maximum batch size, the block gets all
// results so far with moreFollow true, and a false answer stops the reading. At the end (or on a stop) the
// row set is closed, the rest of the batch becomes results, and the block gets everything once more with
// moreFollow false (that last call is made by query(), from what this returns). A malformed expression or an
// unreadable database reads no row.
NBSearchResultSet NBSQLiteFTS4SearchIndex::runQuery(const QString& query, unsigned maximumBatchSize,
                                                    const ResultBlock& resultBlock) {
    NBSearchResultSet results;
    QSet<QString> identifiersSoFar;
    std::vector<std::pair<QString, QSet<unsigned>>> identifierBatch;
    std::vector<std::pair<qint64, QSet<unsigned>>> docIDBatch;
    MatchinfoReader matchinfo;
    if (contentLess_) {
        matchinfo.stride = 12;
        matchinfo.firstHitsOffset = 4;
    }
    const auto self = shared_from_this();
    const auto phraseCount = [&] { return matchinfo.phraseCount.value_or(0); };
    // Turns the batch into results; true when there are new ones.
    const auto flushBatch = [&](SQLite::Database& database) {
        const qsizetype before = results.size();
        if (contentLess_) {
            for (NBSearchResult& result :
                 contentlessRelevantSearchResultsFromDocIDSet(database, docIDBatch, phraseCount()))
                if (!identifiersSoFar.contains(result.documentIdentifier())) {
                    identifiersSoFar.insert(result.documentIdentifier());
                    results.append(std::move(result));
                }
            docIDBatch.clear();
        } else {
            for (auto& [identifier, phrases] : identifierBatch)
                if (!identifiersSoFar.contains(identifier)) {
                    identifiersSoFar.insert(identifier);
                    results.append(NBSearchResult(self, identifier, std::move(phrases), phraseCount()));
                }
            identifierBatch.clear();
        }
        return results.size() > before;
    };

    SQLite::Database* database = openSQLiteDBIfNecessary();
    if (database) {
        const QString expression = formattedQueryFromQuery(query);
        try {
            SQLite::Statement statement(*database, contentLess_ ? contentLessQuery : contentFullQuery);
            statement.bind(1, utf8(expression));
            bool stopped = false;
            while (!stopped && statement.executeStep()) {
                QSet<unsigned> phrases = matchinfo.phrasesOfRow(statement.getColumn(1));
                std::size_t batchSize = 0;
                if (contentLess_) {
                    docIDBatch.emplace_back(statement.getColumn(0).getInt64(), std::move(phrases));
                    batchSize = docIDBatch.size();
                } else {
                    identifierBatch.emplace_back(columnText(statement.getColumn(0)), std::move(phrases));
                    batchSize = identifierBatch.size();
                }
                if (maximumBatchSize == 0 || batchSize < maximumBatchSize)
                    continue;
                if (flushBatch(*database) && results.size() >= qsizetype(maximumBatchSize))
                    stopped = !resultBlock(results, true);
            }
        } catch (const SQLite::Exception& exception) {
            // A malformed MATCH expression is refused on the first step; a damaged index on any.
            qCDebug(lcSearch).noquote() << nbFormat("query '%@' on search index '%@' stopped: %@", expression,
                                                    indexName(), QString::fromUtf8(exception.what()));
        }
        try {
            flushBatch(*database);
        } catch (const SQLite::Exception&) {
        }
    }
    return results;
}

NBSearchResultSet NBSQLiteFTS4SearchIndex::contentlessRelevantSearchResultsFromDocIDSet(
    SQLite::Database& database, const std::vector<std::pair<qint64, QSet<unsigned>>>& docIDs,
    unsigned phraseCount) {
    NBSearchResultSet results;
    if (docIDs.empty())
        return results;
    QStringList docIDTexts;
    docIDTexts.reserve(qsizetype(docIDs.size()));
    for (const auto& [docID, phrases] : docIDs)
        docIDTexts << QString::number(docID);
    // The identifiers the matched rows belong to.
    QStringList identifiers;
    {
        SQLite::Statement statement(database, utf8("SELECT identifier FROM SearchIdentifier WHERE rowID IN " +
                                                   quotedList(docIDTexts)));
        QSet<QString> seen;
        while (statement.executeStep()) {
            const QString identifier = columnText(statement.getColumn(0));
            if (!seen.contains(identifier)) {
                seen.insert(identifier);
                identifiers << identifier;
            }
        }
    }
    // The newest row of each: only it counts.
    QHash<qint64, QString> newestRows;
    {
        SQLite::Statement statement(
            database, utf8("SELECT rowid,identifier FROM SearchIdentifier WHERE identifier IN " +
                           quotedList(identifiers)));
        QHash<QString, qint64> newestRowByIdentifier;
        while (statement.executeStep()) {
            const qint64 rowID = statement.getColumn(0).getInt64();
            qint64& newest = newestRowByIdentifier[columnText(statement.getColumn(1))];
            newest = std::max(newest, rowID);
        }
        for (auto entry = newestRowByIdentifier.cbegin(); entry != newestRowByIdentifier.cend(); ++entry)
            newestRows.insert(entry.value(), entry.key());
    }
    const auto self = shared_from_this();
    for (const auto& [docID, phrases] : docIDs) {
        const auto newest = newestRows.constFind(docID);
        if (newest != newestRows.constEnd())
            results.append(NBSearchResult(self, newest.value(), phrases, phraseCount));
    }
    return results;
}
