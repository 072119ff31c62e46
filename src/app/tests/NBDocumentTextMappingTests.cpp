// Tests of the mapping between a document's paragraphs and the editor's text: every kind shown and read
// back, updates that touch only what changed, fillers around tables, and styles.
#include "NBEditorTestSupport.h"
#include "app/NBDocumentTextMapping.h"

#include <QTextBlock>
#include <QTextCursor>
#include <QTextDocument>
#include <QTextTable>

#include <gtest/gtest.h>

namespace {

QStringList shownDescriptions(const NBDocumentTextMapping& mapping) {
    QStringList result;
    for (const QString& uuid : mapping.layout())
        result << describeParagraph(mapping.shownParagraph(uuid));
    return result;
}

// The text blocks that belong to no paragraph and are not table cells.
int fillerCount(const NBDocumentTextMapping& mapping) {
    int count = 0;
    for (QTextBlock block = mapping.textDocument()->begin(); block.isValid(); block = block.next())
        count += mapping.isFillerBlock(block) ? 1 : 0;
    return count;
}

const QString kTable = QStringLiteral("table:a\tb<b>old</b>\nc&#10;d\t");

} // namespace

TEST(NBDocumentTextMapping, ShowsEveryKindAndReadsItBack) {
    // Each row: the paragraphs, and how many filler blocks the tables among them need.
    const struct {
        QStringList paragraphs;
        int fillers;
    } cases[] = {
        {{"day:2024-03-07", "step:Spin <b>down</b>", "section:Lysis", "normal:x &lt; y &amp; z",
          "bullet0:one", "bullet2:deep", "number1:first", "code:for i in 1..3", "note:<i>cold</i> room",
          "warning:sharp", "error:failed", "normal:two\nlines", "normal:"},
         0},
        {{kTable}, 2},                                  // alone: a filler before and after
        {{kTable, kTable, "normal:after"}, 2},          // first, and two in a row
        {{"normal:before", kTable, "normal:after"}, 0}, // between text: none
        {{"normal:before", kTable}, 1},                 // last: one after
        {{"day:3", "step:<c#FF0000>red</c> <sup>2</sup>"}, 0},
    };
    for (const auto& [descriptions, fillers] : cases) {
        SCOPED_TRACE(descriptions.join(QLatin1String(" | ")).toStdString());
        NBDocumentTextMapping mapping;
        const QList<NBParagraph> paragraphs = paragraphsFromDescriptions(descriptions);
        mapping.setParagraphs(paragraphs);
        EXPECT_EQ(shownDescriptions(mapping), describeParagraphs(paragraphs));
        EXPECT_EQ(fillerCount(mapping), fillers);
        for (const NBParagraph& paragraph : paragraphs) {
            const int start = mapping.startOfParagraph(paragraph.uuid());
            ASSERT_GE(start, 0);
            EXPECT_EQ(mapping.paragraphUUIDAtPosition(start + (paragraph.isTableType() ? 1 : 0)),
                      paragraph.uuid());
        }
    }
}

TEST(NBDocumentTextMapping, DaysShowWeekdayAndDateOrTheirNumber) {
    NBDocumentTextMapping mapping;
    const QList<NBParagraph> paragraphs = paragraphsFromDescriptions({"day:2024-03-07", "day:3"});
    mapping.setParagraphs(paragraphs);
    const QString calendar = mapping.blockOfParagraph(paragraphs[0].uuid()).text();
    EXPECT_TRUE(calendar.contains(NBDay::dayWithDateComponents({2024, 3, std::nullopt, 7}).weekdayString()));
    EXPECT_TRUE(calendar.contains(QLatin1String("2024")));
    EXPECT_EQ(mapping.blockOfParagraph(paragraphs[1].uuid()).text(), QStringLiteral("Day 3"));
}

TEST(NBDocumentTextMapping, UpdatesTouchOnlyTheParagraphsThatChanged) {
    // Each row: the layout before and after, by letter; "X'" gives X a new content; tables are "T", "U".
    // Cursors in paragraphs that neither move nor change keep their places (those in moved paragraphs are
    // the editor's to put back).
    const struct {
        QString before, after;
        bool moves;
    } cases[] = {
        {"ABCD", "ABD", false},   {"ABCD", "AXBCD", false}, {"ABCD", "DABC", true}, {"ABCD", "BADC", true},
        {"ABCD", "A'BCD", false}, {"ATBC", "ABC", false},   {"ABC", "ATBC", false}, {"ATUB", "AUTB", true},
        {"TAB", "ABT", true},     {"ABT", "TAB", true},     {"ATB", "AT'B", false}, {"AB", "BXA", true},
        {"ABCD", "", false},      {"", "TUA", false},       {"ATUB", "B", false},   {"TA", "XTA", false},
    };
    for (const auto& [before, after, moves] : cases) {
        SCOPED_TRACE((before + " -> " + after).toStdString());
        QHash<QChar, NBParagraph> byLetter;
        auto paragraphFor = [&](QChar letter) {
            if (!byLetter.contains(letter))
                byLetter.insert(
                    letter, letter == QLatin1Char('T') || letter == QLatin1Char('U')
                                ? NBParagraph::tableParagraphWithRows({{QString(letter), "x"}, {"y", "z"}})
                                : NBParagraph::normalParagraphWithContent(QString(letter) + " text"));
            return byLetter.value(letter);
        };
        QList<NBParagraph> initial;
        for (QChar letter : before)
            initial << paragraphFor(letter);
        NBDocumentTextMapping mapping;
        mapping.setParagraphs(initial);
        // A cursor in every text paragraph that stays, one character in: it must keep its place.
        QHash<QChar, QTextCursor> cursors;
        for (QChar letter : before)
            if (!moves && after.contains(letter) && !paragraphFor(letter).isTableType()) {
                QTextCursor cursor(mapping.textDocument());
                cursor.setPosition(mapping.startOfParagraph(paragraphFor(letter).uuid()) + 1);
                cursors.insert(letter, cursor);
            }
        QStringList layout;
        QHash<QString, NBParagraph> values;
        QString expected;
        for (qsizetype index = 0; index < after.size(); ++index) {
            NBParagraph paragraph = paragraphFor(after[index]);
            if (index + 1 < after.size() && after[index + 1] == QLatin1Char('\'')) {
                if (paragraph.isTableType())
                    paragraph = NBParagraph::paragraphWithUUID(
                                    paragraph.uuid(), NBParagraph::tableParagraphWithRows({{"new"}}).info())
                                    .value();
                else
                    paragraph.setContent(QStringLiteral("changed"));
            }
            if (after[index] == QLatin1Char('\''))
                continue;
            layout << paragraph.uuid();
            values.insert(paragraph.uuid(), paragraph);
            expected += describeParagraph(paragraph) + QLatin1Char('|');
        }
        mapping.applyLayout(layout, values);
        EXPECT_EQ(mapping.layout(), layout);
        EXPECT_EQ(shownDescriptions(mapping).join(QLatin1Char('|')) + (layout.isEmpty() ? "" : "|"),
                  expected);
        for (auto it = cursors.constBegin(); it != cursors.constEnd(); ++it) {
            const QString uuid = paragraphFor(it.key()).uuid();
            if (values.value(uuid).content() != paragraphFor(it.key()).content())
                continue;
            EXPECT_EQ(mapping.paragraphUUIDAtPosition(it->position()), uuid)
                << QString(it.key()).toStdString();
            EXPECT_EQ(it->position() - mapping.startOfParagraph(uuid), 1) << QString(it.key()).toStdString();
        }
        // The text is the same as one built from scratch.
        NBDocumentTextMapping fresh;
        QList<NBParagraph> finalParagraphs;
        for (const QString& uuid : layout)
            finalParagraphs << values.value(uuid);
        fresh.setParagraphs(finalParagraphs);
        EXPECT_EQ(mapping.textDocument()->toPlainText(), fresh.textDocument()->toPlainText());
        EXPECT_EQ(fillerCount(mapping), fillerCount(fresh));
    }
}

TEST(NBDocumentTextMapping, StylesChangeOnTopOfTheKindsLook) {
    NBDocumentTextMapping mapping;
    const QList<NBParagraph> paragraphs =
        paragraphsFromDescriptions({"section:Heading", "normal:plain <i>text</i>", kTable});
    mapping.setParagraphs(paragraphs);
    // A section is drawn bold, yet its text has no bold style until the user gives it one.
    EXPECT_EQ(mapping.shownContent(paragraphs[0].uuid()), QStringLiteral("Heading"));
    const int start = mapping.startOfParagraph(paragraphs[0].uuid());
    const auto addBold = [](NBStyleSet styles) {
        styles.insert(NBStyle::bold());
        return styles;
    };
    // Bold from the middle of the heading to the middle of the second paragraph.
    const QStringList touched =
        mapping.changeStylesInRange(start + 4, mapping.startOfParagraph(paragraphs[1].uuid()) + 8, addBold);
    EXPECT_EQ(touched, QStringList({paragraphs[0].uuid(), paragraphs[1].uuid()}));
    EXPECT_EQ(mapping.shownContent(paragraphs[0].uuid()), QStringLiteral("Head<b>ing</b>"));
    EXPECT_EQ(mapping.shownContent(paragraphs[1].uuid()),
              QStringLiteral("<b>plain </b><b><i>te</i></b><i>xt</i>"));
    EXPECT_TRUE(mapping.commonStylesInRange(start + 4, start + 7).containsKind(NBStyle::Kind::Bold));
    EXPECT_FALSE(mapping.commonStylesInRange(start, start + 7).containsKind(NBStyle::Kind::Bold));
    // In a table cell the grid takes the style.
    QTextTable* table = mapping.tableOfParagraph(paragraphs[2].uuid());
    ASSERT_TRUE(table);
    const QTextTableCell cell = table->cellAt(0, 0);
    mapping.changeStylesInRange(cell.firstPosition(), cell.lastPosition(), addBold);
    EXPECT_EQ(mapping.shownContent(paragraphs[2].uuid()), QStringLiteral("<b>a</b>\tb<b>old</b>\nc&#10;d\t"));
}

TEST(NBDocumentTextMapping, ListNumbersAndStepNumbersFollowTheLayout) {
    NBDocumentTextMapping mapping;
    const QList<NBParagraph> paragraphs =
        paragraphsFromDescriptions({"day:2024-03-07", "step:a", "number0:x", "note:n", "number0:y", "step:b",
                                    "day:2024-03-08", "step:c"});
    mapping.setParagraphs(paragraphs);
    EXPECT_EQ(mapping.stepNumber(paragraphs[1].uuid()), 1);
    EXPECT_EQ(mapping.stepNumber(paragraphs[5].uuid()), 2);
    EXPECT_EQ(mapping.stepNumber(paragraphs[7].uuid()), 1);
    EXPECT_EQ(mapping.paragraph(paragraphs[4].uuid()).listItemIndex(), 1);
    // Taking out the first item renumbers the second.
    QStringList layout;
    for (const NBParagraph& paragraph : paragraphs)
        if (paragraph.uuid() != paragraphs[2].uuid())
            layout << paragraph.uuid();
    mapping.applyLayout(layout, {});
    EXPECT_EQ(mapping.paragraph(paragraphs[4].uuid()).listItemIndex(), 0);
}
