// NBParagraphLook: how each paragraph kind looks in the editor, and the character formats that carry a
// paragraph's styled text.
//
// A kind's look lives in two places: the block format (margins, background, line spacing) and a base
// character format (font family, size, weight, colour). Styles are drawn on top of the base: bold makes the
// base heavier, a text colour replaces the base colour, and so on. Because the base of a heading is already
// bold, the drawn weight cannot tell whether the user made the text bold; so every character format made
// here also carries the style set itself (kNBEditorStylesProperty, the styles written as the opening tags of
// the markup), and stylesOfFormat() reads that property rather than the drawing. Formats without it (text
// that reached the document some other way) are read by their drawing, as pasted rich text is.
//
// What is drawn around the text (step numbers, bullets, done boxes, the bars of call-outs, timer buttons) is
// not text at all: the editor paints it into the margins that these block formats leave free
// (markerMargin()).
#pragma once

#include "document/NBParagraph.h"
#include "text/NBStyle.h"

#include <QColor>
#include <QFont>
#include <QHash>
#include <QTextBlockFormat>
#include <QTextCharFormat>
#include <QTextFrameFormat>

// The style set of a character format, as the opening tags of the markup ("<b><i>"; "" for none).
inline constexpr int kNBEditorStylesProperty = QTextFormat::UserProperty + 0x4E45;

class NBParagraphLook {
public:
    explicit NBParagraphLook(const QFont& baseFont = QFont());

    const QFont& baseFont() const { return baseFont_; }
    // Pixels of left margin every text block keeps free for markers, and the width of one list level.
    int markerMargin() const { return markerMargin_; }
    int levelIndent() const { return levelIndent_; }

    // The block format of a paragraph (margins by kind and list level, call-out backgrounds).
    QTextBlockFormat blockFormat(const NBParagraph& paragraph) const;
    // The format of a filler block: the empty line the text keeps before a table that opens the document
    // or follows another table, and after a table that ends it. `trailing`: the one after the last table,
    // which is a full line to click into; the others are thin.
    QTextBlockFormat fillerBlockFormat(bool trailing) const;
    // The character format of text of `kind` with `styles`.
    QTextCharFormat charFormat(NBParagraphKind kind, const NBStyleSet& styles) const;
    // The base character format of a kind (what an empty block of that kind types with).
    QTextCharFormat baseCharFormat(NBParagraphKind kind) const;
    // The styles a character format stands for (see the header comment).
    NBStyleSet stylesOfFormat(const QTextCharFormat& format) const;
    // The format of a table paragraph's frame, with its column widths when known.
    QTextTableFormat tableFormat(const NBParagraph& paragraph, int columnCount) const;
    // The format of the secondary text of an attachment chip (its size).
    QTextCharFormat attachmentDetailFormat() const;
    QTextCharFormat attachmentChipFormat() const;

    // The colour of the bar drawn beside notes, warnings and errors (invalid for other kinds).
    static QColor calloutAccentColor(NBParagraphKind kind);
    // Whether a kind holds editable styled text (days show their date, attachments their file; tables are
    // edited cell by cell).
    static bool isTextKind(NBParagraphKind kind);

private:
    QFont baseFont_;
    int markerMargin_ = 0;
    int levelIndent_ = 0;
    mutable QHash<QString, NBStyleSet> stylesByTags_;
};
