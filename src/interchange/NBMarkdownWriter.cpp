// NBMarkdownWriter: the Quillon Markdown form (described in the header) written from document content.
#include "interchange/NBMarkdownWriter.h"

#include "document/NBDocument.h"
#include "document/NBExperiment.h"
#include "document/NBSpreadsheetData.h"
#include "foundation/NBLogging.h"
#include "interchange/NBFrontMatter.h"
#include "interchange/NBHTMLParagraphReader.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>
#include <QSet>
#include <QUrl>

#include <algorithm>

namespace {

bool isHTMLWhiteSpace(QChar character) {
    const char16_t code = character.unicode();
    return code == u' ' || code == u'\t' || code == u'\n' || code == u'\r' || code == u'\f';
}

// True when HTML would collapse some of the text's white space.
bool needsPreservedWhiteSpace(const QString& text) {
    if (text.isEmpty())
        return false;
    if (isHTMLWhiteSpace(text.front()) || isHTMLWhiteSpace(text.back()))
        return true;
    for (qsizetype index = 0; index < text.size(); ++index) {
        const QChar character = text[index];
        if (character == u'\t' || character == u'\r' || character == u'\f')
            return true;
        if (index > 0 && isHTMLWhiteSpace(character) && isHTMLWhiteSpace(text[index - 1]))
            return true;
    }
    return false;
}

QString characterReference(char16_t code) {
    return QStringLiteral("&#%1;").arg(int(code));
}

struct TextWriter {
    QString& out;
    NBMarkdownWriter::Place place;
    bool preserve;
    const QString& continuationPrefix;
    bool lineStart = true;

    void append(QStringView text) {
        for (qsizetype index = 0; index < text.size(); ++index) {
            const QChar character = text[index];
            const char16_t code = character.unicode();
            if (code == u'\n') {
                out += QLatin1String("<br>");
                if (!preserve && place == NBMarkdownWriter::Place::Paragraph) {
                    out += u'\n';
                    out += continuationPrefix;
                    lineStart = true;
                }
                continue;
            }
            if (lineStart) {
                lineStart = false;
                if (code == u'#' || code == u'>' || code == u'-' || code == u'+' || code == u'=' ||
                    code == u':') {
                    out += characterReference(code);
                    continue;
                }
                if (character.isDigit()) {
                    qsizetype end = index;
                    while (end < text.size() && text[end].isDigit() && text[end].unicode() < 0x80)
                        ++end;
                    if (end > index && end < text.size() && (text[end] == u'.' || text[end] == u')')) {
                        out += text.mid(index, end - index);
                        out += u'\\';
                        out += text[end];
                        index = end;
                        continue;
                    }
                }
            }
            switch (code) {
            case u'`':
            case u'*':
            case u'_':
            case u'[':
            case u']':
                out += u'\\';
                out += character;
                break;
            case u'<':
                out += QLatin1String("&lt;");
                break;
            case u'>':
                out += QLatin1String("&gt;");
                break;
            case u'&':
                out += QLatin1String("&amp;");
                break;
            // discount reads a backslash before "]" as an escape even when the backslash is itself escaped.
            case u'\\':
            case u'~':
            case u'|':
            case u'\t':
                out += characterReference(code);
                break;
            case u'#':
                if (place == NBMarkdownWriter::Place::Heading)
                    out += characterReference(code);
                else
                    out += character;
                break;
            default:
                if (code < 0x20 || code == 0x7F || code == 0x85 || code == 0x2028 || code == 0x2029)
                    out += characterReference(code);
                else
                    out += character;
            }
        }
    }
};

bool isWritableStyle(const NBStyle& style) {
    switch (style.kind()) {
    case NBStyle::Kind::Bold:
    case NBStyle::Kind::Italic:
    case NBStyle::Kind::Strikethrough:
    case NBStyle::Kind::Underline:
    case NBStyle::Kind::Superscript:
    case NBStyle::Kind::Subscript:
    case NBStyle::Kind::Pop:
    case NBStyle::Kind::SmallCaps:
    case NBStyle::Kind::Hyperlink:
        return true;
    case NBStyle::Kind::TextColor:
    case NBStyle::Kind::BackgroundColor:
        return style.color().isValid();
    default:
        return false;
    }
}

QString cssColor(const NBColor& color) {
    QString text = QStringLiteral("#%1%2%3")
                       .arg(color.red(), 2, 16, QLatin1Char('0'))
                       .arg(color.green(), 2, 16, QLatin1Char('0'))
                       .arg(color.blue(), 2, 16, QLatin1Char('0'));
    if (color.alpha() != 255)
        text += QStringLiteral("%1").arg(color.alpha(), 2, 16, QLatin1Char('0'));
    return text.toUpper();
}

QString escapedAttribute(const QString& value) {
    QString out;
    for (QChar character : value) {
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
        default:
            if (character.unicode() < 0x20)
                out += characterReference(character.unicode());
            else
                out += character;
        }
    }
    return out;
}

// An address Markdown's (address) form keeps as it is.
bool isPlainAddress(const QString& address) {
    if (address.isEmpty())
        return false;
    for (QChar character : address) {
        const char16_t code = character.unicode();
        const bool allowed = (code >= u'a' && code <= u'z') || (code >= u'A' && code <= u'Z') ||
                             (code >= u'0' && code <= u'9') ||
                             QStringView(u"-._~:/?#@!$&*+,;=%").contains(character);
        if (!allowed)
            return false;
    }
    return true;
}

// One styled stretch: a style written from `open` to `close`.
struct Element {
    NBStyle style;
    qsizetype open = 0;
    qsizetype close = 0;
    bool marker = false;
    QString address;
};

struct Event {
    qsizetype position;
    bool opening;
    std::size_t element;
};

QString markerFor(const NBStyle& style) {
    switch (style.kind()) {
    case NBStyle::Kind::Bold:
        return QStringLiteral("**");
    case NBStyle::Kind::Italic:
        return QStringLiteral("*");
    case NBStyle::Kind::Strikethrough:
        return QStringLiteral("~~");
    default:
        return QString();
    }
}

std::pair<QString, QString> tagsFor(const Element& element) {
    const NBStyle& style = element.style;
    if (element.marker) {
        const QString marker = markerFor(style);
        return {marker, marker};
    }
    switch (style.kind()) {
    case NBStyle::Kind::Bold:
        return {"<b>", "</b>"};
    case NBStyle::Kind::Italic:
        return {"<i>", "</i>"};
    case NBStyle::Kind::Strikethrough:
        return {"<del>", "</del>"};
    case NBStyle::Kind::Underline:
        return {"<u>", "</u>"};
    case NBStyle::Kind::Superscript:
        return {"<sup>", "</sup>"};
    case NBStyle::Kind::Subscript:
        return {"<sub>", "</sub>"};
    case NBStyle::Kind::Pop:
        return {"<mark>", "</mark>"};
    case NBStyle::Kind::SmallCaps:
        return {"<span style=\"font-variant:small-caps\">", "</span>"};
    case NBStyle::Kind::TextColor:
        return {"<span style=\"color:" + cssColor(style.color()) + "\">", "</span>"};
    case NBStyle::Kind::BackgroundColor:
        return {"<span style=\"background-color:" + cssColor(style.color()) + "\">", "</span>"};
    case NBStyle::Kind::Hyperlink:
        if (isPlainAddress(element.address))
            return {"[", "](" + element.address + ")"};
        return {"<a href=\"" + escapedAttribute(element.address) + "\">", "</a>"};
    default:
        return {};
    }
}

// The nested stretches of styles over the runs, and the order in which they open and close: at each run
// boundary the styles that end are closed (with those opened inside them, which reopen), then the styles
// that start open, longest-lasting first.
void nestStyles(const NBStyledString& text, std::vector<Element>& elements, std::vector<Event>& events) {
    const std::vector<NBStyledString::Run> runs = text.runs();
    std::vector<std::size_t> stack;
    for (std::size_t runIndex = 0; runIndex < runs.size(); ++runIndex) {
        const NBStyledString::Run& run = runs[runIndex];
        QList<NBStyle> wanted;
        for (const NBStyle& style : run.styles)
            if (isWritableStyle(style))
                wanted.append(style);
        std::size_t kept = 0;
        while (kept < stack.size() && wanted.contains(elements[stack[kept]].style))
            ++kept;
        while (stack.size() > kept) {
            elements[stack.back()].close = run.location;
            events.push_back({run.location, false, stack.back()});
            stack.pop_back();
        }
        QList<std::pair<qsizetype, NBStyle>> opening;
        for (const NBStyle& style : std::as_const(wanted)) {
            bool open = false;
            for (std::size_t index : stack)
                open = open || elements[index].style == style;
            if (open)
                continue;
            std::size_t last = runIndex;
            while (last + 1 < runs.size() && runs[last + 1].styles.contains(style))
                ++last;
            opening.append({runs[last].location + runs[last].length, style});
        }
        std::stable_sort(opening.begin(), opening.end(), [](const auto& left, const auto& right) {
            if (left.first != right.first)
                return left.first > right.first;
            return left.second.kind() == NBStyle::Kind::Hyperlink &&
                   right.second.kind() != NBStyle::Kind::Hyperlink;
        });
        for (const auto& [end, style] : std::as_const(opening)) {
            Q_UNUSED(end);
            elements.push_back({style, run.location, 0, false, QString()});
            stack.push_back(elements.size() - 1);
            events.push_back({run.location, true, elements.size() - 1});
        }
    }
    while (!stack.empty()) {
        elements[stack.back()].close = text.length();
        events.push_back({text.length(), false, stack.back()});
        stack.pop_back();
    }
}

// Chooses Markdown markers where they read back unchanged, and the addresses of links.
void chooseForms(const NBStyledString& text, std::vector<Element>& elements) {
    const QString& string = text.string();
    QSet<qsizetype> claimed;
    for (Element& element : elements) {
        if (element.style.kind() == NBStyle::Kind::Hyperlink) {
            element.address = element.style.hyperlinkURL();
            if (element.address.isEmpty())
                element.address = string.mid(element.open, element.close - element.open);
            continue;
        }
        if (markerFor(element.style).isEmpty() || element.close <= element.open)
            continue;
        if (!string[element.open].isLetterOrNumber() || !string[element.close - 1].isLetterOrNumber())
            continue;
        if (claimed.contains(element.open) || claimed.contains(element.close))
            continue;
        element.marker = true;
        claimed.insert(element.open);
        claimed.insert(element.close);
    }
}

QString indentation(qint64 columns) {
    return QString(qsizetype(columns), u' ');
}

bool isImageFileName(const QString& name) {
    static const QSet<QString> suffixes = {"png", "jpg", "jpeg", "gif", "svg", "webp", "bmp", "tif", "tiff"};
    return suffixes.contains(QFileInfo(name).suffix().toLower());
}

QString addressForPath(const QString& relativePath) {
    return QString::fromUtf8(QUrl::toPercentEncoding(relativePath, "/"));
}

QString frontMatterForContent(const NBDocumentContent& content) {
    QList<QPair<QString, QVariant>> entries;
    entries.append({QString::fromUtf8(kNBMarkdownFormKey), kNBMarkdownFormVersion});
    entries.append({QString::fromUtf8(kNBMarkdownKindKey), nbDocumentKindName(content.kind)});
    const QStringList first = {kNBDocumentUUIDKey, kNBDocumentTitleKey, kNBDocumentAuthorKey};
    for (const QString& key : first)
        if (content.metadata.contains(key))
            entries.append({key, content.metadata.value(key)});
    QHash<QString, qint64> numbers;
    for (qsizetype index = 0; index < content.paragraphs.size(); ++index)
        numbers.insert(content.paragraphs[index].uuid(), index + 1);
    for (auto entry = content.metadata.cbegin(); entry != content.metadata.cend(); ++entry) {
        if (first.contains(entry.key()))
            continue;
        if (entry.key() == QLatin1String(kNBExperimentDoneParagraphUUIDsKey)) {
            QVariantList done;
            for (const QVariant& uuid : entry.value().toList())
                if (numbers.contains(uuid.toString()))
                    done.append(numbers.value(uuid.toString()));
            entries.append({QString::fromUtf8(kNBMarkdownDoneParagraphsKey), done});
        } else if (entry.key() == QLatin1String(kNBExperimentVignetteUUIDKey)) {
            if (numbers.contains(entry.value().toString()))
                entries.append({QString::fromUtf8(kNBMarkdownVignetteParagraphKey),
                                numbers.value(entry.value().toString())});
        } else {
            entries.append({entry.key(), entry.value()});
        }
    }
    return NBFrontMatter::frontMatterString(entries);
}

bool isPlainFencedCode(const NBStyledString& code) {
    const QString& text = code.string();
    if (text.isEmpty() || code.runCount() > 1 ||
        (code.runCount() == 1 && !code.runs().front().styles.isEmpty()))
        return false;
    if (text.endsWith(u'\n') || text.startsWith(u'\n') || text.trimmed().isEmpty())
        return false;
    for (QChar character : text)
        if ((character.unicode() < 0x20 && character != u'\n') || character.unicode() == 0x7F)
            return false;
    return true;
}

QString codeBlock(const NBStyledString& code) {
    if (isPlainFencedCode(code)) {
        qsizetype longest = 0;
        qsizetype current = 0;
        for (QChar character : code.string()) {
            current = character == u'`' ? current + 1 : 0;
            longest = std::max(longest, current);
        }
        const QString fence(std::max<qsizetype>(3, longest + 1), u'`');
        return fence + u'\n' + code.string() + u'\n' + fence;
    }
    return QStringLiteral("<pre><code>") + code.htmlFragmentString() + QStringLiteral("</code></pre>");
}

QString tableBlock(const NBParagraph& paragraph) {
    const std::optional<NBSpreadsheetData> data =
        NBSpreadsheetData::spreadsheetDataWithTableParagraph(paragraph);
    if (!data)
        return QString();
    const qsizetype columns = std::max<qsizetype>(1, data->columnCount());
    if (data->rowCount() <= 1) {
        // discount reads a table only when a row follows its header row: one row is written as HTML.
        QString html = QStringLiteral("<table><tr>");
        for (qsizetype column = 0; column < columns; ++column)
            html += QStringLiteral("<td>") +
                    NBStyledString::styledStringFromMarkupString(data->markupStringAtRow(0, column))
                        .htmlFragmentString() +
                    QStringLiteral("</td>");
        return html + QStringLiteral("</tr></table>");
    }
    QStringList lines;
    for (qsizetype row = 0; row < data->rowCount(); ++row) {
        QStringList cells;
        for (qsizetype column = 0; column < columns; ++column) {
            const NBStyledString cell =
                NBStyledString::styledStringFromMarkupString(data->markupStringAtRow(row, column));
            cells.append(NBMarkdownWriter::inlineMarkdown(cell, NBMarkdownWriter::Place::TableCell));
        }
        lines.append(QStringLiteral("| ") + cells.join(QLatin1String(" | ")) + QStringLiteral(" |"));
        if (row == 0)
            lines.append(QStringLiteral("|") + QStringLiteral("---|").repeated(columns));
    }
    return lines.join(u'\n');
}

} // namespace

QString NBMarkdownWriter::inlineMarkdown(const NBStyledString& text, Place place,
                                         const QString& continuationPrefix) {
    const bool preserve = needsPreservedWhiteSpace(text.string());
    std::vector<Element> elements;
    std::vector<Event> events;
    nestStyles(text, elements, events);
    chooseForms(text, elements);
    QString out;
    if (preserve)
        out += QLatin1String("<span style=\"white-space:pre-wrap\">");
    TextWriter writer{out, place, preserve, continuationPrefix};
    qsizetype position = 0;
    for (const Event& event : events) {
        if (event.position > position) {
            writer.append(QStringView(text.string()).mid(position, event.position - position));
            position = event.position;
        }
        const auto [opening, closing] = tagsFor(elements[event.element]);
        out += event.opening ? opening : closing;
        // Markup at the start of a line is not where the line's text starts, but Markdown still reads the
        // text after an opening marker as the line's start only for what the writer escapes there anyway.
    }
    if (position < text.length())
        writer.append(QStringView(text.string()).mid(position));
    if (preserve)
        out += QLatin1String("</span>");
    return out;
}

QString NBMarkdownWriter::markdownStringForContent(
    const NBDocumentContent& content, const std::function<QString(const NBParagraph&)>& attachmentAddress) {
    QString out = frontMatterForContent(content) + u'\n';
    if (!content.title().isEmpty())
        out += QStringLiteral("# ") + inlineMarkdown(NBStyledString(content.title()), Place::Heading) +
               QStringLiteral("\n\n");
    QStringList blocks;
    bool inList = false;
    qint64 previousLevel = 0;
    const auto heading = [](int level, const NBStyledString& text) {
        const QString written = inlineMarkdown(text, Place::Heading);
        return QString(level, u'#') + u' ' + (written.isEmpty() ? QStringLiteral("<span></span>") : written);
    };
    for (const NBParagraph& paragraph : content.paragraphs) {
        const NBStyledString text = paragraph.styledContent();
        if (paragraph.isBulletType() || paragraph.isNumberType()) {
            const qint64 level = std::clamp<qint64>(paragraph.indentationLevel().value_or(0), 0,
                                                    inList ? previousLevel + 1 : 0);
            const QString marker =
                paragraph.isNumberType()
                    ? QString::number(paragraph.listItemIndex().value_or(0) + 1) + QLatin1Char('.')
                    : QStringLiteral("-");
            const QString indent = indentation(4 * level);
            QString written = inlineMarkdown(text, Place::Paragraph, indent + indentation(marker.size() + 1));
            if (written.isEmpty())
                written = QStringLiteral("<span></span>");
            const QString line = indent + marker + u' ' + written;
            if (inList)
                blocks.last() += u'\n' + line;
            else
                blocks.append(line);
            inList = true;
            previousLevel = level;
            continue;
        }
        inList = false;
        switch (paragraph.kind()) {
        case NBParagraphKind::Day:
            blocks.append(QStringLiteral("## ") + NBHTMLParagraphReader::headingTextForDay(paragraph.day()));
            break;
        case NBParagraphKind::Step:
            blocks.append(heading(3, text));
            break;
        case NBParagraphKind::Section:
            blocks.append(heading(4, text));
            break;
        case NBParagraphKind::Note:
        case NBParagraphKind::Warning:
        case NBParagraphKind::Error: {
            const QString marker = paragraph.isNoteType()      ? QStringLiteral("NOTE")
                                   : paragraph.isWarningType() ? QStringLiteral("WARNING")
                                                               : QStringLiteral("ERROR");
            QString block = QStringLiteral("> [!") + marker + u']';
            const QString written = inlineMarkdown(text, Place::Paragraph, QStringLiteral("> "));
            if (!written.isEmpty())
                block += QStringLiteral("\n> ") + written;
            blocks.append(block);
            break;
        }
        case NBParagraphKind::Code:
            blocks.append(codeBlock(text));
            break;
        case NBParagraphKind::Table:
            blocks.append(tableBlock(paragraph));
            break;
        case NBParagraphKind::Attachment: {
            const QString address = attachmentAddress ? attachmentAddress(paragraph) : QString();
            const QString written = inlineMarkdown(NBStyledString(text.string()), Place::Paragraph);
            if (address.isEmpty()) {
                blocks.append(written.isEmpty() ? QStringLiteral("<p></p>") : written);
                break;
            }
            const bool image = isImageFileName(address);
            blocks.append((image ? QStringLiteral("![") : QStringLiteral("[")) + written +
                          QStringLiteral("](") + address + QStringLiteral(" \"attachment\")"));
            break;
        }
        default: {
            const QString written = inlineMarkdown(text, Place::Paragraph);
            blocks.append(written.isEmpty() ? QStringLiteral("<p></p>") : written);
        }
        }
    }
    out += blocks.join(QLatin1String("\n\n"));
    if (!blocks.isEmpty())
        out += u'\n';
    return out;
}

QString NBMarkdownWriter::attachmentFolderNameForMarkdownPath(const QString& path) {
    return QFileInfo(path).completeBaseName() + QStringLiteral("_files");
}

bool NBMarkdownWriter::writeContentToFile(const NBDocumentContent& content, const QString& path,
                                          NBError* outError) {
    const auto fail = [&](const QString& message) {
        qCWarning(lcInterchange).noquote() << message;
        return nbFail(outError,
                      NBError::errorWithObject("NBMarkdownWriter", kNBMarkdownWriterErrorWrite, message));
    };
    const QFileInfo info(path);
    const QString folderName = attachmentFolderNameForMarkdownPath(path);
    const QDir folder(info.absoluteDir().filePath(folderName));
    QHash<QString, QString> addresses;
    QSet<QString> usedNames;
    for (const NBParagraph& paragraph : content.paragraphs) {
        if (!paragraph.isAttachmentType() || !content.attachmentFiles.contains(paragraph.uuid()))
            continue;
        const QString source = content.attachmentFiles.value(paragraph.uuid());
        const QString name = nbUniqueFileName(usedNames, QFileInfo(source).fileName());
        if (!QDir().mkpath(folder.path()))
            return fail(nbFormat("Could not create the attachment folder %@", folder.path()));
        QFile::remove(folder.filePath(name));
        if (!QFile::copy(source, folder.filePath(name)))
            return fail(nbFormat("Could not copy the attachment '%@' to %@", source, folder.filePath(name)));
        addresses.insert(paragraph.uuid(), addressForPath(folderName + QLatin1Char('/') + name));
    }
    const QString markdown = markdownStringForContent(
        content, [&](const NBParagraph& paragraph) { return addresses.value(paragraph.uuid()); });
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(markdown.toUtf8()) < 0 || !file.commit())
        return fail(nbFormat("Could not write the Markdown file %@", path));
    return true;
}

bool NBMarkdownWriter::writeDocumentToFile(const NBDocument& document, const QString& path,
                                           NBError* outError) {
    return writeContentToFile(NBDocumentContent::contentOfDocument(document), path, outError);
}
