// The editor's undo steps (see NBEditorCommands.h).
#include "app/NBEditorCommands.h"

NBContentEditCommand::NBContentEditCommand(NBDocumentEditor* editor, const QString& name,
                                           QHash<QString, QString> before, QHash<QString, QString> after,
                                           NBEditorSelection selectionBefore,
                                           NBEditorSelection selectionAfter, bool typing)
    : QUndoCommand(name), editor_(editor), before_(std::move(before)), after_(std::move(after)),
      selectionBefore_(std::move(selectionBefore)), selectionAfter_(std::move(selectionAfter)),
      typing_(typing) {}

bool NBContentEditCommand::mergeWith(const QUndoCommand* other) {
    const auto* next = static_cast<const NBContentEditCommand*>(other);
    if (!typing_ || !next->typing_ || !next->openForTyping_ || before_.size() != 1 ||
        next->before_.size() != 1 || before_.keys() != next->before_.keys() || after_ != next->before_)
        return false;
    after_ = next->after_;
    selectionAfter_ = next->selectionAfter_;
    return true;
}

void NBContentEditCommand::undo() {
    editor_->restoreContents(before_);
    editor_->setSelection(selectionBefore_);
    done_ = false;
}

void NBContentEditCommand::redo() {
    if (done_)
        return;
    editor_->restoreContents(after_);
    editor_->setSelection(selectionAfter_);
    done_ = true;
}

NBDocumentEditCommand::NBDocumentEditCommand(NBDocumentEditor* editor, const QString& name,
                                             QStringList layoutBefore, QHash<QString, QVariantMap> before,
                                             QStringList layoutAfter, QHash<QString, QVariantMap> after,
                                             QSet<QString> touched, NBEditorSelection selectionBefore,
                                             NBEditorSelection selectionAfter)
    : QUndoCommand(name), editor_(editor), layoutBefore_(std::move(layoutBefore)), before_(std::move(before)),
      layoutAfter_(std::move(layoutAfter)), after_(std::move(after)), touched_(std::move(touched)),
      selectionBefore_(std::move(selectionBefore)), selectionAfter_(std::move(selectionAfter)) {}

void NBDocumentEditCommand::undo() {
    editor_->restoreModelState(layoutBefore_, before_, touched_);
    editor_->setSelection(selectionBefore_);
    done_ = false;
}

void NBDocumentEditCommand::redo() {
    if (done_)
        return;
    editor_->restoreModelState(layoutAfter_, after_, touched_);
    editor_->setSelection(selectionAfter_);
    done_ = true;
}
