// Tests of the editor's bench helpers and the paragraphs it makes from outside material: timers started
// from a step's duration, done steps, find through the document's index, tables, dropped files and
// inserted protocols.
#include "NBEditorTestSupport.h"

#include "document/NBProtocol.h"
#include "document/NBSpreadsheetData.h"

#include <QFile>
#include <QMimeData>
#include <QTextTable>
#include <QUndoStack>
#include <QUrl>

#include <gtest/gtest.h>

TEST(NBDocumentEditorBench, TimersStartFromTheDurationInTheTextAndDoneStepsAreStored) {
    EditorFixture fixture({"step:Lyse", "normal:Incubate 1 h 30 min at 37 C", "section:No duration"});
    NBDocumentEditor& editor = *fixture.editor;
    NBError error;
    EXPECT_FALSE(editor.startTimer(fixture.uuidAt(2), &error)); // a section carries no timer
    EXPECT_TRUE(editor.startTimer(fixture.uuidAt(1), &error));
    std::optional<NBTimer> timer = fixture.document->paragraphWithUUID(fixture.uuidAt(1))->timer();
    ASSERT_TRUE(timer);
    EXPECT_EQ(timer->state(), NBTimerState::Running);
    EXPECT_EQ(timer->duration()->durationInMilliseconds(), 90 * 60 * 1000);
    editor.pauseTimer(fixture.uuidAt(1));
    EXPECT_EQ(fixture.document->paragraphWithUUID(fixture.uuidAt(1))->timer()->state(), NBTimerState::Paused);
    // Undoing later typing in the paragraph leaves the timer as it is.
    fixture.editor->setCursorPosition(fixture.uuidAt(1), 0);
    QTest::keyClicks(fixture.view(), "Then ");
    editor.writePendingEdits();
    editor.undo();
    EXPECT_EQ(fixture.document->paragraphWithUUID(fixture.uuidAt(1))->timer()->state(), NBTimerState::Paused);
    editor.removeTimer(fixture.uuidAt(1));
    EXPECT_FALSE(fixture.document->paragraphWithUUID(fixture.uuidAt(1))->timer());

    editor.setParagraphDone(fixture.uuidAt(0), true);
    EXPECT_EQ(fixture.document->doneParagraphUUIDs(), QStringList({fixture.uuidAt(0)}));
    editor.setParagraphDone(fixture.uuidAt(0), false);
    EXPECT_TRUE(fixture.document->doneParagraphUUIDs().isEmpty());
}

TEST(NBDocumentEditorBench, FindUsesTheDocumentsIndexAndHighlightsEveryHit) {
    EditorFixture fixture({"step:Centrifuge the cells", "normal:Résumé of the cell count",
                           "note:nothing here", "table:cells\tdone\nx\ty"});
    NBDocumentEditor& editor = *fixture.editor;
    // Typed but not yet written text is found too.
    fixture.editor->setCursorPosition(fixture.uuidAt(2), 0);
    QTest::keyClicks(fixture.view(), "Cellular ");
    const auto findAndWait = [&](const QString& query) {
        QSignalSpy finished(&editor, &NBDocumentEditor::findFinished);
        editor.find(query);
        return finished.wait(10000);
    };
    ASSERT_TRUE(findAndWait("cell"));
    EXPECT_EQ(editor.findResults(),
              QStringList({fixture.uuidAt(0), fixture.uuidAt(1), fixture.uuidAt(2), fixture.uuidAt(3)}));
    EXPECT_EQ(editor.currentFindIndex(), 0);
    // One highlight per word that begins with the query, in tables too.
    EXPECT_EQ(fixture.view()->extraSelections().size(), 5);
    editor.findNext();
    EXPECT_EQ(editor.currentFindIndex(), 1);
    EXPECT_EQ(fixture.editor->currentParagraphUUID(), fixture.uuidAt(1));
    ASSERT_TRUE(findAndWait("resume OR nothing"));
    EXPECT_EQ(editor.findResults(), QStringList({fixture.uuidAt(1), fixture.uuidAt(2)}));
    ASSERT_TRUE(findAndWait("zebrafish"));
    EXPECT_TRUE(editor.findResults().isEmpty());
    EXPECT_TRUE(fixture.view()->extraSelections().isEmpty());
}

TEST(NBDocumentEditorBench, TablesAreEditedCellByCellAndStoredAsTheGrid) {
    EditorFixture fixture({"normal:before"});
    NBDocumentEditor& editor = *fixture.editor;
    editor.setCursorPosition(fixture.uuidAt(0), 6);
    editor.insertTable(1, 2);
    const QString table = fixture.uuidAt(1);
    QTextTable* shown = editor.mapping().tableOfParagraph(table);
    ASSERT_TRUE(shown);
    fixture.view()->setTextCursor(shown->cellAt(0, 0).firstCursorPosition());
    QTest::keyClicks(fixture.view(), "Lane");
    QTest::keyClick(fixture.view(), Qt::Key_Tab);
    QTest::keyClicks(fixture.view(), "Band");
    QTest::keyClick(fixture.view(), Qt::Key_Tab); // from the last cell: a new row
    QTest::keyClicks(fixture.view(), "1");
    editor.writePendingEdits();
    const auto grid = [&] {
        return NBSpreadsheetData::spreadsheetDataWithTableParagraph(
                   *fixture.document->paragraphWithUUID(table))
            ->arrayOfArrayOfMarkupStrings();
    };
    EXPECT_EQ(grid(), (QList<QStringList>{{"Lane", "Band"}, {"1", ""}}));
    editor.insertTableColumn(true);
    EXPECT_EQ(grid(), (QList<QStringList>{{"Lane", "", "Band"}, {"1", "", ""}}));
    editor.removeTableRow();
    EXPECT_EQ(grid(), (QList<QStringList>{{"Lane", "", "Band"}}));
    EXPECT_EQ(fixture.shown(), fixture.stored());
    editor.undo();
    editor.undo();
    EXPECT_EQ(grid(), (QList<QStringList>{{"Lane", "Band"}, {"1", ""}}));
    EXPECT_EQ(fixture.shown(), fixture.stored());
}

TEST(NBDocumentEditorBench, DroppedFilesBecomeAttachmentsAndProtocolsAreInsertedAtTheDay) {
    EditorFixture fixture({"day:2024-03-07", "step:Seed cells"});
    NBTemporaryDirectory files;
    QFile file(files.filePath("plate layout.csv"));
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write("A1,control\n");
    file.close();
    std::shared_ptr<NBProtocol> protocol = NBProtocol::newProtocolInFolder(
        files.path(), QStringLiteral("bench"), QStringLiteral("Western blot"));
    ASSERT_TRUE(protocol);
    protocol->insertParagraphs(paragraphsFromDescriptions({"day:0", "step:Block", "day:1", "step:Image"}),
                               QString());
    ASSERT_TRUE(protocol->saveNow());

    fixture.editor->setCursorPosition(fixture.uuidAt(1), 2);
    QMimeData dropped;
    dropped.setUrls({QUrl::fromLocalFile(file.fileName()), QUrl::fromLocalFile(protocol->storePath())});
    fixture.editor->pasteMimeData(&dropped);
    const QList<NBParagraph> paragraphs = fixture.document->paragraphs();
    ASSERT_EQ(paragraphs.size(), 6);
    EXPECT_TRUE(paragraphs[2].isAttachmentType());
    EXPECT_EQ(fixture.document->attachmentDataForParagraph(paragraphs[2]), QByteArray("A1,control\n"));
    EXPECT_EQ(describeParagraphs(paragraphs).mid(3),
              QStringList({"step:Block", "day:2024-03-08", "step:Image"}));
    EXPECT_EQ(fixture.shown(), fixture.stored());
    // Each was one step.
    fixture.editor->undo();
    EXPECT_EQ(fixture.document->paragraphs().size(), 3);
    fixture.editor->undo();
    EXPECT_EQ(fixture.stored(), QStringList({"day:2024-03-07", "step:Seed cells"}));
    protocol->tearDownNow();
}
