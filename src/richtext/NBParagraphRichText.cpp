// NBParagraphRichText: splitting rich text (a QTextDocument, which pasted HTML, Word and Markdown imports
// pass through) into paragraphs.
//
// How the QTextDocument is read. The document's raw text (QTextDocument::toRawText) is walked position by
// position; positions are those of QTextCursor.
//   Lines: a line ends at any line-break character: "\n", "\v", "\f", "\r", U+0085, the line separator
//   U+2028 (a <br>), the paragraph separator U+2029 between blocks, and the frame characters U+FDD0 and
//   U+FDD1 that open and close frames (the block before a table ends with the table's opening character).
//   Tables: a QTextTable is taken whole by NBSpreadsheetDataRichText where it begins, and becomes a table
//   paragraph. List markers: QTextDocument draws markers instead of storing them in the text. A line that
//   starts a block of a QTextList is read as the text the list shows: the marker, a tab, then the block's
//   text. The marker is one symbol for bullet formats (markerFormatForTextBlock) and the list's item text
//   ("3.", "c)") for numbered ones; so a bullet loses exactly its marker and tab, and a numbered item keeps
//   what follows the first tab. The lines after a line separator inside a list item show no marker and are
//   not list lines. Head indents: a block's head indent (where its wrapped lines start) is its left margin
//   plus its indent steps (QTextBlockFormat::indent, and for a list item the list's indent minus one) times
//   the document's indent width. Qt puts a first-level list's text one indent step in from body text, where
//   its marker sits; counting the list's first step out makes a pasted first-level list level 0 and each
//   nested list one level deeper. Indents are compared exactly. Bold: the first character's font weight is
//   DemiBold (600) or heavier, as CSS and HTML headings make it.
#include "richtext/NBParagraphRichText.h"

#include "richtext/NBSpreadsheetDataRichText.h"
#include "richtext/NBStyledStringRichText.h"

#include <QFont>
#include <QTextBlock>
#include <QTextDocument>
#include <QTextList>

#include <algorithm>

namespace {

bool isLineBreak(QChar character) {
    switch (character.unicode()) {
    case 0x000A:
    case 0x000B:
    case 0x000C:
    case 0x000D:
    case 0x0085:
    case 0x2028:
    case 0x2029:
    case 0xFDD0: // QTextBeginningOfFrame
    case 0xFDD1: // QTextEndOfFrame
        return true;
    default:
        return false;
    }
}

// The bullet words of marker formats, with the symbol a line shows for each.
struct BulletMarker {
    const char* word;
    char16_t symbol;
};
constexpr BulletMarker kBulletMarkers[] = {
    {"{box}", u'\u2610'},  {"{check}", u'\u2611'},  {"{circle}", u'\u25E6'}, {"{diamond}", u'\u25C6'},
    {"{disc}", u'\u2022'}, {"{hyphen}", u'\u2043'}, {"{square}", u'\u25AA'},
};

// The symbol of the first bullet word in the format, or nothing for a numbered format.
std::optional<QChar> bulletSymbolForMarkerFormat(const QString& markerFormat) {
    for (const BulletMarker& marker : kBulletMarkers) {
        if (markerFormat.contains(QLatin1String(marker.word)))
            return QChar(marker.symbol);
    }
    return std::nullopt;
}

qreal headIndentOfBlock(const QTextDocument& document, const QTextBlock& block) {
    const QTextBlockFormat format = block.blockFormat();
    qreal steps = format.indent();
    if (const QTextList* list = block.textList())
        steps += std::max(list->format().indent() - 1, 0);
    return format.leftMargin() + steps * document.indentWidth();
}

QTextCharFormat charFormatAt(const QTextDocument& document, int position) {
    const QTextBlock block = document.findBlock(position);
    for (QTextBlock::iterator piece = block.begin(); !piece.atEnd(); ++piece) {
        const QTextFragment fragment = piece.fragment();
        if (fragment.isValid() && fragment.position() <= position &&
            position < fragment.position() + fragment.length())
            return fragment.charFormat();
    }
    return block.charFormat();
}

// The document's characters of a range, as toRawText() has them, without copying the whole text: the
// separator that ends each block (a paragraph separator or a frame character) stands as U+2029.
QString documentText(const QTextDocument& document, int location, int length) {
    QString text;
    const int end = location + length;
    for (QTextBlock block = document.findBlock(location); block.isValid() && block.position() < end;
         block = block.next()) {
        const QString blockText = block.text() + QChar(QChar::ParagraphSeparator);
        const int from = std::max(location, block.position()) - block.position();
        const int to = std::min(end, block.position() + int(blockText.size())) - block.position();
        if (to > from)
            text += QStringView(blockText).mid(from, to - from);
    }
    return text;
}

// A line as the rich text shows it: an optional marker prefix that the document does not store, followed
// by `length` characters of the document from `location`.
struct ShownLine {
    const QTextDocument& document;
    int location;
    int length;
    QString prefix;
    QString text;

    // The line's characters from `from` to the end as markup: prefix characters unstyled, document
    // characters with their formats.
    QString markupFrom(qsizetype from) const {
        NBMutableStyledString content;
        if (from < prefix.size())
            content.appendString(prefix.mid(from));
        const int start = location + int(std::max<qsizetype>(from - prefix.size(), 0));
        if (start < location + length)
            content.appendStyledString(NBStyledStringRichText::styledStringFromAttributedString(
                document, start, location + length - start));
        return content.markupString();
    }
};

} // namespace

QString NBParagraphRichText::markerFormatForTextBlock(const QTextBlock& block) {
    const QTextList* list = block.textList();
    if (!list)
        return QString();
    const QTextListFormat format = list->format();
    const QVariant explicitFormat = format.property(NBTextListMarkerFormatProperty);
    if (explicitFormat.typeId() == QMetaType::QString && !explicitFormat.toString().isEmpty())
        return explicitFormat.toString();
    switch (block.blockFormat().marker()) {
    case QTextBlockFormat::MarkerType::Checked:
        return QStringLiteral("{check}");
    case QTextBlockFormat::MarkerType::Unchecked:
        return QStringLiteral("{box}");
    case QTextBlockFormat::MarkerType::NoMarker:
        break;
    }
    const auto numbered = [&](const char* word) {
        return format.numberPrefix() + QLatin1String(word) + format.numberSuffix();
    };
    switch (format.style()) {
    case QTextListFormat::ListDisc:
        return QStringLiteral("{disc}");
    case QTextListFormat::ListCircle:
        return QStringLiteral("{circle}");
    case QTextListFormat::ListSquare:
        return QStringLiteral("{square}");
    case QTextListFormat::ListDecimal:
        return numbered("{decimal}");
    case QTextListFormat::ListLowerAlpha:
        return numbered("{lower-alpha}");
    case QTextListFormat::ListUpperAlpha:
        return numbered("{upper-alpha}");
    case QTextListFormat::ListLowerRoman:
        return numbered("{lower-roman}");
    case QTextListFormat::ListUpperRoman:
        return numbered("{upper-roman}");
    default:
        return QString();
    }
}

QList<qreal> NBParagraphRichText::tabIndentsForAttributedString(const QTextDocument& document) {
    QList<qreal> indents{0.0};
    for (QTextBlock block = document.begin(); block.isValid(); block = block.next())
        indents << headIndentOfBlock(document, block);
    std::sort(indents.begin(), indents.end());
    indents.erase(std::unique(indents.begin(), indents.end()), indents.end());
    return indents;
}

NBParagraph NBParagraphRichText::paragraphFromLineWithAttributedString(const QTextDocument& document,
                                                                       int location, int length,
                                                                       const QList<qreal>& tabIndents) {
    const int characterCount = document.characterCount();
    location = std::clamp(location, 0, std::max(characterCount - 1, 0));
    length = std::clamp(length, 0, std::max(characterCount - 1 - location, 0));
    const QTextBlock block = document.findBlock(location);

    QString markerFormat;
    QString prefix;
    if (block.isValid() && block.position() == location && block.textList()) {
        markerFormat = markerFormatForTextBlock(block);
        QString marker;
        if (std::optional<QChar> symbol = bulletSymbolForMarkerFormat(markerFormat))
            marker = *symbol;
        else if (!markerFormat.isEmpty())
            marker = block.textList()->itemText(block);
        if (!marker.isEmpty())
            prefix = marker + QLatin1Char('\t');
    }
    const ShownLine line{document, location, length, prefix,
                         prefix + documentText(document, location, length)};

    if (line.text.trimmed().isEmpty())
        return NBParagraph::normalParagraphWithContent(QString());

    if (!prefix.isEmpty()) {
        const qsizetype levelIndex = tabIndents.indexOf(headIndentOfBlock(document, block));
        const qint64 level = std::max<qsizetype>(levelIndex, 0);
        if (bulletSymbolForMarkerFormat(markerFormat))
            return NBParagraph::bulletParagraphWithContent(line.markupFrom(2), level);
        const qsizetype tab = line.text.indexOf(QLatin1Char('\t'), 1);
        if (tab >= 0 && tab + 1 < line.text.size())
            return NBParagraph::numberParagraphWithContent(line.markupFrom(tab + 1), level);
    }

    if (charFormatAt(document, location).fontWeight() >= QFont::DemiBold)
        return NBParagraph::sectionParagraphWithTitle(line.markupFrom(0));
    return NBParagraph::normalParagraphWithContent(line.markupFrom(0));
}

QList<NBParagraph> NBParagraphRichText::paragraphsFromAttributedString(const QTextDocument& document) {
    const QList<qreal> tabIndents = tabIndentsForAttributedString(document);
    const QString text = document.toRawText();
    QList<NBParagraph> paragraphs;
    int location = 0;
    while (true) {
        NBTextRange tableRange;
        if (std::optional<NBSpreadsheetData> table =
                NBSpreadsheetDataRichText::spreadsheetDataWithAttributedString(document, location,
                                                                               &tableRange)) {
            paragraphs << NBParagraph::tableParagraphWithRows(table->arrayOfArrayOfMarkupStrings(),
                                                              std::nullopt);
            location = int(tableRange.end());
            continue;
        }
        const auto lineBreak = std::find_if(text.begin() + location, text.end(), isLineBreak);
        const int lineEnd = int(lineBreak - text.begin());
        paragraphs << paragraphFromLineWithAttributedString(document, location, lineEnd - location,
                                                            tabIndents);
        if (lineBreak == text.end())
            break;
        location = lineEnd + 1;
    }
    return paragraphs;
}
