// NBSpreadsheetData: the cell grid, its escapes, and the conversion to and from table paragraphs.
#include "document/NBSpreadsheetData.h"

#include "document/NBParagraph.h"

namespace {

const QString kLineBreak = QStringLiteral("\n");
const QString kTab = QStringLiteral("\t");
const QString kEscapedLineBreak = QStringLiteral("&#10;");
const QString kEscapedTab = QStringLiteral("&#9;");

} // namespace

NBSpreadsheetData NBSpreadsheetData::spreadsheetDataWithArrayOfArrayOfMarkupStrings(
    const QList<QStringList>& rows, const std::optional<QList<qreal>>& columnWidths) {
    NBSpreadsheetData data;
    data.rows_ = rows;
    data.columnWidths_ = columnWidths;
    return data;
}

std::optional<NBSpreadsheetData>
NBSpreadsheetData::spreadsheetDataWithTableParagraph(const NBParagraph& paragraph) {
    std::optional<QList<QStringList>> escapedRows = paragraph.arrayOfArraysOfMarkupStrings();
    if (!escapedRows)
        return std::nullopt;
    QList<QStringList> rows;
    rows.reserve(escapedRows->size());
    for (const QStringList& escapedRow : *escapedRows) {
        QStringList row;
        row.reserve(escapedRow.size());
        for (const QString& cell : escapedRow)
            row << unescapedCellString(cell);
        rows << row;
    }
    return spreadsheetDataWithArrayOfArrayOfMarkupStrings(rows, paragraph.tableColumnWidths());
}

QString NBSpreadsheetData::escapedCellString(const QString& cell) {
    QString escaped = cell;
    escaped.replace(kLineBreak, kEscapedLineBreak);
    escaped.replace(kTab, kEscapedTab);
    return escaped;
}

QString NBSpreadsheetData::unescapedCellString(const QString& cell) {
    QString unescaped = cell;
    unescaped.replace(kEscapedTab, kTab);
    unescaped.replace(kEscapedLineBreak, kLineBreak);
    return unescaped;
}

qsizetype NBSpreadsheetData::columnCount() const {
    qsizetype count = 0;
    for (const QStringList& row : rows_)
        count = qMax(count, row.size());
    return count;
}

QString NBSpreadsheetData::markupStringAtRow(qsizetype row, qsizetype column) const {
    if (row < 0 || row >= rows_.size() || column < 0 || column >= rows_[row].size())
        return QString();
    return rows_[row][column];
}

void NBSpreadsheetData::setMarkupString(const QString& markup, qsizetype row, qsizetype column) {
    if (row < 0 || column < 0)
        return;
    if (rows_.size() <= row)
        rows_.resize(row + 1);
    QStringList& cells = rows_[row];
    while (cells.size() <= column)
        cells << QString();
    cells[column] = markup;
}

NBParagraph NBSpreadsheetData::tableParagraph() const {
    return NBParagraph::tableParagraphWithRows(rows_, columnWidths_);
}
