// NBWordReader: Word documents (.docx, Office Open XML) into document content, through libzip and pugixml.
//
// What is read, from the package's "word/document.xml" (found through "_rels/.rels"), "word/styles.xml",
// "word/numbering.xml", "word/_rels/document.xml.rels" and "docProps/core.xml":
//   - Paragraphs by style: "Title" gives the title (also dc:title of the core properties, and the file name
//     last); headings ("heading n" styles, or an outline level in the paragraph or its style chain) become
//     days, steps or sections by the heading rules of other sources (NBHTMLParagraphReader.h); quote styles
//     ("Quote", "Intense Quote", "Block Text", "Quotations") become notes; code styles (names holding "code",
//     "preformatted", "verbatim" or "plain text", or paragraphs all in a monospaced font) become code, one
//     code paragraph for consecutive ones; a paragraph in bold throughout becomes a section; the rest are
//     normal paragraphs. Empty paragraphs and captions of images are left out.
//   - Lists: a paragraph with numbering (numPr in the paragraph or its style chain, numId not 0) is a bullet
//     when its level's number format in numbering.xml is "bullet" or "none", a numbered item otherwise, at
//     that level (ilvl, 0 to 8).
//   - Runs: bold, italic, underline (any kind but "none"), strike-through (single or double), superscript
//     and subscript, text colour (not "auto"), highlight and shading as background colour, small capitals,
//     from the run, its character style and the paragraph style; tabs, line breaks and the special
//     characters Word writes as elements; hyperlinks to outside addresses; tracked insertions kept and
//     deletions left out; fields, content controls and smart tags read through.
//   - Tables: rows of cells, each cell's paragraphs joined by line breaks; a cell spanning n columns is
//     followed by n - 1 empty cells, and cells merged into the one above are empty.
//   - Images (drawings and VML pictures) and embedded objects: attachment paragraphs after the text of their
//     paragraph, named by the picture's description or file name, the file extracted from the package.
// The package is checked as every archive is (NBZipReader); a file that is no Office Open XML word-
// processing document ("not a Word document"), damaged XML, or parts beyond kMaximumPartSize are refused,
// naming the file. XML is read without its document type declarations, so no entity is ever expanded, and
// nesting deeper than kMaximumDepth (tables in tables, content controls) is refused.
#pragma once

#include "interchange/NBDocumentContent.h"

#include <optional>

// Error codes of the "NBWordReader" domain.
inline constexpr qint64 kNBWordReaderErrorNotWord = 10;
inline constexpr qint64 kNBWordReaderErrorDamaged = 20;
inline constexpr qint64 kNBWordReaderErrorTooLarge = 30;

class NBWordReader {
public:
    static constexpr qint64 kMaximumPartSize = 256LL * 1024 * 1024;
    static constexpr int kMaximumDepth = 64;

    // Reads the file; attachments are extracted into the content's temporary folder.
    static std::optional<NBDocumentContent> contentFromWordFile(const QString& path,
                                                                NBError* outError = nullptr);
    // True when the file is a zip package with a Word document part (checked by content, not by name).
    static bool isWordFile(const QString& path);
};
