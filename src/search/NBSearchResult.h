// NBSearchResult: one hit of a full-text query, the identifier of a document whose content matched and which
// of the query's phrases it holds.
#pragma once

#include <QList>
#include <QSet>
#include <QString>

#include <memory>

class NBSearchIndex;

class NBSearchResult {
public:
    NBSearchResult(const std::shared_ptr<NBSearchIndex>& searchIndex, QString documentIdentifier,
                   QSet<unsigned> phraseMatchIndexes, unsigned phraseCount);

    // The index that produced the hit; empty once that index is gone (a result does not keep it open).
    std::shared_ptr<NBSearchIndex> searchIndex() const { return searchIndex_.lock(); }
    const QString& documentIdentifier() const { return documentIdentifier_; }
    // The phrases of the query that occur in the document, 0-based, numbered as SQLite numbers the phrases
    // of the MATCH expression ("cell* AND div*" has two, "cell* OR div*" two, "cell*" one).
    const QSet<unsigned>& phraseMatchIndexes() const { return phraseMatchIndexes_; }
    // How many phrases the query had (0 when the index could not tell).
    unsigned phraseCount() const { return phraseCount_; }

    // "<NBSearchResult> = identifier: %@, phrases: %@ of %@"
    QString description() const;
    bool operator==(const NBSearchResult& other) const;

private:
    std::weak_ptr<NBSearchIndex> searchIndex_;
    QString documentIdentifier_;
    QSet<unsigned> phraseMatchIndexes_;
    unsigned phraseCount_ = 0;
};

// The results of a query: one per identifier, in the order the index found them.
using NBSearchResultSet = QList<NBSearchResult>;
