// Tests of styled text to and from HTML fragments and inline Markdown.
#include "text/NBStyledString.h"
#include "text/testing/NBStyledTextGenerators.h"

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

namespace {

using styledtext::genStyledString;
using styledtext::make;
using styledtext::Piece;
using styledtext::StyleRange;

const NBStyle& bold = NBStyle::bold();
const NBStyle& italic = NBStyle::italic();
NBStyle link(const QString& address) {
    return NBStyle::styleForHyperlinkURL(address);
}
NBStyle textColor(NBColor color) {
    return NBStyle::styleForTextColor(color);
}

struct ReadCase {
    QString input;
    NBStyledString expected;
};

void checkReader(NBStyledString (*reader)(QStringView), std::initializer_list<ReadCase> cases) {
    for (const ReadCase& testCase : cases)
        EXPECT_EQ(reader(testCase.input), testCase.expected) << testCase.input.toStdString();
}

TEST(NBStyledStringHTML, ReadsWhatBrowsersAndOfficeProgramsWrite) {
    checkReader(
        &NBStyledString::styledStringFromHTMLString,
        {
            {"<p>Hello <b>bold</b> and <strong>strong</strong></p>\n<p>Second</p>",
             make({{"Hello ", {}}, {"bold", {bold}}, {" and ", {}}, {"strong", {bold}}, {"\nSecond", {}}})},
            // A web word processor: weights, styles and vertical alignment in inline styles.
            {"<meta charset=\"utf-8\"><b style=\"font-weight:normal;\" id=\"docs-internal-guid-1\"><span "
             "style=\"font-size:11pt;font-weight:700;background-color:transparent\">Bold</span><span "
             "style=\"font-weight:400;font-style:italic\">It</span><span "
             "style=\"vertical-align:super\">2</span></b>",
             make({{"Bold", {bold}}, {"It", {italic}}, {"2", {NBStyle::superscript()}}})},
            // An office program: classes, namespaced elements, conditional comments, single quotes.
            {"<html><head><style>p.MsoNormal{margin:0}</style><title>T</title></head><body>\r\n<p "
             "class=MsoNormal>H<sub>2</sub>O <span style='color:red'>red</span><o:p></o:p></p><!--[if "
             "!supportLists]--><![endif]--></body></html>",
             make({{"H", {}},
                   {"2", {NBStyle::subscript()}},
                   {"O ", {}},
                   {"red", {textColor(NBColor(255, 0, 0))}}})},
            {"a &amp; b &lt;c&gt; &alpha;&#946;&#x3b3;&#X3B4 &unknown; &#0; &#xD800; &#99999999;",
             make({{"a & b <c> αβγδ &unknown; \uFFFD \uFFFD \uFFFD", {}}})},
            {"<script>alert('<b>')</script><style>b{}</style><!-- <b>comment</b> -->x<!-- unclosed",
             make({{"x", {}}})},
            {"<a href=\"https://e.org/?a=1&amp;b=2\">site</a> <a href=\" JavaScript:alert(1)\">bad</a> <a "
             "href='http://x.org'>http://x.org</a> <a name=top>anchor</a>",
             make({{"site", {link("https://e.org/?a=1&b=2")}},
                   {" bad ", {}},
                   {"http://x.org", {NBStyle::hyperlink()}},
                   {" anchor", {}}})},
            {"<b>a<span style=\"font-weight:normal\">b</span>c</b><i>d<span style='font-style:normal'>e",
             make({{"a", {bold}}, {"b", {}}, {"c", {bold}}, {"d", {italic}}, {"e", {}}})},
            {"  a \n\t b  ", make({{"a b", {}}})},
            {"<pre>a  b\nc</pre>d  e", make({{"a  b\nc\nd e", {}}})},
            {"<span style=\"white-space:pre-wrap\"> a  <b> </b></span>", make({{" a  ", {}}, {" ", {bold}}})},
            {"<span style=\"background:transparent url(x.png) no-repeat\">t</span><span style=\"background: "
             "rgb(255, 0, 0)\">r</span><span style=\"color:#0f08 !important\">g</span><font "
             "color=\"blue\">b</font><span style=\"color:rgba(0,0,255,0.5)\">h</span>",
             make({{"t", {}},
                   {"r", {NBStyle::styleForBackgroundColor(NBColor(255, 0, 0))}},
                   {"g", {textColor(NBColor(0, 255, 0, 0x88))}},
                   {"b", {textColor(NBColor(0, 0, 255))}},
                   {"h", {textColor(NBColor(0, 0, 255, 128))}}})},
            {"<span style=\"font-variant:small-caps;text-decoration:underline line-through\">x</span><s>s</s>"
             "<strike>t</strike><del>d</del><u>u</u><ins>i</ins><mark>m</mark><em>e</em>",
             make({{"x", {NBStyle::smallCaps(), NBStyle::underline(), NBStyle::strikethrough()}},
                   {"std", {NBStyle::strikethrough()}},
                   {"ui", {NBStyle::underline()}},
                   {"m", {NBStyle::pop()}},
                   {"e", {italic}}})},
            {"1 < 2 and 3 > 2, a <= b, x</ y", make({{"1 < 2 and 3 > 2, a <= b, x</ y", {}}})},
            {"<table><tr><td>a</td><td>b</td></tr><tr><td>c</td></tr></table>", make({{"a\tb\nc", {}}})},
            {"<i>x<b>y</i>z", make({{"x", {italic}}, {"y", {italic, bold}}, {"z", {}}})},
            {"a<br>b<br/>c</b></p>", make({{"a\nb\nc", {}}})},
            {"<sup>1<sub>2</sub></sup>",
             make({{"1", {NBStyle::superscript()}}, {"2", {NBStyle::subscript()}}})},
            {"<b", make({})},
            // Nesting beyond any real document is not followed, and does not make reading slow.
            {QString("<i>").repeated(100000) + "x" + QString("<u>y").repeated(1000),
             make({{"x" + QString("y").repeated(1000), {italic}}})},
            {"<b title=\"a > b\">x</b>", make({{"x", {bold}}})},
            {"<mark style=\"background-color:#ff0\">a<span "
             "style=\"background:rgba(0,0,0,0)\">b</span></mark>",
             make({{"a", {NBStyle::pop(), NBStyle::styleForBackgroundColor(NBColor(255, 255, 0))}},
                   {"b", {NBStyle::pop()}}})},
        });
}

TEST(NBStyledStringHTML, WritesFragments) {
    EXPECT_EQ(make({{"a<&>\"", {bold, italic}}, {"b", {link("http://x.org/?a=\"1\"")}}}).htmlFragmentString(),
              "<b><i>a&lt;&amp;&gt;&quot;</i></b><a href=\"http://x.org/?a=&quot;1&quot;\">b</a>");
    EXPECT_EQ(make({{"x",
                     {textColor(NBColor(255, 0, 0)), NBStyle::styleForBackgroundColor(NBColor(0, 0, 0, 16)),
                      NBStyle::smallCaps()}}})
                  .htmlFragmentString(),
              "<span style=\"background-color:#00000010\"><span style=\"font-variant:small-caps\"><span "
              "style=\"color:#FF0000\">x</span></span></span>");
    EXPECT_EQ(make({{"http://x.org", {NBStyle::hyperlink()}}}).htmlFragmentString(),
              "<a href=\"http://x.org\">http://x.org</a>");
    EXPECT_EQ(make({{" two  spaces\nline", {}}}).htmlFragmentString(),
              "<span style=\"white-space:pre-wrap\"> two  spaces<br>line</span>");
    EXPECT_EQ(make({{"one line\nnext", {}}}).htmlFragmentString(), "one line<br>next");
}

TEST(NBStyledStringMarkdown, ReadsInlineMarkdown) {
    checkReader(&NBStyledString::styledStringFromInlineMarkdownString,
                {
                    {"**b** *i* ~~s~~ x^2^ H~2~O", make({{"b", {bold}},
                                                         {" ", {}},
                                                         {"i", {italic}},
                                                         {" ", {}},
                                                         {"s", {NBStyle::strikethrough()}},
                                                         {" x", {}},
                                                         {"2", {NBStyle::superscript()}},
                                                         {" H", {}},
                                                         {"2", {NBStyle::subscript()}},
                                                         {"O", {}}})},
                    {"***bi** i* __B__ _I_ snake_case_name", make({{"bi", {bold, italic}},
                                                                   {" i", {italic}},
                                                                   {" ", {}},
                                                                   {"B", {bold}},
                                                                   {" ", {}},
                                                                   {"I", {italic}},
                                                                   {" snake_case_name", {}}})},
                    {"[the *site*](http://x.org/a_(b)) [<x>](<a b>) <https://y.org/?q=1> "
                     "[http://z.org](http://z.org)",
                     make({{"the ", {link("http://x.org/a_(b)")}},
                           {"site", {link("http://x.org/a_(b)"), italic}},
                           {" ", {}},
                           {"<x>", {link("a b")}},
                           {" ", {}},
                           {"https://y.org/?q=1", {NBStyle::hyperlink()}},
                           {" ", {}},
                           {"http://z.org", {NBStyle::hyperlink()}}})},
                    {"`*code*` \\*lit\\* \\q &amp; &alpha; &nope; a\\\nb",
                     make({{"*code* *lit* \\q & α &nope; a\nb", {}}})},
                    // Markers without a partner are text.
                    {"2 * 3 = 6, a [b c, x] (y), ^, ~~", make({{"2 * 3 = 6, a [b c, x] (y), ^, ~~", {}}})},
                    {"**a *b** c", make({{"a *b", {bold}}, {" c", {}}})},
                    {"[a](<unclosed", make({{"[a](<unclosed", {}}})},
                });
}

TEST(NBStyledStringMarkdown, WritesInlineMarkdown) {
    struct Case {
        NBStyledString styled;
        QString markdown;
    };
    const Case cases[] = {
        {make({{"bi", {bold, italic}}, {"b", {bold}}, {" plain", {}}}), "***bi*b** plain"},
        {make({{"x", {italic}}, {"y", {italic, bold}}}), "*x**y***"},
        {make({{"s", {NBStyle::strikethrough()}},
               {"2", {NBStyle::subscript(), NBStyle::strikethrough()}},
               {"3", {NBStyle::superscript()}}}),
         "~~s~2~~~^3^"},
        {make({{"*_~^[]`<&\\ # - (x)", {}}}), "\\*\\_\\~\\^\\[\\]\\`\\<\\&\\\\ # - (x)"},
        {make({{"# title\n- item", {}}}), "\\# title\\\n\\- item"},
        {make(
             {{"site", {link("http://x.org/a b")}}, {" and ", {}}, {"http://y.org", {NBStyle::hyperlink()}}}),
         "[site](<http://x.org/a b>) and [http://y.org](http://y.org)"},
        {make({{"u", {NBStyle::underline(), textColor(NBColor(255, 0, 0))}}}), "u"},
    };
    for (const Case& testCase : cases) {
        EXPECT_EQ(testCase.styled.markdownString(), testCase.markdown) << testCase.markdown.toStdString();
        const NBStyledString expected =
            NBStyledString::styledStringFromInlineMarkdownString(testCase.styled.markdownString());
        EXPECT_EQ(expected.markdownString(), testCase.markdown);
    }
}

RC_GTEST_PROP(NBStyledStringHTML, RoundTripKeepsEveryStyle, ()) {
    const NBStyledString styled = *genStyledString(StyleRange::RichText);
    RC_ASSERT(NBStyledString::styledStringFromHTMLString(styled.htmlFragmentString()) == styled);
}

RC_GTEST_PROP(NBStyledStringMarkdown, RoundTripKeepsEveryStyle, ()) {
    const NBStyledString styled = *genStyledString(StyleRange::Markdown);
    RC_ASSERT(NBStyledString::styledStringFromInlineMarkdownString(styled.markdownString()) == styled);
}

RC_GTEST_PROP(NBStyledStringHTML, ReadersAcceptAnyTextAndWriteItBack, ()) {
    // Arbitrary text (often malformed markup) reads as styled text, which writes and reads back unchanged.
    QString text = *styledtext::genMarkupLikeText();
    // HTML has no way to write U+0000: browsers read it as U+FFFD.
    text.remove(QChar(0));
    const NBStyledString html = NBStyledString::styledStringFromHTMLString(text);
    RC_ASSERT(NBStyledString::styledStringFromHTMLString(html.htmlFragmentString()) == html);
    const NBStyledString markdown = NBStyledString::styledStringFromInlineMarkdownString(text);
    RC_ASSERT(NBStyledString::styledStringFromInlineMarkdownString(markdown.markdownString()) == markdown);
}

RC_GTEST_PROP(NBStyledStringHTML, MarkupSpecialsSurviveEveryFormat, ()) {
    // Text holding what looks like markup never becomes markup: "<b>" typed is text in every format.
    const QString text = *rc::gen::element<QString>("<b>x</b>", "&lt;", "<a href=\"x\">", "**x**", "[a](b)",
                                                    "<script>", "&amp;amp;");
    const NBStyledString plain(text);
    RC_ASSERT(NBStyledString::styledStringFromHTMLString(plain.htmlFragmentString()) == plain);
    RC_ASSERT(NBStyledString::styledStringFromInlineMarkdownString(plain.markdownString()) == plain);
}

} // namespace
