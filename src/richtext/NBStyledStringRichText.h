// NBStyledStringRichText: styled text in Qt's rich text (QTextDocument character formats), as the desktop
// editor shows and edits it and as pasted or imported rich text becomes paragraph markup.
//
// The mapping: a QTextCharFormat shows bold as weight, italic, superscript and subscript as vertical
// alignment (superscript wins when a run has both), underline, strikethrough, small capitals as
// capitalisation, colours as foreground and background brushes, hyperlinks as anchors (the shared
// hyperlink's address is its text) and pop as the format property NBPopTextFormatProperty. Line breaks in
// the text become block boundaries and read back as "\n". NBStyledStringRichText.cpp says how colours of
// rich text from elsewhere are read.
#pragma once

#include "text/NBStyledString.h"

#include <QColor>
#include <QTextCharFormat>

class QTextCursor;
class QTextDocument;
class QTextDocumentFragment;

// The QTextCharFormat property that marks the pop style, which has no character format of its own.
inline constexpr int NBPopTextFormatProperty = QTextFormat::UserProperty + 0x4E42;
// Marks character formats made from styles. Formats without it come from elsewhere (rich text pasted or
// imported through Qt's HTML reader, which draws every link underlined in the palette's link colour); there
// that link look is not read as underline and text colour styles.
inline constexpr int NBStyledTextFormatProperty = QTextFormat::UserProperty + 0x4E43;

class NBStyledStringRichText {
public:
    static QTextCharFormat attributesFromStyles(const NBStyleSet& styles,
                                                const QTextCharFormat& referenceAttributes = {});
    static NBStyleSet stylesFromAttributes(const QTextCharFormat& attributes);
    // Inserts the text at the cursor, each run with the default attributes changed by its styles; small
    // capitals use `smallCapsAttributes` merged over them when it is not empty.
    static void insertIntoTextCursor(const NBStyledString& string, QTextCursor& cursor,
                                     const QTextCharFormat& defaultAttributes = {},
                                     const QTextCharFormat& smallCapsAttributes = {});
    static QTextDocumentFragment attributedString(const NBStyledString& string);
    // The styled text of a document's characters from `position`, `length` of them (-1: to the end).
    static NBStyledString styledStringFromAttributedString(const QTextDocument& document, int position = 0,
                                                           int length = -1);
    static NBStyledString styledStringFromAttributedString(const QTextDocumentFragment& fragment);

    // A style colour as Qt draws it, and back (an invalid QColor is no colour).
    static QColor qColorFromColor(NBColor color);
    static NBColor colorFromQColor(const QColor& color);
};
