// The in-place clean-up edits: each walks the text once, writing the kept units back over it.
#include "search/NBTextCleanUp.h"

void replaceCharactersInSet(QString& text, const NBCharacterSet& set, QStringView replacement) {
    // A replacement no longer than one unit can never make the text longer, so the common cases (a space,
    // nothing) are written in place; longer replacements build a new text.
    if (replacement.size() <= 1) {
        QChar* const units = text.data();
        const qsizetype size = text.size();
        qsizetype written = 0;
        for (qsizetype index = 0; index < size;) {
            if (!set.contains(units[index])) {
                units[written++] = units[index++];
                continue;
            }
            while (index < size && set.contains(units[index]))
                ++index;
            if (!replacement.isEmpty())
                units[written++] = replacement.front();
        }
        text.truncate(written);
        return;
    }
    QString result;
    result.reserve(text.size());
    const qsizetype size = text.size();
    for (qsizetype index = 0; index < size;) {
        if (!set.contains(text[index])) {
            result.append(text[index++]);
            continue;
        }
        while (index < size && set.contains(text[index]))
            ++index;
        result.append(replacement);
    }
    text = std::move(result);
}

void deleteCharactersInSet(QString& text, const NBCharacterSet& set) {
    replaceCharactersInSet(text, set, {});
}

void trimCharactersInSet(QString& text, const NBCharacterSet& set) {
    qsizetype begin = 0;
    qsizetype end = text.size();
    while (begin < end && set.contains(text[begin]))
        ++begin;
    while (end > begin && set.contains(text[end - 1]))
        --end;
    if (begin == 0 && end == text.size())
        return;
    text = text.sliced(begin, end - begin);
}

const NBCharacterSet& whitespaceAndNewlineCharacterSetWithoutSpace() {
    static const NBCharacterSet set = [] {
        NBCharacterSet whitespace = NBCharacterSet::whitespaceAndNewlineCharacterSet();
        whitespace.addCharacter(u'\u00A0');
        whitespace.removeCharacter(u' ');
        return whitespace;
    }();
    return set;
}

void replaceWhitespaceAndNewlinesWithSpaces(QString& text) {
    replaceCharactersInSet(text, whitespaceAndNewlineCharacterSetWithoutSpace(), u" ");
}

void cleanUpContiguousSpaces(QString& text) {
    static constexpr int maximumPassCount = 100;
    for (int pass = 0; pass < maximumPassCount; ++pass) {
        const qsizetype sizeBefore = text.size();
        text.replace(QStringLiteral("  "), QStringLiteral(" "));
        if (text.size() == sizeBefore)
            break;
    }
}
