// NBEditorTextView: the QTextEdit inside NBDocumentEditor. It hands keys, the clipboard, drops, clicks and
// painting to the editor, which knows the paragraphs; on its own it only shows and edits the text.
#pragma once

#include <QTextEdit>

class NBDocumentEditor;

class NBEditorTextView : public QTextEdit {
public:
    explicit NBEditorTextView(NBDocumentEditor* editor);

protected:
    bool event(QEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;
    void inputMethodEvent(QInputMethodEvent* event) override;
    bool canInsertFromMimeData(const QMimeData* source) const override;
    void insertFromMimeData(const QMimeData* source) override;
    QMimeData* createMimeDataFromSelection() const override;
    void paintEvent(QPaintEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;
    void mouseDoubleClickEvent(QMouseEvent* event) override;
    void focusOutEvent(QFocusEvent* event) override;
    void contextMenuEvent(QContextMenuEvent* event) override;
    void dragEnterEvent(QDragEnterEvent* event) override;
    void dragMoveEvent(QDragMoveEvent* event) override;
    void dropEvent(QDropEvent* event) override;

private:
    friend class NBDocumentEditor;
    NBDocumentEditor* editor_;
};
