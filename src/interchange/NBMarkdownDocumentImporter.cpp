// NBMarkdownDocumentImporter: one Markdown file into a given document (see the header).
#include "interchange/NBMarkdownDocumentImporter.h"

#include "document/NBDocument.h"
#include "interchange/NBMarkdownReader.h"

std::unique_ptr<NBMarkdownDocumentImporter>
NBMarkdownDocumentImporter::importerWithDocument(const std::shared_ptr<NBDocument>& document,
                                                 const QUrl& markdownURL) {
    if (!document || markdownURL.isEmpty())
        return nullptr;
    return std::make_unique<NBMarkdownDocumentImporter>(document, markdownURL);
}

NBMarkdownDocumentImporter::NBMarkdownDocumentImporter(std::shared_ptr<NBDocument> document, QUrl markdownURL)
    : document_(std::move(document)), markdownURL_(std::move(markdownURL)) {}

QString NBMarkdownDocumentImporter::filePathForURL(const QUrl& url) {
    if (url.scheme() == QLatin1String("qrc"))
        return QLatin1Char(':') + url.path();
    if (url.isLocalFile())
        return url.toLocalFile();
    return url.toString(QUrl::PreferLocalFile);
}

std::shared_ptr<NBDocument> NBMarkdownDocumentImporter::runNow(NBError* outError) {
    const std::optional<NBDocumentContent> content =
        NBMarkdownReader::contentFromMarkdownFile(filePathForURL(markdownURL_), outError);
    if (!content || !content->fillDocument(*document_, outError))
        return nullptr;
    return document_;
}
