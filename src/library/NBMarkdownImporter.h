// NBMarkdownImporter: what the library needs from a Markdown importer, for its built-in protocols.
//
// The library imports each built-in protocol file (Markdown, named "<protocol UUID>.mdown") into a new
// in-memory protocol: importerWithDocument(document, markdownURL) makes an importer for that document and
// file, and runNow() runs it synchronously and returns the filled document, or nothing when the file could
// not be imported. The importer itself lives with the other converters; it makes itself known once per
// process with setImporterFactory(). Without one, importerWithDocument() returns nothing and the library
// logs each built-in protocol as not imported.
#pragma once

#include <QUrl>

#include <functional>
#include <memory>

class NBDocument;

class NBMarkdownImporter {
public:
    using Factory = std::function<std::unique_ptr<NBMarkdownImporter>(
        const std::shared_ptr<NBDocument>& document, const QUrl& markdownURL)>;
    virtual ~NBMarkdownImporter() = default;
    virtual std::shared_ptr<NBDocument> runNow() = 0;

    static std::unique_ptr<NBMarkdownImporter>
    importerWithDocument(const std::shared_ptr<NBDocument>& document, const QUrl& markdownURL);
    static void setImporterFactory(Factory factory);
    static bool hasImporterFactory();
};
