// NBHTMLWriter: documents as HTML pages (the layout is described in the header).
#include "interchange/NBHTMLWriter.h"

#include "document/NBDocument.h"
#include "document/NBExperiment.h"
#include "document/NBProtocol.h"
#include "document/NBSpreadsheetData.h"
#include "foundation/NBLogging.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QSaveFile>
#include <QSet>
#include <QUrl>

namespace {

QString escaped(const QString& text) {
    QString out;
    out.reserve(text.size());
    for (QChar character : text) {
        switch (character.unicode()) {
        case u'&':
            out += QLatin1String("&amp;");
            break;
        case u'<':
            out += QLatin1String("&lt;");
            break;
        case u'>':
            out += QLatin1String("&gt;");
            break;
        case u'"':
            out += QLatin1String("&quot;");
            break;
        case u'\'':
            out += QLatin1String("&#39;");
            break;
        case u'\n':
            out += QLatin1String("<br>");
            break;
        default:
            if (character.unicode() < 0x20 && character != u'\t')
                out += QStringLiteral("&#%1;").arg(int(character.unicode()));
            else
                out += character;
        }
    }
    return out;
}

bool isSafeAddress(const QString& address) {
    static const QRegularExpression scheme(QStringLiteral("^([A-Za-z][A-Za-z0-9+.\\-]*):"));
    const QString trimmed = address.trimmed();
    for (QChar character : trimmed)
        if (character.unicode() < 0x20)
            return false;
    const QRegularExpressionMatch match = scheme.match(trimmed);
    if (!match.hasMatch())
        return true;
    const QString name = match.captured(1).toLower();
    return name == QLatin1String("http") || name == QLatin1String("https") ||
           name == QLatin1String("mailto") || name == QLatin1String("ftp");
}

QString styledHTML(const NBStyledString& text) {
    return NBHTMLWriter::styledStringWithSafeLinks(text).htmlFragmentString();
}

QString mimeTypeForImage(const QString& name) {
    const QString suffix = QFileInfo(name).suffix().toLower();
    if (suffix == QLatin1String("jpg") || suffix == QLatin1String("jpeg"))
        return QStringLiteral("image/jpeg");
    if (suffix == QLatin1String("svg"))
        return QStringLiteral("image/svg+xml");
    if (suffix == QLatin1String("tif") || suffix == QLatin1String("tiff"))
        return QStringLiteral("image/tiff");
    return QStringLiteral("image/") + suffix;
}

QString dayHeading(const NBDay& day) {
    if (day.isCalendarDay())
        return day.weekdayString() + QStringLiteral(", ") + day.longString();
    return day.longString();
}

const char* kBrowserStyleSheet = R"(
body { font-family: "Source Sans 3", "Noto Sans", "Helvetica Neue", Arial, sans-serif; font-size: 11pt;
       line-height: 1.45; color: #1d1d1f; max-width: 46em; margin: 2em auto; padding: 0 1.2em; }
header.title-block { border-bottom: 2px solid #3a3a3c; margin-bottom: 1.6em; padding-bottom: .6em; }
header.title-block h1 { font-size: 1.9em; margin: 0 0 .4em 0; }
dl.metadata { display: grid; grid-template-columns: max-content 1fr; gap: .15em 1em; margin: 0; font-size: .92em; }
dl.metadata dt { color: #6e6e73; }
dl.metadata dd { margin: 0; }
h2.day { font-size: 1.35em; border-bottom: 1px solid #c7c7cc; padding-bottom: .15em; margin: 1.6em 0 .6em 0; }
h3.step { font-size: 1.12em; margin: 1.2em 0 .4em 0; }
h3.step .step-number { color: #6e6e73; font-weight: normal; }
h4.section { font-size: 1em; margin: 1em 0 .3em 0; }
p { margin: .45em 0; }
p.item { margin: .2em 0; }
p.item .marker { display: inline-block; min-width: 1.6em; color: #3a3a3c; }
div.callout { border-left: 4px solid; border-radius: 3px; padding: .45em .8em; margin: .8em 0; }
div.callout .label { font-weight: 600; margin-right: .4em; }
div.note { border-color: #2f6fba; background: #eef4fb; }
div.warning { border-color: #c98a00; background: #fff6dc; }
div.error { border-color: #c0392b; background: #fdecea; }
pre.code { font-family: "Source Code Pro", Menlo, Consolas, "DejaVu Sans Mono", monospace; font-size: .9em;
           background: #f4f4f6; border-radius: 3px; padding: .6em .8em; white-space: pre-wrap; }
table.grid { border-collapse: collapse; margin: .8em 0; }
table.grid td { border: 1px solid #a1a1a6; padding: .25em .55em; vertical-align: top; }
figure.attachment { margin: 1em 0; }
figure.attachment img { max-width: 100%; height: auto; }
figure.attachment figcaption { font-size: .9em; color: #6e6e73; }
p.attachment a { text-decoration: none; }
@media print {
  body { margin: 0; max-width: none; padding: 0; font-size: 10pt; }
  h2, h3, h4 { break-after: avoid; page-break-after: avoid; }
  div.callout, table.grid, figure.attachment, pre.code { break-inside: avoid; page-break-inside: avoid; }
  a { color: inherit; }
}
@page { margin: 18mm 16mm; }
)";

class PageWriter {
public:
    PageWriter(const NBDocumentContent& content, const NBHTMLWriter::Options& options)
        : content_(content), options_(options), richText_(options.flavor == NBHTMLWriter::Flavor::RichText) {}

    QString run() {
        QString out;
        const QString title = content_.title().isEmpty() ? QStringLiteral("Untitled") : content_.title();
        if (!richText_) {
            out += QStringLiteral(
                       "<!DOCTYPE html>\n<html>\n<head>\n<meta charset=\"utf-8\">\n"
                       "<meta name=\"generator\" content=\"Quillon\">\n"
                       "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n<title>") +
                   escaped(title) + QStringLiteral("</title>\n<style>") +
                   QString::fromUtf8(kBrowserStyleSheet) + QStringLiteral("</style>\n</head>\n<body>\n");
        } else {
            out += QStringLiteral("<html><head><title>") + escaped(title) +
                   QStringLiteral("</title></head><body>");
        }
        titleBlock(out, title);
        QList<NBParagraph> paragraphs = content_.paragraphs;
        NBParagraph::updateNumberedListCountersForParagraphs(paragraphs);
        int stepNumber = 0;
        out += richText_ ? QString() : QStringLiteral("<main>\n");
        for (const NBParagraph& paragraph : std::as_const(paragraphs)) {
            if (paragraph.isDayType())
                stepNumber = 0;
            if (paragraph.isStepType())
                ++stepNumber;
            writeParagraph(out, paragraph, stepNumber);
        }
        out += richText_ ? QStringLiteral("</body></html>") : QStringLiteral("</main>\n</body>\n</html>\n");
        return out;
    }

private:
    void titleBlock(QString& out, const QString& title) {
        const QList<QPair<QString, QString>> metadata = NBHTMLWriter::metadataForTitleBlock(content_);
        if (richText_) {
            out += QStringLiteral("<h1 style=\"font-size:20pt; margin-bottom:6px\">") + escaped(title) +
                   QStringLiteral("</h1>");
            if (!metadata.isEmpty()) {
                out += QStringLiteral(
                    "<table cellspacing=\"0\" cellpadding=\"2\" style=\"margin-bottom:14px\">");
                for (const auto& [label, value] : metadata)
                    out += QStringLiteral("<tr><td style=\"color:#6e6e73; padding-right:12px\">") +
                           escaped(label) + QStringLiteral("</td><td>") + escaped(value) +
                           QStringLiteral("</td></tr>");
                out += QStringLiteral("</table>");
            }
            out += QStringLiteral("<hr>");
            return;
        }
        out += QStringLiteral("<header class=\"title-block\">\n<h1>") + escaped(title) +
               QStringLiteral("</h1>\n");
        if (!metadata.isEmpty()) {
            out += QStringLiteral("<dl class=\"metadata\">\n");
            for (const auto& [label, value] : metadata)
                out += QStringLiteral("<dt>") + escaped(label) + QStringLiteral("</dt><dd>") +
                       escaped(value) + QStringLiteral("</dd>\n");
            out += QStringLiteral("</dl>\n");
        }
        out += QStringLiteral("</header>\n");
    }

    void writeParagraph(QString& out, const NBParagraph& paragraph, int stepNumber) {
        const NBStyledString text = paragraph.styledContent();
        switch (paragraph.kind()) {
        case NBParagraphKind::Day:
            out += richText_ ? QStringLiteral("<h2 style=\"font-size:15pt; margin-top:18px\">")
                             : QStringLiteral("<h2 class=\"day\">");
            out += escaped(dayHeading(paragraph.day())) + QStringLiteral("</h2>\n");
            break;
        case NBParagraphKind::Step:
            out += richText_ ? QStringLiteral("<h3 style=\"font-size:12.5pt; margin-top:12px\">")
                             : QStringLiteral("<h3 class=\"step\">");
            out += (richText_ ? QStringLiteral("<span style=\"color:#6e6e73; font-weight:normal\">")
                              : QStringLiteral("<span class=\"step-number\">")) +
                   QStringLiteral("Step %1 — </span>").arg(stepNumber) + styledHTML(text) +
                   QStringLiteral("</h3>\n");
            break;
        case NBParagraphKind::Section:
            out += (richText_ ? QStringLiteral("<h4 style=\"font-size:11pt\">")
                              : QStringLiteral("<h4 class=\"section\">")) +
                   styledHTML(text) + QStringLiteral("</h4>\n");
            break;
        case NBParagraphKind::Bullet:
        case NBParagraphKind::Number: {
            const qint64 level = paragraph.indentationLevel().value_or(0);
            const QString marker =
                paragraph.isNumberType()
                    ? QString::number(paragraph.listItemIndex().value_or(0) + 1) + QLatin1Char('.')
                    : QString(level % 2 ? QChar(0x25E6) : QChar(0x2022));
            if (richText_) {
                // A hanging indent: the marker sits in the margin, wrapped lines line up with the text.
                out += QStringLiteral("<p style=\"margin-top:2px; margin-bottom:2px; margin-left:%1px; "
                                      "text-indent:-20px\">")
                           .arg(40 + 22 * level) +
                       escaped(marker) + QStringLiteral("&nbsp;&nbsp;") + styledHTML(text) +
                       QStringLiteral("</p>\n");
            } else {
                out +=
                    QStringLiteral("<p class=\"item %1\" style=\"margin-left:%2em\"><span class=\"marker\">")
                        .arg(paragraph.isNumberType() ? "number" : "bullet")
                        .arg(1.6 * double(level + 1), 0, 'f', 1) +
                    escaped(marker) + QStringLiteral("</span>") + styledHTML(text) + QStringLiteral("</p>\n");
            }
            break;
        }
        case NBParagraphKind::Note:
        case NBParagraphKind::Warning:
        case NBParagraphKind::Error:
            callout(out, paragraph, text);
            break;
        case NBParagraphKind::Code:
            if (richText_)
                out += QStringLiteral("<pre style=\"background-color:#f4f4f6; font-family:monospace\">") +
                       styledHTML(text) + QStringLiteral("</pre>\n");
            else
                out += QStringLiteral("<pre class=\"code\"><code>") + styledHTML(text) +
                       QStringLiteral("</code></pre>\n");
            break;
        case NBParagraphKind::Table:
            table(out, paragraph);
            break;
        case NBParagraphKind::Attachment:
            attachment(out, paragraph, text);
            break;
        default:
            out += QStringLiteral("<p>") + styledHTML(text) + QStringLiteral("</p>\n");
        }
    }

    void callout(QString& out, const NBParagraph& paragraph, const NBStyledString& text) {
        const QString kind = paragraph.isNoteType()      ? QStringLiteral("note")
                             : paragraph.isWarningType() ? QStringLiteral("warning")
                                                         : QStringLiteral("error");
        const QString label = paragraph.isNoteType()      ? QStringLiteral("Note")
                              : paragraph.isWarningType() ? QStringLiteral("Warning")
                                                          : QStringLiteral("Error");
        if (richText_) {
            const QString background = paragraph.isNoteType()      ? QStringLiteral("#eef4fb")
                                       : paragraph.isWarningType() ? QStringLiteral("#fff6dc")
                                                                   : QStringLiteral("#fdecea");
            const QString color = paragraph.isNoteType()      ? QStringLiteral("#2f6fba")
                                  : paragraph.isWarningType() ? QStringLiteral("#9a6a00")
                                                              : QStringLiteral("#c0392b");
            out += QStringLiteral(
                       "<table width=\"100%\" cellspacing=\"0\" cellpadding=\"6\" style=\"margin-top:6px; "
                       "margin-bottom:6px\"><tr><td style=\"background-color:") +
                   background + QStringLiteral("\"><b style=\"color:") + color + QStringLiteral("\">") +
                   label + QStringLiteral("</b>&nbsp;&nbsp;") + styledHTML(text) +
                   QStringLiteral("</td></tr></table>\n");
            return;
        }
        out += QStringLiteral("<div class=\"callout ") + kind + QStringLiteral("\"><span class=\"label\">") +
               label + QStringLiteral("</span>") + styledHTML(text) + QStringLiteral("</div>\n");
    }

    void table(QString& out, const NBParagraph& paragraph) {
        const std::optional<NBSpreadsheetData> data =
            NBSpreadsheetData::spreadsheetDataWithTableParagraph(paragraph);
        if (!data)
            return;
        out += richText_
                   ? QStringLiteral("<table border=\"1\" cellspacing=\"0\" cellpadding=\"4\" "
                                    "style=\"border-collapse:collapse; border-color:#a1a1a6; margin-top:6px; "
                                    "margin-bottom:6px\">")
                   : QStringLiteral("<table class=\"grid\">");
        for (qsizetype row = 0; row < data->rowCount(); ++row) {
            out += QStringLiteral("<tr>");
            for (qsizetype column = 0; column < data->columnCount(); ++column)
                out += QStringLiteral("<td>") +
                       styledHTML(NBStyledString::styledStringFromMarkupString(
                           data->markupStringAtRow(row, column))) +
                       QStringLiteral("</td>");
            out += QStringLiteral("</tr>\n");
        }
        out += QStringLiteral("</table>\n");
    }

    void attachment(QString& out, const NBParagraph& paragraph, const NBStyledString& text) {
        const QString file = content_.attachmentFiles.value(paragraph.uuid());
        const QString name = QFileInfo(paragraph.sourcePath()).fileName();
        const QString caption = text.string().trimmed().isEmpty() ? name : text.string();
        if (richText_) {
            const QString source = options_.imageSource ? options_.imageSource(paragraph) : QString();
            const int width = options_.imageWidth ? options_.imageWidth(paragraph) : 0;
            if (!source.isEmpty() && width > 0) {
                out += QStringLiteral("<p><img src=\"") + escaped(source) +
                       QStringLiteral("\" width=\"%1\"></p>").arg(width) +
                       QStringLiteral("<p style=\"color:#6e6e73; font-size:9pt\">") + escaped(caption) +
                       QStringLiteral("</p>\n");
            } else {
                out += QStringLiteral("<p><b>Attachment:</b> ") + escaped(caption) +
                       (name != caption && !name.isEmpty()
                            ? QStringLiteral(" (") + escaped(name) + QStringLiteral(")")
                            : QString()) +
                       QStringLiteral("</p>\n");
            }
            return;
        }
        if (!file.isEmpty() && NBHTMLWriter::isImageFileName(name) &&
            QFileInfo(file).size() <= NBHTMLWriter::kMaximumEmbeddedImageSize) {
            QFile image(file);
            if (image.open(QIODevice::ReadOnly)) {
                out += QStringLiteral("<figure class=\"attachment\"><img src=\"data:") +
                       mimeTypeForImage(name) + QStringLiteral(";base64,") +
                       QString::fromLatin1(image.readAll().toBase64()) + QStringLiteral("\" alt=\"") +
                       escaped(caption) + QStringLiteral("\"><figcaption>") + escaped(caption) +
                       QStringLiteral("</figcaption></figure>\n");
                return;
            }
        }
        const QString address =
            options_.attachmentAddress ? options_.attachmentAddress(paragraph) : QString();
        out += QStringLiteral("<p class=\"attachment\">Attachment: ");
        if (address.isEmpty())
            out += escaped(caption);
        else
            out += QStringLiteral("<a href=\"") + escaped(address) + QStringLiteral("\">") +
                   escaped(caption) + QStringLiteral("</a>");
        out += QStringLiteral("</p>\n");
    }

    const NBDocumentContent& content_;
    const NBHTMLWriter::Options& options_;
    bool richText_;
};

QString metadataText(const QVariant& value) {
    if (value.metaType().id() == QMetaType::QVariantList || value.metaType().id() == QMetaType::QStringList) {
        QStringList items;
        for (const QVariant& item : value.toList())
            items.append(item.toString());
        return items.join(QLatin1String(", "));
    }
    if (value.metaType().id() == QMetaType::Bool)
        return value.toBool() ? QStringLiteral("yes") : QStringLiteral("no");
    return value.toString();
}

} // namespace

NBStyledString NBHTMLWriter::styledStringWithSafeLinks(const NBStyledString& text) {
    NBMutableStyledString copy(text);
    for (const NBStyledString::Run& run : text.runs()) {
        const NBStyle link = run.styles.styleOfKind(NBStyle::Kind::Hyperlink);
        if (link.isNull())
            continue;
        const QString address =
            link.hyperlinkURL().isEmpty() ? text.string().mid(run.location, run.length) : link.hyperlinkURL();
        if (!isSafeAddress(address))
            copy.removeStyle(link, NBTextRange{run.location, run.length});
    }
    return copy;
}

bool NBHTMLWriter::isImageFileName(const QString& name) {
    static const QSet<QString> suffixes = {"png", "jpg", "jpeg", "gif", "bmp", "webp", "svg"};
    return suffixes.contains(QFileInfo(name).suffix().toLower());
}

QList<QPair<QString, QString>> NBHTMLWriter::metadataForTitleBlock(const NBDocumentContent& content) {
    QList<QPair<QString, QString>> rows;
    rows.append({QStringLiteral("Kind"), content.kind == NBDocumentKind::Protocol
                                             ? QStringLiteral("Protocol")
                                             : QStringLiteral("Experiment")});
    const QList<QPair<const char*, const char*>> shown = {
        {kNBDocumentAuthorKey, "Author"},          {kNBProtocolSummaryKey, "Summary"},
        {kNBProtocolCategoriesKey, "Categories"},  {kNBExperimentAimKey, "Aim"},
        {kNBExperimentProjectTitleKey, "Project"}, {kNBExperimentConclusionKey, "Conclusion"},
        {kNBExperimentRatingKey, "Rating"},        {kNBExperimentDoneKey, "Done"},
    };
    for (const auto& [key, label] : shown) {
        const QString text = metadataText(content.metadata.value(QString::fromUtf8(key))).trimmed();
        if (!text.isEmpty())
            rows.append({QString::fromUtf8(label), text});
    }
    return rows;
}

QString NBHTMLWriter::htmlStringForContent(const NBDocumentContent& content, const Options& options) {
    return PageWriter(content, options).run();
}

bool NBHTMLWriter::writeContentToFile(const NBDocumentContent& content, const QString& path,
                                      NBError* outError) {
    const auto fail = [&](const QString& message) {
        qCWarning(lcInterchange).noquote() << message;
        return nbFail(outError, NBError::errorWithObject("NBHTMLWriter", kNBHTMLWriterErrorWrite, message));
    };
    const QFileInfo info(path);
    const QString folderName = info.completeBaseName() + QStringLiteral("_files");
    const QDir folder(info.absoluteDir().filePath(folderName));
    QHash<QString, QString> addresses;
    QSet<QString> usedNames;
    for (const NBParagraph& paragraph : content.paragraphs) {
        if (!paragraph.isAttachmentType() || !content.attachmentFiles.contains(paragraph.uuid()))
            continue;
        const QString source = content.attachmentFiles.value(paragraph.uuid());
        const QString name = QFileInfo(paragraph.sourcePath()).fileName();
        if (isImageFileName(name) && QFileInfo(source).size() <= kMaximumEmbeddedImageSize)
            continue;
        const QString fileName =
            nbUniqueFileName(usedNames, name.isEmpty() ? QFileInfo(source).fileName() : name);
        if (!QDir().mkpath(folder.path()))
            return fail(nbFormat("Could not create the attachment folder %@", folder.path()));
        QFile::remove(folder.filePath(fileName));
        if (!QFile::copy(source, folder.filePath(fileName)))
            return fail(
                nbFormat("Could not copy the attachment '%@' to %@", source, folder.filePath(fileName)));
        addresses.insert(paragraph.uuid(), QString::fromUtf8(QUrl::toPercentEncoding(
                                               folderName + QLatin1Char('/') + fileName, "/")));
    }
    Options options;
    options.attachmentAddress = [&](const NBParagraph& paragraph) {
        return addresses.value(paragraph.uuid());
    };
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(htmlStringForContent(content, options).toUtf8()) < 0 ||
        !file.commit())
        return fail(nbFormat("Could not write the HTML file %@", path));
    return true;
}

bool NBHTMLWriter::writeDocumentToFile(const NBDocument& document, const QString& path, NBError* outError) {
    return writeContentToFile(NBDocumentContent::contentOfDocument(document), path, outError);
}
