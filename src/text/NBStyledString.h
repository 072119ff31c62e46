// NBStyledString and NBMutableStyledString: plain text with a set of character styles at every index, and
// the tag markup in which paragraphs store it.
//
// The styles are kept as runs: consecutive ranges, each with one NBStyleSet, that together cover the text
// exactly, none empty, no two neighbours with equal sets. So a run is the longest effective range of its set,
// and a string of n characters with r style changes costs O(r) beyond its text. Indices and lengths count
// UTF-16 code units, as QString does.
//
// The markup (a paragraph's "content" value):
//   Writing: an empty string gives "". Each run is written in turn: its styles, in ascending order of
//   attribute key, open with "<" tag ">" (a colour style with "<" tag "#" hexadecimal colour ">", a hyperlink
//   with an address with <a href="address">, the address escaped with &amp; &lt; &gt; &quot;); then the run's
//   text with every "&" replaced by "&amp;" and then every "<" by "&lt;" (">" is not escaped); then "</" tag
//   ">" for each style in reverse order. No tag stays open across runs. Styles without a tag (keys other
//   than the eleven of NBStyle.h) are not written.
//   Reading: the text up to the next "<" is unescaped by replacing "&amp;" with "&" and then "&lt;" with "<"
//   (so "&amp;lt;" reads as "<": text that itself held "&lt;" comes back as "<"; this double unescape is how
//   existing documents were written and is kept), and gets every open style. A run of n "<" characters gives
//   n - 1 literal "<". After a "<", a "/" makes a closing tag; the tag runs to the next ">" (or the end). A
//   closing tag ends the open style stored under that tag (an unknown one does nothing and disappears). An
//   opening tag that names a style (NBStyle::styleWithOpeningMarkupTag) opens it, replacing an open style of
//   the same tag; any other opening tag is kept as text: "<", the tag, and ">" when there was one. Styles
//   never closed run to the end of the text. Any text reads as some styled string; nothing is rejected.
#pragma once

#include "foundation/NBTextRange.h"
#include "text/NBStyle.h"

#include <QString>

#include <vector>

class NBStyledString {
public:
    // One run of text with a single set of styles.
    struct Run {
        qsizetype location = 0;
        qsizetype length = 0;
        NBStyleSet styles;
    };

    NBStyledString() = default;
    explicit NBStyledString(const QString& string, const NBStyleSet& styles = {});

    const QString& string() const { return string_; }
    qsizetype length() const { return string_.size(); }
    bool isEmpty() const { return string_.isEmpty(); }

    // The styles in force at an index (empty outside the text).
    NBStyleSet stylesAtIndex(qsizetype index) const;
    // The same, and the longest range within `inRange` around the index over which the set is unchanged.
    NBStyleSet stylesAtIndex(qsizetype index, NBTextRange* longestEffectiveRange, NBTextRange inRange) const;
    // The runs in order, covering the text.
    std::vector<Run> runs() const;
    qsizetype runCount() const { return qsizetype(runs_.size()); }

    // Ranges are clamped to the text.
    NBStyledString styledSubstringFromRange(NBTextRange range) const;
    NBStyledString styledStringByAppendingStyledString(const NBStyledString& other) const;

    // The tag markup (see the header comment).
    QString markupString() const;
    static NBStyledString styledStringFromMarkupString(QStringView markup);

    // An HTML fragment for export and the clipboard, and its reader for pasted or imported HTML
    // (NBStyledStringHTML.cpp, which documents the forms read).
    QString htmlFragmentString() const;
    static NBStyledString styledStringFromHTMLString(QStringView html);

    // Inline Markdown (NBStyledStringMarkdown.cpp, which documents the syntax).
    QString markdownString() const;
    static NBStyledString styledStringFromInlineMarkdownString(QStringView markdown);

    bool operator==(const NBStyledString& other) const;
    bool operator!=(const NBStyledString& other) const { return !(*this == other); }

protected:
    struct StoredRun {
        qsizetype location;
        NBStyleSet styles;
    };

    // Index of the run holding `index` (which must be inside the text).
    std::size_t runIndexForIndex(qsizetype index) const;
    qsizetype runEnd(std::size_t runIndex) const;
    // Makes a run start at `index` (0 < index < length) and returns its position in runs_.
    std::size_t splitRunAt(qsizetype index);
    // Merges equal neighbours and drops empty runs, restoring the invariant.
    void normalize();
    NBTextRange clampedRange(NBTextRange range) const;
    // Appends text with styles without normalising.
    void appendRaw(QStringView text, const NBStyleSet& styles);

    QString string_;
    std::vector<StoredRun> runs_;
};

// Decodes HTML character references (named, decimal, hexadecimal); unknown ones stay as text.
QString nbDecodeHTMLCharacterReferences(QStringView text);

// The editable form. Editing keeps the runs normalised.
class NBMutableStyledString : public NBStyledString {
public:
    NBMutableStyledString() = default;
    explicit NBMutableStyledString(const QString& string, const NBStyleSet& styles = {})
        : NBStyledString(string, styles) {}
    NBMutableStyledString(const NBStyledString& other) : NBStyledString(other) {}

    // Adds the style over the range, replacing a style of the same key.
    void addStyle(const NBStyle& style, NBTextRange range);
    // Removes the style's attribute (whatever its value) over the range.
    void removeStyle(const NBStyle& style, NBTextRange range);
    void removeTextColorInRange(NBTextRange range);
    void removeBackgroundColorInRange(NBTextRange range);
    void removeAllStylesInRange(NBTextRange range);
    void setStyles(const NBStyleSet& styles, NBTextRange range);
    void appendString(const QString& string, const NBStyleSet& styles = {});
    void appendStyledString(const NBStyledString& other);
    // Replaces the characters of the range by the string, which takes the styles of the first replaced
    // character (or of the character before an insertion point), as typing does.
    void replaceCharactersInRange(NBTextRange range, const QString& string);
    void replaceCharactersInRange(NBTextRange range, const NBStyledString& replacement);
    void insertStyledString(const NBStyledString& inserted, qsizetype index);
    void deleteCharactersInRange(NBTextRange range);

private:
    template <typename Change> void changeStyles(NBTextRange range, Change change);
};
