// A window with one document's editor (see NBEditorWindow.h).
#include "app/NBEditorWindow.h"

#include "app/NBDocumentEditor.h"
#include "document/NBProtocol.h"

#include <QCloseEvent>
#include <QFileDialog>
#include <QMenuBar>
#include <QMessageBox>
#include <QStatusBar>
#include <QTextEdit>

NBEditorWindow::NBEditorWindow(std::shared_ptr<NBDocument> document, QWidget* parent)
    : QMainWindow(parent), document_(std::move(document)) {
    setObjectName(QStringLiteral("editorWindow"));
    editor_ = new NBDocumentEditor(this);
    setCentralWidget(editor_);
    editor_->setDocument(document_);
    const auto setTitle = [this](const QString& title) {
        setWindowTitle(title.isEmpty() ? tr("Untitled") : title);
    };
    setTitle(document_ ? document_->title() : QString());
    connect(editor_, &NBDocumentEditor::titleChanged, this, setTitle);
    connect(editor_, &NBDocumentEditor::errorOccurred, this, &NBEditorWindow::showError);

    QMenu* file = menuBar()->addMenu(tr("&File"));
    file->addAction(tr("&Save"), QKeySequence::Save, this, [this] { save(); });
    file->addAction(tr("&Attach File…"), this, &NBEditorWindow::attachFile);
    QAction* insertProtocol =
        file->addAction(tr("Insert &Protocol…"), this, &NBEditorWindow::insertProtocolFromPackage);
    insertProtocol->setEnabled(document_ && document_->isExperiment());
    file->addSeparator();
    file->addAction(tr("&Close"), QKeySequence::Close, this, &QWidget::close);

    QMenu* edit = menuBar()->addMenu(tr("&Edit"));
    edit->addAction(editor_->undoAction());
    edit->addAction(editor_->redoAction());
    edit->addSeparator();
    QTextEdit* text = editor_->textView();
    edit->addAction(tr("Cu&t"), QKeySequence::Cut, text, &QTextEdit::cut);
    edit->addAction(tr("&Copy"), QKeySequence::Copy, text, &QTextEdit::copy);
    edit->addAction(tr("&Paste"), QKeySequence::Paste, text, &QTextEdit::paste);
    edit->addAction(tr("Select &All"), QKeySequence::SelectAll, text, &QTextEdit::selectAll);
    edit->addSeparator();
    edit->addAction(editor_->findAction());
    menuBar()->addMenu(editor_->formatMenu());
    menuBar()->addMenu(editor_->insertMenu());
    menuBar()->addMenu(editor_->tableMenu());
    resize(900, 760);
    editor_->textView()->setFocus();
}

NBEditorWindow::~NBEditorWindow() = default;

bool NBEditorWindow::save() {
    editor_->writePendingEdits();
    if (!document_)
        return true;
    NBError error;
    if (!document_->saveNow(&error)) {
        showError(error.localizedDescription());
        return false;
    }
    statusBar()->showMessage(tr("Saved"), 2000);
    return true;
}

void NBEditorWindow::closeEvent(QCloseEvent* event) {
    save();
    QMainWindow::closeEvent(event);
}

void NBEditorWindow::attachFile() {
    const QStringList paths = QFileDialog::getOpenFileNames(this, tr("Attach Files"));
    if (!paths.isEmpty())
        editor_->attachFiles(paths);
}

void NBEditorWindow::insertProtocolFromPackage() {
    const QString path = QFileDialog::getExistingDirectory(this, tr("Insert Protocol"));
    if (path.isEmpty())
        return;
    OAKStoreOptions options;
    options.readOnly = true;
    NBError error;
    std::shared_ptr<NBDocument> opened =
        NBDocument::openDocumentAtPath(path, document_->deviceIdentifier(), options, &error);
    auto* protocol = dynamic_cast<NBProtocol*>(opened.get());
    if (!protocol) {
        showError(opened ? tr("%1 is not a protocol.").arg(path) : error.localizedDescription());
    } else {
        editor_->insertProtocol(*protocol, editor_->dayAtCursor());
    }
    if (opened)
        opened->tearDownNow();
}

void NBEditorWindow::showError(const QString& message) {
    statusBar()->showMessage(message, 8000);
}
