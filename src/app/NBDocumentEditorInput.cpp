// What reaches the document editor from the keyboard, the clipboard and drops, and the text view that hands
// it over (NBDocumentEditorView.h).
//
// The clipboard. Copying puts the selection on the clipboard three ways: plain text, HTML (Qt's, for other
// programs), and the paragraphs themselves ("application/x-quillon-paragraphs", an XML property list of
// their infos, the first and last cut to the selection), so that pasting within Quillon keeps every kind.
// Pasting reads the first of these that is present: paragraphs, then HTML (browsers, office programs and
// Word, through the document model's splitter), then plain text (one paragraph per line), then files, which
// become attachments.
#include "app/NBDocumentEditor.h"

#include "app/NBDocumentEditorView.h"
#include "app/NBDocumentTextMapping.h"
#include "document/NBProtocol.h"
#include "foundation/NBPropertyList.h"
#include "richtext/NBParagraphRichText.h"

#include <QAction>
#include <QContextMenuEvent>
#include <QFileInfo>
#include <QKeyEvent>
#include <QMenu>
#include <QMimeData>
#include <QTextBlock>
#include <QTextDocument>
#include <QTextDocumentFragment>
#include <QTextTable>
#include <QUrl>

namespace {

constexpr const char* kParagraphsMimeType = "application/x-quillon-paragraphs";

bool isTypingKey(const QKeyEvent* event) {
    const QString text = event->text();
    return !text.isEmpty() && text.at(0).isPrint() &&
           !(event->modifiers() & (Qt::ControlModifier | Qt::MetaModifier));
}

// Paragraphs read from a paste, each under a new UUID (a paste is a copy).
QList<NBParagraph> freshCopies(const QList<NBParagraph>& paragraphs) {
    QList<NBParagraph> copies;
    for (const NBParagraph& paragraph : paragraphs) {
        QVariantMap info = paragraph.info();
        for (const char* key : {kNBTimerStartKey, kNBTimerStopKey, kNBTimerDurationKey, kNBTimerElapsedKey,
                                kNBTimerAppearanceKey})
            info.remove(QString::fromUtf8(key));
        if (std::optional<NBParagraph> copy =
                NBParagraph::paragraphWithUUID(NBParagraph::newUUIDString(), info))
            copies << *copy;
    }
    return copies;
}

} // namespace

// MARK: - The text view

NBEditorTextView::NBEditorTextView(NBDocumentEditor* editor) : QTextEdit(editor), editor_(editor) {
    setAcceptRichText(true);
    setTabChangesFocus(false);
    setFrameShape(QFrame::NoFrame);
    viewport()->setMouseTracking(true);
}

bool NBEditorTextView::event(QEvent* event) {
    // The text edit claims the undo and redo keys for its own undo, which the editor replaces; letting them
    // through makes the editor's actions fire.
    if (event->type() == QEvent::ShortcutOverride) {
        auto* key = static_cast<QKeyEvent*>(event);
        if (key->matches(QKeySequence::Undo) || key->matches(QKeySequence::Redo)) {
            event->ignore();
            return true;
        }
    }
    return QTextEdit::event(event);
}

void NBEditorTextView::keyPressEvent(QKeyEvent* event) {
    if (!editor_->handleKeyPress(event))
        QTextEdit::keyPressEvent(event);
}

void NBEditorTextView::inputMethodEvent(QInputMethodEvent* event) {
    // Composed text replacing a selection over several paragraphs: the paragraphs are joined first.
    if (!event->commitString().isEmpty() && editor_->selectionSpansParagraphs())
        editor_->deleteSelection();
    QTextEdit::inputMethodEvent(event);
}

bool NBEditorTextView::canInsertFromMimeData(const QMimeData* source) const {
    return source->hasFormat(QString::fromLatin1(kParagraphsMimeType)) || source->hasHtml() ||
           source->hasText() || source->hasUrls();
}

void NBEditorTextView::insertFromMimeData(const QMimeData* source) {
    editor_->pasteMimeData(source);
}

QMimeData* NBEditorTextView::createMimeDataFromSelection() const {
    return editor_->mimeDataForSelection();
}

void NBEditorTextView::focusOutEvent(QFocusEvent* event) {
    editor_->writePendingEdits();
    QTextEdit::focusOutEvent(event);
}

void NBEditorTextView::contextMenuEvent(QContextMenuEvent* event) {
    std::unique_ptr<QMenu> menu(createStandardContextMenu(event->pos()));
    menu->addSeparator();
    menu->addMenu(editor_->formatMenu());
    menu->addMenu(editor_->insertMenu());
    if (textCursor().currentTable())
        menu->addMenu(editor_->tableMenu());
    menu->exec(event->globalPos());
}

void NBEditorTextView::dragEnterEvent(QDragEnterEvent* event) {
    QTextEdit::dragEnterEvent(event);
}

void NBEditorTextView::dragMoveEvent(QDragMoveEvent* event) {
    QTextEdit::dragMoveEvent(event);
}

void NBEditorTextView::dropEvent(QDropEvent* event) {
    // Files and protocols dropped on the text go in at the paragraph under the pointer.
    if (event->mimeData()->hasUrls() &&
        !event->mimeData()->hasFormat(QString::fromLatin1(kParagraphsMimeType))) {
        setTextCursor(cursorForPosition(event->position().toPoint()));
        editor_->pasteMimeData(event->mimeData());
        event->acceptProposedAction();
        return;
    }
    QTextEdit::dropEvent(event);
}

// MARK: - Keys

bool NBDocumentEditor::selectionSpansParagraphs() const {
    const QTextCursor cursor = view_->textCursor();
    if (!cursor.hasSelection())
        return false;
    const QString first = mapping_->paragraphUUIDAtPosition(cursor.selectionStart());
    const QString last = mapping_->paragraphUUIDAtPosition(cursor.selectionEnd());
    const NBParagraph paragraph = mapping_->paragraph(first);
    return first != last || first.isEmpty() ||
           (!NBParagraphLook::isTextKind(paragraph.kind()) && !paragraph.isTableType());
}

bool NBDocumentEditor::handleKeyPress(QKeyEvent* event) {
    if (!document_ || view_->isReadOnly())
        return false;
    if (event->matches(QKeySequence::Undo)) {
        undo();
        return true;
    }
    if (event->matches(QKeySequence::Redo)) {
        redo();
        return true;
    }
    // The editor's shortcuts work wherever the key was sent, also when no shortcut map saw it (a window
    // that is not active, keys sent by tests).
    const QKeySequence pressed(event->keyCombination());
    for (QAction* action : actions()) {
        if (action->isEnabled() && !action->shortcut().isEmpty() && action->shortcut() == pressed) {
            action->trigger();
            return true;
        }
    }
    const bool enter = (event->key() == Qt::Key_Return || event->key() == Qt::Key_Enter) &&
                       !(event->modifiers() & Qt::ShiftModifier);
    const bool backspace = event->key() == Qt::Key_Backspace;
    const bool forwardDelete = event->key() == Qt::Key_Delete;
    const bool tab = event->key() == Qt::Key_Tab || event->key() == Qt::Key_Backtab;
    if (event->matches(QKeySequence::Cut)) {
        if (!view_->textCursor().hasSelection())
            return true;
        view_->copy();
        if (selectionSpansParagraphs())
            deleteSelection();
        else
            view_->textCursor().removeSelectedText();
        return true;
    }
    // A selection across paragraphs is taken out as one edit before the key does the rest.
    if (selectionSpansParagraphs()) {
        if (backspace || forwardDelete) {
            deleteSelection();
            return true;
        }
        if (enter || isTypingKey(event)) {
            deleteSelection();
            if (enter) {
                splitParagraph();
                return true;
            }
            return false;
        }
    }
    QTextCursor cursor = view_->textCursor();
    const QString uuid = currentParagraphUUID();
    if (uuid.isEmpty())
        return false;
    const NBParagraph paragraph = mapping_->paragraph(uuid);
    const int offset = cursor.position() - mapping_->startOfParagraph(uuid);

    if (QTextTable* table = cursor.currentTable()) {
        const QTextTableCell cell = table->cellAt(cursor);
        if (tab) {
            // Tab moves to the next cell and adds a row after the last one; Shift+Tab goes back.
            const bool back = event->key() == Qt::Key_Backtab;
            int row = cell.row();
            int column = cell.column() + (back ? -1 : 1);
            if (column >= table->columns()) {
                column = 0;
                ++row;
            } else if (column < 0) {
                column = table->columns() - 1;
                --row;
            }
            if (row >= table->rows()) {
                insertTableRow(true);
                table = mapping_->tableOfParagraph(uuid);
                if (!table || row >= table->rows())
                    return true;
            }
            if (row >= 0)
                view_->setTextCursor(table->cellAt(row, column).firstCursorPosition());
            return true;
        }
        if ((backspace && !cursor.hasSelection() && cursor.position() == cell.firstPosition()) ||
            (forwardDelete && !cursor.hasSelection() && cursor.position() == cell.lastPosition()))
            return true;
        return false;
    }

    if (!NBParagraphLook::isTextKind(paragraph.kind())) {
        // Days and attachments are shown, not typed into.
        if (enter) {
            splitParagraph();
            return true;
        }
        if (backspace || forwardDelete) {
            removeParagraph(uuid, paragraph.isDayType() ? tr("Delete Day") : tr("Delete Attachment"));
            return true;
        }
        if (isTypingKey(event)) {
            insertParagraphNextTo(uuid, offset == 0 && !paragraph.isDayType(), event->text());
            return true;
        }
        return false;
    }
    if (enter) {
        splitParagraph();
        return true;
    }
    if (backspace && !cursor.hasSelection() && offset == 0) {
        mergeWithPrevious(uuid);
        return true;
    }
    if (forwardDelete && !cursor.hasSelection() && cursor.atBlockEnd()) {
        mergeNextInto(uuid);
        return true;
    }
    if (tab && (paragraph.isBulletType() || paragraph.isNumberType())) {
        changeIndentation(event->key() == Qt::Key_Backtab ? -1 : 1);
        return true;
    }
    if (event->key() == Qt::Key_Backtab)
        return true;
    return false;
}

// MARK: - Clipboard and drops

QMimeData* NBDocumentEditor::mimeDataForSelection() const {
    auto* data = new QMimeData();
    const QTextCursor cursor = view_->textCursor();
    if (!cursor.hasSelection())
        return data;
    const QTextDocumentFragment fragment = cursor.selection();
    QString plain = fragment.toPlainText();
    plain.replace(QChar(0x2028), QLatin1Char('\n'));
    plain.remove(QChar(0xFFFC));
    data->setText(plain);
    data->setHtml(fragment.toHtml());
    // The paragraphs, the first and last cut to the selection.
    const int start = cursor.selectionStart();
    const int end = cursor.selectionEnd();
    QVariantList infos;
    const int first = mapping_->indexOfParagraph(editorPositionAt(start).uuid);
    const int last = mapping_->indexOfParagraph(editorPositionAt(end).uuid);
    for (int index = std::max(0, first); first >= 0 && index <= last; ++index) {
        const QString uuid = mapping_->layout().at(index);
        NBParagraph paragraph = mapping_->shownParagraph(uuid);
        if (NBParagraphLook::isTextKind(paragraph.kind())) {
            const int from =
                std::max(start, mapping_->startOfParagraph(uuid)) - mapping_->startOfParagraph(uuid);
            const int to = std::min(end, mapping_->endOfParagraph(uuid)) - mapping_->startOfParagraph(uuid);
            paragraph.setContent(mapping_->shownStyledText(uuid)
                                     .styledSubstringFromRange({from, std::max(0, to - from)})
                                     .markupString());
        }
        infos << paragraph.info();
    }
    if (std::optional<QByteArray> encoded = dataWithPropertyList(infos, NBPropertyListFormat::XML))
        data->setData(QString::fromLatin1(kParagraphsMimeType), *encoded);
    return data;
}

void NBDocumentEditor::pasteMimeData(const QMimeData* source) {
    if (!document_ || !source || view_->isReadOnly())
        return;
    QList<NBParagraph> paragraphs;
    QStringList files;
    QStringList protocols;
    if (source->hasFormat(QString::fromLatin1(kParagraphsMimeType))) {
        const std::optional<QVariant> list =
            propertyListWithData(source->data(QString::fromLatin1(kParagraphsMimeType)));
        for (const QVariant& info : list ? list->toList() : QVariantList())
            if (std::optional<NBParagraph> paragraph =
                    NBParagraph::paragraphWithUUID(QStringLiteral("X"), info.toMap()))
                paragraphs << *paragraph;
    } else if (source->hasUrls() && !source->hasHtml()) {
        for (const QUrl& url : source->urls()) {
            if (!url.isLocalFile())
                continue;
            const QFileInfo file(url.toLocalFile());
            if (file.isDir() && file.suffix() == QLatin1String(kNBProtocolPackageExtension))
                protocols << file.absoluteFilePath();
            else if (file.isFile())
                files << file.absoluteFilePath();
        }
    } else if (source->hasHtml()) {
        paragraphs = NBParagraphRichText::paragraphsFromHTMLString(source->html());
    } else if (source->hasText()) {
        QTextDocument plain;
        plain.setPlainText(source->text());
        paragraphs = NBParagraphRichText::paragraphsFromAttributedString(plain);
    }
    if (!files.isEmpty())
        attachFiles(files);
    OAKStoreOptions readOnly;
    readOnly.readOnly = true;
    for (const QString& path : protocols) {
        NBError error;
        std::shared_ptr<NBDocument> opened =
            NBDocument::openDocumentAtPath(path, document_->deviceIdentifier(), readOnly, &error);
        auto* protocol = dynamic_cast<NBProtocol*>(opened.get());
        if (!protocol) {
            Q_EMIT errorOccurred(error.localizedDescription());
            continue;
        }
        insertProtocol(*protocol, dayAtCursor());
        opened->tearDownNow();
    }
    if (paragraphs.isEmpty())
        return;

    // In a table cell only text goes in, into the cell.
    if (view_->textCursor().currentTable()) {
        QStringList lines;
        for (const NBParagraph& paragraph : paragraphs)
            lines << paragraph.plainTextContent();
        view_->textCursor().insertText(lines.join(QChar(0x2028)));
        return;
    }
    const QList<NBParagraph> copies = freshCopies(paragraphs);
    const bool replacing = view_->textCursor().hasSelection();
    const NBEditorSelection range = selection();
    const int anchor = view_->textCursor().anchor();
    const int position = view_->textCursor().position();
    const NBEditorPosition start = anchor <= position ? range.anchor : range.position;
    const NBEditorPosition end = anchor <= position ? range.position : range.anchor;
    performEdit(tr("Paste"), [this, copies, replacing, start, end]() -> std::optional<NBEditorSelection> {
        NBEditorPosition at = start;
        if (replacing)
            if (std::optional<NBEditorSelection> cleared = deleteRangeInModel(start, end))
                at = cleared->position;
        return insertParagraphsInModel(at, copies);
    });
}
