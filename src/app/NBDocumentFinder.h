// NBDocumentFinder: what the editor's find bar asks to find a query's paragraphs in the open document, and
// the stretches of a paragraph's text to highlight.
//
// NBPlainScanDocumentFinder answers by scanning the paragraphs it is handed in their search form
// (search/NBSearchNormalization.h): a paragraph matches when each word of the query begins a word of its
// text, as the full-text indexes match prefixes.
#pragma once

#include "foundation/NBTextRange.h"

#include <QList>
#include <QPair>
#include <QString>
#include <QStringList>

#include <functional>

class NBDocumentFinder {
public:
    // The paragraphs (UUID and plain text) a finder searches, in document order.
    using ParagraphTexts = QList<QPair<QString, QString>>;
    using Completion = std::function<void(const QStringList& paragraphUUIDs)>;

    virtual ~NBDocumentFinder() = default;
    // Calls `completion` once, on the calling thread's event loop or at once, with the UUIDs of the
    // paragraphs that match `query`, in document order.
    virtual void findParagraphs(const QString& query, const ParagraphTexts& paragraphs,
                                Completion completion) = 0;

    // The query's words in search form.
    static QStringList searchTokensForQuery(const QString& query);
    // The stretches of `text` to highlight for the query's words.
    static QList<NBTextRange> highlightRanges(const QString& text, const QStringList& searchTokens);
};

class NBPlainScanDocumentFinder : public NBDocumentFinder {
public:
    void findParagraphs(const QString& query, const ParagraphTexts& paragraphs,
                        Completion completion) override;
    static bool textMatchesTokens(const QString& text, const QStringList& searchTokens);
};
