// NBDocumentFinder: finding a query's paragraphs in the open document for the editor's find bar, through
// the document's own full-text index (NBSingleDocumentSearchIndex, which follows the document's edits and
// syncs), and the stretches of a paragraph's text to highlight.
//
// Queries are what the user types: words found by their beginnings, OR and parentheses as typed, a quoted
// query for paragraphs holding every word (search/NBSearchQuery.h). The index holds what the document
// holds, so the editor writes pending typing before it asks.
#pragma once

#include "foundation/NBTextRange.h"

#include <QObject>
#include <QString>
#include <QStringList>

#include <functional>
#include <memory>
#include <mutex>

class NBDocument;
class NBParagraph;
class NBSingleDocumentSearchIndex;

class NBDocumentFinder {
public:
    using Completion = std::function<void(const QStringList& paragraphUUIDs)>;

    // A finder over `document`'s index; completions are delivered on `receiver`'s thread while it lives.
    NBDocumentFinder(const std::shared_ptr<NBDocument>& document, QObject* receiver);
    ~NBDocumentFinder();
    NBDocumentFinder(const NBDocumentFinder&) = delete;
    NBDocumentFinder& operator=(const NBDocumentFinder&) = delete;

    // Calls `completion` once, later, with the UUIDs of the paragraphs that match `query` (in no particular
    // order; the editor orders them by the layout). Metadata hits are left out.
    void findParagraphs(const QString& query, Completion completion);

    // Indexes paragraphs the editor has just written, so that a query that follows finds them at once
    // (the index would otherwise take them in when their change notification reaches it).
    void indexParagraphs(const QList<NBParagraph>& paragraphs);

    // The query's words in search form, for highlighting.
    static QStringList searchTokensForQuery(const QString& query);
    // The stretches of `text` to highlight for the query's words, in text order.
    static QList<NBTextRange> highlightRanges(const QString& text, const QStringList& searchTokens);

private:
    // What a result block may still reach once the finder is gone: nothing, after `receiver` is cleared.
    struct Delivery {
        std::mutex mutex;
        QObject* receiver = nullptr;
    };
    std::shared_ptr<NBSingleDocumentSearchIndex> index_;
    std::shared_ptr<Delivery> delivery_;
};
