// NBDocumentEditor: the editing surface of one document (an experiment or a protocol), a rich-text block
// editor over the live document.
//
// What it shows comes from NBDocumentTextMapping (one block per paragraph, tables as QTextTable) inside a
// QTextEdit, with the paragraph markers, done boxes, call-out bars and timer buttons painted around the text.
//
// How edits reach the document. Typing changes only the text at first; the paragraphs typed in are written
// (their content as styled-text markup) after a short pause (writeDelay), and at once when the editor loses
// focus, before any other action, on writePendingEdits() (save, close) and when the editor goes away.
// Everything else (Enter, Backspace at a paragraph's start, levels, kinds, styles, paste, drops, tables,
// protocols) is done on the document first and then shown, through the same path that shows other devices'
// edits. Every user action is one step of the undo stack; a run of typing in one paragraph is one step.
// Undo and redo write the document back to the state before or after the action, for the paragraphs the
// action touched only, so other devices' edits of other paragraphs stay.
//
// The live document. The editor follows the document's change notifications (its own writes and other
// devices' edits brought in by sync steps) and applies them to the blocks they touched only; the cursor,
// the selection and the scroll position stay where they were. A paragraph with typing not yet written is
// never overwritten: when a newer value of it arrives, the typing is merged into it (NBTextMerge.h) and the
// merge is written in its turn.
//
// Bench helpers. A paragraph that can carry a timer and whose text holds a duration shows a start button;
// running timers count down in the block, updated every second. Steps of experiments have a done box
// ("doneParagraphUUIDs"). Find (Ctrl+F) asks the document's full-text index (NBDocumentFinder.h) and
// highlights every hit.
#pragma once

#include "app/NBDocumentTextMapping.h"
#include "document/NBDocument.h"
#include "foundation/NBNotificationCenter.h"

#include <QColor>
#include <QHash>
#include <QPointer>
#include <QSet>
#include <QTimer>
#include <QWidget>

#include <functional>
#include <memory>
#include <optional>

class NBDocumentFinder;
class NBEditorTextView;
class NBExperiment;
class NBProtocol;
class QAction;
class QLabel;
class QLineEdit;
class QMenu;
class QMimeData;
class QTextEdit;
class QUndoStack;

// A place in the document: a paragraph and a character offset in its text, for the cursor and its anchor.
struct NBEditorPosition {
    QString uuid;
    int offset = 0;
    bool operator==(const NBEditorPosition&) const = default;
};

struct NBEditorSelection {
    NBEditorPosition anchor;
    NBEditorPosition position;
};

class NBDocumentEditor : public QWidget {
    Q_OBJECT

public:
    explicit NBDocumentEditor(QWidget* parent = nullptr);
    ~NBDocumentEditor() override;

    // Shows `document` (loaded) and follows it; the previous document's pending typing is written first.
    void setDocument(const std::shared_ptr<NBDocument>& document);
    const std::shared_ptr<NBDocument>& document() const { return document_; }
    NBDocumentTextMapping& mapping() { return *mapping_; }
    QTextEdit* textView() const;
    QUndoStack* undoStack() const { return undoStack_; }
    // How long typing rests before it is written, in milliseconds.
    void setWriteDelay(int milliseconds);

    // ---- Writing ----
    // Writes every paragraph with typing not yet written, now.
    void writePendingEdits();
    bool hasPendingEdits() const { return !dirty_.isEmpty(); }
    // Applies the document changes announced so far (normally done soon after each notification).
    void processDocumentChanges();

    // ---- The cursor, for the window and tests ----
    NBEditorSelection selection() const;
    void setSelection(const NBEditorSelection& selection);
    void setCursorPosition(const QString& uuid, int offset);
    QString currentParagraphUUID() const;

    // ---- Actions on the current paragraph or the selection (each one undo step) ----
    void undo();
    void redo();
    void splitParagraph();
    void setParagraphKind(NBParagraphKind kind);
    void changeIndentation(int delta);
    void toggleStyle(const NBStyle& style);
    void setTextColor(const QColor& color);
    void setHighlightColor(const QColor& color);
    void removeColors();
    void insertDay();
    void insertTable(int rows, int columns);
    void insertTableRow(bool below);
    void removeTableRow();
    void insertTableColumn(bool after);
    void removeTableColumn();
    // Copies the files into the package and adds an attachment paragraph for each after the current
    // paragraph. Returns false (after adding those it could) when a file could not be copied.
    bool attachFiles(const QStringList& paths, NBError* outError = nullptr);
    // Inserts the protocol into the experiment from `day` on (the document model's protocol insertion).
    bool insertProtocol(NBProtocol& protocol, const NBDay& day, NBError* outError = nullptr);
    // The day of the day paragraph at or before the cursor, else today.
    NBDay dayAtCursor() const;
    void pasteMimeData(const QMimeData* mimeData);
    QMimeData* mimeDataForSelection() const;

    // ---- Bench helpers (not undo steps: they are the state of the bench, not of the text) ----
    // Starts a countdown of the duration in the paragraph's text (or resumes its paused timer).
    bool startTimer(const QString& uuid, NBError* outError = nullptr);
    void pauseTimer(const QString& uuid);
    void stopTimer(const QString& uuid);
    void removeTimer(const QString& uuid);
    void setParagraphDone(const QString& uuid, bool done);
    bool isParagraphDone(const QString& uuid) const { return doneUUIDs_.contains(uuid); }

    // ---- Find ----
    void showFindBar();
    void find(const QString& query);
    void findNext();
    void findPrevious();
    // The paragraphs with hits, and the index of the current hit (-1: none), of the last find.
    const QStringList& findResults() const { return findResults_; }
    int currentFindIndex() const { return currentFind_; }

    // Menus and actions for a window (owned by the editor).
    QMenu* formatMenu() const { return formatMenu_; }
    QMenu* insertMenu() const { return insertMenu_; }
    QMenu* tableMenu() const { return tableMenu_; }
    QAction* undoAction() const { return undoAction_; }
    QAction* redoAction() const { return redoAction_; }
    QAction* findAction() const { return findAction_; }

Q_SIGNALS:
    void titleChanged(const QString& title);
    // A find's results arrived (findResults() holds them).
    void findFinished();
    // An action failed in a way the user should hear of (a file that could not be attached, ...).
    void errorOccurred(const QString& message);

private:
    friend class NBEditorTextView;
    friend class NBDocumentEditCommand;
    friend class NBContentEditCommand;

    // The document state an undo step restores: the layout and the infos of the paragraphs it touched.
    struct ModelState {
        QStringList layout;
        QHash<QString, QVariantMap> infos;
    };

    // Runs `edit` (which changes the document and returns where the cursor goes) as one undo step named
    // `name`: pending typing is written first, and the text follows the document afterwards.
    void performEdit(const QString& name, const std::function<std::optional<NBEditorSelection>()>& edit);
    ModelState captureModelState() const;
    void restoreModelState(const QStringList& layout, const QHash<QString, QVariantMap>& infos,
                           const QSet<QString>& touched);
    void restoreContents(const QHash<QString, QString>& contents);
    // Shows the document as it now is, touching only what differs from what is shown.
    void showModelChanges(const QSet<QString>& changedKeys, bool layoutChanged);
    void breakTypingRun() {
        typingRunUUID_.clear();
        typingRunOpen_ = false;
    }

    // Model edits used by the actions; offsets are in the paragraphs' plain text.
    std::optional<NBEditorSelection> deleteRangeInModel(const NBEditorPosition& start,
                                                        const NBEditorPosition& end);
    std::optional<NBEditorSelection> splitInModel(const NBEditorPosition& at);
    std::optional<NBEditorSelection> insertParagraphsInModel(const NBEditorPosition& at,
                                                             const QList<NBParagraph>& paragraphs);
    std::optional<NBParagraph> modelParagraph(const QString& uuid) const;
    QString paragraphAfter(const QString& uuid) const;
    QString paragraphBefore(const QString& uuid) const;

    // Keys and text.
    bool handleKeyPress(class QKeyEvent* event);
    bool selectionSpansParagraphs() const;
    void deleteSelection();
    void mergeWithPrevious(const QString& uuid);
    void mergeNextInto(const QString& uuid);
    void removeParagraph(const QString& uuid, const QString& name);
    void insertParagraphNextTo(const QString& uuid, bool before, const QString& text = QString());
    void onContentsChange(int position, int charsRemoved, int charsAdded);
    NBEditorPosition editorPositionAt(int position) const;
    int textPosition(const NBEditorPosition& position) const;
    QStringList paragraphsInSelection() const;
    void
    changeTableStructure(const QString& name,
                         const std::function<void(QList<QStringList>& rows, int row, int column)>& change);
    bool currentCell(QString* uuid, int* row, int* column) const;

    // Notifications.
    void observeDocument();
    void refreshDoneParagraphs();

    // Decorations and bench helpers.
    void paintDecorations(class QPainter& painter);
    bool handleDecorationClick(const QPoint& point);
    std::optional<NBTime> durationInParagraph(const NBParagraph& paragraph) const;
    void updateTimerTicking();
    void changeTimer(const QString& uuid, const std::function<bool(NBTimer&)>& change);

    // Find.
    void createFindBar();
    void refreshFindHighlights();
    void updateFindBar();

    void createActions();

    std::shared_ptr<NBDocument> document_;
    std::unique_ptr<NBDocumentTextMapping> mapping_;
    NBEditorTextView* view_ = nullptr;
    QUndoStack* undoStack_ = nullptr;
    QTimer writeTimer_;
    QTimer tickTimer_;
    QSet<QString> dirty_;
    // The paragraph of the current run of typing, and whether a step of it was written already (so the
    // next one merges into it).
    QString typingRunUUID_;
    bool typingRunOpen_ = false;
    QSet<QString> doneUUIDs_;

    // Change notifications arrive on the store's notification thread and are handed to the GUI thread.
    struct PendingChanges;
    std::shared_ptr<PendingChanges> pending_;
    NBScopedObserver changeObserver_;

    struct Hotspot {
        QRect rect;
        QString uuid;
        enum class Action { ToggleDone, StartTimer, TimerMenu } action;
    };
    QList<Hotspot> hotspots_;
    mutable QHash<QString, QPair<QString, std::optional<NBTime>>> durations_;

    std::unique_ptr<NBDocumentFinder> finder_;
    QWidget* findBar_ = nullptr;
    QLineEdit* findField_ = nullptr;
    QLabel* findCount_ = nullptr;
    QString findQuery_;
    QStringList findResults_;
    QStringList findTokens_;
    int currentFind_ = -1;
    quint64 findGeneration_ = 0;

    QMenu* formatMenu_ = nullptr;
    QMenu* insertMenu_ = nullptr;
    QMenu* tableMenu_ = nullptr;
    QAction* undoAction_ = nullptr;
    QAction* redoAction_ = nullptr;
    QAction* findAction_ = nullptr;
};
