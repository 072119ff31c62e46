// Styled text as an HTML fragment: written for export and the clipboard, read from pasted or imported HTML.
//
// Writing: each run opens one element per style, in the order the markup uses (ascending attribute key), and
// closes them in reverse: <b>, <i>, <u>, <del>, <sup>, <sub>, <mark> (pop), <a href="...">, and <span> with
// "color", "background-color" (#RRGGBB, or #RRGGBBAA when not opaque) or "font-variant:small-caps".
// Any-colour styles have no colour to show and are not written. Text escapes "&", "<", ">" and '"'; a line
// break is <br>; carriage returns and other control characters are character references. When the text has
// white space that HTML would collapse (runs of spaces, tabs, spaces at either end or beside a line break),
// the whole fragment is wrapped in <span style="white-space:pre-wrap">, which keeps it.
//
// Reading accepts what browsers, office programs and our writer produce: <b>, <strong>, <i>, <em>, <u>,
// <ins>, <del>, <s>, <strike>, <sup>, <sub>, <mark>, <a href>, <font color>, and the inline "style" of any
// element for font-weight, font-style, text-decoration (underline, line-through), color, background and
// background-color ("transparent" or a fully transparent colour removes), font-variant(-caps), vertical-align
// (super, sub, baseline) and white-space. Nested declarations override outer ones ("font-weight:normal"
// inside <b>). Other elements keep their text; block elements (p, div, li, headings, table rows, ...) and
// <br> give line breaks and table cells tabs; script, style, title and comments give nothing. White space
// collapses as browsers do, except under <pre> or white-space:pre/pre-wrap/break-spaces. Character references
// (named, decimal and hexadecimal) are decoded; unknown ones stay as text. Links whose address is
// "javascript:", "vbscript:" or "data:" keep their text without the link. A link whose address is its own
// text reads as the shared hyperlink style. Unclosed elements run to the end; stray closing tags are ignored.
// Any text reads as some styled string; the result is plain text with styles, so no markup passes through.
#include "text/NBStyledString.h"

#include <QHash>
#include <QRegularExpression>
#include <QSet>

#include <algorithm>
#include <string_view>

namespace {

enum class LineBreaks { AsTags, AsReferences };

// Escapes text for HTML. In element content a line break becomes <br>; in attribute values line breaks
// (and every other control character but tab) stay references, since a <br> there would be text of the
// address.
void appendEscaped(QString& out, QStringView text, LineBreaks lineBreaks) {
    for (QChar character : text) {
        const char16_t code = character.unicode();
        switch (code) {
        case u'&':
            out += u"&amp;";
            break;
        case u'<':
            out += u"&lt;";
            break;
        case u'>':
            out += u"&gt;";
            break;
        case u'"':
            out += u"&quot;";
            break;
        default:
            if (lineBreaks == LineBreaks::AsTags && code == u'\n')
                out += u"<br>";
            else if (lineBreaks == LineBreaks::AsTags && code == u'\t')
                out += character;
            else if (code < 0x20 || code == 0x7F)
                out += QStringLiteral("&#%1;").arg(int(code));
            else
                out += character;
        }
    }
}

QString cssColor(NBColor color) {
    return u'#' + NBStyle::hexStringFromColor(color);
}

// Opening and closing tags of one style; empty when the style has no HTML form.
std::pair<QString, QString> htmlTagsForStyle(const NBStyle& style) {
    switch (style.kind()) {
    case NBStyle::Kind::Bold:
        return {"<b>", "</b>"};
    case NBStyle::Kind::Italic:
        return {"<i>", "</i>"};
    case NBStyle::Kind::Underline:
        return {"<u>", "</u>"};
    case NBStyle::Kind::Strikethrough:
        return {"<del>", "</del>"};
    case NBStyle::Kind::Superscript:
        return {"<sup>", "</sup>"};
    case NBStyle::Kind::Subscript:
        return {"<sub>", "</sub>"};
    case NBStyle::Kind::Pop:
        return {"<mark>", "</mark>"};
    case NBStyle::Kind::SmallCaps:
        return {"<span style=\"font-variant:small-caps\">", "</span>"};
    case NBStyle::Kind::TextColor:
        if (!style.color().isValid())
            return {};
        return {"<span style=\"color:" + cssColor(style.color()) + "\">", "</span>"};
    case NBStyle::Kind::BackgroundColor:
        if (!style.color().isValid())
            return {};
        return {"<span style=\"background-color:" + cssColor(style.color()) + "\">", "</span>"};
    case NBStyle::Kind::Hyperlink:
        return {"<a href=\"", "</a>"}; // completed by the caller
    default:
        return {};
    }
}

bool isHTMLWhiteSpace(QChar character) {
    const char16_t code = character.unicode();
    return code == u' ' || code == u'\t' || code == u'\n' || code == u'\r' || code == u'\f';
}

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

const QHash<QString, char32_t>& namedCharacterReferences() {
    static const QHash<QString, char32_t> table = {
        {"amp", U'&'},      {"lt", U'<'},      {"gt", U'>'},      {"quot", U'"'},     {"apos", U'\''},
        {"nbsp", 0xA0},     {"ensp", 0x2002},  {"emsp", 0x2003},  {"thinsp", 0x2009}, {"zwnj", 0x200C},
        {"zwj", 0x200D},    {"shy", 0xAD},     {"copy", 0xA9},    {"reg", 0xAE},      {"trade", 0x2122},
        {"deg", 0xB0},      {"plusmn", 0xB1},  {"micro", 0xB5},   {"middot", 0xB7},   {"times", 0xD7},
        {"divide", 0xF7},   {"sup1", 0xB9},    {"sup2", 0xB2},    {"sup3", 0xB3},     {"frac12", 0xBD},
        {"frac14", 0xBC},   {"frac34", 0xBE},  {"para", 0xB6},    {"sect", 0xA7},     {"laquo", 0xAB},
        {"raquo", 0xBB},    {"lsquo", 0x2018}, {"rsquo", 0x2019}, {"sbquo", 0x201A},  {"ldquo", 0x201C},
        {"rdquo", 0x201D},  {"bdquo", 0x201E}, {"ndash", 0x2013}, {"mdash", 0x2014},  {"hellip", 0x2026},
        {"bull", 0x2022},   {"prime", 0x2032}, {"Prime", 0x2033}, {"minus", 0x2212},  {"le", 0x2264},
        {"ge", 0x2265},     {"ne", 0x2260},    {"asymp", 0x2248}, {"equiv", 0x2261},  {"infin", 0x221E},
        {"sum", 0x2211},    {"prod", 0x220F},  {"radic", 0x221A}, {"part", 0x2202},   {"int", 0x222B},
        {"larr", 0x2190},   {"uarr", 0x2191},  {"rarr", 0x2192},  {"darr", 0x2193},   {"harr", 0x2194},
        {"rArr", 0x21D2},   {"hArr", 0x21D4},  {"euro", 0x20AC},  {"pound", 0xA3},    {"yen", 0xA5},
        {"cent", 0xA2},     {"iexcl", 0xA1},   {"iquest", 0xBF},  {"ordf", 0xAA},     {"ordm", 0xBA},
        {"szlig", 0xDF},    {"auml", 0xE4},    {"ouml", 0xF6},    {"uuml", 0xFC},     {"Auml", 0xC4},
        {"Ouml", 0xD6},     {"Uuml", 0xDC},    {"eacute", 0xE9},  {"egrave", 0xE8},   {"ecirc", 0xEA},
        {"aacute", 0xE1},   {"agrave", 0xE0},  {"acirc", 0xE2},   {"ccedil", 0xE7},   {"Eacute", 0xC9},
        {"iacute", 0xED},   {"oacute", 0xF3},  {"uacute", 0xFA},  {"ntilde", 0xF1},   {"aring", 0xE5},
        {"oslash", 0xF8},   {"aelig", 0xE6},   {"Aring", 0xC5},   {"Oslash", 0xD8},   {"AElig", 0xC6},
        {"alpha", 0x3B1},   {"beta", 0x3B2},   {"gamma", 0x3B3},  {"delta", 0x3B4},   {"epsilon", 0x3B5},
        {"zeta", 0x3B6},    {"eta", 0x3B7},    {"theta", 0x3B8},  {"iota", 0x3B9},    {"kappa", 0x3BA},
        {"lambda", 0x3BB},  {"mu", 0x3BC},     {"nu", 0x3BD},     {"xi", 0x3BE},      {"omicron", 0x3BF},
        {"pi", 0x3C0},      {"rho", 0x3C1},    {"sigmaf", 0x3C2}, {"sigma", 0x3C3},   {"tau", 0x3C4},
        {"upsilon", 0x3C5}, {"phi", 0x3C6},    {"chi", 0x3C7},    {"psi", 0x3C8},     {"omega", 0x3C9},
        {"Alpha", 0x391},   {"Beta", 0x392},   {"Gamma", 0x393},  {"Delta", 0x394},   {"Epsilon", 0x395},
        {"Zeta", 0x396},    {"Eta", 0x397},    {"Theta", 0x398},  {"Iota", 0x399},    {"Kappa", 0x39A},
        {"Lambda", 0x39B},  {"Mu", 0x39C},     {"Nu", 0x39D},     {"Xi", 0x39E},      {"Omicron", 0x39F},
        {"Pi", 0x3A0},      {"Rho", 0x3A1},    {"Sigma", 0x3A3},  {"Tau", 0x3A4},     {"Upsilon", 0x3A5},
        {"Phi", 0x3A6},     {"Chi", 0x3A7},    {"Psi", 0x3A8},    {"Omega", 0x3A9},
    };
    return table;
}

} // namespace

// Decodes character references in HTML text (also used for the Markdown reader's entities).
QString nbDecodeHTMLCharacterReferences(QStringView text) {
    if (!text.contains(u'&'))
        return text.toString();
    QString out;
    out.reserve(text.size());
    qsizetype position = 0;
    while (position < text.size()) {
        const QChar character = text[position];
        if (character != u'&') {
            out += character;
            ++position;
            continue;
        }
        qsizetype end = position + 1;
        if (end < text.size() && text[end] == u'#') {
            ++end;
            const bool hexadecimal = end < text.size() && (text[end] == u'x' || text[end] == u'X');
            if (hexadecimal)
                ++end;
            const qsizetype digitsStart = end;
            char32_t value = 0;
            bool tooLarge = false;
            while (end < text.size()) {
                const char16_t code = text[end].unicode();
                int digit = -1;
                if (code >= u'0' && code <= u'9')
                    digit = code - u'0';
                else if (hexadecimal && code >= u'a' && code <= u'f')
                    digit = code - u'a' + 10;
                else if (hexadecimal && code >= u'A' && code <= u'F')
                    digit = code - u'A' + 10;
                if (digit < 0)
                    break;
                if (value > 0x10FFFF)
                    tooLarge = true;
                else
                    value = value * (hexadecimal ? 16 : 10) + char32_t(digit);
                ++end;
            }
            if (end == digitsStart) {
                out += character;
                ++position;
                continue;
            }
            if (end < text.size() && text[end] == u';')
                ++end;
            // As browsers do: nothing, surrogates and values beyond Unicode become the replacement character.
            if (tooLarge || value == 0 || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF))
                value = 0xFFFD;
            out += QString::fromUcs4(&value, 1);
            position = end;
            continue;
        }
        while (end < text.size() && end - position <= 10 && text[end].isLetterOrNumber() &&
               text[end].unicode() < 128)
            ++end;
        if (end < text.size() && text[end] == u';' && end > position + 1) {
            const auto found =
                namedCharacterReferences().constFind(text.mid(position + 1, end - position - 1).toString());
            if (found != namedCharacterReferences().constEnd()) {
                out += QString::fromUcs4(&found.value(), 1);
                position = end + 1;
                continue;
            }
        }
        out += character;
        ++position;
    }
    return out;
}

namespace {

// The named colours of CSS, in alphabetical order (the keyword "transparent" is read apart).
struct NamedColor {
    std::u16string_view name;
    quint32 rgb;
};
constexpr NamedColor kNamedColors[] = {
    {u"aliceblue", 0xF0F8FF},
    {u"antiquewhite", 0xFAEBD7},
    {u"aqua", 0x00FFFF},
    {u"aquamarine", 0x7FFFD4},
    {u"azure", 0xF0FFFF},
    {u"beige", 0xF5F5DC},
    {u"bisque", 0xFFE4C4},
    {u"black", 0x000000},
    {u"blanchedalmond", 0xFFEBCD},
    {u"blue", 0x0000FF},
    {u"blueviolet", 0x8A2BE2},
    {u"brown", 0xA52A2A},
    {u"burlywood", 0xDEB887},
    {u"cadetblue", 0x5F9EA0},
    {u"chartreuse", 0x7FFF00},
    {u"chocolate", 0xD2691E},
    {u"coral", 0xFF7F50},
    {u"cornflowerblue", 0x6495ED},
    {u"cornsilk", 0xFFF8DC},
    {u"crimson", 0xDC143C},
    {u"cyan", 0x00FFFF},
    {u"darkblue", 0x00008B},
    {u"darkcyan", 0x008B8B},
    {u"darkgoldenrod", 0xB8860B},
    {u"darkgray", 0xA9A9A9},
    {u"darkgreen", 0x006400},
    {u"darkgrey", 0xA9A9A9},
    {u"darkkhaki", 0xBDB76B},
    {u"darkmagenta", 0x8B008B},
    {u"darkolivegreen", 0x556B2F},
    {u"darkorange", 0xFF8C00},
    {u"darkorchid", 0x9932CC},
    {u"darkred", 0x8B0000},
    {u"darksalmon", 0xE9967A},
    {u"darkseagreen", 0x8FBC8F},
    {u"darkslateblue", 0x483D8B},
    {u"darkslategray", 0x2F4F4F},
    {u"darkslategrey", 0x2F4F4F},
    {u"darkturquoise", 0x00CED1},
    {u"darkviolet", 0x9400D3},
    {u"deeppink", 0xFF1493},
    {u"deepskyblue", 0x00BFFF},
    {u"dimgray", 0x696969},
    {u"dimgrey", 0x696969},
    {u"dodgerblue", 0x1E90FF},
    {u"firebrick", 0xB22222},
    {u"floralwhite", 0xFFFAF0},
    {u"forestgreen", 0x228B22},
    {u"fuchsia", 0xFF00FF},
    {u"gainsboro", 0xDCDCDC},
    {u"ghostwhite", 0xF8F8FF},
    {u"gold", 0xFFD700},
    {u"goldenrod", 0xDAA520},
    {u"gray", 0x808080},
    {u"green", 0x008000},
    {u"greenyellow", 0xADFF2F},
    {u"grey", 0x808080},
    {u"honeydew", 0xF0FFF0},
    {u"hotpink", 0xFF69B4},
    {u"indianred", 0xCD5C5C},
    {u"indigo", 0x4B0082},
    {u"ivory", 0xFFFFF0},
    {u"khaki", 0xF0E68C},
    {u"lavender", 0xE6E6FA},
    {u"lavenderblush", 0xFFF0F5},
    {u"lawngreen", 0x7CFC00},
    {u"lemonchiffon", 0xFFFACD},
    {u"lightblue", 0xADD8E6},
    {u"lightcoral", 0xF08080},
    {u"lightcyan", 0xE0FFFF},
    {u"lightgoldenrodyellow", 0xFAFAD2},
    {u"lightgray", 0xD3D3D3},
    {u"lightgreen", 0x90EE90},
    {u"lightgrey", 0xD3D3D3},
    {u"lightpink", 0xFFB6C1},
    {u"lightsalmon", 0xFFA07A},
    {u"lightseagreen", 0x20B2AA},
    {u"lightskyblue", 0x87CEFA},
    {u"lightslategray", 0x778899},
    {u"lightslategrey", 0x778899},
    {u"lightsteelblue", 0xB0C4DE},
    {u"lightyellow", 0xFFFFE0},
    {u"lime", 0x00FF00},
    {u"limegreen", 0x32CD32},
    {u"linen", 0xFAF0E6},
    {u"magenta", 0xFF00FF},
    {u"maroon", 0x800000},
    {u"mediumaquamarine", 0x66CDAA},
    {u"mediumblue", 0x0000CD},
    {u"mediumorchid", 0xBA55D3},
    {u"mediumpurple", 0x9370DB},
    {u"mediumseagreen", 0x3CB371},
    {u"mediumslateblue", 0x7B68EE},
    {u"mediumspringgreen", 0x00FA9A},
    {u"mediumturquoise", 0x48D1CC},
    {u"mediumvioletred", 0xC71585},
    {u"midnightblue", 0x191970},
    {u"mintcream", 0xF5FFFA},
    {u"mistyrose", 0xFFE4E1},
    {u"moccasin", 0xFFE4B5},
    {u"navajowhite", 0xFFDEAD},
    {u"navy", 0x000080},
    {u"oldlace", 0xFDF5E6},
    {u"olive", 0x808000},
    {u"olivedrab", 0x6B8E23},
    {u"orange", 0xFFA500},
    {u"orangered", 0xFF4500},
    {u"orchid", 0xDA70D6},
    {u"palegoldenrod", 0xEEE8AA},
    {u"palegreen", 0x98FB98},
    {u"paleturquoise", 0xAFEEEE},
    {u"palevioletred", 0xDB7093},
    {u"papayawhip", 0xFFEFD5},
    {u"peachpuff", 0xFFDAB9},
    {u"peru", 0xCD853F},
    {u"pink", 0xFFC0CB},
    {u"plum", 0xDDA0DD},
    {u"powderblue", 0xB0E0E6},
    {u"purple", 0x800080},
    {u"red", 0xFF0000},
    {u"rosybrown", 0xBC8F8F},
    {u"royalblue", 0x4169E1},
    {u"saddlebrown", 0x8B4513},
    {u"salmon", 0xFA8072},
    {u"sandybrown", 0xF4A460},
    {u"seagreen", 0x2E8B57},
    {u"seashell", 0xFFF5EE},
    {u"sienna", 0xA0522D},
    {u"silver", 0xC0C0C0},
    {u"skyblue", 0x87CEEB},
    {u"slateblue", 0x6A5ACD},
    {u"slategray", 0x708090},
    {u"slategrey", 0x708090},
    {u"snow", 0xFFFAFA},
    {u"springgreen", 0x00FF7F},
    {u"steelblue", 0x4682B4},
    {u"tan", 0xD2B48C},
    {u"teal", 0x008080},
    {u"thistle", 0xD8BFD8},
    {u"tomato", 0xFF6347},
    {u"turquoise", 0x40E0D0},
    {u"violet", 0xEE82EE},
    {u"wheat", 0xF5DEB3},
    {u"white", 0xFFFFFF},
    {u"whitesmoke", 0xF5F5F5},
    {u"yellow", 0xFFFF00},
    {u"yellowgreen", 0x9ACD32},
};

// A lower-case colour name; invalid for any other word.
NBColor colorWithCSSName(QStringView name) {
    if (name == u"transparent")
        return NBColor(0, 0, 0, 0);
    const std::u16string_view key(name.utf16(), std::size_t(name.size()));
    const auto found = std::lower_bound(
        std::begin(kNamedColors), std::end(kNamedColors), key,
        [](const NamedColor& entry, std::u16string_view wanted) { return entry.name < wanted; });
    if (found == std::end(kNamedColors) || found->name != key)
        return NBColor();
    return NBColor::fromRgba(0xFF000000u | found->rgb);
}

// Colours as CSS writes them: #rgb, #rgba, #rrggbb, #rrggbbaa, rgb()/rgba() and the named colours.
NBColor parseCSSColor(QString value) {
    value = value.trimmed().toLower();
    if (value.startsWith(u'#')) {
        const qsizetype digits = value.size() - 1;
        if (digits != 3 && digits != 4 && digits != 6 && digits != 8)
            return NBColor();
        return NBStyle::colorFromHexString(value).value_or(NBColor());
    }
    if (value.startsWith(QStringLiteral("rgb"))) {
        const qsizetype open = value.indexOf(u'(');
        const qsizetype close = value.lastIndexOf(u')');
        if (open < 0 || close < open)
            return NBColor();
        const QStringList parts = value.mid(open + 1, close - open - 1)
                                      .replace(u'/', u' ')
                                      .replace(u',', u' ')
                                      .split(u' ', Qt::SkipEmptyParts);
        if (parts.size() != 3 && parts.size() != 4)
            return NBColor();
        int channels[4] = {0, 0, 0, 255};
        for (qsizetype index = 0; index < parts.size(); ++index) {
            QString part = parts[index];
            const bool percent = part.endsWith(u'%');
            if (percent)
                part.chop(1);
            bool ok = false;
            const double number = part.toDouble(&ok);
            if (!ok)
                return NBColor();
            const double scaled = percent ? number * 2.55 : (index == 3 ? number * 255 : number);
            channels[index] = int(std::clamp(scaled + 0.5, 0.0, 255.0));
        }
        return NBColor(channels[0], channels[1], channels[2], channels[3]);
    }
    return colorWithCSSName(value);
}

enum class Change { Add, Remove };
struct StyleChange {
    Change change;
    NBStyle::Kind kind;
    NBStyle style;
};

struct OpenElement {
    QString name;
    std::vector<StyleChange> changes;
    int whiteSpace = 0; // 1 preserve, -1 collapse, 0 inherit
    qsizetype linkStart = -1;
    QString linkAddress;
};

const QSet<QString>& blockElements() {
    static const QSet<QString> names = {
        "address", "article",  "aside",      "blockquote", "center",  "dd",    "div",   "dl",
        "dt",      "fieldset", "figcaption", "figure",     "footer",  "form",  "h1",    "h2",
        "h3",      "h4",       "h5",         "h6",         "header",  "hr",    "li",    "main",
        "nav",     "ol",       "p",          "pre",        "section", "table", "tbody", "thead",
        "tfoot",   "tr",       "ul",         "caption",    "body",    "html"};
    return names;
}

const QSet<QString>& voidElements() {
    static const QSet<QString> names = {"area",  "base", "br",   "col",   "embed",  "hr",    "img",
                                        "input", "link", "meta", "param", "source", "track", "wbr"};
    return names;
}

bool isSafeAddress(const QString& address) {
    const QString scheme =
        address.trimmed().toLower().remove(QRegularExpression(QStringLiteral("[\\s\\x00-\\x1f]")));
    return !scheme.startsWith(u"javascript:") && !scheme.startsWith(u"vbscript:") &&
           !scheme.startsWith(u"data:");
}

constexpr std::size_t kMaximumNesting = 256;

class HTMLReader {
public:
    NBStyledString read(QStringView html) {
        QString input = html.toString();
        input.replace(QStringLiteral("\r\n"), QStringLiteral("\n"));
        input.replace(u'\r', u'\n');
        const QStringView text(input);
        qsizetype position = 0;
        while (position < text.size()) {
            const qsizetype open = text.indexOf(u'<', position);
            const qsizetype textEnd = open < 0 ? text.size() : open;
            if (textEnd > position)
                appendText(nbDecodeHTMLCharacterReferences(text.mid(position, textEnd - position)));
            if (open < 0)
                break;
            position = readMarkup(text, open);
        }
        return out_;
    }

private:
    // Reads the markup at `open` (a "<") and returns where the text continues.
    qsizetype readMarkup(QStringView text, qsizetype open) {
        const qsizetype size = text.size();
        if (text.mid(open).startsWith(u"<!--")) {
            const qsizetype end = text.indexOf(u"-->", open + 4);
            return end < 0 ? size : end + 3;
        }
        if (open + 1 < size && (text[open + 1] == u'!' || text[open + 1] == u'?')) {
            const qsizetype end = text.indexOf(u'>', open);
            return end < 0 ? size : end + 1;
        }
        const bool closing = open + 1 < size && text[open + 1] == u'/';
        qsizetype position = open + (closing ? 2 : 1);
        if (position >= size || !text[position].isLetter() || text[position].unicode() >= 128) {
            // Not a tag: the "<" is text.
            appendText(QStringLiteral("<"));
            return open + 1;
        }
        const qsizetype nameStart = position;
        while (position < size &&
               (text[position].isLetterOrNumber() || text[position] == u'-' || text[position] == u':'))
            ++position;
        const QString name = text.mid(nameStart, position - nameStart).toString().toLower();
        QHash<QString, QString> attributes;
        bool selfClosing = false;
        while (position < size && text[position] != u'>') {
            const QChar character = text[position];
            if (character.isSpace() || character == u'/') {
                selfClosing = character == u'/';
                ++position;
                continue;
            }
            const qsizetype attributeStart = position;
            while (position < size && !text[position].isSpace() && text[position] != u'=' &&
                   text[position] != u'>' && text[position] != u'/')
                ++position;
            if (position == attributeStart) {
                ++position;
                continue;
            }
            const QString attribute =
                text.mid(attributeStart, position - attributeStart).toString().toLower();
            while (position < size && text[position].isSpace())
                ++position;
            QString value;
            if (position < size && text[position] == u'=') {
                ++position;
                while (position < size && text[position].isSpace())
                    ++position;
                if (position < size && (text[position] == u'"' || text[position] == u'\'')) {
                    const QChar quote = text[position];
                    const qsizetype valueEnd = text.indexOf(quote, position + 1);
                    const qsizetype stop = valueEnd < 0 ? size : valueEnd;
                    value = nbDecodeHTMLCharacterReferences(text.mid(position + 1, stop - position - 1));
                    position = valueEnd < 0 ? size : valueEnd + 1;
                } else {
                    const qsizetype valueStart = position;
                    while (position < size && !text[position].isSpace() && text[position] != u'>')
                        ++position;
                    value = nbDecodeHTMLCharacterReferences(text.mid(valueStart, position - valueStart));
                }
            }
            if (!attributes.contains(attribute))
                attributes.insert(attribute, value);
            selfClosing = false;
        }
        const qsizetype after = position < size ? position + 1 : size;
        if (closing) {
            closeElement(name);
            return after;
        }
        if (name == u"script" || name == u"style" || name == u"title" || name == u"textarea" ||
            name == u"template") {
            // Their content is not text of the document.
            const QRegularExpression end(QStringLiteral("</") + name + QStringLiteral("\\s*>"),
                                         QRegularExpression::CaseInsensitiveOption);
            const QRegularExpressionMatch match = end.match(text, after);
            return match.hasMatch() ? match.capturedEnd() : size;
        }
        openElement(name, attributes, selfClosing);
        return after;
    }

    void openElement(const QString& name, const QHash<QString, QString>& attributes, bool selfClosing) {
        if (name == u"br") {
            flushBreak();
            append(QStringLiteral("\n"), currentStyles());
            atLineStart_ = true;
            pendingSpace_ = false;
            return;
        }
        if (blockElements().contains(name))
            requestBreak();
        if (name == u"td" || name == u"th") {
            if (!atLineStart_ && !pendingBreak_) {
                append(QStringLiteral("\t"), NBStyleSet());
                pendingSpace_ = false;
            }
        }
        // Nesting deeper than any real document is not followed, so hostile input cannot make reading slow
        // (every piece of text looks at the open elements).
        if (voidElements().contains(name) || selfClosing || stack_.size() >= kMaximumNesting)
            return;
        OpenElement element;
        element.name = name;
        auto add = [&](const NBStyle& style) {
            element.changes.push_back({Change::Add, style.kind(), style});
        };
        auto remove = [&](NBStyle::Kind kind) {
            element.changes.push_back({Change::Remove, kind, NBStyle()});
        };
        if (name == u"b" || name == u"strong")
            add(NBStyle::bold());
        else if (name == u"i" || name == u"em")
            add(NBStyle::italic());
        else if (name == u"u" || name == u"ins")
            add(NBStyle::underline());
        else if (name == u"del" || name == u"s" || name == u"strike")
            add(NBStyle::strikethrough());
        else if (name == u"sup") {
            remove(NBStyle::Kind::Subscript);
            add(NBStyle::superscript());
        } else if (name == u"sub") {
            remove(NBStyle::Kind::Superscript);
            add(NBStyle::subscript());
        } else if (name == u"mark")
            add(NBStyle::pop());
        else if (name == u"pre")
            element.whiteSpace = 1;
        else if (name == u"a") {
            const QString address = attributes.value(QStringLiteral("href"));
            if (!address.isEmpty() && isSafeAddress(address)) {
                add(NBStyle::styleForHyperlinkURL(address));
                // The link starts where its first text will go, after the line break or space that text
                // would bring out first.
                element.linkStart =
                    out_.length() + ((pendingBreak_ || (pendingSpace_ && !atLineStart_)) ? 1 : 0);
                element.linkAddress = address;
            }
        } else if (name == u"font" && attributes.contains(QStringLiteral("color"))) {
            const NBColor color = parseCSSColor(attributes.value(QStringLiteral("color")));
            if (color.isValid())
                add(NBStyle::styleForTextColor(color));
        }
        if (attributes.contains(QStringLiteral("style")))
            readInlineStyle(attributes.value(QStringLiteral("style")), element, add, remove);
        stack_.push_back(std::move(element));
        stylesValid_ = false;
    }

    template <typename Add, typename Remove>
    void readInlineStyle(const QString& style, OpenElement& element, Add add, Remove remove) {
        for (const QString& declaration : style.split(u';', Qt::SkipEmptyParts)) {
            const qsizetype colon = declaration.indexOf(u':');
            if (colon < 0)
                continue;
            const QString property = declaration.left(colon).trimmed().toLower();
            QString value = declaration.mid(colon + 1).trimmed().toLower();
            value.remove(QStringLiteral("!important"));
            value = value.trimmed();
            if (property == u"font-weight") {
                bool numeric = false;
                const int weight = value.toInt(&numeric);
                if (value == u"bold" || value == u"bolder" || (numeric && weight >= 600))
                    add(NBStyle::bold());
                else if (value == u"normal" || value == u"lighter" || numeric)
                    remove(NBStyle::Kind::Bold);
            } else if (property == u"font-style") {
                if (value.startsWith(u"italic") || value.startsWith(u"oblique"))
                    add(NBStyle::italic());
                else if (value == u"normal")
                    remove(NBStyle::Kind::Italic);
            } else if (property == u"text-decoration" || property == u"text-decoration-line") {
                // As in browsers, "none" does not take away a decoration an outer element drew.
                if (value.contains(u"underline"))
                    add(NBStyle::underline());
                if (value.contains(u"line-through"))
                    add(NBStyle::strikethrough());
            } else if (property == u"color") {
                const NBColor color = parseCSSColor(value);
                if (color.isValid())
                    add(NBStyle::styleForTextColor(color));
            } else if (property == u"background-color" || property == u"background") {
                if (value.contains(u"transparent") || value == u"none") {
                    remove(NBStyle::Kind::BackgroundColor);
                    continue;
                }
                NBColor color = parseCSSColor(value);
                // The shorthand may hold other parts: take the first one that is a colour.
                if (!color.isValid() && property == u"background") {
                    for (const QString& part : value.split(
                             QRegularExpression(QStringLiteral("\\s+(?![^(]*\\))")), Qt::SkipEmptyParts)) {
                        color = parseCSSColor(part);
                        if (color.isValid())
                            break;
                    }
                }
                // A fully transparent colour shows nothing, like "transparent" itself.
                if (color.isValid() && color.alpha() == 0)
                    remove(NBStyle::Kind::BackgroundColor);
                else if (color.isValid())
                    add(NBStyle::styleForBackgroundColor(color));
            } else if (property == u"font-variant" || property == u"font-variant-caps") {
                if (value.contains(u"small-caps"))
                    add(NBStyle::smallCaps());
                else if (value == u"normal")
                    remove(NBStyle::Kind::SmallCaps);
            } else if (property == u"vertical-align") {
                if (value == u"super") {
                    remove(NBStyle::Kind::Subscript);
                    add(NBStyle::superscript());
                } else if (value == u"sub") {
                    remove(NBStyle::Kind::Superscript);
                    add(NBStyle::subscript());
                } else if (value == u"baseline") {
                    remove(NBStyle::Kind::Superscript);
                    remove(NBStyle::Kind::Subscript);
                }
            } else if (property == u"white-space") {
                if (value == u"pre" || value == u"pre-wrap" || value == u"break-spaces")
                    element.whiteSpace = 1;
                else if (value == u"normal" || value == u"nowrap" || value == u"pre-line")
                    element.whiteSpace = -1;
            }
        }
    }

    void closeElement(const QString& name) {
        if (blockElements().contains(name))
            requestBreak();
        if (name == u"td" || name == u"th" || voidElements().contains(name))
            return;
        auto found = std::find_if(stack_.rbegin(), stack_.rend(),
                                  [&](const OpenElement& element) { return element.name == name; });
        if (found == stack_.rend())
            return;
        // Closing an element closes every element opened inside it.
        const std::size_t keep = std::size_t(stack_.rend() - found) - 1;
        while (stack_.size() > keep) {
            finishLink(stack_.back());
            stack_.pop_back();
        }
        stylesValid_ = false;
    }

    // A link whose address is exactly its text is the shared hyperlink style (links found in typed text).
    void finishLink(const OpenElement& element) {
        if (element.linkStart < 0)
            return;
        const QString linkText =
            out_.string().mid(element.linkStart) + (pendingSpace_ ? QStringLiteral(" ") : QString());
        if (linkText != element.linkAddress)
            return;
        out_.addStyle(NBStyle::hyperlink(), {element.linkStart, out_.length() - element.linkStart});
        if (pendingSpace_ && pendingSpaceStyles_.containsKind(NBStyle::Kind::Hyperlink))
            pendingSpaceStyles_.insert(NBStyle::hyperlink());
    }

    const NBStyleSet& currentStyles() {
        if (!stylesValid_) {
            styles_ = NBStyleSet();
            for (const OpenElement& element : stack_)
                for (const StyleChange& change : element.changes) {
                    if (change.change == Change::Add)
                        styles_.insert(change.style);
                    else
                        styles_.removeKind(change.kind);
                }
            stylesValid_ = true;
        }
        return styles_;
    }

    bool preservesWhiteSpace() const {
        for (auto element = stack_.rbegin(); element != stack_.rend(); ++element)
            if (element->whiteSpace != 0)
                return element->whiteSpace > 0;
        return false;
    }

    void requestBreak() {
        if (out_.length() > 0 && !atLineStart_)
            pendingBreak_ = true;
        pendingSpace_ = false;
    }

    void flushBreak() {
        if (pendingBreak_) {
            append(QStringLiteral("\n"), NBStyleSet());
            pendingBreak_ = false;
            atLineStart_ = true;
            pendingSpace_ = false;
        }
    }

    void append(const QString& text, const NBStyleSet& styles) { out_.appendString(text, styles); }

    void appendText(const QString& text) {
        if (text.isEmpty())
            return;
        if (preservesWhiteSpace()) {
            flushBreak();
            if (pendingSpace_ && !atLineStart_)
                append(QStringLiteral(" "), pendingSpaceStyles_);
            pendingSpace_ = false;
            append(text, currentStyles());
            atLineStart_ = text.back() == u'\n';
            return;
        }
        qsizetype position = 0;
        while (position < text.size()) {
            if (isHTMLWhiteSpace(text[position])) {
                if (!pendingSpace_) {
                    pendingSpace_ = true;
                    pendingSpaceStyles_ = currentStyles();
                }
                ++position;
                continue;
            }
            qsizetype end = position;
            while (end < text.size() && !isHTMLWhiteSpace(text[end]))
                ++end;
            flushBreak();
            if (pendingSpace_ && !atLineStart_)
                append(QStringLiteral(" "), pendingSpaceStyles_);
            pendingSpace_ = false;
            append(text.mid(position, end - position), currentStyles());
            atLineStart_ = false;
            position = end;
        }
    }

    NBMutableStyledString out_;
    std::vector<OpenElement> stack_;
    NBStyleSet styles_;
    bool stylesValid_ = true;
    bool atLineStart_ = true;
    bool pendingBreak_ = false;
    bool pendingSpace_ = false;
    NBStyleSet pendingSpaceStyles_;
};

} // namespace

QString NBStyledString::htmlFragmentString() const {
    QString html;
    html.reserve(string_.size() + qsizetype(runs_.size()) * 16);
    const bool preserve = needsPreservedWhiteSpace(string_);
    if (preserve)
        html += u"<span style=\"white-space:pre-wrap\">";
    for (std::size_t index = 0; index < runs_.size(); ++index) {
        const QStringView text =
            QStringView(string_).mid(runs_[index].location, runEnd(index) - runs_[index].location);
        QStringList closing;
        for (const NBStyle& style : runs_[index].styles) {
            auto [opening, closingTag] = htmlTagsForStyle(style);
            if (opening.isEmpty())
                continue;
            if (style.kind() == NBStyle::Kind::Hyperlink) {
                const QString address =
                    style.hyperlinkURL().isEmpty() ? text.toString() : style.hyperlinkURL();
                appendEscaped(opening, address, LineBreaks::AsReferences);
                opening += u"\">";
            }
            html += opening;
            closing.prepend(closingTag);
        }
        appendEscaped(html, text, LineBreaks::AsTags);
        html += closing.join(QString());
    }
    if (preserve)
        html += u"</span>";
    return html;
}

NBStyledString NBStyledString::styledStringFromHTMLString(QStringView html) {
    HTMLReader reader;
    return reader.read(html);
}
