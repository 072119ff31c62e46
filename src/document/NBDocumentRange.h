// NBDocumentRange: a selection inside a document, from a character of one paragraph to a character of
// another, or a block of cells of one table paragraph. The editor keeps it across edits and undo, and puts
// it on the clipboard and into saved window state.
//
// Archived form: a property-list dictionary with the field names as keys:
//   "startParagraphUUID"  string     paragraph where the selection starts
//   "startIndex"          integer    character offset in that paragraph (UTF-16 code units)
//   "endParagraphUUID"    string     paragraph where it ends
//   "endIndex"            integer    character offset in that paragraph
// and, only for a selection of table cells (start and end are then the same table paragraph):
//   "rowRange", "colRange", "editedCellSelectedRange"   dictionaries {"location": integer, "length":
//                                                       integer}: the selected rows and columns, and the
//                                                       text selected inside the cell being edited
// Reading checks every field: a missing or ill-typed field, or a negative number, gives no range. Unknown
// keys are ignored.
#pragma once

#include "text/NBStyledString.h"

#include <QString>
#include <QVariant>
#include <QVariantMap>

#include <optional>

class NBDocumentRange {
public:
    NBDocumentRange() = default;

    static NBDocumentRange documentRangeWithStartParagraphUUID(const QString& startParagraphUUID,
                                                               qsizetype startIndex,
                                                               const QString& endParagraphUUID,
                                                               qsizetype endIndex);
    // Cells of one table paragraph. The text indexes are those of the cell selection inside the grid:
    // start at the selected text's location, end at its end.
    static NBDocumentRange documentRangeWithTableParagraphUUID(const QString& tableParagraphUUID,
                                                               NBTextRange rowRange, NBTextRange colRange,
                                                               NBTextRange editedCellSelectedRange);

    // The archived form (see above), and reading it back; nothing for a value that is not a valid one.
    QVariantMap propertyList() const;
    static std::optional<NBDocumentRange> documentRangeWithPropertyList(const QVariant& propertyList);

    const QString& startParagraphUUID() const { return startParagraphUUID_; }
    qsizetype startIndex() const { return startIndex_; }
    const QString& endParagraphUUID() const { return endParagraphUUID_; }
    qsizetype endIndex() const { return endIndex_; }
    bool isTableRange() const { return rowRange_.has_value(); }
    // Present only for a table range.
    std::optional<NBTextRange> rowRange() const { return rowRange_; }
    std::optional<NBTextRange> colRange() const { return colRange_; }
    std::optional<NBTextRange> editedCellSelectedRange() const { return editedCellSelectedRange_; }

    bool operator==(const NBDocumentRange&) const = default;

private:
    QString startParagraphUUID_;
    qsizetype startIndex_ = 0;
    QString endParagraphUUID_;
    qsizetype endIndex_ = 0;
    std::optional<NBTextRange> rowRange_;
    std::optional<NBTextRange> colRange_;
    std::optional<NBTextRange> editedCellSelectedRange_;
};
