// Three-way merge of typed text into a newer value (see NBTextMerge.h).
#include "app/NBTextMerge.h"

#include <algorithm>

qsizetype NBTextMergeResult::mergedPosition(qsizetype position) const {
    qsizetype merged;
    if (position <= editStart)
        merged = position < editStart ? position - editStart + mergedEditStart : mergedEditStart;
    else if (position <= editStart + editInsertedLength)
        merged = mergedEditStart + (position - editStart);
    else
        merged = mergedEditStart + editInsertedLength + (position - editStart - editInsertedLength);
    return std::clamp<qsizetype>(merged, 0, text.length());
}

NBTextMergeResult nbMergeTypedText(const NBStyledString& base, const NBStyledString& ours,
                                   const NBStyledString& theirs) {
    const QString& baseText = base.string();
    const QString& oursText = ours.string();
    const QString& theirsText = theirs.string();
    qsizetype prefix = 0;
    const qsizetype shorter = std::min(baseText.size(), oursText.size());
    while (prefix < shorter && baseText[prefix] == oursText[prefix])
        ++prefix;
    qsizetype suffix = 0;
    while (suffix < shorter - prefix &&
           baseText[baseText.size() - 1 - suffix] == oursText[oursText.size() - 1 - suffix])
        ++suffix;
    const qsizetype removedLength = baseText.size() - prefix - suffix;
    const qsizetype insertedLength = oursText.size() - prefix - suffix;
    const QStringView removed = QStringView(baseText).mid(prefix, removedLength);

    NBTextMergeResult result;
    result.editStart = prefix;
    result.editInsertedLength = insertedLength;
    result.editRemovedLength = removedLength;
    result.oursLength = oursText.size();
    const NBStyledString inserted = ours.styledSubstringFromRange({prefix, insertedLength});
    // Styles alone may have changed (same characters, other styles): then ours is the edit as a whole.
    if (removedLength == 0 && insertedLength == 0) {
        if (base == ours) {
            result.text = theirs;
            result.mergedEditStart = std::min(prefix, theirs.length());
            return result;
        }
    }
    auto stretchMatches = [&](qsizetype at) {
        return at >= 0 && at + removedLength <= theirsText.size() &&
               QStringView(theirsText).mid(at, removedLength) == removed;
    };
    qsizetype at = -1;
    if (prefix <= theirsText.size() &&
        QStringView(theirsText).left(prefix) == QStringView(baseText).left(prefix) && stretchMatches(prefix))
        at = prefix;
    else if (suffix <= theirsText.size() &&
             QStringView(theirsText).right(suffix) == QStringView(baseText).right(suffix) &&
             stretchMatches(theirsText.size() - suffix - removedLength))
        at = theirsText.size() - suffix - removedLength;

    NBMutableStyledString merged(theirs);
    if (at < 0) {
        // The place of the edit is gone from the newer text: the typed text goes at its end.
        result.mergedEditStart = theirs.length();
        merged.appendStyledString(inserted);
        result.text = merged;
        return result;
    }
    merged.replaceCharactersInRange({at, removedLength}, inserted);
    result.mergedEditStart = at;
    result.text = merged;
    return result;
}
