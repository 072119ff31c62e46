// Finding a query in the open document through its full-text index (see NBDocumentFinder.h).
#include "app/NBDocumentFinder.h"

#include "search/NBSearchNormalization.h"
#include "search/NBSearchQuery.h"
#include "search/NBSingleDocumentSearchIndex.h"

#include <algorithm>

NBDocumentFinder::NBDocumentFinder(const std::shared_ptr<NBDocument>& document, QObject* receiver)
    : index_(NBSingleDocumentSearchIndex::singleDocumentSearchIndexWithDocument(document)),
      delivery_(std::make_shared<Delivery>()) {
    // The index is set up by the first query, which reads the document as it is then.
    delivery_->receiver = receiver;
}

NBDocumentFinder::~NBDocumentFinder() {
    {
        std::lock_guard lock(delivery_->mutex);
        delivery_->receiver = nullptr;
    }
    if (index_)
        index_->close();
}

void NBDocumentFinder::findParagraphs(const QString& query, Completion completion) {
    const QString normalized = normalizedQueryForSearch(query);
    if (!index_ || normalized.trimmed().isEmpty()) {
        completion({});
        return;
    }
    std::weak_ptr<Delivery> delivery = delivery_;
    index_->query(normalized, [delivery, completion](const NBSearchResultSet& results, bool moreFollow) {
        if (moreFollow)
            return true;
        QStringList uuids;
        for (const NBSearchResult& result : results)
            if (!NBSingleDocumentSearchIndex::metadataKeys().contains(result.documentIdentifier()))
                uuids << result.documentIdentifier();
        const std::shared_ptr<Delivery> target = delivery.lock();
        if (!target)
            return false;
        std::lock_guard lock(target->mutex);
        if (target->receiver)
            QMetaObject::invokeMethod(
                target->receiver, [completion, uuids] { completion(uuids); }, Qt::QueuedConnection);
        return false;
    });
}

void NBDocumentFinder::indexParagraphs(const QList<NBParagraph>& paragraphs) {
    if (!index_ || !index_->isSetUp())
        return;
    for (const NBParagraph& paragraph : paragraphs)
        index_->indexParagraphWithInfo(paragraph.info(), paragraph.uuid());
}

QStringList NBDocumentFinder::searchTokensForQuery(const QString& query) {
    return ::searchTokensForQuery(query);
}

QList<NBTextRange> NBDocumentFinder::highlightRanges(const QString& text, const QStringList& searchTokens) {
    QList<NBTextRange> ranges = rangesForSearchTokens(text, searchTokens);
    std::sort(ranges.begin(), ranges.end(),
              [](const NBTextRange& a, const NBTextRange& b) { return a.location < b.location; });
    return ranges;
}
