// Finding text within one open document: setting the index up from the document's values, following its
// changes, and leaving paragraphs outside the current layout out of the results.
#include "search/NBSingleDocumentSearchIndex.h"

#include "search/NBSearchLogging.h"
#include "search/NBSearchNormalization.h"
#include "store/OAKStore.h"
#include "text/NBStyledString.h"

#include <QSet>

std::shared_ptr<NBSingleDocumentSearchIndex>
NBSingleDocumentSearchIndex::singleDocumentSearchIndexWithDocument(
    const std::shared_ptr<NBDocument>& document) {
    if (!document)
        return nullptr;
    const QString name = nbFormat("%@ %@", document->title(), document->uuid());
    return std::shared_ptr<NBSingleDocumentSearchIndex>(new NBSingleDocumentSearchIndex(name, document));
}

NBSingleDocumentSearchIndex::NBSingleDocumentSearchIndex(const QString& name,
                                                         std::shared_ptr<NBDocument> document)
    : NBSQLiteFTS4SearchIndex(name, QUrl(), {}), document_(std::move(document)) {}

NBSingleDocumentSearchIndex::~NBSingleDocumentSearchIndex() {
    // Stop following the document before the index goes away.
    changeObserver_.reset();
    syncObserver_.reset();
}

const QStringList& NBSingleDocumentSearchIndex::metadataKeys() {
    static const QStringList keys = {"title", "author",     "summary",     "categories",
                                     "aim",   "conclusion", "projectTitle"};
    return keys;
}

const QStringList& NBSingleDocumentSearchIndex::ignoredKeys() {
    static const QStringList keys = {
        "uuid",         "layout", "parents", "children",    "connections",
        "vignetteUUID", "rating", "done",    "projectUUID", "doneParagraphUUIDs"};
    return keys;
}

void NBSingleDocumentSearchIndex::setUpAsynchronouslyIfNecessary() {
    if (setUpStarted_.exchange(true))
        return;
    auto self = std::static_pointer_cast<NBSingleDocumentSearchIndex>(shared_from_this());
    performTransactionAsynchronously([self](SQLite::Database*) {
        // Follow the document before reading its values: a change made after the reading is then always
        // indexed too, after this transaction (its re-indexing waits for the search queue), so the index ends
        // with the newest value. The observers hold the index weakly; it stops observing when it goes away.
        const std::weak_ptr<NBSingleDocumentSearchIndex> weakSelf = self;
        const auto followChange = [weakSelf](const NBNotification& notification) {
            if (const auto index = weakSelf.lock())
                index->documentDidChange(notification);
        };
        const void* sender = static_cast<const OAKStore*>(self->document_.get());
        NBNotificationCenter& center = NBNotificationCenter::defaultCenter();
        self->changeObserver_ = NBScopedObserver(
            center, center.addObserverForName(QString::fromUtf8(OAKStoreDidChangeNotification), sender,
                                              followChange));
        self->syncObserver_ =
            NBScopedObserver(center, center.addObserverForName(QString::fromUtf8(OAKStoreDidSyncNotification),
                                                               sender, followChange));
        const QVariantMap values = self->document_->allRelevantValues();
        for (auto entry = values.begin(); entry != values.end(); ++entry)
            self->indexValueForKey(entry.value(), entry.key());
        self->setUp_ = true;
    });
}

void NBSingleDocumentSearchIndex::indexValueForKey(const QVariant& value, const QString& key) {
    if (metadataKeys().contains(key))
        indexMetadataValue(value, key);
    else if (!ignoredKeys().contains(key))
        indexParagraphWithInfo(value.toMap(), key);
}

void NBSingleDocumentSearchIndex::documentDidChange(const NBNotification& notification) {
    const QVariantMap values = notification.userInfo.value(QString::fromUtf8(OAKStoreValuesKey)).toMap();
    for (auto entry = values.begin(); entry != values.end(); ++entry)
        indexValueForKey(entry.value(), entry.key());
}

void NBSingleDocumentSearchIndex::indexMetadataValue(const QVariant& value, const QString& key) {
    if (!value.isValid() || value.isNull() || key.isEmpty())
        return;
    QString text;
    if (value.typeId() == QMetaType::QString) {
        text = value.toString();
    } else if (value.typeId() == QMetaType::QVariantList || value.typeId() == QMetaType::QStringList) {
        text = value.toStringList().join(u' ');
    } else if (value.typeId() == QMetaType::QVariantMap) {
        QStringList objects;
        for (const QVariant& object : value.toMap())
            objects << object.toString();
        text = objects.join(u' ');
    } else {
        return;
    }
    addDocumentWithIdentifier(key, normalizedStringForSearch(text));
}

void NBSingleDocumentSearchIndex::indexParagraphWithInfo(const QVariantMap& info, const QString& uuid) {
    if (info.isEmpty())
        return;
    const std::optional<NBParagraph> paragraph = NBParagraph::paragraphWithUUID(uuid, info);
    if (!paragraph || paragraph->isDayType())
        return;
    const QString text = NBStyledString::styledStringFromMarkupString(paragraph->content()).string();
    addDocumentWithIdentifier(uuid, normalizedStringForSearch(text));
}

void NBSingleDocumentSearchIndex::query(const QString& query, double timeInterval, unsigned maximumBatchSize,
                                        ResultBlock resultBlock) {
    setUpAsynchronouslyIfNecessary();
    // The layout is read once, on the search queue, when the first results come.
    struct Filter {
        std::optional<QSet<QString>> layout;
        NBSearchResultSet kept;
        qsizetype filteredCount = 0;
    };
    auto filter = std::make_shared<Filter>();
    NBSQLiteFTS4SearchIndex::query(
        query, timeInterval, maximumBatchSize,
        [weakDocument = std::weak_ptr<NBDocument>(document_), filter,
         resultBlock = std::move(resultBlock)](const NBSearchResultSet& results, bool moreFollow) {
            if (!filter->layout) {
                const auto document = weakDocument.lock();
                const QStringList layout = document ? document->layout() : QStringList();
                filter->layout = QSet<QString>(layout.begin(), layout.end());
            }
            for (qsizetype index = filter->filteredCount; index < results.size(); ++index) {
                const QString& identifier = results[index].documentIdentifier();
                if (metadataKeys().contains(identifier) || filter->layout->contains(identifier))
                    filter->kept.append(results[index]);
            }
            filter->filteredCount = results.size();
            return resultBlock(filter->kept, moreFollow);
        });
}
