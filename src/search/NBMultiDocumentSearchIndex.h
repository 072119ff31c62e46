// NBMultiDocumentSearchIndex: the paragraphs of many documents in one full-text index, and
// NBDocumentSearchResult, the hits of one document grouped by paragraph.
//
// ON-DISK FORMAT (this file owns it; the tables are those of a content-less NBSQLiteFTS4SearchIndex, whose
// header documents them). A multi-document index file is an SQLite 3 database with
//
//   SearchIndex       FTS4, content-less: the full-text index of each row's text (its docid is the rowid of
//                     the row's SearchIdentifier entry);
//   SearchIdentifier  (identifier) with the index SearchIdentifierIndex: one entry per row, in the order
//                     the rows were added.
//
// Each row is one paragraph of one document, under the identifier
//
//   "<document UUID>/<paragraph UUID>"
//
// (the document UUID never holds "/", so the identifier splits at its first "/", and the rows of one
// document are the identifiers from "<document UUID>/" up to, not including, "<document UUID>0", a range
// that SearchIdentifierIndex serves). The text is the search form of the paragraph's plain text. Day
// paragraphs have no row: their text is a localised date, which would differ between devices. A document's
// metadata can be kept as a paragraph of its own (the search service uses the paragraph UUID "metadata").
//
// Rows are only ever appended. Adding a paragraph again appends its new text; removing a paragraph, or a
// whole document, appends an empty row for each identifier concerned. Only the newest row of an identifier
// counts: older rows are stale and never produce a hit, so a removed paragraph or document is never found
// again, although its old rows stay in the file. staleRowCount() counts the rows that are not the newest
// of their identifier; an owner that wants the space back deletes the file and adds its documents again.
//
// Validity and damage: as for NBSQLiteFTS4SearchIndex. A file that cannot be opened as such an index leaves
// the index closed (adding fails, queries find nothing); checkDatabaseWithError() tells the owner, who
// deletes the file and rebuilds it from the documents. The index is derived data and never the only copy of
// anything.
//
// Queries take what the user typed: the words are normalised (search/NBSearchQuery.h) and the query is
// formatted as the FTS4 index formats it, so every word is a prefix and words joined by a space must all
// occur in one paragraph. Results come grouped by document, in the order in which each document's first hit
// was found, each with its paragraphs in the order found. Like the FTS4 index's result block, the block here
// receives everything found so far in each call.
//
// Threads: every operation may be called from any thread; the work runs on the FTS4 index's search queue.
#pragma once

#include "document/NBParagraph.h"
#include "search/NBSQLiteFTS4SearchIndex.h"

#include <QList>
#include <QSet>
#include <QString>
#include <QUrl>

#include <functional>
#include <memory>
#include <utility>
#include <vector>

// One paragraph that matched, and the query phrases it holds.
struct NBParagraphSearchHit {
    QString paragraphUUID;
    QSet<unsigned> phraseMatchIndexes;
    bool operator==(const NBParagraphSearchHit&) const = default;
};

// The hits of one document.
class NBDocumentSearchResult {
public:
    QString documentUUID;
    // The matching paragraphs, in the order found.
    QList<NBParagraphSearchHit> paragraphs;
    // The query phrases that some paragraph of the document holds.
    QSet<unsigned> phraseMatchIndexes;
    // How many phrases the query had (0 when the index could not tell).
    unsigned phraseCount = 0;

    // "<NBDocumentSearchResult> = document: %@, paragraphs: %@, phrases: %@ of %@"
    QString description() const;
    bool operator==(const NBDocumentSearchResult&) const = default;
};

class NBMultiDocumentSearchIndex : public std::enable_shared_from_this<NBMultiDocumentSearchIndex> {
public:
    // Receives every document found so far and whether more follow; returns false to stop the search (one
    // last call with moreFollow false still comes).
    using ResultBlock = std::function<bool(const QList<NBDocumentSearchResult>& results, bool moreFollow)>;

    static std::shared_ptr<NBMultiDocumentSearchIndex> inMemoryIndexWithName(const QString& name);
    static std::shared_ptr<NBMultiDocumentSearchIndex> persistedIndexWithName(const QString& name,
                                                                              const QUrl& url);

    const QString& indexName() const { return searchIndex_->indexName(); }
    const std::shared_ptr<NBSQLiteFTS4SearchIndex>& searchIndex() const { return searchIndex_; }

    // The identifier of a paragraph's rows, and its parts (false when `identifier` is not of this form).
    static QString identifierForParagraph(const QString& paragraphUUID, const QString& documentUUID);
    static bool paragraphAndDocumentUUIDsFromIdentifier(const QString& identifier, QString* paragraphUUID,
                                                        QString* documentUUID);
    // The text a paragraph is indexed under: the search form of its plain text; empty for a day.
    static QString searchTextForParagraph(const NBParagraph& paragraph);

    // Indexes the paragraph's current text for the document (a day, or a paragraph whose text is empty,
    // is removed instead). False for an empty paragraph or document UUID, a document UUID holding "/", or
    // when the index cannot be written.
    bool addParagraph(const NBParagraph& paragraph, const QString& documentUUID);
    // The same for several paragraphs of one document, in one transaction (what indexing a whole document
    // should use: much faster than one call per paragraph).
    bool addParagraphs(const QList<NBParagraph>& paragraphs, const QString& documentUUID);
    // The paragraphs of several documents (document UUID, paragraphs), in one transaction: what building an
    // index from scratch should use. Larger transactions leave FTS4 fewer small segments to merge: indexing
    // a hundred documents at a time is about 1.4 times as fast as one at a time (see BENCHMARKS.md). Nothing
    // is written when one document UUID or paragraph is refused.
    bool addParagraphsOfDocuments(const std::vector<std::pair<QString, QList<NBParagraph>>>& documents);
    // False when the paragraph was never indexed for the document.
    bool removeParagraphWithUUID(const QString& paragraphUUID, const QString& documentUUID);
    // Removes every paragraph of the document, in one transaction. True when there was nothing to remove.
    bool removeDocumentWithUUID(const QString& documentUUID);

    // How many rows of the index are not the newest of their identifier (older texts of paragraphs): the
    // space that rebuilding the file would give back.
    qint64 staleRowCount();

    // Searches asynchronously for what the user typed; the block is called on the search queue, with a
    // maximum batch size as for the FTS4 index (0: once, with everything).
    void query(const QString& query, unsigned maximumBatchSize, ResultBlock resultBlock);
    // The synchronous form, waiting at most `timeout` seconds.
    QList<NBDocumentSearchResult> searchResultsForQuery(const QString& query, double timeout,
                                                        bool* didTimeout = nullptr);

    bool checkDatabaseWithError(NBError* outError = nullptr) {
        return searchIndex_->checkDatabaseWithError(outError);
    }
    void close() { searchIndex_->close(); }

private:
    explicit NBMultiDocumentSearchIndex(std::shared_ptr<NBSQLiteFTS4SearchIndex> searchIndex);
    static bool isValidDocumentUUID(const QString& documentUUID);
    // Search queue: adds or removes one paragraph.
    bool indexParagraphOnSearchQueue(const NBParagraph& paragraph, const QString& documentUUID);
    // Runs `write` in one transaction on the search queue, committed only when it returns true; a failure is
    // logged as "could not <what> in search index ...".
    bool writeInTransaction(const QString& what, const std::function<bool(SQLite::Database&)>& write);
    // Search queue: the identifiers that have rows for the document.
    QStringList identifiersOfDocument(SQLite::Database& database, const QString& documentUUID);

    std::shared_ptr<NBSQLiteFTS4SearchIndex> searchIndex_;
};
