// The editor's undo steps. Each holds what the document was before and after one user action, for the
// paragraphs the action touched, and writes it back on undo and redo (the action itself did the first
// "redo", so pushing a step changes nothing).
//
// NBContentEditCommand holds contents only (typing, styles): undo and redo set the content of its paragraphs
// and leave every other key as it is now. Consecutive typing in one paragraph merges into one step.
// NBDocumentEditCommand holds the layout and the whole info of the touched paragraphs (Enter, merges, kinds,
// levels, paste, drops, tables, protocols): undo and redo take out, put back and rewrite those paragraphs
// only, at their places among the paragraphs present then; timer keys always keep their current values,
// since a running timer is the bench's state, not the text's.
#pragma once

#include "app/NBDocumentEditor.h"

#include <QUndoCommand>

class NBContentEditCommand : public QUndoCommand {
public:
    static constexpr int kTypingId = 0x4E54;

    NBContentEditCommand(NBDocumentEditor* editor, const QString& name, QHash<QString, QString> before,
                         QHash<QString, QString> after, NBEditorSelection selectionBefore,
                         NBEditorSelection selectionAfter, bool typing);
    int id() const override { return typing_ ? kTypingId : -1; }
    bool mergeWith(const QUndoCommand* other) override;
    void undo() override;
    void redo() override;
    // Whether this typing step continues the run of the step before it (and may merge into it).
    void setOpenForTyping(bool open) { openForTyping_ = open; }

private:
    NBDocumentEditor* editor_;
    QHash<QString, QString> before_;
    QHash<QString, QString> after_;
    NBEditorSelection selectionBefore_;
    NBEditorSelection selectionAfter_;
    bool typing_;
    bool openForTyping_ = true;
    bool done_ = true;
};

class NBDocumentEditCommand : public QUndoCommand {
public:
    NBDocumentEditCommand(NBDocumentEditor* editor, const QString& name, QStringList layoutBefore,
                          QHash<QString, QVariantMap> before, QStringList layoutAfter,
                          QHash<QString, QVariantMap> after, QSet<QString> touched,
                          NBEditorSelection selectionBefore, NBEditorSelection selectionAfter);
    void undo() override;
    void redo() override;

private:
    NBDocumentEditor* editor_;
    QStringList layoutBefore_;
    QHash<QString, QVariantMap> before_;
    QStringList layoutAfter_;
    QHash<QString, QVariantMap> after_;
    QSet<QString> touched_;
    NBEditorSelection selectionBefore_;
    NBEditorSelection selectionAfter_;
    bool done_ = true;
};
