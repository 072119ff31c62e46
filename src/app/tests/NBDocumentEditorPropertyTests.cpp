// The editor's promise that no keystroke is lost: after any sequence of typing, Enter, Backspace, levels,
// kinds, styles, paste, undo, redo and another device's edits, the document read again from its package
// holds exactly what the editor shows.
#include "NBEditorTestSupport.h"

#include <QMimeData>
#include <QUndoStack>

#include <gtest/gtest.h>
#include <rapidcheck.h>

#include <sstream>

namespace {

enum class Step {
    Type,
    Enter,
    Backspace,
    Indent,
    Kind,
    Bold,
    Paste,
    Undo,
    Redo,
    Pause,
    RemoteEdit,
    RemoteInsert
};

struct Action {
    Step step;
    int paragraph; // taken modulo the paragraph count
    int offset;    // taken modulo the paragraph's length + 1
    int choice;
};

const char* stepName(Step step) {
    static const char* names[] = {"Type",  "Enter", "Backspace", "Indent", "Kind",       "Bold",
                                  "Paste", "Undo",  "Redo",      "Pause",  "RemoteEdit", "RemoteInsert"};
    return names[int(step)];
}

void showValue(const Action& action, std::ostream& stream) {
    stream << stepName(action.step) << "(" << action.paragraph << ", " << action.offset << ", "
           << action.choice << ")";
}

void run(EditorFixture& fixture, NBDocument& remote, const Action& action) {
    NBDocumentEditor& editor = *fixture.editor;
    const QStringList layout = editor.mapping().layout();
    if (layout.isEmpty())
        return;
    const QString uuid = layout.at(action.paragraph % layout.size());
    const NBParagraph paragraph = editor.mapping().paragraph(uuid);
    const int length = int(editor.mapping().shownStyledText(uuid).length());
    const int offset = NBParagraphLook::isTextKind(paragraph.kind()) ? action.offset % (length + 1) : 0;
    static const char* words[] = {"a", "bc", " d", "\u00E9f", "<g>", "&h"};
    switch (action.step) {
    case Step::Type:
        editor.setCursorPosition(uuid, offset);
        if (action.choice % 6 == 3) // keys Qt's test events cannot send arrive as composed text
            fixture.view()->textCursor().insertText(QString::fromUtf8(words[3]));
        else
            QTest::keyClicks(fixture.view(), QString::fromUtf8(words[action.choice % 6]));
        break;
    case Step::Enter:
        editor.setCursorPosition(uuid, offset);
        QTest::keyClick(fixture.view(), Qt::Key_Return);
        break;
    case Step::Backspace:
        editor.setCursorPosition(uuid, action.choice % 2 ? offset : 0);
        QTest::keyClick(fixture.view(), Qt::Key_Backspace);
        break;
    case Step::Indent:
        editor.setCursorPosition(uuid, offset);
        QTest::keyClick(fixture.view(), action.choice % 2 ? Qt::Key_Tab : Qt::Key_Backtab,
                        action.choice % 2 ? Qt::NoModifier : Qt::ShiftModifier);
        break;
    case Step::Kind: {
        static const NBParagraphKind kinds[] = {NBParagraphKind::Normal, NBParagraphKind::Step,
                                                NBParagraphKind::Bullet, NBParagraphKind::Number,
                                                NBParagraphKind::Note};
        editor.setCursorPosition(uuid, offset);
        editor.setParagraphKind(kinds[action.choice % 5]);
        break;
    }
    case Step::Bold: {
        const QString other = layout.at((action.paragraph + action.choice) % layout.size());
        editor.setSelection({{uuid, offset}, {other, action.choice % 3}});
        editor.toggleStyle(NBStyle::bold());
        break;
    }
    case Step::Paste: {
        editor.setCursorPosition(uuid, offset);
        QMimeData data;
        data.setText(action.choice % 2 ? QStringLiteral("p\nq") : QStringLiteral("r"));
        editor.pasteMimeData(&data);
        break;
    }
    case Step::Undo:
        editor.undo();
        break;
    case Step::Redo:
        editor.redo();
        break;
    case Step::Pause:
        editor.writePendingEdits();
        break;
    case Step::RemoteEdit:
    case Step::RemoteInsert: {
        remote.syncNow();
        const QStringList remoteLayout = remote.layout();
        if (remoteLayout.isEmpty())
            break;
        const QString target = remoteLayout.at(action.paragraph % remoteLayout.size());
        if (action.step == Step::RemoteInsert) {
            remote.insertParagraph(NBParagraph::normalParagraphWithContent(QStringLiteral("remote")), target);
        } else if (std::optional<NBParagraph> edited = remote.paragraphWithUUID(target);
                   edited && NBParagraphLook::isTextKind(edited->kind())) {
            edited->setContent(QStringLiteral("R") + edited->content());
            remote.modifyParagraph(*edited);
        }
        remote.saveNow();
        fixture.document->syncNow();
        // Let the change notification reach the editor, as it would between two keystrokes.
        QCoreApplication::processEvents();
        break;
    }
    }
}

} // namespace

// Random sequences, each run from a fresh package. A run costs about half a second, so `make test` runs a
// few dozen; QUILLON_EDITOR_PROPERTY_CASES runs more, QUILLON_EDITOR_PROPERTY_SEED another series.
TEST(NBDocumentEditorProperty, TheReopenedDocumentHoldsWhatTheEditorShows) {
    const int cases = qEnvironmentVariableIsSet("QUILLON_EDITOR_PROPERTY_CASES")
                          ? qEnvironmentVariableIntValue("QUILLON_EDITOR_PROPERTY_CASES")
                          : 24;
    const quint64 seed = qEnvironmentVariableIsSet("QUILLON_EDITOR_PROPERTY_SEED")
                             ? qEnvironmentVariable("QUILLON_EDITOR_PROPERTY_SEED").toULongLong()
                             : 20240307;
    const auto generator = rc::gen::container<std::vector<Action>>(
        rc::gen::build<Action>(rc::gen::set(&Action::step, rc::gen::cast<Step>(rc::gen::inRange(0, 12))),
                               rc::gen::set(&Action::paragraph, rc::gen::inRange(0, 100)),
                               rc::gen::set(&Action::offset, rc::gen::inRange(0, 100)),
                               rc::gen::set(&Action::choice, rc::gen::inRange(0, 100))));
    for (int attempt = 0; attempt < cases; ++attempt) {
        const std::vector<Action> actions = generator(rc::Random(seed + quint64(attempt)), 16).value();
        std::ostringstream description;
        for (const Action& action : actions) {
            showValue(action, description);
            description << ' ';
        }
        SCOPED_TRACE(description.str());
        EditorFixture fixture({"day:2024-03-07", "step:Spin", "bullet0:tris", "normal:Add <i>EDTA</i>"});
        fixture.editor->setWriteDelay(60000);
        ASSERT_TRUE(fixture.document->saveNow());
        std::shared_ptr<NBDocument> remote =
            NBDocument::openDocumentAtPath(fixture.document->storePath(), QStringLiteral("laptop"));
        ASSERT_TRUE(remote);
        for (const Action& action : actions)
            run(fixture, *remote, action);

        // Close: the other device's last edits reach the editor, the editor writes what it holds and the log
        // is saved; a third device then reads the package.
        remote->saveNow();
        fixture.document->syncNow();
        fixture.document->waitUntilFinished();
        QCoreApplication::processEvents();
        fixture.editor->processDocumentChanges();
        fixture.editor->writePendingEdits();
        const QStringList shown = fixture.shown();
        ASSERT_TRUE(fixture.document->saveNow());
        remote->tearDownNow();
        fixture.editor.reset();
        fixture.document->tearDownNow();
        std::shared_ptr<NBDocument> reopened =
            NBDocument::openDocumentAtPath(fixture.document->storePath(), QStringLiteral("reader"));
        ASSERT_TRUE(reopened);
        EXPECT_EQ(describeParagraphs(reopened->paragraphs()), shown);
        reopened->tearDownNow();
        if (HasFailure())
            break;
    }
}
