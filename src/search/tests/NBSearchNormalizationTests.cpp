// Tests of search text normalisation: the search form, tokens with their ranges, highlight ranges, the fixed
// data and its consistency checks, and the in-place clean-up edits.
#include "search/NBSearchNormalization.h"
#include "search/NBTextCleanUp.h"

#include "foundation/testing/NBMessageCapture.h"

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <thread>

void PrintTo(const QString& text, std::ostream* out) {
    *out << '"' << text.toStdString() << '"';
}
void showValue(const QString& text, std::ostream& out) {
    PrintTo(text, &out);
}

namespace {

// Text for property tests: pieces that matter to normalisation (separators, ignored characters, table keys,
// accents, combining marks, width variants, dotted and dotless i), any single code unit (so unpaired
// surrogates too), and any code point beyond the Basic Multilingual Plane.
rc::Gen<QString> genSearchText() {
    static const std::vector<QString> pieces = {
        "a", "Z", "7",   " ", "  ",     "\t", "\n",     "-",      ",",      "&",      "©",      "£",
        "#", "ı", "İ",   "I", "α",      "Σ",  "ς",      "µ",      "°",      "ß",      "ﬁ",      "Ø",
        "ł", "æ", "Ü",   "é", "\u0301", "１", "Ａ",     "ｶ",      "ﾟ",      "\u3000", "\u00A0", "𐐀",
        "𝛼", "😀", "H₂O", "ǅ", "ᾳ",      "ΐ",  "\u2126", "\u212B", "\uFFE3", "\uFFE0"};
    const auto piece = rc::gen::weightedOneOf<QString>({
        {6, rc::gen::map(rc::gen::inRange<std::size_t>(0, pieces.size()),
                         [](std::size_t index) { return pieces[index]; })},
        {2, rc::gen::map(rc::gen::inRange<int>(0, 0x10000),
                         [](int unit) { return QString(QChar(char16_t(unit))); })},
        {1, rc::gen::map(rc::gen::inRange<char32_t>(0x10000, 0x110000),
                         [](char32_t codePoint) { return QString::fromUcs4(&codePoint, 1); })},
    });
    return rc::gen::map(rc::gen::container<std::vector<QString>>(piece),
                        [](const std::vector<QString>& parts) {
                            QString text;
                            for (const QString& part : parts)
                                text += part;
                            return text;
                        });
}

// The seven steps of the search form run literally, one after the other, with the clean-up edits.
QString searchFormStepByStep(QString text) {
    text = foldedStringForSearch(text);
    deleteCharactersInSet(text, ignoredCharacterSet());
    replaceCharactersInSet(text, tokenSeparatorCharacterSet(), u" ");
    const auto& dictionary = characterNormalizationDictionary();
    for (auto entry = dictionary.begin(); entry != dictionary.end(); ++entry)
        text.replace(entry.key(), entry.value());
    replaceWhitespaceAndNewlinesWithSpaces(text);
    cleanUpContiguousSpaces(text);
    trimCharactersInSet(text, NBCharacterSet::whitespaceCharacterSet());
    return text;
}

struct Token {
    QString word;
    qsizetype location;
    qsizetype length;
    bool operator==(const Token&) const = default;
};
void PrintTo(const Token& token, std::ostream* out) {
    *out << '"' << token.word.toStdString() << "\" (" << token.location << ',' << token.length << ')';
}

std::vector<Token> tokensOf(const QString& text) {
    QStringList words;
    QList<NBTextRange> ranges;
    addNormalizedSearchTokens(text, words, ranges);
    EXPECT_EQ(words.size(), ranges.size());
    std::vector<Token> tokens;
    for (qsizetype index = 0; index < std::min(words.size(), ranges.size()); ++index)
        tokens.push_back({words[index], ranges[index].location, ranges[index].length});
    return tokens;
}

// Highlight narrowing as its rule reads, one normalisation per candidate stretch: the start moves forward
// one character at a time while the search form of the rest of the word still begins with the query token,
// then the end moves back while the search form of what is left still does. A surrogate pair is one
// character.
QList<NBTextRange> rangesNarrowedOneStretchAtATime(const QString& text, const QStringList& searchTokens) {
    const auto unitsAt = [&](qsizetype index) {
        return index + 1 < text.size() && text[index].isHighSurrogate() && text[index + 1].isLowSurrogate()
                   ? 2
                   : 1;
    };
    const auto unitsBefore = [&](qsizetype end) {
        return end >= 2 && text[end - 1].isLowSurrogate() && text[end - 2].isHighSurrogate() ? 2 : 1;
    };
    const auto stillMatches = [&](qsizetype location, qsizetype length, const QString& searchToken) {
        return normalizedStringForSearch(QStringView(text).sliced(location, length)).startsWith(searchToken);
    };
    QStringList tokens;
    QList<NBTextRange> tokenRanges;
    addNormalizedSearchTokens(text, tokens, tokenRanges);
    QList<NBTextRange> ranges;
    for (const QString& searchToken : searchTokens) {
        for (qsizetype index = 0; index < tokens.size(); ++index) {
            if (searchToken.isEmpty() || !tokens[index].startsWith(searchToken))
                continue;
            const qsizetype end = tokenRanges[index].end();
            qsizetype start = tokenRanges[index].location;
            while (start + unitsAt(start) < end &&
                   stillMatches(start + unitsAt(start), end - start - unitsAt(start), searchToken))
                start += unitsAt(start);
            qsizetype length = end - start;
            while (length - unitsBefore(start + length) >= 1 &&
                   stillMatches(start, length - unitsBefore(start + length), searchToken))
                length -= unitsBefore(start + length);
            ranges.append(NBTextRange{start, length});
        }
    }
    return ranges;
}

bool liesInside(const NBTextRange& range, const QString& text) {
    return range.location >= 0 && range.length >= 0 && range.end() <= text.size();
}

} // namespace

TEST(NBSearchNormalization, FixedDataHasItsDocumentedSize) {
    EXPECT_EQ(countOfCharacterSet(ignoredCharacterSet()), 32u);
    // Zs (17 in the plane), Zl, Zp, and tab, line feed, vertical tab, form feed, carriage return, U+0085.
    EXPECT_EQ(countOfCharacterSet(NBCharacterSet::whitespaceAndNewlineCharacterSet()), 25u);
    EXPECT_EQ(countOfCharacterSet(tokenSeparatorCharacterSet()), 62u + 25u);
    EXPECT_EQ(characterNormalizationDictionary().size(), 65);
    EXPECT_EQ(countOfCharacterSet(tokenCharacterSet()), 45u);
    // The table's deliberate quirks.
    const auto& dictionary = characterNormalizationDictionary();
    EXPECT_EQ(dictionary.value("ł"), "i");
    EXPECT_EQ(dictionary.value("Ø"), "o");
    EXPECT_EQ(dictionary.value("Ö"), "oe");
    EXPECT_EQ(dictionary.value("∂"), " delta ");
    EXPECT_EQ(dictionary.value("ο"), " o ");
    for (const QChar member : QStringView(u"#©\uF8FF±"))
        EXPECT_TRUE(ignoredCharacterSet().contains(member)) << int(member.unicode());
    for (const QChar member : QStringView(u"ı@\u3000\u2029\v÷"))
        EXPECT_TRUE(tokenSeparatorCharacterSet().contains(member)) << int(member.unicode());
    for (const QChar member : QStringView(u"&αΔ∂€"))
        EXPECT_TRUE(tokenCharacterSet().contains(member)) << int(member.unicode());
    for (const QChar nonMember : QStringView(u"ałßµ"))
        EXPECT_FALSE(tokenCharacterSet().contains(nonMember)) << int(nonMember.unicode());
}

TEST(NBSearchNormalization, ConsistencyChecksReportBrokenData) {
    NBMessageCapture capture;
    // The fixed data itself passes every check.
    EXPECT_TRUE(checkCharacterNormalizationDictionary(characterNormalizationDictionary(),
                                                      "characterNormalizationDictionary"));
    EXPECT_TRUE(checkTokenSeparatorsAreNotIgnored(tokenSeparatorCharacterSet(), ignoredCharacterSet()));
    EXPECT_TRUE(capture.assertions().isEmpty()) << capture.assertions().join('\n').toStdString();

    EXPECT_FALSE(checkCharacterSetCount(NBCharacterSet::characterSetWithCharactersInString(u"#$#"), u"#$#"));
    NBCharacterSet separators = tokenSeparatorCharacterSet();
    separators.addCharactersInString(u"#$");
    EXPECT_FALSE(checkTokenSeparatorsAreNotIgnored(separators, ignoredCharacterSet()));
    const QMap<QString, QString> broken = {{"a b", "x"},  {"c", " d"}, {"e", " f g "},
                                           {"h", "i\tj"}, {"k", "  "}, {"l", " m "}};
    EXPECT_FALSE(checkCharacterNormalizationDictionary(broken, "table"));
    EXPECT_EQ(capture.assertions(),
              QStringList(
                  {"character set has 2 characters, but string has 3 characters",
                   "token separator character set should not have characters in common with ignored set but "
                   "it has 2 character(s) in common",
                   "Whitespace characters not allowed in key string in table: a b -> x",
                   "Space characters only allowed if surrounding value string in table: c ->  d",
                   "Whitespace characters not allowed within value string in table: e ->  f g ",
                   "Whitespace characters not allowed in value string in table: h -> i\tj",
                   "Space characters only allowed if surrounding value string in table: k ->   "}));
}

TEST(NBSearchNormalization, SearchFormsOfEverydayAndScientificText) {
    const std::vector<std::pair<QString, QString>> cases = {
        {"", ""},
        {" \t\n\u3000 ", ""},
        {"©®™ £$ ±", ""},
        {"-- , ; ...", ""},
        {"a  ,  b", "a b"},
        {"Müller & Søn", "muller and son"},
        {"α-helix", "alpha helix"},
        {"£5", "5"},
        {"x&y", "x and y"},
        {"TNF-α induced", "tnf alpha induced"},
        {"β-galactosidase", "beta galactosidase"},
        {"Δ5-desaturase", "delta 5 desaturase"},
        {"add 5 µL (μl)", "add 5 mu l mu l"},
        {"37 °C ± 0.5", "37 c 0 5"},
        {"ﬁsh ﬂask oﬀ", "fish flask off"},
        {"１２３ ＡＢＣ ｈｅｌａ", "123 abc hela"},
        {"Dvořák, Łukasiewicz; Ørsted; Ödön", "dvorak iukasiewicz orsted odon"},
        {"Straße Æsop Œuvre", "strasse aesop oeuvre"},
        {"[Ca2+] H2SO4 C6H12O6 H₂O", "ca2 h2so4 c6h12o6 h₂o"},
        {"50% w/v NaCl, pH=7.4", "50 w v nacl ph 7 4"},
        {"İstanbul INFO kırmızı", "istanbul info k rm z"},
        {"ΑΒΓ ά Σίσυφος", "alpha beta gamma alpha sigma iota sigma upsilon phi o sigma"},
        {"\u2126 \u212B \u2202x/\u2202t", "omega a delta x delta t"},
        {"€5 ¢ ∑", "euro 5 cent sigma"},
        {"e\u0301te\u0301 ﾊﾟﾝ パン", "ete ハン ハン"},
        {"𐐀𐐁 😀", "𐐨𐐩 😀"},
        // Unpaired surrogates, anywhere and in the wrong order, are dropped; a pair in order is kept.
        {QString("a") + QChar(0xD800) + "b" + QChar(0xDC00), "ab"},
        {QString(QChar(0xDC00)) + "x " + QChar(0xD83D) + QChar(0xD83D) + QChar(0xDE00), "x 😀"},
        {QString(QChar(0xDE00)) + QChar(0xD83D), ""},
    };
    for (const auto& [text, expected] : cases)
        EXPECT_EQ(normalizedStringForSearch(text), expected) << text.toStdString();
}

TEST(NBSearchNormalization, FoldingIsStableForEveryCodePointOfTheFirstTwoPlanes) {
    // Every character that folding produces folds to itself, which makes normalisation idempotent.
    for (char32_t codePoint = 0; codePoint < 0x20000; ++codePoint) {
        if (QChar::isSurrogate(codePoint))
            continue;
        const QString folded = foldedStringForSearch(QString::fromUcs4(&codePoint, 1));
        ASSERT_EQ(foldedStringForSearch(folded), folded) << "U+" << std::hex << unsigned(codePoint);
    }
}

RC_GTEST_PROP(NBSearchNormalization, SearchFormIsIdempotentAndEqualsTheStepsOneByOne, ()) {
    const QString text = *genSearchText();
    const QString normalized = normalizedStringForSearch(text);
    RC_ASSERT(normalized.isValidUtf16());
    RC_ASSERT(normalizedStringForSearch(normalized) == normalized);
    RC_ASSERT(searchFormStepByStep(text) == normalized);
}

TEST(NBSearchNormalization, FoldingTablesAreBuiltSafelyFromManyThreads) {
    // Each test runs in a fresh process, so these threads race to build the same folding blocks.
    const QString text = "Ωμέγα Привет 漢字 ＡＢＣ ﾊﾟﾝ Müller Łódź";
    const QString expected = "omega mu epsilon gamma alpha привет 漢字 abc ハン muller iodz";
    std::vector<QString> results(8);
    std::vector<std::thread> threads;
    for (QString& result : results)
        threads.emplace_back([&] { result = normalizedStringForSearch(text); });
    for (auto& thread : threads)
        thread.join();
    for (const QString& result : results)
        EXPECT_EQ(result, expected);
}

TEST(NBSearchNormalization, TokensRememberWhereTheyCameFrom) {
    const std::vector<std::pair<QString, std::vector<Token>>> cases = {
        {"", {}},
        {"-- ,", {}},
        {"x&y", {{"x", 0, 1}, {"and", 1, 1}, {"y", 2, 1}}},
        {"©", {{"", 0, 1}}},
        {"a,,b", {{"a", 0, 1}, {"b", 3, 1}}},
        {"Müller & Søn", {{"muller", 0, 6}, {"and", 7, 1}, {"son", 9, 3}}},
        {"α-helix", {{"alpha", 0, 1}, {"helix", 2, 5}}},
        {"TNF-αβ", {{"tnf", 0, 3}, {"alpha", 4, 1}, {"beta", 5, 1}}},
        {"Δ5 £5", {{"delta", 0, 1}, {"5", 1, 1}, {"5", 3, 2}}},
        // µ (the micro sign) is not a token character, so its word stays inside the piece it folds in.
        {"5 µL at 37 °C", {{"5", 0, 1}, {"mu l", 2, 2}, {"at", 5, 2}, {"37", 8, 2}, {"c", 12, 1}}},
        {"ﬁsh, ＡＢ", {{"fish", 0, 3}, {"ab", 5, 2}}},
        {"𐐀bc-d 𝛼", {{"𐐨bc", 0, 4}, {"d", 5, 1}, {"𝛼", 7, 2}}},
        {QString("x") + QChar(0xD800) + " " + QChar(0xDC00) + " y", {{"x", 0, 2}, {"", 3, 1}, {"y", 5, 1}}},
    };
    for (const auto& [text, expected] : cases)
        EXPECT_EQ(tokensOf(text), expected) << text.toStdString();
}

TEST(NBSearchNormalization, HighlightsCoverOnlyTheMatchedPartOfEachWord) {
    struct Case {
        QString text;
        QStringList query;
        QList<NBTextRange> expected;
    };
    const std::vector<Case> cases = {
        {"The cells divide", {"cell"}, {{4, 4}}},
        {"#cells", {"cell"}, {{1, 4}}},
        {"cell cells Cellular", {"cell"}, {{0, 4}, {5, 4}, {11, 4}}},
        {"Müller & Søn", {"mul", "and", "son"}, {{0, 3}, {7, 1}, {9, 3}}},
        {"α-helix", {"alpha", "hel"}, {{0, 1}, {2, 3}}},
        {"beta alpha", {"alpha", "beta"}, {{5, 5}, {0, 4}}},
        {"5 µL", {"mu"}, {{2, 1}}},
        {"Straße", {"strass"}, {{0, 5}}},
        {"Dvořák", {"dvor"}, {{0, 4}}},
        {"𐐀𐐀x", {"𐐨𐐨"}, {{0, 4}}},
        // The micro sign folds to the word "mu" inside its piece: the second one still begins with "m".
        {"µµ", {"m"}, {{1, 1}}},
        {QChar(0xDC00) + QString("cells"), {"cell"}, {{1, 4}}},
        {"cells", {""}, {}},
        {"cells", {"x"}, {}},
    };
    for (const Case& testCase : cases)
        EXPECT_EQ(rangesForSearchTokens(testCase.text, testCase.query), testCase.expected)
            << testCase.text.toStdString();
}

RC_GTEST_PROP(NBSearchNormalization, TokenAndHighlightRangesLieInsideTheText, ()) {
    const QString text = *genSearchText();
    QStringList tokens;
    QList<NBTextRange> ranges;
    addNormalizedSearchTokens(text, tokens, ranges);
    RC_ASSERT(tokens.size() == ranges.size());
    for (qsizetype index = 0; index < ranges.size(); ++index) {
        RC_ASSERT(tokens[index].isValidUtf16());
        RC_ASSERT(liesInside(ranges[index], text));
        RC_ASSERT(ranges[index].length > 0);
        if (index > 0)
            RC_ASSERT(ranges[index - 1].end() <= ranges[index].location);
    }
    // Every word of the text, as the query, is found again within its own token's range.
    for (qsizetype index = 0; index < std::min<qsizetype>(tokens.size(), 20); ++index) {
        if (tokens[index].isEmpty())
            continue;
        const QList<NBTextRange> highlights = rangesForSearchTokens(text, {tokens[index]});
        RC_ASSERT(std::any_of(highlights.begin(), highlights.end(), [&](const NBTextRange& highlight) {
            return highlight.length > 0 && highlight.location >= ranges[index].location &&
                   highlight.end() <= ranges[index].end();
        }));
    }
    // Any query gives ranges inside the text.
    const QString query = normalizedStringForSearch(*genSearchText());
    for (const NBTextRange& highlight : rangesForSearchTokens(text, query.split(' ')))
        RC_ASSERT(liesInside(highlight, text));
}

RC_GTEST_PROP(NBSearchNormalization, HighlightsAreThoseOfNarrowingOneStretchAtATime, ()) {
    // Words made of few distinct pieces repeat themselves, so query tokens cut from them match in many
    // places and at many depths; some pieces normalise to nothing or to several words.
    static const std::vector<QString> pieces = {"a", "b", "á", "#", "ß", "µ", "𐐀", "\u0301", "，", " "};
    const auto genText = rc::gen::weightedOneOf<QString>({
        {1, genSearchText()},
        {3, rc::gen::map(
                rc::gen::container<std::vector<std::size_t>>(rc::gen::inRange<std::size_t>(0, pieces.size())),
                [](const std::vector<std::size_t>& indexes) {
                    QString text;
                    for (const std::size_t index : indexes)
                        text += pieces[index];
                    return text;
                })},
    });
    const QString text = *genText;
    QStringList tokens;
    QList<NBTextRange> ranges;
    addNormalizedSearchTokens(text, tokens, ranges);
    QStringList query;
    for (const QString& token : tokens) {
        if (!token.isEmpty())
            query.append(token.left(*rc::gen::inRange<qsizetype>(1, token.size() + 1)));
    }
    query.append(normalizedStringForSearch(*genText));
    RC_ASSERT(rangesForSearchTokens(text, query) == rangesNarrowedOneStretchAtATime(text, query));
}

TEST(NBTextCleanUp, EditsInPlace) {
    const NBCharacterSet dashes = NBCharacterSet::characterSetWithCharactersInString(u"-–");
    struct Case {
        QString text;
        std::function<void(QString&)> edit;
        QString expected;
    };
    const QString longRun = "a" + QString(1000, ' ') + "b";
    const std::vector<Case> cases = {
        {"a--b–c-", [&](QString& text) { replaceCharactersInSet(text, dashes, u"+"); }, "a+b+c+"},
        {"-a--b", [&](QString& text) { replaceCharactersInSet(text, dashes, u"<>"); }, "<>a<>b"},
        {"a-b--c–", [&](QString& text) { deleteCharactersInSet(text, dashes); }, "abc"},
        {"--a-b–-", [&](QString& text) { trimCharactersInSet(text, dashes); }, "a-b"},
        {"---", [&](QString& text) { trimCharactersInSet(text, dashes); }, ""},
        {"a\t\n b\u00A0c\u3000\u2028d", replaceWhitespaceAndNewlinesWithSpaces, "a  b c d"},
        {"a   b  c d", cleanUpContiguousSpaces, "a b c d"},
        {longRun, cleanUpContiguousSpaces, "a b"},
    };
    for (const Case& testCase : cases) {
        QString text = testCase.text;
        testCase.edit(text);
        EXPECT_EQ(text, testCase.expected) << testCase.text.toStdString();
    }
}
