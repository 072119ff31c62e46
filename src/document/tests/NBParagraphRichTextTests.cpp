// Tests of splitting rich text into paragraphs: lines, bold lines, list markers and levels, tables, and the
// styles carried into the markup, over text built with a cursor and HTML as browsers and office programs
// paste it.
#include "document/NBParagraph.h"
#include "document/NBSpreadsheetData.h"

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
    return summary(NBParagraph::paragraphsFromAttributedString(document));
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
    return summary(NBParagraph::paragraphsFromAttributedString(document));
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
        EXPECT_EQ(summary(NBParagraph::paragraphsFromAttributedString(document)), testCase.expected)
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
    EXPECT_EQ(NBParagraph::markerFormatForTextBlock(tasks.begin()), "{box}");
    EXPECT_EQ(NBParagraph::markerFormatForTextBlock(tasks.begin().next()), "{check}");
    EXPECT_EQ(summary(NBParagraph::paragraphsFromAttributedString(tasks)), "bullet0:todo | bullet0:done");
    EXPECT_EQ(NBParagraph::markerFormatForTextBlock(QTextBlock()), "");
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
        NBSpreadsheetData::spreadsheetDataWithAttributedString(document, 0, &range);
    ASSERT_TRUE(data);
    EXPECT_EQ(data->columnWidths(), (QList<qreal>{80, 120}));
    EXPECT_EQ(data->arrayOfArrayOfMarkupStrings(), (QList<QStringList>{{"", "tab\there"}}));
    EXPECT_EQ(data->tableParagraph().content(), "\ttab&#9;here");
    EXPECT_EQ(range.location, 0);
    EXPECT_EQ(range.end(), table->lastPosition() + 1);
    EXPECT_FALSE(NBSpreadsheetData::spreadsheetDataWithAttributedString(document, range.end(), nullptr));
}

TEST(NBParagraphRichText, CharacterStylesSurviveAsMarkup) {
    QTextDocument document;
    document.setHtml("<p>a <i>b</i> <span style='color:#ff0000'>c</span> <u>d</u><sup>2</sup> x&lt;y</p>");
    const QList<NBParagraph> paragraphs = NBParagraph::paragraphsFromAttributedString(document);
    ASSERT_EQ(paragraphs.size(), 1);

    NBMutableStyledString expected(QStringLiteral("a b c d2 x<y"));
    expected.addStyle(NBStyle::italic(), {2, 1});
    expected.addStyle(NBStyle::styleForTextColor(QColor(255, 0, 0)), {4, 1});
    expected.addStyle(NBStyle::underline(), {6, 1});
    expected.addStyle(NBStyle::superscript(), {7, 1});
    EXPECT_EQ(paragraphs[0].content(), expected.markupString());
    EXPECT_EQ(paragraphs[0].styledContent(), expected);
}
