// NBSpreadsheetData: the table model, a grid of cells in styled-text markup with optional column widths.
//
// A table paragraph stores its grid as "content" (rows joined by "\n", cells by "\t"), so inside a cell a
// line break is written "&#10;" and a tab "&#9;" (escapedCellString; the line break is replaced first).
// The markup itself escapes "&" as "&amp;", so a cell whose text reads "&#10;" is stored as "&amp;#10;" and
// the escapes can never be mistaken for text. NBParagraph::arrayOfArraysOfMarkupStrings hands out cells
// still escaped; this model holds them unescaped (real "\n" and "\t" inside a cell's markup).
#pragma once

#include "text/NBStyledString.h"

#include <QList>
#include <QString>
#include <QStringList>

#include <optional>

class NBParagraph;

class NBSpreadsheetData {
public:
    NBSpreadsheetData() = default;
    // Rows of cells in markup (unescaped); rows may differ in length.
    static NBSpreadsheetData spreadsheetDataWithArrayOfArrayOfMarkupStrings(
        const QList<QStringList>& rows, const std::optional<QList<qreal>>& columnWidths = std::nullopt);
    // The grid of a table paragraph, unescaped, with its column widths; nothing for other kinds.
    static std::optional<NBSpreadsheetData> spreadsheetDataWithTableParagraph(const NBParagraph& paragraph);
    static QString escapedCellString(const QString& cell);
    static QString unescapedCellString(const QString& cell);

    qsizetype rowCount() const { return rows_.size(); }
    // The length of the longest row.
    qsizetype columnCount() const;
    // Empty outside the grid.
    QString markupStringAtRow(qsizetype row, qsizetype column) const;
    // Grows the grid as needed (new cells are empty).
    void setMarkupString(const QString& markup, qsizetype row, qsizetype column);

    // The cells in markup, unescaped.
    const QList<QStringList>& arrayOfArrayOfMarkupStrings() const { return rows_; }
    const std::optional<QList<qreal>>& columnWidths() const { return columnWidths_; }
    void setColumnWidths(const std::optional<QList<qreal>>& columnWidths) { columnWidths_ = columnWidths; }

    // A new table paragraph holding this grid and its column widths.
    NBParagraph tableParagraph() const;

    bool operator==(const NBSpreadsheetData&) const = default;

private:
    QList<QStringList> rows_;
    std::optional<QList<qreal>> columnWidths_;
};
