// Tests of the document editor driven by keys and actions offscreen, checked in the document's store: typing,
// Enter, Backspace, Tab, kinds and styles, with undo and redo of each; paste; and another device editing
// the same package while the editor is open.
#include "NBEditorTestSupport.h"

#include "document/NBDocument.h"

#include <QMimeData>
#include <QTextCursor>
#include <QUndoStack>

#include <gtest/gtest.h>

namespace {

// Places the cursor `offset` characters into the paragraph at `index` and types the keys.
void typeAt(EditorFixture& fixture, int index, int offset, const QString& text) {
    fixture.editor->setCursorPosition(fixture.uuidAt(index), offset);
    QTest::keyClicks(fixture.view(), text);
}

} // namespace

TEST(NBDocumentEditor, TypingIsWrittenAfterAPauseAndAtOnceWhenAsked) {
    EditorFixture fixture({"normal:Spin", "step:Lyse"});
    fixture.editor->setWriteDelay(50);
    typeAt(fixture, 0, 4, " down");
    EXPECT_EQ(fixture.stored(), QStringList({"normal:Spin", "step:Lyse"})); // not yet
    EXPECT_TRUE(waitUntil([&] { return fixture.stored().value(0) == "normal:Spin down"; }));
    fixture.editor->setWriteDelay(60000);
    typeAt(fixture, 1, 0, "Cell ");
    fixture.editor->writePendingEdits();
    EXPECT_EQ(fixture.stored(), QStringList({"normal:Spin down", "step:Cell Lyse"}));
    // One undo step per run of typing in a paragraph, restoring the document.
    fixture.editor->undo();
    EXPECT_EQ(fixture.stored(), QStringList({"normal:Spin down", "step:Lyse"}));
    fixture.editor->undo();
    EXPECT_EQ(fixture.stored(), QStringList({"normal:Spin", "step:Lyse"}));
    EXPECT_EQ(fixture.shown(), fixture.stored());
    fixture.editor->redo();
    fixture.editor->redo();
    EXPECT_EQ(fixture.stored(), QStringList({"normal:Spin down", "step:Cell Lyse"}));
    EXPECT_EQ(fixture.shown(), fixture.stored());
}

TEST(NBDocumentEditor, KeysAndActionsChangeTheDocumentAndUndoRestoresIt) {
    // Each row: the document, an action, the document after it. Undo must give back the first, redo the
    // second, and the text must show the store each time.
    const struct {
        const char* name;
        QStringList before;
        std::function<void(EditorFixture&)> action;
        QStringList after;
    } cases[] = {
        {"Enter splits, a step after a step",
         {"step:Centrifuge cells"},
         [](EditorFixture& f) {
             typeAt(f, 0, 10, "");
             QTest::keyClick(f.view(), Qt::Key_Return);
         },
         {"step:Centrifuge", "step: cells"}},
        {"Enter at the start adds before",
         {"section:Lysis"},
         [](EditorFixture& f) {
             typeAt(f, 0, 0, "");
             QTest::keyClick(f.view(), Qt::Key_Return);
         },
         {"section:", "section:Lysis"}},
        {"Enter after a section gives normal text",
         {"section:Lysis"},
         [](EditorFixture& f) {
             typeAt(f, 0, 5, "");
             QTest::keyClick(f.view(), Qt::Key_Return);
         },
         {"section:Lysis", "normal:"}},
        {"Enter on an empty item ends the list",
         {"bullet1:"},
         [](EditorFixture& f) {
             typeAt(f, 0, 0, "");
             QTest::keyClick(f.view(), Qt::Key_Return);
         },
         {"normal:"}},
        {"Backspace at the start merges",
         {"normal:Spin <b>5</b>", "bullet0: min"},
         [](EditorFixture& f) {
             typeAt(f, 1, 0, "");
             QTest::keyClick(f.view(), Qt::Key_Backspace);
         },
         {"normal:Spin <b>5</b> min"}},
        {"Delete at the end merges the next",
         {"normal:a", "note:b"},
         [](EditorFixture& f) {
             typeAt(f, 0, 1, "");
             QTest::keyClick(f.view(), Qt::Key_Delete);
         },
         {"normal:ab"}},
        {"Backspace after a day removes an empty paragraph",
         {"day:2024-03-07", "normal:"},
         [](EditorFixture& f) {
             typeAt(f, 1, 0, "");
             QTest::keyClick(f.view(), Qt::Key_Backspace);
         },
         {"day:2024-03-07"}},
        {"Tab and Shift+Tab change levels",
         {"bullet0:a", "number1:b"},
         [](EditorFixture& f) {
             typeAt(f, 0, 0, "");
             QTest::keyClick(f.view(), Qt::Key_Tab);
         },
         {"bullet1:a", "number1:b"}},
        {"Shift+Tab stops at level 0",
         {"number1:b"},
         [](EditorFixture& f) {
             typeAt(f, 0, 1, "");
             QTest::keyClick(f.view(), Qt::Key_Backtab, Qt::ShiftModifier);
         },
         {"number0:b"}},
        {"Kind shortcut",
         {"normal:Wear gloves", "normal:x"},
         [](EditorFixture& f) {
             typeAt(f, 0, 2, "");
             QTest::keyClick(f.view(), Qt::Key_7, Qt::ControlModifier | Qt::AltModifier);
         },
         {"warning:Wear gloves", "normal:x"}},
        {"Kind of every selected paragraph",
         {"normal:a", "note:b", "normal:c"},
         [](EditorFixture& f) {
             f.editor->setSelection({{f.uuidAt(0), 0}, {f.uuidAt(1), 1}});
             f.editor->setParagraphKind(NBParagraphKind::Bullet);
         },
         {"bullet0:a", "bullet0:b", "normal:c"}},
        {"Bold over a selection",
         {"normal:Add EDTA"},
         [](EditorFixture& f) {
             f.editor->setSelection({{f.uuidAt(0), 4}, {f.uuidAt(0), 8}});
             QTest::keyClick(f.view(), Qt::Key_B, Qt::ControlModifier);
         },
         {"normal:Add <b>EDTA</b>"}},
        {"Subscript then superscript replace each other",
         {"normal:H2O"},
         [](EditorFixture& f) {
             f.editor->setSelection({{f.uuidAt(0), 1}, {f.uuidAt(0), 2}});
             f.editor->toggleStyle(NBStyle::subscript());
             f.editor->toggleStyle(NBStyle::superscript());
         },
         {"normal:H<sup>2</sup>O"}},
        {"Typing over a selection across paragraphs",
         {"normal:keep this", "step:gone", "note:and that"},
         [](EditorFixture& f) {
             f.editor->setSelection({{f.uuidAt(0), 4}, {f.uuidAt(2), 4}});
             QTest::keyClicks(f.view(), "X");
             f.editor->writePendingEdits();
         },
         {"normal:keepXthat"}},
        {"Insert a day",
         {"normal:a"},
         [](EditorFixture& f) {
             typeAt(f, 0, 1, "");
             f.editor->insertDay();
         },
         {"normal:a", QStringLiteral("day:") + NBDay::today().yearMonthDayISO8601String(), "normal:"}},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.name);
        EditorFixture fixture(test.before);
        fixture.editor->setWriteDelay(60000);
        const QStringList before = fixture.stored();
        test.action(fixture);
        fixture.editor->writePendingEdits();
        EXPECT_EQ(fixture.stored(), test.after);
        EXPECT_EQ(fixture.shown(), fixture.stored());
        // Several steps when the action took several (typing over a selection is a deletion, then typing).
        while (fixture.editor->undoStack()->canUndo())
            fixture.editor->undo();
        EXPECT_EQ(fixture.stored(), before);
        EXPECT_EQ(fixture.shown(), fixture.stored());
        while (fixture.editor->undoStack()->canRedo())
            fixture.editor->redo();
        EXPECT_EQ(fixture.stored(), test.after);
        EXPECT_EQ(fixture.shown(), fixture.stored());
    }
}

TEST(NBDocumentEditor, PastesHTMLWordListsAndTextAsParagraphs) {
    // The first pasted paragraph joins the text before the cursor (an empty paragraph takes its kind), the
    // last one the text after it.
    const struct {
        const char* name;
        QString before;
        QString html;
        QString text;
        QStringList after;
    } cases[] = {
        {"one line of text goes into the paragraph",
         "normal:Add 50 mM",
         {},
         "tris ",
         {"normal:Add tris 50 mM"}},
        {"lines of text become paragraphs",
         "normal:Add 50 mM",
         {},
         "tris\nHEPES\n",
         {"normal:Add tris", "normal:HEPES", "normal:50 mM"}},
        {"HTML list items and bold",
         "normal:Add 50 mM",
         "<p><b>Buffer</b></p><ul><li>tris</li><li>NaCl</li></ul>",
         {},
         {"normal:Add <b>Buffer</b>", "bullet0:tris", "bullet0:NaCl50 mM"}},
        {"into an empty paragraph",
         "normal:",
         "<p><b>Buffer</b></p><ul><li>tris</li></ul>",
         {},
         {"section:<b>Buffer</b>", "bullet0:tris"}},
        {"Word's list paragraphs lose their markers",
         "normal:",
         "<p class=MsoListParagraph style='mso-list:l0 level1 lfo1'><![if !supportLists]><span>1.<span> "
         "</span></span><![endif]>Thaw</p><p class=MsoListParagraph style='mso-list:l0 level2 lfo1'>"
         "<![if !supportLists]><span>a.<span> </span></span><![endif]>on ice</p>",
         {},
         {"number0:Thaw", "number1:on ice"}},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.name);
        EditorFixture fixture({test.before});
        fixture.editor->setCursorPosition(fixture.uuidAt(0), test.before.startsWith("normal:Add") ? 4 : 0);
        QMimeData data;
        if (!test.html.isEmpty())
            data.setHtml(test.html);
        else
            data.setText(test.text);
        fixture.editor->pasteMimeData(&data);
        EXPECT_EQ(fixture.stored(), test.after);
        EXPECT_EQ(fixture.shown(), fixture.stored());
        fixture.editor->undo();
        EXPECT_EQ(fixture.stored(), QStringList({test.before}));
    }
}

TEST(NBDocumentEditor, CopyAndPasteWithinTheEditorKeepsKinds) {
    EditorFixture fixture({"step:Spin", "bullet1:fast", "normal:end"});
    fixture.editor->setSelection({{fixture.uuidAt(0), 1}, {fixture.uuidAt(1), 2}});
    std::unique_ptr<QMimeData> copied(fixture.editor->mimeDataForSelection());
    fixture.editor->setCursorPosition(fixture.uuidAt(2), 3);
    fixture.editor->pasteMimeData(copied.get());
    EXPECT_EQ(fixture.stored(), QStringList({"step:Spin", "bullet1:fast", "normal:endpin", "bullet1:fa"}));
}

TEST(NBDocumentEditor, AnotherDeviceEditsWhileTheEditorIsOpen) {
    EditorFixture fixture({"normal:first", "step:second", "normal:third"});
    fixture.editor->setWriteDelay(60000);
    ASSERT_TRUE(fixture.document->saveNow());
    NBError error;
    std::shared_ptr<NBDocument> other =
        NBDocument::openDocumentAtPath(fixture.document->storePath(), QStringLiteral("laptop"), {}, &error);
    ASSERT_TRUE(other) << error.description().toStdString();

    // The user types into the third paragraph, cursor after "thi"; the other device edits the first,
    // inserts a paragraph before the second, and edits the third, all newer than what the editor wrote.
    typeAt(fixture, 2, 3, "XY");
    std::optional<NBParagraph> first = other->paragraphWithUUID(fixture.uuidAt(0));
    first->setContent(QStringLiteral("first, edited"));
    other->modifyParagraph(*first);
    other->insertParagraph(NBParagraph::noteParagraphWithContent(QStringLiteral("inserted")),
                           fixture.uuidAt(1));
    std::optional<NBParagraph> third = other->paragraphWithUUID(fixture.uuidAt(2));
    third->setContent(QStringLiteral("the third"));
    other->modifyParagraph(*third);
    ASSERT_TRUE(other->saveNow());
    fixture.document->syncNow();

    const QStringList expected = {"normal:first, edited", "note:inserted", "step:second",
                                  "normal:the thiXYrd"};
    EXPECT_TRUE(waitUntil([&] { return fixture.shown() == expected; }))
        << fixture.shown().join(" | ").toStdString();
    // The cursor stayed after the typed text, in the merged paragraph.
    EXPECT_EQ(fixture.editor->selection().position.uuid, fixture.uuidAt(3));
    EXPECT_EQ(fixture.editor->selection().position.offset, 9);
    // The typing is written in its turn, on top of the newer value, and reaches the other device.
    QTest::keyClicks(fixture.view(), "Z");
    fixture.editor->writePendingEdits();
    EXPECT_EQ(fixture.stored(),
              QStringList({"normal:first, edited", "note:inserted", "step:second", "normal:the thiXYZrd"}));
    ASSERT_TRUE(fixture.document->saveNow());
    other->syncNow();
    EXPECT_EQ(describeParagraphs(other->paragraphs()), fixture.stored());
    other->tearDownNow();
}
