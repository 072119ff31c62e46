// NBSingleDocumentSearchIndex: finding text within one open document. An in-memory FTS4 index (content-full)
// of the document's metadata values and paragraphs, built on the first query and then kept current from
// the document's change and sync notifications.
//
// What is indexed, each under its own identifier, in its search form:
//   - the values of the metadata keys "title", "author", "summary", "categories", "aim", "conclusion" and
//     "projectTitle" (metadataKeys()), under the key itself: a text as it is, a list joined with spaces,
//     other values not at all;
//   - every paragraph, under its UUID: the plain text of its content markup. Day paragraphs are left out.
// Every other key of the document is either one of ignoredKeys() ("uuid", "layout", ...) or taken to be a
// paragraph UUID.
//
// Queries are those of the FTS4 index (pass the query through normalizedQueryForSearch first); the first
// one sets the index up. A paragraph stays in the index after it leaves the layout (the document's change
// says only that the layout changed), so results are filtered: an identifier that is neither a metadata key
// nor a paragraph of the current layout is dropped.
#pragma once

#include "document/NBDocument.h"
#include "foundation/NBNotificationCenter.h"
#include "search/NBSQLiteFTS4SearchIndex.h"

#include <QStringList>
#include <QVariant>

#include <atomic>
#include <memory>

class NBSingleDocumentSearchIndex : public NBSQLiteFTS4SearchIndex {
public:
    // An index named "<title> <UUID>" that keeps `document`.
    static std::shared_ptr<NBSingleDocumentSearchIndex>
    singleDocumentSearchIndexWithDocument(const std::shared_ptr<NBDocument>& document);
    ~NBSingleDocumentSearchIndex() override;

    QString className() const override { return QStringLiteral("NBSingleDocumentSearchIndex"); }
    const std::shared_ptr<NBDocument>& document() const { return document_; }

    static const QStringList& metadataKeys();
    static const QStringList& ignoredKeys();

    // Unless already done, indexes the document's values in one asynchronous transaction and starts
    // following its changes and syncs.
    void setUpAsynchronouslyIfNecessary();
    bool isSetUp() const { return setUp_.load(); }

    // Sets the index up first, then runs the ordinary query; results outside the current layout are left
    // out (see above).
    using NBSQLiteFTS4SearchIndex::query;
    void query(const QString& query, double timeInterval, unsigned maximumBatchSize,
               ResultBlock resultBlock) override;

    // Re-indexes what a change or sync notification of the document carries.
    void documentDidChange(const NBNotification& notification);
    // Stores the value's search form under the key (only when both are present).
    void indexMetadataValue(const QVariant& value, const QString& key);
    // Stores the search form of the paragraph's text under its UUID (only when the info is present and
    // makes a paragraph other than a day).
    void indexParagraphWithInfo(const QVariantMap& info, const QString& uuid);

private:
    NBSingleDocumentSearchIndex(const QString& name, std::shared_ptr<NBDocument> document);
    void indexValueForKey(const QVariant& value, const QString& key);

    std::shared_ptr<NBDocument> document_;
    std::atomic<bool> setUp_{false};
    std::atomic<bool> setUpStarted_{false};
    NBScopedObserver changeObserver_;
    NBScopedObserver syncObserver_;
};
