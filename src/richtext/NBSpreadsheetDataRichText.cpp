// NBSpreadsheetDataRichText: reading a table of a QTextDocument (how a pasted or imported table becomes a
// grid).
#include "richtext/NBSpreadsheetDataRichText.h"

#include "richtext/NBStyledStringRichText.h"

#include <QTextBlock>
#include <QTextDocument>
#include <QTextTable>

namespace {

// The outermost table that begins at `location`: its opening frame character is there, or its first cell
// starts there (when the line before it ended at that frame character).
QTextTable* tableBeginningAt(const QTextDocument& document, int location) {
    for (int probe : {location + 1, location}) {
        if (probe < 0 || probe >= document.characterCount())
            continue;
        QTextTable* found = nullptr;
        for (QTextFrame* frame = document.frameAt(probe); frame; frame = frame->parentFrame()) {
            auto* table = qobject_cast<QTextTable*>(frame);
            if (table && (table->firstPosition() == location + 1 || table->firstPosition() == location))
                found = table;
        }
        if (found)
            return found;
    }
    return nullptr;
}

// A cell's blocks joined by "\n", with their character formats as styles.
QString markupForCell(const QTextDocument& document, const QTextTableCell& cell) {
    NBMutableStyledString text;
    bool first = true;
    for (QTextBlock block = document.findBlock(cell.firstPosition());
         block.isValid() && block.position() <= cell.lastPosition(); block = block.next()) {
        const int start = qMax(block.position(), cell.firstPosition());
        // The block's last character is its separator (or a frame character), which is not text.
        const int end = qMin(block.position() + block.length() - 1, cell.lastPosition());
        if (!first)
            text.appendString(QStringLiteral("\n"));
        first = false;
        if (end > start)
            text.appendStyledString(
                NBStyledStringRichText::styledStringFromAttributedString(document, start, end - start));
    }
    // A line separator (a <br>) inside a cell is a line break of the cell like a block boundary, so that
    // the grid escapes it.
    return text.markupString().replace(QChar(QChar::LineSeparator), QLatin1Char('\n'));
}

std::optional<QList<qreal>> columnWidthsOfTable(const QTextTable& table) {
    const QList<QTextLength> constraints = table.format().columnWidthConstraints();
    if (constraints.isEmpty() || constraints.size() != table.columns())
        return std::nullopt;
    QList<qreal> widths;
    for (const QTextLength& length : constraints) {
        if (length.type() != QTextLength::FixedLength)
            return std::nullopt;
        widths << length.rawValue();
    }
    return widths;
}

} // namespace

std::optional<NBSpreadsheetData> NBSpreadsheetDataRichText::spreadsheetDataWithAttributedString(
    const QTextDocument& document, int startingLocation, NBTextRange* effectiveRange) {
    QTextTable* table = tableBeginningAt(document, startingLocation);
    if (!table)
        return std::nullopt;
    QList<QStringList> rows;
    for (int row = 0; row < table->rows(); ++row) {
        QStringList cells;
        for (int column = 0; column < table->columns(); ++column) {
            QTextTableCell cell = table->cellAt(row, column);
            // A cell covered by a span shows the spanning cell's text once, at the spanning cell.
            bool covered = cell.row() != row || cell.column() != column;
            cells << (covered || !cell.isValid() ? QString() : markupForCell(document, cell));
        }
        rows << cells;
    }
    NBSpreadsheetData data =
        NBSpreadsheetData::spreadsheetDataWithArrayOfArrayOfMarkupStrings(rows, columnWidthsOfTable(*table));

    int end = table->lastPosition() + 1; // after the frame's closing character
    QTextBlock following = document.findBlock(end);
    if (following.isValid() && following.position() == end && following.length() == 1 &&
        following.next().isValid())
        end += 1;
    if (effectiveRange)
        *effectiveRange = NBTextRange{startingLocation, end - startingLocation};
    return data;
}
