// Tests of styled strings, their editing, the tag markup and the colour text.
#include "text/NBStyledString.h"
#include "text/testing/NBStyledTextGenerators.h"

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

namespace {

using styledtext::genStyledString;
using styledtext::make;
using styledtext::Piece;
using styledtext::StyleRange;

const NBStyle red = NBStyle::styleForTextColor(NBColor(255, 0, 0));

TEST(NBStyledString, ReadsMarkupTable) {
    struct Case {
        QString markup;
        NBStyledString expected;
    };
    const NBStyle& bold = NBStyle::bold();
    const NBStyle& italic = NBStyle::italic();
    const Case cases[] = {
        {"", make({})},
        {"plain", make({{"plain", {}}})},
        {"a &amp; b &lt; c > d", make({{"a & b < c > d", {}}})},
        // The double unescape: "&amp;" then "lt;" is one "<".
        {"x&amp;lt;y", make({{"x<y", {}}})},
        {"&amp;amp;", make({{"&amp;", {}}})},
        {"<<b>bold</b>", make({{"<", {}}, {"bold", {bold}}})},
        {"<<<i>x", make({{"<<", {}}, {"x", {italic}}})},
        {"a<", make({{"a<", {}}})},
        {"a<<", make({{"a<<", {}}})},
        {"<q>text</q>", make({{"<q>text", {}}})},
        {"<q", make({{"<q", {}}})},
        {"<b#FF>x</b>", make({{"<b#FF>x", {}}})},
        {"<c##FF>x", make({{"<c##FF>x", {}}})},
        {"<c#FF0000>red</c>", make({{"red", {red}}})},
        {"<c#F00>red</c>", make({{"red", {red}}})},
        {"<c#12345>x</c>", make({{"x", {NBStyle::anyTextColor()}}})},
        {"<c#>x</c>", make({{"x", {NBStyle::anyTextColor()}}})},
        {"<h#00000080>x", make({{"x", {NBStyle::styleForBackgroundColor(NBColor(0, 0, 0, 128))}}})},
        {"<c#00F>a<c#FF0000>b</c>c",
         make({{"a", {NBStyle::styleForTextColor(NBColor(0, 0, 255))}}, {"b", {red}}, {"c", {}}})},
        {"<b>unclosed <i>still", make({{"unclosed ", {bold}}, {"still", {bold, italic}}})},
        {"<b><i>bi</i></b><b>b</b>", make({{"bi", {bold, italic}}, {"b", {bold}}})},
        {"<b>a</i>b</b>c", make({{"ab", {bold}}, {"c", {}}})},
        {"<sup>2</sup><sub>i</sub><u>u</u><del>d</del><sc>s</sc>", make({{"2", {NBStyle::superscript()}},
                                                                         {"i", {NBStyle::subscript()}},
                                                                         {"u", {NBStyle::underline()}},
                                                                         {"d", {NBStyle::strikethrough()}},
                                                                         {"s", {NBStyle::smallCaps()}}})},
        {"<pop>p</pop><a>http://x.org</a>",
         make({{"p", {NBStyle::pop()}}, {"http://x.org", {NBStyle::hyperlink()}}})},
        {"<a href=\"http://x.org/?a=1&amp;b=&lt;&gt;&quot;#f\">x</a>",
         make({{"x", {NBStyle::styleForHyperlinkURL("http://x.org/?a=1&b=<>\"#f")}}})},
        {"</b>", make({})},
        {"<>", make({{"<>", {}}})},
        {"😀<b>𝛼</b>", make({{"😀", {}}, {"𝛼", {bold}}})},
    };
    for (const Case& testCase : cases) {
        const NBStyledString read = NBStyledString::styledStringFromMarkupString(testCase.markup);
        EXPECT_EQ(read, testCase.expected) << testCase.markup.toStdString();
    }
}

TEST(NBStyledString, WritesMarkupTable) {
    struct Case {
        NBStyledString styled;
        QString markup;
    };
    const Case cases[] = {
        {make({}), ""},
        {make({{"a & b < c > d", {}}}), "a &amp; b &lt; c > d"},
        // One run closes before the next opens, styles in ascending order of key.
        {make({{"bi", {NBStyle::italic(), NBStyle::bold()}}, {"b", {NBStyle::bold()}}}),
         "<b><i>bi</i></b><b>b</b>"},
        {make({{"x", {red, NBStyle::styleForBackgroundColor(NBColor(1, 2, 3, 4)), NBStyle::underline()}}}),
         "<h#01020304><c#FF0000><u>x</u></c></h>"},
        {make({{"x", {NBStyle::anyTextColor()}}}), "<c#>x</c>"},
        {make({{"x", {NBStyle::styleWithKey("Unknown", 1)}}}), "x"},
        {make({{"l", {NBStyle::styleForHyperlinkURL("a\"b>c")}}}), "<a href=\"a&quot;b&gt;c\">l</a>"},
    };
    for (const Case& testCase : cases)
        EXPECT_EQ(testCase.styled.markupString(), testCase.markup) << testCase.markup.toStdString();
}

TEST(NBStyledString, ReadsColorText) {
    struct Case {
        QString text;
        std::optional<NBColor> color;
    };
    const Case cases[] = {
        {"F", NBColor(255, 255, 255)},
        {"#8", NBColor(0x88, 0x88, 0x88)},
        {"80", NBColor(0x80, 0x80, 0x80)},
        {"f00", NBColor(255, 0, 0)},
        {"#0F08", NBColor(0, 255, 0, 0x88)},
        {"123456", NBColor(0x12, 0x34, 0x56)},
        {"#12345678", NBColor(0x12, 0x34, 0x56, 0x78)},
        {"", std::nullopt},
        {"#", std::nullopt},
        {"12345", std::nullopt},
        {"1234567", std::nullopt},
        {"123456789", std::nullopt},
        {"12G", std::nullopt},
        {"##123", std::nullopt},
        {" 123", std::nullopt},
    };
    for (const Case& testCase : cases)
        EXPECT_EQ(NBStyle::colorFromHexString(testCase.text), testCase.color) << testCase.text.toStdString();
}

TEST(NBStyledString, TagTablesAndStyleIdentity) {
    EXPECT_EQ(NBStyle::markupTagsForStyleNames().value("NBStrikethrough"), "del");
    EXPECT_EQ(NBStyle::styleNamesForMarkupTags().value("h"), "NBBackgroundColor");
    EXPECT_EQ(NBStyle::stylesForMarkupTags().value("c"), NBStyle::anyTextColor());
    EXPECT_EQ(NBStyle::stylesForMarkupTags().size(), 9);
    for (auto entry = NBStyle::markupTagsForStyleNames().cbegin();
         entry != NBStyle::markupTagsForStyleNames().cend(); ++entry)
        EXPECT_EQ(NBStyle::stylesForMarkupTags().value(entry.value()).attributeKey(), entry.key());
    EXPECT_EQ(NBStyle::styleWithKey("NBBold", true), NBStyle::bold());
    EXPECT_NE(NBStyle::styleWithKey("NBBold", false), NBStyle::bold());
    EXPECT_EQ(NBStyle::styleWithKey("NBTextColor", QVariant()), NBStyle::anyTextColor());
    EXPECT_EQ(NBStyle::styleWithKey("NBHyperlink", true), NBStyle::hyperlink());
    EXPECT_EQ(NBStyle::styleWithKey("NBHyperlink", "http://x.org").hyperlinkURL(), "http://x.org");
    // Any-colour styles stand for any colour of their kind in queries.
    NBStyleSet styles{red};
    EXPECT_TRUE(styles.contains(NBStyle::anyTextColor()));
    EXPECT_FALSE(styles.contains(NBStyle::anyBackgroundColor()));
    EXPECT_FALSE(NBStyleSet{NBStyle::anyTextColor()}.contains(red));
}

TEST(NBStyledString, EditingKeepsRunsNormalised) {
    NBMutableStyledString text("Hello world");
    text.addStyle(NBStyle::bold(), {0, 5});
    text.addStyle(NBStyle::italic(), {3, 5});
    EXPECT_EQ(text.markupString(), "<b>Hel</b><b><i>lo</i></b><i> wo</i>rld");
    NBTextRange effective;
    EXPECT_EQ(text.stylesAtIndex(6, &effective, {0, 11}), (NBStyleSet{NBStyle::italic()}));
    EXPECT_EQ(effective, (NBTextRange{5, 3}));
    text.stylesAtIndex(6, &effective, {6, 1});
    EXPECT_EQ(effective, (NBTextRange{6, 1}));
    text.addStyle(red, {0, 11});
    text.removeTextColorInRange({0, 11});
    text.removeStyle(NBStyle::italic(), {0, 11});
    EXPECT_EQ(text.markupString(), "<b>Hello</b> world");
    EXPECT_EQ(text.runCount(), 2);
    // Typing takes the styles of the character before the insertion point.
    text.replaceCharactersInRange({5, 0}, QString("!!"));
    EXPECT_EQ(text.markupString(), "<b>Hello!!</b> world");
    text.deleteCharactersInRange({2, 6});
    EXPECT_EQ(text.markupString(), "<b>He</b>world");
    text.removeAllStylesInRange({-5, 100});
    EXPECT_EQ(text.runCount(), 1);
    text.addStyle(NBStyle::styleForBackgroundColor(NBColor(255, 255, 0)), {1, 2});
    text.removeBackgroundColorInRange({0, 3});
    EXPECT_EQ(text, NBStyledString("Heworld"));
    const NBStyledString joined = make({{"ab", {NBStyle::bold()}}})
                                      .styledStringByAppendingStyledString(make({{"cd", {NBStyle::bold()}}}));
    EXPECT_EQ(joined.runCount(), 1);
    EXPECT_EQ(joined.styledSubstringFromRange({1, 2}), make({{"bc", {NBStyle::bold()}}}));
    EXPECT_EQ(joined.styledSubstringFromRange({3, 9}), make({{"d", {NBStyle::bold()}}}));
}

RC_GTEST_PROP(NBStyledString, MarkupRoundTripKeepsTextAndStyles, ()) {
    const NBStyledString styled = *genStyledString(StyleRange::Markup);
    const NBStyledString read = NBStyledString::styledStringFromMarkupString(styled.markupString());
    // Text that itself holds "&lt;" within one run comes back with "<" there: the kept double unescape.
    // Across a run boundary the two halves are read separately and stay as they were.
    QString expected;
    bool unescaped = false;
    for (const NBStyledString::Run& run : styled.runs()) {
        const QString text = styled.string().mid(run.location, run.length);
        unescaped = unescaped || text.contains(QStringLiteral("&lt;"));
        expected += QString(text).replace(QStringLiteral("&lt;"), QStringLiteral("<"));
    }
    RC_ASSERT(read.string() == expected);
    if (!unescaped) {
        RC_ASSERT(read == styled);
        // Reading and writing again gives the same markup.
        RC_ASSERT(read.markupString() == styled.markupString());
    }
}

RC_GTEST_PROP(NBStyledString, SubstringsConcatenateBack, ()) {
    const NBStyledString styled = *genStyledString(StyleRange::Markup);
    const qsizetype split = *rc::gen::inRange<qsizetype>(0, styled.length() + 1);
    const NBStyledString left = styled.styledSubstringFromRange({0, split});
    const NBStyledString right = styled.styledSubstringFromRange({split, styled.length()});
    RC_ASSERT(left.styledStringByAppendingStyledString(right) == styled);
    for (qsizetype index = 0; index < styled.length(); ++index) {
        NBTextRange effective;
        const NBStyleSet styles = styled.stylesAtIndex(index, &effective, {0, styled.length()});
        RC_ASSERT(effective.location <= index && index < effective.end());
        RC_ASSERT(styled.stylesAtIndex(effective.location) == styles);
        RC_ASSERT(styled.stylesAtIndex(effective.end() - 1) == styles);
        RC_ASSERT((effective.location == 0 || styled.stylesAtIndex(effective.location - 1) != styles));
        RC_ASSERT((effective.end() == styled.length() || styled.stylesAtIndex(effective.end()) != styles));
    }
}

RC_GTEST_PROP(NBStyledString, ReadersAcceptAnyText, ()) {
    // Any text, including malformed markup and colour text, reads as something and writes back stably.
    const QString text = *styledtext::genMarkupLikeText();
    const NBStyledString read = NBStyledString::styledStringFromMarkupString(text);
    const NBStyledString again = NBStyledString::styledStringFromMarkupString(read.markupString());
    RC_ASSERT(again.string() == QString(read.string()).replace("&lt;", "<"));
    const std::optional<NBColor> color = NBStyle::colorFromHexString(text);
    if (color)
        RC_ASSERT(NBStyle::colorFromHexString(NBStyle::hexStringFromColor(*color)) == color);
}

RC_GTEST_PROP(NBStyledString, ColorWriterOutputReadsBack, (int red, int green, int blue, int alpha)) {
    const NBColor color(std::abs(red % 256), std::abs(green % 256), std::abs(blue % 256),
                        std::abs(alpha % 256));
    RC_ASSERT(NBStyle::colorFromHexString(NBStyle::hexStringFromColor(color)) == color);
    RC_ASSERT(NBStyle::colorFromHexString("#" + NBStyle::hexStringFromColor(color)) == color);
}

} // namespace
