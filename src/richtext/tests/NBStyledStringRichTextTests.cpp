// Tests of styled text to and from rich text (QTextDocument character formats): the formats shown in the
// editor, pasted rich text read back as styles, and round trips of random styled text.
#include "richtext/NBStyledStringRichText.h"
#include "text/testing/NBStyledTextGenerators.h"

#include <QTextBlock>
#include <QTextCursor>
#include <QTextDocument>
#include <QTextDocumentFragment>

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

namespace {

using styledtext::genStyledString;
using styledtext::make;
using styledtext::StyleRange;

const NBStyle& bold = NBStyle::bold();
const NBStyle& italic = NBStyle::italic();
NBStyle link(const QString& address) {
    return NBStyle::styleForHyperlinkURL(address);
}
NBStyle textColor(const QColor& color) {
    return NBStyle::styleForTextColor(NBStyledStringRichText::colorFromQColor(color));
}
NBStyledString fromRichText(const QTextDocumentFragment& fragment) {
    return NBStyledStringRichText::styledStringFromAttributedString(fragment);
}

TEST(NBStyledStringRichText, ShowsStylesAsCharacterFormats) {
    QTextDocument document;
    QTextCursor cursor(&document);
    QTextCharFormat defaults;
    defaults.setFontFamilies({"Helvetica"});
    defaults.setForeground(Qt::gray);
    QTextCharFormat smallCaps;
    smallCaps.setFontPointSize(9);
    NBStyledStringRichText::insertIntoTextCursor(make({{"Hello", {bold, textColor(Qt::red)}},
                                                       {"\n", {}},
                                                       {"world", {NBStyle::smallCaps(), NBStyle::pop()}},
                                                       {"!", {NBStyle::hyperlink()}}}),
                                                 cursor, defaults, smallCaps);

    EXPECT_EQ(document.toPlainText(), "Hello\nworld!");
    const QTextCharFormat hello = document.begin().begin().fragment().charFormat();
    EXPECT_EQ(hello.fontFamilies().toStringList(), QStringList{"Helvetica"});
    EXPECT_EQ(hello.fontWeight(), QFont::Bold);
    EXPECT_EQ(hello.foreground().color(), QColor(Qt::red));
    const QTextCharFormat world = document.lastBlock().begin().fragment().charFormat();
    EXPECT_EQ(world.fontCapitalization(), QFont::SmallCaps);
    EXPECT_EQ(world.fontPointSize(), 9);
    EXPECT_FALSE(world.hasProperty(QTextFormat::ForegroundBrush));
    EXPECT_TRUE(world.property(NBPopTextFormatProperty).toBool());
    QTextCursor bang(&document);
    bang.setPosition(document.characterCount() - 1);
    EXPECT_EQ(bang.charFormat().anchorHref(), "!");
    // Reading a part of the document.
    EXPECT_EQ(NBStyledStringRichText::styledStringFromAttributedString(document, 3, 5),
              make({{"lo", {bold, textColor(Qt::red)}},
                    {"\n", {}},
                    {"wo", {NBStyle::smallCaps(), NBStyle::pop()}}}));
    // Rich text pasted as HTML reads as styled text.
    QTextDocument pasted;
    pasted.setHtml(
        "<p><b>x</b><i>y</i><span style=\"text-decoration:line-through; vertical-align:sub\">z</span>"
        "<a name=\"n\">w</a><a href=\"http://u.org\">link</a><u style=\"color:#00f\">v</u></p>");
    // Qt draws links underlined in the link colour; that is how they look, not styles of their own.
    EXPECT_EQ(NBStyledStringRichText::styledStringFromAttributedString(pasted),
              make({{"x", {bold}},
                    {"y", {italic}},
                    {"z", {NBStyle::strikethrough(), NBStyle::subscript()}},
                    {"w", {}},
                    {"link", {link("http://u.org")}},
                    {"v", {NBStyle::underline(), textColor(Qt::blue)}}}));
}

TEST(NBStyledStringRichText, PastedTextDropsDefaultBlackAndTransparentBackground) {
    // What a web word processor puts on the clipboard: every span in explicit black on transparent.
    QTextDocument pasted;
    pasted.setHtml("<span style=\"color:#000000;background-color:transparent\">plain</span><span "
                   "style=\"color:#000000;background-color:rgba(0,0,0,0)\">b</span><span "
                   "style=\"color:#ff0000;background-color:#ffff00\">marked</span>");
    EXPECT_EQ(
        NBStyledStringRichText::styledStringFromAttributedString(pasted),
        make({{"plainb", {}},
              {"marked", {textColor(Qt::red), NBStyle::styleForBackgroundColor(NBColor(255, 255, 0))}}}));
    // Black chosen in the editor stays.
    const NBStyledString chosen = make({{"ink", {textColor(Qt::black)}}});
    EXPECT_EQ(fromRichText(NBStyledStringRichText::attributedString(chosen)), chosen);
}

RC_GTEST_PROP(NBStyledStringRichText, RoundTripKeepsEveryStyle, ()) {
    const NBStyledString styled = *genStyledString(StyleRange::RichText);
    const QTextDocumentFragment fragment = NBStyledStringRichText::attributedString(styled);
    RC_ASSERT(NBStyledStringRichText::styledStringFromAttributedString(fragment) == styled);
}

RC_GTEST_PROP(NBStyledStringRichText, ReadsAnyHTMLDocument, ()) {
    // Whatever Qt's HTML reader makes of arbitrary text reads as styled text no longer than the document.
    QTextDocument document;
    document.setHtml(*styledtext::genMarkupLikeText());
    const NBStyledString rich = NBStyledStringRichText::styledStringFromAttributedString(document);
    RC_ASSERT(rich.string().size() <= document.characterCount());
}

RC_GTEST_PROP(NBStyledStringRichText, MarkupSpecialsStayText, ()) {
    // Text holding what looks like markup never becomes markup: "<b>" typed is text in rich text too.
    const QString text = *rc::gen::element<QString>("<b>x</b>", "&lt;", "<a href=\"x\">", "**x**", "[a](b)",
                                                    "<script>", "&amp;amp;");
    const NBStyledString plain(text);
    RC_ASSERT(fromRichText(NBStyledStringRichText::attributedString(plain)) == plain);
}

} // namespace
