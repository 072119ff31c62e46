// NBHTMLParagraphReader: HTML to paragraphs (the rules are in the header).
#include "interchange/NBHTMLParagraphReader.h"

#include "document/NBSpreadsheetData.h"
#include "interchange/NBHTMLTree.h"
#include "text/NBStyledString.h"

#include <QDate>
#include <QDir>
#include <QFileInfo>
#include <QRegularExpression>
#include <QSet>
#include <QUrl>

namespace {

const QSet<QString>& inlineElements() {
    static const QSet<QString> set = {"a",     "abbr", "acronym", "b",      "bdi",  "bdo", "big",   "br",
                                      "cite",  "code", "data",    "del",    "dfn",  "em",  "font",  "i",
                                      "img",   "ins",  "kbd",     "label",  "mark", "q",   "s",     "samp",
                                      "small", "span", "strike",  "strong", "sub",  "sup", "time",  "tt",
                                      "u",     "var",  "wbr",     "nobr",   "math", "svg", "input", "button"};
    return set;
}

const QSet<QString>& ignoredElements() {
    static const QSet<QString> set = {"script", "style",  "head",   "template", "noscript", "meta",
                                      "link",   "hr",     "object", "iframe",   "canvas",   "video",
                                      "audio",  "select", "option", "colgroup", "col",      "base"};
    return set;
}

bool isHeading(const QString& name) {
    return name.size() == 2 && name[0] == u'h' && name[1] >= u'1' && name[1] <= u'6';
}

bool isWhiteSpaceText(QStringView text) {
    for (QChar character : text)
        if (!character.isSpace())
            return false;
    return true;
}

NBStyledString withoutBold(const NBStyledString& styled) {
    NBMutableStyledString copy(styled);
    copy.removeStyle(NBStyle::bold(), NBTextRange{0, copy.length()});
    return copy;
}

bool isBoldThroughout(const NBStyledString& styled) {
    if (styled.string().trimmed().isEmpty())
        return false;
    for (const NBStyledString::Run& run : styled.runs()) {
        if (!run.styles.contains(NBStyle::bold()) &&
            !isWhiteSpaceText(QStringView(styled.string()).mid(run.location, run.length)))
            return false;
    }
    return true;
}

// Removes the first `count` characters and the white space that follows them: all of it, or only the one
// space or line break that separates a callout's marker from its text (what follows may be the text's own
// white space).
enum class Separator { All, One };
NBStyledString droppingPrefix(const NBStyledString& styled, qsizetype count, Separator separator) {
    const QString& text = styled.string();
    if (separator == Separator::One) {
        if (count < text.size() && (text[count] == u' ' || text[count] == u'\n'))
            ++count;
    } else {
        while (count < text.size() && (text[count] == u' ' || text[count] == u'\t'))
            ++count;
        if (count < text.size() && text[count] == u'\n')
            ++count;
    }
    return styled.styledSubstringFromRange(NBTextRange{count, text.size() - count});
}

class Walker {
public:
    Walker(const NBHTMLTree& tree, const NBHTMLReadOptions& options) : tree_(tree), options_(options) {}

    NBHTMLReadResult run() {
        Context context;
        walkChildren(tree_.root(), context);
        return std::move(result_);
    }

private:
    struct Context {
        bool inCallout = false;
        NBParagraphKind calloutKind = NBParagraphKind::Note;
    };

    void walkChildren(const NBHTMLNode& node, Context& context) {
        std::vector<const NBHTMLNode*> pending;
        for (const auto& child : node.children) {
            if (child->isText() || inlineElements().contains(child->name)) {
                pending.push_back(child.get());
                continue;
            }
            flushInline(pending, context, false);
            visitBlock(*child, context);
        }
        flushInline(pending, context, false);
    }

    void visitBlock(const NBHTMLNode& node, Context& context) {
        const QString& name = node.name;
        if (isHeading(name)) {
            heading(name[1].digitValue(), styledInner(node));
        } else if (name == QLatin1String("p")) {
            std::vector<const NBHTMLNode*> children;
            for (const auto& child : node.children) {
                if (child->isText() || inlineElements().contains(child->name)) {
                    children.push_back(child.get());
                    continue;
                }
                flushInline(children, context, true);
                visitBlock(*child, context);
            }
            flushInline(children, context, true);
        } else if (name == QLatin1String("blockquote")) {
            Context inner;
            inner.inCallout = true;
            walkChildren(node, inner);
        } else if (name == QLatin1String("ul") || name == QLatin1String("ol") ||
                   name == QLatin1String("menu") || name == QLatin1String("dir")) {
            list(node, 0, name == QLatin1String("ol"));
        } else if (name == QLatin1String("li")) {
            item(node, 0, node.parent && node.parent->isElement(u"ol"));
        } else if (name == QLatin1String("pre")) {
            code(node);
        } else if (name == QLatin1String("table")) {
            table(node);
        } else if (name == QLatin1String("title")) {
            if (result_.title.isNull())
                result_.title = tree_.textContent(node).simplified();
        } else if (ignoredElements().contains(name)) {
            return;
        } else if (const std::optional<NBParagraphKind> kind = calloutKindOfContainer(node)) {
            Context inner;
            inner.inCallout = true;
            inner.calloutKind = *kind;
            walkChildren(node, inner);
        } else {
            walkChildren(node, context);
        }
    }

    static std::optional<NBParagraphKind> calloutKindOfContainer(const NBHTMLNode& node) {
        if (node.name != QLatin1String("div") && node.name != QLatin1String("aside"))
            return std::nullopt;
        for (const QString& word : node.classNames()) {
            const QString lower = word.toLower();
            if (lower == QLatin1String("note"))
                return NBParagraphKind::Note;
            if (lower == QLatin1String("warning"))
                return NBParagraphKind::Warning;
            if (lower == QLatin1String("error"))
                return NBParagraphKind::Error;
        }
        return std::nullopt;
    }

    NBStyledString styledInner(const NBHTMLNode& node) const {
        return NBStyledString::styledStringFromHTMLString(tree_.innerHTML(node));
    }

    NBStyledString styledNodes(const std::vector<const NBHTMLNode*>& nodes) const {
        QString html;
        for (const NBHTMLNode* node : nodes)
            html += tree_.outerHTML(*node);
        return NBStyledString::styledStringFromHTMLString(html);
    }

    // The paragraph made of the inline nodes gathered so far. `explicitParagraph`: they are the content of
    // a p element, which the Quillon form writes even when empty.
    void flushInline(std::vector<const NBHTMLNode*>& nodes, Context& context, bool explicitParagraph) {
        if (nodes.empty() && !(explicitParagraph && options_.quillonForm))
            return;
        std::vector<const NBHTMLNode*> taken;
        taken.swap(nodes);
        if (attachment(taken))
            return;
        NBStyledString styled = styledNodes(taken);
        if (context.inCallout) {
            static const QRegularExpression marker(QStringLiteral("^\\s*\\[!([A-Za-z]+)\\]"));
            const QRegularExpressionMatch match = marker.match(styled.string());
            if (match.hasMatch()) {
                if (const auto kind = NBHTMLParagraphReader::calloutKindForMarker(match.captured(1))) {
                    context.calloutKind = *kind;
                    styled = droppingPrefix(styled, match.capturedEnd(0), Separator::One);
                    append(paragraphOfKind(*kind, styled.markupString()));
                    return;
                }
            }
        }
        const bool empty = styled.string().trimmed().isEmpty();
        if (empty && !options_.quillonForm && !(explicitParagraph && context.inCallout))
            return;
        if (empty && !explicitParagraph && !context.inCallout)
            return;
        if (context.inCallout) {
            append(paragraphOfKind(context.calloutKind, styled.markupString()));
        } else if (!options_.quillonForm && isBoldThroughout(styled)) {
            append(NBParagraph::sectionParagraphWithTitle(withoutBold(styled).markupString()));
        } else {
            append(NBParagraph::normalParagraphWithContent(styled.markupString()));
        }
    }

    static NBParagraph paragraphOfKind(NBParagraphKind kind, const QString& content) {
        switch (kind) {
        case NBParagraphKind::Warning:
            return NBParagraph::warningParagraphWithContent(content);
        case NBParagraphKind::Error:
            return NBParagraph::errorParagraphWithContent(content);
        default:
            return NBParagraph::noteParagraphWithContent(content);
        }
    }

    // A paragraph that is only a link or an image to a local file becomes an attachment.
    bool attachment(const std::vector<const NBHTMLNode*>& nodes) {
        const NBHTMLNode* element = nullptr;
        for (const NBHTMLNode* node : nodes) {
            if (node->isText() &&
                isWhiteSpaceText(QStringView(tree_.source()).mid(node->start, node->end - node->start)))
                continue;
            if (element || node->isText())
                return false;
            element = node;
        }
        if (!element)
            return false;
        // A link around nothing but an image counts as the image's link.
        const NBHTMLNode* image = element->isElement(u"img") ? element : nullptr;
        if (element->isElement(u"a")) {
            for (const auto& child : element->children) {
                if (child->isText() &&
                    isWhiteSpaceText(
                        QStringView(tree_.source()).mid(child->start, child->end - child->start)))
                    continue;
                image = child->isElement(u"img") && element->children.size() == 1 ? child.get() : nullptr;
                break;
            }
        } else if (!image) {
            return false;
        }
        const bool bareImage = image && !element->isElement(u"a");
        const QString address = bareImage ? image->attribute(u"src") : element->attribute(u"href");
        const QString title = element->attribute(u"title");
        const bool marked = title == QLatin1String("attachment") ||
                            (image && image->attribute(u"title") == QLatin1String("attachment"));
        QString text = image ? image->attribute(u"alt") : styledInner(*element).string();
        if (options_.quillonForm && !marked)
            return bareImage ? linkParagraph(address, text) : false;
        const std::optional<QString> file =
            NBHTMLParagraphReader::localFileForLink(address, options_.attachmentFolder);
        if (!file) {
            if (options_.quillonForm && marked) {
                result_.missingFiles.append(QUrl::fromPercentEncoding(address.toUtf8()));
                return true;
            }
            return bareImage ? linkParagraph(address, text) : false;
        }
        if (text.trimmed().isEmpty() && !options_.quillonForm)
            text = QFileInfo(*file).fileName();
        NBParagraph paragraph =
            NBParagraph::attachmentParagraphWithContent(NBStyledString(text).markupString(), *file);
        result_.attachmentFiles.insert(paragraph.uuid(), *file);
        append(paragraph);
        return true;
    }

    // An image that is not an attachment: a paragraph linking to its address.
    bool linkParagraph(const QString& address, const QString& text) {
        if (address.trimmed().isEmpty())
            return true;
        const QString shown = text.trimmed().isEmpty() ? address : text;
        NBMutableStyledString styled(shown);
        styled.addStyle(NBStyle::styleForHyperlinkURL(address == shown ? QString() : address),
                        NBTextRange{0, styled.length()});
        append(NBParagraph::normalParagraphWithContent(styled.markupString()));
        return true;
    }

    void heading(int level, const NBStyledString& styled) {
        const QString text = styled.string().trimmed();
        if (options_.quillonForm) {
            if (level == 1 && result_.paragraphs.isEmpty() && !titleTaken_) {
                takeTitle(text);
                return;
            }
            if (level == 2) {
                if (text == QLatin1String("Day")) {
                    NBParagraph day = NBParagraph::dayParagraphWithDayRep(QString());
                    day.setDayRep(QString());
                    append(day);
                    return;
                }
                const NBDay day = NBHTMLParagraphReader::dayFromHeadingText(text);
                if (!day.isNull()) {
                    append(NBParagraph::dayParagraphWithDay(day));
                    return;
                }
            }
            if (level == 3) {
                append(NBParagraph::stepParagraphWithTitle(styled.markupString(), QString(), QString()));
                return;
            }
            append(NBParagraph::sectionParagraphWithTitle(styled.markupString()));
            return;
        }
        const bool mayBeTitle =
            result_.paragraphs.isEmpty() && !titleTaken_ && result_.title.isNull() && !options_.titleKnown;
        QString title;
        if (const std::optional<NBParagraph> paragraph =
                NBHTMLParagraphReader::paragraphForHeading(level, styled, mayBeTitle, &title))
            append(*paragraph);
        else
            takeTitle(title);
    }

    void takeTitle(const QString& text) {
        titleTaken_ = true;
        result_.title = text;
    }

    void list(const NBHTMLNode& node, qint64 level, bool ordered) {
        for (const auto& child : node.children) {
            if (child->isElement(u"li"))
                item(*child, level, ordered);
            else if (child->isElement(u"ul") || child->isElement(u"ol"))
                list(*child, level + 1, child->isElement(u"ol"));
        }
    }

    void item(const NBHTMLNode& node, qint64 level, bool ordered) {
        std::vector<const NBHTMLNode*> inlineNodes;
        NBMutableStyledString content;
        bool hasContent = false;
        bool emitted = false;
        const auto addText = [&](const NBStyledString& styled) {
            if (hasContent && !styled.isEmpty())
                content.appendString(QStringLiteral("\n"));
            if (!styled.isEmpty() || !hasContent)
                content.appendStyledString(styled);
            hasContent = true;
        };
        const auto emit = [&] {
            if (!inlineNodes.empty()) {
                const NBStyledString styled = styledNodes(inlineNodes);
                inlineNodes.clear();
                if (!styled.string().trimmed().isEmpty() || options_.quillonForm)
                    addText(styled);
            }
            if (emitted || (!hasContent && !options_.quillonForm))
                return;
            emitted = true;
            const QString markup = NBStyledString(content).markupString();
            append(ordered ? NBParagraph::numberParagraphWithContent(markup, level)
                           : NBParagraph::bulletParagraphWithContent(markup, level));
        };
        for (const auto& child : node.children) {
            if (child->isText() || inlineElements().contains(child->name)) {
                inlineNodes.push_back(child.get());
                continue;
            }
            if (child->isElement(u"p") && !emitted) {
                if (!inlineNodes.empty()) {
                    const NBStyledString styled = styledNodes(inlineNodes);
                    inlineNodes.clear();
                    if (!styled.string().trimmed().isEmpty())
                        addText(styled);
                }
                addText(styledInner(*child));
                continue;
            }
            emit();
            if (child->isElement(u"ul") || child->isElement(u"ol")) {
                list(*child, level + 1, child->isElement(u"ol"));
            } else {
                Context context;
                visitBlock(*child, context);
            }
        }
        emit();
    }

    void code(const NBHTMLNode& node) {
        NBStyledString styled = NBStyledString::styledStringFromHTMLString(tree_.outerHTML(node));
        if (styled.string().endsWith(u'\n'))
            styled = styled.styledSubstringFromRange(NBTextRange{0, styled.length() - 1});
        append(NBParagraph::codeParagraphWithContent(styled.markupString()));
    }

    void table(const NBHTMLNode& node) {
        QList<QStringList> rows;
        // Rows in document order, looking through thead, tbody and tfoot but not into nested tables.
        std::vector<const NBHTMLNode*> rowNodes;
        const auto collectRows = [&](const NBHTMLNode& container, const auto& self) -> void {
            for (const auto& child : container.children) {
                if (child->isElement(u"tr"))
                    rowNodes.push_back(child.get());
                else if (child->isElement(u"thead") || child->isElement(u"tbody") ||
                         child->isElement(u"tfoot"))
                    self(*child, self);
            }
        };
        collectRows(node, collectRows);
        for (const NBHTMLNode* row : rowNodes) {
            QStringList cells;
            for (const auto& cell : row->children) {
                if (!cell->isElement(u"td") && !cell->isElement(u"th"))
                    continue;
                cells.append(styledInner(*cell).markupString());
                const int span = std::clamp(cell->attribute(u"colspan").toInt(), 1, 1000);
                for (int extra = 1; extra < span; ++extra)
                    cells.append(QString());
            }
            rows.append(cells);
        }
        if (rows.isEmpty())
            return;
        append(NBSpreadsheetData::spreadsheetDataWithArrayOfArrayOfMarkupStrings(rows).tableParagraph());
    }

    void append(const NBParagraph& paragraph) { result_.paragraphs.append(paragraph); }

    const NBHTMLTree& tree_;
    const NBHTMLReadOptions& options_;
    NBHTMLReadResult result_;
    bool titleTaken_ = false;
};

} // namespace

NBHTMLReadResult NBHTMLParagraphReader::paragraphsFromHTML(const QString& html,
                                                           const NBHTMLReadOptions& options) {
    const NBHTMLTree tree(html);
    return Walker(tree, options).run();
}

std::optional<NBParagraph> NBHTMLParagraphReader::paragraphForHeading(int level, const NBStyledString& text,
                                                                      bool mayBeTitle, QString* outTitle) {
    const NBDay day = dayFromHeadingText(text.string());
    if (!day.isNull())
        return NBParagraph::dayParagraphWithDay(day);
    if (level == 1 && mayBeTitle) {
        if (outTitle)
            *outTitle = text.string().trimmed();
        return std::nullopt;
    }
    static const QRegularExpression step(QStringLiteral("^\\s*step\\s+\\d+\\s*(?:[:.)\\-]\\s*|$)"),
                                         QRegularExpression::CaseInsensitiveOption);
    const QRegularExpressionMatch match = step.match(text.string());
    if (match.hasMatch()) {
        const NBStyledString rest = droppingPrefix(text, match.capturedEnd(0), Separator::All);
        return NBParagraph::stepParagraphWithTitle(
            (rest.string().trimmed().isEmpty() ? text : rest).markupString(), QString(), QString());
    }
    return NBParagraph::sectionParagraphWithTitle(text.markupString());
}

NBDay NBHTMLParagraphReader::dayFromHeadingText(QStringView text) {
    static const QRegularExpression relative(QStringLiteral("^Day\\s+(-?\\d{1,9})$"),
                                             QRegularExpression::CaseInsensitiveOption);
    static const QRegularExpression calendar(QStringLiteral("^(\\d{4})-(\\d{2})-(\\d{2})$"));
    const QString trimmed = text.trimmed().toString();
    if (const QRegularExpressionMatch match = relative.match(trimmed); match.hasMatch())
        return NBDay::relativeDayWithInteger(match.captured(1).toLongLong());
    if (const QRegularExpressionMatch match = calendar.match(trimmed); match.hasMatch()) {
        const QDate date(match.captured(1).toInt(), match.captured(2).toInt(), match.captured(3).toInt());
        if (!date.isValid())
            return NBDay();
        return NBDay::dayWithDateComponents(
            NBDayComponents{date.year(), date.month(), std::nullopt, date.day()});
    }
    return NBDay();
}

QString NBHTMLParagraphReader::headingTextForDay(const NBDay& day) {
    if (day.isNull())
        return QStringLiteral("Day");
    if (day.isRelativeDay())
        return QStringLiteral("Day %1").arg(day.dayInterval());
    const NBDayComponents components = day.dateComponents();
    return QStringLiteral("%1-%2-%3")
        .arg(components.year.value_or(0), 4, 10, QLatin1Char('0'))
        .arg(components.month.value_or(0), 2, 10, QLatin1Char('0'))
        .arg(components.day.value_or(0), 2, 10, QLatin1Char('0'));
}

std::optional<NBParagraphKind> NBHTMLParagraphReader::calloutKindForMarker(QStringView word) {
    static const QHash<QString, NBParagraphKind> kinds = {
        {"note", NBParagraphKind::Note},       {"tip", NBParagraphKind::Note},
        {"info", NBParagraphKind::Note},       {"important", NBParagraphKind::Note},
        {"hint", NBParagraphKind::Note},       {"todo", NBParagraphKind::Note},
        {"example", NBParagraphKind::Note},    {"question", NBParagraphKind::Note},
        {"abstract", NBParagraphKind::Note},   {"summary", NBParagraphKind::Note},
        {"quote", NBParagraphKind::Note},      {"warning", NBParagraphKind::Warning},
        {"caution", NBParagraphKind::Warning}, {"attention", NBParagraphKind::Warning},
        {"danger", NBParagraphKind::Warning},  {"error", NBParagraphKind::Error},
        {"failure", NBParagraphKind::Error},   {"fail", NBParagraphKind::Error},
        {"bug", NBParagraphKind::Error},       {"missing", NBParagraphKind::Error},
    };
    const auto found = kinds.constFind(word.toString().toLower());
    if (found == kinds.cend())
        return std::nullopt;
    return *found;
}

std::optional<QString> NBHTMLParagraphReader::localFileForLink(const QString& address, const QString& folder,
                                                               bool* outInsideButMissing) {
    if (outInsideButMissing)
        *outInsideButMissing = false;
    static const QRegularExpression scheme(QStringLiteral("^[A-Za-z][A-Za-z0-9+.\\-]*:"));
    const QString trimmed = address.trimmed();
    if (folder.isEmpty() || trimmed.isEmpty() || scheme.match(trimmed).hasMatch() ||
        trimmed.startsWith(u'/') || trimmed.startsWith(u'\\') || trimmed.startsWith(u'#') ||
        trimmed.startsWith(u'?'))
        return std::nullopt;
    QString path = trimmed;
    const qsizetype cut = path.indexOf(QRegularExpression(QStringLiteral("[?#]")));
    if (cut >= 0)
        path.truncate(cut);
    path = QUrl::fromPercentEncoding(path.toUtf8());
    if (path.isEmpty() || path.contains(QChar(0)) || path.startsWith(u'/'))
        return std::nullopt;
    const QString root = QFileInfo(folder).canonicalFilePath();
    if (root.isEmpty())
        return std::nullopt;
    const QString joined = QDir::cleanPath(root + QLatin1Char('/') + path);
    if (!joined.startsWith(root + QLatin1Char('/')))
        return std::nullopt;
    const QFileInfo info(joined);
    const QString canonical = info.canonicalFilePath();
    if (canonical.isEmpty() || !info.isFile()) {
        if (outInsideButMissing)
            *outInsideButMissing = canonical.isEmpty();
        return std::nullopt;
    }
    if (!canonical.startsWith(root + QLatin1Char('/')))
        return std::nullopt;
    return canonical;
}
