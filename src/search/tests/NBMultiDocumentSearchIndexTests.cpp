// Tests of the multi-document index: what a scientist types finds what it should (prefixes, folding, Greek
// letters, units, operators, quotes, malformed queries), hits grouped by document, whole documents removed,
// an index file reopened, and random edits answered exactly as a scan of the current paragraphs answers.
#include "search/NBMultiDocumentSearchIndex.h"

#include "foundation/testing/NBMessageCapture.h"
#include "foundation/testing/NBTemporaryDirectory.h"
#include "search/NBSearchNormalization.h"
#include "search/NBSearchQuery.h"

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <QMap>

#include <map>
#include <set>

namespace {

constexpr double waitSeconds = 30;

NBParagraph paragraphWithText(const QString& uuid, const QString& text, const QString& type = "normal") {
    return *NBParagraph::paragraphWithUUID(uuid, {{"type", type}, {"content", text}});
}

// "document/paragraph" of every hit, in the order found.
QStringList hitsOf(NBMultiDocumentSearchIndex& index, const QString& query) {
    bool timedOut = true;
    QStringList hits;
    for (const NBDocumentSearchResult& document :
         index.searchResultsForQuery(query, waitSeconds, &timedOut)) {
        for (const NBParagraphSearchHit& paragraph : document.paragraphs)
            hits << document.documentUUID + "/" + paragraph.paragraphUUID;
    }
    EXPECT_FALSE(timedOut);
    return hits;
}

QStringList sorted(QStringList list) {
    list.sort();
    return list;
}

} // namespace

TEST(NBMultiDocumentSearchIndex, FindsWhatAScientistTypes) {
    auto index = NBMultiDocumentSearchIndex::inMemoryIndexWithName("content");
    const std::map<QString, std::vector<std::pair<QString, QString>>> documents = {
        {"D1",
         {{"P1", "Incubate cells for 30 min at 37 °C."},
          {"P2", "Incubation overnight with 5 μL antibody"},
          {"P3", "Ångström-scale resolution"},
          {"P4", "PCR of the α-helix region"}}},
        {"D2",
         {{"P5", "Müller buffer, ＰＣＲ clean-up"}, {"P6", "alpha helix content"}, {"P7", "western blot"}}},
        {"D3", {{"P8", "β-galactosidase assay with 10 µl"}, {"P9", "cells divided"}}},
    };
    for (const auto& [document, paragraphs] : documents) {
        QList<NBParagraph> list;
        for (const auto& [uuid, text] : paragraphs)
            list << paragraphWithText(uuid, text);
        ASSERT_TRUE(index->addParagraphs(list, document));
    }
    const std::vector<std::pair<QString, QStringList>> cases = {
        // A prefix finds the word, whatever its case.
        {"incub", {"D1/P1", "D1/P2"}},
        {"INCUBATION", {"D1/P2"}},
        // Accents, case and width are folded.
        {"angstrom", {"D1/P3"}},
        {"Ångström", {"D1/P3"}},
        {"ＰＣＲ", {"D1/P4", "D2/P5"}},
        {"pcr", {"D1/P4", "D2/P5"}},
        {"muller", {"D2/P5"}},
        // Greek letters and their names meet.
        {"alpha", {"D1/P4", "D2/P6"}},
        {"α", {"D1/P4", "D2/P6"}},
        {"β-gal", {"D3/P8"}},
        {"beta galacto", {"D3/P8"}},
        // The micro sign and the Greek mu are one letter.
        {"µl", {"D1/P2", "D3/P8"}},
        {"μL", {"D1/P2", "D3/P8"}},
        // Two words must both occur; OR and parentheses typed by the user work.
        {"cells incub", {"D1/P1"}},
        {"cell div", {"D3/P9"}},
        {"incub OR western", {"D1/P1", "D1/P2", "D2/P7"}},
        {"(western OR pcr) clean", {"D2/P5"}},
        {"( western OR blot ) OR resolution", {"D1/P3", "D2/P7"}},
        // A quoted query is a list of prefixes, not a phrase.
        {"\"cell incub\"", {"D1/P1"}},
        {"\"37 cells\"", {"D1/P1"}},
        // Malformed queries find nothing.
        {"incub OR", {}},
        {"(incub", {}},
        {"\"", {}},
        {"", {}},
        {"©", {}},
        {"OR", {}},
    };
    NBMessageCapture capture;
    for (const auto& [query, expected] : cases)
        EXPECT_EQ(sorted(hitsOf(*index, query)), expected) << query.toStdString();
    EXPECT_TRUE(capture.assertions().isEmpty());
}

TEST(NBMultiDocumentSearchIndex, GroupsHitsByDocumentAndForgetsRemovedOnes) {
    auto index = NBMultiDocumentSearchIndex::inMemoryIndexWithName("content");
    ASSERT_TRUE(index->addParagraphs({paragraphWithText("A1", "plasmid prep"),
                                      paragraphWithText("A2", "miniprep kit"),
                                      paragraphWithText("A3", "glycerol stock")},
                                     "DOC-A"));
    ASSERT_TRUE(index->addParagraph(paragraphWithText("B1", "plasmid map"), "DOC-B"));
    // A document whose UUID begins like another's keeps its own rows.
    ASSERT_TRUE(index->addParagraph(paragraphWithText("C1", "plasmid glycerol"), "DOC-AB"));
    bool timedOut = true;
    const QList<NBDocumentSearchResult> results =
        index->searchResultsForQuery("plasmid OR glycerol", waitSeconds, &timedOut);
    ASSERT_EQ(results.size(), 3);
    EXPECT_EQ(results[0].documentUUID, "DOC-A");
    EXPECT_EQ(results[0].paragraphs, QList<NBParagraphSearchHit>({{"A1", {0}}, {"A3", {1}}}));
    EXPECT_EQ(results[0].phraseMatchIndexes, QSet<unsigned>({0, 1}));
    EXPECT_EQ(results[0].phraseCount, 2u);
    EXPECT_EQ(results[1].paragraphs, QList<NBParagraphSearchHit>({{"B1", {0}}}));
    EXPECT_EQ(results[2].paragraphs, QList<NBParagraphSearchHit>({{"C1", {0, 1}}}));

    // Removing a paragraph, a document, and turning a paragraph into a day: none of them is found again.
    EXPECT_TRUE(index->removeParagraphWithUUID("A2", "DOC-A"));
    EXPECT_FALSE(index->removeParagraphWithUUID("never", "DOC-A"));
    EXPECT_EQ(hitsOf(*index, "prep"), QStringList({"DOC-A/A1"}));
    EXPECT_TRUE(index->removeDocumentWithUUID("DOC-A"));
    EXPECT_EQ(sorted(hitsOf(*index, "plasmid")), QStringList({"DOC-AB/C1", "DOC-B/B1"}));
    NBParagraph day = *NBParagraph::paragraphWithUUID("B1", {{"type", "day"}, {"dayRep", "2024-03-01"}});
    EXPECT_TRUE(index->addParagraph(day, "DOC-B"));
    EXPECT_EQ(hitsOf(*index, "plasmid"), QStringList({"DOC-AB/C1"}));
    EXPECT_GT(index->staleRowCount(), 0);
    // Refused input.
    EXPECT_FALSE(index->addParagraph(paragraphWithText("X", "text"), ""));
    EXPECT_FALSE(index->addParagraph(paragraphWithText("X", "text"), "A/B"));
    EXPECT_FALSE(index->removeDocumentWithUUID(""));
    // Several documents at once: all or nothing.
    EXPECT_FALSE(index->addParagraphsOfDocuments(
        {{"DOC-C", {paragraphWithText("C9", "zebrafish")}}, {"A/B", {paragraphWithText("X", "zebrafish")}}}));
    EXPECT_EQ(hitsOf(*index, "zebrafish"), QStringList());
    EXPECT_TRUE(index->addParagraphsOfDocuments({{"DOC-C", {paragraphWithText("C9", "zebrafish")}},
                                                 {"DOC-D", {paragraphWithText("D1", "zebrafish")}}}));
    EXPECT_EQ(hitsOf(*index, "zebrafish"), QStringList({"DOC-C/C9", "DOC-D/D1"}));
}

TEST(NBMultiDocumentSearchIndex, IndexFileIsFoundAgainWhenReopened) {
    NBTemporaryDirectory directory;
    const QUrl url = QUrl::fromLocalFile(directory.filePath("experiment_content.searchdb"));
    {
        auto index = NBMultiDocumentSearchIndex::persistedIndexWithName("experimentContent", url);
        ASSERT_TRUE(index->addParagraphs({paragraphWithText("P1", "chromatin immunoprecipitation")}, "D1"));
        index->close();
    }
    auto reopened = NBMultiDocumentSearchIndex::persistedIndexWithName("experimentContent", url);
    EXPECT_TRUE(reopened->checkDatabaseWithError());
    EXPECT_TRUE(reopened->searchIndex()->contentLess());
    EXPECT_EQ(hitsOf(*reopened, "chromatin"), QStringList({"D1/P1"}));
}

TEST(NBSearchQuery, WordsAreNormalisedAndSyntaxIsKept) {
    const std::vector<std::pair<QString, QString>> cases = {
        {"Ångström OR ＰＣＲ", "angstrom OR pcr"},
        {"(α-helix OR β) Müller", "(alpha helix OR beta) muller"},
        {"\"5 µL\"", "\"5 mu l\""},
        {"\"open quote", "\"open quote\""},
        {"  cells\t\tAND\ndivision ", "cells AND division"},
        {"( a OR b )", "( a OR b )"},
        {"© or", "or"},
        {"((x))", "((x))"},
    };
    for (const auto& [query, expected] : cases)
        EXPECT_EQ(normalizedQueryForSearch(query), expected) << query.toStdString();
    EXPECT_EQ(searchTokensForQuery(u"(α-helix OR β) \"x\" AND α"),
              QStringList({"alpha", "helix", "beta", "x"}));
}

namespace {

// Words of the random texts and queries: some share prefixes, some fold to the same search form.
const QStringList vocabulary = {"cell",  "cells",    "cellular", "buffer", "Buffer", "µl",     "μl", "α",
                                "alpha", "incubate", "ångström", "angle",  "pcr",    "ＰＣＲ", "gel"};

struct Edit {
    enum Kind { Add, RemoveParagraph, RemoveDocument } kind;
    int document;
    int paragraph;
    std::vector<int> words;
};

void showValue(const Edit& edit, std::ostream& out) {
    out << (edit.kind == Edit::Add               ? "add"
            : edit.kind == Edit::RemoveParagraph ? "remove"
                                                 : "remove document")
        << " D" << edit.document << "/P" << edit.paragraph;
    for (const int word : edit.words)
        out << ' ' << vocabulary[word].toStdString();
}

rc::Gen<std::vector<int>> genWords(int maximum) {
    return rc::gen::mapcat(rc::gen::inRange(1, maximum + 1), [](int count) {
        return rc::gen::container<std::vector<int>>(std::size_t(count),
                                                    rc::gen::inRange<int>(0, int(vocabulary.size())));
    });
}

rc::Gen<Edit> genEdit() {
    return rc::gen::apply(
        [](int kind, int document, int paragraph, std::vector<int> words) {
            return Edit{kind < 7   ? Edit::Add
                        : kind < 9 ? Edit::RemoveParagraph
                                   : Edit::RemoveDocument,
                        document, paragraph, std::move(words)};
        },
        rc::gen::inRange(0, 10), rc::gen::inRange(0, 3), rc::gen::inRange(0, 4), genWords(4));
}

// Whether the search form `text` holds every word of `query` (one or two words joined by space or OR) as
// the beginning of one of its words.
bool scanMatches(const QString& text, const QStringList& words, bool any) {
    const QStringList tokens = text.split(u' ', Qt::SkipEmptyParts);
    const auto holds = [&](const QString& word) {
        return std::any_of(tokens.begin(), tokens.end(),
                           [&](const QString& token) { return token.startsWith(word); });
    };
    return any ? std::any_of(words.begin(), words.end(), holds)
               : std::all_of(words.begin(), words.end(), holds);
}

} // namespace

RC_GTEST_PROP(NBMultiDocumentSearchIndex, AnswersWhatAScanOfTheCurrentParagraphsAnswers, ()) {
    const auto edits = *rc::gen::container<std::vector<Edit>>(genEdit());
    auto index = NBMultiDocumentSearchIndex::inMemoryIndexWithName("property");
    // The current paragraphs: "D<n>/P<m>" -> text.
    std::map<QString, QString> current;
    for (const Edit& edit : edits) {
        const QString document = "D" + QString::number(edit.document);
        const QString paragraph = "P" + QString::number(edit.paragraph);
        if (edit.kind == Edit::Add) {
            QStringList words;
            for (const int word : edit.words)
                words << vocabulary[word];
            RC_ASSERT(index->addParagraph(paragraphWithText(paragraph, words.join(' ')), document));
            current[document + "/" + paragraph] = words.join(' ');
        } else if (edit.kind == Edit::RemoveParagraph) {
            index->removeParagraphWithUUID(paragraph, document);
            current.erase(document + "/" + paragraph);
        } else {
            RC_ASSERT(index->removeDocumentWithUUID(document));
            std::erase_if(current, [&](const auto& entry) { return entry.first.startsWith(document + "/"); });
        }
    }
    for (int round = 0; round < 4; ++round) {
        const std::vector<int> queryWords = *genWords(2);
        QStringList typed;
        QStringList normalizedWords;
        for (const int word : queryWords) {
            // A prefix of the word as typed, so queries hit the middle of words too.
            const QString& full = vocabulary[word];
            typed << full.left(*rc::gen::inRange<qsizetype>(1, full.size() + 1));
            normalizedWords << normalizedStringForSearch(typed.back()).split(u' ', Qt::SkipEmptyParts);
        }
        // OR only between words that stay one word each ("µl" becomes two, which AND joins, and AND binds
        // less tightly than OR).
        const bool any =
            normalizedWords.size() == qsizetype(queryWords.size()) && *rc::gen::arbitrary<bool>();
        const QString query = typed.join(any ? " OR " : " ");
        QStringList expected;
        for (const auto& [identifier, text] : current) {
            if (scanMatches(normalizedStringForSearch(text), normalizedWords, any))
                expected << identifier;
        }
        RC_ASSERT(sorted(hitsOf(*index, query)) == expected);
    }
}
