// The multi-document index: paragraph rows under "<document UUID>/<paragraph UUID>" in a content-less FTS4
// index, and the grouping of hits by document (the format is in the header).
#include "search/NBMultiDocumentSearchIndex.h"

#include "search/NBSearchLogging.h"
#include "search/NBSearchNormalization.h"
#include "search/NBSearchQuery.h"
#include "search/NBSearchResultCollector.h"

#include <SQLiteCpp/SQLiteCpp.h>

#include <QHash>

#include <algorithm>

namespace {

constexpr QChar identifierSeparator = u'/';

QString phraseList(const QSet<unsigned>& phrases) {
    QList<unsigned> sorted = phrases.values();
    std::sort(sorted.begin(), sorted.end());
    QStringList texts;
    for (const unsigned phrase : sorted)
        texts << QString::number(phrase);
    return "{" + texts.join(", ") + "}";
}

} // namespace

QString NBDocumentSearchResult::description() const {
    QStringList paragraphTexts;
    for (const NBParagraphSearchHit& hit : paragraphs)
        paragraphTexts << hit.paragraphUUID + " " + phraseList(hit.phraseMatchIndexes);
    return nbFormat("<NBDocumentSearchResult> = document: %@, paragraphs: %@, phrases: %@ of %@",
                    documentUUID, "(" + paragraphTexts.join(", ") + ")", phraseList(phraseMatchIndexes),
                    QString::number(phraseCount));
}

NBMultiDocumentSearchIndex::NBMultiDocumentSearchIndex(std::shared_ptr<NBSQLiteFTS4SearchIndex> searchIndex)
    : searchIndex_(std::move(searchIndex)) {}

std::shared_ptr<NBMultiDocumentSearchIndex>
NBMultiDocumentSearchIndex::inMemoryIndexWithName(const QString& name) {
    return persistedIndexWithName(name, QUrl());
}

std::shared_ptr<NBMultiDocumentSearchIndex>
NBMultiDocumentSearchIndex::persistedIndexWithName(const QString& name, const QUrl& url) {
    const QVariantMap options = {{QString::fromUtf8(kNBSearchIndexContentLessOption), true}};
    return std::shared_ptr<NBMultiDocumentSearchIndex>(
        new NBMultiDocumentSearchIndex(NBSQLiteFTS4SearchIndex::persistedIndexWithName(name, url, options)));
}

QString NBMultiDocumentSearchIndex::identifierForParagraph(const QString& paragraphUUID,
                                                           const QString& documentUUID) {
    return documentUUID + identifierSeparator + paragraphUUID;
}

bool NBMultiDocumentSearchIndex::paragraphAndDocumentUUIDsFromIdentifier(const QString& identifier,
                                                                         QString* paragraphUUID,
                                                                         QString* documentUUID) {
    const qsizetype separator = identifier.indexOf(identifierSeparator);
    if (separator <= 0 || separator + 1 >= identifier.size())
        return false;
    if (documentUUID)
        *documentUUID = identifier.left(separator);
    if (paragraphUUID)
        *paragraphUUID = identifier.mid(separator + 1);
    return true;
}

QString NBMultiDocumentSearchIndex::searchTextForParagraph(const NBParagraph& paragraph) {
    if (paragraph.isDayType())
        return {};
    return normalizedStringForSearch(paragraph.plainTextContent());
}

bool NBMultiDocumentSearchIndex::isValidDocumentUUID(const QString& documentUUID) {
    return !documentUUID.isEmpty() && !documentUUID.contains(identifierSeparator);
}

bool NBMultiDocumentSearchIndex::indexParagraphOnSearchQueue(const NBParagraph& paragraph,
                                                             const QString& documentUUID) {
    const QString identifier = identifierForParagraph(paragraph.uuid(), documentUUID);
    const QString text = searchTextForParagraph(paragraph);
    if (text.isEmpty()) {
        // Nothing to find in it: its earlier text, if any, must not be found either.
        searchIndex_->removeDocumentWithIdentifier(identifier);
        return true;
    }
    return searchIndex_->addDocumentWithIdentifier(identifier, text);
}

bool NBMultiDocumentSearchIndex::addParagraph(const NBParagraph& paragraph, const QString& documentUUID) {
    return addParagraphs({paragraph}, documentUUID);
}

bool NBMultiDocumentSearchIndex::addParagraphs(const QList<NBParagraph>& paragraphs,
                                               const QString& documentUUID) {
    return addParagraphsOfDocuments({{documentUUID, paragraphs}});
}

bool NBMultiDocumentSearchIndex::addParagraphsOfDocuments(
    const std::vector<std::pair<QString, QList<NBParagraph>>>& documents) {
    for (const auto& [documentUUID, paragraphs] : documents) {
        if (!isValidDocumentUUID(documentUUID))
            return false;
        for (const NBParagraph& paragraph : paragraphs) {
            if (paragraph.uuid().isEmpty())
                return false;
        }
    }
    return writeInTransaction(QStringLiteral("index paragraphs"), [&](SQLite::Database&) {
        bool indexed = true;
        for (const auto& [documentUUID, paragraphs] : documents) {
            for (const NBParagraph& paragraph : paragraphs)
                indexed = indexParagraphOnSearchQueue(paragraph, documentUUID) && indexed;
        }
        return indexed;
    });
}

bool NBMultiDocumentSearchIndex::writeInTransaction(const QString& what,
                                                    const std::function<bool(SQLite::Database&)>& write) {
    bool written = false;
    searchIndex_->accessSQLiteDBSynchronouslyWithBlock([&](SQLite::Database* database) {
        if (!database)
            return;
        try {
            SQLite::Transaction transaction(*database);
            written = write(*database);
            if (written)
                transaction.commit();
        } catch (const SQLite::Exception& exception) {
            written = false;
            qCWarning(lcSearch).noquote() << nbFormat("could not %@ in search index '%@': %@", what,
                                                      indexName(), QString::fromUtf8(exception.what()));
        }
    });
    return written;
}

bool NBMultiDocumentSearchIndex::removeParagraphWithUUID(const QString& paragraphUUID,
                                                         const QString& documentUUID) {
    if (paragraphUUID.isEmpty() || !isValidDocumentUUID(documentUUID))
        return false;
    return searchIndex_->removeDocumentWithIdentifier(identifierForParagraph(paragraphUUID, documentUUID));
}

QStringList NBMultiDocumentSearchIndex::identifiersOfDocument(SQLite::Database& database,
                                                              const QString& documentUUID) {
    SQLite::Statement select(database, "SELECT DISTINCT identifier FROM SearchIdentifier "
                                       "WHERE identifier >= ? AND identifier < ?");
    // The identifiers that begin with "<document UUID>/": the separator's successor ends the range.
    select.bind(1, (documentUUID + identifierSeparator).toStdString());
    select.bind(2, (documentUUID + QChar(identifierSeparator.unicode() + 1)).toStdString());
    QStringList identifiers;
    while (select.executeStep())
        identifiers << QString::fromUtf8(select.getColumn(0).getText());
    return identifiers;
}

bool NBMultiDocumentSearchIndex::removeDocumentWithUUID(const QString& documentUUID) {
    if (!isValidDocumentUUID(documentUUID))
        return false;
    return writeInTransaction("remove document " + documentUUID, [&](SQLite::Database& database) {
        bool removed = true;
        for (const QString& identifier : identifiersOfDocument(database, documentUUID))
            removed = searchIndex_->removeDocumentWithIdentifier(identifier) && removed;
        return removed;
    });
}

qint64 NBMultiDocumentSearchIndex::staleRowCount() {
    qint64 count = 0;
    searchIndex_->accessSQLiteDBSynchronouslyWithBlock([&](SQLite::Database* database) {
        if (!database)
            return;
        try {
            SQLite::Statement select(*database,
                                     "SELECT count(*) - count(DISTINCT identifier) FROM SearchIdentifier");
            if (select.executeStep())
                count = select.getColumn(0).getInt64();
        } catch (const SQLite::Exception&) {
        }
    });
    return count;
}

void NBMultiDocumentSearchIndex::query(const QString& query, unsigned maximumBatchSize,
                                       ResultBlock resultBlock) {
    // The grouping of the results so far: the FTS4 index hands every result so far in each call, in the same
    // order, so only the ones after those already grouped are new.
    struct Grouping {
        QList<NBDocumentSearchResult> documents;
        QHash<QString, qsizetype> documentIndexes;
        qsizetype groupedResultCount = 0;
    };
    auto grouping = std::make_shared<Grouping>();
    searchIndex_->query(
        normalizedQueryForSearch(query), 0, maximumBatchSize,
        [grouping, resultBlock = std::move(resultBlock)](const NBSearchResultSet& results, bool moreFollow) {
            for (qsizetype index = grouping->groupedResultCount; index < results.size(); ++index) {
                const NBSearchResult& result = results[index];
                QString paragraphUUID;
                QString documentUUID;
                if (!paragraphAndDocumentUUIDsFromIdentifier(result.documentIdentifier(), &paragraphUUID,
                                                             &documentUUID))
                    continue;
                auto found = grouping->documentIndexes.constFind(documentUUID);
                if (found == grouping->documentIndexes.constEnd()) {
                    found = grouping->documentIndexes.insert(documentUUID, grouping->documents.size());
                    NBDocumentSearchResult document;
                    document.documentUUID = documentUUID;
                    grouping->documents.append(std::move(document));
                }
                NBDocumentSearchResult& document = grouping->documents[found.value()];
                document.paragraphs.append({paragraphUUID, result.phraseMatchIndexes()});
                document.phraseMatchIndexes.unite(result.phraseMatchIndexes());
                document.phraseCount = result.phraseCount();
            }
            grouping->groupedResultCount = results.size();
            return resultBlock(grouping->documents, moreFollow);
        });
}

QList<NBDocumentSearchResult>
NBMultiDocumentSearchIndex::searchResultsForQuery(const QString& query, double timeout, bool* didTimeout) {
    NBSearchResultCollector<QList<NBDocumentSearchResult>> collector;
    this->query(query, 0, collector.resultBlock());
    return collector.waitForResults(timeout, didTimeout);
}
