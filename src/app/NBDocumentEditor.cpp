// The document editor (see NBDocumentEditor.h): construction, following the document, writing typed text,
// and undo. The actions are in NBDocumentEditorActions.cpp, keys, clipboard and drops in
// NBDocumentEditorInput.cpp, the painted markers and bench helpers in NBDocumentEditorBench.cpp.
#include "app/NBDocumentEditor.h"

#include "app/NBAppLogging.h"
#include "app/NBDocumentEditorView.h"
#include "app/NBDocumentFinder.h"
#include "app/NBEditorCommands.h"
#include "app/NBTextMerge.h"
#include "document/NBExperiment.h"

#include <QAbstractTextDocumentLayout>
#include <QScrollBar>
#include <QTextBlock>
#include <QTextDocument>
#include <QUndoStack>
#include <QVBoxLayout>

#include <mutex>

// What the notification thread hands to the GUI thread: the keys changed since the last hand-over. `alive`
// turns false when the editor goes away; the lock is held while a hand-over is scheduled, so the editor is
// never scheduled once it has gone.
struct NBDocumentEditor::PendingChanges {
    std::mutex mutex;
    bool alive = true;
    bool scheduled = false;
    QSet<QString> keys;
};

namespace {

// The default pause after typing before it is written: long enough that a word is written at once, short
// enough that another device sees it within a second or two.
constexpr int kDefaultWriteDelay = 400;

QVariantMap withTimerKeysOf(QVariantMap info, const QVariantMap& current) {
    for (const char* key : {kNBTimerStartKey, kNBTimerStopKey, kNBTimerDurationKey, kNBTimerElapsedKey,
                            kNBTimerAppearanceKey}) {
        const QString name = QString::fromUtf8(key);
        if (current.contains(name))
            info.insert(name, current.value(name));
        else
            info.remove(name);
    }
    return info;
}

} // namespace

NBDocumentEditor::NBDocumentEditor(QWidget* parent)
    : QWidget(parent), mapping_(std::make_unique<NBDocumentTextMapping>(NBParagraphLook(font()))),
      pending_(std::make_shared<PendingChanges>()) {
    setObjectName(QStringLiteral("documentEditor"));
    undoStack_ = new QUndoStack(this);
    view_ = new NBEditorTextView(this);
    view_->setObjectName(QStringLiteral("documentText"));
    view_->setDocument(mapping_->textDocument());
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);
    createActions();
    layout->addWidget(findBar_);
    layout->addWidget(view_);
    findBar_->hide();

    writeTimer_.setSingleShot(true);
    writeTimer_.setInterval(kDefaultWriteDelay);
    connect(&writeTimer_, &QTimer::timeout, this, &NBDocumentEditor::writePendingEdits);
    tickTimer_.setInterval(1000);
    connect(&tickTimer_, &QTimer::timeout, this, [this] {
        view_->viewport()->update();
        updateTimerTicking();
    });
    connect(mapping_->textDocument(), &QTextDocument::contentsChange, this,
            &NBDocumentEditor::onContentsChange);
    connect(view_, &QTextEdit::cursorPositionChanged, this, [this] {
        // Moving to another paragraph ends a run of typing.
        if (!typingRunUUID_.isEmpty() && currentParagraphUUID() != typingRunUUID_)
            breakTypingRun();
    });
}

NBDocumentEditor::~NBDocumentEditor() {
    if (document_)
        writePendingEdits();
    {
        std::lock_guard lock(pending_->mutex);
        pending_->alive = false;
    }
    changeObserver_.reset();
}

QTextEdit* NBDocumentEditor::textView() const {
    return view_;
}

void NBDocumentEditor::setWriteDelay(int milliseconds) {
    writeTimer_.setInterval(milliseconds);
}

void NBDocumentEditor::setDocument(const std::shared_ptr<NBDocument>& document) {
    if (document_)
        writePendingEdits();
    changeObserver_.reset();
    {
        std::lock_guard lock(pending_->mutex);
        pending_->keys.clear();
    }
    document_ = document;
    finder_ = document ? std::make_unique<NBDocumentFinder>(document, this) : nullptr;
    undoStack_->clear();
    dirty_.clear();
    durations_.clear();
    breakTypingRun();
    std::weak_ptr<NBDocument> weakDocument = document;
    mapping_->setAttachmentPathResolver(
        [weakDocument](const NBParagraph& paragraph) -> std::optional<QString> {
            const std::shared_ptr<NBDocument> owner = weakDocument.lock();
            return owner ? owner->absolutePathOfAttachmentForParagraph(paragraph) : std::nullopt;
        });
    mapping_->setMaximumImageWidth(std::max(240, std::min(640, view_->viewport()->width() - 120)));
    // The text is built while the view shows another document, so that it is laid out once, not after
    // every block.
    view_->setDocument(nullptr);
    mapping_->setParagraphs(document ? document->paragraphs() : QList<NBParagraph>());
    view_->setDocument(mapping_->textDocument());
    view_->setReadOnly(!document || document->isReadOnly());
    refreshDoneParagraphs();
    if (document) {
        observeDocument();
        Q_EMIT titleChanged(document->title());
    }
    updateTimerTicking();
    view_->moveCursor(QTextCursor::Start);
}

// MARK: - Following the document

void NBDocumentEditor::observeDocument() {
    std::shared_ptr<PendingChanges> pending = pending_;
    QPointer<NBDocumentEditor> receiver(this);
    NBDocumentEditor* self = this;
    const void* sender = static_cast<const OAKStore*>(document_.get());
    const NBNotificationCenter::ObserverToken token =
        NBNotificationCenter::defaultCenter().addObserverForName(
            QString::fromUtf8(OAKStoreDidChangeNotification), sender,
            [pending, self](const NBNotification& note) {
                const QVariantMap values = note.userInfo.value(QString::fromUtf8(OAKStoreValuesKey)).toMap();
                std::lock_guard lock(pending->mutex);
                if (!pending->alive)
                    return;
                for (auto it = values.constBegin(); it != values.constEnd(); ++it)
                    pending->keys.insert(it.key());
                if (pending->scheduled || pending->keys.isEmpty())
                    return;
                pending->scheduled = true;
                QMetaObject::invokeMethod(
                    self, [self] { self->processDocumentChanges(); }, Qt::QueuedConnection);
            });
    changeObserver_ = NBScopedObserver(NBNotificationCenter::defaultCenter(), token);
}

void NBDocumentEditor::processDocumentChanges() {
    QSet<QString> keys;
    {
        std::lock_guard lock(pending_->mutex);
        keys.swap(pending_->keys);
        pending_->scheduled = false;
    }
    if (!document_ || keys.isEmpty())
        return;
    const bool layoutChanged = keys.remove(QString::fromUtf8(kNBDocumentLayoutKey));
    QSet<QString> paragraphKeys;
    bool doneChanged = false;
    for (const QString& key : std::as_const(keys)) {
        if (document_->isValidMetadataKey(key)) {
            if (key == QLatin1String(kNBDocumentTitleKey))
                Q_EMIT titleChanged(document_->title());
            if (key == QLatin1String(kNBExperimentDoneParagraphUUIDsKey))
                doneChanged = true;
        } else {
            paragraphKeys.insert(key);
        }
    }
    if (doneChanged)
        refreshDoneParagraphs();
    if (layoutChanged || !paragraphKeys.isEmpty())
        showModelChanges(paragraphKeys, layoutChanged);
    view_->viewport()->update();
}

void NBDocumentEditor::showModelChanges(const QSet<QString>& changedKeys, bool layoutChanged) {
    QStringList layout = mapping_->layout();
    QHash<QString, NBParagraph> changed;
    if (layoutChanged) {
        layout.clear();
        for (const NBParagraph& paragraph : document_->paragraphs()) {
            layout << paragraph.uuid();
            if (!mapping_->contains(paragraph.uuid()) || changedKeys.contains(paragraph.uuid()))
                changed.insert(paragraph.uuid(), paragraph);
        }
    } else {
        for (const QString& uuid : changedKeys)
            if (mapping_->contains(uuid))
                if (std::optional<NBParagraph> paragraph = document_->paragraphWithUUID(uuid))
                    changed.insert(uuid, *paragraph);
    }
    // Drop what the text already shows (the echo of the editor's own writes), and merge typing not yet
    // written into newer values of its paragraphs.
    QHash<QString, NBStyledString> merges;
    for (auto it = changed.begin(); it != changed.end();) {
        if (!mapping_->contains(it.key())) {
            ++it;
            continue;
        }
        const NBParagraph known = mapping_->paragraph(it.key());
        if (known.info() == it->info() && known.kind() == it->kind()) {
            it = changed.erase(it);
            continue;
        }
        if (dirty_.contains(it.key()) && NBParagraphLook::isTextKind(it->kind()) &&
            NBParagraphLook::isTextKind(known.kind())) {
            merges.insert(it.key(), nbMergeTypedText(known.styledContent(),
                                                     mapping_->shownStyledText(it.key()), it->styledContent())
                                        .text);
        }
        ++it;
    }
    if (changed.isEmpty() && layout == mapping_->layout())
        return;

    // Keep the selection (as places in paragraphs) and the paragraph at the top of the view where they are.
    const NBEditorSelection selection = this->selection();
    QTextCursor cursor = view_->textCursor();
    std::optional<NBTextMergeResult> cursorMerge;
    const QString cursorUUID = selection.position.uuid;
    if (merges.contains(cursorUUID)) {
        const NBParagraph known = mapping_->paragraph(cursorUUID);
        cursorMerge = nbMergeTypedText(known.styledContent(), mapping_->shownStyledText(cursorUUID),
                                       changed.value(cursorUUID).styledContent());
    }
    const QTextBlock topBlock = view_->cursorForPosition(QPoint(0, 0)).block();
    const QString topUUID = mapping_->paragraphUUIDOfBlock(topBlock);
    const int topOffset = topBlock.isValid()
                              ? int(view_->document()->documentLayout()->blockBoundingRect(topBlock).top()) -
                                    view_->verticalScrollBar()->value()
                              : 0;

    QHash<QString, NBParagraph> plain = changed;
    for (auto it = merges.constBegin(); it != merges.constEnd(); ++it)
        plain.remove(it.key());
    mapping_->applyLayout(layout, plain);
    for (auto it = merges.constBegin(); it != merges.constEnd(); ++it)
        if (mapping_->contains(it.key()))
            mapping_->updateParagraph(changed.value(it.key()), *it);

    NBEditorSelection restored = selection;
    if (cursorMerge) {
        restored.position.offset = int(cursorMerge->mergedPosition(selection.position.offset));
        restored.anchor = restored.position;
    }
    if (mapping_->contains(restored.position.uuid))
        setSelection(restored);
    else
        view_->setTextCursor(cursor);
    if (!topUUID.isEmpty() && mapping_->contains(topUUID)) {
        const int start = mapping_->startOfParagraph(topUUID);
        const QTextBlock block = view_->document()->findBlock(start);
        const int top = int(view_->document()->documentLayout()->blockBoundingRect(block).top());
        view_->verticalScrollBar()->setValue(top - topOffset);
    }
    if (!findQuery_.isEmpty())
        find(findQuery_);
}

void NBDocumentEditor::refreshDoneParagraphs() {
    doneUUIDs_.clear();
    if (auto* experiment = dynamic_cast<NBExperiment*>(document_.get())) {
        const QStringList done = experiment->doneParagraphUUIDs();
        doneUUIDs_ = QSet<QString>(done.begin(), done.end());
    }
    view_->viewport()->update();
}

// MARK: - Writing typed text

void NBDocumentEditor::onContentsChange(int position, int charsRemoved, int charsAdded) {
    Q_UNUSED(charsRemoved);
    if (mapping_->isUpdating() || !document_)
        return;
    QTextDocument* text = mapping_->textDocument();
    const QTextBlock last = text->findBlock(position + charsAdded);
    for (QTextBlock block = text->findBlock(position); block.isValid(); block = block.next()) {
        const QString uuid = mapping_->paragraphUUIDOfBlock(block);
        if (uuid.isEmpty()) {
            if (mapping_->isFillerBlock(block) && block.length() > 1) {
                // Typing into a filler makes a new normal paragraph there.
                const NBParagraph paragraph = NBParagraph::normalParagraphWithContent(QString());
                const QString previous = mapping_->adoptFillerBlock(block, paragraph);
                document_->insertParagraphAfterParagraphWithUUID(paragraph, previous);
                if (previous.isEmpty() && document_->layout().value(0) != paragraph.uuid())
                    document_->insertParagraph(paragraph, document_->layout().value(0));
                dirty_.insert(paragraph.uuid());
            }
        } else if (NBParagraphLook::isTextKind(mapping_->paragraph(uuid).kind()) ||
                   mapping_->paragraph(uuid).isTableType()) {
            dirty_.insert(uuid);
            if (typingRunUUID_ != uuid) {
                breakTypingRun();
                typingRunUUID_ = uuid;
                typingRunOpen_ = false;
            }
        } else {
            // Days and attachments show what the document holds; text typed into them is put back.
            const NBParagraph known = mapping_->paragraph(uuid);
            QMetaObject::invokeMethod(
                this,
                [this, known] {
                    if (mapping_->contains(known.uuid()))
                        mapping_->updateParagraph(mapping_->paragraph(known.uuid()));
                },
                Qt::QueuedConnection);
        }
        if (block == last)
            break;
    }
    writeTimer_.start();
}

void NBDocumentEditor::writePendingEdits() {
    writeTimer_.stop();
    if (!document_ || dirty_.isEmpty())
        return;
    const QSet<QString> dirty = std::exchange(dirty_, {});
    QHash<QString, QString> before;
    QHash<QString, QString> after;
    const NBEditorSelection selectionNow = selection();
    for (const QString& uuid : dirty) {
        if (!mapping_->contains(uuid))
            continue;
        const NBParagraph known = mapping_->paragraph(uuid);
        const std::optional<NBParagraph> stored = document_->paragraphWithUUID(uuid);
        if (!stored)
            continue;
        NBParagraph written = *stored;
        if (stored->info() != known.info() && NBParagraphLook::isTextKind(stored->kind()) &&
            NBParagraphLook::isTextKind(known.kind())) {
            // A newer value arrived and is not shown yet: the typing goes into it.
            const NBTextMergeResult merge = nbMergeTypedText(
                known.styledContent(), mapping_->shownStyledText(uuid), stored->styledContent());
            written.setContent(merge.text.markupString());
            mapping_->updateParagraph(written, merge.text);
        } else {
            written.setContent(mapping_->shownContent(uuid));
        }
        if (written.content() == stored->content() ||
            (written.content().isEmpty() && stored->content().isEmpty())) {
            mapping_->setKnownParagraph(*stored);
            continue;
        }
        document_->modifyParagraph(written);
        mapping_->setKnownParagraph(written);
        before.insert(uuid, known.content());
        after.insert(uuid, written.content());
    }
    if (after.isEmpty())
        return;
    auto* command =
        new NBContentEditCommand(this, tr("Typing"), before, after, selectionNow, selectionNow, true);
    command->setOpenForTyping(typingRunOpen_ && after.size() == 1 && after.contains(typingRunUUID_));
    typingRunOpen_ = after.size() == 1 && after.contains(typingRunUUID_);
    undoStack_->push(command);
    if (!findQuery_.isEmpty())
        find(findQuery_);
}

// MARK: - Undo

void NBDocumentEditor::undo() {
    writePendingEdits();
    processDocumentChanges();
    breakTypingRun();
    undoStack_->undo();
}

void NBDocumentEditor::redo() {
    writePendingEdits();
    processDocumentChanges();
    breakTypingRun();
    undoStack_->redo();
}

NBDocumentEditor::ModelState NBDocumentEditor::captureModelState() const {
    ModelState state;
    for (const NBParagraph& paragraph : document_->paragraphs()) {
        state.layout << paragraph.uuid();
        state.infos.insert(paragraph.uuid(), paragraph.info());
    }
    return state;
}

void NBDocumentEditor::performEdit(const QString& name,
                                   const std::function<std::optional<NBEditorSelection>()>& edit) {
    if (!document_ || document_->isReadOnly())
        return;
    writePendingEdits();
    processDocumentChanges();
    breakTypingRun();
    const NBEditorSelection selectionBefore = selection();
    const ModelState before = captureModelState();
    std::optional<NBEditorSelection> selectionAfter;
    document_->runTransaction([&] { selectionAfter = edit(); });
    const ModelState after = captureModelState();

    QSet<QString> touched;
    QHash<QString, QVariantMap> infosBefore;
    QHash<QString, QVariantMap> infosAfter;
    QSet<QString> changedKeys;
    for (auto it = after.infos.constBegin(); it != after.infos.constEnd(); ++it) {
        auto old = before.infos.constFind(it.key());
        if (old == before.infos.constEnd() || *old != *it) {
            touched.insert(it.key());
            changedKeys.insert(it.key());
        }
    }
    for (auto it = before.infos.constBegin(); it != before.infos.constEnd(); ++it)
        if (!after.infos.contains(it.key()))
            touched.insert(it.key());
    for (const QString& uuid : std::as_const(touched)) {
        if (before.infos.contains(uuid))
            infosBefore.insert(uuid, before.infos.value(uuid));
        if (after.infos.contains(uuid))
            infosAfter.insert(uuid, after.infos.value(uuid));
    }
    if (touched.isEmpty() && before.layout == after.layout)
        return;
    showModelChanges(changedKeys, true);
    if (selectionAfter)
        setSelection(*selectionAfter);
    undoStack_->push(new NBDocumentEditCommand(this, name, before.layout, infosBefore, after.layout,
                                               infosAfter, touched, selectionBefore,
                                               selectionAfter.value_or(selection())));
}

void NBDocumentEditor::restoreModelState(const QStringList& layout, const QHash<QString, QVariantMap>& infos,
                                         const QSet<QString>& touched) {
    if (!document_)
        return;
    QSet<QString> changedKeys;
    document_->runTransaction([&] {
        QStringList current = document_->layout();
        // Take out the touched paragraphs the state does not hold.
        for (const QString& uuid : touched) {
            if (current.contains(uuid) && !layout.contains(uuid)) {
                document_->removeParagraphWithUUID(uuid);
                current.removeOne(uuid);
            }
        }
        // Put back those it holds that are missing, each before the next paragraph of the state still
        // present.
        for (int index = 0; index < layout.size(); ++index) {
            const QString& uuid = layout[index];
            if (!touched.contains(uuid) || current.contains(uuid) || !infos.contains(uuid))
                continue;
            QString before;
            for (int next = index + 1; next < layout.size() && before.isEmpty(); ++next)
                if (current.contains(layout[next]))
                    before = layout[next];
            std::optional<NBParagraph> paragraph = NBParagraph::paragraphWithUUID(uuid, infos.value(uuid));
            if (!paragraph)
                continue;
            document_->insertParagraph(*paragraph, before);
            current.insert(before.isEmpty() ? current.size() : current.indexOf(before), uuid);
            changedKeys.insert(uuid);
        }
        // Rewrite the others, keeping their timers as they are now.
        for (const QString& uuid : touched) {
            if (!infos.contains(uuid) || !current.contains(uuid) || changedKeys.contains(uuid))
                continue;
            const std::optional<NBParagraph> stored = document_->paragraphWithUUID(uuid);
            const QVariantMap info =
                withTimerKeysOf(infos.value(uuid), stored ? stored->info() : QVariantMap());
            if (stored && stored->info() == info)
                continue;
            if (std::optional<NBParagraph> paragraph = NBParagraph::paragraphWithUUID(uuid, info)) {
                document_->modifyParagraph(*paragraph);
                changedKeys.insert(uuid);
            }
        }
    });
    showModelChanges(changedKeys, true);
}

void NBDocumentEditor::restoreContents(const QHash<QString, QString>& contents) {
    if (!document_)
        return;
    QSet<QString> changedKeys;
    document_->runTransaction([&] {
        for (auto it = contents.constBegin(); it != contents.constEnd(); ++it) {
            std::optional<NBParagraph> stored = document_->paragraphWithUUID(it.key());
            if (!stored || stored->content() == *it)
                continue;
            stored->setContent(*it);
            document_->modifyParagraph(*stored);
            changedKeys.insert(it.key());
        }
    });
    showModelChanges(changedKeys, false);
}

// MARK: - Positions

NBEditorPosition NBDocumentEditor::editorPositionAt(int position) const {
    QTextDocument* text = mapping_->textDocument();
    QTextBlock block = text->findBlock(position);
    QString uuid = mapping_->paragraphUUIDOfBlock(block);
    // A filler stands for the start of the paragraph after it (or the end of the one before).
    if (uuid.isEmpty()) {
        for (QTextBlock next = block.next(); next.isValid() && uuid.isEmpty(); next = next.next())
            uuid = mapping_->paragraphUUIDOfBlock(next);
        if (!uuid.isEmpty())
            return {uuid, 0};
        for (QTextBlock previous = block.previous(); previous.isValid() && uuid.isEmpty();
             previous = previous.previous())
            uuid = mapping_->paragraphUUIDOfBlock(previous);
        if (uuid.isEmpty())
            return {};
        return {uuid, mapping_->endOfParagraph(uuid) - mapping_->startOfParagraph(uuid)};
    }
    return {uuid, position - mapping_->startOfParagraph(uuid)};
}

int NBDocumentEditor::textPosition(const NBEditorPosition& position) const {
    const int start = mapping_->startOfParagraph(position.uuid);
    if (start < 0)
        return -1;
    const int end = mapping_->endOfParagraph(position.uuid);
    return std::clamp(start + position.offset, start, end);
}

NBEditorSelection NBDocumentEditor::selection() const {
    const QTextCursor cursor = view_->textCursor();
    return {editorPositionAt(cursor.anchor()), editorPositionAt(cursor.position())};
}

void NBDocumentEditor::setSelection(const NBEditorSelection& selection) {
    const int position = textPosition(selection.position);
    if (position < 0)
        return;
    const int anchor = textPosition(selection.anchor);
    QTextCursor cursor(mapping_->textDocument());
    cursor.setPosition(anchor < 0 ? position : anchor);
    cursor.setPosition(position, QTextCursor::KeepAnchor);
    view_->setTextCursor(cursor);
}

void NBDocumentEditor::setCursorPosition(const QString& uuid, int offset) {
    setSelection({{uuid, offset}, {uuid, offset}});
}

QString NBDocumentEditor::currentParagraphUUID() const {
    return editorPositionAt(view_->textCursor().position()).uuid;
}
