// Tests of finding text within an open document: what is indexed on the first query, edits on this device
// and another device's edits brought by a sync, and paragraphs that left the layout.
#include "search/NBSingleDocumentSearchIndex.h"

#include "document/NBExperiment.h"
#include "document/NBProtocol.h"
#include "foundation/testing/NBTemporaryDirectory.h"
#include "search/NBSearchQuery.h"

#include <gtest/gtest.h>

namespace {

QStringList found(NBSingleDocumentSearchIndex& index, const QString& typed) {
    bool timedOut = true;
    QStringList identifiers;
    for (const NBSearchResult& result :
         index.searchResultsForQuery(normalizedQueryForSearch(typed), 0, 30, &timedOut))
        identifiers << result.documentIdentifier();
    EXPECT_FALSE(timedOut);
    identifiers.sort();
    return identifiers;
}

} // namespace

TEST(NBSingleDocumentSearchIndex, FindsMetadataAndParagraphsAndFollowsEdits) {
    auto protocol = NBProtocol::inMemoryProtocol();
    protocol->setTitle("Growth curve");
    protocol->setAuthor("Ada Lovelace");
    protocol->setCategories({"microbiology", "kinetics"});
    NBParagraph measure = NBParagraph::normalParagraphWithContent("<b>OD600</b> measured hourly");
    NBParagraph incubate = NBParagraph::normalParagraphWithContent("Incubate at 37 °C");
    protocol->appendParagraph(measure);
    protocol->appendParagraph(incubate);
    protocol->appendParagraph(NBParagraph::dayParagraphWithDayRep("2024-03-01"));

    auto index = NBSingleDocumentSearchIndex::singleDocumentSearchIndexWithDocument(protocol);
    EXPECT_EQ(index->indexName(), "Growth curve " + protocol->uuid());
    EXPECT_TRUE(index->inMemory());
    EXPECT_EQ(found(*index, "od600 hourly"), QStringList({measure.uuid()}));
    EXPECT_EQ(found(*index, "incub"), QStringList({incubate.uuid()}));
    EXPECT_EQ(found(*index, "growth"), QStringList({"title"}));
    EXPECT_EQ(found(*index, "lovelace"), QStringList({"author"}));
    EXPECT_EQ(found(*index, "kinetic"), QStringList({"categories"}));
    EXPECT_TRUE(index->isSetUp());

    // Edits are followed through the document's change notifications.
    incubate.setContent("Incubate at 30 °C, shaking");
    protocol->modifyParagraph(incubate);
    protocol->setTitle("Growth at 30 degrees");
    NBParagraph added = NBParagraph::normalParagraphWithContent("Shaking at 200 rpm");
    protocol->appendParagraph(added);
    protocol->removeParagraph(measure);
    protocol->waitUntilFinished();
    QStringList shaking = {added.uuid(), incubate.uuid()};
    shaking.sort();
    EXPECT_EQ(found(*index, "shak"), shaking);
    EXPECT_EQ(found(*index, "30"), QStringList({incubate.uuid(), "title"}));
    EXPECT_EQ(found(*index, "37"), QStringList());
    // A paragraph that left the layout is no longer found.
    EXPECT_EQ(found(*index, "hourly"), QStringList());
}

TEST(NBSingleDocumentSearchIndex, FollowsAnotherDevicesEditsAfterASync) {
    NBTemporaryDirectory directory;
    auto writer = NBExperiment::newExperimentInFolder(directory.path(), "writer", "Cloning");
    ASSERT_TRUE(writer);
    NBParagraph digest = NBParagraph::normalParagraphWithContent("Digest with EcoRI");
    writer->appendParagraph(digest);
    ASSERT_TRUE(writer->saveNow());
    auto reader = NBDocument::openDocumentAtPath(writer->storePath(), "reader");
    ASSERT_TRUE(reader);
    auto index = NBSingleDocumentSearchIndex::singleDocumentSearchIndexWithDocument(reader);
    EXPECT_EQ(found(*index, "ecori"), QStringList({digest.uuid()}));

    digest.setContent("Digest with BamHI");
    writer->modifyParagraph(digest);
    NBParagraph ligate = NBParagraph::normalParagraphWithContent("Ligate overnight");
    writer->appendParagraph(ligate);
    ASSERT_TRUE(writer->saveNow());
    reader->syncNow();
    reader->waitUntilFinished();
    EXPECT_EQ(found(*index, "bamhi"), QStringList({digest.uuid()}));
    EXPECT_EQ(found(*index, "ecori"), QStringList());
    EXPECT_EQ(found(*index, "ligat"), QStringList({ligate.uuid()}));
    writer->tearDownNow();
    reader->tearDownNow();
}

// A query's block used to keep the index (and through it the document) until the block was destroyed on the
// search queue, after the answer: dropped by its owner then, the index was destroyed on that queue, at
// process exit after the notification centre was gone.
TEST(NBSingleDocumentSearchIndex, IndexAndDocumentGoWithTheirLastOwnerAfterAQuery) {
    auto protocol = NBProtocol::inMemoryProtocol();
    protocol->appendParagraph(NBParagraph::normalParagraphWithContent("Vortex briefly"));
    // Its change notification is delivered before the index follows the document, so no delivery holds the
    // index for a moment later on.
    protocol->waitUntilFinished();
    auto index = NBSingleDocumentSearchIndex::singleDocumentSearchIndexWithDocument(protocol);
    EXPECT_EQ(found(*index, "vortex").size(), 1);
    const std::weak_ptr<NBSingleDocumentSearchIndex> weakIndex = index;
    const std::weak_ptr<NBDocument> weakDocument = protocol;
    index.reset();
    EXPECT_TRUE(weakIndex.expired());
    protocol->tearDownNow();
    protocol.reset();
    EXPECT_TRUE(weakDocument.expired());
}
