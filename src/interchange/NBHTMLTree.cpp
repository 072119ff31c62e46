// NBHTMLTree: the tolerant HTML tree reader (the rules are in the header).
#include "interchange/NBHTMLTree.h"

#include "text/NBStyledString.h"

#include <QSet>

namespace {

const QSet<QString>& voidElements() {
    static const QSet<QString> set = {"area",  "base", "br",   "col",   "embed",  "hr",    "img",
                                      "input", "link", "meta", "param", "source", "track", "wbr"};
    return set;
}

// Elements whose start closes an open paragraph.
const QSet<QString>& paragraphClosers() {
    static const QSet<QString> set = {
        "address",  "article",    "aside",   "blockquote", "center", "details", "dialog", "dir", "div", "dl",
        "fieldset", "figcaption", "figure",  "footer",     "form",   "h1",      "h2",     "h3",  "h4",  "h5",
        "h6",       "header",     "hgroup",  "hr",         "li",     "main",    "menu",   "nav", "ol",  "p",
        "pre",      "section",    "summary", "table",      "ul",     "dd",      "dt"};
    return set;
}

// Elements a search for an element to close does not look beyond.
const QSet<QString>& scopeBoundaries() {
    static const QSet<QString> set = {"table", "td",      "th",      "blockquote", "div",    "body",
                                      "html",  "section", "article", "main",       "figure", "details"};
    return set;
}

bool isHeading(const QString& name) {
    return name.size() == 2 && name[0] == u'h' && name[1] >= u'1' && name[1] <= u'6';
}

bool isNameCharacter(QChar character) {
    return character.isLetterOrNumber() || character == u'-' || character == u':' || character == u'_';
}

bool isSpace(QChar character) {
    return character == u' ' || character == u'\t' || character == u'\n' || character == u'\r' ||
           character == u'\f';
}

class Parser {
public:
    Parser(const QString& source, NBHTMLNode& root) : source_(source) { stack_.push_back(&root); }

    void run() {
        const qsizetype length = source_.size();
        qsizetype position = 0;
        while (position < length) {
            const qsizetype open = source_.indexOf(u'<', position);
            if (open < 0) {
                appendText(position, length);
                break;
            }
            if (open > position)
                appendText(position, open);
            position = readMarkup(open);
        }
        closeAll(length);
    }

private:
    NBHTMLNode& current() { return *stack_.back(); }

    void appendText(qsizetype from, qsizetype to) {
        NBHTMLNode& parent = current();
        if (!parent.children.empty() && parent.children.back()->isText() &&
            parent.children.back()->end == from) {
            NBHTMLNode& last = *parent.children.back();
            last.end = last.contentEnd = to;
            return;
        }
        auto node = std::make_unique<NBHTMLNode>();
        node->type = NBHTMLNode::Type::Text;
        node->start = node->contentStart = from;
        node->end = node->contentEnd = to;
        node->parent = &parent;
        parent.children.push_back(std::move(node));
    }

    // Reads what starts with "<" at `open` and returns where reading goes on.
    qsizetype readMarkup(qsizetype open) {
        const qsizetype length = source_.size();
        const QChar next = open + 1 < length ? source_[open + 1] : QChar();
        if (QStringView(source_).mid(open).startsWith(u"<!--")) {
            const qsizetype close = source_.indexOf(QLatin1String("-->"), open + 4);
            return close < 0 ? length : close + 3;
        }
        if (next == u'!' || next == u'?') {
            const qsizetype close = source_.indexOf(u'>', open);
            return close < 0 ? length : close + 1;
        }
        if (next == u'/') {
            qsizetype position = open + 2;
            const qsizetype nameStart = position;
            while (position < length && isNameCharacter(source_[position]))
                ++position;
            const QString name = source_.mid(nameStart, position - nameStart).toLower();
            const qsizetype close = source_.indexOf(u'>', position);
            const qsizetype after = close < 0 ? length : close + 1;
            if (!name.isEmpty())
                closeElement(name, open, after);
            return after;
        }
        if (!next.isLetter()) {
            appendText(open, open + 1);
            return open + 1;
        }
        return readStartTag(open);
    }

    qsizetype readStartTag(qsizetype open) {
        const qsizetype length = source_.size();
        qsizetype position = open + 1;
        const qsizetype nameStart = position;
        while (position < length && isNameCharacter(source_[position]))
            ++position;
        auto node = std::make_unique<NBHTMLNode>();
        node->name = source_.mid(nameStart, position - nameStart).toLower();
        node->start = open;
        bool selfClosing = false;
        while (position < length) {
            const QChar character = source_[position];
            if (isSpace(character)) {
                ++position;
                continue;
            }
            if (character == u'>') {
                ++position;
                break;
            }
            if (character == u'/') {
                selfClosing = position + 1 < length && source_[position + 1] == u'>';
                ++position;
                continue;
            }
            const qsizetype attributeStart = position;
            while (position < length && !isSpace(source_[position]) && source_[position] != u'>' &&
                   source_[position] != u'/' && (source_[position] != u'=' || position == attributeStart))
                ++position;
            const QString attributeName = source_.mid(attributeStart, position - attributeStart).toLower();
            while (position < length && isSpace(source_[position]))
                ++position;
            QString value;
            if (position < length && source_[position] == u'=') {
                ++position;
                while (position < length && isSpace(source_[position]))
                    ++position;
                if (position < length && (source_[position] == u'"' || source_[position] == u'\'')) {
                    const QChar quote = source_[position];
                    const qsizetype close = source_.indexOf(quote, position + 1);
                    const qsizetype valueEnd = close < 0 ? length : close;
                    value = source_.mid(position + 1, valueEnd - position - 1);
                    position = close < 0 ? length : close + 1;
                } else {
                    const qsizetype valueStart = position;
                    while (position < length && !isSpace(source_[position]) && source_[position] != u'>')
                        ++position;
                    value = source_.mid(valueStart, position - valueStart);
                }
            }
            node->attributes.append({attributeName, nbDecodeHTMLCharacterReferences(value)});
        }
        node->contentStart = node->contentEnd = node->end = position;
        const QString name = node->name;
        closeImpliedBy(name, open);
        node->parent = &current();
        NBHTMLNode* element = node.get();
        current().children.push_back(std::move(node));

        if (name == QLatin1String("script") || name == QLatin1String("style") ||
            name == QLatin1String("title") || name == QLatin1String("textarea") ||
            name == QLatin1String("xmp")) {
            if (selfClosing)
                return position;
            const qsizetype close =
                source_.indexOf(QStringLiteral("</") + name, position, Qt::CaseInsensitive);
            const qsizetype contentEnd = close < 0 ? length : close;
            if (name != QLatin1String("script") && name != QLatin1String("style") && contentEnd > position) {
                auto text = std::make_unique<NBHTMLNode>();
                text->type = NBHTMLNode::Type::Text;
                text->start = text->contentStart = position;
                text->end = text->contentEnd = contentEnd;
                text->parent = element;
                element->children.push_back(std::move(text));
            }
            element->contentEnd = contentEnd;
            const qsizetype tagEnd = close < 0 ? length : source_.indexOf(u'>', close);
            element->end = tagEnd < 0 ? length : tagEnd + 1;
            return element->end;
        }
        if (selfClosing || voidElements().contains(name) || int(stack_.size()) > NBHTMLTree::kMaximumDepth)
            return position;
        stack_.push_back(element);
        return position;
    }

    // Closes what the start of `name` ends implicitly.
    void closeImpliedBy(const QString& name, qsizetype at) {
        if (paragraphClosers().contains(name))
            closeOpen({QStringLiteral("p")}, scopeBoundaries(), at);
        if (name == QLatin1String("li"))
            closeOpen({QStringLiteral("li")},
                      {QStringLiteral("ul"), QStringLiteral("ol"), QStringLiteral("table")}, at);
        else if (name == QLatin1String("dt") || name == QLatin1String("dd"))
            closeOpen({QStringLiteral("dt"), QStringLiteral("dd")},
                      {QStringLiteral("dl"), QStringLiteral("table")}, at);
        else if (name == QLatin1String("tr"))
            closeOpen({QStringLiteral("tr")}, {QStringLiteral("table")}, at);
        else if (name == QLatin1String("td") || name == QLatin1String("th"))
            closeOpen({QStringLiteral("td"), QStringLiteral("th")},
                      {QStringLiteral("tr"), QStringLiteral("table")}, at);
        else if (isHeading(name) && isHeading(current().name))
            popTo(stack_.size() - 1, at, at);
    }

    void closeOpen(const QSet<QString>& names, const QSet<QString>& boundaries, qsizetype at) {
        for (std::size_t index = stack_.size(); index-- > 1;) {
            const QString& open = stack_[index]->name;
            if (names.contains(open)) {
                popTo(index, at, at);
                return;
            }
            if (boundaries.contains(open))
                return;
        }
    }

    void closeElement(const QString& name, qsizetype tagStart, qsizetype tagEnd) {
        for (std::size_t index = stack_.size(); index-- > 1;) {
            if (stack_[index]->name == name) {
                popTo(index, tagStart, tagEnd);
                return;
            }
        }
    }

    // Closes the elements from the top of the stack down to `index` (inclusive); the one at `index` ends
    // with its end tag, the others where that tag starts.
    void popTo(std::size_t index, qsizetype tagStart, qsizetype tagEnd) {
        while (stack_.size() > index) {
            NBHTMLNode* node = stack_.back();
            stack_.pop_back();
            node->contentEnd = tagStart;
            node->end = stack_.size() == index ? tagEnd : tagStart;
        }
    }

    void closeAll(qsizetype length) {
        while (stack_.size() > 1) {
            NBHTMLNode* node = stack_.back();
            stack_.pop_back();
            node->contentEnd = node->end = length;
        }
        stack_.front()->contentEnd = stack_.front()->end = length;
    }

    const QString& source_;
    std::vector<NBHTMLNode*> stack_;
};

void appendTextContent(const QString& source, const NBHTMLNode& node, QString& out) {
    // Iterative walk: the tree is at most kMaximumDepth deep, but text content is asked of any node.
    std::vector<const NBHTMLNode*> pending = {&node};
    while (!pending.empty()) {
        const NBHTMLNode* next = pending.back();
        pending.pop_back();
        if (next->isText()) {
            out += nbDecodeHTMLCharacterReferences(
                QStringView(source).mid(next->start, next->end - next->start));
            continue;
        }
        if (next->name == QLatin1String("br"))
            out += u'\n';
        for (auto child = next->children.rbegin(); child != next->children.rend(); ++child)
            pending.push_back(child->get());
    }
}

} // namespace

QString NBHTMLNode::attribute(QStringView attributeName) const {
    for (const auto& [key, value] : attributes) {
        if (QStringView(key).compare(attributeName, Qt::CaseInsensitive) == 0)
            return value;
    }
    return QString();
}

QStringList NBHTMLNode::classNames() const {
    return attribute(u"class").split(QLatin1Char(' '), Qt::SkipEmptyParts);
}

NBHTMLTree::NBHTMLTree(QString html) : source_(std::move(html)), root_(std::make_unique<NBHTMLNode>()) {
    parse();
}

void NBHTMLTree::parse() {
    Parser parser(source_, *root_);
    parser.run();
}

QString NBHTMLTree::outerHTML(const NBHTMLNode& node) const {
    return source_.mid(node.start, node.end - node.start);
}

QString NBHTMLTree::innerHTML(const NBHTMLNode& node) const {
    return source_.mid(node.contentStart, node.contentEnd - node.contentStart);
}

QString NBHTMLTree::textContent(const NBHTMLNode& node) const {
    QString out;
    appendTextContent(source_, node, out);
    return out;
}
