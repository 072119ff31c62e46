// NBMarkdownDocumentImporter: imports one Markdown file into a document the caller provides, the way the
// library brings its built-in protocols in (importerWithDocument(document, markdownURL), then runNow()).
//
// The URL is a local file ("file:"), a Qt resource (":/..." given as a local path, or "qrc:/..."), or a
// plain path. runNow() reads the whole file first (NBMarkdownReader) and writes into the document only when
// it could be read, so a failed import leaves the document as it was.
#pragma once

#include "foundation/NBError.h"

#include <QUrl>

#include <memory>

class NBDocument;

class NBMarkdownDocumentImporter {
public:
    static std::unique_ptr<NBMarkdownDocumentImporter>
    importerWithDocument(const std::shared_ptr<NBDocument>& document, const QUrl& markdownURL);
    NBMarkdownDocumentImporter(std::shared_ptr<NBDocument> document, QUrl markdownURL);

    // The filled document, or nothing (with the error) when the file could not be imported.
    std::shared_ptr<NBDocument> runNow(NBError* outError = nullptr);

    // The file a Markdown URL names.
    static QString filePathForURL(const QUrl& url);

private:
    std::shared_ptr<NBDocument> document_;
    QUrl markdownURL_;
};
