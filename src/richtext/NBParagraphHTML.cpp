// NBParagraphRichText: reading pasted HTML into rich text, with the list paragraphs of Microsoft Word made
// lists.
//
// Word does not paste lists as <ul> or <ol>. Each item is a <p> (class MsoListParagraph...) or <div> whose
// inline style holds "mso-list:lN levelM lfoK": N names the list, M (from 1) the nesting level. The marker
// Word drew sits at the start of the paragraph, either between the conditional sections "<![if
// !supportLists]>" and "<![endif]>" (or their comment forms "<!--[if !supportLists]-->" and
// "<!--[endif]-->"), or, without them, in a <span style="mso-list:Ignore">; it is the marker text ("1.",
// "a)", "(iv)", "·", "o", "§" in a Symbol or Wingdings font span) followed by spacing &nbsp; spans.
//
// How such a paragraph is read:
//   Marker: the text of the marker section, character references decoded and no-break spaces counted as
//   spaces, up to its first white space. A marker of digits (or dotted digits, "1.2."), or of letters all of
//   one case, ending in "." or ")" (and optionally opened by "(" when it ends in ")") is a numbered item: a
//   list whose first marker is "i"/"I" or several letters that are all roman digits counts in roman numerals,
//   other letters alphabetically. A marker of one character is a bullet: "o", "◦" and "○" draw a circle;
//   "§", "▪", "■" and Wingdings "n" a square; Wingdings "v", "◆" and "♦" a diamond; "-", "–", "—" and "⁃" a
//   hyphen; any other a disc. Any other marker, or a paragraph without a marker section, is not a list
//   item: the paragraph is read as it is, marker text included.
//   Item: the marker section is removed, and so is the white space (no-break spaces included) that then
//   starts the paragraph. The block's own margins and indents are cleared and it joins a text list whose
//   indent is its level, so that paragraphsFromAttributedString gives level M the list level M - 1. Levels
//   1 to 99 are read (another level is no item). As for any rich text, list levels are the ranks of the head
//   indents present, so items that skip a level (1 then 3) read one level deeper, not two.
//   Lists: consecutive items of the same list N at the same level form one text list; a deeper item starts
//   a list below the current one, and going back up continues the list of that level (so numbering
//   resumes: 1., a., b., 2.). Any other paragraph in between, or an item of another list, ends them all; a
//   bullet among numbered items of one level (or the reverse) starts a new list at that level.
// Everything else is read by Qt's HTML reader as it stands. The items are found again after Qt has read the
// HTML through a tag, a noncharacter followed by the item's number and another noncharacter, written at
// the start of each item's content; tags Qt left elsewhere (HTML nested strangely) are removed unread.
#include "richtext/NBParagraphRichText.h"

#include "text/NBStyledString.h"

#include <QRegularExpression>
#include <QTextBlock>
#include <QTextCursor>
#include <QTextDocument>
#include <QTextList>

#include <map>

namespace {

constexpr QChar kItemTagStart(0xFDD2);
constexpr QChar kItemTagEnd(0xFDD3);

enum class MarkerKind { Numbered, Bullet };

// One Word list item found in the HTML.
struct WordListItem {
    int list = 0;
    int level = 1;
    MarkerKind kind = MarkerKind::Bullet;
    QString marker;
};

bool isItemSpace(QChar character) {
    return character.isSpace() || character == QChar(0x00A0);
}

// The marker of a paragraph's marker section: its text up to the first white space.
QString markerOfSection(const QString& sectionHTML) {
    static const QRegularExpression tag(QStringLiteral("<[^>]*>"));
    QString text = sectionHTML;
    text.replace(tag, QString());
    text = nbDecodeHTMLCharacterReferences(text);
    text.replace(QChar(0x00A0), QLatin1Char(' '));
    text = text.simplified();
    return text.section(QLatin1Char(' '), 0, 0);
}

std::optional<MarkerKind> markerKind(const QString& marker) {
    static const QRegularExpression numbered(QStringLiteral(
        R"(^(?:\(([0-9]+(?:\.[0-9]+)*|[a-z]+|[A-Z]+)\)|([0-9]+(?:\.[0-9]+)*|[a-z]+|[A-Z]+)[.)])$)"));
    if (numbered.match(marker).hasMatch())
        return MarkerKind::Numbered;
    const bool oneCharacter = marker.size() == 1 || (marker.size() == 2 && marker[0].isHighSurrogate() &&
                                                     marker[1].isLowSurrogate());
    if (oneCharacter && !marker[0].isDigit())
        return MarkerKind::Bullet;
    return std::nullopt;
}

QTextListFormat listFormatForItem(const WordListItem& item) {
    QTextListFormat format;
    format.setIndent(item.level);
    if (item.kind == MarkerKind::Bullet) {
        const char16_t symbol = item.marker.size() == 1 ? item.marker[0].unicode() : u'\0';
        switch (symbol) {
        case u'o':
        case u'\u25E6':
        case u'\u25CB':
            format.setStyle(QTextListFormat::ListCircle);
            break;
        case u'\u00A7':
        case u'\u25AA':
        case u'\u25A0':
        case u'n':
            format.setStyle(QTextListFormat::ListSquare);
            break;
        case u'v':
        case u'\u25C6':
        case u'\u2666':
            format.setStyle(QTextListFormat::ListDisc);
            format.setProperty(NBTextListMarkerFormatProperty, QStringLiteral("{diamond}"));
            break;
        case u'-':
        case u'\u2013':
        case u'\u2014':
        case u'\u2043':
            format.setStyle(QTextListFormat::ListDisc);
            format.setProperty(NBTextListMarkerFormatProperty, QStringLiteral("{hyphen}"));
            break;
        default:
            format.setStyle(QTextListFormat::ListDisc);
        }
        return format;
    }
    const bool opened = item.marker.startsWith(QLatin1Char('('));
    const QString counter = item.marker.mid(opened ? 1 : 0, item.marker.size() - (opened ? 2 : 1));
    static const QRegularExpression roman(QStringLiteral("^(?:[ivxlcdm]+|[IVXLCDM]+)$"));
    if (counter[0].isDigit())
        format.setStyle(QTextListFormat::ListDecimal);
    else if (roman.match(counter).hasMatch() &&
             (counter.size() > 1 || counter.compare(u"i", Qt::CaseInsensitive) == 0))
        format.setStyle(counter[0].isLower() ? QTextListFormat::ListLowerRoman
                                             : QTextListFormat::ListUpperRoman);
    else
        format.setStyle(counter[0].isLower() ? QTextListFormat::ListLowerAlpha
                                             : QTextListFormat::ListUpperAlpha);
    format.setNumberPrefix(opened ? QStringLiteral("(") : QString());
    format.setNumberSuffix(item.marker.right(1));
    return format;
}

// Where a paragraph's marker section lies in the paragraph's content: the range to remove and the HTML of
// the marker inside it. The content is searched on its own so that reading stays linear in the HTML.
struct MarkerSection {
    qsizetype start = 0;
    qsizetype end = 0;
    QString markerHTML;
};

std::optional<MarkerSection> findMarkerSection(const QString& content) {
    static const QRegularExpression conditionalStart(
        QStringLiteral(R"(<!(?:--)?\[if\s+!supportLists\]\s*(?:--)?>)"),
        QRegularExpression::CaseInsensitiveOption);
    static const QRegularExpression conditionalEnd(QStringLiteral(R"(<!(?:--)?\[endif\]\s*(?:--)?>)"),
                                                   QRegularExpression::CaseInsensitiveOption);
    static const QRegularExpression ignoredSpan(QStringLiteral(R"(<span\b[^>]*mso-list\s*:\s*ignore[^>]*>)"),
                                                QRegularExpression::CaseInsensitiveOption);
    static const QRegularExpression spanTag(QStringLiteral(R"(<(/?)span\b[^>]*>)"),
                                            QRegularExpression::CaseInsensitiveOption);
    const auto between = [&content](qsizetype start, qsizetype end) {
        return content.sliced(start, end - start);
    };

    const QRegularExpressionMatch start = conditionalStart.match(content);
    if (start.hasMatch()) {
        const QRegularExpressionMatch end = conditionalEnd.match(content, start.capturedEnd());
        if (!end.hasMatch())
            return std::nullopt;
        return MarkerSection{start.capturedStart(), end.capturedEnd(),
                             between(start.capturedEnd(), end.capturedStart())};
    }

    // Without the conditional section, the marker is the whole span Word marks to be ignored.
    const QRegularExpressionMatch span = ignoredSpan.match(content);
    if (!span.hasMatch())
        return std::nullopt;
    int depth = 1;
    for (QRegularExpressionMatchIterator tags = spanTag.globalMatch(content, span.capturedEnd());
         tags.hasNext();) {
        const QRegularExpressionMatch tag = tags.next();
        depth += tag.capturedView(1).isEmpty() ? 1 : -1;
        if (depth == 0)
            return MarkerSection{span.capturedStart(), tag.capturedEnd(),
                                 between(span.capturedEnd(), tag.capturedStart())};
    }
    return std::nullopt;
}

// The HTML with every recognised Word list item's marker section removed and its item tag written in its
// place at the start of the item's content; `items` receives the items in order.
QString markWordListItems(const QString& html, QList<WordListItem>& items) {
    static const QRegularExpression blockStart(QStringLiteral(R"(<(p|div)(?=[\s/>])[^>]*>)"),
                                               QRegularExpression::CaseInsensitiveOption);
    static const QRegularExpression listStyle(QStringLiteral(R"(mso-list\s*:\s*l(\d+)\s+level(\d+))"),
                                              QRegularExpression::CaseInsensitiveOption);
    static const QRegularExpression blockBoundary(
        QStringLiteral(R"(</?(?:p|div|li|h[1-6]|ul|ol|table|tr|td|th|body)(?=[\s/>]))"),
        QRegularExpression::CaseInsensitiveOption);

    QString out;
    qsizetype copied = 0;
    for (QRegularExpressionMatchIterator blocks = blockStart.globalMatch(html); blocks.hasNext();) {
        const QRegularExpressionMatch block = blocks.next();
        const QRegularExpressionMatch style = listStyle.match(block.captured());
        if (!style.hasMatch() || block.capturedStart() < copied)
            continue;
        bool listOK = false;
        bool levelOK = false;
        const int list = style.capturedView(1).toInt(&listOK);
        const int level = style.capturedView(2).toInt(&levelOK);
        if (!listOK || !levelOK || level < 1 || level > 99)
            continue;
        const qsizetype contentStart = block.capturedEnd();
        const QRegularExpressionMatch boundary = blockBoundary.match(html, contentStart);
        const qsizetype contentEnd = boundary.hasMatch() ? boundary.capturedStart() : html.size();
        const std::optional<MarkerSection> section =
            findMarkerSection(html.sliced(contentStart, contentEnd - contentStart));
        if (!section)
            continue;
        const QString marker = markerOfSection(section->markerHTML);
        const std::optional<MarkerKind> kind = markerKind(marker);
        if (!kind)
            continue;
        out += QStringView(html).sliced(copied, contentStart - copied);
        out += kItemTagStart + QString::number(items.size()) + kItemTagEnd;
        out += QStringView(html).sliced(contentStart, section->start);
        copied = contentStart + section->end;
        items << WordListItem{list, level, *kind, marker};
    }
    out += QStringView(html).sliced(copied);
    return out;
}

// Removes the item tags from a block; gives the number of the tag that starts it, if one does.
std::optional<qsizetype> takeItemTags(QTextDocument& document, const QTextBlock& block) {
    std::optional<qsizetype> itemNumber;
    QString text = block.text();
    for (qsizetype start = text.lastIndexOf(kItemTagStart); start >= 0;
         start = start > 0 ? text.lastIndexOf(kItemTagStart, start - 1) : -1) {
        const qsizetype end = text.indexOf(kItemTagEnd, start);
        if (end < 0)
            continue;
        bool numberOK = false;
        const qsizetype number = QStringView(text).sliced(start + 1, end - start - 1).toLongLong(&numberOK);
        qsizetype removeEnd = end + 1;
        if (start == 0 && numberOK) {
            itemNumber = number;
            while (removeEnd < text.size() && isItemSpace(text[removeEnd]))
                ++removeEnd;
        }
        QTextCursor cursor(&document);
        cursor.setPosition(block.position() + int(start));
        cursor.setPosition(block.position() + int(removeEnd), QTextCursor::KeepAnchor);
        cursor.removeSelectedText();
        text.remove(start, removeEnd - start);
    }
    return itemNumber;
}

} // namespace

void NBParagraphRichText::setAttributedStringFromHTMLString(QTextDocument& document, QStringView html) {
    QList<WordListItem> items;
    document.setHtml(markWordListItems(html.toString(), items));

    // The lists of the run of items being read, by level; a run ends at any other paragraph.
    struct RunList {
        QTextList* list;
        MarkerKind kind;
    };
    std::map<int, RunList> listsByLevel;
    int runList = -1;
    qsizetype nextItem = 0;
    for (QTextBlock block = document.begin(); block.isValid(); block = block.next()) {
        const std::optional<qsizetype> number = takeItemTags(document, block);
        // Item tags come in order (Qt drops the content of some elements, so numbers may be skipped); one
        // that goes back was not written by us where Qt put it.
        if (!number || *number < nextItem || *number >= items.size()) {
            listsByLevel.clear();
            continue;
        }
        const WordListItem& item = items[*number];
        nextItem = *number + 1;
        if (item.list != runList)
            listsByLevel.clear();
        runList = item.list;
        listsByLevel.erase(listsByLevel.upper_bound(item.level), listsByLevel.end());

        QTextCursor cursor(block);
        QTextBlockFormat blockFormat;
        blockFormat.setLeftMargin(0);
        blockFormat.setTextIndent(0);
        blockFormat.setIndent(0);
        cursor.mergeBlockFormat(blockFormat);
        if (const auto list = listsByLevel.find(item.level);
            list != listsByLevel.end() && list->second.kind == item.kind)
            list->second.list->add(block);
        else
            listsByLevel[item.level] = {cursor.createList(listFormatForItem(item)), item.kind};
    }
}

QList<NBParagraph> NBParagraphRichText::paragraphsFromHTMLString(QStringView html) {
    QTextDocument document;
    setAttributedStringFromHTMLString(document, html);
    return paragraphsFromAttributedString(document);
}
