// NBRichTextExport: PDF and OpenDocument text made from a document through Qt's rich text.
//
// Both start from the page of NBHTMLWriter in its rich-text flavour, read into a QTextDocument with the
// document's images as resources, so they show the layout of the HTML export.
//
// PDF (QPdfWriter): the paper size of the user's locale (Letter where the locale's territory uses it: the
// United States, Canada, Mexico, the Philippines and several Central and South American countries; A4
// elsewhere; the first of LC_ALL, LC_PAPER and LANG that is set decides), 16 mm margins, the text laid out
// at 96 pixels to the inch and drawn page by page, with the title and "Page n of m" at the foot of every
// page. Images are scaled to fit the text's width and at most most of a page's height. The title and the
// program are written into the PDF's information.
//
// OpenDocument text (.odt): Qt's own OpenDocument writer, images embedded.
//
// Both write under a temporary name beside the target and rename into place.
#pragma once

#include "interchange/NBDocumentContent.h"

#include <QPageSize>

#include <memory>

class NBDocument;
class QTextDocument;

// Error codes of the "NBRichTextExport" domain.
inline constexpr qint64 kNBRichTextExportErrorWrite = 10;

class NBRichTextExport {
public:
    // The paper of the user's locale (see above).
    static QPageSize::PageSizeId paperSizeForLocale();
    // The document's page as rich text, for a text width in pixels (images are scaled to it, and to
    // `maximumImageHeight` when that is above 0).
    static std::unique_ptr<QTextDocument>
    textDocumentForContent(const NBDocumentContent& content, qreal textWidth, qreal maximumImageHeight = 0);

    static bool writePDF(const NBDocumentContent& content, const QString& path, NBError* outError = nullptr);
    static bool writePDF(const NBDocumentContent& content, const QString& path,
                         QPageSize::PageSizeId paperSize, NBError* outError = nullptr);
    static bool writeOpenDocument(const NBDocumentContent& content, const QString& path,
                                  NBError* outError = nullptr);
};
