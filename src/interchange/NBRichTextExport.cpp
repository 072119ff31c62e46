// NBRichTextExport: PDF and OpenDocument text through QTextDocument (see the header).
#include "interchange/NBRichTextExport.h"

#include "foundation/NBLogging.h"
#include "interchange/NBHTMLWriter.h"

#include <QAbstractTextDocumentLayout>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QImage>
#include <QImageReader>
#include <QPainter>
#include <QPdfWriter>
#include <QSet>
#include <QTextDocument>
#include <QTextDocumentWriter>
#include <QUuid>

#include <cstdio>

namespace {

// The text is laid out in pixels of a 96-pixels-to-the-inch page and scaled onto the PDF's resolution.
constexpr qreal kLayoutResolution = 96;
constexpr int kPDFResolution = 300;
constexpr qreal kMarginMillimeters = 16;
constexpr qreal kFooterHeight = 28; // layout pixels reserved at the foot of each page

NBError exportError(const QString& message) {
    qCWarning(lcInterchange).noquote() << message;
    return NBError::errorWithObject("NBRichTextExport", kNBRichTextExportErrorWrite, message);
}

QString temporaryPathBeside(const QString& path) {
    const QFileInfo info(path);
    return info.absoluteDir().filePath(QStringLiteral(".") + info.fileName() + QStringLiteral(".") +
                                       QUuid::createUuid().toString(QUuid::WithoutBraces) + ".part");
}

bool moveIntoPlace(const QString& temporaryPath, const QString& path) {
    if (std::rename(QFile::encodeName(temporaryPath).constData(), QFile::encodeName(path).constData()) == 0)
        return true;
    QFile::remove(temporaryPath);
    return false;
}

} // namespace

QPageSize::PageSizeId NBRichTextExport::paperSizeForLocale() {
    QByteArray locale;
    for (const char* variable : {"LC_ALL", "LC_PAPER", "LANG"}) {
        locale = qgetenv(variable);
        if (!locale.isEmpty())
            break;
    }
    // "en_US.UTF-8", "es_MX@euro": the territory is the two letters after the underscore.
    const qsizetype underscore = locale.indexOf('_');
    const QByteArray territory = underscore >= 0 ? locale.mid(underscore + 1, 2).toUpper() : QByteArray();
    static const QSet<QByteArray> letterTerritories = {"US", "CA", "MX", "PH", "CL", "CO", "VE", "GT",
                                                       "CR", "PR", "PA", "SV", "DO", "NI", "BZ"};
    return letterTerritories.contains(territory) ? QPageSize::Letter : QPageSize::A4;
}

std::unique_ptr<QTextDocument> NBRichTextExport::textDocumentForContent(const NBDocumentContent& content,
                                                                        qreal textWidth,
                                                                        qreal maximumImageHeight) {
    auto document = std::make_unique<QTextDocument>();
    document->setDocumentMargin(0);
    QFont font = document->defaultFont();
    font.setPointSizeF(10.5);
    document->setDefaultFont(font);
    QHash<QString, int> widths;
    for (const NBParagraph& paragraph : content.paragraphs) {
        if (!paragraph.isAttachmentType() || !content.attachmentFiles.contains(paragraph.uuid()))
            continue;
        const QString file = content.attachmentFiles.value(paragraph.uuid());
        if (!NBHTMLWriter::isImageFileName(QFileInfo(paragraph.sourcePath()).fileName()) &&
            !NBHTMLWriter::isImageFileName(file))
            continue;
        QImageReader reader(file);
        reader.setAutoTransform(true);
        const QImage image = reader.read();
        if (image.isNull())
            continue;
        qreal width = std::min<qreal>(image.width(), textWidth);
        if (maximumImageHeight > 0 && image.height() > 0)
            width = std::min(width, image.width() * maximumImageHeight / image.height());
        document->addResource(QTextDocument::ImageResource,
                              QUrl(QStringLiteral("quillon-image:") + paragraph.uuid()), image);
        widths.insert(paragraph.uuid(), std::max(1, int(width)));
    }
    NBHTMLWriter::Options options;
    options.flavor = NBHTMLWriter::Flavor::RichText;
    options.imageSource = [](const NBParagraph& paragraph) {
        return QStringLiteral("quillon-image:") + paragraph.uuid();
    };
    options.imageWidth = [&](const NBParagraph& paragraph) { return widths.value(paragraph.uuid()); };
    document->setHtml(NBHTMLWriter::htmlStringForContent(content, options));
    document->setTextWidth(textWidth);
    return document;
}

bool NBRichTextExport::writePDF(const NBDocumentContent& content, const QString& path, NBError* outError) {
    return writePDF(content, path, paperSizeForLocale(), outError);
}

bool NBRichTextExport::writePDF(const NBDocumentContent& content, const QString& path,
                                QPageSize::PageSizeId paperSize, NBError* outError) {
    const QString temporaryPath = temporaryPathBeside(path);
    const QString title = content.title().isEmpty() ? QStringLiteral("Untitled") : content.title();
    int pageCount = 0;
    {
        QPdfWriter writer(temporaryPath);
        writer.setResolution(kPDFResolution);
        writer.setPageSize(QPageSize(paperSize));
        writer.setPageMargins(
            QMarginsF(kMarginMillimeters, kMarginMillimeters, kMarginMillimeters, kMarginMillimeters),
            QPageLayout::Millimeter);
        writer.setTitle(title);
        writer.setCreator(QStringLiteral("Quillon"));
        const QRectF paintRect = writer.pageLayout().paintRectPixels(kPDFResolution);
        const qreal scale = kPDFResolution / kLayoutResolution;
        const QSizeF page(paintRect.width() / scale, paintRect.height() / scale - kFooterHeight);
        std::unique_ptr<QTextDocument> document =
            textDocumentForContent(content, page.width(), page.height() * 0.9);
        document->setPageSize(page);
        pageCount = document->pageCount();
        QPainter painter;
        if (!painter.begin(&writer)) {
            QFile::remove(temporaryPath);
            return nbFail(outError, exportError(nbFormat("Could not write the PDF file %@", path)));
        }
        // The footer is drawn in layout pixels, like the text, so its size is given in them.
        QFont footerFont = document->defaultFont();
        footerFont.setPixelSize(11);
        for (int index = 0; index < pageCount; ++index) {
            if (index > 0)
                writer.newPage();
            painter.save();
            painter.scale(scale, scale);
            painter.setClipRect(QRectF(0, 0, page.width(), page.height()));
            painter.translate(0, -index * page.height());
            QAbstractTextDocumentLayout::PaintContext context;
            context.clip = QRectF(0, index * page.height(), page.width(), page.height());
            document->documentLayout()->draw(&painter, context);
            painter.restore();
            painter.save();
            painter.scale(scale, scale);
            painter.setFont(footerFont);
            painter.setPen(QColor(0x6e, 0x6e, 0x73));
            const QRectF footer(0, page.height() + 8, page.width(), kFooterHeight - 8);
            painter.drawText(
                footer, Qt::AlignLeft | Qt::AlignVCenter,
                painter.fontMetrics().elidedText(title, Qt::ElideRight, int(page.width() * 0.7)));
            painter.drawText(footer, Qt::AlignRight | Qt::AlignVCenter,
                             QStringLiteral("Page %1 of %2").arg(index + 1).arg(pageCount));
            painter.restore();
        }
        painter.end();
    }
    if (pageCount == 0 || !moveIntoPlace(temporaryPath, path)) {
        QFile::remove(temporaryPath);
        return nbFail(outError, exportError(nbFormat("Could not write the PDF file %@", path)));
    }
    return true;
}

bool NBRichTextExport::writeOpenDocument(const NBDocumentContent& content, const QString& path,
                                         NBError* outError) {
    const QString temporaryPath = temporaryPathBeside(path);
    std::unique_ptr<QTextDocument> document = textDocumentForContent(content, 650);
    document->setMetaInformation(QTextDocument::DocumentTitle, content.title());
    QTextDocumentWriter writer(temporaryPath, "odf");
    if (!writer.write(document.get()) || !moveIntoPlace(temporaryPath, path)) {
        QFile::remove(temporaryPath);
        return nbFail(outError, exportError(nbFormat("Could not write the OpenDocument file %@", path)));
    }
    return true;
}
