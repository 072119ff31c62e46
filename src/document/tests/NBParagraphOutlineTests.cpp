// Tests of what a document computes over its paragraphs in order: numbered-list counters and the outline.
#include "document/NBParagraph.h"

#include <gtest/gtest.h>

namespace {

NBParagraph number(const char* text, qint64 level) {
    return NBParagraph::numberParagraphWithContent(text, level);
}
NBParagraph bullet(const char* text, qint64 level) {
    return NBParagraph::bulletParagraphWithContent(text, level);
}

// The outline written as text: each node's plain text, its children in parentheses.
QString outline(const NBTreeNode::Pointer& node) {
    QStringList children;
    for (const NBTreeNode::Pointer& child : node->childNodes())
        children << outline(child);
    const QVariant object = node->representedObject();
    QString text = object.isValid() ? object.value<NBParagraph>().plainTextContent() : QStringLiteral("root");
    return children.isEmpty() ? text : text + "(" + children.join(' ') + ")";
}

} // namespace

TEST(NBParagraphLists, NumberedItemsCountPerLevelAcrossNotesAndTablesUntilAHeadingOrText) {
    QList<NBParagraph> paragraphs{number("a", 0),
                                  number("b", 0),
                                  number("b.a", 1),
                                  number("b.a.a", 2),
                                  number("b.b", 1), // the deeper level ends
                                  NBParagraph::noteParagraphWithContent("note"),
                                  number("b.c", 1),
                                  NBParagraph::tableParagraphWithRows({{"x"}}),
                                  NBParagraph::attachmentParagraphWithContent("f", "/f"),
                                  bullet("bullet", 0), // keeps level 0's count, ends level 1
                                  number("c.a", 1),
                                  number("c", 0), // level 1 restarted; level 0 goes on
                                  NBParagraph::sectionParagraphWithTitle("Section"), // ends the list
                                  number("new", 0),
                                  NBParagraph::normalParagraphWithContent("text"), // ends it too
                                  number("deep", 1000000000000),
                                  number("after", 0), // absurd stored levels cost nothing
                                  NBParagraph::codeParagraphWithContent("code"),
                                  number("after code", 0)};
    paragraphs[0].setListItemIndex(41); // a stale number is replaced
    NBParagraph::updateNumberedListCountersForParagraphs(paragraphs);

    QStringList numbered;
    for (const NBParagraph& paragraph : paragraphs) {
        if (paragraph.isNumberType())
            numbered << QString("%1=%2").arg(paragraph.content()).arg(paragraph.listItemIndex().value_or(-1));
        else
            EXPECT_EQ(paragraph.listItemIndex(), std::nullopt) << paragraph.content().toStdString();
    }
    EXPECT_EQ(numbered.join(' '),
              "a=0 b=1 b.a=0 b.a.a=0 b.b=1 b.c=2 c.a=0 c=2 new=0 deep=0 after=0 after code=0");
}

TEST(NBParagraphLists, OutlineNestsHeadingsAndListLevels) {
    const QList<NBParagraph> document{
        NBParagraph::dayParagraphWithDayRep("{day:1}"),
        NBParagraph::stepParagraphWithTitle("Step 1", "S1", "P"),
        NBParagraph::sectionParagraphWithTitle("Sec"),
        NBParagraph::normalParagraphWithContent("body"),
        bullet("l0", 0),
        bullet("l1", 1), // under the section: a level-0 item under a heading stays a leaf
        number("l2", 2),
        bullet("l1b", 1),
        NBParagraph::noteParagraphWithContent("note"),
        NBParagraph::stepParagraphWithTitle("Step 2", "S2", "P"), // ends the section and step 1
        NBParagraph::normalParagraphWithContent("in step 2"),
        NBParagraph::dayParagraphWithDayRep("{day:2}"),
        NBParagraph::sectionParagraphWithTitle("Sec 2"), // a section directly under a day
        bullet("x", 1),
    };
    const NBTreeNode::Pointer tree = NBParagraph::documentTreeWithParagraphs(document);
    EXPECT_EQ(outline(tree), "root(Day 1(Step 1(Sec(body l0 l1(l2) l1b note)) Step 2(in step 2)) "
                             "Day 2(Sec 2(x)))");
    EXPECT_EQ(NBParagraph::descendentCountForTree(tree), document.size());
    const NBTreeNode::Pointer step = NBParagraph::treeWithParentParagraph(1, document);
    EXPECT_EQ(NBParagraph::descendentCountForTree(step), 7);
    EXPECT_EQ(NBParagraph::treeWithParentParagraph(document.size(), document), nullptr);
}

TEST(NBParagraphLists, OutlineBeforeAnyHeadingLetsTopLevelItemsCollectDeeperOnes) {
    const QList<NBParagraph> document{
        bullet("t0", 0),
        bullet("t1", 1),
        number("t2", 2),
        bullet("t1b", 1),
        bullet("u0", 0), // a new top-level item ends the first one's subtree
        NBParagraph::normalParagraphWithContent("text"),
        bullet("v1", 1),
        NBParagraph::warningParagraphWithContent("warn"),
        NBParagraph::sectionParagraphWithTitle("Sec"),
        bullet("w0", 0),
        bullet("w1", 1),
    };
    EXPECT_EQ(outline(NBParagraph::documentTreeWithParagraphs(document)),
              "root(t0(t1(t2) t1b) u0 text(v1) warn Sec(w0 w1))");
}
