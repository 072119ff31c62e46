// NBParagraphRichText: rich text (a QTextDocument, which pasted HTML and imports pass through) split into
// paragraphs, and pasted HTML read into such a document.
//
// NBParagraphRichText.cpp documents how the QTextDocument is read (lines, tables, list markers and levels,
// bold lines); NBParagraphHTML.cpp documents the Microsoft Word list forms read from pasted HTML.
#pragma once

#include "document/NBParagraph.h"

#include <QList>
#include <QStringView>
#include <QTextFormat>

class QTextBlock;
class QTextDocument;

// A QTextListFormat property naming a list's marker format explicitly ("{hyphen}", "{diamond}",
// "({decimal})"), for markers that QTextListFormat's styles cannot express; importers set it, and it wins
// over the style.
inline constexpr int NBTextListMarkerFormatProperty = QTextFormat::UserProperty + 0x4E4C;

class NBParagraphRichText {
public:
    // Splits the whole document into paragraphs: tables become table paragraphs, every line one paragraph.
    static QList<NBParagraph> paragraphsFromAttributedString(const QTextDocument& document);
    // One line of the document (`length` characters from `location`, without its line break): a bullet or
    // numbered item for a list line, a section for a line that starts in bold, else a normal paragraph.
    // `tabIndents` are the sorted head indents of the whole text (tabIndentsForAttributedString), which
    // give list levels.
    static NBParagraph paragraphFromLineWithAttributedString(const QTextDocument& document, int location,
                                                             int length, const QList<qreal>& tabIndents);
    static QList<qreal> tabIndentsForAttributedString(const QTextDocument& document);
    // The marker format of the list a block belongs to: NBTextListMarkerFormatProperty when set; "{check}"
    // or "{box}" for a checked or unchecked item; else "{disc}", "{circle}", "{square}" or, for numbered
    // styles, the list's number prefix, "{decimal}", "{lower-alpha}", "{upper-alpha}", "{lower-roman}" or
    // "{upper-roman}", and its number suffix. Empty outside a list and for a list without markers.
    static QString markerFormatForTextBlock(const QTextBlock& block);

    // Replaces the document's content with the HTML as Qt's reader reads it, except that the list
    // paragraphs of Microsoft Word (paragraphs styled "mso-list:lN levelM" whose marker sits in a
    // conditional "supportLists" section) become items of text lists, without their marker text.
    static void setAttributedStringFromHTMLString(QTextDocument& document, QStringView html);
    // The paragraphs of pasted HTML: setAttributedStringFromHTMLString, then paragraphsFromAttributedString.
    static QList<NBParagraph> paragraphsFromHTMLString(QStringView html);
};
