// NBStyle and NBStyleSet: the character styles of styled text, their tag tables and the hexadecimal colour
// text that the tag markup uses.
//
// A style is an attribute key with a value. The seven on/off styles (bold, italic, superscript, subscript,
// underline, strikethrough, small capitals) carry `true`; the text and background colour styles carry an
// NBColor, or no value at all for the "any colour" styles that stand for the presence of a colour of that
// kind in queries (and for a colour tag whose colour could not be read). The pop style carries `true`. The
// hyperlink style carries a QString: the link's address, or the empty string for the shared instance, which
// means "the text itself is the address" (links found in typed text).
//
// Markup tags (the paragraph content format, see NBStyledString.h):
//
//   style            attribute key          tag
//   bold             "NBBold"               b
//   italic           "NBItalic"             i
//   superscript      "NBSuperscript"        sup
//   subscript        "NBSubscript"          sub
//   underline        "NBUnderline"          u
//   strikethrough    "NBStrikethrough"      del
//   small capitals   "NBSmallCaps"          sc
//   text colour      "NBTextColor"          c     opened as <c#RRGGBB> (or <c#RRGGBBAA>, <c#> for no colour)
//   background       "NBBackgroundColor"    h     opened as <h#RRGGBB>
//   pop              "NBPop"                pop
//   hyperlink        "NBHyperlink"          a     opened as <a> (shared) or <a href="address">
//
// Colour text: an optional "#" then 1, 2, 3, 4, 6 or 8 hexadecimal digits, all of which must be used. One
// digit is a grey nibble (times 17), two a grey byte, three and four red, green, blue (and alpha) nibbles
// (times 17), six and eight RRGGBB(AA) bytes. Any other length or character gives no colour. The writer
// produces six upper-case digits for an opaque colour and eight otherwise.
#pragma once

#include "text/NBColor.h"

#include <QHash>
#include <QList>
#include <QString>
#include <QVariant>

#include <optional>

inline constexpr const char* NBBoldAttributeName = "NBBold";
inline constexpr const char* NBItalicAttributeName = "NBItalic";
inline constexpr const char* NBSuperscriptAttributeName = "NBSuperscript";
inline constexpr const char* NBSubscriptAttributeName = "NBSubscript";
inline constexpr const char* NBUnderlineAttributeName = "NBUnderline";
inline constexpr const char* NBStrikethroughAttributeName = "NBStrikethrough";
inline constexpr const char* NBSmallCapsAttributeName = "NBSmallCaps";
inline constexpr const char* NBTextColorAttributeName = "NBTextColor";
inline constexpr const char* NBBackgroundColorAttributeName = "NBBackgroundColor";
inline constexpr const char* NBPopAttributeName = "NBPop";
inline constexpr const char* NBHyperlinkAttributeName = "NBHyperlink";

class NBStyle {
public:
    // What a style is, so that code can switch over styles without comparing key strings.
    enum class Kind : quint8 {
        None,
        Bold,
        Italic,
        Superscript,
        Subscript,
        Underline,
        Strikethrough,
        SmallCaps,
        TextColor,
        BackgroundColor,
        Pop,
        Hyperlink,
        Other
    };

    // A null style (no key); never found in a styled string.
    NBStyle() = default;

    // The shared instances.
    static const NBStyle& bold();
    static const NBStyle& italic();
    static const NBStyle& superscript();
    static const NBStyle& subscript();
    static const NBStyle& underline();
    static const NBStyle& strikethrough();
    static const NBStyle& smallCaps();
    static const NBStyle& anyTextColor();
    static const NBStyle& anyBackgroundColor();
    static const NBStyle& pop();
    static const NBStyle& hyperlink();

    // The shared instance for an on/off key whose value is true; otherwise a new style with that key and
    // value (the value may be null, as for an unreadable colour).
    static NBStyle styleWithKey(const QString& key, const QVariant& value);
    // A colour style; an invalid colour gives the shared any-colour style of that kind.
    static NBStyle styleForTextColor(NBColor color);
    static NBStyle styleForBackgroundColor(NBColor color);
    // A hyperlink to an address; the empty address gives the shared hyperlink style.
    static NBStyle styleForHyperlinkURL(const QString& url);
    // The style an opening markup tag stands for ("b", "c#FF0000", "a href=\"...\""), or a null style.
    static NBStyle styleWithOpeningMarkupTag(QStringView tag);

    // attribute key -> markup tag for the nine keys of the tag table, its inverse, and tag -> shared style
    // (the colour tags give the any-colour styles).
    static const QHash<QString, QString>& markupTagsForStyleNames();
    static const QHash<QString, QString>& styleNamesForMarkupTags();
    static const QHash<QString, NBStyle>& stylesForMarkupTags();

    // The colour reader and writer of the markup (see the header comment).
    static std::optional<NBColor> colorFromHexString(QStringView text);
    static QString hexStringFromColor(NBColor color);

    bool isNull() const { return kind_ == Kind::None; }
    Kind kind() const { return kind_; }
    const QString& attributeKey() const { return key_; }
    const QVariant& attributeValue() const { return value_; }
    bool isColorStyle() const { return kind_ == Kind::TextColor || kind_ == Kind::BackgroundColor; }
    // The colour of a colour style (invalid when it has none).
    NBColor color() const;
    // The address of a hyperlink style (empty for the shared one).
    QString hyperlinkURL() const;

    // The tag this style opens and closes with ("" for keys without a tag), and the full opening tag.
    QString markupTag() const;
    QString openingMarkupTag() const;

    // True when this style is `other`, or `other` is an any-colour style and this a colour of that kind.
    bool matches(const NBStyle& other) const;

    bool operator==(const NBStyle& other) const;
    bool operator!=(const NBStyle& other) const { return !(*this == other); }

private:
    friend class NBStyleFactory;
    NBStyle(Kind kind, QString key, QVariant value);

    Kind kind_ = Kind::None;
    QString key_;
    QVariant value_;
};

size_t qHash(const NBStyle& style, size_t seed = 0);

// The styles in force at one place of a styled string: at most one style per attribute key, kept in
// ascending order of key (the order in which markup opens them). Copies are cheap (implicitly shared).
class NBStyleSet {
public:
    NBStyleSet() = default;
    NBStyleSet(std::initializer_list<NBStyle> styles);

    bool isEmpty() const { return styles_.isEmpty(); }
    qsizetype size() const { return styles_.size(); }
    QList<NBStyle>::const_iterator begin() const { return styles_.cbegin(); }
    QList<NBStyle>::const_iterator end() const { return styles_.cend(); }
    const QList<NBStyle>& styles() const { return styles_; }

    // Exactly this style (any-colour styles also match any colour of their kind).
    bool contains(const NBStyle& style) const;
    bool containsKey(const QString& key) const;
    bool containsKind(NBStyle::Kind kind) const;
    NBStyle styleForKey(const QString& key) const;
    NBStyle styleOfKind(NBStyle::Kind kind) const;

    // Adds the style, replacing the one with the same key.
    void insert(const NBStyle& style);
    void removeKey(const QString& key);
    void removeKind(NBStyle::Kind kind);

    bool operator==(const NBStyleSet& other) const { return styles_ == other.styles_; }
    bool operator!=(const NBStyleSet& other) const { return !(*this == other); }

private:
    QList<NBStyle> styles_;
};
