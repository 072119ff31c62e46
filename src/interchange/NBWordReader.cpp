// NBWordReader: .docx into document content (what is read is described in the header).
#include "interchange/NBWordReader.h"

#include "document/NBSpreadsheetData.h"
#include "foundation/NBLogging.h"
#include "interchange/NBHTMLParagraphReader.h"
#include "interchange/NBZipArchive.h"
#include "text/NBStyledString.h"

#include <QDir>
#include <QFileInfo>
#include <QHash>
#include <QRegularExpression>
#include <QSet>

#include <pugixml.hpp>

#include <cstring>

namespace {

// ---- XML helpers: Word's parts are matched by local names, whatever prefixes a program chose ----

const char* localName(const char* name) {
    const char* colon = std::strrchr(name, ':');
    return colon ? colon + 1 : name;
}

bool is(const pugi::xml_node& node, const char* name) {
    return node.type() == pugi::node_element && std::strcmp(localName(node.name()), name) == 0;
}

pugi::xml_node child(const pugi::xml_node& node, const char* name) {
    for (const pugi::xml_node& candidate : node.children())
        if (is(candidate, name))
            return candidate;
    return {};
}

pugi::xml_node descendant(const pugi::xml_node& node, const char* name) {
    return node.find_node([name](const pugi::xml_node& candidate) { return is(candidate, name); });
}

QString attribute(const pugi::xml_node& node, const char* name) {
    for (const pugi::xml_attribute& candidate : node.attributes())
        if (std::strcmp(localName(candidate.name()), name) == 0)
            return QString::fromUtf8(candidate.value());
    return QString();
}

// An on/off property: present without a value, or with a value other than "0", "false", "off".
std::optional<bool> toggle(const pugi::xml_node& properties, const char* name) {
    const pugi::xml_node node = child(properties, name);
    if (!node)
        return std::nullopt;
    const QString value = attribute(node, "val").toLower();
    return !(value == QLatin1String("0") || value == QLatin1String("false") ||
             value == QLatin1String("off") || value == QLatin1String("none"));
}

std::optional<NBColor> hexColor(const QString& text) {
    if (text.size() != 6)
        return std::nullopt;
    bool valid = false;
    const uint value = text.toUInt(&valid, 16);
    if (!valid)
        return std::nullopt;
    return NBColor(int((value >> 16) & 0xFF), int((value >> 8) & 0xFF), int(value & 0xFF));
}

std::optional<NBColor> highlightColor(const QString& name) {
    static const QHash<QString, NBColor> colors = {
        {"yellow", NBColor(0xFF, 0xFF, 0x00)},    {"green", NBColor(0x00, 0xFF, 0x00)},
        {"cyan", NBColor(0x00, 0xFF, 0xFF)},      {"magenta", NBColor(0xFF, 0x00, 0xFF)},
        {"blue", NBColor(0x00, 0x00, 0xFF)},      {"red", NBColor(0xFF, 0x00, 0x00)},
        {"darkBlue", NBColor(0x00, 0x00, 0x80)},  {"darkCyan", NBColor(0x00, 0x80, 0x80)},
        {"darkGreen", NBColor(0x00, 0x80, 0x00)}, {"darkMagenta", NBColor(0x80, 0x00, 0x80)},
        {"darkRed", NBColor(0x80, 0x00, 0x00)},   {"darkYellow", NBColor(0x80, 0x80, 0x00)},
        {"darkGray", NBColor(0x80, 0x80, 0x80)},  {"lightGray", NBColor(0xC0, 0xC0, 0xC0)},
        {"black", NBColor(0x00, 0x00, 0x00)},     {"white", NBColor(0xFF, 0xFF, 0xFF)},
    };
    const auto found = colors.constFind(name);
    return found == colors.cend() ? std::nullopt : std::optional<NBColor>(*found);
}

bool isMonospacedFont(const QString& font) {
    static const QStringList fonts = {"courier",     "consolas",       "menlo",       "monaco",
                                      "mono",        "lucida console", "source code", "fira code",
                                      "inconsolata", "typewriter"};
    const QString lower = font.toLower();
    for (const QString& name : fonts)
        if (lower.contains(name))
            return true;
    return false;
}

// Character properties as a run, its character style and its paragraph's style set them; later layers
// override earlier ones where they say something.
struct RunProperties {
    std::optional<bool> bold, italic, underline, strikethrough, smallCaps;
    std::optional<int> verticalPosition; // 1 superscript, -1 subscript, 0 baseline
    std::optional<NBColor> color, background;
    std::optional<QString> font;
    std::optional<bool> clearColor, clearBackground;

    static RunProperties read(const pugi::xml_node& properties) {
        RunProperties run;
        if (!properties)
            return run;
        run.bold = toggle(properties, "b");
        run.italic = toggle(properties, "i");
        if (const pugi::xml_node underline = child(properties, "u"))
            run.underline = attribute(underline, "val") != QLatin1String("none");
        const std::optional<bool> strike = toggle(properties, "strike");
        const std::optional<bool> doubleStrike = toggle(properties, "dstrike");
        if (strike || doubleStrike)
            run.strikethrough = strike.value_or(false) || doubleStrike.value_or(false);
        run.smallCaps = toggle(properties, "smallCaps");
        if (const pugi::xml_node vertical = child(properties, "vertAlign")) {
            const QString value = attribute(vertical, "val");
            run.verticalPosition = value == QLatin1String("superscript") ? 1
                                   : value == QLatin1String("subscript") ? -1
                                                                         : 0;
        }
        if (const pugi::xml_node color = child(properties, "color")) {
            run.color = hexColor(attribute(color, "val"));
            run.clearColor = !run.color;
        }
        if (const pugi::xml_node highlight = child(properties, "highlight")) {
            run.background = highlightColor(attribute(highlight, "val"));
            run.clearBackground = !run.background;
        } else if (const pugi::xml_node shading = child(properties, "shd")) {
            run.background = hexColor(attribute(shading, "fill"));
            run.clearBackground = !run.background;
        }
        if (const pugi::xml_node fonts = child(properties, "rFonts")) {
            const QString font = attribute(fonts, "ascii");
            if (!font.isEmpty())
                run.font = font;
        }
        return run;
    }

    void overrideWith(const RunProperties& other) {
        const auto take = [](auto& mine, const auto& theirs) {
            if (theirs)
                mine = theirs;
        };
        take(bold, other.bold);
        take(italic, other.italic);
        take(underline, other.underline);
        take(strikethrough, other.strikethrough);
        take(smallCaps, other.smallCaps);
        take(verticalPosition, other.verticalPosition);
        take(font, other.font);
        if (other.color || other.clearColor.value_or(false))
            color = other.color;
        if (other.background || other.clearBackground.value_or(false))
            background = other.background;
    }

    NBStyleSet styles() const {
        NBStyleSet set;
        if (bold.value_or(false))
            set.insert(NBStyle::bold());
        if (italic.value_or(false))
            set.insert(NBStyle::italic());
        if (underline.value_or(false))
            set.insert(NBStyle::underline());
        if (strikethrough.value_or(false))
            set.insert(NBStyle::strikethrough());
        if (smallCaps.value_or(false))
            set.insert(NBStyle::smallCaps());
        if (verticalPosition.value_or(0) > 0)
            set.insert(NBStyle::superscript());
        if (verticalPosition.value_or(0) < 0)
            set.insert(NBStyle::subscript());
        if (color && color->rgba() != 0xFF000000)
            set.insert(NBStyle::styleForTextColor(*color));
        if (background)
            set.insert(NBStyle::styleForBackgroundColor(*background));
        return set;
    }
};

struct WordStyle {
    QString name;
    QString basedOn;
    std::optional<int> outlineLevel;
    std::optional<std::pair<QString, int>> numbering; // numId, ilvl
    RunProperties run;
};

struct Image {
    QString entry;   // the part in the package
    QString caption; // its description or name
};

struct WordParagraph {
    enum class Kind { Title, Heading, Bullet, Number, Note, Code, Text, Caption, Author };
    Kind kind = Kind::Text;
    int level = 0;
    NBStyledString text;
    QList<Image> images;
    bool monospaced = false;
};

class Reader {
public:
    Reader(NBZipReader& zip, const QString& path) : zip_(zip), path_(path) {}

    std::optional<NBDocumentContent> run(NBError* outError) {
        const QString documentPart = mainDocumentPart();
        if (documentPart.isEmpty() || !zip_.entryNamed(documentPart)) {
            fail(outError, kNBWordReaderErrorNotWord, nbFormat("The file %@ is not a Word document", path_));
            return std::nullopt;
        }
        partFolder_ =
            documentPart.contains(u'/') ? documentPart.left(documentPart.lastIndexOf(u'/') + 1) : QString();
        pugi::xml_document document;
        if (!load(documentPart, document, true, outError))
            return std::nullopt;
        pugi::xml_document styles, numbering, relationships, core;
        if (!load(partFolder_ + "styles.xml", styles, false, outError) ||
            !load(partFolder_ + "numbering.xml", numbering, false, outError) ||
            !load(partFolder_ + "_rels/" + documentPart.mid(partFolder_.size()) + ".rels", relationships,
                  false, outError) ||
            !load(QStringLiteral("docProps/core.xml"), core, false, outError))
            return std::nullopt;
        readStyles(styles);
        readNumbering(numbering);
        readRelationships(relationships);

        const pugi::xml_node body = child(child(document, "document"), "body");
        if (!walkBlocks(body, 0)) {
            fail(outError, kNBWordReaderErrorDamaged,
                 nbFormat("The Word document %@ nests tables or content controls more than %@ deep", path_,
                          QString::number(NBWordReader::kMaximumDepth)));
            return std::nullopt;
        }
        return assemble(core, outError);
    }

private:
    void fail(NBError* outError, qint64 code, const QString& message) {
        qCWarning(lcInterchange).noquote() << message;
        nbFail(outError, NBError::errorWithObject("NBWordReader", code, message));
    }

    // The main document part, from the package relationships (word/document.xml when they do not say).
    QString mainDocumentPart() {
        pugi::xml_document relationships;
        if (!load(QStringLiteral("_rels/.rels"), relationships, false, nullptr))
            return QString();
        for (const pugi::xml_node& relationship : child(relationships, "Relationships").children()) {
            if (attribute(relationship, "Type").endsWith(QLatin1String("/officeDocument"))) {
                QString target = attribute(relationship, "Target");
                if (target.startsWith(u'/'))
                    target.remove(0, 1);
                return QDir::cleanPath(target);
            }
        }
        return zip_.entryNamed(QStringLiteral("word/document.xml")) ? QStringLiteral("word/document.xml")
                                                                    : QString();
    }

    bool load(const QString& part, pugi::xml_document& document, bool required, NBError* outError) {
        if (!zip_.entryNamed(part)) {
            if (required)
                fail(outError, kNBWordReaderErrorNotWord,
                     nbFormat("The file %@ is not a Word document", path_));
            return !required;
        }
        NBError error;
        const std::optional<QByteArray> data = zip_.readEntry(part, NBWordReader::kMaximumPartSize, &error);
        if (!data) {
            if (outError)
                *outError =
                    NBError::errorWithObject("NBWordReader",
                                             error.code() == kNBZipErrorTooLarge ? kNBWordReaderErrorTooLarge
                                                                                 : kNBWordReaderErrorDamaged,
                                             error.localizedDescription());
            return false;
        }
        const pugi::xml_parse_result result =
            document.load_buffer(data->constData(), std::size_t(data->size()),
                                 pugi::parse_default | pugi::parse_ws_pcdata_single, pugi::encoding_utf8);
        if (!result) {
            fail(outError, kNBWordReaderErrorDamaged,
                 nbFormat("The Word document %@ is damaged: %@ at byte %@ of '%@'", path_,
                          QString::fromUtf8(result.description()), QString::number(result.offset), part));
            return false;
        }
        return true;
    }

    void readStyles(const pugi::xml_document& document) {
        for (const pugi::xml_node& style : child(document, "styles").children()) {
            if (!is(style, "style"))
                continue;
            WordStyle entry;
            entry.name = attribute(child(style, "name"), "val");
            entry.basedOn = attribute(child(style, "basedOn"), "val");
            const pugi::xml_node paragraph = child(style, "pPr");
            if (const pugi::xml_node outline = child(paragraph, "outlineLvl"))
                entry.outlineLevel = attribute(outline, "val").toInt();
            if (const pugi::xml_node numbering = child(paragraph, "numPr"))
                entry.numbering = std::make_pair(attribute(child(numbering, "numId"), "val"),
                                                 attribute(child(numbering, "ilvl"), "val").toInt());
            entry.run = RunProperties::read(child(style, "rPr"));
            styles_.insert(attribute(style, "styleId"), entry);
        }
    }

    void readNumbering(const pugi::xml_document& document) {
        QHash<QString, QHash<int, QString>> abstractFormats;
        const pugi::xml_node root = child(document, "numbering");
        const auto readLevels = [](const pugi::xml_node& node, QHash<int, QString>& formats) {
            for (const pugi::xml_node& level : node.children())
                if (is(level, "lvl"))
                    formats.insert(attribute(level, "ilvl").toInt(),
                                   attribute(child(level, "numFmt"), "val"));
        };
        for (const pugi::xml_node& node : root.children())
            if (is(node, "abstractNum"))
                readLevels(node, abstractFormats[attribute(node, "abstractNumId")]);
        for (const pugi::xml_node& node : root.children()) {
            if (!is(node, "num"))
                continue;
            QHash<int, QString> formats =
                abstractFormats.value(attribute(child(node, "abstractNumId"), "val"));
            for (const pugi::xml_node& override : node.children())
                if (is(override, "lvlOverride"))
                    if (const pugi::xml_node level = child(override, "lvl"))
                        formats.insert(attribute(override, "ilvl").toInt(),
                                       attribute(child(level, "numFmt"), "val"));
            numberFormats_.insert(attribute(node, "numId"), formats);
        }
    }

    void readRelationships(const pugi::xml_document& document) {
        for (const pugi::xml_node& relationship : child(document, "Relationships").children()) {
            QString target = attribute(relationship, "Target");
            if (attribute(relationship, "TargetMode") == QLatin1String("External")) {
                externalTargets_.insert(attribute(relationship, "Id"), target);
                continue;
            }
            target = target.startsWith(u'/') ? target.mid(1) : partFolder_ + target;
            internalTargets_.insert(attribute(relationship, "Id"), QDir::cleanPath(target));
        }
    }

    // The style and its ancestors, nearest first (a loop in basedOn ends the chain).
    QList<const WordStyle*> styleChain(const QString& styleId) const {
        QList<const WordStyle*> chain;
        QString next = styleId;
        while (!next.isEmpty() && chain.size() < 20) {
            const auto found = styles_.constFind(next);
            if (found == styles_.cend())
                break;
            chain.append(&*found);
            next = found->basedOn;
        }
        return chain;
    }

    RunProperties styleRunProperties(const QString& styleId) const {
        RunProperties properties;
        const QList<const WordStyle*> chain = styleChain(styleId);
        for (auto style = chain.crbegin(); style != chain.crend(); ++style)
            properties.overrideWith((*style)->run);
        return properties;
    }

    // ---- The body ----

    // Walks block-level content; false when it nests too deeply.
    bool walkBlocks(const pugi::xml_node& container, int depth) {
        if (depth > NBWordReader::kMaximumDepth)
            return false;
        for (const pugi::xml_node& node : container.children()) {
            if (is(node, "p")) {
                paragraphs_.append(readParagraph(node));
            } else if (is(node, "tbl")) {
                if (!readTable(node, depth))
                    return false;
            } else if (is(node, "sdt") || is(node, "customXml") || is(node, "ins") || is(node, "smartTag")) {
                if (!walkBlocks(is(node, "sdt") ? child(node, "sdtContent") : node, depth + 1))
                    return false;
            }
        }
        return true;
    }

    WordParagraph readParagraph(const pugi::xml_node& paragraph) {
        WordParagraph result;
        const pugi::xml_node properties = child(paragraph, "pPr");
        const QString styleId = attribute(child(properties, "pStyle"), "val");
        const QList<const WordStyle*> chain = styleChain(styleId);
        const QString styleName = chain.isEmpty() ? styleId.toLower() : chain.front()->name.toLower();
        // The paragraph style's character properties are the look of the paragraph's kind (a heading's size,
        // weight and colour), not styles of its text; only its font says whether it is code.
        RunProperties paragraphRun;
        paragraphRun.font = styleRunProperties(styleId).font;

        NBMutableStyledString text;
        int textRuns = 0, monospacedRuns = 0;
        readInline(paragraph, paragraphRun, QString(), text, result.images, textRuns, monospacedRuns, 0);
        result.text = text;
        result.monospaced = textRuns > 0 && monospacedRuns == textRuns;

        std::optional<int> outline;
        if (const pugi::xml_node level = child(properties, "outlineLvl"))
            outline = attribute(level, "val").toInt();
        std::optional<std::pair<QString, int>> numbering;
        if (const pugi::xml_node numberingProperties = child(properties, "numPr"))
            numbering = std::make_pair(attribute(child(numberingProperties, "numId"), "val"),
                                       attribute(child(numberingProperties, "ilvl"), "val").toInt());
        for (const WordStyle* style : chain) {
            if (!outline && style->outlineLevel)
                outline = style->outlineLevel;
            if (!numbering && style->numbering)
                numbering = style->numbering;
        }
        static const QRegularExpression headingName(QStringLiteral("^heading\\s*([1-9])$"));
        const QRegularExpressionMatch heading = headingName.match(styleName);
        if (styleName == QLatin1String("title")) {
            result.kind = WordParagraph::Kind::Title;
        } else if (styleName == QLatin1String("author")) {
            result.kind = WordParagraph::Kind::Author;
        } else if (heading.hasMatch() || (outline && *outline >= 0 && *outline < 9)) {
            result.kind = WordParagraph::Kind::Heading;
            result.level = heading.hasMatch() ? heading.captured(1).toInt() : *outline + 1;
        } else if (numbering && numbering->first != QLatin1String("0") && !numbering->first.isEmpty()) {
            const QString format = numberFormats_.value(numbering->first).value(numbering->second);
            result.kind =
                format == QLatin1String("bullet") || format == QLatin1String("none") || format.isEmpty()
                    ? WordParagraph::Kind::Bullet
                    : WordParagraph::Kind::Number;
            result.level = std::clamp(numbering->second, 0, 8);
        } else if (styleName.contains(QLatin1String("quot")) || styleName == QLatin1String("block text")) {
            result.kind = WordParagraph::Kind::Note;
        } else if (styleName.contains(QLatin1String("code")) ||
                   styleName.contains(QLatin1String("preformatted")) ||
                   styleName.contains(QLatin1String("verbatim")) ||
                   styleName.contains(QLatin1String("plain text")) || result.monospaced) {
            result.kind = WordParagraph::Kind::Code;
        } else if (styleName.contains(QLatin1String("caption"))) {
            result.kind = WordParagraph::Kind::Caption;
        }
        return result;
    }

    // Reads runs and the inline containers around them into `text`.
    void readInline(const pugi::xml_node& container, const RunProperties& paragraphRun, const QString& link,
                    NBMutableStyledString& text, QList<Image>& images, int& textRuns, int& monospacedRuns,
                    int depth) {
        if (depth > NBWordReader::kMaximumDepth)
            return;
        for (const pugi::xml_node& node : container.children()) {
            if (is(node, "r")) {
                readRun(node, paragraphRun, link, text, images, textRuns, monospacedRuns);
            } else if (is(node, "hyperlink")) {
                const QString target = externalTargets_.value(attribute(node, "id"));
                readInline(node, paragraphRun, target.isEmpty() ? link : target, text, images, textRuns,
                           monospacedRuns, depth + 1);
            } else if (is(node, "ins") || is(node, "smartTag") || is(node, "customXml") ||
                       is(node, "fldSimple") || is(node, "bdo") || is(node, "dir") || is(node, "moveTo")) {
                readInline(node, paragraphRun, link, text, images, textRuns, monospacedRuns, depth + 1);
            } else if (is(node, "sdt")) {
                readInline(child(node, "sdtContent"), paragraphRun, link, text, images, textRuns,
                           monospacedRuns, depth + 1);
            }
        }
    }

    void readRun(const pugi::xml_node& run, const RunProperties& paragraphRun, const QString& link,
                 NBMutableStyledString& text, QList<Image>& images, int& textRuns, int& monospacedRuns) {
        const pugi::xml_node properties = child(run, "rPr");
        RunProperties effective = paragraphRun;
        // Inside a link the character style is the link's look (blue, underlined), not styles of its text.
        if (link.isEmpty())
            effective.overrideWith(styleRunProperties(attribute(child(properties, "rStyle"), "val")));
        effective.overrideWith(RunProperties::read(properties));
        NBStyleSet styles = effective.styles();
        if (!link.isEmpty())
            styles.insert(NBStyle::styleForHyperlinkURL(link));
        QString piece;
        for (const pugi::xml_node& node : run.children()) {
            if (is(node, "t")) {
                piece += QString::fromUtf8(node.child_value());
            } else if (is(node, "tab") || is(node, "ptab")) {
                piece += u'\t';
            } else if (is(node, "br")) {
                const QString type = attribute(node, "type");
                if (type.isEmpty() || type == QLatin1String("textWrapping"))
                    piece += u'\n';
            } else if (is(node, "cr")) {
                piece += u'\n';
            } else if (is(node, "noBreakHyphen")) {
                piece += QChar(0x2011);
            } else if (is(node, "sym")) {
                bool valid = false;
                const uint code = attribute(node, "char").toUInt(&valid, 16);
                // Symbol fonts map their glyphs to the private-use area from U+F000; their text is unknown.
                if (valid && code > 0 && (code < 0xF000 || code > 0xF0FF))
                    piece += QChar(char16_t(code));
            } else if (is(node, "drawing")) {
                addImage(descendant(node, "blip"), "embed", descendant(node, "docPr"), images);
            } else if (is(node, "pict")) {
                addImage(descendant(node, "imagedata"), "id", pugi::xml_node(), images);
            } else if (is(node, "object")) {
                const pugi::xml_node embedded = descendant(node, "OLEObject");
                if (embedded)
                    addImage(embedded, "id", pugi::xml_node(), images);
                else
                    addImage(descendant(node, "imagedata"), "id", pugi::xml_node(), images);
            }
        }
        if (piece.isEmpty())
            return;
        ++textRuns;
        if (effective.font && isMonospacedFont(*effective.font))
            ++monospacedRuns;
        text.appendString(piece, styles);
    }

    void addImage(const pugi::xml_node& reference, const char* idAttribute, const pugi::xml_node& description,
                  QList<Image>& images) {
        if (!reference)
            return;
        const QString entry = internalTargets_.value(attribute(reference, idAttribute));
        if (entry.isEmpty() || !zip_.entryNamed(entry))
            return;
        QString caption = attribute(description, "descr");
        if (caption.trimmed().isEmpty())
            caption = attribute(description, "title");
        if (caption.trimmed().isEmpty())
            caption = QFileInfo(entry).fileName();
        images.append({entry, caption.simplified()});
    }

    bool readTable(const pugi::xml_node& table, int depth) {
        if (depth > NBWordReader::kMaximumDepth)
            return false;
        QList<QStringList> rows;
        QList<Image> images;
        for (const pugi::xml_node& row : table.children()) {
            if (!is(row, "tr"))
                continue;
            QStringList cells;
            for (const pugi::xml_node& cell : row.children()) {
                if (!is(cell, "tc"))
                    continue;
                const pugi::xml_node properties = child(cell, "tcPr");
                const pugi::xml_node merge = child(properties, "vMerge");
                const bool continued = merge && attribute(merge, "val") != QLatin1String("restart");
                NBMutableStyledString text;
                if (!continued && !readCell(cell, text, images, depth + 1))
                    return false;
                cells.append(NBStyledString(text).markupString());
                const int span = std::clamp(attribute(child(properties, "gridSpan"), "val").toInt(), 1, 1000);
                for (int extra = 1; extra < span; ++extra)
                    cells.append(QString());
            }
            rows.append(cells);
        }
        if (!rows.isEmpty()) {
            WordParagraph paragraph;
            paragraph.kind = WordParagraph::Kind::Text;
            tables_.insert(paragraphs_.size(), rows);
            paragraphs_.append(paragraph);
        }
        for (const Image& image : std::as_const(images)) {
            WordParagraph paragraph;
            paragraph.images.append(image);
            paragraphs_.append(paragraph);
        }
        return true;
    }

    // A cell's paragraphs joined by line breaks; nested tables are read as their text.
    bool readCell(const pugi::xml_node& cell, NBMutableStyledString& text, QList<Image>& images, int depth) {
        if (depth > NBWordReader::kMaximumDepth)
            return false;
        for (const pugi::xml_node& node : cell.children()) {
            if (is(node, "p")) {
                const WordParagraph paragraph = readParagraph(node);
                if (!text.isEmpty())
                    text.appendString(QStringLiteral("\n"));
                text.appendStyledString(paragraph.text);
                images.append(paragraph.images);
            } else if (is(node, "tbl")) {
                for (const pugi::xml_node& row : node.children())
                    for (const pugi::xml_node& nested : row.children())
                        if (is(nested, "tc") && !readCell(nested, text, images, depth + 1))
                            return false;
            } else if (is(node, "sdt")) {
                if (!readCell(child(node, "sdtContent"), text, images, depth + 1))
                    return false;
            }
        }
        return true;
    }

    // ---- Assembling the content ----

    std::optional<NBDocumentContent> assemble(const pugi::xml_document& core, NBError* outError) {
        NBDocumentContent content;
        content.temporaryDirectory = std::make_shared<QTemporaryDir>();
        QString title = QString::fromUtf8(descendant(core, "title").child_value()).simplified();
        QString author = QString::fromUtf8(descendant(core, "creator").child_value()).simplified();
        bool lastWasImage = false;
        int extracted = 0;
        for (qsizetype index = 0; index < paragraphs_.size(); ++index) {
            const WordParagraph& paragraph = paragraphs_[index];
            if (tables_.contains(index)) {
                content.paragraphs.append(NBParagraph::tableParagraphWithRows(tables_.value(index)));
                lastWasImage = false;
                continue;
            }
            const QString plain = paragraph.text.string().trimmed();
            const NBParagraph* previous = content.paragraphs.isEmpty() ? nullptr : &content.paragraphs.last();
            if (!plain.isEmpty()) {
                switch (paragraph.kind) {
                case WordParagraph::Kind::Title:
                    if (title.isEmpty() && content.paragraphs.isEmpty())
                        title = plain;
                    else if (plain != title)
                        content.paragraphs.append(
                            NBParagraph::sectionParagraphWithTitle(paragraph.text.markupString()));
                    break;
                case WordParagraph::Kind::Author:
                    if (author.isEmpty())
                        author = plain;
                    break;
                case WordParagraph::Kind::Heading: {
                    QString headingTitle;
                    const bool mayBeTitle = title.isEmpty() && content.paragraphs.isEmpty();
                    if (const std::optional<NBParagraph> heading = NBHTMLParagraphReader::paragraphForHeading(
                            paragraph.level, paragraph.text, mayBeTitle, &headingTitle))
                        content.paragraphs.append(*heading);
                    else
                        title = headingTitle;
                    break;
                }
                case WordParagraph::Kind::Bullet:
                    content.paragraphs.append(NBParagraph::bulletParagraphWithContent(
                        paragraph.text.markupString(), paragraph.level));
                    break;
                case WordParagraph::Kind::Number:
                    content.paragraphs.append(NBParagraph::numberParagraphWithContent(
                        paragraph.text.markupString(), paragraph.level));
                    break;
                case WordParagraph::Kind::Note:
                    content.paragraphs.append(
                        NBParagraph::noteParagraphWithContent(paragraph.text.markupString()));
                    break;
                case WordParagraph::Kind::Code:
                    if (previous && previous->isCodeType() && !lastWasImage) {
                        NBMutableStyledString joined(previous->styledContent());
                        joined.appendString(QStringLiteral("\n"));
                        joined.appendStyledString(paragraph.text);
                        content.paragraphs.last().setContent(NBStyledString(joined).markupString());
                    } else {
                        content.paragraphs.append(
                            NBParagraph::codeParagraphWithContent(paragraph.text.markupString()));
                    }
                    break;
                case WordParagraph::Kind::Caption:
                    if (lastWasImage)
                        break;
                    content.paragraphs.append(
                        NBParagraph::normalParagraphWithContent(paragraph.text.markupString()));
                    break;
                case WordParagraph::Kind::Text: {
                    bool bold = true;
                    for (const NBStyledString::Run& run : paragraph.text.runs())
                        if (!run.styles.contains(NBStyle::bold()) &&
                            !paragraph.text.string().mid(run.location, run.length).trimmed().isEmpty())
                            bold = false;
                    if (bold) {
                        NBMutableStyledString plainText(paragraph.text);
                        plainText.removeStyle(NBStyle::bold(), NBTextRange{0, plainText.length()});
                        content.paragraphs.append(
                            NBParagraph::sectionParagraphWithTitle(NBStyledString(plainText).markupString()));
                    } else {
                        content.paragraphs.append(
                            NBParagraph::normalParagraphWithContent(paragraph.text.markupString()));
                    }
                }
                }
                lastWasImage = false;
            }
            for (const Image& image : paragraph.images) {
                const QString fileName =
                    nbSafeFileName(QFileInfo(image.entry).fileName(), QStringLiteral("image"));
                const QString target = content.temporaryDirectory->filePath(QString::number(++extracted) +
                                                                            QLatin1Char('/') + fileName);
                const std::optional<NBZipReader::Entry> entry = zip_.entryNamed(image.entry);
                NBError error;
                if (!entry || !zip_.extractEntry(*entry, target, &error)) {
                    if (outError)
                        *outError = NBError::errorWithObject("NBWordReader", kNBWordReaderErrorDamaged,
                                                             error.localizedDescription());
                    return std::nullopt;
                }
                NBParagraph attachment = NBParagraph::attachmentParagraphWithContent(
                    NBStyledString(image.caption).markupString(), path_ + QLatin1Char('/') + image.entry);
                content.attachmentFiles.insert(attachment.uuid(), target);
                content.paragraphs.append(attachment);
                lastWasImage = true;
            }
        }
        if (title.isEmpty())
            title = QFileInfo(path_).completeBaseName();
        content.metadata.insert(QStringLiteral("title"), title);
        if (!author.isEmpty())
            content.metadata.insert(QStringLiteral("author"), author);
        return content;
    }

    NBZipReader& zip_;
    const QString& path_;
    QString partFolder_;
    QHash<QString, WordStyle> styles_;
    QHash<QString, QHash<int, QString>> numberFormats_;
    QHash<QString, QString> externalTargets_;
    QHash<QString, QString> internalTargets_;
    QList<WordParagraph> paragraphs_;
    QHash<qsizetype, QList<QStringList>> tables_;
};

} // namespace

bool NBWordReader::isWordFile(const QString& path) {
    const std::unique_ptr<NBZipReader> zip = NBZipReader::open(path);
    return zip && zip->entryNamed(QStringLiteral("[Content_Types].xml")) &&
           (zip->entryNamed(QStringLiteral("word/document.xml")) ||
            zip->entryNamed(QStringLiteral("_rels/.rels")));
}

std::optional<NBDocumentContent> NBWordReader::contentFromWordFile(const QString& path, NBError* outError) {
    NBError error;
    const std::unique_ptr<NBZipReader> zip = NBZipReader::open(path, &error);
    if (!zip) {
        // A file that is no zip at all is no Word document; an archive that is hostile or damaged keeps the
        // archive's own explanation.
        const QString message = error.code() == kNBZipErrorOpen
                                    ? nbFormat("The file %@ is not a Word document", path)
                                    : error.localizedDescription();
        qCWarning(lcInterchange).noquote() << message;
        nbFail(outError, NBError::errorWithObject("NBWordReader",
                                                  error.code() == kNBZipErrorOpen ? kNBWordReaderErrorNotWord
                                                                                  : kNBWordReaderErrorDamaged,
                                                  message));
        return std::nullopt;
    }
    Reader reader(*zip, path);
    return reader.run(outError);
}
