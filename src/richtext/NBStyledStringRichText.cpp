// Styled text to and from QTextDocument character formats: how the desktop editor shows and edits styled
// text, and how pasted or imported rich text becomes paragraph markup (the mapping is listed in
// NBStyledStringRichText.h).
//
// Colours of rich text from elsewhere: web word processors write every character's colours out in full, so
// text pasted from them carries an opaque black text colour and a fully transparent background everywhere.
// A fully transparent background shows nothing and is no style at all, whatever the text came from. Opaque
// black text in formats that were not made from styles is the source's default text colour, not a choice: as
// in the notebook programs people paste into most, it is dropped, so pasted text follows the notebook's own
// text colour (and stays readable in a dark theme). Black chosen in the editor is kept, since formats made
// from styles carry NBStyledTextFormatProperty.
#include "richtext/NBStyledStringRichText.h"

#include <QGuiApplication>
#include <QPalette>
#include <QTextBlock>
#include <QTextCursor>
#include <QTextDocument>
#include <QTextDocumentFragment>

#include <climits>

QTextCharFormat NBStyledStringRichText::attributesFromStyles(const NBStyleSet& styles,
                                                             const QTextCharFormat& referenceAttributes) {
    QTextCharFormat format = referenceAttributes;
    // Every style decides its own property, so the reference attributes give only what styles do not cover
    // (font family, size, ...); colours left in them would read back as colour styles.
    format.setFontWeight(styles.containsKind(NBStyle::Kind::Bold) ? QFont::Bold : QFont::Normal);
    format.setFontItalic(styles.containsKind(NBStyle::Kind::Italic));
    format.setFontUnderline(styles.containsKind(NBStyle::Kind::Underline));
    format.setFontStrikeOut(styles.containsKind(NBStyle::Kind::Strikethrough));
    format.setFontCapitalization(styles.containsKind(NBStyle::Kind::SmallCaps) ? QFont::SmallCaps
                                                                               : QFont::MixedCase);
    if (styles.containsKind(NBStyle::Kind::Superscript))
        format.setVerticalAlignment(QTextCharFormat::AlignSuperScript);
    else if (styles.containsKind(NBStyle::Kind::Subscript))
        format.setVerticalAlignment(QTextCharFormat::AlignSubScript);
    else
        format.setVerticalAlignment(QTextCharFormat::AlignNormal);
    const QColor textColor = qColorFromColor(styles.styleOfKind(NBStyle::Kind::TextColor).color());
    if (textColor.isValid())
        format.setForeground(textColor);
    else
        format.clearForeground();
    const QColor backgroundColor =
        qColorFromColor(styles.styleOfKind(NBStyle::Kind::BackgroundColor).color());
    if (backgroundColor.isValid())
        format.setBackground(backgroundColor);
    else
        format.clearBackground();
    const NBStyle link = styles.styleOfKind(NBStyle::Kind::Hyperlink);
    format.setAnchor(!link.isNull());
    if (link.isNull())
        format.clearProperty(QTextFormat::AnchorHref);
    else
        format.setAnchorHref(link.hyperlinkURL());
    if (styles.containsKind(NBStyle::Kind::Pop))
        format.setProperty(NBPopTextFormatProperty, true);
    else
        format.clearProperty(NBPopTextFormatProperty);
    format.setProperty(NBStyledTextFormatProperty, true);
    return format;
}

NBStyleSet NBStyledStringRichText::stylesFromAttributes(const QTextCharFormat& attributes) {
    NBStyleSet styles;
    const bool isLink = attributes.isAnchor() && !attributes.anchorHref().isEmpty();
    const bool madeFromStyles = attributes.property(NBStyledTextFormatProperty).toBool();
    const bool drawnAsLink = isLink && !madeFromStyles;
    const QColor linkColor = qGuiApp ? QGuiApplication::palette().link().color() : QColor(Qt::blue);
    if (attributes.fontWeight() >= QFont::DemiBold)
        styles.insert(NBStyle::bold());
    if (attributes.fontItalic())
        styles.insert(NBStyle::italic());
    if (attributes.fontUnderline() && !drawnAsLink)
        styles.insert(NBStyle::underline());
    if (attributes.fontStrikeOut())
        styles.insert(NBStyle::strikethrough());
    if (attributes.fontCapitalization() == QFont::SmallCaps)
        styles.insert(NBStyle::smallCaps());
    if (attributes.verticalAlignment() == QTextCharFormat::AlignSuperScript)
        styles.insert(NBStyle::superscript());
    else if (attributes.verticalAlignment() == QTextCharFormat::AlignSubScript)
        styles.insert(NBStyle::subscript());
    const QColor foreground = attributes.foreground().color();
    if (attributes.hasProperty(QTextFormat::ForegroundBrush) &&
        attributes.foreground().style() != Qt::NoBrush && !(drawnAsLink && foreground == linkColor) &&
        !(!madeFromStyles && foreground.rgba() == qRgb(0, 0, 0)))
        styles.insert(NBStyle::styleForTextColor(colorFromQColor(foreground)));
    if (attributes.hasProperty(QTextFormat::BackgroundBrush) &&
        attributes.background().style() != Qt::NoBrush && attributes.background().color().alpha() != 0)
        styles.insert(NBStyle::styleForBackgroundColor(colorFromQColor(attributes.background().color())));
    // Named anchors (<a name=...>) are not links.
    if (isLink)
        styles.insert(NBStyle::styleForHyperlinkURL(attributes.anchorHref()));
    if (attributes.property(NBPopTextFormatProperty).toBool())
        styles.insert(NBStyle::pop());
    return styles;
}

void NBStyledStringRichText::insertIntoTextCursor(const NBStyledString& string, QTextCursor& cursor,
                                                  const QTextCharFormat& defaultAttributes,
                                                  const QTextCharFormat& smallCapsAttributes) {
    for (const NBStyledString::Run& run : string.runs()) {
        const QString text = string.string().mid(run.location, run.length);
        const NBStyleSet& styles = run.styles;
        QTextCharFormat format = attributesFromStyles(styles, defaultAttributes);
        if (styles.containsKind(NBStyle::Kind::SmallCaps) && !smallCapsAttributes.isEmpty())
            format.merge(smallCapsAttributes);
        // A link whose address is its text carries that text as its address, so other programs can follow it.
        const NBStyle link = styles.styleOfKind(NBStyle::Kind::Hyperlink);
        if (!link.isNull() && link.hyperlinkURL().isEmpty())
            format.setAnchorHref(text);
        cursor.insertText(text, format);
    }
}

QTextDocumentFragment NBStyledStringRichText::attributedString(const NBStyledString& string) {
    QTextDocument document;
    QTextCursor cursor(&document);
    insertIntoTextCursor(string, cursor);
    return QTextDocumentFragment(&document);
}

NBStyledString NBStyledStringRichText::styledStringFromAttributedString(const QTextDocument& document,
                                                                        int position, int length) {
    NBMutableStyledString result;
    position = std::max(position, 0);
    const int end = length < 0 ? INT_MAX : position + std::min(length, INT_MAX - position);
    auto stylesFor = [](const QTextCharFormat& format, const QString& text) {
        NBStyleSet styles = stylesFromAttributes(format);
        // A link to its own text is the shared hyperlink style.
        const NBStyle link = styles.styleOfKind(NBStyle::Kind::Hyperlink);
        if (!link.isNull() && link.hyperlinkURL() == text)
            styles.insert(NBStyle::hyperlink());
        return styles;
    };
    const QTextBlock first = document.findBlock(position);
    for (QTextBlock block = first; block.isValid() && block.position() < end; block = block.next()) {
        // The block boundary before this block stands for the line break that made it.
        if (block != first && block.position() - 1 >= position)
            result.appendString(QStringLiteral("\n"), stylesFor(block.charFormat(), QString()));
        for (QTextBlock::iterator piece = block.begin(); !piece.atEnd(); ++piece) {
            const QTextFragment fragment = piece.fragment();
            if (!fragment.isValid())
                continue;
            const int start = std::max(fragment.position(), position);
            const int stop = std::min(fragment.position() + fragment.length(), end);
            if (start >= stop)
                continue;
            const QString text = fragment.text();
            result.appendString(text.mid(start - fragment.position(), stop - start),
                                stylesFor(fragment.charFormat(), text));
        }
    }
    return result;
}

NBStyledString
NBStyledStringRichText::styledStringFromAttributedString(const QTextDocumentFragment& fragment) {
    QTextDocument document;
    QTextCursor cursor(&document);
    cursor.insertFragment(fragment);
    return styledStringFromAttributedString(document);
}

QColor NBStyledStringRichText::qColorFromColor(NBColor color) {
    if (!color.isValid())
        return QColor();
    return QColor::fromRgba(color.rgba());
}

NBColor NBStyledStringRichText::colorFromQColor(const QColor& color) {
    // Colours are kept as 8-bit RGBA, so equal colours compare equal whatever their origin.
    if (!color.isValid())
        return NBColor();
    return NBColor::fromRgba(color.rgba());
}
