// The looks of the paragraph kinds (see NBParagraphLook.h). Sizes derive from the base font, so the editor
// follows the user's font size; colours are chosen to stay readable on light backgrounds.
#include "app/NBParagraphLook.h"

#include "richtext/NBStyledStringRichText.h"

#include <QFontDatabase>
#include <QFontMetrics>

namespace {

qreal pointSizeOf(const QFont& font) {
    return font.pointSizeF() > 0 ? font.pointSizeF() : 11.0;
}

// The call-out backgrounds, pale forms of their accent colours.
QColor calloutBackground(NBParagraphKind kind) {
    switch (kind) {
    case NBParagraphKind::Note:
        return QColor(0xE8, 0xF1, 0xFB);
    case NBParagraphKind::Warning:
        return QColor(0xFF, 0xF4, 0xD6);
    case NBParagraphKind::Error:
        return QColor(0xFD, 0xE7, 0xE7);
    case NBParagraphKind::Code:
        return QColor(0xF3, 0xF4, 0xF6);
    default:
        return QColor();
    }
}

} // namespace

NBParagraphLook::NBParagraphLook(const QFont& baseFont) : baseFont_(baseFont) {
    const QFontMetrics metrics(baseFont_);
    markerMargin_ = metrics.horizontalAdvance(QStringLiteral("00.")) + metrics.height() * 2;
    levelIndent_ = metrics.height() + metrics.horizontalAdvance(QLatin1Char(' ')) * 2;
}

bool NBParagraphLook::isTextKind(NBParagraphKind kind) {
    return kind != NBParagraphKind::Day && kind != NBParagraphKind::Attachment &&
           kind != NBParagraphKind::Table;
}

QColor NBParagraphLook::calloutAccentColor(NBParagraphKind kind) {
    switch (kind) {
    case NBParagraphKind::Note:
        return QColor(0x2F, 0x6F, 0xC0);
    case NBParagraphKind::Warning:
        return QColor(0xD9, 0x8C, 0x00);
    case NBParagraphKind::Error:
        return QColor(0xC6, 0x28, 0x28);
    default:
        return QColor();
    }
}

QTextBlockFormat NBParagraphLook::blockFormat(const NBParagraph& paragraph) const {
    const qreal lineHeight = QFontMetrics(baseFont_).height();
    QTextBlockFormat format;
    format.setLeftMargin(markerMargin_);
    format.setRightMargin(lineHeight);
    format.setTopMargin(lineHeight * 0.2);
    format.setBottomMargin(lineHeight * 0.2);
    switch (paragraph.kind()) {
    case NBParagraphKind::Day:
        format.setTopMargin(lineHeight * 1.2);
        format.setBottomMargin(lineHeight * 0.4);
        format.setLeftMargin(lineHeight * 0.5);
        break;
    case NBParagraphKind::Step:
        format.setTopMargin(lineHeight * 0.6);
        break;
    case NBParagraphKind::Section:
        format.setTopMargin(lineHeight * 0.8);
        format.setBottomMargin(lineHeight * 0.3);
        break;
    case NBParagraphKind::Bullet:
    case NBParagraphKind::Number:
        format.setLeftMargin(markerMargin_ + levelIndent_ * (1 + paragraph.indentationLevel().value_or(0)));
        format.setTopMargin(lineHeight * 0.1);
        format.setBottomMargin(lineHeight * 0.1);
        break;
    case NBParagraphKind::Code:
    case NBParagraphKind::Note:
    case NBParagraphKind::Warning:
    case NBParagraphKind::Error:
        format.setBackground(calloutBackground(paragraph.kind()));
        format.setLeftMargin(markerMargin_ + lineHeight * 0.5);
        format.setTopMargin(lineHeight * 0.4);
        format.setBottomMargin(lineHeight * 0.4);
        break;
    case NBParagraphKind::Attachment:
        format.setTopMargin(lineHeight * 0.4);
        format.setBottomMargin(lineHeight * 0.4);
        break;
    default:
        break;
    }
    format.setNonBreakableLines(paragraph.kind() == NBParagraphKind::Code);
    return format;
}

QTextBlockFormat NBParagraphLook::fillerBlockFormat(bool trailing) const {
    QTextBlockFormat format;
    format.setLeftMargin(markerMargin_);
    if (!trailing)
        format.setLineHeight(2, QTextBlockFormat::FixedHeight);
    return format;
}

QTextCharFormat NBParagraphLook::baseCharFormat(NBParagraphKind kind) const {
    QTextCharFormat format;
    QFont font = baseFont_;
    const qreal size = pointSizeOf(baseFont_);
    switch (kind) {
    case NBParagraphKind::Day:
        font.setPointSizeF(size * 1.5);
        font.setWeight(QFont::Bold);
        format.setForeground(QColor(0x1F, 0x3A, 0x5F));
        break;
    case NBParagraphKind::Step:
        font.setPointSizeF(size * 1.15);
        font.setWeight(QFont::DemiBold);
        break;
    case NBParagraphKind::Section:
        font.setPointSizeF(size * 1.25);
        font.setWeight(QFont::Bold);
        format.setForeground(QColor(0x33, 0x33, 0x33));
        break;
    case NBParagraphKind::Code: {
        QFont fixed = QFontDatabase::systemFont(QFontDatabase::FixedFont);
        fixed.setPointSizeF(size * 0.95);
        font = fixed;
        break;
    }
    default:
        break;
    }
    format.setFont(font, QTextCharFormat::FontPropertiesAll);
    return format;
}

QTextCharFormat NBParagraphLook::charFormat(NBParagraphKind kind, const NBStyleSet& styles) const {
    QTextCharFormat format = baseCharFormat(kind);
    const int baseWeight = format.fontWeight();
    const QBrush baseForeground = format.foreground();
    const bool hadForeground = format.hasProperty(QTextFormat::ForegroundBrush);
    format = NBStyledStringRichText::attributesFromStyles(styles, format);
    // The drawing of styles over the kind's base: bold is heavier than the base, and without a colour
    // style the base colour stays.
    format.setFontWeight(styles.containsKind(NBStyle::Kind::Bold)
                             ? std::min(int(QFont::Black), std::max(int(QFont::Bold), baseWeight + 200))
                             : baseWeight);
    if (!styles.containsKind(NBStyle::Kind::TextColor) && hadForeground)
        format.setForeground(baseForeground);
    if (styles.containsKind(NBStyle::Kind::Hyperlink)) {
        format.setFontUnderline(true);
        if (!styles.containsKind(NBStyle::Kind::TextColor))
            format.setForeground(QColor(0x1A, 0x5F, 0xB4));
    }
    if (styles.containsKind(NBStyle::Kind::Pop) && !styles.containsKind(NBStyle::Kind::BackgroundColor))
        format.setBackground(QColor(0xFF, 0xF1, 0x76));
    format.setProperty(kNBEditorStylesProperty, NBStyledString(QStringLiteral("x"), styles).markupString());
    return format;
}

NBStyleSet NBParagraphLook::stylesOfFormat(const QTextCharFormat& format) const {
    if (!format.hasProperty(kNBEditorStylesProperty))
        return NBStyledStringRichText::stylesFromAttributes(format);
    // The property holds the markup of one character "x"; its opening tags are what is cached.
    const QString markup = format.stringProperty(kNBEditorStylesProperty);
    auto found = stylesByTags_.constFind(markup);
    if (found != stylesByTags_.constEnd())
        return *found;
    const NBStyleSet styles = NBStyledString::styledStringFromMarkupString(markup).stylesAtIndex(0);
    stylesByTags_.insert(markup, styles);
    return styles;
}

QTextTableFormat NBParagraphLook::tableFormat(const NBParagraph& paragraph, int columnCount) const {
    QTextTableFormat format;
    format.setBorder(1);
    format.setBorderBrush(QColor(0xB0, 0xB6, 0xBE));
    format.setBorderCollapse(false);
    format.setBorderStyle(QTextFrameFormat::BorderStyle_Solid);
    format.setCellPadding(4);
    format.setCellSpacing(0);
    format.setLeftMargin(markerMargin_);
    format.setRightMargin(QFontMetrics(baseFont_).height());
    format.setTopMargin(4);
    format.setBottomMargin(4);
    const std::optional<QList<qreal>> widths = paragraph.tableColumnWidths();
    // Without known widths the table spans the page in equal columns, so empty cells can be clicked into.
    format.setWidth(QTextLength(QTextLength::PercentageLength, 100));
    if (widths && widths->size() == columnCount) {
        format.clearProperty(QTextFormat::FrameWidth);
        QList<QTextLength> constraints;
        for (qreal width : *widths)
            constraints << QTextLength(QTextLength::FixedLength, width);
        format.setColumnWidthConstraints(constraints);
    }
    return format;
}

QTextCharFormat NBParagraphLook::attachmentChipFormat() const {
    QTextCharFormat format = charFormat(NBParagraphKind::Attachment, {});
    format.setBackground(QColor(0xEE, 0xF0, 0xF3));
    return format;
}

QTextCharFormat NBParagraphLook::attachmentDetailFormat() const {
    QTextCharFormat format = attachmentChipFormat();
    format.setForeground(QColor(0x6B, 0x72, 0x80));
    return format;
}
