// NBHTMLTree: a tolerant reader of HTML into a tree of elements and text, for the importers that find
// paragraph structure in HTML (Markdown through discount, HTML files, the text of .eln datasets).
//
// The tree keeps where each node sits in the source, so a reader can hand the exact source of an inline
// stretch to the styled-text HTML reader (NBStyledString::styledStringFromHTMLString), which decides what
// its characters and styles are. This reader only decides structure:
//   - Comments, doctypes, processing instructions and CDATA-like "<!" sections are dropped.
//   - Element names are lower-cased; attribute values have their character references decoded.
//   - Void elements (br, hr, img, input, meta, link, col, area, base, embed, param, source, track, wbr)
//     have no content; "/>" closes any element at once.
//   - script and style keep no content; title, textarea and xmp keep theirs as one text node; each runs to
//     its own end tag, whatever it contains.
//   - Ends are implied as browsers imply them: a block element closes an open p; li closes the open li of
//     its list, dt and dd close each other, tr closes the open row and td or th the open cell; a heading
//     closes an open heading. An end tag closes the nearest open element of that name and everything opened
//     inside it; an end tag with no open element of its name is ignored. Elements still open at the end
//     close there.
//   - Nesting deeper than kMaximumDepth is flattened: deeper elements become siblings of the deepest one,
//     so no input, however deep, makes a walk over the tree recurse without bound.
// Any text reads as some tree; nothing is rejected.
#pragma once

#include <QList>
#include <QPair>
#include <QString>

#include <memory>
#include <vector>

class NBHTMLNode {
public:
    enum class Type { Element, Text };

    Type type = Type::Element;
    // Lower-case element name; empty for text and for the root.
    QString name;
    QList<QPair<QString, QString>> attributes;
    // Offsets in the source: the node's start and end, and for elements the start and end of the content
    // between the tags (for text, the content is the node).
    qsizetype start = 0;
    qsizetype contentStart = 0;
    qsizetype contentEnd = 0;
    qsizetype end = 0;
    std::vector<std::unique_ptr<NBHTMLNode>> children;
    NBHTMLNode* parent = nullptr;

    bool isText() const { return type == Type::Text; }
    bool isElement(QStringView elementName) const { return type == Type::Element && name == elementName; }
    // The attribute's value (case-insensitive name), or a null string.
    QString attribute(QStringView attributeName) const;
    // The words of the "class" attribute.
    QStringList classNames() const;
};

class NBHTMLTree {
public:
    static constexpr int kMaximumDepth = 200;

    explicit NBHTMLTree(QString html);
    NBHTMLTree(const NBHTMLTree&) = delete;
    NBHTMLTree& operator=(const NBHTMLTree&) = delete;

    const NBHTMLNode& root() const { return *root_; }
    const QString& source() const { return source_; }

    QString outerHTML(const NBHTMLNode& node) const;
    QString innerHTML(const NBHTMLNode& node) const;
    // The text of the node and its descendants, character references decoded, markup left out.
    QString textContent(const NBHTMLNode& node) const;

private:
    void parse();

    QString source_;
    std::unique_ptr<NBHTMLNode> root_;
};
