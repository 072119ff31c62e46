// NBSpreadsheetDataRichText: a table of a QTextDocument (pasted or imported) read as a grid of cells.
//
// A QTextTable is read cell by cell. A cell's blocks are joined by "\n"; a cell covered by a neighbour's row
// or column span is empty; each cell's character formats become markup through NBStyledStringRichText.
// Column widths are read from the table format's fixed-width constraints (in points) and are unknown when
// any column has another kind of width.
#pragma once

#include "document/NBSpreadsheetData.h"
#include "foundation/NBTextRange.h"

#include <optional>

class QTextDocument;

class NBSpreadsheetDataRichText {
public:
    // The table that begins at `startingLocation` of the document, if one does: the location is that of
    // the frame character opening the table or that of its first cell. `effectiveRange` receives the
    // characters the table covers: its frame and, when it is empty and not the document's last block, the
    // block after it (Qt keeps a block after every frame, and its HTML reader leaves that block empty when
    // a paragraph follows the table).
    static std::optional<NBSpreadsheetData> spreadsheetDataWithAttributedString(const QTextDocument& document,
                                                                                int startingLocation,
                                                                                NBTextRange* effectiveRange);
};
