// NBMarkdownReader: Markdown to document content through discount (see the header).
#include "interchange/NBMarkdownReader.h"

#include "document/NBDocument.h"
#include "document/NBExperiment.h"
#include "document/NBProtocol.h"
#include "foundation/NBLogging.h"
#include "interchange/NBFrontMatter.h"
#include "interchange/NBHTMLParagraphReader.h"
#include "interchange/NBMarkdownWriter.h"

#include <QFile>
#include <QFileInfo>
#include <QStringDecoder>
#include <QUuid>

#include <mutex>

extern "C" {
#include <mkdio.h>
}

namespace {

std::mutex& discountMutex() {
    static std::mutex mutex;
    return mutex;
}

NBError readerError(qint64 code, const QString& message) {
    qCWarning(lcInterchange).noquote() << message;
    return NBError::errorWithObject("NBMarkdownReader", code, message);
}

// Lines of the text, without their line breaks.
template <typename Visit> void forEachLine(QStringView text, Visit visit) {
    qsizetype start = 0;
    while (start <= text.size()) {
        const qsizetype newline = text.indexOf(u'\n', start);
        const qsizetype end = newline < 0 ? text.size() : newline;
        visit(text.mid(start, end - start), start);
        if (newline < 0)
            break;
        start = newline + 1;
    }
}

// The searching of one block (lines between blank lines) from `start` to `end`.
qint64 complexityOfBlock(QStringView text, qsizetype start, qsizetype end) {
    qint64 cost = 0;
    // Next positions of each closer, found walking backwards.
    qsizetype nextBracket = end, nextAngle = end, nextParenthesis = end;
    // For backtick runs: the start of the next run of each length seen so far (runs are short in real
    // text; longer ones are costed as unclosed).
    QHash<qsizetype, qsizetype> nextRunOfLength;
    qsizetype position = end;
    while (position > start) {
        --position;
        const QChar character = text[position];
        if (character == u'`') {
            qsizetype runStart = position;
            while (runStart > start && text[runStart - 1] == u'`')
                --runStart;
            const qsizetype length = position - runStart + 1;
            const auto found = nextRunOfLength.constFind(length);
            cost += found != nextRunOfLength.cend() ? *found - runStart : length * (end - runStart);
            nextRunOfLength.insert(length, runStart);
            position = runStart;
            continue;
        }
        switch (character.unicode()) {
        case u']':
            nextBracket = position;
            break;
        case u'>':
            nextAngle = position;
            break;
        case u')':
            nextParenthesis = position;
            break;
        case u'[':
            cost += nextBracket - position;
            break;
        case u'<':
            cost += nextAngle - position;
            break;
        case u'(':
            if (position > start && text[position - 1] == u']')
                cost += nextParenthesis - position;
            break;
        default:
            break;
        }
    }
    return cost;
}

bool isBlankLine(QStringView line) {
    return line.trimmed().isEmpty();
}

QStringList stringList(const QVariant& value) {
    QStringList result;
    if (value.metaType().id() == QMetaType::QVariantList) {
        for (const QVariant& item : value.toList())
            if (!item.toString().trimmed().isEmpty())
                result.append(item.toString().trimmed());
        return result;
    }
    for (const QString& item : value.toString().split(QLatin1Char(','), Qt::SkipEmptyParts))
        if (!item.trimmed().isEmpty())
            result.append(item.trimmed());
    return result;
}

// Pandoc's title block: up to three lines "% title", "% author(s)", "% date" at the very start.
QStringList pandocTitleBlock(QString& body) {
    QStringList values;
    qsizetype position = 0;
    while (values.size() < 3 && body.mid(position).startsWith(QLatin1String("% "))) {
        const qsizetype newline = body.indexOf(u'\n', position);
        const qsizetype end = newline < 0 ? body.size() : newline;
        values.append(body.mid(position + 2, end - position - 2).trimmed());
        position = newline < 0 ? body.size() : newline + 1;
    }
    body.remove(0, position);
    return values;
}

// discount joins quotes that only a blank line separates into one; other Markdown readers keep them apart,
// and so do we, with an empty comment between them (outside fenced code).
QString separatingAdjacentQuotes(const QString& body) {
    const QStringList lines = body.split(u'\n');
    QStringList out;
    bool inFence = false;
    QString fence;
    bool lastNonBlankWasQuote = false;
    bool blankSinceQuote = false;
    for (const QString& line : lines) {
        const QString trimmed = line.trimmed();
        const bool shallow = !line.startsWith(QLatin1String("    ")) && !line.startsWith(u'\t');
        if (inFence) {
            out.append(line);
            if (shallow && trimmed.startsWith(fence) && trimmed.count(fence.front()) == trimmed.size())
                inFence = false;
            continue;
        }
        if (shallow &&
            (trimmed.startsWith(QLatin1String("```")) || trimmed.startsWith(QLatin1String("~~~")))) {
            qsizetype length = 0;
            while (length < trimmed.size() && trimmed[length] == trimmed[0])
                ++length;
            fence = trimmed.left(length);
            inFence = true;
            lastNonBlankWasQuote = false;
            out.append(line);
            continue;
        }
        if (trimmed.isEmpty()) {
            blankSinceQuote = lastNonBlankWasQuote;
            out.append(line);
            continue;
        }
        const bool quote = shallow && trimmed.startsWith(u'>');
        if (quote && blankSinceQuote)
            out.append(QStringLiteral("<!-- -->\n"));
        lastNonBlankWasQuote = quote;
        blankSinceQuote = false;
        out.append(line);
    }
    return out.join(u'\n');
}

} // namespace

QString NBMarkdownReader::htmlFromMarkdown(const QString& markdown, bool quillonForm) {
    mkd_flag_t flags = MKD_NOPANTS | MKD_NOSUPERSCRIPT | MKD_NO_EXT | MKD_NOHEADER | MKD_NOALPHALIST |
                       MKD_NODLIST | MKD_NODLDISCOUNT | MKD_NODIVQUOTE | MKD_FENCEDCODE | MKD_EXPLICITLIST |
                       MKD_GITHUBTAGS;
    if (!quillonForm)
        flags |= MKD_AUTOLINK | MKD_EXTRA_FOOTNOTE;
    const QByteArray utf8 = markdown.toUtf8();
    std::lock_guard lock(discountMutex());
    MMIOT* document = mkd_string(utf8.constData(), int(utf8.size()), flags);
    if (!document)
        return QString();
    QString html;
    if (mkd_compile(document, flags)) {
        char* output = nullptr;
        const int length = mkd_document(document, &output);
        if (length > 0 && output)
            html = QString::fromUtf8(output, length);
    }
    mkd_cleanup(document);
    return html;
}

qint64 NBMarkdownReader::complexityOfMarkdown(QStringView markdown) {
    qint64 total = 0;
    qsizetype blockStart = -1;
    qsizetype blockEnd = 0;
    forEachLine(markdown, [&](QStringView line, qsizetype lineStart) {
        if (isBlankLine(line)) {
            if (blockStart >= 0)
                total += complexityOfBlock(markdown, blockStart, blockEnd);
            blockStart = -1;
            return;
        }
        if (blockStart < 0)
            blockStart = lineStart;
        blockEnd = lineStart + line.size();
    });
    if (blockStart >= 0)
        total += complexityOfBlock(markdown, blockStart, blockEnd);
    return total;
}

std::optional<QString> NBMarkdownReader::problemWithMarkdown(QStringView markdown) {
    std::optional<QString> problem;
    forEachLine(markdown, [&](QStringView line, qsizetype) {
        if (problem)
            return;
        int quotes = 0;
        int columns = 0;
        bool indentation = true;
        for (QChar character : line) {
            if (character == u'>') {
                ++quotes;
                indentation = false;
            } else if (character == u' ' || character == u'\t') {
                if (indentation)
                    columns += character == u'\t' ? 4 - columns % 4 : 1;
            } else {
                break;
            }
        }
        if (quotes > kMaximumQuoteDepth)
            problem = nbFormat("it nests quotes more than %@ deep", QString::number(kMaximumQuoteDepth));
        else if (columns > kMaximumIndentation)
            problem = nbFormat("it indents lines more than %@ columns", QString::number(kMaximumIndentation));
    });
    if (problem)
        return problem;
    if (complexityOfMarkdown(markdown) > kMaximumComplexity)
        return QStringLiteral("it has very long paragraphs full of unclosed brackets or backticks");
    return std::nullopt;
}

std::optional<NBDocumentContent> NBMarkdownReader::contentFromMarkdownFile(const QString& path,
                                                                           NBError* outError) {
    QFile file(path);
    const QFileInfo info(path);
    if (!info.isFile() || !file.open(QIODevice::ReadOnly)) {
        nbFail(outError, readerError(kNBMarkdownReaderErrorUnreadable,
                                     nbFormat("Could not read the Markdown file %@", path)));
        return std::nullopt;
    }
    if (file.size() > kMaximumFileSize) {
        nbFail(outError, readerError(kNBMarkdownReaderErrorTooLarge,
                                     nbFormat("The Markdown file %@ is too large to import (more than %@ MB)",
                                              path, QString::number(kMaximumFileSize / (1024 * 1024)))));
        return std::nullopt;
    }
    const QByteArray bytes = file.read(kMaximumFileSize + 1);
    QString text;
    if (bytes.startsWith("\xFF\xFE") || bytes.startsWith("\xFE\xFF")) {
        auto decoder =
            QStringDecoder(bytes.startsWith("\xFF\xFE") ? QStringDecoder::Utf16LE : QStringDecoder::Utf16BE);
        text = decoder.decode(bytes.mid(2));
    } else {
        if (bytes.contains('\0')) {
            nbFail(outError, readerError(kNBMarkdownReaderErrorNotText,
                                         nbFormat("The file %@ is not a Markdown text file", path)));
            return std::nullopt;
        }
        text = QString::fromUtf8(bytes);
    }
    return contentFromMarkdownString(text, info.absolutePath(), path, outError);
}

std::optional<NBDocumentContent> NBMarkdownReader::contentFromMarkdownString(const QString& markdown,
                                                                             const QString& attachmentFolder,
                                                                             const QString& sourceName,
                                                                             NBError* outError) {
    QString text = markdown;
    text.replace(QLatin1String("\r\n"), QLatin1String("\n"));
    text.replace(u'\r', u'\n');
    text.replace(QChar(0), QChar(0xFFFD));
    if (const std::optional<QString> problem = problemWithMarkdown(text)) {
        nbFail(outError,
               readerError(kNBMarkdownReaderErrorTooComplex,
                           nbFormat("The Markdown file %@ cannot be imported: %@", sourceName, *problem)));
        return std::nullopt;
    }
    const NBFrontMatter frontMatter = NBFrontMatter::frontMatterFromMarkdown(text);
    const bool quillonForm = frontMatter.contains(QString::fromUtf8(kNBMarkdownFormKey));
    QString body = text.mid(frontMatter.bodyStart);
    const QStringList pandocBlock = quillonForm ? QStringList() : pandocTitleBlock(body);

    NBHTMLReadOptions options;
    options.quillonForm = quillonForm;
    options.attachmentFolder = attachmentFolder;
    options.titleKnown = frontMatter.contains(QStringLiteral("title")) || !pandocBlock.value(0).isEmpty();
    const NBHTMLReadResult read = NBHTMLParagraphReader::paragraphsFromHTML(
        htmlFromMarkdown(separatingAdjacentQuotes(body), quillonForm), options);
    if (!read.missingFiles.isEmpty()) {
        nbFail(outError,
               readerError(kNBMarkdownReaderErrorMissingAttachment,
                           nbFormat("The Markdown file %@ links the attachment '%@', which is missing "
                                    "or lies outside the file's folder",
                                    sourceName, read.missingFiles.first())));
        return std::nullopt;
    }

    NBDocumentContent content;
    content.paragraphs = read.paragraphs;
    content.attachmentFiles = read.attachmentFiles;
    const QString titleKey = QString::fromUtf8(kNBDocumentTitleKey);
    const QString authorKey = QString::fromUtf8(kNBDocumentAuthorKey);
    if (quillonForm) {
        if (const auto kind =
                nbDocumentKindWithName(frontMatter.value(QString::fromUtf8(kNBMarkdownKindKey)).toString())) {
            content.kind = *kind;
            content.kindIsKnown = true;
        }
        for (const auto& [key, value] : frontMatter.entries) {
            if (key == QLatin1String(kNBMarkdownFormKey) || key == QLatin1String(kNBMarkdownKindKey) ||
                key == QLatin1String(kNBMarkdownDoneParagraphsKey) ||
                key == QLatin1String(kNBMarkdownVignetteParagraphKey))
                continue;
            content.metadata.insert(key, value);
        }
        const auto paragraphUUIDAt = [&](const QVariant& number) -> QString {
            bool valid = false;
            const qint64 index = number.toLongLong(&valid) - 1;
            return valid && index >= 0 && index < content.paragraphs.size() ? content.paragraphs[index].uuid()
                                                                            : QString();
        };
        if (frontMatter.contains(QString::fromUtf8(kNBMarkdownDoneParagraphsKey))) {
            QVariantList done;
            for (const QVariant& number :
                 frontMatter.value(QString::fromUtf8(kNBMarkdownDoneParagraphsKey)).toList())
                if (const QString uuid = paragraphUUIDAt(number); !uuid.isEmpty())
                    done.append(uuid);
            content.metadata.insert(QString::fromUtf8(kNBExperimentDoneParagraphUUIDsKey), done);
        }
        if (frontMatter.contains(QString::fromUtf8(kNBMarkdownVignetteParagraphKey))) {
            const QString uuid =
                paragraphUUIDAt(frontMatter.value(QString::fromUtf8(kNBMarkdownVignetteParagraphKey)));
            if (!uuid.isEmpty())
                content.metadata.insert(QString::fromUtf8(kNBExperimentVignetteUUIDKey), uuid);
        }
        const QString uuidKey = QString::fromUtf8(kNBDocumentUUIDKey);
        const QUuid uuid = QUuid::fromString(content.metadata.value(uuidKey).toString());
        if (uuid.isNull())
            content.metadata.remove(uuidKey);
        else
            content.metadata.insert(uuidKey, uuid.toString(QUuid::WithoutBraces).toUpper());
    } else {
        for (const auto& [key, value] : frontMatter.entries) {
            const QString lower = key.toLower();
            if (lower == QLatin1String("title") || lower == QLatin1String("author"))
                content.metadata.insert(lower, stringList(value).join(QLatin1String(", ")));
            else if (lower == QLatin1String("tags") || lower == QLatin1String("keywords") ||
                     lower == QLatin1String("categories"))
                content.metadata.insert(QString::fromUtf8(kNBProtocolCategoriesKey),
                                        QVariant(stringList(value)).toList());
            else if (lower == QLatin1String("summary") || lower == QLatin1String("description") ||
                     lower == QLatin1String("abstract")) {
                content.metadata.insert(QString::fromUtf8(kNBProtocolSummaryKey), value.toString());
                content.metadata.insert(QString::fromUtf8(kNBExperimentAimKey), value.toString());
            }
        }
        if (!content.metadata.contains(titleKey) && !pandocBlock.isEmpty() && !pandocBlock[0].isEmpty())
            content.metadata.insert(titleKey, pandocBlock[0]);
        if (!content.metadata.contains(authorKey) && pandocBlock.size() > 1 && !pandocBlock[1].isEmpty())
            content.metadata.insert(authorKey, pandocBlock[1]);
    }
    if (content.title().isEmpty() && !read.title.isEmpty())
        content.metadata.insert(titleKey, read.title);
    if (!content.metadata.contains(titleKey))
        content.metadata.insert(titleKey, QFileInfo(sourceName).completeBaseName());
    return content;
}
