// Finding a query in the open document by a scan of its paragraphs in search form (see NBDocumentFinder.h).
#include "app/NBDocumentFinder.h"

#include "search/NBSearchNormalization.h"

QStringList NBDocumentFinder::searchTokensForQuery(const QString& query) {
    return normalizedStringForSearch(query).split(QLatin1Char(' '), Qt::SkipEmptyParts);
}

QList<NBTextRange> NBDocumentFinder::highlightRanges(const QString& text, const QStringList& searchTokens) {
    QList<NBTextRange> ranges = rangesForSearchTokens(text, searchTokens);
    std::sort(ranges.begin(), ranges.end(),
              [](const NBTextRange& a, const NBTextRange& b) { return a.location < b.location; });
    return ranges;
}

bool NBPlainScanDocumentFinder::textMatchesTokens(const QString& text, const QStringList& searchTokens) {
    if (searchTokens.isEmpty())
        return false;
    const QStringList words = normalizedStringForSearch(text).split(QLatin1Char(' '), Qt::SkipEmptyParts);
    for (const QString& token : searchTokens) {
        const bool found = std::any_of(words.begin(), words.end(),
                                       [&](const QString& word) { return word.startsWith(token); });
        if (!found)
            return false;
    }
    return true;
}

void NBPlainScanDocumentFinder::findParagraphs(const QString& query, const ParagraphTexts& paragraphs,
                                               Completion completion) {
    const QStringList tokens = searchTokensForQuery(query);
    QStringList found;
    for (const auto& [uuid, text] : paragraphs)
        if (textMatchesTokens(text, tokens))
            found << uuid;
    completion(found);
}
