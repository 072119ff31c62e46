// Normalising a typed query word by word, keeping its operators, parentheses and opening quotation mark.
#include "search/NBSearchQuery.h"

#include "search/NBSearchNormalization.h"

namespace {

bool isOperator(QStringView word) {
    return word == u"OR" || word == u"AND";
}

} // namespace

QString normalizedQueryForSearch(QStringView query) {
    // Any run of whitespace separates words, as a space does.
    const QString trimmed = query.toString().simplified();
    if (trimmed.startsWith(u'"')) {
        QStringView inner = QStringView(trimmed).sliced(1);
        if (inner.endsWith(u'"'))
            inner.chop(1);
        return u'"' + normalizedStringForSearch(inner) + u'"';
    }
    QStringList words;
    for (const QStringView word : QStringView(trimmed).split(u' ', Qt::SkipEmptyParts)) {
        const QString text = word.toString();
        if (isOperator(text)) {
            words << text;
            continue;
        }
        // Parentheses that open or close the word are kept around its search form.
        qsizetype opening = 0;
        while (opening < text.size() && text[opening] == u'(')
            ++opening;
        qsizetype closing = 0;
        while (closing < text.size() - opening && text[text.size() - 1 - closing] == u')')
            ++closing;
        const QString core =
            normalizedStringForSearch(QStringView(text).sliced(opening, text.size() - opening - closing));
        const QString normalized = QString(opening, u'(') + core + QString(closing, u')');
        if (!normalized.isEmpty())
            words << normalized;
    }
    return words.join(u' ');
}

QStringList searchTokensForQuery(QStringView query) {
    QString normalized = normalizedQueryForSearch(query);
    normalized.remove(u'"').replace(u'(', u' ').replace(u')', u' ');
    QStringList tokens;
    for (const QString& word : normalized.split(u' ', Qt::SkipEmptyParts)) {
        if (!isOperator(word) && !tokens.contains(word))
            tokens << word;
    }
    return tokens;
}
