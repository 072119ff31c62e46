// NBHTMLWriter: a document as one self-contained, printable HTML page, and the same layout in the subset
// of HTML that Qt's rich text reads (for PDF and OpenDocument, NBRichTextExport.h).
//
// The page: a title block (the title, then the metadata a reader wants: kind, author, and the summary and
// categories of a protocol or the aim, project, conclusion, rating and state of an experiment), then the
// paragraphs: days as level-2 headings in the reader's language, steps as level-3 headings numbered from 1
// after each day ("Step 2 — Cast the gel"), sections as level-4 headings, numbered items with the numbers
// the list counters give them (notes, warnings and errors do not interrupt a list), bullets, both indented
// by their level, notes, warnings and errors as coloured call-outs, code in a monospaced box, tables with
// ruled cells, images embedded in the page (a data address, up to kMaximumEmbeddedImageSize) and other
// attachments as links to the files written into the folder "<HTML file name>_files" beside the page.
// A style sheet in the page lays it out for screens and for printing (no break after a heading or inside a
// call-out, table or picture).
//
// Every text that comes from the document (title, metadata, paragraphs, cells, captions, file names) is
// escaped; link addresses are kept only with the schemes http, https, mailto and ftp or no scheme, so the
// page runs nothing and loads nothing from elsewhere.
#pragma once

#include "interchange/NBDocumentContent.h"

#include <functional>

class NBDocument;

// Error codes of the "NBHTMLWriter" domain.
inline constexpr qint64 kNBHTMLWriterErrorWrite = 10;

class NBHTMLWriter {
public:
    static constexpr qint64 kMaximumEmbeddedImageSize = 16 * 1024 * 1024;

    enum class Flavor {
        // For browsers: full style sheet, images as data addresses.
        Browser,
        // For QTextDocument: Qt's subset of HTML and CSS, images by the names imageSource gives.
        RichText,
    };

    struct Options {
        Flavor flavor = Flavor::Browser;
        // The relative address of an attachment that is not shown as an image (empty: named, not linked).
        std::function<QString(const NBParagraph&)> attachmentAddress;
        // The source of an image attachment in the RichText flavour, and its width in pixels there (0: none,
        // the attachment is not shown as an image).
        std::function<QString(const NBParagraph&)> imageSource;
        std::function<int(const NBParagraph&)> imageWidth;
    };

    static QString htmlStringForContent(const NBDocumentContent& content, const Options& options);
    // Writes the page and the folder of attachment files beside it.
    static bool writeContentToFile(const NBDocumentContent& content, const QString& path,
                                   NBError* outError = nullptr);
    static bool writeDocumentToFile(const NBDocument& document, const QString& path,
                                    NBError* outError = nullptr);

    // True for the image files a browser and Qt both show (by the file's name).
    static bool isImageFileName(const QString& name);
    // The styled text with links whose addresses are not allowed (see above) turned into plain text.
    static NBStyledString styledStringWithSafeLinks(const NBStyledString& text);
    // The title block's metadata: label and text, in the order shown.
    static QList<QPair<QString, QString>> metadataForTitleBlock(const NBDocumentContent& content);
};
