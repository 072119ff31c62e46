// NBSQLiteFTS4SearchIndex: a full-text index on an SQLite FTS4 table, in memory or in a database file.
//
// ON-DISK FORMAT (this file owns it). An index file is an SQLite 3 database in write-ahead-log mode (its
// "-wal" and "-shm" files lie beside it while it is open) with synchronous NORMAL: a commit is not synced to
// the disk, the log is at checkpoints, so a crash of the machine (not of the program) can lose the last
// commits but never damages the file. The index is derived data, and indexing a document is one
// transaction, so a syncing commit per document would cost the build its speed for nothing the owner
// cannot redo. The file holds one of two schemas, created on first open with exactly these statements:
//
//   Content-full (the default): the text is stored with its index, one row per identifier.
//     CREATE VIRTUAL TABLE IF NOT EXISTS SearchIndex USING fts4(identifier, content_to_index)
//
//   Content-less (option "NBContentLess" true): only the full-text index of the text is kept.
//     CREATE VIRTUAL TABLE IF NOT EXISTS SearchIndex USING fts4(content="", content_to_index)
//     CREATE TABLE IF NOT EXISTS SearchIdentifier (identifier)
//     CREATE INDEX IF NOT EXISTS SearchIdentifierIndex ON SearchIdentifier(identifier)
//   A row's rowid in SearchIdentifier is the docid of its text in SearchIndex. A content-less FTS4 table can
//   neither delete nor update, so text is only ever appended: adding an identifier again appends a row, and
//   removing it appends a row with empty text. Only the newest row (the largest rowid) of an identifier
//   counts; older rows stay behind, stale, and never produce a hit. Nothing compacts them: an owner that
//   wants the space back deletes the file and adds its documents again.
//
// The text in content_to_index is already in its search form (search/NBSearchNormalization.h): words of
// folded letters and digits separated by single spaces. No tokenizer is named, so FTS4's simple tokenizer
// splits it at spaces and punctuation, which is all the search form needs. Identifiers are opaque texts
// chosen by the owner.
//
// Validity and damage. The index is derived data: its owner can always build it again from the documents.
// A file that is not an SQLite database, holds another schema, is locked past the busy time-out or cannot
// be created leaves the index closed: adding and removing return false, queries find nothing, and the
// failure is logged ("could not open search index at path '%@': %@") each time an access tries to open it
// again. checkDatabaseWithError() tells the owner, who deletes the file and rebuilds. A half-copied or torn
// file is what SQLite's journal protects against; SQLite reports whatever it cannot read, and it counts as
// damaged here. The index never repairs or deletes a file itself.
//
// Queries. formattedQueryFromQuery() turns the user's query into an FTS4 MATCH expression: every word a
// prefix term, words joined by AND, a typed OR or AND kept as the operator, parentheses typed with spaces
// around them kept, and a query in quotation marks read as a list of prefixes that must all occur. The
// rewrites are literal text replacements kept exactly as listed in the .cpp, even where they leave an odd
// expression (a query ending in an operator, say): SQLite then refuses the expression as malformed and the
// query finds nothing. SQLite must be built with FTS4 and the parenthesis syntax (AND, OR, NOT and
// brackets); this is checked once, when the first index opens a database, and an SQLite without them is a
// broken installation (an assertion failure).
//
// Each result names the query phrases its row matched, read from matchinfo 'px' (see runQuery in the
// .cpp). The result block receives every result found so far in each call.
//
// Threads. Every statement runs on the index's own serial queue (`searchQueue`, label
// "<bundle identifier>.fts4-queue.<name>.<path components joined by '.'>"), so its one connection is never
// used from two threads. Adding and removing are synchronous, queries and closing asynchronous, and result
// blocks are called on the search queue. Adding or removing from inside a block running on the search queue
// (a transaction, say) runs at once, inside that block.
#pragma once

#include "dispatch/OAKDispatchQueue.h"
#include "foundation/NBError.h"
#include "search/NBSearchIndex.h"

#include <functional>
#include <memory>

namespace SQLite {
class Database;
}

// Error codes of NBSQLiteFTS4SearchIndex.
inline constexpr qint64 kNBSQLiteFTS4SearchIndexErrorOpen = 10;

class NBSQLiteFTS4SearchIndex : public NBSearchIndex {
public:
    // Receives the open database, or null when it cannot be opened.
    using DatabaseBlock = std::function<void(SQLite::Database* database)>;

    static std::shared_ptr<NBSQLiteFTS4SearchIndex> inMemoryIndexWithName(const QString& name);
    static std::shared_ptr<NBSQLiteFTS4SearchIndex> persistedIndexWithName(const QString& name,
                                                                           const QUrl& url);
    static std::shared_ptr<NBSQLiteFTS4SearchIndex>
    persistedIndexWithName(const QString& name, const QUrl& url, const QVariantMap& options);
    ~NBSQLiteFTS4SearchIndex() override;

    QString className() const override { return QStringLiteral("NBSQLiteFTS4SearchIndex"); }
    const std::shared_ptr<OAKDispatchQueue>& searchQueue() const { return searchQueue_; }
    bool contentLess() const { return contentLess_; }
    // ":memory:" for an index in memory, else the file's path.
    QString databasePath() const;

    // Content-full: replaces the identifier's row, or only removes it when the content is empty (and then
    // returns false). Content-less: appends a row for the identifier. False for an empty identifier.
    bool addDocumentWithIdentifier(const QString& identifier, const QString& stringContent) override;
    // Content-full: deletes the identifier's row. Content-less: adds it again with empty text; false when
    // it was never added. False for an empty identifier.
    bool removeDocumentWithIdentifier(const QString& identifier) override;

    using NBSearchIndex::query;
    void query(const QString& query, double timeInterval, unsigned maximumBatchSize,
               ResultBlock resultBlock) override;

    // Run `block` with the open database on the search queue (opening it first when needed). The
    // transaction form wraps the block in BEGIN and COMMIT; when the block throws, the transaction is rolled
    // back and the failure logged.
    void performTransactionAsynchronously(DatabaseBlock block);
    void accessSQLiteDBSynchronouslyWithBlock(const DatabaseBlock& block);
    void accessSQLiteDBAsynchronouslyWithBlock(DatabaseBlock block);

    // Opens the database now (synchronous) and tells whether it can be used; the error says why not.
    bool checkDatabaseWithError(NBError* outError = nullptr);

    // Closes the connection on the search queue (asynchronous); a later access opens it again. Row sets
    // still open are logged as unexpected and closed first. An index in memory loses its content.
    void close() override;

    // The FTS4 MATCH expression for what the user typed (see the header comment and the .cpp).
    static QString formattedQueryFromQuery(const QString& query);

    // The database while it is open, else null. Only on the search queue.
    SQLite::Database* database() const;

protected:
    NBSQLiteFTS4SearchIndex(const QString& name, const QUrl& url, const QVariantMap& options);

private:
    struct Private;
    // Search queue.
    SQLite::Database* openSQLiteDBIfNecessary(NBError* outError = nullptr);
    void closeSQLiteDB();
    bool addOnSearchQueue(const QString& identifier, const QString& content);
    bool removeOnSearchQueue(const QString& identifier);
    // Reads the rows, making the calls with moreFollow true, and returns every result.
    NBSearchResultSet runQuery(const QString& query, unsigned maximumBatchSize,
                               const ResultBlock& resultBlock);
    NBSearchResultSet
    contentlessRelevantSearchResultsFromDocIDSet(SQLite::Database& database,
                                                 const std::vector<std::pair<qint64, QSet<unsigned>>>& docIDs,
                                                 unsigned phraseCount);

    std::shared_ptr<OAKDispatchQueue> searchQueue_;
    bool contentLess_ = false;
    std::unique_ptr<Private> d;
};
