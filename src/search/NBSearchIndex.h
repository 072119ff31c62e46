// NBSearchIndex: the common face of the full-text indexes. An index maps an opaque document identifier (a
// paragraph UUID, a document UUID, a metadata key) to text, and answers a query with the identifiers whose
// text matches, each with the query phrases it matched (NBSearchResult).
//
// The text given to an index is already in its search form (search/NBSearchNormalization.h): indexes store
// and match words as they are given. The class itself stores nothing: it cannot be created directly (its
// factories raise an assertion) and its own operations do nothing (adding and removing fail, a query
// answers at once with no result). NBSQLiteFTS4SearchIndex is the working kind.
//
// Queries are asynchronous: the result block receives the results found so far and whether more follow, and
// returns false to stop the search. searchResultsForQuery is the synchronous form, bounded by a time-out.
#pragma once

#include "search/NBSearchResult.h"

#include <QSet>
#include <QString>
#include <QUrl>
#include <QVariantMap>

#include <functional>
#include <memory>

// Creation option: a boolean, true for an index that keeps only the full-text index of its text, not the
// text itself (see NBSQLiteFTS4SearchIndex.h). Absent means false.
inline constexpr const char* kNBSearchIndexContentLessOption = "NBContentLess";

class NBSearchIndex : public std::enable_shared_from_this<NBSearchIndex> {
public:
    // Receives the results found so far (every call gets all of them, not only the new ones) and whether
    // more follow; returns true to go on, false to stop the search. After a stop one last call still comes,
    // with moreFollow false.
    using ResultBlock = std::function<bool(const NBSearchResultSet& results, bool moreFollow)>;

    // The base class cannot be created: these raise "NBSearchIndex is an abstract class that should not be
    // initialized directly: use a subclass." and return nothing. Each kind has its own factories.
    static std::shared_ptr<NBSearchIndex> inMemoryIndexWithName(const QString& name);
    static std::shared_ptr<NBSearchIndex> persistedIndexWithName(const QString& name, const QUrl& url);
    static std::shared_ptr<NBSearchIndex> persistedIndexWithName(const QString& name, const QUrl& url,
                                                                 const QVariantMap& options);

    virtual ~NBSearchIndex();
    NBSearchIndex(const NBSearchIndex&) = delete;
    NBSearchIndex& operator=(const NBSearchIndex&) = delete;

    // The name used in queue labels and descriptions.
    const QString& indexName() const { return indexName_; }
    // The database file; empty for an index in memory.
    const QUrl& url() const { return url_; }
    bool inMemory() const { return url_.isEmpty(); }
    const QVariantMap& options() const { return options_; }

    // Words a kind may leave out of its index. The FTS4 index does not consult them.
    QSet<QString> stopWords() const { return stopWords_; }
    void setStopWords(const QSet<QString>& stopWords) { stopWords_ = stopWords; }
    // Common English function words ("a", "an", "and", "any", "are", ...), and a longer list that adds
    // pronouns, auxiliary verbs and more prepositions.
    static const QSet<QString>& englishStopWords();
    static const QSet<QString>& englishStopWordsExtended();

    // Replaces the text of the document `identifier` (synchronous). The base class does nothing and
    // returns false.
    virtual bool addDocumentWithIdentifier(const QString& identifier, const QString& stringContent);
    // Removes the document (synchronous). The base class does nothing and returns false.
    virtual bool removeDocumentWithIdentifier(const QString& identifier);

    // Searches asynchronously; every result comes in one call (maximum batch size 0).
    void query(const QString& query, ResultBlock resultBlock);
    // Searches asynchronously. With a maximum batch size above 0 the block is called each time that many
    // more results were read, then once more at the end; with 0, once, with everything. `timeInterval` is
    // for kinds that deliver by time; the FTS4 index delivers by batch size only. The base class answers at
    // once, on the global queue, with no result and moreFollow false.
    virtual void query(const QString& query, double timeInterval, unsigned maximumBatchSize,
                       ResultBlock resultBlock);

    // Runs the query and waits for its results, at most `timeout` seconds; *didTimeout tells whether the
    // wait ran out (the results found until then are returned, and the search stops at its next batch).
    // Must not be called from the index's own queue, whose query could not start while it waits.
    NBSearchResultSet searchResultsForQuery(const QString& query, unsigned maximumBatchSize, double timeout,
                                            bool* didTimeout = nullptr);

    // Releases the index's resources (asynchronous). The base class does nothing.
    virtual void close();

    // "<ClassName:0x...> name: %@, url: %@"
    virtual QString description() const;
    virtual QString className() const { return QStringLiteral("NBSearchIndex"); }

protected:
    NBSearchIndex(const QString& name, const QUrl& url, const QVariantMap& options);

private:
    QString indexName_;
    QUrl url_;
    QVariantMap options_;
    QSet<QString> stopWords_;
};
