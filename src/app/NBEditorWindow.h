// NBEditorWindow: a window showing one document in the editor, with the editor's menus and the file
// commands around it (save, attach a file, insert a protocol from a package, close). `quillon edit` opens
// one; the application's main window will take its place.
#pragma once

#include "document/NBDocument.h"

#include <QMainWindow>

#include <memory>

class NBDocumentEditor;

class NBEditorWindow : public QMainWindow {
public:
    explicit NBEditorWindow(std::shared_ptr<NBDocument> document, QWidget* parent = nullptr);
    ~NBEditorWindow() override;

    NBDocumentEditor* editor() const { return editor_; }
    // Writes pending typing and saves the document's log now.
    bool save();

protected:
    void closeEvent(QCloseEvent* event) override;

private:
    void attachFile();
    void insertProtocolFromPackage();
    void showError(const QString& message);

    std::shared_ptr<NBDocument> document_;
    NBDocumentEditor* editor_ = nullptr;
};
