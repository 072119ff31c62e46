// RapidCheck generators and printers shared by the styled-text tests: random text that includes the markup's
// special characters and characters outside the Basic Multilingual Plane, and random runs of styles.
#pragma once

#include "text/NBStyledString.h"

#include <gtest/gtest.h>
#include <rapidcheck.h>

#include <ostream>

inline void PrintTo(const NBStyledString& string, std::ostream* out) {
    *out << string.markupString().toStdString();
}

inline std::ostream& operator<<(std::ostream& out, const NBStyledString& string) {
    return out << string.markupString().toStdString();
}

namespace styledtext {

// Text drawn from pieces that matter to the formats: the escaped characters, Markdown and HTML specials,
// spaces, accents, Greek, CJK and an emoji (a surrogate pair).
// A styled string written as pieces of text with their styles: make({{"a", {}}, {"b", {bold}}}).
struct Piece {
    QString text;
    NBStyleSet styles;
};

inline NBStyledString make(std::initializer_list<Piece> pieces) {
    NBMutableStyledString result;
    for (const Piece& piece : pieces)
        result.appendString(piece.text, piece.styles);
    return result;
}

inline rc::Gen<QString> genText() {
    static const std::vector<QString> pieces = {
        "a", "b",  "Z",  "0",  "7", " ",    "&",   "<",
        ">", "\"", "'",  "*",  "_", "~",    "^",   "[",
        "]", "(",  ")",  "\\", "#", "!",    "`",   "é",
        "α", "µ",  "漢", "😀",  "𝛼", "amp;", "lt;", "http://x.org/a?b=c&d",
        "-", ".",  ","};
    return rc::gen::map(rc::gen::container<std::vector<int>>(rc::gen::inRange<int>(0, int(pieces.size()))),
                        [](const std::vector<int>& indices) {
                            QString text;
                            for (int index : indices)
                                text += pieces[std::size_t(index)];
                            return text;
                        });
}

// Text that looks like the formats the readers take, often malformed: tag pieces, entities, colour text,
// Markdown markers, links and white space, mixed with arbitrary bytes read as UTF-8.
inline rc::Gen<QString> genMarkupLikeText() {
    static const std::vector<QString> pieces = {"<",
                                                ">",
                                                "</",
                                                "/",
                                                "b",
                                                "i",
                                                "sup",
                                                "c#",
                                                "h#",
                                                "FF0000",
                                                "0f0",
                                                "12345",
                                                "#",
                                                "pop",
                                                "a",
                                                "a href=\"",
                                                "\"",
                                                "'",
                                                "&",
                                                "&amp;",
                                                "&lt;",
                                                "&#x1F600;",
                                                "&#0;",
                                                "&alpha",
                                                ";",
                                                "<br>",
                                                "<p>",
                                                "</p>",
                                                "<pre>",
                                                "<td>",
                                                "<tr>",
                                                "<!--",
                                                "-->",
                                                "<!",
                                                "<script>",
                                                "</script>",
                                                "style=\"",
                                                "font-weight:bold",
                                                "color:",
                                                "rgb(1,2",
                                                ")",
                                                "white-space:pre",
                                                "*",
                                                "**",
                                                "_",
                                                "~",
                                                "~~",
                                                "^",
                                                "[",
                                                "](",
                                                "<http://x.org>",
                                                "`",
                                                "\\",
                                                " ",
                                                "  ",
                                                "\n",
                                                "\t",
                                                "\r",
                                                "x",
                                                "é",
                                                "😀",
                                                "{day:",
                                                "{year:",
                                                ",month:",
                                                ",day:",
                                                "}",
                                                "٣",
                                                "-"};
    return rc::gen::map(
        rc::gen::pair(rc::gen::container<std::vector<int>>(rc::gen::inRange<int>(0, int(pieces.size()))),
                      rc::gen::arbitrary<std::string>()),
        [](const std::pair<std::vector<int>, std::string>& drawn) {
            QString text;
            for (int index : drawn.first)
                text += pieces[std::size_t(index)];
            return text + QString::fromUtf8(drawn.second.data(), qsizetype(drawn.second.size()));
        });
}

// Which styles the random runs may carry: the markup keeps every style; rich text and HTML cannot show the
// any-colour styles, and show superscript and subscript as one vertical position.
enum class StyleRange { Markup, RichText, Markdown };

inline rc::Gen<NBStyleSet> genStyleSet(StyleRange range) {
    return rc::gen::exec([range] {
        NBStyleSet styles;
        const NBStyle onOff[] = {NBStyle::bold(),      NBStyle::italic(),    NBStyle::superscript(),
                                 NBStyle::subscript(), NBStyle::underline(), NBStyle::strikethrough(),
                                 NBStyle::smallCaps(), NBStyle::pop()};
        const std::size_t onOffCount = range == StyleRange::Markdown ? 5 : std::size(onOff);
        for (std::size_t index = 0; index < onOffCount; ++index) {
            if (range == StyleRange::Markdown && onOff[index] == NBStyle::underline())
                continue;
            if (*rc::gen::inRange(0, 4))
                continue;
            if (range != StyleRange::Markup && onOff[index] == NBStyle::subscript() &&
                styles.contains(NBStyle::superscript()))
                continue;
            styles.insert(onOff[index]);
        }
        if (range != StyleRange::Markdown) {
            const int minimumColor = range == StyleRange::Markup ? 0 : 1;
            if (*rc::gen::inRange(0, 3) == 0) {
                const int kind = *rc::gen::inRange(minimumColor, 3);
                const NBColor color = kind == 0 ? NBColor()
                                      : kind == 1
                                          ? NBColor(0x12, 0xAB, 0xEF)
                                          : NBColor(*rc::gen::inRange(0, 256), *rc::gen::inRange(0, 256),
                                                    *rc::gen::inRange(0, 256));
                styles.insert(NBStyle::styleForTextColor(color));
            }
            if (*rc::gen::inRange(0, 3) == 0) {
                const int kind = *rc::gen::inRange(minimumColor, 3);
                const NBColor color =
                    kind == 0   ? NBColor()
                    : kind == 1 ? NBColor(0xFF, 0xFF, 0x00)
                                : NBColor(*rc::gen::inRange(0, 256), *rc::gen::inRange(0, 256),
                                          *rc::gen::inRange(0, 256), *rc::gen::inRange(minimumColor, 256));
                styles.insert(NBStyle::styleForBackgroundColor(color));
            }
        }
        if (*rc::gen::inRange(0, 5) == 0) {
            static const QString addresses[] = {"", "https://example.org/a b?x=1&y=<2>#top",
                                                "mailto:lab@example.org", "x\"y)(z]"};
            styles.insert(NBStyle::styleForHyperlinkURL(addresses[*rc::gen::inRange(0, 4)]));
        }
        return styles;
    });
}

// Filters that keep random text within what a format can carry: `transform` is applied to each run's text.
template <typename Transform>
inline rc::Gen<NBStyledString> genStyledString(StyleRange range, Transform transform) {
    return rc::gen::exec([range, transform] {
        NBMutableStyledString result;
        const int runCount = *rc::gen::inRange(0, 6);
        for (int index = 0; index < runCount; ++index)
            result.appendString(transform(*genText()), *genStyleSet(range));
        return NBStyledString(result);
    });
}

inline rc::Gen<NBStyledString> genStyledString(StyleRange range) {
    return genStyledString(range, [](const QString& text) { return text; });
}

} // namespace styledtext
