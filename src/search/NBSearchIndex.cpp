// The base search index (its refusal to be created, its empty answers, the synchronous query over the
// asynchronous one, the stop-word lists) and the search result.
#include "search/NBSearchIndex.h"

#include "dispatch/OAKDispatchQueue.h"
#include "search/NBSearchLogging.h"
#include "search/NBSearchResultCollector.h"

#include <QStringList>

#include <algorithm>

// ---- NBSearchResult ----

NBSearchResult::NBSearchResult(const std::shared_ptr<NBSearchIndex>& searchIndex, QString documentIdentifier,
                               QSet<unsigned> phraseMatchIndexes, unsigned phraseCount)
    : searchIndex_(searchIndex), documentIdentifier_(std::move(documentIdentifier)),
      phraseMatchIndexes_(std::move(phraseMatchIndexes)), phraseCount_(phraseCount) {}

QString NBSearchResult::description() const {
    QList<unsigned> phrases = phraseMatchIndexes_.values();
    std::sort(phrases.begin(), phrases.end());
    QStringList phraseTexts;
    for (const unsigned phrase : phrases)
        phraseTexts << QString::number(phrase);
    return nbFormat("<NBSearchResult> = identifier: %@, phrases: %@ of %@", documentIdentifier_,
                    "{" + phraseTexts.join(", ") + "}", QString::number(phraseCount_));
}

bool NBSearchResult::operator==(const NBSearchResult& other) const {
    return !searchIndex_.owner_before(other.searchIndex_) && !other.searchIndex_.owner_before(searchIndex_) &&
           documentIdentifier_ == other.documentIdentifier_ &&
           phraseMatchIndexes_ == other.phraseMatchIndexes_ && phraseCount_ == other.phraseCount_;
}

// ---- NBSearchIndex ----

namespace {

const char* const abstractClassMessage =
    "NBSearchIndex is an abstract class that should not be initialized directly: use a subclass.";

QSet<QString> setOfWords(const char* words) {
    const QStringList list = QString::fromUtf8(words).split(u' ', Qt::SkipEmptyParts);
    return QSet<QString>(list.begin(), list.end());
}

} // namespace

NBSearchIndex::NBSearchIndex(const QString& name, const QUrl& url, const QVariantMap& options)
    : indexName_(name), url_(url), options_(options) {}

NBSearchIndex::~NBSearchIndex() = default;

std::shared_ptr<NBSearchIndex> NBSearchIndex::inMemoryIndexWithName(const QString& name) {
    return persistedIndexWithName(name, QUrl(), {});
}

std::shared_ptr<NBSearchIndex> NBSearchIndex::persistedIndexWithName(const QString& name, const QUrl& url) {
    return persistedIndexWithName(name, url, {});
}

std::shared_ptr<NBSearchIndex> NBSearchIndex::persistedIndexWithName(const QString&, const QUrl&,
                                                                     const QVariantMap&) {
    nbRaiseAssertion(lcSearch(), QString::fromUtf8(abstractClassMessage));
    return nullptr;
}

const QSet<QString>& NBSearchIndex::englishStopWords() {
    static const QSet<QString> words =
        setOfWords("a an and any are as at be but by for from had has have he her his if in into is it its "
                   "no not of on or she so such that the their them then there these they this those to was "
                   "were which will with");
    return words;
}

const QSet<QString>& NBSearchIndex::englishStopWordsExtended() {
    static const QSet<QString> words = [] {
        QSet<QString> extended = englishStopWords();
        extended.unite(setOfWords(
            "about above after again against all also am among another been before being below between both "
            "can cannot could did do does doing down during each either every few further having here hers "
            "herself him himself how i itself just may me might more most must my myself neither nor now "
            "off once only other others our ours ourselves out over own same shall should since some than "
            "theirs themselves though through thus too under until up upon very via we what whatever when "
            "where whether while who whom whose why within without would yet you your yours yourself "
            "yourselves"));
        return extended;
    }();
    return words;
}

bool NBSearchIndex::addDocumentWithIdentifier(const QString&, const QString&) {
    return false;
}

bool NBSearchIndex::removeDocumentWithIdentifier(const QString&) {
    return false;
}

void NBSearchIndex::query(const QString& query, ResultBlock resultBlock) {
    this->query(query, 0, 0, std::move(resultBlock));
}

void NBSearchIndex::query(const QString&, double, unsigned, ResultBlock resultBlock) {
    OAKDispatchQueue::globalDispatchQueue()->dispatchAsynchronously(
        [resultBlock = std::move(resultBlock)] { resultBlock({}, false); });
}

NBSearchResultSet NBSearchIndex::searchResultsForQuery(const QString& query, unsigned maximumBatchSize,
                                                       double timeout, bool* didTimeout) {
    NBSearchResultCollector<NBSearchResultSet> collector;
    this->query(query, 0, maximumBatchSize, collector.resultBlock());
    return collector.waitForResults(timeout, didTimeout);
}

void NBSearchIndex::close() {}

QString NBSearchIndex::description() const {
    return nbFormat("<%@:0x%@> name: %@, url: %@", className(),
                    QString::number(reinterpret_cast<quintptr>(this), 16), indexName_,
                    inMemory() ? QStringLiteral("(in memory)") : url_.toString());
}
