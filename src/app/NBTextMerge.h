// Three-way merge of a paragraph's text, for the moment another device's newer value of a paragraph arrives
// while the user has typed into it and the typing is not yet written.
//
// The user's unwritten edit is the difference between the text the editor last had from the document (the
// base) and the text it shows (ours): one stretch of the base replaced by new text, found as the longest
// common beginning and end of the two. That edit is then made in the newer text (theirs) at the same place,
// found by the unchanged text before it, or else by the unchanged text after it; when neither is still
// there, the typed text is added at the end, so no keystroke is ever dropped.
#pragma once

#include "text/NBStyledString.h"

struct NBTextMergeResult {
    NBStyledString text;
    // Where a position of `ours` lies in the merged text (see mergedPosition()).
    qsizetype editStart = 0; // the edit's start in ours
    qsizetype editInsertedLength = 0;
    qsizetype editRemovedLength = 0; // in the base
    qsizetype mergedEditStart = 0;   // where the edit went in the merged text
    qsizetype oursLength = 0;

    // The place in the merged text of position `position` of ours (the cursor's, say).
    qsizetype mergedPosition(qsizetype position) const;
};

NBTextMergeResult nbMergeTypedText(const NBStyledString& base, const NBStyledString& ours,
                                   const NBStyledString& theirs);
