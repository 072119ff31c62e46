// Tests of inserting a protocol into an experiment from a calendar day: days in order, step identities,
// derived copies, travelling attachments and marking steps done.
#include "NBDocumentTestSupport.h"

#include "document/NBProtocol.h"
#include "foundation/testing/NBTemporaryDirectory.h"

#include <gtest/gtest.h>

namespace {

TEST(NBProtocolInsertion, AThreeDayProtocolMergesIntoTheExperimentsDays) {
    NBTemporaryDirectory directory;
    auto protocol = NBProtocol::newProtocolInFolder(directory.filePath("Protocols"), "device", "Culture");
    auto experiment =
        NBExperiment::newExperimentInFolder(directory.filePath("Experiments"), "device", "Run 1");
    ASSERT_TRUE(protocol && experiment);

    const NBParagraph intro = NBParagraph::noteParagraphWithContent("read first");
    const NBParagraph seed = NBParagraph::stepParagraphWithTitle("seed", QString(), QString());
    const NBParagraph seedNote = NBParagraph::normalParagraphWithContent("1e5 cells");
    const NBParagraph feed = NBParagraph::stepParagraphWithTitle("feed", QString(), QString());
    const NBParagraph image = NBParagraph::attachmentParagraphWithContent("plate map", "/lab/plate.pdf");
    const NBParagraph harvest = NBParagraph::stepParagraphWithTitle("harvest", QString(), QString());
    protocol->insertParagraphs(
        {intro, NBParagraph::dayParagraphWithDay(NBDay::relativeDayWithInteger(0)), seed, seedNote,
         NBParagraph::dayParagraphWithDay(NBDay::relativeDayWithInteger(1)), feed,
         NBParagraph::dayParagraphWithDay(NBDay::relativeDayWithInteger(2)), image, harvest},
        QString());
    ASSERT_TRUE(protocol->writeAttachmentData("PDF", image));
    experiment->insertParagraphs(paragraphsFromLabels({"day 2024-03-08", "already there"}), QString());

    NBError error;
    const QList<NBParagraph> inserted =
        experiment->insertProtocol(*protocol, calendarDay(2024, 3, 7), {}, &error);
    EXPECT_TRUE(error.isNull()) << error.description().toStdString();
    ASSERT_EQ(inserted.size(), 6);
    EXPECT_EQ(labels(experiment->paragraphs()),
              QStringList({"day 2024-03-07", "read first", "seed", "1e5 cells", "day 2024-03-08",
                           "already there", "feed", "day 2024-03-09", "plate map", "harvest"}));
    QStringList days;
    for (const NBDay& day : experiment->days())
        days.append(day.yearMonthDayISO8601String());
    EXPECT_EQ(days, QStringList({"2024-03-07", "2024-03-08", "2024-03-09"}));

    // Steps carry the protocol step's identity; other paragraphs name the paragraph they derive from.
    const QList<NBParagraph> steps = experiment->paragraphsWithType("step");
    ASSERT_EQ(steps.size(), 3);
    const QList<NBParagraph> originals = {seed, feed, harvest};
    for (int index = 0; index < 3; ++index) {
        EXPECT_EQ(steps[index].stepUUID(), originals[index].uuid());
        EXPECT_EQ(steps[index].protocolUUID(), protocol->uuid());
        EXPECT_NE(steps[index].uuid(), originals[index].uuid());
        EXPECT_TRUE(steps[index].parentUUID().isNull());
    }
    const NBParagraph copiedNote = experiment->paragraphsWithType("normal").first();
    EXPECT_EQ(copiedNote.parentUUID(), seedNote.uuid());
    const NBParagraph copiedImage = experiment->paragraphsWithType("attachment").first();
    EXPECT_EQ(experiment->attachmentDataForParagraph(copiedImage), QByteArray("PDF"));

    // Marking steps done and undone.
    experiment->setParagraphDone(steps[0].uuid(), true);
    experiment->setParagraphDone(steps[2].uuid(), true);
    experiment->setParagraphDone(steps[0].uuid(), false);
    EXPECT_EQ(experiment->doneParagraphUUIDs(), QStringList({steps[2].uuid()}));

    // A selection inserted again from a later day: only the chosen paragraph, on its shifted day.
    experiment->insertProtocol(*protocol, calendarDay(2024, 3, 8), {harvest.uuid()}, &error);
    EXPECT_EQ(labels(experiment->paragraphsForDay(calendarDay(2024, 3, 10))), QStringList({"harvest"}));

    // An attachment whose blob is missing is still inserted, and reported.
    protocol->deleteAttachmentForParagraph(image);
    error = NBError();
    experiment->insertProtocol(*protocol, calendarDay(2024, 4, 1), {image.uuid()}, &error);
    EXPECT_FALSE(error.isNull());
    EXPECT_EQ(labels(experiment->paragraphsForDay(calendarDay(2024, 4, 3))), QStringList({"plate map"}));
    protocol->tearDownNow();
    experiment->tearDownNow();
}

} // namespace
