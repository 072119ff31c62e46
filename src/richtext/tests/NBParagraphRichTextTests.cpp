// Tests of splitting rich text into paragraphs: lines, bold lines, list markers and levels, tables, and the
// styles carried into the markup, over text built with a cursor and HTML as browsers and office programs
// paste it.
#include "richtext/NBParagraphRichText.h"
#include "richtext/NBSpreadsheetDataRichText.h"

#include <QTextCursor>
#include <QTextDocument>
#include <QTextList>
#include <QTextTable>

#include <gtest/gtest.h>

namespace {

// Each paragraph as "type[level]:content", joined by " | ".
QString summary(const QList<NBParagraph>& paragraphs) {
    QStringList parts;
    for (const NBParagraph& paragraph : paragraphs) {
        QString part = paragraph.type();
        if (std::optional<qint64> level = paragraph.indentationLevel())
            part += QString::number(*level);
        parts << part + ":" + paragraph.content();
    }
    return parts.join(" | ");
}

QString summaryOfHTML(const char* html) {
    QTextDocument document;
    document.setHtml(QString::fromUtf8(html));
    return summary(NBParagraphRichText::paragraphsFromAttributedString(document));
}

// A document holding one list of the given format, one item per text.
QString summaryOfList(const QTextListFormat& format, const QStringList& items) {
    QTextDocument document;
    QTextCursor cursor(&document);
    cursor.insertText("before");
    cursor.insertBlock();
    cursor.createList(format);
    for (qsizetype index = 0; index < items.size(); ++index) {
        if (index > 0)
            cursor.insertBlock();
        cursor.insertText(items[index]);
    }
    return summary(NBParagraphRichText::paragraphsFromAttributedString(document));
}

} // namespace

TEST(NBParagraphRichText, LinesBecomeParagraphs) {
    const struct {
        const char* plainText;
        const char* expected;
    } plainCases[] = {
        {"a\n", "normal:a | normal:"},
        {"", "normal:"},
        {"one\n  \ntwo &amp; <three>", "normal:one | normal: | normal:two &amp;amp; &lt;three>"},
    };
    for (const auto& testCase : plainCases) {
        QTextDocument document;
        document.setPlainText(QString::fromUtf8(testCase.plainText));
        EXPECT_EQ(summary(NBParagraphRichText::paragraphsFromAttributedString(document)), testCase.expected)
            << testCase.plainText;
    }

    const struct {
        const char* html;
        const char* expected;
    } htmlCases[] = {
        // A bold first character makes the whole line a section; headings are bold.
        {"<p><b>B</b>old line</p><p>plain <b>bold</b></p>",
         "section:<b>B</b>old line | normal:plain <b>bold</b>"},
        {"<h2>Methods</h2><p>Text</p>", "section:<b>Methods</b> | normal:Text"},
        {"<p><span style='font-weight:600'>Semi</span></p>", "section:<b>Semi</b>"},
        // A line break inside a paragraph ends the line too.
        {"<p>first<br>second</p>", "normal:first | normal:second"},
    };
    for (const auto& testCase : htmlCases)
        EXPECT_EQ(summaryOfHTML(testCase.html), testCase.expected) << testCase.html;
}

TEST(NBParagraphRichText, ListLinesLoseTheirMarkersAndKeepTheirLevels) {
    QTextListFormat hyphen;
    hyphen.setStyle(QTextListFormat::ListDisc);
    hyphen.setProperty(NBTextListMarkerFormatProperty, QStringLiteral("{hyphen}"));
    EXPECT_EQ(summaryOfList(hyphen, {"item", "x", "\tindented"}),
              "normal:before | bullet0:item | bullet0:x | bullet0:\tindented");

    QTextListFormat decimal;
    decimal.setStyle(QTextListFormat::ListDecimal);
    QStringList many;
    for (int item = 1; item <= 11; ++item)
        many << QString("n%1").arg(item);
    EXPECT_TRUE(summaryOfList(decimal, many).endsWith("number0:n10 | number0:n11")); // "10.\t" is cut whole

    // A numbered item without text after its tab is no numbered item: it keeps its marker as text.
    EXPECT_EQ(summaryOfList(decimal, {"", "b"}), "normal:before | normal:1.\t | number0:b");

    QTextListFormat roman;
    roman.setStyle(QTextListFormat::ListUpperRoman);
    roman.setNumberPrefix("(");
    roman.setNumberSuffix(")");
    EXPECT_EQ(summaryOfList(roman, {"first"}), "normal:before | number0:first");

    const struct {
        const char* html;
        const char* expected;
    } cases[] = {
        {"<ul><li>one<ul><li>two<ol><li>three</li></ol></li></ul></li><li><i>four</i></li></ul><p>after</p>",
         "bullet0:one | bullet1:two | number2:three | bullet0:<i>four</i> | normal:after"},
        {"<ul style='list-style-type:square'><li><b>bold</b> item</li></ul>", "bullet0:<b>bold</b> item"},
        // Only the line that shows the marker is a list line.
        {"<ul><li>first<br>second</li></ul>", "bullet0:first | normal:second"},
    };
    for (const auto& testCase : cases)
        EXPECT_EQ(summaryOfHTML(testCase.html), testCase.expected) << testCase.html;

    QTextDocument tasks;
    tasks.setMarkdown("- [ ] todo\n- [x] done\n");
    EXPECT_EQ(NBParagraphRichText::markerFormatForTextBlock(tasks.begin()), "{box}");
    EXPECT_EQ(NBParagraphRichText::markerFormatForTextBlock(tasks.begin().next()), "{check}");
    EXPECT_EQ(summary(NBParagraphRichText::paragraphsFromAttributedString(tasks)),
              "bullet0:todo | bullet0:done");
    EXPECT_EQ(NBParagraphRichText::markerFormatForTextBlock(QTextBlock()), "");
}

TEST(NBParagraphRichText, TablesBecomeTableParagraphs) {
    const struct {
        const char* html;
        const char* expected;
    } cases[] = {
        {"<p>before</p><table><tr><td>a</td><td><b>b</b></td></tr>"
         "<tr><td>c<br>d</td><td><p>e</p><p>f</p></td></tr></table><p>after</p>",
         "normal:before | table:a\t<b>b</b>\nc&#10;d\te&#10;f | normal:after"},
        {"<table><tr><td>only</td></tr></table>", "table:only | normal:"},
        {"<table><tr><td colspan='2'>wide</td></tr><tr><td>1</td><td>2</td></tr></table>text",
         "table:wide\t\n1\t2 | normal:text"},
        {"<table><tr><td>x</td></tr></table><table><tr><td>y</td></tr></table>",
         "table:x | table:y | normal:"},
    };
    for (const auto& testCase : cases)
        EXPECT_EQ(summaryOfHTML(testCase.html), testCase.expected) << testCase.html;

    // Fixed column widths are read by the table model (pasting itself does not keep them).
    QTextDocument document;
    QTextCursor cursor(&document);
    QTextTableFormat format;
    format.setColumnWidthConstraints(
        {QTextLength(QTextLength::FixedLength, 80), QTextLength(QTextLength::FixedLength, 120)});
    QTextTable* table = cursor.insertTable(1, 2, format);
    table->cellAt(0, 1).firstCursorPosition().insertText("tab\there");
    NBTextRange range;
    std::optional<NBSpreadsheetData> data =
        NBSpreadsheetDataRichText::spreadsheetDataWithAttributedString(document, 0, &range);
    ASSERT_TRUE(data);
    EXPECT_EQ(data->columnWidths(), (QList<qreal>{80, 120}));
    EXPECT_EQ(data->arrayOfArrayOfMarkupStrings(), (QList<QStringList>{{"", "tab\there"}}));
    EXPECT_EQ(data->tableParagraph().content(), "\ttab&#9;here");
    EXPECT_EQ(range.location, 0);
    EXPECT_EQ(range.end(), table->lastPosition() + 1);
    EXPECT_FALSE(
        NBSpreadsheetDataRichText::spreadsheetDataWithAttributedString(document, range.end(), nullptr));
}

TEST(NBParagraphRichText, CharacterStylesSurviveAsMarkup) {
    QTextDocument document;
    document.setHtml("<p>a <i>b</i> <span style='color:#ff0000'>c</span> <u>d</u><sup>2</sup> x&lt;y</p>");
    const QList<NBParagraph> paragraphs = NBParagraphRichText::paragraphsFromAttributedString(document);
    ASSERT_EQ(paragraphs.size(), 1);

    NBMutableStyledString expected(QStringLiteral("a b c d2 x<y"));
    expected.addStyle(NBStyle::italic(), {2, 1});
    expected.addStyle(NBStyle::styleForTextColor(NBColor(255, 0, 0)), {4, 1});
    expected.addStyle(NBStyle::underline(), {6, 1});
    expected.addStyle(NBStyle::superscript(), {7, 1});
    EXPECT_EQ(paragraphs[0].content(), expected.markupString());
    EXPECT_EQ(paragraphs[0].styledContent(), expected);
}

namespace {

// One list paragraph as Word pastes it: the marker and its spacing in a conditional section (or, with
// `comment`, in its comment form) before the text.
QString wordItem(const QString& style, const QString& markerSpan, const QString& text, bool comment = false) {
    return QStringLiteral("<p class=MsoListParagraphCxSpMiddle style='%1'>%2%3%4%5<o:p></o:p></p>")
        .arg(style, comment ? "<!--[if !supportLists]-->" : "<![if !supportLists]>", markerSpan,
             comment ? "<!--[endif]-->" : "<![endif]>", text);
}

// Word's marker span: the marker text, then the spacing span.
QString wordMarker(const QString& marker, const QString& font = QString()) {
    const QString spaced =
        QStringLiteral("<span style='mso-list:Ignore'>%1<span style='font:7.0pt \"Times New "
                       "Roman\"'>&nbsp;&nbsp;&nbsp;&nbsp;&nbsp; </span></span>")
            .arg(marker);
    if (font.isEmpty())
        return spaced;
    return QStringLiteral("<span style='font-family:%1;mso-fareast-font-family:%1'>%2</span>")
        .arg(font, spaced);
}

// Each block's list as "marker format#n", n numbering the distinct lists in order; "-" outside lists.
QString listsOfDocument(const QTextDocument& document) {
    QList<const QTextList*> lists;
    QStringList parts;
    for (QTextBlock block = document.begin(); block.isValid(); block = block.next()) {
        const QTextList* list = block.textList();
        if (!list) {
            parts << "-";
            continue;
        }
        if (!lists.contains(list))
            lists << list;
        parts << NBParagraphRichText::markerFormatForTextBlock(block) + "#" +
                     QString::number(lists.indexOf(list) + 1);
    }
    return parts.join(" ");
}

} // namespace

TEST(NBParagraphRichText, WordListParagraphsBecomeLists) {
    const QString level1 = "text-indent:-.25in;mso-list:l0 level1 lfo1";
    const struct {
        QString html;
        const char* expected;
        const char* lists;
    } cases[] = {
        // A numbered list with lettered lists inside it: numbering goes on after an inner list, and the next
        // inner list starts afresh. Word wraps its lines, so text may start after a line break.
        {"<p class=MsoNormal>Steps:</p>\n"
         "<p class=MsoListParagraphCxSpFirst style='text-indent:-.25in;mso-list:l0 level1 lfo1'><![if "
         "!supportLists]><span style='mso-bidi-font-family:Calibri'><span style='mso-list:Ignore'>1.<span "
         "style='font:7.0pt \"Times New Roman\"'>&nbsp;&nbsp;&nbsp;&nbsp;&nbsp; "
         "</span></span></span><![endif]>\nThaw the <b>cells</b><o:p></o:p></p>\n" +
             wordItem("margin-left:1.0in;text-indent:-.25in;mso-list:l0 level2 lfo1", wordMarker("a."),
                      "Water bath at 37&nbsp;°C") +
             wordItem("margin-left:1.0in;text-indent:-.25in;mso-list:l0 level2 lfo1", wordMarker("b)"),
                      "Mix gently") +
             wordItem(level1, wordMarker("2."), "Spin down") +
             wordItem("margin-left:1.0in;mso-list:l0 level2 lfo1", wordMarker("a."), "Vortex"),
         "normal:Steps: | number0:Thaw the <b>cells</b> | number1:Water bath at 37\u00A0°C | number1:Mix "
         "gently | "
         "number0:Spin down | number1:Vortex",
         "- {decimal}.#1 {lower-alpha}.#2 {lower-alpha}.#2 {decimal}.#1 {lower-alpha}.#3"},
        // Bullets in Symbol, Courier New and Wingdings fonts, in the comment form, three levels deep.
        {wordItem("text-indent:-.25in;mso-list:l1 level1 lfo2", wordMarker("&middot;", "Symbol"), "Pipettes",
                  true) +
             wordItem("margin-left:1.0in;mso-list:l1 level2 lfo2", wordMarker("o", "\"Courier New\""), "Tips",
                      true) +
             wordItem("margin-left:1.5in;mso-list:l1 level3 lfo2", wordMarker("§", "Wingdings"),
                      "Filter tips", true) +
             wordItem("mso-list:l1 level1 lfo2", wordMarker("\xEF\x82\xB7", "Symbol"), "Gloves", true),
         "bullet0:Pipettes | bullet1:Tips | bullet2:Filter tips | bullet0:Gloves",
         "{disc}#1 {circle}#2 {square}#3 {disc}#1"},
        // Roman and bracketed markers (a list starting at "c." is lettered); another list, a plain paragraph
        // or a bullet among numbered items ends a list.
        {wordItem("mso-list:l2 level1 lfo3", wordMarker("i."), "One") +
             wordItem("mso-list:l2 level1 lfo3", wordMarker("ii."), "Two") +
             wordItem("mso-list:l3 level1 lfo4", wordMarker("(A)"), "Other list") +
             "<p class=MsoNormal>Note</p>" +
             wordItem("mso-list:l3 level1 lfo4", wordMarker("1.2."), "Dotted") +
             wordItem("mso-list:l3 level1 lfo4", wordMarker("&#8211;"), "Dash") +
             wordItem("mso-list:l4 level1 lfo5", wordMarker("c."), "Third"),
         "number0:One | number0:Two | number0:Other list | normal:Note | number0:Dotted | bullet0:Dash | "
         "number0:Third",
         "{lower-roman}.#1 {lower-roman}.#1 ({upper-alpha})#2 - {decimal}.#3 {hyphen}#4 {lower-alpha}.#5"},
        // Without the conditional section Word's ignored span is the marker.
        {"<p class=MsoListParagraph style='mso-list:l0 level1 lfo1'><span style='mso-list:Ignore'>3)<span "
         "style='font:7.0pt \"Times New Roman\"'>&nbsp;&nbsp; </span></span>Spin <i>again</i></p>",
         "number0:Spin <i>again</i>", "{decimal})#1"},
        // Markers not read as list markers, and a list style without a marker, leave the paragraph as it was.
        {wordItem(level1, wordMarker("Step&nbsp;1:"), "Label") +
             wordItem(level1, wordMarker("12"), "Bare number") +
             "<p class=MsoListParagraph style='mso-list:l0 level1 lfo1'>No marker</p>" +
             wordItem("mso-list:l0 level0 lfo1", wordMarker("1."), "Level zero"),
         "normal:Step\u00A01:\u00A0\u00A0\u00A0\u00A0\u00A0 Label | normal:12\u00A0\u00A0\u00A0\u00A0\u00A0 "
         "Bare "
         "number | normal:No marker | normal:1.\u00A0\u00A0\u00A0\u00A0\u00A0 Level zero",
         "- - - -"},
        // Malformed HTML: an unended section, an unclosed marker span, a forged item tag, a tag cut short.
        {"<p style='mso-list:l0 level1 lfo1'><![if !supportLists]>1. Open</p>"
         "<p style='mso-list:l0 level1 lfo1'><span style='mso-list:Ignore'>2. <span>x</p>"
         "<p style='mso-list:l0 level1 lfo1'><![if !supportLists]>\xEF\xB7\x92"
         "5\xEF\xB7\x93<![endif]>Tagged"
         "<p style='mso-list:l0 level1",
         "normal:1. Open | normal:2. x | normal:Tagged | normal:", "- - - -"},
    };
    for (const auto& testCase : cases) {
        QTextDocument document;
        NBParagraphRichText::setAttributedStringFromHTMLString(document, testCase.html);
        EXPECT_EQ(listsOfDocument(document).toStdString(), testCase.lists) << qPrintable(testCase.html);
        EXPECT_EQ(summary(NBParagraphRichText::paragraphsFromHTMLString(testCase.html)).toStdString(),
                  testCase.expected)
            << qPrintable(testCase.html);
    }
}
