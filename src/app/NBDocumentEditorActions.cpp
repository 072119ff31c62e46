// The document editor's actions on paragraphs: splitting, joining and removing them, kinds, levels, styles,
// days, tables, attachments and protocols. Each is one undo step made by performEdit(): it changes the
// document, and the text follows.
#include "app/NBDocumentEditor.h"

#include "app/NBDocumentEditorView.h"
#include "app/NBDocumentTextMapping.h"
#include "app/NBEditorCommands.h"
#include "document/NBExperiment.h"
#include "document/NBProtocol.h"
#include "document/NBSpreadsheetData.h"
#include "richtext/NBStyledStringRichText.h"

#include <QAction>
#include <QColorDialog>
#include <QFileInfo>
#include <QMenu>
#include <QTextTable>
#include <QUndoStack>

namespace {

bool isListKind(NBParagraphKind kind) {
    return kind == NBParagraphKind::Bullet || kind == NBParagraphKind::Number;
}

// The kind a new paragraph made by Enter at the end of a paragraph of `kind` takes.
NBParagraphKind naturalFollowingKind(NBParagraphKind kind) {
    switch (kind) {
    case NBParagraphKind::Step:
    case NBParagraphKind::Bullet:
    case NBParagraphKind::Number:
    case NBParagraphKind::Code:
        return kind;
    default:
        return NBParagraphKind::Normal;
    }
}

// A new paragraph of a text kind with `content`, at list level `level` for list kinds.
NBParagraph newTextParagraph(NBParagraphKind kind, const QString& content, qint64 level) {
    switch (kind) {
    case NBParagraphKind::Step:
        return NBParagraph::stepParagraphWithTitle(content, QString(), QString());
    case NBParagraphKind::Section:
        return NBParagraph::sectionParagraphWithTitle(content);
    case NBParagraphKind::Bullet:
        return NBParagraph::bulletParagraphWithContent(content, level);
    case NBParagraphKind::Number:
        return NBParagraph::numberParagraphWithContent(content, level);
    case NBParagraphKind::Code:
        return NBParagraph::codeParagraphWithContent(content);
    case NBParagraphKind::Note:
        return NBParagraph::noteParagraphWithContent(content);
    case NBParagraphKind::Warning:
        return NBParagraph::warningParagraphWithContent(content);
    case NBParagraphKind::Error:
        return NBParagraph::errorParagraphWithContent(content);
    default:
        return NBParagraph::normalParagraphWithContent(content);
    }
}

// The paragraph with another kind: the same UUID and info under the new type (keys the new kind does not
// use are kept, so changing back restores them), at list level 0 when it becomes a list item without one.
NBParagraph paragraphWithKind(const NBParagraph& paragraph, NBParagraphKind kind) {
    QVariantMap info = paragraph.info();
    info.insert(QString::fromUtf8(kNBParagraphTypeKey), NBParagraph::typeForKind(kind));
    if (isListKind(kind) && !paragraph.indentationLevel())
        info.insert(QString::fromUtf8(kNBParagraphIndentationLevelKey), qint64(0));
    return NBParagraph::paragraphWithUUID(paragraph.uuid(), info).value_or(paragraph);
}

QString joinedMarkup(const NBStyledString& first, const NBStyledString& second) {
    return first.styledStringByAppendingStyledString(second).markupString();
}

} // namespace

std::optional<NBParagraph> NBDocumentEditor::modelParagraph(const QString& uuid) const {
    return document_ ? document_->paragraphWithUUID(uuid) : std::nullopt;
}

QString NBDocumentEditor::paragraphAfter(const QString& uuid) const {
    const QStringList layout = document_->layout();
    const qsizetype index = layout.indexOf(uuid);
    return index >= 0 && index + 1 < layout.size() ? layout[index + 1] : QString();
}

QString NBDocumentEditor::paragraphBefore(const QString& uuid) const {
    const QStringList layout = document_->layout();
    const qsizetype index = layout.indexOf(uuid);
    return index > 0 ? layout[index - 1] : QString();
}

QStringList NBDocumentEditor::paragraphsInSelection() const {
    const NBEditorSelection range = selection();
    const int first = mapping_->indexOfParagraph(range.anchor.uuid);
    const int last = mapping_->indexOfParagraph(range.position.uuid);
    if (first < 0 || last < 0)
        return {};
    return mapping_->layout().mid(std::min(first, last), std::abs(last - first) + 1);
}

// MARK: - Model edits

std::optional<NBEditorSelection> NBDocumentEditor::deleteRangeInModel(const NBEditorPosition& start,
                                                                      const NBEditorPosition& end) {
    const QStringList layout = document_->layout();
    const qsizetype first = layout.indexOf(start.uuid);
    const qsizetype last = layout.indexOf(end.uuid);
    if (first < 0 || last < 0 || first > last)
        return std::nullopt;
    std::optional<NBParagraph> head = modelParagraph(start.uuid);
    std::optional<NBParagraph> tail = modelParagraph(end.uuid);
    if (!head || !tail)
        return std::nullopt;
    for (qsizetype index = first + 1; index < last; ++index)
        document_->removeParagraphWithUUID(layout[index]);
    const bool headIsText = NBParagraphLook::isTextKind(head->kind());
    const bool tailIsText = NBParagraphLook::isTextKind(tail->kind());
    if (first == last) {
        if (!headIsText) {
            document_->removeParagraphWithUUID(head->uuid());
            const QString next = layout.value(first + 1);
            return NBEditorSelection{{next, 0}, {next, 0}};
        }
        NBMutableStyledString text(head->styledContent());
        text.deleteCharactersInRange({start.offset, end.offset - start.offset});
        head->setContent(text.markupString());
        document_->modifyParagraph(*head);
        return NBEditorSelection{start, start};
    }
    if (headIsText && tailIsText) {
        const NBStyledString kept = head->styledContent().styledSubstringFromRange({0, start.offset});
        const NBStyledString rest = tail->styledContent().styledSubstringFromRange({end.offset, 1 << 30});
        head->setContent(joinedMarkup(kept, rest));
        document_->modifyParagraph(*head);
        document_->removeParagraphWithUUID(tail->uuid());
        return NBEditorSelection{start, start};
    }
    // A day, attachment or table at either end goes when the selection covers it from its start (at the
    // front) or to its end (at the back); a text paragraph keeps what lies outside the selection.
    NBEditorPosition cursor = start;
    if (headIsText) {
        head->setContent(head->styledContent().styledSubstringFromRange({0, start.offset}).markupString());
        document_->modifyParagraph(*head);
    } else if (start.offset == 0) {
        document_->removeParagraphWithUUID(head->uuid());
        cursor = {tail->uuid(), 0};
    }
    if (tailIsText) {
        tail->setContent(
            tail->styledContent().styledSubstringFromRange({end.offset, 1 << 30}).markupString());
        document_->modifyParagraph(*tail);
        if (!headIsText && start.offset != 0)
            cursor = {tail->uuid(), 0};
    } else if (end.offset > 0) {
        document_->removeParagraphWithUUID(tail->uuid());
    }
    return NBEditorSelection{cursor, cursor};
}

std::optional<NBEditorSelection> NBDocumentEditor::splitInModel(const NBEditorPosition& at) {
    std::optional<NBParagraph> paragraph = modelParagraph(at.uuid);
    if (!paragraph)
        return std::nullopt;
    if (!NBParagraphLook::isTextKind(paragraph->kind())) {
        // Enter on a day or an attachment opens a normal paragraph after it (before it at its very start).
        const NBParagraph created = NBParagraph::normalParagraphWithContent(QString());
        if (at.offset == 0 && !paragraph->isDayType())
            document_->insertParagraph(created, paragraph->uuid());
        else
            document_->insertParagraphAfterParagraphWithUUID(created, paragraph->uuid());
        return NBEditorSelection{{created.uuid(), 0}, {created.uuid(), 0}};
    }
    const NBStyledString text = paragraph->styledContent();
    const qint64 level = paragraph->indentationLevel().value_or(0);
    if (text.isEmpty() && isListKind(paragraph->kind())) {
        // Enter on an empty list item ends the list.
        document_->modifyParagraph(paragraphWithKind(*paragraph, NBParagraphKind::Normal));
        return NBEditorSelection{at, at};
    }
    if (at.offset == 0 && !text.isEmpty()) {
        // At the start, the new paragraph goes before: this one keeps its identity, timer and text.
        const NBParagraph created = newTextParagraph(paragraph->kind(), QString(), level);
        document_->insertParagraph(created, paragraph->uuid());
        return NBEditorSelection{at, at};
    }
    const NBStyledString left = text.styledSubstringFromRange({0, at.offset});
    const NBStyledString right = text.styledSubstringFromRange({at.offset, text.length()});
    paragraph->setContent(left.markupString());
    document_->modifyParagraph(*paragraph);
    const NBParagraph created =
        newTextParagraph(naturalFollowingKind(paragraph->kind()), right.markupString(), level);
    document_->insertParagraphAfterParagraphWithUUID(created, paragraph->uuid());
    return NBEditorSelection{{created.uuid(), 0}, {created.uuid(), 0}};
}

std::optional<NBEditorSelection> NBDocumentEditor::insertParagraphsInModel(const NBEditorPosition& at,
                                                                           const QList<NBParagraph>& pasted) {
    if (pasted.isEmpty())
        return std::nullopt;
    std::optional<NBParagraph> current = modelParagraph(at.uuid);
    if (!current) {
        document_->insertParagraphs(pasted, QString());
        const QString last = pasted.last().uuid();
        return NBEditorSelection{{last, 0}, {last, 0}};
    }
    auto isText = [](const NBParagraph& paragraph) { return NBParagraphLook::isTextKind(paragraph.kind()); };
    if (!isText(*current)) {
        document_->insertParagraphs(pasted, paragraphAfter(current->uuid()));
        const QString last = pasted.last().uuid();
        return NBEditorSelection{{last, 0}, {last, 0}};
    }
    // The first pasted paragraph joins the text before the cursor, the last one the text after it; an empty
    // paragraph takes the kind of the first pasted one.
    const NBStyledString text = current->styledContent();
    const NBStyledString head = text.styledSubstringFromRange({0, at.offset});
    const NBStyledString tail = text.styledSubstringFromRange({at.offset, text.length()});
    const NBParagraph& first = pasted.first();
    if (at.offset == 0 && !text.isEmpty() && !isText(first)) {
        // A table or attachment pasted at the start of a paragraph goes before it, leaving it whole.
        document_->insertParagraphs(pasted, current->uuid());
        return NBEditorSelection{at, at};
    }
    if (pasted.size() == 1 && isText(first)) {
        NBParagraph changed = text.isEmpty() ? paragraphWithKind(*current, first.kind()) : *current;
        if (text.isEmpty() && first.indentationLevel())
            changed.setIndentationLevel(first.indentationLevel());
        const NBStyledString middle = first.styledContent();
        changed.setContent(head.styledStringByAppendingStyledString(middle)
                               .styledStringByAppendingStyledString(tail)
                               .markupString());
        document_->modifyParagraph(changed);
        const NBEditorPosition end{current->uuid(), int(head.length() + middle.length())};
        return NBEditorSelection{end, end};
    }
    QList<NBParagraph> inserted;
    qsizetype rest = 0;
    if (isText(first)) {
        NBParagraph changed = text.isEmpty() ? paragraphWithKind(*current, first.kind()) : *current;
        if (text.isEmpty() && first.indentationLevel())
            changed.setIndentationLevel(first.indentationLevel());
        changed.setContent(joinedMarkup(head, first.styledContent()));
        document_->modifyParagraph(changed);
        rest = 1;
    } else {
        current->setContent(head.markupString());
        document_->modifyParagraph(*current);
    }
    for (qsizetype index = rest; index < pasted.size(); ++index)
        inserted << pasted[index];
    NBEditorPosition end{current->uuid(), int(head.length())};
    if (!inserted.isEmpty() && isText(inserted.last())) {
        NBParagraph& last = inserted.last();
        const NBStyledString lastText = last.styledContent();
        last.setContent(joinedMarkup(lastText, tail));
        end = {last.uuid(), int(lastText.length())};
    } else if (!tail.isEmpty() || inserted.isEmpty()) {
        const NBParagraph after = newTextParagraph(NBParagraphKind::Normal, tail.markupString(), 0);
        inserted << after;
        end = {after.uuid(), 0};
    }
    document_->insertParagraphs(inserted, paragraphAfter(current->uuid()));
    return NBEditorSelection{end, end};
}

// MARK: - Enter, Backspace, Delete

void NBDocumentEditor::splitParagraph() {
    const NBEditorPosition at = selection().position;
    performEdit(tr("New Paragraph"), [this, at] { return splitInModel(at); });
}

void NBDocumentEditor::deleteSelection() {
    NBEditorSelection range = selection();
    const int anchor = view_->textCursor().anchor();
    const int position = view_->textCursor().position();
    NBEditorPosition start = anchor <= position ? range.anchor : range.position;
    NBEditorPosition end = anchor <= position ? range.position : range.anchor;
    performEdit(tr("Delete"), [this, start, end] { return deleteRangeInModel(start, end); });
}

void NBDocumentEditor::mergeWithPrevious(const QString& uuid) {
    performEdit(tr("Join Paragraphs"), [this, uuid]() -> std::optional<NBEditorSelection> {
        std::optional<NBParagraph> paragraph = modelParagraph(uuid);
        if (!paragraph)
            return std::nullopt;
        const QString previousUUID = paragraphBefore(uuid);
        std::optional<NBParagraph> previous = modelParagraph(previousUUID);
        if (previous && NBParagraphLook::isTextKind(previous->kind())) {
            const NBStyledString previousText = previous->styledContent();
            previous->setContent(joinedMarkup(previousText, paragraph->styledContent()));
            document_->modifyParagraph(*previous);
            document_->removeParagraphWithUUID(uuid);
            const NBEditorPosition at{previousUUID, int(previousText.length())};
            return NBEditorSelection{at, at};
        }
        // Before a day, an attachment, a table or nothing: an empty paragraph goes, another kind becomes
        // normal text.
        if (paragraph->styledContent().isEmpty() && previous) {
            document_->removeParagraphWithUUID(uuid);
            const NBEditorPosition at{previousUUID, 1 << 20};
            return NBEditorSelection{at, at};
        }
        if (!paragraph->isNormalType())
            document_->modifyParagraph(paragraphWithKind(*paragraph, NBParagraphKind::Normal));
        return NBEditorSelection{{uuid, 0}, {uuid, 0}};
    });
}

void NBDocumentEditor::mergeNextInto(const QString& uuid) {
    const QString next = paragraphAfter(uuid);
    std::optional<NBParagraph> following = modelParagraph(next);
    if (!following)
        return;
    if (NBParagraphLook::isTextKind(following->kind())) {
        const std::optional<NBParagraph> paragraph = modelParagraph(uuid);
        const int length = paragraph ? int(paragraph->styledContent().length()) : 0;
        performEdit(tr("Join Paragraphs"), [this, uuid, next, length]() -> std::optional<NBEditorSelection> {
            std::optional<NBParagraph> joined = modelParagraph(uuid);
            std::optional<NBParagraph> joinedNext = modelParagraph(next);
            if (!joined || !joinedNext)
                return std::nullopt;
            joined->setContent(joinedMarkup(joined->styledContent(), joinedNext->styledContent()));
            document_->modifyParagraph(*joined);
            document_->removeParagraphWithUUID(next);
            return NBEditorSelection{{uuid, length}, {uuid, length}};
        });
    } else if (const std::optional<NBParagraph> paragraph = modelParagraph(uuid);
               paragraph && paragraph->styledContent().isEmpty()) {
        removeParagraph(uuid, tr("Delete"));
    }
}

void NBDocumentEditor::removeParagraph(const QString& uuid, const QString& name) {
    performEdit(name, [this, uuid]() -> std::optional<NBEditorSelection> {
        QString next = paragraphAfter(uuid);
        const QString previous = paragraphBefore(uuid);
        document_->removeParagraphWithUUID(uuid);
        if (next.isEmpty())
            return NBEditorSelection{{previous, 1 << 20}, {previous, 1 << 20}};
        return NBEditorSelection{{next, 0}, {next, 0}};
    });
}

void NBDocumentEditor::insertParagraphNextTo(const QString& uuid, bool before, const QString& text) {
    performEdit(tr("New Paragraph"), [this, uuid, before, text]() -> std::optional<NBEditorSelection> {
        NBMutableStyledString content(text);
        const NBParagraph created = NBParagraph::normalParagraphWithContent(content.markupString());
        if (before)
            document_->insertParagraph(created, uuid);
        else
            document_->insertParagraphAfterParagraphWithUUID(created, uuid);
        const NBEditorPosition at{created.uuid(), int(text.size())};
        return NBEditorSelection{at, at};
    });
}

// MARK: - Kinds, levels, styles

void NBDocumentEditor::setParagraphKind(NBParagraphKind kind) {
    if (!NBParagraphLook::isTextKind(kind))
        return;
    const QStringList uuids = paragraphsInSelection();
    const NBEditorSelection range = selection();
    performEdit(tr("Paragraph Kind"), [this, uuids, kind, range]() -> std::optional<NBEditorSelection> {
        for (const QString& uuid : uuids) {
            const std::optional<NBParagraph> paragraph = modelParagraph(uuid);
            if (paragraph && NBParagraphLook::isTextKind(paragraph->kind()) && paragraph->kind() != kind)
                document_->modifyParagraph(paragraphWithKind(*paragraph, kind));
        }
        return range;
    });
}

void NBDocumentEditor::changeIndentation(int delta) {
    const QStringList uuids = paragraphsInSelection();
    const NBEditorSelection range = selection();
    performEdit(delta > 0 ? tr("Indent") : tr("Outdent"),
                [this, uuids, delta, range]() -> std::optional<NBEditorSelection> {
                    for (const QString& uuid : uuids) {
                        std::optional<NBParagraph> paragraph = modelParagraph(uuid);
                        if (!paragraph || !isListKind(paragraph->kind()))
                            continue;
                        const qint64 level =
                            std::clamp<qint64>(paragraph->indentationLevel().value_or(0) + delta, 0, 8);
                        if (level == paragraph->indentationLevel().value_or(0))
                            continue;
                        paragraph->setIndentationLevel(level);
                        document_->modifyParagraph(*paragraph);
                    }
                    return range;
                });
}

namespace {
// Styles that exclude each other: superscript and subscript.
NBStyleSet withStyle(NBStyleSet styles, const NBStyle& style) {
    if (style.kind() == NBStyle::Kind::Superscript)
        styles.removeKind(NBStyle::Kind::Subscript);
    if (style.kind() == NBStyle::Kind::Subscript)
        styles.removeKind(NBStyle::Kind::Superscript);
    styles.insert(style);
    return styles;
}
} // namespace

void NBDocumentEditor::toggleStyle(const NBStyle& style) {
    QTextCursor cursor = view_->textCursor();
    const int start = cursor.selectionStart();
    const int end = cursor.selectionEnd();
    const bool present = mapping_->commonStylesInRange(start, end).containsKind(style.kind());
    auto change = [&](const NBStyleSet& styles) {
        NBStyleSet result = styles;
        if (present)
            result.removeKind(style.kind());
        else
            result = withStyle(result, style);
        return result;
    };
    if (start == end) {
        // Without a selection the style applies to what is typed next.
        const QString uuid = currentParagraphUUID();
        const NBParagraphKind kind = mapping_->paragraph(uuid).kind();
        view_->setCurrentCharFormat(
            mapping_->look().charFormat(kind, change(mapping_->commonStylesInRange(start, end))));
        return;
    }
    writePendingEdits();
    const QStringList touched = mapping_->changeStylesInRange(start, end, change);
    for (const QString& uuid : touched)
        dirty_.insert(uuid);
    breakTypingRun();
    QHash<QString, QString> before;
    QHash<QString, QString> after;
    for (const QString& uuid : touched) {
        before.insert(uuid, mapping_->paragraph(uuid).content());
        const NBParagraph shown = mapping_->shownParagraph(uuid);
        after.insert(uuid, shown.content());
        if (std::optional<NBParagraph> stored = modelParagraph(uuid)) {
            stored->setContent(shown.content());
            document_->modifyParagraph(*stored);
            mapping_->setKnownParagraph(*stored);
        }
        dirty_.remove(uuid);
    }
    if (!touched.isEmpty())
        undoStack_->push(
            new NBContentEditCommand(this, tr("Style"), before, after, selection(), selection(), false));
}

void NBDocumentEditor::setTextColor(const QColor& color) {
    toggleStyle(NBStyle::styleForTextColor(NBStyledStringRichText::colorFromQColor(color)));
}

void NBDocumentEditor::setHighlightColor(const QColor& color) {
    toggleStyle(NBStyle::styleForBackgroundColor(NBStyledStringRichText::colorFromQColor(color)));
}

void NBDocumentEditor::removeColors() {
    QTextCursor cursor = view_->textCursor();
    if (!cursor.hasSelection())
        return;
    writePendingEdits();
    const QStringList touched =
        mapping_->changeStylesInRange(cursor.selectionStart(), cursor.selectionEnd(), [](NBStyleSet styles) {
            styles.removeKind(NBStyle::Kind::TextColor);
            styles.removeKind(NBStyle::Kind::BackgroundColor);
            return styles;
        });
    for (const QString& uuid : touched)
        dirty_.insert(uuid);
    writePendingEdits();
}

// MARK: - Days, tables, attachments, protocols

NBDay NBDocumentEditor::dayAtCursor() const {
    const int index = mapping_->indexOfParagraph(currentParagraphUUID());
    for (int at = index; at >= 0; --at) {
        const NBParagraph paragraph = mapping_->paragraph(mapping_->layout().at(at));
        if (paragraph.isDayType() && !paragraph.day().isNull())
            return paragraph.day();
    }
    return NBDay::today();
}

void NBDocumentEditor::insertDay() {
    const QString uuid = currentParagraphUUID();
    performEdit(tr("Insert Day"), [this, uuid]() -> std::optional<NBEditorSelection> {
        // The day after the last day before the cursor; the first day of an experiment is today and of a
        // protocol day 0.
        NBDay day;
        const int index = mapping_->indexOfParagraph(uuid);
        for (int at = index; at >= 0 && day.isNull(); --at) {
            const NBParagraph paragraph = mapping_->paragraph(mapping_->layout().at(at));
            if (paragraph.isDayType() && !paragraph.day().isNull())
                day = paragraph.day().nextDay();
        }
        if (day.isNull())
            day = document_->isProtocol() ? NBDay::relativeDayWithInteger(0) : NBDay::today();
        const NBParagraph dayParagraph = NBParagraph::dayParagraphWithDay(day);
        const NBParagraph first = NBParagraph::normalParagraphWithContent(QString());
        const QString before = uuid.isEmpty() ? QString() : paragraphAfter(uuid);
        document_->insertParagraphs({dayParagraph, first}, before);
        return NBEditorSelection{{first.uuid(), 0}, {first.uuid(), 0}};
    });
}

void NBDocumentEditor::insertTable(int rows, int columns) {
    const QString uuid = currentParagraphUUID();
    performEdit(tr("Insert Table"), [this, uuid, rows, columns]() -> std::optional<NBEditorSelection> {
        QList<QStringList> grid;
        for (int row = 0; row < std::max(1, rows); ++row)
            grid << QStringList(std::max(1, columns), QString());
        const NBParagraph table = NBParagraph::tableParagraphWithRows(grid);
        const QString before = uuid.isEmpty() ? QString() : paragraphAfter(uuid);
        document_->insertParagraph(table, before);
        return NBEditorSelection{{table.uuid(), 1}, {table.uuid(), 1}};
    });
}

bool NBDocumentEditor::currentCell(QString* uuid, int* row, int* column) const {
    const QTextCursor cursor = view_->textCursor();
    QTextTable* table = cursor.currentTable();
    if (!table)
        return false;
    const QTextTableCell cell = table->cellAt(cursor);
    *uuid = mapping_->paragraphUUIDAtPosition(cursor.position());
    *row = cell.row();
    *column = cell.column();
    return !uuid->isEmpty();
}

void NBDocumentEditor::changeTableStructure(
    const QString& name, const std::function<void(QList<QStringList>&, int, int)>& change) {
    QString uuid;
    int row = 0;
    int column = 0;
    if (!currentCell(&uuid, &row, &column))
        return;
    performEdit(name, [this, uuid, row, column, change]() -> std::optional<NBEditorSelection> {
        const std::optional<NBParagraph> paragraph = modelParagraph(uuid);
        if (!paragraph)
            return std::nullopt;
        std::optional<NBSpreadsheetData> grid =
            NBSpreadsheetData::spreadsheetDataWithTableParagraph(*paragraph);
        QList<QStringList> rows = grid ? grid->arrayOfArrayOfMarkupStrings() : QList<QStringList>();
        const qsizetype columns = grid ? grid->columnCount() : 0;
        for (QStringList& cells : rows)
            while (cells.size() < columns)
                cells << QString();
        change(rows, row, column);
        if (rows.isEmpty() || rows.first().isEmpty()) {
            const QString next = paragraphAfter(uuid);
            document_->removeParagraphWithUUID(uuid);
            return NBEditorSelection{{next, 0}, {next, 0}};
        }
        QVariantMap info = paragraph->info();
        info.insert(QString::fromUtf8(kNBParagraphContentKey),
                    NBSpreadsheetData::spreadsheetDataWithArrayOfArrayOfMarkupStrings(rows)
                        .tableParagraph()
                        .content());
        info.remove(QString::fromUtf8(kNBParagraphTableColumnWidthsKey));
        if (std::optional<NBParagraph> changed = NBParagraph::paragraphWithUUID(uuid, info))
            document_->modifyParagraph(*changed);
        return std::nullopt;
    });
    // The cursor stays in the same cell, or the nearest one left.
    if (QTextTable* table = mapping_->tableOfParagraph(uuid))
        view_->setTextCursor(
            table->cellAt(std::min(row, table->rows() - 1), std::min(column, table->columns() - 1))
                .firstCursorPosition());
}

void NBDocumentEditor::insertTableRow(bool below) {
    changeTableStructure(tr("Insert Row"), [below](QList<QStringList>& rows, int row, int) {
        rows.insert(row + (below ? 1 : 0), QStringList(rows.value(row).size(), QString()));
    });
}

void NBDocumentEditor::removeTableRow() {
    changeTableStructure(tr("Delete Row"), [](QList<QStringList>& rows, int row, int) {
        if (row < rows.size())
            rows.removeAt(row);
    });
}

void NBDocumentEditor::insertTableColumn(bool after) {
    changeTableStructure(tr("Insert Column"), [after](QList<QStringList>& rows, int, int column) {
        for (QStringList& cells : rows)
            cells.insert(std::min<qsizetype>(column + (after ? 1 : 0), cells.size()), QString());
    });
}

void NBDocumentEditor::removeTableColumn() {
    changeTableStructure(tr("Delete Column"), [](QList<QStringList>& rows, int, int column) {
        for (QStringList& cells : rows)
            if (column < cells.size())
                cells.removeAt(column);
        if (!rows.isEmpty() && rows.first().isEmpty())
            rows.clear();
    });
}

bool NBDocumentEditor::attachFiles(const QStringList& paths, NBError* outError) {
    if (!document_ || paths.isEmpty())
        return true;
    const QString uuid = currentParagraphUUID();
    std::vector<NBError> errors;
    performEdit(tr("Attach Files"), [&]() -> std::optional<NBEditorSelection> {
        QList<NBParagraph> attachments;
        for (const QString& path : paths) {
            const QFileInfo file(path);
            NBParagraph attachment = NBParagraph::attachmentParagraphWithContent(
                NBStyledString(file.fileName()).markupString(), file.absoluteFilePath());
            NBError error;
            if (!document_->writeAttachmentForParagraph(attachment, &error)) {
                errors.push_back(error);
                continue;
            }
            attachments << attachment;
        }
        if (attachments.isEmpty())
            return std::nullopt;
        document_->insertParagraphs(attachments, uuid.isEmpty() ? QString() : paragraphAfter(uuid));
        const QString last = attachments.last().uuid();
        return NBEditorSelection{{last, 0}, {last, 0}};
    });
    if (errors.empty())
        return true;
    const NBError error = document_->errorForAttachmentErrors(errors);
    if (outError)
        *outError = error;
    Q_EMIT errorOccurred(error.localizedDescription());
    return false;
}

bool NBDocumentEditor::insertProtocol(NBProtocol& protocol, const NBDay& day, NBError* outError) {
    auto* experiment = dynamic_cast<NBExperiment*>(document_.get());
    if (!experiment)
        return false;
    NBError error;
    bool inserted = true;
    performEdit(tr("Insert Protocol"), [&]() -> std::optional<NBEditorSelection> {
        const QList<NBParagraph> copies = experiment->insertProtocol(protocol, day, {}, &error);
        inserted = error.code() == 0;
        if (copies.isEmpty())
            return std::nullopt;
        return NBEditorSelection{{copies.first().uuid(), 0}, {copies.first().uuid(), 0}};
    });
    if (!inserted) {
        if (outError)
            *outError = error;
        Q_EMIT errorOccurred(error.localizedDescription());
    }
    return inserted;
}

// MARK: - Menus

void NBDocumentEditor::createActions() {
    auto makeAction = [this](QMenu* menu, const QString& text, const QKeySequence& shortcut, auto slot) {
        QAction* action = menu->addAction(text);
        action->setShortcut(shortcut);
        action->setShortcutContext(Qt::WidgetWithChildrenShortcut);
        connect(action, &QAction::triggered, this, slot);
        QWidget::addAction(action);
        return action;
    };
    undoAction_ = new QAction(tr("Undo"), this);
    undoAction_->setShortcut(QKeySequence::Undo);
    undoAction_->setShortcutContext(Qt::WidgetWithChildrenShortcut);
    connect(undoAction_, &QAction::triggered, this, &NBDocumentEditor::undo);
    connect(undoStack_, &QUndoStack::canUndoChanged, undoAction_, &QAction::setEnabled);
    undoAction_->setEnabled(false);
    redoAction_ = new QAction(tr("Redo"), this);
    redoAction_->setShortcut(QKeySequence::Redo);
    redoAction_->setShortcutContext(Qt::WidgetWithChildrenShortcut);
    connect(redoAction_, &QAction::triggered, this, &NBDocumentEditor::redo);
    connect(undoStack_, &QUndoStack::canRedoChanged, redoAction_, &QAction::setEnabled);
    redoAction_->setEnabled(false);
    QWidget::addAction(undoAction_);
    QWidget::addAction(redoAction_);

    formatMenu_ = new QMenu(tr("F&ormat"), this);
    QMenu* kinds = formatMenu_->addMenu(tr("Paragraph &Kind"));
    const struct {
        const char* name;
        NBParagraphKind kind;
        const char* shortcut;
    } kindEntries[] = {
        {QT_TR_NOOP("Normal Text"), NBParagraphKind::Normal, "Ctrl+Alt+0"},
        {QT_TR_NOOP("Step"), NBParagraphKind::Step, "Ctrl+Alt+1"},
        {QT_TR_NOOP("Section"), NBParagraphKind::Section, "Ctrl+Alt+2"},
        {QT_TR_NOOP("Bulleted Item"), NBParagraphKind::Bullet, "Ctrl+Alt+3"},
        {QT_TR_NOOP("Numbered Item"), NBParagraphKind::Number, "Ctrl+Alt+4"},
        {QT_TR_NOOP("Code"), NBParagraphKind::Code, "Ctrl+Alt+5"},
        {QT_TR_NOOP("Note"), NBParagraphKind::Note, "Ctrl+Alt+6"},
        {QT_TR_NOOP("Warning"), NBParagraphKind::Warning, "Ctrl+Alt+7"},
        {QT_TR_NOOP("Error"), NBParagraphKind::Error, "Ctrl+Alt+8"},
    };
    for (const auto& entry : kindEntries) {
        const NBParagraphKind kind = entry.kind;
        makeAction(kinds, tr(entry.name), QKeySequence(QString::fromLatin1(entry.shortcut)),
                   [this, kind] { setParagraphKind(kind); });
    }
    makeAction(formatMenu_, tr("Increase Level"), QKeySequence(), [this] { changeIndentation(1); });
    makeAction(formatMenu_, tr("Decrease Level"), QKeySequence(), [this] { changeIndentation(-1); });
    formatMenu_->addSeparator();
    const struct {
        const char* name;
        const NBStyle& style;
        QKeySequence shortcut;
    } styleEntries[] = {
        {QT_TR_NOOP("Bold"), NBStyle::bold(), QKeySequence::Bold},
        {QT_TR_NOOP("Italic"), NBStyle::italic(), QKeySequence::Italic},
        {QT_TR_NOOP("Underline"), NBStyle::underline(), QKeySequence::Underline},
        {QT_TR_NOOP("Strikethrough"), NBStyle::strikethrough(), QKeySequence(QStringLiteral("Ctrl+Shift+X"))},
        {QT_TR_NOOP("Superscript"), NBStyle::superscript(), QKeySequence(QStringLiteral("Ctrl+Shift+="))},
        {QT_TR_NOOP("Subscript"), NBStyle::subscript(), QKeySequence(QStringLiteral("Ctrl+="))},
    };
    for (const auto& entry : styleEntries) {
        const NBStyle style = entry.style;
        makeAction(formatMenu_, tr(entry.name), entry.shortcut, [this, style] { toggleStyle(style); });
    }
    QMenu* colors = formatMenu_->addMenu(tr("Text &Colour"));
    const struct {
        const char* name;
        QColor color;
    } colorEntries[] = {{QT_TR_NOOP("Red"), QColor(0xC6, 0x28, 0x28)},
                        {QT_TR_NOOP("Blue"), QColor(0x1A, 0x5F, 0xB4)},
                        {QT_TR_NOOP("Green"), QColor(0x2E, 0x7D, 0x32)}};
    for (const auto& entry : colorEntries) {
        const QColor color = entry.color;
        makeAction(colors, tr(entry.name), QKeySequence(), [this, color] { setTextColor(color); });
    }
    makeAction(colors, tr("Other…"), QKeySequence(), [this] {
        const QColor color = QColorDialog::getColor(Qt::black, this, tr("Text Colour"));
        if (color.isValid())
            setTextColor(color);
    });
    makeAction(formatMenu_, tr("Highlight"), QKeySequence(QStringLiteral("Ctrl+Shift+H")),
               [this] { setHighlightColor(QColor(0xFF, 0xF1, 0x76)); });
    makeAction(formatMenu_, tr("Remove Colours"), QKeySequence(), [this] { removeColors(); });

    insertMenu_ = new QMenu(tr("&Insert"), this);
    makeAction(insertMenu_, tr("Day"), QKeySequence(QStringLiteral("Ctrl+Shift+D")), [this] { insertDay(); });
    makeAction(insertMenu_, tr("Table"), QKeySequence(QStringLiteral("Ctrl+Alt+T")),
               [this] { insertTable(2, 2); });

    tableMenu_ = new QMenu(tr("&Table"), this);
    makeAction(tableMenu_, tr("Insert Row Above"), QKeySequence(), [this] { insertTableRow(false); });
    makeAction(tableMenu_, tr("Insert Row Below"), QKeySequence(), [this] { insertTableRow(true); });
    makeAction(tableMenu_, tr("Insert Column Before"), QKeySequence(), [this] { insertTableColumn(false); });
    makeAction(tableMenu_, tr("Insert Column After"), QKeySequence(), [this] { insertTableColumn(true); });
    tableMenu_->addSeparator();
    makeAction(tableMenu_, tr("Delete Row"), QKeySequence(), [this] { removeTableRow(); });
    makeAction(tableMenu_, tr("Delete Column"), QKeySequence(), [this] { removeTableColumn(); });

    findAction_ = new QAction(tr("Find…"), this);
    findAction_->setShortcut(QKeySequence::Find);
    findAction_->setShortcutContext(Qt::WidgetWithChildrenShortcut);
    connect(findAction_, &QAction::triggered, this, &NBDocumentEditor::showFindBar);
    QWidget::addAction(findAction_);
    createFindBar();
}
